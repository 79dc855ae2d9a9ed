// hashlittle of Bob Jenkins' lookup3 (2006): a 32-bit hash of a run of bytes,
// the one the file collection makes its keys with. The result equals the
// published function's on a little-endian machine, for any alignment of
// the key.
#pragma once

#include <cstddef>
#include <cstdint>

uint32_t hashlittle(const void* pKey, size_t iLength, uint32_t iInitval);
