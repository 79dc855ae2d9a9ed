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

// One match: a pattern, a subject, and what comes out, written as the groups
// joined by '|' (a group that took no part is "<null>"), or "-" for no
// match. Where the whole match or the rest of the subject matters, they are
// given too.
struct MatchCase {
    const wchar_t* wszPattern;
    const wchar_t* wszSubject;
    const wchar_t* wszGroups;
    const wchar_t* wszWhole = nullptr;
    const wchar_t* wszRest = nullptr;
    bool bCase = true;
};

void ExpectMatches(std::initializer_list<MatchCase> aCases) {
    for (const MatchCase& c : aCases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.wszPattern) + L" on " + c.wszSubject));
        Matched r = Try(c.wszPattern, c.wszSubject, c.bCase);
        std::wstring strGroups = r.m_bMatch ? L"" : L"-";
        for (size_t i = 0; i < r.m_aGroups.size(); i++) strGroups += (i ? L"|" : L"") + r.m_aGroups[i];
        EXPECT_EQ(strGroups, c.wszGroups);
        if (c.wszWhole) {
            EXPECT_EQ(r.m_strWhole, c.wszWhole);
        }
        if (c.wszRest) {
            EXPECT_EQ(r.m_strRest, c.wszRest);
        }
    }
}

}  // namespace

// ---- the language ---------------------------------------------------------------

TEST(PatternTest, ListedCases) {
    ExpectMatches({
        {LR"([Ll][Ss][Nn]:{[0-9]+})", L"xLSN:12y", L"12"},
        {LR"(^{[^!]+}\!{[^!]*})", L"a!!b", L"a|"},  // an empty group is not a missing one
        {L"ab|cd", L"abd", L""},
        {L"ab|cd", L"acd", L""},
        {L"ab|cd", L"ab", L"-"},
        {L"ab|cd", L"cd", L"-"},
        {L"(ab)|(cd)", L"cd", L""},
        {L"{a|b|c}+", L"xcabz", L"b", L"cab"},
        {L"a$b", L"xa$b", L""},
        {L"a$b", L"ab", L"-"},
        // closers outside their group end the pattern
        {L"ab}cd", L"xabq", L""},
        {L"ab)[", L"ab", L""},
        {L"ab]cd", L"acd", L"-"},
        // repeats, greedy and lazy; a group in a repeat holds its last iteration
        {L"{a+}", L"aaa", L"aaa"},
        {L"{a+?}", L"aaa", L"a"},
        {L"{a*?}b", L"aaab", L"aaa"},
        {L"{a??}a", L"aa", L""},
        {L"{a?}a", L"aa", L"a"},
        {LR"(^{.*}\!{.*})", L"x!y!z", L"x!y|z"},
        {LR"(^{.*?}\!{.*})", L"x!y!z", L"x|y!z"},
        {L"^({[a-z]}[0-9])+", L"a1b2c3", L"c"},
        // sets, escapes and abbreviations
        {LR"({[a\-]+})", L"xa-a", L"a-a"},
        {L"{[-a]+}", L"x-a", L"-a"},
        {LR"([\t])", L"a\tb", L""},
        {LR"(\t)", L"a\tb", L"-"},  // outside a set \t is the letter
        {LR"(\t)", L"t", L""},
        {LR"(\{\}\\)", LR"(x{}\)", L""},
        {L"[^a]", L"aaa", L"-"},  // a set never matches the end
        {L"a.", L"a", L"-"},
        {LR"(^{\z}\.{\w}\b{\h+}\b{\a\c\d})", L"123.abc\t0fF xZ1", L"123|abc|0fF|xZ1"},
        {LR"(\d+)", L"ab42c", L"", L"42"},
        {LR"({\q})", L"say \"hi there\" now", L"\"hi there\""},
        {LR"(\q)", L"say 'hi' now", L"-"},  // the single-quote alternative goes unread
        {LR"(^a\nb$)", L"a\r\nb", L""},
        {LR"(^a\nb$)", L"a\nb", L""},
        {LR"(^a\nb$)", L"a\rb", L""},
        {LR"(^a\nb$)", L"a\n\rb", L"-"},
        // back references and case
        {LR"(^{[a-z]+}-\0$)", L"abc-abc", L"abc"},
        {LR"(^{[a-z]+}-\0$)", L"abc-abd", L"-"},
        {LR"({a}\0)", L"aA", L"-"},
        {LR"({a}\0)", L"aA", L"a", nullptr, nullptr, false},
        {L"{backups}", L"X:\\BackUps\\", L"BackUps", nullptr, nullptr, false},
        {L"{[a-c]+}", L"xABCd", L"ABC", nullptr, nullptr, false},
        {L"{[A-C]+}", L"xabcd", L"abc", nullptr, nullptr, false},
        {L"{[A-C]+}", L"xabcd", L"-"},
        // a negative look-ahead consumes nothing and forgets its groups
        {L"^!(ab){.+}", L"abc", L"-"},
        {L"^!(ab){.+}", L"acb", L"acb"},
        {L"^!ab{.+}", L"bcb", L"cb"},  // ! takes one atom: not a, then b
        {L"^!{x}{.}", L"y", L"<null>|y"},
        {LR"(^{(!(tmp)[a-z])+})", L"datatmpx", L"data"},
        {L"^!!a.", L"b", L"-"},  // a double negation requires the atom
        {L"^!!a.", L"a", L""},
        // start positions and the end
        {L"{x*}", L"abc", L"", nullptr, L"abc"},  // an empty match at the first start
        {L"$", L"abc", L"-"},                      // the end is a start only for an empty subject
        {L"$", L"", L""},
        {L"c$", L"abc", L""},
        {L"^b", L"abc", L"-"},
        {L"x^", L"ax^", L""},  // ^ elsewhere is a character
    });
}

TEST(PatternTest, CompileErrors) {
    const std::pair<const wchar_t*, int> aCases[] = {
        {L"(a*)*", 9}, {L"(!a)+", 9}, {L"(a|b*)*", 9},
        {L"(a*)?", 0},  // ? may repeat what can be empty
        {L"[z-a]", 8}, {L"[]", 6}, {L"[^]", 6}, {L"[abc", 4}, {L"[a-]", 4}, {L"[a-", 4},
        {L"{a", 2}, {L"{a)", 2}, {L"(a", 3}, {L"(a}", 3},
        {L"{a}\\1", 7}, {L"\\0{a}", 7},  // group 0 is not open yet
        {L"{a}\\0", 0}, {nullptr, 10},
    };
    for (const auto& [wszPattern, iError] : aCases)
        EXPECT_EQ(CompileError(wszPattern), iError) << testing::PrintToString(wszPattern ? wszPattern : L"null");
    EXPECT_EQ(CompileError(std::wstring(2000, L'(').c_str()), 1) << "nesting beyond any real pattern";

    ZR_Pattern failed;
    EXPECT_NE(failed.Compile(L"[abc", true), 0);
    EXPECT_FALSE(failed.Match(L"abc", nullptr, nullptr)) << "a failed compile never matches";
}

TEST(PatternTest, MatchWithoutASubjectOrARecord) {
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
    EXPECT_EQ(r.m_aGroups.at(0).size(), 500000u);
    std::wstring strNo(200000, L'a');
    EXPECT_FALSE(Try(L"^(a|b)*c", strNo.c_str()).m_bMatch);
    EXPECT_FALSE(Try(L"^{(!x.)+}y", strNo.c_str()).m_bMatch);
}
