// Signed packages of every kind from a seed: a PKI of random shape that signs a package in order, then none, one or
// some things changed, in it or in what it signs.
#ifndef PNVTEST_GENERATED_PACKAGE_H
#define PNVTEST_GENERATED_PACKAGE_H

#include "openssl_oracle.h"

namespace pnvtest {

struct GeneratedPackage {
    SignedParts parts;
    std::vector<std::string> changes; // their names
};
GeneratedPackage GeneratePackage(std::uint64_t seed);

} // namespace pnvtest

#endif
