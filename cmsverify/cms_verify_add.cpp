// Adds the caller's certificates and CRLs to the stores, and the certificates of a signature or a token.
#include "cms_verify_add.h"

#include "cms_verify_context.h"
#include "cms_verify_input.h"
#include "pelnic_faults.h"
#include "pelnic_pki_impl.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_witness.h"
#include "pelnic_x509_cert.h"

// Called where an operation continues towards success: whatever a failing callback has cost it so far is lost for good.
static void spoilIfFailed(PELNIC_VRF* pVrf, const FaultWatch& watch)
{
    if (watch.failed()) pVrf->bInputLost = 1;
}

static PELNIC_ERROR_CODE addByKind(const PELNIC_VRF* pVrf, PELNIC_X509_CERT* cert, PNV_BOOL isCa)
{
    return isCa != 0 ? pelnic_pki_store_add_trust_cert(pVrf, cert) : pelnic_pki_store_add_local_cert(pVrf, cert);
}

static PELNIC_ERROR_CODE addRoot(PELNIC_VRF* pVrf, PELNIC_X509_CERT* cert)
{
    const FaultWatch watch{pVrf};
    PNV_BOOL isCa = 0;
    PELNIC_ERROR_CODE rc = pelnic_pki_is_ca_cert(pVrf, cert, &isCa);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to get ca attribute for certificate.");
    const bool isKindCertain = !watch.failed();
    rc = addByKind(pVrf, cert, isCa);
    if (rc == 0 && !isKindCertain) pVrf->bInputLost = 1; // a CA may have looked like none
    if (rc == PELNIC_ERR_CERT_DUPLICATE) {
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_WARNING, rc, "Duplicate certificate add.");
        return 0;
    }
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Add certificate failed.");
    return 0;
}

PELNIC_ERROR_CODE _pnvAddRootToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList)
{
    if (certList->num == 0) return PELNIC_ERR_CERT_INVALID;
    for (PNV_UINT32 i = 0; i < certList->num; ++i) {
        const PELNIC_ERROR_CODE rc = addRoot(pVrf, certList->data[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

static PELNIC_ERROR_CODE addCertWithCrls(PELNIC_VRF* pVrf, PELNIC_X509_CERT* cert)
{
    const FaultWatch watch{pVrf};
    PNV_BOOL isSelfSigned = 0;
    PELNIC_ERROR_CODE rc = pelnic_x509_is_self_signed(pVrf, cert, &isSelfSigned);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to check self sign for certificate.");
    PNV_BOOL isCa = 0;
    rc = pelnic_pki_is_ca_cert(pVrf, cert, &isCa);
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to get ca attribute for certificate.");
    if (isSelfSigned != 0) {
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_WARNING, 0,
                "There is a root certificate, which is not allowed when add crl or cms.");
        return 0;
    }
    const bool isKindCertain = !watch.failed();
    cert->bFromPackage = 1;
    rc = addByKind(pVrf, cert, isCa);
    if (rc == 0 && !isKindCertain) pVrf->bInputLost = 1; // a CA may have looked like none
    if (rc == PELNIC_ERR_CERT_DUPLICATE) return 0;
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to add certificate into PKI context.");
    return 0;
}

PELNIC_ERROR_CODE _pnvAddCertToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList)
{
    for (PNV_UINT32 i = 0; i < certList->num; ++i) {
        const PELNIC_ERROR_CODE rc = addCertWithCrls(pVrf, certList->data[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

PELNIC_ERROR_CODE _pnvAddCrlToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CRL* crlList)
{
    bool isOneMissing = false;
    for (PNV_UINT32 i = 0; i < crlList->num; ++i) {
        if (pelnic_list_add(pVrf, _pnvAsList(&pVrf->crl_list), crlList->data[i], CLSP_END) == 0) {
            ++crlList->data[i]->iRef;
            if (isOneMissing) pVrf->bInputLost = 1; // their order matters, and cannot be repaired any more
        } else {
            isOneMissing = true;
        }
    }
    return 0;
}

PELNIC_ERROR_CODE initInput(PELNIC_VRF* pVrf, DecodedInput* input)
{
    const PELNIC_ERROR_CODE rc = pelnic_list_init(pVrf, _pnvAsList(&input->crls), 0);
    return rc != 0 ? rc : pelnic_list_init(pVrf, _pnvAsList(&input->certs), 0);
}

void freeInput(PELNIC_VRF* pVrf, DecodedInput* input)
{
    pelnic_list_free(pVrf, _pnvAsList(&input->crls), _pnvFreeCrlElement);
    pelnic_list_free(pVrf, _pnvAsList(&input->certs), _pnvFreeCertElement);
}

static PELNIC_ERROR_CODE addCerts(PELNIC_VRF* pVrf, const PNV_BYTE* pbCert, PNV_UINT32 nCertLength)
{
    const FaultWatch watch{pVrf};
    LIST_TYPE_PELNIC_X509_CERT certs = {};
    ScopeExit freeCerts{[&] { pelnic_list_free(pVrf, _pnvAsList(&certs), _pnvFreeCertElement); }};
    PELNIC_ERROR_CODE rc = pelnic_list_init(pVrf, _pnvAsList(&certs), 0);
    if (rc == 0) rc = _pnvDecodeCertCrl(pVrf, pbCert, nCertLength, &certs, nullptr);
    if (rc != 0) return rc;
    const bool isOneUnread = watch.failed();
    rc = _pnvAddRootToStore(pVrf, &certs);
    if (isOneUnread && rc == 0) pVrf->bInputLost = 1;
    return rc;
}

PELNIC_ERROR_CODE pelnic_verify_add_cert(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCert, PNV_UINT32 nCertLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbCert == nullptr || nCertLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = addCerts(pVrf, pbCert, nCertLength);
    PNV_TELL(Decision::Roots, rc);
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_verify_add_cert_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCertFile)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pszCertFile == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = withFile(pVrf, pszCertFile, pelnic_verify_add_cert);
    return PNV_DONE(pVrf, rc);
}

static PELNIC_ERROR_CODE addCrls(PELNIC_VRF* pVrf, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength)
{
    if (pVrf->crl_frozen != 0) return PELNIC_ERR_CRL_FROZEN;
    const FaultWatch watch{pVrf};
    DecodedInput input = {};
    ScopeExit freeLists{[&] { freeInput(pVrf, &input); }};
    PELNIC_ERROR_CODE rc = initInput(pVrf, &input);
    if (rc != 0) return rc;
    rc = _pnvDecodeCertCrl(pVrf, pbCrl, nCrlLength, &input.certs, &input.crls);
    if (rc != 0 || input.crls.num == 0) return PELNIC_ERR_CRL_DECODE;
    rc = _pnvAddCrlToStore(pVrf, &input.crls);
    if (_pnvAddCertToStore(pVrf, &input.certs) != 0) {
        // Returns the code of the CRLs: the certificates are optional.
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_WARNING, rc, "Failed to add certificate into store.");
    }
    spoilIfFailed(pVrf, watch);
    return rc;
}

PELNIC_ERROR_CODE pelnic_verify_add_crl(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbCrl == nullptr || nCrlLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = addCrls(pVrf, pbCrl, nCrlLength);
    PNV_TELL(Decision::Crls, rc);
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_verify_add_crl_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCrlFile)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pszCrlFile == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = withFile(pVrf, pszCrlFile, pelnic_verify_add_crl);
    return PNV_DONE(pVrf, rc);
}

void copyCrlsIntoPki(PELNIC_VRF* pVrf)
{
    const FaultWatch watch{pVrf};
    for (PNV_UINT32 i = 0; i < pVrf->crl_list.num && !watch.failed(); ++i) {
        if (pVrf->crl_list.data[i] != nullptr) (void)pelnic_pki_store_add_crl(pVrf, pVrf->crl_list.data[i]);
    }
}

void _pnvSyncCrl(PELNIC_VRF* pVrf)
{
    const FaultWatch watch{pVrf};
    copyCrlsIntoPki(pVrf);
    spoilIfFailed(pVrf, watch); // the list is emptied now, even if a CRL is not in the store
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->crl_list), _pnvFreeCrlElement);
    pVrf->crl_frozen = 1;
}

