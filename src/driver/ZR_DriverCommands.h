// The commands the library sends to the filter driver, each on the wire
// layout of driver/DriverMessages.h, and the control port they mostly travel
// on.
//
// The control port is connected once for the process and kept: an invalid
// handle means the driver is not there and nothing may be sent on it; every
// sender tests it first. A driver that loads later is picked up by the next
// call of OpenControlCommunicationPort (every mount makes one). The trace
// port commands connect anew for each message and close at once.
//
// Every sender may be called by any number of threads at once: each message
// lives on its caller's stack. The result of FilterSendMessage is returned
// as it is (0 is the only success); the callers that have no use for it
// drop it.
#pragma once

#include <cstdint>

#include "driver/DriverMessages.h"
#include "platform/win32.h"

extern HANDLE g_hControlPort;  // INVALID_HANDLE_VALUE until connected

// True when the port is open afterwards.
bool OpenControlCommunicationPort();
// Closes the kept connection, at the end of the service: the next
// OpenControlCommunicationPort connects anew, to whichever driver serves
// the port then. Call it while no other thread sends on the port.
void CloseControlCommunicationPort();

// --- On the control port; each fails with E_HANDLE while it is closed ---
// Command 4: one data file of a mount, the path SQL Server will open
// (wszPhysical) and the virtual name the driver shows for it. E_INVALIDARG
// when the two names do not fit the message buffer together.
HRESULT SendAddFileNames(uint64_t iFileSize, const wchar_t* wszPhysical, const wchar_t* wszVirtual);
// Command 5: no more names follow; iBytes is 4 (after a differential) or 8.
HRESULT SendFileNamesDone(DWORD iBytes);
// Command 16.
HRESULT SendRestartMount();
// Command 15, the driver's own thread count; clamped here to 1 to 64.
HRESULT SendNumThreads(uint32_t iThreads);
// Command 19, the number of I/Os the driver tracks, as it is.
HRESULT SendNumIOsToTrack(uint32_t iIOs);

// Hydration (commands 7 to 10 and 18). Hydration threads, writers and the
// thread of a hydration send them at once on the one port.
// Command 7: hydration of the file is about to start.
HRESULT SendPrepareHydration(const FileObjectUniquifier& uniquifier);
// Command 8: what the file still lacks from extent iStartExtent on.
// *pcbReturned is 0 when the driver gave no answer (nothing to read).
HRESULT SendHydrationStatus(const FileObjectUniquifier& uniquifier, uint32_t iStartExtent, ZR_HydrationRange* pRange,
                            DWORD* pcbReturned);
// Command 9: pages of a run for the driver to write. range.iFirstExtent
// and range.iNumExtents count pages here. Mode 0 is done when the call
// returns (*pcbTaken: the bytes the driver took, 0 if it gave no reply);
// modes 1 and 2 report through pHeader, the block's completion header.
HRESULT SendHydratePages(const FileObjectUniquifier& uniquifier, const void* pPages, const ZR_HydrationRange& range,
                         ZR_HydrateMode_e eMode, const ZR_CompletionHeader* pHeader, uint32_t* pcbTaken);
// Command 10: hydration of the file has ended, complete or not.
HRESULT SendHydrationCleanup(const FileObjectUniquifier& uniquifier, bool bComplete);
// Command 18: what the driver holds of the mount's files reaches the disk.
// E_INVALIDARG for a key longer than the message holds (260 characters).
HRESULT SendFlushMountCaches(const wchar_t* wszKey);

// --- On a new connection to the trace port ---
// Commands 6 and 17, the code alone.
HRESULT SendTracePortCommand(ZR_DriverCommand_e eCommand);

