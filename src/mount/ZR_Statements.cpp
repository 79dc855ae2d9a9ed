// The RESTORE statements of a mount and its CREATE DATABASE ... FOR ATTACH.
// SQL Server runs them as they come from here, so every text is fixed to the
// character: names are quoted the one way SQL Server reads them, lines end in
// a single line feed, and the restore of the last backup of the chain is the
// only one that recovers the database.
//
// The statements never name the real backups: each file is named by its
// virtual view on the filter drive, "<drive><key>!<id>.bxk", with an id that
// the view hands out anew for every statement.
#include <cwchar>
#include <string>

#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_VirtualBackupFile.h"
#include "diag/Trace.h"
#include "maps/ZR_CMaps.h"
#include "mount/ZR.h"
#include "platform/win32.h"

namespace {

const wchar_t kNL[] = L"\n";

// Appends wszText between cOpen and cClose, doubling every cClose in it, as
// SQL Server reads a bracketed name ("]") or a string literal ("'").
void AppendQuoted(XString<wchar_t>& strSQL, const wchar_t* wszText, wchar_t cOpen, wchar_t cClose) {
    strSQL += cOpen;
    for (const wchar_t* p = wszText ? wszText : L""; *p; ++p) {
        strSQL += *p;
        if (*p == cClose) strSQL += cClose;
    }
    strSQL += cClose;
}

void AppendFirstLine(XString<wchar_t>& strSQL, const wchar_t* wszDatabase) {
    strSQL += L"RESTORE DATABASE ";
    AppendQuoted(strSQL, wszDatabase, L'[', L']');
    strSQL += L" FROM DISK=";
    strSQL += kNL;
}

// How the names of one backup's files are laid out in its statement.
struct FileListStyle {
    bool bNewLineAfterSeparator;  // ",DISK=" stands on a line of its own
    bool bStopAtNoId;             // an id of 0 ends the statement
};

// Takes a fresh id for each file of the backup and appends its quoted
// virtual name. The count of files is the content map's, which holds every
// stripe of the set. False when an id of 0 ended the list (only when the
// style asks for that test).
bool AppendVirtualFiles(XString<wchar_t>& strSQL, ZR_Backup* pBackup, const wchar_t* wszDrive,
                        const wchar_t* wszKey, const FileListStyle& style) {
    const int iFiles = pBackup && pBackup->m_pCMaps ? pBackup->m_pCMaps->GetNumFiles() : 0;
    for (int i = 0; i < iFiles; ++i) {
        if (i > 0) {
            strSQL += L",DISK=";
            if (style.bNewLineAfterSeparator) strSQL += kNL;
        }
        const uint32_t iId = ZR_VirtualBackupFile::HandleId(pBackup->GetNextHandle(i));
        if (iId == 0 && style.bStopAtNoId) return false;
        XString<wchar_t> strName;
        strName.Format(L"%s%s!%u.bxk", wszDrive ? wszDrive : L"", wszKey ? wszKey : L"", iId);
        AppendQuoted(strSQL, strName, L'\'', L'\'');
        strSQL += kNL;
    }
    return true;
}

// The WITH options the caller gave for statement iStatement (counted from 0),
// each behind a comma and a line feed, in the order they were given.
void AppendWithOptions(XString<wchar_t>& strSQL, ZR_MountInfo* pInfo, size_t iStatement) {
    for (const std::wstring& strOption : pInfo->GetWith(iStatement)) {
        strSQL += L",";
        strSQL += kNL;
        strSQL += strOption.c_str();
    }
}

// A stop at a mark by its name holds only in the log restores: the data
// restores leave it out. The kinds with AFTER are of the same families.
bool IsStopAtMarkName(ZR_StopType_e eType) {
    return eType == ZR_STOP_AT_MARK || eType == ZR_STOP_BEFORE_MARK || eType == ZR_STOP_AT_MARK_AFTER ||
           eType == ZR_STOP_BEFORE_MARK_AFTER;
}

void AppendDate(XString<wchar_t>& strSQL, const ZR_SqlDateTime& dt) {
    const ZR_DateParts d = SqlDateTimeToDate(dt);
    strSQL.AppendFormat(L"%4.4d-%2.2d-%02.2d %02.2d:%02.2d:%02.2d.%03.3d", d.m_iYear, d.m_iMonth, d.m_iDay,
                        d.m_iHour, d.m_iMinute, d.m_iSecond, d.m_iMillisecond);
}

void AppendLsnMark(XString<wchar_t>& strSQL, const wchar_t* wszClause, const LSN& lsn) {
    strSQL.AppendFormat(L"%s='LSN:%d:%d:%d'", wszClause, static_cast<int>(lsn.SeqNo),
                        static_cast<int>(lsn.blockOffset), static_cast<int>(lsn.slotId));
}

// A mark name goes in as the caller wrote it: a quote in it is not doubled.
void AppendNamedMark(XString<wchar_t>& strSQL, const wchar_t* wszClause, const XString<wchar_t>& strMark) {
    strSQL.AppendFormat(L"%s='%s'", wszClause, strMark.GetString());
}

void AppendAfter(XString<wchar_t>& strSQL, const ZR_SqlDateTime& dt) {
    strSQL += L" AFTER '";
    AppendDate(strSQL, dt);
    strSQL += L"'";
}

// The clause of a stop kind; false for a kind that has none.
bool AppendStopClause(XString<wchar_t>& strSQL, const ZR_StopInfo& stop) {
    switch (stop.m_eStopType) {
        case ZR_STOP_AT_TIME:
            strSQL += L"STOPAT='";
            AppendDate(strSQL, stop.m_dtStopAt);
            strSQL += L"'";
            return true;
        case ZR_STOP_AT_LSN: AppendLsnMark(strSQL, L"STOPATMARK", stop.m_lsn); return true;
        case ZR_STOP_AT_LSN_AFTER:
            AppendLsnMark(strSQL, L"STOPATMARK", stop.m_lsn);
            AppendAfter(strSQL, stop.m_dtAfter);
            return true;
        case ZR_STOP_AT_MARK: AppendNamedMark(strSQL, L"STOPATMARK", stop.m_strMark); return true;
        case ZR_STOP_AT_MARK_AFTER:
            AppendNamedMark(strSQL, L"STOPATMARK", stop.m_strMark);
            AppendAfter(strSQL, stop.m_dtAfter);
            return true;
        case ZR_STOP_BEFORE_LSN: AppendLsnMark(strSQL, L"STOPBEFOREMARK", stop.m_lsn); return true;
        case ZR_STOP_BEFORE_LSN_AFTER:
            AppendLsnMark(strSQL, L"STOPBEFOREMARK", stop.m_lsn);
            AppendAfter(strSQL, stop.m_dtAfter);
            return true;
        case ZR_STOP_BEFORE_MARK: AppendNamedMark(strSQL, L"STOPBEFOREMARK", stop.m_strMark); return true;
        case ZR_STOP_BEFORE_MARK_AFTER:
            AppendNamedMark(strSQL, L"STOPBEFOREMARK", stop.m_strMark);
            AppendAfter(strSQL, stop.m_dtAfter);
            return true;
        default: return false;
    }
}

// The physical names of the data files (not the log) as the full backup
// recorded them; a name that does not read is left out, its reason recorded.
void AppendAttachFiles(XString<wchar_t>& strSQL, ZR_Backup* pFull, const wchar_t* wszKey) {
    if (!pFull || !pFull->m_pCMaps) return;
    AP<SQL_FILE_INFO_V7>& aFiles = pFull->m_pCMaps->m_ConfigMSCI.m_Files;
    bool bFirst = true;
    for (int i = 0; i < static_cast<int>(aFiles); ++i) {
        const SQL_FILE_INFO_V7* pFile = aFiles(i);
        if (!pFile || pFile->m_file_type != SQL_FILE_DATABASE) continue;
        std::wstring strPhysical;
        if (!MTF_ReadString(pFile, pFile->m_hdr.m_size, pFile->m_physical_name, MTF_UNICODE_STR, &strPhysical,
                            wszKey))
            continue;
        if (!bFirst) {
            strSQL += L",";
            strSQL += kNL;
        }
        bFirst = false;
        strSQL += L"   (FILENAME = ";
        AppendQuoted(strSQL, strPhysical.c_str(), L'\'', L'\'');
        strSQL += L")";
    }
}

}  // namespace

void ZR::GenRestoreDatabaseFullSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                   const wchar_t* wszKey, XString<wchar_t>& strSQL) {
    AppendFirstLine(strSQL, wszDatabase);
    ZR_Database* pDB = FindDatabase(wszKey);
    if (!pDB) return;
    // A file without a view cannot be named: what stands so far is all.
    if (!AppendVirtualFiles(strSQL, pDB->GetFull(), wszDrive, wszKey, {true, true})) return;
    // Slot 1 is kept empty when logs follow without a differential.
    const bool bMoreFollow = pDB->GetDiff() != nullptr || pDB->GetNumBackups() >= 3;
    strSQL += L"with ";
    strSQL += kNL;
    strSQL += bMoreFollow ? L"norecovery" : L"recovery";
    if (!IsStopAtMarkName(pInfo->m_Stop.m_eStopType)) GenStopAt(pInfo, strSQL, true);
    AppendWithOptions(strSQL, pInfo, 0);
    if (g_iTraceMode) TraceLine("SQL full restore: %S\n", strSQL.GetString());
}

void ZR::GenRestoreDatabaseDiffSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                   const wchar_t* wszKey, XString<wchar_t>& strSQL) {
    AppendFirstLine(strSQL, wszDatabase);
    ZR_Database* pDB = FindDatabase(wszKey);
    if (!pDB) return;
    AppendVirtualFiles(strSQL, pDB->GetDiff(), wszDrive, wszKey, {true, false});
    strSQL += kNL;
    strSQL += pDB->GetNumBackups() >= 3 ? L"with norecovery" : L"with recovery";
    if (!IsStopAtMarkName(pInfo->m_Stop.m_eStopType)) GenStopAt(pInfo, strSQL, true);
    AppendWithOptions(strSQL, pInfo, 1);
    if (g_iTraceMode) TraceLine("SQL diff restore: %S\n", strSQL.GetString());
}

