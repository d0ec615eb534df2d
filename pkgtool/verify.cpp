// pkgtool verify: the checker's verdict on many packages, by as many processes as there are cores. Processes, because
// the library's default callbacks must not share one with other threads that use OpenSSL.
#include "codes.h"
#include "commands.h"
#include "contents.h"
#include "error.h"
#include "terminal.h"
#include "text.h"
#include "verdict.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>

namespace pkgtool {

namespace {

// The version of the JSON output; a change that a reader could notice raises it.
constexpr int SCHEMA = 1;

constexpr int REFUSED = 1;

struct VerifyOptions {
    std::vector<std::string> packages;
    std::string root;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    bool json = false;
    bool allowUnsigned = false;
};

// ---- Workers ----

// What a worker tells of one package. It is written by one call and short enough to stay in one piece.
struct Answer {
    std::size_t index;
    int status;
    bool isSigned;
    PELNIC_ERROR_CODE code; // 0 for none
    char message[256];
};
static_assert(sizeof(Answer) <= 512, "POSIX keeps writes of 512 bytes to a pipe together");

Verdict judgeFile(const std::string& path, const Root& root)
{
    try {
        const MappedFile package(path);
        Verdict verdict = judge(package.content(), root);
        package.requireUnchanged();
        return verdict;
    } catch (const UserError& error) {
        return {0xFF, error.what(), std::nullopt, {}, false}; // the checker, too, refuses what it cannot read
    }
}

Answer answerFor(std::size_t index, const Verdict& verdict)
{
    Answer answer{};
    answer.index = index;
    answer.status = verdict.status;
    answer.isSigned = verdict.isSigned;
    answer.code = verdict.code.value_or(0);
    verdict.message.copy(answer.message, sizeof answer.message - 1);
    return answer;
}

// The number of the next package, shared by all workers.
class SharedCounter {
public:
    SharedCounter() : memory_(mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (memory_ == MAP_FAILED) throw std::runtime_error("no memory");
        counter_ = new (memory_) Counter(0);
    }
    ~SharedCounter() { munmap(memory_, sizeof(Counter)); }
    SharedCounter(const SharedCounter&) = delete;
    SharedCounter& operator=(const SharedCounter&) = delete;

    std::size_t next() { return counter_->fetch_add(1); }

private:
    using Counter = std::atomic<std::size_t>;
    static_assert(Counter::is_always_lock_free);

