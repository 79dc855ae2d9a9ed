// The backups of the command line as the library's objects, and what their
// configurations say, in the forms that the tool prints.
#include <cstdio>

#include "Commands.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "maps/ZR_CMaps.h"

std::unique_ptr<ZR_Backup> ZirlaneNewBackup(const std::vector<std::string>& aFiles, int iDataSet) {
    auto pBackup = std::make_unique<ZR_Backup>(nullptr);
    pBackup->SetDataSetNumber(iDataSet);
    for (const std::string& file : aFiles) pBackup->AddFile(ZirlaneWide(file).c_str(), nullptr, false);
    return pBackup;
}

bool ZirlaneDescribe(ZR_Backup& backup, SQL_ConfigRecords* pConfig) {
    if (!backup.m_pCMaps->m_ConfigMSCI.Describe(pConfig, backup.GetKey())) return false;
    // The finish of the backup is known only at its end: the closing
    // configuration has it.
    ZR_ConfigInfo& closingInfo = backup.m_pCMaps->m_ConfigMSLS;
    SQL_ConfigRecords closing;
    if (MTF_IsNoDate(pConfig->m_backupFinish) && closingInfo.m_pConfig &&
        closingInfo.Describe(&closing, backup.GetKey()))
        pConfig->m_backupFinish = closing.m_backupFinish;
    return true;
}

std::string ZirlaneLsn(const LSN& lsn) {
    return std::to_string(lsn.SeqNo) + ":" + std::to_string(lsn.blockOffset) + ":" + std::to_string(lsn.slotId);
}

std::string ZirlaneDate(const MTF_DATE_TIME& date) {
    SYSTEMTIME st;
    if (!MTF_DecodeDateTime(date, &st)) return "";
    char sz[32];
    std::snprintf(sz, sizeof sz, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear % 10000u, st.wMonth % 100u,
                  st.wDay % 100u, st.wHour % 100u, st.wMinute % 100u, st.wSecond % 100u);
    return sz;
}

bool ZirlaneDiffBelongsToFull(const SQL_ConfigRecords& full, const SQL_ConfigRecords& diff) {
    if (diff.m_differentialBaseLsn == full.m_checkpointLsn) return true;
    return ZirlaneFail(__FILE__, __LINE__,
                       "The differential backup (base LSN %s) was not taken over this full backup (checkpoint LSN "
                       "%s).\n",
                       ZirlaneLsn(diff.m_differentialBaseLsn).c_str(), ZirlaneLsn(full.m_checkpointLsn).c_str());
}

// A log restores over a database whose last LSN lies within the log's
// LSNs; each next log starts where the one before ended.
bool ZirlaneLogsFollow(const SQL_ConfigRecords& data, const std::vector<SQL_ConfigRecords>& aLogs) {
    LSN end = data.m_lastLsn;
    for (size_t i = 0; i < aLogs.size(); ++i) {
        const SQL_ConfigRecords& log = aLogs[i];
        const bool bFollows = i == 0 ? !(end < log.m_firstLsn) && !(log.m_lastLsn < end) : log.m_firstLsn == end;
        if (!bFollows)
            return ZirlaneFail(__FILE__, __LINE__,
                               "Log backup %d (LSNs %s to %s) does not follow the backup before it, which ends at "
                               "LSN %s: the backups do not form a chain.\n",
                               static_cast<int>(i + 1), ZirlaneLsn(log.m_firstLsn).c_str(),
                               ZirlaneLsn(log.m_lastLsn).c_str(), ZirlaneLsn(end).c_str());
        end = log.m_lastLsn;
    }
    return true;
}
