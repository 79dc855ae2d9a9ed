#include "support/TestData.h"

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace zrtest {

std::optional<std::filesystem::path> TestDataDir() {
    namespace fs = std::filesystem;
    if (const char* env = std::getenv("ZR_TESTDATA"); env && *env && fs::is_directory(env))
        return fs::path(env);
    // Tests run with the project root as working directory; ZR_SOURCE_DIR
    // names it too when a test binary is started from elsewhere.
    std::vector<fs::path> roots{fs::current_path()};
    if (const char* src = std::getenv("ZR_SOURCE_DIR"); src && *src)
        roots.emplace_back(src);
    for (const auto& root : roots) {
        fs::path candidate = root / ".." / "shared" / "testdata";
        if (fs::is_directory(candidate))
            return fs::canonical(candidate);
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> TestDataFile(const std::string& relative) {
    auto dir = TestDataDir();
    if (!dir)
        return std::nullopt;
    auto file = *dir / relative;
    if (!std::filesystem::exists(file))
        return std::nullopt;
    return file;
}

TempDir::TempDir() {
    static std::atomic<int> counter{0};
    auto base = std::filesystem::temp_directory_path();
    m_path = base / ("zrtest-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

}  // namespace zrtest
