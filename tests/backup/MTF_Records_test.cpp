// The tape format records: identifiers, checksums, lengths on the medium,
// strings behind tape addresses, dates and soft filemark arrays, on
// hand-built bytes and on the real backups.
#include "backup/MTF_Records.h"

#include <gtest/gtest.h>

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

// The manifest's stripe column "1/2" as (place, count).
std::pair<int, int> Stripe(const ManifestRow& row) {
    int iPlace = 0, iCount = 0;
    std::sscanf(row.at("family").c_str(), "%d/%d", &iPlace, &iCount);
    return {iPlace, iCount};
}

int MajorVersion(const ManifestRow& row) { return std::atoi(row.at("ver").c_str()); }

}  // namespace

TEST(MtfIds, BlockAndStreamIdentifiersAreKnownAndNothingElse) {
    EXPECT_EQ(MTF_MakeId("TAPE"), 0x45504154u);
    for (const char* sz : {"TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB", "ESET", "EOTM", "SFMB", "MSCI",
                           "MSDA", "MSTL", "MSLS", "PH6S"}) {
        uint32_t iId;
        std::memcpy(&iId, sz, 4);
        EXPECT_TRUE(MTF_IsBlockId(iId)) << sz;
        EXPECT_FALSE(MTF_IsStreamId(iId)) << sz;
    }
    for (uint32_t iId : {MTF_ID_RAID, MTF_ID_MQCI, MTF_ID_MQDA, MTF_ID_MQTL, MTF_ID_SPAD, MTF_ID_APAD, MTF_ID_MQLS,
                         MTF_MakeId("MQSS"), MTF_MakeId("TSMP"), MTF_MakeId("OTCP"), MTF_MakeId("CSUM")}) {
        EXPECT_TRUE(MTF_IsStreamId(iId));
        EXPECT_FALSE(MTF_IsBlockId(iId));
    }
    // The content map's own identifier never occurs in a backup.
    EXPECT_FALSE(MTF_IsStreamId(MTF_ID_PQ6S));
    EXPECT_FALSE(MTF_IsStreamId(MTF_MakeId("tape")));
    EXPECT_FALSE(MTF_IsBlockId(0));
}

TEST(MtfChecksum, EveryCoveredByteOfABlockHeaderCounts) {
    MTF_DB_HDR hdr = MakeBlock(MTF_ID_SSET, 98);
    ASSERT_TRUE(MTF_IsBlockChecksumValid(hdr));
    for (size_t i = 0; i < offsetof(MTF_DB_HDR, m_header_checksum); i++) {
        MTF_DB_HDR bad = hdr;
        reinterpret_cast<uint8_t*>(&bad)[i] ^= 0x10;
        EXPECT_FALSE(MTF_IsBlockChecksumValid(bad)) << "byte " << i;
    }
    hdr.m_header_checksum ^= 1;
    EXPECT_FALSE(MTF_IsBlockChecksumValid(hdr));
}

