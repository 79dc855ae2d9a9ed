// zirlane info: what a backup holds, from its content map, the way a
// database administrator asks a backup for its header and file list.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "maps/ZR_CMaps.h"

namespace {

struct InfoOptions {
    int iDataSet = 1;
    std::string mapFolder;
    bool bJson = false;
    std::vector<std::string> files;
};

const char* TypeName(uint8_t iType) {
    switch (iType) {
    case SQL_BTYPE_DATABASE: return "full";
    case SQL_BTYPE_DIFFERENTIAL: return "differential";
    case SQL_BTYPE_LOG: return "log";
    default: return "other";
    }
}

const char* FileTypeName(uint32_t iType) {
    switch (iType) {
    case SQL_FILE_DATABASE: return "data";
    case SQL_FILE_PHYSICAL_LOG: return "log";
    case SQL_FILE_FULLTEXT_ROOT: return "fulltext";
    case SQL_FILE_FSTREAM_ROOT: return "filestream";
    default: return "other";
    }
}

// Major.minor.build from the packed server version.
std::string Build(uint32_t iServerVersion) {
    return std::to_string(iServerVersion >> 24) + "." + std::to_string((iServerVersion >> 16) & 0xFF) + "." +
           std::to_string(iServerVersion & 0xFFFF);
}

std::string Json(const std::wstring& ws) { return ZirlaneJson(ZirlaneUtf8(ws)); }

// The LSN at offset 62 of the configuration is the base of a differential;
// in a full or log backup the same field holds the checkpoint of the last
// full backup, which T-SQL calls the database backup LSN.
const char* BaseLsnLabel(const SQL_ConfigRecords& c) {
    return c.m_iBackupType == SQL_BTYPE_DIFFERENTIAL ? "Differential base LSN" : "Database backup LSN";
}

const char* BaseLsnKey(const SQL_ConfigRecords& c) {
    return c.m_iBackupType == SQL_BTYPE_DIFFERENTIAL ? "differential_base_lsn" : "database_backup_lsn";
}

void PrintText(const SQL_ConfigRecords& c, int iDataSet, int iStripes) {
    std::printf("Backup type:           %s\n", TypeName(c.m_iBackupType));
    std::printf("Server version:        %d (%s), build %s\n", c.m_iVersion, ZR_ServerVersionName(c.m_iVersion),
                Build(c.m_iServerVersion).c_str());
    std::printf("Database:              %s\n", ZirlaneUtf8(c.m_wsDatabaseName).c_str());
    std::printf("Server:                %s\n", ZirlaneUtf8(c.m_wsServerName).c_str());
    std::printf("First LSN:             %s\n", ZirlaneLsn(c.m_firstLsn).c_str());
    std::printf("Last LSN:              %s\n", ZirlaneLsn(c.m_lastLsn).c_str());
    std::printf("Checkpoint LSN:        %s\n", ZirlaneLsn(c.m_checkpointLsn).c_str());
    std::printf("%-23s%s\n", (std::string(BaseLsnLabel(c)) + ":").c_str(), ZirlaneLsn(c.m_differentialBaseLsn).c_str());
    std::printf("Backup start:          %s\n", ZirlaneDate(c.m_backupStart).c_str());
    std::printf("Backup finish:         %s\n", ZirlaneDate(c.m_backupFinish).c_str());
    std::printf("Data set:              %d\n", iDataSet);
    std::printf("Stripes:               %d\n", iStripes);
    std::printf("Files:\n  %4s  %-5s  %14s  %-24s  %s\n", "id", "type", "size", "logical name", "physical name");
    for (const SQL_FileEntry& f : c.m_aFiles)
        std::printf("  %4u  %-5s  %14llu  %-24s  %s\n", f.m_iFileId, FileTypeName(f.m_iType),
                    static_cast<unsigned long long>(f.m_iSize), ZirlaneUtf8(f.m_wsLogicalName).c_str(),
                    ZirlaneUtf8(f.m_wsPhysicalName).c_str());
}

void PrintJson(const SQL_ConfigRecords& c, int iDataSet, int iStripes) {
    std::printf("{\"type\": \"%s\", \"version\": %d, \"build\": %s, \"database\": %s, \"server\": %s, ",
                TypeName(c.m_iBackupType), c.m_iVersion, ZirlaneJson(Build(c.m_iServerVersion)).c_str(),
                Json(c.m_wsDatabaseName).c_str(), Json(c.m_wsServerName).c_str());
    std::printf("\"first_lsn\": \"%s\", \"last_lsn\": \"%s\", \"checkpoint_lsn\": \"%s\", \"%s\": \"%s\", ",
                ZirlaneLsn(c.m_firstLsn).c_str(), ZirlaneLsn(c.m_lastLsn).c_str(), ZirlaneLsn(c.m_checkpointLsn).c_str(),
                BaseLsnKey(c), ZirlaneLsn(c.m_differentialBaseLsn).c_str());
    std::printf("\"start\": %s, \"finish\": %s, \"data_set\": %d, \"stripes\": %d, \"files\": [",
                ZirlaneJson(ZirlaneDate(c.m_backupStart)).c_str(), ZirlaneJson(ZirlaneDate(c.m_backupFinish)).c_str(),
                iDataSet, iStripes);
    const char* szSep = "";
    for (const SQL_FileEntry& f : c.m_aFiles) {
        std::printf("%s{\"file_id\": %u, \"logical_name\": %s, \"physical_name\": %s, \"type\": \"%s\", "
                    "\"size\": %llu}",
                    szSep, f.m_iFileId, Json(f.m_wsLogicalName).c_str(), Json(f.m_wsPhysicalName).c_str(),
                    FileTypeName(f.m_iType), static_cast<unsigned long long>(f.m_iSize));
        szSep = ", ";
    }
    std::printf("]}\n");
}

bool RunInfo(const InfoOptions& o) {
    if (!ZirlaneUseMapFolder(o.mapFolder)) return false;
    std::unique_ptr<ZR_Backup> backup = ZirlaneNewBackup(o.files, o.iDataSet);
    int32_t iVersion = 0;
    SQL_ConfigRecords config;
    if (!backup->PrepareContent(&iVersion) || !ZirlaneDescribe(*backup, &config)) return false;
    int iStripes = backup->m_pCMaps->GetRequiredFiles();
    if (o.bJson)
        PrintJson(config, backup->GetDataSetNumber(), iStripes);
    else
        PrintText(config, backup->GetDataSetNumber(), iStripes);
    return true;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<InfoOptions>();
    CLI::App* cmd = app.add_subcommand("info", "What a backup holds: type, version, database, LSNs, dates, files");
    ZirlaneAddDataSetOption(*cmd, &pOptions->iDataSet, "Number of the data set in the files (from 1)");
    ZirlaneAddMapFolderOption(*cmd, &pOptions->mapFolder);
    cmd->add_flag("--json", pOptions->bJson, "One JSON object instead of text");
    cmd->add_option("FILE", pOptions->files, "The files of one backup (the stripes, in any order)")->required();
    cmd->callback([pOptions, piExit] { *piExit = ZirlaneFinish(RunInfo(*pOptions)); });
}
