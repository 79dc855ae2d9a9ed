#include "support/DriverPortClient.h"

#include <cstring>
#include <string>

#include "foundation/Utf16.h"

namespace zrtest {

namespace {

HANDLE Connect(const wchar_t* wszPort) {
    HANDLE h = INVALID_HANDLE_VALUE;
    return SUCCEEDED(FilterConnectCommunicationPort(wszPort, 0, nullptr, 0, nullptr, &h)) ? h : INVALID_HANDLE_VALUE;
}

HRESULT Send(HANDLE h, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    DWORD cb = 0;
    return FilterSendMessage(h, const_cast<void*>(pIn), cbIn, pOut, cbOut, pcbOut ? pcbOut : &cb);
}

OVERLAPPED* OverlappedOf(std::vector<uint8_t>& request) {
    return reinterpret_cast<OVERLAPPED*>(request.data() + kOperationMessageSize);
}

void Close(HANDLE& h) {
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
    h = INVALID_HANDLE_VALUE;
}

}  // namespace

DriverPortClient::DriverPortClient(Handler handler, int iRequests) : m_Handler(std::move(handler)) {
    m_hControl = Connect(kControlPortName);
    m_hTrace = Connect(kTracePortName);
    m_hAsync = Connect(kAsyncLiveIOPortName);
    m_hOperation = Connect(kOperationPortName);
    if (m_hOperation == INVALID_HANDLE_VALUE) return;
    m_hCompletion = CreateIoCompletionPort(m_hOperation, nullptr, 0, 16);
    m_aRequests.assign(iRequests, std::vector<uint8_t>(kOperationRequestSize, 0));
    for (std::vector<uint8_t>& request : m_aRequests)
        FilterGetMessage(m_hOperation, reinterpret_cast<PFILTER_MESSAGE_HEADER>(request.data()), kOperationMessageSize,
                         OverlappedOf(request));
    m_Thread = std::thread(&DriverPortClient::Serve, this);
}

DriverPortClient::~DriverPortClient() {
    m_bStop = true;
    if (m_Thread.joinable()) m_Thread.join();
    if (m_bDisconnected) m_hOperation = INVALID_HANDLE_VALUE;
    for (HANDLE* ph : {&m_hControl, &m_hTrace, &m_hOperation, &m_hAsync}) Close(*ph);
    if (m_hCompletion) CloseHandle(m_hCompletion);
}

// Waits in short steps so that the destructor's flag is seen; a request
// that comes back failed (the driver stopped) is not posted again.
void DriverPortClient::Serve() {
    while (!m_bStop) {
        DWORD cb = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* pOverlapped = nullptr;
        if (!GetQueuedCompletionStatus(m_hCompletion, &cb, &key, &pOverlapped, 20) || cb == 0) continue;
        auto* pMessage = reinterpret_cast<uint8_t*>(pOverlapped) - kOperationMessageSize;
        ZR_OperationReply reply{};
        std::memcpy(&reply.iMessageId, pMessage + offsetof(ZR_OperationHead, iMessageId), sizeof reply.iMessageId);
        m_Handler(pMessage, &reply);
        FilterReplyMessage(m_hOperation, reinterpret_cast<PFILTER_REPLY_HEADER>(&reply), sizeof reply);
        std::memset(pOverlapped, 0, sizeof *pOverlapped);
        FilterGetMessage(m_hOperation, reinterpret_cast<PFILTER_MESSAGE_HEADER>(pMessage), kOperationMessageSize,
                         pOverlapped);
    }
}

HRESULT DriverPortClient::Control(const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    return Send(m_hControl, pIn, cbIn, pOut, cbOut, pcbOut);
}

HRESULT DriverPortClient::Trace(const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    return Send(m_hTrace, pIn, cbIn, pOut, cbOut, pcbOut);
}

uint8_t* DriverPortClient::MapBuffer(uint64_t iBufferKey) {
    ZR_MapReadBufferMessage map{DRIVER_COMMAND_MAP_READ_BUFFER, iBufferKey};
    uint64_t pAddress = 0;
    if (FAILED(Send(m_hOperation, &map, sizeof map, &pAddress, sizeof pAddress, nullptr))) return nullptr;
    return reinterpret_cast<uint8_t*>(pAddress);
}

void DriverPortClient::CompleteRead(uint64_t iBufferKey, uint8_t* pBuffer, uint64_t iOpId, int32_t hr) {
    ZR_UnmapReadBufferMessage unmap{DRIVER_COMMAND_UNMAP_READ_BUFFER, iBufferKey, reinterpret_cast<uint64_t>(pBuffer)};
    Send(m_hTrace, &unmap, sizeof unmap, nullptr, 0, nullptr);
    ZR_ReadCompletionMessage done{iOpId, hr, 0};
    Send(m_hAsync, &done, sizeof done, nullptr, 0, nullptr);
}

// The handle stays in the member, which the serving thread reads; its calls
// on it fail from now on.
void DriverPortClient::DisconnectOperations() {
    if (!m_bDisconnected.exchange(true)) CloseHandle(m_hOperation);
}

HRESULT DriverPortClient::AddFileNames(const wchar_t* wszNameA, const wchar_t* wszNameB, uint64_t iFileSize) {
    std::string a = Utf16Encode(std::wstring(wszNameA) + L'\0'), b = Utf16Encode(std::wstring(wszNameB) + L'\0');
    std::vector<uint8_t> message(kAddFileNamesHead + a.size() + b.size(), 0);
    uint32_t aiHead[2] = {DRIVER_COMMAND_ADD_FILE_NAMES, static_cast<uint32_t>(a.size())};
    uint32_t cbB = static_cast<uint32_t>(b.size());
    std::memcpy(message.data(), aiHead, sizeof aiHead);
    std::memcpy(message.data() + 8, &iFileSize, sizeof iFileSize);
    std::memcpy(message.data() + 16, &cbB, sizeof cbB);
    std::memcpy(message.data() + kAddFileNamesHead, a.data(), a.size());
    std::memcpy(message.data() + kAddFileNamesHead + a.size(), b.data(), b.size());
    return Control(message.data(), static_cast<DWORD>(message.size()));
}

}  // namespace zrtest
