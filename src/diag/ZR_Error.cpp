// The process-wide error chain. Reports come from any thread, often with
// other locks held; under g_hErrorMutex nothing takes another lock of the
// library, and the trace lines are written before the mutex is taken.
#include "diag/ZR_Error.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "diag/CZR_Error.h"
#include "diag/Format.h"
#include "diag/ZR_ErrorReport.h"
#include "diag/Trace.h"
#include "zirlane/zirlane.h"

HANDLE g_hErrorMutex = CreateMutexW(nullptr, FALSE, nullptr);
volatile bool g_bErrorsBroken = false;
std::atomic<uint32_t> g_iLastIOError{0};

namespace {

CZR_Error* g_pErrorHead = nullptr;

// A formatted message fits this many bytes with its terminator.
constexpr size_t kMessageBuffer = 1024;

// The text given back by a read that met an exception. It belongs to the
// library and is never freed.
constexpr wchar_t kErrorCapturingError[] = L"Error capturing error";

// Runs fn under the chain's mutex. An exception breaks the chain for good:
// a chain left half-linked cannot be trusted again. False when broken.
template <typename Fn>
bool UnderErrorMutex(Fn fn) {
    if (g_bErrorsBroken)
        return false;
    WaitForSingleObject(g_hErrorMutex, INFINITE);
    bool bDone = true;
    try {
        fn();
    } catch (...) {
        g_bErrorsBroken = true;
        bDone = false;
    }
    ReleaseMutex(g_hErrorMutex);
    return bDone;
}

void PushRecord(const wchar_t* wszKey, int bWarning, const char* szFile, const char* szFunction, int iLine,
                const char* szMessage, DWORD iSystemError = 0) {
    g_pErrorHead = new CZR_Error(wszKey, bWarning, szFile, szFunction, iLine, szMessage, g_pErrorHead, iSystemError);
}

// The system's text of a last-error value goes in as a warning behind the
// report, so that the report stays at the head.
void PushSystemText(const wchar_t* wszKey, const char* szFile, const char* szFunction, int iLine, DWORD iError) {
    char* szSystem = nullptr;
    FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                   iError, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&szSystem), 0, nullptr);
    char szFallback[40];
    if (!szSystem)
        ZR_snprintf(szFallback, sizeof szFallback, "System error %u.\n", iError);
    try {
        PushRecord(wszKey, 1, szFile, szFunction, iLine, szSystem ? szSystem : szFallback, iError);
    } catch (...) {
        LocalFree(szSystem);
        throw;
    }
    LocalFree(szSystem);
}

void Report(const wchar_t* wszKey, int bWarning, const char* szFile, const char* szFunction, int iLine,
            const char* szFormat, va_list args) {
    if (g_bErrorsBroken)
        return;
    DWORD iError = GetLastError();
    if (!bWarning && iError == ERROR_IO_PENDING)
        iError = 0;  // an I/O that is still under way is no failure of its own
    if (g_iTraceMode)
        TraceLine(bWarning ? "ZR_Warning - %s %s line %d GLE: %d\n" : "ZR_Error - %s %s line %d GLE: %d\n",
                  szFile ? szFile : "", szFunction ? szFunction : "", iLine, iError);
    char* szMessage = static_cast<char*>(std::malloc(kMessageBuffer));
    if (szMessage) {
        ZR_vsnprintf(szMessage, kMessageBuffer, szFormat, args);
        if (g_iTraceMode)
            TraceLine("%s", szMessage);
    }
    UnderErrorMutex([&] {
        if (iError != 0)
            PushSystemText(wszKey, szFile, szFunction, iLine, iError);
        PushRecord(wszKey, bWarning, szFile, szFunction, iLine, szMessage ? szMessage : szFormat);
    });
    std::free(szMessage);
    SetLastError(iError);
}

