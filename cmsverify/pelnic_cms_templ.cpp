// The CMS and timestamp tables: each reads like its ASN.1 definition in RFC 5652, section 12, and RFC 3161, 2.4.
#include "pelnic_cms_templ.h"

// clang-format off
// EncapsulatedContentInfo; its [0] is kept undecoded
using ECI = PELNIC_PKCS7_CONTENT_INFO;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_CONTENT_INFO_templ[] = {
    PNV_FIELD(ECI, type,    PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
    PNV_FIELD(ECI, content, PNV_UNTAGGED, PELNIC_ASN_OCTS_item, PNV_OPTIONAL),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_CONTENT_INFO_item =
    _pnvSequence<PELNIC_PKCS7_CONTENT_INFO_item>(PELNIC_PKCS7_CONTENT_INFO_templ);

// IssuerAndSerialNumber
using IAS = PELNIC_PKCS7_ISSUER_AND_SERIAL;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_ISSUER_AND_SERIAL_templ[] = {
    PNV_FIELD(IAS, issuer, PNV_UNTAGGED, PELNIC_X509_NAME_item),
    PNV_FIELD(IAS, sn,     PNV_UNTAGGED, PELNIC_ASN_BIGINT_item),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_ISSUER_AND_SERIAL_item =
    _pnvSequence<PELNIC_PKCS7_ISSUER_AND_SERIAL_item>(PELNIC_PKCS7_ISSUER_AND_SERIAL_templ);

// SignerInfo. raw_signed takes any next element: without signed attributes, the signature algorithm.
using SI = PELNIC_PKCS7_SIGNER_INFO;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_SIGNER_INFO_templ[] = {
    PNV_FIELD  (SI, version,                PNV_UNTAGGED,    PELNIC_ASN_INT_item),
    PNV_FIELD  (SI, issuer_sn,              PNV_UNTAGGED,    PELNIC_PKCS7_ISSUER_AND_SERIAL_item),
    PNV_FIELD  (SI, digest_algo,            PNV_UNTAGGED,    PELNIC_X509_ALGO_IDENTIFIER_item),
    PNV_PEEK_AS(SI, raw_signed,                              PELNIC_X509_ATTR_BUNDLE_item),
    PNV_FIELD  (SI, auth_attrs,             PNV_IMPLICIT(0), PELNIC_X509_ATTR_BUNDLE_item, PNV_OPTIONAL),
    PNV_FIELD  (SI, digest_encryption_algo, PNV_UNTAGGED,    PELNIC_X509_ALGO_IDENTIFIER_item),
    PNV_FIELD  (SI, encrypted_digest,       PNV_UNTAGGED,    PELNIC_ASN_OCTS_item),
    PNV_FIELD  (SI, unauth_attrs,           PNV_IMPLICIT(1), PELNIC_X509_ATTR_BUNDLE_item, PNV_OPTIONAL),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_SIGNER_INFO_item =
    _pnvSequence<PELNIC_PKCS7_SIGNER_INFO_item>(PELNIC_PKCS7_SIGNER_INFO_templ);

// SignerInfos
const PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_SIGNER_INFO_BUNDLE_templ[] = {
    PNV_ELEMENTS(PELNIC_PKCS7_SIGNER_INFO_BUNDLE, infos, PELNIC_PKCS7_SIGNER_INFO_item, 1),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item =
    _pnvSetOf<PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item>(PELNIC_PKCS7_SIGNER_INFO_BUNDLE_templ);

// SignedData
using SD = PELNIC_PKCS7_SIGNED_DATA;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_SIGNED_DATA_templ[] = {
    PNV_FIELD(SD, version,         PNV_UNTAGGED,    PELNIC_ASN_INT_item),
    PNV_FIELD(SD, digest_algo_set, PNV_UNTAGGED,    PELNIC_X509_ALGO_IDENTIFIER_BUNDLE_item),
    PNV_FIELD(SD, content,         PNV_UNTAGGED,    PELNIC_PKCS7_CONTENT_INFO_item),
    PNV_FIELD(SD, raw_certs,       PNV_IMPLICIT(0), PELNIC_X509_CERT_RAW_BUNDLE_item, PNV_OPTIONAL),
    PNV_FIELD(SD, crls,            PNV_IMPLICIT(1), PELNIC_X509_CRL_BUNDLE_item, PNV_OPTIONAL),
    PNV_FIELD(SD, signer_infos,    PNV_UNTAGGED,    PELNIC_PKCS7_SIGNER_INFO_BUNDLE_item),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_SIGNED_DATA_item =
    _pnvSequence<PELNIC_PKCS7_SIGNED_DATA_item>(PELNIC_PKCS7_SIGNED_DATA_templ);

// The content types of ContentInfo
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_SIGNED_any_templ =
    _pnvRow<PELNIC_PKCS7_SIGNED_DATA*, PELNIC_PKCS7_SIGNED_DATA_item>(PNV_UNTAGGED, 0, "signed_data");
constexpr PELNIC_ASN1_ANY_MAP PELNIC_CONTENT_INFO_S_ASN_ANY_map[] = {
    {AOID_PKCS7_SIGNEDDATA, &PELNIC_PKCS7_SIGNED_any_templ},
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_CONTENT_INFO_ANY_item = {
    PELNIC_CONTENT_INFO_S_ASN_ANY_map, &g_pnvAsnFuncAny, CBC_ANY_CLASS, CBF_ANY_FORM, CBT_ANY_CODE, 1, 0};

// ContentInfo
using CI = PELNIC_PKCS7_CONTENT;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_PKCS7_CONTENT_tmpl[] = {
    PNV_FIELD         (CI, content_type, PNV_UNTAGGED,    PELNIC_ASN_OCTS_item),
    PNV_ANY_DEFINED_BY(CI, signed_data,  PNV_EXPLICIT(0), PELNIC_PKCS7_CONTENT_INFO_ANY_item, content_type),
};
constexpr PELNIC_ASN1_ITEM PELNIC_PKCS7_CONTENT_item =
    _pnvSequence<PELNIC_PKCS7_CONTENT_item>(PELNIC_PKCS7_CONTENT_tmpl);

// MessageImprint
using IMP = PELNIC_TS_MSG_IMPRINT;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_TS_MSG_IMPRINT_templ[] = {
    PNV_FIELD(IMP, hash_algo,  PNV_UNTAGGED, PELNIC_X509_ALGO_IDENTIFIER_item),
    PNV_FIELD(IMP, hash_value, PNV_UNTAGGED, PELNIC_ASN_OCTS_item),
};
constexpr PELNIC_ASN1_ITEM PELNIC_TS_MSG_IMPRINT_item =
    _pnvSequence<PELNIC_TS_MSG_IMPRINT_item>(PELNIC_TS_MSG_IMPRINT_templ);

// Accuracy. Unlike RFC 3161, seconds are required.
using ACC = PELNIC_TS_ACCURACY;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_TS_ACCURACY_templ[] = {
    PNV_FIELD(ACC, seconds, PNV_UNTAGGED,    PELNIC_ASN_INT_item),
    PNV_FIELD(ACC, millis,  PNV_IMPLICIT(0), PELNIC_ASN_INT_item, PNV_OPTIONAL),
    PNV_FIELD(ACC, micros,  PNV_IMPLICIT(1), PELNIC_ASN_INT_item, PNV_OPTIONAL),
};
constexpr PELNIC_ASN1_ITEM PELNIC_TS_ACCURACY_item = _pnvSequence<PELNIC_TS_ACCURACY_item>(PELNIC_TS_ACCURACY_templ);

// TSTInfo. Unlike RFC 3161, [0] is a bare Name instead of a GeneralName: a token that names its authority does not
// decode.
using TST = PELNIC_TST_INFO;
constexpr PELNIC_ASN1_TEMPLATE PELNIC_TST_INFO_templ[] = {
    PNV_FIELD(TST, version,     PNV_UNTAGGED,    PELNIC_ASN_INT_item),
    PNV_FIELD(TST, policy_id,   PNV_UNTAGGED,    PELNIC_ASN_OCTS_item),
    PNV_FIELD(TST, msg_imprint, PNV_UNTAGGED,    PELNIC_TS_MSG_IMPRINT_item),
    PNV_FIELD(TST, serial,      PNV_UNTAGGED,    PELNIC_ASN_BIGINT_item),
    PNV_FIELD(TST, time,        PNV_UNTAGGED,    PELNIC_ASN_OCTS_item),
    PNV_FIELD(TST, accuracy,    PNV_UNTAGGED,    PELNIC_TS_ACCURACY_item, PNV_OPTIONAL),
    PNV_FIELD(TST, ordering,    PNV_UNTAGGED,    PELNIC_ASN_BOOL_item, PNV_DEFAULT),
    PNV_FIELD(TST, nonce,       PNV_UNTAGGED,    PELNIC_ASN_BIGINT_item, PNV_OPTIONAL),
    PNV_FIELD(TST, issuer,      PNV_IMPLICIT(0), PELNIC_X509_NAME_item, PNV_OPTIONAL),
    PNV_FIELD(TST, extensions,  PNV_IMPLICIT(1), PELNIC_X509_EXTENSION_BUNDLE_item, PNV_OPTIONAL),
};
constexpr PELNIC_ASN1_ITEM PELNIC_TST_INFO_item = _pnvSequence<PELNIC_TST_INFO_item>(PELNIC_TST_INFO_templ);
// clang-format on
