#include "foundation/ZR_Pattern.h"

#include <cwchar>
#include <cwctype>
#include <new>

#include "foundation/ZR_HResultError.h"

namespace {

enum Op_e : int32_t {
    OP_CHAR,        // a: the character
    OP_ANY,
    OP_SET,         // a: the set
    OP_BACKREF,     // a: the group
    OP_END,
    OP_SPLIT,       // go to a; on failure go to b
    OP_JMP,         // a: target
    OP_SAVE,        // a: capture slot
    OP_MARK,        // a: loop register, set to the position
    OP_CHECK,       // a: loop register; an iteration that consumed nothing exits to b
    OP_LOOK_BEGIN,  // a: where to go on when the atom does not match
    OP_LOOK_END,
    OP_MATCH,
};

enum Frame_e : int32_t { FRAME_BRANCH, FRAME_CAPTURE, FRAME_LOOP, FRAME_LOOK };

enum Node_e { NODE_CHAR, NODE_ANY, NODE_SET, NODE_BACKREF, NODE_END, NODE_SEQ, NODE_GROUP, NODE_LOOK, NODE_REPEAT, NODE_ALT };

struct Node {
    Node_e m_eKind = NODE_SEQ;
    int m_iValue = 0;  // character, set, group (-1: no capture) or back-reference
    int m_iMin = 0;    // repeats: 0 or 1
    bool m_bMany = false;
    bool m_bGreedy = true;
    std::vector<int> m_aChildren;
};

// Patterns nest this deep at most; deeper ones are refused as exhausting
// resources, so that neither the parser nor the emitter can run out of stack.
constexpr int kMaxDepth = 400;

// The abbreviations: the key letter, then one item (and its repeat). What
// stands behind that item goes unread, like the single-quote alternative of q.
const wchar_t* const kAbbreviations[] = {
    L"a([a-zA-Z0-9])",
    L"b([ \t])",
    L"c([a-zA-Z])",
    L"d([0-9])",
    L"h([0-9a-fA-F])",
    L"n((\r?\n)|\r)",
    L"q(\"[^\"]*\")|('[^']*')",
    L"w([a-zA-Z]+)",
    L"z([0-9]+)",
};

struct CompileError {
    int m_iCode;
};

class Compiler {
public:
    Compiler(std::vector<ZR_Pattern::Inst>& aProgram, std::vector<ZR_Pattern::CharSet>& aSets, bool bCaseSensitive)
        : m_aProgram(aProgram), m_aSets(aSets), m_bCaseSensitive(bCaseSensitive) {}

    // Parses the whole text into the node tree and emits the program.
    void Build(const wchar_t* p) {
        m_p = p;
        m_pEnd = p + std::wcslen(p);
        int iRoot = ParseSequence(0);
        // A closing character outside its group ends the pattern; the rest
        // of the text is not read.
        Emit(iRoot, 0);
        Add(OP_MATCH);
    }
    unsigned Groups() const { return m_iGroups; }
    unsigned Loops() const { return m_iLoops; }

private:
    std::vector<ZR_Pattern::Inst>& m_aProgram;
    std::vector<ZR_Pattern::CharSet>& m_aSets;
    std::vector<Node> m_aNodes;
    bool m_bCaseSensitive;
    const wchar_t* m_p = nullptr;
    const wchar_t* m_pEnd = nullptr;
    unsigned m_iGroups = 0;
    unsigned m_iLoops = 0;

    [[noreturn]] static void Fail(int iCode) { throw CompileError{iCode}; }
    static void CheckDepth(int iDepth) {
        if (iDepth > kMaxDepth) Fail(ZR_PATTERN_NO_MEMORY);
    }
    bool AtEnd() const { return m_p >= m_pEnd; }
    static bool IsCloser(wchar_t c) { return c == L'}' || c == L']' || c == L')'; }

