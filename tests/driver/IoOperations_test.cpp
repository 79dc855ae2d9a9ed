// The operation service as the driver meets it: operations handed to the
// requests the service keeps pending, and the replies read at their byte
// offsets. (Reads of the views of real backups through the service, the
// answers to keys and operations it does not know, and the handles left at
// its end are the end-to-end mount tests'; the keys and the delete on close
// the file collection tests'; the view positions the file operations'.)
#include "driver/IoOperations.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "diag/ZR_Error.h"
#include "foundation/Unaligned.h"
#include "mount/ZR.h"
#include "support/DriverOperations.h"
#include "support/ErrorText.h"
#include "support/FakeDriver.h"
#include "support/FileKey.h"
#include "support/LibraryTest.h"
#include "zirlane/zirlane.h"

namespace {

using zrtest::KeyOfAscii;

const wchar_t kGuid[] = L"5A1C77E0-1234-4ABC-9DEF-00112233AABB";
constexpr uint32_t kPiece = 0x10000;

template <class T>
T At(const ZR_OperationReply& reply, size_t iOffset) {
    return ZR_Load<T>(reinterpret_cast<const uint8_t*>(&reply) + iOffset);
}

class OperationService : public zrtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        m_pDriver = std::make_unique<zrtest::FakeDriver>();
        ASSERT_TRUE(InitializeIOOperations(L"/tmp"));
    }
    void TearDown() override {
        ZR::UninitializeForExit();  // stops the service first
        m_pDriver.reset();
        LibraryTest::TearDown();
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
        return Operate(zrtest::CreateOperation(strName, strSecond), ZR_OP_CREATE);
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
    int32_t Plain(uint32_t iOperation, uint32_t iKey) {
        ZR_CloseOperation op{};
        op.File = {iKey, 1};
        return Operate(op, iOperation).iResult;
    }

    std::unique_ptr<zrtest::FakeDriver> m_pDriver;
};

TEST_F(OperationService, RepliesCarryTheirResultsAtTheirOffsets) {
    EXPECT_EQ(m_pDriver->Sent(kTracePortName), (std::vector<zrtest::Bytes>{{17, 0, 0, 0}})) << "the service's start";
    const ZR_OperationReply created = Create(L"C:\\guid=" + std::wstring(kGuid) + L"!7.bxk");
    ASSERT_EQ(created.iResult, 0);
    const uint32_t iKey = At<uint32_t>(created, kReplyCreateFileKey);
    EXPECT_EQ(iKey, KeyOfAscii("C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.BXK"));
    EXPECT_EQ(At<uint8_t>(created, kReplyCreateVirtualBackup), 1);

    // Only virtual backup files open on this road.
    const ZR_OperationReply refused = Create(L"C:\\GUID=" + std::wstring(kGuid) + L"!1.mxf");
    EXPECT_EQ(refused.iResult, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(At<uint32_t>(refused, kReplyCreateFileKey), 0xFFFFFFFFu);

    const struct {
        const char* szCase;
        int32_t iResult;
        int32_t iExpected;
    } cases[] = {
        {"position of a handle that is no file", Query(iKey, 14), E_HANDLE},
        {"another class", Query(iKey, 99), E_INVALIDARG},
        {"flush", Plain(ZR_OP_FLUSH, iKey), 0},
        {"close", Plain(ZR_OP_CLOSE, iKey), 0},
        {"flush after the close", Plain(ZR_OP_FLUSH, iKey), kStatusInvalidHandle},
    };
    for (const auto& c : cases) EXPECT_EQ(c.iResult, c.iExpected) << c.szCase;
}

TEST_F(OperationService, DataFileReadsGoToTheLiveIOQueue) {
    ZR_Database* pDB = zrtest::AddDatabaseWithGuid(kGuid);
    ASSERT_NE(pDB, nullptr);
    const ZR_OperationReply associated =
        Create(L"D:\\Data\\Sales.mdf", L"C:\\GUID=" + std::wstring(kGuid) + L"!1.mxf");
    ASSERT_EQ(associated.iResult, 0);
    const uint32_t iKey = At<uint32_t>(associated, kReplyCreateFileKey);
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
}

}  // namespace
