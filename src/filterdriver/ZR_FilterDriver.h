// The embedded driver: a stand-in, inside the library's process, for the
// file-system filter driver that sits on the volumes of the sparse data
// files. It serves the driver's four ports ("\KelpbakMVControlPort",
// "\KelpbakMVTracePort", "\KelpbakMVOperationPort", "\KelpbakMVAsyncLiveIO")
// with the messages of driver/DriverMessages.h, keeps the file names of the
// mounts, a sparse file and a present-page bitmap for each data file, holds
// SQL Server's reads until the library has supplied their pages, writes the
// pages hydration pushes, and offers the host side (ZR_DriverHost) through
// which SQL Server's file I/O reaches all this.
//
// One driver runs in a process at a time (the port names are the process's).
// The library starts it in ZR::Initialize when no driver serves the control
// port yet; tests start and stop their own.
//
// Threads: Start, Stop and the setters may be called from any thread; the
// ports' handlers run on the threads of their callers. The driver's own
// threads: one that stores changed bitmaps periodically, and the writers of
// hydrated pages (ZR_HydrationWriter).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "filterdriver/ZR_DataFileSet.h"
#include "filterdriver/ZR_DriverHost.h"
#include "filterdriver/ZR_DriverTrace.h"
#include "filterdriver/ZR_FileNameTable.h"
#include "filterdriver/ZR_HeldReads.h"
#include "filterdriver/ZR_HydrationWriter.h"
#include "filterdriver/ZR_OperationChannel.h"
#include "platform/win32.h"

struct ZR_FilterDriverOptions {
    // Where the sparse files and their bitmaps stand. Empty: the folder set
    // by SetSparseFolder; data files cannot be opened until there is one.
    std::wstring strSparseFolder;
    // How often changed bitmaps are stored; 0 stores them only at a flush,
    // a hydration clean-up and a close.
    uint32_t iBitmapStoreMs = 1000;
    // The longest wait for the library: a reply to an operation, the
    // completion of a held read.
    uint32_t iLibraryTimeoutMs = 300000;
};

class ZR_FilterDriver {
public:
    // Registers the four ports and starts the driver's threads. False, with
    // the reason in the error chain, when a driver runs already or a port
    // name is taken.
    static bool Start(const ZR_FilterDriverOptions& options);
    // Unregisters the ports, ends every held read and pending request with
    // a failure, writes what hydration had queued, and closes the data
    // files, storing their bitmaps when bStoreBitmaps (false leaves the disk
    // as a process killed at that moment would). Nothing when none runs.
    static void Stop(bool bStoreBitmaps = true);
    static bool IsRunning();
    // Starts a driver with the given sparse folder unless one runs, or
    // another serves the control port already. False only if that start
    // failed.
    static bool StartUnlessPresent(const wchar_t* wszSparseFolder);
    // The folder of the sparse files, for the running driver and the next
    // one to start. Null or empty clears it.
    static void SetSparseFolder(const wchar_t* wszFolder);
    // The host side of the running driver; null when none runs. Holding it
    // keeps the stopped driver's memory, and its calls then fail cleanly.
    static std::shared_ptr<ZR_DriverHost> Host();

    explicit ZR_FilterDriver(const ZR_FilterDriverOptions& options);
    ~ZR_FilterDriver();
    ZR_FilterDriver(const ZR_FilterDriver&) = delete;
    ZR_FilterDriver& operator=(const ZR_FilterDriver&) = delete;

    // --- what the host side works with ---
    std::wstring SparseFolder();
    uint32_t LibraryTimeoutMs() const { return m_Options.iLibraryTimeoutMs; }
    bool IsStopping() const { return m_bStopping.load(); }
    ZR_FileNameTable& Names() { return m_Names; }
    ZR_DataFileSet& Files() { return m_Files; }
    ZR_OperationChannel& Channel() { return m_Channel; }
    ZR_HeldReads& Reads() { return m_Reads; }
    ZR_DriverTrace& Trace() { return m_Trace; }

private:
    bool RegisterPorts(const std::shared_ptr<ZR_FilterDriver>& pSelf);
    void UnregisterPorts();
    void Shutdown(bool bStoreBitmaps);
    void StoreBitmapsProc();

    // The commands of each port: HRESULTs, as the filter manager passes them.
    HRESULT OnControl(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut);
    HRESULT OnTrace(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut);
    HRESULT OnMapReadBuffer(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut);
    HRESULT OnReadCompletion(const uint8_t* pIn, DWORD cbIn);
    void OnOperationDisconnect(HANDLE hConnection);
    HRESULT HydrationStatus(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut);
    HRESULT HydratePages(const uint8_t* pIn, DWORD cbIn, void* pOut, DWORD cbOut, DWORD* pcbOut);
    HRESULT FlushMount(const uint8_t* pIn, DWORD cbIn);
    // The open data file a command names by its uniquifier at pUniquifier.
    std::shared_ptr<ZR_DataFile> FileOf(const uint8_t* pUniquifier);

    ZR_FilterDriverOptions m_Options;  // the folder under m_csOptions
    std::mutex m_csOptions;
    std::atomic<bool> m_bStopping{false};
    std::atomic<uint32_t> m_iIOsToTrack{0};  // command 19: kept, not used here

    ZR_DriverTrace m_Trace;
    ZR_FileNameTable m_Names;
    ZR_DataFileSet m_Files;
    ZR_OperationChannel m_Channel;
    ZR_HeldReads m_Reads;
    ZR_HydrationWriter m_Writer;
    ZR_DriverHost m_Host{*this};

    std::mutex m_csStore;  // with m_cvStore: wakes the bitmap thread to stop
    std::condition_variable m_cvStore;
    std::thread m_StoreThread;
};
