#include "driver/ZR_ReadCompletion.h"

#include <cstdint>

#include "diag/Trace.h"
#include "driver/DriverMessages.h"
#include "platform/fltuser.h"

HANDLE g_hAsyncLiveIOPort = INVALID_HANDLE_VALUE;
HANDLE g_hUnmapPort = INVALID_HANDLE_VALUE;

void sendReadCompletion(void* pOpId, void* iBufferKey, void* pBuffer, HRESULT hr) {
    if (g_iTraceMode) TraceLine("sendReadCompletion pOpId: %p, hr: %08x\n", pOpId, static_cast<unsigned>(hr));
    DWORD iReturned = 0;
    if (g_hUnmapPort != INVALID_HANDLE_VALUE) {
        ZR_UnmapReadBufferMessage unmap{DRIVER_COMMAND_UNMAP_READ_BUFFER, reinterpret_cast<uint64_t>(iBufferKey),
                                        reinterpret_cast<uint64_t>(pBuffer)};
        FilterSendMessage(g_hUnmapPort, &unmap, sizeof unmap, nullptr, 0, &iReturned);
    }
    if (g_hAsyncLiveIOPort != INVALID_HANDLE_VALUE) {
        ZR_ReadCompletionMessage done{reinterpret_cast<uint64_t>(pOpId), static_cast<int32_t>(hr), 0};
        FilterSendMessage(g_hAsyncLiveIOPort, &done, sizeof done, nullptr, 0, &iReturned);
    }
}
