// The files the driver knows by a 32-bit key that the library gave it: a
// virtual backup file (opened through ZR::CreateFileW) or a data file of a
// mount (made known through ZR::AssociateFileW). It maps a key to what the
// library knows of the file and a name to its key, counts the opens of a name
// so that they share one entry, and carries out the close, a delete on close
// included.
//
// The key is hashlittle (driver/Lookup3.h) of the name's UTF-16LE bytes
// without the terminator, initval 0: upper-cased on the create road, in the
// driver's spelling on the association road. The same name always gives the
// same key, so the entries brought back after a restart of the service have
// the keys the driver already holds.
//
// Threads: every call takes the collection's spin lock, and holds it while
// the ZR call it makes runs: the collection's lock comes before the library
// lock, and nothing that holds the library lock may call in here.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "driver/DriverMessages.h"
#include "platform/win32.h"

class ZR;

struct FileCollectionEntry {
    std::wstring m_strName;
    uint32_t m_iUseCount = 0;  // opens not yet closed
    uint32_t m_iKey = 0;
    // A virtual backup file's handle from ZR::CreateFileW, or a data file's
    // SQL Server file id from ZR::AssociateFileW.
    uint64_t m_hFile = 0;
};

class FileCollection {
public:
    FileCollection() = default;
    FileCollection(const FileCollection&) = delete;
    FileCollection& operator=(const FileCollection&) = delete;

    // Opens a virtual backup file by its name, or counts one more open of a
    // name already there. *piKey is 0xFFFFFFFF unless it succeeds. bReopen
    // brings back a file that was open before the service started: its entry
    // starts with no open to match, so the driver's next create counts 1.
    HRESULT createProc(ZR* pZR, const wchar_t* wszName, bool bReopen, unsigned* piKey);
    // Associates the data file of a create operation whose second name is
    // set, and counts an open of its entry. E_FAIL when ZR refuses it.
    HRESULT associateProc(ZR* pZR, const ZR_CreateOperation* pMessage, unsigned* piKey);
    // One close of the file of iKey, deleting the data file first when asked
    // (even if other opens remain). The entry goes with its last open; the
    // handle stays with ZR. 0x80070006 for an unknown key.
    HRESULT CloseFile(ZR* pZR, unsigned iKey, bool bDeleteOnClose);
    // The file's name, empty for an unknown key.
    std::wstring GetFileName(unsigned iKey);
    // The entry's m_hFile, or INVALID_HANDLE_VALUE for an unknown key.
    HANDLE GetFileHandle(unsigned iKey);

    // The key of a name, as it stands.
    static uint32_t KeyOf(const std::wstring& strName);

private:
    class Guard;
    FileCollectionEntry* Find(unsigned iKey);
    // False, with the reason traced, when another name holds the key.
    bool IsKeyFree(uint32_t iKey, const std::wstring& strName);
    void Add(const std::wstring& strName, uint32_t iKey, uint32_t iUseCount, uint64_t hFile);
    void Remove(FileCollectionEntry* pEntry);

    std::map<std::wstring, std::unique_ptr<FileCollectionEntry>> m_ByName;  // owns the entries
    std::map<uint32_t, FileCollectionEntry*> m_ByKey;
    volatile long m_iLock = 0;  // 0 free, 1 held
};
