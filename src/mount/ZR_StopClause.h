// The stop clause of a point-in-time mount, in the words of RESTORE:
//
//     STOPAT = '2009-05-15 13:19:34.790'
//     STOPATMARK = 'lsn:12:34:5' AFTER '2009-05-15 13:19:34'
//     STOPBEFOREMARK = 'release done'
//
// One clause per text; keywords ignore case; blanks (spaces only) may stand
// between tokens. A quoted text is an LSN when it holds lsn:n:n:n, a date
// when it holds yyyy-mm-dd hh:mm:ss[.fff], else a mark name.
#pragma once

#include "mount/ZR_StopInfo.h"

// On success fills *pStop as the clause says and returns true. On failure
// sets only the stop kind, to ZR_STOP_UNDEFINED, and returns false; there
// is no message. wszClause must not be null.
bool ParseStopClause(const wchar_t* wszClause, ZR_StopInfo* pStop);

// The LSN text "lsn:n:n:n" (case ignored in the prefix); false without one.
bool ParseLsnText(const wchar_t* wszText, LSN* pLsn);

// The date text, with a colon or a dash form of the time and optional
// milliseconds; false when none of the forms reads from its first character.
bool ParseDateText(const wchar_t* wszText, ZR_DateParts* pDate);
