#include "mount/ZR_StopClause.h"

#include <cstdlib>
#include <cwchar>
#include <cwctype>

#include "foundation/Alloc.h"
#include "foundation/ZR_Pattern.h"
#include "platform/win32.h"

namespace {

enum StopToken_e {
    TOKEN_ERROR,
    TOKEN_END,
    TOKEN_WORD,
    TOKEN_AFTER,
    TOKEN_STOPAT,
    TOKEN_STOPATMARK,
    TOKEN_STOPBEFOREMARK,
    TOKEN_EQUALS,
    TOKEN_LSN,
    TOKEN_DATE,
    TOKEN_MARK,
};

const wchar_t* const s_wszLsnPattern = L"[Ll][Ss][Nn]:[0-9]+:[0-9]+:[0-9]+";
const wchar_t* const s_wszLsnGroupsPattern = L"[Ll][Ss][Nn]:{[0-9]+}:{[0-9]+}:{[0-9]+}";
const wchar_t* const s_wszDateMsPattern =
    L"[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]";
const wchar_t* const s_wszDatePattern =
    L"[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]";

// Unanchored and case-sensitive: a match anywhere in the text counts. The
// pattern is compiled afresh for each text.
bool ContainsPattern(const wchar_t* wszPattern, const wchar_t* wszText) {
    ZR_Pattern pattern;
    if (pattern.Compile(wszPattern, true) != 0) return false;
    ZR_PatternMatch match(256);
    return pattern.Match(wszText, &match, nullptr);
}

// Walks the clause with one character of look-ahead. The current token's
// text is a counted heap block that grows by a quarter; a caller that keeps
// it takes it over with TakeText.
class StopTokenizer {
public:
    explicit StopTokenizer(const wchar_t* wszText) : m_pwsz(wszText) {}
    ~StopTokenizer() { DropText(); }
    StopTokenizer(const StopTokenizer&) = delete;
    StopTokenizer& operator=(const StopTokenizer&) = delete;

    StopToken_e Next();
    wchar_t* TakeText() {
        wchar_t* wsz = m_wszText;
        m_wszText = nullptr;
        m_iLength = 0;
        m_cbAlloc = 0;
        return wsz;
    }

private:
    void DropText() {
        void* p = m_wszText;
        Free(&p, &m_cbAlloc);
        m_wszText = nullptr;
        m_iLength = 0;
    }
    void AppendChar(wchar_t ch) {
        m_wszText = static_cast<wchar_t*>(
            Realloc(m_wszText, static_cast<unsigned>((m_iLength + 2) * sizeof(wchar_t)), &m_cbAlloc));
        m_wszText[m_iLength++] = ch;
        m_wszText[m_iLength] = 0;
    }
    static bool IsWordStart(wchar_t ch) { return iswalpha(ch) || ch == L'_' || ch == L'#'; }
    static bool IsWordChar(wchar_t ch) { return IsWordStart(ch) || iswdigit(ch); }
    StopToken_e ReadWord();
    StopToken_e ReadQuoted();

