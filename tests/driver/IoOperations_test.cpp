// The operation service as the driver meets it: operations handed to the
// requests the service keeps pending, and the replies read at their byte
// offsets. Reads of a real backup's view are checked with the test walker,
// which shares no code with the library.
#include "driver/IoOperations.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "backup/ZR_VirtualBackupFile.h"
#include "diag/ZR_Error.h"
#include "driver/Lookup3.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"
#include "maps/X_MapFile.h"
#include "mount/ZR.h"
#include "platform/FileCallsTesting.h"
#include "support/ErrorText.h"
#include "support/FakeDriver.h"
#include "support/MtfWalker.h"
#include "support/TestData.h"
#include "zirlane/zirlane.h"

namespace {

using zr::platform::testing::OpenHandleCount;

const wchar_t kGuid[] = L"5A1C77E0-1234-4ABC-9DEF-00112233AABB";
constexpr uint32_t kPiece = 0x10000;

uint32_t KeyOfAscii(const std::string& strName) {
    std::string strBytes;
    for (char c : strName) strBytes += {c, '\0'};
    return hashlittle(strBytes.data(), strBytes.size(), 0);
}

template <class T>
T At(const ZR_OperationReply& reply, size_t iOffset) {
    return ZR_Load<T>(reinterpret_cast<const uint8_t*>(&reply) + iOffset);
}

class OperationService : public testing::Test {
protected:
    void SetUp() override {
        InitializeZR(0);
        ZR::UninitializeForExit();
        ZR_ClearErrors(nullptr);
        m_pDriver = std::make_unique<zrtest::FakeDriver>();
        m_iHandles = OpenHandleCount();
        ASSERT_TRUE(InitializeIOOperations(L"/tmp"));
    }
    void TearDown() override {
        ZR::UninitializeForExit();  // stops the service first
        m_pDriver.reset();
        ZR_ClearErrors(nullptr);
    }

    template <class Operation>
    ZR_OperationReply Operate(Operation op, uint32_t iOperation) {
        op.Head.iOperation = iOperation;
        ZR_OperationReply reply{};
        EXPECT_TRUE(m_pDriver->Operate(&op, sizeof op, &reply)) << "no reply";
        EXPECT_EQ(reply.iStatus, 0);
        return reply;
    }
    ZR_OperationReply Create(const std::wstring& strName, const std::wstring& strSecond = L"") {
        ZR_CreateOperation op{};
        Utf16EncodeField(strName.c_str(), op.wszName, sizeof op.wszName);
        Utf16EncodeField(strSecond.c_str(), op.wszSecondName, sizeof op.wszSecondName);
        op.Uniquifier = FileObjectUniquifier{{1, 2, 3, 4}};
        return Operate(op, ZR_OP_CREATE);
    }
    int32_t Query(uint32_t iKey, uint32_t iClass, ZR_OperationReply* pReply = nullptr) {
        ZR_QueryOperation op{};
        op.File = {iKey, 1};
        op.iClass = iClass;
        ZR_OperationReply reply = Operate(op, ZR_OP_QUERY_INFORMATION);
        if (pReply) *pReply = reply;
        return reply.iResult;
    }
    int32_t Read(ZR_FileInfoPair file, uint64_t iOffset, uint32_t iLength, uint64_t iBufferKey, uint64_t pOpId) {
        ZR_ReadOperation op{};
        op.File = file;
        op.iOffset = iOffset;
        op.iLength = iLength;
        op.iBufferKey = iBufferKey;
        op.pOpId = pOpId;
        return Operate(op, ZR_OP_READ).iResult;
    }
    int32_t Plain(uint32_t iOperation, uint32_t iKey, bool bDeleteOnClose = false) {
        ZR_CloseOperation op{};
        op.File = {iKey, 1};
        op.bDeleteOnClose = bDeleteOnClose;
        return Operate(op, iOperation).iResult;
    }

