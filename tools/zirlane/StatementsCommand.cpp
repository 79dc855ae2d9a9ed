// zirlane statements: mounts a chain of backups and prints what SQL Server
// would run to restore it from the mount's virtual backup files, one RESTORE
// statement per backup in order, then the CREATE DATABASE ... FOR ATTACH of
// the data files.
//
// The mount is made by the library object itself, without the driver: the
// statements need no driver, only a mount that stands. The names that they
// print are those of this process's mount, so the text shows what a service
// would hand out rather than something to run later.
//
// Every option is checked before the mount: a name, drive or WITH option
// that would make invalid T-SQL is a usage error.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "StopOption.h"
#include "mount/ZR.h"
#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

constexpr size_t kMaxNameChars = 128;  // SQL Server's sysname

struct StatementsOptions {
    std::string database;
    std::string drive = "C:";
    std::string key;
    std::string mapFolder;
    std::vector<std::string> aFull;
    std::vector<std::vector<std::string>> aDiffs;  // one entry per --diff: a chain takes one
    std::vector<std::vector<std::string>> aLogs;   // one entry per --log, with its files
    std::string stop;
    std::vector<std::string> aWith;  // N:OPTION, N counted from 1 (the full backup)
};

// What the options say once checked, in the forms the library takes.
struct StatementsRequest {
    std::wstring wsDrive;     // "D:\"
    std::string stopClause;   // empty: no stop
    ZR_StopInfo stop;
    std::vector<std::pair<int, std::wstring>> aWith;
};

void CheckDatabase(const std::string& name) {
    if (name.empty()) ZirlaneUsageError("--database", "the name must not be empty");
    if (name.size() > kMaxNameChars)
        ZirlaneUsageError("--database", "the name is longer than " + std::to_string(kMaxNameChars) + " characters");
    // The statements write the name between brackets.
    if (name.find(']') != std::string::npos ||
        std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20; }))
        ZirlaneUsageError("--database", "\"" + name + "\" holds a ']' or a control character");
}

// "D", "D:", "D:\" or "D:/" give "D:\".
std::wstring Drive(const std::string& text) {
    const bool bLetter = !text.empty() && std::isalpha(static_cast<unsigned char>(text[0]));
    const std::string rest = bLetter ? text.substr(1) : text;
    if (!bLetter || !(rest.empty() || rest == ":" || rest == ":\\" || rest == ":/"))
        ZirlaneUsageError("--drive", "takes a drive letter such as D:, not \"" + text + "\"");
    return std::wstring(1, static_cast<wchar_t>(std::toupper(static_cast<unsigned char>(text[0])))) + L":\\";
}

int StatementCount(const StatementsOptions& o) {
    return 1 + static_cast<int>(o.aDiffs.size()) + static_cast<int>(o.aLogs.size());
}

// N:OPTION, with N a statement of the chain and an OPTION that is not blank.
std::pair<int, std::wstring> With(const std::string& text, int iStatements) {
    const size_t iColon = text.find(':');
    int iNumber = 0;
    const char* pEnd = iColon == std::string::npos ? nullptr : text.data() + iColon;
    if (!pEnd || std::from_chars(text.data(), pEnd, iNumber).ptr != pEnd)
        ZirlaneUsageError("--with", "takes N:OPTION with N the number of a statement, not \"" + text + "\"");
    if (iNumber < 1 || iNumber > iStatements)
        ZirlaneUsageError("--with", "statement " + std::to_string(iNumber) + " does not exist: this chain has " +
                                        std::to_string(iStatements) + ", counted from 1 (the full backup)");
    const std::string option = text.substr(iColon + 1);
    if (option.find_first_not_of(' ') == std::string::npos)
        ZirlaneUsageError("--with", "the option of statement " + std::to_string(iNumber) + " is empty");
    return {iNumber, ZirlaneWide(option)};
}

