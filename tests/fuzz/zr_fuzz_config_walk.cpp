// The configuration walk on arbitrary bytes, as the stream data of an MQCI
// stream: the walk of the backup records, and the content map's copy of the
// records described again through that walk.
#include "FuzzSupport.h"

#include "backup/SQL_Records.h"
#include "diag/ZR_Error.h"
#include "maps/ZR_CMaps.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact heap copy: the fuzzer's own buffer may have slack behind it.
    std::vector<uint8_t> bytes(data, data + size);
    SQL_ConfigRecords records;
    bool bParsed = records.Parse(bytes.data(), bytes.size(), zrfuzz::kErrorKey);
    wchar_t* wszErrors = ZR_ReadErrors(zrfuzz::kErrorKey);
    if (bParsed == (wszErrors != nullptr && wszErrors[0] != 0))
        std::abort();  // a refusal without its reason, or a success with one
    free(wszErrors);
    // Clears the records without a key as well, so each input starts clean.
    ZR_ClearErrors(zrfuzz::kErrorKey);

    ZR_CMaps map;
    if (size <= UINT32_MAX && map.ParseConfig(map.m_ConfigMSCI, bytes.data(), static_cast<uint32_t>(size))) {
        SQL_ConfigRecords again;
        map.m_ConfigMSCI.Describe(&again, zrfuzz::kErrorKey);
    }
    ZR_ClearErrors(zrfuzz::kErrorKey);
    return 0;
}
