// Hydration threads in data-file mode: each asks the driver what its data
// files still lack (command 8), reads that from the backups through the
// extent maps, and hands it to the driver (command 9), chunk after chunk,
// until the driver reports nothing missing. Nothing else ends a hydration
// but a cancel: this mode is the last of every hydration, and it catches
// what any other left.
//
// File slots are dealt to the threads by stride: with 4 threads, thread 0
// has slots 1, 5, 9..., thread 1 slots 2, 6, 10... A thread looks at all its
// files, then stays on the first that has holes until it is complete, then
// the next; thread 0 decides when hydration is over (a look at all its files
// that finds nothing), the others go on until it has ended.
//
// A chunk is at most 16 extents (1 MiB), with the driver's bitmap of what
// is present, so present pages are neither read nor written again. Pages
// that no backup holds come out of the read with a zeroed header, and the
// driver makes them zeros in the file. A chunk whose read failed is not
// handed over (its pages would hold what the buffer held before): the next
// look offers it again, and a chunk that fails three times in a row stops
// the hydration, incomplete, with the reason in the error chain. So does a
// driver that answers nothing for seconds (it stopped): a later hydration
// of the mount may try again.
#include <cstring>

#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "driver/ZR_DriverCommands.h"
#include "engine/ZR_Database.h"
#include "engine/ZR_Writers.h"
#include "foundation/Unaligned.h"

namespace {

constexpr uint32_t kChunkBytes = 0x100000;
constexpr int kChunkReadTries = 3;
// A driver that answers no command 8 of a thread for this long is taken
// for gone.
constexpr uint32_t kDriverSilenceMs = 5000;
constexpr uint64_t kPercentStep = 1000;

bool IsComplete(const ZR_HydrationRange& range) { return range.iFirstExtent == kNoExtentToHydrate; }

}  // namespace

// What one look at a range of file slots found: the chunk to hydrate next
// (or, with iFirstExtent 0xFFFFFFFF, that the files answered and are
// complete), and the sizes the driver told.
struct ZR_Database::HydrationScan {
    ZR_HydrationRange next{};
    uint64_t iTotal = 0;     // bytes of the files
    uint64_t iHydrated = 0;  // bytes present
    bool bNoFile = true;     // no open file in the range
    bool bPortError = false;
};

// A chunk that keeps failing its read, and how often it failed in a row.
struct FailedChunk {
    uint32_t iFileId = 0;
    uint32_t iExtent = 0;
    int iTimes = 0;
};

bool ZR_Database::HydrationEnding() { return m_bCancel || m_bHydrationFailed; }

// Waits on the thread's event, which a cancel sets.
void ZR_Database::PauseThread(int iThread, DWORD iMs) { WaitForSingleObject(m_pWriters->ProducerEvent(iThread), iMs); }

// A paused mount waits, and so does one behind the cut-off of active
// hydrations.
bool ZR_Database::MustWait() {
    const int64_t iCutoff = ms_iHydrationCutoff;
    return m_eState == ZR_VDB_STATE_ONLINE_HYDRATION_PAUSED || (iCutoff != 0 && m_iHydrationOrderKey >= iCutoff);
}

// A thread without a buffer must not read: it tries again every second.
void* ZR_Database::AllocReadBuffer(int iThread, uint32_t iBytes) {
    for (bool bTold = false; !HydrationEnding(); bTold = true) {
        if (void* p = VirtualAlloc(nullptr, iBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)) return p;
        if (!bTold)
            ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::DataHydrateThreadProc", __LINE__,
                     "Hydration thread %d has no memory for its read buffer of %u bytes; it tries again.\n", iThread,
                     iBytes);
        PauseThread(iThread, 1000);
    }
    return nullptr;
}

ZR_Database::HydrationScan ZR_Database::ScanDataFiles(int iFirst, int iLimit) {
    HydrationScan scan;
    ++m_HydrationPassCount;
    for (int i = iFirst; i < iLimit && !HydrationEnding(); i += m_iNumHydrationThreads) {
        const ZR_DataFileState file = DataFileState(i);
        if (!file.bExists || file.bClosed) continue;
        scan.bNoFile = false;
        ZR_HydrationRange answer;
        DWORD cbAnswer = 0;
        if (!IsUniquifierSet(file.uniquifier) ||
            SendHydrationStatus(file.uniquifier, 0, &answer, &cbAnswer) != S_OK) {
            scan.bPortError = true;
            continue;
        }
        if (cbAnswer == 0) continue;
        const uint64_t iFileBytes = uint64_t{answer.iTotalExtents} * ZR_EXTENT_SIZE;
        scan.iTotal += iFileBytes;
        // A complete file counts whole, also where its last extent runs
        // past the end of the file.
        scan.iHydrated += IsComplete(answer) ? iFileBytes : answer.iHydratedBytes;
        answer.iFileId = static_cast<uint32_t>(i);
        if (IsComplete(answer)) {
            if (scan.next.iNumExtents == 0) scan.next = answer;
        } else if (answer.iFirstExtent == 0) {
            if (g_iTraceMode) TraceLine("bitmap file is corrupted. First extent is not hydrated. stop hydration.\n");
            scan.bPortError = false;
            m_bDatabaseWasDeleted = true;
            EnterCriticalSection(&m_cs);
            m_bCancel = true;
            LeaveCriticalSection(&m_cs);
        } else if (scan.next.iNumExtents == 0 || IsComplete(scan.next)) {
            scan.next = answer;  // the first file of the range with work wins
        }
    }
    return scan;
}

