/*
 * Verification of detached CMS signatures (RFC 5652) whose signers carry an RFC 3161 timestamp.
 *
 * The library reaches memory, strings, files, logging and cryptography only through the table of callbacks that the
 * caller supplies when it creates a verify context. It reads no configuration, keeps no global state and consults no
 * clock: everything is judged at the time of the signer's timestamp.
 *
 * A verification, in the order of the calls:
 *
 *     PELNIC_CTX_CREATE_PARAMS params = {.st_size = sizeof params};
 *     pelnic_set_callback_funcs(&params.callback_funcs);            or a table of your own
 *     pelnic_verify_create_ctx(&ctx, &params);
 *     pelnic_verify_add_cert(ctx, root, rootLength);                trust anchors
 *     pelnic_verify_add_crl(ctx, crl, crlLength);
 *     pelnic_verify_detach_signature_begin(ctx, cms, cmsLength);
 *     pelnic_verify_detach_signature_update(ctx, part, partLength); once per part
 *     pelnic_verify_detach_signature_final(ctx, &result);           accept only code 0 and result 1
 *     pelnic_vrf_ctx_free(ctx);
 *
 * A context belongs to one thread at a time. Every operation on a context first checks the handle: null gives
 * PELNIC_ERR_NULL_POINTER, and a handle that is not a context of this version gives PELNIC_ERR_INVALID_SIZE; neither is
 * logged. Other failures are reported to the log callback and their code is returned.
 *
 * A failing callback never turns a refusal into an acceptance, neither in the same operation nor in a later one:
 * - An operation that reports its failure has lost nothing. Repeat it, or continue without it.
 * - A begin during which a callback failed accepts nothing. The next begin on the same context is not affected.
 * - An operation that returns 0 although it had to leave out a certificate or CRL spoils the context, because the
 * missing object may be the one that revokes. The context accepts nothing any more; create a new one. When nothing is
 * accepted for this reason, a log record with PELNIC_ERR_SYS_MEM_ALLOC and a sentence says so.
 */
#ifndef PELNIC_CMS_VERIFY_H
#define PELNIC_CMS_VERIFY_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define PELNIC_API __attribute__((visibility("default")))
#else
#define PELNIC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version --------------------------------------------------------------------------------------------------- */

/* The version of this header, the library and its packages; CHANGELOG.md explains a change of each part. */
#define CMSVERIFY_VERSION_MAJOR 1
#define CMSVERIFY_VERSION_MINOR 0
#define CMSVERIFY_VERSION_PATCH 0
#define CMSVERIFY_VERSION "1.0.0"

/* ---- Primitive types ------------------------------------------------------------------------------------------- */

typedef uint32_t PNV_UINT32;
typedef int32_t PNV_INT32;
typedef int32_t PNV_INT;
typedef uint32_t PNV_UINT;
typedef uint16_t PNV_UINT16;
typedef int64_t PNV_INT64;
typedef uint64_t PNV_UINT64;
typedef uint8_t PNV_BYTE;
typedef char PNV_CHAR;      /* compile callbacks that use it with -fsigned-char, as the library is */
typedef uint32_t PNV_BOOL;  /* 0 false, 1 true */
typedef int64_t PNV_TIME_T; /* seconds since 1970-01-01 00:00:00 UTC */

typedef void* PNV_FILE_HANDLE; /* owned by the file callbacks */
typedef void* PNV_THREAD_ID;

typedef PNV_UINT32 PELNIC_ERROR_CODE; /* 0 is success */

/* ---- Result codes: 0x88, module, area, serial ------------------------------------------------------------------ */

/* The generic failure: a difference in a comparison, a missing context or callback, a check without its own code. */
#define PELNIC_ERR_FAILED 0xFFFFFFFFu

/* Platform services */
#define PELNIC_ERR_SYS_MEM_ALLOC 0x88000001u      /* memory could not be allocated */
#define PELNIC_ERR_SYS_MEM_SET 0x88000003u        /* memset failed on a newly allocated verify context */
#define PELNIC_ERR_SYS_MEM_OVERFLOW 0x880000FFu   /* a fill, move or copy exceeds the destination */
#define PELNIC_ERR_SYS_FILE_OPEN 0x88000101u      /* a file could not be opened; logged for an empty path */
#define PELNIC_ERR_SYS_FILE_READ 0x88000102u      /* fewer octets read than the file has */
#define PELNIC_ERR_SYS_FILE_EMPTY 0x88000104u     /* file size 0 */
#define PELNIC_ERR_SYS_FILE_TOO_LARGE 0x88000106u /* file larger than 2,000,000 octets */
#define PELNIC_ERR_SYS_BUF_END 0x88000201u        /* read at or beyond the end of a byte buffer */
#define PELNIC_ERR_SYS_BUF_POS 0x88000202u        /* buffer cursor before the requested position */
#define PELNIC_ERR_SYS_DB_APPEND 0x88000203u      /* appending to a data block failed */
#define PELNIC_ERR_SYS_TIME_FORMAT 0x88000301u    /* a time does not end in 'Z' or is neither of the two time types */
#define PELNIC_ERR_SYS_BASE64 0x88000302u         /* malformed Base64 text */
#define PELNIC_ERR_SYS_STR_OVERFLOW 0x880004FFu   /* a string does not fit; logged for an over-long name attribute */

