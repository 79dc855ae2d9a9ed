// ZR_Read: moves through one row of a content map (the blocks, streams and
// segments of one backup file) by jumping, never by walking the backup. It
// finds blocks and streams by identifier, reads them, reads inside a stream
// by relative offset, and finds the map entry that covers a stripe offset,
// which is how the virtual view turns SQL Server's reads into backup reads.
//
// A stripe offset is the offset in the logical stream of one backup file; in
// a native file it is the file offset. The object deals only in
// ZR_StripeLocation records and leaves the bytes to ZR_Backup::Read, so it
// is the same for every backend.
//
// Positions: m_iDBLK, m_iSTREAM and m_iStream index the current block,
// stream and segment (-1 for none). Marker and cursor are relative offsets
// in the stream after SeekStreamOffset and stripe offsets after
// SeekStripeOffset; cursor - marker is always the place in the current
// segment (or behind the entry that SeekStripeOffset fell back on).
//
// Ownership and threads: a short-lived object on the stack of one thread.
// The content map is shared and, once built, only read; no lock is held
// across a read. The blocks and stream headers read are owned by the object
// and live until the next read of the same kind.
#pragma once

#include <cstdint>
#include <memory>

#include "backup/MTF_Records.h"
#include "backupio/ZR_IOStats.h"
#include "maps/ZR_CMaps.h"

class ZR_Backup;
struct ZR_ReadAhead;

class ZR_Read {
public:
    // The header of a block is read first in this many bytes, to learn the
    // size of the whole header.
    static constexpr uint32_t ms_iBlockProbe = MTF_DB_HDR_SIZE;

    ZR_Read(ZR_Backup* pB, int iThread);
    ~ZR_Read();
    ZR_Read(const ZR_Read&) = delete;
    ZR_Read& operator=(const ZR_Read&) = delete;

    // Clears every position: the next block lookup starts at the row's first
    // block.
    void Reset();

    // Steps on from the current block to a block of this type: iOccurrence
    // below 0 takes the first one met, otherwise the one with that count
    // among those met (from 0). Clears the stream and segment positions.
    // Not found: no current block, false.
    bool Lookup(uint32_t iDBLKType, int iOccurrence);
    // The same for the streams of the current block, going on from the
    // current stream, so that repeated calls with -1 give the streams of a
    // type one after the other. Streams without a segment are not counted.
    bool LookupSTREAM(uint32_t iSTREAMType, int iOccurrence);
    // Steps on to the next segment of the current stream; past the last one
    // clears the segment position and gives false.
    bool Next();

    // The map entry that covers stripe offset iOffset, or the entry in front
    // of it when it lies in a gap; empty (iLength 0) when the offset lies
    // behind the last block's header. Sets marker to the entry's stripe
    // offset and cursor to iOffset.
    ZR_StripeLocation SeekStripeOffset(uint64_t iOffset);
    // Places the position at relative offset iOffset of the current stream;
    // false (no current segment) when no segment holds it.
    bool SeekStreamOffset(uint64_t iOffset);

    // m_iLength of the current stream's map entry; 0 without one.
    uint64_t GetStreamLength();
    // The current segment, and its stripe offset; empty / 0 without one.
    ZR_StripeLocation GetLocation();
    uint64_t GetStripeOffset() { return GetLocation().iStripeOfs; }

    // A whole block header: the block lookup, then 52 bytes to learn its
    // size, then the header. Owned by this object; null on failure.
    const MTF_DB_HDR* Read(ZR_ReadAhead* pAhead, uint32_t iDBLKType, int iOccurrence);
    // The same block read as a record of iRecordSize bytes, checked against
    // the backup: true with *ppBlock null when the row has no such block.
    // When the bytes at the map's location are no such block (another
    // identifier, a wrong header checksum, a header shorter than the
    // record) the map does not describe the backup: false, with the reason
    // recorded, as for a failed read.
    bool ReadRecord(ZR_ReadAhead* pAhead, uint32_t iDBLKType, uint32_t iRecordSize, const MTF_DB_HDR** ppBlock);
    // The next stream header of the type in the current block. Owned by
    // this object; null when there is none or a read failed.
    const MTF_STREAM_HDR* Read(ZR_ReadAhead* pAhead, uint32_t iSTREAMType);
    // iLen bytes of the current stream's data from relative offset iOffset,
    // across segments.
    bool Read(ZR_ReadAhead* pAhead, void* pDest, uint64_t iOffset, uint32_t iLen);
    // iLen bytes at stripe offset iOffset of this row: the read of the
    // virtual view. A read that starts where the last one ended goes on from
    // the next location without a search. Bytes behind the last entry of the
    // map are reported as read and left as they were. *piRead receives the
    // bytes done; false when none could be done.
    bool Read(void* pDest, uint64_t iOffset, uint32_t iLen, uint32_t* piRead);

    // Where the stripe-offset read keeps the location behind its last read:
    // by default a field of this object; the virtual view points it at its
    // own, so that it outlives the object.
    void SetNextLocation(ZR_StripeLocation* pNext) { m_pNextLocation = pNext ? pNext : &m_NextLocation; }
    const ZR_StripeLocation& GetNextLocation() const { return *m_pNextLocation; }

    const MTF_DB_HDR* GetDBLK() const { return reinterpret_cast<const MTF_DB_HDR*>(m_pDBLK.get()); }
    const MTF_STREAM_HDR* GetSTREAM() const { return m_pSTREAM.get(); }

    ZR_Backup* m_pB;               // not owned; its m_pCMaps is the map read
    int32_t m_iThread;             // the row: index of the backup file
    uint32_t m_iDBLKType = 0;      // block type of the last lookup
    std::unique_ptr<uint8_t[]> m_pDBLK;  // the block read last
    int32_t m_iDBLK = -1;
    uint32_t m_iSTREAMType = 0;    // stream type of the last lookup
    std::unique_ptr<MTF_STREAM_HDR> m_pSTREAM;  // the stream header read last
    int32_t m_iSTREAM = -1;
    int32_t m_iStream = -1;        // segment of the current stream
    uint64_t m_iStreamPrevious = 0;  // cursor before the last move: where the last read began
    uint64_t m_iStreamLength = 0;    // readable length of the current stream
    uint64_t m_iStreamMarker = 0;    // start of the current segment
    uint64_t m_iStreamCursor = 0;    // current position

private:
    ZR_CMaps* Map() const;
    void ClearStreamPositions();
    ZR_StripeLocation Found(const ZR_StripeLocation& loc, uint64_t iOffset, int iStage);
    ZR_StripeLocation SeekInBlock(uint64_t iOffset);
    ZR_StripeLocation EntryInFront(uint64_t iOffset);
    bool ReadAt(ZR_ReadAhead* pAhead, void* pDest, const ZR_StripeLocation& loc, uint32_t iLen);

    ZR_StripeLocation m_NextLocation{};
    ZR_StripeLocation* m_pNextLocation = &m_NextLocation;
};
