// SQL Server's part in tests: it runs the RESTORE statements of a mount
// and then reads the database's pages, through a SqlFileIo. It shares no
// parsing code with the library: the statement text is read here, and the
// views with the test walker (MtfWalker.h).
//
// A RESTORE reads each view named FROM DISK= whole, from offset 0 to its
// end, in the sizes a restore uses (a first read of 64 KiB, then 1 MiB
// reads), and walks it: checksums, block order and stream lengths must be
// clean. (A log backup's view ends where the real file's closing filemark
// block begins, behind the data set's ESET: that end is accepted for a log
// backup alone.) For a data backup it then makes the data files that the view's
// file records list (at the record's physical name, or at the target of a
// MOVE of its logical name), sizes them as the records say, and writes
// every extent of the view's data streams at page id x 8,192 from its first
// page header. The data set is the one of WITH FILE = n, 1 by default. A log
// backup cannot be applied here: its restore is the read of its view. Log
// files are not written at all: the driver does not serve them, and nothing
// here reads them back.
//
// Threads: Restore, OpenDataFiles and CloseDataFiles from one thread;
// ReadData and DataFileSize from any number of threads between
// OpenDataFiles and CloseDataFiles.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/MtfWalker.h"
#include "support/SqlFileIo.h"

namespace zrtest {

// The options of a RESTORE that the emulator acts on.
struct RestoreOptions {
    int iFile = 1;                               // WITH FILE = n: the data set
    std::map<std::wstring, std::wstring> moves;  // MOVE 'logical' TO 'target', logical in lower case
};

// One file of a backup's stripe set, by a name for messages.
struct BackupStripe {
    std::wstring strName;
    std::unique_ptr<MtfSource> pSource;
};

class SqlServerEmulator {
public:
    struct DataFile {
        std::wstring strName;         // where the restore put it
        std::uint64_t iRecordedSize;  // the view's file record says
        SqlHandle hFile = 0;
        bool bOpen = false;
    };

    static constexpr std::uint32_t kFirstViewRead = 0x10000;
    static constexpr std::uint32_t kViewRead = 0x100000;

    explicit SqlServerEmulator(SqlFileIo& io) : m_io(io) {}
    ~SqlServerEmulator() { CloseDataFiles(); }
    SqlServerEmulator(const SqlServerEmulator&) = delete;
    SqlServerEmulator& operator=(const SqlServerEmulator&) = delete;

    // Runs one RESTORE statement; false, with Error(), at the first fault.
    bool Restore(const std::wstring& strStatement);
    // The same from the stripes as they stand, without reading views: the
    // naive restore of a backup's own files.
    bool Restore(const std::vector<BackupStripe>& stripes, const RestoreOptions& options);
    // The data files of the last data backup restored, by file id.
    const std::map<std::uint16_t, DataFile>& DataFiles() const { return m_files; }

    // Opens every data file for the database's reads; false, with Error(),
    // when one does not open.
    bool OpenDataFiles();
    // -1 for a file id that is not open.
    std::int32_t ReadData(std::uint16_t iFileId, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                          std::uint32_t* pcbRead);
    std::int32_t DataFileSize(std::uint16_t iFileId, std::uint64_t* piSize);
    void CloseDataFiles();

    const std::string& Error() const { return m_error; }
    // The views read so far, and the bytes of each.
    const std::vector<std::pair<std::wstring, std::uint64_t>>& ViewsRead() const { return m_views; }

private:
    bool Fail(const std::string& strWhy);
    bool ReadView(const std::wstring& strName, std::vector<std::uint8_t>* pBytes);
    bool MakeDataFiles(const MtfSqlConfig& config, const std::map<std::wstring, std::wstring>& moves);
    bool WriteExtents(const MtfSource& source, const MtfDataSet& set);

    SqlFileIo& m_io;
    std::map<std::uint16_t, DataFile> m_files;
    std::vector<std::pair<std::wstring, std::uint64_t>> m_views;
    std::string m_error;
};

}  // namespace zrtest
