#include "support/SyntheticBackup.h"

#include "support/PageFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zrtest {

namespace {

// SQL Server writes with soft filemark blocks of 512 bytes and lays every
// other block, with its streams, out in whole units of 1,024 bytes from the
// block's start; page data starts 1,024 bytes behind its MSDA.
constexpr std::uint32_t kFilemarkSize = 512;
constexpr std::uint32_t kBlockUnit = 1024;
constexpr std::uint32_t kDataOffsetInBlock = 1024;
constexpr std::uint32_t kStreamHeaderSize = 22;
constexpr std::uint16_t kStreamVariable = 2;
constexpr std::uint16_t kStreamVarEnd = 4;
constexpr std::uint16_t kStreamVarPad = 0x80;
constexpr std::uint16_t kLogFileId = 2;

std::uint64_t Round4(std::uint64_t v) { return (v + 3) & ~std::uint64_t(3); }

// A little-endian record under construction.
class Record {
public:
    explicit Record(std::size_t size) : m_bytes(size, 0) {}
    void U8(std::size_t at, std::uint8_t v) { m_bytes.at(at) = v; }
    void U16(std::size_t at, std::uint16_t v) { Put(at, v, 2); }
    void U32(std::size_t at, std::uint32_t v) { Put(at, v, 4); }
    void U64(std::size_t at, std::uint64_t v) { Put(at, v, 8); }
    void Text(std::size_t at, const char* four) { std::memcpy(&m_bytes.at(at), four, 4); }
    void Lsn(std::size_t at, const SyntheticLsn& l) {
        U32(at, l.seqNo);
        U32(at + 4, l.blockOffset);
        U16(at + 8, l.slotId);
    }
    // Year 14 bits, month 4, day 5, hour 5, minute 6, second 6, from the top bit.
    void Date(std::size_t at, int year, int month, int day, int hour, int minute, int second) {
        std::uint64_t v = std::uint64_t(year) << 26 | std::uint64_t(month) << 22 |
                          std::uint64_t(day) << 17 | std::uint64_t(hour) << 12 |
                          std::uint64_t(minute) << 6 | std::uint64_t(second);
        for (int i = 0; i < 5; ++i) U8(at + std::size_t(i), std::uint8_t(v >> (8 * (4 - i))));
    }
    // Appends `s` as UTF-16 and points the tape address at `addrAt` to it;
    // addresses count from the start of the record.
    void String(std::size_t addrAt, const std::string& s) {
        std::size_t at = m_bytes.size();
        for (char c : s) {
            m_bytes.push_back(std::uint8_t(c));
            m_bytes.push_back(0);
        }
        U16(addrAt, std::uint16_t(s.size() * 2));
        U16(addrAt + 2, std::uint16_t(at));
    }
    void PadTo(std::size_t multiple) { m_bytes.resize((m_bytes.size() + multiple - 1) / multiple * multiple, 0); }
    std::vector<std::uint8_t>& Bytes() { return m_bytes; }
    std::size_t Size() const { return m_bytes.size(); }

private:
    void Put(std::size_t at, std::uint64_t v, int width) {
        for (int i = 0; i < width; ++i) m_bytes.at(at + std::size_t(i)) = std::uint8_t(v >> (8 * i));
    }
    std::vector<std::uint8_t> m_bytes;
};

std::uint16_t Xor16(const std::uint8_t* p, int words) {
    std::uint16_t x = 0;
    for (int i = 0; i < words; ++i) x ^= std::uint16_t(p[2 * i] | p[2 * i + 1] << 8);
    return x;
}

std::uint32_t DatabaseVersion(int version) {
    switch (version) {
        case 7: return 515;
        case 8: return 539;
        case 9: return 611;
        default: return 661;
    }
}

struct ExtentRef {
    std::uint16_t fileId;
    std::uint32_t extent;
};

// Writes one stripe file from front to back. Owns the FILE; every write
// moves m_pos, the only cursor.
class StripeEmitter {
public:
    StripeEmitter(const SyntheticOptions& o, const SyntheticBackup& backup, WrittenStripe& out, int stripe)
        : m_o(o), m_backup(backup), m_out(out), m_stripe(stripe) {}

