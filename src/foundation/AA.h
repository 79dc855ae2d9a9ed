// AA<T>: rows of T by value, rows of different lengths, with a lock of its
// own. m_ai holds each row's count, m_aa the rows, m_aaAllocSizes each row's
// capacity in bytes. Read from a map file in mapped mode, every row points
// into the view (one m_bMapped for all rows): then only the side arrays are
// ours, and the first change copies every row out of the view.
//
// Bad indices on operator() are bound failures, thrown as "bad AA::operator()".
#pragma once

#include "foundation/ArrayCore.h"

template <class T>
class AA {
public:
    bool m_bcsInitialized = false;
    int m_i = 0;                         // number of rows
    int* m_ai = nullptr;                 // elements of each row
    T** m_aa = nullptr;                  // the rows
    unsigned m_iAllocAi = 0;             // capacity of m_ai in bytes
    unsigned m_iAllocAa = 0;             // capacity of m_aa in bytes
    unsigned* m_aaAllocSizes = nullptr;  // capacity of each row in bytes
    unsigned m_iAllocSizes = 0;          // capacity of m_aaAllocSizes in bytes
    bool m_bThreads = false;
    bool m_bMapped = false;
    CRITICAL_SECTION m_cs;

    AA() { Init(); }
    ~AA() { Fini(); }
    AA(const AA&) = delete;
    AA& operator=(const AA&) = delete;

    void Init() {
        zr_array::InitLock(&m_cs, &m_bcsInitialized);
        m_bThreads = true;
    }
    void Fini() {
        if (g_iTraceMode)
            TraceLine("template AA Fini() this: %p m_aa: %p m_i: %d m_ai: %p m_aaAllocSizes: %p\n",
                      static_cast<void*>(this), static_cast<void*>(m_aa), m_i, static_cast<void*>(m_ai),
                      static_cast<void*>(m_aaAllocSizes));
        Clean();
        zr_array::FiniLock(&m_cs, &m_bcsInitialized);
    }
    // Destroys the elements and frees rows and side arrays; rows in a mapped
    // view are only forgotten.
    void Clean() {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        for (int iX = 0; iX < m_i; iX++) {
            if (!m_bMapped) {
                zr_array::Destroy(m_aa[iX], 0, m_ai[iX]);
                Free(&m_aa[iX]);
            }
            m_aa[iX] = nullptr;
        }
        Free(&m_ai, &m_iAllocAi);
        Free(&m_aa, &m_iAllocAa);
        Free(&m_aaAllocSizes, &m_iAllocSizes);
        m_i = 0;
        m_bMapped = false;
    }

    operator int() const { return m_i; }
    bool Exists(int iX) const { return iX >= 0 && iX < m_i; }
    bool Exists(int iX, int iY) const { return Exists(iX) && iY >= 0 && iY < m_ai[iX]; }
    void AssertExists(int) const {}
    void AssertExists(int, int) const {}
    // Elements of row iX; 0 for a row that does not exist.
    int Count(int iX) const { return Exists(iX) ? m_ai[iX] : 0; }

