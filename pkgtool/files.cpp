#include "files.h"

#include "error.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

namespace pkgtool {

namespace {

UserError fileError(const std::string& doing, const std::string& path)
{
    return UserError("cannot " + doing + " " + path + ": " + std::strerror(errno));
}

// The identity of a file, independent of its names.
using Identity = std::pair<dev_t, ino_t>;

Identity identityOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino};
}

// ---- Reading ----

// Every regular file that was read; none of them may be written.
std::set<Identity> inputs;

const char* kindOf(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFDIR: return "is a directory";
    case S_IFIFO: return "is a FIFO";
    case S_IFSOCK: return "is a socket";
    default: return "is a device";
    }
}

struct Input {
    Descriptor file;
    struct stat status;
};

// Standard input may be of any kind: a user who names it is ready to wait.
Input openInput(const std::string& path)
{
    static bool usedStandardInput = false;
    const bool isStandard = path == "-";
    if (isStandard && std::exchange(usedStandardInput, true)) throw UserError("standard input can be read only once");
    // Opening a FIFO without a writer would block.
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    Input input{Descriptor(isStandard ? dup(STDIN_FILENO) : open(path.c_str(), flags)), {}};
    if (!input.file.isOpen()) throw fileError("open", path);
    if (fstat(input.file.get(), &input.status) != 0) throw fileError("read", path);
    const bool isNull =
        S_ISCHR(input.status.st_mode) && input.status.st_rdev == makedev(1, 3); // conventionally an empty file
    if (S_ISREG(input.status.st_mode)) {
        inputs.insert(identityOf(input.status));
    } else if (!isNull && (!isStandard || S_ISDIR(input.status.st_mode))) {
        throw UserError("cannot read " + path + ": it " + kindOf(input.status.st_mode) + ", not a regular file",
                        S_ISDIR(input.status.st_mode)
                            ? "name a file; pkgtool verify -r takes all files below a directory"
                            : "read another command's output from standard input, which is called -");
    }
    return input;
}

UserError tooLarge(const std::string& path)
{
    return UserError("cannot read " + path + ": it has 2 GiB or more, and the checker reads no such file");
}

UserError changed(const std::string& path)
{
    return UserError("cannot read " + path + ": it changed while it was read");
}

// The size of a regular file; 0 if unknown.
std::size_t lengthOf(const Input& input, const std::string& path)
{
    if (!S_ISREG(input.status.st_mode)) return 0;
    if (static_cast<std::uintmax_t>(input.status.st_size) > MAX_READ) throw tooLarge(path);
    return static_cast<std::size_t>(input.status.st_size);
}

Bytes readAll(const Input& input, const std::string& path)
{
    const std::size_t length = lengthOf(input, path);
    Bytes content;
    content.reserve(length);
    std::array<unsigned char, 65536> block;
    ssize_t count = 0;
    while ((count = read(input.file.get(), block.data(), block.size())) > 0) {
        if (content.size() + static_cast<std::size_t>(count) > MAX_READ) throw tooLarge(path);
        content.insert(content.end(), block.begin(), block.begin() + count);
    }
    if (count < 0) throw fileError("read", path);
    if (length != 0 && content.size() != length) throw changed(path);
    return content;
}

constexpr char BECAME_SHORTER[] = "a file became shorter while it was read";

[[noreturn]] void endByShrunkFile(int)
{
    for (const char* part : {"pkgtool: ", BECAME_SHORTER, "\n"}) (void)!write(STDERR_FILENO, part, strlen(part));
    _exit(2);
}

// ---- Writing ----

UserError nameTooLong(const std::string& place)
{
    return UserError("cannot make " + place + ": its name is too long");
}

// The names of the one unfinished file and directory, for a signal handler, and the number of files named in the
// directory.
using Name = std::array<char, PATH_MAX>;
Name unfinished;
Name unfinishedDirectory;
std::array<Name, 32> unfinishedInside;
volatile std::sig_atomic_t insideCount = 0;

// Of a name that fits, the first character comes last: a signal meanwhile finds no name, and not the beginning of one.
void setName(Name& place, const std::string& name)
{
    place[1 + name.copy(&place[1], place.size() - 2, 1)] = '\0';
    std::atomic_signal_fence(std::memory_order_release);
    place[0] = name[0];
}

void removeUnfinished()
{
    if (unfinished[0] != '\0') (void)unlink(unfinished.data());
    unfinished[0] = '\0';
}

