// One formatting engine for narrow and wide output. Numbers and floating
// values go to the C library one conversion at a time, with their size
// modifier rewritten; strings and characters are done here, because the C
// library converts between narrow and wide through the locale and fails the
// whole text on the first character it cannot convert.
#include "diag/Format.h"

#include "platform/win32.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <type_traits>

namespace {

constexpr int kMaxField = 65536;

// Writes what fits of a text of any length, counting all of it.
template <typename Out>
class Sink {
public:
    Sink(Out* pBuffer, size_t cap) : m_pBuffer(pBuffer), m_cap(pBuffer ? cap : 0) {}

    void Put(Out c) { Repeat(c, 1); }
    void Repeat(Out c, size_t n) {
        size_t room = m_len + 1 < m_cap ? m_cap - 1 - m_len : 0;
        for (size_t i = 0; i < std::min(n, room); ++i)
            m_pBuffer[m_len + i] = c;
        m_len += n;
    }
    template <typename In>
    void Append(const In* p, size_t n) {
        size_t room = m_len + 1 < m_cap ? m_cap - 1 - m_len : 0;
        for (size_t i = 0; i < std::min(n, room); ++i)
            m_pBuffer[m_len + i] = static_cast<Out>(static_cast<std::make_unsigned_t<In>>(p[i]));
        m_len += n;
    }
    int Finish() {
        if (m_cap)
            m_pBuffer[std::min(m_len, m_cap - 1)] = 0;
        return static_cast<int>(std::min<size_t>(m_len, INT32_MAX));
    }

private:
    Out* m_pBuffer;
    size_t m_cap;
    size_t m_len = 0;
};

enum class ArgSize { Default, Char, Short, Int32, Int64, Pointer, LongDouble, Wide };

struct ConvSpec {
    char szFlags[8] = {};
    int iWidth = -1;
    int iPrecision = -1;
    bool bLeft = false;
    bool bShortPrefix = false;  // 'h': for strings and characters, narrow
    ArgSize size = ArgSize::Default;
    char conv = 0;
};

// A va_list that helpers can consume in turn: they take a pointer to it.
struct Args {
    va_list list;
};

template <typename Ch>
int ReadNumber(const Ch*& p) {
    int i = 0;
    while (*p >= '0' && *p <= '9') {
        i = std::min(i * 10 + static_cast<int>(*p - '0'), kMaxField);
        ++p;
    }
    return i;
}

template <typename Ch>
void ParseFlags(const Ch*& p, ConvSpec& directive) {
    size_t n = 0;
    while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0') {
        if (*p == '-')
            directive.bLeft = true;
        else if (n + 1 < sizeof(directive.szFlags) && !std::strchr(directive.szFlags, static_cast<char>(*p)))
            directive.szFlags[n++] = static_cast<char>(*p);
        ++p;
    }
}

template <typename Ch>
void ParseWidthAndPrecision(const Ch*& p, ConvSpec& directive, Args& args) {
    if (*p == '*') {
        int i = va_arg(args.list, int);
        directive.bLeft = directive.bLeft || i < 0;
        directive.iWidth = std::min(i < 0 ? (i == INT32_MIN ? kMaxField : -i) : i, kMaxField);
        ++p;
    } else if (*p >= '1' && *p <= '9') {
        directive.iWidth = ReadNumber(p);
    }
    if (*p != '.')
        return;
    ++p;
    if (*p == '*') {
        int i = va_arg(args.list, int);
        directive.iPrecision = i < 0 ? -1 : std::min(i, kMaxField);
        ++p;
    } else {
        directive.iPrecision = ReadNumber(p);
    }
}

template <typename Ch>
bool Starts(const Ch* p, const char* sz) {
    for (; *sz; ++p, ++sz)
        if (*p != static_cast<Ch>(*sz))
            return false;
    return true;
}

