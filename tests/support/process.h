// Runs a program as its user would and keeps what it says.
#ifndef PNVTEST_PROCESS_H
#define PNVTEST_PROCESS_H

#include <chrono>
#include <string>
#include <vector>

namespace pnvtest {

struct ProcessResult {
    int status = -1; // the exit status, or 128 + n when signal n ended the process
    bool timedOut = false;
    std::string out;
    std::string err;
};

// Runs argv[0], looked up in PATH, with an empty standard input. environment: "NAME=value" on top of the caller's own.
// A process that outlives patience is killed with its children. A program that cannot be started has status 127.
ProcessResult RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
                         std::chrono::seconds patience = std::chrono::seconds(120));

// The words of PKGCHECK_EMULATOR, which runs programs of the target; empty on the target itself.
const std::vector<std::string>& Emulator();
// A command line that runs a program of the target.
std::vector<std::string> ForTarget(std::vector<std::string> argv);

// Whether strace is there and may trace.
bool CanTrace();
struct TracedProcess {
    ProcessResult result;
    std::string files; // strace's lines on what it and its children opened and closed
};
TracedProcess RunTraced(std::vector<std::string> argv, std::vector<std::string> environment = {});

} // namespace pnvtest

#endif