void removeUnfinishedDirectory()
{
    for (int i = 0; i < insideCount; ++i) (void)unlink(unfinishedInside[static_cast<std::size_t>(i)].data());
    insideCount = 0;
    if (unfinishedDirectory[0] != '\0') (void)rmdir(unfinishedDirectory.data());
    unfinishedDirectory[0] = '\0';
}

void endBySignal(int signal)
{
    removeUnfinished();
    removeUnfinishedDirectory();
    (void)raise(signal); // its default action is set again
}

// The signals that end a process from outside; ignored ones stay ignored.
void removeUnfinishedOnSignals()
{
    struct sigaction action {};
    action.sa_handler = endBySignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ}) {
        struct sigaction old {};
        if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) sigaction(signal, &action, nullptr);
    }
}

std::string followLinks(const std::string& path)
{
    constexpr int MAX_LINKS = 40; // the kernel's limit
    std::filesystem::path place(path);
    std::error_code failed;
    for (int i = 0; i < MAX_LINKS && std::filesystem::is_symlink(place, failed); ++i) {
        place = place.parent_path() / std::filesystem::read_symlink(place, failed);
    }
    return place;
}

// The existing file, links followed.
std::optional<struct stat> statusOf(const std::string& path)
{
    struct stat status {};
    if ((path == "-" ? fstat(STDOUT_FILENO, &status) : stat(path.c_str(), &status)) == 0) return status;
    if (errno != ENOENT) throw fileError("write", path);
    return std::nullopt;
}

// By any of its names, such as /dev/stdout.
bool isStandardOutput(const std::optional<struct stat>& status)
{
    struct stat out {};
    return status && fstat(STDOUT_FILENO, &out) == 0 && identityOf(out) == identityOf(*status);
}

void requireWritable(const std::string& path, const std::optional<struct stat>& status, Existing existing)
{
    if (!status) return;
    if (existing != Existing::Update && inputs.count(identityOf(*status)) != 0) {
        throw UserError("cannot write " + path + ": it is one of the input files", "name another output");
    }
    if (S_ISDIR(status->st_mode)) throw UserError("cannot write " + path + ": it is a directory");
    if (S_ISREG(status->st_mode) && existing == Existing::Refuse && !isStandardOutput(status)) {
        throw UserError("cannot write " + path + ": it exists already", "--force replaces it");
    }
}

mode_t modeOfNewFiles()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// In the same directory, so that it can be renamed.
Descriptor makeUnfinished(const std::string& place, const std::optional<struct stat>& replaced)
{
    const std::string name = std::filesystem::path(place).parent_path() / ".pkgtool.XXXXXX";
    if (name.size() >= unfinished.size()) {
        errno = ENAMETOOLONG;
        return Descriptor();
    }
    removeUnfinishedOnSignals();
    setName(unfinished, name);
    Descriptor file(mkostemp(unfinished.data(), O_CLOEXEC));
    if (!file.isOpen()) return file;
    // Only root can change owners; others own the file like any new one.
    if (replaced) (void)!fchown(file.get(), replaced->st_uid, replaced->st_gid);
    if (fchmod(file.get(), replaced ? replaced->st_mode & 07777 : modeOfNewFiles()) != 0) return Descriptor();
    return file;
}

// Some file systems cannot rename without replacing, and some have no links.
bool nameNewFile(const char* from, const char* to)
{
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
    return (errno == EINVAL || errno == ENOSYS) && link(from, to) == 0 && unlink(from) == 0;
}

} // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

Descriptor::~Descriptor()
{
    if (fd_ >= 0) ::close(fd_);
}

bool Descriptor::close()
{
    return ::close(std::exchange(fd_, -1)) == 0;
}

Bytes readFile(const std::string& path)
{
    return readAll(openInput(path), path);
}

MappedFile::MappedFile(const std::string& path) : path_(path)
{
    Input input = openInput(path);
    status_ = input.status;
    if (!S_ISREG(status_.st_mode)) {
        bytes_ = readAll(input, path);
        return;
    }
    const std::size_t size = lengthOf(input, path);
    file_ = std::move(input.file);
    if (size == 0) return; // cannot be mapped
    (void)std::signal(SIGBUS, endByShrunkFile);
    void* const memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file_.get(), 0);
    if (memory == MAP_FAILED) throw fileError("read", path);
    memory_ = memory;
}

MappedFile::~MappedFile()
{
    if (memory_ != nullptr) munmap(memory_, static_cast<std::size_t>(status_.st_size));
}

