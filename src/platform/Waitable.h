// Kernel objects that WaitForSingleObject and WaitForMultipleObjects accept:
// events, mutexes, semaphores and threads. Internal to src/platform.
//
// All their state is guarded by the one lock SyncLock(), which is what lets
// a wait on several objects test and take them atomically. A waiting thread
// hangs its own condition variable on every object it waits for; a change
// that may satisfy a wait calls WakeWaiters() under the lock.
#pragma once

#include "platform/KernelObject.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace zr::platform {

std::mutex& SyncLock();

class Waitable : public KernelObject {
public:
    using KernelObject::KernelObject;

    // Whether a wait by thread `threadId` would be satisfied now.
    virtual bool IsSignalled(DWORD threadId) const = 0;
    // Takes the signal for a satisfied wait (auto-reset, count, ownership).
    virtual void Acquire(DWORD threadId) {}

    void WakeWaiters();

    std::vector<std::condition_variable*> m_waiters;
};

}  // namespace zr::platform
