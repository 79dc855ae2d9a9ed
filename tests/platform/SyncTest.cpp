// Waits, event reset modes, mutex ownership, threads and completion ports.
#include "platform/win32.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

TEST(Sync, WaitHonoursTimeoutAndResetModes) {
    HANDLE manual = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE automatic = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(WaitForSingleObject(manual, 50), WAIT_TIMEOUT);
    EXPECT_GE(GetTickCount64() - start, 45u);
    SetEvent(manual);
    SetEvent(automatic);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0) << "manual reset stays set";
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT) << "auto reset released one wait";
    ResetEvent(manual);
    HANDLE both[] = {manual, automatic};
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT);
    SetEvent(automatic);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT) << "wait-all needs both";
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForSingleObject(INVALID_HANDLE_VALUE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    CloseHandle(manual);
    CloseHandle(automatic);
}

struct Shared {
    HANDLE event;
    HANDLE mutex;
    std::atomic<int> woken{0};
};

DWORD WaitOnce(LPVOID p) {
    auto* shared = static_cast<Shared*>(p);
    if (WaitForSingleObject(shared->event, 2000) == WAIT_OBJECT_0)
        ++shared->woken;
    return 7;
}

TEST(Sync, AutoResetEventReleasesOneWaiterAndThreadsSignalAtEnd) {
    Shared shared{CreateEventW(nullptr, FALSE, FALSE, nullptr), nullptr};
    HANDLE threads[3];
    for (HANDLE& t : threads)
        t = CreateThread(nullptr, 0, WaitOnce, &shared, 0, nullptr);
    Sleep(50);
    SetEvent(shared.event);
    Sleep(100);
    EXPECT_EQ(shared.woken.load(), 1);
    SetEvent(shared.event);
    SetEvent(shared.event);  // no waiter in between may lose this; the third comes with the next
    Sleep(50);
    SetEvent(shared.event);
    EXPECT_EQ(WaitForMultipleObjects(3, threads, TRUE, 3000), WAIT_OBJECT_0);
    EXPECT_EQ(shared.woken.load(), 3);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(threads[0], &code));
    EXPECT_EQ(code, 7u);
    for (HANDLE t : threads)
        CloseHandle(t);
    CloseHandle(shared.event);
}

DWORD TryMutex(LPVOID p) { return WaitForSingleObject(static_cast<Shared*>(p)->mutex, 0); }

TEST(Sync, MutexIsRecursiveAndOwned) {
    Shared shared{nullptr, CreateMutexW(nullptr, FALSE, nullptr)};
    EXPECT_EQ(WaitForSingleObject(shared.mutex, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(shared.mutex, 0), WAIT_OBJECT_0) << "recursive";
    DWORD threadId = 0;
    HANDLE other = CreateThread(nullptr, 0, TryMutex, &shared, CREATE_SUSPENDED, &threadId);
    EXPECT_NE(threadId, GetCurrentThreadId());
    DWORD code = 0;
    GetExitCodeThread(other, &code);
    EXPECT_EQ(code, STILL_ACTIVE) << "suspended";
    ResumeThread(other);
    WaitForSingleObject(other, INFINITE);
    GetExitCodeThread(other, &code);
    EXPECT_EQ(code, WAIT_TIMEOUT) << "owned by this thread";
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
    EXPECT_FALSE(ReleaseMutex(shared.mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(other);
    CloseHandle(shared.mutex);
}

TEST(CompletionPort, FifoTimeoutAndFailedPackets) {
    HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    ASSERT_NE(port, nullptr);
    OVERLAPPED ov[3]{};
    for (int i = 0; i < 3; ++i)
        PostQueuedCompletionStatus(port, 10 + i, 100 + i, &ov[i]);
    for (int i = 0; i < 3; ++i) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* got = nullptr;
        EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &got, 0));
        EXPECT_EQ(got, &ov[i]);
        EXPECT_EQ(key, 100u + i);
        EXPECT_EQ(bytes, 10u + i);
    }
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* got = &ov[0];
    EXPECT_FALSE(GetQueuedCompletionStatus(port, &bytes, &key, &got, 20));
    EXPECT_EQ(GetLastError(), WAIT_TIMEOUT);
    EXPECT_EQ(got, nullptr);
    CloseHandle(port);
}

struct PortShared {
    HANDLE port;
    std::atomic<int> taken{0};
};

DWORD TakeOne(LPVOID p) {
    auto* shared = static_cast<PortShared*>(p);
    DWORD bytes;
    ULONG_PTR key;
    OVERLAPPED* ov;
    if (GetQueuedCompletionStatus(shared->port, &bytes, &key, &ov, 300))
        ++shared->taken;
    return 0;
}

TEST(CompletionPort, PostWakesExactlyOneWaiter) {
    PortShared shared{CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)};
    HANDLE threads[4];
    for (HANDLE& t : threads)
        t = CreateThread(nullptr, 0, TakeOne, &shared, 0, nullptr);
    Sleep(30);
    PostQueuedCompletionStatus(shared.port, 1, 1, nullptr);
    PostQueuedCompletionStatus(shared.port, 1, 1, nullptr);
    EXPECT_EQ(WaitForMultipleObjects(4, threads, TRUE, 3000), WAIT_OBJECT_0);
    EXPECT_EQ(shared.taken.load(), 2);
    for (HANDLE t : threads)
        CloseHandle(t);
    CloseHandle(shared.port);
}

}  // namespace
