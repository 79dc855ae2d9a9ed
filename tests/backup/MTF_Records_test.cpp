// The tape format records: identifiers, checksums, lengths on the medium,
// strings behind tape addresses, dates and soft filemark arrays, on
// hand-built bytes and on the real backups.
#include "backup/MTF_Records.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "MTF_TestFiles.h"

using namespace mtftest;

namespace {

const wchar_t kKey[] = L"mtf-records-test";

// A block header with a type and first event offset and a valid checksum.
MTF_DB_HDR MakeBlock(uint32_t iId, uint16_t iFirstEvent) {
    MTF_DB_HDR hdr{};
    std::memcpy(hdr.m_dblk_type, &iId, 4);
    hdr.m_first_event_offset = iFirstEvent;
    hdr.m_os_id = MTF_WINDOWS_NT;
    hdr.m_string_type = MTF_UNICODE_STR;
    MTF_SetBlockChecksum(hdr);
    return hdr;
}

// The blocks met by walking a file with the library's lengths alone: a
// block steps by its length on the medium, a stream by its header and data.
// Every header's checksum must hold.
std::vector<uint64_t> BlocksByLibraryLengths(const std::vector<uint8_t>& a) {
    std::vector<uint64_t> aBlocks;
    for (uint64_t iPos = 0, iStep = 1; iStep != 0 && iPos + MTF_STREAM_HDR_SIZE <= a.size(); iPos += iStep) {
        const uint32_t iId = Load<uint32_t>(a, iPos);
        if (MTF_IsBlockId(iId)) {
            EXPECT_TRUE(MTF_IsBlockChecksumValid(Load<MTF_DB_HDR>(a, iPos))) << iPos;
            iStep = MTF_BlockLength(a.data() + iPos, a.size() - iPos);
            aBlocks.push_back(iPos);
        } else {
            const auto hdr = Load<MTF_STREAM_HDR>(a, iPos);
            EXPECT_TRUE(MTF_IsStreamId(iId) && MTF_IsStreamChecksumValid(hdr)) << iPos;
            iStep = MTF_StreamLength(hdr);
        }
        EXPECT_NE(iStep, 0u) << iPos;
    }
    return aBlocks;
}

uint64_t FirstBlock(const zrtest::MtfWalk& walk, const char* szType) {
    for (const auto& b : walk.blocks)
        if (b.type == szType) return b.offset;
    ADD_FAILURE() << "no " << szType;
    return 0;
}

// A string of a block, read through its tape address.
std::wstring BlockString(const std::vector<uint8_t>& a, uint64_t iBlock, MTF_TAPE_ADDRESS ta) {
    const auto hdr = Load<MTF_DB_HDR>(a, iBlock);
    std::wstring ws;
    EXPECT_TRUE(MTF_ReadString(a.data() + iBlock, hdr.m_first_event_offset, ta, hdr.m_string_type, &ws, kKey));
    return ws;
}

}  // namespace

// A change of any byte in front of the checksum breaks it.
template <typename Header>
void ExpectEveryByteCounts(const Header& hdr, bool (*pfnValid)(const Header&)) {
    ASSERT_TRUE(pfnValid(hdr));
    for (size_t i = 0; i < offsetof(Header, m_header_checksum) + 2; i++) {
        Header bad = hdr;
        reinterpret_cast<uint8_t*>(&bad)[i] ^= uint8_t(0x11 << (i % 3));
        EXPECT_FALSE(pfnValid(bad)) << "byte " << i;
    }
}

TEST(MtfChecksum, EveryCoveredByteCounts) {
    ExpectEveryByteCounts(MakeBlock(MTF_ID_SSET, 98), &MTF_IsBlockChecksumValid);
    MTF_STREAM_HDR hdr{};
    std::memcpy(hdr.m_id, "MQDA", 4);
    hdr.m_length = 0x123456789ull;
    MTF_SetStreamChecksum(hdr);
    ExpectEveryByteCounts(hdr, &MTF_IsStreamChecksumValid);
}

