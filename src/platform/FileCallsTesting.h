// Test-only control of the file-call table of platform/FileCalls.h, in the
// manner of a system-call override table: replace one call, keep the
// previous one to forward to, restore all at the end.
//
//   ScopedFileCalls restore;                       // restores all on exit
//   static auto real = ReplaceFileCall(&FileCalls::ReadFile, &ShortRead);
//
// Same thread contract as the table: swap only while no other thread calls
// through it.
#pragma once

#include "platform/FileCalls.h"

#include <cstddef>

namespace zr::platform::testing {

// Puts `replacement` into one entry and returns what stood there before.
// A null replacement restores that entry's POSIX implementation.
template <class Fn>
Fn ReplaceFileCall(Fn FileCalls::*entry, Fn replacement) {
    Fn previous = g_FileCalls.*entry;
    g_FileCalls.*entry = replacement ? replacement : g_DefaultFileCalls.*entry;
    return previous;
}

// Puts every entry back to its POSIX implementation.
inline void RestoreFileCalls() { g_FileCalls = g_DefaultFileCalls; }

// Restores every entry when it goes out of scope.
class ScopedFileCalls {
public:
    ScopedFileCalls() = default;
    ~ScopedFileCalls() { RestoreFileCalls(); }
    ScopedFileCalls(const ScopedFileCalls&) = delete;
    ScopedFileCalls& operator=(const ScopedFileCalls&) = delete;
};

// Open file handles of the layer (other kernel objects not counted), so
// that a fault test can check that every failure path closed its files.
size_t OpenFileHandleCount();

// Open handles of every kind.
size_t OpenHandleCount();

}  // namespace zr::platform::testing