// The text for a key, or null; *pbOwned tells whether it is a heap copy.
const wchar_t* ReadErrorText(const wchar_t* wszKey, bool* pbOwned) {
    *pbOwned = false;
    if (g_bErrorsBroken)
        return nullptr;
    wchar_t* wszText = nullptr;
    if (!UnderErrorMutex([&] {
            if (g_pErrorHead)
                wszText = g_pErrorHead->GetAllMessages(wszKey);
        }))
        return g_bErrorsBroken ? kErrorCapturingError : nullptr;
    *pbOwned = wszText != nullptr;
    return wszText;
}

ZR_ErrorReport ReportOf(const CZR_Error& record) {
    return {record.GetErrorMessage(), record.GetFile(), record.GetFunction(), record.GetLine(), record.IsWarning(),
            0, {}};
}

// Walks the chain newest first: a system text stands right behind the
// report it explains, so it is folded into the entry made just before.
std::vector<ZR_ErrorReport> ListNewestFirst(const wchar_t* wszKey) {
    std::vector<ZR_ErrorReport> aReports;
    for (const CZR_Error* p = g_pErrorHead; p; p = p->GetNext()) {
        if (p->GetKey() && !p->HasKey(wszKey))
            continue;
        if (p->GetSystemError() != 0 && !aReports.empty() && aReports.back().iSystemError == 0) {
            aReports.back().iSystemError = p->GetSystemError();
            aReports.back().strSystemText = p->GetErrorMessage();
        } else {
            aReports.push_back(ReportOf(*p));
        }
    }
    return aReports;
}

// Records without a key go at every clear.
bool ClearedBy(const CZR_Error& record, const wchar_t* wszKey) { return !record.GetKey() || record.HasKey(wszKey); }

}  // namespace

void ZR_Error(const wchar_t* wszKey, const char* szFile, const char* szFunction, int iLine, const char* szFormat,
              ...) {
    va_list args;
    va_start(args, szFormat);
    Report(wszKey, 0, szFile, szFunction, iLine, szFormat, args);
    va_end(args);
}

void ZR_Warning(const wchar_t* wszKey, const char* szFile, const char* szFunction, int iLine, const char* szFormat,
                ...) {
    va_list args;
    va_start(args, szFormat);
    Report(wszKey, 1, szFile, szFunction, iLine, szFormat, args);
    va_end(args);
}

wchar_t* ZR_ReadErrors(const wchar_t* wszKey) {
    bool bOwned = false;
    const wchar_t* wszText = ReadErrorText(wszKey, &bOwned);
    if (!wszText || bOwned)
        return const_cast<wchar_t*>(wszText);
    return _wcsdup(wszText);
}

std::vector<ZR_ErrorReport> ZR_ListErrors(const wchar_t* wszKey) {
    std::vector<ZR_ErrorReport> aReports;
    UnderErrorMutex([&] { aReports = ListNewestFirst(wszKey); });
    std::reverse(aReports.begin(), aReports.end());
    return aReports;
}

void ZR_ClearErrors(const wchar_t* wszKey) {
    UnderErrorMutex([&] {
        if (!g_pErrorHead)
            return;
        for (CZR_Error* pPrev = g_pErrorHead; CZR_Error* p = pPrev->GetNext();) {
            if (ClearedBy(*p, wszKey)) {
                pPrev->SetNext(p->DetachNext());
                delete p;
            } else {
                pPrev = p;
            }
        }
        if (ClearedBy(*g_pErrorHead, wszKey)) {
            CZR_Error* pOld = g_pErrorHead;
            g_pErrorHead = pOld->DetachNext();
            delete pOld;
        }
    });
}

ZR_API void ZRGetZRError(const wchar_t* wszKey, wchar_t* wszOut, unsigned int cchOut) {
    if (!wszOut || cchOut == 0) {
        if (g_iTraceMode)
            TraceLine("ZRGetZRError error out string is null");
        return;
    }
    wszOut[0] = 0;
    bool bOwned = false;
    const wchar_t* wszText = ReadErrorText(wszKey, &bOwned);
    if (!wszText)
        return;
    size_t cch = std::min<size_t>(std::wcslen(wszText), cchOut - 1);
    std::wmemcpy(wszOut, wszText, cch);
    wszOut[cch] = 0;
    if (bOwned)
        std::free(const_cast<wchar_t*>(wszText));
}
