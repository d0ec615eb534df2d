// Stores filled. Failures are logged with their code at error level, and the code is returned, unless a line says
// otherwise.
#ifndef CMS_VERIFY_ADD_H
#define CMS_VERIFY_ADD_H

#include "pelnic_cms_templ.h"

// The certificates and CRLs of one input, each with one reference, for the time of one operation.
struct DecodedInput {
    LIST_TYPE_PELNIC_X509_CERT certs;
    LIST_TYPE_PELNIC_X509_CRL crls;
};
[[nodiscard]] PELNIC_ERROR_CODE initInput(PELNIC_VRF* pVrf, DecodedInput* input); // unlogged
void freeInput(PELNIC_VRF* pVrf, DecodedInput* input);

// The caller's certificates: CAs become trust anchors, the others local certificates. An empty list is
// PELNIC_ERR_CERT_INVALID, unlogged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddRootToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Certificates that came with CRLs: the same, but self-signed ones are passed over with a warning, and none ever ends a
// chain. An empty list is success.
[[nodiscard]] PELNIC_ERROR_CODE _pnvAddCertToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList);
// Appends to the context's crl_list. Always 0: what cannot be appended is left out.
PELNIC_ERROR_CODE _pnvAddCrlToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CRL* crlList);

// Gives crl_list to the PKI object, in its order. Duplicates are left out; a failing callback ends it.
void copyCrlsIntoPki(PELNIC_VRF* pVrf);
// The same, then empties the list and freezes it.
void _pnvSyncCrl(PELNIC_VRF* pVrf);
// Puts the certificates of a signature or token into the stores, but for self-signed ones; none ever ends a chain.
// Always 0.
PELNIC_ERROR_CODE _pnvExtractCertsIntoVerifyContext(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed);

#endif
