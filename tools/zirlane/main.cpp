// zirlane: look into SQL Server backups and serve them as databases.
//
// Exit codes: 0 on success, 2 when the command line is wrong, 1 for every
// other failure; the messages on stderr say why.
#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "mount/Version.h"

namespace {

// One line per command; a new command is a file and a line here.
const ZirlaneAddCommand kCommands[] = {
    AddProbeCommand,
    AddInfoCommand,
    AddViewCommand,
    AddStatementsCommand,
    AddExtractCommand,
    AddMountCommand,
    AddUmountCommand,
};

// CLI11 ends the text with a line feed of its own.
std::string VersionText() {
    std::string text = std::string("zirlane ") + ZR_LibraryVersion() + "\n" + ZR_ServedBackups();
    return text.substr(0, text.size() - 1);
}

std::vector<const CLI::App*> Commands(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

std::string CommandNames(const CLI::App& app) {
    std::string names;
    for (const CLI::App* pCommand : Commands(app)) names += (names.empty() ? "" : ", ") + pCommand->get_name();
    return names;
}

bool IsCommand(const CLI::App& app, const char* szWord) {
    for (const CLI::App* pCommand : Commands(app))
        if (pCommand->check_name(szWord)) return true;
    return false;
}

// CLI11 reports a word that names no command as a missing command; the
// user deserves to hear which word it did not know. The options in front
// of a command are flags, so the first word is the command.
bool CheckCommandWord(const CLI::App& app, int argc, char** argv) {
    bool bAnswersAlone = false;  // --help and --version need no command
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word[0] == '-') {
            bAnswersAlone |= word == "-h" || word == "--help" || word == "--version";
            continue;
        }
        if (IsCommand(app, argv[i])) return true;
        std::fprintf(stderr, "Unknown command '%s'. The commands are %s; run zirlane --help for more.\n", argv[i],
                     CommandNames(app).c_str());
        return false;
    }
    if (!bAnswersAlone)
        std::fprintf(stderr, "No command given. The commands are %s; run zirlane --help for more.\n",
                     CommandNames(app).c_str());
    return bAnswersAlone;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Zirlane: SQL Server databases straight from their backup files"};
    app.require_subcommand(1);
    app.footer("Exit codes: 0 on success, 2 when the command line is wrong, 1 for any other failure.");
    // --verbose may stand before the command or among its options.
    app.fallthrough();
    app.set_version_flag("--version", VersionText(), "Print the version and the backups served, then exit");
    app.add_flag_callback("-v,--verbose", [] { ZirlaneSetVerbose(true); },
                          "On failure, show where each message comes from and the system's texts");
    int iExit = ZIRLANE_EXIT_OK;
    for (ZirlaneAddCommand pfnAdd : kCommands) pfnAdd(app, &iExit);
    if (!CheckCommandWord(app, argc, argv)) return ZIRLANE_EXIT_USAGE;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and the version are "errors" that exit 0; the rest are usage errors.
        return app.exit(e) == 0 ? ZIRLANE_EXIT_OK : ZIRLANE_EXIT_USAGE;
    }
    return iExit;
}
