#include "backupio/ZR_BackupFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "diag/ZR_Error.h"
#include "platform/FileCallsTesting.h"
#include "support/ErrorText.h"
#include "support/TestData.h"

namespace fs = std::filesystem;
using namespace zr::platform::testing;

namespace {

constexpr uint32_t WINDOW = ZR_ReadAhead::ms_iDataSize;
const char* const FULL_BACKUP = "appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak";
const char* const SMALL_LOG = "appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn";  // a window and a bit

std::vector<uint8_t> Slurp(const fs::path& path) {
    std::vector<uint8_t> bytes(fs::file_size(path));
    std::ifstream in(path, std::ios::binary);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    return bytes;
}

// What the fault plan does to ReadFile: count every call, log its range,
// and on the chosen call fail or cut the read short. Forwarded reads
// complete at once (TRUE), where the platform's own report them pending:
// both ways of completion are thus exercised.
struct ReadPlan {
    int iCalls = 0;
    int iFailAt = 0;  // 1-based; 0 never
    bool bFailOnward = false;
    DWORD iError = ERROR_IO_DEVICE;
    bool bShort = false;
    std::vector<std::pair<uint64_t, uint32_t>> aRanges;
};
ReadPlan g_plan;

BOOL PlannedReadFile(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED ov) {
    g_plan.iCalls++;
    g_plan.aRanges.emplace_back(ov ? (uint64_t(ov->OffsetHigh) << 32 | ov->Offset) : 0, n);
    const bool bHit = g_plan.iFailAt != 0 &&
                      (g_plan.iCalls == g_plan.iFailAt || (g_plan.bFailOnward && g_plan.iCalls > g_plan.iFailAt));
    if (bHit && !g_plan.bShort) {
        SetLastError(g_plan.iError);
        return FALSE;
    }
    BOOL bOk = g_DefaultFileCalls.ReadFile(h, p, n, pn, ov);
    if (!bOk && GetLastError() == ERROR_IO_PENDING) bOk = g_DefaultFileCalls.GetOverlappedResult(h, ov, pn, TRUE);
    if (bOk && bHit && pn) *pn /= 2;
    return bOk;
}

HANDLE DeniedCreateFileW(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

DWORD g_iOpenAccess = 0, g_iOpenShare = 0, g_iOpenFlags = 0;
HANDLE RecordingCreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disp,
                            DWORD flags, HANDLE tmpl) {
    g_iOpenAccess = access;
    g_iOpenShare = share;
    g_iOpenFlags = flags;
    return g_DefaultFileCalls.CreateFileW(name, access, share, sa, disp, flags, tmpl);
}

// Opens the file of g_strRealPath whatever name is asked for, so that a
// Windows drive path can stand on a Linux volume.
std::wstring g_strRealPath;
HANDLE RedirectingCreateFileW(LPCWSTR, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disp, DWORD flags,
                              HANDLE tmpl) {
    return g_DefaultFileCalls.CreateFileW(g_strRealPath.c_str(), access, share, sa, disp, flags, tmpl);
}

DWORD FailingGetFileSize(HANDLE, LPDWORD) {
    SetLastError(ERROR_IO_DEVICE);
    return INVALID_FILE_SIZE;
}

struct AlignedBuffer {
    explicit AlignedBuffer(size_t iSize)
        : p(static_cast<uint8_t*>(VirtualAlloc(nullptr, iSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))) {}
    ~AlignedBuffer() { VirtualFree(p, 0, MEM_RELEASE); }
    uint8_t* p;
};

class BackupFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_plan = ReadPlan{};
        m_iHandlesBefore = OpenFileHandleCount();
        m_pAhead = ZR_ReadAhead::Alloc();
        ASSERT_NE(m_pAhead, nullptr);
        m_strKey = L"backupio-test-" + std::to_wstring(++ms_iTest);
    }
    void TearDown() override {
        m_file.reset();
        ZR_ReadAhead::Free(m_pAhead);
        RestoreFileCalls();
        EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore) << "a file handle was left open";
        ZR_ClearErrors(m_strKey.c_str());
    }

    // Opens a file of the test data and keeps its bytes for comparison.
    bool OpenReal(const char* szRelative) {
        auto path = zrtest::TestDataFile(szRelative);
        if (!path) return false;
        m_path = *path;
        m_aBytes = Slurp(m_path);
        MakeFile(m_path);
        return m_file->Open();
    }
    void MakeFile(const fs::path& path) {
        m_file = std::make_unique<ZR_BackupFile>(m_strKey.c_str(), 1, path.wstring().c_str(), nullptr, false);
    }
    std::wstring Errors() const { return zrtest::ErrorText(m_strKey.c_str()); }
    bool ErrorsContain(const std::wstring& strText) const { return Errors().find(strText) != std::wstring::npos; }
    void InstallReadPlan() { ReplaceFileCall(&FileCalls::ReadFile, &PlannedReadFile); }

    // ReadU of [iOfs, iOfs + iLen) must give the file's own bytes.
    void ExpectReadU(uint64_t iOfs, uint32_t iLen) {
        std::vector<uint8_t> out(iLen + 1, 0xEE);
        uint32_t iRead = 0;
        ASSERT_TRUE(m_file->ReadU(m_pAhead, out.data(), iOfs, iLen, IO_READ, &iRead)) << iOfs << "+" << iLen;
        EXPECT_EQ(iRead, iLen);
        ASSERT_EQ(0, memcmp(out.data(), m_aBytes.data() + iOfs, iLen)) << "bytes differ at " << iOfs << "+" << iLen;
        EXPECT_EQ(out[iLen], 0xEE) << "wrote past the requested length";
    }

    static inline int ms_iTest = 0;
    size_t m_iHandlesBefore = 0;
    ZR_ReadAhead* m_pAhead = nullptr;
    std::wstring m_strKey;
    fs::path m_path;
    std::vector<uint8_t> m_aBytes;
    std::unique_ptr<ZR_BackupFile> m_file;
};

