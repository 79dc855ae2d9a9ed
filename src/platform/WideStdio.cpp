#include "platform/WideStdio.h"

#include <string>

namespace {

// Paths reach the system as UTF-8 with '/' separators.
std::string NarrowPath(const wchar_t* wsz) {
    std::string out;
    for (; *wsz; ++wsz) {
        uint32_t c = static_cast<uint32_t>(*wsz == L'\\' ? L'/' : *wsz);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

FILE* _wfopen(const wchar_t* wszName, const wchar_t* wszMode) {
    if (!wszName || !wszMode)
        return nullptr;
    std::string mode;
    for (const wchar_t* p = wszMode; *p; ++p)
        mode += static_cast<char>(*p);
    mode += 'e';  // close on exec, as every open of the library
    return std::fopen(NarrowPath(wszName).c_str(), mode.c_str());
}

int _fseeki64(FILE* pFile, int64_t iOffset, int iOrigin) {
    return fseeko(pFile, static_cast<off_t>(iOffset), iOrigin);
}

int64_t _ftelli64(FILE* pFile) {
    return static_cast<int64_t>(ftello(pFile));
}
