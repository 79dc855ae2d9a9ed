// A hydration's control: the claim of the mount, the wait for its data
// files, the sizes, the threads, the end (the marker's rename, the driver's
// clean-up), and what other threads do to a hydration: cancel, pause, ask
// for progress.
//
// The library holds no record of progress: the driver's bitmaps are the
// only one, and a hydration that starts again (in this process or after a
// restart) asks the driver what is missing and finds only that.
//
// Waits: every wait has a time limit and looks at its flag again after it,
// so a cancel (Remove, UninitializeForExit, the last data file deleted)
// ends a hydration within about a second.
#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_DriverCommands.h"
#include "engine/OwnedString.h"
#include "engine/ZR_Database.h"
#include "engine/ZR_Writers.h"
#include "mount/ZR.h"

std::atomic<int64_t> ZR_Database::ms_iHydrationCutoff{0};

namespace {

constexpr int kFileWaitTries = 30;
constexpr DWORD kFileWaitMs = 1000;
constexpr DWORD kWaitLimitMs = 1000;
constexpr DWORD kPercentWaitMs = 10000;
constexpr int kCleanupTries = 1000;
constexpr DWORD kCleanupRetryMs = 200;
// Waits on hEvent, a second at a time, until bDone() holds.
template <class Done>
void WaitUntil(HANDLE hEvent, Done bDone) {
    while (!bDone()) WaitForSingleObject(hEvent, kWaitLimitMs);
}

// Native backups have no blocks of their own, and the sizing takes its
// default; the compressed reader gives the largest block of its first file.
uint32_t LargestBlock(ZR_Backup* pBackup) { return 0; }

}  // namespace

// ---------------------------------------------------------------------------
// The claim
// ---------------------------------------------------------------------------

void ZR_Database::StartDataHydration() {
    if (BeginHydration()) RunHydration();
}

bool ZR_Database::BeginHydration() {
    EnterCriticalSection(&m_cs);
    const bool bClaimed = !m_bHydrating;
    if (bClaimed) {
        m_bHydrating = true;
        m_bHydrationThreadExited = false;
        ResetEvent(m_hHydrationDone);
        ResetEvent(m_hHydrationThreadExit);
    }
    LeaveCriticalSection(&m_cs);
    if (bClaimed) m_iHydrationStartTime = NowSeconds();
    return bClaimed;
}

void ZR_Database::RunHydration() {
    try {
        DataHydrate();
    } catch (...) {
        EndHydration();  // a canceller must not wait for ever; the object may go now
        throw;
    }
    SetEvent(m_hPercentChange);
    EndHydration();
}

// The claim's last touch of the object: once m_cs is left, a canceller may
// destroy it.
void ZR_Database::EndHydration() {
    EnterCriticalSection(&m_cs);
    m_bHydrating = false;
    SetEvent(m_hHydrationDone);
    LeaveCriticalSection(&m_cs);
}

void ZR_Database::CancelHydration(bool bDatabaseWasDeleted) {
    if (bDatabaseWasDeleted) m_bDatabaseWasDeleted = true;
    EnterCriticalSection(&m_cs);
    m_bCancel = true;
    const bool bHydrating = m_bHydrating;
    const bool bWaiter = m_bPercentWaiter;
    if (m_pWriters) m_pWriters->WakeAll();
    LeaveCriticalSection(&m_cs);
    SetEvent(m_hPercentChange);  // a waiter leaves at once
    if (bHydrating) WaitUntil(m_hHydrationDone, [&] {
            EnterCriticalSection(&m_cs);
            const bool bEnded = !m_bHydrating;
            LeaveCriticalSection(&m_cs);
            return bEnded;
        });
    if (bWaiter) WaitUntil(m_hPercentWaiterDone, [&] { return !m_bPercentWaiter; });
    // The waiter clears its mark under m_cs: once m_cs is had, it has left it.
    EnterCriticalSection(&m_cs);
    LeaveCriticalSection(&m_cs);
}

// ---------------------------------------------------------------------------
// One hydration
// ---------------------------------------------------------------------------

bool ZR_Database::DataHydrate() {
    SetState(ZR_VDB_STATE_ONLINE_HYDRATING);
    if (g_iTraceMode) TraceLine("DataHydrate %S\n", m_pwszMountKey ? m_pwszMountKey : L"");
    // Without the driver nothing can be hydrated, and nothing is sent.
    const bool bResult = g_hControlPort != INVALID_HANDLE_VALUE && HydrateWithDriver();
    m_bDataFilesCompletelyHydrated = bResult;
    m_iHydrationEndTime = NowSeconds();
    if (g_iTraceMode) TraceLine("return bAllCompeted: %d\n", bResult);
    return bResult;
}