    std::unique_ptr<zrtest::FakeDriver> m_pDriver;
    size_t m_iHandles = 0;
};

TEST_F(OperationService, StoppingEndsEveryThreadAndClosesWhatItOpened) {
    EXPECT_EQ(m_pDriver->Sent(kTracePortName), (std::vector<zrtest::Bytes>{{17, 0, 0, 0}}));
    EXPECT_EQ(Create(L"C:\\GUID=" + std::wstring(kGuid) + L"!7.bxk").iResult, 0);
    EXPECT_GT(OpenHandleCount(), m_iHandles);
    IoOperations::Stop();
    EXPECT_EQ(OpenHandleCount(), m_iHandles);
}

TEST_F(OperationService, RepliesCarryTheirResultsAtTheirOffsets) {
    const ZR_OperationReply created = Create(L"C:\\guid=" + std::wstring(kGuid) + L"!7.bxk");
    ASSERT_EQ(created.iResult, 0);
    const uint32_t iKey = At<uint32_t>(created, kReplyCreateFileKey);
    EXPECT_EQ(iKey, KeyOfAscii("C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.BXK"));
    EXPECT_EQ(At<uint8_t>(created, kReplyCreateVirtualBackup), 1);

    const ZR_OperationReply refused = Create(L"C:\\GUID=" + std::wstring(kGuid) + L"!1.mxf");
    EXPECT_EQ(refused.iResult, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(At<uint32_t>(refused, kReplyCreateFileKey), 0xFFFFFFFFu);

    const uint32_t iUnknown = iKey + 1;
    const struct {
        const char* szCase;
        int32_t iResult;
        int32_t iExpected;
    } cases[] = {
        {"standard information of a view whose mount is not there", Query(iKey, 5), E_HANDLE},
        {"position of a handle that is no file", Query(iKey, 14), E_HANDLE},
        {"another class", Query(iKey, 99), E_INVALIDARG},
        {"operation 4", Plain(4, iKey), kStatusAssertionFailure},
        {"operation 7 of an unknown key", Plain(7, iUnknown), kStatusInvalidHandle},
        {"flush", Plain(ZR_OP_FLUSH, iKey), 0},
        {"read of an unknown key", Read({iUnknown, 1}, 0, 512, 1, 1), kStatusInvalidHandle},
        {"close of an unknown key, deleting", Plain(ZR_OP_CLOSE, iUnknown, true), 0},
        {"close", Plain(ZR_OP_CLOSE, iKey), 0},
        {"flush after the close", Plain(ZR_OP_FLUSH, iKey), kStatusInvalidHandle},
    };
    for (const auto& c : cases) EXPECT_EQ(c.iResult, c.iExpected) << c.szCase;
}

TEST_F(OperationService, DataFileReadsGoToTheLiveIOQueue) {
    GUID guid{};
    ASSERT_EQ(UuidFromStringW(reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(kGuid)), &guid), 0);
    ZR_Database* pDB = g_DBs.Append(new ZR_Database(L"", guid));
    const ZR_OperationReply associated =
        Create(L"D:\\Data\\Sales.mdf", L"C:\\GUID=" + std::wstring(kGuid) + L"!1.mxf");
    ASSERT_EQ(associated.iResult, 0);
    const uint32_t iKey = At<uint32_t>(associated, kReplyCreateFileKey);
    EXPECT_EQ(iKey, KeyOfAscii("D:\\Data\\Sales.mdf"));
    EXPECT_EQ(At<uint8_t>(associated, kReplyCreateVirtualBackup), 0);
    ASSERT_NE(pDB->FindDataFile(iKey, 1), nullptr);

    std::vector<uint8_t> buffer(kPiece);
    m_pDriver->MapBuffer(41, buffer.data());
    EXPECT_EQ(Read({iKey, 0}, 0x20000, kPiece, 41, 1), kStatusNoMemory) << "the queue took no entry";
    EXPECT_NE(zrtest::ErrorText().find(L"Failed to post to async live io queue"), std::wstring::npos);
    EXPECT_EQ(Read({iKey, 0}, 0x20000, kPiece, 42, 2), kStatusAssertionFailure) << "no buffer was mapped";

    const uint32_t iOther =
        At<uint32_t>(Create(L"D:\\Data\\Other.mdf", L"C:\\GUID=00000000-1234-4ABC-9DEF-00112233AABB!1.mxf"),
                     kReplyCreateFileKey);
    EXPECT_EQ(Read({iOther, 0}, 0, kPiece, 41, 3), kStatusInvalidHandle) << "a file of no mount";
    EXPECT_NE(zrtest::ErrorText().find(L"Failed to find virtual database for iMountFileKey"), std::wstring::npos);

    EXPECT_EQ(Plain(ZR_OP_CLOSE, iKey, true), 0);
    EXPECT_TRUE(pDB->GetDatabaseWasDeleted()) << "the last data file was deleted";
}

// A read of the view of a real full backup, served by the library's views
// and completed through the async port, walks as a sound backup.
class RealViewService : public OperationService {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        std::wcsncpy(g_wszMapFilesFolder, m_tmp.path().wstring().c_str(), MAX_PATH - 1);
        OperationService::SetUp();
    }
    void TearDown() override {
        OperationService::TearDown();
        if (m_pInfo) FreeMountInfo(m_pInfo);
        g_wszMapFilesFolder[0] = 0;
    }
    ZR_Database* Mount(const std::filesystem::path& file) {
        m_pInfo = AllocateMountInfo();
        BuildBackupInfoFromSet(m_pInfo, 1, 1, nullptr, nullptr);
        AddBackupSetFilename(m_pInfo, L"Full", file.wstring().c_str());
        wchar_t* wszKey = nullptr;
        const bool bMounted = ZR::GetZR()->Mount(m_pInfo, &wszKey);
        EXPECT_TRUE(bMounted) << zrtest::ErrorTextNarrow(wszKey);
        m_strKey = wszKey ? wszKey : L"";
        free(wszKey);
        return bMounted ? ZR::FindDatabase(m_strKey.c_str()) : nullptr;
    }

