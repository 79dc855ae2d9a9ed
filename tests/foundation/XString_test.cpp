#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "foundation/XString.h"

using XStringW = XString<wchar_t>;
using XStringA = XString<char>;

TEST(XStringTest, CopiesShareUntilTheFirstWrite) {
    XStringW a(L"Sales_full_1.bak");
    XStringW b(a);
    EXPECT_EQ(a.GetString(), b.GetString());
    EXPECT_EQ(a.GetRefCount(), 2);
    b.MakeLower();
    EXPECT_NE(a.GetString(), b.GetString());
    EXPECT_STREQ(a, L"Sales_full_1.bak");
    EXPECT_STREQ(b, L"sales_full_1.bak");
    EXPECT_EQ(a.GetRefCount(), 1);

    XStringW e1, e2(L""), e3(nullptr, 5);
    EXPECT_EQ(e1.GetString(), e2.GetString()) << "one shared empty buffer";
    EXPECT_EQ(e1.GetString(), e3.GetString());
    EXPECT_TRUE(e1.IsEmpty());
    EXPECT_EQ(e1.GetString()[0], L'\0');
}

TEST(XStringTest, ConstructsFromEitherWidthAndWithALength) {
    XStringW w("caf\xe9");
    EXPECT_STREQ(w, L"caf\u00e9");
    XStringA n(L"caf\u00e9\u4e2d");
    EXPECT_STREQ(n, "caf\xe9?");
    XStringW inner(L"ab\0cd", 5);
    EXPECT_EQ(inner.GetLength(), 5);
    EXPECT_EQ(inner[3], L'c');
}

TEST(XStringTest, MidAndFindClampTheirArguments) {
    XStringW s(L"abcde");
    EXPECT_STREQ(s.Mid(2, 100), L"cde");
    EXPECT_TRUE(s.Mid(6, 1).IsEmpty());
    EXPECT_STREQ(s.Mid(-3, 2), L"ab");
    EXPECT_TRUE(s.Mid(1, -2).IsEmpty());
    EXPECT_STREQ(s.Mid(3), L"de");
    EXPECT_EQ(s.Mid(0, 5).GetString(), s.GetString()) << "the whole is shared";
    EXPECT_STREQ(s.Left(2), L"ab");
    EXPECT_STREQ(s.Right(2), L"de");

    XStringW t(L"Sales!full!1.bak");
    EXPECT_EQ(t.Find(L'!', 6), 10);
    EXPECT_EQ(t.Find(L'!', 11), -1);
    EXPECT_EQ(t.Find(L'S', -1), -1);
    EXPECT_EQ(t.Find(L'k', 16), -1);
    EXPECT_EQ(t.Find(L'k', 15), 15);
    EXPECT_EQ(t.Find(L".bak"), 12);
    EXPECT_EQ(t.Find(L"!x"), -1);
}

TEST(XStringTest, ReplaceCountsGrowsOnceAndWalksInnerZeros) {
    XStringW s(L"RESTORE DATABASE [X] FROM DISK='X!1.bxk'");
    long iAllocs = g_iTotalAllocs;
    EXPECT_EQ(s.Replace(L"X", L"Sales_2009"), 2);
    EXPECT_EQ(g_iTotalAllocs - iAllocs, 1);
    EXPECT_STREQ(s, L"RESTORE DATABASE [Sales_2009] FROM DISK='Sales_2009!1.bxk'");
    EXPECT_EQ(s.Replace(L"", L"y"), 0);
    EXPECT_EQ(s.Replace(L"nothere", L"y"), 0);
    EXPECT_EQ(s.Replace(L"Sales_2009", L""), 2);
    EXPECT_STREQ(s, L"RESTORE DATABASE [] FROM DISK='!1.bxk'");

    XStringW z(L"aXb\0aXc", 7);
    EXPECT_EQ(z.Replace(L"X", L"--"), 2);
    ASSERT_EQ(z.GetLength(), 9);
    EXPECT_EQ(std::wstring(z.GetString(), 9), std::wstring(L"a--b\0a--c", 9));

    // Replacing in a copy leaves the original alone.
    XStringW a(L"aaa");
    XStringW b(a);
    EXPECT_EQ(b.Replace(L"a", L"bb"), 3);
    EXPECT_STREQ(a, L"aaa");
    EXPECT_STREQ(b, L"bbbbbb");
}

