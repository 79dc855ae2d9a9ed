#include "support/MountedChain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "support/ErrorText.h"

namespace fs = std::filesystem;

namespace zrtest {

namespace {

constexpr wchar_t kKey[] = L"mounted-chain";

}  // namespace

MountedChain::MountedChain(const std::vector<fs::path>& full, const std::vector<fs::path>& diff, LiveIO eLiveIO)
    : m_reference(full, diff), m_error(m_reference.Error()) {
    std::wcsncpy(g_wszMapFilesFolder, m_maps.path().wstring().c_str(), MAX_PATH - 1);
    m_pDB = std::make_unique<ZR_Database>(L"/tmp", GUID_NULL);
    m_pDB->SetMountKey(kKey);
    for (const auto* pFiles : {&full, &diff}) {
        if (pFiles->empty()) continue;
        ZR_Backup* pBackup = pFiles == &full ? m_pDB->NewFull() : m_pDB->NewDiff();
        pBackup->SetDataSetNumber(1);
        for (const fs::path& f : *pFiles) pBackup->AddFile(f.wstring().c_str(), nullptr, false);
    }
    ZR_Database& db = *m_pDB;
    bool bOk = true;
    if (eLiveIO == LiveIO::kThreads)
        bOk = db.PrepareContent();
    else
        for (int i = 0; bOk && i < db.GetNumBackups(); ++i) bOk = db.GetBackup(i)->PrepareContent(&db.m_iSQLVersion);
    bOk = bOk && db.PrepareAccess(ZR_StopInfo{}) && db.OpenBackups();
    if (bOk && eLiveIO == LiveIO::kQueueOnly) db.StartLiveIORead(0);
    if (!bOk) m_error += "prepare: " + ErrorTextNarrow(kKey);
}

MountedChain::~MountedChain() {
    m_pDB.reset();
    g_wszMapFilesFolder[0] = 0;
    ZR_ClearErrors(kKey);
}

PageBuffer::PageBuffer(std::uint32_t iPages)
    : m_iBytes(std::size_t{iPages} * kPageSize),
      m_p(static_cast<std::uint8_t*>(VirtualAlloc(nullptr, m_iBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))) {}

PageBuffer::~PageBuffer() { VirtualFree(m_p, 0, MEM_RELEASE); }

std::vector<std::uint8_t> PageBuffer::Scribble(std::mt19937& rng) {
    std::uint64_t x = rng() | 1;
    for (std::size_t i = 0; i < m_iBytes; i += sizeof x) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;  // xorshift
        const std::uint64_t v = x | 0x8080808080808080;
        std::memcpy(m_p + i, &v, sizeof v);
    }
    return {m_p, m_p + m_iBytes};
}

void SetBit(std::vector<std::uint8_t>& bitmap, std::uint32_t i) {
    bitmap[i >> 3] |= static_cast<std::uint8_t>(0x80 >> (i & 7));
}

PageRead RandomRead(const ChainReference& chain, std::mt19937& rng) {
    const auto held = chain.HeldExtents();
    const auto [fileId, extent] = held[rng() % held.size()];
    const std::int64_t first = std::max<std::int64_t>(0, std::int64_t{extent} + std::int64_t(rng() % 48) - 16);
    PageRead r{fileId, static_cast<std::uint32_t>(first), 1 + static_cast<std::uint32_t>(rng() % 96)};
    for (std::uint32_t i = 0; i < r.pages; ++i)
        if (rng() % 4 == 0) SetBit(r.bitmap, r.Bit(i));
    return r;
}

void ExpectServed(const MountedChain& chain, const PageRead& r, PageBuffer& buffer,
                  const std::vector<std::uint8_t>& before) {
    for (std::uint32_t i = 0; i < r.pages; ++i) {
        const std::uint8_t* pGot = buffer.Page(i);
        const std::uint8_t* pBefore = before.data() + std::size_t{i} * kPageSize;
        const std::uint8_t* pWant = chain.ExpectedPage(r.fileId, r.firstPage + i);
        SCOPED_TRACE(testing::Message() << "page " << r.fileId << ":" << r.firstPage + i);
        if (!r.Wanted(i)) {
            ASSERT_EQ(0, std::memcmp(pGot, pBefore, kPageSize)) << "a page the driver has is left alone";
        } else if (pWant) {
            ASSERT_EQ(0, std::memcmp(pGot, pWant, kPageSize));
        } else {
            ASSERT_TRUE(IsBlankPageHeader(pGot));
            ASSERT_EQ(0, std::memcmp(pGot + kPageHeaderSize, pBefore + kPageHeaderSize, kPageSize - kPageHeaderSize));
        }
    }
}

}  // namespace zrtest
