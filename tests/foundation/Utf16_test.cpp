#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "foundation/Utf16.h"

namespace {
std::vector<unsigned char> Bytes(std::initializer_list<unsigned> units) {
    std::vector<unsigned char> v;
    for (unsigned u : units) {
        v.push_back(static_cast<unsigned char>(u & 0xFF));
        v.push_back(static_cast<unsigned char>(u >> 8));
    }
    return v;
}
}  // namespace

TEST(Utf16Test, RoundTripWithCharactersBeyondTheBasicPlane) {
    const std::wstring str = L"db_\u00e9t\u00e9_\U0001F600_\u4e2d.mdf";
    std::string bytes = Utf16Encode(str);
    EXPECT_EQ(bytes.size(), 2 * (str.size() + 1)) << "one character takes two units";
    EXPECT_EQ(Utf16Length(str.c_str()), str.size() + 1);
    // The pair stands in the bytes as D83D DE00, little-endian.
    EXPECT_NE(bytes.find(std::string("\x3d\xd8\x00\xde", 4)), std::string::npos);
    EXPECT_EQ(Utf16Decode(bytes.data(), bytes.size()), str);
}

TEST(Utf16Test, DecodingStopsAtZeroOnlyWhenAskedAndCutsToTheBuffer) {
    auto v = Bytes({'a', 'b', 0, 'c'});
    EXPECT_EQ(Utf16Decode(v.data(), v.size(), true), L"ab");
    EXPECT_EQ(Utf16Decode(v.data(), v.size(), false), std::wstring(L"ab\0c", 4));
    auto name = Bytes({'m', 'a', 's', 't', 'e', 'r'});
    wchar_t wsz[4];
    EXPECT_EQ(Utf16Decode(name.data(), name.size(), true, wsz, 4), 3u);
    EXPECT_STREQ(wsz, L"mas");
}

// Built on the heap with exactly the given size, so a sanitizer sees any
// read beyond it.
TEST(Utf16Test, TruncatedAndUnpairedInputNeverReadsPastTheEnd) {
    auto v = Bytes({'x', 0xD83D, 0xDE00});
    EXPECT_EQ(Utf16Decode(v.data(), 4), L"x\uFFFD") << "cut inside the pair";
    EXPECT_EQ(Utf16Decode(v.data(), 3), L"x") << "an odd byte at the end is ignored";
    EXPECT_EQ(Utf16Decode(v.data(), 0), L"");
    EXPECT_EQ(Utf16Decode(nullptr, 8), L"");
    std::vector<unsigned char> exact(v.begin(), v.begin() + 5);
    EXPECT_EQ(Utf16Decode(exact.data(), exact.size()), L"x\uFFFD");
    auto lone = Bytes({0xDE00, 'y', 0xD800, 'z'});
    EXPECT_EQ(Utf16Decode(lone.data(), lone.size()), L"\uFFFDy\uFFFDz");
}

TEST(Utf16Test, FixedFieldsArePaddedAndNeverSplitAPair) {
    unsigned char field[520];
    std::memset(field, 0xCC, sizeof(field));
    EXPECT_EQ(Utf16EncodeField(L"C:\\data\\db.mdf", field, sizeof(field)), 14u);
    EXPECT_EQ(Utf16Decode(field, sizeof(field)), L"C:\\data\\db.mdf");
    for (size_t i = 28; i < sizeof(field); i++) ASSERT_EQ(field[i], 0) << i;

    unsigned char small[6];
    EXPECT_EQ(Utf16EncodeField(L"ab\U0001F600", small, sizeof(small)), 2u);
    EXPECT_EQ(Utf16Decode(small, sizeof(small)), L"ab");
    // Values that are no characters are written as U+FFFD.
    wchar_t bad[] = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(Utf16Decode(Utf16Encode(bad, 2).data(), 4), L"\uFFFD\uFFFD");
}
