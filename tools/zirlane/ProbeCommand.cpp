// zirlane probe [--data-set N] FILE...: what the probe learns of the files
// of one backup, printed in stripe order.
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
    std::vector<std::string> aFiles;
};

std::string FormatDate(const MTF_DATE_TIME& dt) {
    SYSTEMTIME st;
    if (!MTF_DecodeDateTime(dt, &st)) return "none";
    char sz[64];
    std::snprintf(sz, sizeof sz, "%04u-%02u-%02u %02u:%02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                  st.wSecond);
    return sz;
}

std::string VersionName(int iVersion) {
    switch (iVersion) {
        case 7: return "SQL Server 7";
        case 8: return "SQL Server 2000";
        case 9: return "SQL Server 2005";
        case 10: return "SQL Server 2008";
        default: return "not supported";
    }
}

void PrintFiles(ZR_Backup& b, const ProbeOptions& options) {
    std::vector<int> aOrder = ZR_ScanProbe::StripeOrder(&b);
    int n = b.GetNumFiles();
    for (int i : aOrder) {
        unsigned iSequence = MTF_RaidSequence(b.m_pRaids[i]);
        std::printf("file %u of %d: %s\n", iSequence ? iSequence : static_cast<unsigned>(i + 1), n,
                    options.aFiles[static_cast<size_t>(i)].c_str());
    }
}

void PrintNative(ZR_Backup& b, const ProbeOptions& options) {
    const ZR_ScanIdentity& id = b.m_ProbeIdentity;
    PrintFiles(b, options);
    std::printf("media family: 0x%08x\n", id.m_iMediaFamilyId);
    std::printf("media date: %s\n", FormatDate(id.m_MediaDate).c_str());
    std::printf("write date: %s\n", FormatDate(id.m_MediaWriteDate).c_str());
    std::printf("data set: %d\n", options.iDataSet);
    if (id.m_iServerVersion == 0) {
        std::printf("version: unknown\ntype: unknown\n");
        return;
    }
    int iVersion = SQL_MajorVersion(id.m_iServerVersion);
    std::printf("version: %d (%s)\n", iVersion, VersionName(iVersion).c_str());
    std::printf("type: %c (%s)\n", id.m_iBackupType ? id.m_iBackupType : '-', SQL_BackupTypeLabel(id.m_iBackupType));
}

int RunProbe(const ProbeOptions& options) {
    auto pB = std::make_unique<ZR_Backup>(nullptr);
    pB->SetDataSetNumber(options.iDataSet);
    for (const auto& s : options.aFiles) pB->AddFile(ZirlaneWide(s).c_str(), nullptr, false);
    ZR_ScanProbe probe(pB.get(), options.iDataSet);
    if (!probe.ScanFiles()) {
        ZirlanePrintErrors();
        return ZIRLANE_EXIT_FAILED;
    }
    if (pB->m_eBackend != ZR_BACKEND_MTF) {
        ZirlanePrintErrors();
        std::fputs("No backup file among those given could be read.\n", stderr);
        return ZIRLANE_EXIT_FAILED;
    }
    PrintNative(*pB, options);
    return ZIRLANE_EXIT_OK;
}

}  // namespace

void AddProbeCommand(CLI::App& app, int* piExit) {
    auto pOptions = std::make_shared<ProbeOptions>();
    CLI::App* pCommand = app.add_subcommand("probe", "Show which files of a backup belong together and what identifies them");
    pCommand->add_option("--data-set", pOptions->iDataSet, "Number of the data set in the files (from 1)")
        ->check(CLI::PositiveNumber);
    pCommand->add_option("files", pOptions->aFiles, "The backup files, stripes in any order")->required();
    pCommand->callback([pOptions, piExit]() { *piExit = RunProbe(*pOptions); });
}
