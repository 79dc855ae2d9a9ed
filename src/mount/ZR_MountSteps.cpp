#include "mount/ZR_MountSteps.h"

#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "mount/ZR_MountStepsTesting.h"

namespace {

class ZR_DatabaseMountSteps : public ZR_MountSteps {
public:
    bool PrepareContent(ZR_Database* pDB) override { return pDB->PrepareContent(); }
    bool PrepareAccess(ZR_Database* pDB, const ZR_StopInfo& stop) override { return pDB->PrepareAccess(stop); }
    bool OpenBackups(ZR_Database* pDB) override { return pDB->OpenBackups(); }
    bool ReadSourceNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) override {
        return ReadFullBackupNames(pDB, pstrServer, pstrDatabase);
    }

private:
    // The names stand in the configuration record (SCIN) of the full
    // backup's content map; their tape addresses are checked against the
    // record's own size.
    static bool ReadFullBackupNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) {
        ZR_Backup* pFull = pDB->GetFull();
        const SQL_CONFIG_INFO_V7* pConfig =
            pFull && pFull->m_pCMaps ? pFull->m_pCMaps->m_ConfigMSCI.m_pConfig : nullptr;
        if (!pConfig) {
            ZR_Error(pDB->GetMountKey(), __FILE__, "ZR::Mount", __LINE__,
                     "The full backup has no configuration record\n");
            return false;
        }
        const size_t iSize = pConfig->m_hdr.m_size;
        return MTF_ReadString(pConfig, iSize, pConfig->m_server_name, MTF_UNICODE_STR, pstrServer,
                              pDB->GetMountKey()) &&
               MTF_ReadString(pConfig, iSize, pConfig->m_database_name, MTF_UNICODE_STR, pstrDatabase,
                              pDB->GetMountKey());
    }
};

ZR_DatabaseMountSteps s_LibrarySteps;
ZR_MountSteps* s_pTestSteps = nullptr;

}  // namespace

ZR_MountSteps& CurrentMountSteps() { return s_pTestSteps ? *s_pTestSteps : s_LibrarySteps; }

ZR_MountSteps* ZR_InstallMountStepsForTesting(ZR_MountSteps* pSteps) {
    ZR_MountSteps* pOld = s_pTestSteps;
    s_pTestSteps = pSteps;
    return pOld;
}
