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
    HANDLE handle;  // the event, mutex or port the threads use
    std::atomic<int> done{0};
};

// Each thread waits once, with a time limit, and counts a success.
void RunWaiters(Shared* pShared, LPTHREAD_START_ROUTINE pfn, int cThreads, void (*post)(HANDLE)) {
    std::vector<HANDLE> threads;
    for (int i = 0; i < cThreads; ++i)
        threads.push_back(CreateThread(nullptr, 0, pfn, pShared, 0, nullptr));
    post(pShared->handle);
    EXPECT_EQ(WaitForMultipleObjects(DWORD(threads.size()), threads.data(), TRUE, 3000), WAIT_OBJECT_0)
        << "a thread's handle is signalled when it ends";
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(threads[0], &code));
    EXPECT_EQ(code, 7u);
    for (HANDLE t : threads)
        CloseHandle(t);
}

// A signal that comes before the waiters wait is kept for one of them.
TEST(Sync, AutoResetEventReleasesOneWaiter) {
    Shared shared{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    RunWaiters(
        &shared,
        [](LPVOID p) -> DWORD {
            auto* s = static_cast<Shared*>(p);
            if (WaitForSingleObject(s->handle, 300) == WAIT_OBJECT_0) ++s->done;
            return 7;
        },
        3, [](HANDLE h) { SetEvent(h); });
    EXPECT_EQ(shared.done.load(), 1);
    CloseHandle(shared.handle);
}

// Packets posted before the waiters wait are queued; each wakes one.
TEST(CompletionPort, PostWakesExactlyOneWaiter) {
    Shared shared{CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)};
    RunWaiters(
        &shared,
        [](LPVOID p) -> DWORD {
            auto* s = static_cast<Shared*>(p);
            DWORD bytes;
            ULONG_PTR key;
            OVERLAPPED* ov;
            if (GetQueuedCompletionStatus(s->handle, &bytes, &key, &ov, 300)) ++s->done;
            return 7;
        },
        4, [](HANDLE h) {
            PostQueuedCompletionStatus(h, 1, 1, nullptr);
            PostQueuedCompletionStatus(h, 1, 1, nullptr);
        });
    EXPECT_EQ(shared.done.load(), 2);
    CloseHandle(shared.handle);
}

TEST(Sync, MutexIsRecursiveAndOwned) {
    HANDLE mutex = CreateMutexW(nullptr, FALSE, nullptr);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "recursive";
    DWORD threadId = 0;
    HANDLE other = CreateThread(
        nullptr, 0, [](LPVOID p) -> DWORD { return WaitForSingleObject(static_cast<HANDLE>(p), 0); }, mutex,
        CREATE_SUSPENDED, &threadId);
    EXPECT_NE(threadId, GetCurrentThreadId());
    DWORD code = 0;
    GetExitCodeThread(other, &code);
    EXPECT_EQ(code, STILL_ACTIVE) << "suspended";
    ResumeThread(other);
    WaitForSingleObject(other, INFINITE);
    GetExitCodeThread(other, &code);
    EXPECT_EQ(code, WAIT_TIMEOUT) << "owned by this thread";
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(other);
    CloseHandle(mutex);
}

TEST(CompletionPort, FifoTimeoutAndFailedPackets) {
    HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    ASSERT_NE(port, nullptr);
    OVERLAPPED ov[3]{};
    for (int i = 0; i < 3; ++i)
        PostQueuedCompletionStatus(port, 10 + i, 100 + i, &ov[i]);
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* got = nullptr;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &got, 0));
        EXPECT_EQ(got, &ov[i]);
        EXPECT_EQ(key, 100u + i);
        EXPECT_EQ(bytes, 10u + i);
    }
    EXPECT_FALSE(GetQueuedCompletionStatus(port, &bytes, &key, &got, 20));
    EXPECT_EQ(GetLastError(), WAIT_TIMEOUT);
    EXPECT_EQ(got, nullptr);
    CloseHandle(port);
}

}  // namespace
