// For the life of the object every CreateFileW fails (access denied), so a
// map file cannot be mapped and is read through its buffered stream, which
// opens without the file calls; unless bActive is false, so that one loop
// can try both plugs. Restores every file call at the end.
#pragma once

#include "platform/FileCallsTesting.h"

namespace zrtest {

class StreamPlugOnly {
public:
    explicit StreamPlugOnly(bool bActive = true) {
        if (bActive)
            zr::platform::testing::ReplaceFileCall(&FileCalls::CreateFileW, &Refuse);
    }
    StreamPlugOnly(const StreamPlugOnly&) = delete;
    StreamPlugOnly& operator=(const StreamPlugOnly&) = delete;

private:
    static HANDLE Refuse(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    zr::platform::testing::ScopedFileCalls m_restore;
};

}  // namespace zrtest
