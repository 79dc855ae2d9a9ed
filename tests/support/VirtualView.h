// Test helper: a backup object prepared as a mount prepares it (content map
// in a folder of the test's own, views, extent map), and its views read the
// way RESTORE reads them. Shared by the tests of the views and of the view
// command.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

class ZR_Backup;

namespace zrtest {

// Points the library's map folder at folder for the life of the object and
// clears the error chain behind it.
class MapFolderScope {
public:
    explicit MapFolderScope(const std::filesystem::path& folder);
    ~MapFolderScope();
    MapFolderScope(const MapFolderScope&) = delete;
    MapFolderScope& operator=(const MapFolderScope&) = delete;
};

// PrepareContent, Open and PrepareAccess on a backup of the given stripe
// files; null, with the error chain in *pError, when a step fails.
std::unique_ptr<ZR_Backup> PrepareBackup(const std::vector<std::filesystem::path>& files, bool bDiffFollows,
                                         std::string* pError);

// The whole view of file iDevice, read from offset 0 to its size in pieces
// of iPiece bytes; empty (with *pError) when a read fails.
std::vector<std::uint8_t> ReadWholeView(ZR_Backup& backup, int iDevice, std::uint32_t iPiece, std::string* pError);

// One read of the view at any offset; false when it fails.
bool ReadViewAt(ZR_Backup& backup, int iDevice, std::uint64_t iOffset, std::uint32_t iLength, std::uint8_t* pOut);

// The error chain as narrow text.
std::string ErrorChainText();

}  // namespace zrtest