TEST_F(BackupFileTest, OpenLearnsSizeAndSectorWithoutSystemCache) {
    ZR_REQUIRE_TESTDATA();
    ReplaceFileCall(&FileCalls::CreateFileW, &RecordingCreateFileW);
    ASSERT_TRUE(OpenReal(SMALL_LOG)) << Errors();
    EXPECT_TRUE(m_file->IsOpen());
    EXPECT_EQ(m_file->GetFileSize(), fs::file_size(m_path));
    EXPECT_EQ(m_file->GetSectorSize(), ZR_BackupFile::ms_iDefaultSectorSize);
    EXPECT_EQ(g_iOpenAccess, GENERIC_READ);
    EXPECT_EQ(g_iOpenShare, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(g_iOpenFlags, FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING | FILE_ATTRIBUTE_NORMAL);
}

TEST_F(BackupFileTest, ReadUMatchesFileAtRandomAndEdgeRanges) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    const uint64_t iSize = m_aBytes.size();
    ASSERT_GT(iSize, 4 * uint64_t(WINDOW));

    std::mt19937_64 rng(20240611);
    for (int i = 0; i < 300; i++) {
        const uint64_t iOfs = rng() % iSize;
        const uint32_t iLen = static_cast<uint32_t>(1 + rng() % std::min<uint64_t>(iSize - iOfs, 3 * WINDOW));
        ExpectReadU(iOfs, iLen);
    }
    // Around the window edges, seen from a fresh window each time and from
    // a window that is already loaded.
    for (uint64_t iEdge : {uint64_t(WINDOW), 2 * uint64_t(WINDOW), 5 * uint64_t(WINDOW) + 512}) {
        for (int64_t iDelta : {-513, -1, 0, 1, 511}) {
            m_pAhead->Reset();
            ExpectReadU(iEdge + iDelta, 3);
            ExpectReadU(iEdge + iDelta - 7, 20);
        }
    }
    // The last bytes of the file.
    ExpectReadU(iSize - 1, 1);
    ExpectReadU(iSize - 777, 777);
    ExpectReadU(iSize - WINDOW - 5, WINDOW + 5);
}

