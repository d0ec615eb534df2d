// The public operations on a verify context.
#include "cms_verify.h"

#include "pelnic_asn1_decode.h"
#include "pelnic_asn1_utils.h"
#include "pelnic_base64.h"
#include "pelnic_cms_utils.h"
#include "pelnic_faults.h"
#include "pelnic_pkcs7_verify.h"
#include "pelnic_pki_impl.h"
#include "pelnic_plt_proxy.h"
#include "pelnic_x509_cert.h"
#include "pelnic_x509_utils.h"

constexpr PNV_UINT32 MIN_INPUT = 38; // octets of a certificate, CRL or signature
constexpr PNV_UINT64 MAX_FILE = 2000000;
constexpr PNV_UINT32 CONTENT_BLOCK = 4096;
constexpr PNV_UINT32 MAX_DIGEST = 64;

constexpr PNV_CHAR PEM_BEGIN[] = "-----BEGIN";
constexpr PNV_CHAR PEM_END[] = "-----END";
constexpr PNV_CHAR PEM_DASHES[] = "-----";

template <PNV_UINT32 N> static constexpr PNV_UINT32 lengthOf(const PNV_CHAR (&)[N])
{
    return N - 1;
}

// ---- Context

PELNIC_ERROR_CODE _pnvCheckCreateParams(const PELNIC_CTX_CREATE_PARAMS* pParams)
{
    const PELNIC_CALLBACK_FUNCS& funcs = pParams->callback_funcs;
    const PELNIC_SYS_FUNCS& sys = funcs.plt_funcs.sys_funcs;
    if (pParams->st_size != sizeof(PELNIC_CTX_CREATE_PARAMS) || funcs.st_size != sizeof(PELNIC_CALLBACK_FUNCS) ||
        funcs.plt_funcs.st_size != sizeof(PELNIC_PLT_FUNCS) || sys.st_size != sizeof(PELNIC_SYS_FUNCS)) {
        return PELNIC_ERR_INVALID_SIZE;
    }
    // pf_vsnprintf_s, get_file_size, the log and the platform functions may be missing.
    const bool complete =
        sys.mem_funcs.malloc != nullptr && sys.mem_funcs.free != nullptr && sys.mem_funcs.memcmp != nullptr &&
        sys.mem_funcs.memcpy_s != nullptr && sys.mem_funcs.memmove_s != nullptr && sys.mem_funcs.memset_s != nullptr &&
        sys.str_funcs.pf_strcat_s != nullptr && sys.str_funcs.pf_strchr != nullptr &&
        sys.str_funcs.pf_strcmp != nullptr && sys.str_funcs.pf_strcpy_s != nullptr &&
        sys.str_funcs.pf_strlen != nullptr && sys.str_funcs.pf_strncmp != nullptr &&
        sys.str_funcs.pf_strstr != nullptr && sys.file_funcs.fclose != nullptr && sys.file_funcs.fopen != nullptr &&
        sys.file_funcs.fread != nullptr && funcs.md_funcs.pelnic_md_ctx_create != nullptr &&
        funcs.md_funcs.pelnic_md_init != nullptr && funcs.md_funcs.pelnic_md_update != nullptr &&
        funcs.md_funcs.pelnic_md_final != nullptr && funcs.md_funcs.pelnic_md_ctx_destory != nullptr &&
        funcs.crypt_funcs.pelnic_verify_ctx_create != nullptr && funcs.crypt_funcs.pelnic_verify_init != nullptr &&
        funcs.crypt_funcs.pelnic_verify_update != nullptr && funcs.crypt_funcs.pelnic_verify_final != nullptr &&
        funcs.crypt_funcs.pelnic_verify_ctx_destory != nullptr;
    return complete ? 0 : PELNIC_ERR_CALLBACK_MISSING;
}

PELNIC_ERROR_CODE pelnic_verify_create_ctx(PELNIC_VRF_CTX* pCtx, const PELNIC_CTX_CREATE_PARAMS* pParams)
{
    if (pCtx == nullptr || pParams == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_ERROR_CODE rc = _pnvCheckCreateParams(pParams);
    if (rc != 0) return rc;
    const PELNIC_SYS_MEM_FUNCS& mem = pParams->callback_funcs.plt_funcs.sys_funcs.mem_funcs;
    void* block = nullptr;
    rc = mem.malloc(&block, PNV_UINT32{sizeof(PELNIC_VRF)});
    if (rc != 0) return rc;
    *pCtx = nullptr;
    if (block == nullptr) return PELNIC_ERR_SYS_MEM_SET;
    if (mem.memset_s(block, sizeof(PELNIC_VRF), 0, sizeof(PELNIC_VRF)) != 0) {
        mem.free(block);
        return PELNIC_ERR_SYS_MEM_SET;
    }
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(block);
    pVrf->st_size = sizeof(PELNIC_VRF);
    pVrf->callback_funcs = pParams->callback_funcs;
    rc = pelnic_pki_init(pVrf);
    if (rc != 0) {
        mem.free(block);
        return rc;
    }
    *pCtx = pVrf;
    return 0;
}

// What every operation asks of its handle first; never logged.
static PELNIC_ERROR_CODE checkContext(PELNIC_VRF_CTX ctx)
{
    if (ctx == nullptr) return PELNIC_ERR_NULL_POINTER;
    return static_cast<const PELNIC_VRF*>(ctx)->st_size == sizeof(PELNIC_VRF) ? 0 : PELNIC_ERR_INVALID_SIZE;
}

PELNIC_ERROR_CODE pelnic_set_verify_params(PELNIC_VRF_CTX ctx, const PELNIC_VRF_PARAMS* pParams)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pParams == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    if (pParams->st_size != sizeof(PELNIC_VRF_PARAMS)) rc = PELNIC_ERR_INVALID_SIZE;
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pVrf->vrf_params = *pParams;
    return 0;
}

void _pnvFreeMdInfo(const PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pDigestInfo)
{
    if (pDigestInfo == nullptr) return;
    if (pDigestInfo->digestCtx != nullptr) {
        pelnic_md_ctx_destory(pVrf, pDigestInfo->digestCtx);
    } else if (pDigestInfo->vrfCtx != nullptr) {
        pelnic_verify_ctx_destory(pVrf, pDigestInfo->vrfCtx);
        pelnic_free(pVrf, pDigestInfo->pbSignature);
    }
    pelnic_free(pVrf, pDigestInfo);
}