bool ZR_Database::HydrateWithDriver() {
    m_bHydrationFailed = false;
    SendPrepareHydrations();
    EnterCriticalSection(&m_cs);
    m_iNextHydrationThreadId = 0;
    LeaveCriticalSection(&m_cs);
    m_iRunningHydrationThreads = 0;
    m_eHydrationMode = GetDiff() ? ZR_HYDRATE_DIFF : ZR_HYDRATE_FULL;
    const bool bAllOpened = WaitForDataFiles();
    if (m_bCancel) {
        if (g_iTraceMode) TraceLine("canceled. do not proceed with hydration\n");
        return false;
    }
    if (g_iTraceMode) TraceLine("All data files opened. proceed to start hydration threads\n");
    NoteLiveIOFigures();
    RunHydrationThreads(SizeHydration());
    const bool bResult = !HydrationEnding();
    if (g_iTraceMode) TraceLine("check all completed\n");
    if (bResult) {
        if (g_iTraceMode) TraceLine("all completed\n");
        RenameHydrationMarker();
    }
    const bool bCleanupFailed = SendHydrationCleanups(bResult);
    if (m_bDatabaseWasDeleted || (bResult && (bCleanupFailed || !bAllOpened))) FlushMountCaches();
    return bResult;
}

// The result of a send doesn't matter; the first failure ends the sends.
void ZR_Database::SendPrepareHydrations() {
    for (int i = 1; i < GetNumDataFileSlots() && !m_bCancel; ++i) {
        const ZR_DataFileState file = DataFileState(i);
        if (file.bExists && IsUniquifierSet(file.uniquifier) && SendPrepareHydration(file.uniquifier) != S_OK) break;
    }
}

// With no data file open the wait lasts until a cancel; once one is there,
// 30 seconds without a new one end it, and hydration goes on with what it
// has. True when every expected file opened.
bool ZR_Database::WaitForDataFiles() {
    const int iExpected = ExpectedDataFiles();
    if (g_iTraceMode) TraceLine("wait for all data files to be opened\n");
    int iTries = kFileWaitTries;
    int iLastCount = -1;
    while (!m_bCancel) {
        const int iCount = CountDataFiles();
        if (iCount >= iExpected) return true;
        if (iCount != iLastCount) iTries = kFileWaitTries;
        iLastCount = iCount;
        if (iCount > 0 && iTries-- == 0) return false;
        if (g_iTraceMode) TraceLine("Still waiting for all data files to open\n");
        Sleep(kFileWaitMs);
    }
    return false;
}

ZR_HydrationSizing ZR_Database::SizeHydration() {
    ZR_HydrationSizing::Input input;
    input.iDataFileSlots = GetNumDataFileSlots();
    input.iCPUs = ZR::g_iNumCPUs;
    input.iThreadsRequested = m_iNumHydrationThreadsRequested;
    input.iWritersRequested = m_iNumWriterThreadsRequested;
    input.iLargestBlock = std::max(LargestBlock(GetDiff()), LargestBlock(GetFull()));
    const ZR_HydrationSizing sizing = ZR_HydrationSizing::Compute(input);
    m_iNumHydrationThreads = sizing.iHydrationThreads;
    m_iNumWriterThreads = sizing.iWriterThreads;
    AllocHydrationSlots(sizing.iHydrationThreads);
    return sizing;
}

// The slots outlive the hydration (the report reads them); a later
// hydration gets new ones, made under m_cs, which PercentNow holds.
void ZR_Database::AllocHydrationSlots(int iThreads) {
    EnterCriticalSection(&m_cs);
    m_iNumHydrationSlots = iThreads;
    m_piHydratedBytes = std::make_unique<std::atomic<uint64_t>[]>(size_t(iThreads));
    m_piNumHydrationSleeps_1 = std::make_unique<std::atomic<int32_t>[]>(size_t(iThreads));
    m_piNumHydrationSleeps_2 = std::make_unique<std::atomic<int32_t>[]>(size_t(iThreads));
    LeaveCriticalSection(&m_cs);
}

// What live reads cost in decompressions until now, for the report; the
// counts start again with the hydration.
void ZR_Database::NoteLiveIOFigures() {
    int iDecompressions = 0;
    for (ZR_Backup* pBackup : {GetFull(), GetDiff()})
        for (int i = 0; pBackup && i < pBackup->GetNumFiles(); ++i)
            if (ZR_BackupFile* pFile = pBackup->GetFile(i)) {
                iDecompressions += pFile->GetNumDecompressions();
                pFile->ResetNumDecompressions();
            }
    if (iDecompressions) m_iAverPagesPerSBDuringRecovery = m_iLiveIOPagesRead / iDecompressions;
    m_iLiveIOPagesRead = 0;
}

