#include "backupio/ZR_BackupFile.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// What the fault plan does to ReadFile: count every call, log its range,
// and on the chosen call (or from it on) fail or cut the read short.
// Forwarded reads complete at once (TRUE), where the platform's own report
// them pending: both ways of completion are thus exercised.
struct ReadPlan {
    int iFailAt = 0;  // 1-based; 0 never
    bool bFailOnward = false;
    bool bShort = false;
    std::vector<std::pair<uint64_t, uint32_t>> aRanges;
};
ReadPlan g_plan;

BOOL PlannedReadFile(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED ov) {
    g_plan.aRanges.emplace_back(ov ? (uint64_t(ov->OffsetHigh) << 32 | ov->Offset) : 0, n);
    const int iCall = int(g_plan.aRanges.size());
    const bool bHit = g_plan.iFailAt != 0 && (iCall == g_plan.iFailAt || (g_plan.bFailOnward && iCall > g_plan.iFailAt));
    if (bHit && !g_plan.bShort) {
        SetLastError(ERROR_IO_DEVICE);
        return FALSE;
    }
    BOOL bOk = g_DefaultFileCalls.ReadFile(h, p, n, pn, ov);
    if (!bOk && GetLastError() == ERROR_IO_PENDING) bOk = g_DefaultFileCalls.GetOverlappedResult(h, ov, pn, TRUE);
    if (bOk && bHit && pn) *pn /= 2;
    return bOk;
}

// What the open asked for; or, with a real path set, that file opened
// whatever name is asked for (a Windows drive path on a Linux volume).
DWORD g_iOpenAccess = 0, g_iOpenShare = 0, g_iOpenFlags = 0;
std::wstring g_strRealPath;
HANDLE RecordingCreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disp,
                            DWORD flags, HANDLE tmpl) {
    g_iOpenAccess = access;
    g_iOpenShare = share;
    g_iOpenFlags = flags;
    return g_DefaultFileCalls.CreateFileW(g_strRealPath.empty() ? name : g_strRealPath.c_str(), access, share, sa,
                                          disp, flags, tmpl);
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
        g_strRealPath.clear();
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

    // Opens a file and keeps its bytes for comparison.
    bool Open(const fs::path& path) {
        m_path = path;
        m_aBytes.resize(fs::file_size(path));
        std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(m_aBytes.data()), std::streamsize(m_aBytes.size()));
        m_file = std::make_unique<ZR_BackupFile>(m_strKey.c_str(), 1, path.wstring().c_str(), nullptr, false);
        return m_file->Open();
    }
    bool OpenReal(const char* szRelative) { return Open(*zrtest::TestDataFile(szRelative)); }
    std::wstring Errors() const { return zrtest::ErrorText(m_strKey.c_str()); }
    bool ErrorsContain(const std::wstring& strText) const { return Errors().find(strText) != std::wstring::npos; }
    void InstallReadPlan() { ReplaceFileCall(&FileCalls::ReadFile, &PlannedReadFile); }
    size_t DiskReads() const { return g_plan.aRanges.size(); }

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
    EXPECT_EQ(m_file->GetFileSize(), m_aBytes.size());
    EXPECT_EQ(m_file->GetSectorSize(), ZR_BackupFile::ms_iDefaultSectorSize);
    EXPECT_EQ(g_iOpenAccess, GENERIC_READ);
    EXPECT_EQ(g_iOpenShare, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(g_iOpenFlags, FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING | FILE_ATTRIBUTE_NORMAL);
}