    bool Run(const std::vector<std::vector<ExtentRef>>& shares);
    const std::string& Error() const { return m_error; }

private:
    void Raw(const void* data, std::size_t n);
    void Zeros(std::uint64_t n);
    void Block(Record& r, const char* type, std::uint32_t attributes, std::uint8_t stringType = 2);
    void StreamHeader(const char* id, std::uint16_t mediaAttributes, std::uint64_t length);
    void Stream(const char* id, std::uint16_t mediaAttributes, const std::vector<std::uint8_t>& data);
    void Spad();
    void Apad(std::uint32_t blockLength);

    void Tape();
    void Filemark();
    void DataSet(int set, const std::vector<ExtentRef>& share);
    void StartSet(int set);
    void Config(const char* type, int set);
    std::vector<std::uint8_t> ConfigRecords(int set);
    void Data(int set, const std::vector<ExtentRef>& share);
    void Ph6sRun(int set);
    void LogPart(int set, std::uint32_t logExtents);
    void EndSet(int set);

    const SyntheticOptions& m_o;
    const SyntheticBackup& m_backup;
    WrittenStripe& m_out;
    int m_stripe;
    std::FILE* m_file = nullptr;
    std::uint64_t m_pos = 0;
    std::uint64_t m_region = 0;  // start of the current block's 1,024-byte units
    int m_set = 0;
    bool m_ok = true;
    std::string m_error;
};

void StripeEmitter::Raw(const void* data, std::size_t n) {
    if (n && std::fwrite(data, 1, n, m_file) != n) m_ok = false;
    m_pos += n;
}

void StripeEmitter::Zeros(std::uint64_t n) {
    static const std::uint8_t zeros[4096] = {};
    while (n) {
        std::size_t k = std::size_t(std::min<std::uint64_t>(n, sizeof zeros));
        Raw(zeros, k);
        n -= k;
    }
}

void StripeEmitter::Block(Record& r, const char* type, std::uint32_t attributes, std::uint8_t stringType) {
    r.PadTo(4);
    r.Text(0, type);
    r.U32(4, attributes);
    r.U16(8, std::uint16_t(r.Size()));
    r.U8(10, 14);  // Windows NT
    r.U8(11, 1);
    r.U8(48, stringType);
    r.U16(50, Xor16(r.Bytes().data(), 25));
    m_region = m_pos;
    m_out.blocks.push_back({m_pos, type, m_set});
    m_out.headers.push_back(m_pos);
    Raw(r.Bytes().data(), r.Size());
}

void StripeEmitter::StreamHeader(const char* id, std::uint16_t mediaAttributes, std::uint64_t length) {
    Record h(kStreamHeaderSize);
    h.Text(0, id);
    h.U16(6, mediaAttributes);
    h.U64(8, length);
    h.U16(20, Xor16(h.Bytes().data(), 10));
    m_out.headers.push_back(m_pos);
    Raw(h.Bytes().data(), h.Size());
}

void StripeEmitter::Stream(const char* id, std::uint16_t mediaAttributes, const std::vector<std::uint8_t>& data) {
    StreamHeader(id, mediaAttributes, data.size());
    Raw(data.data(), data.size());
    Zeros(Round4(m_pos) - m_pos);
}

// Pads the block to its next whole unit, leaving room for the pad's header.
void StripeEmitter::Spad() {
    std::uint64_t used = m_pos - m_region + kStreamHeaderSize;
    std::uint64_t end = (used + kBlockUnit - 1) / kBlockUnit * kBlockUnit;
    StreamHeader("SPAD", 0, end - used);
    Zeros(end - used);
}

// Aligns the data of the next stream, behind its 2-byte prefix, to the block's
// data offset.
void StripeEmitter::Apad(std::uint32_t blockLength) {
    std::uint32_t length = kDataOffsetInBlock - 2 * kStreamHeaderSize - 2 - blockLength;
    StreamHeader("APAD", kStreamVarPad, length);
    Zeros(length);
}

void StripeEmitter::Tape() {
    Record r(94);
    r.U32(52, m_o.mediaFamilyId + std::uint32_t(m_stripe));
    r.U32(56, 1 | 4);  // soft filemarks, stripe family
    r.U16(60, 1);
    r.U16(64, kFilemarkSize / 512);
    r.U16(84, kBlockUnit);
    r.U16(86, 0x1200);
    r.Date(88, 2024, 5, 1, 12, 0, 0);
    r.U8(93, 1);
    r.String(80, "Synthetic SQL Server");
    Block(r, "TAPE", 0x30000);
    std::vector<std::uint8_t> raid(32, 0);
    for (int i = 0; i < 16; ++i) raid[std::size_t(i)] = std::uint8_t((m_o.mediaFamilyId >> (8 * (i % 4))) + i);
    auto put32 = [&](std::size_t at, std::uint32_t v) {
        for (int i = 0; i < 4; ++i) raid[at + std::size_t(i)] = std::uint8_t(v >> (8 * i));
    };
    put32(16, 0xF00000AD);
    put32(20, 0x10000u | std::uint32_t(m_o.stripes));
    put32(24, std::uint32_t(m_stripe + 1));
    put32(28, 0x10000);
    Stream("RAID", 0, raid);
    Spad();
}

// A soft filemark block lists the earlier filemarks of the file, newest
// first. Version 10 keeps the array at 72 and says so in the word at 60.
void StripeEmitter::Filemark() {
    bool late = m_o.version >= 10;
    std::size_t arrayAt = late ? 72 : 60;
    std::uint32_t capacity = std::uint32_t((kFilemarkSize - arrayAt) / 8);
    Record r(kFilemarkSize);
    std::uint32_t used = std::uint32_t(std::min<std::size_t>(m_out.filemarks.size(), capacity));
    r.U32(52, capacity);
    r.U32(56, used);
    if (late) r.U32(60, 72);
    for (std::uint32_t i = 0; i < used; ++i)
        r.U64(arrayAt + 8 * i, m_out.filemarks[m_out.filemarks.size() - 1 - i]);
    m_out.filemarks.push_back(m_pos);
    Block(r, "SFMB", late ? 0x80000000u : 0u, 0);
}

void StripeEmitter::StartSet(int set) {
    m_set = set;
    std::uint32_t attributes = m_o.kind == SyntheticKind::Differential ? 8 : 4;
    Record s(98);
    s.U32(52, attributes);
    s.U16(60, 0x1200);
    s.U16(62, std::uint16_t(set));
    s.Date(88, 2024, 5, 1, 12, set, 0);
    s.U8(93, std::uint8_t(m_o.version));
    s.U8(94, m_o.version == 10 ? 50 : 0);
    s.String(64, m_o.databaseName + "-full Database Backup");
    s.String(76, m_o.serverName + "\\Administrator");
    Block(s, "SSET", 0);
    Spad();
    Record v(73);
    v.U32(52, 1 | 4);
    v.Date(68, 2024, 5, 1, 12, set, 0);
    v.String(56, "C:\\Backup");
    v.String(60, m_o.databaseName);
    v.String(64, m_o.serverName);
    Block(v, "VOLB", 0);
    Spad();
}

std::vector<std::uint8_t> StripeEmitter::ConfigRecords(int set) {
    bool longLayout = m_o.version >= 9;
    const auto& files = m_backup.DataFiles();
    std::vector<std::uint8_t> out;
    auto append = [&](Record& r) {
        r.PadTo(2);
        r.U32(4, std::uint32_t(r.Size()));
        out.insert(out.end(), r.Bytes().begin(), r.Bytes().end());
    };
    Record scin(longLayout ? 344 : 240);
    scin.Text(0, "SCIN");
    scin.U32(8, 0x200);
    scin.U32(12, std::uint32_t(files.size()));
    scin.U32(16, 1);
    scin.U32(24, std::uint32_t(m_o.version) << 24 | (m_o.version == 10 ? 50u << 16 : 0u) | 1600);
    scin.Lsn(32, m_o.firstLsn);
    scin.Lsn(42, m_o.lastLsn);
    scin.Lsn(52, m_o.checkpointLsn);
    scin.Lsn(62, m_o.differentialBaseLsn);
    scin.Date(72, 2024, 1, 1, 0, 0, 0);
    scin.Date(77, 2024, 5, 1, 12, set, 0);
    scin.Date(82, 2024, 5, 1, 12, set, 30);
    const char type = m_o.kind == SyntheticKind::Full ? 'D' : m_o.kind == SyntheticKind::Differential ? 'I' : 'L';
    scin.U8(87, std::uint8_t(type));
    scin.U16(92, 5);
    scin.U16(94, std::uint16_t(DatabaseVersion(m_o.version)));
    scin.String(104, m_o.databaseName);
    scin.String(108, m_o.serverName);
    append(scin);
    Record group(longLayout ? 48 : 20);
    group.Text(0, "SFGI");
    group.U16(12, 1);
    group.String(16, "PRIMARY");
    append(group);
    auto fileRecord = [&](std::uint16_t id, std::uint32_t fileType, std::uint64_t size, std::uint32_t pagesHeld,
                          const std::string& name) {
        Record f(longLayout ? 402 : 186);
        f.Text(0, "SFIN");
        f.U32(8, 4);  // present
        f.U32(16, 8192);
        f.U32(20, id);
        f.U32(24, pagesHeld);
        f.U32(28, fileType);
        f.U32(32, 512);
        f.U16(36, fileType == 1 ? 1 : 0);
        f.U64(40, size);
        f.String(48, name);
        f.String(52, "C:\\Data\\" + name + (fileType == 1 ? ".mdf" : ".ldf"));
        f.Lsn(138, SyntheticLsn{1, 1, 1});
        f.Lsn(158, m_o.differentialBaseLsn);
        append(f);
    };
    for (std::size_t i = 0; i < files.size(); ++i) {
        const auto& file = files[i];
        std::uint32_t held = 0;
        for (std::uint32_t e = 0; e * kPagesPerExtent < file.pages; ++e)
            if (m_backup.HoldsExtent(file.fileId, e)) held += kPagesPerExtent;
        const std::uint64_t size = i < m_o.recordedFileSizes.size() ? m_o.recordedFileSizes[i]
                                                                    : std::uint64_t(file.pages) * kPageSize;
        fileRecord(file.fileId, 1, size, held, m_o.databaseName + "_" + std::to_string(file.fileId));
    }
    fileRecord(kLogFileId, 2, std::uint64_t(8) * kExtentSize, 0, m_o.databaseName + "_log");
    return out;
}

void StripeEmitter::Config(const char* type, int set) {
    Record r(56);
    Block(r, type, 0);
    Stream("MQCI", 0, ConfigRecords(set));
    Spad();
}

void StripeEmitter::Data(int set, const std::vector<ExtentRef>& share) {
    Record r(60);
    r.U32(56, kExtentSize);
    Block(r, "MSDA", 0);
    Apad(60);
    bool trailer = m_o.trailer && m_stripe == 0;
    std::uint64_t count = share.size() + (trailer ? 1 : 0);
    StreamHeader("MQDA", kStreamVariable, 2 + count * kExtentSize);
    Zeros(2);
    std::vector<std::uint8_t> extent(kExtentSize);
    for (const ExtentRef& e : share) {
        std::uint32_t first = e.extent * kPagesPerExtent;
        for (std::uint32_t p = 0; p < kPagesPerExtent; ++p)
            m_backup.ExpectedPage(set, e.fileId, first + p, extent.data() + p * kPageSize);
        m_out.extents.push_back({m_pos, e.fileId, first, set});
        Raw(extent.data(), extent.size());
    }
    if (trailer) {
        std::fill(extent.begin(), extent.end(), 0);
        FillTrailerPage(extent.data());
        Raw(extent.data(), extent.size());
    }
    if (m_o.closingDataStream) {
        StreamHeader("MQDA", kStreamVariable | kStreamVarEnd, 0);
        Zeros(2);
    }
    Spad();
}

// A PH6S block, then a run of 512-byte file headers, each followed by its
// data, closed by a header whose data offset is 0.
void StripeEmitter::Ph6sRun(int set) {
    Record r(64);
    r.U32(56, m_o.ph6sFiles);
    r.U32(60, kFilemarkSize);
    Block(r, "PH6S", 0);
    Zeros(kFilemarkSize - r.Size());
    for (std::uint32_t k = 0; k <= m_o.ph6sFiles; ++k) {
        bool closing = k == m_o.ph6sFiles;
        std::uint32_t length = closing ? 0 : 700 + 300 * k;
        Record h(512);
        h.U8(0, 1);
        h.U8(1, 1);
        // The closing header steps to the filemark grid, where the next block stands.
        std::uint64_t end = (m_pos + 2 * kFilemarkSize - 1) / kFilemarkSize * kFilemarkSize;
        h.U32(4, closing ? std::uint32_t(end - m_pos) : 0);
        h.U64(8, length);
        h.U32(52, length);
        h.U32(56, closing ? 0 : 512);
        std::string name = "ph6s_file_" + std::to_string(k);
        for (std::size_t i = 0; i < name.size(); ++i) h.U8(60 + 2 * i, std::uint8_t(name[i]));
        m_out.headers.push_back(m_pos);
        Raw(h.Bytes().data(), h.Size());
        std::vector<std::uint8_t> data(length);
        for (std::uint32_t i = 0; i < length; ++i) data[i] = std::uint8_t(i * 7 + k + std::uint32_t(set));
        Raw(data.data(), data.size());
    }
    Zeros((kFilemarkSize - m_pos % kFilemarkSize) % kFilemarkSize);
    m_region = m_pos;
}

void StripeEmitter::LogPart(int set, std::uint32_t logExtents) {
    bool withLog = m_stripe == 0 && logExtents > 0;
    bool v7 = m_o.version == 7;
    Record r(92 + (v7 ? 32 : 36));
    r.U32(56, kExtentSize);
    r.U64(60, withLog ? 0x10000 : 0);
    r.U64(68, withLog ? 0x10000 + std::uint64_t(logExtents) * kExtentSize : 0);
    r.U32(76, kLogFileId);
    r.U16(80, std::uint16_t(v7 ? 32 : 36));
    r.U16(82, 92);
    r.Date(84, 2024, 1, 1, 0, 0, 0);
    r.U32(92, m_o.firstLsn.seqNo);               // blfh_fSeqNo
    r.U64(96, std::uint64_t(8) * kExtentSize);   // blfh_fileSize
    r.U64(104, 0x2000);                          // blfh_startOffset
    r.U16(112, kLogFileId);
    r.U8(114, 0x40);
    if (!v7) r.Lsn(116, SyntheticLsn{1, 1, 1});
    Block(r, "MSTL", 0);
    if (withLog) {
        std::uint32_t blockLength = std::uint32_t(r.Size());
        Apad(blockLength);
        StreamHeader("MQTL", 0, 2 + std::uint64_t(logExtents) * kExtentSize);
        Zeros(2);
        std::vector<std::uint8_t> log(kExtentSize);
        for (std::uint32_t e = 0; e < logExtents; ++e) {
            for (std::size_t i = 0; i < log.size(); ++i)
                log[i] = std::uint8_t((i >> 3) ^ e ^ std::uint32_t(set) * 31);
            Raw(log.data(), log.size());
        }
    }
    Spad();
}

void StripeEmitter::EndSet(int set) {
    std::uint32_t attributes = m_o.kind == SyntheticKind::Differential ? 8 : 4;
    auto eset = [&] {
        Record e(85);
        e.U32(52, attributes);
        e.U16(78, std::uint16_t(set));
        e.Date(80, 2024, 5, 1, 12, set, 0);
        Block(e, "ESET", 0);
    };
    Filemark();
    eset();
    Stream("OTCP", 0, std::vector<std::uint8_t>(kBlockUnit - 88 - kStreamHeaderSize, 0));
    Stream("TSMP", 0, std::vector<std::uint8_t>(250, 0));
    Spad();
    eset();
    Spad();
    Filemark();
}

void StripeEmitter::DataSet(int set, const std::vector<ExtentRef>& share) {
    StartSet(set);
    Config("MSCI", set);
    if (m_o.kind != SyntheticKind::Log) Data(set, share);
    if (m_o.ph6sFiles) Ph6sRun(set);
    if (m_o.mstl) {
        LogPart(set, m_o.logExtents);
        if (m_o.kind != SyntheticKind::Log) LogPart(set, 0);  // SQL Server closes the log part with an empty one
    }
    Config("MSLS", set);
    EndSet(set);
}

bool StripeEmitter::Run(const std::vector<std::vector<ExtentRef>>& shares) {
    m_file = std::fopen(m_out.path.c_str(), "wb");
    if (!m_file) {
        m_error = "cannot create " + m_out.path.string();
        return false;
    }
    std::vector<char> buffer(1 << 20);
    std::setvbuf(m_file, buffer.data(), _IOFBF, buffer.size());
    Tape();
    Filemark();
    for (int set = 1; set <= m_o.dataSets; ++set) DataSet(set, shares[std::size_t(m_stripe)]);
    if (std::fclose(m_file) != 0) m_ok = false;
    m_file = nullptr;
    m_out.size = m_pos;
    if (!m_ok) m_error = "cannot write " + m_out.path.string();
    return m_ok;
}

// The extents that the backup holds, in database order, dealt out to the
// stripes one transfer buffer at a time.
std::vector<std::vector<ExtentRef>> DealExtents(const SyntheticOptions& o, const SyntheticBackup& b) {
    std::vector<std::vector<ExtentRef>> shares(std::size_t(o.stripes));
    if (o.kind == SyntheticKind::Log) return shares;
    std::uint64_t index = 0;
    for (const auto& f : b.DataFiles()) {
        for (std::uint32_t e = 0; e * kPagesPerExtent < f.pages; ++e) {
            if (!b.HoldsExtent(f.fileId, e)) continue;
            std::size_t stripe = std::size_t(index / o.transferExtents % std::uint64_t(o.stripes));
            shares[stripe].push_back({f.fileId, e});
            ++index;
        }
    }
    return shares;
}

}  // namespace