/* Interface arguments */
#define PELNIC_ERR_NULL_POINTER 0x88100001u     /* a required argument is null or a length is 0 */
#define PELNIC_ERR_INVALID_SIZE 0x88100002u     /* a size field does not equal the structure's size */
#define PELNIC_ERR_CALLBACK_MISSING 0x88100003u /* a required callback is null */
#define PELNIC_ERR_NO_PKI 0x88100004u           /* the verify context has no PKI object */

/* Verification: certificates and chains */
#define PELNIC_ERR_CERT_DUPLICATE 0x88200001u     /* already in the store (callers treat this as success) */
#define PELNIC_ERR_CERT_REVOKED 0x88200002u       /* revoked by a CRL */
#define PELNIC_ERR_CERT_NO_ISSUER 0x88200004u     /* no issuer in the trust store, no trust store, or no root */
#define PELNIC_ERR_CERT_SIGNATURE 0x88200005u     /* wrong issuer signature, or another issuer already recorded */
#define PELNIC_ERR_CERT_ROOT_IN_CMS 0x88200006u   /* self-signed certificate in a CMS or token (logged, not returned) */
#define PELNIC_ERR_CERT_USAGE 0x88200007u         /* (extended) key usage does not allow the required use */
#define PELNIC_ERR_CERT_INVALID 0x88200008u       /* malformed or unusable certificate data */
#define PELNIC_ERR_CERT_VERIFY 0x88200009u        /* certificate verification failed; algorithms differ */
#define PELNIC_ERR_CERT_VERSION 0x88200010u       /* certificate version lower than 3 where a CA is needed */
#define PELNIC_ERR_CERT_NOT_CA 0x88200011u        /* a certificate given as trust anchor is not a CA */
#define PELNIC_ERR_CRL_NOT_FOUND 0x88200012u      /* no CRL found for a certificate */
#define PELNIC_ERR_CERT_NOT_YET_VALID 0x88200013u /* verification time before notBefore */
#define PELNIC_ERR_CERT_EXPIRED 0x88200014u       /* verification time after notAfter */
#define PELNIC_ERR_UNSUPPORTED_DIGEST 0x88200015u /* no digest algorithm for the signature algorithm */
#define PELNIC_ERR_UNSUPPORTED_ALGO 0x88200016u   /* algorithm not supported */
#define PELNIC_ERR_NO_KEY_USAGE 0x88200017u       /* key usage extension missing or empty */
#define PELNIC_ERR_PATH_TOO_DEEP 0x88200018u      /* nested certificate verification deeper than the limit */

/* Verification: CRLs */
#define PELNIC_ERR_CRL_FROZEN 0x88200101u           /* a CRL was added after verification began */
#define PELNIC_ERR_CRL_DECODE 0x88200102u           /* CRL input not decodable, without CRL, or not storable */
#define PELNIC_ERR_CRL_EXPIRED 0x88200103u          /* nextUpdate before the verification time (logged, not returned) */
#define PELNIC_ERR_CRL_VERIFY 0x88200104u           /* CRL signature failed, or no candidate with a verifiable issuer */
#define PELNIC_ERR_CRL_EMPTY_BUNDLE 0x88200105u     /* a CRL bundle to compare holds no CRL */
#define PELNIC_ERR_CRL_INVALID_ENTRY 0x88200106u    /* a CRL bundle entry is null or not valid */
#define PELNIC_ERR_CRL_DUPLICATE 0x88200107u        /* the CRL is already in the store */
#define PELNIC_ERR_CRL_TOO_MANY 0x88200108u         /* a CRL input holds more than 16 CRLs */
#define PELNIC_ERR_CRL_DUPLICATE_ISSUER 0x88200109u /* two CRLs of one bundle have the same issuer */
#define PELNIC_ERR_CRL_ISSUER_DROPPED 0x88200110u   /* the newer bundle lacks an issuer that the older one had */
#define PELNIC_ERR_CRL_NO_IDP 0x88200601u           /* no issuing distribution point extension */

/* Verification: CMS and timestamps */
#define PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND 0x88200301u /* no certificate for a signer's issuer and serial */
#define PELNIC_ERR_CMS_NO_MESSAGE_DIGEST 0x88200302u     /* signed attributes without message digest */
#define PELNIC_ERR_CMS_DIGEST_CONFLICT 0x88200303u       /* two signers with one algorithm claim different digests */
#define PELNIC_ERR_CMS_FORMAT 0x88200305u                /* input under 38 octets or malformed PEM armour */
#define PELNIC_ERR_CMS_DIGEST_ALGO 0x88200306u           /* digest algorithm is not SHA-256, SHA-384 or SHA-512 */
#define PELNIC_ERR_CMS_NOT_BEGUN 0x88200307u             /* content fed with no verification in progress */
#define PELNIC_ERR_CMS_NO_SIGNER 0x88200308u             /* nothing decoded, or no signed data or signer infos */
#define PELNIC_ERR_CMS_SIGNATURE 0x88200309u             /* a signature check failed */
#define PELNIC_ERR_CMS_HASH_ALGO 0x88200310u             /* digest algorithm unsupported by a verification handle */
#define PELNIC_ERR_CMS_DECODE 0x88200312u                /* CMS, certificate inside it, or attribute not decodable */
#define PELNIC_ERR_TSP_CERT_NOT_FOUND 0x88200401u        /* timestamp authority's certificate not found */
#define PELNIC_ERR_TSP_IMPRINT_MISMATCH 0x88200402u      /* message imprint does not match the stamped signature */
#define PELNIC_ERR_TSP_VERIFY 0x88200403u                /* the token's own signature or digest does not verify */
#define PELNIC_ERR_TSP_DECODE 0x88200404u                /* token without content, or TSTInfo not decodable */