template <typename Ch>
void ParseSize(const Ch*& p, ConvSpec& directive) {
    struct Modifier {
        const char* sz;
        ArgSize size;
    };
    static const Modifier kModifiers[] = {
        {"I64", ArgSize::Int64}, {"I32", ArgSize::Int32}, {"hh", ArgSize::Char},    {"ll", ArgSize::Int64},
        {"I", ArgSize::Pointer}, {"h", ArgSize::Short},   {"l", ArgSize::Int32},    {"q", ArgSize::Int64},
        {"z", ArgSize::Pointer}, {"t", ArgSize::Pointer}, {"j", ArgSize::Pointer},  {"L", ArgSize::LongDouble},
        {"w", ArgSize::Wide},
    };
    for (const Modifier& m : kModifiers) {
        if (Starts(p, m.sz)) {
            directive.size = m.size;
            directive.bShortPrefix = m.size == ArgSize::Short;
            p += std::strlen(m.sz);
            return;
        }
    }
}

// Whether a string or character conversion takes a wide argument: the
// lower-case letter names the format's own width, the upper-case one the
// other; 'h' forces narrow and 'l' / 'w' force wide.
template <typename Ch>
bool TakesWideArgument(const ConvSpec& directive, bool bWideModifier) {
    if (directive.bShortPrefix)
        return false;
    if (bWideModifier)
        return true;
    bool bUpper = directive.conv == 'S' || directive.conv == 'C';
    return (sizeof(Ch) == 1) == bUpper;
}

// One character of UTF-8; a byte that does not start a valid sequence
// stands for itself, so that any narrow text converts.
uint32_t DecodeUtf8(const unsigned char*& p) {
    unsigned char b = *p++;
    int iMore = b >= 0xF0 && b < 0xF8 ? 3 : b >= 0xE0 ? 2 : b >= 0xC2 ? 1 : 0;
    if (b < 0x80 || iMore == 0)
        return b;
    uint32_t c = b & (0x3F >> iMore);
    for (int i = 0; i < iMore; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return b;
        c = (c << 6) | (p[i] & 0x3F);
    }
    p += iMore;
    return c;
}