SyntheticBackup::SyntheticBackup(SyntheticOptions options) : m_options(std::move(options)) {
    for (std::size_t i = 0; i < m_options.filePages.size(); ++i) {
        // File 2 is the log, as in every SQL Server database.
        std::uint16_t id = std::uint16_t(i == 0 ? 1 : i + 2);
        m_files.push_back({id, m_options.filePages[i]});
    }
}

std::filesystem::path SyntheticBackup::StripePath(const std::filesystem::path& first, int stripe) {
    if (stripe == 0) return first;
    auto name = first.stem().string() + "_" + std::to_string(stripe + 1) + first.extension().string();
    return first.parent_path() / name;
}

bool SyntheticBackup::HoldsExtent(std::uint16_t fileId, std::uint32_t extent) const {
    if (m_options.kind == SyntheticKind::Log) return false;
    auto file = std::find_if(m_files.begin(), m_files.end(), [&](const auto& f) { return f.fileId == fileId; });
    if (file == m_files.end() || std::uint64_t(extent) * kPagesPerExtent >= file->pages) return false;
    if (m_options.kind == SyntheticKind::Full) return true;
    if (m_options.differentialExtents) return m_options.differentialExtents(fileId, extent);
    return extent % 3 == 0;
}

void SyntheticBackup::ExpectedPage(int dataSet, std::uint16_t fileId, std::uint32_t page, std::uint8_t* out) const {
    auto file = std::find_if(m_files.begin(), m_files.end(), [&](const auto& f) { return f.fileId == fileId; });
    if (file == m_files.end() || page >= file->pages) {
        std::memset(out, 0, kPageSize);
        return;
    }
    FillSyntheticPage(out, DataSetSeed(dataSet), fileId, page);
}

