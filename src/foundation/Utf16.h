// Conversion between the in-memory wide strings (wchar_t, 32 bits here) and
// UTF-16LE, the form of every string on disk or on a wire: records of the
// backups, map files, driver messages. Sizes on that side are counted in
// 16-bit units, so a field of 260 characters is 520 bytes.
//
// The decoders never read past the byte count they are given: an odd last
// byte is ignored, a surrogate pair cut by the end and any unpaired
// surrogate become U+FFFD.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Decodes the UTF-16LE units in p[0 .. cbBytes); with bStopAtZero the text
// ends at the first zero unit.
std::wstring Utf16Decode(const void* p, size_t cbBytes, bool bStopAtZero = true);

// The same into wszOut, which holds cchOut characters with the closing zero
// (always written when cchOut > 0). Returns the characters written without
// the zero; a text that does not fit is cut.
size_t Utf16Decode(const void* p, size_t cbBytes, bool bStopAtZero, wchar_t* wszOut, size_t cchOut);

// The UTF-16LE bytes of cch characters of wsz, without a terminator.
// Characters that are no Unicode scalar value are written as U+FFFD.
std::string Utf16Encode(const wchar_t* wsz, size_t cch);
std::string Utf16Encode(const std::wstring& str);

// Writes wsz into a fixed field of cbField bytes, zero padded. A text that
// does not fit is cut at a character boundary (never between the two units
// of a pair). Returns the units written.
size_t Utf16EncodeField(const wchar_t* wsz, void* pField, size_t cbField);

// The number of UTF-16 units that the first cch characters of wsz take.
size_t Utf16Length(const wchar_t* wsz, size_t cch);
// The same for a zero-terminated string.
size_t Utf16Length(const wchar_t* wsz);
