#include "requirements.h"

#include "der.h"
#include "error.h"
#include "keys.h"
#include "progress.h"
#include "timestamp.h"

#include "cmsverify/cms_verify_input.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace pkgtool {

namespace {

constexpr int MAX_KEY_BITS = 4096;
constexpr std::size_t WHOLE_SECONDS = sizeof "YYYYMMDDhhmmssZ" - 1;

bool isSha2(int digest)
{
    return digest == NID_sha256 || digest == NID_sha384 || digest == NID_sha512;
}

// ---- Certificates ----

bool isSignedWithRsaAndSha2(int algorithm)
{
    return algorithm == NID_sha256WithRSAEncryption || algorithm == NID_sha384WithRSAEncryption ||
           algorithm == NID_sha512WithRSAEncryption;
}

void requireKey(const X509* cert, const std::string& name)
{
    const EVP_PKEY* const key = X509_get0_pubkey(cert);
    if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        throw Refusal(
            "the key of " + name + " is not an RSA key",
            "the checker supports only RSA PKCS #1 v1.5: elliptic curves, EdDSA and RSA-PSS keys are refused");
    }
    if (EVP_PKEY_get_bits(key) > MAX_KEY_BITS) {
        throw Refusal("the key of " + name + " is longer than 4096 bits", "use RSA with 2048 to 4096 bits");
    }
}

// The requirements on a signer's certificate; the purpose is an extended key usage.
void requireEndEntity(X509* cert, unsigned purpose, const std::string& purposeName)
{
    const std::string name = "certificate " + nameOf(cert);
    requireKey(cert, name);
    if (!isSignedWithRsaAndSha2(X509_get_signature_nid(cert))) {
        throw Refusal(name + " is not signed with RSA and SHA-256, SHA-384 or SHA-512",
                      "have it issued with sha256WithRSAEncryption, for instance");
    }
    const unsigned flags = X509_get_extension_flags(cert);
    if ((flags & (EXFLAG_CA | EXFLAG_SS)) != 0) {
        throw Refusal(name + " is " + ((flags & EXFLAG_CA) != 0 ? "a CA's" : "self-signed"),
                      "a signer's certificate must be issued by a CA and must not be a CA itself");
    }
    // Without the extension OpenSSL reports every usage; the checker requires the extension.
    if ((flags & EXFLAG_KUSAGE) == 0 || (X509_get_key_usage(cert) & X509v3_KU_DIGITAL_SIGNATURE) == 0) {
        throw Refusal(name + " lacks digitalSignature in its key usage",
                      "issue it with keyUsage = critical,digitalSignature");
    }
    if ((flags & EXFLAG_XKUSAGE) == 0 || (X509_get_extended_key_usage(cert) & purpose) == 0) {
        throw Refusal(name + " lacks " + purposeName + " in its extended key usage",
                      "issue it with extendedKeyUsage = " + purposeName);
    }
}

// ---- Timestamps ----

// The members of a TSTInfo that RFC 3161 allows and the checker does not decode.
void requireDecodable(TS_TST_INFO* info)
{
    if (ASN1_STRING_length(TS_TST_INFO_get_time(info)) != static_cast<int>(WHOLE_SECONDS)) {
        throw Refusal("the timestamp has fractions of a second, which the checker refuses",
                      "let the authority give whole seconds (openssl ts: no clock_precision_digits)");
    }
    if (TS_TST_INFO_get_tsa(info) != nullptr) {
        throw Refusal("the timestamp has a tsa name, which the checker refuses",
                      "let the authority leave it out (openssl ts: tsa_name = no)");
    }
    TS_ACCURACY* const accuracy = TS_TST_INFO_get_accuracy(info);
    if (accuracy != nullptr && TS_ACCURACY_get_seconds(accuracy) == nullptr) {
        throw Refusal("the timestamp's accuracy has no seconds, which the checker refuses",
                      "let the authority state whole seconds, or none (openssl ts: accuracy = secs:1)");
    }
}

