// AP<T>: an array of pointers to T, which it owns. Destroying an entry is
// Free for strings (the entries are _wcsdup copies, from the C heap) and for
// variable-size records (Malloc blocks), delete for everything else.
//
// Only records are ever persisted: see ZR_RecordTraits. For any other T the
// serialisers exist and return false.
//
// Threads: as A<T>; the lock of g_DBs is an AP lock and nests.
#pragma once

#include <cstdint>

#include "diag/ZR_Error.h"
#include "foundation/ArrayStore.h"

// Records of variable size: structures whose first field is the SQL_HEADER,
// whose m_size is the size of the whole record. A record type opts in:
//
//     template <> struct ZR_RecordTraits<SQL_FILE_INFO> : ZR_RecordHeaderSize<SQL_FILE_INFO> {};
//
// which reads m_size through the header (a base class or the first member
// named m_size). A type with another layout specialises Size and kMinSize,
// the least size a record can have, itself.
template <class T>
struct ZR_RecordTraits {
    static constexpr bool kIsRecord = false;
};

template <class T>
struct ZR_RecordHeaderSize {
    static constexpr bool kIsRecord = true;
    static constexpr uint32_t kMinSize = 8;  // the header: four-character type, then the size
    static uint32_t Size(const T& r) { return r.m_size; }
};

// How an owned entry is destroyed.
template <class T>
struct ZR_EntryDestroy {
    static void Destroy(T* p) {
        if constexpr (ZR_RecordTraits<T>::kIsRecord)
            Free(&p);
        else
            delete p;
    }
};
template <>
struct ZR_EntryDestroy<wchar_t> {
    static void Destroy(wchar_t* p) { Free(&p); }
};
template <>
struct ZR_EntryDestroy<char> {
    static void Destroy(char* p) { Free(&p); }
};

template <class T>
class AP : public ZR_ArrayStore<T*, true> {
    using Store = ZR_ArrayStore<T*, true>;

public:
    using Store::m_a;
    using Store::m_bMapped;
    using Store::m_i;

    AP() = default;
    AP(AP&& o) noexcept = default;
    ~AP() { Fini(); }

    void Init() { Store::InitStore(); }
    void Fini() {
        Clean();
        zr_array::FiniLock(&this->m_cs, &this->m_bcsInitialized);
    }
    // Destroys every entry and frees the pointer block; entries that lie in
    // a mapped view are only forgotten.
    void Clean() {
        auto lock = this->Guard();
        for (int i = 0; i < m_i; i++) DestroyEntry(m_a[i]);
        Free(&m_a, &this->m_iAlloc);
        m_i = 0;
        m_bMapped = false;
    }

    // Entry i. A caller that is not sure of the index asks Exists first; a
    // bad index is still caught as a bound failure rather than read wild.
    T* operator()(int i) {
        auto lock = this->Guard();
        if (!this->Exists(i))
            zr_array::BoundFailure("bad template AP operator ()", "bad template AP operator () iX: %d m_i: %d\n", i,
                                   m_i);
        return m_a[i];
    }

    T* Insert(int i, T* p) {
        auto lock = this->Guard();
        *this->OpenSlot(i) = p;
        return p;
    }
    T* Append(T* p) {
        auto lock = this->Guard();  // m_i is read under the lock too
        return Insert(m_i, p);
    }
    T* Prepend(T* p) { return Insert(0, p); }

