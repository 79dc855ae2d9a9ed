#include "foundation/Utf16.h"

#include <cstring>
#include <cwchar>

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(uint16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(uint16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

uint16_t UnitAt(const unsigned char* p, size_t i) {
    return static_cast<uint16_t>(p[2 * i] | (p[2 * i + 1] << 8));
}

// Walks the units in p, handing each decoded character to emit until it
// returns false. Stops at a zero unit when asked.
template <class Emit>
void DecodeUnits(const void* pv, size_t cbBytes, bool bStopAtZero, Emit emit) {
    const unsigned char* p = static_cast<const unsigned char*>(pv);
    size_t iUnits = p ? cbBytes / 2 : 0;
    for (size_t i = 0; i < iUnits; i++) {
        uint16_t u = UnitAt(p, i);
        if (u == 0 && bStopAtZero) return;
        char32_t ch = u;
        if (IsHighSurrogate(u)) {
            uint16_t uNext = i + 1 < iUnits ? UnitAt(p, i + 1) : 0;
            if (IsLowSurrogate(uNext)) {
                ch = 0x10000 + ((static_cast<char32_t>(u) - 0xD800) << 10) + (uNext - 0xDC00);
                i++;
            } else {
                ch = kReplacement;
            }
        } else if (IsLowSurrogate(u)) {
            ch = kReplacement;
        }
        if (!emit(static_cast<wchar_t>(ch))) return;
    }
}

// The character as a scalar value: surrogates and values beyond U+10FFFF
// are no characters.
char32_t Scalar(wchar_t wc) {
    auto ch = static_cast<char32_t>(wc);
    if (ch > 0x10FFFF || (ch >= 0xD800 && ch <= 0xDFFF)) return kReplacement;
    return ch;
}

size_t UnitsOf(wchar_t wc) { return Scalar(wc) >= 0x10000 ? 2 : 1; }

// Writes the units of one character at p; returns the units written.
size_t PutUnits(unsigned char* p, wchar_t wc) {
    char32_t ch = Scalar(wc);
    auto put = [p](size_t i, uint16_t u) {
        p[2 * i] = static_cast<unsigned char>(u & 0xFF);
        p[2 * i + 1] = static_cast<unsigned char>(u >> 8);
    };
    if (ch < 0x10000) {
        put(0, static_cast<uint16_t>(ch));
        return 1;
    }
    ch -= 0x10000;
    put(0, static_cast<uint16_t>(0xD800 + (ch >> 10)));
    put(1, static_cast<uint16_t>(0xDC00 + (ch & 0x3FF)));
    return 2;
}

}  // namespace

std::wstring Utf16Decode(const void* p, size_t cbBytes, bool bStopAtZero) {
    std::wstring str;
    str.reserve(cbBytes / 2);
    DecodeUnits(p, cbBytes, bStopAtZero, [&str](wchar_t ch) {
        str.push_back(ch);
        return true;
    });
    return str;
}

size_t Utf16Decode(const void* p, size_t cbBytes, bool bStopAtZero, wchar_t* wszOut, size_t cchOut) {
    if (!wszOut || cchOut == 0) return 0;
    size_t iOut = 0;
    DecodeUnits(p, cbBytes, bStopAtZero, [&](wchar_t ch) {
        if (iOut + 1 >= cchOut) return false;
        wszOut[iOut++] = ch;
        return true;
    });
    wszOut[iOut] = 0;
    return iOut;
}

std::string Utf16Encode(const wchar_t* wsz, size_t cch) {
    std::string str(2 * Utf16Length(wsz, cch), '\0');
    unsigned char* p = reinterpret_cast<unsigned char*>(str.data());
    size_t iUnit = 0;
    for (size_t i = 0; i < cch; i++) iUnit += PutUnits(p + 2 * iUnit, wsz[i]);
    return str;
}

std::string Utf16Encode(const std::wstring& str) { return Utf16Encode(str.data(), str.size()); }

size_t Utf16EncodeField(const wchar_t* wsz, void* pField, size_t cbField) {
    unsigned char* p = static_cast<unsigned char*>(pField);
    std::memset(p, 0, cbField);
    size_t iUnitsRoom = cbField / 2;
    size_t iUnit = 0;
    for (; wsz && *wsz; wsz++) {
        if (iUnit + UnitsOf(*wsz) > iUnitsRoom) break;
        iUnit += PutUnits(p + 2 * iUnit, *wsz);
    }
    return iUnit;
}

size_t Utf16Length(const wchar_t* wsz, size_t cch) {
    size_t iUnits = 0;
    for (size_t i = 0; wsz && i < cch; i++) iUnits += UnitsOf(wsz[i]);
    return iUnits;
}

size_t Utf16Length(const wchar_t* wsz) { return wsz ? Utf16Length(wsz, std::wcslen(wsz)) : 0; }
