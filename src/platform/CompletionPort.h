// The kernel object behind an I/O completion port: a FIFO of completion
// packets and the threads waiting for them. Internal to src/platform.
#pragma once

#include "platform/KernelObject.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace zr::platform {

class CompletionPort : public KernelObject {
public:
    static constexpr Type kType = Type::CompletionPort;

    struct Packet {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        DWORD error;  // the Win32 status of the I/O; 0 for success
    };

    CompletionPort() : KernelObject(kType) {}

    // Queues a packet and wakes one waiter.
    void Post(const Packet& packet);

    // Takes the oldest packet, waiting up to `milliseconds` (INFINITE:
    // without limit). False on timeout or when the port was closed
    // (`closed` then tells which).
    bool Take(DWORD milliseconds, Packet& packet, bool& closed);

    // Wakes every waiter; they return with ERROR_ABANDONED_WAIT_0.
    void OnClose() override;

private:
    std::mutex m_lock;
    std::condition_variable m_ready;
    std::deque<Packet> m_packets;
    bool m_closed = false;
};

}  // namespace zr::platform
