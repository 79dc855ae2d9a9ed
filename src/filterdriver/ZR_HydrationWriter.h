// The pages that hydration's writer threads hand the driver (command 9 in
// modes 1 and 2) are written here, after the command has returned (mode 1)
// or before (mode 2: the library's queue is full, so the driver catches up
// at once). When a run is written, or could not be, the writer doubles
// iCompleted and flips bCompletedToggle in the completion header in front
// of the library's buffer: from then on the library may use the buffer
// again. A run that could not be written stays absent in the bitmap, for
// data-file hydration to ask for again.
//
// Threads: Post from the control port's callers; the writer threads of
// this object (1 to 64, as command 15 says; started as work comes).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "driver/DriverMessages.h"
#include "filterdriver/ZR_DataFile.h"

class ZR_HydrationWriter {
public:
    struct Job {
        std::shared_ptr<ZR_DataFile> pFile;
        uint64_t iFirstPage = 0;
        uint32_t iCount = 0;
        const uint8_t* pPages = nullptr;         // the library's buffer
        ZR_CompletionHeader* pHeader = nullptr;  // 4-byte aligned
    };

    ~ZR_HydrationWriter() { Stop(); }

    // Command 15: the number of writer threads, 1 to 64.
    void SetThreads(uint32_t iThreads);
    // Mode 1: queued for a writer thread. Mode 2: written on this thread.
    void Post(Job job, bool bNow);
    // Writes what is queued, then ends the threads. Later posts run at once.
    void Stop();

    // What the driver does to the header when it has finished a message;
    // two writers may finish messages of one block at once.
    static void SignalFinished(ZR_CompletionHeader* pHeader);

private:
    static void Run(Job& job);
    void ThreadProc();

    std::mutex m_cs;
    std::condition_variable m_cvWork;
    std::deque<Job> m_Jobs;
    std::vector<std::thread> m_aThreads;
    uint32_t m_iWanted = 2;
    bool m_bStopping = false;
};
