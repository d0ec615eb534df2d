#include "contents.h"

#include "container.h"
#include "der.h"
#include "error.h"
#include "openssl.h"
#include "text.h"
#include "timestamp.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstring>

namespace pkgtool {

namespace {

using ExtendedUsage = Owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;
using IssuingPoint = Owned<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;
using RevocationReason = Owned<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;

// ---- Values as text; null when there is none ----

Json nameJson(const X509_NAME* name)
{
    constexpr unsigned long FLAGS = ASN1_STRFLGS_ESC_2253 | ASN1_STRFLGS_ESC_CTRL | ASN1_STRFLGS_UTF8_CONVERT |
                                    ASN1_STRFLGS_DUMP_UNKNOWN | XN_FLAG_SEP_COMMA_PLUS | XN_FLAG_FN_SN;
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

Json objectJson(const ASN1_OBJECT* object)
{
    const int nid = OBJ_obj2nid(object);
    if (nid != NID_undef) return OBJ_nid2sn(nid);
    char text[128];
    return OBJ_obj2txt(text, sizeof text, object, 1) > 0 ? Json(text) : Json();
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
    static constexpr struct {
        unsigned bit;
        const char* name;
    } USAGES[] = {{KU_DIGITAL_SIGNATURE, "digitalSignature"},
                  {KU_NON_REPUDIATION, "nonRepudiation"},
                  {KU_KEY_ENCIPHERMENT, "keyEncipherment"},
                  {KU_DATA_ENCIPHERMENT, "dataEncipherment"},
                  {KU_KEY_AGREEMENT, "keyAgreement"},
                  {KU_KEY_CERT_SIGN, "keyCertSign"},
                  {KU_CRL_SIGN, "cRLSign"}};
    Json usages = Json::array();
    const bool stated = (X509_get_extension_flags(cert) & EXFLAG_KUSAGE) != 0;
    const unsigned bits = stated ? X509_get_key_usage(cert) : 0;
    for (const auto& usage : USAGES) {
        if ((bits & usage.bit) != 0) usages.push_back(usage.name);
    }
    const ExtendedUsage purposes(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
    for (int i = 0; i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
        usages.push_back(objectJson(sk_ASN1_OBJECT_value(purposes.get(), i)));
    }
    return usages;
}

Json certificateJson(X509* cert, const char* source)
{
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
                 {"signature_algorithm", objectJson(OBJ_nid2obj(X509_get_signature_nid(cert)))},
                 {"is_ca", (flags & EXFLAG_CA) != 0},
                 {"is_self_issued", (flags & EXFLAG_SI) != 0},
                 {"usage", usageJson(cert)},
                 {"source", source}};
    ERR_clear_error();
    return json;
}

Json revokedJson(const X509_REVOKED* entry)
{
    const RevocationReason reason(
        static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    static constexpr const char* REASONS[] = {
        "unspecified",   "keyCompromise",        "cACompromise",    "affiliationChanged",
        "superseded",    "cessationOfOperation", "certificateHold", "7",
        "removeFromCRL", "privilegeWithdrawn",   "aACompromise"};
    const long number = reason == nullptr ? -1 : ASN1_ENUMERATED_get(reason.get());
    const bool known = number >= 0 && number < static_cast<long>(sizeof REASONS / sizeof *REASONS);
    return {{"serial", serialJson(X509_REVOKED_get0_serialNumber(entry))},
            {"date", timeJson(X509_REVOKED_get0_revocationDate(entry))},
            {"reason", known ? Json(REASONS[number]) : Json()}};
}

Json crlJson(X509_CRL* crl, const char* source)
{
    Json revoked = Json::array();
    const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        revoked.push_back(revokedJson(sk_X509_REVOKED_value(entries, i)));
    }
    const IssuingPoint point(
        static_cast<ISSUING_DIST_POINT*>(X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, nullptr, nullptr)));
    return {{"issuer", nameJson(X509_CRL_get_issuer(crl))},
            {"this_update", timeJson(X509_CRL_get0_lastUpdate(crl))},
            {"next_update", timeJson(X509_CRL_get0_nextUpdate(crl))},
            {"signature_algorithm", objectJson(OBJ_nid2obj(X509_CRL_get_signature_nid(crl)))},
            {"is_indirect", point != nullptr && point->indirectCRL > 0},
            {"revoked", revoked},
            {"source", source}};
}

// ---- Files of them ----

// What a signature covers of a certificate or CRL: the first element inside the outermost one.
Bytes signedPartOf(const Bytes& der)
{
    const unsigned char* in = der.data();
    long length = 0;
    int tag = 0;
    int type = 0;
    ASN1_get_object(&in, &length, &tag, &type, static_cast<long>(der.size()));
    const unsigned char* content = in;
    ASN1_get_object(&content, &length, &tag, &type, length);
    return Bytes(in, content + length);
}

// Reads certificates, CRLs and signatures, and keeps the first of equal objects.
class Reader {
public:
    explicit Reader(std::map<Bytes, Json>& objects) : objects_(objects) {}

