// Whole mounts of the real backups as a service and SQL Server make them:
// the library's exports (InitializeZR, the folders, the operation service,
// the request, WrapMount), the emulated RESTORE of every statement through
// the embedded driver's host side, then the database's reads of every page
// of every data file, checked against the test walker's naive restore of
// the same backups (ChainReference). And what must end cleanly: backup
// reads that fail, requests the library does not know, a mount removed
// under queued reads, and every handle at the end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "diag/ZR_Error.h"
#include "driver/FileCollection.h"
#include "filterdriver/ZR_DriverTrace.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "mount/ZR.h"
#include "platform/FileCallsTesting.h"
#include "support/ChainReference.h"
#include "support/DriverHostFileIo.h"
#include "support/ErrorText.h"
#include "support/PageFormat.h"
#include "support/PosixFileIo.h"
#include "support/RealChains.h"
#include "support/ServiceMount.h"
#include "support/SqlServerEmulator.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace zrtest {
namespace {

const std::string kDouble = "appveyor-lab/DoubleDiffing/";
const std::string kClean = "appveyor-lab/RestoreTimeClean/";
constexpr std::uint32_t kLargestRead = 0x100000;
constexpr auto kPatience = 10s;

// The data files' sizes as the last data backup of the request records them.
std::map<std::uint16_t, std::uint64_t> RecordedSizes(const MountRequest& request) {
    const MtfWalk walk = MtfWalker::WalkFile((request.diff.empty() ? request.full : request.diff).at(0));
    std::map<std::uint16_t, std::uint64_t> sizes;
    const MtfDataSet* pSet = walk.DataSet(request.iDataSet);
    for (const MtfSqlFile& f : pSet ? pSet->msci.files : std::vector<MtfSqlFile>{})
        if (f.fileType == 1) sizes[static_cast<std::uint16_t>(f.fileId)] = f.fileSize;
    return sizes;
}

// Empty when the page read is the one the chain must serve: the backups'
// copy that counts, which, if it is a page at all (header version 1; the
// unused pages of an extent hold what the disk held), carries its own page
// id and a checksum that holds; zeros where no backup holds the page.
std::string PageFault(const ChainReference& reference, std::uint16_t iFileId, std::uint32_t iPage,
                      const std::uint8_t* pPage) {
    const std::uint8_t* pWant = reference.ExpectedPage(iFileId, iPage);
    if (!pWant) return std::all_of(pPage, pPage + kPageSize, [](std::uint8_t b) { return b == 0; }) ? "" : "not zeros";
    if (std::memcmp(pPage, pWant, kPageSize) != 0) return "not the backups' page";
    const PageHeaderFields header = ReadPageHeader(pPage);
    if (header.headerVersion != 1) return "";
    if (header.pageNumber != iPage || header.fileId != iFileId)
        return "carries page id " + std::to_string(header.fileId) + ":" + std::to_string(header.pageNumber);
    return PageChecksumHolds(pPage) ? "" : "fails its checksum";
}

// Reads pages of a data file as SQL Server does; "" when each is the one
// the chain must serve.
std::string ReadAndCheck(SqlServerEmulator& sql, const ChainReference& reference, std::uint16_t iFileId,
                         std::uint32_t iFirstPage, std::uint32_t iPages, std::vector<std::uint8_t>& buffer) {
    const std::uint32_t cb = iPages * static_cast<std::uint32_t>(kPageSize);
    buffer.resize(cb);
    std::uint32_t cbRead = 0;
    const std::int32_t iStatus =
        sql.ReadData(iFileId, std::uint64_t{iFirstPage} * kPageSize, buffer.data(), cb, &cbRead);
    if (iStatus != 0 || cbRead != cb)
        return "read of " + std::to_string(iPages) + " pages at " + std::to_string(iFirstPage) + " gave status " +
               std::to_string(iStatus) + ", " + std::to_string(cbRead) + " bytes";
    for (std::uint32_t i = 0; i < iPages; ++i)
        if (std::string strFault = PageFault(reference, iFileId, iFirstPage + i, &buffer[i * kPageSize]);
            !strFault.empty())
            return "page " + std::to_string(iFileId) + ":" + std::to_string(iFirstPage + i) + " " + strFault;
    return "";
}

// The lines of a trace ring: cbLine bytes each, zero-terminated text.
std::vector<std::string> Lines(const char* pRing, size_t cbRing, size_t cbLine) {
    std::vector<std::string> lines;
    for (size_t i = 0; pRing && i + cbLine <= cbRing; i += cbLine)
        if (pRing[i]) lines.emplace_back(pRing + i, strnlen(pRing + i, cbLine));
    return lines;
}

// The thread of a line of the service's trace: "count-thread-seconds text".
std::string ThreadOf(const std::string& strLine) { return strLine.substr(7, strLine.find('-', 7) - 7); }

// The digits behind the first strName in the line.
std::string NumberAfter(const std::string& strLine, const std::string& strName) {
    const size_t iAt = strLine.find(strName) + strName.size();
    return strLine.substr(iAt, strLine.find_first_not_of("0123456789", iAt) - iAt);
}

const std::string* FindLine(const std::vector<std::string>& lines, const std::string& strText) {
    const auto it = std::find_if(lines.begin(), lines.end(),
                                 [&](const std::string& s) { return s.find(strText) != std::string::npos; });
    return it == lines.end() ? nullptr : &*it;
}

// The reads of one backup file, through the file-call table: they pass,
// fail (ERROR_CRC), or wait at a gate until it opens. The file's handles are
// those CreateFileW opens on a path with the given tail; every other call
// passes. Installed before the mount opens the backup, and taken away by the
// fixture once every thread of the mount has ended.
class BackupReads {
public:
    enum Mode { kPass, kFail, kHold };

