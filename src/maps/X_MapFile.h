// X_MapFile: the base of every persisted map of a backup (content, extent
// and backup maps). It knows the places a map file may lie in (the locales),
// names the file from the backup's identity, writes and checks the preamble,
// reads the file through a buffered stream or a read-only memory mapping,
// and counts the map's users.
//
// A backup never changes once written, so a map stays valid as long as its
// file exists and matches the backup's identity. A map that cannot be read
// is not an error: Read() returns false and the caller builds it again.
//
// Threads: one thread loads or builds a map (it owns the read position);
// after the pool marks it created, the map is read-only and shared without a
// lock. g_MapPool's lock guards the reference count; m_cs guards
// m_bIsCreated and the created event.
#pragma once

#include "backup/MTF_Records.h"
#include "foundation/ZR_Types.h"
#include "platform/win32.h"

#include <cstdio>

enum X_MapLocale_e : int32_t {
    X_MAPLOCALE_NONE = 0,
    X_MAPLOCALE_EMBEDDED = 1,
    X_MAPLOCALE_SATELLITE = 2,
    X_MAPLOCALE_CACHED = 3,
};

enum X_MapPlug_e : int32_t {
    X_MAPPLUG_STDIO = 1,
    X_MAPPLUG_MMF = 2,
};

// Build-time settings: maps are read through a mapping first, and the map
// folder ("Cached") exists.
constexpr bool g_bUseMemoryMappedMaps = true;
constexpr bool g_bUseCachedMaps = true;

// The folder of cached maps (the second folder of SetVDBFolders); empty
// until set.
extern wchar_t g_wszMapFilesFolder[MAX_PATH];

// "Embedded", "Satellite", "Cached", or "" for anything else.
const char* MapLocaleName(X_MapLocale_e eLocale);

// The backend a map's backend word stands for: 3 is read and written like a
// native backup (1) by all map code, though no scan produces it.
inline int32_t X_MapBackend(int32_t iBackend) { return iBackend == 3 ? ZR_BACKEND_MTF : iBackend; }

class X_MapFile {
public:
    X_MapFile();
    virtual ~X_MapFile();
    X_MapFile(const X_MapFile&) = delete;
    X_MapFile& operator=(const X_MapFile&) = delete;

    // What a derived map is.
    virtual int GetMapType() const = 0;
    virtual const char* GetFileExtension() const = 0;
    virtual const char* GetMagic() const = 0;
    virtual const char* GetMapName() const = 0;
    virtual int GetVersion() const = 0;
    // The preamble's size word: 0 for content maps, the whole file's size
    // for the others.
    virtual uint32_t GetContentSize() = 0;
    // Reads or writes what follows the preamble at the current position.
    virtual bool ReadContent(bool bUpdate) = 0;
    virtual bool WriteContent() = 0;

    // Tries the locales in order (embedded when an offset is set,
    // satellite, cached) and reads the first map that matches. A successful
    // read leaves the file or view open: mapped containers point into it.
    bool Read();
    // Writes the map to the map folder, or beside the backup when that
    // fails. False (with the errors recorded) when neither could be written.
    bool Write();

    bool SetMapLocale(X_MapLocale_e eLocale);
    bool OpenForRead(X_MapLocale_e eLocale);
    bool OpenForWrite(X_MapLocale_e eLocale);
    bool OpenForUpdate();
    bool OpenForMMF();
    // Closes whatever is open and forgets the position, offset, length and
    // base; false if a close failed.
    bool Close();
    bool Flush();

    bool ReadPreamble();
    bool WritePreamble();

    // Raw transfer of n items of cb bytes at the current position. The
    // position advances by n x cb also on failure. Reads never go past the
    // end of the file or view.
    bool Read(void* p, unsigned cb, unsigned n);
    bool Write(const void* p, unsigned cb, unsigned n);
    // cb zero bytes at the current position; a long run becomes a hole of
    // the file, which costs no disk. Something must be written behind it,
    // or the file ends before the hole.
    bool WriteZeros(uint64_t cb);
    // Memory for n items of cb bytes: with the mapping, a pointer into the
    // view (true: the caller does not own it); with the stream, a zeroed
    // Calloc block of *pcbAlloc bytes (false). A count that cannot fit in
    // what is left of the file gives null and false, before any allocation.
    bool MapOrAlloc(void** pp, unsigned cb, unsigned n, unsigned* pcbAlloc);
    // Bytes left between the position and the end of the map's file or view.
    uint64_t BytesLeft() const;

    void SetInfo(const X_MapFile& other);

