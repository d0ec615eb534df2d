// The targets of pkgtool: a package through inspect, explain and lint, and an answer of a timestamp authority. Whatever
// comes in, the worst is a word about it to the user; and explain has the verdict of the checker.
#include "fuzz.h"

#include "pkgcheck.h"
#include "pkgtool/commands/commands.h"
#include "pkgtool/error.h"
#include "pkgtool/requirements.h"
#include "pkgtool/timestamp.h"
#include "pkgtool/verdict.h"
#include "root_cert.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace pnvfuzz {

namespace {

constexpr int kUserError = 1;

class Pkgtool {
public:
    Pkgtool()
    {
        app_.require_subcommand(1);
        pkgtool::addInspectCommand(app_);
        pkgtool::addExplainCommand(app_);
        pkgtool::addLintCommand(app_);
    }

    // The exit status; what is no fault of the user's is thrown on.
    int Call(std::vector<std::string> arguments)
    {
        std::reverse(arguments.begin(), arguments.end()); // as CLI11 wants them
        try {
            app_.parse(arguments);
        } catch (const CLI::RuntimeError& status) {
            return status.get_exit_code();
        } catch (const pkgtool::UserError&) {
            return kUserError;
        }
        return 0;
    }

private:
    CLI::App app_;
};

// What is printed while there is one goes nowhere.
class Silence {
public:
    Silence() : kept_(dup(STDOUT_FILENO))
    {
        static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)std::fflush(stdout);
        (void)dup2(nowhere, STDOUT_FILENO);
    }
    ~Silence()
    {
        (void)std::fflush(stdout);
        (void)dup2(kept_, STDOUT_FILENO);
        (void)close(kept_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    int kept_;
};

// The path of a file with this content, the same for every input.
std::string FileWith(const Trial& trial)
{
    static const int fd = memfd_create("package", MFD_CLOEXEC);
    Require(ftruncate(fd, 0) == 0 && pwrite(fd, trial.data, trial.size, 0) == static_cast<ssize_t>(trial.size),
            "the input can be written to a file");
    return "/proc/self/fd/" + std::to_string(fd);
}

int StatusOfChecker(const Trial& trial)
{
    if (trial.size < sizeof(SProgramFileHeader_S)) return -1;
    static FILE* const out = std::fopen("/dev/null", "w");
    PkgcheckJob job = {szCert_F, szCert_F_size, nullptr, out, 0};
    return pkgcheck_check(trial.data, trial.size, &job);
}

} // namespace

bool FuzzPkgtool(const Trial& trial)
{
    static Pkgtool tool;
    const std::string path = FileWith(trial);
    const CheckersTurn turn;
    const Silence silence;
    const bool isAccepted = StatusOfChecker(trial) == 0;
    (void)tool.Call({"inspect", path});
    (void)tool.Call({"inspect", path, "--json"});
    const int explained = tool.Call({"explain", path});
    Require((explained == 0 || explained == pkgtool::NOT_SIGNED) == isAccepted, "explain has the checker's verdict");
    Require(tool.Call({"explain", path, "--json"}) == explained, "explain has the same verdict in JSON");
    const int found = tool.Call({"lint", path});
    Require(tool.Call({"lint", path, "--json"}) == found, "lint finds the same in JSON");
    Require(isAccepted || found != 0, "what the checker refuses is not clean");
    return isAccepted && TheRun().checks != 0;
}

bool FuzzResponse(const Trial& trial)
{
    const Bytes response(trial.data, trial.data + trial.size);
    try {
        const Bytes token = pkgtool::tokenOfResponse(response, "the answer");
        const pkgtool::Cms cms = pkgtool::fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, token);
        return cms != nullptr && pkgtool::tstInfoOf(cms.get()) != nullptr;
    } catch (const pkgtool::UserError&) {
        return false;
    }
}

const std::vector<Target>& Targets()
{
    static const std::vector<Target> targets{
        {"pkgtool", FuzzPkgtool, Holding::Root, false, true},
        {"response", FuzzResponse},
    };
    return targets;
}

} // namespace pnvfuzz
