// The table of the thirteen file calls. The public functions of win32.h
// (CreateFileW, ReadFile, ...) forward through `g_FileCalls`, which is set
// at load to the POSIX implementations of Files.cpp. Tests swap single
// entries through platform/FileCallsTesting.h to inject failures, short or
// slow reads.
//
// Thread contract: the entries are plain pointers. Replace them only while
// no other thread is calling through the table (before starting threads or
// after joining them); a replacement itself may of course be called from
// any number of threads.
#pragma once

#include "platform/win32.h"

struct FileCalls {
    decltype(&::CreateFileW) CreateFileW;
    decltype(&::ReadFile) ReadFile;
    decltype(&::WriteFile) WriteFile;
    decltype(&::GetFileAttributesW) GetFileAttributesW;
    decltype(&::GetFileSize) GetFileSize;
    decltype(&::GetOverlappedResult) GetOverlappedResult;
    decltype(&::FlushFileBuffers) FlushFileBuffers;
    decltype(&::SetEndOfFile) SetEndOfFile;
    decltype(&::SetFilePointer) SetFilePointer;
    decltype(&::CloseHandle) CloseHandle;
    decltype(&::DeleteFileW) DeleteFileW;
    decltype(&::DeviceIoControl) DeviceIoControl;
    decltype(&::GetDriveTypeW) GetDriveTypeW;
};

// The calls in use.
extern FileCalls g_FileCalls;

// The POSIX implementations, as set at load.
extern const FileCalls g_DefaultFileCalls;
