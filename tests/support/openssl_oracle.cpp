#include "openssl_oracle.h"

#include "openssl_pki.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>

namespace pnvtest {

namespace {

struct Refused {
    PELNIC_ERROR_CODE code; // 0: not refused
    const char* why;
};
constexpr Refused kGood{0, "accepted"};

bool IsSha2(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* id = nullptr;
    X509_ALGOR_get0(&id, nullptr, nullptr, algorithm);
    const int nid = OBJ_obj2nid(id);
    return nid == NID_sha256 || nid == NID_sha384 || nid == NID_sha512;
}

Bytes OctetsOf(const ASN1_STRING* string)
{
    const unsigned char* octets = ASN1_STRING_get0_data(string);
    return Bytes(octets, octets + ASN1_STRING_length(string));
}

bool IsPem(const Bytes& input)
{
    return input.front() == '-';
}

// PEM blocks one after the other, and DER as it is.
Bytes DerOf(const Bytes& input)
{
    if (!IsPem(input)) return input;
    const Owned<BIO> bio(BIO_new_mem_buf(input.data(), static_cast<int>(input.size())));
    Bytes der;
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* block = nullptr;
    long length = 0;
    while (PEM_read_bio(bio.get(), &name, &header, &block, &length) == 1) {
        der.insert(der.end(), block, block + length);
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(block);
    }
    return der;
}

time_t SecondsOf(const ASN1_TIME* time)
{
    tm broken{};
    ASN1_TIME_to_tm(time, &broken);
    return timegm(&broken);
}

// ---- Signers ----

std::vector<CMS_SignerInfo*> SignersOf(CMS_ContentInfo* cms)
{
    std::vector<CMS_SignerInfo*> signers;
    const STACK_OF(CMS_SignerInfo)* infos = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) signers.push_back(sk_CMS_SignerInfo_value(infos, i));
    return signers;
}

bool IsDirect(CMS_SignerInfo* signer)
{
    return CMS_signed_get_attr_count(signer) < 0;
}

const X509_ALGOR* DigestAlgorithm(CMS_SignerInfo* signer)
{
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &algorithm, nullptr);
    return algorithm;
}

Bytes MessageDigest(CMS_SignerInfo* signer)
{
    const void* digest =
        CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING);
    return digest == nullptr ? Bytes{} : OctetsOf(static_cast<const ASN1_STRING*>(digest));
}

bool HasRsaKey(X509* cert)
{
    const EVP_PKEY* key = X509_get0_pubkey(cert);
    return key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1;
}

// Whether the signer's digest or direct signature is that of the content, which is in the CMS when none is given.
bool FitsContent(CMS_ContentInfo* cms, CMS_SignerInfo* signer, const Bytes* content)
{
    Owned<BIO> detached;
    if (content != nullptr) detached.reset(BIO_new_mem_buf(content->data(), static_cast<int>(content->size())));
    const Owned<BIO> digesting(CMS_dataInit(cms, detached.get()));
    if (digesting == nullptr) return false;
    (void)detached.release(); // the last of the chain now
    char block[4096];
    while (BIO_read(digesting.get(), block, sizeof(block)) > 0) {
    }
    return CMS_SignerInfo_verify_content(signer, digesting.get()) == 1;
}

// Whether the stamped octets are what the token speaks of.
bool FitsImprint(const Bytes& token, const Bytes& stamped)
{
    const Owned<PKCS7> pkcs7 = Parse(d2i_PKCS7, token);
    const Owned<TS_VERIFY_CTX> ctx(TS_VERIFY_CTX_new());
    TS_VERIFY_CTX_set_flags(ctx.get(), TS_VFY_DATA);
    TS_VERIFY_CTX_set_data(ctx.get(), BIO_new_mem_buf(stamped.data(), static_cast<int>(stamped.size())));
    return TS_RESP_verify_token(ctx.get(), pkcs7.get()) == 1;
}

// ---- The package ----

class Oracle {
public:
    explicit Oracle(RuleSet inForce) : rules_(inForce), pki_(rules_) {}

    Refused Judge(const SignedParts& parts);
    RuleSet Met() const { return rules_.Met(); }

private:
    bool Decodes(const ASN1_INTEGER* serial);
    bool Decodes(X509* cert);
    bool Decodes(X509_CRL* crl);
    bool IsTooOld(X509* cert);
    Refused AddAnchors(const Bytes& stream);
    Refused AddCrls(const Bytes& stream);
    Owned<CMS_ContentInfo> ParseCms(const Bytes& der);
    void AddCerts(CMS_ContentInfo* cms);

