// The sizes of a hydration, against the worked examples of the design.
#include "engine/ZR_HydrationSizing.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

constexpr uint32_t kMiB = 0x100000;

TEST(HydrationSizing, WorkedExamples) {
    // Threads, writers, queue limit and capacity, capped, writers per
    // thread, top pool index, transfer size.
    using Figures = std::tuple<int, int, int, int, bool, int, int, uint32_t>;
    struct Case {
        const char* what;
        ZR_HydrationSizing::Input in;
        Figures want;
    } cases[] = {
        {"6 files, 4 CPUs, 4 MiB blocks", {7, 4, 0, 0, 4 * kMiB}, {4, 7, 4, 8, false, 2, 11, 4 * kMiB}},
        {"3 writers asked for 20 files", {21, 1, 0, 3, 0}, {2, 3, 22, 26, false, 2, 56, 4 * kMiB}},
        {"27 files, 9 writers, 4 MiB", {27, 1, 0, 0, 4 * kMiB}, {2, 9, 10, 14, false, 5, 63, 4 * kMiB}},
        {"30 writers of 64 MiB blocks pass 1 GiB", {27, 1, 0, 30, 64 * kMiB},
         {2, 30, 28, 32, true, 15, 526, 64 * kMiB}},
        {"hydration threads asked for; small blocks count as 1 MiB", {2, 8, 3, 0, 0x80000},
         {3, 2, 4, 8, false, 1, 6, kMiB}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const ZR_HydrationSizing s = ZR_HydrationSizing::Compute(c.in);
        EXPECT_EQ(Figures(s.iHydrationThreads, s.iWriterThreads, s.iWriterQueueLimit, s.iWriterQueueCapacity,
                          s.bQueueMemoryCapped, s.iWritersPerThread, s.iPoolTopIndex, s.iBackupsMaxTransferSize),
                  c.want);
    }
    const ZR_HydrationSizing example = ZR_HydrationSizing::Compute({7, 4, 0, 0, 4 * kMiB});
    EXPECT_EQ(example.RawQueueSize(1), 16);
    EXPECT_EQ(example.RawQueueSize(3), 8);
    EXPECT_EQ(example.ReadBufferSize(), 4 * kMiB + kMiB / 2 + 512);
}

}  // namespace
