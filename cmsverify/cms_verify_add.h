// Adding to the stores. Unless a comment says otherwise, failures are logged with their code at error level and the
// code is returned.
#ifndef CMS_VERIFY_ADD_H
#define CMS_VERIFY_ADD_H

#include "pelnic_cms_templ.h"

// The certificates and CRLs of one input, each with one reference, for the duration of one operation.
struct DecodedInput {
    LIST_TYPE_PELNIC_X509_CERT certs;
    LIST_TYPE_PELNIC_X509_CRL crls;
};
[[nodiscard]] PELNIC_ERROR_CODE initInput(PELNIC_VRF* pVrf, DecodedInput* input); // unlogged
void freeInput(PELNIC_VRF* pVrf, DecodedInput* input);

// Adds the caller's certificates: CAs become trust anchors, the others local certificates. PELNIC_ERR_CERT_INVALID for
// an empty list, unlogged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddRootToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Adds certificates that came with CRLs in the same way, but skips self-signed ones with a warning; none can end a
// chain. Succeeds for an empty list.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddCertToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Appends to the context's crl_list. Always 0: a CRL that cannot be appended is left out.
PELNIC_ERROR_CODE _pnvAddCrlToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CRL* crlList);

// Adds crl_list to the PKI object, in its order. Skips duplicates; stops at a failing callback.
void copyCrlsIntoPki(PELNIC_VRF* pVrf);
// The same, then empties the list and freezes it.
void _pnvSyncCrl(PELNIC_VRF* pVrf);
// Adds the certificates of a signature or token to the stores, except self-signed ones; none can end a chain. Always 0.
PELNIC_ERROR_CODE _pnvExtractCertsIntoVerifyContext(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed);

#endif