TEST(MtfLength, BlockLengthRoundsAndKnowsItsSpecialBlocks) {
    MTF_DB_HDR tape = MakeBlock(MTF_ID_TAPE, 138);
    EXPECT_EQ(MTF_BlockLength(&tape, sizeof(tape)), 140u);
    MTF_DB_HDR exact = MakeBlock(MTF_ID_MSCI, 56);
    EXPECT_EQ(MTF_BlockLength(&exact, sizeof(exact)), 56u);
    EXPECT_EQ(MTF_BlockLength(&exact, sizeof(exact) - 1), 0u) << "too few bytes to tell";

    MTF_DB_HDR sfmb = MakeBlock(MTF_ID_SFMB, 0);
    EXPECT_EQ(MTF_BlockLength(&sfmb, sizeof(sfmb)), 0x10000u);
    MTF_DB_HDR zero = MakeBlock(MTF_ID_SSET, 0);
    EXPECT_EQ(MTF_BlockLength(&zero, sizeof(zero)), 0u) << "only an SFMB may say 0";

    MTF_PH6S ph6s{};
    ph6s.m_hdr = MakeBlock(MTF_ID_PH6S, 64);
    ph6s.m_ph6s_unknown3 = 1027;  // taken as it stands, not rounded
    EXPECT_EQ(MTF_BlockLength(&ph6s, sizeof(ph6s)), 1027u);
    EXPECT_EQ(MTF_BlockLength(&ph6s, sizeof(MTF_DB_HDR)), 0u) << "the PH6S record is needed";
    ph6s.m_ph6s_unknown3 = 10;
    EXPECT_EQ(MTF_BlockLength(&ph6s, sizeof(ph6s)), 0u);
}

TEST(MtfLength, StreamLengthIncludesHeaderAndRoundsUp) {
    // A RAID stream of 32 bytes; lengths round up to 4; an overflow is refused.
    const std::pair<uint64_t, uint64_t> aCases[] = {{32, 56}, {0, 24}, {2, 24}, {3, 28}, {UINT64_MAX - 10, 0}};
    for (const auto& [iLength, iOnMedium] : aCases) {
        MTF_STREAM_HDR hdr{};
        hdr.m_length = iLength;
        EXPECT_EQ(MTF_StreamLength(hdr), iOnMedium) << iLength;
    }
}