// The text of a string argument in the output's width; the precision counts
// characters of the argument.
std::string ConvertString(const wchar_t* wsz, int iPrecision, char) {
    size_t n = std::wcslen(wsz);
    if (iPrecision >= 0)
        n = std::min(n, static_cast<size_t>(iPrecision));
    if (n == 0)
        return {};
    int cb = WideCharToMultiByte(CP_UTF8, 0, wsz, static_cast<int>(n), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(std::max(cb, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wsz, static_cast<int>(n), out.data(), cb, nullptr, nullptr);
    return out;
}
std::string ConvertString(const char* sz, int iPrecision, char) {
    size_t n = iPrecision < 0 ? std::strlen(sz) : strnlen(sz, static_cast<size_t>(iPrecision));
    return std::string(sz, n);
}
std::wstring ConvertString(const wchar_t* wsz, int iPrecision, wchar_t) {
    size_t n = iPrecision < 0 ? std::wcslen(wsz) : wcsnlen(wsz, static_cast<size_t>(iPrecision));
    return std::wstring(wsz, n);
}
std::wstring ConvertString(const char* sz, int iPrecision, wchar_t) {
    std::wstring out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(sz);
    for (int i = 0; *p && (iPrecision < 0 || i < iPrecision); ++i)
        out += static_cast<wchar_t>(DecodeUtf8(p));
    return out;
}

template <typename Out, typename Text>
void PutPadded(Sink<Out>& sink, const ConvSpec& directive, const Text& text) {
    size_t cPad = directive.iWidth > 0 && static_cast<size_t>(directive.iWidth) > text.size()
                      ? static_cast<size_t>(directive.iWidth) - text.size() : 0;
    if (!directive.bLeft)
        sink.Repeat(' ', cPad);
    sink.Append(text.data(), text.size());
    if (directive.bLeft)
        sink.Repeat(' ', cPad);
}

template <typename Ch, typename Out>
void PutString(Sink<Out>& sink, const ConvSpec& directive, bool bWide, Args& args) {
    const void* p = va_arg(args.list, const void*);
    if (!p)
        p = bWide ? static_cast<const void*>(L"(null)") : static_cast<const void*>("(null)");
    if (bWide)
        PutPadded(sink, directive, ConvertString(static_cast<const wchar_t*>(p), directive.iPrecision, Out()));
    else
        PutPadded(sink, directive, ConvertString(static_cast<const char*>(p), directive.iPrecision, Out()));
}

template <typename Ch, typename Out>
void PutChar(Sink<Out>& sink, const ConvSpec& directive, bool bWide, Args& args) {
    if (bWide) {
        wchar_t wsz[2] = {static_cast<wchar_t>(va_arg(args.list, wint_t)), 0};
        auto text = ConvertString(wsz, -1, Out());
        PutPadded(sink, directive, wsz[0] ? text : decltype(text)(1, Out(0)));
    } else {
        char c = static_cast<char>(va_arg(args.list, int));
        Out o = static_cast<Out>(static_cast<unsigned char>(c));
        PutPadded(sink, directive, std::basic_string<Out>(1, o));
    }
}

// A single conversion for the C library: flags, width, precision and the
// size modifier that matches the argument as it is read here.
std::string CSpec(const ConvSpec& directive, const char* szLength) {
    std::string s = "%";
    if (directive.bLeft)
        s += '-';
    s += directive.szFlags;
    if (directive.iWidth >= 0)
        s += std::to_string(directive.iWidth);
    if (directive.iPrecision >= 0)
        s += '.' + std::to_string(directive.iPrecision);
    s += szLength;
    s += directive.conv;
    return s;
}

template <typename Out, typename T>
void PutNumber(Sink<Out>& sink, const std::string& cspec, T value) {
    char sz[128];
    int n = std::snprintf(sz, sizeof sz, cspec.c_str(), value);
    if (n < 0)
        return;
    if (static_cast<size_t>(n) < sizeof sz) {
        sink.Append(sz, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), cspec.c_str(), value);
    sink.Append(big.data(), static_cast<size_t>(n));
}

template <typename Out>
void PutInteger(Sink<Out>& sink, const ConvSpec& directive, Args& args) {
    bool bSigned = directive.conv == 'd' || directive.conv == 'i';
    switch (directive.size) {
    case ArgSize::Int64:
    case ArgSize::Pointer:
        if (bSigned)
            PutNumber(sink, CSpec(directive, "ll"), va_arg(args.list, long long));
        else
            PutNumber(sink, CSpec(directive, "ll"), va_arg(args.list, unsigned long long));
        return;
    default: {
        const char* szLength = directive.size == ArgSize::Char ? "hh" : directive.size == ArgSize::Short ? "h" : "";
        if (bSigned)
            PutNumber(sink, CSpec(directive, szLength), va_arg(args.list, int));
        else
            PutNumber(sink, CSpec(directive, szLength), va_arg(args.list, unsigned));
        return;
    }
    }
}

template <typename Out>
void PutFloating(Sink<Out>& sink, const ConvSpec& directive, Args& args) {
    if (directive.size == ArgSize::LongDouble)
        PutNumber(sink, CSpec(directive, "L"), va_arg(args.list, long double));
    else
        PutNumber(sink, CSpec(directive, ""), va_arg(args.list, double));
}

// Formats one conversion whose letter is directive.conv; false when the letter
// is not a conversion, so the caller copies the text as it stands.
template <typename Ch, typename Out>
bool PutConversion(Sink<Out>& sink, const ConvSpec& directive, bool bWideModifier, Args& args) {
    switch (directive.conv) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
        PutInteger(sink, directive, args);
        return true;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        PutFloating(sink, directive, args);
        return true;
    case 's': case 'S':
        PutString<Ch>(sink, directive, TakesWideArgument<Ch>(directive, bWideModifier), args);
        return true;
    case 'c': case 'C':
        PutChar<Ch>(sink, directive, TakesWideArgument<Ch>(directive, bWideModifier), args);
        return true;
    case 'p':
        PutNumber(sink, CSpec(directive, ""), va_arg(args.list, void*));
        return true;
    case 'n':
        (void)va_arg(args.list, void*);  // never written: a format must not store through an argument
        return true;
    case '%':
        sink.Put('%');
        return true;
    default:
        return false;
    }
}

template <typename Ch, typename Out>
int FormatInto(Out* pBuffer, size_t count, const Ch* szFormat, va_list list) {
    Sink<Out> sink(pBuffer, count);
    Args args;
    va_copy(args.list, list);
    for (const Ch* p = szFormat; p && *p;) {
        if (*p != '%') {
            sink.Put(static_cast<Out>(*p++));
            continue;
        }
        const Ch* pStart = p++;
        ConvSpec directive;
        ParseFlags(p, directive);
        ParseWidthAndPrecision(p, directive, args);
        bool bWideModifier = *p == 'l' || *p == 'w';
        ParseSize(p, directive);
        directive.conv = *p ? static_cast<char>(*p) : 0;
        if (*p && static_cast<uint32_t>(*p) < 0x80 && PutConversion<Ch>(sink, directive, bWideModifier, args)) {
            ++p;
            continue;
        }
        // Not a conversion: the text stands as written, up to where it stopped.
        sink.Append(pStart, static_cast<size_t>(p - pStart));
    }
    va_end(args.list);
    return sink.Finish();
}

template <typename Ch>
std::basic_string<Ch> FormatToString(const Ch* szFormat, va_list list) {
    Ch small[512];
    va_list copy;
    va_copy(copy, list);
    int n = FormatInto<Ch>(small, sizeof small / sizeof(Ch), szFormat, copy);
    va_end(copy);
    if (n < static_cast<int>(sizeof small / sizeof(Ch)))
        return std::basic_string<Ch>(small, static_cast<size_t>(n));
    std::basic_string<Ch> out(static_cast<size_t>(n) + 1, Ch(0));
    va_copy(copy, list);
    FormatInto<Ch>(out.data(), out.size(), szFormat, copy);
    va_end(copy);
    out.resize(static_cast<size_t>(n));
    return out;
}

}  // namespace

