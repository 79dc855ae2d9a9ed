#include "driver/IoOperations.h"

#include <cstring>
#include <list>
#include <memory>
#include <mutex>

#include "diag/Trace.h"
#include "driver/OperationError.h"
#include "driver/ZR_DriverCommands.h"
#include "driver/ZR_ReadCompletion.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"
#include "mount/ZR.h"
#include "platform/fltuser.h"

static_assert(sizeof(OVERLAPPED) == kOperationRequestSize - kOperationMessageSize);

namespace {

// FilterAttach's answer when the driver is on the volume already.
constexpr HRESULT kInstanceNameCollision = static_cast<HRESULT>(0x801F0012);
constexpr HRESULT kHrUnexpected = static_cast<HRESULT>(0x8000FFFF);
// How long an operation thread waits before it looks at the stop flag.
constexpr DWORD kWaitSlice = 1000;

// The instance and the volumes, changed only under this lock.
struct ServiceState {
    std::mutex mutex;
    IoOperations* pInstance = nullptr;
    std::list<std::wstring> volumes;  // the one given last first
};

ServiceState& State() {
    static ServiceState* pState = new ServiceState();  // never destroyed: Stop may run during exit
    return *pState;
}

bool Connect(const wchar_t* wszPort, HANDLE* phPort) {
    if (*phPort == INVALID_HANDLE_VALUE &&
        FilterConnectCommunicationPort(wszPort, 0, nullptr, 0, nullptr, phPort) != S_OK)
        *phPort = INVALID_HANDLE_VALUE;
    return *phPort != INVALID_HANDLE_VALUE;
}

void Disconnect(HANDLE* phPort) {
    if (*phPort != INVALID_HANDLE_VALUE) CloseHandle(*phPort);
    *phPort = INVALID_HANDLE_VALUE;
}

uint8_t* ResultAt(ZR_OperationReply* pReply, size_t iOffset) { return reinterpret_cast<uint8_t*>(pReply) + iOffset; }

}  // namespace

IoPortContext::~IoPortContext() {
    Disconnect(&hPort);
    Disconnect(&hCompletionPort);
}

IoOperations::IoOperations(ZR* pZR, const wchar_t* wszMappedFile) : m_pZR(pZR), m_strMappedFile(wszMappedFile) {}

// The threads have ended: each request is either still at the driver or
// was lost by a thread that left its loop; both are freed here.
IoOperations::~IoOperations() {
    for (HANDLE& hThread : m_phThreads)
        if (hThread) CloseHandle(hThread);
    for (uint8_t*& pRequest : m_apRequests) delete[] pRequest;
}

void IoOperations::Start(ZR* pZR, const wchar_t* wszFolder) {
    ServiceState& state = State();
    if (!pZR) {
        if (g_iTraceMode) TraceLine("InitializeIOOperations called before InitializeZR\n");
        return;
    }
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        const std::wstring strMappedFile = std::wstring(wszFolder ? wszFolder : L"") + L"\\ServiceMappedFile.mem";
        if (!state.pInstance) state.pInstance = new IoOperations(pZR, strMappedFile.c_str());
        if (Connect(kAsyncLiveIOPortName, &g_hAsyncLiveIOPort) && Connect(kTracePortName, &g_hUnmapPort))
            state.pInstance->initialize(pZR);
    }
    SendTracePortCommand(DRIVER_COMMAND_SERVICE_STARTED);
}

void IoOperations::AttachVolume(const wchar_t* wszVolume) {
    if (!wszVolume) return;
    ServiceState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.volumes.push_front(wszVolume);
}

void IoOperations::Stop() {
    ServiceState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (IoOperations* p = state.pInstance) {
        // Each thread leaves its loop at a completion of 0 bytes, or at its
        // next look at the flag.
        p->m_bStopping = true;
        for (int i = 0; i < p->m_iNumThreads; ++i) PostQueuedCompletionStatus(p->m_Port.hCompletionPort, 0, 0, nullptr);
        for (int i = 0; i < p->m_iNumThreads; ++i)
            while (WaitForSingleObject(p->m_phThreads[i], kWaitSlice) == WAIT_TIMEOUT) {
            }
        delete p;
        state.pInstance = nullptr;
    }
    Disconnect(&g_hAsyncLiveIOPort);
    Disconnect(&g_hUnmapPort);
    state.volumes.clear();
}

