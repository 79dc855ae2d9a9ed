// The record readers on damaged and cut copies of the real backups' bytes:
// the configuration streams (the walk of SQL_ConfigRecords and the content
// map's copy of them) and the tape format's block headers with the strings,
// dates and filemark arrays behind them. Each input lies in a heap block of
// exactly its size, so a read one byte past it is caught under the address
// sanitizer. Every call must end in a result, and a refusal must come with
// a recorded error.
#include "backup/MTF_Records.h"
#include "backup/SQL_Records.h"
#include "maps/ZR_CMaps.h"

#include "MTF_TestFiles.h"
#include "support/ByteDamage.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

using namespace mtftest;

namespace {

constexpr int kIterations = 300;
const wchar_t kKey[] = L"records-fuzz";

// Backups of several server versions and kinds, each with an MSCI and, for
// the full backups, an MSLS configuration.
const char* const kBackups[] = {
    "appveyor-lab/RestoreTimeClean/RestoreTimeClean.bak",
    "appveyor-lab/RestoreTimeClean/RestoreTimeClean_1.trn",
    "appveyor-lab/restoretimeclean2016/RestoreTimeClean.bak",
    "appveyor-lab/DoubleDiffing/difftest-diff1.bak",
};

// A heap copy of exactly iSize bytes.
std::unique_ptr<uint8_t[]> Exact(const std::vector<uint8_t>& a, size_t iSize) {
    std::unique_ptr<uint8_t[]> p(new uint8_t[iSize ? iSize : 1]);
    std::memcpy(p.get(), a.data(), iSize);
    return p;
}

// The inputs of one kind, cut out of the real backups.
struct Inputs {
    std::vector<std::vector<uint8_t>> m_aConfigs;  // MQCI stream data
    std::vector<std::vector<uint8_t>> m_aBlocks;   // block headers up to their first stream
};

const Inputs& RealInputs() {
    static const Inputs inputs = [] {
        Inputs in;
        for (const char* szName : kBackups) {
            auto path = zrtest::TestDataFile(szName);
            if (!path)
                continue;
            const std::vector<uint8_t> a = ReadWhole(*path);
            const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkBytes(a);
            for (const zrtest::MtfBlockInfo& block : walk.blocks) {
                const uint8_t* p = a.data() + block.offset;
                const size_t iLeft = a.size() - block.offset;
                in.m_aBlocks.emplace_back(p, p + std::min<size_t>(MTF_BlockLength(p, iLeft), iLeft));
            }
            for (const zrtest::MtfDataSet& set : walk.dataSets)
                for (const zrtest::MtfSqlConfig* pConfig : {&set.msci, &set.msls})
                    in.m_aConfigs.push_back(ConfigData(a, *pConfig));
        }
        return in;
    }();
    return inputs;
}

// The library's two readers of a configuration stream on the same bytes.
// The walk explains every refusal; the content map's copy, when it takes the
// stream, must describe it again without reading outside its records.
bool ParseBoth(const uint8_t* p, size_t iSize) {
    SQL_ConfigRecords records;
    bool bParsed = records.Parse(p, iSize, kKey);
    bool bError = TakeError(kKey);
    EXPECT_NE(bParsed, bError) << "a refusal records its reason, a success nothing";
    ZR_CMaps map;
    if (map.ParseConfig(map.m_ConfigMSCI, p, uint32_t(iSize))) {
        SQL_ConfigRecords again;
        if (!map.m_ConfigMSCI.Describe(&again, kKey)) {
            EXPECT_TRUE(TakeError(kKey));
        }
    }
    return bParsed;
}

// The tape addresses of the strings of each block type.
const std::map<uint32_t, std::vector<size_t>> kStringFields = {
    {MTF_ID_TAPE, {offsetof(MTF_TAPE, m_media_name), offsetof(MTF_TAPE, m_media_description),
                   offsetof(MTF_TAPE, m_media_password), offsetof(MTF_TAPE, m_software_name)}},
    {MTF_ID_SSET, {offsetof(MTF_SSET, m_data_set_name), offsetof(MTF_SSET, m_data_set_description),
                   offsetof(MTF_SSET, m_data_set_password), offsetof(MTF_SSET, m_user_name)}},
    {MTF_ID_VOLB, {offsetof(MTF_VOLB, m_device_name), offsetof(MTF_VOLB, m_volume_name),
                   offsetof(MTF_VOLB, m_machine_name)}},
};

// Every helper that reads a block header or the record behind it.
void InspectBlock(const uint8_t* p, size_t iSize) {
    const uint32_t iLength = MTF_BlockLength(p, iSize);
    if (iSize < MTF_DB_HDR_SIZE) {
        EXPECT_EQ(iLength, 0u);
        return;
    }
    MTF_DB_HDR hdr;
    std::memcpy(&hdr, p, sizeof hdr);
    std::vector<size_t> aFields{offsetof(MTF_DB_HDR, m_os_specific_data)};
    if (auto it = kStringFields.find(MTF_BlockId(hdr)); it != kStringFields.end())
        aFields.insert(aFields.end(), it->second.begin(), it->second.end());
    for (size_t iAt : aFields) {
        MTF_TAPE_ADDRESS ta;
        if (iAt + sizeof ta > iSize) continue;
        std::memcpy(&ta, p + iAt, sizeof ta);
        std::wstring ws;
        if (!MTF_ReadString(p, iSize, ta, hdr.m_string_type, &ws, kKey)) {
            EXPECT_TRUE(TakeError(kKey)) << "a refused string records its reason";
        } else {
            EXPECT_TRUE(ta.m_size == 0 || ta.m_offset + ta.m_size <= iSize) << ta.m_offset << "+" << ta.m_size;
        }
    }
    if (MTF_BlockId(hdr) == MTF_ID_SFMB) {
        std::vector<uint64_t> aEntries;
        if (!MTF_ReadSfmbEntries(p, iSize, &aEntries, kKey)) {
            EXPECT_TRUE(TakeError(kKey));
        }
        MTF_SfmbFindArrayOffset(p, iSize);
    }
}

class RecordsFuzz : public ::testing::Test {
protected:
    void SetUp() override {
        ZR_REQUIRE_TESTDATA();
        ASSERT_FALSE(RealInputs().m_aConfigs.empty());
        ASSERT_FALSE(RealInputs().m_aBlocks.empty());
    }
    void TearDown() override { ZR_ClearErrors(nullptr); }
};

TEST_F(RecordsFuzz, EveryRealConfigurationStreamParsesWhole) {
    for (const auto& a : RealInputs().m_aConfigs) {
        auto p = Exact(a, a.size());
        EXPECT_TRUE(ParseBoth(p.get(), a.size()));
    }
}

TEST_F(RecordsFuzz, DamagedConfigurationStreamsEndInAResultOrARecordedRefusal) {
    const auto& aConfigs = RealInputs().m_aConfigs;
    zrtest::ByteDamage damage(0xC0F16);
    int iParsed = 0, iRefused = 0;
    for (int i = 0; i < kIterations; ++i) {
        const auto& good = aConfigs[damage.Pick(aConfigs.size())];
        std::vector<uint8_t> bytes = damage.Damage(good);
        auto p = Exact(bytes, bytes.size());
        SCOPED_TRACE(testing::Message() << "damaged copy " << i);
        (ParseBoth(p.get(), bytes.size()) ? iParsed : iRefused)++;
    }
    // Both roads must be taken, or the damage proves nothing.
    EXPECT_GT(iParsed, 0);
    EXPECT_GT(iRefused, 0);
}

TEST_F(RecordsFuzz, ConfigurationStreamsCutShortEndInAResultOrARecordedRefusal) {
    for (const auto& good : RealInputs().m_aConfigs) {
        for (size_t len : zrtest::CutLengths(good.size(), 300, 13)) {
            auto p = Exact(good, len);
            SCOPED_TRACE(testing::Message() << "cut at " << len);
            bool bParsed = ParseBoth(p.get(), len);
            if (len < sizeof(SQL_CONFIG_INFO_V7)) {
                EXPECT_FALSE(bParsed) << "no whole SCIN";
            }
        }
    }
}

TEST_F(RecordsFuzz, DamagedAndCutBlockHeadersAreReadInsideTheirBytes) {
    const auto& aBlocks = RealInputs().m_aBlocks;
    zrtest::ByteDamage damage(0xB10C);
    for (int i = 0; i < kIterations; ++i) {
        const auto& good = aBlocks[damage.Pick(aBlocks.size())];
        std::vector<uint8_t> bytes = damage.Damage(good);
        auto p = Exact(bytes, bytes.size());
        SCOPED_TRACE(testing::Message() << "damaged copy " << i);
        InspectBlock(p.get(), bytes.size());
    }
    for (const auto& good : aBlocks)
        for (size_t len : zrtest::CutLengths(good.size(), 128, 5)) {
            auto p = Exact(good, len);
            SCOPED_TRACE(testing::Message() << "cut at " << len);
            InspectBlock(p.get(), len);
        }
}

}  // namespace
