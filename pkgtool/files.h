// Files. An input is a regular file, or standard input by the name "-", and not larger than the checker would read:
// files that make a reader wait or have no end are refused. An output is complete or absent, and never replaces an
// input of this process.
#ifndef PKGTOOL_FILES_H
#define PKGTOOL_FILES_H

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pkgtool {

using Bytes = std::vector<unsigned char>;

// Octets owned by somebody else.
struct ByteView {
    const unsigned char* data;
    std::size_t size;

    ByteView(const unsigned char* begin, std::size_t count) : data(begin), size(count) {}
    ByteView(const Bytes& bytes) : data(bytes.data()), size(bytes.size()) {}
};

// Told of long work, a few MiB at a time: how many octets are done.
using Done = std::function<void(std::size_t octets)>;
constexpr std::size_t STEP = 4u << 20;

// The checker reads a package with one read call, and Linux returns at most this much.
constexpr std::size_t MAX_READ = 0x7FFFF000;

// An open descriptor, -1 for none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor();

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    bool close();

private:
    int fd_;
};

Bytes readFile(const std::string& path);

// A memory-mapped file. If it shrinks meanwhile, the process ends with a message.
class MappedFile {
public:
    explicit MappedFile(const std::string& path);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    ByteView content() const;
    // Releases the memory until the next access.
    void forget() const;
    // Throws if somebody has written to it since it was opened.
    void requireUnchanged() const;

private:
    std::string path_;
    Descriptor file_;
    struct stat status_ {};
    Bytes bytes_; // of standard input if that is not a file
    void* memory_ = nullptr;
};

// The treatment of an existing file.
enum class Existing {
    Refuse,
    Replace, // unless it was read
    Update,  // by its successor, so it may have been read
};

// By any of its names; nothing else may be printed there.
bool isStandardOutput(const std::string& path);

// Throws the errors of OutputFile, before any work is done.
void requireWritable(const std::string& path, Existing existing);

// An unfinished output file, or standard output by the name "-". Links are followed. A special file is written
// directly. A regular file is created in the same directory and moved into place by commit(); until then every end of
// the process but SIGKILL removes it. A replaced file keeps its owner and mode. One at a time.
class OutputFile {
public:
    OutputFile(const std::string& path, Existing existing);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(ByteView content, const Done& done = {});
    // The written file before commit(); null if the output was written directly.
    std::unique_ptr<MappedFile> written() const;
    void commit();

private:
    std::string path_;
    std::string place_; // the final path of a regular file, links followed; empty for any other
    Existing existing_;
    Descriptor file_;
};

void writeFile(const std::string& path, ByteView content, Existing existing);

// An unfinished directory, beside its final place. Its destructor and every end of the process but SIGKILL remove it
// and the files named in it. One at a time.
class UnfinishedDirectory {
public:
    explicit UnfinishedDirectory(const std::string& place);
    ~UnfinishedDirectory();
    UnfinishedDirectory(const UnfinishedDirectory&) = delete;
    UnfinishedDirectory& operator=(const UnfinishedDirectory&) = delete;

    // A path inside, for the next new file.
    std::string file(const std::string& name);
    // Moves it into place, where nothing or an empty directory may be.
    void complete();

private:
    std::string place_;
};

// Whether both paths lead to one existing file.
bool isSameFile(const std::string& a, const std::string& b);

} // namespace pkgtool

#endif
