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

struct StatementsOptions {
    ZirlaneChain chain;
    std::string drive = "C:";
    std::string key;
    std::vector<std::string> aWith;  // N:OPTION, N counted from 1 (the full backup)
};

// What the options say once checked, in the forms the library takes.
struct StatementsRequest {
    std::wstring wsDrive;     // "D:\"
    std::string stopClause;   // empty: no stop
    ZR_StopInfo stop;
    std::vector<std::pair<int, std::wstring>> aWith;
};

// "D", "D:", "D:\" or "D:/" give "D:\".
std::wstring Drive(const std::string& text) {
    const bool bLetter = !text.empty() && std::isalpha(static_cast<unsigned char>(text[0]));
    const std::string rest = bLetter ? text.substr(1) : text;
    if (!bLetter || !(rest.empty() || rest == ":" || rest == ":\\" || rest == ":/"))
        ZirlaneUsageError("--drive", "takes a drive letter such as D:, not \"" + text + "\"");
    return std::wstring(1, static_cast<wchar_t>(std::toupper(static_cast<unsigned char>(text[0])))) + L":\\";
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
    StatementsRequest request;
    request.stop = ZirlaneCheckChain(o.chain, &request.stopClause);
    request.wsDrive = Drive(o.drive);
    for (const std::string& with : o.aWith) request.aWith.push_back(With(with, ZirlaneStatementCount(o.chain)));
    return request;
}

void BuildRequest(ZR_MountInfo* pInfo, const StatementsOptions& options, const StatementsRequest& request) {
    ZirlaneBuildRequest(pInfo, options.chain, request.stopClause);
    SetFilterDrive(pInfo, request.wsDrive.c_str());
    if (!options.key.empty()) SetMountKey(pInfo, ZirlaneWide(options.key).c_str());
    for (const auto& [iStatement, wsOption] : request.aWith) AddWith(pInfo, iStatement, wsOption.c_str());
}

int RunStatements(const StatementsOptions& options) {
    const StatementsRequest request = CheckOptions(options);
    if (!ZirlaneUseMapFolder(options.chain.mapFolder)) return ZirlaneFinish(false);
    ZR::Initialize();
    ZR_MountInfo* pInfo = AllocateMountInfo();
    BuildRequest(pInfo, options, request);
    wchar_t* wszKey = nullptr;
    int iExit = ZIRLANE_EXIT_OK;
    if (ZR::GetZR()->Mount(pInfo, &wszKey)) {
        for (const std::string& statement : ZirlaneStatements(pInfo)) std::printf("%s\n\n", statement.c_str());
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
    ZirlaneAddChainOptions(*pCmd, &pOptions->chain, true);
    pCmd->add_option("--drive", pOptions->drive, "Drive letter of the filter drive that the virtual backups live on")
        ->default_str("C:");
    pCmd->add_option("--key", pOptions->key, "Mount key (default: GUID= and a new GUID)");
    pCmd->add_option("--with", pOptions->aWith, "N:OPTION, a WITH option of statement N (1 is the full backup)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    pCmd->callback([pOptions, piExit]() { *piExit = RunStatements(*pOptions); });
}
