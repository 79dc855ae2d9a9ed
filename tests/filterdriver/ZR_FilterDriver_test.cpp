// The embedded driver's commands, as the library sends them: hydration
// (7 to 10), file names (4, 6); the bitmaps it keeps on disk; and its start
// by the library, which leaves a driver that serves the control port alone.
// (The trace, through the library's exports, and the start by InitializeZR
// are the end-to-end mount tests'.)
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "engine/ZR_BufferPool.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"
#include "platform/win32.h"
#include "support/DriverTestBase.h"
#include "support/ErrorText.h"
#include "support/FileBytes.h"
#include "support/WaitUntil.h"
#include "zirlane/zirlane.h"

namespace zrtest {
namespace {

using DriverCommandTest = DriverTestBase;

class HydrationTest : public DriverTestBase {
protected:
    ZR_HydrationRange Status(uint32_t iStartExtent = 0, HRESULT hrExpected = S_OK) {
        ZR_HydrationStatusMessage msg{DRIVER_COMMAND_GET_HYDRATION_STATUS, m_Uniquifier, iStartExtent};
        ZR_HydrationRange range{};
        DWORD cb = 0;
        EXPECT_EQ(m_pClient->Control(&msg, sizeof msg, &range, sizeof range, &cb), hrExpected);
        EXPECT_EQ(cb, hrExpected == S_OK ? sizeof range : 0u);
        return range;
    }
    HRESULT Hydrate(const uint8_t* pPages, uint32_t iFirstPage, uint32_t iCount, uint32_t iMode,
                    ZR_CompletionHeader* pHeader = nullptr, const uint8_t* pBitmap = nullptr,
                    uint32_t* pcbTaken = nullptr) {
        ZR_HydratePagesMessage msg{};
        msg.iCode = DRIVER_COMMAND_HYDRATE_PAGES;
        msg.Uniquifier = m_Uniquifier;
        msg.pPages = reinterpret_cast<uint64_t>(pPages);
        msg.Range.iFirstExtent = iFirstPage;
        msg.Range.iNumExtents = iCount;
        if (pBitmap) std::memcpy(msg.Range.Bitmap, pBitmap, sizeof msg.Range.Bitmap);
        msg.iMode = iMode;
        msg.pCompletionHeader = reinterpret_cast<uint64_t>(pHeader);
        uint32_t cbTaken = 0;
        DWORD cb = 0;
        HRESULT hr = m_pClient->Control(&msg, sizeof msg, &cbTaken, sizeof cbTaken, &cb);
        if (pcbTaken) *pcbTaken = cbTaken;
        return hr;
    }
    void Open() {
        m_h = OpenData();
        m_Uniquifier = Uniquifier();
    }

