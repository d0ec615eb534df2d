#include "pki_issue.h"

#include "error.h"

#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <iterator>

namespace pkgtool {

namespace {

constexpr long VERSION_3 = 2;
constexpr long CRL_VERSION_2 = 1;
constexpr int SERIAL_BITS = 127; // positive in 16 octets
constexpr long SECONDS_OF_A_DAY = 86400;

Asn1Integer randomSerial()
{
    const Bignum number(BN_new());
    ensure(number != nullptr && BN_rand(number.get(), SERIAL_BITS, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1,
           "drawing a serial number");
    Asn1Integer serial(BN_to_ASN1_INTEGER(number.get(), nullptr));
    ensure(serial != nullptr, "making a serial number");
    return serial;
}

Asn1Time timeFromNow(int days)
{
    Asn1Time time(X509_gmtime_adj(nullptr, days * SECONDS_OF_A_DAY));
    ensure(time != nullptr, "making a time");
    return time;
}

// ---- Certificates ----

struct Extension {
    int nid;
    const char* value;
};

std::vector<Extension> extensionsOf(CertKind kind)
{
    constexpr Extension SUBJECT_KEY{NID_subject_key_identifier, "hash"};
    constexpr Extension ISSUER_KEY{NID_authority_key_identifier, "keyid:always"};
    constexpr Extension NO_CA{NID_basic_constraints, "critical,CA:FALSE"};
    constexpr Extension SIGNS{NID_key_usage, "critical,digitalSignature"};
    constexpr Extension SIGNS_CERTS{NID_key_usage, "critical,keyCertSign,cRLSign"};
    switch (kind) {
    case CertKind::Root: return {{NID_basic_constraints, "critical,CA:TRUE"}, SIGNS_CERTS, SUBJECT_KEY};
    case CertKind::Ca:
        return {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"}, SIGNS_CERTS, SUBJECT_KEY, ISSUER_KEY};
    case CertKind::Signer: return {NO_CA, SIGNS, {NID_ext_key_usage, "codeSigning"}, SUBJECT_KEY, ISSUER_KEY};
    case CertKind::Authority: break;
    }
    return {NO_CA, SIGNS, {NID_ext_key_usage, "critical,timeStamping"}, SUBJECT_KEY, ISSUER_KEY};
}

using X509Extension = Owned<X509_EXTENSION, X509_EXTENSION_free>;

X509Extension makeExtension(const Extension& extension, X509* issuer, X509* subject)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, subject, nullptr, nullptr, 0);
    X509Extension made(X509V3_EXT_nconf_nid(nullptr, &context, extension.nid, extension.value));
    ensure(made != nullptr, "making an extension");
    return made;
}

void setSubject(X509* cert, const CertRequest& request)
{
    X509_NAME* const name = X509_get_subject_name(cert);
    const auto add = [name](int nid, const std::string& text) {
        const auto* const octets = reinterpret_cast<const unsigned char*>(text.data());
        if (X509_NAME_add_entry_by_NID(name, nid, MBSTRING_UTF8, octets, static_cast<int>(text.size()), -1, 0) == 1) {
            return;
        }
        ERR_clear_error();
        throw UserError("'" + text + "' cannot be part of a name", "use 1 to 64 characters of UTF-8");
    };
    add(NID_organizationName, request.organization);
    add(NID_commonName, request.commonName);
}

// The key is the user's, and not every key signs a digest.
void ensureSigned(bool isSigned, const char* doing)
{
    if (!isSigned) throw UserError(failureOf(doing), "use RSA keys that can sign");
}

// ---- CRLs ----

// One more than in the previous CRL; it begins at 1.
Asn1Integer nextNumber(const X509_CRL* previous)
{
    const Asn1Integer last(previous == nullptr ? nullptr
                                               : static_cast<ASN1_INTEGER*>(
                                                     X509_CRL_get_ext_d2i(previous, NID_crl_number, nullptr, nullptr)));
    const Bignum number(last == nullptr ? BN_new() : ASN1_INTEGER_to_BN(last.get(), nullptr));
    ensure(number != nullptr && BN_add_word(number.get(), 1) == 1, "counting");
    Asn1Integer next(BN_to_ASN1_INTEGER(number.get(), nullptr));
    ensure(next != nullptr, "counting");
    return next;
}

// RFC 5280, 5.3.1. No removeFromCRL, which belongs in delta CRLs.
int reasonCode(const std::string& name)
{
    constexpr const char* NAMES[] = {"unspecified", "keyCompromise",        "CACompromise",   "affiliationChanged",
                                     "superseded",  "cessationOfOperation", "certificateHold"};
    const auto* const found = std::find(std::begin(NAMES), std::end(NAMES), name);
    if (found != std::end(NAMES)) return static_cast<int>(found - NAMES);
    throw UserError("'" + name + "' is not a revocation reason",
                    "keyCompromise, CACompromise, affiliationChanged, superseded, cessationOfOperation, "
                    "certificateHold or unspecified");
}

using Revoked = Owned<X509_REVOKED, X509_REVOKED_free>;

void addEntry(X509_CRL* crl, Revoked entry)
{
    ensure(entry != nullptr && X509_CRL_add0_revoked(crl, entry.get()) == 1, "adding to a CRL");
    (void)entry.release(); // now owned by the CRL
}

Revoked makeEntry(const Revocation& revocation)
{
    Revoked entry(X509_REVOKED_new());
    ensure(entry != nullptr &&
               X509_REVOKED_set_serialNumber(entry.get(), X509_get_serialNumber(revocation.cert)) == 1 &&
               X509_REVOKED_set_revocationDate(entry.get(), timeFromNow(0).get()) == 1,
           "making an entry of a CRL");
    if (revocation.reason.empty()) return entry;
    const Owned<ASN1_ENUMERATED, ASN1_ENUMERATED_free> reason(ASN1_ENUMERATED_new());
    ensure(reason != nullptr && ASN1_ENUMERATED_set(reason.get(), reasonCode(revocation.reason)) == 1 &&
               X509_REVOKED_add1_ext_i2d(entry.get(), NID_crl_reason, reason.get(), 0, 0) == 1,
           "making an entry of a CRL");
    return entry;
}

} // namespace

Pkey makeKey(unsigned bits)
{
    Pkey key(EVP_RSA_gen(bits));
    ensure(key != nullptr, "making a key");
    return key;
}

Cert issueCertificate(const CertRequest& request, EVP_PKEY* key, const Identity& issuer)
{
    Cert cert(X509_new());
    ensure(cert != nullptr && X509_set_version(cert.get(), VERSION_3) == 1 &&
               X509_set_serialNumber(cert.get(), randomSerial().get()) == 1 &&
               X509_set1_notBefore(cert.get(), timeFromNow(0).get()) == 1 &&
               X509_set1_notAfter(cert.get(), timeFromNow(request.days).get()) == 1 &&
               X509_set_pubkey(cert.get(), key) == 1,
           "making a certificate");
    setSubject(cert.get(), request);

    const bool isRoot = request.kind == CertKind::Root;
    X509* const issuerCert = isRoot ? cert.get() : issuer.cert.get();
    ensure(X509_set_issuer_name(cert.get(), X509_get_subject_name(issuerCert)) == 1, "making a certificate");
    for (const Extension& extension : extensionsOf(request.kind)) {
        ensure(X509_add_ext(cert.get(), makeExtension(extension, issuerCert, cert.get()).get(), -1) == 1,
               "adding an extension");
    }
    ensureSigned(X509_sign(cert.get(), isRoot ? key : issuer.key.get(), EVP_sha256()) > 0, "signing a certificate");
    return cert;
}

bool isRevokedBy(X509_CRL* crl, X509* cert)
{
    X509_REVOKED* entry = nullptr;
    return X509_CRL_get0_by_cert(crl, &entry, cert) != 0;
}

Crl issueCrl(const Identity& issuer, X509_CRL* previous, const Revocation* revocation, int days)
{
    Crl crl(X509_CRL_new());
    ensure(crl != nullptr && X509_CRL_set_version(crl.get(), CRL_VERSION_2) == 1 &&
               X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.cert.get())) == 1 &&
               X509_CRL_set1_lastUpdate(crl.get(), timeFromNow(0).get()) == 1 &&
               X509_CRL_set1_nextUpdate(crl.get(), timeFromNow(days).get()) == 1,
           "making a CRL");
    const STACK_OF(X509_REVOKED)* const listed = previous == nullptr ? nullptr : X509_CRL_get_REVOKED(previous);
    for (int i = 0; i < sk_X509_REVOKED_num(listed); ++i) {
        addEntry(crl.get(), Revoked(X509_REVOKED_dup(sk_X509_REVOKED_value(listed, i))));
    }
    if (revocation != nullptr) addEntry(crl.get(), makeEntry(*revocation));

    const X509Extension issuerKey =
        makeExtension({NID_authority_key_identifier, "keyid:always"}, issuer.cert.get(), nullptr);
    ensure(X509_CRL_sort(crl.get()) == 1 && X509_CRL_add_ext(crl.get(), issuerKey.get(), -1) == 1 &&
               X509_CRL_add1_ext_i2d(crl.get(), NID_crl_number, nextNumber(previous).get(), 0, 0) == 1,
           "making a CRL");
    ensureSigned(X509_CRL_sign(crl.get(), issuer.key.get(), EVP_sha256()) > 0, "signing a CRL");
    return crl;
}

} // namespace pkgtool
