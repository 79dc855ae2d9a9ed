// Every ReadFile through the file calls goes to a function of the test's,
// handed the call that stood before so that it can pass the read on, from
// Install until the object goes; then every file call is restored. One hook
// at a time; install it while no other thread reads.
#pragma once

#include <functional>

#include "platform/FileCallsTesting.h"

namespace zrtest {

class ReadFileHook {
public:
    using Read = decltype(&::ReadFile);
    using Hook = std::function<BOOL(Read next, HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED)>;

    ReadFileHook() = default;
    explicit ReadFileHook(Hook hook) { Install(std::move(hook)); }
    ReadFileHook(const ReadFileHook&) = delete;
    ReadFileHook& operator=(const ReadFileHook&) = delete;

    void Install(Hook hook) {
        s_hook = std::move(hook);
        s_next = zr::platform::testing::ReplaceFileCall(&FileCalls::ReadFile, &Call);
    }

    // A hook that makes every read take iMs longer.
    static Hook Slow(DWORD iMs) {
        return [iMs](Read next, auto... args) {
            Sleep(iMs);
            return next(args...);
        };
    }

private:
    static BOOL Call(HANDLE h, LPVOID p, DWORD n, LPDWORD pn, LPOVERLAPPED o) { return s_hook(s_next, h, p, n, pn, o); }

    static inline Hook s_hook;
    static inline Read s_next = nullptr;
    zr::platform::testing::ScopedFileCalls m_restore;
};

}  // namespace zrtest