    int NewNode(Node_e eKind, int iValue = 0) {
        Node n;
        n.m_eKind = eKind;
        n.m_iValue = iValue;
        m_aNodes.push_back(std::move(n));
        return static_cast<int>(m_aNodes.size()) - 1;
    }
    wchar_t Fold(wchar_t c) const {
        return m_bCaseSensitive ? c : static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    }

    // ---- parsing ----------------------------------------------------------

    int ParseSequence(int iDepth) {
        CheckDepth(iDepth);
        int iSeq = NewNode(NODE_SEQ);
        while (!AtEnd() && !IsCloser(*m_p)) {
            int iItem = ParseAlternation(iDepth + 1);
            m_aNodes[iSeq].m_aChildren.push_back(iItem);
        }
        return iSeq;
    }

    // item ('|' item)*: the left alternative is tried first.
    int ParseAlternation(int iDepth) {
        int iLeft = ParseItem(iDepth);
        if (AtEnd() || *m_p != L'|') return iLeft;
        int iAlt = NewNode(NODE_ALT);
        m_aNodes[iAlt].m_aChildren.push_back(iLeft);
        while (!AtEnd() && *m_p == L'|') {
            m_p++;
            int iRight = ParseItem(iDepth);
            m_aNodes[iAlt].m_aChildren.push_back(iRight);
        }
        return iAlt;
    }

    int ParseItem(int iDepth) {
        int iAtom = ParseAtom(iDepth + 1);
        if (AtEnd()) return iAtom;
        wchar_t c = *m_p;
        if (c != L'*' && c != L'+' && c != L'?') return iAtom;
        m_p++;
        bool bLazy = !AtEnd() && *m_p == L'?';
        if (bLazy) m_p++;
        if (c != L'?' && CanBeEmpty(iAtom)) Fail(ZR_PATTERN_EMPTY_REPEAT);
        int iRepeat = NewNode(NODE_REPEAT);
        Node& n = m_aNodes[iRepeat];
        n.m_iMin = c == L'+' ? 1 : 0;
        n.m_bMany = c != L'?';
        n.m_bGreedy = !bLazy;
        n.m_iValue = n.m_bMany ? static_cast<int>(m_iLoops++) : -1;
        n.m_aChildren.push_back(iAtom);
        return iRepeat;
    }

    int ParseAtom(int iDepth) {
        CheckDepth(iDepth);
        // Nothing to read (behind a '!' or '|' at the end): an empty item.
        if (AtEnd() || IsCloser(*m_p)) return NewNode(NODE_SEQ);
        wchar_t c = *m_p++;
        switch (c) {
            case L'{': {
                int iGroup = NewNode(NODE_GROUP, static_cast<int>(m_iGroups++));
                int iBody = ParseSequence(iDepth + 1);
                if (AtEnd() || *m_p != L'}') Fail(ZR_PATTERN_BRACE_EXPECTED);
                m_p++;
                m_aNodes[iGroup].m_aChildren.push_back(iBody);
                return iGroup;
            }
            case L'(': {
                int iGroup = NewNode(NODE_GROUP, -1);
                int iBody = ParseSequence(iDepth + 1);
                if (AtEnd() || *m_p != L')') Fail(ZR_PATTERN_PAREN_EXPECTED);
                m_p++;
                m_aNodes[iGroup].m_aChildren.push_back(iBody);
                return iGroup;
            }
            case L'[':
                return ParseSet();
            case L'.':
                return NewNode(NODE_ANY);
            case L'\\':
                return ParseEscape(iDepth);
            case L'!': {
                int iLook = NewNode(NODE_LOOK);
                int iBody = ParseAtom(iDepth + 1);
                m_aNodes[iLook].m_aChildren.push_back(iBody);
                return iLook;
            }
            case L'$':
                if (AtEnd()) return NewNode(NODE_END);
                return NewNode(NODE_CHAR, Fold(c));
            default:
                return NewNode(NODE_CHAR, Fold(c));
        }
    }