    // Certificates and CRLs one behind the other, in DER or in PEM, up to what is neither.
    Json readObjects(const Bytes& content, const char* source);
    Json readSignature(const Bytes& content);

private:
    void takePem(const Bytes& content, const char* source, Json& file);
    void takeDer(const Bytes& content, const char* source, Json& file);
    Json take(X509* cert, const char* source);
    Json take(X509_CRL* crl, const char* source);
    Json signedDataJson(CMS_ContentInfo* cms, const char* source);
    Json signerJson(CMS_SignerInfo* signer);
    Json tokenJson(const Bytes& der);

    std::map<Bytes, Json>& objects_;
};

Json Reader::take(X509* cert, const char* source)
{
    const Json json = certificateJson(cert, source);
    objects_.emplace(signedPartOf(toDer(i2d_X509, cert)), json);
    return json;
}

Json Reader::take(X509_CRL* crl, const char* source)
{
    const Json json = crlJson(crl, source);
    objects_.emplace(signedPartOf(toDer(i2d_X509_CRL, crl)), json);
    return json;
}

void Reader::takePem(const Bytes& content, const char* source, Json& file)
{
    const Bio bio = memoryBio(content);
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (PEM_read_bio(bio.get(), &label, &header, &data, &length) == 1) {
        const Bytes der(data, data + length);
        if (const Cert cert = fromDer<X509_free>(d2i_X509, der)) {
            file["certificates"].push_back(take(cert.get(), source));
        } else if (const Crl crl = fromDer<X509_CRL_free>(d2i_X509_CRL, der)) {
            file["crls"].push_back(take(crl.get(), source));
        }
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
}

void Reader::takeDer(const Bytes& content, const char* source, Json& file)
{
    const unsigned char* in = content.data();
    const unsigned char* const end = in + content.size();
    while (in != end) {
        const unsigned char* const begin = in;
        if (const Cert cert{d2i_X509(nullptr, &in, end - begin)}) {
            file["certificates"].push_back(take(cert.get(), source));
            continue;
        }
        in = begin;
        const Crl crl{d2i_X509_CRL(nullptr, &in, end - begin)};
        if (crl == nullptr) {
            file["unread_bytes"] = end - begin;
            return;
        }
        file["crls"].push_back(take(crl.get(), source));
    }
}

Json Reader::readObjects(const Bytes& content, const char* source)
{
    Json file = {{"form", isPem(content) ? "PEM" : "DER"},
                 {"certificates", Json::array()},
                 {"crls", Json::array()},
                 {"unread_bytes", 0}};
    isPem(content) ? takePem(content, source, file) : takeDer(content, source, file);
    ERR_clear_error();
    return file;
}

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

Json Reader::tokenJson(const Bytes& der)
{
    const Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, der);
    if (cms == nullptr) return {{"problem", "not a token that can be decoded"}};
    const TsTstInfo info = tstInfoOf(cms.get());
    Json json = {{"problem", info == nullptr ? Json("no TSTInfo that can be decoded") : Json()}};
    if (info != nullptr) {
        TS_ACCURACY* const accuracy = TS_TST_INFO_get_accuracy(info.get());
        json["time"] = timeJson(TS_TST_INFO_get_time(info.get()));
        json["serial"] = serialJson(TS_TST_INFO_get_serial(info.get()));
        json["policy"] = objectJson(TS_TST_INFO_get_policy_id(info.get()));
        json["imprint"] = algorithmJson(TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(info.get())));
        json["has_accuracy"] = accuracy != nullptr;
        json["has_accuracy_seconds"] = accuracy != nullptr && TS_ACCURACY_get_seconds(accuracy) != nullptr;
        json["has_tsa_name"] = TS_TST_INFO_get_tsa(info.get()) != nullptr;
    }
    json.update(signedDataJson(cms.get(), source::TOKEN));
    return json;
}

Json Reader::signerJson(CMS_SignerInfo* signer)
{
    ASN1_OCTET_STRING* keyId = nullptr;
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, &keyId, &issuer, &serial);
    X509_ALGOR* digest = nullptr;
    X509_ALGOR* scheme = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, &scheme);
    Json json = {{"issuer", issuer != nullptr ? nameJson(issuer) : Json()},
                 {"serial", serial != nullptr ? serialJson(serial) : Json()},
                 {"digest", algorithmJson(digest)},
                 {"signature_algorithm", algorithmJson(scheme)},
                 {"signed_attributes", attributesJson(signer)},
                 {"timestamps", Json::array()}};
    for (int i = 0; i < CMS_unsigned_get_attr_count(signer); ++i) {
        X509_ATTRIBUTE* const attribute = CMS_unsigned_get_attr(signer, i);
        if (OBJ_obj2nid(X509_ATTRIBUTE_get0_object(attribute)) != NID_id_smime_aa_timeStampToken) continue;
        const ASN1_TYPE* const value = X509_ATTRIBUTE_get0_type(attribute, 0);
        const bool isToken = value != nullptr && value->type == V_ASN1_SEQUENCE;
        json["timestamps"].push_back(tokenJson(isToken ? bytesOf(value->value.sequence) : Bytes()));
    }
    return json;
}