void ZR_Database::RunHydrationThreads(const ZR_HydrationSizing& sizing) {
    auto pWriters = std::make_unique<ZR_Writers>(*this, sizing);
    EnterCriticalSection(&m_cs);
    m_pWriters = std::move(pWriters);
    LeaveCriticalSection(&m_cs);
    ChooseHydrationMode();
    m_pWriters->Start();
    std::vector<HANDLE> aThreads = StartHydrationThreads(sizing.iHydrationThreads);
    WaitForHydrationThreads(aThreads);
    m_pWriters->StopAndWait();
    EnterCriticalSection(&m_cs);
    pWriters = std::move(m_pWriters);
    LeaveCriticalSection(&m_cs);
    pWriters.reset();  // what is left in the queues goes back to the pools, and the pools go
}

// Backup-driven hydration streams each backup through the sequential reader
// of compressed backups, after LocateBackupHydrationStart has found where
// each file's needed data begins; its threads run HydrateByBackupFile until
// the streams end. Native backups have no sequential reader: they go to
// data-file mode at once, as a backup whose starts cannot be located does.
void ZR_Database::ChooseHydrationMode() {
    if (g_iTraceMode)
        TraceLine("Could not even locate backp starting locations with criteria of 1 extent hole. Perform in data "
                  "mode.");
    m_eHydrationMode = ZR_HYDRATE_DATA_FILE;
}

std::vector<HANDLE> ZR_Database::StartHydrationThreads(int iThreads) {
    std::vector<HANDLE> aThreads;
    for (int i = 0; i < iThreads; ++i) {
        ++m_iRunningHydrationThreads;  // before the thread may end
        HANDLE hThread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, HydrationProc, this, 0, nullptr));
        if (hThread)
            aThreads.push_back(hThread);
        else
            --m_iRunningHydrationThreads;
    }
    return aThreads;
}

void ZR_Database::WaitForHydrationThreads(std::vector<HANDLE>& aThreads) {
    WaitUntil(m_hHydrationThreadExit, [&] { return m_iRunningHydrationThreads <= 0; });
    for (HANDLE hThread : aThreads) {
        while (WaitForSingleObject(hThread, kWaitLimitMs) == WAIT_TIMEOUT) {
        }
        CloseHandle(hThread);
    }
}

unsigned ZR_Database::HydrationProc(void* pThis) {
    auto* pDB = static_cast<ZR_Database*>(pThis);
    EnterCriticalSection(&pDB->m_cs);
    const int iThread = pDB->m_iNextHydrationThreadId++;
    LeaveCriticalSection(&pDB->m_cs);
    try {
        pDB->DataHydrateThreadProc(iThread);
    } catch (...) {
        ZR_Error(pDB->m_pwszMountKey, __FILE__, "ZR_Database::DataHydrateThreadProc", __LINE__,
                 "Hydration thread %d ended on an exception.\n", iThread);
    }
    // The others look at the flag at once: thread 0's end is the end of a
    // complete hydration.
    EnterCriticalSection(&pDB->m_cs);
    --pDB->m_iRunningHydrationThreads;
    pDB->m_bHydrationThreadExited = true;
    SetEvent(pDB->m_hHydrationThreadExit);
    pDB->m_pWriters->WakeAll();
    LeaveCriticalSection(&pDB->m_cs);
    return 0;
}

// A failed rename changes nothing: the marker only tells the outside.
void ZR_Database::RenameHydrationMarker() {
    if (!m_pwszHydrationMarker || !*m_pwszHydrationMarker) return;
    const std::wstring strDone = std::wstring(m_pwszHydrationMarker) + L".completed";
    if (!MoveFileW(m_pwszHydrationMarker, strDone.c_str()))
        ZR_Warning(m_pwszMountKey, __FILE__, "ZR_Database::DataHydrate", __LINE__,
                   "Cannot rename the hydration marker %S, error %u\n", m_pwszHydrationMarker, GetLastError());
}

// True when a file could not be told: it had no identity, or the driver no
// longer knows it. After a cancel each file gets one try.
bool ZR_Database::SendHydrationCleanups(bool bComplete) {
    if (g_iTraceMode) TraceLine("DRIVER_COMMAND_HYDRATION_CLEANUP\n");
    bool bFailed = false;
    for (int i = 1; i < GetNumDataFileSlots(); ++i) {
        const ZR_DataFileState file = DataFileState(i);
        if (!file.bExists) continue;
        if (!IsUniquifierSet(file.uniquifier)) {
            bFailed = true;
            continue;
        }
        for (int iTry = 1;; ++iTry) {
            const HRESULT hr = SendHydrationCleanup(file.uniquifier, bComplete);
            if (hr == S_OK) break;
            if (g_iTraceMode && hr != E_HANDLE)
                TraceLine("DRIVER_COMMAND_HYDRATION_CLEANUP returned %08x\n", static_cast<unsigned>(hr));
            if (hr == E_HANDLE || iTry == kCleanupTries || HydrationEnding()) {
                bFailed = true;
                break;
            }
            Sleep(kCleanupRetryMs);
        }
    }
    return bFailed;
}

