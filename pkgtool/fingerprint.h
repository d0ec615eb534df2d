// SHA-256 fingerprints, by which people and programs compare what they have in different places.
#ifndef PKGTOOL_FINGERPRINT_H
#define PKGTOOL_FINGERPRINT_H

#include "files.h"
#include "json.h"

#include <string>

namespace pkgtool {

std::string sha256Text(ByteView content);

// The SubjectPublicKeyInfo of a certificate whose signed part this is, as it is encoded there; empty when there is
// none.
Bytes publicKeyIn(const Bytes& signedPart);

// Adds "sha256" to each sub-file that lies inside the package, in no more memory than some of its pages.
void putFingerprints(Json& subFiles, const MappedFile& package);

} // namespace pkgtool

#endif
