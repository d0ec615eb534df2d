// The firmware package: a header of 352 octets, big-endian, and the sub-files behind it. Every field can be set to
// anything, lies included.
#ifndef PNVTEST_PACKAGE_H
#define PNVTEST_PACKAGE_H

#include "der.h"

#include <optional>

namespace pnvtest {

namespace subfile {
constexpr std::uint32_t payload = 0x00000001;
constexpr std::uint32_t cms = 0x10000001;
constexpr std::uint32_t crl = 0x10000002;
} // namespace subfile

struct SubFileSpec {
    std::uint32_t type = subfile::payload;
    Bytes content{};
    // What the table says instead of the truth; offsets count from the end of the header.
    std::optional<std::uint32_t> offset{};
    std::optional<std::uint32_t> length{};
};

struct PackageSpec {
    std::uint32_t reserved = 0;
    std::uint32_t headerCrc = 0;
    std::uint32_t fileId = 0;
    std::uint32_t version = 0;
    std::optional<std::uint32_t> subFileCount{}; // what the header says instead of the true number
    std::vector<SubFileSpec> subFiles{};         // 8 at most; their contents follow the header in this order
    std::string description{};                   // 224 characters at most
    std::optional<std::uint32_t> length{};       // the true length of the package otherwise
    std::uint32_t fileCrc = 0;
    std::uint32_t compressType = 0;
};

constexpr std::size_t packageHeaderSize = 352;

Bytes Build(const PackageSpec& spec);

// Payload, CMS and CRL, in this order.
PackageSpec SignedPackage(const Bytes& payload, const Bytes& cms, const Bytes& crl);

} // namespace pnvtest

#endif
