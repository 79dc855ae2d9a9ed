// Critical sections, events, mutexes, semaphores, waits, Sleep and the
// interlocked operations.
#include "platform/PosixErrors.h"
#include "platform/Waitable.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace zr::platform {

std::mutex& SyncLock() {
    static std::mutex* lock = new std::mutex;  // used by threads that may outlive static destructors
    return *lock;
}

void Waitable::WakeWaiters() {
    for (std::condition_variable* waiter : m_waiters)
        waiter->notify_all();
}

namespace {

class Event : public Waitable {
public:
    static constexpr Type kType = Type::Event;
    Event(bool manualReset, bool signalled) : Waitable(kType), m_manualReset(manualReset), m_signalled(signalled) {}
    bool IsSignalled(DWORD) const override { return m_signalled; }
    void Acquire(DWORD) override { m_signalled = m_signalled && m_manualReset; }
    void Set(bool signalled) {
        m_signalled = signalled;
        if (signalled)
            WakeWaiters();
    }

private:
    const bool m_manualReset;
    bool m_signalled;
};

class Mutex : public Waitable {
public:
    static constexpr Type kType = Type::Mutex;
    Mutex() : Waitable(kType) {}
    bool IsSignalled(DWORD threadId) const override { return m_owner == 0 || m_owner == threadId; }
    void Acquire(DWORD threadId) override {
        m_owner = threadId;
        ++m_recursion;
    }
    bool Release(DWORD threadId) {
        if (m_owner != threadId || m_recursion == 0)
            return false;
        if (--m_recursion == 0) {
            m_owner = 0;
            WakeWaiters();
        }
        return true;
    }

private:
    DWORD m_owner = 0;
    unsigned m_recursion = 0;
};

class Semaphore : public Waitable {
public:
    static constexpr Type kType = Type::Semaphore;
    Semaphore(LONG count, LONG maximum) : Waitable(kType), m_count(count), m_maximum(maximum) {}
    bool IsSignalled(DWORD) const override { return m_count > 0; }
    void Acquire(DWORD) override { --m_count; }
    bool Release(LONG count, LONG* previous) {
        if (count <= 0 || count > m_maximum - m_count)
            return false;
        if (previous)
            *previous = m_count;
        m_count += count;
        WakeWaiters();
        return true;
    }

private:
    LONG m_count;
    const LONG m_maximum;
};

template <class T>
BOOL UnderSyncLock(HANDLE handle, DWORD errorWhenRefused, bool (*change)(T&, void*), void* argument) {
    std::shared_ptr<T> object = LookupHandleAs<T>(handle);
    if (!object)
        return FALSE;
    std::lock_guard guard(SyncLock());
    if (!change(*object, argument)) {
        SetLastError(errorWhenRefused);
        return FALSE;
    }
    return TRUE;
}

BOOL SetEventState(HANDLE handle, bool signalled) {
    return UnderSyncLock<Event>(
        handle, ERROR_INVALID_HANDLE,
        [](Event& event, void* state) {
            event.Set(*static_cast<bool*>(state));
            return true;
        },
        &signalled);
}

// The index of the wait's outcome when it can be satisfied now, else -1.
int Satisfiable(const std::vector<std::shared_ptr<Waitable>>& objects, bool all, DWORD threadId) {
    if (all)
        return std::all_of(objects.begin(), objects.end(), [&](auto& o) { return o->IsSignalled(threadId); }) ? 0 : -1;
    for (size_t i = 0; i < objects.size(); ++i)
        if (objects[i]->IsSignalled(threadId))
            return static_cast<int>(i);
    return -1;
}

void Take(const std::vector<std::shared_ptr<Waitable>>& objects, bool all, int index, DWORD threadId) {
    if (!all) {
        objects[index]->Acquire(threadId);
        return;
    }
    for (auto& object : objects)
        object->Acquire(threadId);
}

void Hang(const std::vector<std::shared_ptr<Waitable>>& objects, std::condition_variable* waiter, bool on) {
    for (auto& object : objects) {
        auto& waiters = object->m_waiters;
        if (on)
            waiters.push_back(waiter);
        else
            waiters.erase(std::find(waiters.begin(), waiters.end(), waiter));
    }
}

DWORD Wait(const std::vector<std::shared_ptr<Waitable>>& objects, bool all, DWORD milliseconds) {
    DWORD threadId = GetCurrentThreadId();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::condition_variable waiter;
    std::unique_lock lock(SyncLock());
    for (bool timedOut = false;; ) {
        int index = Satisfiable(objects, all, threadId);
        if (index >= 0) {
            Take(objects, all, index, threadId);
            return WAIT_OBJECT_0 + static_cast<DWORD>(index);
        }
        if (timedOut || milliseconds == 0)
            return WAIT_TIMEOUT;
        Hang(objects, &waiter, true);
        if (milliseconds == INFINITE)
            waiter.wait(lock);
        else
            timedOut = waiter.wait_until(lock, deadline) == std::cv_status::timeout;
        Hang(objects, &waiter, false);
    }
}

void* MutexStorage(LPCRITICAL_SECTION cs) { return cs->opaque; }
pthread_mutex_t* MutexOf(LPCRITICAL_SECTION cs) { return static_cast<pthread_mutex_t*>(MutexStorage(cs)); }

static_assert(sizeof(pthread_mutex_t) <= sizeof(CRITICAL_SECTION::opaque));
static_assert(alignof(pthread_mutex_t) <= alignof(CRITICAL_SECTION));

}  // namespace

}  // namespace zr::platform

