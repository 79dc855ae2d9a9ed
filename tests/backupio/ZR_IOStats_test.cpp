#include "backupio/ZR_IOStats.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ZR_IOStats, NamesOutsideTheTablesAreEmpty) {
    EXPECT_STREQ(GetIOName(IO_READ_DEVICE_SEQUENTIAL), "ReadDeviceSequential");
    EXPECT_STREQ(GetIOName(static_cast<ZR_IO_e>(12)), "");
    EXPECT_STREQ(GetIOName(static_cast<ZR_IO_e>(-1)), "");
    EXPECT_STREQ(GetFileKindName(13), "kxlp");
    EXPECT_STREQ(GetFileKindName(0), "");
    EXPECT_STREQ(GetFileKindName(14), "");
}

TEST(ZR_IOStats, EntriesKeyedBySizeWithMinMaxAndTotal) {
    ZR_IOStats stats;
    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 4096, 50);
    auto entries = stats.GetEntries(ZR_FILE_KIND_BAK, IO_READ);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].iLength, 4096u);
    EXPECT_EQ(entries[0].iCount, 1u);
    EXPECT_EQ(entries[0].iMinTicks, 50u);
    EXPECT_EQ(entries[0].iMaxTicks, 50u);
    EXPECT_EQ(entries[0].iTotalTicks, 50u);

    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 4096, 20);
    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 4096, 90);
    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ, 512, 7);
    entries = stats.GetEntries(ZR_FILE_KIND_BAK, IO_READ);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].iCount, 3u);
    EXPECT_EQ(entries[0].iMinTicks, 20u);
    EXPECT_EQ(entries[0].iMaxTicks, 90u);
    EXPECT_EQ(entries[0].iTotalTicks, 160u);
    EXPECT_EQ(entries[1].iLength, 512u);  // order of first appearance

    uint64_t iCalls = 0, iBytes = 0;
    stats.GetTotals(ZR_FILE_KIND_BAK, IO_READ, &iCalls, &iBytes);
    EXPECT_EQ(iCalls, 4u);
    EXPECT_EQ(iBytes, 3u * 4096 + 512);
}

TEST(ZR_IOStats, RowsAreSeparateAndBadKindsIgnored) {
    ZR_IOStats stats;
    stats.AddIO(ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL, 1024, 1);
    stats.AddIO(1, IO_READ, 1024, 1);
    stats.AddIO(11, IO_READ, 1024, 1);  // "bxk" is not kept
    stats.AddIO(0, IO_READ, 1024, 1);
    stats.AddIO(ZR_FILE_KIND_BAK, static_cast<ZR_IO_e>(12), 1024, 1);

    EXPECT_TRUE(stats.GetEntries(ZR_FILE_KIND_BAK, IO_READ).empty());
    EXPECT_EQ(stats.GetEntries(ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL).size(), 1u);
    EXPECT_EQ(stats.GetEntries(1, IO_READ).size(), 1u);
    EXPECT_TRUE(stats.GetEntries(11, IO_READ).empty());

    stats.Clear();
    uint64_t iCalls = 99;
    stats.GetTotals(ZR_FILE_KIND_BAK, IO_READ_SEQUENTIAL, &iCalls, nullptr);
    EXPECT_EQ(iCalls, 0u);
}

TEST(ZR_IOStats, TicksToMicrosecondsIsExactForLongSpans) {
    ZR_IOStats stats;
    LARGE_INTEGER freq{};
    ASSERT_TRUE(QueryPerformanceFrequency(&freq));
    const uint64_t iFrequency = static_cast<uint64_t>(freq.QuadPart);
    EXPECT_EQ(stats.TicksToMicroseconds(0), 0u);
    EXPECT_EQ(stats.TicksToMicroseconds(iFrequency), 1000000u);
    EXPECT_EQ(stats.TicksToMicroseconds(iFrequency / 2), 500000u);
    // A day of ticks times a million passes 2^64 at common frequencies.
    EXPECT_EQ(stats.TicksToMicroseconds(iFrequency * 86400), 86400000000ull);
}

}  // namespace