int ZR_vsnprintf(char* szBuffer, size_t count, const char* szFormat, va_list args) {
    return FormatInto<char>(szBuffer, count, szFormat, args);
}

int ZR_vsnwprintf(wchar_t* wszBuffer, size_t count, const wchar_t* wszFormat, va_list args) {
    return FormatInto<wchar_t>(wszBuffer, count, wszFormat, args);
}

int ZR_snprintf(char* szBuffer, size_t count, const char* szFormat, ...) {
    va_list args;
    va_start(args, szFormat);
    int n = ZR_vsnprintf(szBuffer, count, szFormat, args);
    va_end(args);
    return n;
}

int ZR_snwprintf(wchar_t* wszBuffer, size_t count, const wchar_t* wszFormat, ...) {
    va_list args;
    va_start(args, wszFormat);
    int n = ZR_vsnwprintf(wszBuffer, count, wszFormat, args);
    va_end(args);
    return n;
}

std::string ZR_FormatV(const char* szFormat, va_list args) { return FormatToString<char>(szFormat, args); }

std::wstring ZR_FormatWV(const wchar_t* wszFormat, va_list args) { return FormatToString<wchar_t>(wszFormat, args); }

std::string ZR_Format(const char* szFormat, ...) {
    va_list args;
    va_start(args, szFormat);
    std::string s = ZR_FormatV(szFormat, args);
    va_end(args);
    return s;
}

std::wstring ZR_FormatW(const wchar_t* wszFormat, ...) {
    va_list args;
    va_start(args, wszFormat);
    std::wstring s = ZR_FormatWV(wszFormat, args);
    va_end(args);
    return s;
}
