#include "support/LiveIOCompletions.h"

#include <cstring>
#include <utility>

#include "driver/DriverMessages.h"
#include "driver/ZR_ReadCompletion.h"
#include "platform/fltuser.h"

namespace zrtest {

LiveIOCompletions::LiveIOCompletions(Listener onCompleted) : m_onCompleted(std::move(onCompleted)) {
    FilterPortHandlers handlers;
    handlers.send = [this](HANDLE, const void* pIn, DWORD cbIn, void*, DWORD, DWORD*) -> HRESULT {
        ZR_ReadCompletionMessage done{};
        if (cbIn != sizeof done) return E_INVALIDARG;
        std::memcpy(&done, pIn, sizeof done);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_results.emplace(done.pOpId, done.hr).second) m_results[done.pOpId] = -1;
        }
        m_arrived.notify_all();
        if (m_onCompleted) m_onCompleted(done.pOpId, done.hr);
        return S_OK;
    };
    HANDLE hPort = INVALID_HANDLE_VALUE;
    m_bRegistered = FilterRegisterPort(kAsyncLiveIOPortName, handlers);
    m_bConnected = m_bRegistered && SUCCEEDED(FilterConnectCommunicationPort(kAsyncLiveIOPortName, 0, nullptr, 0, nullptr, &hPort));
    if (m_bConnected) g_hAsyncLiveIOPort = hPort;
}

LiveIOCompletions::~LiveIOCompletions() {
    if (m_bConnected) {
        CloseHandle(g_hAsyncLiveIOPort);
        g_hAsyncLiveIOPort = INVALID_HANDLE_VALUE;
    }
    if (m_bRegistered) FilterUnregisterPort(kAsyncLiveIOPortName);
}

std::optional<std::int32_t> LiveIOCompletions::WaitForOp(std::uint64_t iOpId, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_arrived.wait_for(lock, limit, [&] { return m_results.count(iOpId) > 0; })) return std::nullopt;
    return m_results[iOpId];
}

std::map<std::uint64_t, std::int32_t> LiveIOCompletions::Results() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_results;
}

}  // namespace zrtest