bool SyntheticBackup::Validate() {
    const auto& o = m_options;
    if (o.version < 7 || o.version > 10) m_error = "version must be 7, 8, 9 or 10";
    else if (o.stripes < 1 || o.stripes > 64) m_error = "stripes must be 1 to 64";
    else if (o.dataSets < 1 || o.dataSets > 1000) m_error = "data sets must be 1 to 1000";
    else if (o.transferExtents < 1) m_error = "a transfer buffer holds at least one extent";
    else if (o.kind != SyntheticKind::Log && o.filePages.empty()) m_error = "a database has at least one data file";
    else if (o.damage.stripe < 0 || o.damage.stripe >= o.stripes) m_error = "damage names a stripe that isn't written";
    return m_error.empty();
}

bool SyntheticBackup::ApplyDamage(WrittenStripe& stripe) {
    const SyntheticDamage& d = m_options.damage;
    std::optional<std::uint64_t> badHeader;
    if (d.badChecksumBlock) {
        if (*d.badChecksumBlock >= stripe.blocks.size()) {
            m_error = "damage names a block that isn't written";
            return false;
        }
        badHeader = stripe.blocks[*d.badChecksumBlock].offset;
    }
    if (d.badLastFilemark) badHeader = stripe.filemarks.back();
    if (badHeader) {
        std::FILE* f = std::fopen(stripe.path.c_str(), "r+b");
        std::uint8_t sum[2];
        bool ok = f && std::fseek(f, long(*badHeader + 50), SEEK_SET) == 0 && std::fread(sum, 1, 2, f) == 2;
        sum[0] ^= 0xA5;
        ok = ok && std::fseek(f, long(*badHeader + 50), SEEK_SET) == 0 && std::fwrite(sum, 1, 2, f) == 2;
        if (f && std::fclose(f) != 0) ok = false;
        if (!ok) {
            m_error = "cannot damage " + stripe.path.string();
            return false;
        }
        stripe.damageOffset = badHeader;
    }
    if (d.truncateAt && *d.truncateAt < stripe.size) {
        std::error_code ec;
        std::filesystem::resize_file(stripe.path, *d.truncateAt, ec);
        if (ec) {
            m_error = "cannot truncate " + stripe.path.string();
            return false;
        }
        stripe.size = *d.truncateAt;
        auto it = std::upper_bound(stripe.headers.begin(), stripe.headers.end(), *d.truncateAt);
        std::uint64_t at = it == stripe.headers.begin() ? 0 : *(it - 1);
        if (!stripe.damageOffset || at < *stripe.damageOffset) stripe.damageOffset = at;
    }
    return true;
}

bool SyntheticBackup::Write(const std::filesystem::path& first) {
    m_stripes.clear();
    m_error.clear();
    if (!Validate()) return false;
    auto shares = DealExtents(m_options, *this);
    m_stripes.resize(std::size_t(m_options.stripes));
    for (int s = 0; s < m_options.stripes; ++s) {
        WrittenStripe& stripe = m_stripes[std::size_t(s)];
        stripe.path = StripePath(first, s);
        StripeEmitter emitter(m_options, *this, stripe, s);
        if (!emitter.Run(shares)) {
            m_error = emitter.Error();
            return false;
        }
    }
    return ApplyDamage(m_stripes[std::size_t(m_options.damage.stripe)]);
}

}  // namespace zrtest
