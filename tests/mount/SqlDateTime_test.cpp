#include "mount/SqlDateTime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace {

using namespace std::chrono;

// Days since 1900-01-01 by the standard library's civil calendar, which
// shares no code with the conversion under test.
int32_t ReferenceDays(int iYear, unsigned iMonth, unsigned iDay) {
    return static_cast<int32_t>((sys_days{year{iYear} / month{iMonth} / day{iDay}} - sys_days{year{1900} / January / 1}).count());
}

std::string Text(const ZR_DateParts& d) {
    char sz[64];
    std::snprintf(sz, sizeof sz, "%04d-%02d-%02d %02d:%02d:%02d.%03d", d.m_iYear, d.m_iMonth, d.m_iDay, d.m_iHour,
                  d.m_iMinute, d.m_iSecond, d.m_iMillisecond);
    return sz;
}

// Converts the date and gives {ticks, days}, or {0, 0} with a failure.
std::pair<uint32_t, int32_t> Converted(ZR_DateParts date) {
    ZR_SqlDateTime dt{};
    EXPECT_TRUE(DateToSqlDateTime(date, &dt)) << Text(date);
    return {dt.m_iTicks, dt.m_iDays};
}

// Dates on both sides of 1900, at the edges of months and of leap days.
TEST(SqlDateTime, DaysAgreeWithTheCivilCalendarBothWays) {
    const struct {
        int y;
        unsigned m, d;
    } aDates[] = {{1900, 1, 1},  {1900, 12, 31}, {1901, 1, 1},  {2000, 2, 29}, {2000, 3, 1},  {2009, 5, 15},
                  {1899, 12, 31}, {1899, 1, 1},  {1898, 12, 31}, {1896, 2, 29}, {1800, 3, 1},  {1753, 1, 1},
                  {9999, 12, 31}, {2008, 12, 31}, {2100, 2, 28}, {1604, 2, 29}};
    for (const auto& date : aDates) {
        const ZR_DateParts parts{date.y, int(date.m), int(date.d), 0, 0, 0, 0};
        EXPECT_EQ(Converted(parts), std::make_pair(0u, ReferenceDays(date.y, date.m, date.d))) << Text(parts);
        EXPECT_EQ(Text(SqlDateTimeToDate({0, ReferenceDays(date.y, date.m, date.d)})), Text(parts));
    }
}

TEST(SqlDateTime, TicksGiveTimeWithRoundedMilliseconds) {
    // 13:19:34.790 is 14,392,437 ticks (790 ms is 237 ticks).
    EXPECT_EQ(Converted({2009, 5, 15, 13, 19, 34, 790}), std::make_pair(14392437u, ReferenceDays(2009, 5, 15)));
    EXPECT_EQ(Text(SqlDateTimeToDate({14392437, 0})), "1900-01-01 13:19:34.790");
    // One tick is 3.33 ms and reads back as 3; two ticks as 7; 299 as 997.
    EXPECT_EQ(SqlDateTimeToDate({1, 0}).m_iMillisecond, 3);
    EXPECT_EQ(SqlDateTimeToDate({2, 0}).m_iMillisecond, 7);
    EXPECT_EQ(SqlDateTimeToDate({299, 0}).m_iMillisecond, 997);
    // Milliseconds round to the nearest tick: 5 ms is 1.5 ticks and goes to 2.
    EXPECT_EQ(Converted({1900, 1, 1, 0, 0, 0, 5}).first, 2u);
    EXPECT_EQ(Converted({1900, 1, 1, 0, 0, 0, 4}).first, 1u);
}

// Exactly a whole day of ticks is the next day; beyond a day nothing is
// normalised; a day past the month adds up; a bad month is refused.
TEST(SqlDateTime, OutOfRangeFields) {
    EXPECT_EQ(Converted({2009, 12, 31, 23, 59, 59, 999}), std::make_pair(0u, ReferenceDays(2010, 1, 1)));
    EXPECT_EQ(Converted({2009, 5, 15, 24, 0, 0, 0}), std::make_pair(0u, ReferenceDays(2009, 5, 16)));
    EXPECT_EQ(Converted({2009, 5, 15, 25, 0, 0, 0}), std::make_pair(25u * 3600 * 300, ReferenceDays(2009, 5, 15)));
    EXPECT_EQ(Converted({2009, 2, 30, 0, 0, 0, 0}), std::make_pair(0u, ReferenceDays(2009, 3, 2)));
    ZR_SqlDateTime dt{};
    EXPECT_FALSE(DateToSqlDateTime({2009, 0, 1, 0, 0, 0, 0}, &dt));
    EXPECT_FALSE(DateToSqlDateTime({2009, 13, 1, 0, 0, 0, 0}, &dt));
}

}  // namespace
