#include "process.h"

#include "temp_dir.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sstream>

extern char** environ;

namespace pnvtest {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    int ends[2] = {-1, -1};

    Pipe() { (void)pipe2(ends, O_CLOEXEC); } // without descriptors the spawn fails, which is reported
    ~Pipe()
    {
        Close(ends[0]);
        Close(ends[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    static void Close(int& fd)
    {
        if (fd >= 0) close(fd);
        fd = -1;
    }
};

std::string VariableName(const std::string& assignment)
{
    return assignment.substr(0, assignment.find('='));
}

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& own)
{
    std::vector<std::string> merged = own;
    for (char** inherited = environ; *inherited != nullptr; ++inherited) {
        bool replaced = false;
        for (const std::string& assignment : own) replaced |= VariableName(assignment) == VariableName(*inherited);
        if (!replaced) merged.emplace_back(*inherited);
    }
    return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& string : strings) pointers.push_back(string.data());
    pointers.push_back(nullptr);
    return pointers;
}

// 0 or an error number. The child leads a process group of its own.
int Spawn(pid_t* pid, std::vector<std::string> argv, std::vector<std::string> environment, const Pipe& out,
          const Pipe& err)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.ends[1], STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);

    int error =
        posix_spawnp(pid, argv[0].c_str(), &actions, &attributes, Pointers(argv).data(), Pointers(environment).data());

    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

int MillisecondsUntil(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Moves what is there into text; closes the descriptor at the end of the stream.
void Drain(int& fd, std::string& text)
{
    char buffer[4096];
    ssize_t count = read(fd, buffer, sizeof buffer);
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) Pipe::Close(fd);
}

// Reads both streams to their end; false when the deadline comes first.
bool Collect(Pipe& out, Pipe& err, ProcessResult& result, Clock::time_point deadline)
{
    while (out.ends[0] >= 0 || err.ends[0] >= 0) {
        pollfd streams[] = {{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}};
        if (poll(streams, 2, MillisecondsUntil(deadline)) == 0) return false;
        if (streams[0].revents != 0) Drain(out.ends[0], result.out);
        if (streams[1].revents != 0) Drain(err.ends[0], result.err);
    }
    return true;
}

int WaitForStatus(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                         std::chrono::seconds patience)
{
    ProcessResult result;
    Pipe out;
    Pipe err;
    pid_t pid = 0;
    if (Spawn(&pid, argv, MergedEnvironment(environment), out, err) != 0) {
        result.status = 127;
        result.err = "cannot start " + argv[0];
        return result;
    }
    Pipe::Close(out.ends[1]);
    Pipe::Close(err.ends[1]);
    result.timedOut = !Collect(out, err, result, Clock::now() + patience);
    if (result.timedOut) kill(-pid, SIGKILL);
    result.status = WaitForStatus(pid);
    return result;
}

const std::vector<std::string>& Emulator()
{
    static const std::vector<std::string> emulator = [] {
        const char* words = std::getenv("PKGCHECK_EMULATOR");
        std::istringstream stream(words != nullptr ? words : "");
        return std::vector<std::string>(std::istream_iterator<std::string>(stream), {});
    }();
    return emulator;
}

std::vector<std::string> ForTarget(std::vector<std::string> argv)
{
    argv.insert(argv.begin(), Emulator().begin(), Emulator().end());
    return argv;
}

bool CanTrace()
{
    return Emulator().empty() && RunProcess({"strace", "-o", "/dev/null", "true"}).status == 0;
}

TracedProcess RunTraced(std::vector<std::string> argv, std::vector<std::string> environment)
{
    TempDir dir;
    const std::string trace = dir.Path("trace");
    argv.insert(argv.begin(), {"strace", "-f", "-e", "trace=open,openat,close", "-o", trace});
    environment.push_back("ASAN_OPTIONS=detect_leaks=0"); // the leak checker traces, too, and there can be one only
    TracedProcess traced;
    traced.result = RunProcess(argv, environment);
    const Bytes lines = ReadWholeFile(trace);
    traced.files.assign(lines.begin(), lines.end());
    return traced;
}

} // namespace pnvtest
