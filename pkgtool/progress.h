// Reports a long operation.
#ifndef PKGTOOL_PROGRESS_H
#define PKGTOOL_PROGRESS_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace pkgtool {

// After a second of its life, a terminal on the error output shows the operation, how much of it is done, and its
// duration; the line disappears at the end. One at a time.
class Progress {
public:
    // Told: also writes one line to a log, after ten seconds, for delays that may have an outside cause.
    enum class Log { Silent, Told };

    // total: in octets; 0 if nothing counts them, for libraries take an image whole.
    explicit Progress(std::string doing, std::size_t total = 0, Log log = Log::Silent);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void advance(std::size_t octets) { done_ += octets; }

private:
    void tell();

    std::string share() const;

    std::string doing_;
    std::size_t total_;
    std::atomic<std::size_t> done_{0};
    bool isTerminal_;
    bool isOver_ = false;
    std::mutex mutex_;
    std::condition_variable over_;
    std::thread teller_;
};

} // namespace pkgtool

#endif
