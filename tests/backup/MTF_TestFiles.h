// Test helpers for the record tests: bytes of the real backups, the rows of
// the test data's manifest, and a plain walk over the blocks and streams of
// a file held in memory.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "backup/MTF_Records.h"
#include "diag/ZR_Error.h"
#include "support/TestData.h"

namespace mtftest {

// iCount bytes of the file at iOffset; fewer when the file ends first.
inline std::vector<uint8_t> ReadBytes(const std::filesystem::path& path, uint64_t iOffset, size_t iCount) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> a(iCount);
    in.seekg(std::streamoff(iOffset));
    in.read(reinterpret_cast<char*>(a.data()), std::streamsize(iCount));
    a.resize(size_t(in.gcount()));
    return a;
}

inline std::vector<uint8_t> ReadWhole(const std::filesystem::path& path) {
    return ReadBytes(path, 0, size_t(std::filesystem::file_size(path)));
}

template <typename T>
T Load(const std::vector<uint8_t>& a, size_t iOffset) {
    T v;
    std::memcpy(&v, a.data() + iOffset, sizeof(T));
    return v;
}

// One row of manifest.tsv, by column name.
using ManifestRow = std::map<std::string, std::string>;

// The rows of the backups in tape format (the compressed one is left out).
inline std::vector<ManifestRow> TapeFormatRows() {
    std::vector<ManifestRow> aRows;
    auto dir = zrtest::TestDataDir();
    if (!dir) return aRows;
    std::ifstream in(*dir / "manifest.tsv");
    std::string line;
    std::vector<std::string> aNames;
    auto split = [](const std::string& s) {
        std::vector<std::string> a;
        std::stringstream ss(s);
        std::string cell;
        while (std::getline(ss, cell, '\t')) a.push_back(cell);
        return a;
    };
    if (std::getline(in, line)) aNames = split(line);
    while (std::getline(in, line)) {
        std::vector<std::string> aCells = split(line);
        ManifestRow row;
        for (size_t i = 0; i < aNames.size(); i++) row[aNames[i]] = i < aCells.size() ? aCells[i] : "";
        if (row["container"].rfind("MTF", 0) == 0) aRows.push_back(row);
    }
    return aRows;
}

// "24:68:99" as an LSN.
inline LSN ParseLsn(const std::string& s) {
    LSN lsn{};
    unsigned a = 0, b = 0, c = 0;
    if (std::sscanf(s.c_str(), "%u:%u:%u", &a, &b, &c) == 3) lsn = LSN{a, b, uint16_t(c)};
    return lsn;
}

inline std::wstring Widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// A block or stream header found by the walk.
struct Item {
    uint32_t m_iId;
    uint64_t m_iOffset;
    bool m_bBlock;
};

// Walks a whole file held in memory: a block steps by its length on the
// medium, a stream by its header and data. Every header's checksum must
// hold; a failure is a test failure and ends the walk.
inline std::vector<Item> Walk(const std::vector<uint8_t>& a) {
    std::vector<Item> aItems;
    uint64_t iPos = 0;
    while (iPos + MTF_STREAM_HDR_SIZE <= a.size()) {
        uint32_t iId = Load<uint32_t>(a, size_t(iPos));
        uint64_t iStep = 0;
        bool bValid;
        if (MTF_IsBlockId(iId)) {
            bValid = MTF_IsBlockChecksumValid(Load<MTF_DB_HDR>(a, size_t(iPos)));
            iStep = MTF_BlockLength(a.data() + iPos, a.size() - iPos);
        } else {
            MTF_STREAM_HDR hdr = Load<MTF_STREAM_HDR>(a, size_t(iPos));
            bValid = MTF_IsStreamId(iId) && MTF_IsStreamChecksumValid(hdr);
            iStep = MTF_StreamLength(hdr);
        }
        EXPECT_TRUE(bValid && iStep != 0) << "bad header at " << iPos;
        if (!bValid || iStep == 0) break;
        aItems.push_back({iId, iPos, MTF_IsBlockId(iId)});
        iPos += iStep;
    }
    return aItems;
}

// The first item of a type at or after iFrom, or null.
inline const Item* Find(const std::vector<Item>& aItems, uint32_t iId, uint64_t iFrom = 0) {
    for (const Item& item : aItems)
        if (item.m_iId == iId && item.m_iOffset >= iFrom) return &item;
    return nullptr;
}

// Whether an error was recorded under the key; clears the key's records.
inline bool TakeError(const wchar_t* wszKey) {
    wchar_t* wsz = ZR_ReadErrors(wszKey);
    bool bAny = wsz != nullptr && wsz[0] != 0;
    free(wsz);
    ZR_ClearErrors(wszKey);
    return bAny;
}

}  // namespace mtftest
