// The wide and narrow string helpers of the C runtime. The formatting
// functions take C conversions; the Windows ones (%S, %I64d) are translated
// before they get here.
#include "platform/win32.h"

#include "platform/PathNames.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>
#include <vector>

namespace {

template <class Char, class Fold>
int CompareFolded(const Char* a, const Char* b, size_t n, Fold fold) {
    for (size_t i = 0; i < n; ++i) {
        auto x = fold(a[i]), y = fold(b[i]);
        if (x != y)
            return x < y ? -1 : 1;
        if (x == 0)
            return 0;
    }
    return 0;
}

wint_t FoldWide(wchar_t c) { return std::towlower(static_cast<wint_t>(c)); }

template <class Map>
wchar_t* MapInPlace(wchar_t* s, Map map) {
    for (wchar_t* p = s; p && *p; ++p)
        *p = static_cast<wchar_t>(map(static_cast<wint_t>(*p)));
    return s;
}

}  // namespace

wchar_t* _wcsdup(const wchar_t* s) {
    if (!s)
        return nullptr;
    size_t bytes = (std::wcslen(s) + 1) * sizeof(wchar_t);
    auto* copy = static_cast<wchar_t*>(std::malloc(bytes));
    if (copy)
        std::copy(s, s + bytes / sizeof(wchar_t), copy);
    return copy;
}

int _wcsicmp(const wchar_t* a, const wchar_t* b) { return CompareFolded(a, b, SIZE_MAX, FoldWide); }
int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t n) { return CompareFolded(a, b, n, FoldWide); }
int _stricmp(const char* a, const char* b) { return ::strcasecmp(a, b); }
int _strnicmp(const char* a, const char* b, size_t n) { return ::strncasecmp(a, b, n); }
wchar_t* _wcsupr(wchar_t* s) { return MapInPlace(s, std::towupper); }
wchar_t* _wcslwr(wchar_t* s) { return MapInPlace(s, std::towlower); }

int64_t _wtoi64(const wchar_t* s) { return s ? std::wcstoll(s, nullptr, 10) : 0; }

int _wtoi(const wchar_t* s) {
    int64_t value = _wtoi64(s);
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

long _wtol(const wchar_t* s) { return _wtoi(s); }


// ---------------------------------------------------------------------------
// Code pages
// ---------------------------------------------------------------------------

namespace {

// Copies n items to the caller's buffer when it has room; the Win32 count
// rules (0 asks for the size; too small a buffer is an error).
template <class Ch>
int CopyOut(const Ch* pFrom, size_t n, Ch* pTo, int iRoom) {
    if (iRoom == 0)
        return static_cast<int>(n);
    if (!pTo || iRoom < 0 || n > static_cast<size_t>(iRoom)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::copy(pFrom, pFrom + n, pTo);
    return static_cast<int>(n);
}

}  // namespace

int WideCharToMultiByte(UINT, DWORD, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr, int cbMultiByte,
                        LPCSTR, BOOL* lpUsedDefaultChar) {
    if (lpUsedDefaultChar)
        *lpUsedDefaultChar = FALSE;
    if (!lpWideCharStr || cchWideChar == 0 || cchWideChar < -1) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t n = cchWideChar < 0 ? std::wcslen(lpWideCharStr) + 1 : static_cast<size_t>(cchWideChar);
    std::string text = zr::platform::WideToUtf8(std::wstring(lpWideCharStr, n).c_str());
    if (cchWideChar < 0 || (n > 0 && lpWideCharStr[n - 1] == 0))
        text += '\0';  // the terminator, which the conversion stops at
    return CopyOut(text.data(), text.size(), lpMultiByteStr, cbMultiByte);
}

int MultiByteToWideChar(UINT, DWORD, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr, int cchWideChar) {
    if (!lpMultiByteStr || cbMultiByte == 0 || cbMultiByte < -1) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t n = cbMultiByte < 0 ? std::strlen(lpMultiByteStr) + 1 : static_cast<size_t>(cbMultiByte);
    bool bTerminated = n > 0 && lpMultiByteStr[n - 1] == 0;
    std::wstring text = zr::platform::Utf8ToWide(std::string(lpMultiByteStr, bTerminated ? n - 1 : n));
    if (bTerminated)
        text += L'\0';
    return CopyOut(text.data(), text.size(), lpWideCharStr, cchWideChar);
}