bool IoOperations::initialize(ZR* pZR) {
    if (m_iNumThreads > 0) return true;  // a second start finds the service running
    std::list<std::wstring> files;
    pZR->GetDatabaseFiles(files);
    for (const std::wstring& strFile : files) {
        unsigned iKey = 0;
        m_FileCollection.createProc(pZR, strFile.c_str(), true, &iKey);
    }
    if (!AttachVolumes() || !Connect(kOperationPortName, &m_Port.hPort)) return false;
    m_Port.iHandleOpen = ZR_HandleTag(m_Port.hPort);
    if (m_Port.hCompletionPort == INVALID_HANDLE_VALUE) {
        HANDLE hCompletionPort = CreateIoCompletionPort(m_Port.hPort, nullptr, 0, kNumThreads);
        if (!hCompletionPort) return false;
        m_Port.hCompletionPort = hCompletionPort;
        m_Port.iCompletionOpen = ZR_HandleTag(hCompletionPort);
        PostRequests();
    }
    for (HANDLE& hThread : m_phThreads) {
        hThread = CreateThread(nullptr, 0, operationThreadProc, this, 0, nullptr);
        if (!hThread) break;
        ++m_iNumThreads;
    }
    return m_iNumThreads > 0;
}

// The driver attaches to each volume; only the answer for the volume given
// first decides whether the service goes on. A failure is always traced,
// with the trace switched on for it if need be.
bool IoOperations::AttachVolumes() {
    bool bGoesOn = true;
    bool bTraceSwitchedOn = false;
    for (const std::wstring& strVolume : State().volumes) {
        const HRESULT hr = FilterAttach(kFilterDriverName, strVolume.c_str(), nullptr, 0, nullptr);
        bGoesOn = hr == S_OK || hr == kInstanceNameCollision;
        if (bGoesOn) continue;
        if (!g_iTraceMode) {
            EnableServiceTracing(1);
            bTraceSwitchedOn = true;
        }
        TraceLine("IoOperations::initialize - FilterAttach failed to attach %S to drive %S. HR: %08x\n",
                  kFilterDriverName, strVolume.c_str(), static_cast<unsigned>(hr));
    }
    if (bTraceSwitchedOn) DisableServiceTracing();
    return bGoesOn;
}

// Stops at the first request the driver does not take.
void IoOperations::PostRequests() {
    for (uint8_t*& pRequest : m_apRequests) {
        pRequest = new uint8_t[kOperationRequestSize]();
        if (!PostRequest(pRequest)) break;
    }
}

bool IoOperations::PostRequest(uint8_t* pRequest) {
    auto* pOverlapped = reinterpret_cast<OVERLAPPED*>(pRequest + kOperationMessageSize);
    std::memset(pOverlapped, 0, sizeof(OVERLAPPED));
    return FilterGetMessage(m_Port.hPort, reinterpret_cast<PFILTER_MESSAGE_HEADER>(pRequest),
                            static_cast<DWORD>(kOperationMessageSize), pOverlapped) == kHrIoPending;
}

DWORD IoOperations::operationThreadProc(LPVOID pService) {
    try {
        return static_cast<IoOperations*>(pService)->ServeRequests();
    } catch (...) {
        if (g_iTraceMode) TraceLine("operationThreadProc ends on an exception\n");
        return static_cast<DWORD>(kHrUnexpected);
    }
}

