// XString<T>, T wchar_t or char: a string that is one pointer to its
// characters, with a header in front of them (manager, length, capacity,
// reference count). Copies share the buffer; the first change to a shared
// buffer makes a private copy. The count changes by interlocked operations,
// so copies of one string may live on different threads; one XString object
// itself is used by one thread at a time. All empty strings share one static
// buffer. The text is always closed by a zero and may hold zeros inside.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <cctype>
#include <type_traits>

#include "diag/Format.h"
#include "foundation/Alloc.h"
#include "foundation/ZR_HResultError.h"
#include "platform/win32.h"

namespace zr_xstring {

// Character operations by width.
inline int VFormat(wchar_t* p, size_t n, const wchar_t* f, va_list a) { return ZR_vsnwprintf(p, n, f, a); }
inline int VFormat(char* p, size_t n, const char* f, va_list a) { return ZR_vsnprintf(p, n, f, a); }
inline size_t Length(const wchar_t* s) { return std::wcslen(s); }
inline size_t Length(const char* s) { return std::strlen(s); }
inline wchar_t Lower(wchar_t c) { return static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c))); }
inline char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
inline wchar_t Upper(wchar_t c) { return static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c))); }
inline char Upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
inline int CompareNoCase(const wchar_t* a, const wchar_t* b) { return _wcsicmp(a, b); }
inline int CompareNoCase(const char* a, const char* b) { return _stricmp(a, b); }
inline int Compare(const wchar_t* a, const wchar_t* b) { return std::wcscmp(a, b); }
inline int Compare(const char* a, const char* b) { return std::strcmp(a, b); }
// Between widths: narrow text is taken as the Latin-1 code page, and a wide
// character beyond it narrows to '?'.
inline wchar_t Convert(char c, wchar_t*) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); }
inline char Convert(wchar_t c, char*) { return c >= 0 && c <= 0xFF ? static_cast<char>(c) : '?'; }

}  // namespace zr_xstring

template <class T>
class XString {
    static_assert(std::is_same_v<T, wchar_t> || std::is_same_v<T, char>, "XString holds wchar_t or char");
    using Other = std::conditional_t<std::is_same_v<T, wchar_t>, char, wchar_t>;

    // The header in front of the characters.
    struct Data {
        void* m_pManager;  // the buffer's owner: null for the heap, the empty string points to itself
        int m_iLength;     // characters, without the closing zero
        int m_iAlloc;      // characters that fit, without the closing zero
        volatile long m_iRefs;
        T* Chars() { return reinterpret_cast<T*>(this + 1); }
    };
    struct NilBuffer {
        Data m_data;
        T m_chars[2];
    };

public:
    XString() : m_psz(Nil()->Chars()) {}
    XString(const T* sz) : XString() { Assign(sz, sz ? static_cast<int>(zr_xstring::Length(sz)) : 0); }
    XString(const T* p, int iLength) : XString() { Assign(p, p && iLength > 0 ? iLength : 0); }
    XString(const Other* sz) : XString() {
        int n = sz ? static_cast<int>(zr_xstring::Length(sz)) : 0;
        T* p = Fresh(n);
        for (int i = 0; i < n; i++) p[i] = zr_xstring::Convert(sz[i], static_cast<T*>(nullptr));
        SetLength(n);
    }
    XString(const XString& o) : m_psz(o.m_psz) { AddRef(GetData()); }
    XString(XString&& o) noexcept : m_psz(o.m_psz) { o.m_psz = Nil()->Chars(); }
    ~XString() { Release(GetData()); }

    XString& operator=(const XString& o) {
        if (o.m_psz != m_psz) {
            AddRef(o.GetData());
            Release(GetData());
            m_psz = o.m_psz;
        }
        return *this;
    }
    XString& operator=(XString&& o) noexcept {
        if (this != &o) {
            Release(GetData());
            m_psz = o.m_psz;
            o.m_psz = Nil()->Chars();
        }
        return *this;
    }
    XString& operator=(const T* sz) {
        XString s(sz);
        return *this = std::move(s);
    }

    int GetLength() const { return GetData()->m_iLength; }
    bool IsEmpty() const { return GetLength() == 0; }
    void Empty() { *this = XString(); }
    const T* GetString() const { return m_psz; }
    operator const T*() const { return m_psz; }
    T GetAt(int i) const { return m_psz[i]; }
    T operator[](int i) const { return m_psz[i]; }

    // A private buffer with room for iMinLength characters and the current
    // text; ReleaseBuffer fixes the length (-1: up to the first zero).
    T* GetBuffer(int iMinLength) {
        int n = GetLength();
        return MakePrivate(std::max(iMinLength, n), n);
    }
    void ReleaseBuffer(int iNewLength = -1) {
        Data* d = GetData();
        if (d == Nil()) return;
        if (iNewLength < 0) iNewLength = static_cast<int>(zr_xstring::Length(m_psz));
        SetLength(std::min(iNewLength, d->m_iAlloc));
    }

