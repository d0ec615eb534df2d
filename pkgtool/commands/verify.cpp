// pkgtool verify: the checker's verdict on many packages, each in its own process, as many at a time as there are
// cores. A package that crashes a process loses only its own verdict.
#include "codes.h"
#include "commands.h"
#include "contents.h"
#include "error.h"
#include "terminal.h"
#include "text.h"
#include "verdict.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>

namespace pkgtool {

namespace {

constexpr int REFUSED = 1;
constexpr int TROUBLE = 2;
constexpr unsigned MAX_JOBS = 1024;

struct VerifyOptions {
    std::vector<std::string> packages;
    bool recursive = false;
    std::string root;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    bool json = false;
    std::string junit;
    Existing existing = Existing::Refuse;
    bool allowUnsigned = false;
};

enum class Result { Accepted, NotSigned, Refused, Unreadable };

// A process's result for its package.
struct Answer {
    Result result;
    int status;
    PELNIC_ERROR_CODE code; // 0 for none
    char message[256];
};

using Answers = std::map<std::size_t, Answer>; // by the index of the package

// ---- Processes ----

Answer makeAnswer(const Verdict& verdict)
{
    Answer answer{};
    answer.result = !verdict.isAccepted() ? Result::Refused : verdict.isSigned ? Result::Accepted : Result::NotSigned;
    answer.status = verdict.status;
    answer.code = verdict.code.value_or(0);
    verdict.message.copy(answer.message, sizeof answer.message - 1);
    return answer;
}

Answer unreadable(const std::string& message)
{
    constexpr int CHECKERS_STATUS = 0xFF; // for an unreadable file
    Answer answer{Result::Unreadable, CHECKERS_STATUS, 0, ""};
    message.copy(answer.message, sizeof answer.message - 1);
    return answer;
}

Answer judgeFile(const std::string& path, const Root& root)
{
    try {
        const MappedFile package(path);
        const Verdict verdict = judge(package.content(), root);
        package.requireUnchanged();
        return makeAnswer(verdict);
    } catch (const std::exception& error) {
        return unreadable(error.what());
    }
}

// Answers in memory shared by the processes.
class SharedAnswers {
public:
    explicit SharedAnswers(std::size_t count) : size_(count * sizeof(Answer))
    {
        void* const memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        answers_ = static_cast<Answer*>(memory);
    }
    ~SharedAnswers() { munmap(answers_, size_); }
    SharedAnswers(const SharedAnswers&) = delete;
    SharedAnswers& operator=(const SharedAnswers&) = delete;

    Answer& operator[](std::size_t i) { return answers_[i]; }

private:
    std::size_t size_;
    Answer* answers_;
};

// Each stores its answer at the index of its package.
class Processes {
public:
    Processes(const VerifyOptions& options, const Root& root)
        : options_(options), root_(root), answers_(options.packages.size())
    {
        sigemptyset(&endings_);
        sigaddset(&endings_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &endings_, nullptr); // it is waited for
    }

    const Answers& answers() const { return done_; }
    // Whether there is another answer; if not, a second has passed.
    bool proceed()
    {
        while (started_ < options_.packages.size() && running_.size() < options_.jobs && start(started_)) ++started_;
        int status = 0;
        pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended == 0) {
            constexpr timespec SECOND{1, 0};
            (void)sigtimedwait(&endings_, nullptr, &SECOND);
            ended = waitpid(-1, &status, WNOHANG);
        }
        if (ended < 0) throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
        if (ended == 0) return false;
        const std::size_t index = running_.at(ended);
        running_.erase(ended);
        done_[index] = status == 0 ? answers_[index] : unreadable(endText(status));
        return true;
    }

private:
    bool start(std::size_t index)
    {
        const pid_t child = fork();
        if (child == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            answers_[index] = judgeFile(options_.packages[index], root_);
            _exit(0); // the parent releases its own objects
        }
        if (child > 0) running_[child] = index;
        return child > 0;
    }

    static std::string endText(int status)
    {
        const std::string process = "the process that checked it ended with ";
        if (WIFSIGNALED(status)) return process + "signal " + std::to_string(WTERMSIG(status));
        return process + "status " + std::to_string(WEXITSTATUS(status));
    }

