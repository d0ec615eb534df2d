#include "progress.h"

#include "text.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace pkgtool {

namespace {

constexpr int LOG_AFTER = 10; // seconds

} // namespace

Progress::Progress(std::string doing, std::size_t total, Log log)
    : doing_(printable(std::move(doing))), total_(total), isTerminal_(isatty(STDERR_FILENO) != 0)
{
    if (isTerminal_ || log == Log::Told) teller_ = std::thread(&Progress::tell, this);
}

Progress::~Progress()
{
    if (!teller_.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isOver_ = true;
    }
    over_.notify_one();
    teller_.join();
}

// ", 42 %", or nothing.
std::string Progress::share() const
{
    if (total_ == 0) return "";
    return ", " + std::to_string(std::uint64_t{done_} * 100 / total_) + " %";
}

void Progress::tell()
{
    std::unique_lock<std::mutex> lock(mutex_);
    int seconds = 0;
    while (!over_.wait_for(lock, std::chrono::seconds(1), [this] { return isOver_; })) {
        ++seconds;
        if (isTerminal_) fprintf(stderr, "\rpkgtool: %s%s, %d s\033[K", doing_.c_str(), share().c_str(), seconds);
        if (!isTerminal_ && seconds == LOG_AFTER) fprintf(stderr, "pkgtool: %s\n", doing_.c_str());
    }
    if (isTerminal_ && seconds != 0) fprintf(stderr, "\r\033[K");
}

} // namespace pkgtool
