#include <gtest/gtest.h>

#include <string>

#include "foundation/ZR_HResultError.h"
#include "foundation/ZR_Pattern.h"

namespace {

// Compiles (case-sensitive unless told) and matches; the groups and the whole
// match are kept as texts, "<null>" for a group that took no part.
struct Matched {
    bool m_bMatch = false;
    std::wstring m_strWhole;
    std::wstring m_strRest;  // the subject behind the match
    std::vector<std::wstring> m_aGroups;
    std::wstring operator[](size_t i) const { return i < m_aGroups.size() ? m_aGroups[i] : L"<missing>"; }
};

Matched Try(const wchar_t* wszPattern, const wchar_t* wszSubject, bool bCase = true) {
    ZR_Pattern pattern;
    EXPECT_EQ(pattern.Compile(wszPattern, bCase), 0) << "pattern does not compile";
    ZR_PatternMatch match(256);
    const wchar_t* pEnd = nullptr;
    Matched r;
    r.m_bMatch = pattern.Match(wszSubject, &match, &pEnd);
    if (!r.m_bMatch) return r;
    r.m_strWhole.assign(match.m_pStart, match.m_pEnd);
    r.m_strRest = pEnd;
    for (unsigned i = 0; i < match.GetGroupCount(); i++) {
        const wchar_t *pS, *pE;
        match.GetGroup(i, &pS, &pE);
        r.m_aGroups.push_back(pS ? std::wstring(pS, pE) : L"<null>");
    }
    return r;
}

int CompileError(const wchar_t* wszPattern) {
    ZR_Pattern pattern;
    return pattern.Compile(wszPattern, true);
}

// The patterns the library compiles, as they stand in its sources.
const wchar_t* const kPath = LR"(^{([A-Za-z]:)|(\\\\[^\\/]+(\\|/)[^\\/]+)}(\\|/){([^\\/]+(\\|/))*})";
const wchar_t* const kScheme = LR"(^{[A-Za-z]+}=)";
const wchar_t* const kTail = LR"(\!{[0-9]+}{\.[A-Za-z]+}$)";
const wchar_t* const kBackupsLong = LR"(^{[^!]+}\!{[^!]*}\!{[^!]*}\!{[^!]+}\!{[^!]+})";
const wchar_t* const kBackupsShort = LR"(^{[^!]+}\!{[^!]+})";
const wchar_t* const kListItem = LR"(^{[^,]+})";
const wchar_t* const kDebug = LR"(^{[^!]+}\!{[0-9]+})";
const wchar_t* const kGuid = LR"(^{\h+-\h+-\h+-\h+-\h+})";
const wchar_t* const kVdb = LR"(^{[^!]+}\!{[^!]*}\!{[^!]*}\!{[^!]+}\!{LSN=[^!]+})";
const wchar_t* const kStopLsn = LR"([Ll][Ss][Nn]:[0-9]+:[0-9]+:[0-9]+)";
const wchar_t* const kStopDateMs =
    LR"([0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\.[0-9][0-9][0-9])";
const wchar_t* const kStopDate = LR"([0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9])";
const wchar_t* const kLsnGroups = LR"([Ll][Ss][Nn]:{[0-9]+}:{[0-9]+}:{[0-9]+})";
const wchar_t* const kRoot = LR"(^{([A-Za-z]:\\)|(\\\\[^\\]+\\[^\\]+\\)})";

}  // namespace

// ---- the library's patterns on realistic names ----------------------------------

TEST(PatternLibraryTest, PathSplitsDriveOrShareFromFolderAndRest) {
    Matched r = Try(kPath, LR"(K:\ZirlaneMounts\Sales\Backups=Sales!full!!Sales2009!wk1,wk2!1.bxk)");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"K:");
    EXPECT_EQ(r[1], LR"(ZirlaneMounts\Sales\)");
    EXPECT_EQ(r.m_strRest, L"Backups=Sales!full!!Sales2009!wk1,wk2!1.bxk");

    r = Try(kPath, LR"(\\sqlnas01\mounts/VDB=Sales!a!b!Sales!LSN=42-100-1!3.mxf)");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], LR"(\\sqlnas01\mounts)");
    EXPECT_EQ(r[1], L"") << "no folder below the share";
    EXPECT_EQ(r.m_strRest, L"VDB=Sales!a!b!Sales!LSN=42-100-1!3.mxf");

    EXPECT_FALSE(Try(kPath, L"Backups=Sales!wk1!1.bxk").m_bMatch);
    EXPECT_FALSE(Try(kPath, LR"(\\onlyserver)").m_bMatch);
}

