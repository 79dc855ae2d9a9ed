// Conversions between the wide names of the Win32 calls and the UTF-8 byte
// names of the system. Internal to src/platform.
#pragma once

#include <string>

namespace zr::platform {

// UTF-8 of a wide string; characters that are not valid code points
// become U+FFFD.
std::string WideToUtf8(const wchar_t* text);

// Wide string of UTF-8 bytes; an invalid sequence becomes U+FFFD.
std::wstring Utf8ToWide(const std::string& text);

// A system path for a Win32 file name: UTF-8, with every '\' turned into '/'.
// Null gives an empty string.
std::string SystemPath(const wchar_t* name);

}  // namespace zr::platform
