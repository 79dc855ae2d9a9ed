// Wide text to the system's UTF-8 and back, with the Win32 count rules.
#include "platform/win32.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(CodePages, RoundTripWithSizesTerminatorsAndBadInput) {
    const std::wstring text = L"Gr\u00fc\u00dfe \u65e5\u672c \U0001F600";
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    ASSERT_EQ(n, 20) << "19 bytes of text and the terminator";
    std::string utf8(static_cast<size_t>(n), 'x');
    ASSERT_EQ(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, utf8.data(), n, nullptr, nullptr), n);
    EXPECT_EQ(utf8.back(), '\0');
    EXPECT_EQ(utf8.substr(0, 3), "Gr\xc3");

    wchar_t back[32];
    ASSERT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8.c_str(), -1, back, 32), static_cast<int>(text.size()) + 1);
    EXPECT_EQ(std::wstring(back), text);

    // A counted input converts without a terminator; too small a buffer fails.
    char small[4];
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, small, 3, nullptr, nullptr), 3);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"abcd", 4, small, 3, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);

    // Bytes that are no UTF-8 become the replacement character.
    wchar_t bad[4];
    ASSERT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xffz", 3, bad, 4), 3);
    EXPECT_EQ(bad[1], L'\uFFFD');
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, bad, 4), 0);
}

}  // namespace