void requireImprint(TS_TST_INFO* info, const Bytes& signature)
{
    TS_MSG_IMPRINT* const imprint = TS_TST_INFO_get_msg_imprint(info);
    const ASN1_OBJECT* algorithm = nullptr;
    X509_ALGOR_get0(&algorithm, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
    const int digest = OBJ_obj2nid(algorithm);
    if (!isSha2(digest)) {
        throw Refusal("the timestamp's imprint is not by SHA-256, SHA-384 or SHA-512", "query with another digest");
    }
    if (bytesOf(TS_MSG_IMPRINT_get_msg(imprint)) != digestOf(EVP_get_digestbynid(digest), signature)) {
        throw Refusal("the timestamp is for another signature",
                      "a response belongs to the query made with exactly this payload, key, digest and signing time");
    }
}

// others: may contain the authority's certificate instead of the token.
void requireTimestamp(const Bytes& token, const Bytes& signature, STACK_OF(X509) * others)
{
    requireDefiniteLengths(token, "the timestamp");
    const Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, token);
    const TsTstInfo info = cms != nullptr ? tstInfoOf(cms.get()) : nullptr;
    if (info == nullptr) throw Refusal("the timestamp is not an RFC 3161 token");
    requireDecodable(info.get());
    requireImprint(info.get(), signature);

    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms.get());
    if (sk_CMS_SignerInfo_num(signers) < 1) throw Refusal("nobody signed the timestamp");
    CMS_set1_signers_certs(cms.get(), others, 0);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        X509* authority = nullptr;
        CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), nullptr, &authority, nullptr, nullptr);
        if (authority == nullptr) {
            throw Refusal("the authority's certificate is not in the timestamp",
                          "ask for it (openssl ts -query -cert), or add it with --chain");
        }
        requireTimestampAuthority(authority);
    }
    if (CMS_verify(cms.get(), others, nullptr, nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) != 1) {
        throw Refusal("the timestamp is damaged: its signature does not verify");
    }
}

// ---- Signatures ----

void requireAlgorithms(CMS_SignerInfo* signer)
{
    X509_ALGOR* digest = nullptr;
    X509_ALGOR* scheme = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, &scheme);
    const ASN1_OBJECT* digestType = nullptr;
    const ASN1_OBJECT* schemeType = nullptr;
    X509_ALGOR_get0(&digestType, nullptr, nullptr, digest);
    X509_ALGOR_get0(&schemeType, nullptr, nullptr, scheme);
    if (!isSha2(OBJ_obj2nid(digestType))) {
        throw Refusal("the signature's digest is not SHA-256, SHA-384 or SHA-512",
                      "sign with -md sha256, for instance");
    }
    if (OBJ_obj2nid(schemeType) == NID_rsassaPss) {
        throw Refusal("the signature is RSA-PSS; the checker supports only PKCS #1 v1.5",
                      "sign without rsa_padding_mode:pss");
    }
}

enum class Timestamps { Needed, Missing };

void requireSignerInfo(CMS_SignerInfo* signer, STACK_OF(X509) * certs, Timestamps timestamps)
{
    ASN1_OCTET_STRING* keyId = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, &keyId, nullptr, nullptr);
    if (keyId != nullptr) {
        throw Refusal("a signer is named by key identifier; the checker needs issuer and serial number",
                      "sign without -keyid");
    }
    X509* cert = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, &cert, nullptr, nullptr);
    if (cert == nullptr) throw Refusal("a signer's certificate is not in the signature", "sign without -nocerts");
    requireSigner(cert);
    requireAlgorithms(signer);
    const ASN1_STRING* const token = timestampOf(signer);
    if (token == nullptr && timestamps == Timestamps::Missing) return;
    if (token == nullptr) {
        throw Refusal("the signature of " + nameOf(cert) + " has no timestamp, and the checker needs one",
                      "pkgtool stamp adds it");
    }
    requireTimestamp(bytesOf(token), bytesOf(CMS_SignerInfo_get0_signature(signer)), certs);
}

Cms readSigners(const Bytes& signature, const std::string& origin, Timestamps timestamps = Timestamps::Needed)
{
    requireNothingBeforePem(signature, origin, "cms -cmsout -inform PEM -outform PEM");
    const Bytes der = isPem(signature) ? withoutArmour(signature, origin) : signature;
    requireDefiniteLengths(der, origin);
    Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, der);
    if (cms == nullptr || CMS_get0_SignerInfos(cms.get()) == nullptr || signature.size() < MIN_INPUT) {
        throw Refusal(origin + " is not a CMS signature in DER or PEM",
                      "PEM begins at the first octet; openssl cms -cmsout -outform DER converts S/MIME to DER");
    }
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms.get());
    if (sk_CMS_SignerInfo_num(signers) < 1) throw Refusal("nobody signed " + origin);
    const CertStack certs(CMS_get1_certs(cms.get()));
    CMS_set1_signers_certs(cms.get(), nullptr, 0);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        requireSignerInfo(sk_CMS_SignerInfo_value(signers, i), certs.get(), timestamps);
    }
    return cms;
}

