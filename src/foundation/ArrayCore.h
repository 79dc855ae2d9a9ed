// What A<T>, AA<T> and AP<T> share: the lock, growth by a quarter through
// Realloc, element relocation, bound failures and the checks on counts read
// from a map file. Each array keeps its own fields in its own order; these
// helpers work on those fields.
#pragma once

#include <climits>
#include <concepts>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "diag/Trace.h"
#include "foundation/Alloc.h"
#include "platform/win32.h"

namespace zr_array {

// The recursive lock of an array. Lock and Unlock do nothing once Fini ran.
inline void InitLock(CRITICAL_SECTION* pcs, bool* pbInitialized) {
    if (*pbInitialized) return;
    InitializeCriticalSection(pcs);
    *pbInitialized = true;
}
inline void FiniLock(CRITICAL_SECTION* pcs, bool* pbInitialized) {
    if (!*pbInitialized) return;
    DeleteCriticalSection(pcs);
    *pbInitialized = false;
}

// Holds an array's lock for a scope, so that a throw inside an operation
// (BadAlloc, a bound failure) never leaves the array locked.
class ScopedLock {
public:
    ScopedLock(CRITICAL_SECTION* pcs, bool bInitialized) : m_pcs(bInitialized ? pcs : nullptr) {
        if (m_pcs) EnterCriticalSection(m_pcs);
    }
    ~ScopedLock() {
        if (m_pcs) LeaveCriticalSection(m_pcs);
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CRITICAL_SECTION* m_pcs;
};

// Elements that may be moved with memcpy go through Realloc; the others
// (elements that are arrays themselves and hold a lock) are moved into a new
// block by their move constructors.
template <class T>
inline constexpr bool kRelocatable = std::is_trivially_copyable_v<T>;

// The byte size of iCount elements; a size beyond 32 bits fails like an
// exhausted heap.
inline unsigned ByteSize(long long iCount, size_t cbElement) {
    unsigned long long cb = static_cast<unsigned long long>(iCount < 0 ? 0 : iCount) * cbElement;
    if (cb > UINT_MAX) throw BadAlloc(UINT_MAX);
    return static_cast<unsigned>(cb);
}

// Replaces a block that lies in a mapped view by a heap copy of its first
// cbUsed bytes, with room for cbNeeded.
void CopyOutOfView(void** pp, unsigned* pcbAlloc, unsigned cbUsed, unsigned cbNeeded);

// Makes the block *pa, with capacity *pcbAlloc and iUsed live elements, hold
// iCount elements. The block only grows. A block that lies in a mapped view
// (*pbMapped) is first copied out, since a view cannot be reallocated.
template <class T>
void Reserve(T** pa, unsigned* pcbAlloc, int iUsed, long long iCount, bool* pbMapped) {
    unsigned cb = ByteSize(iCount, sizeof(T));
    if constexpr (kRelocatable<T>) {
        if (pbMapped && *pbMapped) {
            CopyOutOfView(reinterpret_cast<void**>(pa), pcbAlloc, ByteSize(iUsed, sizeof(T)), cb);
            *pbMapped = false;
            return;
        }
        *pa = static_cast<T*>(Realloc(*pa, cb, pcbAlloc));
    } else {
        if (cb <= *pcbAlloc) return;
        unsigned long long cbNew = cb + static_cast<unsigned long long>(cb / 4);
        if (cbNew > UINT_MAX) cbNew = cb;
        T* aNew = static_cast<T*>(Malloc(static_cast<unsigned>(cbNew)));
        for (int i = 0; i < iUsed; i++) {
            new (&aNew[i]) T(std::move((*pa)[i]));
            (*pa)[i].~T();
        }
        Free(pa);
        *pa = aNew;
        *pcbAlloc = static_cast<unsigned>(cbNew);
    }
}

// Moves iCount elements from a[iFrom] to a[iTo] in a block that already
// holds the room. For relocatable elements this is memmove; for others the
// target slots must be raw and the source slots are left raw.
template <class T>
void MoveElements(T* a, int iFrom, int iTo, int iCount) {
    if (iCount <= 0 || iFrom == iTo) return;
    if constexpr (kRelocatable<T>) {
        std::memmove(static_cast<void*>(a + iTo), static_cast<const void*>(a + iFrom), sizeof(T) * iCount);
    } else if (iTo > iFrom) {
        for (int i = iCount - 1; i >= 0; i--) {
            new (&a[iTo + i]) T(std::move(a[iFrom + i]));
            a[iFrom + i].~T();
        }
    } else {
        for (int i = 0; i < iCount; i++) {
            new (&a[iTo + i]) T(std::move(a[iFrom + i]));
            a[iFrom + i].~T();
        }
    }
}

template <class T>
void Construct(T* a, int iFrom, int iTo) {
    for (int i = iFrom; i < iTo; i++) new (&a[i]) T();
}

template <class T>
void Destroy(T* a, int iFrom, int iTo) {
    if constexpr (!std::is_trivially_destructible_v<T>) {
        for (int i = iFrom; i < iTo; i++) a[i].~T();
    }
}

// A bound failure: the trace goes on in file mode whatever it was, the
// reason is traced, and the text is thrown as a char pointer. Callers never
// catch it; the trace file is what is left to find the fault by.
[[noreturn]] void BoundFailure(const char* szThrown, const char* szFormat, ...)
    __attribute__((format(printf, 2, 3)));

// A count read from a map file, checked before anything is allocated for it:
// it must fit the signed count of an array and, with the element size, 32
// bits. A bad count is recorded and the read fails.
bool CheckReadCount(unsigned iCount, size_t cbElement, const char* szFunction);

// The same count against what is left of a file that can tell (map files
// can; memory images in tests need not): iCount items of at least cbEach
// bytes each must fit. Tables that are sized by a count before what it
// counts is read would otherwise turn one damaged word into gigabytes.
template <class File>
bool CountFitsFile(File* pFile, unsigned iCount, unsigned cbEach) {
    if constexpr (requires { pFile->BytesLeft(); }) {
        if (static_cast<unsigned long long>(iCount) * cbEach > pFile->BytesLeft()) {
            if (g_iTraceMode) TraceLine("SerializeRead: count %u beyond the end of the file\n", iCount);
            return false;
        }
    }
    return true;
}

}  // namespace zr_array

// Elements that carry their own serialiser (arrays of arrays, records with
// pointers) are read and written one by one through it.
template <class T, class File>
concept ZR_SelfSerializing = requires(T& t, File* pFile) {
    { t.SerializeRead(pFile) } -> std::convertible_to<bool>;
    { t.SerializeWrite(pFile) } -> std::convertible_to<bool>;
};
