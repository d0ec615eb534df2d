// What is under way when it takes long.
#ifndef PKGTOOL_PROGRESS_H
#define PKGTOOL_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace pkgtool {

// While it lives and a second has gone by, the error output says what is being done and for how long, if that is a
// terminal; the line goes when it is done. One at a time.
class Progress {
public:
    // A log is told too, once, after ten seconds, of what somebody outside could be the cause of.
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
