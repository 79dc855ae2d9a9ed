#include "support/MtfWalker.h"

#include "support/PageFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zrtest {

namespace {

constexpr std::size_t kBlockHeaderSize = 52;
constexpr std::size_t kStreamHeaderSize = 22;
constexpr std::size_t kBlockReadLimit = 4096;
constexpr std::uint64_t kConfigLimit = 16u << 20;
constexpr std::uint32_t kRaidType = 0xF00000AD;
constexpr std::uint32_t kFileDropped = 0x20;

const char* const kBlockTypes[] = {"TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB", "ESET",
                                   "EOTM", "SFMB", "MSCI", "MSDA", "MSTL", "MSLS", "PH6S"};
const char* const kStreamTypes[] = {"ADAT", "APAD", "CRPT", "CSUM", "FDD2", "FNAM", "GERC", "MAP2",
                                    "MINF", "MPRV", "MQCI", "MQDA", "MQLS", "MQSS", "MQTL", "MRSC",
                                    "N286", "N386", "NACL", "NTEA", "O2EA", "OACL", "OTCP", "PNAM",
                                    "RAID", "SCRC", "SMSD", "SPAD", "STAN", "TFDD", "TSMP"};

template <std::size_t N>
bool OneOf(const std::string& id, const char* const (&list)[N]) {
    return std::any_of(std::begin(list), std::end(list), [&](const char* t) { return id == t; });
}

std::uint16_t U16(const std::uint8_t* p) { return std::uint16_t(p[0] | p[1] << 8); }
std::uint32_t U32(const std::uint8_t* p) { return std::uint32_t(U16(p)) | std::uint32_t(U16(p + 2)) << 16; }
std::uint64_t U64(const std::uint8_t* p) { return std::uint64_t(U32(p)) | std::uint64_t(U32(p + 4)) << 32; }
MtfLsn Lsn(const std::uint8_t* p) { return {U32(p), U32(p + 4), U16(p + 8)}; }

std::uint16_t Xor16(const std::uint8_t* p, int words) {
    std::uint16_t x = 0;
    for (int i = 0; i < words; ++i) x ^= U16(p + 2 * i);
    return x;
}

std::string Printable(const std::string& id) {
    std::string s;
    for (char c : id) s += (c >= 32 && c < 127) ? c : '?';
    return s;
}

std::string Hex(std::uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v));
    return buf;
}

class FileSource : public MtfSource {
public:
    explicit FileSource(const std::filesystem::path& path) : m_file(std::fopen(path.c_str(), "rb")) {
        std::error_code ec;
        if (m_file) m_size = std::filesystem::file_size(path, ec);
    }
    ~FileSource() override {
        if (m_file) std::fclose(m_file);
    }
    std::uint64_t Size() const override { return m_size; }
    bool Read(std::uint64_t offset, void* out, std::size_t length) const override {
        if (!m_file || offset > m_size || length > m_size - offset) return false;
        return std::fseek(m_file, long(offset), SEEK_SET) == 0 && std::fread(out, 1, length, m_file) == length;
    }

private:
    std::FILE* m_file;
    std::uint64_t m_size = 0;
};

