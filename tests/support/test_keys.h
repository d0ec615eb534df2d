// The fixed keys of the tests, in test_keys/*.pem and compiled in from there. They are published and protect nothing.
// RSA PKCS #1 v1.5 is repeatable, so everything signed with them is the same on every run.
#ifndef PNVTEST_TEST_KEYS_H
#define PNVTEST_TEST_KEYS_H

#include "der.h"

namespace pnvtest {

enum class KeyId {
    Rsa2048A,
    Rsa2048B,
    Rsa2048C,
    Rsa2048D,
    Rsa2048E,
    Rsa2048F,
    Rsa2048G,
    Rsa2048H,
    Rsa3072,
    Rsa4096,
    EcP256, // a subject's key for the code under test to refuse; signs nothing
};

struct Key {
    Bytes spki;    // SubjectPublicKeyInfo
    Bytes modulus; // big-endian magnitudes; empty for the EC key
    Bytes exponent;
};

const Key& TestKey(KeyId id);

inline const Bytes& Spki(KeyId id)
{
    return TestKey(id).spki;
}

// A SubjectPublicKeyInfo of a made-up RSA key, for sizes that no test key has. Magnitudes without leading zeros.
Bytes RsaSpki(const Bytes& modulus, const Bytes& exponent = {0x01, 0x00, 0x01});

enum class Hash { Sha1, Sha256, Sha384, Sha512 };

Bytes Digest(Hash hash, const Bytes& message);
std::string_view HashOid(Hash hash);
std::string_view RsaSignatureOid(Hash hash); // sha256WithRSAEncryption and the like

// The PKCS #1 v1.5 signature of a message (RFC 8017, 8.2.1). Computed once per process for each key and digest: signing
// is slow under an emulator.
const Bytes& Sign(KeyId key, Hash hash, const Bytes& message);

} // namespace pnvtest

#endif
