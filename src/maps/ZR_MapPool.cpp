#include "maps/ZR_MapPool.h"

#include "diag/Trace.h"
#include "maps/ZR_BMaps.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

#include <cstring>

ZR_MapPool g_MapPool;

namespace {

bool SameDate(const MTF_DATE_TIME& a, const MTF_DATE_TIME& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Holds the list's lock for a scope.
class PoolLock {
public:
    explicit PoolLock(ZR_MapPool& pool) : m_pool(pool) { m_pool.Lock(); }
    ~PoolLock() { m_pool.Unlock(); }
    PoolLock(const PoolLock&) = delete;
    PoolLock& operator=(const PoolLock&) = delete;

private:
    ZR_MapPool& m_pool;
};

}  // namespace

ZR_MapPool::ZR_MapPool() { InitializeCriticalSection(&m_csPool); }

ZR_MapPool::~ZR_MapPool() { DeleteCriticalSection(&m_csPool); }

X_MapFile* ZR_MapPool::Create(int iType) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Create(%d) {\n", iType);
    X_MapFile* pMap = nullptr;
    switch (iType) {
    case 1: pMap = new ZR_CMaps(); break;
    case 2: pMap = new ZR_EMaps(); break;
    case 3: pMap = new ZR_BMaps(); break;
    default: break;
    }
    if (pMap) {
        PoolLock lock(*this);
        pMap->IncRefCount();
        Append(pMap);
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Create(%d) } = %p\n", iType, static_cast<void*>(pMap));
    return pMap;
}

template <class Match>
X_MapFile* ZR_MapPool::RetrieveWhere(int iType, Match match) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Retrieve(%d) {\n", iType);
    X_MapFile* pFound = nullptr;
    {
        PoolLock lock(*this);
        for (int i = 0; i < static_cast<int>(*this) && !pFound; ++i) {
            X_MapFile* p = (*this)(i);
            if (p && p->GetMapType() == iType && !p->GetIsRetired() && match(*p))
                pFound = p;
        }
        if (pFound)
            pFound->IncRefCount();
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Retrieve(%d) } = %p\n", iType, static_cast<void*>(pFound));
    return pFound;
}

X_MapFile* ZR_MapPool::Retrieve(int iType, uint32_t iFamilyId, const MTF_DATE_TIME& mediaDate,
                                const MTF_DATE_TIME& mediaWriteDate) {
    return RetrieveWhere(iType, [&](const X_MapFile& m) {
        return m.GetMediaFamilyId() == iFamilyId && SameDate(m.GetMediaDate(), mediaDate) &&
               SameDate(m.GetMediaWriteDate(), mediaWriteDate);
    });
}

X_MapFile* ZR_MapPool::Retrieve(int iType, const GUID& guid) {
    return RetrieveWhere(iType, [&](const X_MapFile& m) { return m.GetKLBS_Guid() == guid; });
}

void ZR_MapPool::CreateOrWait(int iType, X_MapFile** ppMap) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::CreateOrWait(%d, %p);\n", iType, static_cast<void*>(*ppMap));
    if (!*ppMap) {
        *ppMap = Create(iType);
        return;
    }
    if ((*ppMap)->GetIsCreated())
        return;
    // Another thread builds this map: wait for it without the list's lock,
    // which the creator needs to finish, and look again under the lock, so
    // that a success is seen whole (event and flag are set under it).
    Unlock();
    (*ppMap)->WaitForCreatedEvent();
    Lock();
    if (!(*ppMap)->GetIsCreated()) {
        Release(*ppMap);
        *ppMap = nullptr;
    }
}

X_MapFile* ZR_MapPool::RetrieveOrCreate(int iType, uint32_t iFamilyId, const MTF_DATE_TIME& mediaDate,
                                        const MTF_DATE_TIME& mediaWriteDate) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::RetrieveOrCreate(%d) {\n", iType);
    PoolLock lock(*this);
    X_MapFile* p = Retrieve(iType, iFamilyId, mediaDate, mediaWriteDate);
    CreateOrWait(iType, &p);
    if (p && !p->GetIsCreated()) {
        p->SetMediaFamilyId(iFamilyId);
        p->SetMediaDate(mediaDate);
        p->SetMediaWriteDate(mediaWriteDate);
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::RetrieveOrCreate(%d) } = %p\n", iType, static_cast<void*>(p));
    return p;
}

X_MapFile* ZR_MapPool::RetrieveOrCreate(int iType, const GUID& guid) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::RetrieveOrCreate(%d) {\n", iType);
    PoolLock lock(*this);
    X_MapFile* p = Retrieve(iType, guid);
    CreateOrWait(iType, &p);
    if (p && !p->GetIsCreated())
        p->SetKLBS_Guid(guid);
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::RetrieveOrCreate(%d) } = %p\n", iType, static_cast<void*>(p));
    return p;
}

int ZR_MapPool::IndexOf(const X_MapFile* pMap) {
    for (int i = 0; i < static_cast<int>(*this); ++i)
        if ((*this)(i) == pMap)
            return i;
    return -1;
}

void ZR_MapPool::Release(X_MapFile* pMap) {
    if (!pMap)
        return;
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Release(%p) {\n", static_cast<void*>(pMap));
    {
        PoolLock lock(*this);
        int i = IndexOf(pMap);
        if (i >= 0 && pMap->DecRefCount() == 0)
            Remove(i, true);
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::Release(%p) }\n", static_cast<void*>(pMap));
}

void ZR_MapPool::SetCreateSuccess(X_MapFile* pMap) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::SetCreateSuccess(%p) {\n", static_cast<void*>(pMap));
    {
        PoolLock lock(*this);
        if (IndexOf(pMap) >= 0) {
            pMap->SetCreatedEvent();
            pMap->SetIsCreated(true);
        }
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::SetCreateSuccess(%p) }\n", static_cast<void*>(pMap));
}

void ZR_MapPool::SetCreateFailure(X_MapFile* pMap) {
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::SetCreateFailure(%p) {\n", static_cast<void*>(pMap));
    {
        PoolLock lock(*this);
        if (IndexOf(pMap) >= 0) {
            pMap->SetCreatedEvent();
            Release(pMap);
        }
    }
    if (g_iTraceMode)
        TraceLine("ZR_MapPool::SetCreateFailure(%p) }\n", static_cast<void*>(pMap));
}

bool ZR_MapPool::Retire(X_MapFile* pMap) {
    PoolLock lock(*this);
    if (IndexOf(pMap) < 0 || pMap->GetIsRetired())
        return false;
    pMap->SetIsRetired();
    return true;
}

int ZR_MapPool::Find(const wchar_t* wszName) {
    PoolLock lock(*this);
    for (int i = 0; i < static_cast<int>(*this); ++i) {
        X_MapFile* p = (*this)(i);
        if (p && wszName && _wcsicmp(p->GetMapFileName(), wszName) == 0)
            return i;
    }
    return -1;
}
