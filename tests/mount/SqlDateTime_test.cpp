#include "mount/SqlDateTime.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono;

// Days since 1900-01-01 by the standard library's civil calendar, which
// shares no code with the conversion under test.
int32_t ReferenceDays(int iYear, unsigned iMonth, unsigned iDay) {
    const sys_days day{year{iYear} / month{iMonth} / std::chrono::day{iDay}};
    const sys_days epoch{year{1900} / January / 1};
    return static_cast<int32_t>((day - epoch).count());
}

ZR_DateParts Date(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    return ZR_DateParts{y, mo, d, h, mi, s, ms};
}

void ExpectDate(const ZR_DateParts& got, const ZR_DateParts& want) {
    EXPECT_EQ(got.m_iYear, want.m_iYear);
    EXPECT_EQ(got.m_iMonth, want.m_iMonth);
    EXPECT_EQ(got.m_iDay, want.m_iDay);
    EXPECT_EQ(got.m_iHour, want.m_iHour);
    EXPECT_EQ(got.m_iMinute, want.m_iMinute);
    EXPECT_EQ(got.m_iSecond, want.m_iSecond);
    EXPECT_EQ(got.m_iMillisecond, want.m_iMillisecond);
}

TEST(SqlDateTime, LeapYearRules) {
    EXPECT_TRUE(IsLeapYear(2000));
    EXPECT_TRUE(IsLeapYear(2008));
    EXPECT_FALSE(IsLeapYear(1900));
    EXPECT_FALSE(IsLeapYear(2009));
    EXPECT_TRUE(IsLeapYear(1600));
    EXPECT_FALSE(IsLeapYear(1700));
    EXPECT_EQ(DaysBeforeMonth(2008, 3), 60);
    EXPECT_EQ(DaysBeforeMonth(2009, 3), 59);
    EXPECT_EQ(DaysBeforeMonth(2009, 0), -1);
    EXPECT_EQ(DaysBeforeMonth(2009, 13), -1);
}

// Dates on both sides of 1900, at the edges of months and of leap days.
TEST(SqlDateTime, DaysAgreeWithTheCivilCalendarBothWays) {
    const struct {
        int y;
        unsigned m, d;
    } aDates[] = {{1900, 1, 1},  {1900, 12, 31}, {1901, 1, 1},  {2000, 2, 29}, {2000, 3, 1},  {2009, 5, 15},
                  {1899, 12, 31}, {1899, 1, 1},  {1896, 2, 29}, {1800, 3, 1},  {1753, 1, 1},  {9999, 12, 31},
                  {2008, 12, 31}, {2100, 2, 28}, {1604, 2, 29}};
    for (const auto& date : aDates) {
        SCOPED_TRACE(testing::Message() << date.y << "-" << date.m << "-" << date.d);
        ZR_SqlDateTime dt{};
        ASSERT_TRUE(DateToSqlDateTime(Date(date.y, int(date.m), int(date.d)), &dt));
        EXPECT_EQ(+dt.m_iDays, ReferenceDays(date.y, date.m, date.d));
        EXPECT_EQ(+dt.m_iTicks, 0u);
        ExpectDate(SqlDateTimeToDate(dt), Date(date.y, int(date.m), int(date.d)));
    }
}

TEST(SqlDateTime, NegativeDaysCountBackFrom1899) {
    ExpectDate(SqlDateTimeToDate({0, -1}), Date(1899, 12, 31));
    ExpectDate(SqlDateTimeToDate({0, -365}), Date(1899, 1, 1));
    ExpectDate(SqlDateTimeToDate({0, -366}), Date(1898, 12, 31));
    // 1896 is a leap year: its 29th of February lies 1,402 days before 1900.
    ExpectDate(SqlDateTimeToDate({0, ReferenceDays(1896, 2, 29)}), Date(1896, 2, 29));
}

TEST(SqlDateTime, TicksGiveTimeWithRoundedMilliseconds) {
    // 13:19:34.790 is 14,392,437 ticks (790 ms is 237 ticks).
    ZR_SqlDateTime dt{};
    ASSERT_TRUE(DateToSqlDateTime(Date(2009, 5, 15, 13, 19, 34, 790), &dt));
    EXPECT_EQ(+dt.m_iTicks, 14392437u);
    ExpectDate(SqlDateTimeToDate(dt), Date(2009, 5, 15, 13, 19, 34, 790));

    // One tick is 3.33 ms and reads back as 3; two ticks as 7; 299 as 997.
    EXPECT_EQ(SqlDateTimeToDate({1, 0}).m_iMillisecond, 3);
    EXPECT_EQ(SqlDateTimeToDate({2, 0}).m_iMillisecond, 7);
    EXPECT_EQ(SqlDateTimeToDate({299, 0}).m_iMillisecond, 997);
    // Milliseconds round to the nearest tick: 5 ms is 1.5 ticks, goes to 2.
    ASSERT_TRUE(DateToSqlDateTime(Date(1900, 1, 1, 0, 0, 0, 5), &dt));
    EXPECT_EQ(+dt.m_iTicks, 2u);
    ASSERT_TRUE(DateToSqlDateTime(Date(1900, 1, 1, 0, 0, 0, 4), &dt));
    EXPECT_EQ(+dt.m_iTicks, 1u);
}

TEST(SqlDateTime, AWholeDayOfTicksRollsOverToTheNextDay) {
    ZR_SqlDateTime dt{};
    ASSERT_TRUE(DateToSqlDateTime(Date(2009, 12, 31, 23, 59, 59, 999), &dt));
    EXPECT_EQ(+dt.m_iDays, ReferenceDays(2010, 1, 1));
    EXPECT_EQ(+dt.m_iTicks, 0u);
    ASSERT_TRUE(DateToSqlDateTime(Date(2009, 5, 15, 24, 0, 0, 0), &dt));
    EXPECT_EQ(+dt.m_iDays, ReferenceDays(2009, 5, 16));
    EXPECT_EQ(+dt.m_iTicks, 0u);
    // Beyond a day nothing is normalised: the ticks simply add up.
    ASSERT_TRUE(DateToSqlDateTime(Date(2009, 5, 15, 25, 0, 0, 0), &dt));
    EXPECT_EQ(+dt.m_iDays, ReferenceDays(2009, 5, 15));
    EXPECT_EQ(+dt.m_iTicks, 25u * 3600 * 300);
}

TEST(SqlDateTime, DaysPastTheMonthAddUpAndBadMonthsAreRefused) {
    ZR_SqlDateTime dt{};
    ASSERT_TRUE(DateToSqlDateTime(Date(2009, 2, 30), &dt));
    EXPECT_EQ(+dt.m_iDays, ReferenceDays(2009, 3, 2));
    EXPECT_FALSE(DateToSqlDateTime(Date(2009, 0, 1), &dt));
    EXPECT_FALSE(DateToSqlDateTime(Date(2009, 13, 1), &dt));
}

}  // namespace
