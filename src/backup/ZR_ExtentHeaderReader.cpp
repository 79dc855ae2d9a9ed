#include "backup/ZR_ExtentHeaderReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "backup/ZR_Backup.h"

ZR_ExtentHeaderReader::ZR_ExtentHeaderReader(ZR_Backup* pB) : m_pB(pB) {
    m_pHeaders = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, SIZE_T{ms_iBatch} * ms_iHeaderSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
}

ZR_ExtentHeaderReader::~ZR_ExtentHeaderReader() {
    if (m_pHeaders)
        VirtualFree(m_pHeaders, 0, MEM_RELEASE);
}

namespace {

constexpr uint32_t kPageIdOffset = 32;
constexpr uint8_t kFirstDumpPageType = 100;  // types from here on are the backup's own pages

}  // namespace

PageId ZR_ExtentHeaderReader::PageIdOf(const uint8_t* pHeader) {
    PageId id;
    std::memcpy(&id, pHeader + kPageIdOffset, sizeof id);
    return id;
}

bool ZR_ExtentHeaderReader::IsEnteredPage(const uint8_t* pHeader) {
    return pHeader[0] == 1 && pHeader[1] != 0 && pHeader[1] < kFirstDumpPageType && PageIdOf(pHeader).m_iFileId != 0;
}

// One small aligned read around the header: the file's sector size rules
// the unbuffered read, and a read-ahead window would read 80 KiB for 512
// bytes.
bool ZR_ExtentHeaderReader::ReadHeaderAt(ZR_BackupFile* pFile, uint64_t iOfs, uint8_t* pScratch,
                                         uint8_t* pHeader) {
    const uint64_t iSector = pFile->GetSectorSize() ? pFile->GetSectorSize() : ZR_BackupFile::ms_iDefaultSectorSize;
    const uint64_t iStart = iOfs & ~(iSector - 1);
    const uint64_t iEnd = (iOfs + ms_iHeaderSize + iSector - 1) & ~(iSector - 1);
    if (iEnd - iStart > ms_iScratchSize)
        return false;
    uint32_t iRead = 0;
    if (!pFile->Read(nullptr, pScratch, iStart, static_cast<uint32_t>(iEnd - iStart), IO_READ, &iRead) ||
        iRead < iOfs - iStart + ms_iHeaderSize)
        return false;
    std::memcpy(pHeader, pScratch + (iOfs - iStart), ms_iHeaderSize);
    return true;
}

void ZR_ExtentHeaderReader::Fail(std::exception_ptr pThrown) {
    if (pThrown) {
        std::lock_guard<std::mutex> lock(m_mxThrown);
        if (!m_pThrown)
            m_pThrown = pThrown;
    }
    m_bFailed = true;
}

void ZR_ExtentHeaderReader::Work() {
    uint8_t* pScratch =
        static_cast<uint8_t*>(VirtualAlloc(nullptr, ms_iScratchSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!pScratch) {
        Fail(nullptr);
        return;
    }
    try {
        const long n = static_cast<long>(m_paExtents->size());
        for (long i = m_iNext++; i < n && !m_bFailed; i = m_iNext++) {
            const Extent& x = (*m_paExtents)[static_cast<size_t>(i)];
            ZR_BackupFile* pFile = m_pB->GetFile(x.iDevice);
            if (!pFile || !ReadHeaderAt(pFile, x.iFileOfs, pScratch, m_pHeaders + i * ms_iHeaderSize))
                Fail(nullptr);
        }
    } catch (...) {
        Fail(std::current_exception());
    }
    VirtualFree(pScratch, 0, MEM_RELEASE);
}

DWORD ZR_ExtentHeaderReader::Worker(LPVOID pParam) {
    static_cast<ZR_ExtentHeaderReader*>(pParam)->Work();  // catches everything
    return 0;
}

bool ZR_ExtentHeaderReader::Read(const std::vector<Extent>& aExtents) {
    if (!m_pHeaders || aExtents.size() > static_cast<size_t>(ms_iBatch))
        return false;
    m_paExtents = &aExtents;
    m_iNext = 0;
    m_bFailed = false;
    const int nThreads =
        std::min<int>(ms_iThreads, static_cast<int>(aExtents.size() / ms_iPerThread));
    HANDLE ahThreads[ms_iThreads];
    int nStarted = 0;
    for (; nStarted < nThreads; ++nStarted) {
        ahThreads[nStarted] = CreateThread(nullptr, 0, Worker, this, 0, nullptr);
        if (!ahThreads[nStarted])
            break;  // fewer threads: the caller's own share grows
    }
    Work();  // the calling thread reads too
    // No time limit: the workers write into this object's buffers and end
    // when their reads end, which the file reader bounds.
    if (nStarted > 0)
        WaitForMultipleObjects(static_cast<DWORD>(nStarted), ahThreads, TRUE, INFINITE);
    for (int i = 0; i < nStarted; ++i)
        CloseHandle(ahThreads[i]);
    m_paExtents = nullptr;
    if (m_pThrown)
        std::rethrow_exception(std::exchange(m_pThrown, nullptr));
    return !m_bFailed;
}
