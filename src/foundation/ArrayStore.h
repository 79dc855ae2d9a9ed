// The storage that A<T> and AP<T> share: the fields in their persisted order
// and the primitives that move elements, so that growth and shifting are
// written once. A<T> stores values (E = T), AP<T> stores owned pointers
// (E = T*). For A<T> m_bMapped says that the block itself lies in a view;
// for AP<T> (kEntriesMapped) it says that the entries do, while the block of
// pointers is always on the heap.
//
// Threads: every changing operation of the arrays takes m_cs; a caller that
// needs several operations to be atomic brackets them with Lock and Unlock,
// which nest. The count (operator int) is read without the lock.
#pragma once

#include "foundation/ArrayCore.h"

template <class E, bool kEntriesMapped = false>
class ZR_ArrayStore {
public:
    bool m_bcsInitialized = false;  // true while m_cs exists
    int m_i = 0;                    // number of elements
    unsigned m_iAlloc = 0;          // capacity of m_a in bytes
    E* m_a = nullptr;
    bool m_bThreads = false;  // informative only: the locking does not depend on it
    bool m_bMapped = false;   // the elements lie in a mapped map-file view and are not ours to free
    CRITICAL_SECTION m_cs;

    ZR_ArrayStore(const ZR_ArrayStore&) = delete;
    ZR_ArrayStore& operator=(const ZR_ArrayStore&) = delete;

    operator int() const { return m_i; }
    bool Exists(int i) const { return i >= 0 && i < m_i; }
    void AssertExists(int) const {}

    void Lock() {
        if (m_bcsInitialized) EnterCriticalSection(&m_cs);
    }
    void Unlock() {
        if (m_bcsInitialized) LeaveCriticalSection(&m_cs);
    }
    void SetThreads(bool) { m_bThreads = true; }
    bool GetbcsInitialized() const { return m_bcsInitialized; }

protected:
    ZR_ArrayStore() { InitStore(); }
    // Takes over the elements of o; the new object has a lock of its own.
    ZR_ArrayStore(ZR_ArrayStore&& o) noexcept {
        InitStore();
        zr_array::ScopedLock lock(&o.m_cs, o.m_bcsInitialized);
        m_i = o.m_i;
        m_iAlloc = o.m_iAlloc;
        m_a = o.m_a;
        m_bMapped = o.m_bMapped;
        o.m_i = 0;
        o.m_iAlloc = 0;
        o.m_a = nullptr;
        o.m_bMapped = false;
    }
    ~ZR_ArrayStore() { zr_array::FiniLock(&m_cs, &m_bcsInitialized); }

    void InitStore() {
        zr_array::InitLock(&m_cs, &m_bcsInitialized);
        m_bThreads = true;
    }
    zr_array::ScopedLock Guard() { return zr_array::ScopedLock(&m_cs, m_bcsInitialized); }

    void Reserve(long long iCount) {
        zr_array::Reserve(&m_a, &m_iAlloc, m_i, iCount, kEntriesMapped ? nullptr : &m_bMapped);
    }

    // Makes a raw slot at i (clamped to 0..m_i) by moving the tail up, and
    // counts it. The caller constructs the element in it.
    E* OpenSlot(int i) {
        if (i < 0) i = 0;
        if (i > m_i) i = m_i;
        Reserve(static_cast<long long>(m_i) + 1);
        zr_array::MoveElements(m_a, i, i + 1, m_i - i);
        m_i++;
        return &m_a[i];
    }
    // Closes the slot i, whose element is already destroyed, by moving the
    // tail down.
    void CloseSlot(int i) {
        zr_array::MoveElements(m_a, i + 1, i, m_i - i - 1);
        m_i--;
    }
    // Releases the block; a block in a mapped view is only forgotten.
    void ReleaseBlock() {
        if (m_bMapped) {
            m_a = nullptr;
            m_iAlloc = 0;
            m_bMapped = false;
        } else {
            Free(&m_a, &m_iAlloc);
        }
        m_i = 0;
    }
};
