// Inputs: whole files, PEM armour, DER streams, and the CMS of a signature. Nothing is verified here.
#include "cms_verify_input.h"

#include "pelnic_base64.h"
#include "pelnic_cms_parse.h"
#include "pelnic_faults.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_x509_parse.h"

constexpr PNV_UINT64 MAX_FILE = 2000000;

constexpr PNV_CHAR PEM_BEGIN[] = "-----BEGIN";
constexpr PNV_CHAR PEM_END[] = "-----END";
constexpr PNV_CHAR PEM_DASHES[] = "-----";

template <PNV_UINT32 N> static constexpr PNV_UINT32 lengthOf(const PNV_CHAR (&)[N])
{
    return N - 1;
}

bool isEmptyPath(const PELNIC_VRF* pVrf, const PNV_CHAR* path)
{
    return path == nullptr || pelnic_strlen(pVrf, path) == 0;
}

// A block for the whole file.
static PELNIC_ERROR_CODE allocateForFile(const PELNIC_VRF* pVrf, PNV_FILE_HANDLE file, PNV_BYTE** data,
                                         PNV_UINT32* size)
{
    const PNV_UINT64 fileSize = pelnic_get_file_size(pVrf, file);
    if (fileSize == 0) return PELNIC_ERR_SYS_FILE_EMPTY;
    if (fileSize > MAX_FILE) return PELNIC_ERR_SYS_FILE_TOO_LARGE;
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_malloc(pVrf, &block, static_cast<PNV_UINT32>(fileSize));
    if (rc != 0) return rc;
    if (block == nullptr) return PELNIC_ERR_SYS_MEM_ALLOC;
    *data = static_cast<PNV_BYTE*>(block);
    *size = static_cast<PNV_UINT32>(fileSize);
    return 0;
}

PELNIC_ERROR_CODE _pnvReadFile(const PELNIC_VRF* pVrf, const PNV_CHAR* pszFilePath, PNV_BYTE** data, PNV_UINT32* size)
{
    if (isEmptyPath(pVrf, pszFilePath)) return PNV_EMPTY_PATH(pVrf);
    const PNV_FILE_HANDLE file = pelnic_fopen(pVrf, pszFilePath, "rb");
    if (file == nullptr) {
        return PNV_FAIL_MSG(pVrf, PELNIC_ERR_SYS_FILE_OPEN, "Can not open file '%s'.", pszFilePath);
    }
    ScopeExit closeFile{[&] { (void)pelnic_fclose(pVrf, file); }}; // nothing was written
    PNV_BYTE* block = nullptr;
    PNV_UINT32 length = 0;
    const PELNIC_ERROR_CODE rc = allocateForFile(pVrf, file, &block, &length);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if (pelnic_fread(pVrf, block, length, file) != length) {
        pelnic_free(pVrf, block);
        return PELNIC_ERR_SYS_FILE_READ;
    }
    *data = block;
    *size = length;
    return 0;
}

PELNIC_ERROR_CODE withFile(PELNIC_VRF* pVrf, const PNV_CHAR* path, InputOperation operation)
{
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    PELNIC_ERROR_CODE rc = _pnvReadFile(pVrf, path, &data, &size);
    if (rc != 0) return rc;
    rc = operation(pVrf, data, size);
    pelnic_free(pVrf, data);
    return rc;
}

// ---- Decoding of certificates and CRLs

static bool isPem(const PELNIC_VRF* pVrf, const PNV_BYTE* content)
{
    return pelnic_memcmp(pVrf, content, PEM_BEGIN, lengthOf(PEM_BEGIN)) == 0;
}