TEST(PatternLibraryTest, SchemeAndTailCutTheBody) {
    Matched r = Try(kScheme, L"Backups=Sales!full_1,full_2!1.bxk");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"Backups");
    EXPECT_EQ(r.m_strRest, L"Sales!full_1,full_2!1.bxk");
    EXPECT_FALSE(Try(kScheme, L"=Sales!1.bxk").m_bMatch);
    EXPECT_FALSE(Try(kScheme, L"Back ups=x").m_bMatch);

    // The first start at a '!' fails at the '$'; the matcher goes on.
    r = Try(kTail, L"Sales!full_1,full_2!1.bak!12.bxk");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r.m_strWhole, L"!12.bxk");
    EXPECT_EQ(r[0], L"12");
    EXPECT_EQ(r[1], L".bxk");
    EXPECT_EQ(r.m_strRest, L"");
    EXPECT_FALSE(Try(kTail, L"Sales!full!x.bxk").m_bMatch);
    EXPECT_FALSE(Try(kTail, L"Sales!3.mdf.tmp1").m_bMatch);
}

TEST(PatternLibraryTest, BackupsBodiesLongAndShort) {
    Matched r = Try(kBackupsLong, LR"(D:\bak!!2009!Sales!Sales_full_1,Sales_full_2)");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], LR"(D:\bak)");
    EXPECT_EQ(r[1], L"");
    EXPECT_EQ(r[2], L"2009");
    EXPECT_EQ(r[3], L"Sales");
    EXPECT_EQ(r[4], L"Sales_full_1,Sales_full_2");

    EXPECT_FALSE(Try(kBackupsLong, L"Sales!Sales_full_1,Sales_full_2").m_bMatch);
    r = Try(kBackupsShort, L"Sales!Sales_full_1,Sales_full_2");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"Sales");
    EXPECT_EQ(r[1], L"Sales_full_1,Sales_full_2");

    // The list is cut item by item, each followed by an optional comma.
    r = Try(kListItem, L"Sales_full_1,Sales_full_2");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"Sales_full_1");
    EXPECT_EQ(r.m_strRest, L",Sales_full_2");
    EXPECT_FALSE(Try(kListItem, L",x").m_bMatch);
}

TEST(PatternLibraryTest, DebugGuidAndVdbBodies) {
    Matched r = Try(kDebug, L"Sales!17");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"Sales");
    EXPECT_EQ(r[1], L"17");
    EXPECT_FALSE(Try(kDebug, L"Sales!x17").m_bMatch);

    r = Try(kGuid, L"6f9619ff-8B86-D011-b42d-00C04FC964FF");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"6f9619ff-8B86-D011-b42d-00C04FC964FF");
    EXPECT_FALSE(Try(kGuid, L"6f9619ff-8b86-d011-b42d").m_bMatch);
    EXPECT_FALSE(Try(kGuid, L"6f9619fg-8b86-d011-b42d-00c04fc964ff").m_bMatch);

    r = Try(kVdb, L"Sales!primary!!Sales2009!LSN=40-1872-1");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"Sales");
    EXPECT_EQ(r[2], L"");
    EXPECT_EQ(r[3], L"Sales2009");
    EXPECT_EQ(r[4], L"LSN=40-1872-1");
    EXPECT_FALSE(Try(kVdb, L"Sales!primary!!Sales2009!40-1872-1").m_bMatch);
}

