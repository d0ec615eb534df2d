// Inputs in DER and PEM. Unless a comment says otherwise, failures are logged with their code at error level and the
// code is returned.
#ifndef CMS_VERIFY_INPUT_H
#define CMS_VERIFY_INPUT_H

#include "pelnic_cms_templ.h"
#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 MIN_INPUT = 38; // least octets of a certificate, CRL or signature

[[nodiscard]] bool isEmptyPath(const PELNIC_VRF* pVrf, const PNV_CHAR* path);
// The code returned for an empty path. The logged code is another, and callers tell the two apart.
#define PNV_EMPTY_PATH(pVrf) \
    (PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."), PELNIC_ERR_NULL_POINTER)
// Reads a whole file of 1 to 2,000,000 octets into a buffer that the caller frees; a short read is not logged.
[[nodiscard]] PELNIC_ERROR_CODE _pnvReadFile(const PELNIC_VRF* pVrf, const PNV_CHAR* pszFilePath, PNV_BYTE** data,
                                             PNV_UINT32* size);

// Runs an operation of the public interface on the contents of a file; unlogged.
typedef PELNIC_ERROR_CODE (*InputOperation)(PELNIC_VRF_CTX ctx, const PNV_BYTE* data, PNV_UINT32 size);
[[nodiscard]] PELNIC_ERROR_CODE withFile(PELNIC_VRF* pVrf, const PNV_CHAR* path, InputOperation operation);

// Appends every certificate and CRL of a DER stream or PEM text to the lists; either list may be null. An undecodable
// object ends a DER stream; an undecodable PEM block is skipped. Neither is an error.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent,
                                                  PNV_UINT32 nContentLength, LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                  LIST_TYPE_PELNIC_X509_CRL* pCrlList);
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeStreamCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent,
                                                        PNV_UINT32 nContentLength,
                                                        LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                        LIST_TYPE_PELNIC_X509_CRL* pCrlList);
// text is zero-terminated.
[[nodiscard]] PELNIC_ERROR_CODE _decodePemCertCrl(PELNIC_VRF* pVrf, const PNV_CHAR* text,
                                                  LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                                  LIST_TYPE_PELNIC_X509_CRL* pCrlList);
// Always 0: a block that cannot be decoded or kept is dropped.
PELNIC_ERROR_CODE _pnvAddPemCertToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                       LIST_TYPE_PELNIC_X509_CERT* pCertList);
PELNIC_ERROR_CODE _pnvAddPemCrlToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                      LIST_TYPE_PELNIC_X509_CRL* pCrlList);
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCert(const PELNIC_VRF* pVrf, const PNV_CHAR* block,
                                                  PNV_UINT32 nBlockLength, PELNIC_X509_CERT** ppCert);
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCrl(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                                 PELNIC_X509_CRL** ppCrl);

// text is zero-terminated; nSigLength is its length without that zero.
[[nodiscard]] PELNIC_ERROR_CODE _pnvPemDecodeCms(PELNIC_VRF* pVrf, const PNV_CHAR* text, PNV_UINT32 nSigLength,
                                                 PELNIC_PKCS7_CONTENT** ppContent);
// Decodes a signature, DER or PEM, of at least 38 octets.
[[nodiscard]] PELNIC_ERROR_CODE _pnvDecodeCms(PELNIC_VRF* pVrf, const PNV_BYTE* pbSignature, PNV_UINT32 nSigLength,
                                              PELNIC_PKCS7_CONTENT** ppContent);

#endif
