// A real backup with a few bytes damaged, anywhere, goes through everything
// a mount does with it: the probe, the content map, the views, the extent
// map, reads of the whole view and page reads. Each step gives its answer or
// refuses with a recorded reason; nothing crashes, throws or hangs. The
// damage is seeded, so a failing iteration replays from its number.
#include "backup/ZR_Backup.h"
#include "backupio/ZR_ReadAhead.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_EMaps.h"
#include "support/TestData.h"
#include "support/VirtualView.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::vector<char> ReadFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::vector<char>((std::istreambuf_iterator<char>(in)), {});
}

void WriteFile(const fs::path& p, const std::vector<char>& bytes) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A few bytes changed, half of them among the blocks and configuration at
// the head of the file, where a change reaches the most code.
std::vector<char> Damaged(const std::vector<char>& good, std::mt19937& rng) {
    std::vector<char> bytes = good;
    size_t iHead = std::min<size_t>(bytes.size(), 128 * 1024);
    int iChanges = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < iChanges; ++i) {
        size_t at = (i % 2 ? rng() % bytes.size() : rng() % iHead);
        bytes[at] = static_cast<char>(rng());
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
    const std::vector<char> good = ReadFile(*zrtest::TestDataFile("appveyor-lab/DoubleDiffing/difftest-full.bak"));
    zrtest::TempDir tmp;
    std::mt19937 rng(20261122);
    int iPrepared = 0, iRefused = 0;
    for (int iIteration = 0; iIteration < 200; ++iIteration) {
        SCOPED_TRACE("iteration " + std::to_string(iIteration));
        fs::path file = tmp / ("damaged" + std::to_string(iIteration) + ".bak");
        WriteFile(file, Damaged(good, rng));
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

}  // namespace
