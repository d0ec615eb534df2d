// Certificates and CRLs (RFC 5280) from plain descriptions. A ready-made description is valid; a test changes the one
// field under test and builds:
//
//     Bytes ca = Build(With(Intermediate("Test CA"), &CertSpec::keyUsage, usage::keyCertSign));   // without cRLSign
//
// Nothing is checked or corrected on the way: every description, however wrong, is encoded and signed as it stands.
#ifndef PNVTEST_PKI_H
#define PNVTEST_PKI_H

#include "test_keys.h"

#include <functional>
#include <optional>

namespace pnvtest {

// A copy of any description with one field changed.
template <typename Spec, typename Owner, typename Field, typename Value>
Spec With(Spec spec, Field Owner::*field, Value&& value)
{
    spec.*field = std::forward<Value>(value);
    return spec;
}

// Changes an encoding on its way out, for what no field expresses: [](Bytes tbs) { return Replace(tbs, {5}, Null()); }
using Edit = std::function<Bytes(Bytes)>;

// Bits of the key usage extension, first octet low, as the library reports them.
namespace usage {
constexpr unsigned digitalSignature = 0x80;
constexpr unsigned nonRepudiation = 0x40;
constexpr unsigned keyEncipherment = 0x20;
constexpr unsigned dataEncipherment = 0x10;
constexpr unsigned keyAgreement = 0x08;
constexpr unsigned keyCertSign = 0x04;
constexpr unsigned crlSign = 0x02;
constexpr unsigned encipherOnly = 0x01;
constexpr unsigned decipherOnly = 0x8000;
} // namespace usage

// What certificates and CRLs have in common: who signs, and how.
struct IssuanceSpec {
    Bytes issuer;
    KeyId issuerKey = KeyId::Rsa2048A;
    Hash hash = Hash::Sha256;              // signed with, and named by both algorithm fields
    std::optional<Bytes> innerAlgorithm{}; // AlgorithmIdentifiers that say something else
    std::optional<Bytes> outerAlgorithm{};
    Edit editTbs{}; // of the complete signed part, before it is signed
    bool brokenSignature = false;
    std::optional<Bytes> signature{}; // a value that is not computed
};

struct CertSpec : IssuanceSpec {
    std::optional<int> version = 3; // nullopt leaves the field out
    Bytes serial{0x01};
    Bytes notBefore = UtcTime("200101000000Z");
    Bytes notAfter = UtcTime("400101000000Z");
    Bytes subject;
    KeyId key = KeyId::Rsa2048A;
    std::optional<Bytes> subjectPublicKey{}; // instead of the key's own
    // The extensions below, in this order; one that is absent here is absent from the certificate.
    std::optional<Bytes> basicConstraints{}; // the extension's value: Ca(), NotCa() or any garbage; critical
    std::optional<unsigned> keyUsage{};      // usage:: bits; 0 gives an empty BIT STRING; critical
    std::vector<std::string_view> extendedKeyUsage{};
    bool keyIdentifiers = true; // subject and authority key identifier: SHA-1 of the two keys
    std::vector<Bytes> extraExtensions{};
};

Bytes Build(const CertSpec& spec);

// Values of the basic constraints extension.
Bytes Ca();
Bytes Ca(int pathLength);
Bytes NotCa(); // the empty SEQUENCE of DER
// The value of the key usage extension.
Bytes KeyUsage(unsigned bits);

// C=ZZ, O=Example, CN=cn: the shape of all names here.
Bytes TestName(std::string_view cn);

// Valid descriptions, all from 2020 to 2040; CAs may sign certificates and CRLs, and intermediate ones are issued by
// Root(). A serial number follows from the key, so give certificates of one issuer different keys.
CertSpec Root(KeyId key = KeyId::Rsa2048A);
CertSpec Intermediate(std::string_view cn, KeyId key = KeyId::Rsa2048B);
CertSpec SigningCa();                         // Intermediate("Test Signing CA")
CertSpec TsaCa();                             // Intermediate("Test TSA CA", KeyId::Rsa2048C)
CertSpec Signer(KeyId key = KeyId::Rsa2048D); // by SigningCa(), for code signing
CertSpec Tsa(KeyId key = KeyId::Rsa2048E);    // by TsaCa(), for time stamping

// The same certificate issued by another.
CertSpec IssuedBy(CertSpec cert, const CertSpec& issuer);
// A version 1 certificate: no version field and no extensions.
CertSpec Version1(CertSpec cert);

// Child indices of a version 3 TBSCertificate, which is child 0 of its certificate.
namespace tbs {
constexpr std::size_t version = 0;
constexpr std::size_t serial = 1;
constexpr std::size_t signature = 2;
constexpr std::size_t issuer = 3;
constexpr std::size_t validity = 4;
constexpr std::size_t subject = 5;
constexpr std::size_t publicKey = 6;
constexpr std::size_t extensions = 7; // the [3]
} // namespace tbs

struct RevokedSpec {
    Bytes serial;
    Bytes date = UtcTime("250601000000Z");
    std::optional<int> reason{};          // without reason and extensions the entry has no extensions field
    std::vector<Bytes> extensions{};      // after the reason
    std::optional<Bytes> rawExtensions{}; // stands for the whole extensions field
};

struct CrlSpec : IssuanceSpec {
    std::optional<int> version = 2; // nullopt leaves the field out
    Bytes thisUpdate = UtcTime("250101000000Z");
    std::optional<Bytes> nextUpdate = UtcTime("350101000000Z");
    std::vector<RevokedSpec> revoked{}; // none: no list at all
    std::vector<Bytes> extensions{};    // none: no extensions field
};

Bytes Build(const CrlSpec& spec);

// A CRL of this CA that revokes nothing, from 2025-01-01 to 2035-01-01, with authority key identifier and CRL number.
CrlSpec CrlOf(const CertSpec& ca);
// The issuing distribution point extension (RFC 5280, 5.2.5), critical; [4] is left out when false.
Bytes IssuingDistPoint(bool indirectCrl);
// The same CRL marked as an indirect one.
CrlSpec Indirect(CrlSpec crl);

// Child indices of a version 2 TBSCertList; without a revoked list the extensions stand at 5.
namespace tbscrl {
constexpr std::size_t version = 0;
constexpr std::size_t signature = 1;
constexpr std::size_t issuer = 2;
constexpr std::size_t thisUpdate = 3;
constexpr std::size_t nextUpdate = 4;
constexpr std::size_t revoked = 5;
constexpr std::size_t extensions = 6;
} // namespace tbscrl

// Two branches below one root, and a CRL of each CA. Change any member, then build what the test needs; a change of a
// CA's name or key wants IssuedBy for what it issues.
struct DemoPki {
    explicit DemoPki(KeyId rootKey = KeyId::Rsa2048A);

    CertSpec root;
    CertSpec signingCa;
    CertSpec signer;
    CertSpec tsaCa;
    CertSpec tsa;
    CrlSpec rootCrl;
    CrlSpec signingCrl;
    CrlSpec tsaCrl;

    Bytes Crls() const; // all three, one after the other
};

} // namespace pnvtest

#endif
