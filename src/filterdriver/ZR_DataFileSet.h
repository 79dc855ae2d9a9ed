// The data files that SQL Server has open through the driver, one
// ZR_DataFile for each sparse file however often it is opened, found by
// the sparse file's name or by the uniquifier that the commands of
// hydration name it by.
//
// Threads: any; one lock guards the table. A file's first open (sparse
// file and bitmap) and its last close run under it, so an open never finds
// a file half made or half closed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "filterdriver/ZR_DataFile.h"

class ZR_DataFileSet {
public:
    // The open file of this sparse name with one use more, or a new one,
    // opened, with a uniquifier of its own.
    ZR_HostStatus Acquire(const ZR_FileNameEntry& names, const std::wstring& strSparsePath,
                          std::shared_ptr<ZR_DataFile>* ppFile);
    // One use less. The last use closes the file (its bitmap stored) and,
    // if any use asked for it, deletes the sparse file and the bitmap.
    void Release(const std::shared_ptr<ZR_DataFile>& pFile, bool bDeleteOnClose);
    // Null for a uniquifier no open file has.
    std::shared_ptr<ZR_DataFile> Find(const FileObjectUniquifier& uniquifier);
    std::vector<std::shared_ptr<ZR_DataFile>> All();
    // Closes every file, storing the bitmaps when bFlush.
    void CloseAll(bool bFlush);

private:
    struct Entry {
        std::shared_ptr<ZR_DataFile> pFile;
        uint32_t iUses = 0;
        bool bDeleteOnClose = false;
    };
    std::mutex m_cs;
    std::map<std::wstring, Entry> m_Files;  // by sparse file name
    uint32_t m_iSerial = 0;
};
