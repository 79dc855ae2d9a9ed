#include "mount/SqlDateTime.h"

namespace {

const int s_aiMonthStarts[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const int s_aiLeapMonthStarts[12] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};

const int* MonthStarts(int iYear) { return IsLeapYear(iYear) ? s_aiLeapMonthStarts : s_aiMonthStarts; }

// The year of a day count and the day of that year (from 0).
void SplitDays(int32_t iDays, int* piYear, int* piDayOfYear) {
    int64_t iRest = iDays;
    int iYear = 1900;
    if (iRest >= 0) {
        while (iRest - DaysInYear(iYear) >= 0) iRest -= DaysInYear(iYear++);
    } else {
        iYear = 1899;
        while ((iRest += DaysInYear(iYear)) < 0) --iYear;
    }
    *piYear = iYear;
    *piDayOfYear = static_cast<int>(iRest);
}

// Days from 1900-01-01 to the first of January of iYear.
int64_t DaysToYear(int iYear) {
    int64_t iDays = 0;
    for (int y = 1900; y < iYear; ++y) iDays += DaysInYear(y);
    for (int y = iYear; y < 1900; ++y) iDays -= DaysInYear(y);
    return iDays;
}

}  // namespace

bool IsLeapYear(int iYear) { return iYear % 400 == 0 || (iYear % 4 == 0 && iYear % 100 != 0); }

int DaysInYear(int iYear) { return IsLeapYear(iYear) ? 366 : 365; }

int DaysBeforeMonth(int iYear, int iMonth) {
    if (iMonth < 1 || iMonth > 12) return -1;
    return MonthStarts(iYear)[iMonth - 1];
}

ZR_DateParts SqlDateTimeToDate(const ZR_SqlDateTime& dt) {
    ZR_DateParts date{};
    int iDayOfYear = 0;
    SplitDays(dt.m_iDays, &date.m_iYear, &iDayOfYear);
    const int* piStarts = MonthStarts(date.m_iYear);
    int iMonth = 12;
    while (piStarts[iMonth - 1] > iDayOfYear) --iMonth;
    date.m_iMonth = iMonth;
    date.m_iDay = iDayOfYear - piStarts[iMonth - 1] + 1;

    const uint32_t iTicks = dt.m_iTicks;
    date.m_iMillisecond = static_cast<int32_t>(((iTicks % ZR_TICKS_PER_SECOND) * 1000 + 150) / ZR_TICKS_PER_SECOND);
    date.m_iHour = static_cast<int32_t>(iTicks / 1080000);
    const uint32_t iSecondOfHour = (iTicks / ZR_TICKS_PER_SECOND) % 3600;
    date.m_iMinute = static_cast<int32_t>(iSecondOfHour / 60);
    date.m_iSecond = static_cast<int32_t>(iSecondOfHour % 60);
    return date;
}

bool DateToSqlDateTime(const ZR_DateParts& date, ZR_SqlDateTime* pdt) {
    const int iBeforeMonth = DaysBeforeMonth(date.m_iYear, date.m_iMonth);
    if (iBeforeMonth < 0) return false;
    int64_t iDays = DaysToYear(date.m_iYear) + iBeforeMonth + date.m_iDay - 1;
    int64_t iTicks = ((int64_t(date.m_iHour) * 60 + date.m_iMinute) * 60 + date.m_iSecond) * ZR_TICKS_PER_SECOND +
                     (int64_t(date.m_iMillisecond) * ZR_TICKS_PER_SECOND + 500) / 1000;
    if (iTicks == ZR_TICKS_PER_DAY) {
        ++iDays;
        iTicks = 0;
    }
    pdt->m_iDays = static_cast<int32_t>(iDays);
    pdt->m_iTicks = static_cast<uint32_t>(iTicks);
    return true;
}
