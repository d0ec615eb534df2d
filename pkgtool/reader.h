// The two readers of what a package holds: this project's own decoder, which is what a device reads with, and OpenSSL,
// which reads some things that the device does not and refuses some that it does. Both describe what they read in the
// same members (docs/explain.md); neither judges.
#ifndef PKGTOOL_READER_H
#define PKGTOOL_READER_H

#include "files.h"
#include "json.h"

#include <memory>
#include <optional>
#include <vector>

namespace pkgtool {

// A certificate or CRL.
struct Object {
    bool isCrl;
    Bytes signedPart; // what its signature covers; stands for the object
    Bytes encoding;   // empty where the reader does not keep it: the library's of PEM
    Json json;
};
// Adds "sha256", of the encoding, and for a certificate "key_sha256", of its SubjectPublicKeyInfo; null where it
// cannot.
void putFingerprints(Object& object);

struct SignerParts {
    Json json;
    std::vector<Bytes> tokens; // the value of each timestamp attribute; empty where there is none
};

// A SignedData taken apart; what is inside is still encoded.
struct SignedParts {
    bool isTaken; // false when the reader would refuse it for one of its certificates
    std::vector<Bytes> certificates;
    std::vector<SignerParts> signers;
    Json contentType;
    Bytes content; // that of a token: its TSTInfo
};

class ObjectReader {
public:
    virtual ~ObjectReader() = default;

    // What stands at the start of the bytes.
    virtual std::optional<Object> readCertificate(const unsigned char* der, std::size_t size) = 0;
    virtual std::optional<Object> readCrl(const unsigned char* der, std::size_t size) = 0;
    std::optional<Object> readObject(const unsigned char* der, std::size_t size);

    // Certificates and CRLs one behind the other, up to what is neither, or those of a PEM text.
    virtual std::vector<Object> readObjects(const Bytes& content) = 0;

    // A signature as it stands in a package, DER or PEM; bytes behind it are no part of it.
    virtual std::optional<SignedParts> readSignature(const Bytes& content) = 0;
    virtual std::optional<SignedParts> readToken(const Bytes& der) = 0;
    virtual std::optional<Json> readTstInfo(const Bytes& der) = 0;

protected:
    std::vector<Object> readDer(const Bytes& der);
};

std::unique_ptr<ObjectReader> makeDeviceReader();
std::unique_ptr<ObjectReader> makeOpensslReader();

} // namespace pkgtool

#endif
