// zirlane probe [--data-set N] [--json] FILE...: what the probe learns of
// the files of one backup, printed in stripe order.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "backup/SQL_Records.h"
#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanProbe.h"

namespace {

struct ProbeOptions {
    int iDataSet = 1;
    bool bJson = false;
    std::vector<std::string> aFiles;
};

// What the probe learnt, in the words of both outputs.
struct ProbeFacts {
    std::vector<std::pair<unsigned, std::string>> aStripes;  // sequence number and file, in stripe order
    char szFamily[16] = {};
    std::string mediaDate;
    std::string writeDate;
    int iVersion = 0;        // 0: no configuration seen
    std::string versionName;
    char cType = '-';
    std::string typeName;
};

std::string DateOrNone(const MTF_DATE_TIME& date) {
    std::string text = ZirlaneDate(date);
    return text.empty() ? "none" : text;
}

ProbeFacts Facts(ZR_Backup& b, const ProbeOptions& options) {
    ProbeFacts facts;
    for (int i : ZR_ScanProbe::StripeOrder(&b)) {
        unsigned iSequence = MTF_RaidSequence(b.m_pRaids[i]);
        facts.aStripes.emplace_back(iSequence ? iSequence : static_cast<unsigned>(i + 1),
                                    options.aFiles[static_cast<size_t>(i)]);
    }
    const ZR_ScanIdentity& id = b.m_ProbeIdentity;
    std::snprintf(facts.szFamily, sizeof facts.szFamily, "0x%08x", id.m_iMediaFamilyId);
    facts.mediaDate = DateOrNone(id.m_MediaDate);
    facts.writeDate = DateOrNone(id.m_MediaWriteDate);
    if (id.m_iServerVersion != 0) {
        facts.iVersion = SQL_MajorVersion(id.m_iServerVersion);
        const char* szName = ZR_ServerVersionName(facts.iVersion);
        facts.versionName = *szName ? szName : "not supported";
        facts.cType = id.m_iBackupType ? static_cast<char>(id.m_iBackupType) : '-';
        facts.typeName = SQL_BackupTypeLabel(id.m_iBackupType);
    }
    return facts;
}

void PrintText(const ProbeFacts& f, int iDataSet) {
    for (const auto& [iSequence, file] : f.aStripes)
        std::printf("file %u of %zu: %s\n", iSequence, f.aStripes.size(), file.c_str());
    std::printf("media family: %s\nmedia date: %s\nwrite date: %s\ndata set: %d\n", f.szFamily, f.mediaDate.c_str(),
                f.writeDate.c_str(), iDataSet);
    if (f.iVersion == 0) {
        std::printf("version: unknown\ntype: unknown\n");
        return;
    }
    std::printf("version: %d (%s)\ntype: %c (%s)\n", f.iVersion, f.versionName.c_str(), f.cType, f.typeName.c_str());
}

void PrintJson(const ProbeFacts& f, int iDataSet) {
    std::printf("{\"files\": [");
    const char* szSep = "";
    for (const auto& [iSequence, file] : f.aStripes) {
        std::printf("%s{\"stripe\": %u, \"file\": %s}", szSep, iSequence, ZirlaneJson(file).c_str());
        szSep = ", ";
    }
    std::printf("], \"media_family\": \"%s\", \"media_date\": %s, \"write_date\": %s, \"data_set\": %d", f.szFamily,
                ZirlaneJson(f.mediaDate).c_str(), ZirlaneJson(f.writeDate).c_str(), iDataSet);
    if (f.iVersion != 0)
        std::printf(", \"version\": %d, \"version_name\": %s, \"type\": \"%c\", \"type_name\": %s", f.iVersion,
                    ZirlaneJson(f.versionName).c_str(), f.cType, ZirlaneJson(f.typeName).c_str());
    std::printf("}\n");
}

bool RunProbe(const ProbeOptions& options) {
    std::unique_ptr<ZR_Backup> pB = ZirlaneNewBackup(options.aFiles, options.iDataSet);
    if (!ZR_ScanProbe::Run(pB.get(), options.iDataSet)) return false;
    if (pB->m_eBackend != ZR_BACKEND_MTF)
        return ZirlaneFail(__FILE__, __LINE__, "No file among those given is a backup that can be read.\n");
    ProbeFacts facts = Facts(*pB, options);
    if (options.bJson)
        PrintJson(facts, options.iDataSet);
    else
        PrintText(facts, options.iDataSet);
    return true;
}

}  // namespace

void AddProbeCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<ProbeOptions>();
    CLI::App* pCommand = app.add_subcommand("probe", "Show which files of a backup belong together and what identifies them");
    ZirlaneAddDataSetOption(*pCommand, &pOptions->iDataSet, "Number of the data set in the files (from 1)");
    pCommand->add_flag("--json", pOptions->bJson, "One JSON object instead of text");
    pCommand->add_option("files", pOptions->aFiles, "The backup files, stripes in any order")->required();
    pCommand->callback([pOptions, piExit]() { *piExit = ZirlaneFinish(RunProbe(*pOptions)); });
}
