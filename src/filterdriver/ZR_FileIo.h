// Positioned reads and writes of the driver's own files (sparse files and
// bitmaps) through the platform's file calls, on synchronous handles.
#pragma once

#include <cstdint>

#include "platform/win32.h"

// Both give the Win32 status: ERROR_SUCCESS when all cb bytes moved. A read
// that meets the end of the file gives ERROR_HANDLE_EOF, with *pcbDone (if
// not null) the bytes that were there.
DWORD ZR_ReadAt(HANDLE hFile, void* p, uint32_t cb, uint64_t iOffset, uint32_t* pcbDone = nullptr);
DWORD ZR_WriteAt(HANDLE hFile, const void* p, uint32_t cb, uint64_t iOffset);
// Sets the end of the file; the Win32 status.
DWORD ZR_SetFileSize(HANDLE hFile, uint64_t iSize);
// Opens (OPEN_EXISTING) or creates (OPEN_ALWAYS) a file for reading and
// writing, shared with everyone. *pbCreated, if not null, tells whether it
// was made now.
HANDLE ZR_OpenDriverFile(const wchar_t* wszPath, DWORD iDisposition, bool* pbCreated = nullptr);
