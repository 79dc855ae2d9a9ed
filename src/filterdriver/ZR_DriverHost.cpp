#include "filterdriver/ZR_DriverHost.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

#include "diag/ZR_Error.h"
#include "filterdriver/ZR_FilterDriver.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"

namespace {

constexpr uint32_t kPage = ZR_PageBitmap::kPageSize;
constexpr size_t kNameChars = 260;  // a name field of an operation, with its terminating zero

bool EndsWith(const std::wstring& str, const wchar_t* wszTail) {
    size_t cch = wcslen(wszTail);
    return str.size() >= cch && _wcsicmp(str.c_str() + str.size() - cch, wszTail) == 0;
}

bool IsVirtualBackupName(const std::wstring& strName) {
    return EndsWith(strName, L".bxk") || EndsWith(strName, L".kxlp");
}

// The pair the reply to a create gives, which later operations carry.
ZR_FileInfoPair PairOf(const ZR_OperationReply& reply) {
    const auto* p = reinterpret_cast<const uint8_t*>(&reply);
    return ZR_FileInfoPair{ZR_Load<uint32_t>(p + kReplyCreateFileKey), p[kReplyCreateVirtualBackup]};
}

ZR_OperationHead HeadOf(ZR_DriverOperation_e eOperation) {
    ZR_OperationHead head{};
    head.iOperation = eOperation;
    return head;
}

}  // namespace

// ---------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------

std::shared_ptr<ZR_DriverHost::OpenFile> ZR_DriverHost::Find(ZR_HostHandle hFile) {
    std::lock_guard guard(m_cs);
    auto it = m_Files.find(hFile);
    return it == m_Files.end() ? nullptr : it->second;
}

ZR_HostHandle ZR_DriverHost::Keep(std::shared_ptr<OpenFile> pFile) {
    std::lock_guard guard(m_cs);
    ZR_HostHandle hFile = m_iNextHandle++;
    m_Files[hFile] = std::move(pFile);
    return hFile;
}

void ZR_DriverHost::CloseAll() {
    std::lock_guard guard(m_cs);
    m_Files.clear();
}

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

ZR_HostStatus ZR_DriverHost::Operate(const void* pMessage, size_t cbMessage, ZR_OperationReply* pReply) {
    ZR_HostStatus iStatus = m_Driver.Channel().Call(pMessage, cbMessage, pReply, m_Driver.LibraryTimeoutMs());
    return iStatus != kHostSuccess ? iStatus : pReply->iResult;
}

ZR_HostStatus ZR_DriverHost::Query(const OpenFile& file, uint32_t iClass, ZR_OperationReply* pReply) {
    ZR_QueryOperation query{};
    query.Head = HeadOf(ZR_OP_QUERY_INFORMATION);
    query.File = file.Info;
    query.iClass = iClass;
    return Operate(&query, sizeof query, pReply);
}

