#include "diag/ZR_Error.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "diag/CZR_Error.h"
#include "diag/Trace.h"
#include "diag/ZR_ErrorReport.h"
#include "zirlane/zirlane.h"

namespace {

using Texts = std::vector<std::wstring>;

const wchar_t kKeyA[] = L"KeyA";
const wchar_t kKeyB[] = L"KeyB";

std::wstring Read(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    std::wstring s = wsz ? wsz : L"<none>";
    std::free(wsz);
    return s;
}

// The messages of the entries in a text, in order.
Texts Messages(const std::wstring& s) {
    Texts out;
    size_t iStart = 0;
    for (size_t i = s.find(L"\n  File:"); i != std::wstring::npos; i = s.find(L"\n  File:", i + 1)) {
        out.push_back(s.substr(iStart, i - iStart));
        iStart = s.find(L'\n', s.find(L"  Line:", i)) + 1;
        while (iStart < s.size() && s[iStart] == L'\n')
            ++iStart;
    }
    return out;
}

void Report(const wchar_t* wszKey, const char* szMessage) {
    SetLastError(0);
    ZR_Error(wszKey, "f.cpp", "F::g", 1, "%s", szMessage);
}

void ReportN(const wchar_t* wszKey, int n) {
    for (int i = 1; i <= n; ++i)
        Report(wszKey, ("m" + std::to_string(i)).c_str());
}

// The message of trace line i.
std::string Traced(int i) { return g_pTraceRing + i * kTraceLineSize + kTracePrefixSize; }

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
    static void EmptyRing() {
        TraceSetup(kTraceNoLimit, 0x1000, 1);
        TraceSetup(kTraceNoLimit, kTraceRingSize, 1);
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
    ASSERT_EQ(Messages(s).size(), 2u) << s;
    EXPECT_EQ(s.rfind(L"denied\n  File:a.cpp", 0), 0u) << "the report itself is at the head";
    EXPECT_NE(s.find(L"  Line:7\n", s.find(L"  Line:7\n") + 1), std::wstring::npos) << "system text keeps the line";
}

// The report keeps the last error for the caller, but a pending I/O is no
// failure of an error report's own and is dropped there.
TEST_F(ErrorChain, LastErrorAfterTheReport) {
    SetLastError(ERROR_HANDLE_EOF);
    ZR_Error(nullptr, "e.cpp", "E::f", 1, "eof");
    EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);

    EmptyRing();
    SetLastError(ERROR_IO_PENDING);
    ZR_Error(kKeyA, "p.cpp", "P::q", 3, "pending");
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(Messages(Read(kKeyA)), Texts{L"pending"});
    EXPECT_EQ(Traced(0), "ZR_Error - p.cpp P::q line 3 GLE: 0\n");
    EXPECT_EQ(Traced(1), "pending");

    SetLastError(ERROR_IO_PENDING);
    ZR_Warning(kKeyB, "p.cpp", "P::w", 4, "warned");
    EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    EXPECT_EQ(Messages(Read(kKeyB)).size(), 2u);
    EXPECT_EQ(Traced(2), "ZR_Warning - p.cpp P::w line 4 GLE: 997\n");
}

TEST_F(ErrorChain, NewestSixAndTheOldestOfAKey) {
    const std::pair<int, Texts> aCases[] = {
        {6, {L"m6", L"m5", L"m4", L"m3", L"m2", L"m1"}},
        {7, {L"m7", L"m6", L"m5", L"m4", L"m3", L"m2", L"m1"}},
        {8, {L"m8", L"m7", L"m6", L"m5", L"m4", L"m3", L"m1"}},
    };
    for (const auto& [n, shown] : aCases) {
        ZR_ClearErrors(kKeyA);
        ReportN(kKeyA, n);
        const std::wstring s = Read(kKeyA);
        EXPECT_EQ(Messages(s), shown);
        // The oldest entry, shown apart, gets a line feed more.
        EXPECT_EQ(s.substr(s.size() - 2) == L"\n\n", n > 6) << n;
    }
}

