// Owners of OpenSSL's records.
#ifndef PNVTEST_OPENSSL_PTR_H
#define PNVTEST_OPENSSL_PTR_H

#include "der.h"

#include <openssl/cms.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <memory>

namespace pnvtest {

struct OpensslFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(X509_CRL* crl) const { X509_CRL_free(crl); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
    void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
    void operator()(STACK_OF(X509) * certs) const { sk_X509_pop_free(certs, X509_free); }
    void operator()(ISSUING_DIST_POINT* point) const { ISSUING_DIST_POINT_free(point); }
    void operator()(ASN1_ENUMERATED* value) const { ASN1_ENUMERATED_free(value); }
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
    void operator()(PKCS7* pkcs7) const { PKCS7_free(pkcs7); }
    void operator()(TS_TST_INFO* info) const { TS_TST_INFO_free(info); }
    void operator()(TS_VERIFY_CTX* ctx) const { TS_VERIFY_CTX_free(ctx); }
};
template <typename Type> using Owned = std::unique_ptr<Type, OpensslFree>;

// The record at the beginning of the octets, or null; *length receives how many of them it takes.
template <typename Type>
Owned<Type> Parse(Type* (*d2i)(Type**, const unsigned char**, long), const unsigned char* octets, std::size_t size,
                  std::size_t* length = nullptr)
{
    const unsigned char* end = octets;
    Owned<Type> parsed(d2i(nullptr, &end, static_cast<long>(size)));
    if (length != nullptr) *length = static_cast<std::size_t>(end - octets);
    return parsed;
}
template <typename Type> Owned<Type> Parse(Type* (*d2i)(Type**, const unsigned char**, long), const Bytes& der)
{
    return Parse(d2i, der.data(), der.size());
}

} // namespace pnvtest

#endif
