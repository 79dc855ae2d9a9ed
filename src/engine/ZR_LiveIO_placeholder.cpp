// Placeholder, removed when live I/O lands (src/engine/ZR_LiveIO.cpp defines
// the real AddLiveIOEntry): until then no read of a data file is queued, and
// the operation service answers such a read with 0xC0000017.
#include "engine/ZR_Database.h"

bool ZR_Database::AddLiveIOEntry(void*, void*, uint32_t, uint64_t, uint32_t, const uint8_t*, void*) { return false; }
