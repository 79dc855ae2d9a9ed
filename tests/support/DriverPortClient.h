// The library's end of the driver's four ports, played by a test: it
// connects as the library does, keeps FilterGetMessage requests pending on a
// completion port, hands each operation that arrives to the test's handler
// on its own thread and replies with what the handler filled in. Commands
// go out on the control, trace, operation and async ports.
//
// Shares no code with the library's operation service: it is written from
// the wire layouts alone, so that a test of the driver checks the wire.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "driver/DriverMessages.h"
#include "platform/fltuser.h"

namespace zrtest {

class DriverPortClient {
public:
    // Called on the client's thread for each operation, with the message
    // (kOperationMessageSize bytes) and a reply zeroed but for its head.
    using Handler = std::function<void(const uint8_t* pMessage, ZR_OperationReply* pReply)>;

    // Connects all four ports and posts iRequests requests.
    explicit DriverPortClient(Handler handler, int iRequests = 16);
    // Closes the connections, ends the thread, frees the requests.
    ~DriverPortClient();
    DriverPortClient(const DriverPortClient&) = delete;
    DriverPortClient& operator=(const DriverPortClient&) = delete;

    HRESULT Control(const void* pIn, DWORD cbIn, void* pOut = nullptr, DWORD cbOut = 0, DWORD* pcbOut = nullptr);
    HRESULT Trace(const void* pIn, DWORD cbIn, void* pOut = nullptr, DWORD cbOut = 0, DWORD* pcbOut = nullptr);
    // Command 13: the address of a read's buffer; null when refused.
    uint8_t* MapBuffer(uint64_t iBufferKey);
    // Command 14 on the trace port, then the 16-byte completion.
    void CompleteRead(uint64_t iBufferKey, uint8_t* pBuffer, uint64_t iOpId, int32_t hr);
    // Closes the operation port's connection, as a library that goes away.
    void DisconnectOperations();

    // Command 4 for one data file.
    HRESULT AddFileNames(const wchar_t* wszNameA, const wchar_t* wszNameB, uint64_t iFileSize);

private:
    void Serve();

    Handler m_Handler;
    HANDLE m_hControl = INVALID_HANDLE_VALUE;
    HANDLE m_hTrace = INVALID_HANDLE_VALUE;
    HANDLE m_hOperation = INVALID_HANDLE_VALUE;
    HANDLE m_hAsync = INVALID_HANDLE_VALUE;
    HANDLE m_hCompletion = nullptr;
    std::vector<std::vector<uint8_t>> m_aRequests;  // the message, then an OVERLAPPED
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bDisconnected{false};
    std::thread m_Thread;
};

}  // namespace zrtest
