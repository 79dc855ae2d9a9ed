// Status and control of a mount by its key, and the limit on hydrations
// that run at once.
//
// The limit works through a cut-off of order keys that the hydration
// threads read (ZR_Database::ms_iHydrationCutoff): of the mounts that
// hydrate, those with the iMaxActive smallest keys run, and the threads of
// the others wait. Equal keys at the cut-off all wait.
#include <algorithm>
#include <vector>

#include "diag/Trace.h"
#include "mount/ZR.h"

std::atomic<int> ZR::ms_iMaxActiveHydrations{1000};

template <class R, class Answer>
R ZR::WithDatabase(const wchar_t* wszKey, R none, Answer fAnswer) {
    Lock();
    ZR_Database* pDB = FindDatabase(wszKey);
    R result = pDB ? fAnswer(pDB) : none;
    Unlock();
    return result;
}

bool ZR::IsHydrating(const wchar_t* wszKey) {
    return WithDatabase(wszKey, false, [](ZR_Database* p) { return p->GetState() == ZR_VDB_STATE_ONLINE_HYDRATING; });
}

bool ZR::IsHydrationPaused(const wchar_t* wszKey) {
    return WithDatabase(wszKey, false,
                        [](ZR_Database* p) { return p->GetState() == ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED; });
}

bool ZR::IsRecoveryStage(const wchar_t* wszKey) {
    return WithDatabase(wszKey, false, [](ZR_Database* p) { return p->GetState() == ZR_VDB_STATE_RECOVERY; });
}

bool ZR::IsDataCopyStage(const wchar_t* wszKey) {
    return WithDatabase(wszKey, false, [](ZR_Database* p) { return p->GetState() == ZR_VDB_STATE_DATA_COPY; });
}

bool ZR::AllDataFilesOpened(const wchar_t* wszKey) {
    return WithDatabase(wszKey, false, [](ZR_Database* p) { return p->AllDataFilesOpened(); });
}

bool ZR::DatabaseHydrationDone(const wchar_t* wszKey, bool* pbDeleted) {
    if (pbDeleted) *pbDeleted = false;
    return WithDatabase(wszKey, false, [&](ZR_Database* p) {
        if (pbDeleted) *pbDeleted = p->GetDatabaseWasDeleted();
        return p->IsHydrationDone();
    });
}

void ZR::GetPercentComplete(const wchar_t* wszKey, int64_t* piDone, int64_t* piTotal) {
    if (piDone) *piDone = 0;
    if (piTotal) *piTotal = 0;
    WithDatabase(wszKey, 0, [&](ZR_Database* p) {
        p->GetPercentComplete(piDone, piTotal);
        return 0;
    });
}

// The mark keeps the database alive: CancelHydration waits for the waiter
// to leave before the object goes.
int ZR::WaitOnPercentChange(const wchar_t* wszKey) {
    if (g_iTraceMode) TraceLine("WaitOnPercentChange\n");
    Lock();
    if (g_iTraceMode) TraceLine("WaitOnPercentChange in lock\n");
    ZR_Database* pDB = FindDatabase(wszKey);
    if (pDB) pDB->NotePercentWaiter();
    Unlock();
    if (g_iTraceMode) TraceLine("WaitOnPercentChange unlocked\n");
    const int iPercent = pDB ? pDB->WaitOnPercentChange() : 0;
    if (g_iTraceMode) TraceLine("WaitOnPercentChange returned\n");
    return iPercent;
}

int ZR::GetNumberOfActiveMounts() {
    g_DBs.Lock();
    int iActive = 0;
    for (int i = 0; i < static_cast<int>(g_DBs); ++i)
        if (ZR_Database* p = g_DBs(i); p && p->GetState() != ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED) ++iActive;
    g_DBs.Unlock();
    return iActive;
}

// The claim is made under the lock, so a Remove that comes after it waits
// for the hydration to end before the database goes.
void ZR::StartDataHydration(const wchar_t* wszKey, const wchar_t* wszMarker, int64_t iOrderKey) {
    ZR_Database* pDB = WithDatabase(wszKey, static_cast<ZR_Database*>(nullptr), [&](ZR_Database* p) {
        if (!p->BeginHydration()) return static_cast<ZR_Database*>(nullptr);
        p->SetHydrationMarker(wszMarker);
        p->m_iHydrationOrderKey = iOrderKey;
        p->SetState(ZR_VDB_STATE_ONLINE_HYDRATING);
        return p;
    });
    if (!pDB) return;
    DetermineHydrationCutoff(ms_iMaxActiveHydrations);
    pDB->RunHydration();  // pDB may be gone once this returns
    DetermineHydrationCutoff(ms_iMaxActiveHydrations);
}

bool ZR::PauseHydration(const wchar_t* wszKey) {
    if (g_iTraceMode) TraceLine("PauseHydration\n");
    const bool bFound = WithDatabase(wszKey, false, [](ZR_Database* p) { return p->PauseHydration(); });
    DetermineHydrationCutoff(ms_iMaxActiveHydrations);
    return bFound;
}

bool ZR::ResumeHydration(const wchar_t* wszKey) {
    if (g_iTraceMode) TraceLine("ResumeHydration\n");
    const bool bFound = WithDatabase(wszKey, false, [](ZR_Database* p) { return p->ResumeHydration(); });
    DetermineHydrationCutoff(ms_iMaxActiveHydrations);
    return bFound;
}

bool ZR::SetNumHydrationThreads(const wchar_t* wszKey, int iThreads) {
    if (g_iTraceMode) TraceLine("SetNumHydrationThreads\n");
    return WithDatabase(wszKey, false, [&](ZR_Database* p) {
        p->SetNumHydrationThreads(iThreads);
        return true;
    });
}

bool ZR::SetNumWriterThreads(const wchar_t* wszKey, int iThreads) {
    if (g_iTraceMode) TraceLine("SetNumWriterThreads\n");
    return WithDatabase(wszKey, false, [&](ZR_Database* p) {
        p->SetNumWriterThreads(iThreads);
        return true;
    });
}

void ZR::SetMaxTransferSize(const wchar_t* wszKey, int iSize) {
    WithDatabase(wszKey, 0, [&](ZR_Database* p) {
        p->SetMaxTransferSize(iSize);
        return 0;
    });
}

void ZR::SetMaxActiveHydrations(int iMaxActive) {
    ms_iMaxActiveHydrations = iMaxActive;
    DetermineHydrationCutoff(iMaxActive);
}

void ZR::DetermineHydrationCutoff(int iMaxActive) {
    Lock();
    g_DBs.Lock();
    if (static_cast<int>(g_DBs) > 0) {
        std::vector<int64_t> aKeys;
        for (int i = 0; i < static_cast<int>(g_DBs); ++i)
            if (ZR_Database* p = g_DBs(i);
                p && p->GetState() == ZR_VDB_STATE_ONLINE_HYDRATING && !p->IsHydrationDone())
                aKeys.push_back(p->m_iHydrationOrderKey);
        const size_t iMax = static_cast<size_t>(std::max(iMaxActive, 0));
        int64_t iCutoff = 0;
        if (aKeys.size() > iMax) {
            std::sort(aKeys.begin(), aKeys.end());
            iCutoff = aKeys[iMax];
        }
        ZR_Database::ms_iHydrationCutoff = iCutoff;
    }
    g_DBs.Unlock();
    Unlock();
}
