// g_DBs: every mounted database, owned. Each lookup runs under the list's
// own lock and returns the first match or null; the library lock of ZR, when
// a caller needs the database to stay alive, is the caller's to take first.
#pragma once

#include <cstdint>

#include "engine/ZR_Database.h"
#include "foundation/AP.h"
#include "platform/win32.h"

// A database found in g_DBs and held against its destruction until this
// goes: the operation threads use a database without the library lock, and
// Remove waits for every such hold once the database is out of the list.
class ZR_PinnedDatabase {
public:
    ZR_PinnedDatabase() = default;
    // pDB is already pinned; this object takes over that pin.
    explicit ZR_PinnedDatabase(ZR_Database* pDB) : m_pDB(pDB) {}
    ZR_PinnedDatabase(ZR_PinnedDatabase&& other) noexcept : m_pDB(other.m_pDB) { other.m_pDB = nullptr; }
    ZR_PinnedDatabase& operator=(ZR_PinnedDatabase&&) = delete;
    ~ZR_PinnedDatabase() {
        if (m_pDB) m_pDB->Unpin();
    }
    ZR_Database* get() const { return m_pDB; }
    ZR_Database* operator->() const { return m_pDB; }
    explicit operator bool() const { return m_pDB != nullptr; }

private:
    ZR_Database* m_pDB = nullptr;
};

class ZR_DatabaseList : public AP<ZR_Database> {
public:
    // Keys are compared without regard to case.
    ZR_Database* FindByKey(const wchar_t* wszKey);
    ZR_Database* FindByGuid(const GUID& guid);
    // A database with a data file at iFileId whose mount file key is iMountFileKey.
    ZR_Database* FindByMountFileKey(uint32_t iMountFileKey, uint16_t iFileId);
    // A database with a data file of this name (any case, either separator).
    ZR_Database* FindByDataFileName(const wchar_t* wszPath);
    // The lookups of callers that use the database without the library
    // lock: the database found is pinned.
    ZR_PinnedDatabase PinByMountFileKey(uint32_t iMountFileKey, uint16_t iFileId);
    // The database whose backup *ppBackup holds this virtual backup file
    // handle, with the file's index in *piFile (-1 when none). SQL Server
    // reads or queries a virtual backup file only while it restores, so
    // every database the walk visits, the one found included, moves up to
    // ZR_VDB_STATE_DATA_COPY.
    ZR_PinnedDatabase PinByBackupFileHandle(HANDLE hFile, ZR_Backup** ppBackup, int* piFile);
    // pDB pinned if it is still in the list; compared by address alone, so
    // pDB may be a database that was destroyed meanwhile.
    ZR_PinnedDatabase PinIfListed(const ZR_Database* pDB);
    // The index of the entry, or -1.
    int IndexOf(const ZR_Database* pDB);

private:
    // The first database that matches, pinned when bPin, under the list's lock.
    template <class Match>
    ZR_Database* FindFirst(Match match, bool bPin = false);
};

extern ZR_DatabaseList g_DBs;
