// The package: the checker's header record, and the sub-files after it.
#ifndef PKGTOOL_CONTAINER_H
#define PKGTOOL_CONTAINER_H

#include "files.h"
#include "pkgcheck.h"

#include <string>
#include <vector>

namespace pkgtool {

constexpr std::size_t MAX_SUB_FILES = 8;

// In this machine's byte order, like every header here.
using Header = SProgramFileHeader_S;

struct SubFile {
    std::uint32_t type;
    ByteView content;
};

// Throws if a package would be longer than the checker can read.
void requireReadable(std::size_t length);
std::uint32_t packageLength(const std::vector<SubFile>& subFiles);
Bytes encodeHeader(const Header& header);
// The same with the table filled in: the sub-files follow the header in order.
Bytes encodeHeader(Header header, const std::vector<SubFile>& subFiles);
Header decodeHeader(ByteView package);
// The same for a file, whose name begins the error message.
Header readHeader(const std::string& path, ByteView package);
// The table's entries that count: as many as the header says, at most the table's size.
std::vector<SSubFileInfo_S> entriesOf(const Header& header);
bool isInside(const SSubFileInfo_S& entry, ByteView package);
ByteView viewOf(const SSubFileInfo_S& entry, ByteView package);
Bytes contentOf(const SSubFileInfo_S& entry, ByteView package);
// "payload", "signature", "crl", or the number of a type unknown to the checker.
std::string typeName(std::uint32_t type);
// Header and table in words.
void printTable(const Header& header, ByteView package);

} // namespace pkgtool

#endif