    static void Install(const std::string& strTail) {
        State& s = TheState();
        s.strTail = std::wstring(strTail.begin(), strTail.end());
        zr::platform::testing::ReplaceFileCall(&FileCalls::CreateFileW, &Create);
        zr::platform::testing::ReplaceFileCall(&FileCalls::ReadFile, &Read);
    }
    static void Set(Mode eMode) {
        State& s = TheState();
        std::lock_guard lock(s.cs);
        s.eMode = eMode;
        s.cv.notify_all();
    }
    // True once iReads reads wait at the gate.
    static bool WaitHeld(int iReads) {
        State& s = TheState();
        std::unique_lock lock(s.cs);
        return s.cv.wait_for(lock, kPatience, [&] { return s.iHeld >= iReads; });
    }

private:
    struct State {
        std::mutex cs;
        std::condition_variable cv;
        std::wstring strTail;
        std::set<HANDLE> handles;
        Mode eMode = kPass;
        int iHeld = 0;
    };
    static State& TheState() {
        static State state;
        return state;
    }
    static HANDLE Create(LPCWSTR wszName, DWORD iAccess, DWORD iShare, LPSECURITY_ATTRIBUTES pSecurity,
                         DWORD iDisposition, DWORD iFlags, HANDLE hTemplate) {
        const HANDLE h =
            g_DefaultFileCalls.CreateFileW(wszName, iAccess, iShare, pSecurity, iDisposition, iFlags, hTemplate);
        State& s = TheState();
        const std::wstring strName = wszName;
        std::lock_guard lock(s.cs);
        if (h != INVALID_HANDLE_VALUE && strName.ends_with(s.strTail)) s.handles.insert(h);
        return h;
    }
    static BOOL Read(HANDLE h, LPVOID p, DWORD cb, LPDWORD pcbRead, LPOVERLAPPED pOverlapped) {
        State& s = TheState();
        {
            std::unique_lock lock(s.cs);
            if (s.handles.count(h) && s.eMode == kFail) {
                SetLastError(ERROR_CRC);
                return FALSE;
            }
            if (s.handles.count(h) && s.eMode == kHold) {
                ++s.iHeld;
                s.cv.notify_all();
                s.cv.wait(lock, [&] { return s.eMode != kHold; });
                --s.iHeld;
            }
        }
        return g_DefaultFileCalls.ReadFile(h, p, cb, pcbRead, pOverlapped);
    }
};

class DriverMount : public testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        // In a process of its own, the one handle left is the error chain's
        // mutex, made at load.
        m_iHandles = zr::platform::testing::OpenHandleCount();
        std::string strError;
        ASSERT_TRUE(StartService(m_dir.path(), &strError)) << strError;
        m_pHost = ZR_FilterDriver::Host();
        ASSERT_TRUE(m_pHost);
        m_pIo = std::make_unique<DriverHostFileIo>(m_pHost);
        m_pSql = std::make_unique<SqlServerEmulator>(*m_pIo);
        m_bUp = true;
    }
    void TearDown() override {
        m_pSql.reset();
        m_pIo.reset();
        m_pHost.reset();
        StopService();
        zr::platform::testing::RestoreFileCalls();
        ZR_ClearErrors(m_mount.Key().c_str());
        ZR_ClearErrors(nullptr);
        if (m_bUp) {
            EXPECT_EQ(zr::platform::testing::OpenHandleCount(), m_iHandles) << "a handle of the mount is left";
        }
    }

    void EndUnderQueuedReads(const std::function<void()>& end, ZR_HostStatus iAfter);

    bool MountAndRestore(const MountRequest& request) {
        if (m_mount.Mount(request) && m_mount.Restore(*m_pSql)) return true;
        ADD_FAILURE() << m_mount.Error();
        return false;
    }

    TempDir m_dir;
    size_t m_iHandles = 0;
    bool m_bUp = false;
    std::shared_ptr<ZR_DriverHost> m_pHost;
    std::unique_ptr<DriverHostFileIo> m_pIo;
    std::unique_ptr<SqlServerEmulator> m_pSql;
    ServiceMount m_mount;
};

