// System time, FILETIME conversions and the monotonic counters.
#include "platform/UnixTime.h"
#include "platform/win32.h"

#include <time.h>

namespace zr::platform {

FILETIME FileTimeFromUnix(int64_t seconds, int64_t nanoseconds) {
    uint64_t ticks = kFileTimeUnixEpoch + static_cast<uint64_t>(seconds) * 10000000ull +
                     static_cast<uint64_t>(nanoseconds) / 100;
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

namespace {

constexpr uint64_t kTicksPerDay = 864000000000ull;
constexpr int64_t kDaysFrom1601To1970 = 134774;

uint64_t TicksOf(const FILETIME& time) {
    return (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's
// days_from_civil).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
}

bool IsLeap(unsigned year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned DaysInMonth(unsigned year, unsigned month) {
    static const unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

timespec Now(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

}  // namespace

}  // namespace zr::platform

using namespace zr::platform;

void GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime) {
    timespec now = Now(CLOCK_REALTIME);
    *lpSystemTimeAsFileTime = FileTimeFromUnix(now.tv_sec, now.tv_nsec);
}

void GetSystemTime(SYSTEMTIME* lpSystemTime) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    FileTimeToSystemTime(&now, lpSystemTime);
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime) {
    const SYSTEMTIME& t = *lpSystemTime;
    if (t.wYear < 1601 || t.wYear > 30827 || t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1 ||
        t.wDay > DaysInMonth(t.wYear, t.wMonth) || t.wHour > 23 || t.wMinute > 59 || t.wSecond > 59 ||
        t.wMilliseconds > 999) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    uint64_t days = static_cast<uint64_t>(DaysFromCivil(t.wYear, t.wMonth, t.wDay) + kDaysFrom1601To1970);
    uint64_t ticks = days * kTicksPerDay +
                     ((t.wHour * 3600ull + t.wMinute * 60ull + t.wSecond) * 1000ull + t.wMilliseconds) * 10000ull;
    *lpFileTime = FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, SYSTEMTIME* lpSystemTime) {
    uint64_t ticks = TicksOf(*lpFileTime);
    if (ticks >= 0x8000000000000000ull) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    int64_t days = static_cast<int64_t>(ticks / kTicksPerDay);
    uint64_t milliseconds = (ticks % kTicksPerDay) / 10000;
    int64_t year = 0;
    unsigned month = 0, day = 0;
    CivilFromDays(days - kDaysFrom1601To1970, year, month, day);
    SYSTEMTIME& t = *lpSystemTime;
    t.wYear = static_cast<WORD>(year);
    t.wMonth = static_cast<WORD>(month);
    t.wDay = static_cast<WORD>(day);
    t.wDayOfWeek = static_cast<WORD>((days + 1) % 7);  // 1601-01-01 was a Monday
    t.wHour = static_cast<WORD>(milliseconds / 3600000);
    t.wMinute = static_cast<WORD>(milliseconds / 60000 % 60);
    t.wSecond = static_cast<WORD>(milliseconds / 1000 % 60);
    t.wMilliseconds = static_cast<WORD>(milliseconds % 1000);
    return TRUE;
}

LONG CompareFileTime(const FILETIME* lpFileTime1, const FILETIME* lpFileTime2) {
    uint64_t a = TicksOf(*lpFileTime1), b = TicksOf(*lpFileTime2);
    return a < b ? -1 : a > b ? 1 : 0;
}

// The counter runs in nanoseconds of the monotonic clock.
BOOL QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount) {
    timespec now = Now(CLOCK_MONOTONIC);
    lpPerformanceCount->QuadPart = static_cast<LONGLONG>(now.tv_sec) * 1000000000 + now.tv_nsec;
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency) {
    lpFrequency->QuadPart = 1000000000;
    return TRUE;
}

ULONGLONG GetTickCount64() {
    timespec now = Now(CLOCK_MONOTONIC);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1000000;
}

DWORD GetTickCount() { return static_cast<DWORD>(GetTickCount64()); }

int64_t _time64(int64_t* timer) {
    int64_t now = Now(CLOCK_REALTIME).tv_sec;
    if (timer)
        *timer = now;
    return now;
}
