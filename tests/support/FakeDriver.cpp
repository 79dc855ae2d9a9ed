#include "support/FakeDriver.h"

#include <chrono>
#include <cstring>

#include "driver/ZR_DriverCommands.h"
#include "filterdriver/ZR_FilterDriver.h"

namespace zrtest {

namespace {

constexpr auto kPatience = std::chrono::seconds(10);

}  // namespace

void StopEmbeddedDriver() {
    ZR_FilterDriver::Stop();
    CloseControlCommunicationPort();
}

FakeDriver::FakeDriver() {
    // The fake takes the driver's place: the embedded driver that the
    // library started, and the library's connection to it, go first.
    StopEmbeddedDriver();
    for (const wchar_t* wszPort : {kControlPortName, kTracePortName, kAsyncLiveIOPortName}) {
        FilterPortHandlers handlers;
        const std::wstring strPort = wszPort;
        handlers.send = [this, strPort](HANDLE, const void* pIn, DWORD cbIn, void*, DWORD, DWORD*) {
            return Record(strPort.c_str(), pIn, cbIn);
        };
        Register(wszPort, handlers);
    }
    FilterPortHandlers operations;
    operations.send = [this](HANDLE, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbReturned) {
        Record(kOperationPortName, pIn, cbIn);
        return MapReadBuffer(pIn, cbIn, pOut, cbOut, pcbReturned);
    };
    operations.get = [this](HANDLE hConnection, PFILTER_MESSAGE_HEADER pMessage, DWORD, LPOVERLAPPED pOverlapped) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_pending.push_back({hConnection, pMessage, pOverlapped});
        m_changed.notify_all();
        return kHrIoPending;
    };
    operations.reply = [this](HANDLE, PFILTER_REPLY_HEADER pReply, DWORD cbReply) {
        if (cbReply != sizeof(ZR_OperationReply)) return E_INVALIDARG;
        std::lock_guard<std::mutex> lock(m_lock);
        ZR_OperationReply reply;
        std::memcpy(&reply, pReply, sizeof reply);
        m_replies[reply.iMessageId] = reply;
        m_changed.notify_all();
        return S_OK;
    };
    Register(kOperationPortName, operations);
}

FakeDriver::~FakeDriver() {
    for (const std::wstring& strPort : m_ports) FilterUnregisterPort(strPort.c_str());
    StopEmbeddedDriver();
}

void FakeDriver::Register(const wchar_t* wszPort, FilterPortHandlers handlers) {
    if (FilterRegisterPort(wszPort, std::move(handlers))) m_ports.push_back(wszPort);
}

HRESULT FakeDriver::Record(const wchar_t* wszPort, const void* pIn, DWORD cbIn) {
    std::lock_guard<std::mutex> lock(m_lock);
    const auto* p = static_cast<const std::uint8_t*>(pIn);
    m_sent[wszPort].emplace_back(p, p + cbIn);
    return std::wstring(wszPort) == kControlPortName ? m_hrControl : S_OK;
}

HRESULT FakeDriver::MapReadBuffer(const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbReturned) {
    ZR_MapReadBufferMessage message{};
    if (cbIn != sizeof message || cbOut != sizeof(std::uint64_t)) return E_INVALIDARG;
    std::memcpy(&message, pIn, sizeof message);
    const std::uint64_t iBufferKey = message.iBufferKey;  // packed: read by value
    std::lock_guard<std::mutex> lock(m_lock);
    const auto it = m_buffers.find(iBufferKey);
    const std::uint64_t iAddress = it == m_buffers.end() ? 0 : reinterpret_cast<std::uint64_t>(it->second);
    std::memcpy(pOut, &iAddress, sizeof iAddress);
    *pcbReturned = sizeof iAddress;
    return S_OK;
}

std::vector<Bytes> FakeDriver::Sent(const wchar_t* wszPort) {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_sent[wszPort];
}

void FakeDriver::ClearSent() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_sent.clear();
}

void FakeDriver::MapBuffer(std::uint64_t iBufferKey, void* pBuffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_buffers[iBufferKey] = pBuffer;
}

void FakeDriver::SetControlResult(HRESULT hr) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_hrControl = hr;
}

bool FakeDriver::TakePending(Pending* pPending) {
    std::unique_lock<std::mutex> lock(m_lock);
    if (!m_changed.wait_for(lock, kPatience, [&] { return !m_pending.empty(); })) return false;
    *pPending = m_pending.front();
    m_pending.pop_front();
    return true;
}

bool FakeDriver::Operate(const void* pOperation, size_t cbOperation, ZR_OperationReply* pReply) {
    Pending pending{};
    if (cbOperation > kOperationMessageSize || !TakePending(&pending)) return false;
    std::uint64_t iMessageId = 0;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        iMessageId = m_iNextMessageId++;
    }
    auto* pMessage = reinterpret_cast<std::uint8_t*>(pending.pMessage);
    std::memset(pMessage, 0, kOperationMessageSize);
    std::memcpy(pMessage, pOperation, cbOperation);
    auto* pHead = reinterpret_cast<ZR_OperationHead*>(pMessage);
    pHead->iReplyLength = sizeof(ZR_OperationReply);
    pHead->iMessageId = iMessageId;
    FilterCompleteMessage(pending.hConnection, pending.pOverlapped, 0, static_cast<DWORD>(kOperationMessageSize));
    std::unique_lock<std::mutex> lock(m_lock);
    if (!m_changed.wait_for(lock, kPatience, [&] { return m_replies.count(iMessageId) != 0; })) return false;
    *pReply = m_replies[iMessageId];
    return true;
}

}  // namespace zrtest