// ---------------------------------------------------------------------------
// Every chain of versions 9 and 10 in the test data
// ---------------------------------------------------------------------------

class EveryChain : public DriverMount, public testing::WithParamInterface<RealChain> {};

TEST_P(EveryChain, ServesEveryPageOfItsDataFilesFromTheBackups) {
    const MountRequest request = InTestData(GetParam().request);
    const ChainReference reference(request.full, request.diff, request.iDataSet);
    ASSERT_EQ(reference.Error(), "");
    ASSERT_TRUE(MountAndRestore(request));
    EXPECT_EQ(m_pSql->ViewsRead().size(), request.full.size() + request.diff.size() + request.logs.size());

    const auto sizes = RecordedSizes(request);
    ASSERT_FALSE(sizes.empty());
    ASSERT_EQ(m_pSql->DataFiles().size(), sizes.size());
    std::vector<std::uint8_t> buffer;
    for (const auto& [iFileId, iRecorded] : sizes) {
        std::uint64_t iSize = 0;
        ASSERT_EQ(m_pSql->DataFileSize(iFileId, &iSize), 0);
        EXPECT_EQ(iSize, iRecorded) << "file " << iFileId << " has the size its backup records";
        const auto iPages = static_cast<std::uint32_t>(iSize / kPageSize);
        for (std::uint32_t iPage = 0; iPage < iPages; iPage += kLargestRead / kPageSize)
            ASSERT_EQ(ReadAndCheck(*m_pSql, reference, iFileId, iPage,
                                   std::min<std::uint32_t>(kLargestRead / kPageSize, iPages - iPage), buffer),
                      "");
    }
}

INSTANTIATE_TEST_SUITE_P(RealBackups, EveryChain, testing::ValuesIn(RealChains()),
                         [](const testing::TestParamInfo<RealChain>& param) { return param.param.strName; });