class BytesSource : public MtfSource {
public:
    BytesSource(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    std::uint64_t Size() const override { return m_size; }
    bool Read(std::uint64_t offset, void* out, std::size_t length) const override {
        if (offset > m_size || length > m_size - offset) return false;
        std::memcpy(out, m_data + offset, length);
        return true;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

// One walk over one source: the cursor, where in the order of blocks the walk
// stands, and the result it fills.
class Walker {
public:
    explicit Walker(const MtfSource& source) : m_src(source) {}
    MtfWalk Run();

private:
    enum class Phase { Opening, Between, InSet, AfterEset };

    bool Fail(std::uint64_t at, const std::string& what);
    bool Step();
    bool Block(const std::string& type);
    bool CheckOrder(const std::string& type);
    bool Tape(const std::uint8_t* b);
    bool Filemark(const std::uint8_t* b, std::size_t have);
    bool StartSet(const std::uint8_t* b);
    bool Ph6sRun(std::uint64_t blockAt, const std::uint8_t* b);
    bool Stream(const std::string& id);
    bool StreamContent(const std::string& id, std::uint64_t at, std::uint64_t length);
    bool Config(std::uint64_t at, std::uint64_t length);
    bool ConfigRecord(const std::uint8_t* r, std::uint32_t size, std::uint64_t at, MtfSqlConfig& c);
    bool Name(const std::uint8_t* r, std::uint32_t size, std::size_t addrAt, std::uint64_t at, std::string& out);
    int KnownVersion() const;

    const MtfSource& m_src;
    MtfWalk m_w;
    std::uint64_t m_pos = 0;
    Phase m_phase = Phase::Opening;
    std::string m_parent;          // block that owns the streams being read
    std::string m_lastBlock;
    bool m_expectBlock = false;    // behind an SPAD
    bool m_expectStream = false;   // behind an APAD
    bool m_seenMsci = false, m_seenMsda = false, m_seenMstl = false, m_seenMsls = false;
};

bool Walker::Fail(std::uint64_t at, const std::string& what) {
    m_w.faultOffset = at;
    m_w.fault = what;
    return false;
}

MtfWalk Walker::Run() {
    m_w.size = m_src.Size();
    char magic[4] = {};
    if (!m_src.Read(0, magic, 4)) {
        Fail(0, "file too short to be a backup");
        return m_w;
    }
    if (std::string(magic, 4) != "TAPE") {
        Fail(0, "not a Microsoft Tape Format backup: it starts with \"" + Printable(std::string(magic, 4)) + "\"");
        return m_w;
    }
    while (m_pos < m_w.size)
        if (!Step()) return m_w;
    if (m_expectStream) Fail(m_pos, "file ends behind an alignment pad");
    else if (m_w.dataSets.empty()) Fail(m_pos, "backup holds no data set");
    else if (m_phase != Phase::Between) Fail(m_pos, "backup ends inside data set " + std::to_string(m_w.dataSets.back().number));
    else m_w.ok = true;
    return m_w;
}

bool Walker::Step() {
    char raw[4];
    if (!m_src.Read(m_pos, raw, 4)) return Fail(m_pos, "header runs past the end of the file");
    std::string id(raw, 4);
    if (OneOf(id, kBlockTypes)) return Block(id);
    if (OneOf(id, kStreamTypes)) return Stream(id);
    return Fail(m_pos, "Header type " + std::to_string(U32(reinterpret_cast<std::uint8_t*>(raw))) + " (\"" +
                           Printable(id) + "\") is not supported");
}

int Walker::KnownVersion() const {
    if (m_w.dataSets.empty()) return 0;
    const MtfDataSet& s = m_w.dataSets.back();
    return s.msci.present ? s.msci.version : 0;
}

bool Walker::Block(const std::string& type) {
    std::uint64_t at = m_pos;
    std::uint8_t b[kBlockReadLimit] = {};
    if (!m_src.Read(at, b, kBlockHeaderSize)) return Fail(at, "block header runs past the end of the file");
    std::uint16_t sum = Xor16(b, 25);
    if (sum != U16(b + 50))
        return Fail(at, "DBLK Corruption: " + type + " header checksum " + Hex(U16(b + 50)) + ", computed " + Hex(sum));
    std::uint64_t length = U16(b + 8);
    if (type == "SFMB" && length == 0) length = 0x10000;
    if (length < kBlockHeaderSize) return Fail(at, type + " block of " + std::to_string(length) + " bytes is shorter than its header");
    std::size_t have = std::size_t(std::min<std::uint64_t>(length, kBlockReadLimit));
    if (!m_src.Read(at, b, have)) return Fail(at, type + " block runs past the end of the file");
    std::uint64_t advance = (length + 3) & ~std::uint64_t(3);
    if (type == "PH6S") {
        if (have < 64) return Fail(at, "PH6S block is shorter than its record");
        advance = U32(b + 60);
    }
    if (at + std::max(length, advance) > m_w.size) return Fail(at, type + " block runs past the end of the file");
    if (m_expectStream) return Fail(at, "block behind an alignment pad");
    if (!CheckOrder(type)) return false;
    int set = m_w.dataSets.empty() ? 0 : m_w.dataSets.back().number;
    if (type == "SSET") set = U16(b + 62);
    m_w.blocks.push_back({at, type, set});
    bool ok = true;
    if (type == "TAPE") ok = Tape(b);
    else if (type == "SFMB") ok = Filemark(b, have);
    else if (type == "SSET") ok = StartSet(b);
    else if (type == "ESET" && U16(b + 78) != m_w.dataSets.back().number)
        ok = Fail(at, "ESET closes data set " + std::to_string(U16(b + 78)) + " inside data set " +
                          std::to_string(m_w.dataSets.back().number));
    if (!ok) return false;
    m_parent = type;
    m_lastBlock = type;
    m_expectBlock = false;
    m_pos = at + advance;
    return type == "PH6S" ? Ph6sRun(at, b) : true;
}

// Blocks stand in the order SQL Server writes them: TAPE and its streams, a
// filemark, then data sets from SSET to the filemark behind their ESET; in a
// data set the configuration, the data, the log, the closing configuration.
bool Walker::CheckOrder(const std::string& type) {
    std::uint64_t at = m_pos;
    if ((type == "TAPE") != (at == 0)) return Fail(at, at == 0 ? "file doesn't open with TAPE" : "TAPE block inside the file");
    if (m_lastBlock == "SFMB" && type != "SSET" && type != "ESET" && type != "SFMB" && type != "EOTM")
        return Fail(at, type + " block behind a soft filemark");
    if (type == "TAPE" || type == "SFMB") return true;
    if (m_phase == Phase::Opening) return Fail(at, type + " block before the first soft filemark");
    if (type == "SSET") return m_phase == Phase::Between || Fail(at, "SSET inside a data set");
    if (type == "EOTM") return m_phase == Phase::Between || Fail(at, "EOTM inside a data set");
    if (type == "ESET") {
        if (m_phase == Phase::Between) return Fail(at, "ESET outside a data set");
        m_phase = Phase::AfterEset;
        return true;
    }
    if (m_phase != Phase::InSet) return Fail(at, type + " block outside a data set");
    if (type == "MSCI") m_seenMsci = true;
    if ((type == "MSDA" || type == "MSTL") && !m_seenMsci) return Fail(at, type + " block before the configuration");
    if (type == "MSDA" && (m_seenMstl || m_seenMsls)) return Fail(at, "MSDA block behind the log");
    if (type == "MSTL" && m_seenMsls) return Fail(at, "MSTL block behind the closing configuration");
    if (type == "MSDA") m_seenMsda = true;
    if (type == "MSTL") m_seenMstl = true;
    if (type == "MSLS") m_seenMsls = true;
    return true;
}

bool Walker::Tape(const std::uint8_t* b) {
    m_w.mediaFamilyId = U32(b + 52);
    m_w.softFilemarkSize = std::uint32_t(U16(b + 64)) * 512;
    if (m_w.softFilemarkSize == 0) return Fail(0, "TAPE gives a soft filemark size of 0");
    return true;
}

// The array of earlier filemarks, newest first, must list exactly the
// filemarks this walk has met. Version 10 keeps it at 72 and puts 72 in the
// word at 60; the earlier versions start it at 60.
bool Walker::Filemark(const std::uint8_t* b, std::size_t have) {
    std::uint64_t at = m_pos;
    std::uint32_t fm = m_w.softFilemarkSize;
    if (at % fm) return Fail(at, "soft filemark off the grid of " + std::to_string(fm) + " bytes");
    if (U16(b + 8) != fm && U16(b + 8) != 0) return Fail(at, "soft filemark block is not " + std::to_string(fm) + " bytes long");
    std::size_t arrayAt = U32(b + 60) == 72 ? 72 : 60;
    int version = KnownVersion();
    if (version >= 7 && version <= 10 && arrayAt != (version == 10 ? 72u : 60u))
        return Fail(at, "filemark array at " + std::to_string(arrayAt) + " in a backup of version " + std::to_string(version));
    std::uint32_t capacity = U32(b + 52), used = U32(b + 56);
    if (capacity != (fm - arrayAt) / 8) return Fail(at, "filemark array capacity " + std::to_string(capacity) + " doesn't fill the block");
    std::size_t expected = std::min<std::size_t>(m_w.filemarks.size(), capacity);
    if (used != expected)
        return Fail(at, "filemark array uses " + std::to_string(used) + " entries, " + std::to_string(expected) + " filemarks precede it");
    for (std::uint32_t i = 0; i < used; ++i) {
        std::size_t off = arrayAt + 8 * std::size_t(i);
        if (off + 8 > have) return Fail(at, "filemark array runs past its block");
        std::uint64_t want = m_w.filemarks[m_w.filemarks.size() - 1 - i];
        if (U64(b + off) != want)
            return Fail(at, "filemark entry " + std::to_string(i) + " holds " + std::to_string(U64(b + off)) +
                                ", the filemark stands at " + std::to_string(want));
    }
    m_w.filemarks.push_back(at);
    m_w.filemarkArrayOffsets.push_back(arrayAt);
    if (m_phase == Phase::Opening || m_phase == Phase::AfterEset) {
        if (m_phase == Phase::AfterEset) m_w.dataSets.back().closed = true;
        m_phase = Phase::Between;
    }
    return true;
}

bool Walker::StartSet(const std::uint8_t* b) {
    int number = U16(b + 62);
    int previous = m_w.dataSets.empty() ? 0 : m_w.dataSets.back().number;
    if (number != previous + 1)
        return Fail(m_pos, "data set " + std::to_string(number) + " follows data set " + std::to_string(previous));
    MtfDataSet s;
    s.number = number;
    s.ssetAttributes = U32(b + 52);
    s.softwareMajorVersion = b[93];
    m_w.dataSets.push_back(s);
    m_phase = Phase::InSet;
    m_seenMsci = m_seenMsda = m_seenMstl = m_seenMsls = false;
    return true;
}

// The file headers behind a PH6S: each is followed by its data; the one with
// data offset 0 closes the run and says how far to step to leave it.
bool Walker::Ph6sRun(std::uint64_t blockAt, const std::uint8_t* b) {
    if (U32(b + 60) < 64) return Fail(blockAt, "PH6S points into its own block");
    for (int guard = 0; guard < 1000000; ++guard) {
        std::uint8_t h[512];
        if (!m_src.Read(m_pos, h, sizeof h)) return Fail(m_pos, "PH6S file header runs past the end of the file");
        std::uint32_t dataOffset = U32(h + 56), dataLength = U32(h + 52);
        if (dataOffset == 0) {
            if (U32(h + 4) == 0) return Fail(m_pos, "closing PH6S file header steps nowhere");
            m_pos += U32(h + 4);
            return m_pos <= m_w.size || Fail(m_pos, "PH6S run runs past the end of the file");
        }
        if (dataOffset < sizeof h) return Fail(m_pos, "PH6S file data overlaps its header");
        ++m_w.dataSets.back().ph6sHeaders;
        m_pos += std::uint64_t(dataOffset) + dataLength;
        if (m_pos > m_w.size) return Fail(m_pos, "PH6S file data runs past the end of the file");
    }
    return Fail(m_pos, "PH6S run without end");
}

bool Walker::Stream(const std::string& id) {
    std::uint64_t at = m_pos;
    std::uint8_t h[kStreamHeaderSize];
    if (!m_src.Read(at, h, sizeof h)) return Fail(at, "stream header runs past the end of the file");
    std::uint16_t sum = Xor16(h, 10);
    if (sum != U16(h + 20))
        return Fail(at, "STREAM Corruption: " + id + " header checksum " + Hex(U16(h + 20)) + ", computed " + Hex(sum));
    std::uint64_t length = U64(h + 8);
    if (length > m_w.size || at + kStreamHeaderSize + length > m_w.size)
        return Fail(at, id + " stream of " + std::to_string(length) + " bytes runs past the end of the file");
    if (m_expectBlock) return Fail(at, id + " stream behind a set pad");
    if (m_parent.empty()) return Fail(at, id + " stream without a block");
    m_expectStream = id == "APAD";
    if (id == "SPAD") m_expectBlock = true;
    if (!StreamContent(id, at, length)) return false;
    m_pos = (at + kStreamHeaderSize + length + 3) & ~std::uint64_t(3);
    return true;
}

bool Walker::StreamContent(const std::string& id, std::uint64_t at, std::uint64_t length) {
    auto owner = [&](std::initializer_list<const char*> blocks) {
        for (const char* b : blocks)
            if (m_parent == b) return true;
        return Fail(at, id + " stream inside a " + m_parent + " block");
    };
    std::uint64_t data = at + kStreamHeaderSize;
    if (id == "RAID") {
        if (!owner({"TAPE"})) return false;
        std::uint8_t r[32];
        if (length < sizeof r || !m_src.Read(data, r, sizeof r)) return Fail(at, "RAID stream shorter than its record");
        m_w.raid = {true, U32(r + 16), U32(r + 20), U32(r + 24)};
        if (m_w.raid.raidType != kRaidType) return Fail(at, "RAID stream of type " + Hex(m_w.raid.raidType));
        return true;
    }
    if (id == "MQCI") return owner({"MSCI", "MSLS"}) && Config(at, length);
    if (id == "MQDA" || id == "MQTL") {
        if (!owner({id == "MQDA" ? "MSDA" : "MSTL"})) return false;
        if (length == 1) return Fail(at, id + " stream shorter than its prefix");
        if (id == "MQDA" && length && (length - 2) % kExtentSize)
            return Fail(at, "MQDA stream of " + std::to_string(length) + " bytes doesn't hold whole extents");
        MtfDataSet& s = m_w.dataSets.back();
        if (length > 2) (id == "MQDA" ? s.data : s.log).push_back({data + 2, length - 2, s.number});
    }
    return true;
}

bool Walker::Config(std::uint64_t at, std::uint64_t length) {
    if (length > kConfigLimit) return Fail(at, "MQCI stream of " + std::to_string(length) + " bytes is too long");
    std::vector<std::uint8_t> bytes(length);
    if (!m_src.Read(at + kStreamHeaderSize, bytes.data(), bytes.size())) return Fail(at, "MQCI stream can't be read");
    MtfSqlConfig c;
    c.present = true;
    c.streamOffset = at;
    std::uint64_t p = 0;
    while (p + 8 <= length) {
        std::uint32_t size = U32(&bytes[p + 4]);
        if (size == 0) break;
        std::uint64_t recordAt = at + kStreamHeaderSize + p;
        if (size < 8 || p + size > length) return Fail(recordAt, "configuration record of " + std::to_string(size) + " bytes runs past its stream");
        if (p == 0 && std::memcmp(&bytes[0], "SCIN", 4) != 0) return Fail(recordAt, "configuration doesn't open with SCIN");
        if (!ConfigRecord(&bytes[p], size, recordAt, c)) return false;
        p += size;
    }
    if (p == 0) return Fail(at, "MQCI stream holds no configuration");
    MtfDataSet& s = m_w.dataSets.back();
    (m_parent == "MSCI" ? s.msci : s.msls) = c;
    return true;
}

bool Walker::ConfigRecord(const std::uint8_t* r, std::uint32_t size, std::uint64_t at, MtfSqlConfig& c) {
    std::string type(reinterpret_cast<const char*>(r), 4);
    if (type == "SCIN") {
        if (size < 240) return Fail(at, "SCIN of " + std::to_string(size) + " bytes is shorter than its layout");
        c.serverVersion = U32(r + 24);
        c.version = int(c.serverVersion >> 24);
        if (c.version >= 9 && size < 344) return Fail(at, "SCIN of version " + std::to_string(c.version) + " is only " + std::to_string(size) + " bytes");
        c.dataFileCount = U32(r + 12);
        c.logFileCount = U32(r + 16);
        c.firstLsn = Lsn(r + 32);
        c.lastLsn = Lsn(r + 42);
        c.checkpointLsn = Lsn(r + 52);
        c.differentialBaseLsn = Lsn(r + 62);
        c.backupType = char(r[87]);
        return Name(r, size, 104, at, c.databaseName) && Name(r, size, 108, at, c.serverName);
    }
    if (type == "SFIN") {
        std::uint32_t need = c.version >= 9 ? 402 : 186;
        if (size < need) return Fail(at, "SFIN of " + std::to_string(size) + " bytes is shorter than its layout");
        MtfSqlFile f;
        f.flags = U32(r + 8);
        f.fileId = U32(r + 20);
        f.backedUpPages = U32(r + 24);
        f.fileType = U32(r + 28);
        f.fileSize = U64(r + 40);
        f.differentialBaseLsn = Lsn(r + 158);
        if (!Name(r, size, 48, at, f.logicalName) || !Name(r, size, 52, at, f.physicalName)) return false;
        if (!(f.flags & kFileDropped)) c.files.push_back(f);
        return true;
    }
    if (type == "SFGI") return size >= 20 || Fail(at, "SFGI shorter than its layout");
    return true;
}

bool Walker::Name(const std::uint8_t* r, std::uint32_t size, std::size_t addrAt, std::uint64_t at, std::string& out) {
    std::uint32_t length = U16(r + addrAt), offset = U16(r + addrAt + 2);
    if (length == 0) return true;
    if (std::uint64_t(offset) + length > size) return Fail(at + addrAt, "name points outside its record");
    out.clear();
    for (std::uint32_t i = 0; i + 1 < length; i += 2) {
        std::uint16_t unit = U16(r + offset + i);
        out += unit < 128 ? char(unit) : '?';
    }
    return true;
}

}  // namespace

std::unique_ptr<MtfSource> MtfSource::FromFile(const std::filesystem::path& path) {
    return std::make_unique<FileSource>(path);
}

std::unique_ptr<MtfSource> MtfSource::FromBytes(const std::uint8_t* data, std::size_t size) {
    return std::make_unique<BytesSource>(data, size);
}

const MtfDataSet* MtfWalk::DataSet(int number) const {
    for (const auto& s : dataSets)
        if (s.number == number) return &s;
    return nullptr;
}

MtfWalk MtfWalker::Walk(const MtfSource& source) { return Walker(source).Run(); }

MtfWalk MtfWalker::WalkFile(const std::filesystem::path& path) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        MtfWalk w;
        w.fault = "cannot open " + path.string();
        return w;
    }
    return Walk(*MtfSource::FromFile(path));
}