// A thread that leaves its loop is not replaced: the service goes on with
// the threads and requests that are left.
DWORD IoOperations::ServeRequests() {
    auto pReply = std::make_unique<ZR_OperationReply>();
    HANDLE hEvent = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    if (!hEvent) return GetLastError();
    if (g_iTraceMode) TraceLine("IoOperations iHandleOpened: %08x\n", ZR_HandleTag(hEvent));
    while (!m_bStopping) {
        DWORD iBytes = 0;
        ULONG_PTR iCompletionKey = 0;
        OVERLAPPED* pOverlapped = nullptr;
        const BOOL bDone =
            GetQueuedCompletionStatus(m_Port.hCompletionPort, &iBytes, &iCompletionKey, &pOverlapped, kWaitSlice);
        if (m_bStopping) break;
        if (!bDone) {
            const DWORD iError = GetLastError();
            if (iError == ERROR_ABANDONED_WAIT_0) break;  // the port is closed
            if (iError != WAIT_TIMEOUT && g_iTraceMode)
                TraceLine("operationThreadProc GetQueuedCompletionStatus failed\n");
            continue;
        }
        if (iBytes == 0) break;
        uint8_t* pRequest = reinterpret_cast<uint8_t*>(pOverlapped) - kOperationMessageSize;
        const auto* pHead = reinterpret_cast<const ZR_OperationHead*>(pRequest);
        *pReply = ZR_OperationReply{};
        int32_t iResult = kStatusAssertionFailure;
        try {
            iResult = Serve(pRequest, pReply.get(), hEvent);
        } catch (...) {
            if (g_iTraceMode) TraceLine("operationThreadProc: an operation ended on an exception\n");
        }
        pReply->iMessageId = pHead->iMessageId;
        pReply->iResult = iResult;
        if (FilterReplyMessage(m_Port.hPort, reinterpret_cast<PFILTER_REPLY_HEADER>(pReply.get()),
                               sizeof(ZR_OperationReply)) != S_OK) {
            if (g_iTraceMode) TraceLine("operationThreadProc FilterReplyMessage failed\n");
            break;
        }
        if (!PostRequest(pRequest)) {
            if (g_iTraceMode) TraceLine("operationThreadProc FilterGetMessage failed\n");
            break;
        }
    }
    CloseHandle(hEvent);
    return 0;
}

int32_t IoOperations::Serve(const uint8_t* pMessage, ZR_OperationReply* pReply, HANDLE hEvent) {
    const auto* pHead = reinterpret_cast<const ZR_OperationHead*>(pMessage);
    if (pHead->iOperation != ZR_OP_CREATE) {
        const auto* pFile = reinterpret_cast<const ZR_FileInfoPair*>(pMessage + sizeof(ZR_OperationHead));
        if (m_FileCollection.GetFileHandle(pFile->iFileKey) == INVALID_HANDLE_VALUE) {
            if (g_iTraceMode) TraceLine("fileHandle == INVALID_HANDLE_VALUE\n");
            // Closing what is not there is no error.
            return pHead->iOperation == ZR_OP_CLOSE ? S_OK : kStatusInvalidHandle;
        }
    }
    switch (pHead->iOperation) {
        case ZR_OP_CREATE: return createProcedure(reinterpret_cast<const ZR_CreateOperation*>(pMessage), pReply);
        case ZR_OP_CLOSE: return closeProc(reinterpret_cast<const ZR_CloseOperation*>(pMessage));
        case ZR_OP_READ:
            SetEvent(hEvent);
            return readProc(reinterpret_cast<const ZR_ReadOperation*>(pMessage), hEvent);
        case ZR_OP_QUERY_INFORMATION:
            return queryProcedure(reinterpret_cast<const ZR_QueryOperation*>(pMessage), pReply);
        case ZR_OP_FLUSH: return S_OK;
        default:
            if (g_iTraceMode) TraceLine("operationThreadProc unknown operation\n");
            return kStatusAssertionFailure;
    }
}

// A second name makes the create the association of a data file.
int32_t IoOperations::createProcedure(const ZR_CreateOperation* pCreate, ZR_OperationReply* pReply) {
    unsigned iKey = 0;
    const bool bVirtualBackup = pCreate->wszSecondName[0] == 0;
    const HRESULT hr =
        bVirtualBackup
            ? m_FileCollection.createProc(m_pZR, Utf16Decode(pCreate->wszName, sizeof pCreate->wszName).c_str(), false,
                                          &iKey)
            : m_FileCollection.associateProc(m_pZR, pCreate, &iKey);
    ZR_Store<uint32_t>(ResultAt(pReply, kReplyCreateFileKey), iKey);
    ZR_Store<uint8_t>(ResultAt(pReply, kReplyCreateVirtualBackup), bVirtualBackup ? 1 : 0);
    return hr;
}

