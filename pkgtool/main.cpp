#include "commands.h"
#include "error.h"

#include <cstdio>
#include <exception>

namespace {

constexpr int USER_ERROR = 1;
constexpr int INTERNAL_ERROR = 2;

int run(int argc, char** argv)
{
    CLI::App app("Signs, packs and inspects firmware packages for pkgcheck.", "pkgtool");
    app.require_subcommand(1);
    app.footer("Exit status: 0 done, 1 the input or the command line is wrong, 2 internal error. Output files are\n"
               "written whole or not at all; private keys are only ever read.");
    pkgtool::addPkiCommand(app);
    pkgtool::addReleaseCommand(app);
    pkgtool::addSignCommand(app);
    pkgtool::addPackCommand(app);
    pkgtool::addUnpackCommand(app);
    pkgtool::addListCommand(app);
    pkgtool::addCrlCommand(app);
    pkgtool::addCodeCommand(app);
    pkgtool::addInspectCommand(app);
    pkgtool::addExplainCommand(app);
    pkgtool::addLintCommand(app);
    pkgtool::addVerifyCommand(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& status) {
        return status.get_exit_code();
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : USER_ERROR;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const pkgtool::UserError& error) {
        fprintf(stderr, "pkgtool: %s\n", error.what());
        if (!error.hint().empty()) fprintf(stderr, "hint: %s\n", error.hint().c_str());
        return USER_ERROR;
    } catch (const std::exception& error) {
        fprintf(stderr, "pkgtool: internal error: %s\n", error.what());
        return INTERNAL_ERROR;
    }
}
