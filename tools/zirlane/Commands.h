// The commands of the zirlane tool. Each command is one file that adds its
// subcommand to the application and sets the exit code when it runs; main
// lists the Add functions in its table.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

// Exit codes of every command.
constexpr int ZIRLANE_EXIT_OK = 0;
constexpr int ZIRLANE_EXIT_FAILED = 1;  // the library refused; the error chain says why

// Adds a subcommand to app; when it is chosen and has run, *piExit holds
// its exit code.
using ZirlaneAddCommand = void (*)(CLI::App& app, int* piExit);

void AddProbeCommand(CLI::App& app, int* piExit);
void AddStatementsCommand(CLI::App& app, int* piExit);
void AddInfoCommand(CLI::App& app, int* piExit);
void AddExtractCommand(CLI::App& app, int* piExit);
void AddViewCommand(CLI::App& app, int* piExit);

// The map folder: the default ($XDG_CACHE_HOME/zirlane/maps or
// ~/.cache/zirlane/maps), the --map-folder option with that default, and
// making a folder the library's map folder (created when missing; false if
// its name is too long).
std::string ZirlaneDefaultMapFolder();
void ZirlaneAddMapFolderOption(CLI::App& cmd, std::string* pFolder);
bool ZirlaneUseMapFolder(const std::string& folder);

// Output helpers shared by the commands.
std::string ZirlaneUtf8(const std::wstring& ws);
std::wstring ZirlaneWide(const std::string& s);
// Writes the texts of the error chain (no mount key) to stderr and clears it.
void ZirlanePrintErrors();
