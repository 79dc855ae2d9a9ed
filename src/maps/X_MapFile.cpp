#include "maps/X_MapFile.h"

#include "diag/Format.h"
#include "diag/Trace.h"
#include "diag/ZR_Error.h"
#include "foundation/Alloc.h"
#include "foundation/Utf16.h"
#include "platform/WideStdio.h"

#include <algorithm>
#include <cstring>
#include <string>

wchar_t g_wszMapFilesFolder[MAX_PATH] = {};

namespace {

bool IsZeroDate(const MTF_DATE_TIME& d) {
    static const uint8_t zero[sizeof(MTF_DATE_TIME)] = {};
    return std::memcmp(&d, zero, sizeof d) == 0;
}

// "2011-12-01 10_05_44": the name of a cached map follows from the backup's
// identity alone, so every mount of the same backup finds the same file.
std::string CachedNameDate(const MTF_DATE_TIME& d) {
    if (IsZeroDate(d))
        return "0";
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&d);
    unsigned year = b[0] * 64u + b[1] / 4u;
    unsigned month = (b[1] % 4u) * 4u + b[2] / 64u;
    unsigned day = (b[2] % 64u) / 2u;
    unsigned hour = (b[2] % 2u) * 16u + b[3] / 16u;
    unsigned minute = (b[3] % 16u) * 4u + b[4] / 64u;
    unsigned second = b[4] % 64u;
    return ZR_Format("%04u-%02u-%02u %02u_%02u_%02u", year, month, day, hour, minute, second);
}

std::string GuidText(const GUID& g) {
    return ZR_Format("%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3, g.Data4[0],
                     g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
}

// Copies a wide text into a fixed 260-character field; false if it is cut.
bool CopyName(wchar_t* wszTo, const std::wstring& str) {
    if (str.size() >= MAX_PATH) {
        wszTo[0] = 0;
        return false;
    }
    std::wmemcpy(wszTo, str.c_str(), str.size() + 1);
    return true;
}

}  // namespace

const char* MapLocaleName(X_MapLocale_e eLocale) {
    switch (eLocale) {
    case X_MAPLOCALE_EMBEDDED: return "Embedded";
    case X_MAPLOCALE_SATELLITE: return "Satellite";
    case X_MAPLOCALE_CACHED: return "Cached";
    default: return "";
    }
}

