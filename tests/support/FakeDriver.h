// A test stand-in for the filter driver's end of the four ports: it keeps
// every message the library sends, answers command 13 with buffers the test
// maps, and plays the driver's part of the operation port: it hands an
// operation to one of the FilterGetMessage requests the operation service
// left pending and waits for the service's reply.
//
// Register one at a time. Stop the operation service before the fake goes:
// the fake forgets the service's pending requests with it. Its destructor
// also closes the library's kept control port connection, which pointed at
// this fake.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "driver/DriverMessages.h"
#include "platform/fltuser.h"

namespace zrtest {

using Bytes = std::vector<std::uint8_t>;

// Stops the embedded driver that the library starts, and closes the
// library's kept connection to its control port: no driver serves the
// ports afterwards, until one registers them.
void StopEmbeddedDriver();

class FakeDriver {
public:
    FakeDriver();
    ~FakeDriver();
    FakeDriver(const FakeDriver&) = delete;
    FakeDriver& operator=(const FakeDriver&) = delete;

    // The messages sent on a port (one of the four names of
    // DriverMessages.h), oldest first.
    std::vector<Bytes> Sent(const wchar_t* wszPort);
    void ClearSent();

    // Sends the operation (cbOperation bytes from its head on) through a
    // pending request and waits for the reply. False when no request was
    // pending or no reply came within a few seconds.
    bool Operate(const void* pOperation, size_t cbOperation, ZR_OperationReply* pReply);

    // The address command 13 answers for the buffer key; without one it
    // answers 0, as a driver that could not map the buffer.
    void MapBuffer(std::uint64_t iBufferKey, void* pBuffer);

    // What sends on the control port answer.
    void SetControlResult(HRESULT hr);

private:
    struct Pending {
        HANDLE hConnection;
        PFILTER_MESSAGE_HEADER pMessage;
        LPOVERLAPPED pOverlapped;
    };

    void Register(const wchar_t* wszPort, FilterPortHandlers handlers);
    HRESULT Record(const wchar_t* wszPort, const void* pIn, DWORD cbIn);
    HRESULT MapReadBuffer(const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbReturned);
    bool TakePending(Pending* pPending);

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::map<std::wstring, std::vector<Bytes>> m_sent;
    std::map<std::uint64_t, void*> m_buffers;
    std::deque<Pending> m_pending;
    std::map<std::uint64_t, ZR_OperationReply> m_replies;
    std::uint64_t m_iNextMessageId = 1;
    HRESULT m_hrControl = S_OK;
    std::vector<std::wstring> m_ports;
};

}  // namespace zrtest
