#include "backup/ZR_ExtentHeaderReader.h"

#include <algorithm>
#include <cstring>

#include "backup/ZR_Backup.h"

namespace {

// Scratch of one worker: room for the aligned read that covers a header,
// whatever the sector size up to 4 KiB.
constexpr SIZE_T kScratch = 16384;

}  // namespace

ZR_ExtentHeaderReader::ZR_ExtentHeaderReader(ZR_Backup* pB) : m_pB(pB) {
    m_pHeaders = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, SIZE_T{ms_iBatch} * ms_iHeaderSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
}

ZR_ExtentHeaderReader::~ZR_ExtentHeaderReader() {
    if (m_pHeaders)
        VirtualFree(m_pHeaders, 0, MEM_RELEASE);
}

// One small aligned read around the header: the file's sector size rules
// the unbuffered read, and a read-ahead window would read 80 KiB for 512
// bytes.
bool ZR_ExtentHeaderReader::ReadOne(size_t i, uint8_t* pScratch) {
    const Extent& x = (*m_paExtents)[i];
    ZR_BackupFile* pFile = m_pB->GetFile(x.iDevice);
    if (!pFile)
        return false;
    const uint64_t iSector = pFile->GetSectorSize() ? pFile->GetSectorSize() : ZR_BackupFile::ms_iDefaultSectorSize;
    const uint64_t iStart = x.iFileOfs & ~(iSector - 1);
    const uint64_t iEnd = (x.iFileOfs + ms_iHeaderSize + iSector - 1) & ~(iSector - 1);
    if (iEnd - iStart > kScratch)
        return false;
    uint32_t iRead = 0;
    if (!pFile->Read(nullptr, pScratch, iStart, static_cast<uint32_t>(iEnd - iStart), IO_READ, &iRead) ||
        iRead < x.iFileOfs - iStart + ms_iHeaderSize)
        return false;
    std::memcpy(m_pHeaders + i * ms_iHeaderSize, pScratch + (x.iFileOfs - iStart), ms_iHeaderSize);
    return true;
}

void ZR_ExtentHeaderReader::Work() {
    uint8_t* pScratch = static_cast<uint8_t*>(VirtualAlloc(nullptr, kScratch, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!pScratch) {
        InterlockedExchange(&m_iFailed, 1);
        return;
    }
    const long n = static_cast<long>(m_paExtents->size());
    for (long i = InterlockedIncrement(&m_iNext) - 1; i < n && !m_iFailed; i = InterlockedIncrement(&m_iNext) - 1) {
        if (!ReadOne(static_cast<size_t>(i), pScratch))
            InterlockedExchange(&m_iFailed, 1);
    }
    VirtualFree(pScratch, 0, MEM_RELEASE);
}

DWORD ZR_ExtentHeaderReader::Worker(LPVOID pParam) {
    static_cast<ZR_ExtentHeaderReader*>(pParam)->Work();
    return 0;
}

bool ZR_ExtentHeaderReader::Read(const std::vector<Extent>& aExtents) {
    if (!m_pHeaders || aExtents.size() > static_cast<size_t>(ms_iBatch))
        return false;
    m_paExtents = &aExtents;
    m_iNext = 0;
    m_iFailed = 0;
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
    return m_iFailed == 0;
}