// A zero-terminated copy of an input; the caller frees it.
static PELNIC_ERROR_CODE copyAsText(const PELNIC_VRF* pVrf, const PNV_BYTE* content, PNV_UINT32 length,
                                    PNV_CHAR** ppText)
{
    if (length == 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    PELNIC_ERROR_CODE rc = _pnvNewBlock(pVrf, reinterpret_cast<void**>(ppText), length + 1);
    if (rc != 0) return rc;
    rc = pelnic_memcpy_s(pVrf, *ppText, length, content, length);
    if (rc != 0) {
        pelnic_free(pVrf, *ppText);
        return rc;
    }
    (*ppText)[length] = '\0'; // all searches rely on it
    return 0;
}

// Appends a decoded object to its list, or frees it if there is no list or no room.
static PELNIC_ERROR_CODE appendOrFree(PELNIC_VRF* pVrf, void* object, PELNIC_LIST_DUMMY* list,
                                      pelnic_list_free_cb freeObject)
{
    const PELNIC_ERROR_CODE rc = list == nullptr ? 0 : pelnic_list_add(pVrf, list, object, CLSP_END);
    if (list == nullptr || rc != 0) freeObject(pVrf, object);
    return rc;
}

// Decodes a CRL after the attempt to read a certificate. If it is a CRL, any failure of that attempt is irrelevant.
static bool decodeAsCrl(const PELNIC_VRF* pVrf, const PNV_BYTE* encoded, PNV_UINT32 length, PELNIC_X509_CRL** ppCrl,
                        PNV_UINT32* decoded, const FaultWatch& asCert)
{
    const FaultWatch asCrl{pVrf};
    if (pelnic_x509_decode_crl(pVrf, encoded, length, ppCrl, decoded) != 0) return false;
    if (!asCrl.failed()) asCert.forgive();
    return true;
}

PELNIC_ERROR_CODE _pnvDecodeStreamCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent, PNV_UINT32 nContentLength,
                                          LIST_TYPE_PELNIC_X509_CERT* pCertList, LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    PNV_UINT32 decoded = 0;
    for (PNV_UINT32 at = 0; at < nContentLength; at += decoded) {
        const PNV_BYTE* const encoded = pbContent + at;
        const PNV_UINT32 left = nContentLength - at;
        PELNIC_X509_CERT* pCert = nullptr;
        PELNIC_X509_CRL* pCrl = nullptr;
        PELNIC_ERROR_CODE rc = 0;
        const FaultWatch watch{pVrf};
        if (pelnic_x509_decode_cert(pVrf, encoded, left, &pCert, &decoded) == 0) {
            rc = appendOrFree(pVrf, pCert, _pnvAsList(pCertList), _pnvFreeCertElement);
        } else if (decodeAsCrl(pVrf, encoded, left, &pCrl, &decoded, watch)) {
            rc = appendOrFree(pVrf, pCrl, _pnvAsList(pCrlList), _pnvFreeCrlElement);
        } else {
            return 0; // an unknown object ends the stream
        }
        if (rc != 0) return PNV_FAIL(pVrf, rc);
    }
    return 0;
}

// The two kinds of PEM blocks. The Base64 text begins at bodyOffset; the two kinds differ by a line end, which the
// Base64 decoder skips anyway.
struct Armour {
    const PNV_CHAR* begin;
    PNV_UINT32 beginLength;
    const PNV_CHAR* end;
    PNV_UINT32 endLength;
    PNV_UINT32 bodyOffset;
};
constexpr PNV_CHAR CERT_BEGIN[] = "-----BEGIN CERTIFICATE-----";
constexpr PNV_CHAR CERT_END[] = "-----END CERTIFICATE-----";
constexpr PNV_CHAR CRL_BEGIN[] = "-----BEGIN X509 CRL-----";
constexpr PNV_CHAR CRL_END[] = "-----END X509 CRL-----";
constexpr Armour CERT_ARMOUR = {CERT_BEGIN, lengthOf(CERT_BEGIN), CERT_END, lengthOf(CERT_END), 28};
constexpr Armour CRL_ARMOUR = {CRL_BEGIN, lengthOf(CRL_BEGIN), CRL_END, lengthOf(CRL_END), 24};

// The index of a marker within length characters, or length. The bound limits the cost of a block without end marker to
// its own length.
static PNV_UINT32 findMarker(const PELNIC_VRF* pVrf, const PNV_CHAR* text, PNV_UINT32 length, const PNV_CHAR* marker,
                             PNV_UINT32 markerLength)
{
    for (PNV_UINT32 i = 0; i < length && length - i >= markerLength; ++i) {
        if (text[i] == marker[0] && pelnic_strncmp(pVrf, text + i, marker, markerLength) == 0) return i;
    }
    return length;
}

// Decodes a Base64 text into a new block that the caller frees; failures are logged.
static PELNIC_ERROR_CODE decodeBody(const PELNIC_VRF* pVrf, const PNV_CHAR* body, PNV_UINT32 length, PNV_BYTE** ppDer,
                                    PNV_UINT32* derLength)
{
    PNV_UINT32 size = 0;
    if (pelnic_base64_decode(pVrf, body, length, nullptr, &size) != 0 || size == 0) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_FORMAT);
    }
    PNV_BYTE* pDer = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewBlock(pVrf, reinterpret_cast<void**>(&pDer), size);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = pelnic_base64_decode(pVrf, body, length, pDer, &size);
    if (rc != 0) {
        pelnic_free(pVrf, pDer);
        return PNV_FAIL(pVrf, rc);
    }
    *ppDer = pDer;
    *derLength = size;
    return 0;
}