    // Index of the first ch at or behind iStart; -1 when there is none or
    // iStart lies outside the text.
    int Find(T ch, int iStart = 0) const {
        int n = GetLength();
        if (iStart < 0 || iStart >= n) return -1;
        for (int i = iStart; i < n; i++)
            if (m_psz[i] == ch) return i;
        return -1;
    }
    int Find(const T* sz, int iStart = 0) const {
        int n = GetLength();
        if (!sz || iStart < 0 || iStart > n) return -1;
        int m = static_cast<int>(zr_xstring::Length(sz));
        const T* pBegin = m_psz;
        const T* pEnd = pBegin + n;
        const T* p = std::search(pBegin + iStart, pEnd, sz, sz + m);
        return p == pEnd && m > 0 ? -1 : static_cast<int>(p - m_psz);
    }

    // Negative arguments count as 0 and a range past the end is cut; the
    // whole text shares the buffer.
    XString Mid(int iFirst) const { return Mid(iFirst, INT_MAX); }
    XString Mid(int iFirst, int iCount) const {
        int n = GetLength();
        iFirst = std::clamp(iFirst, 0, n);
        iCount = std::clamp(iCount, 0, n - iFirst);
        if (iFirst == 0 && iCount == n) return *this;
        return XString(m_psz + iFirst, iCount);
    }
    XString Left(int iCount) const { return Mid(0, iCount); }
    XString Right(int iCount) const {
        int n = GetLength();
        iCount = std::clamp(iCount, 0, n);
        return Mid(n - iCount, iCount);
    }

    // Replaces every szOld by szNew and returns how many there were. The
    // text is searched across inner zeros; the result is built in one new
    // buffer.
    int Replace(const T* szOld, const T* szNew) {
        if (!szOld || !*szOld) return 0;
        if (!szNew) szNew = Nil()->Chars();
        const long long iOld = static_cast<long long>(zr_xstring::Length(szOld));
        const long long iNew = static_cast<long long>(zr_xstring::Length(szNew));
        const T* pBegin = m_psz;
        const T* pEnd = m_psz + GetLength();
        int iHits = 0;
        for (const T* p = pBegin; (p = std::search(p, pEnd, szOld, szOld + iOld)) != pEnd; p += iOld) iHits++;
        if (iHits == 0) return 0;
        long long iResult = GetLength() + iHits * (iNew - iOld);
        if (iResult > INT_MAX - 1) throw BadAlloc(UINT_MAX);
        XString strOut;
        T* pOut = strOut.Fresh(static_cast<int>(iResult));
        for (const T* p = pBegin; p < pEnd;) {
            const T* pHit = std::search(p, pEnd, szOld, szOld + iOld);
            pOut = std::copy(p, pHit, pOut);
            if (pHit == pEnd) break;
            pOut = std::copy(szNew, szNew + iNew, pOut);
            p = pHit + iOld;
        }
        strOut.SetLength(static_cast<int>(iResult));
        *this = std::move(strOut);
        return iHits;
    }

    // Removes the trailing run of characters that all stand in szChars.
    XString& TrimRight(const T* szChars) {
        if (!szChars) return *this;
        int n = GetLength();
        int iKeep = n;
        while (iKeep > 0 && Contains(szChars, m_psz[iKeep - 1])) iKeep--;
        if (iKeep != n) Truncate(iKeep);
        return *this;
    }
    XString& TrimRight() {
        static const T kBlanks[] = {' ', '\t', '\r', '\n', '\v', '\f', 0};
        return TrimRight(kBlanks);
    }

    XString& MakeLower() { return Map(&zr_xstring::Lower); }
    XString& MakeUpper() { return Map(&zr_xstring::Upper); }
    int Compare(const T* sz) const { return zr_xstring::Compare(m_psz, sz ? sz : Nil()->Chars()); }
    int CompareNoCase(const T* sz) const { return zr_xstring::CompareNoCase(m_psz, sz ? sz : Nil()->Chars()); }

    // printf-style, with the Windows conversions (in a wide format %s is a
    // wide string). A null format raises E_INVALIDARG.
    void Format(const T* szFormat, ...) {
        va_list args;
        va_start(args, szFormat);
        FormatV(szFormat, args, false);
        va_end(args);
    }
    void AppendFormat(const T* szFormat, ...) {
        va_list args;
        va_start(args, szFormat);
        FormatV(szFormat, args, true);
        va_end(args);
    }
    void FormatV(const T* szFormat, va_list args, bool bAppend) {
        if (!szFormat) throw ZR_HResultError{E_INVALIDARG};
        va_list argsMeasure;
        va_copy(argsMeasure, args);
        int iText = zr_xstring::VFormat(nullptr, 0, szFormat, argsMeasure);
        va_end(argsMeasure);
        if (iText < 0) throw ZR_HResultError{E_INVALIDARG};
        int iKeep = bAppend ? GetLength() : 0;
        if (static_cast<long long>(iKeep) + iText > INT_MAX - 1) throw BadAlloc(UINT_MAX);
        // Formatted into a new buffer: an argument may point into this one.
        XString strOut;
        T* p = strOut.Fresh(iKeep + iText);
        std::copy(m_psz, m_psz + iKeep, p);
        zr_xstring::VFormat(p + iKeep, static_cast<size_t>(iText) + 1, szFormat, args);
        strOut.SetLength(iKeep + iText);
        *this = std::move(strOut);
    }

