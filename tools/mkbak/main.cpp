// mkbak: writes a synthetic Microsoft Tape Format backup as SQL Server would,
// one file per stripe, and prints where it put the blocks and any damage.
#include "support/SyntheticBackup.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <sstream>

namespace {

bool ParseLsn(const std::string& text, zrtest::SyntheticLsn& out) {
    unsigned long a = 0, b = 0, c = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%lu:%lu:%lu%c", &a, &b, &c, &tail) != 3) return false;
    out = {std::uint32_t(a), std::uint32_t(b), std::uint16_t(c)};
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Writes a synthetic SQL Server backup in Microsoft Tape Format."};
    zrtest::SyntheticOptions o;
    std::string type = "full", output, first, last, checkpoint, base;
    std::size_t files = 1;
    std::vector<std::uint32_t> pages;
    std::uint32_t diffEvery = 3;
    std::size_t badBlock = 0;
    std::uint64_t truncateAt = 0;
    bool quiet = false;

    app.add_option("--version", o.version, "Record layouts of SQL Server 7, 8, 9 or 10")->check(CLI::Range(7, 10));
    app.add_option("--type", type, "full, differential or log")
        ->check(CLI::IsMember({"full", "differential", "diff", "log"}));
    app.add_option("--files", files, "Number of data files")->check(CLI::Range(1, 32000));
    app.add_option("--pages", pages, "Pages of each data file, comma separated; the last value repeats")
        ->delimiter(',');
    app.add_option("--stripes", o.stripes, "Number of stripe files")->check(CLI::Range(1, 64));
    app.add_option("--data-sets", o.dataSets, "Data sets appended in each file")->check(CLI::Range(1, 1000));
    app.add_option("--seed", o.seed, "Seed of the page contents (data set d uses seed + d - 1)");
    app.add_option("--database", o.databaseName, "Database name");
    app.add_option("--server", o.serverName, "Server name");
    app.add_option("--log-extents", o.logExtents, "64 KiB runs of log data");
    app.add_option("--transfer-extents", o.transferExtents, "Extents per transfer buffer dealt to each stripe")
        ->check(CLI::PositiveNumber);
    app.add_option("--ph6s", o.ph6sFiles, "Files described by a PH6S run in each data set");
    app.add_option("--diff-every", diffEvery, "A differential holds every n-th extent of each file")
        ->check(CLI::PositiveNumber);
    app.add_option("--first-lsn", first, "First LSN, as seq:block:slot");
    app.add_option("--last-lsn", last, "Last LSN");
    app.add_option("--checkpoint-lsn", checkpoint, "Checkpoint LSN");
    app.add_option("--base-lsn", base, "Differential base LSN");
    app.add_flag("--no-trailer", [&](std::int64_t) { o.trailer = false; }, "No dump trailer extent");
    app.add_option("--damage-stripe", o.damage.stripe, "Stripe (from 0) that gets the damage");
    auto* bad = app.add_option("--bad-checksum-block", badBlock, "Index of a block whose header checksum is spoilt");
    app.add_flag("--bad-last-filemark", o.damage.badLastFilemark, "Spoil the last soft filemark block");
    auto* cut = app.add_option("--truncate-at", truncateAt, "Cut the file to this many bytes");
    app.add_flag("-q,--quiet", quiet, "Print nothing on success");
    app.add_option("-o,--output", output, "First stripe file; the others get _2, _3... before the extension")
        ->required();
    CLI11_PARSE(app, argc, argv);

    o.kind = type == "log" ? zrtest::SyntheticKind::Log
           : type == "full" ? zrtest::SyntheticKind::Full
                            : zrtest::SyntheticKind::Differential;
    if (pages.empty()) pages.push_back(1024);
    o.filePages.clear();
    for (std::size_t i = 0; i < files; ++i) o.filePages.push_back(pages[std::min(i, pages.size() - 1)]);
    if (o.kind == zrtest::SyntheticKind::Differential)
        o.differentialExtents = [diffEvery](std::uint16_t, std::uint32_t e) { return e % diffEvery == 0; };
    for (auto [text, lsn] : std::map<std::string*, zrtest::SyntheticLsn*>{
             {&first, &o.firstLsn}, {&last, &o.lastLsn}, {&checkpoint, &o.checkpointLsn}, {&base, &o.differentialBaseLsn}}) {
        if (!text->empty() && !ParseLsn(*text, *lsn)) {
            std::fprintf(stderr, "mkbak: '%s' is no LSN (seq:block:slot)\n", text->c_str());
            return 2;
        }
    }
    if (o.kind == zrtest::SyntheticKind::Differential && base.empty()) o.differentialBaseLsn = o.firstLsn;
    if (*bad) o.damage.badChecksumBlock = badBlock;
    if (*cut) o.damage.truncateAt = truncateAt;

    zrtest::SyntheticBackup backup(o);
    if (!backup.Write(output)) {
        std::fprintf(stderr, "mkbak: %s\n", backup.Error().c_str());
        return 1;
    }
    if (quiet) return 0;
    for (const auto& s : backup.Stripes()) {
        std::printf("%s: %llu bytes, %zu blocks, %zu extents\n", s.path.string().c_str(),
                    static_cast<unsigned long long>(s.size), s.blocks.size(), s.extents.size());
        if (s.damageOffset)
            std::printf("  damage met at offset %llu\n", static_cast<unsigned long long>(*s.damageOffset));
    }
    return 0;
}
