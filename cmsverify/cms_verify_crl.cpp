// CRL bundles: their summaries, and the newer of two.
#include "cms_verify_crl.h"

#include "cms_verify_add.h"
#include "cms_verify_context.h"
#include "cms_verify_input.h"
#include "pelnic_asn1_utils.h"
#include "pelnic_faults.h"
#include "pelnic_pki_impl.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"

constexpr PNV_UINT32 MAX_SERIAL = sizeof(PELNIC_SERIAL_NUM::sn);

// False, without a copy, for a serial number of 0 or more than 32 octets.
static bool copySerial(const PELNIC_VRF* pVrf, PELNIC_SERIAL_NUM* pSerial, const PELNIC_ASN_BIGINT* octs)
{
    if (octs == nullptr || octs->len == 0 || octs->len > MAX_SERIAL) return false;
    if (pelnic_memcpy_s(pVrf, pSerial->sn, sizeof pSerial->sn, octs->octs, octs->len) != 0) return false;
    pSerial->sn_len = octs->len;
    return true;
}

PELNIC_ERROR_CODE _pnvGetRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList,
                                    const PELNIC_X509_REVOKED* pX509Revoke)
{
    const LIST_TYPE_PELNIC_X509_REVOKED_ENTRY& entries = pX509Revoke->revoked_list;
    if (entries.num == 0) return 0;
    const PNV_UINT64 size = PNV_UINT64{entries.num} * sizeof(PELNIC_SERIAL_NUM);
    if (size > 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    const PELNIC_ERROR_CODE rc =
        _pnvNewBlock(pVrf, reinterpret_cast<void**>(&pRevokeList->sn_list), static_cast<PNV_UINT32>(size));
    if (rc != 0) return rc;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        PELNIC_SERIAL_NUM* const slot = pRevokeList->sn_list + pRevokeList->revoke_count;
        if (copySerial(pVrf, slot, entries.data[i]->user_cert)) ++pRevokeList->revoke_count;
    }
    return 0;
}

void _pnvDestoryRevokeList(const PELNIC_VRF* pVrf, PELNIC_REVOKE_LIST* pRevokeList)
{
    if (pRevokeList == nullptr) return;
    pelnic_free(pVrf, pRevokeList->sn_list);
    *pRevokeList = PELNIC_REVOKE_LIST{};
}

static void describeIssuerName(const PELNIC_VRF* pVrf, const PELNIC_X509_NAME* name, PELNIC_CRL_INFO* pInfo)
{
    PNV_CHAR* readable = nullptr;
    PNV_UINT32 length = 0;
    if (pelnic_convert_from_x509_name(pVrf, name, &readable, &length) != 0) return;
    if (pelnic_strcpy_s(pVrf, pInfo->issuer, sizeof pInfo->issuer, readable) != 0) pInfo->issuer[0] = '\0';
    pelnic_free(pVrf, readable);
}

// Adds the issuer's certificate to a summary. It is judged at the CRL's thisUpdate.
static void describeIssuer(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* issuer, const PELNIC_X509_REVOKED* revoked,
                           PELNIC_CRL_INFO* pInfo)
{
    pVrf->base_time = pInfo->update_time; // and stays so
    PNV_BOOL verified = 0;
    if (pelnic_pki_verify_cert(pVrf, issuer, 1, &verified) == 0 && verified != 0) pInfo->valid = 1;
    PNV_BOOL isSelfSigned = 0;
    if (pelnic_x509_is_self_signed(pVrf, issuer, &isSelfSigned) == 0 && isSelfSigned != 0 && revoked != nullptr) {
        (void)_pnvGetRevokeList(pVrf, &pInfo->revoke_list, revoked); // without memory the list stays empty
    }
    (void)copySerial(pVrf, &pInfo->issuer_sn, issuer->toBeSigned->serialNumber); // a longer one stays unknown
}

