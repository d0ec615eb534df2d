// The command line in this tool's own words.
#ifndef PKGTOOL_COMMAND_LINE_H
#define PKGTOOL_COMMAND_LINE_H

#include "error.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace pkgtool {

// Help on 80 columns, without what CLI11 tells of needs and exclusions: whoever violates one is told.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_expanded(const CLI::App* group) const override;
    std::string make_footer(const CLI::App* app) const override;
};

// The words behind the program's name, the last one first, as CLI11 wants them. "help sign" is "sign --help".
std::vector<std::string> commandLine(int argc, char** argv);

// What is wrong with the words that the app could not parse: the wrong one is named, and one that is nearly it.
UserError explainParseError(const CLI::App& app, const CLI::ParseError& error);

} // namespace pkgtool

#endif
