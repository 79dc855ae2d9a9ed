// The content map file reader on arbitrary tables: the input follows a
// valid preamble and identity in a satellite map file, which is read once
// through the mapping and once through the stream. A map that reads must
// answer every lookup from inside its arrays.
#include "FuzzSupport.h"

#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"
#include "platform/FileCallsTesting.h"
#include "support/RealMaps.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

HANDLE NoMapping(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

// The preamble and identity of a map of the fuzzers' backup, taken from a
// map written once with no content.
const std::vector<uint8_t>& Head() {
    static const std::vector<uint8_t> head = [] {
        ZR_CMaps map;
        zrtest::SetTestIdentity(map, zrfuzz::BackupName());
        map.Write();
        std::filesystem::path name = zrfuzz::BackupName().string() + ".1.xcm";
        std::vector<uint8_t> bytes = zrtest::ReadFileBytes(name);
        bytes.resize(zrfuzz::kContentMapHead);
        return bytes;
    }();
    return head;
}

void Touch(ZR_CMaps& map) {
    for (int iFile = 0; iFile < map.GetNumFiles(); ++iFile)
        for (int iBlock = 0; iBlock < map.GetNumDBLKs(iFile); ++iBlock) {
            map.GetLocation(iFile, iBlock);
            map.GetType(iFile);
            for (int iStream = 0; iStream < map.GetNumSTREAMs(iFile, iBlock); ++iStream)
                for (int iSeg = 0; iSeg < map.GetNumSegments(iFile, iBlock, iStream); ++iSeg)
                    map.GetLocation(iFile, iBlock, iStream, iSeg);
        }
    SQL_ConfigRecords records;
    map.m_ConfigMSCI.Describe(&records, zrfuzz::kErrorKey);
    map.m_ConfigMSLS.Describe(&records, zrfuzz::kErrorKey);
}

void ReadOnce(bool bStream) {
    zr::platform::testing::ScopedFileCalls restore;
    if (bStream)
        zr::platform::testing::ReplaceFileCall(&FileCalls::CreateFileW, &NoMapping);
    ZR_CMaps map;
    zrtest::SetTestIdentity(map, zrfuzz::BackupName());
    if (map.Read())
        Touch(map);
    else if (map.GetNumFiles() != 0)
        std::abort();  // a refused map keeps nothing
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_wszMapFilesFolder[0] = 0;  // only the satellite beside the backup
    std::vector<uint8_t> bytes = Head();
    bytes.insert(bytes.end(), data, data + size);
    {
        std::ofstream out(zrfuzz::BackupName().string() + ".1.xcm", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    ReadOnce(false);
    ReadOnce(true);
    // Also drops the map reader's records, which carry no key.
    ZR_ClearErrors(zrfuzz::kErrorKey);
    return 0;
}