    XString& operator+=(const XString& s) { return Append(s.m_psz, s.GetLength()); }
    XString& operator+=(const T* sz) { return Append(sz, sz ? static_cast<int>(zr_xstring::Length(sz)) : 0); }
    XString& operator+=(T ch) { return Append(&ch, 1); }

    friend XString operator+(const XString& a, const XString& b) { return XString(a) += b; }
    friend XString operator+(const XString& a, const T* b) { return XString(a) += b; }
    friend XString operator+(const T* a, const XString& b) { return XString(a) += b; }
    friend XString operator+(const XString& a, T b) { return XString(a) += b; }
    friend bool operator==(const XString& a, const XString& b) {
        return a.GetLength() == b.GetLength() && std::equal(a.m_psz, a.m_psz + a.GetLength(), b.m_psz);
    }
    friend bool operator==(const XString& a, const T* b) { return a.Compare(b) == 0; }

    // How many XString objects share this buffer (1 for a private one). For
    // diagnostics and tests.
    long GetRefCount() const { return GetData() == Nil() ? 0 : GetData()->m_iRefs; }

private:
    T* m_psz;  // the characters; the header stands in front of them

    static Data* Nil() {
        static NilBuffer s_nil = {{nullptr, 0, 0, 1}, {0, 0}};
        return &s_nil.m_data;
    }
    Data* GetData() const { return reinterpret_cast<Data*>(m_psz) - 1; }

    static void AddRef(Data* d) {
        if (d != Nil()) InterlockedIncrement(&d->m_iRefs);
    }
    // This string alone holds the buffer. The count is read as atomically as
    // copies on other threads change it.
    static bool IsSole(Data* d) { return d != Nil() && InterlockedCompareExchange(&d->m_iRefs, 0, 0) == 1; }
    static void Release(Data* d) {
        if (d != Nil() && InterlockedDecrement(&d->m_iRefs) == 0) Free(&d);
    }
    static Data* Allocate(int iChars) {
        unsigned long long cb = sizeof(Data) + (static_cast<unsigned long long>(iChars) + 1) * sizeof(T);
        if (iChars < 0 || cb > UINT_MAX) throw BadAlloc(UINT_MAX);
        Data* d = static_cast<Data*>(Malloc(static_cast<unsigned>(cb)));
        d->m_pManager = nullptr;
        d->m_iLength = 0;
        d->m_iAlloc = iChars;
        d->m_iRefs = 1;
        d->Chars()[0] = 0;
        return d;
    }

    // Drops the current text and gives a private buffer for iChars characters.
    T* Fresh(int iChars) {
        Release(GetData());
        m_psz = Allocate(iChars)->Chars();
        return m_psz;
    }
    // A private buffer with room for iChars characters that keeps the first
    // iKeep characters of the text. A buffer that is shared or too small is
    // replaced.
    T* MakePrivate(int iChars, int iKeep) {
        Data* d = GetData();
        if (IsSole(d) && d->m_iAlloc >= iChars) return m_psz;
        Data* dNew = Allocate(iChars);
        std::copy(m_psz, m_psz + iKeep, dNew->Chars());
        dNew->m_iLength = iKeep;
        dNew->Chars()[iKeep] = 0;
        Release(d);
        m_psz = dNew->Chars();
        return m_psz;
    }
    void SetLength(int n) {
        Data* d = GetData();
        if (d == Nil()) return;
        d->m_iLength = n;
        m_psz[n] = 0;
    }
    void Assign(const T* p, int n) {
        if (n == 0) return Empty();
        T* pOut = Fresh(n);
        std::copy(p, p + n, pOut);
        SetLength(n);
    }
    XString& Append(const T* p, int n) {
        if (n <= 0) return *this;
        int iOld = GetLength();
        if (static_cast<long long>(iOld) + n > INT_MAX / 2) throw BadAlloc(UINT_MAX);
        Data* d = GetData();
        bool bFits = IsSole(d) && d->m_iAlloc >= iOld + n;
        if (!bFits) {
            // Grow by half again, so that appending one character at a time
            // copies only logarithmically often. p may point into the old
            // buffer, which stays alive until the copy is done.
            XString strKeep(*this);
            T* pNew = MakePrivate(iOld + n + (iOld + n) / 2, iOld);
            std::copy(p, p + n, pNew + iOld);
        } else {
            std::copy(p, p + n, m_psz + iOld);
        }
        SetLength(iOld + n);
        return *this;
    }
    void Truncate(int n) {
        MakePrivate(GetLength(), GetLength());
        SetLength(n);
    }
    XString& Map(T (*fn)(T)) {
        int n = GetLength();
        if (n == 0) return *this;
        T* p = MakePrivate(n, n);
        for (int i = 0; i < n; i++) p[i] = fn(p[i]);
        return *this;
    }
    static bool Contains(const T* sz, T ch) {
        for (; *sz; sz++)
            if (*sz == ch) return true;
        return false;
    }
};
