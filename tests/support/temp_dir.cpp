#include "temp_dir.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include <stdlib.h>

namespace pnvtest {

TempDir::TempDir() : path_((std::filesystem::temp_directory_path() / "pnvtest-XXXXXX").string())
{
    if (mkdtemp(path_.data()) == nullptr) Misuse("no temporary directory " + path_);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& name, const Bytes& content) const
{
    const std::string path = Path(name);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) Misuse("cannot write " + path);
    return path;
}

std::string TempDir::WriteSparse(const std::string& name, std::uint64_t length, const Bytes& content) const
{
    const std::string path = Write(name, content);
    std::filesystem::resize_file(path, length);
    return path;
}

Bytes ReadWholeFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) Misuse("cannot read " + path);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

} // namespace pnvtest
