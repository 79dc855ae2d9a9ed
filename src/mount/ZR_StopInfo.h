// The point in time of a mount, as the stop clause named it. A value type:
// the mount request hands out copies.
#pragma once

#include <cstdint>

#include "foundation/XString.h"
#include "foundation/ZR_Types.h"
#include "mount/SqlDateTime.h"

// The statement generators go by these numbers.
enum ZR_StopType_e : int32_t {
    ZR_STOP_UNDEFINED = 0,
    ZR_STOP_AT_TIME = 1,             // STOPAT = date: m_dtStopAt
    ZR_STOP_AT_LSN = 2,              // STOPATMARK = lsn: m_lsn
    ZR_STOP_AT_LSN_AFTER = 3,        // ... AFTER date: m_lsn, m_dtAfter
    ZR_STOP_AT_MARK = 4,             // STOPATMARK = mark: m_strMark
    ZR_STOP_AT_MARK_AFTER = 5,       // ... AFTER date: m_strMark, m_dtAfter
    ZR_STOP_BEFORE_LSN = 6,          // STOPBEFOREMARK = lsn
    ZR_STOP_BEFORE_LSN_AFTER = 7,    // ... AFTER date
    ZR_STOP_BEFORE_MARK = 8,         // STOPBEFOREMARK = mark
    ZR_STOP_BEFORE_MARK_AFTER = 9,   // ... AFTER date
};

struct ZR_StopInfo {
    ZR_StopType_e m_eStopType = ZR_STOP_UNDEFINED;
    XString<wchar_t> m_strMark;
    LSN m_lsn = {0, 0, 0};
    ZR_SqlDateTime m_dtStopAt = {0, 0};
    ZR_SqlDateTime m_dtAfter = {0, 0};
};