    const wchar_t* m_pwsz;
    wchar_t* m_wszText = nullptr;
    unsigned m_iLength = 0;
    unsigned m_cbAlloc = 0;
};

StopToken_e StopTokenizer::Next() {
    DropText();
    while (*m_pwsz == L' ') ++m_pwsz;
    const wchar_t ch = *m_pwsz;
    if (ch == 0) return TOKEN_END;
    if (IsWordStart(ch)) return ReadWord();
    if (ch == L'=') {
        ++m_pwsz;
        return TOKEN_EQUALS;
    }
    if (ch == L'\'') return ReadQuoted();
    return TOKEN_ERROR;
}

StopToken_e StopTokenizer::ReadWord() {
    while (IsWordChar(*m_pwsz)) AppendChar(*m_pwsz++);
    static const struct {
        const wchar_t* wszWord;
        StopToken_e eToken;
    } s_aKeywords[] = {
        {L"AFTER", TOKEN_AFTER},
        {L"STOPAT", TOKEN_STOPAT},
        {L"STOPATMARK", TOKEN_STOPATMARK},
        {L"STOPBEFOREMARK", TOKEN_STOPBEFOREMARK},
    };
    for (const auto& keyword : s_aKeywords)
        if (_wcsicmp(m_wszText, keyword.wszWord) == 0) return keyword.eToken;
    return TOKEN_WORD;
}

StopToken_e StopTokenizer::ReadQuoted() {
    ++m_pwsz;  // the opening quote
    for (;;) {
        const wchar_t ch = *m_pwsz;
        if (ch == 0) return TOKEN_ERROR;
        ++m_pwsz;
        if (ch == L'\'') {
            if (*m_pwsz != L'\'') break;
            ++m_pwsz;  // a doubled quote stands for one
        }
        AppendChar(ch);
    }
    if (m_iLength == 0) return TOKEN_ERROR;
    if (ContainsPattern(s_wszLsnPattern, m_wszText)) return TOKEN_LSN;
    if (ContainsPattern(s_wszDateMsPattern, m_wszText) || ContainsPattern(s_wszDatePattern, m_wszText))
        return TOKEN_DATE;
    return TOKEN_MARK;
}

// What the grammar accepted: the kind and the texts it took over.
struct StopParse {
    ZR_StopType_e eKind = ZR_STOP_UNDEFINED;
    wchar_t* wszDate = nullptr;
    wchar_t* wszLsn = nullptr;
    wchar_t* wszMark = nullptr;
    ~StopParse() {
        free(wszDate);
        free(wszLsn);
        free(wszMark);
    }
};

// STOPAT = date
ZR_StopType_e ParseStopAt(StopTokenizer& tokens, StopParse& parse) {
    if (tokens.Next() != TOKEN_EQUALS || tokens.Next() != TOKEN_DATE) return ZR_STOP_UNDEFINED;
    parse.wszDate = tokens.TakeText();
    return tokens.Next() == TOKEN_END ? ZR_STOP_AT_TIME : ZR_STOP_UNDEFINED;
}

// K = lsn|mark [AFTER date]. The kinds of one keyword run in the order lsn,
// lsn after, mark, mark after from its first kind.
ZR_StopType_e ParseStopMark(StopTokenizer& tokens, StopParse& parse, int iFirstKind) {
    if (tokens.Next() != TOKEN_EQUALS) return ZR_STOP_UNDEFINED;
    int iKind = iFirstKind;
    switch (tokens.Next()) {
        case TOKEN_LSN: parse.wszLsn = tokens.TakeText(); break;
        case TOKEN_MARK:
            parse.wszMark = tokens.TakeText();
            iKind += 2;
            break;
        default: return ZR_STOP_UNDEFINED;
    }
    StopToken_e eToken = tokens.Next();
    if (eToken == TOKEN_AFTER) {
        if (tokens.Next() != TOKEN_DATE) return ZR_STOP_UNDEFINED;
        parse.wszDate = tokens.TakeText();
        iKind += 1;
        eToken = tokens.Next();
    }
    return eToken == TOKEN_END ? static_cast<ZR_StopType_e>(iKind) : ZR_STOP_UNDEFINED;
}

ZR_StopType_e ParseGrammar(const wchar_t* wszClause, StopParse& parse) {
    StopTokenizer tokens(wszClause);
    switch (tokens.Next()) {
        case TOKEN_STOPAT: return ParseStopAt(tokens, parse);
        case TOKEN_STOPATMARK: return ParseStopMark(tokens, parse, ZR_STOP_AT_LSN);
        case TOKEN_STOPBEFOREMARK: return ParseStopMark(tokens, parse, ZR_STOP_BEFORE_LSN);
        default: return ZR_STOP_UNDEFINED;
    }
}

bool IsAfterKind(ZR_StopType_e eKind) {
    return eKind == ZR_STOP_AT_LSN_AFTER || eKind == ZR_STOP_AT_MARK_AFTER || eKind == ZR_STOP_BEFORE_LSN_AFTER ||
           eKind == ZR_STOP_BEFORE_MARK_AFTER;
}

// Reads fields of ASCII digits as the scan formats leave them.
int ReadNumberField(const char* sz) { return atoi(sz); }

}  // namespace

