#include "FuzzSupport.h"

#include <random>
#include <string>
#include <system_error>

namespace zrfuzz {

namespace {

// A fresh folder of this process, removed when the process ends normally
// (libFuzzer leaves through exit(), which runs this destructor).
class ScratchFolder {
public:
    ScratchFolder() {
        std::random_device rd;
        m_path = std::filesystem::temp_directory_path() / ("zr-fuzz-" + std::to_string(rd()));
        std::filesystem::create_directories(m_path);
    }
    ~ScratchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

}  // namespace

const std::filesystem::path& BackupName() {
    static const ScratchFolder folder;
    static const std::filesystem::path path = folder.Path() / "backup.bak";
    return path;
}

}  // namespace zrfuzz
