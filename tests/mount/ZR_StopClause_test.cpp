#include "mount/ZR_StopClause.h"

#include <gtest/gtest.h>

#include <string>

#include "mount/ZR_MountInfo.h"

namespace {

ZR_SqlDateTime DateTime(int y, int mo, int d, int h, int mi, int s, int ms) {
    ZR_SqlDateTime dt{};
    EXPECT_TRUE(DateToSqlDateTime(ZR_DateParts{y, mo, d, h, mi, s, ms}, &dt));
    return dt;
}

void ExpectSameDateTime(const ZR_SqlDateTime& got, const ZR_SqlDateTime& want) {
    EXPECT_EQ(int32_t{got.m_iDays}, int32_t{want.m_iDays});
    EXPECT_EQ(uint32_t{got.m_iTicks}, uint32_t{want.m_iTicks});
}

std::wstring Mark(const ZR_StopInfo& stop) {
    const wchar_t* wsz = stop.m_strMark;
    return wsz ? wsz : L"";
}

ZR_StopInfo Parse(const wchar_t* wszClause, bool bExpected) {
    ZR_MountInfo info;
    EXPECT_EQ(info.SetStop(wszClause), bExpected) << "clause: " << testing::PrintToString(std::wstring(wszClause));
    return info.GetStop();
}

TEST(StopClause, StopAtWithMillisecondsReadsBackTheSameDate) {
    ZR_StopInfo stop = Parse(L"STOPAT='2009-05-15 13:19:34.790'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_TIME);
    const ZR_DateParts date = SqlDateTimeToDate(stop.m_dtStopAt);
    EXPECT_EQ(date.m_iYear, 2009);
    EXPECT_EQ(date.m_iMonth, 5);
    EXPECT_EQ(date.m_iDay, 15);
    EXPECT_EQ(date.m_iHour, 13);
    EXPECT_EQ(date.m_iMinute, 19);
    EXPECT_EQ(date.m_iSecond, 34);
    EXPECT_EQ(date.m_iMillisecond, 790);
    ExpectSameDateTime(stop.m_dtAfter, ZR_SqlDateTime{0, 0});
}

TEST(StopClause, KeywordsIgnoreCaseAndBlanksMayStandAroundTheEquals) {
    ZR_StopInfo stop = Parse(L"  stopat   =  '2009-05-15 13:19:34'  ", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_TIME);
    ExpectSameDateTime(stop.m_dtStopAt, DateTime(2009, 5, 15, 13, 19, 34, 0));
}

TEST(StopClause, LsnKinds) {
    ZR_StopInfo stop = Parse(L"STOPATMARK='lsn:12:34:5'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_LSN);
    EXPECT_EQ(+stop.m_lsn.SeqNo, 12u);
    EXPECT_EQ(+stop.m_lsn.blockOffset, 34u);
    EXPECT_EQ(+stop.m_lsn.slotId, 5u);

    stop = Parse(L"STOPBEFOREMARK='LSN:12:34:5' AFTER '2009-05-15 13:19:34'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_BEFORE_LSN_AFTER);
    EXPECT_EQ(+stop.m_lsn.SeqNo, 12u);
    ExpectSameDateTime(stop.m_dtAfter, DateTime(2009, 5, 15, 13, 19, 34, 0));
    ExpectSameDateTime(stop.m_dtStopAt, ZR_SqlDateTime{0, 0});

    stop = Parse(L"StopAtMark = 'LSN:1:2:3' after '2009-05-15 13:19:34.010'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_LSN_AFTER);
    EXPECT_EQ(SqlDateTimeToDate(stop.m_dtAfter).m_iMillisecond, 10);

    // The slot id keeps its low 16 bits.
    stop = Parse(L"STOPBEFOREMARK='lsn:1:2:65537'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_BEFORE_LSN);
    EXPECT_EQ(+stop.m_lsn.slotId, 1u);
}

TEST(StopClause, MarkKindsAndDoubledQuotes) {
    ZR_StopInfo stop = Parse(L"STOPATMARK='it''s done'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_MARK);
    EXPECT_EQ(Mark(stop), L"it's done");
    EXPECT_EQ(Mark(stop).size(), 9u);

    stop = Parse(L"STOPATMARK='release' AFTER '2010-01-02 03:04:05'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_MARK_AFTER);
    EXPECT_EQ(Mark(stop), L"release");
    ExpectSameDateTime(stop.m_dtAfter, DateTime(2010, 1, 2, 3, 4, 5, 0));

    stop = Parse(L"STOPBEFOREMARK='tx_1'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_BEFORE_MARK);
    stop = Parse(L"STOPBEFOREMARK='tx_1' AFTER '2010-01-02 03:04:05'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_BEFORE_MARK_AFTER);
}

// The classifier looks for its patterns anywhere in the quoted text.
TEST(StopClause, TheClassOfAQuotedTextDecidesWhatAClauseTakes) {
    EXPECT_EQ(Parse(L"STOPATMARK='2009-05-15 13:19:34'", false).m_eStopType, ZR_STOP_UNDEFINED);
    EXPECT_EQ(Parse(L"STOPATMARK='release 2009-05-15 13:19:34'", false).m_eStopType, ZR_STOP_UNDEFINED);
    ZR_StopInfo stop = Parse(L"STOPATMARK='xLSN:1:2:3y'", true);
    EXPECT_EQ(stop.m_eStopType, ZR_STOP_AT_LSN);
    EXPECT_EQ(+stop.m_lsn.SeqNo, 1u);
    EXPECT_EQ(+stop.m_lsn.blockOffset, 2u);
    EXPECT_EQ(+stop.m_lsn.slotId, 3u);
    // A dash form of the time is a mark, and STOPAT takes only a date.
    Parse(L"STOPAT='2009-05-15 13-19-34'", false);
    // A date found behind other characters reads no date from its start.
    Parse(L"STOPAT='x2009-05-15 13:19:34'", false);
    // A month outside the calendar names no day.
    Parse(L"STOPAT='2009-13-15 13:19:34'", false);
}

TEST(StopClause, FractionsAreReadAsNumbersOfMilliseconds) {
    EXPECT_EQ(SqlDateTimeToDate(Parse(L"STOPAT='2009-05-15 13:19:34.7'", true).m_dtStopAt).m_iMillisecond, 7);
    EXPECT_EQ(SqlDateTimeToDate(Parse(L"STOPAT='2009-05-15 13:19:34.7901'", true).m_dtStopAt).m_iMillisecond, 790);
    ZR_StopInfo stop = Parse(L"STOPAT='2009-05-15 23:59:59.999'", true);
    ExpectSameDateTime(stop.m_dtStopAt, DateTime(2009, 5, 16, 0, 0, 0, 0));
    stop = Parse(L"STOPAT='2009-02-30 00:00:00'", true);
    ExpectSameDateTime(stop.m_dtStopAt, DateTime(2009, 3, 2, 0, 0, 0, 0));
}

TEST(StopClause, MalformedClausesFailWithKindZero) {
    const wchar_t* aClauses[] = {
        L"",
        L"STOPAT",
        L"STOPAT=",
        L"STOPAT=''",
        L"STOPAT='2009-05-15 13:19:34",
        L"STOPAT='2009-05-15 13:19:34' STOPAT='2009-05-15 13:19:34'",
        L"STOPAT\t='2009-05-15 13:19:34'",
        L"STOPAT '2009-05-15 13:19:34'",
        L"STOPATMARK='lsn:1:2:3' AFTER='2009-05-15 13:19:34'",
        L"STOPATMARK='lsn:1:2:3' AFTER 'mark'",
        L"STOPATMARK='lsn:1:2:3' AFTER",
        L"STOPAT='2009-05-15 13:19:34' AFTER '2009-05-15 13:19:34'",
        L"RESTORE='2009-05-15 13:19:34'",
        L"STOPAT=\"2009-05-15 13:19:34\"",
        L"=",
    };
    for (const wchar_t* wszClause : aClauses) Parse(wszClause, false);
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
    EXPECT_EQ(Mark(stop), L"first");
}

TEST(StopClause, DateTextForms) {
    ZR_DateParts date{};
    ASSERT_TRUE(ParseDateText(L"2009-05-15 13-19-34", &date));
    EXPECT_EQ(date.m_iMinute, 19);
    EXPECT_EQ(date.m_iMillisecond, 0);
    ASSERT_TRUE(ParseDateText(L"2009-05-15 13-19-34.120", &date));
    EXPECT_EQ(date.m_iMillisecond, 120);
    EXPECT_FALSE(ParseDateText(L"x2009-05-15 13:19:34", &date));
    LSN lsn{};
    EXPECT_FALSE(ParseLsnText(L"lsn:1:2", &lsn));
}

}  // namespace