/* ASN.1 decoding */
#define PELNIC_ERR_ASN_DECODE 0x88300000u       /* any failure of a top-level decode */
#define PELNIC_ERR_ASN_TAG 0x88300001u          /* a tag cannot be read, or is not the expected header */
#define PELNIC_ERR_ASN_PEEK_TAG 0x88300002u     /* a tag cannot be peeked */
#define PELNIC_ERR_ASN_TAG_MISMATCH 0x88300003u /* unexpected tag */
#define PELNIC_ERR_ASN_LENGTH 0x88300101u       /* indefinite, more than four octets, or beyond the input */
#define PELNIC_ERR_ASN_OCTS 0x88300201u         /* a primitive value cannot be decoded */
#define PELNIC_ERR_ASN_PEEK_OCTS 0x88300202u    /* a raw element cannot be kept */
#define PELNIC_ERR_ASN_ANY 0x88300301u          /* an ANY field's selector has no entry in its map */
#define PELNIC_ERR_ASN_ANY_ABSENT 0x88300302u   /* an optional ANY is absent (internal) */
#define PELNIC_ERR_ASN_CHOICE 0x88300303u       /* no CHOICE alternative matches */
#define PELNIC_ERR_ASN_SEQ 0x88300401u          /* SEQUENCE length does not add up, or a mandatory field is missing */
#define PELNIC_ERR_ASN_BITS 0x88300501u         /* malformed BIT STRING */
#define PELNIC_ERR_ASN_INT 0x88300601u          /* small INTEGER or ENUMERATED of length 0 or more than 4 */
#define PELNIC_ERR_ASN_SETOF 0x88300701u        /* a SET OF element fails, or the elements do not fill the content */
#define PELNIC_ERR_ASN_BOOL 0x88300801u         /* BOOLEAN content length not 1 */

/* ---- Identifiers and values that cross the callbacks ----------------------------------------------------------- */

/* Algorithm and attribute identifiers; the SHA-2 members are the hash identifiers for the crypto callbacks. */
typedef enum pelnic_aoids_em {
    AOID_UNKNOWN = 0,
    AOID_RSA = 34,
    AOID_ECDSA = 36,
    AOID_SHA256 = 43,
    AOID_SHA384 = 44,
    AOID_SHA512 = 45,
    AOID_SHA256WITHRSAENCRYPTION = 63,
    AOID_SHA384WITHRSAENCRYPTION = 64,
    AOID_SHA512WITHRSAENCRYPTION = 65,
    AOID_AT = 155,
    AOID_AT_COMMONNAME = 161,
    AOID_AT_LOCALITYNAME = 162,
    AOID_AT_STATEORPROVINCENAME = 163,
    AOID_AT_ORGANIZATIONNAME = 164,
    AOID_AT_ORGANIZATIONALUNITNAME = 165,
    AOID_AT_COUNTRYNAME = 168,
    AOID_PKCS9_AT_EMAILADDRESS = 172,
    AOID_CE_AUTHORITYKEYIDENTIFIER = 174,
    AOID_CE_SUBJECTKEYIDENTIFIER = 175,
    AOID_CE_KEYUSAGE = 176,
    AOID_CE_BASICCONSTRAINTS = 184,
    AOID_CE_EXTKEYUSAGE = 188,
    AOID_KP_CODESIGNING = 192,
    AOID_KP_TIMESTAMPING = 193,
    AOID_CE_ISSUINGDISTRIBUTIONPOINT = 202,
    AOID_CE_CRLREASONS = 204,
    AOID_PKCS7 = 262,
    AOID_PKCS7_SIGNEDDATA = 264,
    AOID_PKCS9 = 269,
    AOID_PKCS9_AT_CONTENTTYPE = 270,
    AOID_PKCS9_AT_MESSAGEDIGEST = 271,
    AOID_PKCS9_AT_SIGNINGTIME = 272,
    AOID_PKCS9_AT_TIMESTAMP_TOKEN = 307
} PELNIC_AOIDS;

typedef enum pelnic_log_type_em {
    PELNIC_LOG_TYPE_ERROR = 0,
    PELNIC_LOG_TYPE_WARNING = 1,
    PELNIC_LOG_TYPE_INFO = 2,
    PELNIC_LOG_TYPE_DEBUG = 3
} PELNIC_LOG_TYPE;

/* An RSA modulus or exponent of up to 4096 bits. */
typedef struct pelnic_bigint_st {
    PNV_UINT32 uiLength; /* octets used in aVal */
    PNV_BYTE aVal[512];  /* big-endian magnitude */
} PELNIC_BIGINT;