    const VerifyOptions& options_;
    const Root& root_;
    SharedAnswers answers_;
    std::size_t started_ = 0;
    std::map<pid_t, std::size_t> running_;
    Answers done_;
    sigset_t endings_{};
};

// ---- Output ----

std::string resultText(Result result)
{
    switch (result) {
    case Result::Accepted: return "accepted";
    case Result::NotSigned: return coloured(Colour::Yellow, "accepted, NOT SIGNED");
    case Result::Refused: return "refused ";
    case Result::Unreadable: break;
    }
    return "unreadable";
}

const Code* codeOf(const Answer& answer)
{
    return answer.code != 0 ? findCode(answer.code) : nullptr;
}

// The checker's line and the meaning of its code.
std::string reasonText(const Answer& answer)
{
    const Code* const code = codeOf(answer);
    return std::string(answer.message) + (code != nullptr ? std::string(", ") + code->name + ": " + code->meaning : "");
}

Json answerJson(const std::string& package, const Answer& answer)
{
    const bool isAccepted = answer.status == 0;
    const Code* const code = codeOf(answer);
    const bool isReadable = answer.result != Result::Unreadable;
    return {{"schema", SCHEMA},
            {"package", package},
            {"verdict", isAccepted   ? "accepted"
                        : isReadable ? "refused"
                                     : "unreadable"},
            {"signed", isAccepted ? Json(answer.result == Result::Accepted) : Json()},
            {"status", answer.status},
            {"code", answer.code != 0 ? Json(hexadecimal(answer.code)) : Json()},
            {"name", code != nullptr ? Json(code->name) : Json()},
            {"message", orNull(answer.message)}};
}

void printAnswer(const std::string& package, const Answer& answer, bool json)
{
    if (json) return (void)printf("%s\n", dump(answerJson(package, answer), -1).c_str());
    const std::string reason = reasonText(answer);
    printf("%s  %s%s%s\n", resultText(answer.result).c_str(), printable(package).c_str(), reason.empty() ? "" : ": ",
           printable(reason).c_str());
}

// A bar below the results, on the error output, so that it never mixes with them.
class Bar {
public:
    explicit Bar(std::size_t all) : all_(all) {}

    void draw(std::size_t done) const
    {
        constexpr std::size_t WIDTH = 40;
        if (!isShown_) return;
        const auto seconds = static_cast<long>(std::time(nullptr) - started_);
        const std::string bar = std::string(done * WIDTH / all_, '#') + std::string(WIDTH - done * WIDTH / all_, '.');
        fprintf(stderr, "\r[%s] %zu of %zu, %ld s", bar.c_str(), done, all_, seconds);
    }
    // Makes way for results.
    void clear() const
    {
        if (isShown_) fprintf(stderr, "\r\033[K");
    }

private:
    std::size_t all_;
    std::time_t started_ = std::time(nullptr);
    bool isShown_ = isatty(STDERR_FILENO) != 0;
};

std::size_t countOf(const Answers& answers, Result result)
{
    return static_cast<std::size_t>(std::count_if(answers.begin(), answers.end(),
                                                  [&](const auto& entry) { return entry.second.result == result; }));
}

void printSummary(const Answers& answers)
{
    const std::size_t refused = countOf(answers, Result::Refused);
    printf("%zu checked: %zu accepted, %zu accepted and NOT SIGNED, %zu refused, %zu unreadable\n", answers.size(),
           countOf(answers, Result::Accepted), countOf(answers, Result::NotSigned), refused,
           countOf(answers, Result::Unreadable));
    if (refused != 0) printf("pkgtool explain PACKAGE says why a package is refused, and what to do\n");
}

// ---- JUnit's XML, which test reports of CI systems read ----

std::string junitText(const VerifyOptions& options, const Answers& answers)
{
    std::string cases;
    std::size_t failures = 0;
    for (const auto& [i, answer] : answers) {
        const bool isError = answer.result == Result::Unreadable;
        const bool isFailure =
            answer.result == Result::Refused || (answer.result == Result::NotSigned && !options.allowUnsigned);
        failures += isFailure ? 1 : 0;
        cases += R"(  <testcase classname="pkgtool.verify" name=")" + markupText(options.packages[i]) + "\">";
        if (isFailure || isError) {
            const std::string message =
                answer.result == Result::NotSigned ? "accepted, NOT SIGNED" : reasonText(answer);
            cases += std::string(isError ? "<error" : "<failure") + " message=\"" + markupText(message) + "\"/>";
        }
        cases += "</testcase>\n";
    }
    return R"(<?xml version="1.0" encoding="UTF-8"?>)"
           "\n<testsuite name=\"pkgtool verify\" tests=\"" +
           std::to_string(answers.size()) + "\" failures=\"" + std::to_string(failures) + "\" errors=\"" +
           std::to_string(countOf(answers, Result::Unreadable)) + "\">\n" + cases + "</testsuite>\n";
}

