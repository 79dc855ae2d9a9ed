#include "filterdriver/ZR_FileIo.h"

namespace {

OVERLAPPED At(uint64_t iOffset) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(iOffset);
    ov.OffsetHigh = static_cast<DWORD>(iOffset >> 32);
    return ov;
}

}  // namespace

DWORD ZR_ReadAt(HANDLE hFile, void* p, uint32_t cb, uint64_t iOffset, uint32_t* pcbDone) {
    OVERLAPPED ov = At(iOffset);
    DWORD cbDone = 0;
    DWORD iError = ReadFile(hFile, p, cb, &cbDone, &ov) ? ERROR_SUCCESS : GetLastError();
    if (pcbDone) *pcbDone = cbDone;
    return iError == ERROR_SUCCESS && cbDone < cb ? ERROR_HANDLE_EOF : iError;
}

DWORD ZR_WriteAt(HANDLE hFile, const void* p, uint32_t cb, uint64_t iOffset) {
    OVERLAPPED ov = At(iOffset);
    DWORD cbDone = 0;
    if (!WriteFile(hFile, p, cb, &cbDone, &ov)) return GetLastError();
    return cbDone == cb ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
}

DWORD ZR_SetFileSize(HANDLE hFile, uint64_t iSize) {
    LONG iHigh = static_cast<LONG>(iSize >> 32);
    SetLastError(ERROR_SUCCESS);  // a low half of 0xFFFFFFFF is a position, not a failure
    if (SetFilePointer(hFile, static_cast<LONG>(iSize), &iHigh, FILE_BEGIN) == INVALID_SET_FILE_POINTER &&
        GetLastError() != ERROR_SUCCESS)
        return GetLastError();
    return SetEndOfFile(hFile) ? ERROR_SUCCESS : GetLastError();
}

HANDLE ZR_OpenDriverFile(const wchar_t* wszPath, DWORD iDisposition, bool* pbCreated) {
    HANDLE h =
        CreateFileW(wszPath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, iDisposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (pbCreated) *pbCreated = h != INVALID_HANDLE_VALUE && GetLastError() != ERROR_ALREADY_EXISTS;
    return h;
}
