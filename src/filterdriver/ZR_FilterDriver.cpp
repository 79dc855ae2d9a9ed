#include "filterdriver/ZR_FilterDriver.h"

#include <chrono>
#include <cstring>
#include <iterator>
#include <new>

#include "diag/ZR_Error.h"
#include "foundation/Unaligned.h"
#include "foundation/Utf16.h"
#include "platform/fltuser.h"

namespace {

// The running driver, and the folder for the next one. Never destroyed:
// the ports may be called while the process exits.
struct Global {
    std::mutex cs;
    std::shared_ptr<ZR_FilterDriver> pDriver;
    std::wstring strSparseFolder;
};

Global& TheGlobal() {
    static Global* pGlobal = new Global;
    return *pGlobal;
}

constexpr const wchar_t* kPortNames[] = {kControlPortName, kTracePortName, kOperationPortName, kAsyncLiveIOPortName};

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

// A handler never lets an exception out into the library's thread.
template <class F>
HRESULT Guarded(F call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

uint32_t Word(const uint8_t* p, size_t iOffset) { return ZR_Load<uint32_t>(p + iOffset); }

}  // namespace

// ---------------------------------------------------------------------------
// Start and stop
// ---------------------------------------------------------------------------

bool ZR_FilterDriver::Start(const ZR_FilterDriverOptions& options) {
    Global& global = TheGlobal();
    std::lock_guard guard(global.cs);
    if (global.pDriver) {
        ZR_Error(nullptr, __FILE__, "ZR_FilterDriver::Start", __LINE__, "Driver: the embedded driver runs already\n");
        return false;
    }
    ZR_FilterDriverOptions actual = options;
    if (actual.strSparseFolder.empty()) actual.strSparseFolder = global.strSparseFolder;
    auto pDriver = std::make_shared<ZR_FilterDriver>(actual);
    if (!pDriver->RegisterPorts(pDriver)) return false;
    if (actual.iBitmapStoreMs) pDriver->m_StoreThread = std::thread(&ZR_FilterDriver::StoreBitmapsProc, pDriver.get());
    global.pDriver = pDriver;
    return true;
}

void ZR_FilterDriver::Stop(bool bStoreBitmaps) {
    std::shared_ptr<ZR_FilterDriver> pDriver;
    {
        Global& global = TheGlobal();
        std::lock_guard guard(global.cs);
        pDriver.swap(global.pDriver);
    }
    if (pDriver) pDriver->Shutdown(bStoreBitmaps);
}

bool ZR_FilterDriver::IsRunning() {
    Global& global = TheGlobal();
    std::lock_guard guard(global.cs);
    return global.pDriver != nullptr;
}

bool ZR_FilterDriver::StartUnlessPresent(const wchar_t* wszSparseFolder) {
    if (IsRunning()) return true;
    HANDLE hPort = INVALID_HANDLE_VALUE;
    if (SUCCEEDED(FilterConnectCommunicationPort(kControlPortName, 0, nullptr, 0, nullptr, &hPort))) {
        CloseHandle(hPort);  // a driver of another kind serves the ports
        return true;
    }
    ZR_FilterDriverOptions options;
    options.strSparseFolder = wszSparseFolder ? wszSparseFolder : L"";
    return Start(options);
}

void ZR_FilterDriver::SetSparseFolder(const wchar_t* wszFolder) {
    Global& global = TheGlobal();
    std::lock_guard guard(global.cs);
    global.strSparseFolder = wszFolder ? wszFolder : L"";
    if (global.pDriver) {
        std::lock_guard options(global.pDriver->m_csOptions);
        global.pDriver->m_Options.strSparseFolder = global.strSparseFolder;
    }
}

std::shared_ptr<ZR_DriverHost> ZR_FilterDriver::Host() {
    Global& global = TheGlobal();
    std::lock_guard guard(global.cs);
    if (!global.pDriver) return nullptr;
    return std::shared_ptr<ZR_DriverHost>(global.pDriver, &global.pDriver->m_Host);
}

ZR_FilterDriver::ZR_FilterDriver(const ZR_FilterDriverOptions& options) : m_Options(options) {}

ZR_FilterDriver::~ZR_FilterDriver() {
    if (m_StoreThread.joinable()) m_StoreThread.join();  // Shutdown has asked it to end
}

std::wstring ZR_FilterDriver::SparseFolder() {
    std::lock_guard guard(m_csOptions);
    return m_Options.strSparseFolder;
}

// The handlers hold the driver, so that a call in flight as the driver stops
// still finds it whole.
bool ZR_FilterDriver::RegisterPorts(const std::shared_ptr<ZR_FilterDriver>& pSelf) {
    FilterPortHandlers ports[4];
    ports[0].send = [pSelf](HANDLE, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
        return Guarded([&] { return pSelf->OnControl(static_cast<const uint8_t*>(pIn), cbIn, pOut, cbOut, pcbOut); });
    };
    ports[1].send = [pSelf](HANDLE, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
        return Guarded([&] { return pSelf->OnTrace(static_cast<const uint8_t*>(pIn), cbIn, pOut, cbOut, pcbOut); });
    };
    ports[2].connect = [pSelf](HANDLE hConnection, LPCVOID, WORD) {
        return Guarded([&] {
            pSelf->m_Channel.OnConnect(hConnection);
            return S_OK;
        });
    };
    ports[2].disconnect = [pSelf](HANDLE hConnection) {
        Guarded([&] {
            pSelf->OnOperationDisconnect(hConnection);
            return S_OK;
        });
    };
    ports[2].get = [pSelf](HANDLE hConnection, PFILTER_MESSAGE_HEADER pMessage, DWORD cbMessage, LPOVERLAPPED pOv) {
        return Guarded([&] { return pSelf->m_Channel.OnGet(hConnection, pMessage, cbMessage, pOv); });
    };
    ports[2].reply = [pSelf](HANDLE hConnection, PFILTER_REPLY_HEADER pReply, DWORD cbReply) {
        return Guarded([&] { return pSelf->m_Channel.OnReply(hConnection, pReply, cbReply); });
    };
    ports[2].send = [pSelf](HANDLE, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
        return Guarded(
            [&] { return pSelf->OnMapReadBuffer(static_cast<const uint8_t*>(pIn), cbIn, pOut, cbOut, pcbOut); });
    };
    ports[3].send = [pSelf](HANDLE, const void* pIn, DWORD cbIn, void*, DWORD, DWORD*) {
        return Guarded([&] { return pSelf->OnReadCompletion(static_cast<const uint8_t*>(pIn), cbIn); });
    };
    for (size_t i = 0; i < std::size(kPortNames); ++i) {
        if (FilterRegisterPort(kPortNames[i], std::move(ports[i]))) continue;
        ZR_Error(nullptr, __FILE__, "ZR_FilterDriver::Start", __LINE__, "Driver: the port %S is served already\n",
                 kPortNames[i]);
        while (i--) FilterUnregisterPort(kPortNames[i]);
        return false;
    }
    return true;
}

void ZR_FilterDriver::UnregisterPorts() {
    for (const wchar_t* wszName : kPortNames) FilterUnregisterPort(wszName);
}

void ZR_FilterDriver::Shutdown(bool bStoreBitmaps) {
    UnregisterPorts();
    {
        std::lock_guard guard(m_csStore);
        m_bStopping = true;
    }
    m_cvStore.notify_all();
    m_Channel.Stop();
    m_Reads.Stop();
    if (m_StoreThread.joinable()) m_StoreThread.join();
    m_Writer.Stop();
    m_Host.CloseAll();
    m_Files.CloseAll(bStoreBitmaps);
}

void ZR_FilterDriver::StoreBitmapsProc() {
    try {
        std::unique_lock lock(m_csStore);
        while (!m_bStopping) {
            m_cvStore.wait_for(lock, std::chrono::milliseconds(m_Options.iBitmapStoreMs),
                               [&] { return m_bStopping.load(); });
            if (m_bStopping) break;
            lock.unlock();
            for (const std::shared_ptr<ZR_DataFile>& pFile : m_Files.All()) pFile->Flush();
            lock.lock();
        }
    } catch (...) {
        ZR_Error(nullptr, __FILE__, "ZR_FilterDriver::StoreBitmapsProc", __LINE__,
                 "Driver: the periodic store of bitmaps ended on an exception\n");
    }
}

// ---------------------------------------------------------------------------
// The ports
// ---------------------------------------------------------------------------

HRESULT ZR_FilterDriver::OnControl(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    if (!pIn || cbIn < 4) return E_INVALIDARG;
    uint32_t iCode = Word(pIn, 0);
    m_Trace.Line("control command %u, %u bytes\n", iCode, cbIn);
    switch (iCode) {
        case DRIVER_COMMAND_ADD_FILE_NAMES: return m_Names.Add(pIn, cbIn) ? S_OK : E_INVALIDARG;
        case DRIVER_COMMAND_FILE_NAMES_DONE:
        case DRIVER_COMMAND_RESTART_MOUNT: return S_OK;  // the table is complete as it stands
        case DRIVER_COMMAND_SET_NUM_THREADS:
        case DRIVER_COMMAND_SET_NUM_IOS_TO_TRACK:
            if (cbIn < sizeof(ZR_CodeValueMessage)) return E_INVALIDARG;
            if (iCode == DRIVER_COMMAND_SET_NUM_THREADS)
                m_Writer.SetThreads(Word(pIn, 4));
            else
                m_iIOsToTrack = Word(pIn, 4);
            return S_OK;
        case DRIVER_COMMAND_PREPARE_HYDRATION:
        case DRIVER_COMMAND_HYDRATION_CLEANUP: {
            if (cbIn < sizeof(ZR_PrepareHydrationMessage)) return E_INVALIDARG;
            std::shared_ptr<ZR_DataFile> pFile = FileOf(pIn + offsetof(ZR_PrepareHydrationMessage, Uniquifier));
            if (!pFile) return E_HANDLE;
            // Before and after a hydration, what the file holds reaches the
            // disk. A failed store is in the error chain; the library could
            // only send the command again.
            pFile->Flush();
            return S_OK;
        }
        case DRIVER_COMMAND_GET_HYDRATION_STATUS: return HydrationStatus(pIn, cbIn, pOut, cbOut, pcbOut);
        case DRIVER_COMMAND_HYDRATE_PAGES: return HydratePages(pIn, cbIn, pOut, cbOut, pcbOut);
        case DRIVER_COMMAND_FLUSH_MOUNT_CACHES: return FlushMount(pIn, cbIn);
        default: return E_INVALIDARG;
    }
}

HRESULT ZR_FilterDriver::OnTrace(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    if (!pIn || cbIn < 4) return E_INVALIDARG;
    switch (Word(pIn, 0)) {
        case DRIVER_COMMAND_TRACE_ENABLE:
            if (cbIn < sizeof(ZR_TraceMessage)) return E_INVALIDARG;
            m_Trace.Enable(Word(pIn, 4), Word(pIn, 8));
            return S_OK;
        case DRIVER_COMMAND_TRACE_DISABLE: m_Trace.Disable(); return S_OK;
        case DRIVER_COMMAND_TRACE_CAPTURE:
            if (!pOut) return E_INVALIDARG;
            *pcbOut = m_Trace.Capture(pOut, cbOut);
            return S_OK;
        case DRIVER_COMMAND_CLEANUP_FILE_NAMES: m_Names.Clear(); return S_OK;
        case DRIVER_COMMAND_UNMAP_READ_BUFFER:
            if (cbIn < sizeof(ZR_UnmapReadBufferMessage)) return E_INVALIDARG;
            m_Reads.Unmap(ZR_Load<uint64_t>(pIn + offsetof(ZR_UnmapReadBufferMessage, iBufferKey)));
            return S_OK;
        case DRIVER_COMMAND_SERVICE_STARTED: m_Trace.Line("the library's operation service started\n"); return S_OK;
        default: return E_INVALIDARG;
    }
}

HRESULT ZR_FilterDriver::OnMapReadBuffer(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    if (!pIn || cbIn < sizeof(ZR_MapReadBufferMessage) || Word(pIn, 0) != DRIVER_COMMAND_MAP_READ_BUFFER || !pOut ||
        cbOut < sizeof(uint64_t))
        return E_INVALIDARG;
    uint64_t iBufferKey = ZR_Load<uint64_t>(pIn + offsetof(ZR_MapReadBufferMessage, iBufferKey));
    uint64_t pAddress = m_Reads.Map(iBufferKey);
    m_Trace.Line("buffer %I64u %hs\n", iBufferKey, pAddress ? "mapped" : "not mapped: no read holds it");
    ZR_Store<uint64_t>(pOut, pAddress);
    *pcbOut = sizeof(uint64_t);
    return pAddress ? S_OK : kNotFound;
}

HRESULT ZR_FilterDriver::OnReadCompletion(const uint8_t* pIn, DWORD cbIn) {
    if (!pIn || cbIn < sizeof(ZR_ReadCompletionMessage)) return E_INVALIDARG;
    uint64_t iOpId = ZR_Load<uint64_t>(pIn + offsetof(ZR_ReadCompletionMessage, pOpId));
    int32_t hr = ZR_Load<int32_t>(pIn + offsetof(ZR_ReadCompletionMessage, hr));
    m_Trace.Line("read %I64u completed, hr %08x\n", iOpId, static_cast<uint32_t>(hr));
    return m_Reads.Complete(iOpId, hr) ? S_OK : kNotFound;
}

// Reads held for a library that has no connection left can never complete.
void ZR_FilterDriver::OnOperationDisconnect(HANDLE hConnection) {
    m_Channel.OnDisconnect(hConnection);
    if (!m_Channel.HasConnection()) m_Reads.FailAll(kHostNotConnected);
}

// ---------------------------------------------------------------------------
// Hydration
// ---------------------------------------------------------------------------

std::shared_ptr<ZR_DataFile> ZR_FilterDriver::FileOf(const uint8_t* pUniquifier) {
    FileObjectUniquifier uniquifier;
    std::memcpy(&uniquifier, pUniquifier, sizeof uniquifier);
    return IsUniquifierSet(uniquifier) ? m_Files.Find(uniquifier) : nullptr;
}

HRESULT ZR_FilterDriver::HydrationStatus(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    if (cbIn < sizeof(ZR_HydrationStatusMessage) || !pOut || cbOut < sizeof(ZR_HydrationRange)) return E_INVALIDARG;
    std::shared_ptr<ZR_DataFile> pFile = FileOf(pIn + offsetof(ZR_HydrationStatusMessage, Uniquifier));
    if (!pFile) return E_HANDLE;
    ZR_HydrationRange range = pFile->Status(Word(pIn, offsetof(ZR_HydrationStatusMessage, iStartExtent)));
    std::memcpy(pOut, &range, sizeof range);
    *pcbOut = sizeof range;
    return S_OK;
}

HRESULT ZR_FilterDriver::HydratePages(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut) {
    constexpr uint32_t kMaxPages = kLiveBitmapPages;  // 8 MiB; hydration sends at most 1 MiB
    ZR_HydratePagesMessage msg;
    if (cbIn < sizeof msg) return E_INVALIDARG;
    std::memcpy(&msg, pIn, sizeof msg);
    std::shared_ptr<ZR_DataFile> pFile = FileOf(pIn + offsetof(ZR_HydratePagesMessage, Uniquifier));
    if (!pFile) return E_HANDLE;
    uint32_t iCount = msg.Range.iNumExtents;  // pages, in this command
    auto* pPages = reinterpret_cast<const uint8_t*>(msg.pPages);
    auto* pHeader = reinterpret_cast<ZR_CompletionHeader*>(msg.pCompletionHeader);
    bool bAsync = msg.iMode == ZR_HYDRATE_MODE_WRITER || msg.iMode == ZR_HYDRATE_MODE_WRITER_FULL;
    if (!pPages || iCount == 0 || iCount > kMaxPages || (msg.iMode != ZR_HYDRATE_MODE_DATA_FILE && !bAsync) ||
        (bAsync && (!pHeader || msg.pCompletionHeader % alignof(uint32_t))))
        return E_INVALIDARG;
    uint32_t cbTaken = 0;
    if (bAsync) {
        cbTaken = iCount * ZR_PageBitmap::kPageSize;
        m_Writer.Post({pFile, msg.Range.iFirstExtent, iCount, pPages, pHeader},
                      msg.iMode == ZR_HYDRATE_MODE_WRITER_FULL);
    } else if (DWORD iError = pFile->Hydrate(msg.Range.iFirstExtent, iCount, pPages, msg.Range.Bitmap, &cbTaken);
               iError != ERROR_SUCCESS && cbTaken == 0) {
        return HRESULT_FROM_WIN32(iError);
    }
    if (pOut && cbOut >= sizeof cbTaken) {
        std::memcpy(pOut, &cbTaken, sizeof cbTaken);
        *pcbOut = sizeof cbTaken;
    }
    return S_OK;
}

HRESULT ZR_FilterDriver::FlushMount(const uint8_t* pIn, DWORD cbIn) {
    std::wstring strKey = Utf16Decode(pIn + 4, cbIn - 4);
    for (const std::shared_ptr<ZR_DataFile>& pFile : m_Files.All())
        if (_wcsicmp(pFile->Names().strKey.c_str(), strKey.c_str()) == 0) pFile->Flush();  // a failure is in the error chain
    return S_OK;
}
