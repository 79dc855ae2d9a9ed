// The read-ahead buffer of unaligned backup reads.
//
// Backup files are read without the system cache, so every disk read must be
// sector aligned in offset, length and buffer. ZR_BackupFile::ReadU serves
// any offset and length by loading aligned 80 KB windows into this buffer and
// copying out of them; a run of small forward reads thus costs one disk read
// per window, and a read inside the window none.
//
// Ownership: a read-ahead belongs to one scan or stream reader, never to the
// file, and has one user at a time. It describes bytes of the file it was
// last used with: call Reset before using it with another file.
#pragma once

#include <cstddef>
#include <cstdint>

struct ZR_ReadAhead {
    static constexpr uint32_t ms_iDataSize = 0x14000;   // 81,920 bytes
    static constexpr size_t ms_iDataOffset = 16384;     // page aligned within the allocation
    static constexpr size_t ms_iAllocSize = 98872;

    // A zeroed read-ahead from VirtualAlloc, so that the data area is page
    // aligned; null when memory is exhausted. Release it with Free.
    static ZR_ReadAhead* Alloc();
    static void Free(ZR_ReadAhead* pAhead);

    // Forgets the window: the next read loads it again.
    void Reset() {
        iBufferOfs = 0;
        iCursor = 0;
        iBufferLen = 0;
    }

    uint64_t iBufferOfs;  // file offset of aData[0]
    uint64_t iCursor;     // file offset of the next byte wanted
    uint32_t iBufferLen;  // valid bytes in aData
    uint8_t aPad[ms_iDataOffset - 2 * sizeof(uint64_t) - sizeof(uint32_t)];
    uint8_t aData[ms_iDataSize];
};