static void freeMdElement(PELNIC_VRF* pVrf, void* pDigestInfo)
{
    _pnvFreeMdInfo(pVrf, static_cast<PELNIC_VERIFY_DIGEST_INFO*>(pDigestInfo));
}

PELNIC_ERROR_CODE pelnic_vrf_ctx_free(PELNIC_VRF_CTX ctx)
{
    const PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    pelnic_pki_uninit(pVrf);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->crl_list), _pnvFreeCrlElement);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), freeMdElement);
    pelnic_free(pVrf, pVrf);
    return 0;
}

const PNV_CHAR* pelnic_get_version(void)
{
    return "4.2.0.300-build001";
}

// ---- Files

static bool isEmptyPath(const PELNIC_VRF* pVrf, const PNV_CHAR* path)
{
    return path == nullptr || pelnic_strlen(pVrf, path) == 0;
}

// Not the code that is logged; callers tell the two apart.
#define PNV_EMPTY_PATH(pVrf) \
    (PNV_LOG(pVrf, PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."), PELNIC_ERR_NULL_POINTER)

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
    PNV_SCOPE_EXIT closeFile{[&] { (void)pelnic_fclose(pVrf, file); }}; // nothing was written
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

// Runs an operation of the public interface on the contents of a file; unlogged.
template <typename Operation>
static PELNIC_ERROR_CODE withFile(PELNIC_VRF* pVrf, const PNV_CHAR* path, Operation operation)
{
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    PELNIC_ERROR_CODE rc = _pnvReadFile(pVrf, path, &data, &size);
    if (rc != 0) return rc;
    rc = operation(data, size);
    pelnic_free(pVrf, data);
    return rc;
}

// ---- Decoding of certificates and CRLs

static bool isPem(const PELNIC_VRF* pVrf, const PNV_BYTE* content)
{
    return pelnic_memcmp(pVrf, content, PEM_BEGIN, lengthOf(PEM_BEGIN)) == 0;
}

// A zero-terminated copy of an input, to be freed by the caller.
static PELNIC_ERROR_CODE copyAsText(const PELNIC_VRF* pVrf, const PNV_BYTE* content, PNV_UINT32 length,
                                    PNV_CHAR** ppText)
{
    if (length == 0xFFFFFFFFu) return PELNIC_ERR_SYS_MEM_ALLOC;
    void* block = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_malloc_with0(pVrf, &block, length + 1);
    if (rc != 0) return rc;
    rc = pelnic_memcpy_s(pVrf, block, length, content, length);
    if (rc != 0) {
        pelnic_free(pVrf, block);
        return rc;
    }
    *ppText = static_cast<PNV_CHAR*>(block);
    (*ppText)[length] = '\0'; // what every search in it relies on
    return 0;
}

// Keeps a decoded object in its list, or frees it when there is no list or no room.
template <typename Object, typename List>
static PELNIC_ERROR_CODE keep(PELNIC_VRF* pVrf, Object* object, List* list, pelnic_list_free_cb freeObject)
{
    const PELNIC_ERROR_CODE rc = list == nullptr ? 0 : pelnic_list_add(pVrf, _pnvAsList(list), object, CLSP_END);
    if (list == nullptr || rc != 0) freeObject(pVrf, object);
    return rc;
}

// Decodes what could not be read as a certificate. Where it is a CRL, that attempt may have failed in any way.
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
            rc = keep(pVrf, pCert, pCertList, _pnvFreeCertElement);
        } else if (decodeAsCrl(pVrf, encoded, left, &pCrl, &decoded, watch)) {
            rc = keep(pVrf, pCrl, pCrlList, _pnvFreeCrlElement);
        } else {
            return 0; // whatever this is, it ends the stream
        }
        if (rc != 0) return PNV_FAIL(pVrf, rc);
    }
    return 0;
}

// How the two kinds of PEM blocks are armoured and decoded. The Base64 text begins at bodyOffset; the two kinds differ
// by a line end, which the Base64 decoder passes over anyway.
template <typename Object> struct PEM_KIND {
    const PNV_CHAR* begin;
    PNV_UINT32 beginLength;
    const PNV_CHAR* end;
    PNV_UINT32 endLength;
    PNV_UINT32 bodyOffset;
    PELNIC_ERROR_CODE (*decode)(const PELNIC_VRF*, const PNV_BYTE*, PNV_UINT32, Object**, PNV_UINT32*);
};
constexpr PNV_CHAR CERT_BEGIN[] = "-----BEGIN CERTIFICATE-----";
constexpr PNV_CHAR CERT_END[] = "-----END CERTIFICATE-----";
constexpr PNV_CHAR CRL_BEGIN[] = "-----BEGIN X509 CRL-----";
constexpr PNV_CHAR CRL_END[] = "-----END X509 CRL-----";
constexpr PEM_KIND<PELNIC_X509_CERT> PEM_CERT = {CERT_BEGIN, lengthOf(CERT_BEGIN),   CERT_END, lengthOf(CERT_END),
                                                 28,         pelnic_x509_decode_cert};
constexpr PEM_KIND<PELNIC_X509_CRL> PEM_CRL = {CRL_BEGIN, lengthOf(CRL_BEGIN),   CRL_END, lengthOf(CRL_END),
                                               24,        pelnic_x509_decode_crl};

// Where a marker begins within length characters, or length. Bounded, so that many blocks without their end marker cost
// no more than their own length each.
static PNV_UINT32 findMarker(const PELNIC_VRF* pVrf, const PNV_CHAR* text, PNV_UINT32 length, const PNV_CHAR* marker,
                             PNV_UINT32 markerLength)
{
    for (PNV_UINT32 i = 0; i < length && length - i >= markerLength; ++i) {
        if (text[i] == marker[0] && pelnic_strncmp(pVrf, text + i, marker, markerLength) == 0) return i;
    }
    return length;
}

// The octets of a Base64 text in a new block that the caller frees; failures are logged.
static PELNIC_ERROR_CODE decodeBody(const PELNIC_VRF* pVrf, const PNV_CHAR* body, PNV_UINT32 length, PNV_BYTE** ppDer,
                                    PNV_UINT32* derLength)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_FORMAT;
    PNV_UINT32 size = 0;
    if (pelnic_base64_decode(pVrf, body, length, nullptr, &size) != 0 || size == 0) return PNV_FAIL(pVrf, rc);
    void* block = nullptr;
    rc = pelnic_malloc_with0(pVrf, &block, size);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = pelnic_base64_decode(pVrf, body, length, static_cast<PNV_BYTE*>(block), &size);
    if (rc != 0) {
        pelnic_free(pVrf, block);
        return PNV_FAIL(pVrf, rc);
    }
    *ppDer = static_cast<PNV_BYTE*>(block);
    *derLength = size;
    return 0;
}