    int ParseEscape(int iDepth) {
        if (AtEnd()) return NewNode(NODE_CHAR, L'\\');
        wchar_t c = *m_p;
        if (c >= L'0' && c <= L'9') {
            long iGroup = 0;
            while (!AtEnd() && *m_p >= L'0' && *m_p <= L'9') {
                iGroup = iGroup * 10 + (*m_p++ - L'0');
                if (iGroup >= static_cast<long>(m_iGroups)) iGroup = m_iGroups;  // keeps the value bounded
            }
            if (iGroup >= static_cast<long>(m_iGroups)) Fail(ZR_PATTERN_BAD_BACKREFERENCE);
            return NewNode(NODE_BACKREF, static_cast<int>(iGroup));
        }
        m_p++;
        for (const wchar_t* wszEntry : kAbbreviations)
            if (wszEntry[0] == c) return ParseAbbreviation(wszEntry + 1, iDepth);
        return NewNode(NODE_CHAR, Fold(c));
    }

    // The entry's text is read as one item in place of the escape.
    int ParseAbbreviation(const wchar_t* wszText, int iDepth) {
        const wchar_t* pSaved = m_p;
        const wchar_t* pSavedEnd = m_pEnd;
        m_p = wszText;
        m_pEnd = wszText + std::wcslen(wszText);
        int iItem = -1;
        try {
            iItem = ParseItem(iDepth + 1);
        } catch (const CompileError& e) {
            Fail(e.m_iCode == ZR_PATTERN_NO_MEMORY ? e.m_iCode : ZR_PATTERN_BAD_ABBREVIATION);
        }
        m_p = pSaved;
        m_pEnd = pSavedEnd;
        return iItem;
    }

    // One character of a set: '\' takes the next as it stands, \t is a tab.
    wchar_t SetChar() {
        wchar_t c = *m_p++;
        if (c != L'\\') return c;
        if (AtEnd()) Fail(ZR_PATTERN_BRACKET_EXPECTED);
        c = *m_p++;
        return c == L't' ? L'\t' : c;
    }

    int ParseSet() {
        ZR_Pattern::CharSet set{false, {}};
        if (!AtEnd() && *m_p == L'^') {
            set.m_bNegated = true;
            m_p++;
        }
        if (!AtEnd() && *m_p == L']') Fail(ZR_PATTERN_EMPTY_SET);
        while (true) {
            if (AtEnd()) Fail(ZR_PATTERN_BRACKET_EXPECTED);
            if (*m_p == L']') break;
            wchar_t chLow = SetChar();
            wchar_t chHigh = chLow;
            if (!AtEnd() && *m_p == L'-') {
                m_p++;
                if (AtEnd() || *m_p == L']') Fail(ZR_PATTERN_BRACKET_EXPECTED);
                chHigh = SetChar();
                if (chHigh < chLow) Fail(ZR_PATTERN_BACKWARD_RANGE);
            }
            set.m_aRanges.push_back({chLow, chHigh});
        }
        m_p++;
        m_aSets.push_back(std::move(set));
        return NewNode(NODE_SET, static_cast<int>(m_aSets.size()) - 1);
    }

    // Whether the node can succeed without consuming a character. Back-
    // references are taken as consuming; the run-time check of each
    // iteration stops a repeat of one that matched nothing.
    bool CanBeEmpty(int iNode) const {
        const Node& n = m_aNodes[iNode];
        switch (n.m_eKind) {
            case NODE_END:
            case NODE_LOOK:
                return true;
            case NODE_SEQ:
                for (int iChild : n.m_aChildren)
                    if (!CanBeEmpty(iChild)) return false;
                return true;
            case NODE_GROUP:
                return CanBeEmpty(n.m_aChildren[0]);
            case NODE_REPEAT:
                return n.m_iMin == 0 || CanBeEmpty(n.m_aChildren[0]);
            case NODE_ALT:
                for (int iChild : n.m_aChildren)
                    if (CanBeEmpty(iChild)) return true;
                return false;
            default:
                return false;
        }
    }

    // ---- emitting ---------------------------------------------------------

    int Add(int32_t iOp, int32_t iA = 0, int32_t iB = 0) {
        m_aProgram.push_back({iOp, iA, iB});
        return static_cast<int>(m_aProgram.size()) - 1;
    }
    int Here() const { return static_cast<int>(m_aProgram.size()); }

