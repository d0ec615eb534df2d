// The scope of a CRL from its extensions.
#include "crl_scope.h"

#include "cmsverify/pelnic_x509_crl.h"
#include "cmsverify/pelnic_x509_utils.h"

// Whether a CRL is marked as a delta CRL. The library has no name for that extension (RFC 5280, 5.2.4).
static bool isDelta(const PELNIC_X509_CRL* pCrl)
{
    const PELNIC_X509_EXTENSION_BUNDLE* const pBundle = pCrl->tbs_cert_list->extensions;
    for (PNV_UINT32 i = 0; pBundle != nullptr && i < pBundle->extensions.num; ++i) {
        const PELNIC_ASN_OID& id = pBundle->extensions.data[i]->extnId;
        if (id.len == 3 && id.octs[0] == 0x55 && id.octs[1] == 0x1D && id.octs[2] == 0x1B) return true; // 2.5.29.27
    }
    return false;
}

static PNV_UINT32 scopeOfPoint(const PELNIC_X509_ISSUING_DIST_POINT& point)
{
    PNV_UINT32 scope = 0;
    if (point.onlyuser != 0) scope |= PKGCHECK_CRL_USERS_ONLY;
    if (point.onlyCA != 0) scope |= PKGCHECK_CRL_CAS_ONLY;
    if (point.onlyattr != 0) scope |= PKGCHECK_CRL_ATTRIBUTES_ONLY;
    if (point.onlysomereasons != nullptr) scope |= PKGCHECK_CRL_SOME_REASONS;
    if (point.distpoint != nullptr) scope |= PKGCHECK_CRL_ONE_POINT;
    if (point.indirectCRL != 0) scope |= PKGCHECK_CRL_INDIRECT;
    return scope;
}

PNV_UINT32 pkgcheck_crl_scope(const PELNIC_VRF* pVrf, const PELNIC_X509_CRL* pCrl)
{
    const PNV_UINT32 scope = isDelta(pCrl) ? PKGCHECK_CRL_DELTA : 0;
    const PELNIC_X509_EXTENSION_ENTRY* const pEntry =
        pelnic_x509_crl_get_extn_by_aoid(pVrf, pCrl, AOID_CE_ISSUINGDISTRIBUTIONPOINT);
    if (pEntry == nullptr) return scope;
    void* pPoint = nullptr;
    if (pelnic_decode_x509_extension(pVrf, pEntry, &pPoint) != 0) return scope | PKGCHECK_CRL_UNREADABLE;
    const PNV_UINT32 ofPoint = scopeOfPoint(*static_cast<const PELNIC_X509_ISSUING_DIST_POINT*>(pPoint));
    pelnic_free_x509_extension(pVrf, AOID_CE_ISSUINGDISTRIBUTIONPOINT, pPoint);
    return scope | ofPoint;
}