template <typename Object>
static PELNIC_ERROR_CODE decodePemBlock(const PELNIC_VRF* pVrf, const PEM_KIND<Object>& kind, const PNV_CHAR* block,
                                        PNV_UINT32 nBlockLength, Object** ppObject)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_FORMAT;
    if (nBlockLength < kind.beginLength || pelnic_strncmp(pVrf, block, kind.begin, kind.beginLength) != 0) return rc;
    const PNV_UINT32 end = findMarker(pVrf, block, nBlockLength, kind.end, kind.endLength);
    // An end marker may share its dashes with the begin marker.
    if (end == nBlockLength || end < kind.bodyOffset) return PNV_FAIL(pVrf, rc);
    PNV_BYTE* pDer = nullptr;
    PNV_UINT32 length = 0;
    rc = decodeBody(pVrf, block + kind.bodyOffset, end - kind.bodyOffset, &pDer, &length);
    if (rc != 0) return rc;
    PNV_UINT32 decoded = 0;
    rc = kind.decode(pVrf, pDer, length, ppObject, &decoded);
    pelnic_free(pVrf, pDer);
    return rc;
}

PELNIC_ERROR_CODE _pnvPemDecodeCert(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                    PELNIC_X509_CERT** ppCert)
{
    return decodePemBlock(pVrf, PEM_CERT, block, nBlockLength, ppCert);
}

PELNIC_ERROR_CODE _pnvPemDecodeCrl(const PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                   PELNIC_X509_CRL** ppCrl)
{
    return decodePemBlock(pVrf, PEM_CRL, block, nBlockLength, ppCrl);
}

PELNIC_ERROR_CODE _pnvAddPemCertToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                       LIST_TYPE_PELNIC_X509_CERT* pCertList)
{
    const FaultWatch watch{pVrf};
    PELNIC_X509_CERT* pCert = nullptr;
    if (_pnvPemDecodeCert(pVrf, block, nBlockLength, &pCert) == 0) {
        (void)keep(pVrf, pCert, pCertList, _pnvFreeCertElement);
    }
    if (pCertList == nullptr) watch.forgive(); // nobody wants it
    return 0;
}

PELNIC_ERROR_CODE _pnvAddPemCrlToList(PELNIC_VRF* pVrf, const PNV_CHAR* block, PNV_UINT32 nBlockLength,
                                      LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    const FaultWatch watch{pVrf};
    PELNIC_X509_CRL* pCrl = nullptr;
    if (_pnvPemDecodeCrl(pVrf, block, nBlockLength, &pCrl) == 0) (void)keep(pVrf, pCrl, pCrlList, _pnvFreeCrlElement);
    if (pCrlList == nullptr) watch.forgive(); // nobody wants it
    return 0;
}

PELNIC_ERROR_CODE _decodePemCertCrl(PELNIC_VRF* pVrf, const PNV_CHAR* text, LIST_TYPE_PELNIC_X509_CERT* pCertList,
                                    LIST_TYPE_PELNIC_X509_CRL* pCrlList)
{
    constexpr PNV_CHAR CERT_LABEL[] = "CERTIFICATE"; // begins other labels too, whose blocks then fail to decode
    constexpr PNV_CHAR CRL_LABEL[] = "X509 CRL";
    const PNV_CHAR* block = pelnic_strstr(pVrf, text, PEM_BEGIN);
    while (block != nullptr) {
        const PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_FORMAT;
        const PNV_CHAR* const end = pelnic_strstr(pVrf, block, PEM_END);
        if (end == nullptr) return PNV_FAIL(pVrf, rc);
        const PNV_CHAR* const dashes = pelnic_strstr(pVrf, end + lengthOf(PEM_END), PEM_DASHES);
        if (dashes == nullptr) return PNV_FAIL(pVrf, rc);
        const PNV_CHAR* const blockEnd = dashes + lengthOf(PEM_DASHES);
        const PNV_CHAR* const label = block + sizeof PEM_BEGIN; // and one space; the END marker lies behind it
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

// ---- Adding certificates and CRLs

// Called where an operation goes on towards success: what a failing callback has cost it until here is lost for good.
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
    spoilIfFailed(pVrf, watch); // a CA may have looked like none
    rc = addByKind(pVrf, cert, isCa);
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

static PELNIC_ERROR_CODE addCarriedCert(PELNIC_VRF* pVrf, PELNIC_X509_CERT* cert)
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
    spoilIfFailed(pVrf, watch); // a CA may have looked like none
    cert->bFromPackage = 1;
    rc = addByKind(pVrf, cert, isCa);
    if (rc == PELNIC_ERR_CERT_DUPLICATE) return 0;
    if (rc != 0) return PNV_FAIL_MSG(pVrf, rc, "Failed to add certificate into PKI context.");
    return 0;
}

PELNIC_ERROR_CODE _pnvAddCertToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CERT* certList)
{
    for (PNV_UINT32 i = 0; i < certList->num; ++i) {
        const PELNIC_ERROR_CODE rc = addCarriedCert(pVrf, certList->data[i]);
        if (rc != 0) return rc;
    }
    return 0;
}

PELNIC_ERROR_CODE _pnvAddCrlToStore(PELNIC_VRF* pVrf, LIST_TYPE_PELNIC_X509_CRL* crlList)
{
    for (PNV_UINT32 i = 0; i < crlList->num; ++i) {
        if (pelnic_list_add(pVrf, _pnvAsList(&pVrf->crl_list), crlList->data[i], CLSP_END) == 0) {
            ++crlList->data[i]->iRef;
        } else {
            pVrf->bInputLost = 1;
        }
    }
    return 0;
}

// The certificates and CRLs of one input, each with one reference, for the time of one operation.
struct DECODED_INPUT {
    LIST_TYPE_PELNIC_X509_CERT certs;
    LIST_TYPE_PELNIC_X509_CRL crls;
};

static PELNIC_ERROR_CODE initInput(PELNIC_VRF* pVrf, DECODED_INPUT* input)
{
    const PELNIC_ERROR_CODE rc = pelnic_list_init(pVrf, _pnvAsList(&input->crls), 0);
    return rc != 0 ? rc : pelnic_list_init(pVrf, _pnvAsList(&input->certs), 0);
}