X_MapFile::X_MapFile() {
    InitializeCriticalSection(&m_cs);
    m_hCreatedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

X_MapFile::~X_MapFile() {
    if (m_hCreatedEvent)
        CloseHandle(m_hCreatedEvent);
    Close();
    DeleteCriticalSection(&m_cs);
}

void X_MapFile::SetBackupName(const wchar_t* wsz) { CopyName(m_wszBackupName, wsz ? wsz : L""); }
void X_MapFile::SetPrimaryName(const wchar_t* wsz) { CopyName(m_wszPrimaryName, wsz ? wsz : L""); }

uint8_t* X_MapFile::GetCurrPointer() const {
    return static_cast<uint8_t*>(m_pView) + (m_iCurrOffset - m_iViewOffset);
}

int X_MapFile::DecRefCount() {
    if (m_iRefCount > 0)
        --m_iRefCount;
    return m_iRefCount;
}

bool X_MapFile::GetIsCreated() {
    Protect();
    bool b = m_bIsCreated;
    Unprotect();
    return b;
}

void X_MapFile::SetIsCreated(bool b) {
    Protect();
    m_bIsCreated = b;
    Unprotect();
}

void X_MapFile::SetCreatedEvent() {
    Protect();
    SetEvent(m_hCreatedEvent);
    Unprotect();
}

void X_MapFile::WaitForCreatedEvent() { WaitForSingleObject(m_hCreatedEvent, INFINITE); }

void X_MapFile::SetInfo(const X_MapFile& other) {
    m_eBackend = other.m_eBackend;
    m_iDataSetNumber = other.m_iDataSetNumber;
    m_iMediaFamilyId = other.m_iMediaFamilyId;
    m_MediaDate = other.m_MediaDate;
    m_MediaWriteDate = other.m_MediaWriteDate;
    m_KelpGuid = other.m_KelpGuid;
    m_KlbsGuid = other.m_KlbsGuid;
    std::wmemcpy(m_wszBackupName, other.m_wszBackupName, MAX_PATH);
    std::wmemcpy(m_wszPrimaryName, other.m_wszPrimaryName, MAX_PATH);
}

// ---------------------------------------------------------------------------
// Names and locales
// ---------------------------------------------------------------------------

bool X_MapFile::FormName(X_MapLocale_e eLocale) {
    std::wstring name;
    switch (eLocale) {
    case X_MAPLOCALE_EMBEDDED:
        name = m_wszBackupName;
        break;
    case X_MAPLOCALE_SATELLITE:
        name = ZR_FormatW(L"%s.%d.%hs", m_wszBackupName, m_iDataSetNumber, GetFileExtension());
        break;
    case X_MAPLOCALE_CACHED:
        if (!g_bUseCachedMaps || !g_wszMapFilesFolder[0])
            return false;
        if (m_eBackend == ZR_BACKEND_KELP)
            name = ZR_FormatW(L"%s\\%hs.%hs", g_wszMapFilesFolder, GuidText(m_KlbsGuid).c_str(), GetFileExtension());
        else if (X_MapBackend(m_eBackend) == ZR_BACKEND_MTF)
            name = ZR_FormatW(L"%s\\%hs %hs 0x%08.8X.%hs", g_wszMapFilesFolder, CachedNameDate(m_MediaDate).c_str(),
                              CachedNameDate(m_MediaWriteDate).c_str(), m_iMediaFamilyId, GetFileExtension());
        else
            return false;
        break;
    default:
        return false;
    }
    return CopyName(m_wszMapFileName, name);
}

bool X_MapFile::SetMapLocale(X_MapLocale_e eLocale) {
    if (!FormName(eLocale))
        return false;
    m_eMapLocale = eLocale;
    return true;
}

// ---------------------------------------------------------------------------
// Preamble
// ---------------------------------------------------------------------------

bool X_MapFile::WritePreamble() {
    if (g_iTraceMode)
        TraceLine("Writing %s %s (%s).\n", MapLocaleName(m_eMapLocale), GetMapName(), GetFileExtension());
    if (!Write(GetMagic(), 1, 4))
        return false;
    m_iContentSize = GetContentSize();
    if (GetMapType() >= 2 && !Write(&m_iContentSize, 4, 1))
        return false;
    m_iFileVersion = GetVersion();
    return Write(&m_iFileVersion, 4, 1);
}

bool X_MapFile::ReadPreamble() {
    if (g_iTraceMode)
        TraceLine("Reading %s %s (%s).\n", MapLocaleName(m_eMapLocale), GetMapName(), GetFileExtension());
    char magic[4];
    if (!Read(magic, 1, 4) || std::memcmp(magic, GetMagic(), 4) != 0)
        return false;
    if (GetMapType() >= 2) {
        if (!Read(&m_iContentSize, 4, 1))
            return false;
        if (m_eMapLocale != X_MAPLOCALE_EMBEDDED && m_iContentSize != m_iFileSize)
            return false;
    }
    if (!Read(&m_iFileVersion, 4, 1))
        return false;
    return m_iFileVersion >= 0 && m_iFileVersion <= GetVersion();
}

// ---------------------------------------------------------------------------
// Opening and closing
// ---------------------------------------------------------------------------

bool X_MapFile::OpenForMMF() {
    m_eMapPlug = X_MAPPLUG_MMF;
    // Shared for deleting too: a map found damaged while its view is in use
    // gives its name to the map built in its place (OpenForWrite).
    m_hFile = CreateFileW(m_wszMapFileName, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_hFile != INVALID_HANDLE_VALUE) {
        m_FileHandleOpen = ZR_HandleTag(m_hFile);
        if (g_iTraceMode)
            TraceLine("X_MapFile::OpenForMMF - m_FileHandleOpen: %08x\n", m_FileHandleOpen);
        DWORD high = 0;
        DWORD low = GetFileSize(m_hFile, &high);
        m_iFileSize = (static_cast<uint64_t>(high) << 32) | low;
        SYSTEM_INFO si;
        GetSystemInfo(&si);
        // An empty file cannot be mapped, and a map that starts past the
        // end of its file is no map.
        if (m_iFileSize > 0 && m_iOffset < m_iFileSize) {
            m_hMMF = CreateFileMappingW(m_hFile, nullptr, PAGE_READONLY, 0, 0, nullptr);
            if (m_hMMF) {
                m_MMFHandleOpen = ZR_HandleTag(m_hMMF);
                if (g_iTraceMode)
                    TraceLine("X_MapFile::OpenForMMF - m_MMFHandleOpen: %08x\n", m_MMFHandleOpen);
                m_iViewOffset = m_iOffset - m_iOffset % si.dwAllocationGranularity;
                uint64_t iToEnd = m_iFileSize - m_iViewOffset;
                uint64_t iWanted = m_iLength ? m_iOffset - m_iViewOffset + m_iLength : iToEnd;
                if (iWanted > iToEnd)
                    iWanted = iToEnd;
                m_iViewLength = static_cast<uint32_t>(iWanted);
                if (iWanted == m_iViewLength)
                    m_pView = MapViewOfFile(m_hMMF, FILE_MAP_READ, static_cast<DWORD>(m_iViewOffset >> 32),
                                            static_cast<DWORD>(m_iViewOffset), m_iViewLength);
            } else {
                m_hMMF = INVALID_HANDLE_VALUE;
            }
        }
    }
    if (m_pView)
        return true;
    bool bOk = true;
    CloseMapping(bOk);
    return false;
}

bool X_MapFile::OpenStreamForRead() {
    m_eMapPlug = X_MAPPLUG_STDIO;
    m_pFile = _wfopen(m_wszMapFileName, L"rb");
    if (!m_pFile)
        return false;
    // The size bounds every read; the preamble's size check uses it only
    // outside the backup file itself.
    if (_fseeki64(m_pFile, 0, SEEK_END) != 0)
        return false;
    m_iFileSize = static_cast<uint64_t>(_ftelli64(m_pFile));
    return _fseeki64(m_pFile, static_cast<int64_t>(m_iOffset), SEEK_SET) == 0;
}

bool X_MapFile::OpenForRead(X_MapLocale_e eLocale) {
    if (!SetMapLocale(eLocale))
        return false;
    bool bOpen = g_bUseMemoryMappedMaps && OpenForMMF();
    if (!bOpen)
        bOpen = OpenStreamForRead();
    bool bOk = false;
    if (bOpen) {
        m_iCurrOffset = m_iOffset;
        bOk = ReadPreamble();
    } else if (g_iTraceMode) {
        TraceLine("Unable to open %s %s (%s) for reading.\n", MapLocaleName(eLocale), GetMapName(),
                  GetFileExtension());
    }
    if (!bOk)
        Close();
    return bOk;
}

bool X_MapFile::OpenForWrite(X_MapLocale_e eLocale) {
    if (!SetMapLocale(eLocale))
        return false;
    m_eMapPlug = X_MAPPLUG_STDIO;
    // A new file rather than the old one cut to nothing: a map may still be
    // mapped from the old file, here or in another process, and its view
    // must keep its bytes. A file that cannot go is not written over.
    if (DeleteFileW(m_wszMapFileName) || GetFileAttributesW(m_wszMapFileName) == INVALID_FILE_ATTRIBUTES)
        m_pFile = _wfopen(m_wszMapFileName, L"wb");
    m_iCurrOffset = m_iOffset;
    if (m_pFile && WritePreamble())
        return true;
    if (g_iTraceMode)
        TraceLine("Unable to open %s %s (%s) for writing.\n", MapLocaleName(eLocale), GetMapName(),
                  GetFileExtension());
    ZR_Error(nullptr, __FILE__, "X_MapFile::OpenForWrite", __LINE__, "Failed to open %s \"%S\" for writing\n",
             GetMapName(), m_wszMapFileName);
    Close();
    return false;
}

bool X_MapFile::OpenForUpdate() {
    if (!SetMapLocale(X_MAPLOCALE_CACHED))
        return false;
    m_iViewOffset = m_iCurrOffset = m_iOffset = 0;
    bool bOk = false;
    if (g_bUseMemoryMappedMaps) {
        m_eMapPlug = X_MAPPLUG_MMF;
        m_hFile = CreateFileW(m_wszMapFileName, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (m_hFile != INVALID_HANDLE_VALUE) {
            m_FileHandleOpen = ZR_HandleTag(m_hFile);
            if (g_iTraceMode)
                TraceLine("X_MapFile::OpenForUpdate - m_FileHandleOpen: %08x\n", m_FileHandleOpen);
            m_iFileSize = GetFileSize(m_hFile, nullptr);
            m_hMMF = m_iFileSize ? CreateFileMappingW(m_hFile, nullptr, PAGE_READWRITE, 0, 0, nullptr) : nullptr;
            if (!m_hMMF)
                m_hMMF = INVALID_HANDLE_VALUE;
            if (m_hMMF != INVALID_HANDLE_VALUE) {
                m_MMFHandleOpen = ZR_HandleTag(m_hMMF);
                if (g_iTraceMode)
                    TraceLine("X_MapFile::OpenForUpdate - m_MMFHandleOpen: %08x\n", m_MMFHandleOpen);
                m_pView = MapViewOfFile(m_hMMF, FILE_MAP_ALL_ACCESS, 0, 0, 0);
                m_iViewLength = static_cast<uint32_t>(m_iFileSize);
            }
            bOk = m_pView && ReadPreamble() && ReadContent(true);
        }
    }
    if (!bOk) {
        ZR_Error(nullptr, __FILE__, "X_MapFile::OpenForUpdate", __LINE__, "Failed to open %s \"%S\" for update\n",
                 GetMapName(), m_wszMapFileName);
        Close();
    }
    return bOk;
}

void X_MapFile::CloseMapping(bool& bOk) {
    if (m_pView && !UnmapViewOfFile(m_pView))
        bOk = false;
    m_pView = nullptr;
    if (m_hMMF != INVALID_HANDLE_VALUE && m_hMMF && !CloseHandle(m_hMMF))
        bOk = false;
    m_hMMF = INVALID_HANDLE_VALUE;
    if (m_hFile != INVALID_HANDLE_VALUE && m_hFile && !CloseHandle(m_hFile))
        bOk = false;
    m_hFile = INVALID_HANDLE_VALUE;
}

bool X_MapFile::Close() {
    bool bOk = true;
    if (m_pFile && std::fclose(m_pFile) != 0)
        bOk = false;
    m_pFile = nullptr;
    CloseMapping(bOk);
    m_iContentSize = 0;
    m_iFileVersion = 0;
    m_wszMapFileName[0] = 0;
    m_iOffset = 0;
    m_iLength = 0;
    m_iBaseOffset = 0;
    m_iCurrOffset = 0;
    m_iViewOffset = 0;
    m_iViewLength = 0;
    return bOk;
}

bool X_MapFile::Flush() { return m_pView && FlushViewOfFile(m_pView, 0); }

// ---------------------------------------------------------------------------
// The two roads the rest of the system takes
// ---------------------------------------------------------------------------

bool X_MapFile::Read() {
    bool bRead = false;
    bool bContentFailed = false;
    auto attempt = [&](X_MapLocale_e eLocale) {
        if (!OpenForRead(eLocale))
            return;
        bRead = ReadContent(false);
        bContentFailed = !bRead;
    };
    if (m_iOffset != 0)
        attempt(X_MAPLOCALE_EMBEDDED);
    if (!bRead) {
        Close();
        attempt(X_MAPLOCALE_SATELLITE);
    }
    if (!bRead && g_bUseCachedMaps) {
        Close();
        attempt(X_MAPLOCALE_CACHED);
    }
    if (!bRead) {
        if (bContentFailed && g_iTraceMode)
            TraceLine("Failed to read %s %s (%s).\n", MapLocaleName(m_eMapLocale), GetMapName(),
                      GetFileExtension());
        Close();
    }
    return bRead;
}

bool X_MapFile::Write() {
    bool bWritten = false;
    if (g_bUseCachedMaps && OpenForWrite(X_MAPLOCALE_CACHED)) {
        bWritten = WriteContent();
        bWritten = Close() && bWritten;
    }
    if (bWritten)
        return true;
    if (!OpenForWrite(X_MAPLOCALE_SATELLITE))
        return false;
    std::wstring name = m_wszMapFileName;
    bWritten = WriteContent();
    bWritten = Close() && bWritten;
    if (!bWritten) {
        if (g_iTraceMode)
            TraceLine("Failed to write %s %s (%s).\n", MapLocaleName(X_MAPLOCALE_SATELLITE), GetMapName(),
                      GetFileExtension());
        ZR_Error(nullptr, __FILE__, "X_MapFile::Write", __LINE__, "Failed to write %s \"%S\"\n", GetMapName(),
                 name.c_str());
    }
    return bWritten;
}

// ---------------------------------------------------------------------------
// Raw transfer
// ---------------------------------------------------------------------------

uint64_t X_MapFile::EndOfData() const {
    if (m_eMapPlug == X_MAPPLUG_MMF && m_pView)
        return m_iViewOffset + m_iViewLength;
    return m_iFileSize;
}

uint64_t X_MapFile::BytesLeft() const {
    uint64_t end = EndOfData();
    return m_iCurrOffset < end ? end - m_iCurrOffset : 0;
}

bool X_MapFile::Read(void* p, unsigned cb, unsigned n) {
    uint64_t total = static_cast<uint64_t>(cb) * n;
    bool bFits = total <= BytesLeft();
    bool bOk = false;
    if (!bFits) {
        bOk = false;
    } else if (total == 0) {
        bOk = true;
    } else if (m_eMapPlug == X_MAPPLUG_MMF && m_pView) {
        const uint8_t* src = GetCurrPointer();
        if (src != p)
            std::memmove(p, src, total);
        bOk = true;
    } else if (m_pFile) {
        bOk = std::fread(p, 1, total, m_pFile) == total;
    }
    m_iCurrOffset += total;
    return bOk;
}

bool X_MapFile::Write(const void* p, unsigned cb, unsigned n) {
    uint64_t total = static_cast<uint64_t>(cb) * n;
    bool bOk = false;
    if (total == 0)
        bOk = true;
    else if (m_pFile)
        bOk = std::fwrite(p, 1, total, m_pFile) == total;
    m_iCurrOffset += total;
    return bOk;
}

bool X_MapFile::WriteZeros(uint64_t cb) {
    // Shorter runs are written: seeking flushes the stream's buffer.
    constexpr uint64_t kHoleFrom = 65536;
    static const uint8_t zeros[4096] = {};
    bool bOk = m_pFile != nullptr || cb == 0;
    if (bOk && cb >= kHoleFrom) {
        bOk = _fseeki64(m_pFile, static_cast<int64_t>(cb), SEEK_CUR) == 0;
        m_iCurrOffset += cb;
        return bOk;
    }
    for (uint64_t iLeft = cb; bOk && iLeft > 0;) {
        const unsigned n = static_cast<unsigned>(std::min<uint64_t>(iLeft, sizeof zeros));
        bOk = Write(zeros, 1, n);
        iLeft -= n;
    }
    return bOk;
}

bool X_MapFile::MapOrAlloc(void** pp, unsigned cb, unsigned n, unsigned* pcbAlloc) {
    uint64_t total = static_cast<uint64_t>(cb) * n;
    *pp = nullptr;
    // A count read from a damaged file must not become a huge allocation.
    if (total > BytesLeft())
        return false;
    if (m_eMapPlug == X_MAPPLUG_MMF && m_pView) {
        *pp = GetCurrPointer();
        return true;
    }
    if (m_eMapPlug == X_MAPPLUG_STDIO) {
        *pp = Calloc(static_cast<int>(n), cb, pcbAlloc);
        return false;
    }
    return false;
}

bool X_MapFile::ReadFixedName(wchar_t* wszName) {
    uint8_t raw[MAX_PATH * 2];
    if (!Read(raw, 1, sizeof raw))
        return false;
    Utf16Decode(raw, sizeof raw, true, wszName, MAX_PATH);
    return true;
}

bool X_MapFile::WriteFixedName(const wchar_t* wszName) {
    uint8_t raw[MAX_PATH * 2] = {};
    Utf16EncodeField(wszName, raw, sizeof raw - 2);  // keeps a closing zero
    return Write(raw, 1, sizeof raw);
}
