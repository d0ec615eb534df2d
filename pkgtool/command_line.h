// The command line in this tool's own words.
#ifndef PKGTOOL_COMMAND_LINE_H
#define PKGTOOL_COMMAND_LINE_H

#include "error.h"
#include "files.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace pkgtool {

// Help in 80 columns, without CLI11's needs and exclusions: an error message explains a violated one.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_expanded(const CLI::App* group) const override;
    std::string make_footer(const CLI::App* app) const override;
};

// The words after the program's name, in reverse order for CLI11. "help sign" becomes "sign --help".
std::vector<std::string> commandLine(int argc, char** argv);

// Help was asked for about a command that there is not.
bool isOfUnknownCommand(const CLI::App& app);

// The error for words that the app could not parse: it names the wrong word and a similar valid one.
UserError explainParseError(const CLI::App& app, const CLI::ParseError& error);

// The flag of all commands that write files.
void addForceFlag(CLI::App* command, Existing& existing);

} // namespace pkgtool

#endif