bool ParseLsnText(const wchar_t* wszText, LSN* pLsn) {
    ZR_Pattern pattern;
    if (pattern.Compile(s_wszLsnGroupsPattern, true) != 0) return false;
    ZR_PatternMatch match(256);
    if (!pattern.Match(wszText, &match, nullptr)) return false;
    uint32_t aiValues[3];
    for (unsigned iGroup = 0; iGroup < 3; ++iGroup) {
        const wchar_t* pStart = nullptr;
        const wchar_t* pEnd = nullptr;
        match.GetGroup(iGroup, &pStart, &pEnd);
        // A group keeps 15 digits at most; longer numbers are cut there.
        wchar_t wszDigits[16] = {};
        size_t iCount = (pStart && pEnd && pEnd > pStart) ? static_cast<size_t>(pEnd - pStart) : 0;
        if (iCount > 15) iCount = 15;
        wmemcpy(wszDigits, pStart ? pStart : L"", iCount);
        aiValues[iGroup] = static_cast<uint32_t>(_wtoi(wszDigits));
    }
    pLsn->SeqNo = aiValues[0];
    pLsn->blockOffset = aiValues[1];
    pLsn->slotId = static_cast<uint16_t>(aiValues[2] & 0xFFFF);
    return true;
}

bool ParseDateText(const wchar_t* wszText, ZR_DateParts* pDate) {
    static const struct {
        const wchar_t* wszFormat;
        int iFields;
    } s_aFormats[] = {
        {L"%4[0-9]-%2[0-9]-%2[0-9] %2[0-9]:%2[0-9]:%2[0-9].%3[0-9]", 7},
        {L"%4[0-9]-%2[0-9]-%2[0-9] %2[0-9]-%2[0-9]-%2[0-9].%3[0-9]", 7},
        {L"%4[0-9]-%2[0-9]-%2[0-9] %2[0-9]:%2[0-9]:%2[0-9]", 6},
        {L"%4[0-9]-%2[0-9]-%2[0-9] %2[0-9]-%2[0-9]-%2[0-9]", 6},
    };
    for (const auto& format : s_aFormats) {
        // %[ of the wide scan stores narrow text: the fields hold digits only.
        char aszFields[7][8] = {};
        const int iRead = swscanf(wszText, format.wszFormat, aszFields[0], aszFields[1], aszFields[2], aszFields[3],
                                  aszFields[4], aszFields[5], aszFields[6]);
        if (iRead != format.iFields) continue;
        pDate->m_iYear = ReadNumberField(aszFields[0]);
        pDate->m_iMonth = ReadNumberField(aszFields[1]);
        pDate->m_iDay = ReadNumberField(aszFields[2]);
        pDate->m_iHour = ReadNumberField(aszFields[3]);
        pDate->m_iMinute = ReadNumberField(aszFields[4]);
        pDate->m_iSecond = ReadNumberField(aszFields[5]);
        pDate->m_iMillisecond = ReadNumberField(aszFields[6]);
        return true;
    }
    return false;
}

bool ParseStopClause(const wchar_t* wszClause, ZR_StopInfo* pStop) {
    StopParse parse;
    ZR_StopType_e eKind = ParseGrammar(wszClause, parse);

    // A date text that no scan form reads from its start (the classifier
    // found the date further in), or whose month lies outside the calendar,
    // names no point in time: such a clause fails.
    ZR_SqlDateTime dt = {0, 0};
    if (eKind != ZR_STOP_UNDEFINED && parse.wszDate) {
        ZR_DateParts date{};
        if (!ParseDateText(parse.wszDate, &date) || !DateToSqlDateTime(date, &dt)) eKind = ZR_STOP_UNDEFINED;
    }

    pStop->m_eStopType = eKind;
    if (eKind == ZR_STOP_UNDEFINED) return false;
    if (eKind == ZR_STOP_AT_TIME) pStop->m_dtStopAt = dt;
    if (IsAfterKind(eKind)) pStop->m_dtAfter = dt;
    if (parse.wszLsn) ParseLsnText(parse.wszLsn, &pStop->m_lsn);
    if (parse.wszMark) pStop->m_strMark = XString<wchar_t>(parse.wszMark);
    return true;
}
