// The exported trace functions: the service's own trace, and the driver's,
// which lives behind the driver's trace port.
#include <cstdlib>
#include <cstring>

#include "diag/Format.h"
#include "diag/Trace.h"
#include "driver/DriverMessages.h"
#include "platform/fltuser.h"
#include "zirlane/zirlane.h"

namespace {

// Wide texts given to ZRDbgTrace are cut to this many bytes of narrow text.
constexpr size_t kDbgTraceTextMax = 511;

}  // namespace

HRESULT SendTracePortMessage(const void* pMessage, DWORD cbMessage, void* pReply, DWORD cbReply,
                             DWORD* pcbReturned) {
    HANDLE hPort = nullptr;
    HRESULT hr = FilterConnectCommunicationPort(kTracePortName, 0, nullptr, 0, nullptr, &hPort);
    if (FAILED(hr))
        return hr;
    DWORD cbReturned = 0;
    hr = FilterSendMessage(hPort, const_cast<void*>(pMessage), cbMessage, pReply, cbReply,
                           pcbReturned ? pcbReturned : &cbReturned);
    CloseHandle(hPort);
    return hr;
}

ZR_API void EnableServiceTrace(int iMode) { EnableServiceTracing(iMode); }

// Does what EnableServiceTrace does, as callers of the old name expect.
ZR_API void DisbleServiceTrace(int iMode) { EnableServiceTracing(iMode); }

ZR_API char* CaptureServiceTrace(int* pcbBuffer, int* pcbLine) {
    char* pBuffer = static_cast<char*>(std::malloc(kTraceRingSize));
    int cbBuffer = pBuffer ? static_cast<int>(kTraceRingSize) : 0;
    int cbLine = kTraceLineSize;
    CaptureServiceTracing(pBuffer, &cbBuffer, &cbLine);
    if (pcbBuffer)
        *pcbBuffer = cbBuffer;
    if (pcbLine)
        *pcbLine = cbLine;
    return pBuffer;
}

ZR_API void SetServiceTracePath(const wchar_t* wszPath) { SetTracePath(wszPath); }

ZR_API bool EnableDriverTrace(void) {
    g_bIOInstanceLog = true;
    const ZR_TraceMessage message{DRIVER_COMMAND_TRACE_ENABLE, kDriverTraceRingSize, kTraceNoLimit};
    return SendTracePortMessage(&message, sizeof message, nullptr, 0, nullptr) == S_OK;
}

ZR_API bool DisableDriverTrace(void) {
    g_bIOInstanceLog = false;
    const ZR_CodeOnlyMessage message{DRIVER_COMMAND_TRACE_DISABLE};
    return SendTracePortMessage(&message, sizeof message, nullptr, 0, nullptr) == S_OK;
}

// The reply's length is not passed on: the buffer is the driver's trace as
// it wrote it, zeros after its end.
ZR_API void* CaptureDriverTrace(void) {
    HANDLE hPort = nullptr;
    if (FAILED(FilterConnectCommunicationPort(kTracePortName, 0, nullptr, 0, nullptr, &hPort)))
        return nullptr;
    void* pReply = std::calloc(kDriverTraceRingSize, 1);
    if (pReply) {
        ZR_TraceMessage message{DRIVER_COMMAND_TRACE_CAPTURE, kDriverTraceRingSize, 0};
        DWORD cbReturned = 0;
        FilterSendMessage(hPort, &message, sizeof message, pReply, kDriverTraceRingSize, &cbReturned);
    }
    CloseHandle(hPort);
    return pReply;
}

ZR_API void FreeTraceBuffer(void* p) { std::free(p); }

// A wide text is told from a narrow one by its second byte: the high byte
// of a first character below 256. A one-character narrow text reads as wide.
ZR_API void ZRDbgTrace(const void* pText, unsigned long long i1, unsigned long long i2, unsigned long long i3) {
    if (!g_iTraceMode || !pText)
        return;
    const char* sz = static_cast<const char*>(pText);
    if (sz[0] != 0 && sz[1] == 0) {
        char szNarrow[kDbgTraceTextMax + 1];
        ZR_snprintf(szNarrow, sizeof szNarrow, "%S", static_cast<const wchar_t*>(pText));
        TraceLine("%s", szNarrow);
        return;
    }
    TraceLine(sz, i1, i2, i3);
}
