// The map-guided reader. A hand-made content map over a file of known bytes
// pins every way SeekStripeOffset can end and the relative reads across
// segments. (On the real backups the reader is held to the file's bytes by
// the view tests, which read every view in pieces of any length, and to the
// walker's data streams by the extent map tests.)
#include "backup/ZR_Read.h"

#include "backup/ZR_Backup.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "support/FileBytes.h"
#include "support/TestData.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace {

ZR_StripeLocation At(uint64_t iOfs, uint64_t iLen) { return ZR_StripeLocation{iOfs, iLen, 0, iOfs, 0}; }

// A file of 16 KiB whose byte i is a function of i, and a content map of
// two blocks over it:
//   block MSDA at 0 (header 100 bytes)
//     stream MQDA header at 100 (22), its 2-byte prefix at 122, data in two
//       segments: 124..1124 and 3000..4000 (as a compressed row could have)
//     stream MQDA header at 1200 (22), prefix, data 1224..2224
//     (2224..2400 is a pad with no entry)
//     stream MQDA header at 2400 (22) of length 0: no segment
//   block ESET at 5000 (header 200 bytes)
class HandMadeMap : public ::testing::Test {
protected:
    void SetUp() override {
        m_bytes.resize(16384);
        for (size_t i = 0; i < m_bytes.size(); ++i)
            m_bytes[i] = static_cast<uint8_t>((i * 7 + i / 251) & 0xFF);
        m_path = m_tmp / "known.bin";
        zrtest::WriteFileBytes(m_path, m_bytes);
        m_b = std::make_unique<ZR_Backup>(L"read");
        m_b->AddFile(m_path.wstring().c_str(), nullptr, false);
        m_b->m_eBackend = ZR_BACKEND_MTF;
        ZR_CMaps* m = m_b->m_pCMaps;
        m->AddDBLK(MTF_ID_MSDA, 0, At(0, 100));
        m->AddSTREAM(MTF_ID_MQDA, 0, At(100, 22), 2002);
        m->AddSegment(0, At(124, 1000));
        m->AddSegment(0, At(3000, 1000));
        m->AddSTREAM(MTF_ID_MQDA, 0, At(1200, 22), 1002);
        m->AddSegment(0, At(1224, 1000));
        m->AddSTREAM(MTF_ID_MQDA, 0, At(2400, 22), 0);
        m->AddDBLK(MTF_ID_ESET, 0, At(5000, 200));
        ASSERT_TRUE(m_b->Open());
    }
    void TearDown() override { ZR_ClearErrors(L"read"); }

    zrtest::TempDir m_tmp;
    fs::path m_path;
    std::vector<uint8_t> m_bytes;
    std::unique_ptr<ZR_Backup> m_b;
};

TEST_F(HandMadeMap, SeekStripeOffsetEndsInTheEntryThatCoversTheOffsetOrTheOneInFront) {
    ZR_Read r(m_b.get(), 0);
    struct Case {
        uint64_t t;
        uint64_t iEntry;  // stripe offset of the location found
        int iSTREAM, iStream;
    } cases[] = {
        {0, 0, -1, -1},        // first byte of a block: the block header
        {99, 0, -1, -1},       // its last byte
        {121, 100, 0, -1},     // last byte of a stream header
        {124, 124, 0, 0},      // first byte of the first stream's data
        {1123, 124, 0, 0},     // its last byte
        {3500, 1224, 1, 0},    // a segment out of stripe order is not found:
                               // the walk stops at the entry in front
        {122, 0, -1, -1},      // the prefix of the block's first stream: the block
        {1222, 124, 0, 0},     // the prefix of the second stream: its predecessor's last segment
        {2300, 1224, 1, 0},    // a pad behind a stream: the segment in front
        {4999, 1224, 1, 0},    // between the last stream and the next block
        {5000, 5000, -1, -1},  // the next block
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.t);
        ZR_StripeLocation loc = r.SeekStripeOffset(c.t);
        EXPECT_EQ(loc.GetStripeOfs(), c.iEntry);
        EXPECT_GT(uint64_t{loc.iLength}, 0u);
        EXPECT_EQ(r.m_iSTREAM, c.iSTREAM);
        EXPECT_EQ(r.m_iStream, c.iStream);
        EXPECT_EQ(r.m_iStreamCursor, c.t);
        EXPECT_EQ(r.m_iStreamMarker, c.iEntry);
    }
    // Behind the header of the last block nothing maps the offset.
    EXPECT_EQ(uint64_t{r.SeekStripeOffset(5200).iLength}, 0u);
    EXPECT_EQ(uint64_t{r.SeekStripeOffset(16000).iLength}, 0u);
}

