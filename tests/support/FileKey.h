#pragma once

// The key the driver gives a file name, computed here on its own: lookup3's
// hashlittle of the name's UTF-16LE bytes, for names of plain letters.

#include <cstdint>
#include <string>

#include "driver/Lookup3.h"

namespace zrtest {

inline std::uint32_t KeyOfAscii(const std::string& strName) {
    std::string strBytes;
    for (char c : strName) strBytes += {c, '\0'};
    return hashlittle(strBytes.data(), strBytes.size(), 0);
}

}  // namespace zrtest