    Refused CheckCert(X509* cert, unsigned purpose);
    Refused CheckAttributes(CMS_SignerInfo* signer);
    Refused CheckToken(CMS_SignerInfo* stamped);
    Refused CheckTokenSigner(CMS_ContentInfo* token, CMS_SignerInfo* signer);
    Refused CheckSigner(CMS_SignerInfo* signer);
    Refused CheckDigests(const std::vector<CMS_SignerInfo*>& signers);
    Refused CheckContent(CMS_ContentInfo* cms, const Bytes& content);
    X509* CertOf(CMS_SignerInfo* signer);

    Rules rules_;
    OpensslPki pki_;
};

bool Oracle::Decodes(const ASN1_INTEGER* serial)
{
    return ASN1_INTEGER_get(serial) != 0 || !rules_.Apply(Rule::SerialNumberIsNotZero);
}

bool Oracle::Decodes(X509* cert)
{
    return Decodes(X509_get0_serialNumber(cert));
}

bool Oracle::Decodes(X509_CRL* crl)
{
    const STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        if (!Decodes(X509_REVOKED_get0_serialNumber(sk_X509_REVOKED_value(entries, i)))) return false;
    }
    return true;
}

bool Oracle::IsTooOld(X509* cert)
{
    return X509_get_version(cert) < X509_VERSION_3 && rules_.Apply(Rule::OldCertificatesStopTheRest);
}

Refused Oracle::AddAnchors(const Bytes& stream)
{
    const Bytes der = DerOf(stream);
    std::size_t length = 0;
    for (std::size_t at = 0; at < der.size(); at += length) {
        Owned<X509> cert = Parse(d2i_X509, der.data() + at, der.size() - at, &length);
        if (cert == nullptr || !Decodes(cert.get())) {
            return at != 0 ? kGood : Refused{PELNIC_ERR_CERT_INVALID, "no anchor"};
        }
        if (IsTooOld(cert.get())) return {PELNIC_ERR_CERT_VERSION, "anchor below version 3"};
        pki_.Trust(std::move(cert));
    }
    return kGood;
}

// DER ends at the first octets that are neither a certificate nor a CRL; of PEM such a block is left out.
Refused Oracle::AddCrls(const Bytes& stream)
{
    const bool pem = IsPem(stream);
    const Bytes der = DerOf(stream);
    bool anyCrl = false;
    bool takesCerts = true;
    std::size_t length = 0;
    for (std::size_t at = 0; at < der.size(); at += length) {
        Owned<X509> cert = Parse(d2i_X509, der.data() + at, der.size() - at, &length);
        Owned<X509_CRL> crl;
        if (cert == nullptr) crl = Parse(d2i_X509_CRL, der.data() + at, der.size() - at, &length);
        const bool decodes = cert != nullptr ? Decodes(cert.get()) : crl != nullptr && Decodes(crl.get());
        if (!decodes && pem && length != 0) continue;
        if (!decodes) break;
        if (crl != nullptr) {
            anyCrl = true;
            pki_.Add(std::move(crl));
        } else {
            takesCerts = takesCerts && !IsTooOld(cert.get());
            if (takesCerts) pki_.Add(std::move(cert));
        }
    }
    return anyCrl ? kGood : Refused{PELNIC_ERR_CRL_DECODE, "no CRL at all"};
}

Owned<CMS_ContentInfo> Oracle::ParseCms(const Bytes& der)
{
    Owned<CMS_ContentInfo> cms = Parse(d2i_CMS_ContentInfo, der);
    if (cms == nullptr || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) return nullptr;
    const Owned<STACK_OF(X509)> certs(CMS_get1_certs(cms.get()));
    for (int i = 0; i < sk_X509_num(certs.get()); ++i) {
        if (!Decodes(sk_X509_value(certs.get(), i))) return nullptr;
    }
    for (CMS_SignerInfo* signer : SignersOf(cms.get())) {
        ASN1_INTEGER* serial = nullptr;
        CMS_SignerInfo_get0_signer_id(signer, nullptr, nullptr, &serial);
        if (!Decodes(serial)) return nullptr;
    }
    return cms;
}

void Oracle::AddCerts(CMS_ContentInfo* cms)
{
    const Owned<STACK_OF(X509)> certs(CMS_get1_certs(cms));
    for (int i = 0; i < sk_X509_num(certs.get()); ++i) {
        X509* const cert = sk_X509_value(certs.get(), i);
        X509_up_ref(cert);
        pki_.Add(Owned<X509>(cert));
    }
}

X509* Oracle::CertOf(CMS_SignerInfo* signer)
{
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, nullptr, &issuer, &serial);
    X509* const cert = issuer == nullptr ? nullptr : pki_.FindSigner(issuer, serial);
    CMS_SignerInfo_set1_signer_cert(signer, cert);
    return cert;
}

