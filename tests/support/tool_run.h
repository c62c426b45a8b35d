// Runs lumetra-cli for end-to-end tests: a private settings home, the simulated board as the
// default library, and the output and exit status collected.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace lumetra::test {

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

// simConfig names the simulator's INI file; empty runs the two default boards.
inline ToolRun RunTool(const std::string& tool, const std::filesystem::path& dir,
                       const std::string& args, const std::string& simConfig = {}) {
    std::string command = "env -u LUMETRA_BOARD_LIBRARY ";
    command += simConfig.empty() ? "-u ORVIX_SIM_CONFIG " : "ORVIX_SIM_CONFIG='" + simConfig + "' ";
    command += "XDG_CONFIG_HOME='" + (dir / "config").string() + "' LUMETRA_SYSTEM_SETTINGS='" +
               (dir / "system.ini").string() + "' ";
    const std::string err = (dir / "stderr.txt").string();
    command += tool + " " + args + " 2>'" + err + "'";
    ToolRun r;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return r;
    }
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) {
        r.out.append(buf, n);
    }
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(err);
    r.err.assign(std::istreambuf_iterator<char>(in), {});
    return r;
}

}  // namespace lumetra::test
