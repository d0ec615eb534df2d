// pkgtool code: result codes, exit statuses and lines of the checker in words, and the table of codes as a document.
#include "codes.h"
#include "commands.h"
#include "error.h"
#include "files.h"
#include "json.h"
#include "reason_code.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>

namespace pkgtool {

namespace {

// ---- Questions ----

// The 32 bits of a number as programs print it, signed or not; none if it has more bits or the text anything else.
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

// A code may lack its 0x, and some codes then look decimal.
const Code* codeOf(const std::string& text)
{
    for (int base : {16, 10}) {
        const std::optional<PELNIC_ERROR_CODE> value = parseNumber(text, base);
        const Code* const code = value ? findCode(*value) : nullptr;
        if (code != nullptr) return code;
    }
    return findCode(text);
}

const Status* statusOf(const std::string& text)
{
    const std::optional<PELNIC_ERROR_CODE> value = parseNumber(text, 10);
    return value ? findStatus(*value) : nullptr;
}

constexpr const char* NOT_SIGNED_CONTENT = "the content is not what was signed"; // of a reason without a code

// Answers to one word or line. A line of the checker may be anywhere in a log's line, and may contain a code.
struct Answer {
    std::string asked;
    const Code* code = nullptr;
    const Status* status = nullptr;
    const Line* line = nullptr;
    std::optional<ReasonCode> reason{};

    bool isThere() const { return code != nullptr || status != nullptr || line != nullptr || reason; }
};

// The word after "err ", without the closing bracket.
std::string codeInLine(const std::string& text)
{
    const std::string mark = "(err 0x";
    const std::size_t at = text.find(mark);
    if (at == std::string::npos) return "";
    return text.substr(at + mark.size(), text.find(')', at) - at - mark.size());
}

Answer answerTo(const std::string& text)
{
    Answer answer{text, codeOf(text), nullptr, nullptr};
    if (answer.code == nullptr) answer.status = statusOf(text);
    if (answer.isThere()) return answer;
    answer.reason = readReasonCode(text);
    if (answer.reason) {
        answer.code = findCode(answer.reason->code);
        return answer;
    }
    answer.line = findLine(text);
    if (answer.line != nullptr) answer.code = codeOf(codeInLine(text));
    return answer;
}

[[noreturn]] void throwUnknown(const std::string& text)
{
    throw UserError("'" + printable(text) + "' is not a code of the library, an exit status or a line of the checker",
                    "codes are like 0x88200009, CERT_VERIFY or PELNIC_ERR_CERT_VERIFY; a line goes in quotes, or to "
                    "standard input by the name -");
}

// Unknown lines are ignored: they come from a log.
std::vector<Answer> answersToInput()
{
    const Bytes content = readFile("-");
    std::istringstream lines(std::string(content.begin(), content.end()));
    std::vector<Answer> answers;
    for (std::string line; std::getline(lines, line);) {
        const Answer answer = answerTo(line);
        if (answer.isThere()) answers.push_back(answer);
    }
    if (answers.empty()) throw UserError("standard input has no code, exit status or line of the checker");
    return answers;
}

std::vector<Answer> answersTo(const std::vector<std::string>& words)
{
    std::vector<Answer> answers;
    for (const std::string& word : words) {
        const std::vector<Answer> more = word == "-" ? answersToInput() : std::vector<Answer>{answerTo(word)};
        if (!more.front().isThere()) throwUnknown(word);
        answers.insert(answers.end(), more.begin(), more.end());
    }
    return answers;
}

// ---- Output ----

void printAdvice(const char* advice)
{
    if (*advice != '\0') printf("%s\n", advice);
}

void printAnswer(const Answer& answer)
{
    if (answer.reason) printf("decided by %s\n", answer.reason->text.c_str());
    if (answer.reason && answer.code == nullptr) printf("%s\n", NOT_SIGNED_CONTENT);
    if (answer.line != nullptr) printf("%s: %s\n", printable(answer.asked).c_str(), answer.line->meaning);
    if (answer.line != nullptr && answer.code == nullptr) printAdvice(answer.line->advice);
    if (answer.status != nullptr) {
        printf("exit status %d: %s\n", answer.status->value, answer.status->meaning);
        printAdvice(answer.status->advice);
    }
    if (answer.code == nullptr) return;
    printf("%s %s: %s\n", hexadecimal(answer.code->value).c_str(), answer.code->name, answer.code->meaning);
    printAdvice(answer.code->advice);
}

// The most specific answer: a code says more than its line.
Json answerJson(const Answer& answer)
{
    const Code* const code = answer.code;
    const char* const meaning = code != nullptr            ? code->meaning
                                : answer.status != nullptr ? answer.status->meaning
                                : answer.line != nullptr   ? answer.line->meaning
                                                           : NOT_SIGNED_CONTENT;
    const char* const advice = code != nullptr            ? code->advice
                               : answer.status != nullptr ? answer.status->advice
                               : answer.line != nullptr   ? answer.line->advice
                                                          : "";
    return {{"asked", answer.asked},
            {"status", answer.status != nullptr ? Json(answer.status->value)
                       : answer.line != nullptr ? Json(answer.line->status)
                                                : Json()},
            {"code", code != nullptr ? Json(hexadecimal(code->value)) : Json()},
            {"name", code != nullptr ? Json(code->name) : Json()},
            {"meaning", meaning},
            {"advice", orNull(advice)},
            {"reason", answer.reason ? answer.reason->json : Json()}};
}

void explainCodes(const std::vector<std::string>& words, bool json)
{
    const std::vector<Answer> answers = answersTo(words);
    if (json) {
        Json codes = Json::array();
        for (const Answer& answer : answers) codes.push_back(answerJson(answer));
        return print({{"schema", SCHEMA}, {"codes", codes}});
    }
    for (const Answer& answer : answers) printAnswer(answer);
}

void printMarkdown()
{
    printf("# Result codes\n\n"
           "Printed by `pkgtool code --markdown`; do not edit. `pkgtool code 0x88200009` explains one, and\n"
           "`pkgtool explain PACKAGE` shows its cause in a package.\n\n"
           "| Code | Name | Meaning | If the checker prints it |\n|---|---|---|---|\n");
    for (const Code& code : allCodes()) {
        printf("| `%s` | `%s` | %s | %s |\n", hexadecimal(code.value).c_str(), code.name, code.meaning, code.advice);
    }
}

} // namespace

void addCodeCommand(CLI::App& app)
{
    struct Options {
        std::vector<std::string> codes;
        bool json = false;
        bool markdown = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("code", "Explain result codes, exit statuses and lines of pkgcheck");
    CLI::Option* const markdown = command->add_flag("--markdown", options->markdown, "print the table of all codes");
    command->add_flag("--json", options->json, "print JSON")->excludes(markdown);
    command
        ->add_option("code", options->codes,
                     "hexadecimal or decimal, or its name; an exit status; a line in quotes; the 64 digits of a "
                     "reason; - is standard input, "
                     "whose other lines are ignored")
        ->excludes(markdown);
    command->callback([options] {
        if (options->markdown) return printMarkdown();
        if (options->codes.empty()) throw CLI::RequiredError("code");
        explainCodes(options->codes, options->json);
    });
}

} // namespace pkgtool