    void* memory_;
    Counter* counter_;
};

void work(const VerifyOptions& options, const Root& root, SharedCounter& counter, int out)
{
    for (std::size_t i = counter.next(); i < options.packages.size(); i = counter.next()) {
        const Answer answer = answerFor(i, judgeFile(options.packages[i], root));
        if (write(out, &answer, sizeof answer) != sizeof answer) return;
    }
}

// The answers of all workers, as they come.
class Workers {
public:
    Workers(const VerifyOptions& options, const Root& root)
    {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
        in_ = ends[0];
        const auto count = std::min<std::size_t>(options.jobs, options.packages.size());
        for (std::size_t i = 0; i < count; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                work(options, root, counter_, ends[1]);
                _exit(0); // nothing of the parent's is released here
            }
            if (child > 0) children_.push_back(child);
        }
        close(ends[1]);
    }
    ~Workers()
    {
        close(in_);
        for (pid_t child : children_) waitpid(child, nullptr, 0);
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // None when all workers have ended.
    std::optional<Answer> next() const
    {
        Answer answer;
        ssize_t count = 0;
        do count = read(in_, &answer, sizeof answer);
        while (count < 0 && errno == EINTR);
        return count == sizeof answer ? std::optional<Answer>(answer) : std::nullopt;
    }

private:
    SharedCounter counter_;
    std::vector<pid_t> children_;
    int in_;
};

// ---- Output ----

enum class Result { Accepted, NotSigned, Refused };

Result resultOf(const Answer& answer)
{
    if (answer.status != 0) return Result::Refused;
    return answer.isSigned ? Result::Accepted : Result::NotSigned;
}

std::string resultText(Result result)
{
    switch (result) {
    case Result::Accepted: return "accepted";
    case Result::NotSigned: return coloured(Colour::Yellow, "accepted, NOT SIGNED");
    case Result::Refused: break;
    }
    return "refused ";
}

void printAnswer(const std::string& package, const Answer& answer, bool json)
{
    const bool isAccepted = answer.status == 0;
    const Code* const code = answer.code != 0 ? findCode(answer.code) : nullptr;
    const Json name = code != nullptr ? Json(code->name) : Json();
    if (json) {
        const Json line = {{"schema", SCHEMA},
                           {"package", package},
                           {"verdict", isAccepted ? "accepted" : "refused"},
                           {"signed", isAccepted ? Json(answer.isSigned) : Json()},
                           {"status", answer.status},
                           {"code", answer.code != 0 ? Json(hexadecimal(answer.code)) : Json()},
                           {"name", name},
                           {"message", orNull(answer.message)}};
        printf("%s\n", dump(line, -1).c_str());
        return;
    }
    printf("%s  %s%s%s\n", resultText(resultOf(answer)).c_str(), printable(package).c_str(),
           *answer.message != '\0' ? ": " : "", printable(answer.message).c_str());
}

// On the error output, so that it is never among the results.
void drawProgress(std::size_t done, std::size_t all)
{
    constexpr std::size_t WIDTH = 40;
    if (isatty(STDERR_FILENO) == 0) return;
    const std::string bar = std::string(done * WIDTH / all, '#') + std::string(WIDTH - done * WIDTH / all, '.');
    fprintf(stderr, "\r[%s] %zu of %zu%s", bar.c_str(), done, all, done == all ? "\n" : "");
}

void printSummary(const std::map<Result, std::size_t>& counts)
{
    const auto count = [&](Result result) { return counts.count(result) != 0 ? counts.at(result) : 0; };
    printf("%zu accepted, %zu accepted and NOT SIGNED, %zu refused\n", count(Result::Accepted),
           count(Result::NotSigned), count(Result::Refused));
}

// One line for each package, in the order of the command line, as soon as all before it are there.
void verify(const VerifyOptions& options)
{
    std::vector<std::optional<Answer>> answers(options.packages.size());
    std::size_t printed = 0;
    std::size_t done = 0;
    const Root root = loadRoot(options.root);
    fflush(stdout); // or each worker would have a copy of what is not yet written
    const Workers workers(options, root);
    while (const std::optional<Answer> answer = workers.next()) {
        answers.at(answer->index) = answer;
        drawProgress(++done, answers.size());
        for (; printed < answers.size() && answers[printed]; ++printed) {
            printAnswer(options.packages[printed], *answers[printed], options.json);
        }
    }
    if (printed != answers.size()) throw std::runtime_error("no answer on " + options.packages[printed]);
    std::map<Result, std::size_t> counts;
    for (const std::optional<Answer>& answer : answers) ++counts[resultOf(*answer)];
    if (!options.json) printSummary(counts);
    if (counts.count(Result::Refused) != 0) throw CLI::RuntimeError(REFUSED);
    if (counts.count(Result::NotSigned) != 0 && !options.allowUnsigned) throw CLI::RuntimeError(NOT_SIGNED);
}

} // namespace

void addVerifyCommand(CLI::App& app)
{
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* const command = app.add_subcommand("verify", "Show the checker's verdict on many packages");
    command->add_option("packages", options->packages)->required();
    command->add_option("--root", options->root, "trust this root certificate, not the one compiled into the checker");
    command->add_option("-j,--jobs", options->jobs, "packages at a time; as many as there are cores otherwise")
        ->check(CLI::PositiveNumber);
    command->add_flag("--json", options->json, "print one JSON object for each package, on a line of its own");
    command->add_flag("--allow-unsigned", options->allowUnsigned, "status 0 although some are accepted and not signed");
    command->footer("Exit status: 0 all accepted, 1 any refused, or the command line is wrong, 2 internal error,\n"
                    "3 all accepted, some of them not signed.");
    command->callback([options] { verify(*options); });
}

} // namespace pkgtool