TEST_F(ErrorChain, SearchByKeyKeepsToItsKey) {
    Report(kKeyA, "a1");
    Report(nullptr, "keyless behind");
    Report(kKeyA, "a2");
    Report(kKeyB, "b1");
    // The head belongs to B: a search for A starts with the first match behind it.
    EXPECT_EQ(Messages(Read(kKeyA)), (Texts{L"a2", L"a1"}));
    EXPECT_EQ(Messages(Read(kKeyB)), Texts{L"b1"});
    // A null key sees only keyless records, and not a keyed head.
    EXPECT_EQ(Messages(Read(nullptr)), Texts{L"keyless behind"});
    // A keyless head shows up in a search with any key.
    Report(nullptr, "keyless head");
    EXPECT_EQ(Messages(Read(kKeyB)), (Texts{L"keyless head", L"b1"}));

    // A clear takes the key's records and every keyless one.
    ZR_ClearErrors(kKeyA);
    EXPECT_EQ(Read(kKeyA), L"");
    EXPECT_EQ(Messages(Read(kKeyB)), Texts{L"b1"});
    EXPECT_EQ(Read(nullptr), L"");
    ZR_ClearErrors(kKeyB);
    EXPECT_EQ(Read(kKeyB), L"<none>") << "empty chain";
}

// The list for a person: every report of the key and the keyless ones,
// oldest first, each with the system's text of its own last-error value;
// other keys stay out.
TEST_F(ErrorChain, ListGivesEveryReportOldestFirstWithItsSystemText) {
    ReportN(kKeyA, 8);  // more than the chain's own text shows
    SetLastError(ERROR_FILE_NOT_FOUND);
    ZR_Error(nullptr, "g.cpp", "G::h", 7, "keyless");
    SetLastError(0);
    ZR_Error(kKeyB, "h.cpp", "H::i", 1, "other key");
    std::vector<ZR_ErrorReport> a = ZR_ListErrors(kKeyA);
    ASSERT_EQ(a.size(), 9u);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(a[i].strMessage, "m" + std::to_string(i + 1));
        EXPECT_EQ(a[i].iLine, 1);
        EXPECT_EQ(a[i].iSystemError, 0u);
    }
    EXPECT_EQ(a[8].strMessage, "keyless");
    EXPECT_EQ(a[8].strFile, "g.cpp");
    EXPECT_EQ(a[8].strFunction, "G::h");
    EXPECT_FALSE(a[8].bWarning);
    EXPECT_EQ(a[8].iSystemError, ERROR_FILE_NOT_FOUND);
    EXPECT_NE(a[8].strSystemText.find("cannot find the file"), std::string::npos) << a[8].strSystemText;
    ASSERT_EQ(ZR_ListErrors(nullptr).size(), 1u);
    EXPECT_EQ(ZR_ListErrors(L"none").size(), 1u) << "the keyless report only";
}

// Messages are cut to 1,023 characters, copies to the buffer; a buffer is
// cleared when no record belongs to the key, left alone when it has no room,
// and a missing one is only traced.
TEST_F(ErrorChain, LongMessagesAndBuffers) {
    Report(kKeyA, std::string(3000, 'x').c_str());
    EXPECT_EQ(Messages(Read(kKeyA)), Texts{std::wstring(1023, L'x')});
    wchar_t wsz[16];
    wsz[10] = L'#';
    ZRGetZRError(kKeyA, wsz, 10);
    EXPECT_EQ(std::wstring(wsz), std::wstring(9, L'x'));
    EXPECT_EQ(wsz[10], L'#');

    std::wcscpy(wsz, L"garbage");
    ZRGetZRError(kKeyB, wsz, 16);
    EXPECT_STREQ(wsz, L"");
    std::wcscpy(wsz, L"garbage");
    ZRGetZRError(kKeyA, wsz, 0);
    EXPECT_STREQ(wsz, L"garbage");
    EmptyRing();
    ZRGetZRError(kKeyA, nullptr, 16);
    EXPECT_EQ(Traced(0), "ZRGetZRError error out string is null");
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
    EXPECT_EQ(Messages(Read(kKeyA)), Texts{L"m1"});
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
        Texts messages = Messages(Read(wszKey));
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
    delete pHead;  // iterative: no stack exhaustion, and ASan sees no leak

    CZR_Error empty(L"k", 1, nullptr, nullptr, 0, nullptr, nullptr);
    EXPECT_STREQ(empty.GetErrorMessage(), "");
    EXPECT_FALSE(empty.HasKey(nullptr));
}

}  // namespace