ZR_HostStatus ZR_DriverHost::ViewSize(OpenFile& file, uint64_t* piSize) {
    if (uint64_t iKnown = file.iViewSize.load(); iKnown != UINT64_MAX) {
        *piSize = iKnown;
        return kHostSuccess;
    }
    ZR_OperationReply reply;
    if (ZR_HostStatus iStatus = Query(file, kFileStandardInformation, &reply); iStatus != kHostSuccess) return iStatus;
    *piSize = ZR_Load<uint64_t>(reinterpret_cast<const uint8_t*>(&reply) + kReplyEndOfFile);
    file.iViewSize = *piSize;
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::LiveRead(const OpenFile& file, uint64_t iOffset, uint32_t cb, const uint8_t* pBitmap,
                                      std::shared_ptr<ZR_HeldRead>* ppRead) {
    ZR_HeldReads& reads = m_Driver.Reads();
    std::shared_ptr<ZR_HeldRead> pRead = reads.Begin(cb);
    if (!pRead) return m_Driver.IsStopping() ? kHostDriverStopped : kHostNoMemory;
    ZR_ReadOperation read{};
    read.Head = HeadOf(ZR_OP_READ);
    read.File = file.Info;
    read.iLength = cb;
    read.iOffset = iOffset;
    std::memcpy(read.Bitmap, pBitmap, sizeof read.Bitmap);
    read.iBufferKey = pRead->iBufferKey;
    read.pOpId = pRead->iOpId;
    m_Driver.Trace().Line("read of %S held: offset %I64u, %u bytes, operation %I64u, buffer %I64u\n",
                          file.strName.c_str(), iOffset, cb, pRead->iOpId, pRead->iBufferKey);
    ZR_OperationReply reply;
    ZR_HostStatus iStatus = m_Driver.Channel().Call(&read, sizeof read, &reply, m_Driver.LibraryTimeoutMs());
    if (iStatus == kHostSuccess && reply.iResult != 0) {
        reads.End(pRead, true);  // the library refused the read: it writes nothing into the buffer
        return reply.iResult;
    }
    if (iStatus == kHostSuccess) iStatus = reads.Wait(*pRead, m_Driver.LibraryTimeoutMs());
    reads.End(pRead, false);
    *ppRead = std::move(pRead);
    return iStatus;
}

// ---------------------------------------------------------------------------
// Open
// ---------------------------------------------------------------------------

ZR_HostStatus ZR_DriverHost::Open(const wchar_t* wszName, ZR_HostHandle* phFile) {
    *phFile = 0;
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    if (!wszName || !*wszName || Utf16Length(wszName) >= kNameChars) return kHostNameInvalid;
    ZR_FileNameEntry names;
    if (m_Driver.Names().Find(wszName, &names)) return OpenDataFile(names, phFile);
    if (IsVirtualBackupName(wszName)) return OpenVirtualFile(wszName, phFile);
    return kHostNameNotFound;
}

ZR_HostStatus ZR_DriverHost::OpenDataFile(const ZR_FileNameEntry& names, ZR_HostHandle* phFile) {
    std::wstring strFolder = m_Driver.SparseFolder();
    if (strFolder.empty()) {
        ZR_Error(names.strKey.c_str(), __FILE__, "ZR_DriverHost::Open", __LINE__,
                 "Driver: no folder for sparse files is set: %S cannot be opened\n", names.strNameA.c_str());
        return kHostPathNotFound;
    }
    if (Utf16Length(names.strNameA.c_str()) >= kNameChars || Utf16Length(names.strNameB.c_str()) >= kNameChars)
        return kHostNameInvalid;
    auto pFile = std::make_shared<OpenFile>();
    pFile->strName = names.strNameA;
    ZR_HostStatus iStatus = m_Driver.Files().Acquire(names, names.SparseName(strFolder), &pFile->pData);
    if (iStatus != kHostSuccess) return iStatus;
    ZR_CreateOperation create{};
    create.Head = HeadOf(ZR_OP_CREATE);
    Utf16EncodeField(names.strNameA.c_str(), create.wszName, sizeof create.wszName);
    Utf16EncodeField(names.strNameB.c_str(), create.wszSecondName, sizeof create.wszSecondName);
    create.Uniquifier = pFile->pData->Uniquifier();
    ZR_OperationReply reply;
    if (iStatus = Operate(&create, sizeof create, &reply); iStatus != kHostSuccess) {
        m_Driver.Files().Release(pFile->pData, false);
        return iStatus;
    }
    pFile->Info = PairOf(reply);
    *phFile = Keep(std::move(pFile));
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::OpenVirtualFile(const wchar_t* wszName, ZR_HostHandle* phFile) {
    ZR_CreateOperation create{};
    create.Head = HeadOf(ZR_OP_CREATE);
    Utf16EncodeField(wszName, create.wszName, sizeof create.wszName);
    ZR_OperationReply reply;
    if (ZR_HostStatus iStatus = Operate(&create, sizeof create, &reply); iStatus != kHostSuccess) return iStatus;
    auto pFile = std::make_shared<OpenFile>();
    pFile->strName = wszName;
    pFile->Info = PairOf(reply);
    *phFile = Keep(std::move(pFile));
    return kHostSuccess;
}

// ---------------------------------------------------------------------------
// Read and write
// ---------------------------------------------------------------------------

ZR_HostStatus ZR_DriverHost::Read(ZR_HostHandle hFile, uint64_t iOffset, void* pBuffer, uint32_t cbBuffer,
                                  uint32_t* pcbRead) {
    *pcbRead = 0;
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    auto* p = static_cast<uint8_t*>(pBuffer);
    return pFile->pData ? ReadData(*pFile, iOffset, p, cbBuffer, pcbRead)
                        : ReadVirtual(*pFile, iOffset, p, cbBuffer, pcbRead);
}

ZR_HostStatus ZR_DriverHost::ReadVirtual(OpenFile& file, uint64_t iOffset, uint8_t* p, uint32_t cb, uint32_t* pcbRead) {
    uint64_t iSize = UINT64_MAX;
    ViewSize(file, &iSize);  // unknown: the library decides where the view ends
    if (iOffset >= iSize || cb == 0) return kHostSuccess;
    cb = static_cast<uint32_t>(std::min<uint64_t>(cb, iSize - iOffset));
    const uint8_t aNone[kLiveBitmapBytes] = {};
    std::shared_ptr<ZR_HeldRead> pRead;
    if (ZR_HostStatus iStatus = LiveRead(file, iOffset, cb, aNone, &pRead); iStatus != kHostSuccess) return iStatus;
    std::memcpy(p, pRead->pBuffer.get(), cb);
    *pcbRead = cb;
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::FetchMissing(const OpenFile& file, uint64_t iFirst, uint64_t iEnd,
                                          std::vector<Unstored>* paUnstored) {
    ZR_DataFile& data = *file.pData;
    Unstored piece{};
    for (uint64_t iPage = iFirst; data.NextMissing(iPage, iEnd, &piece.iFirstPage, &piece.iCount, piece.aBitmap);
         iPage = piece.iFirstPage + piece.iCount) {
        ZR_HostStatus iStatus =
            LiveRead(file, piece.iFirstPage * kPage, piece.iCount * kPage, piece.aBitmap, &piece.pRead);
        if (iStatus != kHostSuccess) return iStatus;
        iStatus = data.StoreFetched(piece.iFirstPage, piece.iCount, piece.aBitmap, piece.pRead->pBuffer.get());
        if (iStatus != kHostSuccess && !paUnstored) return iStatus;
        if (iStatus != kHostSuccess) paUnstored->push_back(piece);
    }
    return kHostSuccess;
}

// The pages are fetched and kept first, then the whole range is read from
// the sparse file: what the reader gets is what the file holds. Pages that
// could not be kept, and are still absent, are given from the fetched copy.
ZR_HostStatus ZR_DriverHost::ReadData(const OpenFile& file, uint64_t iOffset, uint8_t* p, uint32_t cb,
                                      uint32_t* pcbRead) {
    uint64_t iSize = file.pData->Size();
    if (iOffset >= iSize || cb == 0) return kHostSuccess;
    cb = static_cast<uint32_t>(std::min<uint64_t>(cb, iSize - iOffset));
    uint64_t iEnd = iOffset + cb;
    std::vector<Unstored> aUnstored;
    ZR_HostStatus iStatus = FetchMissing(file, iOffset / kPage, (iEnd + kPage - 1) / kPage, &aUnstored);
    if (iStatus == kHostSuccess) iStatus = file.pData->ReadStored(iOffset, p, cb);
    if (iStatus != kHostSuccess) return iStatus;
    for (const Unstored& piece : aUnstored) {
        uint64_t iBase = piece.iFirstPage & ~uint64_t(7);
        for (uint64_t iPage = piece.iFirstPage; iPage < piece.iFirstPage + piece.iCount; ++iPage) {
            uint64_t iFrom = std::max(iOffset, iPage * kPage), iTo = std::min(iEnd, (iPage + 1) * kPage);
            if (iFrom >= iTo || ZR_TestBit(piece.aBitmap, iPage - iBase) || file.pData->IsPresent(iPage)) continue;
            std::memcpy(p + (iFrom - iOffset), piece.pRead->pBuffer.get() + (iFrom - piece.iFirstPage * kPage),
                        iTo - iFrom);
        }
    }
    *pcbRead = cb;
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::Write(ZR_HostHandle hFile, uint64_t iOffset, const void* pBuffer, uint32_t cbBuffer) {
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    if (!pFile->pData) return kHostAccessDenied;
    if (cbBuffer == 0) return kHostSuccess;
    // The pages at both ends, if the write covers them only in part, must
    // hold their other bytes before the page counts as present.
    uint64_t iEnd = iOffset + cbBuffer;
    uint64_t aiEdges[2] = {iOffset % kPage ? iOffset / kPage : UINT64_MAX, iEnd % kPage ? iEnd / kPage : UINT64_MAX};
    for (uint64_t iPage : aiEdges)
        if (iPage != UINT64_MAX)
            if (ZR_HostStatus iStatus = FetchMissing(*pFile, iPage, iPage + 1, nullptr); iStatus != kHostSuccess)
                return iStatus;
    return pFile->pData->Write(iOffset, pBuffer, cbBuffer);
}

// ---------------------------------------------------------------------------
// Size, position, flush, close
// ---------------------------------------------------------------------------

ZR_HostStatus ZR_DriverHost::QuerySize(ZR_HostHandle hFile, uint64_t* piSize) {
    *piSize = 0;
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    if (!pFile->pData) return ViewSize(*pFile, piSize);
    *piSize = pFile->pData->Size();
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::QueryPosition(ZR_HostHandle hFile, uint64_t* piPosition) {
    *piPosition = 0;
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    ZR_OperationReply reply;
    if (ZR_HostStatus iStatus = Query(*pFile, kFilePositionInformation, &reply); iStatus != kHostSuccess)
        return iStatus;
    const auto* pReply = reinterpret_cast<const uint8_t*>(&reply);
    *piPosition =
        ZR_Load<uint32_t>(pReply + kReplyPositionLow) | uint64_t(ZR_Load<uint32_t>(pReply + kReplyPositionHigh)) << 32;
    return kHostSuccess;
}

ZR_HostStatus ZR_DriverHost::SetSize(ZR_HostHandle hFile, uint64_t iSize) {
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    return pFile->pData ? pFile->pData->SetSize(iSize) : kHostAccessDenied;
}

ZR_HostStatus ZR_DriverHost::Flush(ZR_HostHandle hFile) {
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile = Find(hFile);
    if (!pFile) return kHostInvalidHandle;
    ZR_FlushOperation flush{};
    flush.Head = HeadOf(ZR_OP_FLUSH);
    flush.File = pFile->Info;
    ZR_OperationReply reply;
    ZR_HostStatus iStatus = Operate(&flush, sizeof flush, &reply);
    ZR_HostStatus iData = pFile->pData ? pFile->pData->Flush() : kHostSuccess;
    return iStatus != kHostSuccess ? iStatus : iData;
}

ZR_HostStatus ZR_DriverHost::Close(ZR_HostHandle hFile, bool bDeleteOnClose) {
    if (m_Driver.IsStopping()) return kHostDriverStopped;
    std::shared_ptr<OpenFile> pFile;
    {
        std::lock_guard guard(m_cs);
        auto it = m_Files.find(hFile);
        if (it == m_Files.end()) return kHostInvalidHandle;
        pFile = std::move(it->second);
        m_Files.erase(it);
    }
    ZR_CloseOperation close{};
    close.Head = HeadOf(ZR_OP_CLOSE);
    close.File = pFile->Info;
    close.bDeleteOnClose = bDeleteOnClose;
    ZR_OperationReply reply;
    ZR_HostStatus iStatus = Operate(&close, sizeof close, &reply);
    if (pFile->pData) m_Driver.Files().Release(pFile->pData, bDeleteOnClose);
    return iStatus;
}
