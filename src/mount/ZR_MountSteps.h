// The backup work of a mount, as ZR::Mount drives it: prepare the content,
// prepare access, open the backups, and read where the backups came from.
// The library's own steps forward to ZR_Database; tests install steps of
// their own through ZR_MountStepsTesting.h to walk every branch of the mount
// without real backups.
#pragma once

#include <string>

#include "engine/ZR_Database.h"
#include "mount/ZR_StopInfo.h"

class ZR_MountSteps {
public:
    virtual ~ZR_MountSteps() = default;
    virtual bool PrepareContent(ZR_Database* pDB) = 0;
    virtual bool PrepareAccess(ZR_Database* pDB, const ZR_StopInfo& stop) = 0;
    virtual bool OpenBackups(ZR_Database* pDB) = 0;
    // The server name as the full backup records it (SERVER or
    // SERVER\INSTANCE) and the database name. False with a recorded reason.
    virtual bool ReadSourceNames(ZR_Database* pDB, std::wstring* pstrServer, std::wstring* pstrDatabase) = 0;
};

// The steps a mount uses now: the installed test steps, else the library's.
ZR_MountSteps& CurrentMountSteps();
