// The reads that the driver holds while the library fetches their pages:
// each has a buffer, named to the library by a buffer key (command 13 maps
// it, command 14 gives it up), and an operation id, by which the 16-byte
// record on the async live I/O port completes it.
//
// A buffer outlives its read while the library may still write into it: a
// read given up (a time limit, a library that went away) keeps its mapped
// buffer until command 14 arrives for it or the driver stops. After Stop
// the addresses that command 13 gave are no longer valid.
//
// Threads: any; one lock guards the tables and the state of every read.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "filterdriver/ZR_HostStatus.h"

// A read's buffer is aligned to a page, as SQL Server's buffers are: the
// library reads backup pages straight into it, without the system cache,
// and such reads need an aligned buffer.
inline constexpr size_t kHeldReadAlignment = 4096;
struct ZR_AlignedFree {
    void operator()(uint8_t* p) const { ::operator delete[](p, std::align_val_t(kHeldReadAlignment)); }
};

struct ZR_HeldRead {
    uint64_t iOpId = 0;
    uint64_t iBufferKey = 0;
    std::unique_ptr<uint8_t[], ZR_AlignedFree> pBuffer;  // zeroed: pages no backup holds come back as zeros
    uint32_t cbBuffer = 0;
    // Under the table's lock:
    bool bEnded = false;      // completed, or failed by the driver
    bool bCompleted = false;  // the library's completion arrived
    bool bMapped = false;     // the library has the buffer's address
    ZR_HostStatus iResult = 0;
    std::condition_variable cvEnded;
};

class ZR_HeldReads {
public:
    // A new read with a zeroed buffer of cbBuffer bytes; null when the
    // driver stops or memory is short.
    std::shared_ptr<ZR_HeldRead> Begin(uint32_t cbBuffer);
    // Waits for the read's end: the result of its completion, the failure
    // given to FailAll, or kHostTimeout after iTimeoutMs.
    ZR_HostStatus Wait(ZR_HeldRead& read, uint32_t iTimeoutMs);
    // Forgets the read. bLibraryDone: the library said it will not write the
    // buffer (it answered the read with a failure).
    void End(const std::shared_ptr<ZR_HeldRead>& pRead, bool bLibraryDone);

    // Command 13: the buffer's address, 0 for an unknown key.
    uint64_t Map(uint64_t iBufferKey);
    // Command 14.
    void Unmap(uint64_t iBufferKey);
    // The async live I/O port: false for an unknown operation.
    bool Complete(uint64_t iOpId, int32_t hr);

    // Ends every read that is held with iStatus.
    void FailAll(ZR_HostStatus iStatus);
    // FailAll(kHostDriverStopped), refuses new reads, drops every buffer.
    void Stop();

private:
    void EndLocked(ZR_HeldRead& read, ZR_HostStatus iResult);

    std::mutex m_cs;
    std::map<uint64_t, std::shared_ptr<ZR_HeldRead>> m_Reads;    // by operation id
    std::map<uint64_t, std::shared_ptr<ZR_HeldRead>> m_Buffers;  // by buffer key
    uint64_t m_iNext = 1;
    bool m_bStopped = false;
};
