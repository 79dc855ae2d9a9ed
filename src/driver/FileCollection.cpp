#include "driver/FileCollection.h"

#include <cwctype>

#include "diag/Trace.h"
#include "driver/Lookup3.h"
#include "driver/OperationError.h"
#include "foundation/Utf16.h"
#include "mount/ZR.h"

// The spin lock: operations under it are short, but for the ZR calls, during
// which the other threads back off in steps of 10 ms.
class FileCollection::Guard {
public:
    explicit Guard(FileCollection* p) : m_p(p) {
        while (InterlockedExchange(&m_p->m_iLock, 1) != 0) Sleep(10);
    }
    ~Guard() { InterlockedExchange(&m_p->m_iLock, 0); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    FileCollection* m_p;
};

uint32_t FileCollection::KeyOf(const std::wstring& strName) {
    const std::string strBytes = Utf16Encode(strName);
    return hashlittle(strBytes.data(), strBytes.size(), 0);
}

HRESULT FileCollection::createProc(ZR* pZR, const wchar_t* wszName, bool bReopen, unsigned* piKey) {
    *piKey = 0xFFFFFFFF;
    std::wstring strName = wszName;
    for (wchar_t& c : strName) c = static_cast<wchar_t>(towupper(static_cast<wint_t>(c)));
    Guard guard(this);
    auto it = m_ByName.find(strName);
    if (it != m_ByName.end()) {
        ++it->second->m_iUseCount;
        *piKey = it->second->m_iKey;
        return S_OK;
    }
    HRESULT hr = S_OK;
    try {
        const uint32_t iKey = KeyOf(strName);
        HANDLE hFile = IsKeyFree(iKey, strName) ? pZR->CreateFileW(strName.c_str()) : INVALID_HANDLE_VALUE;
        if (hFile == INVALID_HANDLE_VALUE) {
            hr = HResultOfLastError();
            TraceOperationError(false, hr, kOpCreateFile, strName.c_str());
        } else {
            Add(strName, iKey, bReopen ? 0 : 1, reinterpret_cast<uintptr_t>(hFile));
            *piKey = iKey;
        }
    } catch (...) {
        hr = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
        TraceOperationError(true, hr, kOpCreateFile, strName.c_str());
    }
    return hr;
}

HRESULT FileCollection::associateProc(ZR* pZR, const ZR_CreateOperation* pMessage, unsigned* piKey) {
    const std::wstring strName = Utf16Decode(pMessage->wszName, sizeof pMessage->wszName);
    const std::wstring strVirtual = Utf16Decode(pMessage->wszSecondName, sizeof pMessage->wszSecondName);
    Guard guard(this);
    const uint32_t iKey = KeyOf(strName);
    *piKey = iKey;
    if (!IsKeyFree(iKey, strName)) return E_FAIL;
    DWORD iFileId = 0;
    if (pZR->AssociateFileW(strName.c_str(), strVirtual.c_str(), iKey, pMessage->Uniquifier, iFileId) != TRUE)
        return E_FAIL;
    auto it = m_ByName.find(strName);
    if (it == m_ByName.end())
        Add(strName, iKey, 1, iFileId);
    else
        ++it->second->m_iUseCount;
    return S_OK;
}

HRESULT FileCollection::CloseFile(ZR* pZR, unsigned iKey, bool bDeleteOnClose) {
    const HANDLE hFile = GetFileHandle(iKey);
    Guard guard(this);
    FileCollectionEntry* pEntry = Find(iKey);
    if (!pEntry) {
        if (g_iTraceMode) TraceLine("closeThreadProc CloseFile - failed to get file handle from the driver context\n");
        return E_HANDLE;
    }
    if (g_iTraceMode) TraceLine("IoOperations::FileCollection::CloseFile\n");
    HRESULT hr = S_OK;
    if (bDeleteOnClose) {
        if (g_iTraceMode) TraceLine("isDeleteOnCloseIn\n");
        try {
            const auto iFileId = static_cast<DWORD>(reinterpret_cast<uintptr_t>(hFile));
            if (!pZR->DeleteFileW(pEntry->m_strName.c_str(), iKey, iFileId)) {
                hr = HResultOfLastError();
                TraceOperationError(false, hr, kOpDeleteFile, pEntry->m_strName.c_str());
            }
        } catch (...) {
            if (g_iTraceMode) TraceLine("IoOperations::FileCollection::CloseFile exception\n");
            hr = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
            TraceOperationError(true, hr, kOpCloseHandle, pEntry->m_strName.c_str());
        }
    }
    // An entry brought back without an open wraps below 0 at a close that
    // has no create to match, and stays.
    if (--pEntry->m_iUseCount == 0)
        Remove(pEntry);
    else if (g_iTraceMode)
        TraceLine("Bingo - not closed - FileObject not nulled out\n");
    return hr;
}

std::wstring FileCollection::GetFileName(unsigned iKey) {
    Guard guard(this);
    FileCollectionEntry* pEntry = Find(iKey);
    return pEntry ? pEntry->m_strName : std::wstring();
}

HANDLE FileCollection::GetFileHandle(unsigned iKey) {
    Guard guard(this);
    FileCollectionEntry* pEntry = Find(iKey);
    return pEntry ? reinterpret_cast<HANDLE>(static_cast<uintptr_t>(pEntry->m_hFile)) : INVALID_HANDLE_VALUE;
}

FileCollectionEntry* FileCollection::Find(unsigned iKey) {
    auto it = m_ByKey.find(iKey);
    return it == m_ByKey.end() ? nullptr : it->second;
}

// Two names of one key would share the driver's key, and a read of one
// would reach the other: the second name is refused instead.
bool FileCollection::IsKeyFree(uint32_t iKey, const std::wstring& strName) {
    FileCollectionEntry* pEntry = Find(iKey);
    if (!pEntry || pEntry->m_strName == strName) return true;
    if (g_iTraceMode)
        TraceLine("FileCollection: %S has the key %08x of %S\n", strName.c_str(), iKey, pEntry->m_strName.c_str());
    SetLastError(ERROR_ALREADY_EXISTS);
    return false;
}

void FileCollection::Add(const std::wstring& strName, uint32_t iKey, uint32_t iUseCount, uint64_t hFile) {
    auto pEntry = std::make_unique<FileCollectionEntry>(FileCollectionEntry{strName, iUseCount, iKey, hFile});
    m_ByKey[iKey] = pEntry.get();
    m_ByName[strName] = std::move(pEntry);
}

void FileCollection::Remove(FileCollectionEntry* pEntry) {
    m_ByKey.erase(pEntry->m_iKey);
    m_ByName.erase(m_ByName.find(pEntry->m_strName));
}
