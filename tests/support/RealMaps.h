// Maps of real backups built through the public map classes, for tests that
// need a map file with real content to damage: the blocks, streams and
// configuration records of a backup file as the full scan would record
// them, and the extents of its data streams keyed by their page ids.
#pragma once

#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"
#include "support/FileBytes.h"

#include <cstdint>
#include <filesystem>
#include <vector>

namespace zrtest {

// Adds to row 0 of the map every block, every stream and its data as one
// segment, walking the backup by the headers' lengths, and copies the
// configuration streams of the MSCI and MSLS blocks. Stops at the first
// header whose checksum fails. False when no block was found or a
// configuration stream did not parse.
bool FillContentMap(ZR_CMaps& map, const std::vector<std::uint8_t>& backup);

// Enters every 64 KiB extent of the backup's data streams by the page id in
// its first page header. False when the backup does not walk clean or holds
// no extent.
bool FillExtentMap(ZR_EMaps& map, const std::filesystem::path& backup);

// The identity both maps of a test are written and read under.
void SetTestIdentity(X_MapFile& map, const std::filesystem::path& backup);

}  // namespace zrtest