// The DER of an armoured block; the caller frees it.
static PELNIC_ERROR_CODE decodeArmour(const PELNIC_VRF* pVrf, const Armour& armour, const PNV_CHAR* block,
                                      PNV_UINT32 nBlockLength, PNV_BYTE** ppDer, PNV_UINT32* derLength)
{
    if (nBlockLength < armour.beginLength || pelnic_strncmp(pVrf, block, armour.begin, armour.beginLength) != 0) {
        return PELNIC_ERR_CMS_FORMAT; // unlogged
    }
    const PNV_UINT32 end = findMarker(pVrf, block, nBlockLength, armour.end, armour.endLength);
    // An end marker may share its dashes with the begin marker.
    if (end == nBlockLength || end < armour.bodyOffset) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_FORMAT);
    return decodeBody(pVrf, block + armour.bodyOffset, end - armour.bodyOffset, ppDer, derLength);
}

PELNIC_ERROR_CODE _pnvPemDecodeCert(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                    PELNIC_X509_CERT** ppCert)
{
    PNV_BYTE* pDer = nullptr;
    PNV_UINT32 length = 0;
    PELNIC_ERROR_CODE rc = decodeArmour(pVrf, CERT_ARMOUR, block, nBlockLength, &pDer, &length);
    if (rc != 0) return rc;
    rc = pelnic_x509_decode_cert(pVrf, pDer, length, ppCert, &length);
    pelnic_free(pVrf, pDer);
    return rc;
}

PELNIC_ERROR_CODE _pnvPemDecodeCrl(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                   PELNIC_X509_CRL** ppCrl)
{
    PNV_BYTE* pDer = nullptr;
    PNV_UINT32 length = 0;
    PELNIC_ERROR_CODE rc = decodeArmour(pVrf, CRL_ARMOUR, block, nBlockLength, &pDer, &length);
    if (rc != 0) return rc;
    rc = pelnic_x509_decode_crl(pVrf, pDer, length, ppCrl, &length);
    pelnic_free(pVrf, pDer);
    return rc;
}

PELNIC_ERROR_CODE _pnvAddPemCertToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                       LIST_TYPE_PELNIC_X509_CERT* pCertList)
{
    const FaultWatch watch{pVrf};
    PELNIC_X509_CERT* pCert = nullptr;
    if (_pnvPemDecodeCert(pVrf, block, nBlockLength, &pCert) == 0) {
        (void)appendOrFree(pVrf, pCert, _pnvAsList(pCertList), _pnvFreeCertElement);
    }
    if (pCertList == nullptr) watch.forgive(); // nobody wants it
    return 0;
}

PELNIC_ERROR_CODE _pnvAddPemCrlToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                      LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    const FaultWatch watch{pVrf};
    PELNIC_X509_CRL* pCrl = nullptr;
    if (_pnvPemDecodeCrl(pVrf, block, nBlockLength, &pCrl) == 0)
        (void)appendOrFree(pVrf, pCrl, _pnvAsList(pCrlList), _pnvFreeCrlElement);
    if (pCrlList == nullptr) watch.forgive(); // nobody wants it
    return 0;
}

PELNIC_ERROR_CODE _decodePemCertCrl(PELNIC_VRF* pVrf, const PNV_CHAR* text, LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                    LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    static constexpr PNV_CHAR CERT_LABEL[] =
        "CERTIFICATE"; // also the beginning of other labels, whose blocks then fail to decode
    static constexpr PNV_CHAR CRL_LABEL[] = "X509 CRL";
    const FaultWatch watch{pVrf};
    const PNV_CHAR* block = pelnic_strstr(pVrf, text, PEM_BEGIN);
    // A block lost to a failing callback is the last, so that a retry adds nothing behind a later object.
    while (block != nullptr && !watch.failed()) {
        const PNV_CHAR* const end = pelnic_strstr(pVrf, block, PEM_END);
        if (end == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_FORMAT);
        const PNV_CHAR* const dashes = pelnic_strstr(pVrf, end + lengthOf(PEM_END), PEM_DASHES);
        if (dashes == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_FORMAT);
        const PNV_CHAR* const blockEnd = dashes + lengthOf(PEM_DASHES);
        const PNV_CHAR* const label = block + sizeof PEM_BEGIN; // and one space; the END marker follows
        const PNV_UINT32 blockLength = static_cast<PNV_UINT32>(blockEnd - block);
        if (pelnic_strncmp(pVrf, label, CERT_LABEL, lengthOf(CERT_LABEL)) == 0) {
            (void)_pnvAddPemCertToList(pVrf, block, blockLength, pCertList);
        } else if (pelnic_strncmp(pVrf, label, CRL_LABEL, lengthOf(CRL_LABEL)) == 0) {
            (void)_pnvAddPemCrlToList(pVrf, block, blockLength, pCrlList);
        }
        block = pelnic_strstr(pVrf, blockEnd, PEM_BEGIN);
    }
    return 0;
}