Refused Oracle::CheckCert(X509* cert, unsigned purpose)
{
    const auto flags = X509_get_extension_flags(cert);
    const bool usageGiven = (flags & EXFLAG_KUSAGE) != 0 && X509_get_key_usage(cert) != 0;
    const bool signs = (X509_get_key_usage(cert) & KU_DIGITAL_SIGNATURE) != 0;
    const bool forThis = (flags & EXFLAG_XKUSAGE) != 0 && (X509_get_extended_key_usage(cert) & purpose) != 0;
    // Of a certificate with a damaged extension OpenSSL reads none, and refuses it for that.
    const bool readable = (flags & EXFLAG_INVALID) == 0;
    if (readable && !(usageGiven && signs && forThis) && rules_.Apply(Rule::PurposeIsAsked)) {
        return usageGiven ? Refused{PELNIC_ERR_CERT_USAGE, "other usage"}
                          : Refused{PELNIC_ERR_NO_KEY_USAGE, "no key usage"};
    }
    const char* const why = pki_.Refusal(cert);
    return why == nullptr ? kGood : Refused{PELNIC_ERR_CERT_VERIFY, why};
}

Refused Oracle::CheckAttributes(CMS_SignerInfo* signer)
{
    constexpr Refused bad{PELNIC_ERR_CMS_SIGNATURE, "signature over the attributes"};
    if (!IsSha2(DigestAlgorithm(signer)) && rules_.Apply(Rule::Sha2Only)) return bad;
    return CMS_SignerInfo_verify(signer) == 1 ? kGood : bad;
}

Refused Oracle::CheckTokenSigner(CMS_ContentInfo* token, CMS_SignerInfo* signer)
{
    X509* const cert = CertOf(signer);
    if (cert == nullptr) return {PELNIC_ERR_TSP_CERT_NOT_FOUND, "authority's certificate missing"};
    Refused refused = CheckCert(cert, XKU_TIMESTAMP);
    if (refused.code != 0) return refused;
    if (IsDirect(signer)) {
        const bool allowed = IsSha2(DigestAlgorithm(signer)) || !rules_.Apply(Rule::Sha2Only);
        if (!allowed) return {PELNIC_ERR_CMS_HASH_ALGO, "token's digest algorithm"};
        if (!HasRsaKey(cert)) return {PELNIC_ERR_UNSUPPORTED_ALGO, "authority's key"};
    } else {
        refused = CheckAttributes(signer);
        if (refused.code != 0) return refused;
    }
    return FitsContent(token, signer, nullptr) ? kGood : Refused{PELNIC_ERR_TSP_VERIFY, "token's own signature"};
}

Refused Oracle::CheckToken(CMS_SignerInfo* stamped)
{
    if (CMS_unsigned_get_attr_count(stamped) <= 0) return {PELNIC_ERR_NULL_POINTER, "no unsigned attributes"};
    const int at = CMS_unsigned_get_attr_by_NID(stamped, NID_id_smime_aa_timeStampToken, -1);
    const ASN1_TYPE* value = at < 0 ? nullptr : X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(stamped, at), 0);
    if (value == nullptr || value->type != V_ASN1_SEQUENCE) return {PELNIC_ERR_CMS_DECODE, "no timestamp"};
    const Bytes der = OctetsOf(value->value.sequence);
    const Owned<CMS_ContentInfo> token = ParseCms(der);
    if (token == nullptr) return {PELNIC_ERR_CMS_DECODE, "token that does not decode"};
    ASN1_OCTET_STRING** const content = CMS_get0_content(token.get());
    if (content == nullptr || *content == nullptr) return {PELNIC_ERR_TSP_DECODE, "token without content"};
    const Owned<TS_TST_INFO> info = Parse(d2i_TS_TST_INFO, OctetsOf(*content));
    if (info == nullptr) return {PELNIC_ERR_TSP_DECODE, "TSTInfo that does not decode"};

    if (!Decodes(TS_TST_INFO_get_serial(info.get()))) return {PELNIC_ERR_TSP_DECODE, "TSTInfo that does not decode"};
    const X509_ALGOR* imprintAlgorithm = TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(info.get()));
    if (!IsSha2(imprintAlgorithm) && rules_.Apply(Rule::Sha2Only)) {
        return {PELNIC_ERR_UNSUPPORTED_ALGO, "imprint's digest algorithm"};
    }
    const Bytes signature = OctetsOf(CMS_SignerInfo_get0_signature(stamped));
    if (!FitsImprint(der, signature)) return {PELNIC_ERR_TSP_IMPRINT_MISMATCH, "token of another signature"};
    const ASN1_GENERALIZEDTIME* time = TS_TST_INFO_get_time(info.get());
    constexpr int wholeSeconds = sizeof("20260101000000Z") - 1;
    if (ASN1_STRING_length(time) != wholeSeconds && rules_.Apply(Rule::WholeSecondsOnly)) {
        return {PELNIC_ERR_NULL_POINTER, "fraction of a second"};
    }
    if (ASN1_GENERALIZEDTIME_check(time) != 1) return {PELNIC_ERR_SYS_TIME_FORMAT, "time that is none"};
    pki_.SetTime(SecondsOf(time));
    AddCerts(token.get());
    const std::vector<CMS_SignerInfo*> signers = SignersOf(token.get());
    if (signers.empty() && !rules_.Apply(Rule::UnsignedTokenPasses)) return {PELNIC_ERR_TSP_VERIFY, "unsigned token"};
    for (CMS_SignerInfo* signer : signers) {
        const Refused refused = CheckTokenSigner(token.get(), signer);
        if (refused.code != 0) return refused;
    }
    return kGood;
}

