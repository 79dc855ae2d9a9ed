#include "engine/ZR_HydrationSizing.h"

#include <algorithm>

namespace {

constexpr int kMostWriters = 9;
constexpr int kMostQueuedFiles = 26;
constexpr uint32_t kDefaultBlock = 0x400000;
constexpr uint32_t kSmallestBlock = 0x100000;

}  // namespace

ZR_HydrationSizing ZR_HydrationSizing::Compute(const Input& input) {
    ZR_HydrationSizing s;
    const int F = std::max(input.iDataFileSlots, 1);
    s.iHydrationThreads = input.iThreadsRequested > 0 ? input.iThreadsRequested : std::max(input.iCPUs, 2);
    s.iWriterThreads = input.iWritersRequested > 0 ? input.iWritersRequested : std::min(F, kMostWriters);
    const int T = s.iHydrationThreads;
    const int W = s.iWriterThreads;
    const int F26 = std::min(F, kMostQueuedFiles);
    s.iWriterQueueLimit = (F26 + W - 1) / W * 3 + 1;
    s.iBackupsMaxTransferSize = std::max(input.iLargestBlock ? input.iLargestBlock : kDefaultBlock, kSmallestBlock);
    if (uint64_t(s.iWriterQueueLimit) * uint64_t(W) * s.iBackupsMaxTransferSize > ms_iQueueMemoryCap) {
        s.bQueueMemoryCapped = true;
        s.iWriterQueueLimit = F26 + 2;
    }
    s.iWriterQueueCapacity = s.iWriterQueueLimit + 4;
    s.iWritersPerThread = std::max((W + T - 1) / T, 1);
    const int P = s.iWriterQueueLimit * s.iWritersPerThread + 1;
    s.iPoolTopIndex = P + P / 4;
    return s;
}

int ZR_HydrationSizing::RawQueueSize(int iFiles) const {
    const int N = std::max(iFiles, 1);
    return (iHydrationThreads + N - 1) / N * 4;
}
