// The trace ring and its file. Lines are built on the stack and copied into
// the ring whole, so a line never carries the tail of the one it replaced.
#include "diag/Trace.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "diag/Format.h"
#include "platform/WideStdio.h"

volatile int g_iTraceMode = 0;
bool g_bIOInstanceLog = false;
CRITICAL_SECTION g_csTrace;
char* g_pTraceRing = nullptr;
unsigned g_cbTraceRing = 0;
int g_iTraceIndex = 0;
int g_iTraceCount = 0;
unsigned g_iTraceLimit = kTraceNoLimit;
volatile bool g_bTraceBusy = false;
wchar_t g_wszTracePath[MAX_PATH] = L"c:\\";
FILE* g_pTraceFile = nullptr;
int g_iTraceFileLines = 0;

namespace {

std::atomic<bool> g_bTraceLockReady{false};

// Lines are written at the index until it passes the ring's size less this
// margin; then the ring starts again at 0.
constexpr int64_t kWrapMargin = 1024;

void EnsureTraceLock() {
    static const bool bCreated = [] {
        InitializeCriticalSection(&g_csTrace);
        return true;
    }();
    (void)bCreated;
    g_bTraceLockReady = true;
}

class TraceLock {
public:
    TraceLock() { EnterCriticalSection(&g_csTrace); }
    ~TraceLock() { LeaveCriticalSection(&g_csTrace); }
    TraceLock(const TraceLock&) = delete;
    TraceLock& operator=(const TraceLock&) = delete;
};

void CloseTraceFile() {
    if (g_pTraceFile)
        std::fclose(g_pTraceFile);
    g_pTraceFile = nullptr;
}

void OpenTraceFile(const wchar_t* wszMode) {
    CloseTraceFile();
    g_pTraceFile = _wfopen(g_wszTracePath, wszMode);
    g_iTraceFileLines = 0;
}

void ResizeRing(unsigned cbRing) {
    if (g_pTraceRing && g_cbTraceRing != cbRing && !g_bTraceBusy) {
        g_bTraceBusy = true;
        std::free(g_pTraceRing);
        g_pTraceRing = nullptr;
        g_cbTraceRing = 0;
        g_bTraceBusy = false;
    }
    // A ring must hold one line at least; a smaller size leaves no ring.
    if (!g_pTraceRing && cbRing >= static_cast<unsigned>(kTraceLineSize)) {
        g_pTraceRing = static_cast<char*>(std::calloc(cbRing, 1));
        g_cbTraceRing = g_pTraceRing ? cbRing : 0;
        g_iTraceIndex = 0;
    }
}

// The prefix takes 23 characters; a longer thread id or count pushes it to
// 24 or more, and the message then overwrites its last characters.
void FormatLine(char (&line)[kTraceLineSize], const char* szFormat, va_list args) {
    ZR_snprintf(line, sizeof line, "%06d-%04d-%010d ", g_iTraceCount, static_cast<int>(GetCurrentThreadId()),
                static_cast<int>(_time64(nullptr)));
    ZR_vsnprintf(line + kTracePrefixSize, sizeof line - kTracePrefixSize, szFormat, args);
    line[kTraceLineSize - 1] = 0;
}

void PutLineInRing(const char (&line)[kTraceLineSize]) {
    if (!g_pTraceRing)
        return;
    if (g_iTraceIndex > static_cast<int64_t>(g_cbTraceRing) - kWrapMargin ||
        g_iTraceIndex + kTraceLineSize > static_cast<int64_t>(g_cbTraceRing)) {
        std::memset(g_pTraceRing + g_iTraceIndex, 0, g_cbTraceRing - static_cast<unsigned>(g_iTraceIndex));
        g_iTraceIndex = 0;
    }
    std::memcpy(g_pTraceRing + g_iTraceIndex, line, kTraceLineSize);
    g_iTraceIndex += kTraceLineSize;
}

void PutLineInFile(const char* szLine) {
    if (!g_pTraceFile)
        OpenTraceFile(g_iTraceMode == 3 ? L"a" : L"w");
    if (g_iTraceMode == 2 && g_iTraceFileLines++ > kTraceFileRestart)
        OpenTraceFile(L"w");
    if (!g_pTraceFile)
        return;
    std::fprintf(g_pTraceFile, "%s", szLine);
    std::fflush(g_pTraceFile);
}

// Calls fn(pLine, cb) on the ring's runs, oldest first: from the index up to
// the first empty line or the end (the lines not yet overwritten since the
// last wrap), then from 0 up to the index. Needs g_csTrace and a ring.
template <typename Fn>
void ForEachRun(Fn fn) {
    unsigned iIndex = static_cast<unsigned>(g_iTraceIndex);
    unsigned iEnd = iIndex;
    while (iEnd + kTraceLineSize <= g_cbTraceRing && g_pTraceRing[iEnd] != 0)
        iEnd += kTraceLineSize;
    fn(g_pTraceRing + iIndex, iEnd - iIndex);
    fn(g_pTraceRing, iIndex);
}

}  // namespace

