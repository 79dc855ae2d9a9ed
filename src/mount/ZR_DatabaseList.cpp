#include "mount/ZR_DatabaseList.h"

ZR_DatabaseList g_DBs;

template <class Match>
ZR_Database* ZR_DatabaseList::FindFirst(Match match, bool bPin) {
    ZR_Database* pFound = nullptr;
    Lock();
    for (int i = 0; i < static_cast<int>(*this) && !pFound; ++i) {
        ZR_Database* pDB = (*this)(i);
        if (pDB && match(pDB)) pFound = pDB;
    }
    if (pFound && bPin) pFound->Pin();
    Unlock();
    return pFound;
}

ZR_Database* ZR_DatabaseList::FindByKey(const wchar_t* wszKey) {
    if (!wszKey) return nullptr;
    return FindFirst([&](ZR_Database* pDB) {
        return pDB->GetMountKey() && _wcsicmp(pDB->GetMountKey(), wszKey) == 0;
    });
}

ZR_Database* ZR_DatabaseList::FindByGuid(const GUID& guid) {
    return FindFirst([&](ZR_Database* pDB) { return pDB->GetGuid() == guid; });
}

ZR_Database* ZR_DatabaseList::FindByMountFileKey(uint32_t iMountFileKey, uint16_t iFileId) {
    return FindFirst([&](ZR_Database* pDB) { return pDB->FindDataFile(iMountFileKey, iFileId) != nullptr; });
}

ZR_Database* ZR_DatabaseList::FindByDataFileName(const wchar_t* wszPath) {
    return FindFirst([&](ZR_Database* pDB) { return pDB->FindDataFile(wszPath) != nullptr; });
}

ZR_PinnedDatabase ZR_DatabaseList::PinByMountFileKey(uint32_t iMountFileKey, uint16_t iFileId) {
    return ZR_PinnedDatabase(
        FindFirst([&](ZR_Database* pDB) { return pDB->FindDataFile(iMountFileKey, iFileId) != nullptr; }, true));
}

ZR_PinnedDatabase ZR_DatabaseList::PinByBackupFileHandle(HANDLE hFile, ZR_Backup** ppBackup, int* piFile) {
    *ppBackup = nullptr;
    *piFile = -1;
    return ZR_PinnedDatabase(FindFirst(
        [&](ZR_Database* pDB) {
            pDB->RaiseState(ZR_VDB_STATE_DATA_COPY);
            *ppBackup = pDB->FindBackupFile(hFile, piFile);
            return *ppBackup != nullptr;
        },
        true));
}

ZR_PinnedDatabase ZR_DatabaseList::PinIfListed(const ZR_Database* pDB) {
    return ZR_PinnedDatabase(pDB ? FindFirst([&](ZR_Database* p) { return p == pDB; }, true) : nullptr);
}

int ZR_DatabaseList::IndexOf(const ZR_Database* pDB) {
    int iFound = -1;
    Lock();
    for (int i = 0; i < static_cast<int>(*this) && iFound < 0; ++i)
        if ((*this)(i) == pDB) iFound = i;
    Unlock();
    return iFound;
}