Json Reader::signedDataJson(CMS_ContentInfo* cms, const char* source)
{
    Json json = {{"certificates", Json::array()}, {"signers", Json::array()}};
    const CertStack certs(CMS_get1_certs(cms));
    for (int i = 0; i < sk_X509_num(certs.get()); ++i) {
        json["certificates"].push_back(take(sk_X509_value(certs.get(), i), source));
    }
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        json["signers"].push_back(signerJson(sk_CMS_SignerInfo_value(signers, i)));
    }
    return json;
}

// Bytes behind the signature are no part of it.
Cms decodeCms(const Bytes& content)
{
    try {
        const Bytes der = isPem(content) ? withoutArmour(content, "the signature") : content;
        const unsigned char* in = der.data();
        return Cms(d2i_CMS_ContentInfo(nullptr, &in, static_cast<long>(der.size())));
    } catch (const UserError&) {
        return nullptr;
    }
}

Json Reader::readSignature(const Bytes& content)
{
    Json json = {{"form", isPem(content) ? "PEM" : "DER"}};
    const Cms cms = decodeCms(content);
    const bool isSigned = cms != nullptr && OBJ_obj2nid(CMS_get0_type(cms.get())) == NID_pkcs7_signed;
    json["problem"] = isSigned ? Json() : Json("not a CMS signature that can be decoded");
    if (isSigned) json.update(signedDataJson(cms.get(), source::SIGNATURE));
    ERR_clear_error();
    return json;
}

// ---- The package ----

Json headerJson(const Header& header)
{
    const std::string description(header.strDescription, strnlen(header.strDescription, sizeof header.strDescription));
    return {{"file_id", header.ulFileID},
            {"version", header.ulVersion},
            {"length", header.ulLength},
            {"compress_type", header.ulCompressType},
            {"header_crc", header.ulHeaderCrc},
            {"file_crc", header.ulFileCRC},
            {"reserved", header.ulReserved4RPS},
            {"description", description},
            {"sub_file_count", header.ulSubFileNum}};
}

} // namespace

Contents readContents(const Bytes& package, const Bytes& root, const char* rootSource)
{
    const Header header = decodeHeader(package);
    Contents contents{nullptr, headerJson(header), Json::array(), {}};
    Reader reader(contents.objects);
    contents.root = elementOf(reader.readObjects(root, rootSource)["certificates"], 0);
    for (const SSubFileInfo_S& entry : entriesOf(header)) {
        contents.subFiles.push_back({{"type", typeName(entry.ulSubFileID)},
                                     {"offset", entry.ulSubFileOffset},
                                     {"length", entry.ulSubFileLen},
                                     {"is_inside", isInside(entry, package)}});
    }
    for (const std::uint32_t type : {SUB_FILE_CRL, SUB_FILE_CMS}) {
        for (std::size_t i = 0; i < contents.subFiles.size(); ++i) {
            const SSubFileInfo_S& entry = header.stSubFileInfo[i];
            if (entry.ulSubFileID != type || !isInside(entry, package)) continue;
            const Bytes content = contentOf(entry, package);
            contents.subFiles[i]["content"] =
                type == SUB_FILE_CRL ? reader.readObjects(content, source::CRL_FILE) : reader.readSignature(content);
        }
    }
    return contents;
}

std::string briefName(const Json& json)
{
    const std::string name = textOf(json);
    const std::string key = "CN=";
    std::size_t at = name.rfind(key);
    while (at != std::string::npos && at != 0 && name[at - 1] != ',' && name[at - 1] != '+')
        at = name.rfind(key, at - 1);
    if (at == std::string::npos) return name;
    std::size_t end = at;
    while (end < name.size() && name[end] != ',') end += name[end] == '\\' ? 2 : 1;
    return name.substr(at, end - at);
}

} // namespace pkgtool