    // Grows to i + 1 entries when needed, the new ones null.
    void Set(int i) {
        if (i < 0) return;
        auto lock = this->Guard();
        if (i < m_i) return;
        this->Reserve(static_cast<long long>(i) + 1);
        for (int j = m_i; j <= i; j++) m_a[j] = nullptr;
        m_i = i + 1;
    }
    // Stores p at i, destroying the entry that stood there.
    T* Set(int i, T* p) {
        if (i < 0) return p;
        auto lock = this->Guard();
        Set(i);
        if (m_a[i] != p) DestroyEntry(m_a[i]);
        m_a[i] = p;
        return p;
    }
    void Clear(int i) {
        auto lock = this->Guard();
        if (!this->Exists(i)) return;
        DestroyEntry(m_a[i]);
        m_a[i] = nullptr;
    }
    // Takes entry i out; with bDestroy false the object stays alive and
    // belongs to the caller.
    void Remove(int i, bool bDestroy) {
        auto lock = this->Guard();
        if (!this->Exists(i)) return;
        if (bDestroy) DestroyEntry(m_a[i]);
        this->CloseSlot(i);
    }
    void Swap(int i, int j) {
        auto lock = this->Guard();
        if (!this->Exists(i) || !this->Exists(j)) return;
        T* p = m_a[i];
        m_a[i] = m_a[j];
        m_a[j] = p;
    }

    // The record form: the number of entries, then for each its size (0 for
    // a null entry) and its bytes.
    template <class File>
    bool SerializeWrite(File* pFile) {
        if constexpr (!ZR_RecordTraits<T>::kIsRecord) {
            return false;
        } else {
            auto lock = this->Guard();
            unsigned iCount = static_cast<unsigned>(m_i);
            if (g_iTraceMode) TraceLine("SerializeWrite: #%u\n", iCount);
            if (!pFile->Write(&iCount, sizeof(iCount), 1)) return false;
            for (int i = 0; i < m_i; i++) {
                uint32_t cb = m_a[i] ? ZR_RecordTraits<T>::Size(*m_a[i]) : 0;
                if (g_iTraceMode) TraceLine("SerializeWrite: %u * %u\n", 1u, cb);
                if (!pFile->Write(&cb, sizeof(cb), 1)) return false;
                if (cb && !pFile->Write(m_a[i], cb, 1)) return false;
            }
            return true;
        }
    }

    // Appends only the entries that have a size, so null entries do not come
    // back and the indices behind them move down.
    template <class File>
    bool SerializeRead(File* pFile) {
        if constexpr (!ZR_RecordTraits<T>::kIsRecord) {
            return false;
        } else {
            auto lock = this->Guard();
            Clean();
            unsigned iCount = 0;
            if (!pFile->Read(&iCount, sizeof(iCount), 1)) return false;
            if (g_iTraceMode) TraceLine("SerializeRead: #%u\n", iCount);
            if (!zr_array::CheckReadCount(iCount, sizeof(T*), "AP::SerializeRead")) return false;
            for (unsigned i = 0; i < iCount; i++)
                if (!ReadRecord(pFile)) return false;
            Init();
            return true;
        }
    }

private:
    void DestroyEntry(T* p) {
        if (p && !m_bMapped) ZR_EntryDestroy<T>::Destroy(p);
    }

    template <class File>
    bool ReadRecord(File* pFile) {
        uint32_t cb = 0;
        if (!pFile->Read(&cb, sizeof(cb), 1)) return false;
        if (g_iTraceMode) TraceLine("SerializeRead: %u * %u\n", 1u, cb);
        if (cb == 0) return true;
        if (cb < ZR_RecordTraits<T>::kMinSize || !zr_array::CheckReadCount(1, cb, "AP::SerializeRead")) return false;
        void* p = nullptr;
        unsigned cbAlloc = 0;
        bool bMapped = pFile->MapOrAlloc(&p, cb, 1, &cbAlloc);
        if (!p) return false;
        if (bMapped) m_bMapped = true;
        T* pRecord = static_cast<T*>(p);
        // Counted before the read, so that a failed read is still cleaned up.
        Append(pRecord);
        if (!pFile->Read(p, cb, 1)) return false;
        if (ZR_RecordTraits<T>::Size(*pRecord) != cb) {
            ZR_Error(nullptr, __FILE__, "AP::SerializeRead", __LINE__,
                     "Record size %u does not match its header size %u in map file\n", cb,
                     ZR_RecordTraits<T>::Size(*pRecord));
            return false;
        }
        return true;
    }
};