PELNIC_ERROR_CODE _pnvGetCrlInfo(PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl, PELNIC_CRL_INFO** ppCrlInfo)
{
    PELNIC_CRL_INFO* pInfo = nullptr;
    const PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    const PELNIC_X509_CRLINFO* const tbs = pCrl->tbs_cert_list;
    pInfo->st_size = sizeof(PELNIC_CRL_INFO);
    describeIssuerName(pVrf, tbs->issuer, pInfo);
    (void)pelnic_convert_datetime_to_time(pVrf, tbs->this_update, &pInfo->update_time); // 0 when it fails
    (void)pelnic_convert_datetime_to_time(pVrf, tbs->next_update, &pInfo->valid_until);
    const PELNIC_X509_CERT* const issuer = pelnic_pki_find_crl_issuer(pVrf, pCrl);
    if (issuer != nullptr) describeIssuer(pVrf, issuer, tbs->revoked_certs, pInfo);
    *ppCrlInfo = pInfo;
    return 0;
}

// Decodes a bundle and adds its objects to the context. *isOneMissing if a failing callback silently dropped one.
static PELNIC_ERROR_CODE takeInBundle(PELNIC_VRF* pVrf, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength,
                                      DecodedInput* input, bool* isOneMissing)
{
    const FaultWatch watch{pVrf};
    const PELNIC_ERROR_CODE rc = _pnvDecodeCertCrl(pVrf, pbCrl, nCrlLength, &input->certs, &input->crls);
    if (rc != 0 || input->crls.num == 0) return PELNIC_ERR_CRL_DECODE;
    if (input->crls.num > PELNIC_CRL_BUNDLE_MAX) return PELNIC_ERR_CRL_TOO_MANY;
    (void)_pnvAddCrlToStore(pVrf, &input->crls); // always 0
    if (_pnvAddCertToStore(pVrf, &input->certs) != 0) return PELNIC_ERR_CRL_DECODE;
    *isOneMissing = watch.failed();
    copyCrlsIntoPki(pVrf); // the list is kept and nothing is frozen: begin retries what fails here
    return 0;
}

static PELNIC_ERROR_CODE summarise(PELNIC_VRF* pVrf, const LIST_TYPE_PELNIC_X509_CRL& crls,
                                   PELNIC_CRL_BUNDLE_INFO** ppResult)
{
    PELNIC_CRL_BUNDLE_INFO* pBundle = nullptr;
    if (_pnvNewRecord(pVrf, &pBundle) != 0) return PELNIC_ERR_CRL_DECODE;
    pBundle->st_size = sizeof(PELNIC_CRL_BUNDLE_INFO);
    for (PNV_UINT32 i = 0; i < crls.num; ++i) {
        PELNIC_CRL_INFO** const slot = pBundle->crl_info_list + pBundle->crl_count;
        if (_pnvGetCrlInfo(pVrf, crls.data[i], slot) == 0) ++pBundle->crl_count; // without memory it is left out
    }
    // The dropped CRL may be the one that makes the other bundle newer, so such a summary must not compare with any.
    const bool complete = _pnvMayAccept(pVrf);
    for (PNV_INT i = 0; !complete && i < pBundle->crl_count; ++i) pBundle->crl_info_list[i]->valid = 0;
    *ppResult = pBundle;
    return 0;
}

PELNIC_ERROR_CODE pelnic_decode_crl(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength,
                                    PELNIC_CRL_BUNDLE_INFO** ppResult)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbCrl == nullptr || nCrlLength == 0 || ppResult == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    const OperationRun run{pVrf};
    DecodedInput input = {};
    ScopeExit freeLists{[&] { freeInput(pVrf, &input); }};
    bool isOneMissing = false;
    rc = initInput(pVrf, &input);
    if (rc == 0) rc = takeInBundle(pVrf, pbCrl, nCrlLength, &input, &isOneMissing);
    if (rc == 0) rc = summarise(pVrf, input.crls, ppResult);
    if (rc == 0 && isOneMissing) pVrf->bInputLost = 1;
    _pnvReportFaults(pVrf, __func__); // also for a summary in which nothing is valid for this reason
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_decode_crl_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* crlFile, PELNIC_CRL_BUNDLE_INFO** pResult)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (crlFile == nullptr || pResult == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    rc = _pnvReadFile(pVrf, crlFile, &data, &size);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = pelnic_decode_crl(ctx, data, size, pResult); // logs by itself
    pelnic_free(pVrf, data);
    return rc;
}

