#include "diag/ZR_Error.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "diag/CZR_Error.h"
#include "diag/Trace.h"
#include "zirlane/zirlane.h"

namespace {

const wchar_t kKeyA[] = L"KeyA";
const wchar_t kKeyB[] = L"KeyB";

std::wstring Read(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    std::wstring s = wsz ? wsz : L"<none>";
    std::free(wsz);
    return s;
}

size_t CountEntries(const std::wstring& s) {
    size_t n = 0;
    for (size_t i = s.find(L"\n  File:"); i != std::wstring::npos; i = s.find(L"\n  File:", i + 1))
        ++n;
    return n;
}

// The messages of the entries in a text, in order.
std::vector<std::wstring> Messages(const std::wstring& s) {
    std::vector<std::wstring> out;
    size_t iStart = 0;
    for (size_t i = s.find(L"\n  File:"); i != std::wstring::npos; i = s.find(L"\n  File:", i + 1)) {
        out.push_back(s.substr(iStart, i - iStart));
        iStart = s.find(L"  Line:", i);
        iStart = s.find(L'\n', iStart) + 1;
        while (iStart < s.size() && s[iStart] == L'\n')
            ++iStart;
    }
    return out;
}

void ReportN(const wchar_t* wszKey, int n) {
    for (int i = 1; i <= n; ++i) {
        SetLastError(0);
        ZR_Error(wszKey, "f.cpp", "F::g", i, "m%d", i);
    }
}

class ErrorChain : public ::testing::Test {
protected:
    void SetUp() override { ClearAll(); }
    void TearDown() override {
        ClearAll();
        TraceSetup(kTraceNoLimit, kTraceRingSize, 0);
    }
    static void ClearAll() {
        ZR_ClearErrors(kKeyA);
        ZR_ClearErrors(kKeyB);
        ZR_ClearErrors(nullptr);
    }
};

TEST_F(ErrorChain, EntryTextAndSystemRecord) {
    SetLastError(0);
    ZR_Error(kKeyA, "ZR_Backup.cpp", "ZR_Backup::Open", 42, "Failed to open %S at %I64d\n", L"x.bak", int64_t{1} << 33);
    EXPECT_EQ(Read(kKeyA), L"Failed to open x.bak at 8589934592\n\n  File:ZR_Backup.cpp\n  Function:ZR_Backup::Open\n"
                           L"  Line:42\n");

    ZR_ClearErrors(kKeyA);
    SetLastError(ERROR_ACCESS_DENIED);
    ZR_Error(kKeyA, "a.cpp", "A::b", 7, "denied");
    std::wstring s = Read(kKeyA);
    ASSERT_EQ(CountEntries(s), 2u) << s;
    EXPECT_EQ(s.rfind(L"denied\n  File:a.cpp", 0), 0u) << "the report itself is at the head";
    EXPECT_NE(s.find(L"  Line:7\n", s.find(L"  Line:7\n") + 1), std::wstring::npos) << "system text keeps the line";
}

// The report keeps the last error for the caller, but a pending I/O is no
// failure of an error report's own and is dropped there.
TEST_F(ErrorChain, LastErrorAfterTheReport) {
    SetLastError(ERROR_HANDLE_EOF);
    ZR_Error(nullptr, "e.cpp", "E::f", 1, "eof");
    EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);
    SetLastError(ERROR_CRC);
    ZR_Warning(nullptr, "e.cpp", "E::f", 2, "crc");
    EXPECT_EQ(GetLastError(), ERROR_CRC);

    TraceSetup(kTraceNoLimit, 0x1000, 1);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 1);
    SetLastError(ERROR_IO_PENDING);
    ZR_Error(kKeyA, "p.cpp", "P::q", 3, "pending");
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(CountEntries(Read(kKeyA)), 1u);
    EXPECT_STREQ(g_pTraceRing + kTracePrefixSize, "ZR_Error - p.cpp P::q line 3 GLE: 0\n");
    EXPECT_STREQ(g_pTraceRing + kTraceLineSize + kTracePrefixSize, "pending");

    SetLastError(ERROR_IO_PENDING);
    ZR_Warning(kKeyB, "p.cpp", "P::w", 4, "warned");
    EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    EXPECT_EQ(CountEntries(Read(kKeyB)), 2u);
    EXPECT_STREQ(g_pTraceRing + 2 * kTraceLineSize + kTracePrefixSize, "ZR_Warning - p.cpp P::w line 4 GLE: 997\n");
}

TEST_F(ErrorChain, NewestSixAndTheOldestOfAKey) {
    ReportN(kKeyA, 7);
    std::wstring s = Read(kKeyA);
    EXPECT_EQ(Messages(s), (std::vector<std::wstring>{L"m7", L"m6", L"m5", L"m4", L"m3", L"m2", L"m1"}));
    ASSERT_GE(s.size(), 2u);
    EXPECT_EQ(s.substr(s.size() - 2), L"\n\n") << "the oldest entry gets a line feed more";

    ZR_ClearErrors(kKeyA);
    ReportN(kKeyA, 8);
    s = Read(kKeyA);
    EXPECT_EQ(Messages(s), (std::vector<std::wstring>{L"m8", L"m7", L"m6", L"m5", L"m4", L"m3", L"m1"}));

    ZR_ClearErrors(kKeyA);
    ReportN(kKeyA, 6);
    s = Read(kKeyA);
    EXPECT_EQ(Messages(s).size(), 6u);
    EXPECT_NE(s.substr(s.size() - 2), L"\n\n") << "no oldest entry when all are shown";
}

