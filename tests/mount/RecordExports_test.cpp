// The accessors of a backup set record, on a record laid out here from its
// table of fields; dates packed bit by bit as the tape format packs them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zirlane/zirlane.h"

namespace {

template <class T>
void Put(std::vector<uint8_t>& record, size_t iOffset, T value) {
    std::memcpy(record.data() + iOffset, &value, sizeof value);
}

void PutName(std::vector<uint8_t>& record, size_t iOffset, const std::string& name) {
    for (size_t i = 0; i < name.size(); ++i) record[iOffset + 2 * i] = static_cast<uint8_t>(name[i]);
}

// Year 14 bits, month 4, day 5, hour 5, minute 6, second 6, in 40 bits.
void PutDate(std::vector<uint8_t>& record, size_t iOffset, uint64_t y, uint64_t mo, uint64_t d, uint64_t h,
             uint64_t mi, uint64_t s) {
    const uint64_t bits = y << 26 | mo << 22 | d << 17 | h << 12 | mi << 6 | s;
    for (int i = 0; i < 5; ++i) record[iOffset + size_t(i)] = static_cast<uint8_t>(bits >> (8 * (4 - i)));
}

TEST(BackupSetRecord, EveryAccessorReadsItsField) {
    std::vector<uint8_t> r(1142, 0xEE);
    Put<uint16_t>(r, 4, 2);
    Put<uint16_t>(r, 6, 1);
    for (int i = 0; i < 16; ++i) r[8 + size_t(i)] = static_cast<uint8_t>(i + 1);
    Put<uint32_t>(r, 24, 0x100);
    r[28] = 0;
    r[29] = 5;
    std::fill(r.begin() + 30, r.begin() + 1070, 0);
    PutName(r, 30, "Sales");
    PutName(r, 550, std::string(259, 'S'));
    Put<uint32_t>(r, 1072, 0x0A320640);
    PutDate(r, 1076, 2017, 12, 15, 12, 46, 53);
    PutDate(r, 1081, 2017, 6, 1, 23, 59, 7);
    const size_t aiLsn[] = {1086, 1096, 1106, 1116};
    for (size_t i = 0; i < 4; ++i) {
        Put<uint32_t>(r, aiLsn[i], uint32_t(20 + i));
        Put<uint32_t>(r, aiLsn[i] + 4, uint32_t(300 + i));
        Put<uint16_t>(r, aiLsn[i] + 8, uint16_t(7 + i));
    }
    for (int i = 0; i < 16; ++i) r[1126 + size_t(i)] = static_cast<uint8_t>(0xA0 + i);
    const void* p = r.data();

    EXPECT_EQ(familyCount(p), 2);
    EXPECT_EQ(familyIndex(p), 1);
    EXPECT_TRUE(missingConfigInfo(p));
    EXPECT_FALSE(Encrypted(p));
    EXPECT_EQ(backup_type(p), 5);
    EXPECT_EQ(server_version(p), 0x0A320640u);
    GUID media{}, base{};
    mediaSetId(&media, p);
    last_full_base_guid(&base, p);
    EXPECT_EQ(0, std::memcmp(&media, r.data() + 8, 16));
    EXPECT_EQ(0, std::memcmp(&base, r.data() + 1126, 16));
    wchar_t wszName[260];
    database_name(p, wszName);
    EXPECT_EQ(std::wstring(wszName), L"Sales");
    server_name(p, wszName);
    EXPECT_EQ(std::wstring(wszName), std::wstring(259, L'S'));
    unsigned mo, d, y, h, mi, s;
    backup_start(p, &mo, &d, &y, &h, &mi, &s);
    EXPECT_EQ((std::vector<unsigned>{y, mo, d, h, mi, s}), (std::vector<unsigned>{2017, 12, 15, 12, 46, 53}));
    backup_finish(p, &mo, &d, &y, &h, &mi, &s);
    EXPECT_EQ((std::vector<unsigned>{y, mo, d, h, mi, s}), (std::vector<unsigned>{2017, 6, 1, 23, 59, 7}));
    EXPECT_EQ((std::vector<unsigned>{first_lsn_SeqNo(p), first_lsn_blockOffset(p), first_lsn_slotId(p),
                                     last_lsn_SeqNo(p), last_lsn_blockOffset(p), last_lsn_slotId(p),
                                     checkpoint_lsn_SeqNo(p), checkpoint_lsn_blockOffset(p), checkpoint_lsn_slotId(p),
                                     last_full_base_lsn_SeqNo(p), last_full_base_lsn_blockOffset(p),
                                     last_full_base_lsn_slotId(p)}),
              (std::vector<unsigned>{20, 300, 7, 21, 301, 8, 22, 302, 9, 23, 303, 10}));
}

}  // namespace
