#include "container.h"

#include "error.h"
#include "text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace pkgtool {

namespace {

static_assert(sizeof(SProgramFileHeader_S::stSubFileInfo) / sizeof(SSubFileInfo_S) == MAX_SUB_FILES);

// The same record in the other of the two byte orders.
Header swapped(Header header)
{
    for (PNV_UINT32* word : {&header.ulReserved4RPS, &header.ulHeaderCrc, &header.ulFileID, &header.ulVersion,
                             &header.ulSubFileNum, &header.ulLength, &header.ulFileCRC, &header.ulCompressType}) {
        *word = htonl(*word);
    }
    for (SSubFileInfo_S& entry : header.stSubFileInfo) {
        entry = {htonl(entry.ulSubFileID), htonl(entry.ulSubFileOffset), htonl(entry.ulSubFileLen)};
    }
    return header;
}

} // namespace

void requireReadable(std::size_t length)
{
    if (length > MAX_READ) throw Refusal("the checker reads no package of 2 GiB or more");
}

std::uint32_t packageLength(const std::vector<SubFile>& subFiles)
{
    std::size_t length = sizeof(Header);
    for (const SubFile& subFile : subFiles) length += subFile.content.size;
    if (length > std::numeric_limits<std::uint32_t>::max()) throw UserError("the package is larger than 4 GiB");
    return static_cast<std::uint32_t>(length);
}

Bytes encodeHeader(const Header& header)
{
    const Header raw = swapped(header);
    Bytes octets(sizeof raw);
    std::memcpy(octets.data(), &raw, sizeof raw);
    return octets;
}

Bytes encodeHeader(Header header, const std::vector<SubFile>& subFiles)
{
    std::uint32_t offset = 0;
    for (std::size_t i = 0; i < subFiles.size(); ++i) {
        const auto length = static_cast<std::uint32_t>(subFiles[i].content.size);
        header.stSubFileInfo[i] = {subFiles[i].type, offset, length};
        offset += length;
    }
    return encodeHeader(header);
}

Header decodeHeader(ByteView package)
{
    Header header;
    if (package.size < sizeof header) throw UserError("shorter than a package header of 352 octets");
    std::memcpy(&header, package.data, sizeof header);
    return swapped(header);
}

Header readHeader(const std::string& path, ByteView package)
{
    try {
        return decodeHeader(package);
    } catch (const UserError& error) {
        throw UserError(path + ": " + error.what());
    }
}

std::vector<SSubFileInfo_S> entriesOf(const Header& header)
{
    const std::size_t count = std::min<std::size_t>(header.ulSubFileNum, MAX_SUB_FILES);
    return {header.stSubFileInfo, header.stSubFileInfo + count};
}

bool isInside(const SSubFileInfo_S& entry, ByteView package)
{
    return std::uint64_t{sizeof(Header)} + entry.ulSubFileOffset + entry.ulSubFileLen <= package.size;
}

ByteView viewOf(const SSubFileInfo_S& entry, ByteView package)
{
    return {package.data + sizeof(Header) + entry.ulSubFileOffset, entry.ulSubFileLen};
}

Bytes contentOf(const SSubFileInfo_S& entry, ByteView package)
{
    const ByteView content = viewOf(entry, package);
    return Bytes(content.data, content.data + content.size);
}

std::string typeName(std::uint32_t type)
{
    switch (type) {
    case SUB_FILE_PAYLOAD: return "payload";
    case SUB_FILE_CMS: return "signature";
    case SUB_FILE_CRL: return "crl";
    default: break;
    }
    char number[sizeof "0x00000000"];
    (void)snprintf(number, sizeof number, "0x%08x", type);
    return number;
}

void printTable(const Header& header, ByteView package)
{
    const std::string description(header.strDescription, strnlen(header.strDescription, sizeof header.strDescription));
    printf("file id      0x%08x\n", header.ulFileID);
    printf("version      0x%08x\n", header.ulVersion);
    printf("length       %u (the file has %zu)\n", header.ulLength, package.size);
    printf("compression  %u\n", header.ulCompressType);
    printf("header crc   0x%08x\n", header.ulHeaderCrc);
    printf("file crc     0x%08x\n", header.ulFileCRC);
    printf("reserved     0x%08x\n", header.ulReserved4RPS);
    printf("description  %s\n", printable(description).c_str());
    const bool isTaken = header.ulSubFileNum == 3 || header.ulSubFileNum == 1;
    printf("sub-files    %u%s\n", header.ulSubFileNum, isTaken ? "" : " (no package that the checker takes: 3, or 1)");
    for (const SSubFileInfo_S& entry : entriesOf(header)) {
        printf("  0x%08x  %-10s offset %10u  length %10u%s\n", entry.ulSubFileID, typeName(entry.ulSubFileID).c_str(),
               entry.ulSubFileOffset, entry.ulSubFileLen, isInside(entry, package) ? "" : "  outside the file");
    }
}

} // namespace pkgtool
