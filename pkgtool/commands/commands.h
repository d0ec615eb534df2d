// The subcommands. Each registers itself with its options; it runs while the command line is parsed, throws UserError
// for what its user got wrong, and CLI::RuntimeError for an exit status of its own.
#ifndef PKGTOOL_COMMANDS_H
#define PKGTOOL_COMMANDS_H

#include "command_line.h"

#include <CLI/CLI.hpp>

namespace pkgtool {

void addPkiCommand(CLI::App& app);
void addReleaseCommand(CLI::App& app);
void addSignCommand(CLI::App& app);
void addStampCommand(CLI::App& app);
void addPackCommand(CLI::App& app);
void addRenewCrlsCommand(CLI::App& app);
void addUnpackCommand(CLI::App& app);
void addListCommand(CLI::App& app);
void addCrlCommand(CLI::App& app);
void addCodeCommand(CLI::App& app);
void addRootCommand(CLI::App& app);
void addInspectCommand(CLI::App& app);
void addExplainCommand(CLI::App& app);
void addLintCommand(CLI::App& app);
void addVerifyCommand(CLI::App& app);

} // namespace pkgtool

#endif