// ---------------------------------------------------------------------------
// One mount, what happens on the way
// ---------------------------------------------------------------------------

const MountRequest kCleanFull{.full = {kClean + "RestoreTimeClean.bak"}};
const MountRequest kCleanDiff{.full = {kClean + "RestoreTimeClean.bak"}, .diff = {kClean + "RestoreTimeClean2.bak"}};

// True once the condition holds; false after kPatience. For states that no
// event announces.
template <class Condition>
bool WaitUntil(Condition bHolds) {
    for (const auto start = std::chrono::steady_clock::now(); !bHolds(); std::this_thread::yield())
        if (std::chrono::steady_clock::now() - start > kPatience) return false;
    return true;
}

TEST_F(DriverMount, AReadOfAnAbsentPageGoesThroughLiveIOAndIsKept) {
    const MountRequest request = InTestData(kCleanFull);
    const ChainReference reference(request.full, {});
    ASSERT_TRUE(MountAndRestore(request));
    ASSERT_NE(reference.ExpectedPage(1, 8), nullptr) << "page 8 is the backup's, behind the extent the restore wrote";
    EnableServiceTrace(1);
    ASSERT_TRUE(EnableDriverTrace());
    std::vector<std::uint8_t> buffer;
    EXPECT_EQ(ReadAndCheck(*m_pSql, reference, 1, 8, 1, buffer), "");
    EXPECT_EQ(ReadAndCheck(*m_pSql, reference, 1, 8, 1, buffer), "");
    int cbRing = 0, cbLine = 0;
    char* pService = CaptureServiceTrace(&cbRing, &cbLine);
    const auto service = Lines(pService, static_cast<size_t>(cbRing), static_cast<size_t>(cbLine));
    FreeTraceBuffer(pService);
    char* pDriver = static_cast<char*>(CaptureDriverTrace());
    const auto driver = Lines(pDriver, kDriverTraceRingSize, ZR_DriverTrace::kLineSize);
    FreeTraceBuffer(pDriver);
    EnableServiceTrace(0);
    DisableDriverTrace();

    // The driver held one read (operation 3), whose buffer the library
    // mapped (command 13), until its completion came.
    const auto held = std::count_if(driver.begin(), driver.end(), [](const std::string& s) {
        return s.find("held: offset 65536, 8192 bytes") != std::string::npos;
    });
    EXPECT_EQ(held, 1) << "the second read finds the page kept";
    const std::string* pHeld = FindLine(driver, "held: offset 65536");
    ASSERT_NE(pHeld, nullptr);
    const std::string strId = NumberAfter(*pHeld, "operation "), strBuffer = NumberAfter(*pHeld, "buffer ");
    EXPECT_NE(FindLine(driver, "buffer " + strBuffer + " mapped"), nullptr);
    EXPECT_NE(FindLine(driver, "read " + strId + " completed, hr 00000000"), nullptr);

    // The library queued it on an operation thread, and a live I/O thread
    // read the pages and completed it.
    const std::string* pQueued = FindLine(service, "ZR_Database::AddLiveIOEntry");
    const std::string* pRead = FindLine(service, "ReadFileByBitMap(iFileId:1, iBytes: 8192 iCurOffset:65536 ");
    const std::string* pCompleted = FindLine(service, "sendReadCompletion");
    ASSERT_TRUE(pQueued && pRead && pCompleted);
    EXPECT_NE(ThreadOf(*pRead), ThreadOf(*pQueued)) << *pRead << *pQueued;
    EXPECT_EQ(ThreadOf(*pCompleted), ThreadOf(*pRead)) << *pCompleted << *pRead;
    EXPECT_NE(pCompleted->find("hr: 00000000"), std::string::npos) << *pCompleted;
}

