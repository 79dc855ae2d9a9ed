// The error chain as tests read it.
#pragma once

#include <string>

namespace zrtest {

// The recorded texts of a mount key (null: those of no mount), newest first;
// empty when there are none.
std::wstring ErrorText(const wchar_t* wszKey = nullptr);

// The same, narrowed character by character for messages of tests.
std::string ErrorTextNarrow(const wchar_t* wszKey = nullptr);

}  // namespace zrtest
