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

std::string Lsn(const LSN& l) {
    return std::to_string(l.SeqNo) + ":" + std::to_string(l.blockOffset) + ":" + std::to_string(l.slotId);
}

std::string Date(const MTF_DATE_TIME& d) {
    SYSTEMTIME st;
    if (!MTF_DecodeDateTime(d, &st))
        return "";
    char sz[32];
    std::snprintf(sz, sizeof sz, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear % 10000u, st.wMonth % 100u,
                  st.wDay % 100u, st.wHour % 100u, st.wMinute % 100u, st.wSecond % 100u);
    return sz;
}

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

std::string Json(const std::wstring& ws) {
    std::string out = "\"";
    for (char c : ZirlaneUtf8(ws)) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char sz[8];
            std::snprintf(sz, sizeof sz, "\\u%04x", c);
            out += sz;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string Json(const std::string& s) { return Json(ZirlaneWide(s)); }

void PrintText(const SQL_ConfigRecords& c, int iDataSet, int iStripes) {
    std::printf("Backup type:           %s\n", TypeName(c.m_iBackupType));
    std::printf("Server version:        %d (%s), build %s\n", c.m_iVersion, ZR_ServerVersionName(c.m_iVersion),
                Build(c.m_iServerVersion).c_str());
    std::printf("Database:              %s\n", ZirlaneUtf8(c.m_wsDatabaseName).c_str());
    std::printf("Server:                %s\n", ZirlaneUtf8(c.m_wsServerName).c_str());
    std::printf("First LSN:             %s\n", Lsn(c.m_firstLsn).c_str());
    std::printf("Last LSN:              %s\n", Lsn(c.m_lastLsn).c_str());
    std::printf("Checkpoint LSN:        %s\n", Lsn(c.m_checkpointLsn).c_str());
    std::printf("Differential base LSN: %s\n", Lsn(c.m_differentialBaseLsn).c_str());
    std::printf("Backup start:          %s\n", Date(c.m_backupStart).c_str());
    std::printf("Backup finish:         %s\n", Date(c.m_backupFinish).c_str());
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
                TypeName(c.m_iBackupType), c.m_iVersion, Json(Build(c.m_iServerVersion)).c_str(),
                Json(c.m_wsDatabaseName).c_str(), Json(c.m_wsServerName).c_str());
    std::printf("\"first_lsn\": \"%s\", \"last_lsn\": \"%s\", \"checkpoint_lsn\": \"%s\", "
                "\"differential_base_lsn\": \"%s\", ",
                Lsn(c.m_firstLsn).c_str(), Lsn(c.m_lastLsn).c_str(), Lsn(c.m_checkpointLsn).c_str(),
                Lsn(c.m_differentialBaseLsn).c_str());
    std::printf("\"start\": %s, \"finish\": %s, \"data_set\": %d, \"stripes\": %d, \"files\": [",
                Json(Date(c.m_backupStart)).c_str(), Json(Date(c.m_backupFinish)).c_str(), iDataSet, iStripes);
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

int RunInfo(const InfoOptions& o) {
    if (!ZirlaneUseMapFolder(o.mapFolder)) {
        std::fprintf(stderr, "The map folder name is too long: %s\n", o.mapFolder.c_str());
        return ZIRLANE_EXIT_FAILED;
    }
    ZR_Backup backup(nullptr);
    backup.SetDataSetNumber(o.iDataSet);
    for (const std::string& f : o.files)
        backup.AddFile(ZirlaneWide(f).c_str(), nullptr, false);
    int32_t iVersion = 0;
    SQL_ConfigRecords config;
    if (!backup.PrepareContent(&iVersion) || !backup.m_pCMaps->m_ConfigMSCI.Describe(&config, nullptr)) {
        ZirlanePrintErrors();
        return ZIRLANE_EXIT_FAILED;
    }
    // The finish of the backup is known only at its end: the closing
    // configuration has it.
    SQL_ConfigRecords closing;
    if (MTF_IsNoDate(config.m_backupFinish) && backup.m_pCMaps->m_ConfigMSLS.Describe(&closing, nullptr))
        config.m_backupFinish = closing.m_backupFinish;
    int iStripes = backup.m_pCMaps->GetRequiredFiles();
    if (o.bJson)
        PrintJson(config, backup.GetDataSetNumber(), iStripes);
    else
        PrintText(config, backup.GetDataSetNumber(), iStripes);
    return ZIRLANE_EXIT_OK;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<InfoOptions>();
    CLI::App* cmd = app.add_subcommand("info", "What a backup holds: type, version, database, LSNs, dates, files");
    cmd->add_option("--data-set", pOptions->iDataSet, "Number of the data set in the files (from 1)")
        ->check(CLI::PositiveNumber);
    ZirlaneAddMapFolderOption(*cmd, &pOptions->mapFolder);
    cmd->add_flag("--json", pOptions->bJson, "One JSON object instead of text");
    cmd->add_option("FILE", pOptions->files, "The files of one backup (the stripes, in any order)")
        ->required()
        ->check(CLI::ExistingFile);
    cmd->callback([pOptions, piExit] { *piExit = RunInfo(*pOptions); });
}