    T& operator()(int iX, int iY) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        if (!Exists(iX)) zr_array::BoundFailure("bad AA::operator()", "template AA iX:%d >= m_i:%d\n", iX, m_i);
        if (!Exists(iX, iY))
            zr_array::BoundFailure("bad AA::operator()", "template AA iX:%d iY:%d m_i:%d !Exists(iX,iY)\n", iX, iY,
                                   m_i);
        return m_aa[iX][iY];
    }

    // Grows to iX + 1 rows, the new rows empty.
    void Set(int iX) {
        if (iX < 0) return;
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        if (iX < m_i) return;
        long long iRows = static_cast<long long>(iX) + 1;
        zr_array::Reserve(&m_ai, &m_iAllocAi, m_i, iRows, nullptr);
        zr_array::Reserve(&m_aa, &m_iAllocAa, m_i, iRows, nullptr);
        zr_array::Reserve(&m_aaAllocSizes, &m_iAllocSizes, m_i, iRows, nullptr);
        for (int i = m_i; i <= iX; i++) {
            m_ai[i] = 0;
            m_aa[i] = nullptr;
            m_aaAllocSizes[i] = 0;
        }
        m_i = iX + 1;
    }
    // Grows row iX to iY + 1 elements, value-initialising the new ones.
    void Set(int iX, int iY) {
        if (iX < 0 || iY < 0) return;
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        Set(iX);
        if (iY < m_ai[iX]) return;
        Unmap();
        zr_array::Reserve(&m_aa[iX], &m_aaAllocSizes[iX], m_ai[iX], static_cast<long long>(iY) + 1, nullptr);
        zr_array::Construct(m_aa[iX], m_ai[iX], iY + 1);
        m_ai[iX] = iY + 1;
    }
    T& Set(int iX, int iY, const T& v) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        Set(iX, iY);
        Unmap();
        return (*this)(iX, iY) = v;
    }
    // Adds an element at the end of row iX (created when missing).
    T& Append(int iX, const T& v) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        return Set(iX, Count(iX), v);
    }
    T& Append(int iX) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        int iY = Count(iX);
        Set(iX, iY);
        return m_aa[iX][iY];
    }

    void Lock() {
        if (m_bcsInitialized) EnterCriticalSection(&m_cs);
    }
    void Unlock() {
        if (m_bcsInitialized) LeaveCriticalSection(&m_cs);
    }
    void SetThreads(bool) { m_bThreads = true; }
    bool GetbcsInitialized() const { return m_bcsInitialized; }

    // The number of rows, then each row: its count and its elements.
    template <class File>
    bool SerializeWrite(File* pFile) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        unsigned iRows = static_cast<unsigned>(m_i);
        if (g_iTraceMode) TraceLine("SerialiseWrite: #%u\n", iRows);
        if (!pFile->Write(&iRows, sizeof(iRows), 1)) return false;
        for (int iX = 0; iX < m_i; iX++)
            if (!WriteRow(pFile, iX)) return false;
        return true;
    }

    template <class File>
    bool SerializeRead(File* pFile) {
        zr_array::ScopedLock lock(&m_cs, m_bcsInitialized);
        Clean();
        unsigned iRows = 0;
        if (!pFile->Read(&iRows, sizeof(iRows), 1)) return false;
        if (g_iTraceMode) TraceLine("SerialiseRead: #%u\n", iRows);
        if (iRows != 0) {
            if (!zr_array::CheckReadCount(iRows, sizeof(T*), "AA::SerializeRead")) return false;
            // Every row takes at least its count word in the file.
            if (!zr_array::CountFitsFile(pFile, iRows, sizeof(unsigned))) return false;
            int iCount = static_cast<int>(iRows);
            m_ai = static_cast<int*>(Calloc(iCount, sizeof(int), &m_iAllocAi));
            m_aa = static_cast<T**>(Calloc(iCount, sizeof(T*), &m_iAllocAa));
            m_aaAllocSizes = static_cast<unsigned*>(Calloc(iCount, sizeof(unsigned), &m_iAllocSizes));
            m_i = iCount;
            for (int iX = 0; iX < m_i; iX++)
                if (!ReadRow(pFile, iX)) return false;
        }
        Init();
        return true;
    }

private:
    // Copies every row that lies in a mapped view to the heap.
    void Unmap() {
        if constexpr (zr_array::kRelocatable<T>) {
            if (!m_bMapped) return;
            for (int iX = 0; iX < m_i; iX++) {
                if (!m_aa[iX]) continue;
                unsigned cb = zr_array::ByteSize(m_ai[iX], sizeof(T));
                zr_array::CopyOutOfView(reinterpret_cast<void**>(&m_aa[iX]), &m_aaAllocSizes[iX], cb, cb);
            }
            m_bMapped = false;
        }
    }

    template <class File>
    bool WriteRow(File* pFile, int iX) {
        unsigned iCount = static_cast<unsigned>(m_ai[iX]);
        if (g_iTraceMode) TraceLine("SerialiseWrite: %u * %u\n", iCount, static_cast<unsigned>(sizeof(T)));
        if (!pFile->Write(&iCount, sizeof(iCount), 1)) return false;
        if constexpr (ZR_SelfSerializing<T, File>) {
            for (int iY = 0; iY < m_ai[iX]; iY++)
                if (!m_aa[iX][iY].SerializeWrite(pFile)) return false;
            return true;
        } else {
            return iCount == 0 || pFile->Write(m_aa[iX], sizeof(T), iCount);
        }
    }

    template <class File>
    bool ReadRow(File* pFile, int iX) {
        unsigned iCount = 0;
        if (!pFile->Read(&iCount, sizeof(iCount), 1)) return false;
        if (g_iTraceMode)
            TraceLine("SerialiseRead: m_ai[%d]: %u * %u\n", iX, iCount, static_cast<unsigned>(sizeof(T)));
        if (iCount == 0) return true;
        if (!zr_array::CheckReadCount(iCount, sizeof(T), "AA::SerializeRead")) return false;
        if constexpr (ZR_SelfSerializing<T, File>) {
            if (!zr_array::CountFitsFile(pFile, iCount, 1)) return false;
            zr_array::Reserve(&m_aa[iX], &m_aaAllocSizes[iX], 0, iCount, nullptr);
            for (unsigned iY = 0; iY < iCount; iY++) {
                new (&m_aa[iX][iY]) T();
                m_ai[iX]++;
                if (!m_aa[iX][iY].SerializeRead(pFile)) return false;
            }
            return true;
        } else {
            void* p = nullptr;
            if (pFile->MapOrAlloc(&p, sizeof(T), iCount, &m_aaAllocSizes[iX])) m_bMapped = true;
            if (!p) return false;
            m_aa[iX] = static_cast<T*>(p);
            m_ai[iX] = static_cast<int>(iCount);
            return pFile->Read(p, sizeof(T), iCount);
        }
    }
};
