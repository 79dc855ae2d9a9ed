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

std::string ErrorTextNarrow(const wchar_t* wszKey) {
    std::wstring w = ErrorText(wszKey);
    return std::string(w.begin(), w.end());
}

}  // namespace zrtest