TEST_F(BackupFileTest, ReadAMatchesFileForAlignedRanges) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    const uint64_t iSize = m_aBytes.size();
    AlignedBuffer buffer(1 << 20);
    std::mt19937_64 rng(7);
    for (int i = 0; i < 50; i++) {
        const uint64_t iOfs = (rng() % iSize) & ~uint64_t(511);
        const uint32_t iLen = static_cast<uint32_t>(512 * (1 + rng() % 256));
        uint32_t iRead = 0;
        ASSERT_TRUE(m_file->ReadA(buffer.p, iOfs, iLen, IO_READ_SEQUENTIAL, &iRead)) << Errors();
        // A read that reaches the end of the file delivers what is there.
        const uint32_t iExpected = static_cast<uint32_t>(std::min<uint64_t>(iLen, iSize - iOfs));
        ASSERT_EQ(iRead, iExpected);
        ASSERT_EQ(0, memcmp(buffer.p, m_aBytes.data() + iOfs, iExpected)) << iOfs;
    }
}

TEST_F(BackupFileTest, ReadPicksTheRoadByAlignment) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(SMALL_LOG)) << Errors();
    InstallReadPlan();
    AlignedBuffer buffer(65536 + 1);

    // Aligned: straight to the caller's buffer, exactly the range asked for.
    uint32_t iRead = 0;
    ASSERT_TRUE(m_file->Read(nullptr, buffer.p, 4096, 8192, IO_READ, &iRead)) << Errors();
    ASSERT_EQ(g_plan.aRanges.size(), 1u);
    EXPECT_EQ(g_plan.aRanges[0], std::make_pair(uint64_t(4096), uint32_t(8192)));
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 4096, 8192));

    // An unaligned buffer alone sends the read through the window, which
    // starts at the offset and holds the rest of this small file.
    ASSERT_TRUE(m_file->Read(m_pAhead, buffer.p + 1, 4096, 512, IO_READ, &iRead)) << Errors();
    ASSERT_EQ(g_plan.aRanges.size(), 2u);
    EXPECT_EQ(g_plan.aRanges[1], std::make_pair(uint64_t(4096), static_cast<uint32_t>(m_aBytes.size() - 4096)));
    EXPECT_EQ(0, memcmp(buffer.p + 1, m_aBytes.data() + 4096, 512));
    // So does an unaligned offset, which is served by the same window.
    ASSERT_TRUE(m_file->Read(m_pAhead, buffer.p, 4100, 512, IO_READ, &iRead)) << Errors();
    EXPECT_EQ(g_plan.aRanges.size(), 2u);
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 4100, 512));

    // Unaligned without a read-ahead, or straight to ReadA: a clear error and
    // no disk read.
    EXPECT_FALSE(m_file->Read(nullptr, buffer.p, 100, 512, IO_READ, &iRead));
    EXPECT_FALSE(m_file->ReadA(buffer.p, 512, 100, IO_READ, nullptr));
    EXPECT_FALSE(m_file->ReadA(buffer.p + 8, 512, 512, IO_READ, nullptr));
    EXPECT_EQ(g_plan.iCalls, 2);
    EXPECT_TRUE(ErrorsContain(L"Error unaligned access without read-ahead buffer on read of file " +
                              m_path.wstring() + L" at offset 100 for length 512"))
        << Errors();
    EXPECT_TRUE(ErrorsContain(L"Error unaligned access on read of file " + m_path.wstring() +
                              L" at offset 512 for length 100"))
        << Errors();
    // A kind that moves no bytes neither reads nor cares about the buffer.
    iRead = 77;
    EXPECT_TRUE(m_file->ReadA(buffer.p + 8, 512, 512, IO_OPEN, &iRead));
    EXPECT_EQ(iRead, 0u);
    EXPECT_EQ(g_plan.iCalls, 2);
}