// Thread 0 wakes the callers of WaitOnPercentChange at every further tenth.
void ZR_Database::ReportProgress(uint64_t* piNextPercent) {
    const uint64_t iTotal = m_iTotalBytesToHydrate;
    if (iTotal == 0) return;
    const uint64_t iPercent = (m_TotalHydratedByDataPasses + m_TotalHydratedByBackupPasses) * kFullPercent / iTotal;
    if (iPercent < *piNextPercent) return;
    SetEvent(m_hPercentChange);
    *piNextPercent += kPercentStep;
}

// False when the read failed: the chunk is not handed over.
bool ZR_Database::HydrateChunk(int iThread, const ZR_HydrationRange& next, void* pBuffer) {
    const ZR_DataFileState file = DataFileState(static_cast<int>(next.iFileId));
    if (g_iTraceMode)
        TraceLine("DataHydrate - ithreadID: %d - hydrate next chunk - iFileId: %d start page: %d\n", iThread,
                  next.iFileId, next.iFirstExtent);
    const bool bRead = ReadFileByBitMap(static_cast<uint16_t>(next.iFileId), pBuffer, kChunkBytes, next.Bitmap,
                                        uint64_t{next.iFirstExtent} * ZR_EXTENT_SIZE, ZR_READ_HYDRATE);
    ++m_DataDrivenHydrationPasses;
    if (!bRead) {
        if (g_iTraceMode)
            TraceLine("ithreadID: %d - At least one failure trying to read page(s) to hydrate. Could just be data "
                      "page that sql server never allocated. Continue on.\n",
                      iThread);
        return false;
    }
    ZR_HydrationRange range = next;
    range.iFirstExtent *= ZR_PAGES_PER_EXTENT;  // pages, in command 9
    range.iNumExtents *= ZR_PAGES_PER_EXTENT;
    uint32_t cbTaken = 0;
    if (SendHydratePages(file.uniquifier, pBuffer, range, ZR_HYDRATE_MODE_DATA_FILE, nullptr, &cbTaken) != S_OK) {
        PauseThread(iThread, 100);
        ++m_piNumHydrationSleeps_1[size_t(iThread)];
        return true;
    }
    EnterCriticalSection(&m_cs);
    m_TotalHydratedByDataPasses += cbTaken;
    if (cbTaken && ZR_Load<uint32_t>(static_cast<uint8_t*>(pBuffer) + 32) == 0) ++m_UnallocatedPageHydrations;
    LeaveCriticalSection(&m_cs);
    return true;
}

