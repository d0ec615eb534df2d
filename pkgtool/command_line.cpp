#include "command_line.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace pkgtool {

namespace {

using Words = std::vector<std::string>;

// ---- Help ----

constexpr std::size_t COLUMNS = 80;
constexpr std::size_t TEXT_COLUMN = 29; // where the descriptions begin

// Wrapped to that length; all lines but the first are indented.
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent)
{
    std::istringstream words(text);
    std::string lines;
    std::size_t used = 0;
    for (std::string word; words >> word;) {
        const bool fits = used + 1 + word.size() <= width;
        if (used != 0) lines += fits ? " " : "\n" + std::string(indent, ' ');
        used = used != 0 && fits ? used + 1 + word.size() : word.size();
        lines += word;
    }
    return lines;
}

std::string helpLine(const std::string& name, const std::string& text)
{
    const std::string left = "  " + name;
    const std::string gap = left.size() + 1 < TEXT_COLUMN ? std::string(TEXT_COLUMN - left.size(), ' ')
                                                          : "\n" + std::string(TEXT_COLUMN, ' ');
    return left + (text.empty() ? "" : gap) + wrapped(text, COLUMNS - TEXT_COLUMN, TEXT_COLUMN) + "\n";
}

// FILE, NUMBER, {a,b} for a choice, or what the option itself says. CLI11's type is followed by the checks; a text is
// the name of a file unless the option says what it is.
std::string valueOf(const CLI::Option* option)
{
    if (option->get_type_size() == 0) return "";
    const std::string type = option->get_type_name();
    if (type.find('{') != std::string::npos) return " " + type.substr(type.find('{'));
    const std::string word = type.substr(0, type.find(':'));
    return word == "TEXT" ? " FILE" : word == "UINT" || word == "INT" ? " NUMBER" : " " + word;
}

// ---- Errors ----