static void addCertOfSignature(PELNIC_VRF* pVrf, PELNIC_X509_CERT* cert)
{
    const FaultWatch watch{pVrf};
    PNV_BOOL isSelfSigned = 0;
    if (pelnic_x509_is_self_signed(pVrf, cert, &isSelfSigned) != 0) return;
    if (isSelfSigned != 0) {
        PNV_LOG(pVrf, PELNIC_LOG_TYPE_WARNING, PELNIC_ERR_CERT_ROOT_IN_CMS,
                "found a root certificate in the signer info, which is not allowed.");
        return;
    }
    PNV_BOOL isCa = 0;
    (void)pelnic_pki_is_ca_cert(pVrf, cert, &isCa); // if this cannot be told, treat it as no CA
    if (watch.failed()) return;                     // it would stay in the wrong store
    cert->bFromPackage = 1;
    // If it could not be added, the signature is later refused because it is missing.
    [[maybe_unused]] const PELNIC_ERROR_CODE rc = addByKind(pVrf, cert, isCa);
    PNV_TELL(Decision::CertTaken, rc, cert);
}

PELNIC_ERROR_CODE _pnvExtractCertsIntoVerifyContext(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed)
{
    const PELNIC_X509_CERT_BUNDLE* const pBundle = p7signed->signed_data->certificates;
    if (pBundle == nullptr) return 0;
    // After a failing callback this run accepts nothing. A certificate that it leaves out must not end up behind its
    // successors when the next run adds the same certificates: the first of two CAs decides.
    const LIST_TYPE_PELNIC_X509_CERT& certs = pBundle->certs;
    for (PNV_UINT32 i = 0; i < certs.num && !_pnvIsDisturbed(pVrf); ++i) addCertOfSignature(pVrf, certs.data[i]);
    return 0;
}
