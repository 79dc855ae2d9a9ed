// IoOperations: the library's server side for the driver. The driver does
// not open the virtual files itself: it sends requests on the operation port
// (open a name, read a range, query, close, flush), and one of sixteen
// operation threads answers each with FilterReplyMessage. Sixteen
// FilterGetMessage requests are outstanding on one I/O completion port of
// concurrency sixteen, so up to sixteen requests are served at once; the
// number belongs together in all three places and is not configurable.
//
// A read's reply only acknowledges it: a read of a data file is queued for a
// live I/O thread, which ends it through sendReadCompletion
// (driver/ZR_ReadCompletion.h); a read of a virtual backup file is served on
// the operation thread and completed at once.
//
// One instance exists in the process, from InitializeIOOperations on. The
// service runs until Stop, which tests call and ZR::UninitializeForExit
// calls at the end of the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "driver/DriverMessages.h"
#include "driver/FileCollection.h"
#include "platform/win32.h"

class ZR;

// The connection of the operation port and the completion port it reports
// to; destroying the context closes both.
struct IoPortContext {
    IoPortContext() = default;
    ~IoPortContext();
    IoPortContext(const IoPortContext&) = delete;
    IoPortContext& operator=(const IoPortContext&) = delete;

    uint32_t iMagic = 0x123456;
    HANDLE hPort = INVALID_HANDLE_VALUE;
    uint32_t iHandleOpen = 0;      // trace tag of hPort
    uint32_t iCompletionOpen = 0;  // trace tag of hCompletionPort
    HANDLE hCompletionPort = INVALID_HANDLE_VALUE;
};

class IoOperations {
public:
    static constexpr int kNumThreads = 16;

    // InitializeIOOperations: makes the instance if there is none, connects
    // the async live I/O port and the trace port kept for command 14, and,
    // if both are connected and the service does not run yet, initialize.
    // Then tells the driver the service started (command 17) in every case.
    static void Start(ZR* pZR, const wchar_t* wszFolder);
    // IOAttachVolume: puts the volume at the front of the list that the next
    // start attaches the driver to.
    static void AttachVolume(const wchar_t* wszVolume);
    // Ends every operation thread, closes the ports and handles the service
    // opened, forgets the volumes and the instance. Nothing for a service
    // that does not run. Call it while no read of a data file is in flight
    // (sendReadCompletion uses the connections it closes), and without the
    // library lock, which a request in service may wait for. The driver must
    // not complete the requests of the closed connection afterwards: they
    // are freed.
    static void Stop();

    FileCollection m_FileCollection;

private:
    IoOperations(ZR* pZR, const wchar_t* wszMappedFile);
    ~IoOperations();

    // Brings back the virtual files of the mounts that exist, attaches the
    // driver to the volumes, connects the operation port and starts the
    // threads. False when the service did not come up; a later start tries
    // again what is missing.
    bool initialize(ZR* pZR);
    static DWORD operationThreadProc(LPVOID pService);
    bool AttachVolumes();
    void PostRequests();
    bool PostRequest(uint8_t* pRequest);
    DWORD ServeRequests();
    int32_t Serve(const uint8_t* pMessage, ZR_OperationReply* pReply, HANDLE hEvent);
    int32_t createProcedure(const ZR_CreateOperation* pCreate, ZR_OperationReply* pReply);
    int32_t closeProc(const ZR_CloseOperation* pClose);
    int32_t readProc(const ZR_ReadOperation* pRead, HANDLE hEvent);
    int32_t queryProcedure(const ZR_QueryOperation* pQuery, ZR_OperationReply* pReply);
    void* MapReadBuffer(uint64_t iBufferKey);

    ZR* m_pZR;
    std::wstring m_strMappedFile;  // folder + "\ServiceMappedFile.mem"; no part of the service opens it
    IoPortContext m_Port;
    HANDLE m_phThreads[kNumThreads] = {};
    int m_iNumThreads = 0;
    // Each pending request: the operation message, then an OVERLAPPED.
    uint8_t* m_apRequests[kNumThreads] = {};
    std::atomic<bool> m_bStopping{false};
};