    void Emit(int iNode, int iDepth) {
        CheckDepth(iDepth);
        const Node& n = m_aNodes[iNode];
        switch (n.m_eKind) {
            case NODE_CHAR: Add(OP_CHAR, n.m_iValue); break;
            case NODE_ANY: Add(OP_ANY); break;
            case NODE_SET: Add(OP_SET, n.m_iValue); break;
            case NODE_BACKREF: Add(OP_BACKREF, n.m_iValue); break;
            case NODE_END: Add(OP_END); break;
            case NODE_SEQ:
                for (int iChild : std::vector<int>(n.m_aChildren)) Emit(iChild, iDepth + 1);
                break;
            case NODE_GROUP: EmitGroup(n.m_iValue, n.m_aChildren[0], iDepth); break;
            case NODE_LOOK: {
                int iBegin = Add(OP_LOOK_BEGIN);
                Emit(n.m_aChildren[0], iDepth + 1);
                Add(OP_LOOK_END);
                m_aProgram[iBegin].m_iA = Here();
                break;
            }
            case NODE_ALT: EmitAlternation(std::vector<int>(n.m_aChildren), iDepth); break;
            case NODE_REPEAT: EmitRepeat(Node(n), iDepth); break;
        }
    }

    void EmitGroup(int iGroup, int iBody, int iDepth) {
        if (iGroup >= 0) Add(OP_SAVE, 2 * iGroup);
        Emit(iBody, iDepth + 1);
        if (iGroup >= 0) Add(OP_SAVE, 2 * iGroup + 1);
    }

    // a|b|c: SPLIT a, next; a; JMP end; next: SPLIT b, c; ...
    void EmitAlternation(const std::vector<int>& aChoices, int iDepth) {
        std::vector<int> aJumps;
        for (size_t i = 0; i + 1 < aChoices.size(); i++) {
            int iSplit = Add(OP_SPLIT, 0, 0);
            m_aProgram[iSplit].m_iA = Here();
            Emit(aChoices[i], iDepth + 1);
            aJumps.push_back(Add(OP_JMP));
            m_aProgram[iSplit].m_iB = Here();
        }
        Emit(aChoices.back(), iDepth + 1);
        for (int iJump : aJumps) m_aProgram[iJump].m_iA = Here();
    }

    // A split that prefers the body when greedy and the exit when lazy.
    void PatchSplit(int iSplit, int iBody, int iExit, bool bGreedy) {
        m_aProgram[iSplit].m_iA = bGreedy ? iBody : iExit;
        m_aProgram[iSplit].m_iB = bGreedy ? iExit : iBody;
    }