TEST(XStringTest, TrimRightAndCase) {
    XStringW s(L"C:\\mounts\\//");
    s.TrimRight(L"\\/");
    EXPECT_STREQ(s, L"C:\\mounts");
    XStringW t(L"name \t\r\n");
    t.TrimRight();
    EXPECT_STREQ(t, L"name");
    XStringW all(L"////");
    all.TrimRight(L"/");
    EXPECT_TRUE(all.IsEmpty());
    XStringW z(L"a\0", 2);
    z.TrimRight(L"x");
    EXPECT_EQ(z.GetLength(), 2) << "a zero is not in every set";

    EXPECT_EQ(XStringW(L"Backups").CompareNoCase(L"BACKUPS"), 0);
    EXPECT_NE(XStringW(L"Backups").CompareNoCase(L"Backup"), 0);
    EXPECT_STREQ(XStringW(L"MiXeD").MakeLower(), L"mixed");
    EXPECT_STREQ(XStringA("MiXeD").MakeUpper(), "MIXED");
}

// The conversions are the formatter's; what is the string's own: appending,
// an argument that is the string itself, and a null format.
TEST(XStringTest, FormatAndAppendFormat) {
    XStringW s;
    s.Format(L"RESTORE DATABASE [%s] FROM DISK = N'%s!%d.bxk'", L"Sales", L"K:\\m\\Backups=Sales", 3);
    s.AppendFormat(L" %S", "NORECOVERY");
    EXPECT_STREQ(s, L"RESTORE DATABASE [Sales] FROM DISK = N'K:\\m\\Backups=Sales!3.bxk' NORECOVERY");

    XStringW self(L"abc");
    self.Format(L"[%s]", self.GetString());
    EXPECT_STREQ(self, L"[abc]");
    self.AppendFormat(L"%s", self.GetString());
    EXPECT_STREQ(self, L"[abc][abc]");

    try {
        s.Format(nullptr);
        FAIL() << "no exception";
    } catch (const ZR_HResultError& e) {
        EXPECT_EQ(e.m_hr, E_INVALIDARG);
    }
}

TEST(XStringTest, ConcatenationAndAppendGrowth) {
    XStringW a(L"Sales");
    XStringW b = a + L"_" + XStringW(L"2009") + L'!';
    EXPECT_STREQ(b, L"Sales_2009!");
    EXPECT_STREQ(L">" + a, L">Sales");
    b += b;
    EXPECT_STREQ(b, L"Sales_2009!Sales_2009!");

    XStringW c;
    long iAllocs = g_iTotalAllocs;
    for (int i = 0; i < 1000; i++) c += L'x';
    EXPECT_EQ(c.GetLength(), 1000);
    EXPECT_LT(g_iTotalAllocs - iAllocs, 30) << "appends must not copy every time";
}

TEST(XStringTest, SharedBuffersSurviveCopiesOnManyThreads) {
    XStringW shared(L"K:\\ZirlaneMounts\\Sales\\Backups=Sales!full!1.bxk");
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&shared, &failures, t] {
            for (int i = 0; i < 20000; i++) {
                XStringW copy(shared);
                XStringW second = copy;
                if (i % 3 == 0) second += L"!x";
                if (copy.GetString() != shared.GetString()) failures[size_t(t)]++;
                if (i % 3 == 0 && second.GetLength() != shared.GetLength() + 2) failures[size_t(t)]++;
            }
        });
    for (auto& th : threads) th.join();
    for (int f : failures) EXPECT_EQ(f, 0);
    EXPECT_EQ(shared.GetRefCount(), 1) << "every copy gave its reference back";
    EXPECT_STREQ(shared, L"K:\\ZirlaneMounts\\Sales\\Backups=Sales!full!1.bxk");
}