Refused Oracle::CheckSigner(CMS_SignerInfo* signer)
{
    Refused refused = CheckToken(signer);
    if (refused.code != 0) return refused;
    X509* const cert = CertOf(signer);
    if (cert == nullptr) return {PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND, "signer's certificate missing"};
    refused = CheckCert(cert, XKU_CODE_SIGN);
    if (refused.code != 0) return refused;
    if (!IsDirect(signer)) return CheckAttributes(signer);
    const bool allowed = IsSha2(DigestAlgorithm(signer)) || !rules_.Apply(Rule::Sha2Only);
    if (!allowed) return {PELNIC_ERR_CMS_HASH_ALGO, "signer's digest algorithm"};
    return HasRsaKey(cert) ? kGood : Refused{PELNIC_ERR_CERT_INVALID, "signer's key"};
}

// OpenSSL finds out with the content that not all can be right; the verifier says so before it has any.
Refused Oracle::CheckDigests(const std::vector<CMS_SignerInfo*>& signers)
{
    CMS_SignerInfo* const last = signers.back();
    for (CMS_SignerInfo* other : signers) {
        if (IsDirect(last) || IsDirect(other)) continue;
        const bool sameAlgorithm = X509_ALGOR_cmp(DigestAlgorithm(other), DigestAlgorithm(last)) == 0;
        if (sameAlgorithm && MessageDigest(other) != MessageDigest(last)) {
            return {PELNIC_ERR_CMS_DIGEST_CONFLICT, "two digests of one content"};
        }
    }
    return kGood;
}

Refused Oracle::CheckContent(CMS_ContentInfo* cms, const Bytes& content)
{
    bool good = true;
    for (CMS_SignerInfo* signer : SignersOf(cms)) {
        const bool fits = FitsContent(cms, signer, &content);
        if (IsDirect(signer)) {
            good = fits && (good || rules_.Apply(Rule::LastDirectSignerDecides));
        } else if (!fits) {
            return {PELNIC_ERR_FAILED, "digest of the content"};
        }
    }
    return good ? kGood : Refused{PELNIC_ERR_FAILED, "signature over the content"};
}

Refused Oracle::Judge(const SignedParts& parts)
{
    if (parts.root.empty() || parts.crls.empty()) return {PELNIC_ERR_FAILED, "a part missing"};
    Refused refused = AddAnchors(parts.root);
    if (refused.code == 0) refused = AddCrls(parts.crls);
    if (refused.code != 0) return refused;
    const Owned<CMS_ContentInfo> cms = ParseCms(DerOf(parts.cms));
    if (cms == nullptr) return {PELNIC_ERR_CMS_DECODE, "signature that does not decode"};
    AddCerts(cms.get());
    std::vector<CMS_SignerInfo*> checked;
    for (CMS_SignerInfo* signer : SignersOf(cms.get())) {
        refused = CheckSigner(signer);
        checked.push_back(signer);
        if (refused.code == 0) refused = CheckDigests(checked);
        if (refused.code != 0) return refused;
    }
    if (checked.empty()) return {PELNIC_ERR_CMS_NOT_BEGUN, "no signer"};
    return CheckContent(cms.get(), parts.payload);
}

} // namespace

Opinion AskOpenssl(const SignedParts& parts, RuleSet inForce)
{
    Oracle oracle(inForce);
    const Refused refused = oracle.Judge(parts);
    ERR_clear_error();
    return {refused.code, refused.why == nullptr ? "" : refused.why, oracle.Met()};
}

} // namespace pnvtest