TEST(PatternLibraryTest, StopClauseClassifiersAreUnanchored) {
    EXPECT_TRUE(Try(kStopLsn, L"lsn:12:34:5").m_bMatch);
    EXPECT_TRUE(Try(kStopLsn, L"xLSN:1:2:3y").m_bMatch);
    EXPECT_FALSE(Try(kStopLsn, L"LSN:12:34").m_bMatch);

    Matched r = Try(kStopDateMs, L"release 2009-05-15 13:19:34.790 final");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r.m_strWhole, L"2009-05-15 13:19:34.790");
    EXPECT_FALSE(Try(kStopDateMs, L"2009-05-15 13:19:34.7").m_bMatch);
    EXPECT_TRUE(Try(kStopDate, L"2009-05-15 13:19:34.7").m_bMatch);
    EXPECT_FALSE(Try(kStopDate, L"2009-05-15 13-19-34").m_bMatch);

    r = Try(kLsnGroups, L"Lsn:4200000000:1872:65537");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"4200000000");
    EXPECT_EQ(r[1], L"1872");
    EXPECT_EQ(r[2], L"65537");
}

TEST(PatternLibraryTest, RootOfADriveOrShare) {
    EXPECT_EQ(Try(kRoot, LR"(D:\backups\Sales_full.bak)")[0], LR"(D:\)");
    EXPECT_EQ(Try(kRoot, LR"(\\nas01\sql\backups\Sales_full.bak)")[0], LR"(\\nas01\sql\)");
    EXPECT_FALSE(Try(kRoot, L"/mnt/backups/Sales_full.bak").m_bMatch);
    EXPECT_FALSE(Try(kRoot, LR"(D:backups)").m_bMatch);
}

// ---- the language ---------------------------------------------------------------

TEST(PatternTest, ListedCases) {
    EXPECT_EQ(Try(LR"([Ll][Ss][Nn]:{[0-9]+})", L"xLSN:12y")[0], L"12");
    Matched r = Try(LR"(^{[^!]+}\!{[^!]*})", L"a!!b");
    EXPECT_EQ(r[0], L"a");
    EXPECT_EQ(r[1], L"") << "an empty group is not a missing one";
    EXPECT_TRUE(Try(L"ab|cd", L"abd").m_bMatch);
    EXPECT_TRUE(Try(L"ab|cd", L"acd").m_bMatch);
    EXPECT_FALSE(Try(L"ab|cd", L"ab").m_bMatch);
    EXPECT_FALSE(Try(L"ab|cd", L"cd").m_bMatch);
    EXPECT_TRUE(Try(L"(ab)|(cd)", L"cd").m_bMatch);
    EXPECT_EQ(Try(L"{a|b|c}+", L"xcabz").m_strWhole, L"cab");
    EXPECT_TRUE(Try(L"a$b", L"xa$b").m_bMatch);
    EXPECT_FALSE(Try(L"a$b", L"ab").m_bMatch);
}

TEST(PatternTest, CompileErrors) {
    EXPECT_EQ(CompileError(L"(a*)*"), 9);
    EXPECT_EQ(CompileError(L"(!a)+"), 9);
    EXPECT_EQ(CompileError(L"(a|b*)*"), 9);
    EXPECT_EQ(CompileError(L"(a*)?"), 0) << "? may repeat what can be empty";
    EXPECT_EQ(CompileError(L"[z-a]"), 8);
    EXPECT_EQ(CompileError(L"[]"), 6);
    EXPECT_EQ(CompileError(L"[^]"), 6);
    EXPECT_EQ(CompileError(L"[abc"), 4);
    EXPECT_EQ(CompileError(L"[a-]"), 4);
    EXPECT_EQ(CompileError(L"[a-"), 4);
    EXPECT_EQ(CompileError(L"{a"), 2);
    EXPECT_EQ(CompileError(L"{a)"), 2);
    EXPECT_EQ(CompileError(L"(a"), 3);
    EXPECT_EQ(CompileError(L"(a}"), 3);
    EXPECT_EQ(CompileError(L"{a}\\1"), 7);
    EXPECT_EQ(CompileError(L"\\0{a}"), 7) << "group 0 is not open yet";
    EXPECT_EQ(CompileError(L"{a}\\0"), 0);
    EXPECT_EQ(CompileError(nullptr), 10);
    EXPECT_EQ(CompileError(std::wstring(2000, L'(').c_str()), 1) << "nesting beyond any real pattern";

    ZR_Pattern failed;
    EXPECT_NE(failed.Compile(L"[abc", true), 0);
    EXPECT_FALSE(failed.Match(L"abc", nullptr, nullptr)) << "a failed compile never matches";
}

