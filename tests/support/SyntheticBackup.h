// A writer of Microsoft Tape Format backups as SQL Server lays them out, built
// from parameters, for the cases that the real backups of the test data lack
// (versions 7 and 8, many files, many stripes, appended data sets, damage)
// and for files of any size in benchmarks.
//
// It shares no code with the library: every record layout is written out here
// again. The output streams straight to disk, page by page, so a multi-GB file
// costs about what the disk costs. What was written is reported back (offsets
// of blocks, of each extent, the filemarks, where a damage lies) so that a test
// can hold a reader against it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zrtest {

enum class SyntheticKind { Full, Differential, Log };

struct SyntheticLsn {
    std::uint32_t seqNo = 0;
    std::uint32_t blockOffset = 0;
    std::uint16_t slotId = 0;
};

// Damage on request. Each applies to one stripe file.
struct SyntheticDamage {
    int stripe = 0;
    // Index, in the order of writing, of a block of that stripe whose header
    // checksum is made wrong (0 is the TAPE block).
    std::optional<std::size_t> badChecksumBlock{};
    // The last soft filemark block of the file gets a wrong header checksum.
    bool badLastFilemark = false;
    // The file is cut to this many bytes.
    std::optional<std::uint64_t> truncateAt{};
};

struct SyntheticOptions {
    int version = 10;                        // record layouts of SQL Server 7, 8, 9 or 10
    SyntheticKind kind = SyntheticKind::Full;
    std::string databaseName = "Synthetic";
    std::string serverName = "SYNTH\\SQL";
    std::vector<std::uint32_t> filePages = {64};  // pages of each data file
    // The size the configuration records for each data file, where given,
    // in place of its pages: a file far larger than what the backup holds.
    std::vector<std::uint64_t> recordedFileSizes{};
    std::uint32_t logExtents = 1;            // 64 KiB runs of log in the MQTL data
    bool mstl = true;                        // false leaves out the MSTL blocks, log and all
    int stripes = 1;
    int dataSets = 1;
    std::uint32_t seed = 1;                  // pages of data set d use seed + d - 1
    std::uint32_t transferExtents = 1;       // extents per transfer buffer, the unit spread over stripes
    std::uint32_t ph6sFiles = 0;             // files described by a PH6S run in each data set
    bool trailer = true;                     // a dump trailer extent ends the data of the first stripe
    bool closingDataStream = true;           // false: each MSDA holds its one data stream and no empty one behind it
    SyntheticLsn firstLsn{20, 100, 1};
    SyntheticLsn lastLsn{20, 200, 1};
    SyntheticLsn checkpointLsn{20, 100, 1};
    SyntheticLsn differentialBaseLsn{};      // zero for a full backup
    std::uint32_t mediaFamilyId = 0x5EED0001;
    // A differential holds the extents for which this is true; empty means
    // the first extent of each file and every third one after it.
    std::function<bool(std::uint16_t fileId, std::uint32_t extent)> differentialExtents{};
    SyntheticDamage damage{};
};

struct WrittenBlock {
    std::uint64_t offset = 0;
    std::string type;            // four letters
    int dataSet = 0;             // 0 before the first SSET
};

struct WrittenExtent {
    std::uint64_t offset = 0;    // of the extent's first page byte in the stripe file
    std::uint16_t fileId = 0;
    std::uint32_t firstPage = 0;
    int dataSet = 0;
};

struct WrittenStripe {
    std::filesystem::path path;
    std::uint64_t size = 0;                   // after any truncation
    std::vector<WrittenBlock> blocks;
    std::vector<std::uint64_t> headers;      // start of every block, stream and PH6S record
    std::vector<WrittenExtent> extents;       // data extents, trailer excluded
    std::vector<std::uint64_t> filemarks;     // every SFMB, in file order
    std::optional<std::uint64_t> damageOffset; // where a walker must meet the damage
};

struct SyntheticDataFile {
    std::uint16_t fileId = 0;
    std::uint32_t pages = 0;
};

class SyntheticBackup {
public:
    explicit SyntheticBackup(SyntheticOptions options);

    // Writes the stripe files: `first`, then first with "_2", "_3"... before
    // the extension. False with Error() set when a file can't be written or
    // the options make no backup.
    bool Write(const std::filesystem::path& first);

    const std::vector<WrittenStripe>& Stripes() const { return m_stripes; }
    const std::vector<SyntheticDataFile>& DataFiles() const { return m_files; }
    const std::string& Error() const { return m_error; }

    // Whether the backup holds extent `extent` of `fileId`.
    bool HoldsExtent(std::uint16_t fileId, std::uint32_t extent) const;

    // The seed of the pages of a data set.
    std::uint32_t DataSetSeed(int dataSet) const { return m_options.seed + std::uint32_t(dataSet - 1); }

    // The page bytes that the backup holds for (file id, page number) in a data
    // set; pages past the end of a file's last extent are zero.
    void ExpectedPage(int dataSet, std::uint16_t fileId, std::uint32_t page, std::uint8_t* out) const;

    static std::filesystem::path StripePath(const std::filesystem::path& first, int stripe);

private:
    bool Validate();
    bool ApplyDamage(WrittenStripe& stripe);

    SyntheticOptions m_options;
    std::vector<SyntheticDataFile> m_files;
    std::vector<WrittenStripe> m_stripes;
    std::string m_error;
};

}  // namespace zrtest