void ZR::GenRestoreDatabaseLogSQL(const wchar_t* wszDatabase, ZR_MountInfo* pInfo, const wchar_t* wszDrive,
                                  const wchar_t* wszKey, unsigned int iLog, XString<wchar_t>& strSQL) {
    AppendFirstLine(strSQL, wszDatabase);
    ZR_Database* pDB = FindDatabase(wszKey);
    if (!pDB) return;
    AppendVirtualFiles(strSQL, pDB->GetBackup(static_cast<int>(iLog) + 2), wszDrive, wszKey, {false, false});
    const bool bLastLog = static_cast<long long>(iLog) + 1 >= pInfo->GetNumberOfLogs();
    strSQL += kNL;
    strSQL += bLastLog ? L"with recovery" : L"with norecovery";
    GenStopAt(pInfo, strSQL, true);
    AppendWithOptions(strSQL, pInfo, iLog + (pInfo->GetDiff() ? 2u : 1u));
    if (g_iTraceMode) TraceLine("SQL log restore: %S\n", strSQL.GetString());
}

void ZR::GenStopAt(ZR_MountInfo* pInfo, XString<wchar_t>& strSQL, bool bWith) {
    XString<wchar_t> strClause;
    if (!AppendStopClause(strClause, pInfo->m_Stop)) return;
    strSQL += bWith ? L", " : L" with ";
    strSQL += kNL;
    strSQL += kNL;
    strSQL += strClause;
}

wchar_t* ZR::GenAttachDatabaseSQL(const wchar_t* wszDatabase, const wchar_t* wszKey) {
    XString<wchar_t> strSQL;
    strSQL += L"CREATE DATABASE ";
    AppendQuoted(strSQL, wszDatabase, L'[', L']');
    strSQL += L" ON";
    strSQL += kNL;
    if (ZR_Database* pDB = FindDatabase(wszKey)) AppendAttachFiles(strSQL, pDB->GetFull(), wszKey);
    strSQL += kNL;
    strSQL += L"   FOR ATTACH";
    strSQL += kNL;
    return _wcsdup(strSQL.GetString());
}