TEST(PatternTest, ClosersOutsideTheirGroupEndThePattern) {
    EXPECT_TRUE(Try(L"ab}cd", L"xabq").m_bMatch);
    EXPECT_TRUE(Try(L"ab)[", L"ab").m_bMatch);
    EXPECT_FALSE(Try(L"ab]cd", L"acd").m_bMatch);
}

TEST(PatternTest, RepeatsGreedyAndLazy) {
    EXPECT_EQ(Try(L"{a+}", L"aaa")[0], L"aaa");
    EXPECT_EQ(Try(L"{a+?}", L"aaa")[0], L"a");
    EXPECT_EQ(Try(L"{a*?}b", L"aaab")[0], L"aaa");
    EXPECT_EQ(Try(L"{a??}a", L"aa")[0], L"");
    EXPECT_EQ(Try(L"{a?}a", L"aa")[0], L"a");
    EXPECT_EQ(Try(LR"(^{.*}\!{.*})", L"x!y!z")[0], L"x!y");
    EXPECT_EQ(Try(LR"(^{.*?}\!{.*})", L"x!y!z")[0], L"x");
    // A group inside a repeat holds its last iteration.
    EXPECT_EQ(Try(L"^({[a-z]}[0-9])+", L"a1b2c3")[0], L"c");
}

TEST(PatternTest, SetsEscapesAndAbbreviations) {
    EXPECT_EQ(Try(LR"({[a\-]+})", L"xa-a")[0], L"a-a");
    EXPECT_EQ(Try(L"{[-a]+}", L"x-a")[0], L"-a");
    EXPECT_TRUE(Try(LR"([\t])", L"a\tb").m_bMatch);
    EXPECT_FALSE(Try(LR"(\t)", L"a\tb").m_bMatch) << "outside a set \\t is the letter";
    EXPECT_TRUE(Try(LR"(\t)", L"t").m_bMatch);
    EXPECT_TRUE(Try(LR"(\{\}\\)", LR"(x{}\)").m_bMatch);
    EXPECT_FALSE(Try(L"[^a]", L"aaa").m_bMatch) << "a set never matches the end";
    EXPECT_FALSE(Try(L"a.", L"a").m_bMatch);

    Matched r = Try(LR"(^{\z}\.{\w}\b{\h+}\b{\a\c\d})", L"123.abc\t0fF xZ1");
    EXPECT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"123");
    EXPECT_EQ(r[1], L"abc");
    EXPECT_EQ(r[2], L"0fF");
    EXPECT_EQ(r[3], L"xZ1");
    EXPECT_EQ(Try(LR"(\d+)", L"ab42c").m_strWhole, L"42");
    EXPECT_EQ(Try(LR"({\q})", L"say \"hi there\" now")[0], L"\"hi there\"");
    EXPECT_FALSE(Try(LR"(\q)", L"say 'hi' now").m_bMatch) << "the single-quote alternative goes unread";
    EXPECT_TRUE(Try(LR"(^a\nb$)", L"a\r\nb").m_bMatch);
    EXPECT_TRUE(Try(LR"(^a\nb$)", L"a\nb").m_bMatch);
    EXPECT_TRUE(Try(LR"(^a\nb$)", L"a\rb").m_bMatch);
    EXPECT_FALSE(Try(LR"(^a\nb$)", L"a\n\rb").m_bMatch);
}

