// The driver's end of the operation port: the library keeps FilterGetMessage
// requests pending here (sixteen at once), each with its OVERLAPPED; the
// driver puts an operation into one of them, completes it through the
// connection's completion port (FilterCompleteMessage) and waits for the
// FilterReplyMessage that carries the same MessageId.
//
// An operation that finds no request pending waits in a queue for the next
// one. Every wait has a time limit, and ends early when the driver stops or
// the connection that took the operation is closed.
//
// Threads: the host's callers send (Call) from any thread; the library's
// threads post, reply, connect and disconnect. One lock guards all.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "driver/DriverMessages.h"
#include "filterdriver/ZR_HostStatus.h"
#include "platform/fltuser.h"

class ZR_OperationChannel {
public:
    // --- the port's handlers ---
    void OnConnect(HANDLE hConnection);
    // Forgets the connection's pending requests and fails the operations it
    // had taken and not answered with kHostNotConnected.
    void OnDisconnect(HANDLE hConnection);
    // Keeps the request pending (the result is HRESULT_FROM_WIN32
    // (ERROR_IO_PENDING)), or delivers a queued operation into it at once.
    // A request without an OVERLAPPED, or too small for an operation, is
    // refused.
    HRESULT OnGet(HANDLE hConnection, PFILTER_MESSAGE_HEADER pMessage, DWORD cbMessage, LPOVERLAPPED pOverlapped);
    // Ends the wait of the operation with the reply's MessageId.
    HRESULT OnReply(HANDLE hConnection, PFILTER_REPLY_HEADER pReply, DWORD cbReply);

    // --- the driver's side ---
    // Sends an operation (the head is filled here: MessageId, ReplyLength;
    // the message is padded to kOperationMessageSize) and waits up to
    // iTimeoutMs for its reply. kHostSuccess with *pReply filled, or
    // kHostNotConnected (no library, or it went away), kHostTimeout,
    // kHostDriverStopped.
    ZR_HostStatus Call(const void* pMessage, size_t cbMessage, ZR_OperationReply* pReply, uint32_t iTimeoutMs);
    bool HasConnection();
    // Fails every waiting operation, and ends the pending requests with
    // ERROR_OPERATION_ABORTED, as the ports of a driver that unloads do.
    void Stop();

private:
    struct PendingGet {
        HANDLE hConnection;
        PFILTER_MESSAGE_HEADER pMessage;
        LPOVERLAPPED pOverlapped;
    };
    struct Operation {
        uint8_t aMessage[kOperationMessageSize] = {};
        uint64_t iMessageId = 0;
        HANDLE hConnection = nullptr;  // the connection that took it; null while queued
        bool bEnded = false;
        ZR_HostStatus iResult = 0;
        ZR_OperationReply Reply = {};
        std::condition_variable cvEnded;
    };

    // Puts the operation into the request; the caller completes it
    // (FilterCompleteMessage) after releasing the lock.
    static void Deliver(Operation& op, const PendingGet& get);
    static void EndLocked(Operation& op, ZR_HostStatus iResult);

    std::mutex m_cs;
    std::set<HANDLE> m_Connections;
    std::deque<PendingGet> m_Gets;
    std::deque<std::shared_ptr<Operation>> m_Queue;               // waiting for a request
    std::map<uint64_t, std::shared_ptr<Operation>> m_Operations;  // by MessageId, until the reply
    uint64_t m_iNextMessageId = 1;
    bool m_bStopped = false;
};