TEST_F(BackupFileTest, SmallSequentialReadsShareOneWindow) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    InstallReadPlan();
    // 1,000 reads of 301 bytes from offset 7: 301,000 bytes cover four
    // windows, so four disk reads.
    for (uint64_t iOfs = 7; iOfs < 7 + 1000 * 301; iOfs += 301) ExpectReadU(iOfs, 301);
    EXPECT_EQ(g_plan.iCalls, 4);
    for (size_t i = 0; i < g_plan.aRanges.size(); i++) EXPECT_EQ(g_plan.aRanges[i].first, i * WINDOW);

    // Inside the loaded window: no disk read at all.
    ExpectReadU(3 * WINDOW + 100, 5000);
    EXPECT_EQ(g_plan.iCalls, 4);
    // Across its end: one more window, and one call serves it.
    ExpectReadU(4 * WINDOW - 10, 20);
    EXPECT_EQ(g_plan.iCalls, 5);
}

TEST_F(BackupFileTest, ReadsPastTheEndFailNamingTheFile) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(SMALL_LOG)) << Errors();
    const uint64_t iSize = m_aBytes.size();
    InstallReadPlan();
    std::vector<uint8_t> out(4096, 0xEE);

    // Beginning at the end: nothing is read from the disk.
    EXPECT_FALSE(m_file->ReadU(m_pAhead, out.data(), iSize, 10, IO_READ, nullptr));
    EXPECT_EQ(g_plan.iCalls, 0);
    EXPECT_TRUE(ErrorsContain(L"Error reading past end of file " + m_path.wstring() + L" at offset " +
                              std::to_wstring(iSize) + L" for length 10"))
        << Errors();

    // Beginning inside: what lies before the end is copied, then it fails.
    EXPECT_FALSE(m_file->ReadU(m_pAhead, out.data(), iSize - 100, 300, IO_READ, nullptr));
    EXPECT_EQ(0, memcmp(out.data(), m_aBytes.data() + iSize - 100, 100));
    EXPECT_EQ(out[100], 0xEE);
    EXPECT_TRUE(ErrorsContain(L"at offset " + std::to_wstring(iSize - 100) + L" for length 300")) << Errors();

    // Aligned reads at the end fail too rather than deliver nothing.
    AlignedBuffer buffer(4096);
    EXPECT_FALSE(m_file->ReadA(buffer.p, (iSize + 4095) & ~uint64_t(4095), 4096, IO_READ, nullptr));
    EXPECT_TRUE(ErrorsContain(L"Error occurred on read of file " + m_path.wstring())) << Errors();
}

TEST_F(BackupFileTest, OddSizedFileIsReadableToItsLastByte) {
    zrtest::TempDir dir;
    const fs::path path = dir / "odd.bak";
    m_aBytes.resize(1000);
    for (size_t i = 0; i < m_aBytes.size(); i++) m_aBytes[i] = static_cast<uint8_t>(i * 7 + 3);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(m_aBytes.data()), m_aBytes.size());
    MakeFile(path);
    ASSERT_TRUE(m_file->Open()) << Errors();
    EXPECT_EQ(m_file->GetFileSize(), 1000u);
    ExpectReadU(0, 1000);
    ExpectReadU(999, 1);
    ExpectReadU(513, 487);
    std::vector<uint8_t> out(20);
    EXPECT_FALSE(m_file->ReadU(m_pAhead, out.data(), 990, 20, IO_READ, nullptr));
    EXPECT_EQ(0, memcmp(out.data(), m_aBytes.data() + 990, 10));
}