TEST(MtfString, TapeAddressesAreBoundedByTheirRecord) {
    // A 16-byte record with "AB" and a zero unit in UTF-16 at offset 8, and
    // "xy" as bytes at 14.
    uint8_t aRec[16] = {};
    aRec[8] = 'A';
    aRec[10] = 'B';
    aRec[14] = 'x';
    aRec[15] = 'y';
    std::wstring ws = L"unchanged";
    EXPECT_TRUE(MTF_ReadString(aRec, sizeof(aRec), {4, 8}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_EQ(ws, L"AB");
    EXPECT_TRUE(MTF_ReadString(aRec, sizeof(aRec), {8, 8}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_EQ(ws, L"AB") << "a zero unit ends the string; the address may end at the record's end";
    EXPECT_TRUE(MTF_ReadString(aRec, sizeof(aRec), {2, 14}, MTF_ANSI_STR, &ws, kKey));
    EXPECT_EQ(ws, L"xy");
    EXPECT_TRUE(MTF_ReadString(aRec, sizeof(aRec), {0, 200}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_EQ(ws, L"") << "a zero size is an empty string wherever it points";
    EXPECT_FALSE(TakeError(kKey));

    // Past the record's end, a size beyond it, an odd size, an unknown type.
    const std::pair<MTF_TAPE_ADDRESS, uint8_t> aRefused[] = {
        {{10, 8}, MTF_UNICODE_STR}, {{2, 0xFFFF}, MTF_UNICODE_STR}, {{3, 8}, MTF_UNICODE_STR}, {{4, 8}, 7}};
    for (const auto& [ta, iType] : aRefused) {
        ws = L"unchanged";
        EXPECT_FALSE(MTF_ReadString(aRec, sizeof(aRec), ta, iType, &ws, kKey)) << ta.m_size << "@" << ta.m_offset;
        EXPECT_TRUE(TakeError(kKey));
        EXPECT_EQ(ws, L"unchanged");
    }
}

// Decoding is checked on every real backup against the manifest's dates.
TEST(MtfDate, EncodesBitFieldsAndKnowsNoDate) {
    const MTF_DATE_TIME dt = {{0x1f, 0x8b, 0x2a, 0xb6, 0x9f}};  // 2018-12-21 11:26:31, from a real backup
    SYSTEMTIME st;
    ASSERT_TRUE(MTF_DecodeDateTime(dt, &st));
    EXPECT_EQ(std::memcmp(MTF_EncodeDateTime(st).m_bytes, dt.m_bytes, 5), 0);
    SYSTEMTIME edge{};
    edge.wYear = 16383;
    edge.wMonth = 15;
    edge.wDay = edge.wHour = 31;
    edge.wMinute = edge.wSecond = 63;
    for (uint8_t b : MTF_EncodeDateTime(edge).m_bytes) EXPECT_EQ(b, 0xFF);

    const MTF_DATE_TIME none{};
    EXPECT_TRUE(MTF_IsNoDate(none));
    EXPECT_FALSE(MTF_DecodeDateTime(none, &st));
    EXPECT_EQ(st.wYear, 0);
}

// The real files show both layouts; here, the bounds of the array.
TEST(MtfSfmb, ArrayOffsetByContentAndItsBounds) {
    std::vector<uint8_t> a(512);
    std::vector<uint64_t> aEntries;
    // Version 10 layout: the word at 60 names the array's offset.
    MTF_SFMB_V10 v10{};
    v10.m_hdr = MakeBlock(MTF_ID_SFMB, 512);
    v10.m_filemark_entry_count = 55;
    v10.m_filemark_entries_used = 1;
    v10.m_filemark_array_offset = 72;
    v10.m_previous_filemarks = 1024;
    std::memcpy(a.data(), &v10, sizeof(v10));
    EXPECT_EQ(MTF_SfmbFindArrayOffset(a.data(), a.size()), 72u);
    ASSERT_TRUE(MTF_ReadSfmbEntries(a.data(), a.size(), &aEntries, kKey));
    EXPECT_EQ(aEntries, std::vector<uint64_t>{1024});
    EXPECT_FALSE(TakeError(kKey));

    // 55 entries fit behind 72 in 512 bytes; 56 do not.
    reinterpret_cast<MTF_SFMB*>(a.data())->m_filemark_entries_used = 55;
    EXPECT_TRUE(MTF_ReadSfmbEntries(a.data(), a.size(), &aEntries, kKey));
    reinterpret_cast<MTF_SFMB*>(a.data())->m_filemark_entries_used = 56;
    EXPECT_FALSE(MTF_ReadSfmbEntries(a.data(), a.size(), &aEntries, kKey));
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_FALSE(MTF_ReadSfmbEntries(a.data(), 70, &aEntries, kKey)) << "array start beyond the bytes at hand";
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_EQ(MTF_SfmbFindArrayOffset(a.data(), 63), 0u);
}

// Every real backup, read through the record helpers, against the
// independent walker and the manifest.
TEST(MtfRealFiles, RecordsAgreeWithTheWalkerAndTheManifest) {
    ZR_REQUIRE_TESTDATA();
    std::map<std::string, std::string> mediaSets;  // media date and RAID family of each media set
    std::set<size_t> aArrayOffsets;
    ForEachRealBackup([&](const zrtest::ManifestEntry& row, const std::vector<uint8_t>& a, const zrtest::MtfWalk& walk) {
        std::vector<uint64_t> aWalkerBlocks;
        for (const auto& b : walk.blocks) aWalkerBlocks.push_back(b.offset);
        EXPECT_EQ(BlocksByLibraryLengths(a), aWalkerBlocks);

        const MTF_TAPE tape = Load<MTF_TAPE>(a, 0);
        EXPECT_EQ(tape.m_media_family_id, walk.mediaFamilyId);
        EXPECT_EQ(MTF_SoftFilemarkSize(tape), walk.softFilemarkSize);
        EXPECT_TRUE(tape.m_tape_attributes & TAPE_SOFT_FILEMARK_BIT);
        EXPECT_EQ(BlockString(a, 0, tape.m_software_name), L"Microsoft SQL Server") << "zero units end it";
        SYSTEMTIME st;
        ASSERT_TRUE(MTF_DecodeDateTime(tape.m_media_date, &st));
        char szDate[64];
        std::snprintf(szDate, sizeof(szDate), "%04d-%02d-%02d %02d:%02d:%02d", st.wYear, st.wMonth, st.wDay, st.wHour,
                      st.wMinute, st.wSecond);
        EXPECT_EQ(row.date, szDate);

        const uint64_t iSset = FirstBlock(walk, "SSET"), iVolb = FirstBlock(walk, "VOLB");
        const MTF_SSET sset = Load<MTF_SSET>(a, iSset);
        EXPECT_EQ(sset.m_data_set_number, 1);
        EXPECT_EQ(sset.m_software_major_version, row.major);
        EXPECT_FALSE(BlockString(a, iSset, sset.m_user_name).empty());
        // The volume's machine name is the server name up to its instance.
        const MTF_VOLB volb = Load<MTF_VOLB>(a, iVolb);
        const std::wstring wsServer = Widen(row.server);
        EXPECT_EQ(BlockString(a, iVolb, volb.m_machine_name), wsServer.substr(0, wsServer.find(L'\\')));
        EXPECT_EQ(std::memcmp(&volb.m_media_write_date, &sset.m_media_write_date, 5), 0);

        // The RAID stream right behind the TAPE block.
        const uint32_t iRaid = MTF_BlockLength(a.data(), a.size());
        ASSERT_EQ(Load<MTF_STREAM_HDR>(a, iRaid).m_length, sizeof(MTF_RAID_EXTENSION));
        const auto raid = Load<MTF_RAID_EXTENSION>(a, iRaid + MTF_STREAM_HDR_SIZE);
        EXPECT_EQ(raid.m_raid_type, MTF_RAID_TYPE);
        EXPECT_EQ(raid.m_device_count >> 16, 1u);
        EXPECT_EQ(MTF_RaidFileCount(raid), row.stripes);
        EXPECT_EQ(MTF_RaidSequence(raid), row.stripe);

        // Each soft filemark lists the ones before it, newest first.
        for (size_t i = 0; i < walk.filemarks.size(); i++) {
            const uint8_t* pBlock = a.data() + walk.filemarks[i];
            EXPECT_EQ(MTF_SfmbFindArrayOffset(pBlock, walk.softFilemarkSize), walk.filemarkArrayOffsets[i]);
            aArrayOffsets.insert(walk.filemarkArrayOffsets[i]);
            std::vector<uint64_t> aEntries;
            ASSERT_TRUE(MTF_ReadSfmbEntries(pBlock, walk.softFilemarkSize, &aEntries, kKey));
            EXPECT_EQ(aEntries, std::vector<uint64_t>(walk.filemarks.rend() - std::ptrdiff_t(i), walk.filemarks.rend()));
        }

        // The files of one media set share the media date and RAID family.
        std::string strSet(reinterpret_cast<const char*>(&tape.m_media_date), 5);
        strSet.append(reinterpret_cast<const char*>(&raid.m_family_id), sizeof raid.m_family_id);
        EXPECT_EQ(mediaSets.try_emplace(row.mediaset, strSet).first->second, strSet);
    });
    std::set<std::string> aDistinct;
    for (const auto& [strId, strSet] : mediaSets) aDistinct.insert(strSet);
    EXPECT_EQ(aDistinct.size(), mediaSets.size()) << "media sets differ";
    EXPECT_EQ(aArrayOffsets, (std::set<size_t>{60, 72})) << "both filemark layouts";
    EXPECT_FALSE(TakeError(kKey));
}
