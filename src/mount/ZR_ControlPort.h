// The control port to the driver: connected once for the process and kept.
// An invalid handle means the driver is not there and nothing may be sent;
// each sender tests it first. A driver that loads later is picked up by the
// next call of OpenControlCommunicationPort (every mount makes one).
#pragma once

#include "platform/win32.h"

extern HANDLE g_hControlPort;

// True when the port is open afterwards.
bool OpenControlCommunicationPort();

// Tells the driver that no more file names follow; iBytes is 4 or 8.
bool SendFileNamesDone(DWORD iBytes);
