#include "support/CliRun.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zrtest {

namespace fs = std::filesystem;

namespace {

std::string ReadAll(const fs::path& p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

}  // namespace

fs::path ZirlaneProgram() {
    // Test binaries live in <build>/tests/<folder>/.
    fs::path self = fs::read_symlink("/proc/self/exe");
    return self.parent_path().parent_path().parent_path() / "tools" / "zirlane" / "zirlane";
}

CliRun RunZirlane(const std::vector<std::string>& args, const fs::path& scratch) {
    // The default map folder lies in the cache folder: keep it in scratch.
    std::string command =
        "XDG_CACHE_HOME=" + Quote((scratch / "cache").string()) + " " + Quote(ZirlaneProgram().string());
    for (const auto& a : args)
        command += " " + Quote(a);
    fs::path out = scratch / "zirlane.out", err = scratch / "zirlane.err";
    command += " >" + Quote(out.string()) + " 2>" + Quote(err.string());
    CliRun run;
    int iStatus = std::system(command.c_str());
    run.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    run.sOut = ReadAll(out);
    run.sErr = ReadAll(err);
    return run;
}

}  // namespace zrtest
