// Helpers of the foundation tests: a trace sent to a temporary file for the
// length of a test, so that bound failures (which switch the trace to file
// mode) leave nothing behind and their lines can be read back.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "support/TestData.h"
#include "diag/Trace.h"

namespace zrtest {

// Switches the trace off again, as it is for every other test.
inline void RestoreTrace() {
    TraceSetup(kTraceNoLimit, 0, 0);
    SetTracePath(L"c:\\");
}

class TraceToTemp {
public:
    TraceToTemp() : m_path(m_dir / "trace.txt") { SetTracePath(m_path.wstring().c_str()); }
    ~TraceToTemp() { RestoreTrace(); }
    TraceToTemp(const TraceToTemp&) = delete;
    TraceToTemp& operator=(const TraceToTemp&) = delete;

    std::string Text() const {
        std::ifstream in(m_path);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    TempDir m_dir;
    std::filesystem::path m_path;
};

}  // namespace zrtest
