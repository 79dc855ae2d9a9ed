// How big one hydration is: its threads, the writers' queues, the pools of
// block buffers and the read buffers, worked out afresh at every start from
// the number of data file slots, the CPUs, the requests of
// SetNumHydrationThreads and SetNumWriterThreads, and the largest block of
// the backups.
//
// Example: 6 data files (7 slots), 4 CPUs, 4 MiB blocks: 4 hydration
// threads, 7 writers, a queue limit of 4 and capacity 8, 2 writers for each
// hydration thread, pools of 12 slots (top index 11).
#pragma once

#include <cstdint>

struct ZR_HydrationSizing {
    struct Input {
        int iDataFileSlots = 0;       // F: the highest file id + 1
        int iCPUs = 1;
        int iThreadsRequested = 0;    // 0: by the CPUs
        int iWritersRequested = 0;    // 0: by the files
        uint32_t iLargestBlock = 0;   // of the first files of full and differential; 0 when unknown
    };

    // A hydration whose queued blocks would take more than this caps its
    // queues.
    static constexpr uint64_t ms_iQueueMemoryCap = 0x40000000;

    int iHydrationThreads = 0;          // T
    int iWriterThreads = 0;             // W
    int iWriterQueueLimit = 0;          // entries a queue may hold
    int iWriterQueueCapacity = 0;       // entries a queue has room for
    bool bQueueMemoryCapped = false;
    int iWritersPerThread = 0;
    int iPoolTopIndex = 0;              // a pool has iPoolTopIndex + 1 slots
    uint32_t iBackupsMaxTransferSize = 0;

    static ZR_HydrationSizing Compute(const Input& input);

    // A hydration thread's read buffer: a block and room for its pads.
    uint32_t ReadBufferSize() const { return iBackupsMaxTransferSize + iBackupsMaxTransferSize / 8 + 512; }
    // The raw queue of the sequential reader of each of iFiles files of one
    // backup: four places for each hydration thread that falls to a file.
    int RawQueueSize(int iFiles) const;
};
