// The manifest of the real backups (manifest.tsv beside them): what each file
// holds as read by other tools. Tests compare the library against it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zrtest {

struct ManifestEntry {
    std::string file;        // relative to the test data folder
    std::string version;     // build, such as 10.50.1600
    int major = 0;           // 10
    char type = 0;           // D, I or L
    std::string database;
    std::string server;
    std::string date;        // the media date, "2018-12-21 11:26:31"
    int stripe = 0;          // this file's place in its stripe set, from 1
    int stripes = 0;         // files in the stripe set
    std::string mediaset;    // files of one stripe set share it
    int sets = 0;            // data sets in the file (0 when not told)
    bool compressed = false; // not a plain tape-format file
    std::string firstLsn, lastLsn, checkpointLsn, baseLsn;  // "a:b:c"
};

// Every row of the manifest; empty when the test data is missing.
std::vector<ManifestEntry> ReadManifest();

// The rows of native backups of the given major versions.
std::vector<ManifestEntry> NativeBackups(int minMajor, int maxMajor);

}  // namespace zrtest