PELNIC_ERROR_CODE _pnvDecodeCertCrl(PELNIC_VRF* pVrf, const PNV_BYTE* pbContent, PNV_UINT32 nContentLength,
                                    LIST_TYPE_PELNIC_X509_CERT* pCertList, LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    if (nContentLength < MIN_INPUT) return PELNIC_ERR_CMS_FORMAT;
    if (!isPem(pVrf, pbContent)) {
        return _pnvDecodeStreamCertCrl(pVrf, pbContent, nContentLength, pCertList, pCrlList);
    }
    PNV_CHAR* text = nullptr;
    PELNIC_ERROR_CODE rc = copyAsText(pVrf, pbContent, nContentLength, &text);
    if (rc != 0) return rc;
    rc = _decodePemCertCrl(pVrf, text, pCertList, pCrlList);
    pelnic_free(pVrf, text);
    return rc;
}

// The Base64 text of an armoured signature. Unlogged; *ppBody stays null for another armour. Only a missing end of the
// CMS armour has its own code.
static PELNIC_ERROR_CODE findCmsBody(const PELNIC_VRF* pVrf, const PNV_CHAR* text, const PNV_CHAR** ppBody,
                                     const PNV_CHAR** ppEnd)
{
    static constexpr PNV_CHAR CMS_BEGIN[] = "-----BEGIN CMS-----";
    static constexpr PNV_CHAR PKCS7_BEGIN[] = "-----BEGIN PKCS7-----";
    if (pelnic_strncmp(pVrf, text, CMS_BEGIN, lengthOf(CMS_BEGIN)) == 0) {
        *ppBody = text + lengthOf(CMS_BEGIN);
        *ppEnd = pelnic_strstr(pVrf, text, "-----END CMS-----");
        return *ppEnd != nullptr ? 0 : PELNIC_ERR_CMS_FORMAT;
    }
    if (pelnic_strncmp(pVrf, text, PKCS7_BEGIN, lengthOf(PKCS7_BEGIN)) == 0) {
        *ppBody = text + lengthOf(PKCS7_BEGIN);
        *ppEnd = pelnic_strstr(pVrf, text, "-----END PKCS7-----");
        return *ppEnd != nullptr ? 0 : PELNIC_ERR_FAILED;
    }
    return PELNIC_ERR_CMS_FORMAT;
}

PELNIC_ERROR_CODE _pnvPemDecodeCms(PELNIC_VRF* pVrf, const PNV_CHAR* text, PNV_UINT32 nSigLength,
                                   PELNIC_PKCS7_CONTENT** ppContent)
{
    const PNV_CHAR* body = nullptr;
    const PNV_CHAR* end = nullptr;
    PELNIC_ERROR_CODE rc = findCmsBody(pVrf, text, &body, &end);
    if (body == nullptr) return rc;
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    // An end marker may share its dashes with the begin marker.
    if (end < body || static_cast<size_t>(end - body) > nSigLength) return PNV_FAIL(pVrf, PELNIC_ERR_CMS_FORMAT);
    PNV_BYTE* pDer = nullptr;
    PNV_UINT32 length = 0;
    rc = decodeBody(pVrf, body, static_cast<PNV_UINT32>(end - body), &pDer, &length);
    if (rc != 0) return rc;
    PNV_UINT32 decoded = 0;
    rc = pelnic_pkcs7_decode_signed(pVrf, pDer, length, ppContent, &decoded);
    pelnic_free(pVrf, pDer);
    return PNV_DONE(pVrf, rc);
}

PELNIC_ERROR_CODE _pnvDecodeCms(PELNIC_VRF* pVrf, const PNV_BYTE* pbSignature, PNV_UINT32 nSigLength,
                                PELNIC_PKCS7_CONTENT** ppContent)
{
    PELNIC_ERROR_CODE rc = 0;
    if (isPem(pVrf, pbSignature)) {
        PNV_CHAR* text = nullptr;
        rc = copyAsText(pVrf, pbSignature, nSigLength, &text);
        if (rc != 0) return rc; // unlogged
        rc = _pnvPemDecodeCms(pVrf, text, nSigLength, ppContent);
        pelnic_free(pVrf, text);
    } else {
        PNV_UINT32 decoded = 0;
        rc = pelnic_pkcs7_decode_signed(pVrf, pbSignature, nSigLength, ppContent, &decoded);
    }
    if (rc == 0) return 0;
    _pnvReportFaults(pVrf, __func__);
    return PNV_FAIL(pVrf, rc);
}
