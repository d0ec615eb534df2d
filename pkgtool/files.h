// Files, read and written whole.
#ifndef PKGTOOL_FILES_H
#define PKGTOOL_FILES_H

#include <string>
#include <vector>

namespace pkgtool {

using Bytes = std::vector<unsigned char>;

Bytes readFile(const std::string& path);
// Puts a complete new file in the path's place, or leaves the path as it was.
void writeFile(const std::string& path, const Bytes& content);

} // namespace pkgtool

#endif
