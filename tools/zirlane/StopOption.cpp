#include "StopOption.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "Commands.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "engine/ZR_Database.h"
#include "mount/ZR_StopClause.h"

namespace {

const char* const kForms =
    "expected STOPAT='yyyy-mm-dd hh:mm:ss[.fff]', or STOPATMARK= or STOPBEFOREMARK= with 'lsn:n:n:n' or a mark "
    "name, optionally followed by AFTER 'yyyy-mm-dd hh:mm:ss'; the quotes may be left out";

std::string Trim(const std::string& s) {
    const size_t iFirst = s.find_first_not_of(' ');
    if (iFirst == std::string::npos) return {};
    return s.substr(iFirst, s.find_last_not_of(' ') - iFirst + 1);
}

// A quoted text of the clause: a quote inside is doubled.
std::string Quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("''") : std::string(1, c);
    return q + "'";
}

// The place of " AFTER " in an unquoted value, case ignored; npos if none.
size_t FindAfter(const std::string& value) {
    std::string lower = value;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.find(" after ");
}

std::string QuoteClause(const std::string& typed) {
    const size_t iEquals = typed.find('=');
    if (iEquals == std::string::npos) return typed;
    std::string value = Trim(typed.substr(iEquals + 1));
    if (value.empty() || value.front() == '\'') return typed;
    std::string after;
    if (const size_t iAfter = FindAfter(value); iAfter != std::string::npos) {
        after = Trim(value.substr(iAfter + 7));
        value = Trim(value.substr(0, iAfter));
    }
    std::string clause = Trim(typed.substr(0, iEquals)) + "=" + Quoted(value);
    if (!after.empty()) clause += " AFTER " + (after.front() == '\'' ? after : Quoted(after));
    return clause;
}

// Days, then ticks: the order of points in time.
bool Before(const ZR_SqlDateTime& a, const ZR_SqlDateTime& b) {
    return a.m_iDays != b.m_iDays ? a.m_iDays < b.m_iDays : a.m_iTicks < b.m_iTicks;
}

bool ToSqlDateTime(const MTF_DATE_TIME& date, ZR_SqlDateTime* pdt) {
    SYSTEMTIME st;
    if (!MTF_DecodeDateTime(date, &st)) return false;
    ZR_DateParts parts{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
    return DateToSqlDateTime(parts, pdt);
}

bool IsLsnStop(ZR_StopType_e e) {
    return e == ZR_STOP_AT_LSN || e == ZR_STOP_AT_LSN_AFTER || e == ZR_STOP_BEFORE_LSN ||
           e == ZR_STOP_BEFORE_LSN_AFTER;
}

ZR_Backup* LastBackup(ZR_Database& db) {
    for (int i = db.GetNumBackups() - 1; i >= 0; --i)
        if (ZR_Backup* p = db.GetBackup(i)) return p;
    return nullptr;
}

void WarnBefore(const std::string& bound) {
    std::fprintf(stderr, "Warning: the stop point lies before the end of the full backup (%s), which RESTORE refuses.\n",
                 bound.c_str());
}

void WarnAfter(const std::string& bound) {
    std::fprintf(stderr, "Warning: the stop point lies after the end of the chain (%s): RESTORE applies every backup "
                         "and leaves the database restoring.\n",
                 bound.c_str());
}

void WarnTime(const ZR_SqlDateTime& stop, const SQL_ConfigRecords& first, const SQL_ConfigRecords& last) {
    ZR_SqlDateTime start{}, end{};
    if (!ToSqlDateTime(first.m_backupFinish, &start) || !ToSqlDateTime(last.m_backupFinish, &end)) return;
    if (Before(stop, start)) WarnBefore(ZirlaneDate(first.m_backupFinish));
    if (Before(end, stop)) WarnAfter(ZirlaneDate(last.m_backupFinish));
}

void WarnLsn(const LSN& stop, const SQL_ConfigRecords& first, const SQL_ConfigRecords& last) {
    if (stop < first.m_lastLsn) WarnBefore("LSN " + ZirlaneLsn(first.m_lastLsn));
    if (last.m_lastLsn < stop) WarnAfter("LSN " + ZirlaneLsn(last.m_lastLsn));
}

}  // namespace

ZR_StopInfo ZirlaneParseStop(const std::string& typed, std::string* pClause) {
    *pClause = QuoteClause(typed);
    ZR_StopInfo stop;
    if (!ParseStopClause(ZirlaneWide(*pClause).c_str(), &stop))
        ZirlaneUsageError("--stop", "\"" + typed + "\" is not understood: " + kForms);
    return stop;
}

void ZirlaneWarnStopOutsideChain(const ZR_StopInfo& stop, ZR_Database& db) {
    ZR_Backup* pFull = db.GetFull();
    ZR_Backup* pLast = LastBackup(db);
    SQL_ConfigRecords first, last;
    if (!pFull || !pLast || !ZirlaneDescribe(*pFull, &first) || !ZirlaneDescribe(*pLast, &last)) return;
    if (stop.m_eStopType == ZR_STOP_AT_TIME) WarnTime(stop.m_dtStopAt, first, last);
    if (IsLsnStop(stop.m_eStopType)) WarnLsn(stop.m_lsn, first, last);
}