StatementsRequest CheckOptions(const StatementsOptions& o) {
    CheckDatabase(o.database);
    if (o.aDiffs.size() > 1)
        ZirlaneUsageError("--diff", "a chain restores one differential backup; name its files (stripes) after one "
                                    "--diff");
    StatementsRequest request;
    request.wsDrive = Drive(o.drive);
    if (!o.stop.empty()) request.stop = ZirlaneParseStop(o.stop, &request.stopClause);
    for (const std::string& with : o.aWith) request.aWith.push_back(With(with, StatementCount(o)));
    return request;
}

void AddBackup(ZR_MountInfo* pInfo, int iType, const wchar_t* wszTypeName, const std::vector<std::string>& aFiles) {
    BuildBackupInfoFromSet(pInfo, iType, 1, nullptr, nullptr);
    for (const std::string& file : aFiles) AddBackupSetFilename(pInfo, wszTypeName, ZirlaneWide(file).c_str());
}

void BuildRequest(ZR_MountInfo* pInfo, const StatementsOptions& options, const StatementsRequest& request) {
    AddBackup(pInfo, ZR_BACKUP_FULL, L"Full", options.aFull);
    for (const auto& aDiff : options.aDiffs) AddBackup(pInfo, ZR_BACKUP_DIFF, L"Diff", aDiff);
    for (const auto& aLog : options.aLogs) AddBackup(pInfo, ZR_BACKUP_LOG, L"Log", aLog);
    SetTargetDatabase(pInfo, ZirlaneWide(options.database).c_str());
    SetFilterDrive(pInfo, request.wsDrive.c_str());
    if (!options.key.empty()) SetMountKey(pInfo, ZirlaneWide(options.key).c_str());
    if (!request.stopClause.empty()) SetStop(pInfo, ZirlaneWide(request.stopClause).c_str());
    for (const auto& [iStatement, wsOption] : request.aWith) AddWith(pInfo, iStatement, wsOption.c_str());
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
    const StatementsRequest request = CheckOptions(options);
    if (!ZirlaneUseMapFolder(options.mapFolder)) return ZirlaneFinish(false);
    ZR::Initialize();
    ZR_MountInfo* pInfo = AllocateMountInfo();
    BuildRequest(pInfo, options, request);
    wchar_t* wszKey = nullptr;
    int iExit = ZIRLANE_EXIT_OK;
    if (ZR::GetZR()->Mount(pInfo, &wszKey)) {
        PrintStatements(pInfo);
        wchar_t* wszAttach = ZR::GenAttachDatabaseSQL(pInfo->GetTargetDatabase(), wszKey);
        std::fputs(ZirlaneUtf8(wszAttach).c_str(), stdout);
        free(wszAttach);
        if (ZR_Database* pDB = ZR::FindDatabase(wszKey)) ZirlaneWarnStopOutsideChain(request.stop, *pDB);
        ZR::GetZR()->Remove(wszKey);
    } else {
        // The mount's own reports carry its key; those of the scans carry none.
        ZirlanePrintErrors(wszKey);
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
    pCmd->add_option("--drive", pOptions->drive, "Drive letter of the filter drive that the virtual backups live on")
        ->default_str("C:");
    pCmd->add_option("--key", pOptions->key, "Mount key (default: GUID= and a new GUID)");
    ZirlaneAddMapFolderOption(*pCmd, &pOptions->mapFolder);
    pCmd->add_option("--full", pOptions->aFull, "Files of the full backup, in any stripe order")->required();
    pCmd->add_option("--diff", pOptions->aDiffs, "Files of the differential backup, in any stripe order");
    pCmd->add_option("--log", pOptions->aLogs, "Files of one log backup; repeat for each log, in restore order");
    pCmd->add_option("--stop", pOptions->stop,
                     "Stop point: STOPAT='2017-06-01 13:25:00', STOPATMARK='lsn:25:153:1', "
                     "STOPBEFOREMARK='mark' AFTER '2017-06-01 13:00:00' (quotes optional)");
    pCmd->add_option("--with", pOptions->aWith, "N:OPTION, a WITH option of statement N (1 is the full backup)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    pCmd->callback([pOptions, piExit]() { *piExit = RunStatements(*pOptions); });
}
