#include "driver/ZR_DriverCommands.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "diag/Trace.h"
#include "foundation/Utf16.h"
#include "platform/fltuser.h"

HANDLE g_hControlPort = INVALID_HANDLE_VALUE;

namespace {

HRESULT SendControl(const void* pMessage, DWORD cbMessage, void* pOut = nullptr, DWORD cbOut = 0,
                    DWORD* pcbReturned = nullptr) {
    DWORD iReturned = 0;
    if (!pcbReturned) pcbReturned = &iReturned;
    *pcbReturned = 0;
    if (g_hControlPort == INVALID_HANDLE_VALUE) return E_HANDLE;
    return FilterSendMessage(g_hControlPort, const_cast<void*>(pMessage), cbMessage, pOut, cbOut, pcbReturned);
}

HRESULT SendCodeValue(ZR_DriverCommand_e eCommand, uint32_t iValue, DWORD cbMessage) {
    const ZR_CodeValueMessage message{eCommand, iValue};
    return SendControl(&message, cbMessage);
}

}  // namespace

bool OpenControlCommunicationPort() {
    if (g_hControlPort == INVALID_HANDLE_VALUE) {
        HANDLE hPort = INVALID_HANDLE_VALUE;
        HRESULT hr = FilterConnectCommunicationPort(kControlPortName, 0, nullptr, 0, nullptr, &hPort);
        if (g_iTraceMode) TraceLine("OpenControlCommunicationPort hr: %08x\n", static_cast<unsigned>(hr));
        if (hr == S_OK && hPort) g_hControlPort = hPort;
    } else if (g_iTraceMode) {
        TraceLine("OpenControlCommunicationPort - port already opened\n");
    }
    return g_hControlPort != INVALID_HANDLE_VALUE;
}

void CloseControlCommunicationPort() {
    if (g_hControlPort != INVALID_HANDLE_VALUE) CloseHandle(g_hControlPort);
    g_hControlPort = INVALID_HANDLE_VALUE;
}

HRESULT SendAddFileNames(uint64_t iFileSize, const wchar_t* wszPhysical, const wchar_t* wszVirtual) {
    // Each name goes with its terminating zero.
    const std::string strA = Utf16Encode(std::wstring(wszPhysical) + L'\0');
    const std::string strB = Utf16Encode(std::wstring(wszVirtual) + L'\0');
    if (kAddFileNamesHead + strA.size() + strB.size() > kAddFileNamesBufferSize) return E_INVALIDARG;
    std::vector<uint8_t> buffer(kAddFileNamesBufferSize, 0);
    auto* pMessage = reinterpret_cast<ZR_AddFileNamesMessage*>(buffer.data());
    pMessage->iCode = DRIVER_COMMAND_ADD_FILE_NAMES;
    pMessage->iNameABytes = static_cast<uint32_t>(strA.size());
    pMessage->iFileSize = iFileSize;
    pMessage->iNameBBytes = static_cast<uint32_t>(strB.size());
    uint8_t* pNames = buffer.data() + kAddFileNamesHead;
    std::memcpy(pNames, strA.data(), strA.size());
    std::memcpy(pNames + strA.size(), strB.data(), strB.size());
    return SendControl(buffer.data(), static_cast<DWORD>(kAddFileNamesHead + strA.size() + strB.size()));
}

HRESULT SendFileNamesDone(DWORD iBytes) {
    // The second word has no meaning to the driver.
    return SendCodeValue(DRIVER_COMMAND_FILE_NAMES_DONE, 0, iBytes);
}

HRESULT SendRestartMount() { return SendCodeValue(DRIVER_COMMAND_RESTART_MOUNT, 0, sizeof(ZR_CodeValueMessage)); }

HRESULT SendNumThreads(uint32_t iThreads) {
    return SendCodeValue(DRIVER_COMMAND_SET_NUM_THREADS, std::clamp<uint32_t>(iThreads, 1, 64),
                         sizeof(ZR_CodeValueMessage));
}

HRESULT SendNumIOsToTrack(uint32_t iIOs) {
    return SendCodeValue(DRIVER_COMMAND_SET_NUM_IOS_TO_TRACK, iIOs, sizeof(ZR_CodeValueMessage));
}

HRESULT SendPrepareHydration(const FileObjectUniquifier& uniquifier) {
    const ZR_PrepareHydrationMessage message{DRIVER_COMMAND_PREPARE_HYDRATION, uniquifier};
    return SendControl(&message, sizeof message);
}

HRESULT SendHydrationStatus(const FileObjectUniquifier& uniquifier, uint32_t iStartExtent, ZR_HydrationRange* pRange,
                            DWORD* pcbReturned) {
    const ZR_HydrationStatusMessage message{DRIVER_COMMAND_GET_HYDRATION_STATUS, uniquifier, iStartExtent};
    *pRange = ZR_HydrationRange{};
    HRESULT hr = SendControl(&message, sizeof message, pRange, sizeof *pRange, pcbReturned);
    if (*pcbReturned < sizeof *pRange) *pcbReturned = 0;  // a part of an answer is no answer
    return hr;
}

HRESULT SendHydratePages(const FileObjectUniquifier& uniquifier, const void* pPages, const ZR_HydrationRange& range,
                         ZR_HydrateMode_e eMode, const ZR_CompletionHeader* pHeader, uint32_t* pcbTaken) {
    ZR_HydratePagesMessage message{};
    message.iCode = DRIVER_COMMAND_HYDRATE_PAGES;
    message.Uniquifier = uniquifier;
    message.pPages = reinterpret_cast<uint64_t>(pPages);
    message.Range = range;
    message.iMode = eMode;
    message.pCompletionHeader = reinterpret_cast<uint64_t>(pHeader);
    uint32_t cbTaken = 0;
    DWORD cbReturned = 0;
    HRESULT hr = SendControl(&message, sizeof message, &cbTaken, sizeof cbTaken, &cbReturned);
    if (pcbTaken) *pcbTaken = cbReturned == sizeof cbTaken ? cbTaken : 0;
    return hr;
}

HRESULT SendHydrationCleanup(const FileObjectUniquifier& uniquifier, bool bComplete) {
    const ZR_HydrationCleanupMessage message{DRIVER_COMMAND_HYDRATION_CLEANUP, uniquifier, bComplete ? 1u : 0u};
    return SendControl(&message, sizeof message);
}

HRESULT SendFlushMountCaches(const wchar_t* wszKey) {
    const std::string strKey = Utf16Encode(std::wstring(wszKey) + L'\0');
    ZR_FlushMountCachesMessage message{};
    if (strKey.size() > sizeof message.wszKey) return E_INVALIDARG;
    message.iCode = DRIVER_COMMAND_FLUSH_MOUNT_CACHES;
    std::memcpy(message.wszKey, strKey.data(), strKey.size());
    return SendControl(&message, static_cast<DWORD>(offsetof(ZR_FlushMountCachesMessage, wszKey) + strKey.size()));
}

HRESULT SendTracePortCommand(ZR_DriverCommand_e eCommand) {
    const ZR_CodeOnlyMessage message{eCommand};
    return SendTracePortMessage(&message, sizeof message, nullptr, 0, nullptr);
}