/* A broken-down UTC time. */
typedef struct pelnic_datetime_st {
    PNV_UINT16 uYear;
    PNV_BYTE uMonth; /* 1 to 12 */
    PNV_BYTE uDay;
    PNV_BYTE uHour;
    PNV_BYTE uMinute;
    PNV_UINT16 uMillSecond;
    PNV_BYTE uSecond;
    PNV_BYTE uUtcFlag; /* the offset fields are always 0: only UTC is accepted */
    PNV_BYTE uUtcHour;
    PNV_BYTE uUtcMinute;
} PELNIC_DATETIME;

/* ---- Callback table -------------------------------------------------------------------------------------------- */

/*
 * The library calls all callbacks on its caller's thread, and treats every result but success as a failure. Pointers
 * are null only where stated here, or together with a length of 0; refuse null pointers nevertheless, as the defaults
 * do. Arguments belong to the library and are valid during the call only. The exceptions are blocks from malloc,
 * handles from fopen and contexts from the two create callbacks: the library keeps them and returns each exactly once.
 * The number and sizes of blocks are not promised; a block allocated in one call is freed in one call.
 */

/*
 * Allocates size octets into *out; the library releases the block with pnv_func_free. A size of 0 may succeed with a
 * null block. Returns 0, or without memory a code of your choice, such as PELNIC_ERR_SYS_MEM_ALLOC. Not every caller
 * sees that code: decoding replaces it with PELNIC_ERR_ASN_DECODE, and an operation for which the input is then
 * undecodable returns PELNIC_ERR_CMS_DECODE or PELNIC_ERR_CRL_DECODE.
 */
typedef PELNIC_ERROR_CODE (*pnv_func_malloc)(void** out, PNV_UINT32 size);
/*
 * As C11, K.3.7: fill, move (areas may overlap) and copy count octets. Returns 0, or another code and an untouched dest
 * if count exceeds destMax, destMax is 0 or a pointer is null.
 */
typedef PELNIC_ERROR_CODE (*pnv_func_memset_s)(void* dest, size_t destMax, PNV_INT c, size_t count);
typedef PELNIC_ERROR_CODE (*pnv_func_memmove_s)(void* dest, size_t destMax, const void* src, size_t count);
typedef PELNIC_ERROR_CODE (*pnv_func_memcpy_s)(void* dest, size_t destMax, const void* src, size_t count);
/* Frees a block of pnv_func_malloc; never called with null. */
typedef void (*pnv_func_free)(void* p);
/* Compares n octets. Returns 0 if they are equal, -1 for a null pointer, else any other value. */
typedef PNV_INT (*pnv_func_memcmp)(const void* a, const void* b, size_t n);

/* Compares at most n characters. Returns 0 if they are equal, -1 for a null pointer, else any other value. */
typedef PNV_INT (*pnv_func_strncmp)(const PNV_CHAR* a, const PNV_CHAR* b, size_t n);
/* Returns the first needle in hay, or null if there is none or a pointer is null. */
typedef const PNV_CHAR* (*pnv_func_strstr)(const PNV_CHAR* hay, const PNV_CHAR* needle);
/* Returns the first such character in s, or null if there is none or s is null. */
typedef PNV_CHAR* (*pnv_func_strchr)(PNV_CHAR* s, PNV_CHAR c);
/* Returns the number of characters before the terminating zero; for null 0xFFFFFFFF, which fits nowhere. */
typedef PNV_UINT32 (*pnv_func_strlen)(const PNV_CHAR* s);
/* Returns 0 if the strings are equal, -1 for a null pointer, else any other value; the sign does not matter. */
typedef PNV_INT (*pnv_func_strcmp)(const PNV_CHAR* a, const PNV_CHAR* b);
/*
 * As C11, K.3.7: copy and append a string with its terminating zero. Returns 0, or another code if the result does not
 * fit in destMax or a pointer is null.
 */
typedef PELNIC_ERROR_CODE (*pnv_func_strcpy_s)(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src);
typedef PELNIC_ERROR_CODE (*pnv_func_strcat_s)(PNV_CHAR* dest, size_t destMax, const PNV_CHAR* src);
/*
 * Writes at most count characters and a terminating zero. Returns the number of characters; the library treats zero and
 * negative values as failures. Fail for a null pointer. Used for log messages only.
 */
typedef PNV_INT (*pnv_func_vsnprintf_s)(PNV_CHAR* dest, size_t destMax, size_t count, const PNV_CHAR* format,
                                        va_list args);

/* Opens a file, always with the mode "rb". Returns a handle for the three callbacks below, or null on failure. */
typedef PNV_FILE_HANDLE (*pnv_func_fopen)(const PNV_CHAR* path, const PNV_CHAR* mode);
/* Returns the number of octets read, fewer than size at the end of the file and after an error. */
typedef size_t (*pnv_func_fread)(void* buf, size_t size, PNV_FILE_HANDLE h);
/* Closes a handle of fopen, exactly once. The result is ignored: files are only read. */
typedef PELNIC_ERROR_CODE (*pnv_func_fclose)(PNV_FILE_HANDLE h);
/* Returns the file's size and keeps its position; if the size is unknown 0xFFFFFFFF, which is too large. */
typedef PNV_UINT64 (*pnv_func_get_file_size)(PNV_FILE_HANDLE h);

