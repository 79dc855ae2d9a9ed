// Numbers at any byte address of a buffer read from disk. Records of the
// backups and maps are packed, so their fields are not aligned; a copy is
// the one well-defined way to read or write them. Every number on disk is
// little-endian, as is every machine this builds for.
#pragma once

#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "on-disk numbers are read in place");

template <class T>
inline T ZR_Load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
inline void ZR_Store(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}