// ---- The command ----

// Replaces a directory by every regular file below it, sorted.
std::vector<std::string> filesBelow(const std::vector<std::string>& paths)
{
    namespace fs = std::filesystem;
    std::vector<std::string> files;
    for (const std::string& path : paths) {
        if (!fs::is_directory(path)) {
            files.push_back(path);
            continue;
        }
        const std::size_t begin = files.size();
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
            if (entry.symlink_status().type() == fs::file_type::regular) files.push_back(entry.path());
        }
        std::sort(files.begin() + static_cast<std::ptrdiff_t>(begin), files.end());
    }
    return files;
}

// One line per package, in the order of the command line, as soon as all earlier ones are done.
Answers judgeAll(const VerifyOptions& options, const Root& root)
{
    std::size_t printed = 0;
    const Bar bar(options.packages.size());
    Processes processes(options, root);
    const Answers& answers = processes.answers();
    while (answers.size() < options.packages.size()) {
        if (processes.proceed()) bar.clear();
        for (; answers.count(printed) != 0; ++printed) {
            printAnswer(options.packages[printed], answers.at(printed), options.json);
        }
        (void)fflush(stdout);
        bar.draw(answers.size());
    }
    bar.clear();
    return answers;
}

void verify(VerifyOptions options)
{
    const Root root = loadRoot(options.root);
    if (!options.junit.empty()) requireWritable(options.junit, options.existing);
    if (options.recursive) options.packages = filesBelow(options.packages);
    const Answers answers = judgeAll(options, root);
    if (!options.json) printSummary(answers);
    if (!options.junit.empty()) {
        const std::string xml = junitText(options, answers);
        writeFile(options.junit, Bytes(xml.begin(), xml.end()), options.existing);
    }
    if (countOf(answers, Result::Unreadable) != 0) throw CLI::RuntimeError(TROUBLE);
    if (countOf(answers, Result::Refused) != 0) throw CLI::RuntimeError(REFUSED);
    if (countOf(answers, Result::NotSigned) != 0 && !options.allowUnsigned) throw CLI::RuntimeError(NOT_SIGNED);
}

} // namespace

void addVerifyCommand(CLI::App& app)
{
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* const command = app.add_subcommand("verify", "Show the checker's verdict on many packages");
    command->add_option("packages", options->packages, "the packages; - is standard input; directories with -r")
        ->required();
    command->add_flag("-r,--recursive", options->recursive, "take all files below a directory");
    command->add_option("--root", options->root, "trust this root certificate, not the one compiled into the checker");
    command->add_option("-j,--jobs", options->jobs, "packages at a time; by default the number of cores")
        ->check(CLI::Range(1u, MAX_JOBS));
    command->add_flag("--json", options->json, "print one JSON object per package, each on its own line");
    command->add_option("--junit", options->junit, "also write the results to this file, as JUnit XML");
    addForceFlag(command, options->existing);
    command->add_flag("--allow-unsigned", options->allowUnsigned, "status 0 even if some are accepted but not signed");
    command->footer("Exit status: 0 all accepted, 1 any refused, 2 any unreadable, or the command line is wrong,\n"
                    "3 all accepted, some of them not signed.");
    command->callback([options] { verify(*options); });
}

} // namespace pkgtool
