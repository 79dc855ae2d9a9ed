#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "diag/Trace.h"
#include "platform/KernelObject.h"
#include "platform/fltuser.h"
#include "zirlane/zirlane.h"

namespace {

const wchar_t kTracePort[] = L"\\KelpbakMVTracePort";

using Bytes = std::vector<uint8_t>;

// What the driver's trace port saw of one message.
struct Seen {
    Bytes in;
    bool bOutBuffer = false;
    DWORD cbOut = 0;
};

// A stand-in for the driver's trace port that keeps every message and
// answers with a chosen status; a capture reply holds "driver trace".
class FakeTracePort : public ::testing::Test {
protected:
    void SetUp() override {
        FilterPortHandlers handlers;
        handlers.send = [this](HANDLE, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbReturned) {
            const uint8_t* p = static_cast<const uint8_t*>(pIn);
            m_seen.push_back(Seen{Bytes(p, p + cbIn), pOut != nullptr, cbOut});
            if (pOut && cbOut >= 13) {
                std::memcpy(pOut, "driver trace", 13);
                *pcbReturned = 13;
            }
            return m_hrReply;
        };
        ASSERT_TRUE(FilterRegisterPort(kTracePort, handlers));
        m_cOpenPorts = zr::platform::CountHandles(zr::platform::KernelObject::Type::FilterPort);
    }
    void TearDown() override {
        FilterUnregisterPort(kTracePort);
        g_bIOInstanceLog = false;
    }
    void ExpectNoPortLeftOpen() {
        EXPECT_EQ(zr::platform::CountHandles(zr::platform::KernelObject::Type::FilterPort), m_cOpenPorts);
    }

    std::vector<Seen> m_seen;
    HRESULT m_hrReply = S_OK;
    size_t m_cOpenPorts = 0;
};

TEST(DriverTraceWithoutDriver, FailsAsAClosedPort) {
    HANDLE h = nullptr;
    EXPECT_EQ(FilterConnectCommunicationPort(kTracePort, 0, nullptr, 0, nullptr, &h),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    g_bIOInstanceLog = false;
    EXPECT_FALSE(EnableDriverTrace());
    EXPECT_TRUE(g_bIOInstanceLog) << "set before the port is tried";
    EXPECT_FALSE(DisableDriverTrace());
    EXPECT_FALSE(g_bIOInstanceLog);
    EXPECT_EQ(CaptureDriverTrace(), nullptr);
}

// Each call connects, sends its command, and closes its connection again.
TEST_F(FakeTracePort, EachCallSendsItsCommand) {
    g_bIOInstanceLog = false;
    EXPECT_TRUE(EnableDriverTrace());
    EXPECT_TRUE(g_bIOInstanceLog);
    EXPECT_TRUE(DisableDriverTrace());
    EXPECT_FALSE(g_bIOInstanceLog);
    m_hrReply = E_FAIL;  // the capture's reply buffer is handed over all the same
    char* p = static_cast<char*>(CaptureDriverTrace());
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "driver trace");
    FreeTraceBuffer(p);

    ASSERT_EQ(m_seen.size(), 3u);
    EXPECT_EQ(m_seen[0].in, (Bytes{1, 0, 0, 0, 0, 0, 0x10, 0, 0xFF, 0xFF, 0xFF, 0xFF})) << "size and limit";
    EXPECT_FALSE(m_seen[0].bOutBuffer);
    EXPECT_EQ(m_seen[0].cbOut, 0u);
    EXPECT_EQ(m_seen[1].in, (Bytes{2, 0, 0, 0}));
    EXPECT_EQ(m_seen[2].in, (Bytes{3, 0, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(m_seen[2].bOutBuffer);
    EXPECT_EQ(m_seen[2].cbOut, 0x100000u);
    ExpectNoPortLeftOpen();

    EXPECT_FALSE(EnableDriverTrace()) << "a failed status is a failure";
    m_hrReply = S_FALSE;
    EXPECT_FALSE(EnableDriverTrace()) << "only 0 is a success";
}

TEST_F(FakeTracePort, RegistryRules) {
    EXPECT_FALSE(FilterRegisterPort(kTracePort, FilterPortHandlers{})) << "a name is registered once";

    HANDLE h = nullptr;
    ASSERT_EQ(FilterConnectCommunicationPort(kTracePort, 0, nullptr, 0, nullptr, &h), S_OK);
    uint32_t command = 2;
    DWORD cb = 99;
    EXPECT_EQ(FilterSendMessage(h, &command, 4, nullptr, 0, &cb), S_OK);
    EXPECT_EQ(cb, 0u);
    EXPECT_EQ(FilterGetMessage(h, nullptr, 0, nullptr), HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED));

    // Once the port is gone, its connections fail until they are closed.
    EXPECT_TRUE(FilterUnregisterPort(kTracePort));
    EXPECT_EQ(FilterSendMessage(h, &command, 4, nullptr, 0, &cb), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(FilterSendMessage(h, &command, 4, nullptr, 0, &cb), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(FilterUnregisterPort(kTracePort));
    EXPECT_EQ(FilterAttach(L"KelpbakFilterDriver", L"C:", nullptr, 0, nullptr), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
}

TEST_F(FakeTracePort, AConnectHandlerCanRefuse) {
    FilterPortHandlers handlers;
    handlers.connect = [](HANDLE, LPCVOID pContext, WORD cbContext) {
        return cbContext == 4 && std::memcmp(pContext, "ctx!", 4) == 0 ? S_OK : E_INVALIDARG;
    };
    ASSERT_TRUE(FilterRegisterPort(L"\\TestPort", handlers));
    HANDLE h = nullptr;
    EXPECT_EQ(FilterConnectCommunicationPort(L"\\TestPort", 0, "nope", 4, nullptr, &h), E_INVALIDARG);
    EXPECT_EQ(h, INVALID_HANDLE_VALUE);
    ExpectNoPortLeftOpen();
    EXPECT_EQ(FilterConnectCommunicationPort(L"\\TestPort", 0, "ctx!", 4, nullptr, &h), S_OK);
    EXPECT_TRUE(CloseHandle(h));
    FilterUnregisterPort(L"\\TestPort");
}

}  // namespace
