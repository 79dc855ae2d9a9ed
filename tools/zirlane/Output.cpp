// Text between the library's wide strings and the terminal's UTF-8.
#include <cstdio>
#include <cstdlib>

#include "Commands.h"
#include "diag/ZR_Error.h"

std::string ZirlaneUtf8(const std::wstring& ws) {
    std::string s;
    for (wchar_t wc : ws) {
        auto c = static_cast<uint32_t>(wc);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
        if (c < 0x80) {
            s += static_cast<char>(c);
        } else if (c < 0x800) {
            s += static_cast<char>(0xC0 | (c >> 6));
            s += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            s += static_cast<char>(0xE0 | (c >> 12));
            s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (c >> 18));
            s += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return s;
}

std::wstring ZirlaneWide(const std::string& s) {
    std::wstring ws;
    for (size_t i = 0; i < s.size();) {
        auto c = static_cast<unsigned char>(s[i]);
        int iMore = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        uint32_t u = iMore ? c & (0x3F >> iMore) : c;
        size_t j = 1;
        for (; j <= static_cast<size_t>(iMore) && i + j < s.size() &&
               (static_cast<unsigned char>(s[i + j]) & 0xC0) == 0x80;
             ++j)
            u = (u << 6) | (static_cast<unsigned char>(s[i + j]) & 0x3F);
        if (j != static_cast<size_t>(iMore) + 1 || (c >= 0x80 && c < 0xC0)) u = 0xFFFD;
        ws += static_cast<wchar_t>(u);
        i += j;
    }
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
