#include "diag/Format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

TEST(FormatNarrow, WindowsStringAndCharConversions) {
    EXPECT_EQ(ZR_Format("[%S]", L"wide"), "[wide]");
    EXPECT_EQ(ZR_Format("[%hs|%s]", "short", "plain"), "[short|plain]");
    EXPECT_EQ(ZR_Format("[%ls|%ws]", L"l", L"w"), "[l|w]");
    EXPECT_EQ(ZR_Format("[%C%c%hc]", static_cast<wint_t>(L'W'), 'n', 'h'), "[Wnh]");
    // Wide text that is not ASCII comes out as UTF-8 instead of failing.
    EXPECT_EQ(ZR_Format("%S", L"caf\u00e9 \u20ac"), "caf\xc3\xa9 \xe2\x82\xac");
    EXPECT_EQ(ZR_Format("%C", static_cast<wint_t>(0x00e9)), "\xc3\xa9");
}

TEST(FormatNarrow, WindowsIntegerSizes) {
    EXPECT_EQ(ZR_Format("%I64d", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(ZR_Format("%I64u", UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(ZR_Format("%I64x %I64X", uint64_t{0xABCDEF0123456789}, uint64_t{0xABCDEF0123456789}),
              "abcdef0123456789 ABCDEF0123456789");
    EXPECT_EQ(ZR_Format("%I32d %I32u", -7, 4000000000u), "-7 4000000000");
    EXPECT_EQ(ZR_Format("%Iu %Id", SIZE_MAX, static_cast<ptrdiff_t>(-3)), "18446744073709551615 -3");
    EXPECT_EQ(ZR_Format("%zu %lld %llu", size_t{12}, -5LL, 6ULL), "12 -5 6");
    // 'l' is 32 bits, as in the texts' home: the value after it stays in place.
    EXPECT_EQ(ZR_Format("%ld|%lu|%d", -1, 0xFFFFFFFFu, 9), "-1|4294967295|9");
    EXPECT_EQ(ZR_Format("%hd %hhu", 70000, 257), "4464 1");
}

TEST(FormatNarrow, FlagsWidthPrecisionAndStarPassThrough) {
    EXPECT_EQ(ZR_Format("%06d-%04d-%010d ", 1, 2, 3), "000001-0002-0000000003 ");
    EXPECT_EQ(ZR_Format("[%-5d][%+d][% d][%#x][%08.3f]", 7, 7, 7, 255, 3.14159), "[7    ][+7][ 7][0xff][0003.142]");
    EXPECT_EQ(ZR_Format("[%*d][%-*d][%.*s]", 4, 1, 3, 2, 2, "abcdef"), "[   1][2  ][ab]");
    EXPECT_EQ(ZR_Format("[%*d]", -3, 5), "[5  ]");
    EXPECT_EQ(ZR_Format("[%-6S][%6S][%.2S]", L"ab", L"cd", L"efgh"), "[ab    ][    cd][ef]");
    EXPECT_EQ(ZR_Format("100%% %e", 1.5), "100% 1.500000e+00");
    EXPECT_EQ(ZR_Format("%5I64d|%-5I64x|", int64_t{42}, uint64_t{255}), "   42|ff   |");
}

TEST(FormatNarrow, OddInputIsHarmless) {
    EXPECT_EQ(ZR_Format("[%s][%S]", static_cast<const char*>(nullptr), static_cast<const wchar_t*>(nullptr)),
              "[(null)][(null)]");
    EXPECT_EQ(ZR_Format("50%"), "50%");
    EXPECT_EQ(ZR_Format("%y%d", 3), "%y3");
    int iStored = 77;
    EXPECT_EQ(ZR_Format("ab%nc", &iStored), "abc");
    EXPECT_EQ(iStored, 77);
    // The extended conversions of the old trace family take no argument here.
    EXPECT_EQ(ZR_Format("%{x32}%d", 4), "%{x32}4");
}

TEST(FormatWide, WindowsStringAndCharConversions) {
    EXPECT_EQ(ZR_FormatW(L"[%s|%ls|%ws]", L"w1", L"w2", L"w3"), L"[w1|w2|w3]");
    EXPECT_EQ(ZR_FormatW(L"[%S|%hs]", "n1", "n2"), L"[n1|n2]");
    EXPECT_EQ(ZR_FormatW(L"[%c%C%hc]", static_cast<wint_t>(L'\u20ac'), 'n', 'h'), L"[\u20acnh]");
    EXPECT_EQ(ZR_FormatW(L"%S", "caf\xc3\xa9"), L"caf\u00e9");
    // A byte that starts no UTF-8 sequence stands for itself.
    EXPECT_EQ(ZR_FormatW(L"%S", "a\xff" "b"), L"a\u00ffb");
    EXPECT_EQ(ZR_FormatW(L"%I64d %Iu %d %5.1f", int64_t{-1} << 40, size_t{8}, 12, 2.25), L"-1099511627776 8 12   2.2");
    EXPECT_EQ(ZR_FormatW(L"[%-4s][%.1S]", L"a", "xyz"), L"[a   ][x]");
}

TEST(FormatBounds, LongTextIsCutAndLengthIsWhole) {
    char sz[12];
    std::memset(sz, '#', sizeof sz);
    int n = ZR_snprintf(sz, 8, "%s-%d", "abcdef", 12345);
    EXPECT_EQ(n, 12);
    EXPECT_STREQ(sz, "abcdef-");
    EXPECT_EQ(sz[8], '#');  // nothing past the count

    std::memset(sz, '#', sizeof sz);
    EXPECT_EQ(ZR_snprintf(sz, 0, "%s", "abc"), 3);
    EXPECT_EQ(sz[0], '#');
    EXPECT_EQ(ZR_snprintf(nullptr, 0, "%I64d", int64_t{-10}), 3);

    wchar_t wsz[6];
    std::wmemset(wsz, L'#', 6);
    EXPECT_EQ(ZR_snwprintf(wsz, 4, L"%S%*d", "abc", 10, 1), 13);
    EXPECT_EQ(std::wstring(wsz), L"abc");
    EXPECT_EQ(wsz[4], L'#');

    // A width far beyond the buffer pads in the count only.
    EXPECT_EQ(ZR_snprintf(sz, sizeof sz, "%100000d", 1), 65536);
    EXPECT_EQ(std::strlen(sz), sizeof sz - 1);
}

TEST(FormatBounds, StringResultsGrowPastTheStackBuffer) {
    std::string big(3000, 'q');
    std::wstring wbig(3000, L'r');
    EXPECT_EQ(ZR_Format("<%s>", big.c_str()), "<" + big + ">");
    EXPECT_EQ(ZR_Format("<%S>", wbig.c_str()), "<" + std::string(3000, 'r') + ">");
    EXPECT_EQ(ZR_FormatW(L"<%s>", wbig.c_str()), L"<" + wbig + L">");
    EXPECT_EQ(ZR_Format("%.700f", 1.0).size(), 702u);
}

}  // namespace
