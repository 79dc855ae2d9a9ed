// The end of a read that the driver holds: the buffer it mapped for the
// library is given up (command 14 on the kept trace connection), then the
// 16-byte completion on the async live I/O port releases SQL Server's read
// with its result. Live I/O threads call this after they have filled the
// buffer, and the operation threads after a read of a virtual backup file.
//
// The two connections are made once by the operation service at its start
// and kept for the life of the process; while either is not connected its
// message is not sent. Results of the sends are not looked at: the driver
// has the last word on a read it holds.
#pragma once

#include "platform/win32.h"

extern HANDLE g_hAsyncLiveIOPort;  // "\KelpbakMVAsyncLiveIO"; INVALID_HANDLE_VALUE until connected
extern HANDLE g_hUnmapPort;        // the trace port connection kept for command 14

void sendReadCompletion(void* pOpId, void* iBufferKey, void* pBuffer, HRESULT hr);
