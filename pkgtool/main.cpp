#include "command_line.h"
#include "commands/commands.h"
#include "error.h"
#include "openssl.h"
#include "pelnic_cms_verify.h"
#include "text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

namespace {

constexpr int REFUSED = 1;
constexpr int TROUBLE = 2;

int run(int argc, char** argv)
{
    CLI::App app("Signs, packs and inspects firmware packages for pkgcheck.", "pkgtool");
    app.formatter(std::make_shared<pkgtool::HelpFormatter>());
    app.get_formatter()->label("Positionals", "Arguments");
    app.get_formatter()->label("OPTIONS", "options");
    app.get_formatter()->label("SUBCOMMAND", "command");
    app.set_help_flag("-h,--help", "show this help, as pkgtool help COMMAND does");
    app.set_version_flag("--version", "pkgtool " CMSVERIFY_VERSION, "print the version");
    app.require_subcommand(1);
    app.footer("Exit status: 0 done, 1 an input that the checker would refuse, 2 any other error. Output "
               "files are written whole or not at all, and replace nothing without --force; private keys are only ever "
               "read.");
    pkgtool::addPkiCommand(app);
    pkgtool::addReleaseCommand(app);
    pkgtool::addSignCommand(app);
    pkgtool::addStampCommand(app);
    pkgtool::addPackCommand(app);
    pkgtool::addRenewCrlsCommand(app);
    pkgtool::addUnpackCommand(app);
    pkgtool::addListCommand(app);
    pkgtool::addCrlCommand(app);
    pkgtool::addCodeCommand(app);
    pkgtool::addRootCommand(app);
    pkgtool::addInspectCommand(app);
    pkgtool::addExplainCommand(app);
    pkgtool::addLintCommand(app);
    pkgtool::addVerifyCommand(app);
    try {
        app.parse(pkgtool::commandLine(argc, argv));
    } catch (const CLI::RuntimeError& status) {
        return status.get_exit_code();
    } catch (const CLI::ParseError& error) {
        const bool isHelp = error.get_exit_code() == 0; // or the version
        if (isHelp && !pkgtool::isOfUnknownCommand(app)) return app.exit(error);
        throw pkgtool::explainParseError(app, error);
    }
    return 0;
}

void complain(const std::string& message, const std::string& hint = {})
{
    fprintf(stderr, "pkgtool: %s\n", pkgtool::printable(message).c_str());
    if (!hint.empty()) fprintf(stderr, "hint: %s\n", pkgtool::printable(hint).c_str());
}

int runAndExplain(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const pkgtool::Refusal& error) {
        complain(error.what(), error.hint());
        return REFUSED;
    } catch (const pkgtool::UserError& error) {
        complain(error.what(), error.hint());
    } catch (const std::bad_alloc&) {
        complain("not enough memory");
    } catch (const std::exception& error) {
        complain(std::string("internal error: ") + error.what());
    }
    return TROUBLE;
}

// An opened file must not become a standard stream that the caller has closed.
void openStandardStreams()
{
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDONLY); // which cannot be written to
    if (fd > STDERR_FILENO) close(fd);
}

} // namespace

int main(int argc, char** argv)
{
    openStandardStreams();
    pkgtool::ignoreConfiguration(); // which those commands read by themselves that use keys
    const int status = runAndExplain(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    complain(std::string("write error: ") + std::strerror(errno));
    return TROUBLE;
}