    zrtest::TempDir m_tmp;
    ZR_MountInfo* m_pInfo = nullptr;
    std::wstring m_strKey;
};

// The position the file calls give for any handle, in this test.
int64_t g_iFilePosition = 0;
DWORD PositionAt(HANDLE, LONG, PLONG plHigh, DWORD) {
    *plHigh = static_cast<LONG>(g_iFilePosition >> 32);
    return static_cast<DWORD>(g_iFilePosition);
}

TEST_F(RealViewService, AViewIsReadThroughTheServiceAndWalksClean) {
    const std::filesystem::path file = *zrtest::TestDataFile("appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak");
    ZR_Database* pDB = Mount(file);
    ASSERT_NE(pDB, nullptr);
    const uint32_t iId = ZR_VirtualBackupFile::HandleId(pDB->GetFull()->GetNextHandle(0));
    const ZR_OperationReply created = Create(L"Z:\\" + m_strKey + L"!" + std::to_wstring(iId) + L".bxk");
    ASSERT_EQ(created.iResult, 0);
    const uint32_t iKey = At<uint32_t>(created, kReplyCreateFileKey);

    ZR_OperationReply info{};
    ASSERT_EQ(Query(iKey, 5, &info), 0);
    const int64_t iSize = At<int64_t>(info, kReplyEndOfFile);
    EXPECT_EQ(At<int64_t>(info, kReplyAllocationSize), iSize);
    EXPECT_EQ(pDB->GetState(), ZR_VDB_STATE_DATA_COPY) << "SQL Server restores from the mount";

    std::vector<uint8_t> view(static_cast<size_t>(iSize));
    uint64_t iPieces = 0;
    for (int64_t iOffset = 0; iOffset < iSize; iOffset += kPiece, ++iPieces) {
        const uint32_t iLength = static_cast<uint32_t>(std::min<int64_t>(kPiece, iSize - iOffset));
        m_pDriver->MapBuffer(0x1000 + iPieces, view.data() + iOffset);
        ASSERT_EQ(Read({iKey, 1}, static_cast<uint64_t>(iOffset), iLength, 0x1000 + iPieces, 0x5000 + iPieces), 0);
    }
    const std::vector<zrtest::Bytes> completions = m_pDriver->Sent(kAsyncLiveIOPortName);
    const std::vector<zrtest::Bytes> unmaps = m_pDriver->Sent(kTracePortName);
    ASSERT_EQ(completions.size(), iPieces);
    for (uint64_t i = 0; i < iPieces; ++i) {
        ASSERT_EQ(completions[i].size(), sizeof(ZR_ReadCompletionMessage));
        EXPECT_EQ(ZR_Load<uint64_t>(completions[i].data()), 0x5000 + i);
        EXPECT_EQ(ZR_Load<int32_t>(completions[i].data() + 8), 0);
        // Command 17 came first on the trace port; then one command 14 a read.
        const zrtest::Bytes& unmap = unmaps.at(1 + i);
        ASSERT_EQ(unmap.size(), sizeof(ZR_UnmapReadBufferMessage));
        EXPECT_EQ(ZR_Load<uint32_t>(unmap.data()), DRIVER_COMMAND_UNMAP_READ_BUFFER);
        EXPECT_EQ(ZR_Load<uint64_t>(unmap.data() + 4), 0x1000 + i);
        EXPECT_EQ(ZR_Load<uint64_t>(unmap.data() + 12), reinterpret_cast<uint64_t>(view.data() + i * kPiece));
    }
    const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkBytes(view);
    ASSERT_TRUE(walk.ok) << walk.fault << " at " << walk.faultOffset;
    const zrtest::MtfWalk real = zrtest::MtfWalker::WalkFile(file);
    ASSERT_NE(walk.DataSet(1), nullptr);
    EXPECT_EQ(walk.DataSet(1)->msci.databaseName, real.DataSet(1)->msci.databaseName);

    // The position of the real file turns into the view's: unchanged before
    // the data cut, less the cut behind it.
    const ZR_VirtualBackupFile* pView = pDB->GetFull()->m_aVirtualFiles(0);
    ASSERT_GT(pView->m_iHoleLength, 0);
    zr::platform::testing::ScopedFileCalls restore;
    zr::platform::testing::ReplaceFileCall(&FileCalls::SetFilePointer, &PositionAt);
    ZR_OperationReply position{};
    for (const int64_t iPosition : {pView->m_iHoleStart, pView->m_iHoleStart + pView->m_iHoleLength + 10}) {
        g_iFilePosition = iPosition;
        ASSERT_EQ(Query(iKey, 14, &position), 0);
        const int64_t iView = static_cast<int64_t>(At<uint64_t>(position, kReplyPositionLow));
        EXPECT_EQ(iView, iPosition > pView->m_iHoleStart ? iPosition - pView->m_iHoleLength : iPosition);
    }
}

}  // namespace
