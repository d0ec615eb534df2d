// A new file is written beside its destination and renamed when it is complete.
#include "files.h"

#include "error.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace pkgtool {

namespace {

UserError fileError(const std::string& doing, const std::string& path)
{
    return UserError("cannot " + doing + " " + path + ": " + std::strerror(errno));
}

class File {
public:
    File(const std::string& path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {}
    ~File()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

private:
    int fd_;
};

bool writeAll(int fd, const Bytes& content)
{
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t count = write(fd, content.data() + done, content.size() - done);
        if (count < 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

bool writeNewFile(const std::string& path, const Bytes& content)
{
    File file(path, O_WRONLY | O_CREAT | O_EXCL);
    return file.isOpen() && writeAll(file.fd(), content) && fsync(file.fd()) == 0 && file.close();
}

} // namespace

Bytes readFile(const std::string& path)
{
    const File file(path, O_RDONLY);
    if (!file.isOpen()) throw fileError("open", path);
    Bytes content;
    std::array<unsigned char, 65536> block;
    ssize_t count = 0;
    while ((count = read(file.fd(), block.data(), block.size())) > 0) {
        content.insert(content.end(), block.begin(), block.begin() + count);
    }
    if (count < 0) throw fileError("read", path);
    return content;
}

void writeFile(const std::string& path, const Bytes& content)
{
    const std::string unfinished = path + ".unfinished." + std::to_string(getpid());
    if (writeNewFile(unfinished, content) && rename(unfinished.c_str(), path.c_str()) == 0) return;
    const UserError error = fileError("write", path);
    unlink(unfinished.c_str());
    throw error;
}

} // namespace pkgtool
