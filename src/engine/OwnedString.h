// Strings that an object keeps are heap copies made by _wcsdup and freed with
// free; a null argument stores null.
#pragma once

#include <cstdlib>

#include "platform/win32.h"

inline wchar_t* DupOwnedString(const wchar_t* wsz) { return wsz ? _wcsdup(wsz) : nullptr; }

// Frees the old copy only after the new one exists, so that a string can be
// replaced by (a part of) itself.
inline void ReplaceOwnedString(wchar_t** ppwsz, const wchar_t* wsz) {
    wchar_t* wszCopy = DupOwnedString(wsz);
    free(*ppwsz);
    *ppwsz = wszCopy;
}