TEST_F(ErrorChain, SearchByKeyKeepsToItsKey) {
    SetLastError(0);
    ZR_Error(kKeyA, "k.cpp", "K::a", 1, "a1");
    ZR_Error(nullptr, "k.cpp", "K::n", 2, "keyless behind");
    ZR_Error(kKeyA, "k.cpp", "K::a", 3, "a2");
    ZR_Error(kKeyB, "k.cpp", "K::b", 4, "b1");
    // The head belongs to B: a search for A starts with the first match behind it.
    EXPECT_EQ(Messages(Read(kKeyA)), (std::vector<std::wstring>{L"a2", L"a1"}));
    EXPECT_EQ(Messages(Read(kKeyB)), (std::vector<std::wstring>{L"b1"}));
    // A null key sees only keyless records, and not a keyed head.
    EXPECT_EQ(Messages(Read(nullptr)), (std::vector<std::wstring>{L"keyless behind"}));

    // A keyless head shows up in a search with any key.
    ZR_Error(nullptr, "k.cpp", "K::n", 5, "keyless head");
    EXPECT_EQ(Messages(Read(kKeyB)), (std::vector<std::wstring>{L"keyless head", L"b1"}));
}

TEST_F(ErrorChain, ClearRemovesTheKeyAndEveryKeylessRecord) {
    ReportN(kKeyA, 3);
    ReportN(kKeyB, 2);
    ReportN(nullptr, 2);
    ZR_ClearErrors(kKeyA);
    EXPECT_EQ(Read(kKeyA), L"");
    EXPECT_EQ(Messages(Read(kKeyB)), (std::vector<std::wstring>{L"m2", L"m1"}));
    EXPECT_EQ(Read(nullptr), L"") << "B's record is at the head and no keyless one is left";
    ZR_ClearErrors(kKeyB);
    EXPECT_EQ(Read(kKeyB), L"<none>") << "empty chain";
}

TEST_F(ErrorChain, LongMessagesAndShortBuffersAreBounded) {
    SetLastError(0);
    ZR_Error(kKeyA, "l.cpp", "L::m", 1, "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(Messages(Read(kKeyA)), std::vector<std::wstring>{std::wstring(1023, L'x')});

    wchar_t wsz[11];
    wsz[10] = L'#';
    ZRGetZRError(kKeyA, wsz, 10);
    EXPECT_EQ(std::wstring(wsz), std::wstring(9, L'x'));
    EXPECT_EQ(wsz[10], L'#');
}

// A buffer is cleared when no record belongs to the key, left alone when it
// has no room, and a missing one is only traced.
TEST_F(ErrorChain, BuffersThatGetNoMessage) {
    ReportN(kKeyB, 1);
    wchar_t wsz[16] = L"garbage";
    ZRGetZRError(kKeyA, wsz, 16);
    EXPECT_STREQ(wsz, L"");

    std::wcscpy(wsz, L"garbage");
    ZRGetZRError(kKeyB, wsz, 0);
    EXPECT_STREQ(wsz, L"garbage");

    TraceSetup(kTraceNoLimit, 0x1000, 1);
    TraceSetup(kTraceNoLimit, kTraceRingSize, 1);
    ZRGetZRError(kKeyB, nullptr, 16);
    EXPECT_STREQ(g_pTraceRing + kTracePrefixSize, "ZRGetZRError error out string is null");
}

TEST_F(ErrorChain, ABrokenChainDoesNothing) {
    ReportN(kKeyA, 1);
    g_bErrorsBroken = true;
    ReportN(kKeyA, 1);
    wchar_t wsz[64] = L"garbage";
    ZRGetZRError(kKeyA, wsz, 64);
    EXPECT_STREQ(wsz, L"");
    EXPECT_EQ(ZR_ReadErrors(kKeyA), nullptr);
    g_bErrorsBroken = false;
    EXPECT_EQ(Messages(Read(kKeyA)), (std::vector<std::wstring>{L"m1"}));
}

TEST_F(ErrorChain, ThreadsReportSideBySide) {
    TraceSetup(kTraceNoLimit, kTraceRingSize, 1);
    const wchar_t* keys[] = {kKeyA, kKeyB};
    int iCountBefore = g_iTraceCount;
    std::vector<std::thread> threads;
    for (const wchar_t* wszKey : keys)
        threads.emplace_back([wszKey] { ReportN(wszKey, 300); });
    for (std::thread& t : threads)
        t.join();
    // The key whose record ended up at the head shows the head and five
    // behind it; the other key five behind the head; both the oldest.
    size_t cShown = 0;
    for (const wchar_t* wszKey : keys) {
        std::vector<std::wstring> messages = Messages(Read(wszKey));
        ASSERT_GE(messages.size(), 6u);
        for (size_t i = 0; i + 1 < messages.size(); ++i)
            EXPECT_EQ(messages[i], L"m" + std::to_wstring(300 - i));
        EXPECT_EQ(messages.back(), L"m1");
        cShown += messages.size();
    }
    EXPECT_EQ(cShown, 13u);
    EXPECT_EQ(g_iTraceCount - iCountBefore, 2 * 300 * 2) << "two trace lines for each report";
}

TEST(CZR_ErrorRecord, DeletingTheHeadDeletesALongChain) {
    CZR_Error* pHead = nullptr;
    for (int i = 0; i < 200000; ++i)
        pHead = new CZR_Error(nullptr, 0, "f", "g", i, "m", pHead);
    EXPECT_EQ(pHead->GetLine(), 199999);
    delete pHead;  // iterative: no stack exhaustion, and ASan sees no leak

    CZR_Error empty(L"k", 1, nullptr, nullptr, 0, nullptr, nullptr);
    EXPECT_STREQ(empty.GetErrorMessage(), "");
    EXPECT_TRUE(empty.HasKey(L"k"));
    EXPECT_FALSE(empty.HasKey(nullptr));
}

}  // namespace
