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
