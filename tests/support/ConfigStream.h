// Configuration streams (the data of an MQCI) built by hand for tests, in the
// record layouts of backup/SQL_Records.h: each record is its fixed part,
// then the UTF-16 strings that its tape addresses point to, and its size
// says so.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "backup/SQL_Records.h"

namespace zrtest {

// A zeroed record whose header names its type ("SCIN", "SFGI", "SFIN").
template <typename T>
T SqlRecord(const char* szType) {
    T rec{};
    std::memcpy(&rec, szType, 4);
    return rec;
}

class ConfigStream {
public:
    // Appends rec with its size set here; each (offset of a tape address in
    // rec, text) pair points that address at the text, placed behind the
    // record. iExtra zero bytes follow the texts.
    template <typename T>
    ConfigStream& Add(T rec, std::initializer_list<std::pair<size_t, std::wstring>> aStrings = {}, size_t iExtra = 0) {
        std::vector<uint8_t> aTail;
        for (const auto& [iAddress, str] : aStrings) {
            const MTF_TAPE_ADDRESS ta{uint16_t(str.size() * 2), uint16_t(sizeof(T) + aTail.size())};
            std::memcpy(reinterpret_cast<uint8_t*>(&rec) + iAddress, &ta, sizeof ta);
            for (wchar_t c : str) {
                aTail.push_back(uint8_t(c));
                aTail.push_back(uint8_t(c >> 8));
            }
        }
        aTail.resize(aTail.size() + iExtra);
        reinterpret_cast<SQL_HEADER*>(&rec)->m_size = uint32_t(sizeof(T) + aTail.size());
        const uint8_t* p = reinterpret_cast<const uint8_t*>(&rec);
        m_a.insert(m_a.end(), p, p + sizeof(T));
        m_a.insert(m_a.end(), aTail.begin(), aTail.end());
        return *this;
    }

    std::vector<uint8_t> m_a;
};

}  // namespace zrtest