void ZR_Database::DataHydrateThreadProc(int iThread) {
    if (g_iTraceMode) TraceLine("DataHydrate %S ithreadID: %d\n", m_pwszMountKey ? m_pwszMountKey : L"", iThread);
    if (g_hControlPort == INVALID_HANDLE_VALUE) {
        if (g_iTraceMode) TraceLine("ithreadID: %d return\n", iThread);
        return;
    }
    const uint32_t iStartTime = NowSeconds();
    uint32_t iFirstScanTime = 0;
    const int T = m_iNumHydrationThreads;
    const int iBase = iThread + 1;
    const int iFileCount = GetNumDataFileSlots();
    int iFirst = iBase, iLimit = iFileCount;
    uint64_t iNextPercent = 0, iMyTotal = 0;
    FailedChunk failed;
    void* pBuffer = AllocReadBuffer(iThread, m_pWriters->Sizing().ReadBufferSize());
    if (g_iTraceMode) TraceLine("DataHydrateThreadProc - while\n");
    uint64_t iPortErrorsSince = 0;  // tick of the first of the port errors in a row
    for (bool bStop = false; !bStop && !HydrationEnding();) {
        if (MustWait()) {
            PauseThread(iThread, 1000);
            continue;
        }
        // Backup-driven hydration (HydrateByBackupFile) would run here until
        // the mode is data-file; ChooseHydrationMode has set that mode.
        if (!iFirstScanTime) iFirstScanTime = NowSeconds();
        const bool bWhole = iFirst == iBase && iLimit == iFileCount;
        const HydrationScan scan = ScanDataFiles(iFirst, iLimit);
        if (bWhole && !scan.bPortError) m_piHydratedBytes[size_t(iThread)] = scan.iHydrated;
        if (scan.bNoFile) {
            if (m_bHydrationThreadExited) break;
            PauseThread(iThread, 500);
            ++m_piNumHydrationSleeps_1[size_t(iThread)];
        }
        if (scan.bPortError) {
            if (g_iTraceMode)
                TraceLine("ithreadID: %dError returned from FilterSendMessage m_HydrationCommunicationPort or "
                          "FileObjectUniquifier not set. Data file may be closed. Try again.\n",
                          iThread);
            if (!iPortErrorsSince) iPortErrorsSince = GetTickCount64();
            if (GetTickCount64() - iPortErrorsSince >= kDriverSilenceMs) {
                ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::DataHydrateThreadProc", __LINE__,
                         "The driver has not answered hydration thread %d for %u ms; hydration stops incomplete.\n",
                         iThread, kDriverSilenceMs);
                m_bHydrationFailed = true;
                break;
            }
            PauseThread(iThread, 500);
            ++m_piNumHydrationSleeps_2[size_t(iThread)];
            continue;
        }
        iPortErrorsSince = 0;
        if (iMyTotal == 0 && scan.iTotal) {
            iMyTotal = scan.iTotal;
            EnterCriticalSection(&m_cs);
            m_iTotalBytesToHydrate += scan.iTotal;
            LeaveCriticalSection(&m_cs);
        }
        if (HydrationEnding()) break;
        if (iThread == 0) ReportProgress(&iNextPercent);
        if (scan.next.iNumExtents != 0) {
            iFirst = static_cast<int>(scan.next.iFileId);  // stay on this file until it is complete
            iLimit = iFirst + 1;
            const bool bRead = HydrateChunk(iThread, scan.next, pBuffer);
            const bool bSame = failed.iFileId == scan.next.iFileId && failed.iExtent == scan.next.iFirstExtent;
            failed = bRead ? FailedChunk{}
                           : FailedChunk{scan.next.iFileId, scan.next.iFirstExtent, bSame ? failed.iTimes + 1 : 1};
            if (!bRead) PauseThread(iThread, 500);
            if (failed.iTimes >= kChunkReadTries) {
                ZR_Error(m_pwszMountKey, __FILE__, "ZR_Database::DataHydrateThreadProc", __LINE__,
                         "Pages from extent %u of data file %u could not be read from the backups %d times; "
                         "hydration stops incomplete.\n",
                         failed.iExtent, failed.iFileId, failed.iTimes);
                m_bHydrationFailed = true;
            }
        } else if (IsComplete(scan.next)) {
            if (bWhole) {
                // Thread 0 decides the end; the others look at their files one
                // at a time until it has ended.
                if (iThread == 0 || m_bHydrationThreadExited) break;
                iLimit = iFirst + 1;
                PauseThread(iThread, 250);
                ++m_piNumHydrationSleeps_2[size_t(iThread)];
            } else {
                while (iFirst < iFileCount - 1) {
                    iFirst += T;
                    iLimit += T;
                    if (iFirst > iFileCount - 1) break;
                    const ZR_DataFileState file = DataFileState(iFirst);
                    if (file.bExists && !file.bClosed) break;
                }
                if (iFirst >= iFileCount - 1) {
                    iFirst = iBase;
                    iLimit = iFileCount;
                }
            }
        } else if (iThread + 1 < GetNumDataFileSlots()) {
            PauseThread(iThread, 100);  // no file of the range answered
            ++m_piNumHydrationSleeps_2[size_t(iThread)];
        } else if (m_iRunningHydrationThreads <= T - GetNumDataFileSlots() + 1) {
            bStop = true;  // a thread without files, once the others have ended
        } else {
            PauseThread(iThread, 500);
            ++m_piNumHydrationSleeps_1[size_t(iThread)];
        }
    }
    if (g_iTraceMode) TraceLine("ithreadID: %d after while\n", iThread);
    if (pBuffer) VirtualFree(pBuffer, 0, MEM_RELEASE);
    const uint32_t iNow = NowSeconds();
    m_iSecondsSpentInDataFileMode = static_cast<int32_t>(iFirstScanTime ? iNow - iFirstScanTime : 0);
    m_iSecondsSpentInBackupFileMode = static_cast<int32_t>((iFirstScanTime ? iFirstScanTime : iNow) - iStartTime);
    if (g_iTraceMode) TraceLine("ithreadID: %d return\n", iThread);
}