void TraceSetup(unsigned iLimit, unsigned cbRing, int iMode) {
    EnsureTraceLock();
    TraceLock lock;
    g_iTraceLimit = iLimit;
    g_iTraceMode = iMode;
    if (iMode != 0)
        ResizeRing(cbRing);
    else
        CloseTraceFile();
}

void TraceLine(const char* szFormat, ...) {
    if (!g_iTraceMode || !g_bTraceLockReady)
        return;
    TraceLock lock;
    if (g_bTraceBusy || static_cast<unsigned>(g_iTraceCount) >= g_iTraceLimit)
        return;
    g_iTraceCount = static_cast<int>(static_cast<unsigned>(g_iTraceCount) + 1);
    g_bTraceBusy = true;
    char line[kTraceLineSize] = {};
    va_list args;
    va_start(args, szFormat);
    FormatLine(line, szFormat, args);
    va_end(args);
    PutLineInRing(line);
    if (g_iTraceMode >= 2)
        PutLineInFile(line);
    g_bTraceBusy = false;
}

void CaptureServiceTracing(char* pBuffer, int* pcbBuffer, int* pcbLine) {
    if (!pcbBuffer)
        return;
    if (pcbLine)
        *pcbLine = kTraceLineSize;
    if (!g_bTraceLockReady || !pBuffer) {
        *pcbBuffer = 0;
        return;
    }
    TraceLock lock;
    if (!g_pTraceRing) {
        *pcbBuffer = 0;
        return;
    }
    size_t cbRoom = static_cast<size_t>(std::max(*pcbBuffer, 0));
    size_t cbCopied = 0;
    ForEachRun([&](const char* p, size_t cb) {
        size_t cbTake = std::min(cb, (cbRoom - cbCopied) / kTraceLineSize * kTraceLineSize);
        std::memcpy(pBuffer + cbCopied, p, cbTake);
        cbCopied += cbTake;
    });
    *pcbBuffer = static_cast<int>(cbCopied);
}

void TraceDumpToDisk() {
    if (!g_iTraceMode || !g_bTraceLockReady)
        return;
    TraceLock lock;
    g_iTraceMode = 2;
    if (!g_pTraceFile)
        OpenTraceFile(L"w");
    if (!g_pTraceFile)
        return;
    if (g_pTraceRing) {
        ForEachRun([](const char* p, size_t cb) {
            for (size_t i = 0; i < cb; i += kTraceLineSize)
                std::fprintf(g_pTraceFile, "%s", p + i);
        });
    }
    std::fflush(g_pTraceFile);
}

bool SetTracePath(const wchar_t* wszPath) {
    if (!wszPath || std::wcslen(wszPath) >= MAX_PATH)
        return false;
    EnsureTraceLock();
    TraceLock lock;
    std::wcscpy(g_wszTracePath, wszPath);
    return true;
}

void EnableServiceTracing(int iMode) {
    g_bIOInstanceLog = true;
    TraceSetup(kTraceNoLimit, kTraceRingSize, iMode);
}

void DisableServiceTracing() {
    g_bIOInstanceLog = false;
    TraceSetup(kTraceNoLimit, 0, 0);
}

void EnableTracing() { g_bIOInstanceLog = true; }

void DisableTracing() { g_bIOInstanceLog = false; }