static void freeInput(PELNIC_VRF* pVrf, DECODED_INPUT* input)
{
    pelnic_list_free(pVrf, _pnvAsList(&input->crls), _pnvFreeCrlElement);
    pelnic_list_free(pVrf, _pnvAsList(&input->certs), _pnvFreeCertElement);
}

static PELNIC_ERROR_CODE addCerts(PELNIC_VRF* pVrf, const PNV_BYTE* pbCert, PNV_UINT32 nCertLength)
{
    const FaultWatch watch{pVrf};
    LIST_TYPE_PELNIC_X509_CERT certs = {};
    PNV_SCOPE_EXIT freeCerts{[&] { pelnic_list_free(pVrf, _pnvAsList(&certs), _pnvFreeCertElement); }};
    PELNIC_ERROR_CODE rc = pelnic_list_init(pVrf, _pnvAsList(&certs), 0);
    if (rc == 0) rc = _pnvDecodeCertCrl(pVrf, pbCert, nCertLength, &certs, nullptr);
    if (rc != 0) return rc;
    if (certs.num != 0) spoilIfFailed(pVrf, watch);
    return _pnvAddRootToStore(pVrf, &certs);
}

PELNIC_ERROR_CODE pelnic_verify_add_cert(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCert, PNV_UINT32 nCertLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbCert == nullptr || nCertLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = addCerts(pVrf, pbCert, nCertLength);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_add_cert_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCertFile)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pszCertFile == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = withFile(pVrf, pszCertFile,
                  [&](const PNV_BYTE* data, PNV_UINT32 size) { return pelnic_verify_add_cert(ctx, data, size); });
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

static PELNIC_ERROR_CODE addCrls(PELNIC_VRF* pVrf, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength)
{
    if (pVrf->crl_frozen != 0) return PELNIC_ERR_CRL_FROZEN;
    const FaultWatch watch{pVrf};
    DECODED_INPUT input = {};
    PNV_SCOPE_EXIT freeLists{[&] { freeInput(pVrf, &input); }};
    PELNIC_ERROR_CODE rc = initInput(pVrf, &input);
    if (rc != 0) return rc;
    rc = _pnvDecodeCertCrl(pVrf, pbCrl, nCrlLength, &input.certs, &input.crls);
    if (rc != 0 || input.crls.num == 0) return PELNIC_ERR_CRL_DECODE;
    rc = _pnvAddCrlToStore(pVrf, &input.crls);
    if (_pnvAddCertToStore(pVrf, &input.certs) != 0) {
        // With the code of the CRLs: the certificates are only a help.
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
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_add_crl_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCrlFile)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pszCrlFile == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    rc = withFile(pVrf, pszCrlFile,
                  [&](const PNV_BYTE* data, PNV_UINT32 size) { return pelnic_verify_add_crl(ctx, data, size); });
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

// ---- Detached signatures

// Duplicates are left out, and so are failures.
static void copyCrlsIntoPki(PELNIC_VRF* pVrf)
{
    for (PNV_UINT32 i = 0; i < pVrf->crl_list.num; ++i) {
        if (pVrf->crl_list.data[i] != nullptr) (void)pelnic_pki_store_add_crl(pVrf, pVrf->crl_list.data[i]);
    }
}

void _pnvSyncCrl(PELNIC_VRF* pVrf)
{
    const FaultWatch watch{pVrf};
    copyCrlsIntoPki(pVrf);
    spoilIfFailed(pVrf, watch); // the list goes now, whatever did not get into the store
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->crl_list), _pnvFreeCrlElement);
    pVrf->crl_frozen = 1;
}

// Where an armoured signature's Base64 text begins and ends. Unlogged; no *ppBody for an armour of another kind. Only
// the CMS armour's missing end has a code of its own.
static PELNIC_ERROR_CODE findCmsBody(const PELNIC_VRF* pVrf, const PNV_CHAR* text, const PNV_CHAR** ppBody,
                                     const PNV_CHAR** ppEnd)
{
    constexpr PNV_CHAR CMS_BEGIN[] = "-----BEGIN CMS-----";
    constexpr PNV_CHAR PKCS7_BEGIN[] = "-----BEGIN PKCS7-----";
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
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
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
    if (watch.failed()) return;                     // in the wrong store it would stay there
    cert->bFromPackage = 1;
    (void)addByKind(pVrf, cert, isCa); // if it could not be added, the signature is refused later for want of it
}

PELNIC_ERROR_CODE _pnvExtractCertsIntoVerifyContext(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed)
{
    const PELNIC_X509_CERT_BUNDLE* const pBundle = p7signed->signed_data->certificates;
    if (pBundle == nullptr) return 0;
    // After a failing callback this run accepts nothing. What it leaves out must not come behind what follows it when
    // the next run takes the same certificates in: the first of two CAs decides.
    const LIST_TYPE_PELNIC_X509_CERT& certs = pBundle->certs;
    for (PNV_UINT32 i = 0; i < certs.num && !_pnvIsDisturbed(pVrf); ++i) addCertOfSignature(pVrf, certs.data[i]);
    return 0;
}

const PELNIC_X509_CERT* _pnvFindAuthorCertBySignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    if (si->issuer_sn == nullptr) return nullptr;
    return pelnic_pki_find_cert_by_issuer_sn(pVrf, si->issuer_sn->issuer, si->issuer_sn->sn);
}

static PELNIC_AOIDS hashAlgorithm(const PELNIC_VRF* pVrf, const PELNIC_X509_ALGO_IDENTIFIER* pAlgo)
{
    return pelnic_get_hash_aoid_from_sign(pelnic_find_aoid(pVrf, &pAlgo->algorithm));
}

// The digest that the signer's attributes claim, in an entry that has its algorithm.
static PELNIC_ERROR_CODE copyClaimedDigest(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                           PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    void* pResult = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_x509_extract_attribute(pVrf, si->auth_attrs, AOID_PKCS9_AT_MESSAGEDIGEST, &pResult);
    if (rc != 0 || pResult == nullptr) return PELNIC_ERR_CMS_NO_MESSAGE_DIGEST;
    const PELNIC_DATA_BLOCK* const pDigest = static_cast<const PELNIC_DATA_BLOCK*>(pResult);
    pInfo->nDigestSize = pDigest->nLen;
    rc = pelnic_memcpy_s(pVrf, pInfo->pbDigest, sizeof pInfo->pbDigest, pDigest->pData, pDigest->nLen);
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_MESSAGEDIGEST);
    return rc;
}

