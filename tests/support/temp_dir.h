// A directory for the files of one test, removed with all of them at its end.
#ifndef PNVTEST_TEMP_DIR_H
#define PNVTEST_TEMP_DIR_H

#include "der.h"

namespace pnvtest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file and returns its path.
    std::string Write(const std::string& name, const Bytes& content) const;
    // A file of that length which begins with these octets; the zeros behind them take no room.
    std::string WriteSparse(const std::string& name, std::uint64_t length, const Bytes& content = {}) const;

private:
    std::string path_;
};

Bytes ReadWholeFile(const std::string& path);

} // namespace pnvtest

#endif
