#include "driver/OperationError.h"

#include <string>

#include "diag/Format.h"
#include "diag/Trace.h"

HRESULT HResultOfError(DWORD iError) {
    return static_cast<HRESULT>(iError) <= 0 ? static_cast<HRESULT>(iError) : HRESULT_FROM_WIN32(iError);
}

void TraceOperationError(bool bException, HRESULT hr, const wchar_t* wszOperation, const wchar_t* wszFile) {
    if (!g_iTraceMode) return;
    const std::wstring strText = ZR_FormatW(L"%s - hr:%d - op:%s - file:%s", bException ? L"ZRxcpt" : L"ZRerr", hr,
                                            wszOperation, wszFile ? wszFile : L"<unknown>");
    TraceLine("%S\n", strText.c_str());
}
