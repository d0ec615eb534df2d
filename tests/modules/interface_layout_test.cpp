// The order of the fields of every record that a caller, a callback or another module sees, the types of those outside
// the library, and the numbers of the enumerations: whoever was compiled against them reads what stands there. A change
// here is a change of the interface.
#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_buf.h"
#include "cmsverify/pelnic_callback_fun.h"
#include "cmsverify/pelnic_cms_templ.h"
#include "cmsverify/pelnic_pki_impl.h"
#include "cmsverify/pelnic_x509_crl.h"
#include "cmsverify/pelnic_x509_parse.h"
#include "pkgcheck.h"
#include "verify_signature.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace pnvtest {
namespace {

constexpr std::size_t kOfAnotherType = SIZE_MAX;

constexpr bool AreInOrder(std::initializer_list<std::size_t> offsets)
{
    const std::size_t* last = nullptr;
    for (const std::size_t& offset : offsets) {
        if (offset == kOfAnotherType || (last == nullptr ? offset != 0 : offset <= *last)) return false;
        last = &offset;
    }
    return true;
}

// The fields of a record, the first of which stands at its beginning.
#define IN_ORDER(record, ...) \
    { \
        using Record = record; \
        static_assert(AreInOrder({__VA_ARGS__}), #record); \
    }
#define AT(field) offsetof(Record, field)
// A field of just this type.
#define OF(type, field) (std::is_same_v<decltype(Record::field), type> ? AT(field) : kOfAnotherType)

// Of a record with pointers, on 64 and on 32 bits.
constexpr bool HasSize(std::size_t size, std::size_t on64, std::size_t on32)
{
    return size == (sizeof(void*) == 8 ? on64 : on32);
}

TEST(InterfaceLayout, OfWhatCallersAndCallbacksSee)
{
    IN_ORDER(PELNIC_DATETIME, OF(PNV_UINT16, uYear), OF(PNV_BYTE, uMonth), OF(PNV_BYTE, uDay), OF(PNV_BYTE, uHour),
             OF(PNV_BYTE, uMinute), OF(PNV_UINT16, uMillSecond), OF(PNV_BYTE, uSecond), OF(PNV_BYTE, uUtcFlag),
             OF(PNV_BYTE, uUtcHour), OF(PNV_BYTE, uUtcMinute));
    static_assert(sizeof(PELNIC_DATETIME) == 12);
    IN_ORDER(PELNIC_BIGINT, OF(PNV_UINT32, uiLength), OF(PNV_BYTE[512], aVal));
    static_assert(sizeof(PELNIC_BIGINT) == 516);
    IN_ORDER(PELNIC_CTX_CREATE_PARAMS, OF(size_t, st_size), OF(PELNIC_CALLBACK_FUNCS, callback_funcs),
             OF(PNV_CHAR[64], resv));
    static_assert(sizeof(PELNIC_CTX_CREATE_PARAMS) == sizeof(size_t) + sizeof(PELNIC_CALLBACK_FUNCS) + 64);
    IN_ORDER(PELNIC_VRF_PARAMS, OF(size_t, st_size), OF(PNV_INT, no_check_crl), OF(PNV_CHAR[64], resv));
    static_assert(HasSize(sizeof(PELNIC_VRF_PARAMS), 80, 72));
    IN_ORDER(PELNIC_VERIFY_SIGNATURE_S, OF(const PNV_BYTE*, pCert), OF(PNV_UINT32, uiCertLength),
             OF(const PNV_BYTE*, pCrl), OF(PNV_UINT32, uiCrlLength), OF(const PNV_BYTE*, pCms),
             OF(PNV_UINT32, uiCmsLength), OF(const PNV_BYTE*, pBin), OF(PNV_UINT32, uiBinLength));
    static_assert(HasSize(sizeof(PELNIC_VERIFY_SIGNATURE_S), 64, 32));
}

TEST(InterfaceLayout, OfSummariesOfCrls)
{
    IN_ORDER(PELNIC_SERIAL_NUM, OF(PNV_BYTE[32], sn), OF(PNV_UINT32, sn_len));
    static_assert(sizeof(PELNIC_SERIAL_NUM) == 36);
    IN_ORDER(PELNIC_REVOKE_LIST, OF(PELNIC_SERIAL_NUM*, sn_list), OF(PNV_UINT32, revoke_count));
    static_assert(HasSize(sizeof(PELNIC_REVOKE_LIST), 16, 8));
    IN_ORDER(PELNIC_CRL_INFO, OF(size_t, st_size), OF(PNV_INT, valid), OF(PNV_TIME_T, update_time),
             OF(PNV_TIME_T, valid_until), OF(PNV_CHAR[256], issuer), OF(PELNIC_SERIAL_NUM, issuer_sn),
             OF(PELNIC_REVOKE_LIST, revoke_list), OF(PNV_CHAR[60], resv));
    static_assert(HasSize(sizeof(PELNIC_CRL_INFO), 408, 384));
    IN_ORDER(PELNIC_CRL_BUNDLE_INFO, OF(size_t, st_size), OF(PELNIC_CRL_INFO* [16], crl_info_list),
             OF(PNV_INT, crl_count), OF(PNV_CHAR[64], resv));
    static_assert(HasSize(sizeof(PELNIC_CRL_BUNDLE_INFO), 208, 136));
}

// As in the file.
TEST(InterfaceLayout, OfAPackagesHeader)
{
    IN_ORDER(SSubFileInfo_S, OF(PNV_UINT32, ulSubFileID), OF(PNV_UINT32, ulSubFileOffset),
             OF(PNV_UINT32, ulSubFileLen));
    using Header = SProgramFileHeader_S;
    static_assert(sizeof(SSubFileInfo_S) == 12 && sizeof(Header) == 352);
    static_assert(offsetof(Header, ulReserved4RPS) == 0 && offsetof(Header, ulHeaderCrc) == 4);
    static_assert(offsetof(Header, ulFileID) == 8 && offsetof(Header, ulVersion) == 12);
    static_assert(offsetof(Header, ulSubFileNum) == 16 && offsetof(Header, stSubFileInfo) == 20);
    static_assert(offsetof(Header, strDescription) == 116 && offsetof(Header, ulLength) == 340);
    static_assert(offsetof(Header, ulFileCRC) == 344 && offsetof(Header, ulCompressType) == 348);
}

TEST(InterfaceLayout, OfTheContextAndTheContainers)
{
    IN_ORDER(PELNIC_VRF, OF(size_t, st_size), OF(PNV_BOOL, crl_frozen), OF(PELNIC_CALLBACK_FUNCS, callback_funcs),
             OF(PELNIC_VRF_PARAMS, vrf_params), OF(void*, pki_ctx), OF(LIST_TYPE_PELNIC_X509_CRL, crl_list),
             OF(PELNIC_VERIFY_PROCESS, vrf_proc), OF(PNV_TIME_T, base_time), OF(PELNIC_ERROR_CODE, last_err),
             OF(PNV_INT, curr_depth), AT(resv));
    static_assert(sizeof(PELNIC_VRF::resv) == 64);
    IN_ORDER(PELNIC_VERIFY_PROCESS, OF(LIST_TYPE_PELNIC_VERIFY_DIGEST_INFO, md_info_list));
    IN_ORDER(PELNIC_VERIFY_DIGEST_INFO, OF(void*, digestCtx), OF(PELNIC_AOIDS, nDigestAlgID),
             OF(PNV_BYTE[64], pbDigest), OF(PNV_UINT32, nDigestSize), OF(void*, vrfCtx), OF(PNV_BYTE*, pbSignature),
             OF(PNV_UINT32, nSignature));
    IN_ORDER(PELNIC_BUF, OF(const PNV_BYTE*, pVal), OF(PNV_UINT32, nBufLen), OF(PNV_UINT32, iCursor));
    IN_ORDER(PELNIC_DATA_BLOCK, OF(PNV_BYTE*, pData), OF(PNV_BYTE[64], s_data), OF(PNV_UINT32, nLen),
             OF(PNV_UINT32, capacity));
    IN_ORDER(PELNIC_LIST_DUMMY, OF(PNV_UINT32, num), OF(void**, data), OF(PNV_UINT32, capacity));
    IN_ORDER(LIST_TYPE_PELNIC_X509_CERT, OF(PNV_UINT32, num), OF(PELNIC_X509_CERT**, data), OF(PNV_UINT32, capacity));
    IN_ORDER(CRYPTO_MD, OF(PNV_UINT32, st_size), AT(hash_handler), OF(HASH_ALGO, hash_algo));
    IN_ORDER(CRYPTO_VRF, OF(PNV_UINT32, st_size), AT(md_ctx), AT(pub));
}

TEST(InterfaceLayout, OfCertificatesAndCrls)
{
    IN_ORDER(PELNIC_X509_CERT, AT(raw_signed), AT(toBeSigned), AT(algorithm), AT(signature), AT(pIssuer), AT(iRef));
    IN_ORDER(PELNIC_X509_CERTINFO, AT(version), AT(serialNumber), AT(signature), AT(issuer), AT(validity), AT(subject),
             AT(subjectPubKey), AT(issuerUID), AT(subjectUID), AT(extensions));
    IN_ORDER(PELNIC_ASN_VALIDITY, AT(notBefore), AT(notAfter));
    IN_ORDER(PELNIC_X509_ATTR_ENTRY, AT(id), AT(value));
    IN_ORDER(PELNIC_X509_ALGO_IDENTIFIER, AT(algorithm), AT(parameters));
    IN_ORDER(PELNIC_X509_PUBKEY_INFO, AT(algorithm), AT(subjectPublicKey));
    IN_ORDER(PELNIC_X509_EXTENSION_ENTRY, AT(extnId), AT(critical), AT(resv0), AT(extnValue));
    IN_ORDER(PELNIC_X509_CRL, AT(raw_signed), AT(tbs_cert_list), AT(algorithm), AT(signature), AT(iRef));
    IN_ORDER(PELNIC_X509_CRLINFO, AT(version), AT(signature_algo), AT(issuer), AT(this_update), AT(next_update),
             AT(revoked_certs), AT(extensions));
    IN_ORDER(PELNIC_X509_REVOKED_ENTRY, AT(user_cert), AT(revocation_date), AT(crl_entry_extensions));
    IN_ORDER(PELNIC_RSA_PUBKEY, AT(modules), AT(publicExponent));
    IN_ORDER(PELNIC_RSA_KEY, AT(keyType), AT(bits), AT(key));
    IN_ORDER(PELNIC_PUBKEY, AT(type), AT(pKey));
    IN_ORDER(PELNIC_X509_BASIC_CONSTRAINTS, AT(is_ca), AT(resv0), AT(max_path_len));
    IN_ORDER(PELNIC_X509_AUTHORITY_KID, AT(keyIdentifier), AT(authorityCertIssuer), AT(authorityCertSerialNumber));
    IN_ORDER(PELNIC_X509_ISSUING_DIST_POINT, AT(distpoint), AT(onlyuser), AT(onlyCA), AT(resv0), AT(onlysomereasons),
             AT(indirectCRL), AT(onlyattr), AT(resv1));
}

TEST(InterfaceLayout, OfSignaturesAndTimestamps)
{
    IN_ORDER(PELNIC_PKCS7_CONTENT, AT(content_type), AT(signed_data));
    IN_ORDER(PELNIC_PKCS7_SIGNED_DATA, AT(version), AT(digest_algo_set), AT(content), AT(raw_certs), AT(certificates),
             AT(crls), AT(signer_infos));
    IN_ORDER(PELNIC_PKCS7_CONTENT_INFO, AT(type), AT(content));
    IN_ORDER(PELNIC_PKCS7_SIGNER_INFO, AT(version), AT(issuer_sn), AT(digest_algo), AT(raw_signed), AT(auth_attrs),
             AT(digest_encryption_algo), AT(encrypted_digest), AT(unauth_attrs));
    IN_ORDER(PELNIC_PKCS7_ISSUER_AND_SERIAL, AT(issuer), AT(sn));
    IN_ORDER(PELNIC_TST_INFO, AT(version), AT(policy_id), AT(msg_imprint), AT(serial), AT(time), AT(accuracy),
             AT(ordering), AT(resv0), AT(nonce), AT(issuer), AT(extensions));
    IN_ORDER(PELNIC_TS_MSG_IMPRINT, AT(hash_algo), AT(hash_value));
    IN_ORDER(PELNIC_TS_ACCURACY, AT(seconds), AT(millis), AT(micros));
}

TEST(InterfaceLayout, OfThePki)
{
    IN_ORDER(PELNIC_PKI, AT(st_size), AT(pki_store));
    IN_ORDER(PELNIC_PKI_STORE, AT(local_store), AT(verify_param), AT(trust_store));
    IN_ORDER(PELNIC_PKI_LOCAL_STORE, AT(local_certs));
    IN_ORDER(PELNIC_PKI_TRUST_STORE, AT(ca_certs), AT(crl_store));
    IN_ORDER(PELNIC_PKI_VERIFY_PARAM, AT(check_time), AT(verify_flags), AT(iPurpose));
    IN_ORDER(PELNIC_PKI_VER_FLAG, AT(ulFlags), AT(ulInhFlags), AT(iVerDepth));
    IN_ORDER(PELNIC_CRL_SCORE_INFO, AT(crlScore), AT(pCrl));
}

TEST(InterfaceNumbers, OfEnumerations)
{
    static_assert(HSAG_UNKNOW == 0 && HSAG_MD5 == 1 && HSAG_SHA1 == 2);
    static_assert(HSAG_SHA256 == 3 && HSAG_SHA384 == 4 && HSAG_SHA512 == 5);
    static_assert(CBSW_SET == 0 && CBSW_CURRENT == 1);
    static_assert(CLSP_BEFORE == 0 && CLSP_AFTER == 1 && CLSP_BEGIN == 2 && CLSP_END == 3);
    static_assert(PELNIC_LOG_TYPE_ERROR == 0 && PELNIC_LOG_TYPE_WARNING == 1);
    static_assert(PELNIC_LOG_TYPE_INFO == 2 && PELNIC_LOG_TYPE_DEBUG == 3);
    static_assert(SCPS_SAME == 0 && SCPS_NEW == 1 && SCPS_OLD == 2 && SCPS_MIX == 3);
    static_assert(RVRS_NONE == -1 && RVRS_UNUSED == 0 && RVRS_KEYCOMPROMISE == 1 && RVRS_CACOMPROMISE == 2);
    static_assert(RVRS_AFFILIATIONCHANGED == 3 && RVRS_SUPERSEDED == 4 && RVRS_CESSATIONOFOPERATION == 5);
    static_assert(RVRS_CERTIFICATEHOLD == 6 && RVRS_PRIVILEGEWITHDRAWN == 7 && RVRS_AACOMPROMISE == 8);
}

// 0x88, module, area, serial: callers compare against them.
TEST(InterfaceNumbers, OfResultCodes)
{
    static_assert(PELNIC_ERR_FAILED == 0xFFFFFFFF);
    static_assert(PELNIC_ERR_SYS_MEM_ALLOC == 0x88000001);
    static_assert(PELNIC_ERR_SYS_MEM_SET == 0x88000003);
    static_assert(PELNIC_ERR_SYS_MEM_OVERFLOW == 0x880000FF);
    static_assert(PELNIC_ERR_SYS_FILE_OPEN == 0x88000101);
    static_assert(PELNIC_ERR_SYS_FILE_READ == 0x88000102);
    static_assert(PELNIC_ERR_SYS_FILE_EMPTY == 0x88000104);
    static_assert(PELNIC_ERR_SYS_FILE_TOO_LARGE == 0x88000106);
    static_assert(PELNIC_ERR_SYS_BUF_END == 0x88000201);
    static_assert(PELNIC_ERR_SYS_BUF_POS == 0x88000202);
    static_assert(PELNIC_ERR_SYS_DB_APPEND == 0x88000203);
    static_assert(PELNIC_ERR_SYS_TIME_FORMAT == 0x88000301);
    static_assert(PELNIC_ERR_SYS_BASE64 == 0x88000302);
    static_assert(PELNIC_ERR_SYS_STR_OVERFLOW == 0x880004FF);
    static_assert(PELNIC_ERR_NULL_POINTER == 0x88100001);
    static_assert(PELNIC_ERR_INVALID_SIZE == 0x88100002);
    static_assert(PELNIC_ERR_CALLBACK_MISSING == 0x88100003);
    static_assert(PELNIC_ERR_NO_PKI == 0x88100004);
    static_assert(PELNIC_ERR_CERT_DUPLICATE == 0x88200001);
    static_assert(PELNIC_ERR_CERT_REVOKED == 0x88200002);
    static_assert(PELNIC_ERR_CERT_NO_ISSUER == 0x88200004);
    static_assert(PELNIC_ERR_CERT_SIGNATURE == 0x88200005);
    static_assert(PELNIC_ERR_CERT_ROOT_IN_CMS == 0x88200006);
    static_assert(PELNIC_ERR_CERT_USAGE == 0x88200007);
    static_assert(PELNIC_ERR_CERT_INVALID == 0x88200008);
    static_assert(PELNIC_ERR_CERT_VERIFY == 0x88200009);
    static_assert(PELNIC_ERR_CERT_VERSION == 0x88200010);
    static_assert(PELNIC_ERR_CERT_NOT_CA == 0x88200011);
    static_assert(PELNIC_ERR_CRL_NOT_FOUND == 0x88200012);
    static_assert(PELNIC_ERR_CERT_NOT_YET_VALID == 0x88200013);
    static_assert(PELNIC_ERR_CERT_EXPIRED == 0x88200014);
    static_assert(PELNIC_ERR_UNSUPPORTED_DIGEST == 0x88200015);
    static_assert(PELNIC_ERR_UNSUPPORTED_ALGO == 0x88200016);
    static_assert(PELNIC_ERR_NO_KEY_USAGE == 0x88200017);
    static_assert(PELNIC_ERR_PATH_TOO_DEEP == 0x88200018);
    static_assert(PELNIC_ERR_CRL_FROZEN == 0x88200101);
    static_assert(PELNIC_ERR_CRL_DECODE == 0x88200102);
    static_assert(PELNIC_ERR_CRL_EXPIRED == 0x88200103);
    static_assert(PELNIC_ERR_CRL_VERIFY == 0x88200104);
    static_assert(PELNIC_ERR_CRL_EMPTY_BUNDLE == 0x88200105);
    static_assert(PELNIC_ERR_CRL_INVALID_ENTRY == 0x88200106);
    static_assert(PELNIC_ERR_CRL_DUPLICATE == 0x88200107);
    static_assert(PELNIC_ERR_CRL_TOO_MANY == 0x88200108);
    static_assert(PELNIC_ERR_CRL_DUPLICATE_ISSUER == 0x88200109);
    static_assert(PELNIC_ERR_CRL_ISSUER_DROPPED == 0x88200110);
    static_assert(PELNIC_ERR_CRL_NO_IDP == 0x88200601);
    static_assert(PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND == 0x88200301);
    static_assert(PELNIC_ERR_CMS_NO_MESSAGE_DIGEST == 0x88200302);
    static_assert(PELNIC_ERR_CMS_DIGEST_CONFLICT == 0x88200303);
    static_assert(PELNIC_ERR_CMS_FORMAT == 0x88200305);
    static_assert(PELNIC_ERR_CMS_DIGEST_ALGO == 0x88200306);
    static_assert(PELNIC_ERR_CMS_NOT_BEGUN == 0x88200307);
    static_assert(PELNIC_ERR_CMS_NO_SIGNER == 0x88200308);
    static_assert(PELNIC_ERR_CMS_SIGNATURE == 0x88200309);
    static_assert(PELNIC_ERR_CMS_HASH_ALGO == 0x88200310);
    static_assert(PELNIC_ERR_CMS_DECODE == 0x88200312);
    static_assert(PELNIC_ERR_TSP_CERT_NOT_FOUND == 0x88200401);
    static_assert(PELNIC_ERR_TSP_IMPRINT_MISMATCH == 0x88200402);
    static_assert(PELNIC_ERR_TSP_VERIFY == 0x88200403);
    static_assert(PELNIC_ERR_TSP_DECODE == 0x88200404);
    static_assert(PELNIC_ERR_ASN_DECODE == 0x88300000);
    static_assert(PELNIC_ERR_ASN_TAG == 0x88300001);
    static_assert(PELNIC_ERR_ASN_PEEK_TAG == 0x88300002);
    static_assert(PELNIC_ERR_ASN_TAG_MISMATCH == 0x88300003);
    static_assert(PELNIC_ERR_ASN_LENGTH == 0x88300101);
    static_assert(PELNIC_ERR_ASN_OCTS == 0x88300201);
    static_assert(PELNIC_ERR_ASN_PEEK_OCTS == 0x88300202);
    static_assert(PELNIC_ERR_ASN_ANY == 0x88300301);
    static_assert(PELNIC_ERR_ASN_ANY_ABSENT == 0x88300302);
    static_assert(PELNIC_ERR_ASN_CHOICE == 0x88300303);
    static_assert(PELNIC_ERR_ASN_SEQ == 0x88300401);
    static_assert(PELNIC_ERR_ASN_BITS == 0x88300501);
    static_assert(PELNIC_ERR_ASN_INT == 0x88300601);
    static_assert(PELNIC_ERR_ASN_SETOF == 0x88300701);
    static_assert(PELNIC_ERR_ASN_BOOL == 0x88300801);
}

TEST(InterfaceNumbers, OfPrimitiveTypes)
{
    static_assert(sizeof(PNV_UINT16) == 2 && std::is_unsigned_v<PNV_UINT16>);
    static_assert(sizeof(PNV_CHAR) == 1 && std::is_signed_v<PNV_CHAR>);
    static_assert(sizeof(PNV_INT) == 4 && std::is_signed_v<PNV_INT>);
    static_assert(sizeof(PNV_BOOL) == 4 && std::is_unsigned_v<PNV_BOOL>);
    static_assert(sizeof(PNV_TIME_T) == 8 && std::is_signed_v<PNV_TIME_T>);
    static_assert(std::is_same_v<PNV_THREAD_ID, void*> && std::is_same_v<PNV_FILE_HANDLE, void*>);
    static_assert(std::is_same_v<PELNIC_ERROR_CODE, PNV_UINT32> && sizeof(PNV_UINT32) == 4);
}

} // namespace
} // namespace pnvtest