// Summaries may come from the caller: every field is read within its bounds.
static bool isSameIssuer(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* a, const PELNIC_CRL_INFO* b)
{
    return pelnic_strncmp(pVrf, a->issuer, b->issuer, sizeof a->issuer) == 0;
}

static bool isSameSerial(const PELNIC_VRF* pVrf, const PELNIC_SERIAL_NUM& a, const PELNIC_SERIAL_NUM& b)
{
    if (a.sn_len != b.sn_len) return false;
    return pelnic_memcmp(pVrf, a.sn, b.sn, a.sn_len <= MAX_SERIAL ? a.sn_len : MAX_SERIAL) == 0;
}

PNV_INT _pnvCompareCrlInfo(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* psi1, const PELNIC_CRL_INFO* psi2,
                           PELNIC_CRL_PERIOD_STAT* state)
{
    if (!isSameIssuer(pVrf, psi1, psi2)) return -1;
    if (psi1->update_time == psi2->update_time) return 0;
    const PELNIC_CRL_PERIOD_STAT verdict = psi1->update_time > psi2->update_time ? SCPS_NEW : SCPS_OLD;
    if (*state == SCPS_SAME) {
        *state = verdict;
    } else if (*state != verdict) {
        *state = SCPS_MIX;
    }
    return 0;
}

static bool isComparable(const PELNIC_CRL_BUNDLE_INFO* bundle)
{
    if (bundle->crl_count > PELNIC_CRL_BUNDLE_MAX) return false;
    for (PNV_INT i = 0; i < bundle->crl_count; ++i) {
        if (bundle->crl_info_list[i] == nullptr || bundle->crl_info_list[i]->valid != 1) return false;
    }
    return true;
}

PELNIC_ERROR_CODE _pnvCompareIntercrossCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* s1,
                                           const PELNIC_CRL_BUNDLE_INFO* s2, PELNIC_CRL_PERIOD_STAT* curState)
{
    if (!isComparable(s1) || !isComparable(s2)) {
        *curState = SCPS_MIX;
        return PELNIC_ERR_CRL_INVALID_ENTRY;
    }
    for (PNV_INT i = 0; i < s1->crl_count && *curState != SCPS_MIX; ++i) {
        for (PNV_INT j = 0; j < s2->crl_count; ++j) {
            if (_pnvCompareCrlInfo(pVrf, s1->crl_info_list[i], s2->crl_info_list[j], curState) == 0) break;
        }
    }
    return 0;
}

PNV_INT _pnvFindDuplicateCrlIssuer(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* bundle)
{
    for (PNV_INT i = 0; i < bundle->crl_count; ++i) {
        for (PNV_INT j = i + 1; j < bundle->crl_count; ++j) {
            if (isSameIssuer(pVrf, bundle->crl_info_list[i], bundle->crl_info_list[j])) return 1;
        }
    }
    return 0;
}

PNV_INT _pnvIsCrlIssuerRevoked(const PELNIC_VRF* pVrf, const PELNIC_CRL_INFO* pciRoot,
                               const PELNIC_CRL_INFO* pciMissing)
{
    if (pciRoot->revoke_list.sn_list == nullptr) return 0;
    for (PNV_UINT32 i = 0; i < pciRoot->revoke_list.revoke_count; ++i) {
        if (isSameSerial(pVrf, pciRoot->revoke_list.sn_list[i], pciMissing->issuer_sn)) return 1;
    }
    return 0;
}

// Whether the newer bundle still has the old entry's issuer, or a reason not to. Only the first revoke list found on
// the way counts as the root's.
static bool isCovered(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* newCrlBi, const PELNIC_CRL_INFO* pciOld)
{
    const PELNIC_CRL_INFO* pciRoot = nullptr;
    for (PNV_INT i = 0; i < newCrlBi->crl_count; ++i) {
        const PELNIC_CRL_INFO* const pciNew = newCrlBi->crl_info_list[i];
        if (pciNew == nullptr) return false;
        if (pciRoot == nullptr && pciNew->revoke_list.revoke_count != 0) pciRoot = pciNew;
        if (isSameIssuer(pVrf, pciNew, pciOld)) return true;
    }
    return pciRoot != nullptr && _pnvIsCrlIssuerRevoked(pVrf, pciRoot, pciOld) == 1;
}

