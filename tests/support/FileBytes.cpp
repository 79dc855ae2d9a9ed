#include "support/FileBytes.h"

#include <algorithm>
#include <fstream>

namespace zrtest {

std::vector<std::uint8_t> ReadFileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        return {};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(in.tellg()));
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
        return {};
    return bytes;
}

void WriteFileBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes, std::size_t iLength) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(std::min(iLength, bytes.size())));
}

void PatchFile(const std::filesystem::path& path, std::uint64_t iOffset, const void* p, std::size_t n) {
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(iOffset));
    f.write(static_cast<const char*>(p), static_cast<std::streamsize>(n));
}

}  // namespace zrtest
