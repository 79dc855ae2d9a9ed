// What the probe learns of a backup for its content map: how many files the
// stripe set needs, and the identity under which the map pool and the map
// files find the backup again whatever its files are called (media family,
// media date and write date of a native backup; the backup-set GUID of a
// compressed one). Also what the probe saw of the data set's configuration.
//
// Written by ZR_ScanProbe on the mount's thread, read after the probe.
#pragma once

#include <cstdint>

#include "backup/MTF_Records.h"

struct ZR_ScanIdentity {
    int32_t m_iRequiredFiles = 0;   // from the RAID stream; 0 when no file had one
    uint32_t m_iMediaFamilyId = 0;
    MTF_DATE_TIME m_MediaDate{};
    MTF_DATE_TIME m_MediaWriteDate{};
    uint8_t m_aKelpGuid[16] = {};
    uint8_t m_aKlbsGuid[16] = {};
    int32_t m_iDataSet = 0;         // the data set probed
    uint32_t m_iServerVersion = 0;  // m_server_version of the data set's configuration; 0 if none was seen
    uint8_t m_iBackupType = 0;      // m_backup_type of that configuration (D, I, L, ...)
};
