// A real backup with a few bytes damaged, anywhere, goes through everything
// a mount does with it: the probe, the content map, the views, the extent
// map, reads of the whole view and page reads. Each step gives its answer or
// refuses with a recorded reason; nothing crashes, throws or hangs. The
// damage is seeded, so a failing iteration replays from its number.
#include "backup/ZR_Backup.h"
#include "backup/ZR_ScanFull.h"
#include "backupio/ZR_ReadAhead.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_EMaps.h"
#include "support/RealMaps.h"
#include "support/TestData.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A few bytes changed, half of them among the blocks and configuration at
// the head of the file, where a change reaches the most code.
std::vector<uint8_t> Damaged(const std::vector<uint8_t>& good, std::mt19937& rng) {
    std::vector<uint8_t> bytes = good;
    size_t iHead = std::min<size_t>(bytes.size(), 128 * 1024);
    int iChanges = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < iChanges; ++i) {
        size_t at = (i % 2 ? rng() % bytes.size() : rng() % iHead);
        bytes[at] = static_cast<uint8_t>(rng());
    }
    return bytes;
}

// Reads the first pages of every data file through the extent map.
void ReadSomePages(ZR_Backup& backup) {
    ZR_ReadAhead* pAhead = ZR_ReadAhead::Alloc();
    std::vector<uint8_t> page(ZR_PAGE_SIZE);
    for (uint16_t iFile = 1; iFile <= 4; ++iFile) {
        for (uint32_t iPage = 0; iPage < 64; iPage += 3) {
            PageId id{iPage, iFile};
            ZR_EMap entry = backup.LookupPage(id);
            uint32_t iRead = 0;
            if (!entry.IsNone() && entry.m_iEntry != ZR_EMap::kAllSet)
                backup.ReadPages(pAhead, page.data(), entry, id, ZR_PAGE_SIZE, IO_READ, &iRead);
        }
    }
    ZR_ReadAhead::Free(pAhead);
}