/* Returns a name of the calling thread for log records; may be null. The library passes it on without using it. */
typedef PNV_THREAD_ID (*pnv_func_get_thread_id)(void);
/* Returns the time for log records; no verdict depends on it. */
typedef PNV_TIME_T (*pnv_func_get_utc_time)(void);
/* Never called. */
typedef PNV_TIME_T (*pnv_func_mktime)(const PELNIC_DATETIME* date);

/*
 * Receives errors and warnings. rc is 0 if there is no code; message may be empty or, without memory, the bare format,
 * or null for a record without words of its own. thread is null and time is 0 without the two callbacks above. Must not
 * call the library on the same context.
 */
typedef void (*func_pelnic_log_callback)(PELNIC_LOG_TYPE log_level, const PNV_CHAR* filename, PNV_INT line,
                                         const PNV_CHAR* function, PNV_THREAD_ID thread, PNV_TIME_T time,
                                         PELNIC_ERROR_CODE rc, const PNV_CHAR* message);

typedef void* PELNIC_CRYPTO_MD_CTX;  /* owned by the digest callbacks */
typedef void* PELNIC_CRYPTO_VRF_CTX; /* owned by the verification callbacks */

/*
 * RSA PKCS #1 v1.5 signature verification (RFC 8017, 8.2.2): create, init, update, final, destory.
 *
 * A code other than 0 means "could not answer", for example without memory; nothing is accepted on such ground. A key
 * or signature that the engine refuses is an answer: init, update and final return 0, and the verdict is 0. Packages
 * may carry any unused key (an exponent of 1, an even modulus, 64 bits).
 */
/* Creates a context in *out; ctx_destory gets it exactly once, whatever init, update and final return. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_verify_ctx_create)(PELNIC_CRYPTO_VRF_CTX* out);
/* Takes exponent, modulus and AOID_SHA256, AOID_SHA384 or AOID_SHA512; returns a code for any other hash_id. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_verify_init)(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT* e,
                                                      const PELNIC_BIGINT* n, PNV_UINT32 hash_id);
/* Takes the next part of the message; data may be null when len is 0. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_verify_update)(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* data,
                                                        PNV_UINT32 len);
/* The code says whether the check ran; *result is the verdict, and only the value 1 accepts. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_verify_final)(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature,
                                                       PNV_UINT32 len, PNV_INT* result);
/* Releases the context; ignores null. */
typedef void (*pfunc_pelnic_verify_ctx_destory)(PELNIC_CRYPTO_VRF_CTX ctx);

/* Message digests (FIPS 180-4): create, init, update, final, destory, under the rules above. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_md_ctx_create)(PELNIC_CRYPTO_MD_CTX* out);
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_md_init)(PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 hash_id);
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_md_update)(PELNIC_CRYPTO_MD_CTX ctx, const PNV_BYTE* data, PNV_UINT32 len);
/* Writes the digest into a buffer of 64 octets, and its length into *len. */
typedef PELNIC_ERROR_CODE (*pfunc_pelnic_md_final)(PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len);
typedef void (*pfunc_pelnic_md_ctx_destory)(PELNIC_CRYPTO_MD_CTX ctx);

typedef struct pelnic_sys_mem_funcs_st {
    pnv_func_malloc malloc;
    pnv_func_memset_s memset_s;
    pnv_func_memmove_s memmove_s;
    pnv_func_memcpy_s memcpy_s;
    pnv_func_free free;
    pnv_func_memcmp memcmp;
} PELNIC_SYS_MEM_FUNCS;

typedef struct pelnic_sys_str_funcs_st {
    pnv_func_strncmp pf_strncmp;
    pnv_func_strstr pf_strstr;
    pnv_func_strchr pf_strchr;
    pnv_func_strlen pf_strlen;
    pnv_func_strcmp pf_strcmp;
    pnv_func_strcpy_s pf_strcpy_s;
    pnv_func_strcat_s pf_strcat_s;
    pnv_func_vsnprintf_s pf_vsnprintf_s; /* may be null when log_func is */
} PELNIC_SYS_STR_FUNCS;

typedef struct pelnic_sys_file_funcs_st {
    pnv_func_fopen fopen;
    pnv_func_fread fread;
    pnv_func_fclose fclose;
    pnv_func_get_file_size get_file_size; /* may be null when no file operation is used */
} PELNIC_SYS_FILE_FUNCS;

/* The spelling of the name is part of the interface. All three may be null. */
typedef struct pelnic_sys_plantform_funcs_st {
    pnv_func_get_thread_id get_thread_id;
    pnv_func_get_utc_time get_utc_time; /* for log records only */
    pnv_func_mktime mktime;             /* never called: the library computes dates itself */
} PELNIC_SYS_PLANTFORM_FUNCS;

typedef struct pelnic_sys_funcs_st {
    size_t st_size; /* sizeof(PELNIC_SYS_FUNCS) */
    PELNIC_SYS_MEM_FUNCS mem_funcs;
    PELNIC_SYS_STR_FUNCS str_funcs;
    PELNIC_SYS_FILE_FUNCS file_funcs;
    PELNIC_SYS_PLANTFORM_FUNCS plt_funcs;
} PELNIC_SYS_FUNCS;

typedef struct pelnic_log_funcs_st {
    func_pelnic_log_callback log_func; /* may be null: the library is then silent */
} PELNIC_LOG_FUNCS;