TEST_F(BackupFileTest, ReadsMatchTheFileAtRandomAndEdgeRanges) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    const uint64_t iSize = m_aBytes.size();
    ASSERT_GT(iSize, 4 * uint64_t(WINDOW));
    std::mt19937_64 rng(20240611);
    for (int i = 0; i < 300; i++) {
        const uint64_t iOfs = rng() % iSize;
        ExpectReadU(iOfs, static_cast<uint32_t>(1 + rng() % std::min<uint64_t>(iSize - iOfs, 3 * WINDOW)));
    }
    // Around the window edges, from a fresh window and from a loaded one.
    for (uint64_t iEdge : {uint64_t(WINDOW), 2 * uint64_t(WINDOW), 5 * uint64_t(WINDOW) + 512}) {
        for (int64_t iDelta : {-513, -1, 0, 1, 511}) {
            m_pAhead->Reset();
            ExpectReadU(iEdge + iDelta, 3);
            ExpectReadU(iEdge + iDelta - 7, 20);
        }
    }
    ExpectReadU(iSize - WINDOW - 5, WINDOW + 5);

    // Aligned reads go straight to the buffer; one that reaches the end of
    // the file delivers what is there.
    AlignedBuffer buffer(1 << 20);
    for (int i = 0; i < 50; i++) {
        const uint64_t iOfs = (rng() % iSize) & ~uint64_t(511);
        const uint32_t iLen = uint32_t(512 * (1 + rng() % 256));
        uint32_t iRead = 0;
        ASSERT_TRUE(m_file->ReadA(buffer.p, iOfs, iLen, IO_READ_SEQUENTIAL, &iRead));
        ASSERT_EQ(iRead, std::min<uint64_t>(iLen, iSize - iOfs));
        ASSERT_EQ(0, memcmp(buffer.p, m_aBytes.data() + iOfs, iRead)) << iOfs;
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
    EXPECT_EQ(g_plan.aRanges, (std::vector<std::pair<uint64_t, uint32_t>>{{4096, 8192}}));
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 4096, 8192));

    // An unaligned buffer alone sends the read through the window, which
    // starts at the offset and holds the rest of this small file; an
    // unaligned offset is then served by the same window.
    ASSERT_TRUE(m_file->Read(m_pAhead, buffer.p + 1, 4096, 512, IO_READ, &iRead)) << Errors();
    ASSERT_EQ(DiskReads(), 2u);
    EXPECT_EQ(g_plan.aRanges[1], std::make_pair(uint64_t(4096), static_cast<uint32_t>(m_aBytes.size() - 4096)));
    EXPECT_EQ(0, memcmp(buffer.p + 1, m_aBytes.data() + 4096, 512));
    ASSERT_TRUE(m_file->Read(m_pAhead, buffer.p, 4100, 512, IO_READ, &iRead)) << Errors();
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 4100, 512));

    // Unaligned without a read-ahead, or straight to ReadA: a clear error and
    // no disk read. A kind that moves no bytes neither reads nor cares.
    EXPECT_FALSE(m_file->Read(nullptr, buffer.p, 100, 512, IO_READ, &iRead));
    EXPECT_FALSE(m_file->ReadA(buffer.p, 512, 100, IO_READ, nullptr));
    EXPECT_FALSE(m_file->ReadA(buffer.p + 8, 512, 512, IO_READ, nullptr));
    iRead = 77;
    EXPECT_TRUE(m_file->ReadA(buffer.p + 8, 512, 512, IO_OPEN, &iRead));
    EXPECT_EQ(iRead, 0u);
    EXPECT_EQ(DiskReads(), 2u);
    EXPECT_TRUE(ErrorsContain(L"Error unaligned access without read-ahead buffer on read of file " +
                              m_path.wstring() + L" at offset 100 for length 512"))
        << Errors();
    EXPECT_TRUE(ErrorsContain(L"Error unaligned access on read of file " + m_path.wstring() +
                              L" at offset 512 for length 100"))
        << Errors();
}

TEST_F(BackupFileTest, SmallSequentialReadsShareOneWindow) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    InstallReadPlan();
    // 1,000 reads of 301 bytes from offset 7 cover four windows: four disk reads.
    for (uint64_t iOfs = 7; iOfs < 7 + 1000 * 301; iOfs += 301) ExpectReadU(iOfs, 301);
    ASSERT_EQ(DiskReads(), 4u);
    for (size_t i = 0; i < 4; i++) EXPECT_EQ(g_plan.aRanges[i].first, i * WINDOW);
    ExpectReadU(3 * WINDOW + 100, 5000);
    EXPECT_EQ(DiskReads(), 4u) << "inside the loaded window";
    ExpectReadU(4 * WINDOW - 10, 20);
    EXPECT_EQ(DiskReads(), 5u) << "across its end: one more window";
}

// A size that is no multiple of a sector: readable to its last byte, and a
// read past it fails naming the file, after copying what lies before the end.
TEST_F(BackupFileTest, AnOddSizedFileReadsToItsLastByteAndNoFurther) {
    zrtest::TempDir dir;
    std::vector<uint8_t> a(1000);
    for (size_t i = 0; i < a.size(); i++) a[i] = static_cast<uint8_t>(i * 7 + 3);
    std::ofstream(dir / "odd.bak", std::ios::binary).write(reinterpret_cast<const char*>(a.data()), a.size());
    ASSERT_TRUE(Open(dir / "odd.bak")) << Errors();
    EXPECT_EQ(m_file->GetFileSize(), 1000u);
    ExpectReadU(0, 1000);
    ExpectReadU(999, 1);
    ExpectReadU(513, 487);

    InstallReadPlan();
    std::vector<uint8_t> out(400, 0xEE);
    EXPECT_FALSE(m_file->ReadU(m_pAhead, out.data(), 1000, 10, IO_READ, nullptr));
    EXPECT_EQ(DiskReads(), 0u) << "beginning at the end, nothing is read";
    EXPECT_TRUE(ErrorsContain(L"Error reading past end of file " + m_path.wstring() + L" at offset 1000 for length 10"))
        << Errors();
    m_pAhead->Reset();
    EXPECT_FALSE(m_file->ReadU(m_pAhead, out.data(), 900, 300, IO_READ, nullptr));
    EXPECT_EQ(0, memcmp(out.data(), a.data() + 900, 100));
    EXPECT_EQ(out[100], 0xEE);
    EXPECT_TRUE(ErrorsContain(L"at offset 900 for length 300")) << Errors();
    // Aligned reads at the end fail too rather than deliver nothing.
    AlignedBuffer buffer(4096);
    EXPECT_FALSE(m_file->ReadA(buffer.p, 1024, 512, IO_READ, nullptr));
    EXPECT_TRUE(ErrorsContain(L"Error occurred on read of file " + m_path.wstring())) << Errors();
}

