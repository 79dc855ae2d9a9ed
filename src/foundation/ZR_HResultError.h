// The HRESULT exception: raised where a caller broke a contract that a
// return value cannot report (a null format for XString::Format, a bad group
// number for ZR_PatternMatch::GetGroup). Like BadAlloc it is not caught at
// the exports.
#pragma once

#include "platform/win32.h"

struct ZR_HResultError {
    HRESULT m_hr;
};
