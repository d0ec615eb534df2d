// Decoded certificates, CRLs and their parts: owners that release them, and their way back to DER, so that a test
// compares whole encodings instead of one field after the other.
#ifndef PNVTEST_X509_H
#define PNVTEST_X509_H

#include "callbacks.h"
#include "cmsverify/pelnic_asn1_decode.h"
#include "cmsverify/pelnic_x509_parse.h"

#include <memory>

namespace pnvtest {

// ---- Decoding what the test knows to be valid: a refusal is an exception, which fails the test ----

[[noreturn]] void ThrowRefused(PELNIC_ERROR_CODE rc);

template <const PELNIC_ASN1_ITEM& item> struct ReleaseItem {
    using Record = typename RecordOf<item>::type;
    const PELNIC_VRF* vrf;
    void operator()(Record* record) const { pelnic_asn_free(vrf, record, &item, 0); }
};
template <const PELNIC_ASN1_ITEM& item>
using OwnedItem = std::unique_ptr<typename RecordOf<item>::type, ReleaseItem<item>>;

template <const PELNIC_ASN1_ITEM& item> OwnedItem<item> DecodeItem(const PELNIC_VRF* vrf, const Bytes& der)
{
    typename RecordOf<item>::type* record = nullptr;
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = _pnvDecode<item>(vrf, der.data(), Len(der), 0, &record, &octets);
    if (rc != 0) ThrowRefused(rc);
    return OwnedItem<item>(record, {vrf});
}

struct Release {
    const PELNIC_VRF* vrf;
    void operator()(PELNIC_X509_CERT* cert) const { pelnic_x509_free_cert(vrf, cert); }
    void operator()(PELNIC_X509_CRL* crl) const { pelnic_x509_free_crl(vrf, crl); }
    void operator()(PELNIC_PUBKEY* key) const { pelnic_free_pubkey(vrf, key); }
};
using OwnedCert = std::unique_ptr<PELNIC_X509_CERT, Release>;
using OwnedCrl = std::unique_ptr<PELNIC_X509_CRL, Release>;
using OwnedKey = std::unique_ptr<PELNIC_PUBKEY, Release>;

OwnedCert DecodeCert(const PELNIC_VRF* vrf, const Bytes& der);
OwnedCrl DecodeCrl(const PELNIC_VRF* vrf, const Bytes& der);
OwnedKey DecodeKey(const PELNIC_VRF* vrf, const Bytes& spki);

// ---- Back to DER ----

Bytes Content(const PELNIC_ASN_OCTS& value);
Bytes Content(const PELNIC_ASN_BITS& value); // without the octet that counts the unused bits

Bytes Encoding(const PELNIC_ASN_OCTS& value);
Bytes Encoding(const PELNIC_ASN_BITS& value);
// With the zero octet that keeps a magnitude positive (X.690, 8.3.2), which decoding drops.
Bytes IntegerEncoding(const PELNIC_ASN_BIGINT& value);
Bytes Encoding(const PELNIC_X509_ATTR_ENTRY& attribute);
Bytes Encoding(const PELNIC_X509_ATTR_BUNDLE& rdn);
Bytes Encoding(const PELNIC_X509_NAME& name);
Bytes Encoding(const PELNIC_X509_ALGO_IDENTIFIER& algorithm);
Bytes Encoding(const PELNIC_X509_EXTENSION_ENTRY& extension);
Bytes Encoding(const PELNIC_X509_EXTENSION_BUNDLE& bundle);
Bytes Encoding(const PELNIC_X509_REVOKED_ENTRY& entry);
Bytes Encoding(const PELNIC_X509_REVOKED& revoked);
Bytes Encoding(const PELNIC_ASN_VALIDITY& validity);
Bytes Encoding(const PELNIC_X509_PUBKEY_INFO& info);
Bytes Encoding(const PELNIC_X509_CERTINFO& info);
Bytes Encoding(const PELNIC_X509_CRLINFO& info);
Bytes Encoding(const PELNIC_X509_CERT& cert); // built from the fields; raw_signed is not looked at
Bytes Encoding(const PELNIC_X509_CRL& crl);

// ---- Verdicts ----

// Runs check(code, verdict) with the verification callback giving each answer that could be mistaken for a good one.
// Good is code 0 with verdict 1 and nothing else.
template <typename Check> void ForEveryVerdict(CallbackPlan& plan, Check check)
{
    for (PELNIC_ERROR_CODE code : {0u, PELNIC_ERR_FAILED, 1u}) {
        for (PNV_INT verdict : {-1, 0, 1, 2, 256}) {
            plan.StubVerification(code, verdict);
            check(code, verdict);
        }
    }
}

} // namespace pnvtest

#endif