    void EmitRepeat(const Node& n, int iDepth) {
        int iBody = n.m_aChildren[0];
        if (!n.m_bMany) {  // ? and ??
            int iSplit = Add(OP_SPLIT);
            Emit(iBody, iDepth + 1);
            PatchSplit(iSplit, iSplit + 1, Here(), n.m_bGreedy);
            return;
        }
        if (n.m_iMin == 0) {  // L: SPLIT B, X; B: MARK; body; CHECK -> X; JMP L; X:
            int iSplit = Add(OP_SPLIT);
            Add(OP_MARK, n.m_iValue);
            Emit(iBody, iDepth + 1);
            int iCheck = Add(OP_CHECK, n.m_iValue);
            Add(OP_JMP, iSplit);
            m_aProgram[iCheck].m_iB = Here();
            PatchSplit(iSplit, iSplit + 1, Here(), n.m_bGreedy);
            return;
        }
        // B: MARK; body; CHECK -> X; SPLIT B, X; X:
        int iStart = Add(OP_MARK, n.m_iValue);
        Emit(iBody, iDepth + 1);
        int iCheck = Add(OP_CHECK, n.m_iValue);
        int iSplit = Add(OP_SPLIT);
        m_aProgram[iCheck].m_iB = Here();
        PatchSplit(iSplit, iStart, Here(), n.m_bGreedy);
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// ZR_PatternMatch
// ---------------------------------------------------------------------------

ZR_PatternMatch::ZR_PatternMatch(unsigned iStackSize) { m_aStack.reserve(iStackSize); }

void ZR_PatternMatch::GetGroup(unsigned iGroup, const wchar_t** ppStart, const wchar_t** ppEnd) const {
    if (iGroup >= m_iGroups || !ppStart || !ppEnd) throw ZR_HResultError{E_FAIL};
    *ppStart = m_aBounds[2 * iGroup];
    *ppEnd = m_aBounds[2 * iGroup + 1];
}

// ---------------------------------------------------------------------------
// ZR_Pattern
// ---------------------------------------------------------------------------

int ZR_Pattern::Compile(const wchar_t* wszPattern, bool bCaseSensitive) {
    m_aProgram.clear();
    m_aSets.clear();
    m_iGroups = 0;
    m_iLoops = 0;
    m_bCompiled = false;
    m_bCaseSensitive = bCaseSensitive;
    m_bAnchored = false;
    if (!wszPattern || !*wszPattern) return ZR_PATTERN_NO_PATTERN;
    if (*wszPattern == L'^') {
        m_bAnchored = true;
        wszPattern++;
    }
    try {
        Compiler compiler(m_aProgram, m_aSets, bCaseSensitive);
        compiler.Build(wszPattern);
        m_iGroups = compiler.Groups();
        m_iLoops = compiler.Loops();
    } catch (const CompileError& e) {
        m_aProgram.clear();
        m_aSets.clear();
        m_iGroups = 0;
        return e.m_iCode;
    } catch (const std::bad_alloc&) {
        m_aProgram.clear();
        m_aSets.clear();
        m_iGroups = 0;
        return ZR_PATTERN_NO_MEMORY;
    }
    m_bCompiled = true;
    return ZR_PATTERN_OK;
}

bool ZR_Pattern::SameChar(wchar_t a, wchar_t b) const {
    if (m_bCaseSensitive) return a == b;
    return std::towlower(static_cast<wint_t>(a)) == std::towlower(static_cast<wint_t>(b));
}

bool ZR_Pattern::InSet(const CharSet& set, wchar_t ch) const {
    auto contains = [&set](wchar_t c) {
        for (const Range& r : set.m_aRanges)
            if (c >= r.m_chLow && c <= r.m_chHigh) return true;
        return false;
    };
    bool bIn = contains(ch);
    if (!bIn && !m_bCaseSensitive)
        bIn = contains(static_cast<wchar_t>(std::towlower(static_cast<wint_t>(ch)))) ||
              contains(static_cast<wchar_t>(std::towupper(static_cast<wint_t>(ch))));
    return bIn != set.m_bNegated;
}

bool ZR_Pattern::Match(const wchar_t* wszSubject, ZR_PatternMatch* pMatch, const wchar_t** ppwszEnd) const {
    if (!wszSubject || !m_bCompiled) return false;
    ZR_PatternMatch localMatch;
    if (!pMatch) pMatch = &localMatch;
    intptr_t iLength = static_cast<intptr_t>(std::wcslen(wszSubject));
    // Every start from left to right; the end of the subject is a start only
    // for an empty subject.
    intptr_t iLastStart = m_bAnchored || iLength == 0 ? 0 : iLength - 1;
    for (intptr_t iStart = 0; iStart <= iLastStart; iStart++) {
        if (Run(wszSubject, iLength, iStart, pMatch)) {
            if (ppwszEnd) *ppwszEnd = pMatch->m_pEnd;
            return true;
        }
    }
    return false;
}

// One attempt at one start. Captures and loop registers are changed in
// place; every change pushes the old value, so that backtracking restores it.
bool ZR_Pattern::Run(const wchar_t* s, intptr_t iLength, intptr_t iStart, ZR_PatternMatch* pMatch) const {
    std::vector<ZR_PatternFrame>& stack = pMatch->m_aStack;
    std::vector<intptr_t>& caps = pMatch->m_aCaptures;
    std::vector<intptr_t>& loops = pMatch->m_aLoops;
    stack.clear();
    caps.assign(2 * static_cast<size_t>(m_iGroups), -1);
    loops.assign(m_iLoops, -1);

    intptr_t pos = iStart;
    int pc = 0;
    while (true) {
        const Inst& in = m_aProgram[pc];
        bool bOk = true;
        switch (in.m_iOp) {
            case OP_CHAR:
                bOk = pos < iLength && SameChar(s[pos], static_cast<wchar_t>(in.m_iA));
                if (bOk) pos++, pc++;
                break;
            case OP_ANY:
                bOk = pos < iLength;
                if (bOk) pos++, pc++;
                break;
            case OP_SET:
                bOk = pos < iLength && InSet(m_aSets[in.m_iA], s[pos]);
                if (bOk) pos++, pc++;
                break;
            case OP_BACKREF: {
                intptr_t b = caps[2 * in.m_iA], e = caps[2 * in.m_iA + 1];
                bOk = b >= 0 && e >= b && e - b <= iLength - pos;
                for (intptr_t i = 0; bOk && i < e - b; i++) bOk = SameChar(s[pos + i], s[b + i]);
                if (bOk) pos += e - b, pc++;
                break;
            }
            case OP_END:
                bOk = pos == iLength;
                pc++;
                break;
            case OP_SPLIT:
                stack.push_back({FRAME_BRANCH, in.m_iB, pos});
                pc = in.m_iA;
                break;
            case OP_JMP:
                pc = in.m_iA;
                break;
            case OP_SAVE:
                stack.push_back({FRAME_CAPTURE, in.m_iA, caps[in.m_iA]});
                caps[in.m_iA] = pos;
                pc++;
                break;
            case OP_MARK:
                stack.push_back({FRAME_LOOP, in.m_iA, loops[in.m_iA]});
                loops[in.m_iA] = pos;
                pc++;
                break;
            case OP_CHECK:
                pc = pos == loops[in.m_iA] ? in.m_iB : pc + 1;
                break;
            case OP_LOOK_BEGIN:
                stack.push_back({FRAME_LOOK, in.m_iA, pos});
                pc++;
                break;
            case OP_LOOK_END:
                // The atom matched, so the look-ahead fails: undo what the
                // atom did (its groups are forgotten) and drop its choices.
                while (true) {
                    ZR_PatternFrame f = stack.back();
                    stack.pop_back();
                    if (f.m_iKind == FRAME_LOOK) break;
                    if (f.m_iKind == FRAME_CAPTURE) caps[f.m_iIndex] = f.m_iPos;
                    if (f.m_iKind == FRAME_LOOP) loops[f.m_iIndex] = f.m_iPos;
                }
                bOk = false;
                break;
            case OP_MATCH: {
                pMatch->m_iGroups = m_iGroups;
                pMatch->m_aBounds.assign(caps.size(), nullptr);
                for (size_t i = 0; i < caps.size(); i++)
                    if (caps[i ^ 1] >= 0 && caps[i] >= 0) pMatch->m_aBounds[i] = s + caps[i];
                pMatch->m_pStart = s + iStart;
                pMatch->m_pEnd = s + pos;
                return true;
            }
        }
        if (bOk) continue;
        // Backtrack to the latest choice, restoring what was changed since.
        bool bResumed = false;
        while (!bResumed && !stack.empty()) {
            ZR_PatternFrame f = stack.back();
            stack.pop_back();
            switch (f.m_iKind) {
                case FRAME_CAPTURE: caps[f.m_iIndex] = f.m_iPos; break;
                case FRAME_LOOP: loops[f.m_iIndex] = f.m_iPos; break;
                default:  // a branch, or a look-ahead whose atom failed: go on there
                    pc = f.m_iIndex;
                    pos = f.m_iPos;
                    bResumed = true;
                    break;
            }
        }
        if (!bResumed) return false;
    }
}
