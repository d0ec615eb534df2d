/*
 * by_hand ROOT PACKAGE: the yardstick, the same check written on libcrypto's own functions for CMS, timestamps and
 * CRLs. Ends with 0 for a package that is in order. For packages that the tests make; it is no checker.
 */
#define _DEFAULT_SOURCE
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define HEADER 352
#define FIRST_ENTRY 20 /* type, offset and length of three sub-files, each in network order */

typedef struct {
    const unsigned char* octets;
    long length;
} RANGE;

/* A whole file, or null. */
static unsigned char* read_file(const char* path, long* length)
{
    FILE* const file = fopen(path, "rb");
    if (file == NULL) return NULL;
    unsigned char* octets = NULL;
    if (fseek(file, 0, SEEK_END) == 0) {
        *length = ftell(file);
        octets = malloc((size_t)*length);
        rewind(file);
    }
    if (octets != NULL && fread(octets, 1, (size_t)*length, file) != (size_t)*length) {
        free(octets);
        octets = NULL;
    }
    (void)fclose(file);
    return octets;
}

static unsigned long number_at(const unsigned char* octets)
{
    return (unsigned long)octets[0] << 24 | (unsigned long)octets[1] << 16 | (unsigned long)octets[2] << 8 | octets[3];
}

static X509_STORE* new_store(X509* root, STACK_OF(X509_CRL) * crls, time_t time)
{
    X509_STORE* const store = X509_STORE_new();
    X509_STORE_add_cert(store, root);
    for (int i = 0; i < sk_X509_CRL_num(crls); ++i) X509_STORE_add_crl(store, sk_X509_CRL_value(crls, i));
    X509_VERIFY_PARAM* const params = X509_STORE_get0_param(store);
    X509_VERIFY_PARAM_set_flags(params, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    X509_VERIFY_PARAM_set_time(params, time);
    return store;
}

/* The time of a signer's timestamp, or 0 when it is not in order. */
static time_t stamped(CMS_SignerInfo* signer, X509* root, STACK_OF(X509_CRL) * crls)
{
    const int at = CMS_unsigned_get_attr_by_NID(signer, NID_id_smime_aa_timeStampToken, -1);
    if (at < 0) return 0;
    const ASN1_TYPE* const value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(signer, at), 0);
    if (value == NULL || value->type != V_ASN1_SEQUENCE) return 0;
    const unsigned char* der = value->value.sequence->data;
    CMS_ContentInfo* const token = d2i_CMS_ContentInfo(NULL, &der, value->value.sequence->length);
    if (token == NULL) return 0;
    const ASN1_OCTET_STRING* const content = *CMS_get0_content(token);
    der = ASN1_STRING_get0_data(content);
    TS_TST_INFO* const info = d2i_TS_TST_INFO(NULL, &der, ASN1_STRING_length(content));
    struct tm date;
    if (info == NULL || ASN1_TIME_to_tm(TS_TST_INFO_get_time(info), &date) != 1) return 0;
    const time_t time = timegm(&date);

    X509_STORE* const store = new_store(root, crls, time);
    X509_STORE_set_purpose(store, X509_PURPOSE_ANY);
    int good = CMS_verify(token, NULL, store, NULL, NULL, CMS_BINARY);
    TS_MSG_IMPRINT* const imprint = TS_TST_INFO_get_msg_imprint(info);
    const ASN1_OCTET_STRING* const stamp = TS_MSG_IMPRINT_get_msg(imprint);
    const ASN1_OBJECT* algorithm = NULL;
    X509_ALGOR_get0(&algorithm, NULL, NULL, TS_MSG_IMPRINT_get_algo(imprint));
    const EVP_MD* const hash = EVP_get_digestbyobj(algorithm);
    const ASN1_OCTET_STRING* const signature = CMS_SignerInfo_get0_signature(signer);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (hash == NULL || EVP_Digest(ASN1_STRING_get0_data(signature), (size_t)ASN1_STRING_length(signature), digest,
                                   &length, hash, NULL) != 1) {
        good = 0;
    } else if (ASN1_STRING_length(stamp) != (int)length || memcmp(ASN1_STRING_get0_data(stamp), digest, length) != 0) {
        good = 0;
    }
    X509_STORE_free(store);
    TS_TST_INFO_free(info);
    CMS_ContentInfo_free(token);
    return good == 1 ? time : 0;
}

static int check(X509* root, const RANGE* payload, const RANGE* signature, const RANGE* crl)
{
    STACK_OF(X509_CRL)* const crls = sk_X509_CRL_new_null();
    const unsigned char* der = crl->octets;
    while (der < crl->octets + crl->length) {
        X509_CRL* const next = d2i_X509_CRL(NULL, &der, crl->octets + crl->length - der);
        if (next == NULL) return 0;
        sk_X509_CRL_push(crls, next);
    }
    der = signature->octets;
    CMS_ContentInfo* const cms = d2i_CMS_ContentInfo(NULL, &der, signature->length);
    if (cms == NULL) return 0;
    const time_t time = stamped(sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0), root, crls);
    X509_STORE* const store = new_store(root, crls, time);
    X509_STORE_set_purpose(store, X509_PURPOSE_ANY);
    BIO* const content = BIO_new_mem_buf(payload->octets, (int)payload->length);
    const int good = time != 0 && CMS_verify(cms, NULL, store, content, NULL, CMS_BINARY | CMS_DETACHED) == 1;
    BIO_free(content);
    X509_STORE_free(store);
    CMS_ContentInfo_free(cms);
    sk_X509_CRL_pop_free(crls, X509_CRL_free);
    return good;
}

int main(int argc, char** argv)
{
    long root_length = 0;
    long length = 0;
    unsigned char* const anchor = argc == 3 ? read_file(argv[1], &root_length) : NULL;
    unsigned char* const package = argc == 3 ? read_file(argv[2], &length) : NULL;
    if (anchor == NULL || package == NULL || length < HEADER) {
        free(package);
        free(anchor);
        return 2;
    }
    const unsigned char* der = anchor;
    X509* const root = d2i_X509(NULL, &der, root_length);
    RANGE parts[3];
    for (int i = 0; i < 3; ++i) {
        const unsigned char* const entry = package + FIRST_ENTRY + 12 * i;
        parts[i].octets = package + HEADER + number_at(entry + 4);
        parts[i].length = (long)number_at(entry + 8);
    }
    const int good = root != NULL && check(root, &parts[0], &parts[1], &parts[2]);
    X509_free(root);
    free(package);
    free(anchor);
    if (!good) ERR_print_errors_fp(stderr);
    return good ? 0 : 1;
}