TEST_F(HandMadeMap, StripeReadsGiveTheFileBytesGoOnWithoutASearchAndLeaveWhatNoEntryMaps) {
    ZR_Read r(m_b.get(), 0);
    for (uint64_t t : {uint64_t{0}, uint64_t{121}, uint64_t{122}, uint64_t{2300}, uint64_t{4990}}) {
        std::vector<uint8_t> got(300, 0xEE);
        uint32_t iRead = 0;
        ASSERT_TRUE(r.Read(got.data(), t, 300, &iRead)) << t;
        EXPECT_EQ(iRead, 300u);
        EXPECT_EQ(0, std::memcmp(got.data(), m_bytes.data() + t, 300)) << t;
        EXPECT_EQ(r.GetNextLocation().GetStripeOfs(), t + 300);
        EXPECT_EQ(r.GetNextLocation().GetBkpFileOfs(), t + 300);
    }
    // The next read where the last ended takes the next location: the
    // reader's positions stay where the last search left them.
    uint32_t iRead = 0;
    std::vector<uint8_t> got(100);
    r.SeekStripeOffset(0);
    ASSERT_TRUE(r.Read(got.data(), 5290, 100, &iRead));
    EXPECT_EQ(r.m_iDBLK, 0) << "the short cut searched nothing";
    EXPECT_EQ(0, std::memcmp(got.data(), m_bytes.data() + 5290, 100));
    // Behind the map: the whole length is reported and the buffer left alone.
    std::vector<uint8_t> behind(512, 0xAB);
    ASSERT_TRUE(r.Read(behind.data(), 6000, 512, &iRead));
    EXPECT_EQ(iRead, 512u);
    EXPECT_EQ(behind, std::vector<uint8_t>(512, 0xAB));
}

TEST_F(HandMadeMap, StreamsAreFoundByTypeInTurnAndEmptyOnesAreSkipped) {
    ZR_Read r(m_b.get(), 0);
    EXPECT_FALSE(r.Lookup(MTF_ID_SSET, -1));
    EXPECT_EQ(r.m_iDBLK, -1);
    ASSERT_NE(r.Read(nullptr, MTF_ID_MSDA, -1), nullptr);
    EXPECT_EQ(0, std::memcmp(r.GetDBLK(), m_bytes.data(), MTF_DB_HDR_SIZE));
    int n = 0;
    while (const MTF_STREAM_HDR* h = r.Read(nullptr, MTF_ID_MQDA)) {
        EXPECT_EQ(0, std::memcmp(h, m_bytes.data() + (n == 0 ? 100 : 1200), sizeof *h));
        ++n;
    }
    EXPECT_EQ(n, 2) << "the stream of length 0 has no segment and is not found";
    r.Reset();
    EXPECT_TRUE(r.Lookup(MTF_ID_ESET, 0));
    EXPECT_EQ(r.m_iDBLK, 1);
    EXPECT_FALSE(r.Lookup(MTF_ID_MSDA, -1)) << "lookups step on from the current block";
    r.Reset();
    ASSERT_TRUE(r.Lookup(MTF_ID_MSDA, 0));
    EXPECT_TRUE(r.LookupSTREAM(MTF_ID_MQDA, 1));
    EXPECT_EQ(r.m_iSTREAM, 1);
    EXPECT_EQ(r.GetStreamLength(), 1002u);
}

TEST_F(HandMadeMap, RelativeReadsCrossSegmentsAndFailPastTheLast) {
    ZR_Read r(m_b.get(), 0);
    ASSERT_TRUE(r.Lookup(MTF_ID_MSDA, -1));
    ASSERT_TRUE(r.LookupSTREAM(MTF_ID_MQDA, -1));
    std::vector<uint8_t> got(200);
    ASSERT_TRUE(r.Read(nullptr, got.data(), 900, 200));
    EXPECT_EQ(0, std::memcmp(got.data(), m_bytes.data() + 124 + 900, 100));
    EXPECT_EQ(0, std::memcmp(got.data() + 100, m_bytes.data() + 3000, 100));
    EXPECT_EQ(r.m_iStream, 1);
    EXPECT_EQ(r.m_iStreamPrevious, 1000u) << "where the last piece began";
    EXPECT_EQ(r.m_iStreamCursor, 1100u);

    EXPECT_FALSE(r.Read(nullptr, got.data(), 1950, 100)) << "runs past the last segment";
    EXPECT_FALSE(r.Read(nullptr, got.data(), 2000, 1)) << "starts behind it";
    EXPECT_FALSE(r.SeekStreamOffset(2000));
    EXPECT_EQ(r.m_iStream, -1);
}

}  // namespace
