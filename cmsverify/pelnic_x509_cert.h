// Queries on a decoded certificate. PELNIC_ERR_NULL_POINTER for a null argument; decoding failures are passed on.
#ifndef PELNIC_X509_CERT_H
#define PELNIC_X509_CERT_H

#include "pelnic_x509_parse.h"

// KeyUsage (RFC 5280, 4.2.1.3): the first octet of the BIT STRING in bits 0 to 7, the second in bits 8 to 15.
constexpr PNV_UINT32 PNV_KU_DIGITAL_SIGNATURE = 0x80;
constexpr PNV_UINT32 PNV_KU_KEY_CERT_SIGN = 0x04;
constexpr PNV_UINT32 PNV_KU_CRL_SIGN = 0x02;
// ExtKeyUsage (RFC 5280, 4.2.1.12): the two purposes that matter here.
constexpr PNV_UINT32 PNV_EKU_CODE_SIGNING = 0x08;
constexpr PNV_UINT32 PNV_EKU_TIME_STAMPING = 0x40;

// Whether subject and issuer are equal and the certificate's own key verifies its signature. A self-signed certificate
// becomes its own pIssuer, so that the signature is checked only once.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_is_self_signed(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                           PNV_BOOL* isSelfSigned);
// PELNIC_ERR_NO_KEY_USAGE if the extension is missing or empty.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_cert_get_keyusage(const PELNIC_VRF* pVrf, const PELNIC_X509_CERT* pCert,
                                                              PNV_UINT32* usage);
// The usage is 0 for a missing extension, which is not an error, and for an undecodable one, which is.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_x509_cert_get_extend_keyusage(const PELNIC_VRF* pVrf,
                                                                     const PELNIC_X509_CERT* pCert, PNV_UINT32* usage);
// The certificate's extension, or null.
[[nodiscard]] const PELNIC_X509_EXTENSION_ENTRY* pelnic_x509_cert_get_extn_by_aoid(const PELNIC_VRF* pVrf,
                                                                                   const PELNIC_X509_CERT* pCert,
                                                                                   PELNIC_AOIDS aoid);

#endif