int32_t IoOperations::closeProc(const ZR_CloseOperation* pClose) {
    if (g_iTraceMode) TraceLine("IoOperations::closeProc\n");
    return m_FileCollection.CloseFile(m_pZR, pClose->File.iFileKey, pClose->bDeleteOnClose != 0);
}

// Command 13: where the driver mapped the read's buffer in this process;
// null when it could not.
void* IoOperations::MapReadBuffer(uint64_t iBufferKey) {
    ZR_MapReadBufferMessage message{DRIVER_COMMAND_MAP_READ_BUFFER, iBufferKey};
    uint64_t iAddress = 0;
    DWORD iReturned = 0;
    const HRESULT hr =
        FilterSendMessage(m_Port.hPort, &message, sizeof message, &iAddress, sizeof iAddress, &iReturned);
    return hr == S_OK && iReturned == sizeof iAddress ? reinterpret_cast<void*>(iAddress) : nullptr;
}

int32_t IoOperations::readProc(const ZR_ReadOperation* pRead, HANDLE hEvent) {
    const HANDLE hFile = m_FileCollection.GetFileHandle(pRead->File.iFileKey);
    if (hFile == INVALID_HANDLE_VALUE) {
        if (g_iTraceMode) TraceLine("readProc failed to get file handle from the driver context");
        return kStatusInvalidHandle;
    }
    void* pBuffer = MapReadBuffer(pRead->iBufferKey);
    if (!pBuffer) return kStatusAssertionFailure;
    OVERLAPPED overlapped{};
    overlapped.Offset = static_cast<DWORD>(pRead->iOffset);
    overlapped.OffsetHigh = static_cast<DWORD>(pRead->iOffset >> 32);
    overlapped.hEvent = hEvent;
    unsigned iRead = 0;
    int32_t iResult = kStatusAssertionFailure;
    try {
        iResult = static_cast<int32_t>(m_pZR->ReadFile(
            pRead->File, hFile, pBuffer, pRead->iLength, const_cast<uint8_t*>(pRead->Bitmap), &iRead, &overlapped,
            reinterpret_cast<void*>(pRead->pOpId), reinterpret_cast<void*>(pRead->iBufferKey)));
    } catch (...) {
        const std::wstring strName = m_FileCollection.GetFileName(pRead->File.iFileKey);
        const wchar_t* wszName = strName.empty() ? L"<unknown>" : strName.c_str();
        if (g_iTraceMode)
            TraceLine("ZRxcpt readProc ReadFile filename %S IOOffset: %I64d IOLength %d", wszName,
                      static_cast<int64_t>(pRead->iOffset), static_cast<int>(pRead->iLength));
    }
    if (g_iTraceMode) TraceLine("return from ReadProc\n");
    return iResult;
}

// Class 5 knows virtual backup files only; class 14 the position of any handle.
int32_t IoOperations::queryProcedure(const ZR_QueryOperation* pQuery, ZR_OperationReply* pReply) {
    const HANDLE hFile = m_FileCollection.GetFileHandle(pQuery->File.iFileKey);
    if (hFile == INVALID_HANDLE_VALUE) return E_HANDLE;
    if (pQuery->iClass == kFileStandardInformation) {
        FILE_STANDARD_INFO info{};
        if (!m_pZR->VirtualBackupStandardInfo(hFile, &info)) return HResultOfLastError();
        ZR_Store<int64_t>(ResultAt(pReply, kReplyAllocationSize), info.AllocationSize.QuadPart);
        ZR_Store<int64_t>(ResultAt(pReply, kReplyEndOfFile), info.EndOfFile.QuadPart);
        return S_OK;
    }
    if (pQuery->iClass == kFilePositionInformation) {
        LONG iHigh = 0;
        const DWORD iLow = m_pZR->GetFilePointer(hFile, &iHigh);
        if (iLow == INVALID_SET_FILE_POINTER) return HResultOfLastError();
        ZR_Store<uint32_t>(ResultAt(pReply, kReplyPositionLow), iLow);
        ZR_Store<int32_t>(ResultAt(pReply, kReplyPositionHigh), iHigh);
        return S_OK;
    }
    return E_INVALIDARG;
}
