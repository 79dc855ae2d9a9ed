// A fixture for tests of the embedded driver: a driver over a temporary
// sparse folder, the library's side of its ports played by a
// DriverPortClient, one data file announced (command 4), and a library that
// answers creates, queries and reads. Reads are answered as the backups
// would: each page the read's bitmap leaves clear gets its synthetic page
// (zrtest::FillSyntheticPage), but for pages listed as held by no backup,
// which stay zero. With m_bHold set, reads are kept for the test to supply.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "driver/DriverMessages.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "support/DriverPortClient.h"
#include "support/PageFormat.h"
#include "support/TestData.h"

namespace zrtest {

inline constexpr uint32_t kPage = 8192;
inline constexpr uint16_t kFileId = 3;
inline constexpr uint32_t kSeed = 77;
inline constexpr uint64_t kFilePages = 4096;
inline constexpr uint32_t kFileKey = 0x1234;
inline const wchar_t kNameA[] = L"D:\\Data\\Sales_3.ndf";
inline const wchar_t kNameB[] = L"C:\\GUID=ABC!3.nxf";
inline const char kSparseName[] = "GUID=ABC!3.ncf";

class DriverTestBase : public testing::Test {
protected:
    void SetUp() override { StartDriver(); }
    void TearDown() override {
        m_pClient.reset();
        ZR_FilterDriver::Stop();
    }

    void StartDriver() {
        ZR_FilterDriverOptions options;
        options.strSparseFolder = m_dir.path().wstring();
        options.iBitmapStoreMs = 0;
        options.iLibraryTimeoutMs = 10000;
        ASSERT_TRUE(ZR_FilterDriver::Start(options));
        m_pClient = std::make_unique<DriverPortClient>(
            [this](const uint8_t* pMessage, ZR_OperationReply* pReply) { Answer(pMessage, pReply); });
        ASSERT_EQ(m_pClient->AddFileNames(kNameA, kNameB, kFilePages * kPage), S_OK);
        m_pHost = ZR_FilterDriver::Host();
        ASSERT_TRUE(m_pHost);
    }
    // Stops the driver as a process would end: storing the bitmaps, or not
    // (killed), and starts a new one on the same folder.
    void Restart(bool bStoreBitmaps) {
        m_pClient.reset();
        m_pHost.reset();
        ZR_FilterDriver::Stop(bStoreBitmaps);
        ClearOperations();
        StartDriver();
    }

    ZR_HostHandle OpenData() {
        ZR_HostHandle h = 0;
        EXPECT_EQ(m_pHost->Open(L"d:\\DATA\\sales_3.NDF", &h), kHostSuccess);
        return h;
    }
    std::vector<uint8_t> ReadPages(ZR_HostHandle h, uint64_t iFirst, uint32_t iCount) {
        std::vector<uint8_t> aPages(uint64_t(iCount) * kPage);
        uint32_t cb = 0;
        EXPECT_EQ(m_pHost->Read(h, iFirst * kPage, aPages.data(), static_cast<uint32_t>(aPages.size()), &cb),
                  kHostSuccess);
        EXPECT_EQ(cb, aPages.size());
        return aPages;
    }
    // What the data file must hold: the backups' pages, zeros where none is.
    std::vector<uint8_t> Expected(uint64_t iFirst, uint32_t iCount) {
        std::vector<uint8_t> aPages(uint64_t(iCount) * kPage, 0);
        for (uint32_t i = 0; i < iCount; ++i)
            if (!m_NoBackup.count(iFirst + i))
                FillSyntheticPage(&aPages[uint64_t(i) * kPage], kSeed, kFileId, static_cast<uint32_t>(iFirst + i));
        return aPages;
    }

    // The operations that arrived, of one kind (0: all).
    std::vector<std::vector<uint8_t>> Operations(uint32_t iOperation = 0) {
        std::lock_guard guard(m_cs);
        std::vector<std::vector<uint8_t>> aOps;
        for (const auto& op : m_aOps)
            if (!iOperation || OperationOf(op.data()) == iOperation) aOps.push_back(op);
        return aOps;
    }
    std::vector<ZR_ReadOperation> ReadOperations() {
        std::vector<ZR_ReadOperation> aReads;
        for (const auto& op : Operations(ZR_OP_READ)) aReads.push_back(As<ZR_ReadOperation>(op));
        return aReads;
    }
    void ClearOperations() {
        std::lock_guard guard(m_cs);
        m_aOps.clear();
    }
    // The uniquifier of the last association.
    FileObjectUniquifier Uniquifier() { return As<ZR_CreateOperation>(Operations(ZR_OP_CREATE).back()).Uniquifier; }
    // A read kept under m_bHold; fails the test after 10 s without one.
    ZR_ReadOperation NextHeldRead() {
        std::unique_lock lock(m_cs);
        EXPECT_TRUE(m_cvHeld.wait_for(lock, std::chrono::seconds(10), [&] { return !m_aHeld.empty(); }));
        if (m_aHeld.empty()) return {};
        ZR_ReadOperation read = m_aHeld.front();
        m_aHeld.erase(m_aHeld.begin());
        return read;
    }

