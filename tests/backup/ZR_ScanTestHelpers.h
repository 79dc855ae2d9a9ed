// Helpers shared by the scan tests: a backup object over given files, the
// error chain as text, a recording visitor, and byte-level damage of copies.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "backup/ZR_Backup.h"
#include "backup/ZR_Scan.h"
#include "diag/ZR_Error.h"
#include "support/ErrorText.h"
#include "support/Manifest.h"
#include "support/TestData.h"

namespace zrscantest {

inline std::wstring Wide(const std::filesystem::path& p) { return p.wstring(); }

inline std::unique_ptr<ZR_Backup> MakeBackup(const std::vector<std::filesystem::path>& aFiles, int iDataSet = 1) {
    auto pB = std::make_unique<ZR_Backup>(nullptr);
    pB->SetDataSetNumber(iDataSet);
    for (const auto& f : aFiles) pB->AddFile(Wide(f).c_str(), nullptr, false);
    return pB;
}

// The texts of the error chain without a key, newest first.
inline std::wstring ErrorsText() { return zrtest::ErrorText(); }

inline bool ErrorsContain(const std::wstring& wsPart) { return ErrorsText().find(wsPart) != std::wstring::npos; }

// Every tape-format backup of the shared test data.
inline std::vector<std::filesystem::path> NativeTestBackups() {
    std::vector<std::filesystem::path> aFiles;
    for (const zrtest::ManifestEntry& row : zrtest::NativeBackups(0, 99)) aFiles.push_back(*zrtest::TestDataFile(row.file));
    return aFiles;
}

inline void FlipByte(const std::filesystem::path& p, uint64_t iOffset) {
    std::fstream f(p, std::ios::binary | std::ios::in | std::ios::out);
    f.seekg(static_cast<std::streamoff>(iOffset));
    char c = 0;
    f.read(&c, 1);
    c = static_cast<char>(c ^ 0x5A);
    f.seekp(static_cast<std::streamoff>(iOffset));
    f.write(&c, 1);
}

// A scan that remembers what the walk showed it.
class RecordingScan : public ZR_Scan {
public:
    struct Block {
        std::string sType;
        int64_t iOffset;
        int iDataSet;
    };
    struct Data {
        std::string sType;
        int64_t iOffset;  // first byte behind the 2-byte prefix
        uint64_t iLength;
    };

    RecordingScan(ZR_Backup* pB, int32_t iDataSet) : ZR_Scan(pB, iDataSet) {}

    void Process_DBLK(const MTF_DB_HDR* pBlock, uint32_t) override {
        m_aBlocks.push_back({std::string(pBlock->m_dblk_type, 4), m_iOffset, m_iCurrentDataSet});
    }
    uint32_t Process_SSET(const MTF_DB_HDR* pBlock) override {
        m_aSsets.push_back(reinterpret_cast<const MTF_SSET*>(pBlock)->m_data_set_number);
        return ZR_SCAN_CONTINUE;
    }
    uint32_t Process_MQDA(const MTF_STREAM_HDR* pHeader) override { return Remember("MQDA", pHeader); }
    uint32_t Process_MQTL(const MTF_STREAM_HDR* pHeader) override { return Remember("MQTL", pHeader); }
    uint32_t Process_BackupDataHeader(BackupDataHeader* pRecord) override {
        m_aHeaderLengths.push_back(pRecord->m_dataLength);
        return ZR_Scan::Process_BackupDataHeader(pRecord);
    }
    uint32_t Process_RAID(const uint8_t*, uint32_t iLength) override {
        m_aRaidLengths.push_back(iLength);
        return ZR_SCAN_CONTINUE;
    }

    int Count(const std::string& sType) const {
        int n = 0;
        for (const auto& b : m_aBlocks) n += b.sType == sType;
        return n;
    }

    std::vector<Block> m_aBlocks;
    std::vector<int> m_aSsets;
    std::vector<Data> m_aData;
    std::vector<uint32_t> m_aHeaderLengths;
    std::vector<uint32_t> m_aRaidLengths;

private:
    uint32_t Remember(const char* szType, const MTF_STREAM_HDR* pHeader) {
        m_aData.push_back({szType, m_iOffset, pHeader->m_length});
        return ZR_SCAN_CONTINUE;
    }
};

}  // namespace zrscantest