using namespace zr::platform;

void InitializeCriticalSection(LPCRITICAL_SECTION cs) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (MutexStorage(cs)) pthread_mutex_t, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION cs, DWORD) {
    InitializeCriticalSection(cs);
    return TRUE;
}

void DeleteCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_destroy(MutexOf(cs)); }
void EnterCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_lock(MutexOf(cs)); }
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION cs) { return pthread_mutex_trylock(MutexOf(cs)) == 0; }
void LeaveCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_unlock(MutexOf(cs)); }

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCWSTR) {
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::make_shared<Event>(bManualReset != FALSE, bInitialState != FALSE));
}

BOOL SetEvent(HANDLE hEvent) { return SetEventState(hEvent, true); }
BOOL ResetEvent(HANDLE hEvent) { return SetEventState(hEvent, false); }

HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL bInitialOwner, LPCWSTR) {
    auto mutex = std::make_shared<Mutex>();
    if (bInitialOwner)
        mutex->Acquire(GetCurrentThreadId());
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::move(mutex));
}

BOOL ReleaseMutex(HANDLE hMutex) {
    return UnderSyncLock<Mutex>(
        hMutex, ERROR_NOT_OWNER, [](Mutex& mutex, void*) { return mutex.Release(GetCurrentThreadId()); }, nullptr);
}

HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES, LONG lInitialCount, LONG lMaximumCount, LPCWSTR) {
    if (lMaximumCount <= 0 || lInitialCount < 0 || lInitialCount > lMaximumCount) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    return RegisterHandle(std::make_shared<Semaphore>(lInitialCount, lMaximumCount));
}

BOOL ReleaseSemaphore(HANDLE hSemaphore, LONG lReleaseCount, LONG* lpPreviousCount) {
    struct Arguments {
        LONG count;
        LONG* previous;
    } arguments{lReleaseCount, lpPreviousCount};
    return UnderSyncLock<Semaphore>(
        hSemaphore, ERROR_TOO_MANY_POSTS,
        [](Semaphore& semaphore, void* a) {
            auto* args = static_cast<Arguments*>(a);
            return semaphore.Release(args->count, args->previous);
        },
        &arguments);
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    return WaitForMultipleObjects(1, &hHandle, FALSE, dwMilliseconds);
}

DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds) {
    if (nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS || !lpHandles) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    std::vector<std::shared_ptr<Waitable>> objects;
    for (DWORD i = 0; i < nCount; ++i) {
        auto object = std::dynamic_pointer_cast<Waitable>(LookupHandle(lpHandles[i]));
        if (!object) {
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        objects.push_back(std::move(object));
    }
    return Wait(objects, bWaitAll != FALSE, dwMilliseconds);
}

void Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0)
        std::this_thread::yield();
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(dwMilliseconds));
}

long InterlockedIncrement(volatile long* p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
long InterlockedDecrement(volatile long* p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
long InterlockedExchange(volatile long* p, long v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
long InterlockedExchangeAdd(volatile long* p, long v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
long InterlockedCompareExchange(volatile long* p, long exchange, long comparand) {
    __atomic_compare_exchange_n(p, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;  // the value that was there
}
LONGLONG InterlockedIncrement64(volatile LONGLONG* p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
LONGLONG InterlockedExchangeAdd64(volatile LONGLONG* p, LONGLONG v) {
    return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST);
}
