// Cuts the starting corpus of the fuzz targets out of real backups:
//   zr_fuzz_seeds <out folder> <backup>...
// writes <out>/config/<n>, the data of every MQCI stream, and
// <out>/content_map/<n>, the tables of a content map of each backup (what
// follows the preamble and identity that the target writes itself).
#include "FuzzSupport.h"

#include "maps/ZR_CMaps.h"
#include "support/MtfWalker.h"
#include "support/RealMaps.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

void Save(const fs::path& path, const uint8_t* p, size_t n) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(n));
}

// The data of the MQCI stream whose header lies at iOffset.
void SaveConfig(const std::vector<uint8_t>& a, uint64_t iOffset, const fs::path& path) {
    if (iOffset + MTF_STREAM_HDR_SIZE > a.size())
        return;
    MTF_STREAM_HDR hdr;
    std::memcpy(&hdr, a.data() + iOffset, sizeof hdr);
    uint64_t iData = iOffset + MTF_STREAM_HDR_SIZE;
    if (hdr.m_length <= a.size() - iData)
        Save(path, a.data() + iData, hdr.m_length);
}

bool SaveContentMap(const std::vector<uint8_t>& a, const fs::path& path) {
    g_wszMapFilesFolder[0] = 0;
    ZR_CMaps map;
    zrtest::SetTestIdentity(map, zrfuzz::BackupName());
    if (!zrtest::FillContentMap(map, a) || !map.Write())
        return false;
    std::vector<uint8_t> file = zrtest::ReadFileBytes(zrfuzz::BackupName().string() + ".1.xcm");
    if (file.size() <= zrfuzz::kContentMapHead)
        return false;
    Save(path, file.data() + zrfuzz::kContentMapHead, file.size() - zrfuzz::kContentMapHead);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <out folder> <backup>...\n", argv[0]);
        return 2;
    }
    fs::path out = argv[1];
    fs::create_directories(out / "config");
    fs::create_directories(out / "content_map");
    int iConfigs = 0;
    for (int i = 2; i < argc; ++i) {
        std::vector<uint8_t> a = zrtest::ReadFileBytes(argv[i]);
        zrtest::MtfWalk walk = zrtest::MtfWalker::WalkBytes(a);
        for (const auto& set : walk.dataSets)
            for (const auto* pConfig : {&set.msci, &set.msls})
                if (pConfig->present)
                    SaveConfig(a, pConfig->streamOffset, out / "config" / std::to_string(iConfigs++));
        if (!SaveContentMap(a, out / "content_map" / std::to_string(i - 2)))
            std::fprintf(stderr, "no content map from %s\n", argv[i]);
    }
    std::printf("%d configuration streams\n", iConfigs);
    return 0;
}
