#include "backupio/ZR_IOStats.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

// Each entry as (length, count, min, max, total ticks), in order.
using Row = std::vector<std::tuple<uint32_t, uint32_t, uint64_t, uint64_t, uint64_t>>;
Row Entries(ZR_IOStats& stats, int iKind, ZR_IO_e eIO) {
    Row row;
    for (const ZR_IOEntry& e : stats.GetEntries(iKind, eIO))
        row.emplace_back(e.iLength, e.iCount, e.iMinTicks, e.iMaxTicks, e.iTotalTicks);
    return row;
}

TEST(ZR_IOStats, NamesOutsideTheTablesAreEmpty) {
    EXPECT_STREQ(GetIOName(IO_READ_DEVICE_SEQUENTIAL), "ReadDeviceSequential");
    EXPECT_STREQ(GetIOName(static_cast<ZR_IO_e>(12)), "");
    EXPECT_STREQ(GetIOName(static_cast<ZR_IO_e>(-1)), "");
    EXPECT_STREQ(GetFileKindName(13), "kxlp");
    EXPECT_STREQ(GetFileKindName(0), "");
    EXPECT_STREQ(GetFileKindName(14), "");
}

// An entry for each size, in the order of first appearance, keeps count,
// shortest, longest and total time; rows are apart, bad kinds ignored.
TEST(ZR_IOStats, EntriesKeyedBySizeWithMinMaxAndTotal) {
    ZR_IOStats stats;
    for (uint64_t iTicks : {50, 20, 90}) stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 4096, iTicks);
    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 512, 7);
    EXPECT_EQ(Entries(stats, ZR_FILE_KIND_BAK, IO_READ), (Row{{4096, 3, 20, 90, 160}, {512, 1, 7, 7, 7}}));
    uint64_t iCalls = 0, iBytes = 0;
    stats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, &iCalls, &iBytes);
    EXPECT_EQ(iCalls, 4u);
    EXPECT_EQ(iBytes, 3u * 4096 + 512);

    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL, 1024, 1);
    stats.AddIO(1, IO_READ, 1024, 1);
    stats.AddIO(11, IO_READ, 1024, 1);  // "bxk" is not kept
    stats.AddIO(0, IO_READ, 1024, 1);
    stats.AddIO(ZR_FILE_KIND_BAK, static_cast<ZR_IO_e>(12), 1024, 1);
    EXPECT_EQ(Entries(stats, ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL), (Row{{1024, 1, 1, 1, 1}}));
    EXPECT_EQ(Entries(stats, 1, IO_READ), (Row{{1024, 1, 1, 1, 1}}));
    EXPECT_TRUE(Entries(stats, 11, IO_READ).empty());

    stats.Clear();
    iCalls = 99;
    stats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, &iCalls, nullptr);
    EXPECT_EQ(iCalls, 0u);
}

TEST(ZR_IOStats, TicksToMicrosecondsIsExactForLongSpans) {
    ZR_IOStats stats;
    LARGE_INTEGER freq{};
    ASSERT_TRUE(QueryPerformanceFrequency(&freq));
    const uint64_t iFrequency = static_cast<uint64_t>(freq.QuadPart);
    EXPECT_EQ(stats.TicksToMicroseconds(iFrequency / 2), 500000u);
    // A day of ticks times a million passes 2^64 at common frequencies.
    EXPECT_EQ(stats.TicksToMicroseconds(iFrequency * 86400), 86400000000ull);
}

}  // namespace