typedef struct pelnic_plt_funcs_st {
    size_t st_size; /* sizeof(PELNIC_PLT_FUNCS) */
    PELNIC_SYS_FUNCS sys_funcs;
    PELNIC_LOG_FUNCS log_funcs;
} PELNIC_PLT_FUNCS;

/* `destory` is part of the interface in every name that carries it. */
typedef struct pelnic_crypto_funcs_st {
    size_t size; /* sizeof(PELNIC_CRYPTO_FUNCS) */
    pfunc_pelnic_verify_ctx_create pelnic_verify_ctx_create;
    pfunc_pelnic_verify_init pelnic_verify_init;
    pfunc_pelnic_verify_update pelnic_verify_update;
    pfunc_pelnic_verify_final pelnic_verify_final;
    pfunc_pelnic_verify_ctx_destory pelnic_verify_ctx_destory;
} PELNIC_CRYPTO_FUNCS;

typedef struct pelnic_md_funcs_st {
    size_t size; /* sizeof(PELNIC_MD_FUNCS) */
    pfunc_pelnic_md_ctx_create pelnic_md_ctx_create;
    pfunc_pelnic_md_init pelnic_md_init;
    pfunc_pelnic_md_update pelnic_md_update;
    pfunc_pelnic_md_final pelnic_md_final;
    pfunc_pelnic_md_ctx_destory pelnic_md_ctx_destory;
} PELNIC_MD_FUNCS;

typedef struct pelnic_callback_funcs_st {
    size_t st_size; /* sizeof(PELNIC_CALLBACK_FUNCS) */
    PELNIC_PLT_FUNCS plt_funcs;
    PELNIC_CRYPTO_FUNCS crypt_funcs;
    PELNIC_MD_FUNCS md_funcs;
} PELNIC_CALLBACK_FUNCS;

/* ---- Context --------------------------------------------------------------------------------------------------- */

typedef void* PELNIC_VRF_CTX; /* a verify context */

typedef struct pelnic_ctx_create_params_st {
    size_t st_size; /* sizeof(PELNIC_CTX_CREATE_PARAMS) */
    PELNIC_CALLBACK_FUNCS callback_funcs;
    PNV_CHAR resv[64];
} PELNIC_CTX_CREATE_PARAMS;

typedef struct pelnic_vrf_params_st {
    size_t st_size;       /* sizeof(PELNIC_VRF_PARAMS) */
    PNV_INT no_check_crl; /* non-zero switches the revocation check off; 0 is the default */
    PNV_CHAR resv[64];
} PELNIC_VRF_PARAMS;

/*
 * Fills a callback table with the default implementations: libc, the platform's bounds-checked string library and
 * OpenSSL's libcrypto. The defaults are silent and provide neither thread identity nor clock. Contexts may run on
 * several threads in parallel with each other and with any other use of OpenSSL; the library clears the calling
 * thread's error queue.
 *
 * funcs: the caller's table, overwritten completely.
 * Returns 0, or a plain 1 (not a code of the table above) if funcs is null.
 */
PELNIC_API PNV_UINT32 pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs);

/*
 * Creates a verify context with a copy of the caller's callback table; CRL checking is on.
 *
 * pCtx: receives the context; the caller releases it with pelnic_vrf_ctx_free. A failure before the context exists
 *     leaves it untouched; a later failure sets it to null.
 * pParams: not kept.
 * Returns 0 or, unlogged:
 *     PELNIC_ERR_NULL_POINTER      pCtx or pParams is null
 *     PELNIC_ERR_INVALID_SIZE      wrong size field in pParams, the table, its plt_funcs or their sys_funcs
 *     PELNIC_ERR_CALLBACK_MISSING  a callback not marked "may be null" above is null
 *     PELNIC_ERR_SYS_MEM_SET       the new context could not be cleared, or malloc succeeded without a block
 *     the malloc callback's code   no memory for the context or its PKI object
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_create_ctx(PELNIC_VRF_CTX* pCtx, const PELNIC_CTX_CREATE_PARAMS* pParams);

/*
 * Sets the parameters of later verifications.
 *
 * pParams: copied.
 * Returns 0 or PELNIC_ERR_NULL_POINTER (pParams null), PELNIC_ERR_INVALID_SIZE (its st_size is wrong).
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_set_verify_params(PELNIC_VRF_CTX ctx, const PELNIC_VRF_PARAMS* pParams);

/*
 * Releases a context and all its contents, including a verification in progress.
 *
 * Returns 0, PELNIC_ERR_NULL_POINTER or PELNIC_ERR_INVALID_SIZE; a failure releases nothing.
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_vrf_ctx_free(PELNIC_VRF_CTX ctx);

/*
 * Returns "4.2.0.300-build001", the version of the interface that existing programs expect: a constant string that is
 * never released. It is the same in every release, unlike CMSVERIFY_VERSION.
 */
PELNIC_API const PNV_CHAR* pelnic_get_version(void);

/* ---- Certificates and CRLs (RFC 5280) -------------------------------------------------------------------------- */

