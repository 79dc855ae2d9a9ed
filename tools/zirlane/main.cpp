// zirlane: look into SQL Server backups and serve them as databases.
#include "Commands.h"

namespace {

// One line per command; a new command is a file and a line here.
const ZirlaneAddCommand kCommands[] = {
    AddProbeCommand,
    AddStatementsCommand,
    AddInfoCommand,
    AddExtractCommand,
    AddViewCommand,
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Zirlane: SQL Server databases straight from their backup files"};
    app.require_subcommand(1);
    int iExit = ZIRLANE_EXIT_OK;
    for (ZirlaneAddCommand pfnAdd : kCommands) pfnAdd(app, &iExit);
    CLI11_PARSE(app, argc, argv);
    return iExit;
}
