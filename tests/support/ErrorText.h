// The error chain as tests read it, and wide texts narrowed for messages.
#pragma once

#include <string>

namespace zrtest {

// The recorded texts of a mount key (null: those of no mount), newest first;
// empty when there are none.
std::wstring ErrorText(const wchar_t* wszKey = nullptr);

// The same, narrowed for messages of tests.
std::string ErrorTextNarrow(const wchar_t* wszKey = nullptr);

// A text narrowed character by character, '?' for each beyond ASCII.
std::string Narrow(const std::wstring& str);

}  // namespace zrtest
