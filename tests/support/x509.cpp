#include "x509.h"

#include <cstdio>
#include <stdexcept>

namespace pnvtest {

namespace {

std::uint8_t Identifier(const PELNIC_BER_TAG& tag)
{
    return static_cast<std::uint8_t>(tag.cls << 6 | tag.form << 5 | tag.code);
}

template <typename Value> Bytes Optional(const Value* value)
{
    return value == nullptr ? Bytes{} : Encoding(*value);
}

template <typename List> Bytes Elements(const List& list)
{
    std::vector<Bytes> elements;
    for (PNV_UINT32 i = 0; i < list.num; ++i) elements.push_back(Encoding(*list.data[i]));
    return Cat(elements);
}

} // namespace

void ThrowRefused(PELNIC_ERROR_CODE rc)
{
    char message[64];
    std::snprintf(message, sizeof(message), "a valid encoding was refused with 0x%08X", static_cast<unsigned>(rc));
    throw std::runtime_error(message);
}

OwnedCert DecodeCert(const PELNIC_VRF* vrf, const Bytes& der)
{
    PELNIC_X509_CERT* cert = nullptr;
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = pelnic_x509_decode_cert(vrf, der.data(), Len(der), &cert, &octets);
    if (rc != 0) ThrowRefused(rc);
    return OwnedCert(cert, {vrf});
}

OwnedCrl DecodeCrl(const PELNIC_VRF* vrf, const Bytes& der)
{
    PELNIC_X509_CRL* crl = nullptr;
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = pelnic_x509_decode_crl(vrf, der.data(), Len(der), &crl, &octets);
    if (rc != 0) ThrowRefused(rc);
    return OwnedCrl(crl, {vrf});
}

OwnedKey DecodeKey(const PELNIC_VRF* vrf, const Bytes& spki)
{
    const auto info = DecodeItem<PELNIC_X509_PUBKEY_INFO_item>(vrf, spki);
    PELNIC_PUBKEY* key = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_decode_pubkey(vrf, info.get(), &key);
    if (rc != 0) ThrowRefused(rc);
    return OwnedKey(key, {vrf});
}

Bytes Content(const PELNIC_ASN_OCTS& value)
{
    return Bytes(value.octs, value.octs + value.len);
}

Bytes Content(const PELNIC_ASN_BITS& value)
{
    return Bytes(value.bits, value.bits + value.byteLen);
}

Bytes Encoding(const PELNIC_ASN_OCTS& value)
{
    return Tlv(Identifier(value.tag), Content(value));
}

Bytes Encoding(const PELNIC_ASN_BITS& value)
{
    const auto unused = static_cast<std::uint8_t>(8 * value.byteLen - value.bitLen);
    return Tlv(Identifier(value.tag), Cat(Bytes{unused}, Content(value)));
}

Bytes IntegerEncoding(const PELNIC_ASN_BIGINT& value)
{
    Bytes content = Content(value);
    if (!content.empty() && content.front() >= 0x80) content.insert(content.begin(), 0x00);
    return Tlv(Identifier(value.tag), content);
}

Bytes Encoding(const PELNIC_X509_ATTR_ENTRY& attribute)
{
    return Seq(Encoding(attribute.id), Encoding(attribute.value));
}

Bytes Encoding(const PELNIC_X509_ATTR_BUNDLE& rdn)
{
    return Set(Elements(rdn.attrs));
}

Bytes Encoding(const PELNIC_X509_NAME& name)
{
    return Seq(Elements(name.names));
}

Bytes Encoding(const PELNIC_X509_ALGO_IDENTIFIER& algorithm)
{
    return Seq(Encoding(algorithm.algorithm), Optional(algorithm.parameters));
}

Bytes Encoding(const PELNIC_X509_EXTENSION_ENTRY& extension)
{
    return Seq(Encoding(extension.extnId), extension.critical != 0 ? Bool(true) : Bytes{},
               Encoding(extension.extnValue));
}

Bytes Encoding(const PELNIC_X509_EXTENSION_BUNDLE& bundle)
{
    return Seq(Elements(bundle.extensions));
}

Bytes Encoding(const PELNIC_X509_REVOKED_ENTRY& entry)
{
    return Seq(IntegerEncoding(*entry.user_cert), Encoding(*entry.revocation_date),
               Optional(entry.crl_entry_extensions));
}

Bytes Encoding(const PELNIC_X509_REVOKED& revoked)
{
    return Seq(Elements(revoked.revoked_list));
}

Bytes Encoding(const PELNIC_ASN_VALIDITY& validity)
{
    return Seq(Encoding(validity.notBefore), Encoding(validity.notAfter));
}

Bytes Encoding(const PELNIC_X509_PUBKEY_INFO& info)
{
    return Seq(Encoding(info.algorithm), Encoding(info.subjectPublicKey));
}

Bytes Encoding(const PELNIC_X509_CERTINFO& info)
{
    return Seq(info.version == 0 ? Bytes{} : Ctx(0, Int(info.version)), IntegerEncoding(*info.serialNumber),
               Encoding(*info.signature), Encoding(*info.issuer), Encoding(*info.validity), Encoding(*info.subject),
               Encoding(*info.subjectPubKey), Optional(info.issuerUID), Optional(info.subjectUID),
               OptionalCtx(3, Optional(info.extensions)));
}

Bytes Encoding(const PELNIC_X509_CRLINFO& info)
{
    return Seq(info.version == nullptr ? Bytes{} : Int(*info.version), Encoding(*info.signature_algo),
               Encoding(*info.issuer), Encoding(*info.this_update), Encoding(*info.next_update),
               Optional(info.revoked_certs), OptionalCtx(0, Optional(info.extensions)));
}

Bytes Encoding(const PELNIC_X509_CERT& cert)
{
    return Seq(Encoding(*cert.toBeSigned), Encoding(*cert.algorithm), Encoding(*cert.signature));
}

Bytes Encoding(const PELNIC_X509_CRL& crl)
{
    return Seq(Encoding(*crl.tbs_cert_list), Encoding(*crl.algorithm), Encoding(*crl.signature));
}

} // namespace pnvtest