    // Fills the read's buffer as the backups would, then completes it.
    void Supply(const ZR_ReadOperation& read, int32_t hr) {
        uint8_t* pBuffer = m_pClient->MapBuffer(read.iBufferKey);
        ASSERT_NE(pBuffer, nullptr);
        uint64_t iFirst = read.iOffset / kPage, iBase = iFirst & ~uint64_t(7);
        for (uint32_t i = 0; hr == 0 && !read.File.bVirtualBackup && i < read.iLength / kPage; ++i) {
            if (!ZR_TestBit(read.Bitmap, iFirst + i - iBase) && !m_NoBackup.count(iFirst + i))
                FillSyntheticPage(pBuffer + uint64_t(i) * kPage, kSeed, kFileId, static_cast<uint32_t>(iFirst + i));
        }
        for (uint32_t i = 0; hr == 0 && read.File.bVirtualBackup && i < read.iLength; ++i)
            pBuffer[i] = static_cast<uint8_t>((read.iOffset + i) % 251);
        m_pClient->CompleteRead(read.iBufferKey, pBuffer, read.pOpId, hr);
    }

    template <class T>
    static T As(const std::vector<uint8_t>& op) {
        T value;
        std::memcpy(&value, op.data(), sizeof value);
        return value;
    }
    static uint32_t OperationOf(const uint8_t* pMessage) {
        uint32_t i;
        std::memcpy(&i, pMessage + offsetof(ZR_OperationHead, iOperation), sizeof i);
        return i;
    }

    TempDir m_dir;
    std::unique_ptr<DriverPortClient> m_pClient;
    std::shared_ptr<ZR_DriverHost> m_pHost;
    // The library's behaviour, set by the tests before they act.
    std::set<uint64_t> m_NoBackup;  // pages that no backup holds
    bool m_bHold = false;
    int32_t m_iReadReply = 0;            // the reply to operation 3
    int32_t m_iReadResult = 0;           // the completion's hr
    uint64_t m_iViewSize = 100000;       // operation 5, class 5
    uint64_t m_iPosition = 0x100000010;  // operation 5, class 14

private:
    void Answer(const uint8_t* pMessage, ZR_OperationReply* pReply) {
        auto* pResults = reinterpret_cast<uint8_t*>(pReply);
        std::unique_lock lock(m_cs);
        m_aOps.emplace_back(pMessage, pMessage + kOperationMessageSize);
        switch (OperationOf(pMessage)) {
            case ZR_OP_CREATE:
                std::memcpy(pResults + kReplyCreateFileKey, &kFileKey, sizeof kFileKey);
                pResults[kReplyCreateVirtualBackup] = As<ZR_CreateOperation>(m_aOps.back()).wszSecondName[0] == 0;
                break;
            case ZR_OP_QUERY_INFORMATION:
                std::memcpy(pResults + kReplyEndOfFile, &m_iViewSize, sizeof m_iViewSize);
                std::memcpy(pResults + kReplyPositionLow, &m_iPosition, sizeof m_iPosition);
                break;
            case ZR_OP_READ: {
                pReply->iResult = m_iReadReply;
                if (m_iReadReply) break;
                auto read = As<ZR_ReadOperation>(m_aOps.back());
                if (m_bHold) {
                    m_aHeld.push_back(read);
                    m_cvHeld.notify_all();
                } else {
                    lock.unlock();
                    Supply(read, m_iReadResult);  // before the reply, as a read of a view is
                }
                break;
            }
        }
    }

    std::mutex m_cs;
    std::condition_variable m_cvHeld;
    std::vector<std::vector<uint8_t>> m_aOps;
    std::vector<ZR_ReadOperation> m_aHeld;
};

}  // namespace zrtest
