#include "mount/ZR_MountSteps.h"

#include "diag/ZR_Error.h"
#include "mount/ZR_MountStepsTesting.h"

namespace {

class ZR_DatabaseMountSteps : public ZR_MountSteps {
public:
    bool PrepareContent(ZR_Database* pDB) override { return pDB->PrepareContent(); }
    bool PrepareAccess(ZR_Database* pDB, const ZR_StopInfo& stop) override { return pDB->PrepareAccess(stop); }
    bool OpenBackups(ZR_Database* pDB) override { return pDB->OpenBackups(); }
    bool ReadSourceNames(ZR_Database* pDB, std::wstring*, std::wstring*) override {
        // The names stand in the configuration record of the full backup's
        // content map, which this build does not read.
        ZR_Error(pDB->GetMountKey(), __FILE__, "ZR::Mount", __LINE__,
                 "The configuration record of the full backup is not available in this build\n");
        return false;
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
