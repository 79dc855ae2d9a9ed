#include "maps/ZR_BMaps.h"

#include "diag/Trace.h"

namespace {

constexpr uint64_t kHeaderSize = 16;  // magic, size, version, file count
constexpr unsigned kMinFileSize = 8;  // total slots, stream count
constexpr unsigned kMinRowSize = 4;   // record count
constexpr uint64_t kTraceFlagBackupMap = 1;
constexpr int kIdsPerLine = 8;

bool IdLess(const PageId& a, const PageId& b) {
    return a.m_iFileId != b.m_iFileId ? a.m_iFileId < b.m_iFileId : a.m_iPage < b.m_iPage;
}

}  // namespace

ZR_BMaps::ZR_BMaps() { InitializeCriticalSection(&m_csAugment); }

ZR_BMaps::~ZR_BMaps() {
    // The tables may point into the view, which the base destructor unmaps.
    ClearContents();
    DeleteCriticalSection(&m_csAugment);
}

void ZR_BMaps::ClearContents() {
    m_aBackupFiles.Clean();
    m_aGamPages.Clean();
}

uint32_t ZR_BMaps::GetContentSize() {
    uint64_t cb = kHeaderSize;
    m_aBackupFiles.Lock();
    for (int iFile = 0; iFile < m_aBackupFiles; ++iFile) {
        ZR_BMapFile& file = m_aBackupFiles(iFile);
        cb += kMinFileSize;
        for (int iStream = 0; iStream < file; ++iStream)
            cb += ZR_BMapFile::kMinStreamSize + uint64_t{sizeof(PageId)} * static_cast<unsigned>(int{file(iStream)});
    }
    m_aBackupFiles.Unlock();
    cb += sizeof(uint32_t);
    m_aGamPages.Lock();
    for (int iRow = 0; iRow < m_aGamPages; ++iRow)
        cb += kMinRowSize + uint64_t{sizeof(ZR_GamPage)} * static_cast<unsigned>(m_aGamPages.Count(iRow));
    m_aGamPages.Unlock();
    // As for the extent map: 4 GiB or more cannot pass the reader's check.
    return static_cast<uint32_t>(cb);
}

bool ZR_BMaps::ReadContent(bool /*bUpdate*/) {
    ClearContents();
    if (m_iFileVersion != GetVersion())
        return false;
    ZR_MapCountGuard<X_MapFile> files(this, kMinFileSize);
    bool bOk = m_aBackupFiles.SerializeRead(&files) && m_aBackupFiles > 0;
    if (bOk) {
        ZR_MapCountGuard<X_MapFile> rows(this, kMinRowSize);
        bOk = m_aGamPages.SerializeRead(&rows);
    }
    if (!bOk)
        ClearContents();
    return bOk;
}

bool ZR_BMaps::WriteContent() {
    X_MapFile* pFile = this;
    return m_aBackupFiles.SerializeWrite(pFile) && m_aGamPages.SerializeWrite(pFile);
}

void ZR_BMaps::AugmentExtent(int iThread, int iMQDA, int iSlot, PageId pageId) {
    if (iThread < 0 || iMQDA < 0 || iSlot < 0)
        return;
    zr_array::ScopedLock lock(&m_csAugment, true);
    m_aBackupFiles.Set(iThread);
    ZR_BMapFile& file = m_aBackupFiles(iThread);
    file.Set(iMQDA);
    file(iMQDA).Set(iSlot, pageId);
}

void ZR_BMaps::AugmentGAM(PageId firstPageId, PageId gamPageId, const void* pPage) {
    ZR_GamPage record{};
    record.m_FirstPageId = firstPageId;
    record.m_GamPageId = gamPageId;
    record.m_NextPageId = PageId{firstPageId.m_iPage + ZR_GAM_INTERVAL, firstPageId.m_iFileId};
    std::memcpy(record.m_aPage, pPage, sizeof record.m_aPage);
    zr_array::ScopedLock lock(&m_csAugment, true);
    m_aGamPages.Set(firstPageId.m_iFileId, static_cast<int>(firstPageId.m_iPage / ZR_GAM_INTERVAL), record);
}

void ZR_BMaps::Dump(int iBackup) {
    if (!TraceFlagOn(kTraceFlagBackupMap))
        return;
    TPrintf("Backup Map (%s):\n\n", BackupSlotName(iBackup).c_str());
    for (int iFile = 0; iFile < m_aBackupFiles; ++iFile)
        for (int iStream = 0; iStream < m_aBackupFiles(iFile); ++iStream)
            DumpStream(iFile, iStream);
    TPrintf("\n");
}

// An id below the largest seen so far in the stream is marked: the stream
// went back in the file there.
void ZR_BMaps::DumpStream(int iFile, int iStream) {
    TPrintf("Backup File %d, MQDA %d:\n", iFile, iStream);
    ZR_BMapStream& stream = m_aBackupFiles(iFile)(iStream);
    PageId largest{0, 0};
    for (int iSlot = 0; iSlot < stream; ++iSlot) {
        if (iSlot % kIdsPerLine == 0)
            TPrintf(iSlot ? "\n    %7d:" : "    %7d:", iSlot);
        const PageId& id = stream(iSlot);
        TPrintf(" %c%{PageId}", IdLess(id, largest) ? '*' : ' ', &id);
        if (IdLess(largest, id))
            largest = id;
    }
    TPrintf("\n\n");
}