ByteView MappedFile::content() const
{
    if (memory_ == nullptr) return bytes_;
    return {static_cast<const unsigned char*>(memory_), static_cast<std::size_t>(status_.st_size)};
}

void MappedFile::forget() const
{
    if (memory_ != nullptr) (void)madvise(memory_, content().size, MADV_DONTNEED); // a hint that may be ignored
}

void MappedFile::requireUnchanged() const
{
    struct stat now {};
    if (!file_.isOpen()) return;
    const auto same = [](const timespec& a, const timespec& b) {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    };
    if (fstat(file_.get(), &now) != 0 || now.st_size != status_.st_size || !same(now.st_mtim, status_.st_mtim)) {
        throw changed(path_);
    }
}

bool isStandardOutput(const std::string& path)
{
    return isStandardOutput(statusOf(path));
}

void requireWritable(const std::string& path, Existing existing)
{
    requireWritable(path, statusOf(path), existing);
}

OutputFile::OutputFile(const std::string& path, Existing existing) : path_(path), existing_(existing)
{
    const std::optional<struct stat> status = statusOf(path);
    requireWritable(path, status, existing);
    if (isStandardOutput(status)) {
        (void)fflush(stdout);
        file_ = Descriptor(dup(STDOUT_FILENO));
    } else if (status && !S_ISREG(status->st_mode)) {
        file_ = Descriptor(open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    } else {
        place_ = followLinks(path);
        file_ = makeUnfinished(place_, status);
    }
    if (!file_.isOpen()) throw fileError("write", path);
}

OutputFile::~OutputFile()
{
    if (!place_.empty()) removeUnfinished();
}

void OutputFile::write(ByteView content, const Done& done)
{
    for (std::size_t at = 0; at < content.size;) {
        const ssize_t count = ::write(file_.get(), content.data + at, std::min(STEP, content.size - at));
        if (count < 0 && errno == EFAULT) throw UserError(BECAME_SHORTER); // which the kernel met, not this process
        if (count < 0) throw fileError("write", path_);
        at += static_cast<std::size_t>(count);
        if (done) done(static_cast<std::size_t>(count));
    }
}

std::unique_ptr<MappedFile> OutputFile::written() const
{
    return place_.empty() ? nullptr : std::make_unique<MappedFile>("/proc/self/fd/" + std::to_string(file_.get()));
}

void OutputFile::commit()
{
    if (place_.empty()) {
        if (!file_.close()) throw fileError("write", path_);
        return;
    }
    if (fsync(file_.get()) != 0 || !file_.close()) throw fileError("write", path_);
    const bool isNamed = existing_ == Existing::Refuse ? nameNewFile(unfinished.data(), place_.c_str())
                                                       : rename(unfinished.data(), place_.c_str()) == 0;
    if (!isNamed) throw fileError("write", path_);
    unfinished[0] = '\0';
}

void writeFile(const std::string& path, ByteView content, Existing existing)
{
    OutputFile file(path, existing);
    file.write(content);
    file.commit();
}

UnfinishedDirectory::UnfinishedDirectory(const std::string& place) : place_(place)
{
    const std::string name = place + ".unfinished.XXXXXX";
    if (name.size() >= unfinishedDirectory.size()) throw nameTooLong(place);
    removeUnfinishedOnSignals();
    setName(unfinishedDirectory, name);
    if (mkdtemp(unfinishedDirectory.data()) == nullptr) throw fileError("make", place);
}

UnfinishedDirectory::~UnfinishedDirectory()
{
    removeUnfinishedDirectory();
}

std::string UnfinishedDirectory::file(const std::string& name)
{
    const std::string path = unfinishedDirectory.data() + ("/" + name);
    if (path.size() >= PATH_MAX) throw nameTooLong(place_);
    const auto i = static_cast<std::size_t>(insideCount);
    if (i == unfinishedInside.size()) throw std::length_error("too much in a directory");
    setName(unfinishedInside[i], path);
    insideCount = insideCount + 1;
    return path;
}

void UnfinishedDirectory::complete()
{
    if (rename(unfinishedDirectory.data(), place_.c_str()) != 0) throw fileError("make", place_);
    insideCount = 0;
    unfinishedDirectory[0] = '\0';
}

bool isSameFile(const std::string& a, const std::string& b)
{
    struct stat first {};
    struct stat second {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && identityOf(first) == identityOf(second);
}

} // namespace pkgtool
