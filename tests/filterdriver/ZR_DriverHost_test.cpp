// SQL Server's file I/O through the embedded driver's host side, with the
// library played over the ports: held reads, what is kept, what fails.
#include <gtest/gtest.h>

#include <future>

#include "support/DriverTestBase.h"
#include "foundation/Utf16.h"
#include "platform/FileCallsTesting.h"

namespace zrtest {
namespace {

using namespace std::chrono_literals;
using DriverHostTest = DriverTestBase;

// Where a read the library was asked for starts and how long it is, in pages.
using Span = std::pair<uint64_t, uint64_t>;
std::vector<Span> Spans(const std::vector<ZR_ReadOperation>& reads) {
    std::vector<Span> spans;
    for (const ZR_ReadOperation& read : reads) spans.emplace_back(read.iOffset / kPage, read.iLength / kPage);
    return spans;
}

TEST_F(DriverHostTest, HeldReadIsReleasedByItsCompletionAndKeepsItsPages) {
    ZR_HostHandle h = OpenData();
    auto create = As<ZR_CreateOperation>(Operations(ZR_OP_CREATE).at(0));
    EXPECT_EQ(Utf16Decode(create.wszName, sizeof create.wszName), kNameA) << "the library's spelling, not the caller's";
    EXPECT_EQ(Utf16Decode(create.wszSecondName, sizeof create.wszSecondName), kNameB);
    EXPECT_TRUE(IsUniquifierSet(create.Uniquifier));

    m_bHold = true;
    std::vector<uint8_t> aGot(8 * kPage);
    uint32_t cb = 0;
    auto reader =
        std::async(std::launch::async, [&] { return m_pHost->Read(h, 3 * kPage, aGot.data(), 8 * kPage, &cb); });
    ZR_ReadOperation read = NextHeldRead();
    EXPECT_EQ(read.File.iFileKey, kFileKey);
    EXPECT_EQ(read.File.bVirtualBackup, 0u);
    EXPECT_EQ(read.Bitmap[0] | read.Bitmap[1], 0) << "nothing is present yet";
    EXPECT_EQ(reader.wait_for(0s), std::future_status::timeout) << "held until the completion";
    Supply(read, 0);
    ASSERT_EQ(reader.get(), kHostSuccess);
    EXPECT_EQ(cb, 8 * kPage);
    EXPECT_EQ(aGot, Expected(3, 8));

    // Pages 3 to 10 are kept: a read around them asks only for the others,
    // and gets the kept ones from the sparse file (the library leaves
    // present pages blank in the buffer).
    m_bHold = false;
    EXPECT_EQ(ReadPages(h, 0, 16), Expected(0, 16));
    EXPECT_EQ(Spans(ReadOperations()), (std::vector<Span>{{3, 8}, {0, 16}}));
    EXPECT_EQ(ReadOperations().back().Bitmap[0], 0x1F);
    EXPECT_EQ(ReadOperations().back().Bitmap[1], 0xE0);
    EXPECT_EQ(ReadPages(h, 2, 12), Expected(2, 12));
    EXPECT_EQ(ReadOperations().size(), 2u) << "no page is fetched twice";
}

TEST_F(DriverHostTest, ReadsLongerThanTheBitmapAreSplitAndPagesWithoutBackupAreZeros) {
    m_NoBackup = {6, 1030};
    ZR_HostHandle h = OpenData();
    EXPECT_EQ(ReadPages(h, 5, 1100), Expected(5, 1100));
    // The first: 1,024 pages less the first page's place in its extent.
    EXPECT_EQ(Spans(ReadOperations()), (std::vector<Span>{{5, 1024 - 5}, {1024, 81}}));
}

TEST_F(DriverHostTest, FailuresOfTheLibraryFailTheReadAndKeepNothing) {
    struct Case {
        int32_t iReply, iCompletion, iErrno;
    };
    const Case aCases[] = {
        {static_cast<int32_t>(0xC0000017), 0, ENOMEM},  // the read was not queued
        {0, 23, EIO},                                   // the backup read failed (ERROR_CRC)
        {0, static_cast<int32_t>(0x80070070), ENOSPC},  // an HRESULT
    };
    ZR_HostHandle h = OpenData();
    for (const Case& c : aCases) {
        m_iReadReply = c.iReply;
        m_iReadResult = c.iCompletion;
        std::vector<uint8_t> aGot(kPage);
        uint32_t cb = 0;
        ZR_HostStatus iStatus = m_pHost->Read(h, 40 * kPage, aGot.data(), kPage, &cb);
        EXPECT_EQ(iStatus, c.iReply ? c.iReply : c.iCompletion);
        EXPECT_EQ(ZR_HostStatusToErrno(iStatus), c.iErrno);
    }
    m_iReadReply = m_iReadResult = 0;
    EXPECT_EQ(ReadPages(h, 40, 1), Expected(40, 1));
    EXPECT_EQ(ReadOperations().size(), 4u) << "the failed reads kept no page";
}

TEST_F(DriverHostTest, StopOrALibraryThatGoesAwayReleasesHeldReads) {
    struct Case {
        const char* szWhat;
        ZR_HostStatus iExpected;
    };
    for (const Case& c : {Case{"library gone", kHostNotConnected}, Case{"driver stopped", kHostDriverStopped}}) {
        SCOPED_TRACE(c.szWhat);
        ZR_HostHandle h = OpenData();
        m_bHold = true;
        std::vector<uint8_t> aGot(kPage);
        uint32_t cb = 0;
        auto reader =
            std::async(std::launch::async, [&] { return m_pHost->Read(h, 9 * kPage, aGot.data(), kPage, &cb); });
        NextHeldRead();
        if (c.iExpected == kHostNotConnected)
            m_pClient->DisconnectOperations();
        else
            ZR_FilterDriver::Stop();
        ASSERT_EQ(reader.wait_for(5s), std::future_status::ready);
        EXPECT_EQ(reader.get(), c.iExpected);
        Restart(true);
    }
}

TEST_F(DriverHostTest, BitmapSurvivesARestartButNeverRunsAheadOfItsPages) {
    ZR_HostHandle h = OpenData();
    ReadPages(h, 0, 8);
    EXPECT_EQ(m_pHost->Flush(h), kHostSuccess);
    EXPECT_EQ(Operations(ZR_OP_FLUSH).size(), 1u);
    ReadPages(h, 8, 8);  // kept, but its bits never stored: the process is killed below
    Restart(false);
    h = OpenData();
    EXPECT_EQ(ReadPages(h, 0, 16), Expected(0, 16));
    EXPECT_EQ(Spans(ReadOperations()), (std::vector<Span>{{8, 8}})) << "pages 0 to 7 came back from the disk";

    // A page whose write failed is given to the reader but not marked.
    {
        zr::platform::testing::ScopedFileCalls restore;
        zr::platform::testing::ReplaceFileCall(
            &FileCalls::WriteFile, +[](HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED) -> BOOL {
                SetLastError(ERROR_DISK_FULL);
                return FALSE;
            });
        EXPECT_EQ(ReadPages(h, 16, 8), Expected(16, 8));
    }
    EXPECT_EQ(m_pHost->Flush(h), kHostSuccess);
    Restart(true);
    h = OpenData();
    EXPECT_EQ(ReadPages(h, 16, 8), Expected(16, 8));
    EXPECT_EQ(Spans(ReadOperations()), (std::vector<Span>{{16, 8}})) << "the unwritten pages are fetched again";
}

TEST_F(DriverHostTest, WritesReadInPagesTheyCoverInPartAndGrowTheFile) {
    ZR_HostHandle h = OpenData();
    std::vector<uint8_t> aBytes(100, 0xAB);
    ASSERT_EQ(m_pHost->Write(h, 3 * kPage + 10, aBytes.data(), 100), kHostSuccess);
    EXPECT_EQ(Spans(ReadOperations()), (std::vector<Span>{{3, 1}}));
    std::vector<uint8_t> aPage = Expected(3, 1);
    std::memcpy(&aPage[10], aBytes.data(), 100);
    EXPECT_EQ(ReadPages(h, 3, 1), aPage);

    std::vector<uint8_t> aWhole(kPage, 0xCD);
    ASSERT_EQ(m_pHost->Write(h, (kFilePages + 1) * kPage, aWhole.data(), kPage), kHostSuccess);
    uint64_t iSize = 0;
    EXPECT_EQ(m_pHost->QuerySize(h, &iSize), kHostSuccess);
    EXPECT_EQ(iSize, (kFilePages + 2) * kPage);
    EXPECT_EQ(ReadPages(h, kFilePages, 2), [&] {
        std::vector<uint8_t> a(2 * kPage, 0);
        std::fill(a.begin() + kPage, a.end(), 0xCD);
        return a;
    }());
    EXPECT_EQ(ReadOperations().size(), 1u) << "pages past the backup's end are zeros, not fetched";
    uint32_t cb = 1;
    EXPECT_EQ(m_pHost->Read(h, iSize, aWhole.data(), kPage, &cb), kHostSuccess);
    EXPECT_EQ(cb, 0u);
}

TEST_F(DriverHostTest, VirtualBackupFilesAreServedByTheLibrary) {
    ZR_HostHandle h = 0;
    ASSERT_EQ(m_pHost->Open(L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.bxk", &h), kHostSuccess);
    auto create = As<ZR_CreateOperation>(Operations(ZR_OP_CREATE).back());
    EXPECT_EQ(create.wszSecondName[0], 0) << "a plain create";
    uint64_t iValue = 0;
    EXPECT_EQ(m_pHost->QueryPosition(h, &iValue), kHostSuccess);
    EXPECT_EQ(iValue, m_iPosition);
    std::vector<uint8_t> aGot(65536);
    uint32_t cb = 0;
    ASSERT_EQ(m_pHost->Read(h, 98304, aGot.data(), 65536, &cb), kHostSuccess);
    EXPECT_EQ(cb, m_iViewSize - 98304) << "cut at the view's end";
    EXPECT_EQ(ReadOperations().back().File.bVirtualBackup, 1u);
    EXPECT_EQ(m_pHost->Write(h, 0, aGot.data(), 1), kHostAccessDenied);
    EXPECT_EQ(m_pHost->Close(h, true), kHostSuccess);
    auto close = As<ZR_CloseOperation>(Operations(ZR_OP_CLOSE).back());
    EXPECT_EQ(close.File.iFileKey, kFileKey);
    EXPECT_EQ(close.bDeleteOnClose, 1);
    EXPECT_EQ(m_pHost->Read(h, 0, aGot.data(), 1, &cb), kHostInvalidHandle);
}

TEST_F(DriverHostTest, DeleteOnCloseRemovesTheSparseFileAndItsBitmapAtTheLastClose) {
    ZR_HostHandle h1 = OpenData(), h2 = OpenData();
    ReadPages(h1, 0, 8);
    ASSERT_EQ(m_pHost->Flush(h2), kHostSuccess);
    std::filesystem::path sparse = m_dir / kSparseName, bitmap = m_dir / (std::string(kSparseName) + ".bitmap");
    ASSERT_TRUE(std::filesystem::exists(bitmap));
    EXPECT_EQ(m_pHost->Close(h1, true), kHostSuccess);
    EXPECT_TRUE(std::filesystem::exists(sparse)) << "another handle is open";
    EXPECT_EQ(m_pHost->Close(h2, false), kHostSuccess);
    EXPECT_FALSE(std::filesystem::exists(sparse));
    EXPECT_FALSE(std::filesystem::exists(bitmap));
}

}  // namespace
}  // namespace zrtest