TEST(MtfChecksum, StreamHeaderCoversItsTenWords) {
    MTF_STREAM_HDR hdr{};
    std::memcpy(hdr.m_id, "MQDA", 4);
    hdr.m_length = 0x123456789ull;
    MTF_SetStreamChecksum(hdr);
    EXPECT_EQ(hdr.m_header_checksum, MTF_XorWords(&hdr, 10));
    ASSERT_TRUE(MTF_IsStreamChecksumValid(hdr));
    for (size_t i = 0; i < offsetof(MTF_STREAM_HDR, m_header_checksum); i++) {
        MTF_STREAM_HDR bad = hdr;
        reinterpret_cast<uint8_t*>(&bad)[i] ^= 0x80;
        EXPECT_FALSE(MTF_IsStreamChecksumValid(bad)) << "byte " << i;
    }
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
    MTF_STREAM_HDR hdr{};
    hdr.m_length = 32;  // a RAID stream
    EXPECT_EQ(MTF_StreamLength(hdr), 56u);
    hdr.m_length = 0;
    EXPECT_EQ(MTF_StreamLength(hdr), 24u);
    hdr.m_length = 2;
    EXPECT_EQ(MTF_StreamLength(hdr), 24u);
    hdr.m_length = 3;
    EXPECT_EQ(MTF_StreamLength(hdr), 28u);
    hdr.m_length = UINT64_MAX - 10;
    EXPECT_EQ(MTF_StreamLength(hdr), 0u) << "a length that overflows is refused";
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

    ws = L"unchanged";
    EXPECT_FALSE(MTF_ReadString(aRec, sizeof(aRec), {10, 8}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_FALSE(MTF_ReadString(aRec, sizeof(aRec), {2, 0xFFFF}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_FALSE(MTF_ReadString(aRec, sizeof(aRec), {3, 8}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_FALSE(MTF_ReadString(aRec, sizeof(aRec), {4, 8}, 7, &ws, kKey));
    EXPECT_TRUE(TakeError(kKey));
    EXPECT_EQ(ws, L"unchanged");
}

TEST(MtfString, SurrogatePairsJoinAndLoneOnesAreReplaced) {
    // U+1F600 as a pair, then a lone high surrogate, then 'z'.
    const uint8_t aRec[] = {0x3D, 0xD8, 0x00, 0xDE, 0x3D, 0xD8, 'z', 0};
    std::wstring ws;
    ASSERT_TRUE(MTF_ReadString(aRec, sizeof(aRec), {8, 0}, MTF_UNICODE_STR, &ws, kKey));
    EXPECT_EQ(ws, std::wstring({wchar_t(0x1F600), wchar_t(0xFFFD), L'z'}));
}

TEST(MtfDate, DecodesBitFieldsAndRoundTrips) {
    // The media date of a real backup: 2018-12-21 11:26:31.
    const MTF_DATE_TIME dt = {{0x1f, 0x8b, 0x2a, 0xb6, 0x9f}};
    SYSTEMTIME st;
    ASSERT_TRUE(MTF_DecodeDateTime(dt, &st));
    EXPECT_EQ(st.wYear, 2018);
    EXPECT_EQ(st.wMonth, 12);
    EXPECT_EQ(st.wDay, 21);
    EXPECT_EQ(st.wHour, 11);
    EXPECT_EQ(st.wMinute, 26);
    EXPECT_EQ(st.wSecond, 31);
    MTF_DATE_TIME back = MTF_EncodeDateTime(st);
    EXPECT_EQ(std::memcmp(back.m_bytes, dt.m_bytes, 5), 0);

    SYSTEMTIME edge{};
    edge.wYear = 16383;
    edge.wMonth = 15;
    edge.wDay = 31;
    edge.wHour = 31;
    edge.wMinute = 63;
    edge.wSecond = 63;
    MTF_DATE_TIME all = MTF_EncodeDateTime(edge);
    for (uint8_t b : all.m_bytes) EXPECT_EQ(b, 0xFF);

    const MTF_DATE_TIME none{};
    EXPECT_TRUE(MTF_IsNoDate(none));
    EXPECT_FALSE(MTF_DecodeDateTime(none, &st));
    EXPECT_EQ(st.wYear, 0);
}

TEST(MtfSfmb, ArrayOffsetByVersionAndByContent) {
    EXPECT_EQ(MTF_SfmbArrayOffset(7), 60u);
    EXPECT_EQ(MTF_SfmbArrayOffset(8), 60u);
    EXPECT_EQ(MTF_SfmbArrayOffset(9), 60u);
    EXPECT_EQ(MTF_SfmbArrayOffset(10), 72u);

    // Version 9 layout: two entries from offset 60, the newest first.
    std::vector<uint8_t> a(512);
    MTF_SFMB old{};
    old.m_hdr = MakeBlock(MTF_ID_SFMB, 512);
    old.m_filemark_entry_count = 56;
    old.m_filemark_entries_used = 2;
    std::memcpy(a.data(), &old, sizeof(old));
    const uint64_t aOld[] = {3499520, 1024};
    std::memcpy(a.data() + 60, aOld, sizeof(aOld));
    std::vector<uint64_t> aEntries;
    EXPECT_EQ(MTF_SfmbFindArrayOffset(a.data(), a.size()), 60u);
    ASSERT_TRUE(MTF_ReadSfmbEntries(a.data(), a.size(), &aEntries, kKey));
    EXPECT_EQ(aEntries, std::vector<uint64_t>(std::begin(aOld), std::end(aOld)));

    // Version 10 layout: the word at 60 names the array's offset.
    std::fill(a.begin(), a.end(), 0);
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

// Every real backup: the blocks and streams walk with valid checksums from
// the TAPE at offset 0 to the end of the file.
TEST(MtfRealFiles, EveryFileWalksFromItsTapeBlock) {
    ZR_REQUIRE_TESTDATA();
    auto aRows = TapeFormatRows();
    ASSERT_GT(aRows.size(), 40u);
    for (const ManifestRow& row : aRows) {
        SCOPED_TRACE(row.at("file"));
        auto path = *zrtest::TestDataFile(row.at("file"));
        std::vector<uint8_t> a = ReadWhole(path);
        ASSERT_GE(a.size(), sizeof(MTF_TAPE));
        const MTF_TAPE tape = Load<MTF_TAPE>(a, 0);
        EXPECT_EQ(MTF_BlockId(tape.m_hdr), MTF_ID_TAPE);
        EXPECT_TRUE(MTF_IsBlockChecksumValid(tape.m_hdr));
        EXPECT_NE(tape.m_media_family_id, 0u);
        EXPECT_TRUE(tape.m_tape_attributes & TAPE_SOFT_FILEMARK_BIT);

        std::vector<Item> aItems = Walk(a);
        ASSERT_FALSE(aItems.empty());
        const Item& last = aItems.back();
        EXPECT_EQ(last.m_iId, MTF_ID_SFMB) << "a file ends in a soft filemark";
        EXPECT_EQ(last.m_iOffset + MTF_SoftFilemarkSize(tape), a.size());
        for (uint32_t iId : {MTF_ID_SSET, MTF_ID_VOLB, MTF_ID_MSCI, MTF_ID_MSLS, MTF_ID_ESET, MTF_ID_RAID})
            EXPECT_NE(Find(aItems, iId), nullptr) << std::string(reinterpret_cast<const char*>(&iId), 4);
    }
}

TEST(MtfRealFiles, TapeSetAndVolumeStringsAndDatesMatchTheManifest) {
    ZR_REQUIRE_TESTDATA();
    for (const ManifestRow& row : TapeFormatRows()) {
        SCOPED_TRACE(row.at("file"));
        std::vector<uint8_t> a = ReadWhole(*zrtest::TestDataFile(row.at("file")));
        std::vector<Item> aItems = Walk(a);
        const Item* pSset = Find(aItems, MTF_ID_SSET);
        const Item* pVolb = Find(aItems, MTF_ID_VOLB);
        ASSERT_TRUE(pSset && pVolb);

        const MTF_TAPE tape = Load<MTF_TAPE>(a, 0);
        std::wstring ws;
        ASSERT_TRUE(MTF_ReadString(a.data(), tape.m_hdr.m_first_event_offset, tape.m_software_name,
                                   tape.m_hdr.m_string_type, &ws, kKey));
        EXPECT_EQ(ws, L"Microsoft SQL Server") << "the zero units behind the name end it";
        SYSTEMTIME st;
        ASSERT_TRUE(MTF_DecodeDateTime(tape.m_media_date, &st));
        char szDate[64];
        std::snprintf(szDate, sizeof(szDate), "%04d-%02d-%02d %02d:%02d:%02d", st.wYear, st.wMonth, st.wDay,
                      st.wHour, st.wMinute, st.wSecond);
        EXPECT_EQ(row.at("date"), szDate);

        const uint8_t* pSsetBytes = a.data() + pSset->m_iOffset;
        const MTF_SSET sset = Load<MTF_SSET>(a, size_t(pSset->m_iOffset));
        EXPECT_EQ(sset.m_data_set_number, 1);
        EXPECT_EQ(std::to_string(sset.m_software_major_version), row.at("ver").substr(0, row.at("ver").find('.')));
        ASSERT_TRUE(MTF_ReadString(pSsetBytes, sset.m_hdr.m_first_event_offset, sset.m_user_name,
                                   sset.m_hdr.m_string_type, &ws, kKey));
        EXPECT_FALSE(ws.empty());

        // The volume's machine name is the server name up to its instance.
        const MTF_VOLB volb = Load<MTF_VOLB>(a, size_t(pVolb->m_iOffset));
        ASSERT_TRUE(MTF_ReadString(a.data() + pVolb->m_iOffset, volb.m_hdr.m_first_event_offset,
                                   volb.m_machine_name, volb.m_hdr.m_string_type, &ws, kKey));
        std::wstring wsServer = Widen(row.at("server"));
        EXPECT_EQ(ws, wsServer.substr(0, wsServer.find(L'\\')));
        EXPECT_EQ(std::memcmp(&volb.m_media_write_date, &sset.m_media_write_date, 5), 0);
    }
    EXPECT_FALSE(TakeError(kKey));
}

TEST(MtfRealFiles, RaidWordHoldsFileCountLowAndOneHigh) {
    ZR_REQUIRE_TESTDATA();
    for (const ManifestRow& row : TapeFormatRows()) {
        SCOPED_TRACE(row.at("file"));
        std::vector<uint8_t> a = ReadWhole(*zrtest::TestDataFile(row.at("file")));
        const std::vector<Item> aItems = Walk(a);  // Find points into it
        const Item* pRaid = Find(aItems, MTF_ID_RAID);
        ASSERT_NE(pRaid, nullptr);
        ASSERT_EQ(Load<MTF_STREAM_HDR>(a, size_t(pRaid->m_iOffset)).m_length, sizeof(MTF_RAID_EXTENSION));
        const MTF_RAID_EXTENSION raid = Load<MTF_RAID_EXTENSION>(a, size_t(pRaid->m_iOffset) + MTF_STREAM_HDR_SIZE);
        auto [iPlace, iCount] = Stripe(row);
        EXPECT_EQ(raid.m_raid_type, MTF_RAID_TYPE);
        EXPECT_EQ(raid.m_device_count >> 16, 1u);
        EXPECT_EQ(MTF_RaidFileCount(raid), iCount);
        EXPECT_EQ(MTF_RaidSequence(raid), iPlace);
    }
}

// The files of one stripe set agree in their media date and in the RAID
// stream's family id; each file has a media family id of its own.
TEST(MtfRealFiles, StripesOfOneSetShareDatesAndRaidFamily) {
    ZR_REQUIRE_TESTDATA();
    const char* aszFiles[] = {"appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe1/RestoreTimeStripe.bak",
                              "appveyor-lab/sql2008-backups/RestoreTimeStripe/Stripe2/RestoreTimeStripe1.bak",
                              "appveyor-lab/DoubleDiffing/difftest-full.bak"};
    std::vector<uint8_t> a[3];
    for (int i = 0; i < 3; i++) {
        a[i] = ReadBytes(*zrtest::TestDataFile(aszFiles[i]), 0, 512);
        ASSERT_EQ(a[i].size(), 512u);
    }
    const MTF_TAPE t1 = Load<MTF_TAPE>(a[0], 0), t2 = Load<MTF_TAPE>(a[1], 0), t3 = Load<MTF_TAPE>(a[2], 0);
    EXPECT_EQ(std::memcmp(&t1.m_media_date, &t2.m_media_date, 5), 0);
    EXPECT_NE(std::memcmp(&t1.m_media_date, &t3.m_media_date, 5), 0);
    EXPECT_NE(t1.m_media_family_id, t2.m_media_family_id);
    auto raid = [&](int i) {
        size_t iAt = MTF_BlockLength(a[i].data(), a[i].size()) + MTF_STREAM_HDR_SIZE;
        return Load<MTF_RAID_EXTENSION>(a[i], iAt);
    };
    const MTF_RAID_EXTENSION r1 = raid(0), r2 = raid(1), r3 = raid(2);
    EXPECT_EQ(std::memcmp(&r1.m_family_id, &r2.m_family_id, 16), 0);
    EXPECT_NE(std::memcmp(&r1.m_family_id, &r3.m_family_id, 16), 0);
    EXPECT_EQ(MTF_RaidSequence(r1), 1);
    EXPECT_EQ(MTF_RaidSequence(r2), 2);
}

// Every soft filemark block lists the offsets of the ones before it in the
// file, newest first, in its array where the server version puts it.
TEST(MtfRealFiles, SoftFilemarkArraysListEarlierFilemarks) {
    ZR_REQUIRE_TESTDATA();
    std::set<int> aVersionsSeen;
    for (const ManifestRow& row : TapeFormatRows()) {
        int iVersion = MajorVersion(row);
        SCOPED_TRACE(row.at("file"));
        aVersionsSeen.insert(iVersion);
        std::vector<uint8_t> a = ReadWhole(*zrtest::TestDataFile(row.at("file")));
        const uint32_t iSize = MTF_SoftFilemarkSize(Load<MTF_TAPE>(a, 0));
        std::vector<uint64_t> aEarlier;
        for (const Item& item : Walk(a)) {
            if (item.m_iId != MTF_ID_SFMB) continue;
            const uint8_t* pBlock = a.data() + item.m_iOffset;
            EXPECT_EQ(MTF_SfmbFindArrayOffset(pBlock, iSize), MTF_SfmbArrayOffset(iVersion));
            if (iVersion >= 10) {
                EXPECT_EQ(Load<uint32_t>(a, size_t(item.m_iOffset) + 60), 72u);
                EXPECT_EQ(Load<MTF_SFMB>(a, size_t(item.m_iOffset)).m_filemark_entry_count, (iSize - 72) / 8);
            }
            std::vector<uint64_t> aEntries;
            ASSERT_TRUE(MTF_ReadSfmbEntries(pBlock, iSize, &aEntries, kKey));
            EXPECT_EQ(aEntries, std::vector<uint64_t>(aEarlier.rbegin(), aEarlier.rend()));
            aEarlier.push_back(item.m_iOffset);
        }
        EXPECT_GE(aEarlier.size(), 3u);
    }
    EXPECT_TRUE(aVersionsSeen.count(9) && aVersionsSeen.count(10));
}

TEST(MtfRealFiles, AFlippedByteBreaksTheHeaderChecksums) {
    ZR_REQUIRE_TESTDATA();
    std::vector<uint8_t> a = ReadBytes(*zrtest::TestDataFile("xandelima-MVCNorthwind/Northwind.bak"), 0, 4096);
    ASSERT_EQ(a.size(), 4096u);
    MTF_DB_HDR tape = Load<MTF_DB_HDR>(a, 0);
    ASSERT_TRUE(MTF_IsBlockChecksumValid(tape));
    reinterpret_cast<uint8_t*>(&tape)[3] ^= 0x01;
    EXPECT_FALSE(MTF_IsBlockChecksumValid(tape));

    // The RAID stream right behind the TAPE block.
    const uint32_t iRaid = MTF_BlockLength(a.data(), a.size());
    MTF_STREAM_HDR raid = Load<MTF_STREAM_HDR>(a, iRaid);
    ASSERT_EQ(MTF_StreamId(raid), MTF_ID_RAID);
    ASSERT_TRUE(MTF_IsStreamChecksumValid(raid));
    raid.m_length ^= 0x100;
    EXPECT_FALSE(MTF_IsStreamChecksumValid(raid));
}
