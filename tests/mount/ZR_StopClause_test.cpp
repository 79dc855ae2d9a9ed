#include "mount/ZR_StopClause.h"

#include <gtest/gtest.h>

#include <string>

#include "mount/ZR_MountInfo.h"

namespace {

// The datetimes below are written out: days since 1900-01-01 (2009-05-15 is
// day 39,946) and ticks of 1/300 s since midnight (13:19:34 is 14,392,200).
constexpr int32_t kMay15 = 39946;
constexpr uint32_t kAt131934 = 14392200;

struct StopCase {
    const wchar_t* wszClause;
    ZR_StopType_e eKind = ZR_STOP_UNDEFINED;  // undefined: the clause is refused
    LSN lsn = {0, 0, 0};
    const wchar_t* wszMark = L"";
    ZR_SqlDateTime dtStopAt = {0, 0};  // ticks, days
    ZR_SqlDateTime dtAfter = {0, 0};
};

TEST(StopClause, ClausesAndWhatTheyGive) {
    const StopCase aCases[] = {
        {.wszClause = L"STOPAT='2009-05-15 13:19:34.790'", .eKind = ZR_STOP_AT_TIME,
         .dtStopAt = {kAt131934 + 237, kMay15}},
        // keywords ignore case; blanks may stand round the equals sign
        {.wszClause = L"  stopat   =  '2009-05-15 13:19:34'  ", .eKind = ZR_STOP_AT_TIME, .dtStopAt = {kAt131934, kMay15}},
        {.wszClause = L"STOPATMARK='lsn:12:34:5'", .eKind = ZR_STOP_AT_LSN, .lsn = {12, 34, 5}},
        {.wszClause = L"STOPBEFOREMARK='LSN:12:34:5' AFTER '2009-05-15 13:19:34'", .eKind = ZR_STOP_BEFORE_LSN_AFTER,
         .lsn = {12, 34, 5}, .dtAfter = {kAt131934, kMay15}},
        {.wszClause = L"StopAtMark = 'LSN:1:2:3' after '2009-05-15 13:19:34.010'", .eKind = ZR_STOP_AT_LSN_AFTER,
         .lsn = {1, 2, 3}, .dtAfter = {kAt131934 + 3, kMay15}},
        // the slot id keeps its low 16 bits
        {.wszClause = L"STOPBEFOREMARK='lsn:1:2:65537'", .eKind = ZR_STOP_BEFORE_LSN, .lsn = {1, 2, 1}},
        {.wszClause = L"STOPATMARK='it''s done'", .eKind = ZR_STOP_AT_MARK, .wszMark = L"it's done"},
        {.wszClause = L"STOPATMARK='release' AFTER '2010-01-02 03:04:05'", .eKind = ZR_STOP_AT_MARK_AFTER,
         .wszMark = L"release", .dtAfter = {3313500, 40178}},
        {.wszClause = L"STOPBEFOREMARK='tx_1'", .eKind = ZR_STOP_BEFORE_MARK, .wszMark = L"tx_1"},
        {.wszClause = L"STOPBEFOREMARK='tx_1' AFTER '2010-01-02 03:04:05'", .eKind = ZR_STOP_BEFORE_MARK_AFTER,
         .wszMark = L"tx_1", .dtAfter = {3313500, 40178}},
        // the class of a quoted text, found anywhere in it, decides what a
        // clause takes: a date is no mark, and STOPAT takes only a date
        {.wszClause = L"STOPATMARK='2009-05-15 13:19:34'"},
        {.wszClause = L"STOPATMARK='release 2009-05-15 13:19:34'"},
        {.wszClause = L"STOPATMARK='xLSN:1:2:3y'", .eKind = ZR_STOP_AT_LSN, .lsn = {1, 2, 3}},
        {.wszClause = L"STOPAT='2009-05-15 13-19-34'"},
        // a date behind other characters, or a month outside the calendar
        {.wszClause = L"STOPAT='x2009-05-15 13:19:34'"},
        {.wszClause = L"STOPAT='2009-13-15 13:19:34'"},
        // fractions are numbers of milliseconds: .7 is 7 ms (2 ticks), and
        // digits after the third are dropped
        {.wszClause = L"STOPAT='2009-05-15 13:19:34.7'", .eKind = ZR_STOP_AT_TIME, .dtStopAt = {kAt131934 + 2, kMay15}},
        {.wszClause = L"STOPAT='2009-05-15 13:19:34.7901'", .eKind = ZR_STOP_AT_TIME,
         .dtStopAt = {kAt131934 + 237, kMay15}},
        // a whole day of ticks is the next day; a day past the month adds up
        {.wszClause = L"STOPAT='2009-05-15 23:59:59.999'", .eKind = ZR_STOP_AT_TIME, .dtStopAt = {0, kMay15 + 1}},
        {.wszClause = L"STOPAT='2009-02-30 00:00:00'", .eKind = ZR_STOP_AT_TIME, .dtStopAt = {0, 39872}},
        // malformed
        {.wszClause = L""},
        {.wszClause = L"STOPAT"},
        {.wszClause = L"STOPAT="},
        {.wszClause = L"STOPAT=''"},
        {.wszClause = L"STOPAT='2009-05-15 13:19:34"},
        {.wszClause = L"STOPAT='2009-05-15 13:19:34' STOPAT='2009-05-15 13:19:34'"},
        {.wszClause = L"STOPAT\t='2009-05-15 13:19:34'"},
        {.wszClause = L"STOPAT '2009-05-15 13:19:34'"},
        {.wszClause = L"STOPATMARK='lsn:1:2:3' AFTER='2009-05-15 13:19:34'"},
        {.wszClause = L"STOPATMARK='lsn:1:2:3' AFTER 'mark'"},
        {.wszClause = L"STOPATMARK='lsn:1:2:3' AFTER"},
        {.wszClause = L"STOPAT='2009-05-15 13:19:34' AFTER '2009-05-15 13:19:34'"},
        {.wszClause = L"RESTORE='2009-05-15 13:19:34'"},
        {.wszClause = L"STOPAT=\"2009-05-15 13:19:34\""},
        {.wszClause = L"="},
    };
    for (const StopCase& c : aCases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.wszClause)));
        ZR_MountInfo info;
        EXPECT_EQ(info.SetStop(c.wszClause), c.eKind != ZR_STOP_UNDEFINED);
        const ZR_StopInfo stop = info.GetStop();
        EXPECT_EQ(stop.m_eStopType, c.eKind);
        EXPECT_EQ(+stop.m_lsn.SeqNo, c.lsn.SeqNo);
        EXPECT_EQ(+stop.m_lsn.blockOffset, c.lsn.blockOffset);
        EXPECT_EQ(+stop.m_lsn.slotId, c.lsn.slotId);
        EXPECT_STREQ(stop.m_strMark.IsEmpty() ? L"" : stop.m_strMark.GetString(), c.wszMark);
        EXPECT_EQ(+stop.m_dtStopAt.m_iTicks, c.dtStopAt.m_iTicks);
        EXPECT_EQ(+stop.m_dtStopAt.m_iDays, c.dtStopAt.m_iDays);
        EXPECT_EQ(+stop.m_dtAfter.m_iTicks, c.dtAfter.m_iTicks);
        EXPECT_EQ(+stop.m_dtAfter.m_iDays, c.dtAfter.m_iDays);
    }
}

// After a failure only the kind changes; what a good clause left stays.
TEST(StopClause, AFailureKeepsTheOtherMembers) {
    ZR_MountInfo info;
    ASSERT_TRUE(info.SetStop(L"STOPATMARK='lsn:7:8:9'"));
    ASSERT_TRUE(info.SetStop(L"STOPATMARK='first'"));
    EXPECT_FALSE(info.SetStop(L"STOPATMARK=''"));
    const ZR_StopInfo stop = info.GetStop();
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_UNDEFINED);
    EXPECT_EQ(+stop.m_lsn.SeqNo, 7u);
    EXPECT_STREQ(stop.m_strMark.GetString(), L"first");
}

}  // namespace
