#include "support/ErrorText.h"

#include <cstdlib>

#include "diag/ZR_Error.h"

namespace zrtest {

std::wstring ErrorText(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    std::wstring text = wsz ? wsz : L"";
    std::free(wsz);
    return text;
}

std::string ErrorTextNarrow(const wchar_t* wszKey) { return Narrow(ErrorText(wszKey)); }

std::string Narrow(const std::wstring& str) {
    std::string out;
    for (wchar_t c : str) out += c < 128 ? static_cast<char>(c) : '?';
    return out;
}

}  // namespace zrtest
