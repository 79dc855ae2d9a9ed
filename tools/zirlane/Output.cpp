// Text between the library's wide strings and the terminal's UTF-8.
#include <cstdio>
#include <cstdlib>

#include "Commands.h"
#include "diag/ZR_Error.h"
#include "platform/win32.h"

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

void ZirlanePrintErrors() {
    wchar_t* wsz = ZR_ReadErrors(nullptr);
    if (wsz) {
        std::fputs(ZirlaneUtf8(wsz).c_str(), stderr);
        free(wsz);
    }
    ZR_ClearErrors(nullptr);
}
