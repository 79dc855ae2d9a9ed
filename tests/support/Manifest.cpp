#include "support/Manifest.h"

#include "support/TestData.h"

#include <fstream>
#include <sstream>

namespace zrtest {

namespace {

std::vector<std::string> SplitTabs(const std::string& line) {
    std::vector<std::string> cells;
    std::string cell;
    std::istringstream in(line);
    while (std::getline(in, cell, '\t'))
        cells.push_back(cell);
    return cells;
}

}  // namespace

std::vector<ManifestEntry> ReadManifest() {
    std::vector<ManifestEntry> rows;
    auto dir = TestDataDir();
    if (!dir)
        return rows;
    std::ifstream in(*dir / "manifest.tsv");
    std::string line;
    std::getline(in, line);  // the header
    while (std::getline(in, line)) {
        auto c = SplitTabs(line);
        if (c.size() < 26)
            continue;
        ManifestEntry e;
        e.file = c[0];
        e.version = c[9];
        e.major = std::atoi(c[9].c_str());
        e.type = c[12].empty() ? 0 : c[12][0];
        e.database = c[13];
        e.server = c[14];
        e.date = c[15];
        std::sscanf(c[16].c_str(), "%d/%d", &e.stripe, &e.stripes);
        e.mediaset = c[17];
        e.sets = std::atoi(c[18].c_str());
        e.compressed = c[8].find("uncompressed") == std::string::npos;
        e.firstLsn = c[22];
        e.lastLsn = c[23];
        e.checkpointLsn = c[24];
        e.baseLsn = c[25];
        rows.push_back(e);
    }
    return rows;
}

std::vector<ManifestEntry> NativeBackups(int minMajor, int maxMajor) {
    std::vector<ManifestEntry> out;
    for (auto& e : ReadManifest())
        if (!e.compressed && e.major >= minMajor && e.major <= maxMajor)
            out.push_back(e);
    return out;
}

}  // namespace zrtest
