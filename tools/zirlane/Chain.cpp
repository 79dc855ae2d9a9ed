// A chain of backups as the commands that mount one take it: the options
// that name it, their checks, the mount request made of them, and its
// statements as they are printed.
#include <algorithm>
#include <vector>

#include "Commands.h"
#include "StopOption.h"
#include "mount/ZR_MountInfo.h"
#include "zirlane/zirlane.h"

namespace {

constexpr size_t kMaxNameChars = 128;  // SQL Server's sysname

void CheckDatabase(const std::string& name) {
    if (name.empty()) ZirlaneUsageError("--database", "the name must not be empty");
    if (name.size() > kMaxNameChars)
        ZirlaneUsageError("--database", "the name is longer than " + std::to_string(kMaxNameChars) + " characters");
    // The statements write the name between brackets.
    if (name.find(']') != std::string::npos ||
        std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20; }))
        ZirlaneUsageError("--database", "\"" + name + "\" holds a ']' or a control character");
}

void AddBackup(ZR_MountInfo* pInfo, int iType, const wchar_t* wszTypeName, const std::vector<std::string>& aFiles) {
    BuildBackupInfoFromSet(pInfo, iType, 1, nullptr, nullptr);
    for (const std::string& file : aFiles) AddBackupSetFilename(pInfo, wszTypeName, ZirlaneWide(file).c_str());
}

}  // namespace

void ZirlaneAddChainOptions(CLI::App& cmd, ZirlaneChain* pChain, bool bDatabaseRequired) {
    pChain->pDatabaseOption = cmd.add_option("--database", pChain->database,
                                             bDatabaseRequired ? "Name of the database the statements restore"
                                                               : "Name of the database the statements restore "
                                                                 "(default: the name in the full backup)");
    pChain->pDatabaseOption->required(bDatabaseRequired);
    ZirlaneAddMapFolderOption(cmd, &pChain->mapFolder);
    cmd.add_option("--full", pChain->aFull, "Files of the full backup, in any stripe order")->required();
    cmd.add_option("--diff", pChain->aDiffs, "Files of the differential backup, in any stripe order");
    cmd.add_option("--log", pChain->aLogs, "Files of one log backup; repeat for each log, in restore order");
    cmd.add_option("--stop", pChain->stop,
                   "Stop point: STOPAT='2017-06-01 13:25:00', STOPATMARK='lsn:25:153:1', "
                   "STOPBEFOREMARK='mark' AFTER '2017-06-01 13:00:00' (quotes optional)");
}

ZR_StopInfo ZirlaneCheckChain(const ZirlaneChain& chain, std::string* pClause) {
    if (chain.pDatabaseOption && chain.pDatabaseOption->count()) CheckDatabase(chain.database);
    if (chain.aDiffs.size() > 1)
        ZirlaneUsageError("--diff", "a chain restores one differential backup; name its files (stripes) after one "
                                    "--diff");
    pClause->clear();
    return chain.stop.empty() ? ZR_StopInfo{} : ZirlaneParseStop(chain.stop, pClause);
}

int ZirlaneStatementCount(const ZirlaneChain& chain) {
    return 1 + static_cast<int>(chain.aDiffs.size()) + static_cast<int>(chain.aLogs.size());
}

void ZirlaneBuildRequest(ZR_MountInfo* pInfo, const ZirlaneChain& chain, const std::string& stopClause) {
    AddBackup(pInfo, ZR_BACKUP_FULL, L"Full", chain.aFull);
    for (const auto& aDiff : chain.aDiffs) AddBackup(pInfo, ZR_BACKUP_DIFF, L"Diff", aDiff);
    for (const auto& aLog : chain.aLogs) AddBackup(pInfo, ZR_BACKUP_LOG, L"Log", aLog);
    if (!chain.database.empty()) SetTargetDatabase(pInfo, ZirlaneWide(chain.database).c_str());
    if (!stopClause.empty()) SetStop(pInfo, ZirlaneWide(stopClause).c_str());
}

// Each statement as GetSQL hands it out, with room for ids that grow a digit
// between the size and the copy.
std::vector<std::string> ZirlaneStatements(ZR_MountInfo* pInfo) {
    std::vector<std::string> aStatements;
    const int iCount = GetNumSQL(pInfo);
    for (int i = 0; i < iCount; ++i) {
        const int iSize = GetSQLSize(pInfo, static_cast<unsigned>(i));
        std::vector<wchar_t> buffer(static_cast<size_t>(iSize) + 64, L'\0');
        GetSQL(pInfo, static_cast<unsigned>(i), buffer.data(), static_cast<unsigned>(buffer.size() - 1));
        aStatements.push_back(ZirlaneUtf8(buffer.data()));
    }
    return aStatements;
}
