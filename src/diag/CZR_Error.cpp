#include "diag/CZR_Error.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include "diag/Format.h"

namespace {

// Heap copies for free(); null stays null.
template <typename Ch>
Ch* CopyText(const Ch* sz, size_t cch) {
    if (!sz)
        return nullptr;
    Ch* p = static_cast<Ch*>(std::malloc((cch + 1) * sizeof(Ch)));
    if (!p)
        throw std::bad_alloc();
    std::memcpy(p, sz, (cch + 1) * sizeof(Ch));
    return p;
}
char* CopyText(const char* sz) { return CopyText(sz, sz ? std::strlen(sz) : 0); }
wchar_t* CopyText(const wchar_t* wsz) { return CopyText(wsz, wsz ? std::wcslen(wsz) : 0); }

std::wstring Entry(const CZR_Error& record) {
    return ZR_FormatW(L"%S\n  File:%S\n  Function:%S\n  Line:%d\n", record.GetErrorMessage(), record.GetFile(),
                      record.GetFunction(), record.GetLine());
}

// How many matches behind the head are shown before only the oldest is kept.
constexpr int kShownBehindHead = 5;

}  // namespace

CZR_Error::CZR_Error(const wchar_t* wszKey, int bWarning, const char* szFile, const char* szFunction, int iLine,
                     const char* szMessage, CZR_Error* pNext, DWORD iSystemError)
    : m_pNext(nullptr), m_wszKey(nullptr), m_iLine(iLine), m_szFile(nullptr), m_szFunction(nullptr),
      m_szErrorMessage(nullptr), m_bWarning(bWarning), m_iSystemError(iSystemError) {
    try {
        m_wszKey = CopyText(wszKey);
        m_szFile = CopyText(szFile);
        m_szFunction = CopyText(szFunction);
        m_szErrorMessage = CopyText(szMessage);
    } catch (...) {
        std::free(m_wszKey);
        std::free(m_szFile);
        std::free(m_szFunction);
        throw;
    }
    m_pNext = pNext;
}

CZR_Error::~CZR_Error() {
    std::free(m_wszKey);
    std::free(m_szFile);
    std::free(m_szFunction);
    std::free(m_szErrorMessage);
    // Iterative, so that a long chain cannot exhaust the stack.
    CZR_Error* p = m_pNext;
    while (p) {
        CZR_Error* pNext = p->DetachNext();
        delete p;
        p = pNext;
    }
}

bool CZR_Error::HasKey(const wchar_t* wszKey) const {
    if (!m_wszKey || !wszKey)
        return !m_wszKey && !wszKey;
    return std::wcscmp(m_wszKey, wszKey) == 0;
}

CZR_Error* CZR_Error::DetachNext() {
    CZR_Error* p = m_pNext;
    m_pNext = nullptr;
    return p;
}

wchar_t* CZR_Error::GetAllMessages(const wchar_t* wszKey) const {
    std::wstring text;
    // The head matches a search with any key when it has none itself.
    if (!m_wszKey || (wszKey && std::wcscmp(m_wszKey, wszKey) == 0))
        text += Entry(*this);
    int cShown = 0;
    const CZR_Error* pOldest = nullptr;
    for (const CZR_Error* p = m_pNext; p; p = p->m_pNext) {
        if (!p->HasKey(wszKey))
            continue;
        if (cShown < kShownBehindHead) {
            text += Entry(*p);
            ++cShown;
        } else {
            pOldest = p;
        }
    }
    if (pOldest)
        text += ZR_FormatW(L"%s\n", Entry(*pOldest).c_str());
    return CopyText(text.c_str(), text.size());
}