    ZR_HostHandle m_h = 0;
    FileObjectUniquifier m_Uniquifier{};
};

TEST_F(HydrationTest, DataFileModeWritesWhatIsMissingAndNeverOverwritesAPresentPage) {
    Open();
    std::vector<uint8_t> aMine(kPage, 0xAB);
    ASSERT_EQ(m_pHost->Write(m_h, 17 * kPage, aMine.data(), kPage), kHostSuccess);  // SQL Server's own page
    ZR_HydrationRange range = Status();
    // Extent 0 is never offered.
    EXPECT_EQ((std::vector<uint64_t>{range.iFirstExtent, range.iNumExtents, range.iTotalExtents, range.iHydratedBytes}),
              (std::vector<uint64_t>{1, 16, kFilePages / 8, kPage}));
    EXPECT_EQ(range.Bitmap[1], 0x40) << "page 17 is the second page of extent 2";

    m_NoBackup = {20};
    std::vector<uint8_t> aChunk = Expected(8, 128);
    std::memset(&aChunk[(20 - 8) * kPage + 96], 0x5A, kPage - 96);  // a blank header: the rest is stale
    uint32_t cbTaken = 0;
    ASSERT_EQ(Hydrate(aChunk.data(), 8, 128, ZR_HYDRATE_MODE_DATA_FILE, nullptr, range.Bitmap, &cbTaken), S_OK);
    EXPECT_EQ(cbTaken, 127 * kPage);
    EXPECT_EQ(ReadPages(m_h, 17, 1), aMine);
    EXPECT_EQ(ReadPages(m_h, 20, 1), std::vector<uint8_t>(kPage, 0));
    EXPECT_EQ(ReadPages(m_h, 8, 9), Expected(8, 9));
    EXPECT_TRUE(ReadOperations().empty());

    range = Status();
    EXPECT_EQ((std::vector<uint64_t>{range.iFirstExtent, range.iHydratedBytes}), (std::vector<uint64_t>{17, 128 * kPage}));
    EXPECT_EQ(Status(kFilePages / 8).iFirstExtent, kNoExtentToHydrate) << "nothing missing from the last extent on";
}

TEST_F(HydrationTest, WriterModesSignalTheCompletionHeader) {
    Open();
    std::atomic<int32_t> iOverflows{0};
    ZR_BufferPool pool(1, &iOverflows);
    for (uint32_t iMode : {ZR_HYDRATE_MODE_WRITER, ZR_HYDRATE_MODE_WRITER_FULL}) {
        SCOPED_TRACE(iMode);
        uint32_t iFirst = 64 * iMode;
        uint8_t* pBlock = static_cast<uint8_t*>(pool.Get(48 * kPage));
        ASSERT_NE(pBlock, nullptr);
        ZR_BufferPool::ResetHeader(pBlock);
        const std::vector<uint8_t> aPages = Expected(iFirst, 48);
        std::memcpy(pBlock, aPages.data(), aPages.size());
        std::vector<uint8_t> aMine(kPage, 0xEE);
        ASSERT_EQ(m_pHost->Write(m_h, (iFirst + 40) * kPage, aMine.data(), kPage), kHostSuccess);
        // Two messages for one block, as a writer sends runs of it.
        for (uint32_t iRun : {0u, 24u}) {
            ASSERT_EQ(Hydrate(pBlock + iRun * kPage, iFirst + iRun, 24, iMode, ZR_BufferPool::HeaderOf(pBlock)), S_OK);
            ZR_BufferPool::NotePosted(pBlock);
        }
        ASSERT_TRUE(WaitUntil([&] { return ZR_BufferPool::IsFinished(pBlock); }));
        pool.Free(pBlock);
        std::vector<uint8_t> aWant = aPages;
        std::memcpy(&aWant[40 * kPage], aMine.data(), kPage);
        EXPECT_EQ(ReadPages(m_h, iFirst, 48), aWant);
    }
    EXPECT_TRUE(ReadOperations().empty());
}

TEST_F(HydrationTest, CommandsRefuseWhatTheyCannotServe) {
    Open();
    std::vector<uint8_t> aPage = Expected(8, 1);
    EXPECT_EQ(Hydrate(aPage.data(), 8, 1, 7), E_INVALIDARG) << "no such mode";
    EXPECT_EQ(Hydrate(aPage.data(), 8, 1, ZR_HYDRATE_MODE_WRITER), E_INVALIDARG) << "no completion header";
    EXPECT_EQ(Hydrate(nullptr, 8, 1, ZR_HYDRATE_MODE_DATA_FILE), E_INVALIDARG);
    ZR_HydrationCleanupMessage cleanup{DRIVER_COMMAND_HYDRATION_CLEANUP, m_Uniquifier, 1};
    EXPECT_EQ(m_pClient->Control(&cleanup, sizeof cleanup), S_OK);
    EXPECT_EQ(m_pHost->Close(m_h, false), kHostSuccess);
    EXPECT_EQ(m_pClient->Control(&cleanup, sizeof cleanup), E_HANDLE) << "the file is gone";
    Status(0, E_HANDLE);
    EXPECT_EQ(Hydrate(aPage.data(), 8, 1, ZR_HYDRATE_MODE_DATA_FILE), E_HANDLE);
}

// What a restarted driver makes of the bitmap it finds, by what happened
// to the files while it was away.
TEST_F(HydrationTest, BitmapOnDiskIsUsedOnlyWhenItIsSound) {
    std::filesystem::path sparse = m_dir / kSparseName, bitmap = m_dir / (std::string(kSparseName) + ".bitmap");
    const uint64_t cbSlot = ZR_BitmapSlotBytes(kFilePages);
    auto flipInSlot = [&](uint64_t iSlot, uint64_t iAt) {
        const uint8_t c = ReadFileBytes(bitmap).at(iSlot * cbSlot + iAt) ^ 0x01;
        PatchFile(bitmap, iSlot * cbSlot + iAt, &c, 1);
    };
    auto newestSlot = [&] {  // by the generations at byte 8 of each slot
        const std::vector<uint8_t> bytes = ReadFileBytes(bitmap);
        return ZR_Load<uint64_t>(&bytes.at(cbSlot + 8)) > ZR_Load<uint64_t>(&bytes.at(8)) ? 1u : 0u;
    };
    struct Case {
        const char* szWhat;
        std::function<void()> damage;
        uint32_t iFirstExtent;  // of the answer to command 8 after the restart
        uint64_t iHydratedBytes;
    };
    const Case aCases[] = {
        {"untouched", [] {}, 3, 16 * kPage},
        {"the newest store torn", [&] { flipInSlot(newestSlot(), kBitmapSlotHead + 2); }, 2, 8 * kPage},
        {"both slots damaged",
         [&] {
             flipInSlot(0, 40);
             flipInSlot(1, 40);
         },
         0, 0},
        {"the sparse file resized", [&] { std::filesystem::resize_file(sparse, (kFilePages + 8) * kPage); }, 1, 0},
        {"the sparse file gone", [&] { std::filesystem::remove(sparse); }, 1, 0},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.szWhat);
        Open();
        ReadPages(m_h, 8, 8);
        ASSERT_EQ(m_pHost->Flush(m_h), kHostSuccess);
        ReadPages(m_h, 16, 8);
        ZR_FlushMountCachesMessage flush{DRIVER_COMMAND_FLUSH_MOUNT_CACHES, u"guid=abc"};
        ASSERT_EQ(m_pClient->Control(&flush, 2 * 8 + 6), S_OK);  // both slots written
        Restart(true);
        c.damage();
        Open();
        ZR_HydrationRange range = Status();
        EXPECT_EQ((std::vector<uint64_t>{range.iFirstExtent, range.iHydratedBytes}),
                  (std::vector<uint64_t>{c.iFirstExtent, c.iHydratedBytes}));
        EXPECT_EQ(m_pHost->Close(m_h, true), kHostSuccess);  // the next case starts afresh
        Restart(true);
    }
    EXPECT_NE(ErrorTextNarrow(L"GUID=ABC").find("fails its check"), std::string::npos) << ErrorTextNarrow(L"GUID=ABC");
}

TEST(FileNameTable, VirtualNamesGiveTheSparseFileTheLibraryNames) {
    struct Case {
        const wchar_t* wszNameB;
        const wchar_t* wszSparse;  // null: refused
    };
    const Case aCases[] = {
        {L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!1.mxf", L"F\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!1.mcf"},
        {L"c:\\VDB=a!!!Sales!LSN=1-2-3!12.NXF", L"F\\VDB=a!!!Sales!LSN=1-2-3!12.ncf"},
        {L"C:\\Backups=O''Brien!FULL,DIFF!4.nxf", L"F\\Backups=O'Brien!FULL,DIFF!4.ncf"},
        {L"C:\\key!0.nxf", nullptr},
        {L"C:\\key!1.mdf", nullptr},
        {L"C:\\key!x1.mxf", nullptr},
        {L"C:\\!1.mxf", nullptr},
        {L"key!1.mxf", nullptr},
    };
    for (const Case& c : aCases) {
        ZR_FileNameEntry entry;
        bool bParsed = ZR_FileNameTable::ParseVirtualName(c.wszNameB, &entry);
        EXPECT_EQ(bParsed, c.wszSparse != nullptr) << std::wstring(c.wszNameB);
        if (bParsed && c.wszSparse) {
            EXPECT_EQ(entry.SparseName(L"F"), c.wszSparse);
        }
    }
}

TEST_F(DriverCommandTest, FileNamesAreRefusedWhenTheyDoNotFitAndDroppedByCommandSix) {
    std::vector<uint8_t> aMessage(kAddFileNamesHead + 8, 0);
    uint32_t aiHead[2] = {DRIVER_COMMAND_ADD_FILE_NAMES, 4000};
    std::memcpy(aMessage.data(), aiHead, sizeof aiHead);
    EXPECT_EQ(m_pClient->Control(aMessage.data(), static_cast<DWORD>(aMessage.size())), E_INVALIDARG);
    EXPECT_EQ(m_pClient->Control(aMessage.data(), 10), E_INVALIDARG);
    EXPECT_EQ(m_pClient->AddFileNames(L"D:\\x.mdf", L"D:\\x.mdf", kPage), E_INVALIDARG);
    EXPECT_NE(ErrorTextNarrow().find("is not a virtual data file name"), std::string::npos) << ErrorTextNarrow();

    ZR_CodeOnlyMessage cleanup{DRIVER_COMMAND_CLEANUP_FILE_NAMES};
    ASSERT_EQ(m_pClient->Trace(&cleanup, sizeof cleanup), S_OK);
    ZR_HostHandle h = 0;
    EXPECT_EQ(m_pHost->Open(kNameA, &h), kHostNameNotFound);
}

TEST(EmbeddedDriverStart, TheLibraryStartsItUnlessADriverServesTheControlPort) {
    FilterPortHandlers other;
    ASSERT_TRUE(FilterRegisterPort(kControlPortName, other));
    EXPECT_TRUE(ZR_FilterDriver::StartUnlessPresent(L"/tmp"));
    EXPECT_FALSE(ZR_FilterDriver::IsRunning());
    FilterUnregisterPort(kControlPortName);
}

}  // namespace
}  // namespace zrtest
