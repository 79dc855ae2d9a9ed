// The embedded driver's own trace: a ring of fixed lines in memory that the
// library switches on and off and fetches through the trace port (commands
// 1, 2 and 3). It is separate from the library's trace, as a driver's would
// be: the library only ever sees a captured copy.
//
// Each line is kLineSize bytes, zero-terminated text: "%06u-%04u " (line
// count, thread id) and the message, cut to fit. Any thread may trace.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

class ZR_DriverTrace {
public:
    static constexpr uint32_t kLineSize = 256;

    // Starts (or restarts, emptied) a ring of cbRing bytes, whole lines, at
    // least one; iLimit is the most lines to record, 0xFFFFFFFF for no limit.
    void Enable(uint32_t cbRing, uint32_t iLimit);
    // Stops recording; the ring stays for a capture.
    void Disable();
    bool IsOn() const { return m_bOn.load(std::memory_order_relaxed); }

    // One line, formatted as the library's texts are (the Windows
    // conversions: %S, %hs, %I64d). Nothing while the trace is off.
    void Line(const char* szFormat, ...);

    // Copies whole lines, oldest first, into pOut; returns the bytes copied.
    uint32_t Capture(void* pOut, uint32_t cbOut);

private:
    std::atomic<bool> m_bOn{false};
    std::mutex m_lock;          // guards all below
    std::vector<char> m_aRing;  // empty until the first Enable
    size_t m_iNext = 0;         // the line written next
    bool m_bWrapped = false;    // every line of the ring holds text
    uint64_t m_iCount = 0;      // lines recorded since Enable
    uint64_t m_iLimit = 0;
};
