// The commands of the zirlane tool. Each command is one file that adds its
// subcommand to the application and sets the exit code when it runs; main
// lists the Add functions in its table. What several commands share is
// declared here.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

#include "mount/ZR_StopInfo.h"

class ZR_Backup;
class ZR_MountInfo;
class SQL_ConfigRecords;
struct LSN;
struct MTF_DATE_TIME;

// Exit codes of every command.
constexpr int ZIRLANE_EXIT_OK = 0;
constexpr int ZIRLANE_EXIT_FAILED = 1;  // the work failed; the messages on stderr say why
constexpr int ZIRLANE_EXIT_USAGE = 2;   // the command line is wrong

// Adds a subcommand to app; when it is chosen and has run, *piExit holds
// its exit code.
using ZirlaneAddCommand = void (*)(CLI::App& app, int* piExit);

void AddProbeCommand(CLI::App& app, int* piExit);
void AddStatementsCommand(CLI::App& app, int* piExit);
void AddInfoCommand(CLI::App& app, int* piExit);
void AddExtractCommand(CLI::App& app, int* piExit);
void AddViewCommand(CLI::App& app, int* piExit);
void AddMountCommand(CLI::App& app, int* piExit);
void AddUmountCommand(CLI::App& app, int* piExit);

// ---- Options (Options.cpp) ----

// Whole numbers from 1 to iMax; anything else is refused in a few words.
CLI::Validator ZirlaneWholeNumber(int iMax);
// --data-set N, 1 by default.
void ZirlaneAddDataSetOption(CLI::App& cmd, int* piDataSet, const std::string& description);
// A mistake on the command line that the options' own checks cannot see.
// Thrown from a command's callback; main prints it and exits 2.
[[noreturn]] void ZirlaneUsageError(const std::string& option, const std::string& message);

// The map folder: the default ($XDG_CACHE_HOME/zirlane/maps or
// ~/.cache/zirlane/maps), the --map-folder option with that default, and
// making a folder the library's map folder (created when missing; false,
// with the reason in the error chain, if its name is too long).
// ZirlaneCacheFolder("sparse") is a folder beside it.
std::string ZirlaneCacheFolder(const std::string& name);
std::string ZirlaneDefaultMapFolder();
void ZirlaneAddMapFolderOption(CLI::App& cmd, std::string* pFolder);
bool ZirlaneUseMapFolder(const std::string& folder);

// ---- A chain of backups (Chain.cpp) ----

// The backups of a mount as the options of a command name them.
struct ZirlaneChain {
    std::string database;
    CLI::Option* pDatabaseOption = nullptr;
    std::string mapFolder;
    std::vector<std::string> aFull;
    std::vector<std::vector<std::string>> aDiffs;  // one entry per --diff: a chain takes one
    std::vector<std::vector<std::string>> aLogs;   // one entry per --log, with its files
    std::string stop;
};
// Adds --database, --map-folder, --full, --diff, --log and --stop.
void ZirlaneAddChainOptions(CLI::App& cmd, ZirlaneChain* pChain, bool bDatabaseRequired);
// Checks what the options' own checks cannot (usage errors): a database
// name the statements can carry, one differential, the stop clause. Gives
// the stop; *pClause receives the clause for the library (empty: none).
ZR_StopInfo ZirlaneCheckChain(const ZirlaneChain& chain, std::string* pClause);
// The statements' count: the full backup, the differential, the logs.
int ZirlaneStatementCount(const ZirlaneChain& chain);
// Puts the backups, the database (when named) and the stop in a request.
void ZirlaneBuildRequest(ZR_MountInfo* pInfo, const ZirlaneChain& chain, const std::string& stopClause);
// Every statement of a mounted request, as GetSQL hands it out. Each call
// gives the views new names: only the statements of the last call name
// them rightly.
std::vector<std::string> ZirlaneStatements(ZR_MountInfo* pInfo);

// ---- Backups (Backups.cpp) ----

// A backup object of no mount for the files of one backup, reading iDataSet.
std::unique_ptr<ZR_Backup> ZirlaneNewBackup(const std::vector<std::string>& aFiles, int iDataSet);
// What the configuration of a prepared backup says, with the finish date,
// which only the closing configuration may hold. False with the reason in
// the error chain.
bool ZirlaneDescribe(ZR_Backup& backup, SQL_ConfigRecords* pConfig);
// An LSN and a date in the forms that the tool prints.
std::string ZirlaneLsn(const LSN& lsn);
std::string ZirlaneDate(const MTF_DATE_TIME& date);  // "" when it holds none

// ---- Output (Output.cpp) ----

std::string ZirlaneUtf8(const std::wstring& ws);
std::wstring ZirlaneWide(const std::string& s);
// A JSON string of UTF-8 text, quotes included.
std::string ZirlaneJson(const std::string& text);

// --verbose: failures show where each message comes from.
void ZirlaneSetVerbose(bool bVerbose);
// Prints the reports of the error chain for wszKey and those of no mount
// to stderr, the failure that started it first, and clears them.
void ZirlanePrintErrors(const wchar_t* wszKey = nullptr);
// Forgets the reports of no mount: those made during a step that succeeded
// (reads that the step tolerated) explain no later failure.
void ZirlaneStepSucceeded();
// The exit code of a command that ran: on failure the errors are printed.
int ZirlaneFinish(bool bOk);
// Records a failure of the tool's own in the error chain (no mount key),
// one that no failed system call explains: no system text goes with it.
// The format is the chain's (%S for a wide string, %I64d). Returns false.
bool ZirlaneFail(const char* szFile, int iLine, const char* szFormat, ...);
