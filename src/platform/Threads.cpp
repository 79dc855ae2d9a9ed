// Threads: creation (optionally suspended), thread ids, exit codes and
// priorities. A thread handle is a Waitable that is signalled once the
// thread's function has returned.
#include "platform/PosixErrors.h"
#include "platform/Waitable.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <functional>

namespace zr::platform {

namespace {

// The pseudo handle of GetCurrentThread, as on Windows.
HANDLE const kCurrentThread = reinterpret_cast<HANDLE>(intptr_t(-2));

class Thread : public Waitable {
public:
    static constexpr Type kType = Type::Thread;

    Thread(std::function<DWORD()> body, bool suspended)
        : Waitable(kType), m_body(std::move(body)), m_suspended(suspended) {}

    bool IsSignalled(DWORD) const override { return m_ended; }

    // Runs on the new thread; `self` keeps the object alive until the end
    // even when every handle to it is closed.
    static void* Run(void* argument) {
        std::shared_ptr<Thread> self(std::move(*static_cast<std::shared_ptr<Thread>*>(argument)));
        delete static_cast<std::shared_ptr<Thread>*>(argument);
        {
            std::unique_lock lock(SyncLock());
            self->m_threadId = GetCurrentThreadId();
            self->m_started.notify_all();
            self->m_started.wait(lock, [&] { return !self->m_suspended; });
        }
        DWORD exitCode = self->m_body();
        std::lock_guard guard(SyncLock());
        self->m_exitCode = exitCode;
        self->m_ended = true;
        self->WakeWaiters();
        return nullptr;
    }

    // Waits until the new thread has published its id. Caller holds the lock.
    DWORD WaitForId(std::unique_lock<std::mutex>& lock) {
        m_started.wait(lock, [&] { return m_threadId != 0; });
        return m_threadId;
    }

    // The suspend count before the call, as ResumeThread returns it.
    DWORD Resume() {
        std::lock_guard guard(SyncLock());
        DWORD previous = m_suspended ? 1 : 0;
        m_suspended = false;
        m_started.notify_all();
        return previous;
    }

    DWORD ExitCode() {
        std::lock_guard guard(SyncLock());
        return m_ended ? m_exitCode : STILL_ACTIVE;
    }

    DWORD threadId() {
        std::lock_guard guard(SyncLock());
        return m_threadId;
    }

    int m_priority = THREAD_PRIORITY_NORMAL;  // as last set; Linux may have refused it

private:
    std::function<DWORD()> m_body;
    std::condition_variable m_started;
    bool m_suspended;
    bool m_ended = false;
    DWORD m_threadId = 0;
    DWORD m_exitCode = STILL_ACTIVE;
};

HANDLE StartThread(std::function<DWORD()> body, SIZE_T stackSize, bool suspended, DWORD* threadId) {
    auto thread = std::make_shared<Thread>(std::move(body), suspended);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stackSize > 0)
        pthread_attr_setstacksize(&attributes, std::max<SIZE_T>(stackSize, PTHREAD_STACK_MIN));
    pthread_t id;
    auto* argument = new std::shared_ptr<Thread>(thread);
    int error = pthread_create(&id, &attributes, &Thread::Run, argument);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        delete argument;
        SetLastError(Win32ErrorFromErrno(error));
        return nullptr;
    }
    std::unique_lock lock(SyncLock());
    DWORD newId = thread->WaitForId(lock);
    lock.unlock();
    if (threadId)
        *threadId = newId;
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::move(thread));
}

// Nice values for the Windows priorities; raising is best effort.
int NiceFor(int priority) {
    if (priority <= THREAD_PRIORITY_IDLE)
        return 19;
    if (priority >= THREAD_PRIORITY_TIME_CRITICAL)
        return -20;
    return -5 * priority;  // LOWEST +10 ... HIGHEST -10
}

}  // namespace

}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress,
                    LPVOID lpParameter, DWORD dwCreationFlags, LPDWORD lpThreadId) {
    if (!lpStartAddress) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return StartThread([=] { return lpStartAddress(lpParameter); }, dwStackSize,
                       (dwCreationFlags & CREATE_SUSPENDED) != 0, lpThreadId);
}

uintptr_t _beginthreadex(void*, unsigned stack_size, unsigned (*start_address)(void*), void* arglist,
                         unsigned initflag, unsigned* thrdaddr) {
    if (!start_address) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    DWORD threadId = 0;
    HANDLE handle = StartThread([=] { return static_cast<DWORD>(start_address(arglist)); }, stack_size,
                                (initflag & CREATE_SUSPENDED) != 0, &threadId);
    if (thrdaddr)
        *thrdaddr = threadId;
    return reinterpret_cast<uintptr_t>(handle);
}

DWORD ResumeThread(HANDLE hThread) {
    auto thread = LookupHandleAs<Thread>(hThread);
    return thread ? thread->Resume() : DWORD(-1);
}

BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode) {
    auto thread = LookupHandleAs<Thread>(hThread);
    if (!thread || !lpExitCode) {
        if (thread)
            SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *lpExitCode = thread->ExitCode();
    return TRUE;
}

BOOL SetThreadPriority(HANDLE hThread, int nPriority) {
    DWORD threadId = GetCurrentThreadId();
    if (hThread != kCurrentThread) {
        auto thread = LookupHandleAs<Thread>(hThread);
        if (!thread)
            return FALSE;
        thread->m_priority = nPriority;
        threadId = thread->threadId();
    }
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(threadId), NiceFor(nPriority));  // refusal is not an error
    return TRUE;
}

int GetThreadPriority(HANDLE hThread) {
    if (hThread == kCurrentThread) {
        errno = 0;
        int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(GetCurrentThreadId()));
        return errno ? THREAD_PRIORITY_NORMAL : -nice / 5;
    }
    auto thread = LookupHandleAs<Thread>(hThread);
    return thread ? thread->m_priority : INT_MAX;  // THREAD_PRIORITY_ERROR_RETURN
}

HANDLE GetCurrentThread() { return kCurrentThread; }

DWORD GetCurrentThreadId() {
    thread_local DWORD id = static_cast<DWORD>(::syscall(SYS_gettid));
    return id;
}

DWORD GetCurrentProcessId() { return static_cast<DWORD>(::getpid()); }
