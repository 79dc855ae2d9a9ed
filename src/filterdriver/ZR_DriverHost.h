// The host side of the embedded driver: the calls that SQL Server's file
// I/O makes on the names the driver serves. Tests drive a mount through
// them, and the FUSE front puts one call behind each kernel request.
//
// Two kinds of names are served:
// - a data file: a physical name that command 4 announced (name A), in any
//   case. Its bytes live in a sparse file of the driver; opening it tells
//   the library (an association, operation 1 with names A and B and the
//   file's uniquifier). Reads of pages that are not yet present are held
//   until the library has supplied them (operation 3, then the read's
//   completion); the pages it supplies are kept, so no page is fetched
//   twice. Writes go to the sparse file.
// - a virtual backup file (".bxk", ".kxlp"): every byte comes from the
//   library (a plain create, then operation 3 for each read).
// Any other name is not found.
//
// Results are ZR_HostStatus values (NTSTATUS, or the library's own failure
// code passed through); ZR_HostStatusToErrno turns them into errno values.
// Every wait for the library has the driver's time limit; a driver that
// stops, or a library that goes away, ends the waits with a failure.
//
// Threads: every call may come from many threads at once, on one handle or
// on several. A handle is valid from Open to Close; a closed or unknown
// handle gives kHostInvalidHandle. After the driver stopped every call
// gives kHostDriverStopped.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "driver/DriverMessages.h"
#include "filterdriver/ZR_DataFile.h"
#include "filterdriver/ZR_HostStatus.h"

class ZR_FilterDriver;
struct ZR_HeldRead;

using ZR_HostHandle = uint64_t;  // never 0

class ZR_DriverHost {
public:
    explicit ZR_DriverHost(ZR_FilterDriver& driver) : m_Driver(driver) {}
    ZR_DriverHost(const ZR_DriverHost&) = delete;
    ZR_DriverHost& operator=(const ZR_DriverHost&) = delete;

    // Opens a name: creates the data file's sparse file on its first open
    // (with the size command 4 gave), and tells the library.
    ZR_HostStatus Open(const wchar_t* wszName, ZR_HostHandle* phFile);
    // Reads up to cbBuffer bytes at iOffset; *pcbRead receives the bytes
    // read, fewer at the end of the file and 0 at or past it.
    ZR_HostStatus Read(ZR_HostHandle hFile, uint64_t iOffset, void* pBuffer, uint32_t cbBuffer, uint32_t* pcbRead);
    // Data files only. The file grows when the bytes reach past its end;
    // a page that the bytes cover only in part is read in first.
    ZR_HostStatus Write(ZR_HostHandle hFile, uint64_t iOffset, const void* pBuffer, uint32_t cbBuffer);
    // A data file: its size, as command 4 gave it or as it was set since.
    // A virtual backup file: the size of the view (operation 5, class 5).
    ZR_HostStatus QuerySize(ZR_HostHandle hFile, uint64_t* piSize);
    // The position the library keeps for the file (operation 5, class 14).
    ZR_HostStatus QueryPosition(ZR_HostHandle hFile, uint64_t* piPosition);
    // Data files only: pages that grow in hold zeros. A data file never
    // becomes smaller than the size command 4 gave.
    ZR_HostStatus SetSize(ZR_HostHandle hFile, uint64_t iSize);
    // Tells the library (operation 6); a data file's pages and bitmap reach
    // the disk.
    ZR_HostStatus Flush(ZR_HostHandle hFile);
    // Tells the library (operation 2) and ends the handle in any case. The
    // last close of a data file stores its bitmap; with bDeleteOnClose on
    // any of its handles, its sparse file and bitmap go.
    ZR_HostStatus Close(ZR_HostHandle hFile, bool bDeleteOnClose);

    // The driver stops: every handle ends, without telling the library.
    void CloseAll();

    // Sends one operation as it stands (its head but the message id and
    // reply length filled in) and waits for the reply: the failure of the
    // exchange, else the reply's result. What the calls above send, open to
    // tools and tests that probe the library with operations of their own.
    ZR_HostStatus Operate(const void* pMessage, size_t cbMessage, ZR_OperationReply* pReply);

private:
    struct OpenFile {
        std::wstring strName;
        ZR_FileInfoPair Info{};
        std::shared_ptr<ZR_DataFile> pData;           // null for a virtual backup file
        std::atomic<uint64_t> iViewSize{UINT64_MAX};  // virtual backup file, once asked
    };
    // A stretch of pages fetched that the sparse file could not keep.
    struct Unstored {
        uint64_t iFirstPage;
        uint32_t iCount;
        uint8_t aBitmap[kLiveBitmapBytes];
        std::shared_ptr<ZR_HeldRead> pRead;
    };

    std::shared_ptr<OpenFile> Find(ZR_HostHandle hFile);
    ZR_HostHandle Keep(std::shared_ptr<OpenFile> pFile);
    ZR_HostStatus OpenDataFile(const ZR_FileNameEntry& names, ZR_HostHandle* phFile);
    ZR_HostStatus OpenVirtualFile(const wchar_t* wszName, ZR_HostHandle* phFile);
    ZR_HostStatus Query(const OpenFile& file, uint32_t iClass, ZR_OperationReply* pReply);
    ZR_HostStatus ViewSize(OpenFile& file, uint64_t* piSize);
    // Operation 3 for bytes [iOffset, iOffset + cb), held until its
    // completion; *ppRead holds the bytes.
    ZR_HostStatus LiveRead(const OpenFile& file, uint64_t iOffset, uint32_t cb, const uint8_t* pBitmap,
                           std::shared_ptr<ZR_HeldRead>* ppRead);
    // Fetches the absent pages of [iFirst, iEnd) and keeps them. Stretches
    // that could not be kept go to paUnstored; without it, that is a failure.
    ZR_HostStatus FetchMissing(const OpenFile& file, uint64_t iFirst, uint64_t iEnd, std::vector<Unstored>* paUnstored);
    ZR_HostStatus ReadData(const OpenFile& file, uint64_t iOffset, uint8_t* p, uint32_t cb, uint32_t* pcbRead);
    ZR_HostStatus ReadVirtual(OpenFile& file, uint64_t iOffset, uint8_t* p, uint32_t cb, uint32_t* pcbRead);

    ZR_FilterDriver& m_Driver;
    std::mutex m_cs;  // guards the table
    std::map<ZR_HostHandle, std::shared_ptr<OpenFile>> m_Files;
    ZR_HostHandle m_iNextHandle = 1;
};