// ---- CRLs ----

void requireCrl(const X509_CRL* crl, const std::string& origin)
{
    if (X509_CRL_get0_nextUpdate(crl) == nullptr) {
        throw Refusal("a CRL in " + origin + " has no nextUpdate, which the checker needs",
                      "publish it with openssl ca -gencrl -crldays 365, for instance");
    }
    if (!isSignedWithRsaAndSha2(X509_CRL_get_signature_nid(crl))) {
        throw Refusal("a CRL in " + origin + " is not signed with RSA and SHA-256, SHA-384 or SHA-512");
    }
}

[[noreturn]] void throwNoCrl(const std::string& origin)
{
    throw Refusal(origin + " holds something that is not a CRL");
}

void requireDerCrls(const Bytes& crls, const std::string& origin)
{
    const unsigned char* in = crls.data();
    const unsigned char* const end = in + crls.size();
    do {
        const Crl crl(d2i_X509_CRL(nullptr, &in, end - in));
        if (crl == nullptr) throwNoCrl(origin);
        requireCrl(crl.get(), origin);
    } while (in < end);
}

// Other kinds of blocks are ignored, as in the checker.
void requirePemCrls(const Bytes& crls, const std::string& origin)
{
    const Bio bio = memoryBio(crls);
    bool any = false;
    while (const Crl crl{PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr)}) {
        requireCrl(crl.get(), origin);
        any = true;
    }
    if (!any || ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) throwNoCrl(origin);
    ERR_clear_error();
}

} // namespace

const ASN1_STRING* timestampOf(const CMS_SignerInfo* signer)
{
    const int index = CMS_unsigned_get_attr_by_NID(signer, NID_id_smime_aa_timeStampToken, -1);
    if (index < 0) return nullptr;
    const ASN1_TYPE* const value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(signer, index), 0);
    return value != nullptr && value->type == V_ASN1_SEQUENCE ? value->value.sequence : nullptr;
}

void requireSigner(X509* cert)
{
    requireEndEntity(cert, XKU_CODE_SIGN, "codeSigning");
}

void requireTimestampAuthority(X509* cert)
{
    requireEndEntity(cert, XKU_TIMESTAMP, "timeStamping");
}

void requireSigners(const Bytes& signature, const std::string& origin)
{
    (void)readSigners(signature, origin);
}

void requireStampable(const Bytes& signature, const std::string& origin)
{
    const Cms cms = readSigners(signature, origin, Timestamps::Missing);
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms.get());
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        CMS_SignerInfo* const signer = sk_CMS_SignerInfo_value(signers, i);
        if (CMS_signed_get_attr_count(signer) >= 0 && CMS_SignerInfo_verify(signer) != 1) {
            throw Refusal(origin + " is damaged: a signature over its signed attributes does not verify",
                          "sign again, and transfer the signature as binary, not as text");
        }
    }
}

// Called before and after every operation of a BIO.
static long countRead(BIO* bio, int operation, const char*, std::size_t, int, long, int result, std::size_t* count)
{
    const bool isRead = operation == (BIO_CB_READ | BIO_CB_RETURN) && result > 0;
    if (isRead) reinterpret_cast<Progress*>(BIO_get_callback_arg(bio))->advance(*count);
    return result;
}

void requireSignature(const Bytes& signature, ByteView payload, const std::string& origin)
{
    const Cms cms = readSigners(signature, origin);
    Progress progress("checking " + origin, payload.size);
    // Behind a filter, because CMS_verify puts a BIO of its own in place of one in memory.
    const Bio content(BIO_push(BIO_new(BIO_f_null()), memoryBio(payload).release()));
    ensure(content != nullptr, "allocating");
    BIO_set_callback_ex(content.get(), countRead);
    BIO_set_callback_arg(content.get(), reinterpret_cast<char*>(&progress));
    const unsigned flags = CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY;
    if (CMS_verify(cms.get(), nullptr, nullptr, content.get(), nullptr, flags) != 1) {
        throw Refusal(origin + " is not a signature over this payload",
                      "pack the signed payload unchanged; line endings count (openssl cms -binary)");
    }
}

void requireCrls(const Bytes& crls, const std::string& origin)
{
    if (isPem(crls)) return requirePemCrls(crls, origin);
    requireDefiniteLengths(crls, origin);
    requireDerCrls(crls, origin);
}

} // namespace pkgtool