    ZR_Backend_e GetBackend() const { return m_eBackend; }
    void SetBackend(ZR_Backend_e e) { m_eBackend = e; }
    int GetDataSetNumber() const { return m_iDataSetNumber; }
    void SetDataSetNumber(int i) { m_iDataSetNumber = i; }
    uint32_t GetMediaFamilyId() const { return m_iMediaFamilyId; }
    void SetMediaFamilyId(uint32_t i) { m_iMediaFamilyId = i; }
    const MTF_DATE_TIME& GetMediaDate() const { return m_MediaDate; }
    void SetMediaDate(const MTF_DATE_TIME& d) { m_MediaDate = d; }
    const MTF_DATE_TIME& GetMediaWriteDate() const { return m_MediaWriteDate; }
    void SetMediaWriteDate(const MTF_DATE_TIME& d) { m_MediaWriteDate = d; }
    const GUID& GetKELP_Guid() const { return m_KelpGuid; }
    void SetKELP_Guid(const GUID& g) { m_KelpGuid = g; }
    const GUID& GetKLBS_Guid() const { return m_KlbsGuid; }
    void SetKLBS_Guid(const GUID& g) { m_KlbsGuid = g; }
    const wchar_t* GetBackupName() const { return m_wszBackupName; }
    void SetBackupName(const wchar_t* wsz);
    const wchar_t* GetPrimaryName() const { return m_wszPrimaryName; }
    void SetPrimaryName(const wchar_t* wsz);
    bool GetIsIncremental() const { return m_bIsIncremental; }
    void SetIsIncremental(bool b) { m_bIsIncremental = b; }
    const wchar_t* GetMapFileName() const { return m_wszMapFileName; }
    X_MapPlug_e GetMapPlug() const { return m_eMapPlug; }
    X_MapLocale_e GetMapLocale() const { return m_eMapLocale; }
    uint64_t GetOffset() const { return m_iOffset; }
    void SetOffset(uint64_t i) { m_iOffset = i; }
    void SetLength(uint32_t i) { m_iLength = i; }
    uint64_t GetBaseOffset() const { return m_iBaseOffset; }
    void SetBaseOffset(uint64_t i) { m_iBaseOffset = i; }
    uint64_t GetCurrOffset() const { return m_iCurrOffset; }
    int GetFileVersion() const { return m_iFileVersion; }
    uint8_t* GetCurrPointer() const;

    void Protect() { EnterCriticalSection(&m_cs); }
    void Unprotect() { LeaveCriticalSection(&m_cs); }
    int GetRefCount() const { return m_iRefCount; }
    int IncRefCount() { return ++m_iRefCount; }
    int DecRefCount();
    bool GetIsCreated();
    void SetIsCreated(bool b);
    void SetCreatedEvent();
    void WaitForCreatedEvent();
    // Found damaged: out of the pool's lookups (ZR_MapPool::Retire). Under
    // g_MapPool's lock.
    bool GetIsRetired() const { return m_bRetired; }
    void SetIsRetired() { m_bRetired = true; }

protected:
    // The 520 bytes of a 260-character name as it lies in a map file.
    bool ReadFixedName(wchar_t* wszName);
    bool WriteFixedName(const wchar_t* wszName);

    ZR_Backend_e m_eBackend = static_cast<ZR_Backend_e>(0);
    int32_t m_iDataSetNumber = 0;
    uint32_t m_iMediaFamilyId = 0;
    MTF_DATE_TIME m_MediaDate{};
    MTF_DATE_TIME m_MediaWriteDate{};
    GUID m_KelpGuid{};
    GUID m_KlbsGuid{};
    wchar_t m_wszBackupName[MAX_PATH]{};
    wchar_t m_wszPrimaryName[MAX_PATH]{};
    bool m_bIsIncremental = false;
    uint32_t m_iContentSize = 0;
    int32_t m_iFileVersion = 0;
    wchar_t m_wszMapFileName[MAX_PATH]{};
    X_MapPlug_e m_eMapPlug = X_MAPPLUG_STDIO;
    X_MapLocale_e m_eMapLocale = X_MAPLOCALE_NONE;
    uint64_t m_iOffset = 0;
    uint32_t m_iLength = 0;
    uint64_t m_iBaseOffset = 0;
    uint64_t m_iCurrOffset = 0;
    FILE* m_pFile = nullptr;
    uint32_t m_FileHandleOpen = 0;
    HANDLE m_hFile = INVALID_HANDLE_VALUE;
    uint64_t m_iFileSize = 0;
    uint32_t m_MMFHandleOpen = 0;
    HANDLE m_hMMF = INVALID_HANDLE_VALUE;
    uint64_t m_iViewOffset = 0;
    uint32_t m_iViewLength = 0;
    void* m_pView = nullptr;
    CRITICAL_SECTION m_cs;
    int32_t m_iRefCount = 0;
    HANDLE m_hCreatedEvent = nullptr;
    bool m_bIsCreated = false;
    bool m_bRetired = false;  // under g_MapPool's lock

private:
    bool FormName(X_MapLocale_e eLocale);
    bool OpenStreamForRead();
    uint64_t EndOfData() const;
    void CloseMapping(bool& bOk);
};
