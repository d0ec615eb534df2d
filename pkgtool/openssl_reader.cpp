// OpenSSL's reader.
#include "reader.h"

#include "asn1_text.h"
#include "der.h"
#include "error.h"
#include "openssl.h"
#include "text.h"
#include "timestamp.h"

#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace pkgtool {

namespace {

using ExtendedUsage = Owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;
using IssuingPoint = Owned<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;
using RevocationReason = Owned<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;

// ---- Values as text; null if there is none ----

Json nameJson(const X509_NAME* name)
{
    constexpr unsigned long FLAGS = NAME_FLAGS | XN_FLAG_SEP_COMMA_PLUS | XN_FLAG_FN_SN;
    const Bio bio(BIO_new(BIO_s_mem()));
    ensure(bio != nullptr, "allocating");
    if (X509_NAME_print_ex(bio.get(), name, 0, FLAGS) < 0) return {};
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

Json timeJson(const ASN1_TIME* time)
{
    std::tm utc{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &utc) != 1) return {};
    return orNull(timeText(timegm(&utc)));
}

Json serialJson(const ASN1_INTEGER* serial)
{
    const Bytes octets = bytesOf(serial);
    return hexText(octets.data(), octets.size());
}

Json algorithmJson(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    return objectJson(object);
}

// ---- Certificates and CRLs ----

Json usageJson(X509* cert)
{
    const bool stated = (X509_get_extension_flags(cert) & EXFLAG_KUSAGE) != 0;
    Json usages = usageNames(stated ? X509_get_key_usage(cert) : 0);
    const ExtendedUsage purposes(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
    for (int i = 0; i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
        usages.push_back(objectJson(sk_ASN1_OBJECT_value(purposes.get(), i)));
    }
    return usages;
}

Json exponentOf(const EVP_PKEY* key)
{
    BIGNUM* exponent = nullptr;
    if (key == nullptr || EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent) != 1) return {};
    return exponentJson(Bignum(exponent).get());
}

Json certificateJson(X509* cert)
{
    const X509_ALGOR* algorithm = nullptr;
    X509_get0_signature(nullptr, &algorithm, cert);
    const EVP_PKEY* const key = X509_get0_pubkey(cert);
    const char* const type = key == nullptr ? nullptr : EVP_PKEY_get0_type_name(key);
    const unsigned flags = X509_get_extension_flags(cert);
    Json json = {{"subject", nameJson(X509_get_subject_name(cert))},
                 {"issuer", nameJson(X509_get_issuer_name(cert))},
                 {"serial", serialJson(X509_get0_serialNumber(cert))},
                 {"not_before", timeJson(X509_get0_notBefore(cert))},
                 {"not_after", timeJson(X509_get0_notAfter(cert))},
                 {"key", type != nullptr ? Json(type) : Json()},
                 {"key_bits", key != nullptr ? Json(EVP_PKEY_get_bits(key)) : Json()},
                 {"key_exponent", exponentOf(key)},
                 {"signature_algorithm", algorithmJson(algorithm)},
                 {"is_ca", (flags & EXFLAG_CA) != 0},
                 {"is_self_issued", (flags & EXFLAG_SI) != 0},
                 {"usage", usageJson(cert)}};
    return json;
}

Json revokedJson(const X509_REVOKED* entry)
{
    const RevocationReason reason(
        static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    return {{"serial", serialJson(X509_REVOKED_get0_serialNumber(entry))},
            {"date", timeJson(X509_REVOKED_get0_revocationDate(entry))},
            {"reason", reason == nullptr ? Json() : reasonJson(ASN1_ENUMERATED_get(reason.get()))}};
}

Json crlJson(X509_CRL* crl)
{
    Json revoked = Json::array();
    const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        revoked.push_back(revokedJson(sk_X509_REVOKED_value(entries, i)));
    }
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(crl, nullptr, &algorithm);
    const IssuingPoint point(
        static_cast<ISSUING_DIST_POINT*>(X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, nullptr, nullptr)));
    return {{"issuer", nameJson(X509_CRL_get_issuer(crl))},
            {"this_update", timeJson(X509_CRL_get0_lastUpdate(crl))},
            {"next_update", timeJson(X509_CRL_get0_nextUpdate(crl))},
            {"signature_algorithm", algorithmJson(algorithm)},
            {"is_indirect", point != nullptr && point->indirectCRL > 0},
            {"scope", nullptr}, // only the device's reader has it
            {"revoked", revoked}};
}

// ---- Objects ----

// The signed part of a certificate or CRL: the first element inside the outermost one, or all if its end is not told.
Bytes signedPartOf(const Bytes& der)
{
    const unsigned char* in = der.data();
    long length = 0;
    int tag = 0;
    int type = 0;
    ASN1_get_object(&in, &length, &tag, &type, static_cast<long>(der.size()));
    const unsigned char* content = in;
    const int form = ASN1_get_object(&content, &length, &tag, &type, static_cast<long>(der.data() + der.size() - in));
    const bool isIndefinite = (form & 0x01) != 0;
    return isIndefinite ? der : Bytes(in, content + length);
}

// ---- Signatures ----

Json attributesJson(CMS_SignerInfo* signer)
{
    const int count = CMS_signed_get_attr_count(signer);
    if (count < 0) return {};
    Json types = Json::array();
    for (int i = 0; i < count; ++i) {
        types.push_back(objectJson(X509_ATTRIBUTE_get0_object(CMS_signed_get_attr(signer, i))));
    }
    return types;
}

Json messageDigestJson(CMS_SignerInfo* signer)
{
    const void* const digest =
        CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING);
    if (digest == nullptr) return {};
    const Bytes octets = bytesOf(static_cast<const ASN1_OCTET_STRING*>(digest));
    return hexText(octets.data(), octets.size());
}

