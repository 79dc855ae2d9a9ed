// The flag-driven trace family, kept for the code that calls it and
// switched off for good: no flag is ever on, so nothing behind a flag is
// produced and TPrintf never reaches the debugger.
#include <cstdarg>
#include <string>

#include "diag/Format.h"
#include "diag/Trace.h"

namespace {

// Stays 0: SetTraceFlags stores nothing. Kept as a variable so that the
// paths behind the flags remain the ones that would run.
constexpr uint64_t g_iTraceFlags = 0;

}  // namespace

void TInit(FILE*) {}

void TFini() {}

void SetTraceFlags(uint64_t) {}

uint64_t GetTraceFlags() { return g_iTraceFlags; }

bool TraceFlagOn(uint64_t iFlag) { return (g_iTraceFlags & iFlag) != 0; }

bool TAcquireDumpLock() { return false; }

void TReleaseDumpLock() {}

// The texts of this family use the extended conversions ("%{X32}"), which
// the plain formatter does not know: formatting them there would take the
// wrong arguments. So nothing is formatted unless the debugger flag is on.
void TPrintf(const char* szFormat, ...) {
    if (!TraceFlagOn(kTraceFlagDebugger))
        return;
    va_list args;
    va_start(args, szFormat);
    std::string text = ZR_FormatV(szFormat, args);
    va_end(args);
    OutputDebugStringA(text.c_str());
}

void TPrintf(const wchar_t* wszFormat, ...) {
    if (!TraceFlagOn(kTraceFlagDebugger))
        return;
    va_list args;
    va_start(args, wszFormat);
    std::wstring text = ZR_FormatWV(wszFormat, args);
    va_end(args);
    OutputDebugStringW(text.c_str());
}

void TDumpError(DWORD iError) {
    if (!TraceFlagOn(kTraceFlagDebugger))
        return;
    wchar_t* wszText = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                   iError, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&wszText), 0, nullptr);
    TPrintf("LastError: %{X32} %S\n", iError, wszText ? wszText : L"");
    LocalFree(wszText);
}
