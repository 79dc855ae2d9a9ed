// zirlane statements: mounts a chain of backups and prints what SQL Server
// would run to restore it from the mount's virtual backup files, one RESTORE
// statement per backup in order, then the CREATE DATABASE ... FOR ATTACH of
// the data files.
//
// The mount is made by the library object itself, without the driver: the
// statements need no driver, only a mount that stands. The names that they
// print are those of this process's mount, so the text shows what a service
// would hand out rather than something to run later.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "diag/ZR_Error.h"
#include "mount/ZR.h"
#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

struct StatementsOptions {
    std::string database;
    std::string drive = "C:\\";
    std::string key;
    std::string mapFolder;
    std::vector<std::string> aFull;
    std::vector<std::string> aDiff;
    std::vector<std::vector<std::string>> aLogs;  // one entry per --log, with its files
    std::string stop;
    std::vector<std::string> aWith;  // N:OPTION, N counted from 1 (the full backup)
};

void AddBackup(ZR_MountInfo* pInfo, int iType, const wchar_t* wszTypeName, const std::vector<std::string>& aFiles) {
    BuildBackupInfoFromSet(pInfo, iType, 1, nullptr, nullptr);
    for (const std::string& file : aFiles) AddBackupSetFilename(pInfo, wszTypeName, ZirlaneWide(file).c_str());
}

// Splits N:OPTION; false for a text without a number from 1 before the colon.
bool ParseWith(const std::string& text, int* piStatement, std::string* pOption) {
    const size_t iColon = text.find(':');
    if (iColon == std::string::npos || iColon == 0) return false;
    char* pEnd = nullptr;
    const long iNumber = std::strtol(text.c_str(), &pEnd, 10);
    if (pEnd != text.c_str() + iColon || iNumber < 1 || iNumber > 100000) return false;
    *piStatement = static_cast<int>(iNumber);
    *pOption = text.substr(iColon + 1);
    return true;
}

// Fills the request from the options; false, with a message, for an option
// the library would not understand.
bool BuildRequest(ZR_MountInfo* pInfo, const StatementsOptions& options) {
    AddBackup(pInfo, ZR_BACKUP_FULL, L"Full", options.aFull);
    if (!options.aDiff.empty()) AddBackup(pInfo, ZR_BACKUP_DIFF, L"Diff", options.aDiff);
    for (const auto& aLog : options.aLogs) AddBackup(pInfo, ZR_BACKUP_LOG, L"Log", aLog);
    SetTargetDatabase(pInfo, ZirlaneWide(options.database).c_str());
    SetFilterDrive(pInfo, ZirlaneWide(options.drive).c_str());
    if (!options.key.empty()) SetMountKey(pInfo, ZirlaneWide(options.key).c_str());
    if (!options.stop.empty() && !SetStop(pInfo, ZirlaneWide(options.stop).c_str())) {
        std::fprintf(stderr, "The stop clause is not understood: %s\n", options.stop.c_str());
        return false;
    }
    for (const std::string& with : options.aWith) {
        int iStatement = 0;
        std::string option;
        if (!ParseWith(with, &iStatement, &option)) {
            std::fprintf(stderr, "--with needs N:OPTION with N from 1 (the full backup): %s\n", with.c_str());
            return false;
        }
        AddWith(pInfo, iStatement, ZirlaneWide(option).c_str());
    }
    return true;
}

// The errors of the mount's key come with those that no mount owns (the
// mount's own); without a key there are only the latter.
void PrintErrors(const wchar_t* wszKey) {
    if (!wszKey) {
        ZirlanePrintErrors();
        return;
    }
    if (wchar_t* wsz = ZR_ReadErrors(wszKey)) {
        std::fputs(ZirlaneUtf8(wsz).c_str(), stderr);
        free(wsz);
    }
    ZR_ClearErrors(wszKey);
}

// Each statement as GetSQL hands it out, with room for ids that grow a digit
// between the size and the copy.
void PrintStatements(ZR_MountInfo* pInfo) {
    const int iCount = GetNumSQL(pInfo);
    for (int i = 0; i < iCount; ++i) {
        const int iSize = GetSQLSize(pInfo, static_cast<unsigned>(i));
        std::vector<wchar_t> buffer(static_cast<size_t>(iSize) + 64, L'\0');
        GetSQL(pInfo, static_cast<unsigned>(i), buffer.data(), static_cast<unsigned>(buffer.size() - 1));
        std::printf("%s\n\n", ZirlaneUtf8(buffer.data()).c_str());
    }
}

int RunStatements(const StatementsOptions& options) {
    if (!ZirlaneUseMapFolder(options.mapFolder)) {
        std::fprintf(stderr, "The map folder name is too long: %s\n", options.mapFolder.c_str());
        return ZIRLANE_EXIT_FAILED;
    }
    ZR::Initialize();
    ZR_MountInfo* pInfo = AllocateMountInfo();
    if (!BuildRequest(pInfo, options)) {
        FreeMountInfo(pInfo);
        return ZIRLANE_EXIT_FAILED;
    }
    wchar_t* wszKey = nullptr;
    int iExit = ZIRLANE_EXIT_OK;
    if (ZR::GetZR()->Mount(pInfo, &wszKey)) {
        PrintStatements(pInfo);
        wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(pInfo->GetTargetDatabase(), wszKey);
        std::fputs(ZirlaneUtf8(wszAttach).c_str(), stdout);
        free(wszAttach);
        ZR::GetZR()->Remove(wszKey);
    } else {
        PrintErrors(wszKey);
        iExit = ZIRLANE_EXIT_FAILED;
    }
    free(wszKey);
    FreeMountInfo(pInfo);
    return iExit;
}

}  // namespace

void AddStatementsCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<StatementsOptions>();
    CLI::App* pCmd = app.add_subcommand("statements", "Mount a chain of backups and print its restore statements");
    pCmd->add_option("--database", pOptions->database, "Name of the database the statements restore")->required();
    pCmd->add_option("--drive", pOptions->drive, "Filter drive that the virtual backup names live on")
        ->default_str("C:\\");
    pCmd->add_option("--key", pOptions->key, "Mount key (default: GUID= and a new GUID)");
    ZirlaneAddMapFolderOption(*pCmd, &pOptions->mapFolder);
    pCmd->add_option("--full", pOptions->aFull, "Files of the full backup, in any stripe order")->required();
    pCmd->add_option("--diff", pOptions->aDiff, "Files of the differential backup");
    pCmd->add_option("--log", pOptions->aLogs, "Files of one log backup; repeat for each log, in restore order");
    pCmd->add_option("--stop", pOptions->stop, "Stop clause: STOPAT=..., STOPATMARK=... or STOPBEFOREMARK=...");
    pCmd->add_option("--with", pOptions->aWith, "N:OPTION, a WITH option of statement N (1 is the full backup)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    pCmd->callback([pOptions, piExit]() { *piExit = RunStatements(*pOptions); });
}