SignerParts partsOf(CMS_SignerInfo* signer)
{
    ASN1_OCTET_STRING* keyId = nullptr;
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, &keyId, &issuer, &serial);
    X509_ALGOR* digest = nullptr;
    X509_ALGOR* scheme = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, &scheme);
    SignerParts parts{{{"issuer", issuer != nullptr ? nameJson(issuer) : Json()},
                       {"serial", serial != nullptr ? serialJson(serial) : Json()},
                       {"digest", algorithmJson(digest)},
                       {"signature_algorithm", algorithmJson(scheme)},
                       {"signed_attributes", attributesJson(signer)},
                       {"message_digest", messageDigestJson(signer)}},
                      {}};
    for (int i = 0; i < CMS_unsigned_get_attr_count(signer); ++i) {
        X509_ATTRIBUTE* const attribute = CMS_unsigned_get_attr(signer, i);
        if (OBJ_obj2nid(X509_ATTRIBUTE_get0_object(attribute)) != NID_id_smime_aa_timeStampToken) continue;
        const ASN1_TYPE* const value = X509_ATTRIBUTE_get0_type(attribute, 0);
        const bool isToken = value != nullptr && value->type == V_ASN1_SEQUENCE;
        parts.tokens.push_back(isToken ? bytesOf(value->value.sequence) : Bytes());
    }
    return parts;
}

std::optional<SignedParts> partsOf(const Cms& cms)
{
    if (cms == nullptr || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) return std::nullopt;
    SignedParts parts{true, {}, {}, objectJson(CMS_get0_eContentType(cms.get())), {}};
    const CertStack certs(CMS_get1_certs(cms.get()));
    for (int i = 0; i < sk_X509_num(certs.get()); ++i) {
        parts.certificates.push_back(toDer(i2d_X509, sk_X509_value(certs.get(), i)));
    }
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms.get());
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        parts.signers.push_back(partsOf(sk_CMS_SignerInfo_value(signers, i)));
    }
    ASN1_OCTET_STRING** const content = CMS_get0_content(cms.get());
    if (content != nullptr && *content != nullptr) parts.content = bytesOf(*content);
    return parts;
}

Cms decodeCms(const Bytes& der)
{
    const unsigned char* in = der.data();
    return Cms(d2i_CMS_ContentInfo(nullptr, &in, static_cast<long>(der.size())));
}

// Leaves OpenSSL's error queue as it was found: empty.
struct QuietErrors {
    ~QuietErrors() { ERR_clear_error(); }
};

class OpensslReader : public ObjectReader {
public:
    std::optional<Object> readCertificate(const unsigned char* der, std::size_t size) override
    {
        const QuietErrors quiet;
        const unsigned char* in = der;
        const Cert cert(d2i_X509(nullptr, &in, static_cast<long>(size)));
        if (cert == nullptr) return std::nullopt;
        const Bytes encoding(der, in);
        return Object{false, signedPartOf(encoding), encoding, certificateJson(cert.get())};
    }

    std::optional<Object> readCrl(const unsigned char* der, std::size_t size) override
    {
        const QuietErrors quiet;
        const unsigned char* in = der;
        const Crl crl(d2i_X509_CRL(nullptr, &in, static_cast<long>(size)));
        if (crl == nullptr) return std::nullopt;
        const Bytes encoding(der, in);
        return Object{true, signedPartOf(encoding), encoding, crlJson(crl.get())};
    }

    std::vector<Object> readObjects(const Bytes& content) override
    {
        return isPem(content) ? readPem(content) : readDer(content);
    }

    std::optional<SignedParts> readSignature(const Bytes& content) override
    {
        const QuietErrors quiet;
        try {
            return partsOf(decodeCms(isPem(content) ? withoutArmour(content, "the signature") : content));
        } catch (const UserError&) {
            return std::nullopt;
        }
    }

    std::optional<SignedParts> readToken(const Bytes& der) override
    {
        const QuietErrors quiet;
        return partsOf(decodeCms(der));
    }

    std::optional<Json> readTstInfo(const Bytes& der) override
    {
        const QuietErrors quiet;
        const TsTstInfo info = fromDer<TS_TST_INFO_free>(d2i_TS_TST_INFO, der);
        if (info == nullptr) return std::nullopt;
        TS_ACCURACY* const accuracy = TS_TST_INFO_get_accuracy(info.get());
        return Json{{"time", timeJson(TS_TST_INFO_get_time(info.get()))},
                    {"serial", serialJson(TS_TST_INFO_get_serial(info.get()))},
                    {"policy", objectJson(TS_TST_INFO_get_policy_id(info.get()))},
                    {"imprint", algorithmJson(TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(info.get())))},
                    {"has_accuracy", accuracy != nullptr},
                    {"has_accuracy_seconds", accuracy != nullptr && TS_ACCURACY_get_seconds(accuracy) != nullptr},
                    {"has_tsa_name", TS_TST_INFO_get_tsa(info.get()) != nullptr}};
    }

private:
    std::vector<Object> readPem(const Bytes& pem);
};

std::vector<Object> OpensslReader::readPem(const Bytes& pem)
{
    const QuietErrors quiet;
    std::vector<Object> objects;
    const Bio bio = memoryBio(pem);
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (PEM_read_bio(bio.get(), &label, &header, &data, &length) == 1) {
        std::optional<Object> object = readObject(data, static_cast<std::size_t>(length));
        if (object) objects.push_back(std::move(*object));
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    return objects;
}

} // namespace

std::unique_ptr<ObjectReader> makeOpensslReader()
{
    return std::make_unique<OpensslReader>();
}

} // namespace pkgtool