MtfWalk MtfWalker::WalkBytes(const std::vector<std::uint8_t>& bytes) {
    return Walk(*MtfSource::FromBytes(bytes.data(), bytes.size()));
}

bool NaiveRestore::Apply(const std::vector<std::filesystem::path>& stripes, int dataSet) {
    for (const auto& path : stripes) {
        MtfWalk walk = MtfWalker::WalkFile(path);
        if (!walk.ok) {
            m_error = path.string() + ": " + walk.fault + " at offset " + std::to_string(walk.faultOffset);
            return false;
        }
        const MtfDataSet* set = walk.DataSet(dataSet);
        if (!set) {
            m_error = path.string() + ": no data set " + std::to_string(dataSet);
            return false;
        }
        auto source = MtfSource::FromFile(path);
        for (const auto& run : set->data) {
            const bool bRead = ForEachExtent(*source, run, [&](std::uint16_t fileId, std::uint32_t page, const std::uint8_t* p) {
                m_extents[{fileId, page}].assign(p, p + kExtentSize);
            }, &m_error);
            if (!bRead) return false;
        }
    }
    return true;
}

bool ForEachExtent(const MtfSource& source, const MtfDataRun& run, const ExtentVisitor& visit, std::string* pError) {
    std::vector<std::uint8_t> extent(kExtentSize);
    for (std::uint64_t off = 0; off + kExtentSize <= run.length; off += kExtentSize) {
        if (!source.Read(run.offset + off, extent.data(), extent.size())) {
            *pError = "cannot read the extent at offset " + std::to_string(run.offset + off);
            return false;
        }
        PageHeaderFields h = ReadPageHeader(extent.data());
        if (h.headerVersion != 1) continue;
        if (h.type >= 100) break;
        if (h.fileId == 0) continue;
        visit(h.fileId, h.pageNumber, extent.data());
    }
    return true;
}

const std::uint8_t* NaiveRestore::Page(std::uint16_t fileId, std::uint32_t page) const {
    auto it = m_extents.find({fileId, page & ~std::uint32_t(kPagesPerExtent - 1)});
    if (it == m_extents.end()) return nullptr;
    return it->second.data() + (page % kPagesPerExtent) * kPageSize;
}

std::vector<std::pair<std::uint16_t, std::uint32_t>> NaiveRestore::Extents() const {
    std::vector<std::pair<std::uint16_t, std::uint32_t>> keys;
    for (const auto& [key, bytes] : m_extents) keys.push_back(key);
    return keys;
}

}  // namespace zrtest