/*
 * Adds every certificate of a DER stream or PEM text. CA certificates become trust anchors, self-signed or not; the
 * others become local certificates, among which signers are looked up. CRLs in the input are ignored.
 *
 * pbCert, nCertLength: the input and its length in octets; not kept.
 * Returns 0 (also for a duplicate, with a warning) or
 *     PELNIC_ERR_NULL_POINTER  pbCert null or nCertLength 0
 *     PELNIC_ERR_CMS_FORMAT    shorter than 38 octets, or PEM armour without its END line
 *     PELNIC_ERR_CERT_INVALID  no certificate in the input
 *     PELNIC_ERR_CERT_VERSION  a certificate of version 1 or 2; earlier ones stay added
 *     a callback's code        memory
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_add_cert(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCert, PNV_UINT32 nCertLength);

/*
 * The same for a file of 1 to 2,000,000 octets, read through the file callbacks.
 *
 * pszCertFile: path for the fopen callback.
 * Returns what pelnic_verify_add_cert returns or
 *     PELNIC_ERR_NULL_POINTER        pszCertFile null or empty
 *     PELNIC_ERR_SYS_FILE_OPEN       the file cannot be opened
 *     PELNIC_ERR_SYS_FILE_EMPTY      its size is 0
 *     PELNIC_ERR_SYS_FILE_TOO_LARGE  it is larger than 2,000,000 octets
 *     PELNIC_ERR_SYS_FILE_READ       fewer octets were read than it has
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_add_cert_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCertFile);

/*
 * Adds every CRL of a DER stream or PEM text, for verifications that begin later. Certificates in the input are added
 * too, except self-signed ones; a failure to add them is only a warning.
 *
 * pbCrl, nCrlLength: the input and its length in octets; not kept.
 * Returns 0 or
 *     PELNIC_ERR_NULL_POINTER  pbCrl null or nCrlLength 0
 *     PELNIC_ERR_CRL_FROZEN    a verification has begun on this context
 *     PELNIC_ERR_CRL_DECODE    the input cannot be decoded or holds no CRL
 *     a callback's code        memory
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_add_crl(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength);

/*
 * The same for a file, with the file codes of pelnic_verify_add_cert_file.
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_add_crl_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* pszCrlFile);

/* ---- Detached signatures (RFC 5652, RFC 3161) ------------------------------------------------------------------ */

/*
 * Begins a verification. Decodes the signature; activates the added CRLs (no CRL can be added from then on); adds the
 * signature's certificates except self-signed ones; and verifies every signer's timestamp, certificate and signed
 * attributes at the timestamp's time.
 *
 * pbSignature, nSigLength: DER, or PEM with the label CMS or PKCS7; length in octets; not kept.
 * Returns 0 or
 *     PELNIC_ERR_NULL_POINTER               pbSignature null or nSigLength 0; a signer without unsigned attributes
 *     PELNIC_ERR_CMS_FORMAT                 shorter than 38 octets, unknown or unclosed armour, empty Base64
 *     PELNIC_ERR_FAILED                     unclosed PKCS7 armour
 *     PELNIC_ERR_CMS_DECODE                 not a SignedData, an undecodable certificate in it, or a signer's missing
 *                                           or undecodable timestamp
 *     PELNIC_ERR_CMS_NO_SIGNER              no signed data or no signer infos
 *     PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND  no certificate for a signer
 *     PELNIC_ERR_CMS_SIGNATURE              the signature over a signer's or authority's attributes does not verify
 *     PELNIC_ERR_CMS_DIGEST_ALGO            a timestamp signer's digest is not SHA-256, SHA-384 or SHA-512
 *     PELNIC_ERR_CMS_HASH_ALGO              the same for a signer without signed attributes
 *     PELNIC_ERR_CMS_NO_MESSAGE_DIGEST      signed attributes without message digest
 *     PELNIC_ERR_CMS_DIGEST_CONFLICT        two signers with one digest algorithm claim different digests
 *     PELNIC_ERR_TSP_CERT_NOT_FOUND, _TSP_IMPRINT_MISMATCH, _TSP_VERIFY, _TSP_DECODE, PELNIC_ERR_UNSUPPORTED_ALGO
 *                                           the timestamp, as their names say
 *     PELNIC_ERR_NO_KEY_USAGE, PELNIC_ERR_CERT_USAGE
 *                                           the key usage of a signer or authority
 *     PELNIC_ERR_CERT_VERIFY                a signer's or authority's chain is not valid at that time, or revoked
 *     other codes                           from decoding and from memory and crypto callbacks, unchanged
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_detach_signature_begin(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbSignature,
                                                                  PNV_UINT32 nSigLength);

/*
 * Feeds the next part of the signed content; any number of calls.
 *
 * pbContent: not kept. nContentLength: number of octets, interpreted as unsigned; only 0 is refused.
 * Returns 0 or
 *     PELNIC_ERR_NULL_POINTER   pbContent null or nContentLength 0
 *     PELNIC_ERR_CMS_NOT_BEGUN  no verification in progress
 *     a crypto callback's code
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_detach_signature_update(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbContent,
                                                                   PNV_INT nContentLength);

/*
 * Ends the verification in progress. Accept only when the code is 0 and *result is exactly 1.
 *
 * result: 1 good, 0 bad. Without a begin it is 1, so call this only after begin succeeded.
 * Returns 0 or PELNIC_ERR_NULL_POINTER (result null), PELNIC_ERR_CMS_SIGNATURE, a crypto callback's code; *result is
 * then 0.
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_detach_signature_final(PELNIC_VRF_CTX ctx, PNV_INT32* result);

/*
 * Begin, update and final for a signature file and a content file.
 *
 * srcfile: path of the content, read in blocks. sigfile: path of the signature, 1 to 2,000,000 octets.
 * result: as for final.
 * Returns the codes of those operations, the file codes of pelnic_verify_add_cert_file, and PELNIC_ERR_NULL_POINTER for
 * a null argument or an empty path.
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_verify_detach_signature_quick(PELNIC_VRF_CTX ctx, const PNV_CHAR* srcfile,
                                                                  const PNV_CHAR* sigfile, PNV_INT32* result);

/* ---- CRL bundles ----------------------------------------------------------------------------------------------- */

