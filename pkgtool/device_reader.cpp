// The device's reader: the library's decoder, and its queries on decoded objects.
#include "reader.h"

#include "asn1_text.h"
#include "crl_bundle.h"
#include "crl_scope.h"
#include "der.h"
#include "error.h"
#include "library.h"
#include "openssl.h"

#include "cmsverify/cms_verify.h"
#include "cmsverify/cms_verify_input.h"
#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_pki_impl.h"
#include "cmsverify/pelnic_x509_cert.h"
#include "cmsverify/pelnic_x509_crl.h"
#include "cmsverify/pelnic_x509_utils.h"
#include "text.h"

namespace pkgtool {

namespace {

PNV_UINT32 sizeOf(std::size_t size)
{
    return static_cast<PNV_UINT32>(size); // nothing in a package is larger
}

Bytes bytesOf(const PELNIC_ASN_OCTS& octets)
{
    return Bytes(octets.octs, octets.octs + octets.len);
}

// An element kept as tag and content.
Bytes encodingOf(const PELNIC_ASN_OCTS& octets)
{
    const int form = octets.tag.form == CBF_CONS ? 1 : 0;
    const int tag = static_cast<int>(octets.tag.code);
    const int length = static_cast<int>(octets.len);
    Bytes element(static_cast<std::size_t>(ASN1_object_size(form, length, tag)) - octets.len);
    unsigned char* out = element.data();
    ASN1_put_object(&out, form, length, tag, static_cast<int>(octets.tag.cls) << 6);
    element.insert(element.end(), octets.octs, octets.octs + octets.len);
    return element;
}

// ---- Values as text; null if there is none ----

Json oidJson(const PELNIC_ASN_OID& oid)
{
    const Asn1Object object = fromDer<ASN1_OBJECT_free>(d2i_ASN1_OBJECT, encodingOf(oid));
    return object != nullptr ? objectJson(object.get()) : Json();
}

std::string valueText(const PELNIC_ASN_OCTS& value)
{
    if (value.tag.cls != CBC_UNIV || value.tag.form != CBF_PRIM) return "#" + hexText(value.octs, value.len);
    const Owned<ASN1_STRING, ASN1_STRING_free> string(ASN1_STRING_type_new(static_cast<int>(value.tag.code)));
    const Bio bio(BIO_new(BIO_s_mem()));
    ensure(string != nullptr && bio != nullptr &&
               ASN1_STRING_set(string.get(), value.octs, static_cast<int>(value.len)) == 1,
           "allocating");
    // Not every string has the type that its tag says.
    if (ASN1_STRING_print_ex(bio.get(), string.get(), NAME_FLAGS) < 0) return "#" + hexText(value.octs, value.len);
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

Json nameJson(const PELNIC_X509_NAME& name)
{
    std::string text;
    for (PNV_UINT32 i = 0; i < name.names.num; ++i) {
        const LIST_TYPE_PELNIC_X509_ATTR_ENTRY& attributes = name.names.data[i]->attrs;
        for (PNV_UINT32 k = 0; k < attributes.num; ++k) {
            if (!text.empty()) text += k == 0 ? "," : "+";
            text += textOf(oidJson(attributes.data[k]->id)) + "=" + valueText(attributes.data[k]->value);
        }
    }
    return text;
}

Json serialJson(const PELNIC_ASN_BIGINT& serial)
{
    return hexText(serial.octs, serial.len);
}

// ---- Queries to the library ----

class Questions {
public:
    explicit Questions(PELNIC_VRF* vrf) : vrf_(vrf) {}

    Json certificateJson(const PELNIC_X509_CERT& cert) const;
    Json crlJson(const PELNIC_X509_CRL& crl) const;
    Json timeJson(const PELNIC_ASN_OCTS& time) const;

private:
    Json usageJson(const PELNIC_X509_CERT& cert) const;
    void putKey(const PELNIC_X509_CERT& cert, Json& json) const;
    Json revokedJson(const PELNIC_X509_REVOKED_ENTRY& entry) const;
    Json scopeJson(const PELNIC_X509_CRL& crl) const;

    PELNIC_VRF* vrf_;
};

Json Questions::timeJson(const PELNIC_ASN_OCTS& time) const
{
    PNV_TIME_T seconds = 0;
    return pelnic_convert_datetime_to_time(vrf_, &time, &seconds) == 0 ? orNull(timeText(seconds)) : Json();
}

Json Questions::usageJson(const PELNIC_X509_CERT& cert) const
{
    PNV_UINT32 bits = 0;
    (void)pelnic_x509_cert_get_keyusage(vrf_, &cert, &bits); // none without the extension
    Json usages = usageNames(bits);
    const PELNIC_X509_EXTENSION_ENTRY* const entry =
        pelnic_x509_cert_get_extn_by_aoid(vrf_, &cert, AOID_CE_EXTKEYUSAGE);
    void* decoded = nullptr;
    if (entry == nullptr || pelnic_decode_x509_extension(vrf_, entry, &decoded) != 0) return usages;
    const LibraryRecord<PELNIC_ASN_OID_BUNDLE, freeExtension<AOID_CE_EXTKEYUSAGE>> purposes(
        static_cast<PELNIC_ASN_OID_BUNDLE*>(decoded), {vrf_});
    for (PNV_UINT32 i = 0; i < purposes->oid_bundle.num; ++i) {
        usages.push_back(oidJson(*purposes->oid_bundle.data[i]));
    }
    return usages;
}

void Questions::putKey(const PELNIC_X509_CERT& cert, Json& json) const
{
    const PELNIC_X509_PUBKEY_INFO& info = *cert.toBeSigned->subjectPubKey;
    PELNIC_PUBKEY* decoded = nullptr;
    const bool isDecoded = pelnic_decode_pubkey(vrf_, &info, &decoded) == 0;
    const KeyRecord key(decoded, {vrf_});
    if (!isDecoded || key->type != AOID_RSA) {
        json["key"] = oidJson(info.algorithm.algorithm);
        json["key_bits"] = nullptr;
        json["key_exponent"] = nullptr;
        return;
    }
    const PELNIC_RSA_PUBKEY& rsa = *static_cast<const PELNIC_RSA_KEY*>(key->pKey)->key.pPubKey;
    const auto numberOf = [](const PELNIC_ASN_BIGINT& octets) {
        Bignum number(BN_bin2bn(octets.octs, static_cast<int>(octets.len), nullptr));
        ensure(number != nullptr, "making a number");
        return number;
    };
    json["key"] = "RSA";
    json["key_bits"] = BN_num_bits(numberOf(rsa.modules).get());
    json["key_exponent"] = exponentJson(numberOf(rsa.publicExponent).get());
}

Json Questions::certificateJson(const PELNIC_X509_CERT& cert) const
{
    const PELNIC_X509_CERTINFO& tbs = *cert.toBeSigned;
    PNV_BOOL isCa = 0;
    (void)pelnic_pki_is_ca_cert(vrf_, &cert, &isCa); // unknown for version 1
    Json json = {{"subject", nameJson(*tbs.subject)},
                 {"issuer", nameJson(*tbs.issuer)},
                 {"serial", serialJson(*tbs.serialNumber)},
                 {"not_before", timeJson(tbs.validity->notBefore)},
                 {"not_after", timeJson(tbs.validity->notAfter)}};
    putKey(cert, json);
    json["signature_algorithm"] = oidJson(cert.algorithm->algorithm);
    json["is_ca"] = isCa != 0;
    json["is_self_issued"] = pelnic_compare_x509_name(vrf_, tbs.subject, tbs.issuer) == 0;
    json["usage"] = usageJson(cert);
    return json;
}

Json Questions::revokedJson(const PELNIC_X509_REVOKED_ENTRY& entry) const
{
    PELNIC_X509_REVOKE_REASON reason = RVRS_NONE;
    (void)pelnic_x509_revoke_entry_get_reason(vrf_, &entry, &reason); // an undecodable one counts as none
    return {{"serial", serialJson(*entry.user_cert)},
            {"date", timeJson(*entry.revocation_date)},
            {"reason", reasonJson(reason)}};
}

Json Questions::scopeJson(const PELNIC_X509_CRL& crl) const
{
    static constexpr struct {
        PNV_UINT32 bit;
        const char* word;
    } LIMITS[] = {{PKGCHECK_CRL_DELTA, "delta"},
                  {PKGCHECK_CRL_USERS_ONLY, "user certificates"},
                  {PKGCHECK_CRL_CAS_ONLY, "CA certificates"},
                  {PKGCHECK_CRL_ATTRIBUTES_ONLY, "attribute certificates"},
                  {PKGCHECK_CRL_SOME_REASONS, "some reasons"},
                  {PKGCHECK_CRL_ONE_POINT, "one distribution point"},
                  {PKGCHECK_CRL_UNREADABLE, "unreadable"}};
    const PNV_UINT32 scope = pkgcheck_crl_scope(vrf_, &crl);
    Json words = Json::array();
    for (const auto& limit : LIMITS) {
        if ((scope & limit.bit) != 0) words.push_back(limit.word);
    }
    return words;
}

Json Questions::crlJson(const PELNIC_X509_CRL& crl) const
{
    const PELNIC_X509_CRLINFO& tbs = *crl.tbs_cert_list;
    PNV_BOOL isIndirect = 0;
    (void)pelnic_x509_crl_is_indirect(vrf_, &crl, &isIndirect); // without an answer it is direct
    Json json = {{"issuer", nameJson(*tbs.issuer)},
                 {"this_update", timeJson(*tbs.this_update)},
                 {"next_update", timeJson(*tbs.next_update)},
                 {"signature_algorithm", oidJson(crl.algorithm->algorithm)},
                 {"is_indirect", isIndirect != 0},
                 {"scope", scopeJson(crl)},
                 {"revoked", Json::array()}};
    for (PNV_UINT32 i = 0; tbs.revoked_certs != nullptr && i < tbs.revoked_certs->revoked_list.num; ++i) {
        json["revoked"].push_back(revokedJson(*tbs.revoked_certs->revoked_list.data[i]));
    }
    return json;
}

// ---- Signatures ----

bool isTimestamp(const PELNIC_VRF* vrf, const PELNIC_X509_ATTR_ENTRY& attribute)
{
    return pelnic_find_aoid(vrf, &attribute.id) == AOID_PKCS9_AT_TIMESTAMP_TOKEN;
}

// The first one counts, and may be empty.
Json messageDigestJson(const PELNIC_VRF* vrf, const LIST_TYPE_PELNIC_X509_ATTR_ENTRY& attributes)
{
    for (PNV_UINT32 i = 0; i < attributes.num; ++i) {
        const PELNIC_X509_ATTR_ENTRY& attribute = *attributes.data[i];
        if (pelnic_find_aoid(vrf, &attribute.id) != AOID_PKCS9_AT_MESSAGEDIGEST) continue;
        PELNIC_ASN_OCTS* octets = nullptr;
        PNV_UINT32 decoded = 0;
        const PELNIC_ASN_OCTS& values = attribute.value;
        if (_pnvDecode<PELNIC_ASN_OCTS_item>(vrf, values.octs, values.len, 0, &octets, &decoded) != 0) return {};
        const OctetsRecord digest(octets, {vrf});
        return hexText(digest->octs, digest->len);
    }
    return {};
}

SignerParts partsOf(const PELNIC_VRF* vrf, const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    SignerParts parts{{{"issuer", nameJson(*signer.issuer_sn->issuer)},
                       {"serial", serialJson(*signer.issuer_sn->sn)},
                       {"digest", oidJson(signer.digest_algo->algorithm)},
                       {"signature_algorithm", oidJson(signer.digest_encryption_algo->algorithm)},
                       {"signed_attributes", nullptr},
                       {"message_digest", nullptr}},
                      {}};
    if (signer.auth_attrs != nullptr) {
        Json& types = parts.json["signed_attributes"] = Json::array();
        const LIST_TYPE_PELNIC_X509_ATTR_ENTRY& attributes = signer.auth_attrs->attrs;
        for (PNV_UINT32 i = 0; i < attributes.num; ++i) types.push_back(oidJson(attributes.data[i]->id));
        parts.json["message_digest"] = messageDigestJson(vrf, attributes);
    }
    for (PNV_UINT32 i = 0; signer.unauth_attrs != nullptr && i < signer.unauth_attrs->attrs.num; ++i) {
        const PELNIC_X509_ATTR_ENTRY& attribute = *signer.unauth_attrs->attrs.data[i];
        if (isTimestamp(vrf, attribute)) parts.tokens.push_back(bytesOf(attribute.value));
    }
    return parts;
}

SignedParts partsOf(const PELNIC_VRF* vrf, const PELNIC_PKCS7_SIGNED_DATA& data)
{
    SignedParts parts{true, {}, {}, oidJson(data.content->type), {}};
    for (PNV_UINT32 i = 0; data.raw_certs != nullptr && i < data.raw_certs->bundle.num; ++i) {
        parts.certificates.push_back(encodingOf(*data.raw_certs->bundle.data[i]));
    }
    for (PNV_UINT32 i = 0; i < data.signer_infos->infos.num; ++i) {
        parts.signers.push_back(partsOf(vrf, *data.signer_infos->infos.data[i]));
    }
    if (data.content->content == nullptr) return parts;
    PELNIC_ASN_OCTS* octets = nullptr;
    PNV_UINT32 decoded = 0;
    const PELNIC_ASN_OCTS& outer = *data.content->content;
    if (_pnvDecode<PELNIC_ASN_OCTS_item>(vrf, outer.octs, outer.len, 0, &octets, &decoded) != 0) return parts;
    parts.content = bytesOf(*OctetsRecord(octets, {vrf}));
    return parts;
}

class DeviceReader : public ObjectReader {
public:
    DeviceReader() : ctx_(newContext()), vrf_(static_cast<PELNIC_VRF*>(ctx_.get())), questions_(vrf_) {}

    std::optional<Object> readCertificate(const unsigned char* der, std::size_t size) override
    {
        PELNIC_X509_CERT* decoded = nullptr;
        PNV_UINT32 length = 0;
        if (pelnic_x509_decode_cert(vrf_, der, sizeOf(size), &decoded, &length) != 0) return std::nullopt;
        return objectOf(*CertRecord(decoded, {vrf_}), Bytes(der, der + length));
    }

    std::optional<Object> readCrl(const unsigned char* der, std::size_t size) override
    {
        PELNIC_X509_CRL* decoded = nullptr;
        PNV_UINT32 length = 0;
        if (pelnic_x509_decode_crl(vrf_, der, sizeOf(size), &decoded, &length) != 0) return std::nullopt;
        return objectOf(*CrlRecord(decoded, {vrf_}), Bytes(der, der + length));
    }

    std::vector<Object> readObjects(const Bytes& content) override
    {
        if (content.size() < MIN_INPUT) return {};
        return isPem(content) ? readPem(content) : readDer(content);
    }

    std::optional<SignedParts> readSignature(const Bytes& content) override
    {
        if (content.size() < MIN_INPUT) return std::nullopt;
        PELNIC_PKCS7_CONTENT* decoded = nullptr;
        if (_pnvDecodeCms(vrf_, content.data(), sizeOf(content.size()), &decoded) == 0) return takeApart(decoded, true);
        try {
            return readTable(isPem(content) ? withoutArmour(content, "the signature") : content);
        } catch (const UserError&) {
            return std::nullopt;
        }
    }

    std::optional<SignedParts> readToken(const Bytes& der) override
    {
        PELNIC_PKCS7_CONTENT* decoded = nullptr;
        PNV_UINT32 length = 0;
        if (pelnic_pkcs7_decode_signed(vrf_, der.data(), sizeOf(der.size()), &decoded, &length) == 0) {
            return takeApart(decoded, true);
        }
        return readTable(der);
    }

    std::optional<Json> readTstInfo(const Bytes& der) override
    {
        PELNIC_TST_INFO* decoded = nullptr;
        PNV_UINT32 length = 0;
        if (pelnic_decode_timestamp_token(vrf_, der.data(), sizeOf(der.size()), &decoded, &length) != 0) {
            return std::nullopt;
        }
        const TstInfoRecord info(decoded, {vrf_});
        return Json{{"time", questions_.timeJson(*info->time)},
                    {"serial", serialJson(*info->serial)},
                    {"policy", oidJson(*info->policy_id)},
                    {"imprint", oidJson(info->msg_imprint->hash_algo.algorithm)},
                    {"has_accuracy", info->accuracy != nullptr},
                    {"has_accuracy_seconds", info->accuracy != nullptr}, // without them it does not decode
                    {"has_tsa_name", info->issuer != nullptr}};
    }

private:
    std::vector<Object> readPem(const Bytes& pem);
    Object objectOf(const PELNIC_X509_CERT& cert, const Bytes& encoding) const
    {
        return {false, bytesOf(*cert.raw_signed), encoding, questions_.certificateJson(cert)};
    }
    Object objectOf(const PELNIC_X509_CRL& crl, const Bytes& encoding) const
    {
        return {true, bytesOf(*crl.raw_signed), encoding, questions_.crlJson(crl)};
    }
    SignedParts takeApart(PELNIC_PKCS7_CONTENT* decoded, bool isTaken) const
    {
        const SignatureRecord signature(decoded, {vrf_});
        SignedParts parts = partsOf(vrf_, *signature->signed_data);
        parts.isTaken = isTaken;
        return parts;
    }
    // Everything except its certificates, one of which would be refused.
    std::optional<SignedParts> readTable(const Bytes& der) const
    {
        PELNIC_PKCS7_CONTENT* decoded = nullptr;
        PNV_UINT32 length = 0;
        if (_pnvDecode<PELNIC_PKCS7_CONTENT_item>(vrf_, der.data(), sizeOf(der.size()), 0, &decoded, &length) != 0) {
            return std::nullopt;
        }
        return takeApart(decoded, false);
    }

    const VerifyContext ctx_;
    PELNIC_VRF* const vrf_;
    const Questions questions_;
};

std::vector<Object> DeviceReader::readPem(const Bytes& pem)
{
    LIST_TYPE_PELNIC_X509_CERT certs{};
    LIST_TYPE_PELNIC_X509_CRL crls{};
    const bool isRead =
        pelnic_list_init(vrf_, _pnvAsList(&certs), 0) == 0 && pelnic_list_init(vrf_, _pnvAsList(&crls), 0) == 0;
    if (isRead) (void)_pnvDecodeCertCrl(vrf_, pem.data(), sizeOf(pem.size()), &certs, &crls); // earlier objects count
    std::vector<Object> objects;
    for (PNV_UINT32 i = 0; i < certs.num; ++i) objects.push_back(objectOf(*certs.data[i], {}));
    for (PNV_UINT32 i = 0; i < crls.num; ++i) objects.push_back(objectOf(*crls.data[i], {}));
    pelnic_list_free(vrf_, _pnvAsList(&certs), _pnvFreeCertElement);
    pelnic_list_free(vrf_, _pnvAsList(&crls), _pnvFreeCrlElement);
    return objects;
}

} // namespace

std::unique_ptr<ObjectReader> makeDeviceReader()
{
    return std::make_unique<DeviceReader>();
}

} // namespace pkgtool
