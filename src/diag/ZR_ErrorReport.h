// The error chain as a person reads it: one entry for each report, the
// failure that started it first, with the system's text of the last-error
// value that stood at the report folded into it. ZR_ReadErrors gives the
// chain's own text (newest first, the newest five and the oldest); this
// view leaves nothing out, for tools that print every report themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ZR_ErrorReport {
    std::string strMessage;  // as formatted, UTF-8, with its line feed if it had one
    std::string strFile;
    std::string strFunction;
    int iLine = 0;
    bool bWarning = false;
    uint32_t iSystemError = 0;    // the last-error value at the report; 0 for none
    std::string strSystemText;    // the system's text of it, when there is one
};

// The reports of wszKey and those that belong to no mount, oldest first.
// Defined with the chain (ZR_Error.cpp), which alone holds its head. Empty
// when the chain is empty or broken.
std::vector<ZR_ErrorReport> ZR_ListErrors(const wchar_t* wszKey);
