// ZR_BMaps: the backup map of a native backup, the inverse of the extent
// map. For each backup file of the stripe set and each data stream in it,
// the page id that lies in each 65,536-byte slot of the stream; and for each
// database file the allocation (GAM) page of each GAM interval, as stored.
//
// The library builds it only behind a switch that is off, so in a running
// system it stays empty and is never written; the class and its file form
// are complete so that switching it on needs nothing here.
//
// Threads: the two Augment calls come from the one thread that builds the
// maps and take m_csAugment; the arrays lock each single operation too.
// Reading a finished map needs no lock.
#pragma once

#include "foundation/A.h"
#include "foundation/AA.h"
#include "foundation/ZR_Types.h"
#include "maps/ZR_EMaps.h"

#pragma pack(push, 1)
// One GAM interval's allocation page with where it came from.
struct ZR_GamPage {
    uint32_t m_aiZero[3];
    PageId m_FirstPageId;  // of the page in the extent's first slot
    PageId m_GamPageId;    // of the allocation page that was read
    PageId m_NextPageId;   // first page of the next interval
    uint8_t m_aUnused[2];
    uint8_t m_aPage[ZR_PAGE_SIZE];
};
#pragma pack(pop)
static_assert(sizeof(ZR_GamPage) == 8224);

// Pages in one GAM interval.
constexpr uint32_t ZR_GAM_INTERVAL = 511232;

// One data stream of a backup file: a page id per slot, 0:0 for a slot that
// holds no page.
class ZR_BMapStream : public A<PageId> {
public:
    uint32_t m_iFirstSlot = 0;  // slots of the file's earlier streams
    uint32_t m_iNumSlots = 0;

    template <class File>
    bool SerializeWrite(File* pFile) {
        return pFile->Write(&m_iFirstSlot, 4, 1) && pFile->Write(&m_iNumSlots, 4, 1) &&
               A<PageId>::SerializeWrite(pFile);
    }
    template <class File>
    bool SerializeRead(File* pFile) {
        return pFile->Read(&m_iFirstSlot, 4, 1) && pFile->Read(&m_iNumSlots, 4, 1) &&
               A<PageId>::SerializeRead(pFile);
    }
};

// One backup file of the stripe set: its data streams in order.
class ZR_BMapFile : public A<ZR_BMapStream> {
public:
    static constexpr unsigned kMinStreamSize = 12;  // first slot, slots, count

    uint32_t m_iTotalSlots = 0;  // extent slots in the whole file

    template <class File>
    bool SerializeWrite(File* pFile) {
        return pFile->Write(&m_iTotalSlots, 4, 1) && A<ZR_BMapStream>::SerializeWrite(pFile);
    }
    template <class File>
    bool SerializeRead(File* pFile) {
        if (!pFile->Read(&m_iTotalSlots, 4, 1))
            return false;
        ZR_MapCountGuard<File> guard(pFile, kMinStreamSize);
        return A<ZR_BMapStream>::SerializeRead(&guard);
    }
};

class ZR_BMaps : public X_MapFile {
public:
    ZR_BMaps();
    ~ZR_BMaps() override;

    int GetMapType() const override { return 3; }
    const char* GetFileExtension() const override { return "xbm"; }
    const char* GetMagic() const override { return "IBMF"; }
    const char* GetMapName() const override { return "BackupExtentMap"; }
    int GetVersion() const override { return 1; }
    // The whole file, from its magic to the last GAM record.
    uint32_t GetContentSize() override;
    // Both tables; a map without a backup file is no map.
    bool ReadContent(bool bUpdate) override;
    bool WriteContent() override;

    // Stores the page id found in slot iSlot of data stream iMQDA of backup
    // file iThread, growing what is missing (new slots 0:0).
    void AugmentExtent(int iThread, int iMQDA, int iSlot, PageId pageId);
    // Stores the allocation page of the GAM interval that starts at
    // firstPageId, read from gamPageId; pPage holds its 8,192 bytes.
    void AugmentGAM(PageId firstPageId, PageId gamPageId, const void* pPage);
    // Behind trace flag 1, which is never on.
    void Dump(int iBackup);
    // Forgets both tables.
    void ClearContents();

    A<ZR_BMapFile> m_aBackupFiles;
    AA<ZR_GamPage> m_aGamPages;
    CRITICAL_SECTION m_csAugment;

private:
    void DumpStream(int iFile, int iStream);
};
