// The exported functions of the driver interface: the operation service and
// the settings the library passes on to the driver.
#include "diag/Trace.h"
#include "driver/IoOperations.h"
#include "driver/ZR_DriverCommands.h"
#include "mount/ZR.h"
#include "zirlane/zirlane.h"

namespace {

// Commands 15 and 19 go only on an open control port, and say so otherwise.
void SendSetting(HRESULT (*Send)(uint32_t), uint32_t iValue, const char* szCommand) {
    if (g_hControlPort == INVALID_HANDLE_VALUE) {
        if (g_iTraceMode) TraceLine("Control Communication port to driver not opened. %s not sent\n", szCommand);
        return;
    }
    if (Send(iValue) != S_OK && g_iTraceMode) TraceLine("Error sending %s to the driver\n", szCommand);
}

}  // namespace

ZR_API bool InitializeIOOperations(const wchar_t* wszFolder) {
    IoOperations::Start(ZR::GetZR(), wszFolder);
    return true;
}

ZR_API bool IOAttachVolume(const wchar_t* wszVolume) {
    IoOperations::AttachVolume(wszVolume);
    return true;
}

ZR_API void CleanupFilterNames(void) { SendTracePortCommand(DRIVER_COMMAND_CLEANUP_FILE_NAMES); }

ZR_API void SetNumAsyncDriverThreads(unsigned int iThreads) {
    SendSetting(SendNumThreads, iThreads, "DRIVER_COMMAND_SET_NUM_THREADS");
}

ZR_API void SetDriverNumActiveIOTracking(unsigned int iIOs) {
    SendSetting(SendNumIOsToTrack, iIOs, "DRIVER_COMMAND_SET_NUM_IOS_TO_TRACK");
}