TEST(PatternTest, BackReferencesAndCase) {
    EXPECT_TRUE(Try(LR"(^{[a-z]+}-\0$)", L"abc-abc").m_bMatch);
    EXPECT_FALSE(Try(LR"(^{[a-z]+}-\0$)", L"abc-abd").m_bMatch);
    EXPECT_FALSE(Try(LR"({a}\0)", L"aA").m_bMatch);
    EXPECT_TRUE(Try(LR"({a}\0)", L"aA", false).m_bMatch);
    EXPECT_EQ(Try(L"{backups}", L"X:\\BackUps\\", false)[0], L"BackUps");
    EXPECT_EQ(Try(L"{[a-c]+}", L"xABCd", false)[0], L"ABC");
    EXPECT_EQ(Try(L"{[A-C]+}", L"xabcd", false)[0], L"abc");
    EXPECT_FALSE(Try(L"{[A-C]+}", L"xabcd").m_bMatch);
}

TEST(PatternTest, NegativeLookAheadConsumesNothingAndForgetsItsGroups) {
    EXPECT_FALSE(Try(L"^!(ab){.+}", L"abc").m_bMatch);
    EXPECT_EQ(Try(L"^!(ab){.+}", L"acb")[0], L"acb");
    EXPECT_EQ(Try(L"^!ab{.+}", L"bcb")[0], L"cb") << "! takes one atom: not a, then b";
    Matched r = Try(L"^!{x}{.}", L"y");
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0], L"<null>");
    EXPECT_EQ(r[1], L"y");
    // Names that do not start with "tmp": each character checked in turn.
    EXPECT_EQ(Try(LR"(^{(!(tmp)[a-z])+})", L"datatmpx")[0], L"data");
    EXPECT_FALSE(Try(L"^!!a.", L"b").m_bMatch) << "a double negation requires the atom";
    EXPECT_TRUE(Try(L"^!!a.", L"a").m_bMatch);
}

TEST(PatternTest, StartPositionsAndTheEnd) {
    EXPECT_EQ(Try(L"{x*}", L"abc").m_strRest, L"abc") << "an empty match at the first start";
    EXPECT_FALSE(Try(L"$", L"abc").m_bMatch) << "the end is a start only for an empty subject";
    EXPECT_TRUE(Try(L"$", L"").m_bMatch);
    EXPECT_TRUE(Try(L"c$", L"abc").m_bMatch);
    EXPECT_FALSE(Try(L"^b", L"abc").m_bMatch);
    EXPECT_TRUE(Try(L"x^", L"ax^").m_bMatch) << "^ elsewhere is a character";

    ZR_Pattern pattern;
    ASSERT_EQ(pattern.Compile(L"a", true), 0);
    EXPECT_FALSE(pattern.Match(nullptr, nullptr, nullptr));
    EXPECT_TRUE(pattern.Match(L"ba", nullptr, nullptr));
}

TEST(PatternTest, GroupAccessChecksItsArguments) {
    ZR_Pattern pattern;
    ASSERT_EQ(pattern.Compile(L"{a}{b}?", true), 0);
    ZR_PatternMatch match(256);
    ASSERT_TRUE(pattern.Match(L"a", &match, nullptr));
    const wchar_t *pS = nullptr, *pE = nullptr;
    match.GetGroup(1, &pS, &pE);
    EXPECT_EQ(pS, nullptr);
    EXPECT_EQ(pE, nullptr);
    try {
        match.GetGroup(2, &pS, &pE);
        FAIL() << "no exception";
    } catch (const ZR_HResultError& e) {
        EXPECT_EQ(e.m_hr, E_FAIL);
    }
    EXPECT_THROW(match.GetGroup(0, nullptr, &pE), ZR_HResultError);
}

TEST(PatternTest, LongSubjectsCostHeapNotStack) {
    std::wstring str(500000, L'a');
    str += L"!7.bxk";
    Matched r = Try(LR"(^{.*}\!{[0-9]+}{\.[A-Za-z]+}$)", str.c_str());
    ASSERT_TRUE(r.m_bMatch);
    EXPECT_EQ(r[0].size(), 500000u);
    std::wstring strNo(200000, L'a');
    EXPECT_FALSE(Try(L"^(a|b)*c", strNo.c_str()).m_bMatch);
    EXPECT_FALSE(Try(L"^{(!x.)+}y", strNo.c_str()).m_bMatch);
}
