#include "mount/ZR_ControlPort.h"

#include <cstdint>

#include "diag/Trace.h"
#include "platform/fltuser.h"

HANDLE g_hControlPort = INVALID_HANDLE_VALUE;

namespace {

constexpr uint32_t DRIVER_COMMAND_FILE_NAMES_DONE = 5;

}  // namespace

bool OpenControlCommunicationPort() {
    if (g_hControlPort == INVALID_HANDLE_VALUE) {
        HANDLE hPort = INVALID_HANDLE_VALUE;
        HRESULT hr = FilterConnectCommunicationPort(L"\\KelpbakMVControlPort", 0, nullptr, 0, nullptr, &hPort);
        if (g_iTraceMode) TraceLine("OpenControlCommunicationPort hr: %08x\n", static_cast<unsigned>(hr));
        if (hr == S_OK && hPort) g_hControlPort = hPort;
    } else if (g_iTraceMode) {
        TraceLine("OpenControlCommunicationPort - port already opened\n");
    }
    return g_hControlPort != INVALID_HANDLE_VALUE;
}

bool SendFileNamesDone(DWORD iBytes) {
    if (g_hControlPort == INVALID_HANDLE_VALUE) return false;
    // The second word has no meaning to the driver.
    uint32_t aiMessage[2] = {DRIVER_COMMAND_FILE_NAMES_DONE, 0};
    DWORD iReturned = 0;
    return FilterSendMessage(g_hControlPort, aiMessage, iBytes, nullptr, 0, &iReturned) == S_OK;
}
