// Files. What is read is a regular file, or standard input by the name "-", and no more of it than the checker would
// read: whatever makes a reader wait or has no end is refused. What is written appears whole or not at all, and never
// in the place of something that this process has read.
#ifndef PKGTOOL_FILES_H
#define PKGTOOL_FILES_H

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

namespace pkgtool {

using Bytes = std::vector<unsigned char>;

// Octets that somebody else keeps.
struct ByteView {
    const unsigned char* data;
    std::size_t size;

    ByteView(const unsigned char* begin, std::size_t count) : data(begin), size(count) {}
    ByteView(const Bytes& bytes) : data(bytes.data()), size(bytes.size()) {}
};

// The checker reads a package by one read call, and Linux delivers no more than this to one.
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

// A file that is looked at where it lies. Should it shrink meanwhile, the process ends with a message.
class MappedFile {
public:
    explicit MappedFile(const std::string& path);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    ByteView content() const;
    // Gives the memory back until somebody looks again.
    void forget() const;
    // Throws when somebody has written to it since it was opened.
    void requireUnchanged() const;

private:
    std::string path_;
    Descriptor file_;
    struct stat status_ {};
    Bytes bytes_; // of standard input when that is no file
    void* memory_ = nullptr;
};

// What becomes of a file that is there already.
enum class Existing {
    Refuse,
    Replace, // unless it was read
    Update,  // by its successor, so that it may have been read
};

// By any of its names: nothing else is to be printed there.
bool isStandardOutput(const std::string& path);

// Throws what OutputFile would, before any work is done for it.
void requireWritable(const std::string& path, Existing existing);

// A file under way, or standard output by the name "-". Links are followed. What is no regular file is written straight
// into; a regular one is made beside its place, put there by commit() and until then removed by whatever ends the
// process but SIGKILL. A replaced file's owner and mode are kept. One at a time.
class OutputFile {
public:
    OutputFile(const std::string& path, Existing existing);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(ByteView content);
    // What was written, before it is in its place; null when it went straight somewhere else.
    std::unique_ptr<MappedFile> written() const;
    void commit();

private:
    std::string path_;
    std::string place_; // where a regular file goes, links followed; empty for any other
    Existing existing_;
    Descriptor file_;
};

void writeFile(const std::string& path, ByteView content, Existing existing);

// A directory under way, beside the place that it may take. It and the files that were named in it are removed by
// whatever ends the process but SIGKILL, and by its own end. One at a time.
class UnfinishedDirectory {
public:
    explicit UnfinishedDirectory(const std::string& place);
    ~UnfinishedDirectory();
    UnfinishedDirectory(const UnfinishedDirectory&) = delete;
    UnfinishedDirectory& operator=(const UnfinishedDirectory&) = delete;

    // A path inside, for a file that is made next.
    std::string file(const std::string& name);
    // Puts it in its place, where nothing or an empty directory may be.
    void complete();

private:
    std::string place_;
};

} // namespace pkgtool

#endif
