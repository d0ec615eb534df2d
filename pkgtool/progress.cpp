#include "progress.h"

#include "text.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <utility>

namespace pkgtool {

namespace {

constexpr int LOG_AFTER = 10; // seconds

} // namespace

Progress::Progress(std::string doing, Log log)
    : doing_(printable(std::move(doing))), isTerminal_(isatty(STDERR_FILENO) != 0)
{
    if (isTerminal_ || log == Log::Told) teller_ = std::thread(&Progress::tell, this);
}

Progress::~Progress()
{
    if (!teller_.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isDone_ = true;
    }
    done_.notify_one();
    teller_.join();
}

void Progress::tell()
{
    std::unique_lock<std::mutex> lock(mutex_);
    int seconds = 0;
    while (!done_.wait_for(lock, std::chrono::seconds(1), [this] { return isDone_; })) {
        ++seconds;
        if (isTerminal_) fprintf(stderr, "\rpkgtool: %s, %d s\033[K", doing_.c_str(), seconds);
        if (!isTerminal_ && seconds == LOG_AFTER) fprintf(stderr, "pkgtool: %s\n", doing_.c_str());
    }
    if (isTerminal_ && seconds != 0) fprintf(stderr, "\r\033[K");
}

} // namespace pkgtool
