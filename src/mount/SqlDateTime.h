// The 8-byte datetime that SQL Server stores, and its broken-down form.
// Used by the stop clause (text to datetime) and by everything that prints a
// datetime back (statements, record dumps).
#pragma once

#include <cstdint>

#pragma pack(push, 1)
// Ticks of 1/300 second since midnight, then days since 1900-01-01 (negative
// before it).
struct ZR_SqlDateTime {
    uint32_t m_iTicks;
    int32_t m_iDays;
};
#pragma pack(pop)
static_assert(sizeof(ZR_SqlDateTime) == 8);

struct ZR_DateParts {
    int32_t m_iYear;
    int32_t m_iMonth;  // 1 to 12
    int32_t m_iDay;
    int32_t m_iHour;
    int32_t m_iMinute;
    int32_t m_iSecond;
    int32_t m_iMillisecond;
};

constexpr uint32_t ZR_TICKS_PER_SECOND = 300;
constexpr uint32_t ZR_TICKS_PER_DAY = 25920000;

bool IsLeapYear(int iYear);
int DaysInYear(int iYear);
// Days of the year before the first of iMonth (1 to 12); -1 for a month
// outside the calendar, so that no caller indexes past the table.
int DaysBeforeMonth(int iYear, int iMonth);

// Never fails: every datetime has a date (times beyond a day stay as they
// are, the hour then exceeds 23).
ZR_DateParts SqlDateTimeToDate(const ZR_SqlDateTime& dt);
// False for a month outside 1 to 12. A day past the end of its month, and
// a time at or past 24:00, simply add up; exactly one whole day of ticks
// rolls over to the next day.
bool DateToSqlDateTime(const ZR_DateParts& date, ZR_SqlDateTime* pdt);
