// The present-page bitmap of a data file as it stands on disk, beside the
// sparse file ("<sparse file>.bitmap"). The file has two slots, each a
// 32-byte head and the bitmap bytes, rounded up to 4,096 bytes; slot 1
// starts where slot 0 ends. A store writes the slot that does not hold the
// newest copy, with a generation one above it, and flushes it; so a process
// killed in the middle of a store leaves the other slot, the previous
// store, intact.
//
// Head, little-endian: "ZRPB" magic, version 1, generation (64 bits), pages
// (64 bits), then an FNV-1a 64-bit check of the head's first 24 bytes and
// the bitmap bytes.
//
// Not thread-safe: its ZR_DataFile calls it under its flush lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/win32.h"

enum ZR_BitmapLoad_e {
    ZR_BITMAP_NONE = 0,       // no file, or nothing was ever stored whole: every page absent
    ZR_BITMAP_LOADED = 1,     // the newest sound slot, of the expected size
    ZR_BITMAP_DISCARDED = 2,  // the newest sound slot is of another size: not used
    ZR_BITMAP_CORRUPTED = 3,  // every slot that was written fails its check
};

class ZR_BitmapFile {
public:
    explicit ZR_BitmapFile(std::wstring strPath);
    ~ZR_BitmapFile();
    ZR_BitmapFile(const ZR_BitmapFile&) = delete;
    ZR_BitmapFile& operator=(const ZR_BitmapFile&) = delete;

    // Reads the slots laid out for iPages pages. *paBytes receives the
    // bitmap when the result is ZR_BITMAP_LOADED.
    ZR_BitmapLoad_e Load(uint64_t iPages, std::vector<uint8_t>* paBytes);
    // Writes the bitmap of iPages pages and flushes it; false with the
    // reason in the error chain.
    bool Store(uint64_t iPages, const std::vector<uint8_t>& aBytes);
    // Closes the file and deletes it; true when it is gone.
    bool Delete();
    void Close();

    const std::wstring& Path() const { return m_strPath; }

private:
    struct Slot;
    bool Open();
    bool ReadSlot(uint64_t iOffset, uint64_t iPages, Slot* pSlot);

    std::wstring m_strPath;
    HANDLE m_hFile = INVALID_HANDLE_VALUE;
    uint64_t m_iGeneration = 0;  // of the newest slot on disk
    int m_iNewestSlot = 1;       // so that the first store writes slot 0
};

// The layout's numbers, for tests that damage a slot.
inline constexpr uint32_t kBitmapSlotHead = 32;
uint64_t ZR_BitmapSlotBytes(uint64_t iPages);
