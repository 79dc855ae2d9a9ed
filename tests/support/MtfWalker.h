// An independent walker of Microsoft Tape Format backups for test code. It
// checks what a reader of SQL Server backups relies on (every block and
// stream header checksum, the order of the blocks, stream lengths, pads, the
// soft filemark arrays) and collects the data streams and the configuration,
// stopping at the first fault with its offset. It reads real backups, the
// synthetic writer's output and the library's virtual views alike, from a
// file or from bytes; it shares no code with the library.
//
// NaiveRestore builds on it the reference that every page served by a mount
// is compared with: each 64 KiB extent of the data streams placed by the page
// id in its first page header, a later backup (the differential) over an
// earlier one (the full).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zrtest {

// Where the walker reads from. Reads outside [0, Size()) fail.
class MtfSource {
public:
    virtual ~MtfSource() = default;
    virtual std::uint64_t Size() const = 0;
    virtual bool Read(std::uint64_t offset, void* out, std::size_t length) const = 0;

    static std::unique_ptr<MtfSource> FromFile(const std::filesystem::path& path);
    // The bytes must outlive the source.
    static std::unique_ptr<MtfSource> FromBytes(const std::uint8_t* data, std::size_t size);
};

struct MtfLsn {
    std::uint32_t seqNo = 0;
    std::uint32_t blockOffset = 0;
    std::uint16_t slotId = 0;
    bool operator==(const MtfLsn&) const = default;
};

struct MtfSqlFile {
    std::uint32_t fileId = 0;
    std::uint32_t fileType = 0;     // 1 data, 2 log
    std::uint32_t flags = 0;
    std::uint32_t backedUpPages = 0;
    std::uint64_t fileSize = 0;
    MtfLsn differentialBaseLsn;
    std::string logicalName;
    std::string physicalName;
};

struct MtfSqlConfig {
    bool present = false;
    std::uint64_t streamOffset = 0;  // of the MQCI stream header
    std::uint32_t serverVersion = 0;
    int version = 0;                 // serverVersion >> 24
    char backupType = 0;             // 'D', 'I', 'L', ...
    std::uint32_t dataFileCount = 0;
    std::uint32_t logFileCount = 0;
    MtfLsn firstLsn, lastLsn, checkpointLsn, differentialBaseLsn;
    std::string databaseName;
    std::string serverName;
    std::vector<MtfSqlFile> files;   // dropped files left out
};

// Readable content of an MQDA or MQTL stream, behind its 2-byte prefix.
struct MtfDataRun {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    int dataSet = 0;
};

struct MtfDataSet {
    int number = 0;
    std::uint32_t ssetAttributes = 0;
    int softwareMajorVersion = 0;
    MtfSqlConfig msci;
    MtfSqlConfig msls;
    std::vector<MtfDataRun> data;       // MQDA streams
    std::vector<MtfDataRun> log;        // MQTL streams
    std::uint32_t ph6sHeaders = 0;      // file headers of PH6S runs, closing ones excluded
    bool closed = false;                // the filemark behind its ESET was met
};

struct MtfBlockInfo {
    std::uint64_t offset = 0;
    std::string type;
    int dataSet = 0;
};

struct MtfRaid {
    bool present = false;
    std::uint32_t raidType = 0;
    std::uint32_t deviceCount = 0;   // the whole word: 1 << 16 | stripes as SQL Server writes it
    std::uint32_t sequenceNumber = 0;
    std::uint32_t Stripes() const { return deviceCount & 0xFFFF; }
};

struct MtfWalk {
    bool ok = false;
    std::uint64_t faultOffset = 0;
    std::string fault;                  // empty when ok
    std::uint64_t size = 0;
    std::uint32_t mediaFamilyId = 0;
    std::uint32_t softFilemarkSize = 0;
    MtfRaid raid;
    std::vector<MtfBlockInfo> blocks;
    std::vector<std::uint64_t> filemarks;
    std::vector<std::size_t> filemarkArrayOffsets;  // 60 or 72, for each filemark
    std::vector<MtfDataSet> dataSets;

    const MtfDataSet* DataSet(int number) const;
};

class MtfWalker {
public:
    static MtfWalk Walk(const MtfSource& source);
    static MtfWalk WalkFile(const std::filesystem::path& path);
    static MtfWalk WalkBytes(const std::vector<std::uint8_t>& bytes);
};

// Every whole 64 KiB extent of a data run as a restore places it: by the
// file id and page number in its first page header. Extents whose first page
// is no page (header version other than 1, or file id 0) are passed over; a
// page of type 100 or above (dump header or trailer) ends the run. False,
// with *pError, when the source cannot be read.
using ExtentVisitor = std::function<void(std::uint16_t fileId, std::uint32_t firstPage, const std::uint8_t* extent)>;
bool ForEachExtent(const MtfSource& source, const MtfDataRun& run, const ExtentVisitor& visit, std::string* pError);

// Page bytes by (file id, page number), built from whole backups.
class NaiveRestore {
public:
    // Places the extents of one data set of a backup given by all its stripe
    // files, over whatever earlier calls placed. False, with Error(), when a
    // file doesn't walk clean or the data set isn't there.
    bool Apply(const std::vector<std::filesystem::path>& stripes, int dataSet = 1);

    // The page, or null when no backup held it.
    const std::uint8_t* Page(std::uint16_t fileId, std::uint32_t page) const;
    std::size_t ExtentCount() const { return m_extents.size(); }
    // (file id, first page) of every extent placed, in order.
    std::vector<std::pair<std::uint16_t, std::uint32_t>> Extents() const;
    const std::string& Error() const { return m_error; }

private:
    std::map<std::pair<std::uint16_t, std::uint32_t>, std::vector<std::uint8_t>> m_extents;
    std::string m_error;
};

}  // namespace zrtest