void ZR_Database::FlushMountCaches() {
    if (!m_pwszMountKey) return;
    if (g_iTraceMode)
        TraceLine("hydration cleanup for individual data files failed so just flush all driver caches for mount key\n");
    SendFlushMountCaches(m_pwszMountKey);
}

// ---------------------------------------------------------------------------
// Pause and progress
// ---------------------------------------------------------------------------

bool ZR_Database::PauseHydration() {
    m_bHydrationPaused = true;
    int32_t iState = ZR_VDB_STATE_ONLINE_HYDRATING;
    if (m_eState.compare_exchange_strong(iState, ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED) && g_iTraceMode)
        TraceLine("ZR_Database::PauseHydration - set ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED\n");
    return true;
}

bool ZR_Database::ResumeHydration() {
    m_bHydrationPaused = false;
    int32_t iState = ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED;
    if (m_eState.compare_exchange_strong(iState, ZR_VDB_STATE_ONLINE_HYDRATING) && g_iTraceMode)
        TraceLine("ZR_Database::ResumeHydration - set ZR_VDB_STATE_ONLINE_HYDRATING\n");
    return true;
}

bool ZR_Database::IsHydrationDone() {
    const bool bDone = m_bDataFilesCompletelyHydrated || m_bDatabaseWasDeleted;
    if (g_iTraceMode)
        TraceLine("IsHydrationDone: m_bDataFilesCompletelyHydrated: %d m_bDatabaseWasDeleted: %d bReturnValue: %d\n",
                  m_bDataFilesCompletelyHydrated.load(), m_bDatabaseWasDeleted.load(), bDone);
    return bDone;
}

void ZR_Database::SetHydrationMarker(const wchar_t* wszPath) { ReplaceOwnedString(&m_pwszHydrationMarker, wszPath); }

// The bytes the driver's bitmaps hold of the files, as each thread saw them
// at its last look at all of its files, or what this run has pushed, which
// ever is further. m_cs is held.
uint64_t ZR_Database::HydratedBytesNow() {
    uint64_t iDone = 0;
    const int iSlots = std::min(m_iNumHydrationSlots, GetNumDataFileSlots());
    for (int i = 0; i < iSlots; ++i) iDone += m_piHydratedBytes[size_t(i)];
    return std::max<uint64_t>(iDone, m_TotalHydratedByDataPasses + m_TotalHydratedByBackupPasses);
}

// Hydration threads add their files to the total one after the other, so
// a figure taken between two of them could fall back; it never does.
int ZR_Database::PercentNow() {
    EnterCriticalSection(&m_cs);
    const uint64_t iTotal = m_iTotalBytesToHydrate;
    const uint64_t iDone = HydratedBytesNow();
    LeaveCriticalSection(&m_cs);
    int iPercent = iTotal ? static_cast<int>(std::min<uint64_t>(iDone * kFullPercent / iTotal, kFullPercent)) : 0;
    int32_t iLast = m_iLastPercent;
    while (iLast < iPercent && !m_iLastPercent.compare_exchange_weak(iLast, iPercent)) {
    }
    return std::max(iPercent, iLast);
}

int ZR_Database::WaitOnPercentChange() {
    if (g_iTraceMode) TraceLine("ZR_Database::WaitOnPercentChange\n");
    EnterCriticalSection(&m_cs);
    const bool bCancel = m_bCancel;
    if (g_iTraceMode) TraceLine("ZR_Database::WaitOnPercentChange locked\n");
    LeaveCriticalSection(&m_cs);
    if (!bCancel) {
        if (g_iTraceMode) TraceLine("ZR_Database::WaitOnPercentChange WaitForSingleObject\n");
        WaitForSingleObject(m_hPercentChange, kPercentWaitMs);
    }
    const int iPercent = PercentNow();
    EnterCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::WaitOnPercentChange second lock\n");
    m_bPercentWaiter = false;
    if (m_bCancel) SetEvent(m_hPercentWaiterDone);
    LeaveCriticalSection(&m_cs);
    if (g_iTraceMode) TraceLine("ZR_Database::WaitOnPercentChange return\n");
    return iPercent;
}

void ZR_Database::GetPercentComplete(int64_t* piDone, int64_t* piTotal) {
    EnterCriticalSection(&m_cs);
    if (piDone) *piDone = static_cast<int64_t>(HydratedBytesNow());
    if (piTotal) *piTotal = static_cast<int64_t>(m_iTotalBytesToHydrate.load());
    LeaveCriticalSection(&m_cs);
}
