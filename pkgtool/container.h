// The package: the checker's own header record, and the sub-files behind it.
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

// Throws when a package would be longer than the checker can read.
void requireReadable(std::size_t length);
std::uint32_t packageLength(const std::vector<SubFile>& subFiles);
Bytes encodeHeader(const Header& header);
// The same with the table filled in: the sub-files lie behind the header in their order.
Bytes encodeHeader(Header header, const std::vector<SubFile>& subFiles);
Header decodeHeader(ByteView package);
// The same of a file, whose name is put before what is wrong with it.
Header readHeader(const std::string& path, ByteView package);
// The table's entries that count: as many as the header says and the table has.
std::vector<SSubFileInfo_S> entriesOf(const Header& header);
bool isInside(const SSubFileInfo_S& entry, ByteView package);
ByteView viewOf(const SSubFileInfo_S& entry, ByteView package);
Bytes contentOf(const SSubFileInfo_S& entry, ByteView package);
// "payload", "signature", "crl", or the number of a type that the checker does not know.
std::string typeName(std::uint32_t type);
// Header and table in words.
void printTable(const Header& header, ByteView package);

} // namespace pkgtool

#endif
