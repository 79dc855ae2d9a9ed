// The block buffers of one hydration thread, and the completion header in
// front of each.
//
// A block buffer is VirtualAlloc'ed with kCompletionHeaderRoom bytes more
// than its usable size; the pointer handed out is the allocation plus that
// room, and the room holds the completion header that the library and the
// driver share (driver/DriverMessages.h): the driver reports there when it
// has written what a writer handed it, and only then may the buffer be used
// again.
//
// The pool reuses buffers so that a steady stream of blocks costs no
// allocation: a request takes the first free buffer that is large enough,
// else an empty slot, else replaces a free buffer that is too small; a new
// buffer gets 256 KiB more than asked for, so that a slightly larger block
// fits next time. When every slot is in use, a buffer is made outside the
// pool and freed when it comes back.
//
// Threads: any; one lock guards the slots. A producer gives a buffer back
// while it holds a writer's lock (writer lock, then pool lock).
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "driver/DriverMessages.h"
#include "platform/win32.h"

class ZR_BufferPool {
public:
    // iSlots slots; pOverflows counts the buffers made outside the pool.
    ZR_BufferPool(int iSlots, std::atomic<int32_t>* pOverflows);
    // Frees every buffer in the slots.
    ~ZR_BufferPool();
    ZR_BufferPool(const ZR_BufferPool&) = delete;
    ZR_BufferPool& operator=(const ZR_BufferPool&) = delete;

    // A buffer of at least iSize usable bytes; null when memory ran out.
    void* Get(uint32_t iSize);
    // Back to its slot, or freed when it was made outside the pool. Null is
    // nothing.
    void Free(void* pBuffer);
    // Buffers handed out and not given back, of the slots.
    int InUse();

    // --- the completion header in front of a buffer of any pool ---
    // 1, 1, 0, 0: nothing handed to the driver yet.
    static void ResetHeader(void* pBuffer);
    // The driver accepted one more message of the block.
    static void NotePosted(void* pBuffer);
    // The driver has finished every message it accepted. Read while the
    // driver may write it: an old value only delays the finish.
    static bool IsFinished(const void* pBuffer);
    static ZR_CompletionHeader* HeaderOf(void* pBuffer);

private:
    struct Slot {
        uint32_t iSize = 0;      // usable bytes
        bool bInUse = false;
        uint8_t* pBuffer = nullptr;
    };
    static uint8_t* Allocate(uint32_t iUsable);
    static void Release(void* pBuffer);
    Slot* Choose(uint32_t iSize);

    CRITICAL_SECTION m_cs;
    std::vector<Slot> m_aSlots;
    std::atomic<int32_t>* m_pOverflows;
};