TEST_F(BackupFileTest, FailedOpensLeaveTheFileClosed) {
    zrtest::TempDir dir;
    MakeFile(dir / "missing.bak");
    EXPECT_FALSE(m_file->Open());
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_TRUE(ErrorsContain(L"Error 2 occurred on file open of " + (dir / "missing.bak").wstring())) << Errors();

    ZR_REQUIRE_TESTDATA();
    ReplaceFileCall(&FileCalls::CreateFileW, &DeniedCreateFileW);
    EXPECT_FALSE(OpenReal(SMALL_LOG));
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_TRUE(ErrorsContain(L"Error 5 occurred on file open of " + m_path.wstring())) << Errors();

    // A size that cannot be learnt closes the handle again.
    RestoreFileCalls();
    ReplaceFileCall(&FileCalls::GetFileSize, &FailingGetFileSize);
    EXPECT_FALSE(m_file->Open());
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore);

    // A drive root that the volume query does not know closes it too.
    RestoreFileCalls();
    g_strRealPath = m_path.wstring();
    ReplaceFileCall(&FileCalls::CreateFileW, &RedirectingCreateFileW);
    MakeFile(L"Q:\\nowhere\\full.bak");
    EXPECT_FALSE(m_file->Open());
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_TRUE(ErrorsContain(L"for file Q:\\nowhere\\full.bak")) << Errors();
    EXPECT_TRUE(ErrorsContain(L"GetDiskFreeSpace returned error ")) << Errors();
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore);
}

TEST_F(BackupFileTest, CloseAndReopenAlternate) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(SMALL_LOG)) << Errors();
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore + 1);
    m_file->Close();
    m_file->Close();
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore);
    AlignedBuffer buffer(512);
    EXPECT_FALSE(m_file->ReadA(buffer.p, 0, 512, IO_READ, nullptr));  // closed: an error, not a crash

    ASSERT_TRUE(m_file->Open()) << Errors();
    ASSERT_TRUE(m_file->Open());  // opening an open file keeps its one handle
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore + 1);
    ExpectReadU(1, 4);
    EXPECT_EQ(memcmp(m_aBytes.data(), "TAPE", 4), 0);
}

TEST_F(BackupFileTest, ShortReadIsAnErrorAndTheFileStaysUsable) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    InstallReadPlan();
    g_plan.iFailAt = 1;
    g_plan.bShort = true;
    AlignedBuffer buffer(65536);
    uint32_t iRead = 0;
    EXPECT_FALSE(m_file->ReadA(buffer.p, 65536, 65536, IO_READ, &iRead));
    EXPECT_EQ(g_iLastIOError.load(), ERROR_HANDLE_EOF);
    EXPECT_TRUE(ErrorsContain(L"Error occurred on read of file " + m_path.wstring() +
                              L" at offset 65536 for length 65536"))
        << Errors();
    EXPECT_TRUE(m_file->IsOpen());
    ASSERT_TRUE(m_file->ReadA(buffer.p, 65536, 65536, IO_READ, &iRead)) << Errors();
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 65536, 65536));
}

