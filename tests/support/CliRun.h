// Runs the zirlane program as a user does and keeps what it said.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace zrtest {

struct CliRun {
    int iExit = -1;
    std::string sOut;
    std::string sErr;
};

// The program in the build tree (tools/zirlane/zirlane beside tests/).
std::filesystem::path ZirlaneProgram();

// Runs the program with the arguments; its output goes through files in
// scratch, a folder of the caller's, and so does its default map folder.
CliRun RunZirlane(const std::vector<std::string>& args, const std::filesystem::path& scratch);

}  // namespace zrtest
