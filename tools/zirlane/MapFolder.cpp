// Where the zirlane tool keeps map files unless told otherwise:
// $XDG_CACHE_HOME/zirlane/maps, else ~/.cache/zirlane/maps, else a folder in
// the system's temporary directory. A second look at the same backup finds
// its maps there and reads nothing but what it needs.
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"

std::string ZirlaneDefaultMapFolder() { return ZirlaneCacheFolder("maps"); }

std::string ZirlaneCacheFolder(const std::string& name) {
    namespace fs = std::filesystem;
    fs::path base;
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = fs::path(home) / ".cache";
    else
        base = fs::temp_directory_path();
    return (base / "zirlane" / name).string();
}

bool ZirlaneUseMapFolder(const std::string& folder) {
    std::wstring w = ZirlaneWide(folder);
    SetLastError(NO_ERROR);
    if (w.size() >= MAX_PATH) {
        ZR_Error(nullptr, __FILE__, "ZirlaneUseMapFolder", __LINE__,
                 "The map folder name is too long (%d characters, at most %d): %s\n", static_cast<int>(w.size()),
                 MAX_PATH - 1, folder.c_str());
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (ec) {
        ZR_Error(nullptr, __FILE__, "ZirlaneUseMapFolder", __LINE__, "Unable to create the map folder %s: %s.\n",
                 folder.c_str(), ec.message().c_str());
        return false;
    }
    std::wmemcpy(g_wszMapFilesFolder, w.c_str(), w.size() + 1);
    return true;
}

void ZirlaneAddMapFolderOption(CLI::App& cmd, std::string* pFolder) {
    *pFolder = ZirlaneDefaultMapFolder();
    cmd.add_option("--map-folder", *pFolder,
                   "Folder of the map files, written on the first look at a backup and read on the next")
        ->default_str(*pFolder);
}
