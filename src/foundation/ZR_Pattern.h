// The library's pattern matcher for wide strings, used on virtual file names,
// stop clauses and backup paths. The language in brief:
//
//   {p}   capturing group, numbered from 0 by its opening brace
//   (p)   grouping without capture
//   [s] [^s]  one character in / not in a set of characters and ranges a-z
//   .     any one character
//   \n    (digits) back-reference to group n
//   \a \b \c \d \h \n \q \w \z   abbreviations: alphanumeric, blank, letter,
//         digit, hex digit, line end, double-quoted text, word, whole number
//   \x    any other character x as it stands (\. \! \\ \{; \t is 't')
//   !x    negative look-ahead of the atom x; consumes nothing
//   ^     first in the pattern: match at the start only
//   $     last in the pattern: the end of the subject; elsewhere a plain '$'
//   * + ? *? +? ??   greedy and lazy repeats of the atom before
//   x|y   alternation of the single items on either side
//
// A }, ] or ) outside its group ends the pattern quietly.
//
// A compiled ZR_Pattern is not changed by Match, so one pattern may serve
// several threads, each with its own ZR_PatternMatch. Matching backtracks on
// an explicit work stack in the ZR_PatternMatch, so a long subject costs heap,
// never call depth.
#pragma once

#include <cstdint>
#include <vector>

enum ZR_PatternError_e : int {
    ZR_PATTERN_OK = 0,
    ZR_PATTERN_NO_MEMORY = 1,
    ZR_PATTERN_BRACE_EXPECTED = 2,    // }
    ZR_PATTERN_PAREN_EXPECTED = 3,    // )
    ZR_PATTERN_BRACKET_EXPECTED = 4,  // ]
    ZR_PATTERN_BAD_ABBREVIATION = 5,
    ZR_PATTERN_EMPTY_SET = 6,
    ZR_PATTERN_BAD_BACKREFERENCE = 7,
    ZR_PATTERN_BACKWARD_RANGE = 8,
    ZR_PATTERN_EMPTY_REPEAT = 9,
    ZR_PATTERN_NO_PATTERN = 10,
};

// One entry of the matcher's backtracking stack.
struct ZR_PatternFrame {
    int32_t m_iKind;
    int32_t m_iIndex;  // program counter, capture slot or loop register
    intptr_t m_iPos;   // subject position or the value to restore
};

// The result of one match: the bounds of the whole match and of each group.
class ZR_PatternMatch {
public:
    // iStackSize: initial room of the work stack, which grows as needed.
    explicit ZR_PatternMatch(unsigned iStackSize = 256);

    unsigned GetGroupCount() const { return m_iGroups; }
    // Bounds of group iGroup (from 0); null bounds for a group that took no
    // part in the match. A bad group number or a null pointer raises the
    // HRESULT exception E_FAIL.
    void GetGroup(unsigned iGroup, const wchar_t** ppStart, const wchar_t** ppEnd) const;

    const wchar_t* m_pStart = nullptr;  // the whole match
    const wchar_t* m_pEnd = nullptr;

private:
    friend class ZR_Pattern;
    unsigned m_iGroups = 0;
    std::vector<const wchar_t*> m_aBounds;  // start and end of each group
    std::vector<ZR_PatternFrame> m_aStack;
    std::vector<intptr_t> m_aCaptures;
    std::vector<intptr_t> m_aLoops;
};

class ZR_Pattern {
public:
    ZR_Pattern() = default;

    // 0 or a ZR_PatternError_e. A failed compile leaves a pattern that never
    // matches. bCaseSensitive false compares pattern and subject in lower case.
    int Compile(const wchar_t* wszPattern, bool bCaseSensitive);

    // True when the pattern matches the subject; a null subject does not
    // match. Without ^ each start is tried from left to right (the end of a
    // subject only when it is empty). After a match *ppwszEnd, when given, is
    // the position behind it.
    bool Match(const wchar_t* wszSubject, ZR_PatternMatch* pMatch, const wchar_t** ppwszEnd) const;

    unsigned GetGroupCount() const { return m_iGroups; }

    // One step of the compiled program (public for the compiler in the .cpp).
    struct Inst {
        int32_t m_iOp;
        int32_t m_iA;  // character, set, group, slot, register or target
        int32_t m_iB;  // second target
    };
    struct Range {
        wchar_t m_chLow;
        wchar_t m_chHigh;
    };
    struct CharSet {
        bool m_bNegated;
        std::vector<Range> m_aRanges;
    };

private:
    bool Run(const wchar_t* wszSubject, intptr_t iLength, intptr_t iStart, ZR_PatternMatch* pMatch) const;
    bool InSet(const CharSet& set, wchar_t ch) const;
    bool SameChar(wchar_t a, wchar_t b) const;

    std::vector<Inst> m_aProgram;
    std::vector<CharSet> m_aSets;
    unsigned m_iGroups = 0;
    unsigned m_iLoops = 0;
    bool m_bCaseSensitive = true;
    bool m_bAnchored = false;
    bool m_bCompiled = false;
};