TEST_F(DriverMount, EightReadersOfRandomPagesEachGetTheirOwnPages) {
    const MountRequest request = InTestData(kCleanDiff);
    const ChainReference reference(request.full, request.diff);
    ASSERT_TRUE(MountAndRestore(request));
    std::uint64_t iSize = 0;
    ASSERT_EQ(m_pSql->DataFileSize(1, &iSize), 0);
    const auto iPages = static_cast<std::uint32_t>(iSize / kPageSize);
    std::vector<std::string> faults(8);
    std::vector<std::thread> readers;
    for (size_t t = 0; t < faults.size(); ++t)
        readers.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t + 1));
            std::vector<std::uint8_t> buffer;
            for (int i = 0; i < 40 && faults[t].empty(); ++i) {
                const std::uint32_t iCount = 1 + rng() % 16;
                faults[t] = ReadAndCheck(*m_pSql, reference, 1, rng() % (iPages - iCount + 1), iCount, buffer);
            }
        });
    for (std::thread& reader : readers) reader.join();
    for (size_t t = 0; t < faults.size(); ++t) EXPECT_EQ(faults[t], "") << "reader " << t;
}

TEST_F(DriverMount, ABackupReadThatFailsFailsTheLiveReadAndNamesFileAndOffset) {
    const MountRequest request = InTestData(kCleanFull);
    const ChainReference reference(request.full, {});
    BackupReads::Install("RestoreTimeClean.bak");
    ASSERT_TRUE(MountAndRestore(request));
    BackupReads::Set(BackupReads::kFail);
    std::vector<std::uint8_t> buffer(kPageSize);
    std::uint32_t cb = 0;
    auto read = std::async(std::launch::async,
                           [&] { return m_pSql->ReadData(1, 16 * kPageSize, buffer.data(), kPageSize, &cb); });
    ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready) << "the read hangs";
    const std::int32_t iStatus = read.get();
    EXPECT_EQ(ZR_HostStatusToErrno(iStatus), EIO) << std::hex << iStatus;
    const std::string strErrors = ErrorTextNarrow(m_mount.Key().c_str());
    EXPECT_NE(strErrors.find("RestoreTimeClean.bak at offset "), std::string::npos) << strErrors;

    BackupReads::Set(BackupReads::kPass);
    EXPECT_EQ(ReadAndCheck(*m_pSql, reference, 1, 16, 1, buffer), "") << "the failed read kept nothing";
}

// Each live I/O thread waits in a backup read and the other reads wait in
// the queue when the mount ends; every read is still served, and the reads
// that come after get iAfter at once.
void DriverMount::EndUnderQueuedReads(const std::function<void()>& end, ZR_HostStatus iAfter) {
    const MountRequest request = InTestData(kCleanFull);
    const ChainReference reference(request.full, {});
    BackupReads::Install("RestoreTimeClean.bak");
    ASSERT_TRUE(MountAndRestore(request));
    ZR_Database* pDB = ZR::FindDatabase(m_mount.Key().c_str());
    ASSERT_NE(pDB, nullptr);
    BackupReads::Set(BackupReads::kHold);
    constexpr int kReads = 8;
    std::vector<std::future<std::string>> reads;
    for (std::uint32_t i = 1; i <= kReads; ++i)
        reads.push_back(std::async(std::launch::async, [&, i] {
            std::vector<std::uint8_t> buffer;
            return ReadAndCheck(*m_pSql, reference, 1, 8 * i, 8, buffer);
        }));
    ASSERT_TRUE(WaitUntil([&] { return pDB->m_iLiveIOsQueued == kReads; }));
    ASSERT_TRUE(BackupReads::WaitHeld(1));
    auto ending = std::async(std::launch::async, end);
    ASSERT_TRUE(WaitUntil([&] { return pDB->m_bLiveIOStopping.load(); }));  // the database stands until the reads end
    BackupReads::Set(BackupReads::kPass);

    ASSERT_EQ(ending.wait_for(kPatience), std::future_status::ready) << "the end of the mount hangs";
    for (auto& read : reads) {
        ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready) << "a held read never ended";
        EXPECT_EQ(read.get(), "") << "a queued read is served before the backups close";
    }
    std::vector<std::uint8_t> buffer(kPageSize);
    std::uint32_t cb = 0;
    EXPECT_EQ(m_pSql->ReadData(1, 200 * kPageSize, buffer.data(), kPageSize, &cb), iAfter) << "the mount is gone";
}

