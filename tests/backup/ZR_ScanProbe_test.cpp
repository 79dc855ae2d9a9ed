// The probe: a media set of stripes given in any order, stripes that do not
// make a set, and a compressed file. (Real stripe sets named in either order
// are the info, view and end-to-end mount tests'.)
#include "backup/ZR_ScanProbe.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "ZR_ScanTestHelpers.h"
#include "support/SyntheticBackup.h"

using namespace zrscantest;
namespace fs = std::filesystem;

namespace {

const char* const kStripeDir = "appveyor-lab/sql2008-backups/RestoreTimeStripe/";

fs::path Stripe(const char* szRelative) { return *zrtest::TestDataFile(std::string(kStripeDir) + szRelative); }

struct ProbeRun {
    bool bResult = false;
    std::unique_ptr<ZR_Backup> pB;
};

ProbeRun Probe(const std::vector<fs::path>& aFiles, int iDataSet = 1) {
    ProbeRun run;
    run.pB = MakeBackup(aFiles, iDataSet);
    ZR_ScanProbe probe(run.pB.get(), iDataSet);
    run.bResult = probe.ScanFiles();
    return run;
}

std::string Narrow(const std::wstring& ws) { return std::string(ws.begin(), ws.end()); }

class ScanProbeTest : public ::testing::Test {
protected:
    void SetUp() override { ZR_ClearErrors(nullptr); }
    void TearDown() override { ZR_ClearErrors(nullptr); }
    zrtest::TempDir m_tmp;
};

}  // namespace

// A stripe alone, two stripes of different media sets (they fit together
// by their RAID streams and differ only in their dates), one stripe under
// two names.
TEST_F(ScanProbeTest, StripesThatDoNotMakeASetAreRefused) {
    ZR_REQUIRE_TESTDATA();
    fs::path copy = m_tmp / "again.bak";
    fs::copy_file(Stripe("Stripe1/RestoreTimeStripe.bak"), copy);
    const struct {
        std::vector<fs::path> aFiles;
        std::vector<const wchar_t*> aReasons;
    } cases[] = {
        {{Stripe("Stripe1/RestoreTimeStripe.bak")},
         {L"Not all of the 2 required striped backup files are specified.", L"Abort during scan of backup file #0."}},
        {{Stripe("Stripe1/RestoreTimeStripe.bak"), Stripe("Stripe2/RestoreTimeStripe2a.bak")},
         {L"Mismatched backup files."}},
        {{Stripe("Stripe1/RestoreTimeStripe.bak"), copy},
         {L"Mismatched striped backup files.", L"Abort during scan of backup file #1."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.aFiles.back().string());
        ZR_ClearErrors(nullptr);
        EXPECT_FALSE(Probe(c.aFiles).bResult);
        for (const wchar_t* wszReason : c.aReasons)
            EXPECT_TRUE(ErrorsContain(wszReason)) << Narrow(ErrorsText());
    }
}

TEST_F(ScanProbeTest, ThreeSyntheticStripesInAnyOrder) {
    zrtest::SyntheticOptions options;
    options.stripes = 3;
    options.version = 8;
    options.filePages = {256};
    zrtest::SyntheticBackup backup(options);
    ASSERT_TRUE(backup.Write(m_tmp / "set.bak")) << backup.Error();
    std::vector<fs::path> aFiles;
    for (const auto& s : backup.Stripes()) aFiles.push_back(s.path);
    ASSERT_EQ(aFiles.size(), 3u);

    ProbeRun run = Probe({aFiles[2], aFiles[0], aFiles[1]});
    ASSERT_TRUE(run.bResult) << Narrow(ErrorsText());
    EXPECT_EQ(run.pB->m_ProbeIdentity.m_iRequiredFiles, 3);
    EXPECT_EQ(run.pB->m_ProbeIdentity.m_iMediaFamilyId, options.mediaFamilyId);
    EXPECT_EQ(run.pB->m_iVersion, 8);
    EXPECT_EQ(ZR_ScanProbe::StripeOrder(run.pB.get()), (std::vector<int>{1, 2, 0}));
    EXPECT_EQ(run.pB->m_aStripeSeen[0], 0xE0);

    ZR_ClearErrors(nullptr);
    ProbeRun two = Probe({aFiles[0], aFiles[1]});
    EXPECT_FALSE(two.bResult);
    EXPECT_TRUE(ErrorsContain(L"Not all of the 3 required striped backup files are specified."));
}

// A compressed file: the GUIDs of its archive header and of the data set's
// header are taken, and then the file is refused, since this build cannot
// read its blocks.
TEST_F(ScanProbeTest, CompressedFileGivesItsGuidsAndIsRefused) {
    const uint32_t kHeader = 32767;
    const uint64_t kSetPos = 40960;
    std::vector<uint8_t> aFile(kSetPos + 512, 0);
    memcpy(aFile.data(), "KELP", 4);
    aFile[8] = 96;  // archive version
    for (int i = 0; i < 16; ++i) aFile[12 + i] = static_cast<uint8_t>(0xA0 + i);
    memcpy(aFile.data() + 6799, &kSetPos, 8);  // data set 1
    uint32_t iSetSize = 75;
    memcpy(aFile.data() + kSetPos, "KLBS", 4);
    memcpy(aFile.data() + kSetPos + 4, &iSetSize, 4);
    for (int i = 0; i < 16; ++i) aFile[kSetPos + 40 + i] = static_cast<uint8_t>(0x10 + i);
    ASSERT_LT(kHeader, kSetPos);
    fs::path path = m_tmp / "archive.kelp";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(aFile.data()),
                                                static_cast<std::streamsize>(aFile.size()));

    ProbeRun run = Probe({path});
    EXPECT_FALSE(run.bResult);
    EXPECT_EQ(run.pB->m_eBackend, ZR_BACKEND_KELP);
    EXPECT_EQ(run.pB->m_aKelpGuid[0], 0xA0);
    EXPECT_EQ(run.pB->m_aKelpGuid[15], 0xAF);
    EXPECT_EQ(run.pB->m_aKlbsGuid[0], 0x10);
    EXPECT_EQ(run.pB->m_aKlbsGuid[15], 0x1F);
    EXPECT_TRUE(ErrorsContain(L"cannot be read by this build."));

    // A data set beyond what the pointer table names is not found.
    ZR_ClearErrors(nullptr);
    ProbeRun missing = Probe({path}, 2);
    EXPECT_FALSE(missing.bResult);
    EXPECT_TRUE(ErrorsContain(L"Dataset #2 not found in backup."));
}
