// A<T>: an array of T by value, with its own recursive lock, growing by a
// quarter. It can be read from a map file by copying or, in mapped mode, by
// pointing straight into the file's view; then m_bMapped is set and the
// elements are never freed or reallocated in place (a change copies them
// out first).
//
// Elements are moved with memcpy when T is trivially copyable. Other element
// types (arrays of arrays) need a move constructor, and are serialised one
// by one through their own SerializeRead/SerializeWrite.
//
// A bad index on operator() is a bound failure: the trace goes on in mode 2,
// the reason is traced, and the text "bad template A operator ()" is thrown.
#pragma once

#include "foundation/ArrayStore.h"

template <class T>
class A : public ZR_ArrayStore<T> {
    using Store = ZR_ArrayStore<T>;

public:
    using Store::m_a;
    using Store::m_bMapped;
    using Store::m_i;
    using Store::m_iAlloc;

    A() = default;
    A(A&& o) noexcept = default;
    ~A() { Fini(); }

    void Init() { Store::InitStore(); }
    // Destroys the elements, then the lock; Lock does nothing afterwards.
    void Fini() {
        Clean();
        zr_array::FiniLock(&this->m_cs, &this->m_bcsInitialized);
    }
    void Clean() {
        auto lock = this->Guard();
        if (!m_bMapped) zr_array::Destroy(m_a, 0, m_i);
        this->ReleaseBlock();
    }

    T& operator()(int i) {
        auto lock = this->Guard();
        if (!this->Exists(i))
            zr_array::BoundFailure("bad template A operator ()", "bad template A operator () iX: %d m_i: %d\n", i,
                                   m_i);
        return m_a[i];
    }

    template <class... Args>
    T& Insert(int i, Args&&... args) {
        T v(std::forward<Args>(args)...);
        auto lock = this->Guard();
        T* p = this->OpenSlot(i);
        new (p) T(std::move(v));
        return *p;
    }
    template <class... Args>
    T& Append(Args&&... args) {
        auto lock = this->Guard();  // m_i is read under the lock too
        return Insert(m_i, std::forward<Args>(args)...);
    }
    template <class... Args>
    T& Prepend(Args&&... args) {
        return Insert(0, std::forward<Args>(args)...);
    }

    // Grows to i + 1 elements when needed; the new ones are value-initialised.
    void Set(int i) {
        if (i < 0) return;
        auto lock = this->Guard();
        if (i < m_i) return;
        this->Reserve(static_cast<long long>(i) + 1);
        zr_array::Construct(m_a, m_i, i + 1);
        m_i = i + 1;
    }
    T& Set(int i, const T& v) {
        auto lock = this->Guard();
        Set(i);
        Unmap();
        return m_a[i] = v;
    }
    // Puts a value-initialised element in place of element i.
    void Clear(int i) {
        auto lock = this->Guard();
        if (!this->Exists(i)) return;
        Unmap();
        m_a[i].~T();
        new (&m_a[i]) T();
    }
    void Remove(int i) {
        auto lock = this->Guard();
        if (!this->Exists(i)) return;
        Unmap();
        m_a[i].~T();
        this->CloseSlot(i);
    }
    void Swap(int i, int j) {
        auto lock = this->Guard();
        if (!this->Exists(i) || !this->Exists(j) || i == j) return;
        Unmap();
        T tmp(std::move(m_a[i]));
        m_a[i].~T();
        new (&m_a[i]) T(std::move(m_a[j]));
        m_a[j].~T();
        new (&m_a[j]) T(std::move(tmp));
    }

    // The persisted form: the count (4 bytes), then the elements as they
    // stand in memory, or each element's own form.
    template <class File>
    bool SerializeWrite(File* pFile) {
        auto lock = this->Guard();
        unsigned iCount = static_cast<unsigned>(m_i);
        if (g_iTraceMode) TraceLine("SerialiseWrite: %u * %u\n", iCount, static_cast<unsigned>(sizeof(T)));
        if (!pFile->Write(&iCount, sizeof(iCount), 1)) return false;
        if constexpr (ZR_SelfSerializing<T, File>) {
            for (int i = 0; i < m_i; i++)
                if (!m_a[i].SerializeWrite(pFile)) return false;
            return true;
        } else {
            return iCount == 0 || pFile->Write(m_a, sizeof(T), iCount);
        }
    }

    // Replaces the contents with what the file holds at its current offset.
    // On false the object may be half read; its owner destroys it.
    template <class File>
    bool SerializeRead(File* pFile) {
        auto lock = this->Guard();
        Clean();
        unsigned iCount = 0;
        if (!pFile->Read(&iCount, sizeof(iCount), 1)) return false;
        if (g_iTraceMode) TraceLine("SerialiseRead: m_i: %u * %u\n", iCount, static_cast<unsigned>(sizeof(T)));
        if (iCount != 0 && !ReadElements(pFile, iCount)) return false;
        Init();
        return true;
    }

private:
    // Copies elements that lie in a mapped view to the heap before a change.
    void Unmap() {
        if (m_bMapped) this->Reserve(m_i);
    }

    template <class File>
    bool ReadElements(File* pFile, unsigned iCount) {
        if (!zr_array::CheckReadCount(iCount, sizeof(T), "A::SerializeRead")) return false;
        if constexpr (ZR_SelfSerializing<T, File>) {
            if (g_iTraceMode) TraceLine("SerialiseRead template function\n");
            if (!zr_array::CountFitsFile(pFile, iCount, 1)) return false;
            this->Reserve(iCount);
            for (unsigned i = 0; i < iCount; i++) {
                new (&m_a[m_i]) T();
                m_i++;
                if (!m_a[m_i - 1].SerializeRead(pFile)) return false;
            }
            return true;
        } else {
            void* p = nullptr;
            m_bMapped = pFile->MapOrAlloc(&p, sizeof(T), iCount, &m_iAlloc);
            if (!p) return false;
            m_a = static_cast<T*>(p);
            m_i = static_cast<int>(iCount);
            return pFile->Read(m_a, sizeof(T), iCount);
        }
    }
};
