// Text between the library's wide strings and the terminal's UTF-8, and the
// error chain as the tool prints it.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "Commands.h"
#include "diag/Format.h"
#include "diag/ZR_Error.h"
#include "diag/ZR_ErrorReport.h"
#include "platform/win32.h"

namespace {

bool g_bVerbose = false;

std::string Trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// Each message once, the failure that started it first. The system's text
// of a last-error value explains that first failure only: the reports of
// the callers above it carry the same value on, and ERROR_IO_PENDING (an
// I/O still under way) explains no failure at all.
std::string PlainText(const std::vector<ZR_ErrorReport>& aReports) {
    std::string text;
    std::set<std::string> seen;
    for (size_t i = 0; i < aReports.size(); ++i) {
        const ZR_ErrorReport& r = aReports[i];
        std::string line = Trimmed(r.strMessage);
        if (line.empty() || !seen.insert(line).second) continue;
        text += line + "\n";
        if (i == 0 && r.iSystemError != 0 && r.iSystemError != ERROR_IO_PENDING && !r.strSystemText.empty())
            text += "  " + Trimmed(r.strSystemText) + "\n";
    }
    return text;
}

std::string VerboseText(const std::vector<ZR_ErrorReport>& aReports) {
    std::string text;
    for (const ZR_ErrorReport& r : aReports) {
        text += Trimmed(r.strMessage) + (r.bWarning ? " (warning)\n" : "\n");
        if (r.iSystemError != 0)
            text += "  System:" + Trimmed(r.strSystemText) + " (error " + std::to_string(r.iSystemError) + ")\n";
        text += "  File:" + r.strFile + "\n  Function:" + r.strFunction + "\n  Line:" + std::to_string(r.iLine) +
                "\n";
    }
    return text;
}

}  // namespace

std::string ZirlaneUtf8(const std::wstring& ws) {
    if (ws.empty())
        return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, ws.data(), static_cast<int>(ws.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, ws.data(), static_cast<int>(ws.size()), s.data(), n, nullptr, nullptr);
    return s;
}

std::wstring ZirlaneWide(const std::string& s) {
    if (s.empty())
        return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring ws(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), ws.data(), n);
    return ws;
}

std::string ZirlaneJson(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char sz[8];
            std::snprintf(sz, sizeof sz, "\\u%04x", static_cast<unsigned>(c));
            out += sz;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

void ZirlaneSetVerbose(bool bVerbose) { g_bVerbose = bVerbose; }

void ZirlanePrintErrors(const wchar_t* wszKey) {
    std::vector<ZR_ErrorReport> aReports = ZR_ListErrors(wszKey);
    ZR_ClearErrors(wszKey);
    if (aReports.empty()) {
        std::fputs("The command failed, and the library recorded no reason.\n", stderr);
        return;
    }
    std::fputs((g_bVerbose ? VerboseText(aReports) : PlainText(aReports)).c_str(), stderr);
}

void ZirlaneStepSucceeded() { ZR_ClearErrors(nullptr); }

int ZirlaneFinish(bool bOk) {
    if (bOk) return ZIRLANE_EXIT_OK;
    ZirlanePrintErrors();
    return ZIRLANE_EXIT_FAILED;
}

bool ZirlaneFail(const char* szFile, int iLine, const char* szFormat, ...) {
    char szMessage[1024];
    va_list args;
    va_start(args, szFormat);
    ZR_vsnprintf(szMessage, sizeof szMessage, szFormat, args);
    va_end(args);
    SetLastError(NO_ERROR);
    ZR_Error(nullptr, szFile, "zirlane", iLine, "%s", szMessage);
    return false;
}