TEST(DamagedBackup, EveryStepAnswersOrRefusesCleanly) {
    ZR_REQUIRE_TESTDATA();
    const std::vector<uint8_t> good = zrtest::ReadFileBytes(*zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak"));
    zrtest::TempDir tmp;
    std::mt19937 rng(20261122);
    int iPrepared = 0, iRefused = 0;
    for (int iIteration = 0; iIteration < 200; ++iIteration) {
        SCOPED_TRACE("iteration " + std::to_string(iIteration));
        fs::path file = tmp / ("damaged" + std::to_string(iIteration) + ".bak");
        zrtest::WriteFileBytes(file, Damaged(good, rng));
        // A folder of its own: a map of the undamaged backup (same identity)
        // must not stand in for the damaged one.
        zrtest::MapFolderScope maps(tmp / ("maps" + std::to_string(iIteration)));
        std::string error;
        try {
            std::unique_ptr<ZR_Backup> backup = zrtest::PrepareBackup({file}, false, &error);
            if (!backup) {
                ++iRefused;
                EXPECT_FALSE(error.empty()) << "a refusal says why";
                continue;
            }
            ++iPrepared;
            std::string viewError;
            zrtest::ReadWholeView(*backup, 0, 65536, &viewError);
            ReadSomePages(*backup);
            backup->Close();
        } catch (...) {
            ADD_FAILURE() << "an exception left the library";
        }
        fs::remove(file);
    }
    // Both outcomes occur, so the damage reached past the first checks.
    EXPECT_GT(iPrepared, 0);
    EXPECT_GT(iRefused, 0);
}

// The map file of the extension in a folder, or the backup itself for "bak",
// rewritten with a change.
void ChangeFile(const fs::path& backup, const char* szWhich, const std::function<void(std::vector<uint8_t>&)>& change) {
    fs::path p = backup;
    for (const auto& e : fs::directory_iterator(backup.parent_path() / "maps"))
        if (e.path().extension() == szWhich)
            p = e.path();
    std::vector<uint8_t> bytes = zrtest::ReadFileBytes(p);
    change(bytes);
    zrtest::WriteFileBytes(p, bytes);
}

// Damage that once read past a buffer, overflowed a sum, or failed without
// a word: each is refused with its reason in the error chain, or, for a map
// that does not read, the map is built again. Some damage the backup before
// anything is known of it, some a map made of the sound backup, some the
// backup behind such a map.
TEST(DamagedBackup, EachKnownDamageIsRefusedWithItsReason) {
    ZR_REQUIRE_TESTDATA();
    using Change = std::function<void(std::vector<uint8_t>&)>;
    const auto at = [](std::vector<uint8_t>& b, const char* szText) {  // first place of four letters
        return b.data() + (std::search(b.begin(), b.end(), szText, szText + 4) - b.begin());
    };
    // The first data stream says 2^63 - 14 bytes, with a checksum made right.
    const Change hugeDataLength = [&](std::vector<uint8_t>& b) {
        uint8_t* p = at(b, "MQDA");
        const uint64_t iLength = (uint64_t{1} << 63) - 14;
        std::memcpy(p + 8, &iLength, 8);
        uint16_t iSum = 0;
        for (int i = 0; i < 20; i += 2)
            iSum ^= static_cast<uint16_t>(p[i] | p[i + 1] << 8);
        std::memcpy(p + 20, &iSum, 2);
    };
    // The TAPE block's location, at offset 0, moves to offset 4 in its backup
    // file offset alone, or in its stripe offset too: no header starts there,
    // and what reads as one is 52 bytes long.
    const auto tapeMoved = [&](bool bBoth) {
        return [=](std::vector<uint8_t>& b) {
            uint8_t* p = at(b, "TAPE") + 4;  // the location of the first block of the table
            p[17] ^= 0x04;                   // bit 2 of iBkpFileOfs
            p[0] ^= bBoth ? 0x04 : 0;        // and of iStripeOfs
        };
    };
    struct Case {
        bool bMapFirst;       // a map of the sound backup is made first
        const char* szWhich;  // the file changed: "bak", or a map's extension
        Change change;
        const char* reason;   // null: the damaged map is built again and the backup prepared
    } cases[] = {
        {false, "bak", hugeDataLength, "No configuration was found in the MSLS"},
        {true, "bak", hugeDataLength, "run past the end of the file"},
        {false, "bak", [](std::vector<uint8_t>& b) { b[std::string(b.begin(), b.end()).rfind("SCIN")] = 'X'; },
         "No configuration was found in the MSLS"},
        {true, "bak", [](std::vector<uint8_t>& b) { b.resize(b.size() - 512); }, "has been cut short"},
        {true, ".xdm", [](std::vector<uint8_t>& b) { b[16] = 2; }, nullptr},  // the update word
        {true, ".xcm", tapeMoved(false), nullptr},
        {true, ".xcm", tapeMoved(true), "The content map places a TAPE block"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.szWhich) + " " + (c.reason ? c.reason : "rebuilt"));
        zrtest::TempDir tmp;
        const fs::path file = tmp / "damaged.bak";
        fs::copy_file(*zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-diff1.bak"), file);
        fs::create_directories(tmp / "maps");
        zrtest::MapFolderScope maps(tmp / "maps");
        std::string error;
        if (c.bMapFirst) {
            ASSERT_TRUE(zrtest::PrepareBackup({file}, false, &error)) << error;
        }
        ChangeFile(file, c.szWhich, c.change);
        const int iScans = ZR_ScanFull::ms_iScansRun;
        const int iBuilds = ZR_Backup::ms_iExtentMapBuilds;
        std::unique_ptr<ZR_Backup> backup = zrtest::PrepareBackup({file}, false, &error);
        EXPECT_EQ(!backup, c.reason != nullptr) << error;
        EXPECT_NE(error.find(c.reason ? c.reason : ""), std::string::npos) << error;
        if (!c.reason) {
            const bool bExtentMap = std::string(c.szWhich) == ".xdm";
            EXPECT_EQ(bExtentMap ? ZR_Backup::ms_iExtentMapBuilds - iBuilds : ZR_ScanFull::ms_iScansRun - iScans, 1)
                << "the map is built again";
        }
    }
}

}  // namespace
