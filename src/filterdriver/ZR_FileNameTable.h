// The file names that the library hands the driver after a mount (command 4):
// for each data file, the physical name SQL Server will open (name A), the
// virtual name to present it under (name B, "C:\<key>!<n>.mxf" or ".nxf"),
// and its size. Command 6 drops them all.
//
// Threads: every method takes the table's own lock; entries are handed out
// as copies.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

struct ZR_FileNameEntry {
    std::wstring strNameA;     // as the library sent it
    std::wstring strNameB;     // as the library sent it
    uint64_t iFileSize = 0;    // the size the backup records for the file
    std::wstring strKey;       // the mount key in name B, with its doubled quotes made single
    uint32_t iFileNumber = 0;  // SQL Server's file number, n in name B
    bool bPrimary = false;     // ".mxf": data file number 1

    // The sparse file behind the data file: "%s\%s!%u.%hs" with the folder,
    // key, number and "mcf" (primary) or "ncf", as the library names it.
    std::wstring SparseName(const std::wstring& strFolder) const;
};

class ZR_FileNameTable {
public:
    // Takes one command 4. A message that does not hold two names within its
    // bytes, or whose name B is not a virtual data file name, is refused
    // with false and the reason in the error chain. A later message for the
    // same name A replaces the entry.
    bool Add(const void* pMessage, uint32_t cbMessage);
    // The entry whose name A is wszName, compared without regard to case.
    bool Find(const wchar_t* wszName, ZR_FileNameEntry* pOut);
    void Clear();

    // Splits a name B into key, number and kind; false if it has not the
    // form "<drive>:\<key>!<n>.mxf" (or ".nxf", any case).
    static bool ParseVirtualName(const std::wstring& strNameB, ZR_FileNameEntry* pEntry);

private:
    std::mutex m_lock;
    std::map<std::wstring, ZR_FileNameEntry> m_Entries;  // by name A in lower case
};
