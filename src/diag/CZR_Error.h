// One record of the error chain. The chain is a singly linked list, newest
// first; each record owns the older ones behind it, so deleting the head
// deletes the chain. Records are made and linked only under g_hErrorMutex
// (see ZR_Error.cpp); the class itself does no locking.
#pragma once

#include "platform/win32.h"

class __attribute__((visibility("default"))) CZR_Error {
public:
    // Copies every text that is not null; takes pNext over. Throws
    // std::bad_alloc when a copy cannot be made. iSystemError: for a record
    // that holds the system's text of a last-error value, that value.
    CZR_Error(const wchar_t* wszKey, int bWarning, const char* szFile, const char* szFunction, int iLine,
              const char* szMessage, CZR_Error* pNext, DWORD iSystemError = 0);
    ~CZR_Error();
    CZR_Error(const CZR_Error&) = delete;
    // Copies the members as they are: the texts and the next record are
    // shared afterwards, so no code that owns records may use it.
    CZR_Error& operator=(const CZR_Error&) = default;

    const char* GetErrorMessage() const { return m_szErrorMessage ? m_szErrorMessage : ""; }
    const char* GetFile() const { return m_szFile ? m_szFile : ""; }
    const char* GetFunction() const { return m_szFunction ? m_szFunction : ""; }
    int GetLine() const { return m_iLine; }
    bool IsWarning() const { return m_bWarning != 0; }
    // Not 0 for the system's text of a last-error value: it then stands
    // right behind the report that it explains.
    DWORD GetSystemError() const { return m_iSystemError; }
    const wchar_t* GetKey() const { return m_wszKey; }
    // Both keys null, or both set and equal.
    bool HasKey(const wchar_t* wszKey) const;

    CZR_Error* GetNext() const { return m_pNext; }
    // Unlinks and returns the rest of the chain, which the caller now owns.
    CZR_Error* DetachNext();
    void SetNext(CZR_Error* pNext) { m_pNext = pNext; }

    // The entries of this record and the older ones that belong to wszKey,
    // newest first: this record when it has no key or the same key, the
    // next five matches behind it, and the oldest match after those. A
    // heap text for free(); throws std::bad_alloc.
    wchar_t* GetAllMessages(const wchar_t* wszKey) const;

private:
    CZR_Error* m_pNext;
    wchar_t* m_wszKey;
    int m_iLine;
    char* m_szFile;
    char* m_szFunction;
    char* m_szErrorMessage;
    int m_bWarning;
    DWORD m_iSystemError;
};

// Guards the chain's head and every link. Created at library load.
extern HANDLE g_hErrorMutex;
// Set for good when an operation on the chain threw; the chain then does nothing.
extern volatile bool g_bErrorsBroken;