TEST_F(BackupFileTest, FailedOpensLeaveTheFileClosed) {
    zrtest::TempDir dir;
    m_file = std::make_unique<ZR_BackupFile>(m_strKey.c_str(), 1, (dir / "missing.bak").wstring().c_str(), nullptr,
                                             false);
    EXPECT_FALSE(m_file->Open());
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_TRUE(ErrorsContain(L"Error 2 occurred on file open of " + (dir / "missing.bak").wstring())) << Errors();

    ZR_REQUIRE_TESTDATA();
    ReplaceFileCall(&FileCalls::CreateFileW, +[](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) -> HANDLE {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    });
    EXPECT_FALSE(OpenReal(SMALL_LOG));
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_TRUE(ErrorsContain(L"Error 5 occurred on file open of " + m_path.wstring())) << Errors();

    // A size that cannot be learnt closes the handle again.
    RestoreFileCalls();
    ReplaceFileCall(&FileCalls::GetFileSize, +[](HANDLE, LPDWORD) -> DWORD {
        SetLastError(ERROR_IO_DEVICE);
        return INVALID_FILE_SIZE;
    });
    EXPECT_FALSE(m_file->Open());
    EXPECT_FALSE(m_file->IsOpen());
    EXPECT_EQ(OpenFileHandleCount(), m_iHandlesBefore);

    // A drive root that the volume query does not know closes it too.
    RestoreFileCalls();
    g_strRealPath = m_path.wstring();
    ReplaceFileCall(&FileCalls::CreateFileW, &RecordingCreateFileW);
    m_file = std::make_unique<ZR_BackupFile>(m_strKey.c_str(), 1, L"Q:\\nowhere\\full.bak", nullptr, false);
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
}

// Fails the Nth disk read of a scan in small unaligned steps, for every N
// the scan reaches: once, for good, or short. Each run either reads every
// byte right or stops with the fault recorded, and the read-ahead serves the
// right bytes again once the fault is gone.
TEST_F(BackupFileTest, InjectedReadErrorsFailCleanlyAtEveryStep) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    InstallReadPlan();
    const uint32_t iStep = 4999;
    const uint64_t iSize = m_aBytes.size();
    for (int iMode = 0; iMode < 3; iMode++) {
        for (int iFailAt = 1;; iFailAt++) {
            SCOPED_TRACE(testing::Message() << "mode " << iMode << " N=" << iFailAt);
            g_plan = ReadPlan{iFailAt, iMode == 1, iMode == 2, {}};
            m_pAhead->Reset();
            ZR_ClearErrors(m_strKey.c_str());
            g_iLastIOError = 0;
            std::vector<uint8_t> out(iStep);
            uint64_t iOfs = 0;
            uint32_t iLen = 0;
            for (; iOfs < iSize; iOfs += iStep) {
                iLen = static_cast<uint32_t>(std::min<uint64_t>(iStep, iSize - iOfs));
                if (!m_file->ReadU(m_pAhead, out.data(), iOfs, iLen, IO_READ, nullptr)) break;
                ASSERT_EQ(0, memcmp(out.data(), m_aBytes.data() + iOfs, iLen));
            }
            if (iOfs >= iSize) {
                EXPECT_LT(int(DiskReads()), iFailAt);
                break;
            }
            EXPECT_EQ(g_iLastIOError.load(), iMode == 2 ? ERROR_HANDLE_EOF : ERROR_IO_DEVICE);
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
    EXPECT_EQ(0, memcmp(buffer.p, m_aBytes.data() + 0x10000 + 2 * 65536 + 3 * 8192, ZR_PAGE_SIZE));
}

TEST_F(BackupFileTest, ReadsAreCountedInTheIOLog) {
    ZR_REQUIRE_TESTDATA();
    ASSERT_TRUE(OpenReal(FULL_BACKUP)) << Errors();
    g_IOStats.Clear();
    AlignedBuffer buffer(65536);
    for (int i = 0; i < 3; i++) ASSERT_TRUE(m_file->ReadA(buffer.p, i * 65536, 65536, IO_READ_SEQUENTIAL, nullptr));
    ExpectReadU(3, 100);  // counted as the window load it causes, under "Read"
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
        {L"C:\\backups\\full.bak", L"C:\\"}, {L"\\\\host\\share\\dir\\file", L"\\\\host\\share\\"},
        {L"/work/shared/testdata/x.bak", L""}, {L"C:relative.bak", L""}, {L"\\\\hostonly", L""},
        {strLong.c_str(), L""}, {nullptr, L""},
    };
    for (const auto& [wszPath, wszRoot] : aCases) {
        wchar_t wsz[ZR_BackupFile::ms_iRootChars];
        ZR_BackupFile::FindRoot(wszPath, wsz);
        EXPECT_STREQ(wsz, wszRoot) << testing::PrintToString(wszPath ? wszPath : L"null");
    }
}

}  // namespace
