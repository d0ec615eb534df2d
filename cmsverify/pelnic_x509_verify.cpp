// Selects the hashed octets and the algorithm, and refuses bad combinations.
#include "pelnic_x509_verify.h"

#include "pelnic_x509_utils.h"

// The common part of certificates and CRLs.
struct SignedObject {
    const PELNIC_X509_ALGO_IDENTIFIER* outer;
    const PELNIC_X509_ALGO_IDENTIFIER* inner;
    const PELNIC_ASN_OCTS* raw_signed;
    const PELNIC_ASN_BITS* signature;
    PELNIC_ERROR_CODE algorithmsDiffer;
};

static PELNIC_ERROR_CODE verify(const PELNIC_VRF* pVrf, const SignedObject& object, const PELNIC_PUBKEY* pPubKey,
                                PNV_BOOL* pResult)
{
    // Compares identifiers, not encodings: parameters are ignored, and two unknown ones fail in the next step.
    const PELNIC_AOIDS algorithm = pelnic_find_aoid(pVrf, &object.outer->algorithm);
    if (algorithm != pelnic_find_aoid(pVrf, &object.inner->algorithm)) return object.algorithmsDiffer;
    const PELNIC_AOIDS hashAlgo = pelnic_get_hash_aoid_from_sign(algorithm);
    if (hashAlgo == AOID_UNKNOWN) return PELNIC_ERR_UNSUPPORTED_DIGEST;
    if (pelnic_get_crypt_aoid_from_sign(algorithm) != AOID_RSA) return PELNIC_ERR_UNSUPPORTED_ALGO;
    return pelnic_x509_pkey_verify(pVrf, object.raw_signed->octs, object.raw_signed->len, object.signature->bits,
                                   object.signature->byteLen, pPubKey, hashAlgo, pResult);
}

PELNIC_ERROR_CODE pelnic_x509_cert_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                          const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult)
{
    if (pCert == nullptr || pPubKey == nullptr) return PELNIC_ERR_NULL_POINTER;
    const SignedObject object = {pCert->algorithm, pCert->toBeSigned->signature, pCert->raw_signed, pCert->signature,
                                 PELNIC_ERR_CERT_VERIFY};
    return verify(pVrf, object, pPubKey, pResult);
}

PELNIC_ERROR_CODE _pnvVerifyWithKeyOf(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                      const PELNIC_X509_CERT* pIssuer, PNV_BOOL* pResult)
{
    PELNIC_PUBKEY* pPubKey = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_decode_pubkey(pVrf, pIssuer->toBeSigned->subjectPubKey, &pPubKey);
    if (rc != 0) return rc;
    rc = pelnic_x509_cert_verify(pVrf, pCert, pPubKey, pResult);
    pelnic_free_pubkey(pVrf, pPubKey);
    return rc;
}

PELNIC_ERROR_CODE pelnic_x509_crl_verify(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl,
                                         const PELNIC_PUBKEY* pPubKey, PNV_BOOL* pResult)
{
    if (pVrf == nullptr || pCrl == nullptr || pPubKey == nullptr) return PELNIC_ERR_NULL_POINTER;
    const SignedObject object = {pCrl->algorithm, pCrl->tbs_cert_list->signature_algo, pCrl->raw_signed,
                                 pCrl->signature, PELNIC_ERR_FAILED};
    return verify(pVrf, object, pPubKey, pResult);
}
