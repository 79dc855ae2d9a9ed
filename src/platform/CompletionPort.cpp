#include "platform/CompletionPort.h"

#include <chrono>

namespace zr::platform {

void CompletionPort::Post(const Packet& packet) {
    {
        std::lock_guard guard(m_lock);
        m_packets.push_back(packet);
    }
    m_ready.notify_one();
}

bool CompletionPort::Take(DWORD milliseconds, Packet& packet, bool& closed) {
    std::unique_lock lock(m_lock);
    auto ready = [&] { return m_closed || !m_packets.empty(); };
    if (milliseconds == INFINITE)
        m_ready.wait(lock, ready);
    else
        m_ready.wait_for(lock, std::chrono::milliseconds(milliseconds), ready);
    closed = m_closed;
    if (m_closed || m_packets.empty())
        return false;
    packet = m_packets.front();
    m_packets.pop_front();
    return true;
}

void CompletionPort::OnClose() {
    {
        std::lock_guard guard(m_lock);
        m_closed = true;
    }
    m_ready.notify_all();
}

void StoreOverlappedResult(OVERLAPPED* overlapped, DWORD error, DWORD bytes) {
    DWORD saved = GetLastError();
    overlapped->InternalHigh = bytes;
    __atomic_store_n(&overlapped->Internal, static_cast<ULONG_PTR>(error), __ATOMIC_RELEASE);
    auto eventBits = reinterpret_cast<uintptr_t>(overlapped->hEvent);
    if (HANDLE event = reinterpret_cast<HANDLE>(eventBits & ~uintptr_t(1)))
        SetEvent(event);
    SetLastError(saved);
}

void CompleteOverlapped(KernelObject& object, OVERLAPPED* overlapped, DWORD error, DWORD bytes) {
    bool queues = object.m_port && (reinterpret_cast<uintptr_t>(overlapped->hEvent) & 1) == 0;
    StoreOverlappedResult(overlapped, error, bytes);
    if (queues)
        object.m_port->Post({bytes, object.m_completionKey, overlapped, error});
}

}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort, ULONG_PTR CompletionKey, DWORD) {
    std::shared_ptr<CompletionPort> port;
    if (ExistingCompletionPort) {
        port = LookupHandleAs<CompletionPort>(ExistingCompletionPort);
        if (!port)
            return nullptr;
    }
    std::shared_ptr<KernelObject> target;
    if (FileHandle != INVALID_HANDLE_VALUE) {
        target = LookupHandle(FileHandle);
        if (!target || target->m_port) {
            SetLastError(target ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
            return nullptr;
        }
    } else if (ExistingCompletionPort) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    HANDLE result = ExistingCompletionPort;
    if (!port) {
        port = std::make_shared<CompletionPort>();
        result = RegisterHandle(port);
    }
    if (target) {
        target->m_port = port;
        target->m_completionKey = CompletionKey;
    }
    SetLastError(ERROR_SUCCESS);
    return result;
}

BOOL GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred, PULONG_PTR lpCompletionKey,
                               LPOVERLAPPED* lpOverlapped, DWORD dwMilliseconds) {
    if (lpOverlapped)
        *lpOverlapped = nullptr;
    auto port = LookupHandleAs<zr::platform::CompletionPort>(CompletionPort);
    if (!port)
        return FALSE;
    if (!lpNumberOfBytesTransferred || !lpCompletionKey || !lpOverlapped) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    zr::platform::CompletionPort::Packet packet{};
    bool closed = false;
    if (!port->Take(dwMilliseconds, packet, closed)) {
        SetLastError(closed ? ERROR_ABANDONED_WAIT_0 : WAIT_TIMEOUT);
        return FALSE;
    }
    *lpNumberOfBytesTransferred = packet.bytes;
    *lpCompletionKey = packet.key;
    *lpOverlapped = packet.overlapped;
    if (packet.error != ERROR_SUCCESS) {
        SetLastError(packet.error);
        return FALSE;
    }
    return TRUE;
}

BOOL PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred, ULONG_PTR dwCompletionKey,
                                LPOVERLAPPED lpOverlapped) {
    auto port = LookupHandleAs<zr::platform::CompletionPort>(CompletionPort);
    if (!port)
        return FALSE;
    port->Post({dwNumberOfBytesTransferred, dwCompletionKey, lpOverlapped, ERROR_SUCCESS});
    return TRUE;
}
