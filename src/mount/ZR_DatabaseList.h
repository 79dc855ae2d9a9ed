// g_DBs: every mounted database, owned. Each lookup runs under the list's
// own lock and returns the first match or null; the library lock of ZR, when
// a caller needs the database to stay alive, is the caller's to take first.
#pragma once

#include <cstdint>

#include "engine/ZR_Database.h"
#include "foundation/AP.h"
#include "platform/win32.h"

class ZR_DatabaseList : public AP<ZR_Database> {
public:
    // Keys are compared without regard to case.
    ZR_Database* FindByKey(const wchar_t* wszKey);
    ZR_Database* FindByGuid(const GUID& guid);
    // A database with a data file at iFileId whose mount file key is iMountFileKey.
    ZR_Database* FindByMountFileKey(uint32_t iMountFileKey, uint16_t iFileId);
    // A database with a data file of this name (any case, either separator).
    ZR_Database* FindByDataFileName(const wchar_t* wszPath);
    // The backup that holds this virtual backup file handle, with the file's
    // index in *piFile (-1 when none). SQL Server reads or queries a virtual
    // backup file only while it restores, so every database the walk visits,
    // the one found included, moves up to ZR_VDB_STATE_DATA_COPY.
    ZR_Backup* FindByBackupFileHandle(HANDLE hFile, int* piFile);
    // The index of the entry, or -1.
    int IndexOf(const ZR_Database* pDB);

private:
    template <class Match>
    ZR_Database* FindFirst(Match match);
};

extern ZR_DatabaseList g_DBs;