// The number of insertions, deletions, changes and swaps of neighbours between two words.
std::size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t k = 0; k <= b.size(); ++k) {
            if (i == 0 || k == 0) {
                d[i][k] = i + k;
                continue;
            }
            d[i][k] = std::min({d[i - 1][k] + 1, d[i][k - 1] + 1, d[i - 1][k - 1] + (a[i - 1] == b[k - 1] ? 0 : 1)});
            if (i > 1 && k > 1 && a[i - 1] == b[k - 2] && a[i - 2] == b[k - 1]) {
                d[i][k] = std::min(d[i][k], d[i - 2][k - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

// The likely intended name; empty if none is near.
std::string nearest(const std::string& word, const Words& names)
{
    constexpr std::size_t MAX_WORD = 64; // longer than any name
    if (names.empty() || word.size() > MAX_WORD) return "";
    const std::string& name = *std::min_element(names.begin(), names.end(), [&](const auto& a, const auto& b) {
        return distance(word, a) < distance(word, b);
    });
    return distance(word, name) <= std::max<std::size_t>(1, name.size() / 4) ? name : "";
}

Words commandsOf(const CLI::App& app)
{
    Words names;
    for (const CLI::App* command : app.get_subcommands({})) {
        if (!command->get_name().empty()) names.push_back(command->get_name());
    }
    return names;
}

Words optionsOf(const CLI::App& command)
{
    Words names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
    for (const CLI::App* group : command.get_subcommands({})) {
        if (!group->get_name().empty()) continue;
        const Words more = optionsOf(*group);
        names.insert(names.end(), more.begin(), more.end());
    }
    return names;
}

// The command selected by the words, and its name, such as "crl show"; empty for the program itself.
const CLI::App* commandMeant(const CLI::App& app, std::string& name)
{
    const CLI::App* command = &app;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        name += (name.empty() ? "" : " ") + command->get_name();
    }
    return command;
}

// The unparsed word to report. The value after a wrong option may be a secret.
std::string firstWrong(const Words& words)
{
    const auto isOption = [](const std::string& word) { return word.size() > 1 && word[0] == '-'; };
    const auto option = std::find_if(words.begin(), words.end(), isOption);
    return option != words.end() ? option->substr(0, option->find('=')) : words.front();
}

std::string withoutLibrarysWords(const CLI::ParseError& error)
{
    std::string text = error.what();
    const std::size_t missing = text.find(" 1 required "); // and the type
    if (missing != std::string::npos) text.replace(missing, std::string::npos, " its value is missing");
    for (const auto& [words, by] : {std::pair("A subcommand is required", "a command is missing"),
                                    {" excludes ", " does not go with "},
                                    {" requires ", " needs "},
                                    {"Exactly 1 option from ", "give one of "},
                                    {" is required and ", "; "},
                                    {"Could not convert: ", "not a number that fits: "},
                                    {": Value ", ": "},
                                    {" not in range ", " is not in the range "},
                                    {" not in {", " is none of {"},
                                    {" is required", " is missing"}}) {
        const std::size_t at = text.find(words);
        if (at != std::string::npos) text.replace(at, std::strlen(words), by);
    }
    return text;
}

} // namespace

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    const std::string name = option->get_name(isPositional, !isPositional);
    return helpLine(isPositional ? name : name + valueOf(option), option->get_description());
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const
{
    return helpLine(command->get_name(), command->get_description());
}

std::string HelpFormatter::make_expanded(const CLI::App* group) const
{
    std::string text = "\n" + group->get_description() + ":\n";
    for (const CLI::Option* option : group->get_options()) {
        if (option != group->get_help_ptr()) text += make_option(option, false); // which every group inherits
    }
    return text;
}

// Paragraphs, separated by empty lines.
std::string HelpFormatter::make_footer(const CLI::App* app) const
{
    const std::string footer = app->get_footer();
    std::string text;
    for (std::size_t at = 0; at < footer.size();) {
        const std::size_t end = std::min(footer.find("\n\n", at), footer.size());
        text += (at == 0 ? "" : "\n") + wrapped(footer.substr(at, end - at), COLUMNS, 0) + "\n";
        at = end == footer.size() ? end : end + 2;
    }
    return text;
}

std::vector<std::string> commandLine(int argc, char** argv)
{
    Words words(argv + 1, argv + argc);
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    std::reverse(words.begin(), words.end());
    return words;
}

bool isOfUnknownCommand(const CLI::App& app)
{
    std::string name;
    const CLI::App* const command = commandMeant(app, name);
    const Words rest = command->remaining();
    return !commandsOf(*command).empty() && !rest.empty() && rest.front()[0] != '-';
}

UserError explainParseError(const CLI::App& app, const CLI::ParseError& error)
{
    std::string name;
    const CLI::App* const command = commandMeant(app, name);
    const Words commands = commandsOf(*command);
    const Words rest = command->remaining();
    const std::string prefix = name.empty() ? "" : name + ": ";
    const std::string help = app.get_name() + (name.empty() ? "" : " " + name) + " --help lists the " +
                             (commands.empty() ? "options" : "commands");
    if (rest.empty()) return UserError(prefix + withoutLibrarysWords(error), help);
    const std::string wrong = firstWrong(rest);
    const bool isOption = wrong.size() > 1 && wrong[0] == '-';
    const std::string meant = nearest(wrong, isOption ? optionsOf(*command) : commands);
    const std::string hint = meant.empty() ? help : "did you mean " + meant + "? " + help;
    if (isOption) return UserError(prefix + "no such option: " + wrong, hint);
    if (!commands.empty()) return UserError(prefix + "no such command: " + wrong, hint);
    return UserError(prefix + "one word too many: " + wrong, help);
}

void addForceFlag(CLI::App* command, Existing& existing)
{
    command->add_flag_callback(
        "--force", [&existing] { existing = Existing::Replace; }, "replace existing files");
}

} // namespace pkgtool