// Fails the Nth disk read of a scan in small unaligned steps, for every N
// the scan reaches, once and then for good: each run either reads every
// byte right or stops with the injected error recorded, and the read-ahead
// serves the right bytes again once the fault is gone.
TEST_F(BackupFileTest, InjectedReadErrorsFailCleanlyAtEveryStep) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    InstallReadPlan();
    const uint32_t iStep = 4999;
    const uint64_t iSize = m_aBytes.size();
    for (bool bOnward : {false, true}) {
        for (int iFailAt = 1;; iFailAt++) {
            g_plan = ReadPlan{};
            g_plan.iFailAt = iFailAt;
            g_plan.bFailOnward = bOnward;
            m_pAhead->Reset();
            ZR_ClearErrors(m_strKey.c_str());
            g_iLastIOError = 0;
            std::vector<uint8_t> out(iStep);
            uint64_t iOfs = 0;
            uint32_t iLen = 0;
            bool bFailed = false;
            for (; iOfs < iSize; iOfs += iStep) {
                iLen = static_cast<uint32_t>(std::min<uint64_t>(iStep, iSize - iOfs));
                if (!m_file->ReadU(m_pAhead, out.data(), iOfs, iLen, IO_READ, nullptr)) {
                    bFailed = true;
                    break;
                }
                ASSERT_EQ(0, memcmp(out.data(), m_aBytes.data() + iOfs, iLen)) << "N=" << iFailAt;
            }
            if (!bFailed) {
                EXPECT_LT(g_plan.iCalls, iFailAt);
                break;
            }
            EXPECT_EQ(g_iLastIOError.load(), ERROR_IO_DEVICE);
            EXPECT_TRUE(ErrorsContain(L"Error occurred on read of file " + m_path.wstring() + L" at offset " +
                                      std::to_wstring(iOfs)))
                << Errors();
            // The window that failed to load must not serve its stale bytes.
            g_plan.iFailAt = 0;
            ExpectReadU(iOfs + iLen - 1, 1);
            ExpectReadU(iOfs, iLen);
            ASSERT_LT(iFailAt, 100) << "the scan never ends";
        }
    }
    EXPECT_TRUE(m_file->IsOpen());
}

TEST_F(BackupFileTest, ReadNativeFindsThePageOfAnExtentEntry) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    AlignedBuffer buffer(ZR_PAGE_SIZE);
    // File index 5 in the top bits must not move the offset.
    const uint64_t iEntry = (uint64_t(5) << 58) | (uint64_t(2) << 52) | 0x10000;
    const PageId page{0x1234B, 1};  // page 3 of its extent
    uint32_t iRead = 0;
    ASSERT_TRUE(m_file->ReadNative(nullptr, buffer.p, iEntry, page, ZR_PAGE_SIZE, IO_READ, &iRead)) << Errors();
    EXPECT_EQ(iRead, ZR_PAGE_SIZE);
    const uint64_t iOfs = 0x10000 + 2 * 65536 + 3 * 8192;
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + iOfs, ZR_PAGE_SIZE));
}

TEST_F(BackupFileTest, AlignedReadsAreCountedInTheIOLog) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    g_IOStats.Clear();
    AlignedBuffer buffer(65536);
    for (int i = 0; i < 3; i++) ASSERT_TRUE(m_file->ReadA(buffer.p, i * 65536, 65536, IO_READ_SEQUENTIAL, nullptr));
    // Unaligned reads count as the window loads they cause, under "Read".
    ExpectReadU(3, 100);
    uint64_t iCalls = 0, iBytes = 0;
    g_IOStats.GetTotals(ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL, &iCalls, &iBytes);
    EXPECT_EQ(iCalls, 3u);
    EXPECT_EQ(iBytes, 3u * 65536);
    g_IOStats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, &iCalls, &iBytes);
    EXPECT_EQ(iCalls, 1u);
    EXPECT_EQ(iBytes, WINDOW);
}

TEST(ZR_BackupFileRoot, DriveAndUncRootsOnly) {
    const std::wstring strLong = L"\\\\" + std::wstring(70, L'h') + L"\\share\\file.bak";
    const std::pair<const wchar_t*, const wchar_t*> aCases[] = {
        {L"C:\\backups\\full.bak", L"C:\\"},
        {L"\\\\host\\share\\dir\\file", L"\\\\host\\share\\"},
        {L"/work/shared/testdata/x.bak", L""},
        {L"C:relative.bak", L""},
        {L"\\\\hostonly", L""},
        {strLong.c_str(), L""},
        {nullptr, L""},
    };
    for (const auto& [wszPath, wszRoot] : aCases) {
        wchar_t wsz[ZR_BackupFile::ms_iRootChars];
        ZR_BackupFile::FindRoot(wszPath, wsz);
        EXPECT_STREQ(wsz, wszRoot) << testing::PrintToString(wszPath ? wszPath : L"null");
    }
}

}  // namespace
