#include "platform/PathNames.h"

#include <algorithm>

namespace zr::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        c = kReplacement;
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

// Decodes one UTF-8 sequence at text[i], advancing i; invalid bytes give
// the replacement character and advance by one.
char32_t DecodeUtf8(const std::string& text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i);
    size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || i + length > text.size()) {
        ++i;
        return kReplacement;
    }
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            ++i;
            return kReplacement;
        }
        c = (c << 6) | (byte(i + k) & 0x3F);
    }
    i += length;
    return c;
}

}  // namespace

std::string WideToUtf8(const wchar_t* text) {
    std::string out;
    for (; text && *text; ++text)
        AppendUtf8(out, static_cast<char32_t>(*text));
    return out;
}

std::wstring Utf8ToWide(const std::string& text) {
    std::wstring out;
    for (size_t i = 0; i < text.size();)
        out += static_cast<wchar_t>(DecodeUtf8(text, i));
    return out;
}

std::string SystemPath(const wchar_t* name) {
    std::string path = WideToUtf8(name);
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

}  // namespace zr::platform