typedef struct pelnic_serial_num_st {
    PNV_BYTE sn[32];
    PNV_UINT32 sn_len; /* octets used in sn */
} PELNIC_SERIAL_NUM;

typedef struct pelnic_revoke_list_st {
    PELNIC_SERIAL_NUM* sn_list; /* owned, null when empty */
    PNV_UINT32 revoke_count;
} PELNIC_REVOKE_LIST;

typedef struct pelnic_crl_info_st {
    size_t st_size;                 /* sizeof(PELNIC_CRL_INFO) */
    PNV_INT valid;                  /* 1 if the CRL's issuer certificate verified, else 0 */
    PNV_TIME_T update_time;         /* thisUpdate */
    PNV_TIME_T valid_until;         /* nextUpdate */
    PNV_CHAR issuer[256];           /* readable issuer name */
    PELNIC_SERIAL_NUM issuer_sn;    /* serial number of the issuer's certificate */
    PELNIC_REVOKE_LIST revoke_list; /* filled only for a CRL issued by a self-signed certificate */
    PNV_CHAR resv[60];
} PELNIC_CRL_INFO;

#define PELNIC_CRL_BUNDLE_MAX 16

typedef struct pelnic_crl_bundle_info_st {
    size_t st_size; /* sizeof(PELNIC_CRL_BUNDLE_INFO) */
    PELNIC_CRL_INFO* crl_info_list[PELNIC_CRL_BUNDLE_MAX];
    PNV_INT crl_count;
    PNV_CHAR resv[64];
} PELNIC_CRL_BUNDLE_INFO;

typedef enum pelnic_crl_period_stat_em {
    SCPS_SAME = 0,
    SCPS_NEW = 1, /* the offered bundle is newer */
    SCPS_OLD = 2, /* it is older */
    SCPS_MIX = 3  /* some parts newer, some older, or not comparable */
} PELNIC_CRL_PERIOD_STAT;

/*
 * Decodes a CRL bundle, DER or PEM, into a summary. Its CRLs and certificates join the context. Each CRL's issuer is
 * judged at the CRL's own thisUpdate; the context keeps the last of these times as its verification time.
 *
 * pbCrl, nCrlLength: the input and its length in octets; not kept.
 * ppResult: receives the summary; the caller releases it with pelnic_crl_free. If memory runs out for one CRL, it is
 *     left out and the others are not valid.
 * Returns 0 or
 *     PELNIC_ERR_NULL_POINTER  pbCrl or ppResult null, or nCrlLength 0
 *     PELNIC_ERR_CRL_DECODE    not decodable, without CRL, or not storable
 *     PELNIC_ERR_CRL_TOO_MANY  more than 16 CRLs
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_decode_crl(PELNIC_VRF_CTX ctx, const PNV_BYTE* pbCrl, PNV_UINT32 nCrlLength,
                                               PELNIC_CRL_BUNDLE_INFO** ppResult);

/*
 * The same for a file, with the file codes of pelnic_verify_add_cert_file.
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_decode_crl_file(PELNIC_VRF_CTX ctx, const PNV_CHAR* crlFile,
                                                    PELNIC_CRL_BUNDLE_INFO** pResult);

/*
 * Decides whether the offered bundle is newer than the device's.
 *
 * stat: receives the verdict. The first two codes below leave it untouched; the others set it to SCPS_MIX.
 * Returns 0 or
 *     PELNIC_ERR_NULL_POINTER          a null argument
 *     PELNIC_ERR_CRL_EMPTY_BUNDLE      a bundle without CRL
 *     PELNIC_ERR_CRL_INVALID_ENTRY     an entry is missing or its issuer did not verify
 *     PELNIC_ERR_CRL_DUPLICATE_ISSUER  two CRLs of one issuer in one bundle
 *     PELNIC_ERR_CRL_ISSUER_DROPPED    the newer bundle dropped an issuer that its root did not revoke
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_crl_compare(PELNIC_VRF_CTX ctx, const PELNIC_CRL_BUNDLE_INFO* crlToUpdate,
                                                const PELNIC_CRL_BUNDLE_INFO* crlOnDevice,
                                                PELNIC_CRL_PERIOD_STAT* stat);

/*
 * Releases a summary with its entries.
 *
 * Returns 0 or PELNIC_ERR_NULL_POINTER (pCrlBundle null, unlogged).
 */
PELNIC_API PELNIC_ERROR_CODE pelnic_crl_free(PELNIC_VRF_CTX ctx, PELNIC_CRL_BUNDLE_INFO* pCrlBundle);

#ifdef __cplusplus
}
#endif

#endif