TEST_F(DriverMount, RemoveServesEveryReadQueuedForTheMount) {
    EndUnderQueuedReads([&] { ZR::GetZR()->Remove(m_mount.Key().c_str()); }, kHostInvalidHandle);
}

TEST_F(DriverMount, TheEndOfTheServiceServesEveryQueuedReadBeforeItsPortsClose) {
    EndUnderQueuedReads(&ZR::UninitializeForExit, kHostNotConnected);
}

// The first .bxk name of statement i.
std::wstring ViewName(ZR_MountInfo* pInfo, unsigned i) {
    std::vector<wchar_t> sql(static_cast<size_t>(GetSQLSize(pInfo, i)) + 64, L'\0');
    GetSQL(pInfo, i, sql.data(), static_cast<unsigned>(sql.size() - 1));
    const std::wstring str = sql.data();
    const size_t iStart = str.find(L'\'') + 1;
    return str.substr(iStart, str.find(L'\'', iStart) - iStart);
}

// A read of a view is served on an operation thread without the library
// lock: Remove waits for it, and the read ends whole before anything of the
// mount goes.
TEST_F(DriverMount, RemoveWaitsForAReadOfAViewInService) {
    BackupReads::Install("RestoreTimeClean.bak");
    ASSERT_TRUE(m_mount.Mount(InTestData(kCleanFull))) << m_mount.Error();
    SqlHandle hView = 0;
    ASSERT_EQ(m_pIo->Open(ViewName(m_mount.Info(), 0), false, &hView), 0);
    BackupReads::Set(BackupReads::kHold);
    std::vector<std::uint8_t> view(65536);
    auto read = std::async(std::launch::async, [&] {
        std::uint32_t cb = 0;
        return m_pIo->Read(hView, 0, view.data(), static_cast<std::uint32_t>(view.size()), &cb) == 0 &&
               cb == view.size();
    });
    ASSERT_TRUE(BackupReads::WaitHeld(1));
    auto removing = std::async(std::launch::async, [&] { ZR::GetZR()->Remove(m_mount.Key().c_str()); });
    EXPECT_EQ(removing.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout)
        << "the mount went while its view was being read";
    BackupReads::Set(BackupReads::kPass);
    ASSERT_EQ(removing.wait_for(kPatience), std::future_status::ready) << "the end of the mount hangs";
    ASSERT_EQ(read.wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(read.get());
    EXPECT_EQ(std::string(view.begin(), view.begin() + 4), "TAPE");
    m_pIo->Close(hView);
}

TEST_F(DriverMount, RequestsTheLibraryDoesNotKnowGetTheAnswersOfItsFileOperations) {
    ASSERT_TRUE(m_mount.Mount(InTestData(kCleanFull))) << m_mount.Error();
    const std::wstring strView = ViewName(m_mount.Info(), 0);
    SqlHandle hView = 0;
    ASSERT_EQ(m_pIo->Open(strView, false, &hView), 0);
    std::wstring strUpper = strView;
    for (wchar_t& c : strUpper) c = static_cast<wchar_t>(towupper(static_cast<wint_t>(c)));
    const std::uint32_t iKnownKey = FileCollection::KeyOf(strUpper);

    struct Case {
        const char* szWhat;
        std::uint32_t iOperation;
        bool bKnownKey;
        std::int32_t iResult;
    };
    const Case aCases[] = {
        {"an unknown operation", 4, true, static_cast<std::int32_t>(0xC0000420)},
        {"an unknown operation of an unknown key", 7, false, kHostInvalidHandle},
        {"a read of an unknown key", ZR_OP_READ, false, kHostInvalidHandle},
        {"a query of an unknown key", ZR_OP_QUERY_INFORMATION, false, kHostInvalidHandle},
        {"a close of an unknown key", ZR_OP_CLOSE, false, 0},
    };
    for (const Case& c : aCases) {
        ZR_QueryOperation operation{};
        operation.Head.iOperation = c.iOperation;
        operation.File = {c.bKnownKey ? iKnownKey : iKnownKey ^ 0x5A5A5A5A, 1};
        operation.iClass = kFileStandardInformation;
        ZR_OperationReply reply{};
        EXPECT_EQ(m_pHost->Operate(&operation, sizeof operation, &reply), c.iResult) << c.szWhat;
    }

    // A name that does not parse is not found; a view of no mount opens
    // (the number in its name is its handle) and its reads find nothing.
    SqlHandle h = 0;
    EXPECT_EQ(m_pIo->Open(L"C:\\no mount here.bxk", false, &h), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    ASSERT_EQ(m_pIo->Open(L"C:\\GUID=00000000-0000-0000-0000-0000000000AB!77.bxk", false, &h), 0);
    std::vector<std::uint8_t> buffer(0x10000);
    std::uint32_t cb = 0;
    std::uint64_t iSize = 0;
    EXPECT_EQ(m_pIo->Size(h, &iSize), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(m_pIo->Read(h, 0, buffer.data(), 0x10000, &cb), kHostInvalidHandle);
    EXPECT_EQ(m_pIo->Close(h), 0);
    EXPECT_EQ(m_pIo->Close(hView), 0);
}

// ---------------------------------------------------------------------------
// The emulator on plain files
// ---------------------------------------------------------------------------

TEST(PlainFolder, ARestoreOfARealBackupPutsEveryExtentInItsPlace) {
    ZR_REQUIRE_TESTDATA();
    TempDir dir;
    fs::create_directory(dir / "data");
    PosixFileIo io(dir.path());
    SqlServerEmulator sql(io);
    const fs::path full = TestDataFile(kDouble + "difftest-full.bak").value();
    ASSERT_TRUE(sql.Restore(L"RESTORE DATABASE [Plain] FROM DISK = '" + full.wstring() +
                            L"' WITH REPLACE, MOVE 'doublediff' TO 'C:\\data\\plain.mdf', MOVE 'doublediff_log' "
                            L"TO 'C:\\data\\plain.ldf'"))
        << sql.Error();
    ASSERT_EQ(sql.ViewsRead().size(), 1u);
    EXPECT_EQ(sql.ViewsRead()[0].second, fs::file_size(full)) << "the backup is read whole";
    EXPECT_FALSE(fs::exists(dir / "data/plain.ldf")) << "no log file is written";
    ASSERT_EQ(fs::file_size(dir / "data/plain.mdf"), 2359296u) << "the size the backup records";

    NaiveRestore naive;
    ASSERT_TRUE(naive.Apply({full})) << naive.Error();
    ASSERT_TRUE(sql.OpenDataFiles()) << sql.Error();
    std::vector<std::uint8_t> page(kPageSize);
    const std::vector<std::uint8_t> zeros(kPageSize);
    for (std::uint32_t i = 0; i < 2359296 / kPageSize; ++i) {
        std::uint32_t cb = 0;
        ASSERT_EQ(sql.ReadData(1, std::uint64_t{i} * kPageSize, page.data(), kPageSize, &cb), 0);
        const std::uint8_t* pWant = naive.Page(1, i) ? naive.Page(1, i) : zeros.data();
        ASSERT_EQ(std::memcmp(page.data(), pWant, kPageSize), 0) << "page " << i;
    }
}

}  // namespace
}  // namespace zrtest
