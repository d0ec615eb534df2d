// What is decoded: made and signed with the test keys at start, the same on every run.
#ifndef PNVBENCH_INPUTS_H
#define PNVBENCH_INPUTS_H

#include "support/pki.h"

#include <string>

namespace pnvbench {

using pnvtest::Bytes;

struct CertInput {
    static constexpr std::size_t entries = 1;
    std::string name;
    Bytes der;
};

struct CrlInput {
    std::string name;
    std::size_t entries;
    Bytes der;
    Bytes lastSerial; // magnitudes of 16 octets
    Bytes absentSerial;
};

// An end-entity certificate with five extensions, its key and its issuer's of one size.
CertInput MakeCert(const std::string& name, pnvtest::KeyId key);
CrlInput MakeCrl(std::size_t entries, bool withReasons);

} // namespace pnvbench

#endif
