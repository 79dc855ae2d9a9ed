// The filter manager's user-mode calls, in the shapes of the Windows
// library, and the in-process side that serves them here: a registry of
// named communication ports, each backed by handlers that the in-process
// driver registers. A message is a byte buffer in the driver's own layout;
// both sides share the process, so addresses inside a message stay valid.
//
// Connection handles are real handles of this layer (CloseHandle closes
// them). Until a port is registered under a name, connecting to that name
// fails with HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), as a port of a driver
// that is not loaded does.
#pragma once

#include <functional>

#include "platform/win32.h"

struct FILTER_MESSAGE_HEADER {
    ULONG ReplyLength;
    ULONGLONG MessageId;
};
using PFILTER_MESSAGE_HEADER = FILTER_MESSAGE_HEADER*;
static_assert(sizeof(FILTER_MESSAGE_HEADER) == 16);

struct FILTER_REPLY_HEADER {
    LONG Status;
    ULONGLONG MessageId;
};
using PFILTER_REPLY_HEADER = FILTER_REPLY_HEADER*;
static_assert(sizeof(FILTER_REPLY_HEADER) == 16);

HRESULT FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions, LPCVOID lpContext, WORD wSizeOfContext,
                                       LPSECURITY_ATTRIBUTES lpSecurityAttributes, HANDLE* hPort);
// The handler's result is returned as it is; *lpBytesReturned is what it
// says it wrote into lpOutBuffer.
HRESULT FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                          DWORD dwOutBufferSize, LPDWORD lpBytesReturned);
// Waits for a message from the driver, or queues the wait when lpOverlapped
// is given (the handler decides how it completes).
HRESULT FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                         LPOVERLAPPED lpOverlapped);
HRESULT FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize);
HRESULT FilterAttach(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName,
                     DWORD dwCreatedInstanceNameLength, LPWSTR lpCreatedInstanceName);

// ---------------------------------------------------------------------------
// The in-process side (the driver's end of the ports)
// ---------------------------------------------------------------------------

// What a port does with the calls on its connections. Each handler gets the
// connection's handle, so that the driver can tell its clients apart. A
// handler left empty makes its call fail with
// HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED). Handlers run on the caller's
// thread without any lock of the registry held, and may block.
struct FilterPortHandlers {
    // Accepts or refuses a new connection; empty accepts all.
    std::function<HRESULT(HANDLE hConnection, LPCVOID lpContext, WORD wSizeOfContext)> connect;
    std::function<HRESULT(HANDLE hConnection, const void* pIn, DWORD cbIn, void* pOut, DWORD cbOut,
                          DWORD* pcbReturned)>
        send;
    std::function<HRESULT(HANDLE hConnection, PFILTER_MESSAGE_HEADER pMessage, DWORD cbMessage,
                          LPOVERLAPPED lpOverlapped)>
        get;
    std::function<HRESULT(HANDLE hConnection, PFILTER_REPLY_HEADER pReply, DWORD cbReply)> reply;
    // Told that a connection was closed (CloseHandle), so that the driver
    // can forget what it keeps for that client; may be empty.
    std::function<void(HANDLE hConnection)> disconnect;
};

// Registers a port under its name (case-sensitive, e.g. L"\\KelpbakMVTracePort").
// False when the name is taken. After FilterUnregisterPort, the calls on
// connections made to the port fail with HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE)
// until they are closed.
bool FilterRegisterPort(LPCWSTR wszPortName, FilterPortHandlers handlers);
bool FilterUnregisterPort(LPCWSTR wszPortName);

// Completes a FilterGetMessage that the port's get handler left pending on
// an OVERLAPPED: the result is stored in it, its event is set, and a packet
// goes to the completion port that the connection is bound to (if any), as
// the filter manager completes a message that has arrived. dwError is a
// Win32 error (0 for success), cbBytes the bytes of the message.
void FilterCompleteMessage(HANDLE hConnection, LPOVERLAPPED lpOverlapped, DWORD dwError, DWORD cbBytes);

// What FilterAttach does; empty (the default) makes it fail with
// HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), as without a loaded filter.
using FilterAttachHandler = std::function<HRESULT(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName,
                                                  DWORD dwCreatedInstanceNameLength, LPWSTR lpCreatedInstanceName)>;
void FilterSetAttachHandler(FilterAttachHandler handler);
