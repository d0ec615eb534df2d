// Reports a long operation.
#ifndef PKGTOOL_PROGRESS_H
#define PKGTOOL_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace pkgtool {

// After a second of its life, a terminal on the error output shows the operation and its duration; the line disappears
// at the end. One at a time.
class Progress {
public:
    // Told: also writes one line to a log, after ten seconds, for delays that may have an outside cause.
    enum class Log { Silent, Told };

    explicit Progress(std::string doing, Log log = Log::Silent);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void tell();

    std::string doing_;
    bool isTerminal_;
    bool isDone_ = false;
    std::mutex mutex_;
    std::condition_variable done_;
    std::thread teller_;
};

} // namespace pkgtool

#endif