PNV_INT _pnvCheckNewCrl(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* newCrlBi,
                        const PELNIC_CRL_BUNDLE_INFO* oldCrlBi)
{
    for (PNV_INT i = 0; i < oldCrlBi->crl_count; ++i) {
        const PELNIC_CRL_INFO* const pciOld = oldCrlBi->crl_info_list[i];
        if (pciOld == nullptr || !isCovered(pVrf, newCrlBi, pciOld)) return -1;
    }
    return 0;
}

static PELNIC_CRL_PERIOD_STAT stateByCount(PNV_INT offered, PNV_INT onDevice)
{
    if (offered == onDevice) return SCPS_SAME;
    return offered > onDevice ? SCPS_NEW : SCPS_OLD;
}

static PELNIC_ERROR_CODE compareBundles(const PELNIC_VRF* pVrf, const PELNIC_CRL_BUNDLE_INFO* crlToUpdate,
                                        const PELNIC_CRL_BUNDLE_INFO* crlOnDevice, PELNIC_CRL_PERIOD_STAT* state)
{
    const PELNIC_ERROR_CODE rc = _pnvCompareIntercrossCrl(pVrf, crlToUpdate, crlOnDevice, state);
    if (rc != 0) return rc;
    if (_pnvFindDuplicateCrlIssuer(pVrf, crlToUpdate) != 0 || _pnvFindDuplicateCrlIssuer(pVrf, crlOnDevice) != 0) {
        return PELNIC_ERR_CRL_DUPLICATE_ISSUER;
    }
    if (*state == SCPS_SAME) *state = stateByCount(crlToUpdate->crl_count, crlOnDevice->crl_count);
    const bool offeredIsNewer = *state == SCPS_NEW;
    const PNV_INT dropped = offeredIsNewer ? _pnvCheckNewCrl(pVrf, crlToUpdate, crlOnDevice)
                                           : _pnvCheckNewCrl(pVrf, crlOnDevice, crlToUpdate);
    return dropped == 0 ? 0 : PELNIC_ERR_CRL_ISSUER_DROPPED;
}

PELNIC_ERROR_CODE pelnic_crl_compare(PELNIC_VRF_CTX ctx, const PELNIC_CRL_BUNDLE_INFO* crlToUpdate,
                                     const PELNIC_CRL_BUNDLE_INFO* crlOnDevice, PELNIC_CRL_PERIOD_STAT* stat)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    const PELNIC_VRF* const pVrf = static_cast<const PELNIC_VRF*>(ctx);
    if (crlToUpdate == nullptr || crlOnDevice == nullptr || stat == nullptr)
        return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    if (crlToUpdate->crl_count <= 0 || crlOnDevice->crl_count <= 0) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CRL_EMPTY_BUNDLE);
    }
    PELNIC_CRL_PERIOD_STAT state = SCPS_SAME;
    rc = compareBundles(pVrf, crlToUpdate, crlOnDevice, &state);
    *stat = rc == 0 ? state : SCPS_MIX;
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE pelnic_crl_free(PELNIC_VRF_CTX ctx, PELNIC_CRL_BUNDLE_INFO* pCrlBundle)
{
    const PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    if (pCrlBundle == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_VRF* const pVrf = static_cast<const PELNIC_VRF*>(ctx);
    for (PNV_INT i = 0; i < pCrlBundle->crl_count && i < PELNIC_CRL_BUNDLE_MAX; ++i) {
        PELNIC_CRL_INFO* const pInfo = pCrlBundle->crl_info_list[i];
        if (pInfo != nullptr) _pnvDestoryRevokeList(pVrf, &pInfo->revoke_list);
        pelnic_free(pVrf, pInfo);
    }
    pelnic_free(pVrf, pCrlBundle);
    return 0;
}
