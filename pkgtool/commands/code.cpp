// pkgtool code: a result code in words, and the table of all of them as a document.
#include "codes.h"
#include "commands.h"
#include "error.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>

namespace pkgtool {

namespace {

// The 32 bits of a number as programs print it, signed or not; none when there is more or anything else in the text.
std::optional<PELNIC_ERROR_CODE> parseNumber(const std::string& text, int base)
{
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(text.c_str(), &end, base);
    const bool fits =
        number >= std::numeric_limits<PNV_INT32>::min() && number <= std::numeric_limits<PELNIC_ERROR_CODE>::max();
    if (text.empty() || *end != '\0' || errno != 0 || !fits) return std::nullopt;
    return static_cast<PELNIC_ERROR_CODE>(number);
}

// A code looks the same with its 0x left out, and some of them then look decimal.
const Code& readCode(const std::string& text)
{
    for (int base : {16, 10}) {
        const std::optional<PELNIC_ERROR_CODE> value = parseNumber(text, base);
        const Code* const code = value ? findCode(*value) : nullptr;
        if (code != nullptr) return *code;
    }
    throw UserError("'" + printable(text) + "' is no code of the library",
                    "the checker prints codes as (err 0x88200009); its exit status is none");
}

void printCode(const Code& code)
{
    printf("%s %s: %s\n", hexadecimal(code.value).c_str(), code.name, code.meaning);
    if (*code.advice != '\0') printf("%s\n", code.advice);
}

void printMarkdown()
{
    printf("# Result codes\n\n"
           "Printed by `pkgtool code --markdown`; do not edit. `pkgtool code 0x88200009` explains a single one, and\n"
           "`pkgtool explain PACKAGE` what is behind it in a package.\n\n"
           "| Code | Name | Meaning | If the checker prints it |\n|---|---|---|---|\n");
    for (const Code& code : allCodes()) {
        printf("| `%s` | `%s` | %s | %s |\n", hexadecimal(code.value).c_str(), code.name, code.meaning, code.advice);
    }
}

} // namespace

void addCodeCommand(CLI::App& app)
{
    struct Options {
        std::string code;
        bool markdown = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("code", "Explain a result code");
    CLI::Option* const markdown = command->add_flag("--markdown", options->markdown, "print the table of all codes");
    command->add_option("code", options->code, "hexadecimal or decimal, signed or not")->excludes(markdown);
    command->callback([options] {
        if (options->markdown) return printMarkdown();
        printCode(readCode(options->code));
    });
}

} // namespace pkgtool
