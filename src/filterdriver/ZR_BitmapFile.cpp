#include "filterdriver/ZR_BitmapFile.h"

#include <algorithm>
#include <cstring>

#include "diag/ZR_Error.h"
#include "filterdriver/ZR_FileIo.h"
#include "foundation/Unaligned.h"

namespace {

constexpr uint32_t kMagic = 0x4250525A;  // "ZRPB"
constexpr uint32_t kVersion = 1;
constexpr uint32_t kCheckedHead = 24;  // the head's bytes that the check covers
constexpr uint64_t kSlotAlign = 4096;

uint64_t Fnv1a(const uint8_t* p, size_t cb, uint64_t h = 1469598103934665603ull) {
    for (size_t i = 0; i < cb; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

uint64_t CheckOf(const uint8_t* pHead, const uint8_t* pBits, size_t cbBits) {
    return Fnv1a(pBits, cbBits, Fnv1a(pHead, kCheckedHead));
}

}  // namespace

uint64_t ZR_BitmapSlotBytes(uint64_t iPages) {
    return (kBitmapSlotHead + (iPages + 7) / 8 + kSlotAlign - 1) / kSlotAlign * kSlotAlign;
}

// What one slot holds.
struct ZR_BitmapFile::Slot {
    enum State_e { EMPTY, BAD, FOREIGN, GOOD } eState = EMPTY;
    uint64_t iGeneration = 0;
    std::vector<uint8_t> aBytes;  // GOOD only
};

ZR_BitmapFile::ZR_BitmapFile(std::wstring strPath) : m_strPath(std::move(strPath)) {}

ZR_BitmapFile::~ZR_BitmapFile() { Close(); }

void ZR_BitmapFile::Close() {
    if (m_hFile != INVALID_HANDLE_VALUE) CloseHandle(m_hFile);
    m_hFile = INVALID_HANDLE_VALUE;
}

bool ZR_BitmapFile::Open() {
    if (m_hFile == INVALID_HANDLE_VALUE) m_hFile = ZR_OpenDriverFile(m_strPath.c_str(), OPEN_ALWAYS);
    if (m_hFile != INVALID_HANDLE_VALUE) return true;
    ZR_Error(nullptr, __FILE__, "ZR_BitmapFile::Open", __LINE__, "Driver: cannot open the bitmap %S, error %u\n",
             m_strPath.c_str(), GetLastError());
    return false;
}

// A slot of another size cannot be checked (its bytes run past this
// layout): it is told apart from damage by its magic and version alone.
bool ZR_BitmapFile::ReadSlot(uint64_t iOffset, uint64_t iPages, Slot* pSlot) {
    std::vector<uint8_t> aSlot(ZR_BitmapSlotBytes(iPages), 0);
    uint32_t cbRead = 0;
    DWORD iError = ZR_ReadAt(m_hFile, aSlot.data(), static_cast<uint32_t>(aSlot.size()), iOffset, &cbRead);
    if (iError != ERROR_SUCCESS && iError != ERROR_HANDLE_EOF) {
        ZR_Error(nullptr, __FILE__, "ZR_BitmapFile::ReadSlot", __LINE__,
                 "Driver: cannot read the bitmap %S at %I64u, error %u\n", m_strPath.c_str(), iOffset, iError);
        return false;
    }
    const uint8_t* pHead = aSlot.data();
    if (cbRead < kBitmapSlotHead || ZR_Load<uint32_t>(pHead) != kMagic) return true;  // EMPTY
    pSlot->iGeneration = ZR_Load<uint64_t>(pHead + 8);
    uint64_t iSlotPages = ZR_Load<uint64_t>(pHead + 16);
    size_t cbBits = (iPages + 7) / 8;
    if (ZR_Load<uint32_t>(pHead + 4) != kVersion)
        pSlot->eState = Slot::BAD;
    else if (iSlotPages != iPages)
        pSlot->eState = Slot::FOREIGN;
    else if (CheckOf(pHead, pHead + kBitmapSlotHead, cbBits) != ZR_Load<uint64_t>(pHead + kCheckedHead))
        pSlot->eState = Slot::BAD;
    else {
        pSlot->eState = Slot::GOOD;
        pSlot->aBytes.assign(pHead + kBitmapSlotHead, pHead + kBitmapSlotHead + cbBits);
    }
    return true;
}

ZR_BitmapLoad_e ZR_BitmapFile::Load(uint64_t iPages, std::vector<uint8_t>* paBytes) {
    Close();
    m_hFile = ZR_OpenDriverFile(m_strPath.c_str(), OPEN_EXISTING);
    if (m_hFile == INVALID_HANDLE_VALUE) return ZR_BITMAP_NONE;
    Slot aSlots[2];
    if (!ReadSlot(0, iPages, &aSlots[0]) || !ReadSlot(ZR_BitmapSlotBytes(iPages), iPages, &aSlots[1]))
        return ZR_BITMAP_CORRUPTED;
    int iGood = -1;
    for (int i = 0; i < 2; ++i)
        if (aSlots[i].eState == Slot::GOOD && (iGood < 0 || aSlots[i].iGeneration > aSlots[iGood].iGeneration))
            iGood = i;
    bool bForeign = false, bNewerForeign = false;
    for (const Slot& slot : aSlots) {
        bForeign |= slot.eState == Slot::FOREIGN;
        bNewerForeign |= slot.eState == Slot::FOREIGN && (iGood < 0 || slot.iGeneration > aSlots[iGood].iGeneration);
    }
    m_iGeneration = std::max(aSlots[0].iGeneration, aSlots[1].iGeneration);
    m_iNewestSlot = aSlots[1].iGeneration > aSlots[0].iGeneration ? 1 : 0;
    if (iGood >= 0 && !bNewerForeign) {
        m_iNewestSlot = iGood;
        *paBytes = std::move(aSlots[iGood].aBytes);
        return ZR_BITMAP_LOADED;
    }
    if (bForeign) return ZR_BITMAP_DISCARDED;
    if (aSlots[0].eState == Slot::BAD && aSlots[1].eState == Slot::BAD) return ZR_BITMAP_CORRUPTED;
    return ZR_BITMAP_NONE;  // at most one store was ever begun: a first store that did not end
}

bool ZR_BitmapFile::Store(uint64_t iPages, const std::vector<uint8_t>& aBytes) {
    if (!Open()) return false;
    int iSlot = 1 - m_iNewestSlot;
    uint64_t cbSlot = ZR_BitmapSlotBytes(iPages);
    size_t cbBits = (iPages + 7) / 8;
    std::vector<uint8_t> aSlot(cbSlot, 0);
    uint8_t* pHead = aSlot.data();
    ZR_Store<uint32_t>(pHead, kMagic);
    ZR_Store<uint32_t>(pHead + 4, kVersion);
    ZR_Store<uint64_t>(pHead + 8, m_iGeneration + 1);
    ZR_Store<uint64_t>(pHead + 16, iPages);
    std::memcpy(pHead + kBitmapSlotHead, aBytes.data(), std::min(cbBits, aBytes.size()));
    ZR_Store<uint64_t>(pHead + kCheckedHead, CheckOf(pHead, pHead + kBitmapSlotHead, cbBits));
    DWORD iError = ZR_WriteAt(m_hFile, aSlot.data(), static_cast<uint32_t>(cbSlot), iSlot * cbSlot);
    if (iError == ERROR_SUCCESS && !FlushFileBuffers(m_hFile)) iError = GetLastError();
    if (iError != ERROR_SUCCESS) {
        ZR_Error(nullptr, __FILE__, "ZR_BitmapFile::Store", __LINE__, "Driver: cannot write the bitmap %S, error %u\n",
                 m_strPath.c_str(), iError);
        return false;
    }
    m_iNewestSlot = iSlot;
    ++m_iGeneration;
    return true;
}

bool ZR_BitmapFile::Delete() {
    Close();
    return DeleteFileW(m_strPath.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND;
}
