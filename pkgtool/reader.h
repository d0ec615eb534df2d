// The two readers of a package's contents: this project's decoder, which the device uses, and OpenSSL, which decodes
// some objects that the device refuses and refuses some that the device decodes. Both describe them in the same members
// (docs/explain.md), without a verdict.
#ifndef PKGTOOL_READER_H
#define PKGTOOL_READER_H

#include "files.h"
#include "json.h"
#include "openssl.h"

#include <memory>
#include <optional>
#include <vector>

namespace pkgtool {

// A certificate or CRL.
struct Object {
    bool isCrl;
    Bytes signedPart; // covered by its signature; identifies the object
    Bytes encoding;   // empty where the reader does not keep it: the library's of PEM
    Json json;
};
// Adds "sha256", of the encoding, and for a certificate "key_sha256", of its SubjectPublicKeyInfo; null where it
// cannot.
void putFingerprints(Object& object);

struct SignerParts {
    Json json;
    std::vector<Bytes> tokens; // the value of each timestamp attribute; empty if there is none
};

// The parts of a SignedData, still encoded.
struct SignedParts {
    bool isTaken; // false if the reader would refuse it for one of its certificates
    std::vector<Bytes> certificates;
    std::vector<SignerParts> signers;
    Json contentType;
    Bytes content; // of a token: its TSTInfo
};

class ObjectReader {
public:
    virtual ~ObjectReader() = default;

    // The object at the start of the octets.
    virtual std::optional<Object> readCertificate(const unsigned char* der, std::size_t size) = 0;
    virtual std::optional<Object> readCrl(const unsigned char* der, std::size_t size) = 0;
    std::optional<Object> readObject(const unsigned char* der, std::size_t size);

    // Concatenated certificates and CRLs, up to anything else, or those of a PEM text.
    virtual std::vector<Object> readObjects(const Bytes& content) = 0;

    // A signature from a package, DER or PEM; octets after it are ignored.
    virtual std::optional<SignedParts> readSignature(const Bytes& content) = 0;
    virtual std::optional<SignedParts> readToken(const Bytes& der) = 0;
    virtual std::optional<Json> readTstInfo(const Bytes& der) = 0;

protected:
    std::vector<Object> readDer(const Bytes& der);
};

// An RSA exponent in hexadecimal digits, as both readers describe it.
Json exponentJson(const BIGNUM* exponent);

std::unique_ptr<ObjectReader> makeDeviceReader();
std::unique_ptr<ObjectReader> makeOpensslReader();

} // namespace pkgtool

#endif
