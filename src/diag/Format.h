// printf-style formatting that understands the Windows conversions the
// library's texts are written with, translated once here to the C library's:
//   narrow formats: %S wide string, %hs / %s narrow, %C wide char,
//                   %I64d %I64u %I64x 64-bit, %I32d 32-bit, %Id size
//   wide formats:   %s / %ls wide string, %S / %hs narrow, %c wide char
// The results follow the C99 convention: the length the whole text needs,
// whatever fitted; the buffer is always terminated when count > 0.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

int ZR_vsnprintf(char* szBuffer, size_t count, const char* szFormat, va_list args);
int ZR_vsnwprintf(wchar_t* wszBuffer, size_t count, const wchar_t* wszFormat, va_list args);

std::string ZR_FormatV(const char* szFormat, va_list args);
std::wstring ZR_FormatWV(const wchar_t* wszFormat, va_list args);
std::string ZR_Format(const char* szFormat, ...);
std::wstring ZR_FormatW(const wchar_t* wszFormat, ...);