PELNIC_ERROR_CODE _pnvGetDigestFromSignerInfo(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                              PELNIC_VERIFY_DIGEST_INFO** ppInfo)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pInfo->nDigestAlgID = hashAlgorithm(pVrf, si->digest_algo);
    rc = pInfo->nDigestAlgID == AOID_UNKNOWN ? PELNIC_ERR_CMS_DIGEST_ALGO : copyClaimedDigest(pVrf, si, pInfo);
    if (rc != 0) {
        _pnvFreeMdInfo(pVrf, pInfo);
        return PNV_FAIL(pVrf, rc);
    }
    *ppInfo = pInfo;
    return 0;
}

// The entry that hashes the content with an algorithm, or null.
static const PELNIC_VERIFY_DIGEST_INFO* findDigestEntry(const PELNIC_VRF* pVrf, PELNIC_AOIDS algorithm)
{
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        if (entries.data[i]->nDigestAlgID == algorithm) return entries.data[i];
    }
    return nullptr;
}

static bool isSameDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo, const PNV_BYTE* digest,
                         PNV_UINT32 length)
{
    return pInfo->nDigestSize == length && pelnic_memcmp(pVrf, pInfo->pbDigest, digest, length) == 0;
}

static PELNIC_ERROR_CODE startDigest(PELNIC_VRF* pVrf, PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    PELNIC_CRYPTO_MD_CTX digestCtx = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_md_ctx_create(pVrf, &digestCtx);
    if (rc != 0) return rc;
    pInfo->digestCtx = digestCtx; // from here on the entry's to destroy
    rc = pelnic_md_init(pVrf, digestCtx, pInfo->nDigestAlgID);
    return rc != 0 ? rc : pelnic_list_add(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), pInfo, CLSP_END);
}

PELNIC_ERROR_CODE _pnvAddSignerInfoToVerifyProcess(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvGetDigestFromSignerInfo(pVrf, si, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT freeInfo{[&] { _pnvFreeMdInfo(pVrf, pInfo); }};
    const PELNIC_VERIFY_DIGEST_INFO* const pShared = findDigestEntry(pVrf, pInfo->nDigestAlgID);
    if (pShared != nullptr) {
        // The content is hashed once for all signers of an algorithm, so they must claim the same digest.
        if (isSameDigest(pVrf, pShared, pInfo->pbDigest, pInfo->nDigestSize)) return 0;
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_DIGEST_CONFLICT);
    }
    rc = startDigest(pVrf, pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    freeInfo.armed = false;
    return 0;
}

// A copy of the signer's signature value in the entry.
static PELNIC_ERROR_CODE copySignature(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* signature,
                                       PELNIC_VERIFY_DIGEST_INFO* pInfo)
{
    void* block = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_malloc(pVrf, &block, signature->len);
    if (rc != 0) return rc;
    rc = pelnic_memcpy_s(pVrf, block, signature->len, signature->octs, signature->len);
    if (rc != 0) {
        pelnic_free(pVrf, block);
        return rc;
    }
    pInfo->pbSignature = static_cast<PNV_BYTE*>(block);
    pInfo->nSignature = signature->len;
    return 0;
}

PELNIC_ERROR_CODE _pnvCreateVerifyHandle(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si,
                                         const PELNIC_X509_CERT* cert)
{
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    PELNIC_ERROR_CODE rc = _pnvNewRecord(pVrf, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT freeInfo{[&] {
        pelnic_free(pVrf, pInfo->pbSignature);
        pelnic_free(pVrf, pInfo);
    }};
    const PELNIC_AOIDS hashAlgo = hashAlgorithm(pVrf, si->digest_algo);
    if (hashAlgo == AOID_UNKNOWN) rc = PELNIC_ERR_CMS_HASH_ALGO;
    PELNIC_BIGINT e = {};
    PELNIC_BIGINT n = {};
    if (rc == 0) rc = pelnic_x509_extract_public_key(pVrf, cert, &e, &n);
    if (rc != 0) return PNV_FAIL(pVrf, rc);

    PELNIC_CRYPTO_VRF_CTX vrfCtx = nullptr;
    rc = pelnic_verify_ctx_create(pVrf, &vrfCtx);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT destroyCtx{[&] { pelnic_verify_ctx_destory(pVrf, vrfCtx); }};
    rc = pelnic_verify_init(pVrf, vrfCtx, &e, &n, hashAlgo);
    if (rc == 0) rc = copySignature(pVrf, si->encrypted_digest, pInfo);
    if (rc == 0) rc = pelnic_list_add(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), pInfo, CLSP_END);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pInfo->vrfCtx = vrfCtx;
    destroyCtx.armed = false;
    freeInfo.armed = false;
    return 0;
}

// One signer: timestamp, certificate at that time, and either its signed attributes or a check still to come.
static PELNIC_ERROR_CODE verifySigner(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PELNIC_ERROR_CODE rc = _pnvVerifyTimeStamp(pVrf, si);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    const PELNIC_X509_CERT* const cert = _pnvFindAuthorCertBySignerInfo(pVrf, si);
    if (cert == nullptr) rc = PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND;
    if (rc == 0) rc = _pnvVerifyIssuerCert(pVrf, cert, PNV_EKU_CODE_SIGNING);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if (si->auth_attrs == nullptr) {
        rc = _pnvCreateVerifyHandle(pVrf, si, cert);
    } else {
        PNV_INT verdict = 0;
        rc = pelnic_pkcs7_detached_signature_verify(pVrf, si, cert, &verdict);
        if (rc != 0 || verdict != 1) rc = PELNIC_ERR_CMS_SIGNATURE;
        if (rc != 0) return PNV_FAIL(pVrf, rc);
        rc = _pnvAddSignerInfoToVerifyProcess(pVrf, si);
    }
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

PELNIC_ERROR_CODE _pnvVerifyCms(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* p7signed)
{
    (void)_pnvExtractCertsIntoVerifyContext(pVrf, p7signed);
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& signers = p7signed->signed_data->signer_infos->infos;
    for (PNV_UINT32 i = 0; i < signers.num; ++i) {
        if (signers.data[i] == nullptr) continue;
        const PELNIC_ERROR_CODE rc = verifySigner(pVrf, signers.data[i]);
        if (rc != 0) return rc;
    }
    return 0; // also for a signature without signers: it prepares nothing to feed
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

PELNIC_ERROR_CODE pelnic_verify_detach_signature_begin(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbSignature,
                                                       PNV_UINT32 nSigLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbSignature == nullptr || nSigLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    const OperationRun run{pVrf};
    _pnvSyncCrl(pVrf); // whatever becomes of the signature, the CRLs are frozen
    if (nSigLength < MIN_INPUT) return PELNIC_ERR_CMS_FORMAT;
    PELNIC_PKCS7_CONTENT* pContent = nullptr;
    rc = _pnvDecodeCms(pVrf, pbSignature, nSigLength, &pContent);
    if (rc != 0) return rc;
    if (pContent == nullptr) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_NO_SIGNER);
    }
    PNV_SCOPE_EXIT freeContent{[&] { pelnic_pkcs7_free_signed(pVrf, pContent); }};
    if (pContent->signed_data == nullptr || pContent->signed_data->signer_infos == nullptr) {
        return PELNIC_ERR_CMS_NO_SIGNER;
    }
    rc = _pnvVerifyCms(pVrf, pContent);
    if (rc == 0) return 0;
    _pnvReportFaults(pVrf, __func__);
    return PNV_FAIL(pVrf, rc);
}

static PELNIC_ERROR_CODE feedEntry(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo,
                                   const PNV_BYTE* pbContent, PNV_UINT32 nContentLength)
{
    PELNIC_ERROR_CODE rc = 0;
    if (pInfo->digestCtx != nullptr) {
        rc = pelnic_md_update(pVrf, pInfo->digestCtx, pbContent, nContentLength);
    } else if (pInfo->vrfCtx == nullptr) {
        return PELNIC_ERR_CMS_NOT_BEGUN;
    } else {
        rc = pelnic_verify_update(pVrf, pInfo->vrfCtx, pbContent, nContentLength);
    }
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_update(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbContent,
                                                        PNV_INT nContentLength)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (pbContent == nullptr || nContentLength == 0) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    if (entries.num == 0) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_NOT_BEGUN);
    }
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        rc = feedEntry(pVrf, entries.data[i], pbContent, static_cast<PNV_UINT32>(nContentLength));
        if (rc != 0) return rc;
    }
    return 0;
}

