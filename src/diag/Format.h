// printf-style formatting that understands the Windows conversions the
// library's texts are written with, translated once here to the C library's:
//   narrow formats: %S wide string, %hs / %s narrow, %C wide char,
//                   %I64d %I64u %I64x 64-bit, %I32d 32-bit, %Id size
//   wide formats:   %s / %ls wide string, %S / %hs narrow, %c wide char
// The results follow the C99 convention: the length the whole text needs,
// whatever fitted; the buffer is always terminated when count > 0.
//
// Integer sizes follow Windows, where the texts come from: no modifier and
// 'l' are 32 bits, 'll', 'I64' and 'q' are 64 bits, 'I', 'z', 't' and 'j'
// are the size of a pointer. Strings cross between narrow and wide as UTF-8,
// so a name that is not ASCII never makes a message fail; a null string
// prints "(null)". %n writes nothing. Widths and precisions above 65,536 are
// taken as 65,536.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

int ZR_vsnprintf(char* szBuffer, size_t count, const char* szFormat, va_list args);
int ZR_vsnwprintf(wchar_t* wszBuffer, size_t count, const wchar_t* wszFormat, va_list args);
int ZR_snprintf(char* szBuffer, size_t count, const char* szFormat, ...);
int ZR_snwprintf(wchar_t* wszBuffer, size_t count, const wchar_t* wszFormat, ...);

std::string ZR_FormatV(const char* szFormat, va_list args);
std::wstring ZR_FormatWV(const wchar_t* wszFormat, va_list args);
std::string ZR_Format(const char* szFormat, ...);
std::wstring ZR_FormatW(const wchar_t* wszFormat, ...);