// Whether the content's digest is the one claimed.
static PELNIC_ERROR_CODE finishDigest(const PELNIC_VRF* pVrf, const PELNIC_VERIFY_DIGEST_INFO* pInfo,
                                      PNV_INT32* verdict)
{
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    const PELNIC_ERROR_CODE rc = pelnic_md_final(pVrf, pInfo->digestCtx, digest, &length);
    if (rc == 0) *verdict = isSameDigest(pVrf, pInfo, digest, length) ? 1 : 0;
    return rc;
}

static PELNIC_ERROR_CODE finishEntries(const PELNIC_VRF* pVrf, PNV_INT32* result)
{
    const LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO& entries = pVrf->vrf_proc.md_info_list;
    for (PNV_UINT32 i = 0; i < entries.num; ++i) {
        const PELNIC_VERIFY_DIGEST_INFO* const pInfo = entries.data[i];
        if (pInfo == nullptr) continue;
        PNV_INT32 verdict = 0;
        PELNIC_ERROR_CODE rc = 0;
        if (pInfo->digestCtx != nullptr) {
            rc = finishDigest(pVrf, pInfo, &verdict);
            if (rc != 0) return rc;
            if (verdict == 1) continue;
            *result = 0;
            return 0;
        }
        if (pInfo->vrfCtx == nullptr) return PELNIC_ERR_CMS_SIGNATURE;
        rc = pelnic_verify_final(pVrf, pInfo->vrfCtx, pInfo->pbSignature, pInfo->nSignature, &verdict);
        if (rc != 0) return rc;
        *result = verdict; // of several such signers the last one decides
    }
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_final(PELNIC_VRF_CTX ctx, PNV_INT32* result)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (result == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    *result = 1;
    rc = finishEntries(pVrf, result);
    pelnic_list_free(pVrf, _pnvAsList(&pVrf->vrf_proc.md_info_list), freeMdElement);
    if (rc == 0) return 0;
    *result = 0;
    return PNV_FAIL_MSG(pVrf, rc, "Verify Signature Content failed.");
}

static PELNIC_ERROR_CODE feedFile(PELNIC_VRF* pVrf, PNV_FILE_HANDLE file)
{
    void* block = nullptr;
    if (pelnic_malloc(pVrf, &block, CONTENT_BLOCK) != 0 || block == nullptr) return PELNIC_ERR_SYS_MEM_ALLOC;
    PELNIC_ERROR_CODE rc = 0;
    const PNV_BYTE* const content = static_cast<const PNV_BYTE*>(block);
    // A count that the block cannot hold is a read error like any other: the file's end.
    for (size_t got = pelnic_fread(pVrf, block, CONTENT_BLOCK, file); got != 0 && got <= CONTENT_BLOCK && rc == 0;) {
        rc = pelnic_verify_detach_signature_update(pVrf, content, static_cast<PNV_INT>(got));
        if (rc == 0) got = pelnic_fread(pVrf, block, CONTENT_BLOCK, file);
    }
    pelnic_free(pVrf, block);
    return rc;
}

PELNIC_ERROR_CODE _pnvUpdateContent(PELNIC_VRF* pVrf, const PNV_CHAR* srcfile)
{
    if (isEmptyPath(pVrf, srcfile)) return PNV_EMPTY_PATH(pVrf);
    const PNV_FILE_HANDLE file = pelnic_fopen(pVrf, srcfile, "rb");
    PELNIC_ERROR_CODE rc = PELNIC_ERR_SYS_FILE_OPEN;
    if (file == nullptr) return PNV_FAIL_MSG(pVrf, rc, "Can't open file '%s'.", srcfile);
    rc = feedFile(pVrf, file);
    (void)pelnic_fclose(pVrf, file); // nothing was written
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

PELNIC_ERROR_CODE pelnic_verify_detach_signature_quick(PELNIC_VRF_CTX ctx, const PNV_CHAR* srcfile,
                                                       const PNV_CHAR* sigfile, PNV_INT32* result)
{
    PELNIC_ERROR_CODE rc = checkContext(ctx);
    if (rc != 0) return rc;
    PELNIC_VRF* const pVrf = static_cast<PELNIC_VRF*>(ctx);
    if (srcfile == nullptr || sigfile == nullptr || result == nullptr) return PNV_FAIL(pVrf, PELNIC_ERR_NULL_POINTER);
    *result = 0;
    rc = withFile(pVrf, sigfile, [&](const PNV_BYTE* data, PNV_UINT32 size) {
        return pelnic_verify_detach_signature_begin(ctx, data, size);
    });
    if (rc == 0) rc = _pnvUpdateContent(pVrf, srcfile);
    if (rc == 0) rc = pelnic_verify_detach_signature_final(ctx, result);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

static PELNIC_ERROR_CODE hash(const PELNIC_VRF* pVrf, PELNIC_CRYPTO_MD_CTX md, const PNV_BYTE* data, PNV_UINT32 length,
                              PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength)
{
    PELNIC_ERROR_CODE rc = pelnic_md_init(pVrf, md, hashAlgoId);
    if (rc == 0) rc = pelnic_md_update(pVrf, md, data, length);
    return rc != 0 ? rc : pelnic_md_final(pVrf, md, digest, digestLength);
}

PELNIC_ERROR_CODE _pnvHashContent(const PELNIC_VRF* pVrf, const PNV_BYTE* data, PNV_UINT32 length,
                                  PELNIC_AOIDS hashAlgoId, PNV_BYTE* digest, PNV_UINT32* digestLength)
{
    PELNIC_CRYPTO_MD_CTX md = nullptr;
    PELNIC_ERROR_CODE rc = pelnic_md_ctx_create(pVrf, &md);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = hash(pVrf, md, data, length, hashAlgoId, digest, digestLength);
    pelnic_md_ctx_destory(pVrf, md);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
}

// ---- Timestamps

PELNIC_ERROR_CODE _pnvVerifyIssuerCert(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* cert, PNV_UINT32 expExtKu)
{
    PNV_UINT32 usage = 0;
    PELNIC_ERROR_CODE rc = pelnic_x509_cert_get_keyusage(pVrf, cert, &usage);
    if (rc == 0 && (usage & PNV_KU_DIGITAL_SIGNATURE) == 0) rc = PELNIC_ERR_CERT_USAGE;
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = pelnic_x509_cert_get_extend_keyusage(pVrf, cert, &usage);
    if (rc == 0 && (usage & expExtKu) == 0) rc = PELNIC_ERR_CERT_USAGE;
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_BOOL valid = 0;
    rc = pelnic_pki_verify_cert(pVrf, cert, 1, &valid);
    if (rc == 0 && valid != 0) return 0;
    rc = PELNIC_ERR_CERT_VERIFY; // why, only the log has told
    return PNV_FAIL(pVrf, rc);
}

// Whether the imprint is the digest of the signature that the token claims to stamp.
static PELNIC_ERROR_CODE checkImprint(const PELNIC_VRF* pVrf, const PELNIC_TS_MSG_IMPRINT* pImprint,
                                      const PELNIC_ASN_OCTS* signature)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_UNSUPPORTED_ALGO;
    const PELNIC_AOIDS algorithm = hashAlgorithm(pVrf, &pImprint->hash_algo);
    if (algorithm == AOID_UNKNOWN) return PNV_FAIL(pVrf, rc);
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    rc = _pnvHashContent(pVrf, signature->octs, signature->len, algorithm, digest, &length);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    const PELNIC_ASN_OCTS& value = pImprint->hash_value;
    if (value.len == length && pelnic_memcmp(pVrf, value.octs, digest, length) == 0) return 0;
    rc = PELNIC_ERR_TSP_IMPRINT_MISMATCH;
    return PNV_FAIL_MSG(pVrf, rc, "the timestamp not match with target cms.");
}

PELNIC_ERROR_CODE _pnvVerifyTstInfo(PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* encoded_ts_info,
                                    const PELNIC_PKCS7_SIGNER_INFO* si)
{
    PELNIC_TST_INFO* pTstInfo = nullptr;
    PNV_UINT32 decoded = 0;
    PELNIC_ERROR_CODE rc =
        pelnic_decode_timestamp_token(pVrf, encoded_ts_info->octs, encoded_ts_info->len, &pTstInfo, &decoded);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT freeTstInfo{[&] { pelnic_free_timestamp_token(pVrf, pTstInfo); }};
    rc = checkImprint(pVrf, pTstInfo->msg_imprint, si->encrypted_digest);
    if (rc != 0) return rc;
    PELNIC_DATETIME date = {};
    rc = pelnic_convert_from_time(pVrf, pTstInfo->time, &date);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    pVrf->base_time = pelnic_mktime(pVrf, &date); // stays, even if the token fails later
    return 0;
}

// The signature over the attributes, and their digest of the TSTInfo.
static PELNIC_ERROR_CODE verifyTsAttributes(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                            const PELNIC_X509_CERT* cert, const PELNIC_ASN_OCTS* encoded_ts_info)
{
    PNV_INT verdict = 0;
    PELNIC_ERROR_CODE rc = pelnic_pkcs7_detached_signature_verify(pVrf, si_ts, cert, &verdict);
    if (rc != 0 || verdict != 1) {
        return PNV_FAIL(pVrf, PELNIC_ERR_CMS_SIGNATURE);
    }
    PELNIC_VERIFY_DIGEST_INFO* pInfo = nullptr;
    rc = _pnvGetDigestFromSignerInfo(pVrf, si_ts, &pInfo);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT freeInfo{[&] { _pnvFreeMdInfo(pVrf, pInfo); }};
    PNV_BYTE digest[MAX_DIGEST] = {};
    PNV_UINT32 length = 0;
    rc = _pnvHashContent(pVrf, encoded_ts_info->octs, encoded_ts_info->len, pInfo->nDigestAlgID, digest, &length);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    if (isSameDigest(pVrf, pInfo, digest, length)) return 0;
    rc = PELNIC_ERR_TSP_VERIFY;
    return PNV_FAIL_MSG(pVrf, rc, "verify timestamp failed.");
}

// The signature over the TSTInfo itself.
static PELNIC_ERROR_CODE verifyTsDirectly(const PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                          const PELNIC_X509_CERT* cert, const PELNIC_ASN_OCTS* encoded_ts_info)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_HASH_ALGO;
    const PELNIC_AOIDS hashAlgo = hashAlgorithm(pVrf, si_ts->digest_algo);
    if (hashAlgo == AOID_UNKNOWN) return PNV_FAIL(pVrf, rc);
    PELNIC_PUBKEY* pPubKey = nullptr;
    rc = pelnic_decode_pubkey(pVrf, cert->toBeSigned->subjectPubKey, &pPubKey);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_BOOL verified = 0;
    rc = pelnic_x509_pkey_verify(pVrf, encoded_ts_info->octs, encoded_ts_info->len, si_ts->encrypted_digest->octs,
                                 si_ts->encrypted_digest->len, pPubKey, hashAlgo, &verified);
    pelnic_free_pubkey(pVrf, pPubKey);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return verified == 1 ? 0 : PELNIC_ERR_TSP_VERIFY;
}

PELNIC_ERROR_CODE _pnvVerifyTsSignerInfo(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si_ts,
                                         const PELNIC_ASN_OCTS* encoded_ts_info)
{
    PELNIC_ERROR_CODE rc = PELNIC_ERR_TSP_CERT_NOT_FOUND;
    const PELNIC_X509_CERT* const cert = _pnvFindAuthorCertBySignerInfo(pVrf, si_ts);
    if (cert == nullptr) return PNV_FAIL(pVrf, rc);
    rc = _pnvVerifyIssuerCert(pVrf, cert, PNV_EKU_TIME_STAMPING);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    // An empty set of attributes counts as none here, unlike for the signers of content.
    const bool hasAttributes = si_ts->auth_attrs != nullptr && si_ts->auth_attrs->attrs.num != 0;
    return hasAttributes ? verifyTsAttributes(pVrf, si_ts, cert, encoded_ts_info)
                         : verifyTsDirectly(pVrf, si_ts, cert, encoded_ts_info);
}

// The token's TSTInfo and, with a good one, its signers. A token without signers passes.
static PELNIC_ERROR_CODE verifyToken(PELNIC_VRF* pVrf, const PELNIC_PKCS7_CONTENT* token,
                                     const PELNIC_PKCS7_SIGNER_INFO* si)
{
    const PELNIC_PKCS7_CONTENT_INFO* const pInfo = token->signed_data->content;
    PELNIC_ERROR_CODE rc = PELNIC_ERR_TSP_DECODE;
    if (pInfo == nullptr || pInfo->content == nullptr) return PNV_FAIL(pVrf, rc);
    PELNIC_ASN_OCTS* encoded_ts_info = nullptr;
    PNV_UINT32 decoded = 0;
    rc = _pnvDecode<PELNIC_ASN_OCTS_item>(pVrf, pInfo->content->octs, pInfo->content->len, 0, &encoded_ts_info,
                                          &decoded);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    PNV_SCOPE_EXIT freeEncoded{[&] { pelnic_asn_free(pVrf, encoded_ts_info, &PELNIC_ASN_OCTS_item, 0); }};
    rc = _pnvVerifyTstInfo(pVrf, encoded_ts_info, si);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    (void)_pnvExtractCertsIntoVerifyContext(pVrf, token);
    const PELNIC_PKCS7_SIGNER_INFO_BUNDLE* const pSigners = token->signed_data->signer_infos;
    for (PNV_UINT32 i = 0; pSigners != nullptr && i < pSigners->infos.num && rc == 0; ++i) {
        rc = _pnvVerifyTsSignerInfo(pVrf, pSigners->infos.data[i], encoded_ts_info);
    }
    return rc;
}

PELNIC_ERROR_CODE _pnvVerifyTimeStamp(PELNIC_VRF* pVrf, const PELNIC_PKCS7_SIGNER_INFO* si)
{
    void* pResult = nullptr;
    PELNIC_ERROR_CODE rc =
        pelnic_x509_extract_attribute(pVrf, si->unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &pResult);
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    rc = verifyToken(pVrf, static_cast<const PELNIC_PKCS7_CONTENT*>(pResult), si);
    pelnic_x509_free_attribute(pVrf, pResult, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    return rc;
}

// ---- CRL bundles

constexpr PNV_UINT32 MAX_SERIAL = sizeof(PELNIC_SERIAL_NUM::sn);

// False, and nothing copied, for a serial number of no or more than 32 octets.
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
    void* block = nullptr;
    const PELNIC_ERROR_CODE rc = pelnic_malloc_with0(pVrf, &block, static_cast<PNV_UINT32>(size));
    if (rc != 0) return rc;
    pRevokeList->sn_list = static_cast<PELNIC_SERIAL_NUM*>(block);
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

// What the issuer's certificate adds to a summary. It is judged at the moment the CRL was issued.
static void describeIssuer(PELNIC_VRF* pVrf, const PELNIC_X509_CERT* issuer, const PELNIC_X509_REVOKED* revoked,
                           PELNIC_CRL_INFO* pInfo)
{
    pVrf->base_time = pInfo->update_time; // and left there
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

// Decodes a bundle and hands its objects to the context.
static PELNIC_ERROR_CODE takeInBundle(PELNIC_VRF* pVrf, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength,
                                      DECODED_INPUT* input)
{
    const FaultWatch watch{pVrf};
    const PELNIC_ERROR_CODE rc = _pnvDecodeCertCrl(pVrf, pbCrl, nCrlLength, &input->certs, &input->crls);
    if (rc != 0 || input->crls.num == 0) return PELNIC_ERR_CRL_DECODE;
    if (input->crls.num > PELNIC_CRL_BUNDLE_MAX) return PELNIC_ERR_CRL_TOO_MANY;
    spoilIfFailed(pVrf, watch);
    if (_pnvAddCrlToStore(pVrf, &input->crls) != 0 || _pnvAddCertToStore(pVrf, &input->certs) != 0) {
        return PELNIC_ERR_CRL_DECODE;
    }
    copyCrlsIntoPki(pVrf); // the list is kept, and nothing is frozen: what fails here is tried again by begin
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
        if (_pnvGetCrlInfo(pVrf, crls.data[i], slot) == 0) ++pBundle->crl_count; // one without memory is left out
    }
    // What a failing callback left out may be what makes the other bundle newer: such a summary compares with none.
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
    DECODED_INPUT input = {};
    PNV_SCOPE_EXIT freeLists{[&] { freeInput(pVrf, &input); }};
    rc = initInput(pVrf, &input);
    if (rc == 0) rc = takeInBundle(pVrf, pbCrl, nCrlLength, &input);
    if (rc == 0) rc = summarise(pVrf, input.crls, ppResult);
    _pnvReportFaults(pVrf, __func__); // also of a summary in which nothing is valid for that
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
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

// Summaries may be a caller's own: everything in them is read within its bounds.
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

// Whether the newer bundle still has the old entry's issuer, or a reason not to. Only the first revoke list that is met
// on the way counts as the root's.
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
    if (rc != 0) return PNV_FAIL(pVrf, rc);
    return 0;
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
