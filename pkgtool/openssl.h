// Owners of OpenSSL's objects, and its encodings as octets.
#ifndef PKGTOOL_OPENSSL_H
#define PKGTOOL_OPENSSL_H

#include "files.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/store.h>
#include <openssl/ts.h>
#include <openssl/x509.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

namespace pkgtool {

template <auto release> struct Release {
    template <typename T> void operator()(T* object) const { release(object); }
};
template <typename T, auto release> using Owned = std::unique_ptr<T, Release<release>>;

inline void releaseCertificates(STACK_OF(X509) * stack)
{
    sk_X509_pop_free(stack, X509_free);
}

using Asn1Integer = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using Asn1Object = Owned<ASN1_OBJECT, ASN1_OBJECT_free>;
using Asn1Time = Owned<ASN1_TIME, ASN1_TIME_free>;
using Bignum = Owned<BIGNUM, BN_free>;
using Bio = Owned<BIO, BIO_free_all>;
using Cert = Owned<X509, X509_free>;
using CertStack = Owned<STACK_OF(X509), releaseCertificates>;
using Cms = Owned<CMS_ContentInfo, CMS_ContentInfo_free>;
using Crl = Owned<X509_CRL, X509_CRL_free>;
using MdCtx = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using Pkey = Owned<EVP_PKEY, EVP_PKEY_free>;
using TsImprint = Owned<TS_MSG_IMPRINT, TS_MSG_IMPRINT_free>;
using TsReq = Owned<TS_REQ, TS_REQ_free>;
using TsResp = Owned<TS_RESP, TS_RESP_free>;
using TsTstInfo = Owned<TS_TST_INFO, TS_TST_INFO_free>;

// Reports must not depend on this machine's configuration, nor load a provider that it names. Call this before any
// other function of OpenSSL.
inline void ignoreConfiguration()
{
    (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr); // later calls fail too, and say so
}

// What was done, and the last error in OpenSSL's queue.
inline std::string failureOf(const char* doing)
{
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    return std::string(doing) + ": " + (reason != nullptr ? reason : "OpenSSL gave no reason");
}

inline void ensure(bool ok, const char* doing)
{
    if (!ok) throw std::runtime_error(failureOf(doing));
}

template <typename T> Bytes toDer(int (*i2d)(const T*, unsigned char**), const T* object)
{
    const int length = i2d(object, nullptr);
    ensure(length > 0, "encoding");
    Bytes der(static_cast<std::size_t>(length));
    unsigned char* out = der.data();
    i2d(object, &out);
    return der;
}

// Null unless the octets are exactly one such object.
template <auto release, typename T>
Owned<T, release> fromDer(T* (*d2i)(T**, const unsigned char**, long), const Bytes& der)
{
    const unsigned char* in = der.data();
    Owned<T, release> object(d2i(nullptr, &in, static_cast<long>(der.size())));
    ERR_clear_error();
    if (in != der.data() + der.size()) object.reset();
    return object;
}

inline Bytes bytesOf(const ASN1_STRING* string)
{
    const unsigned char* const data = ASN1_STRING_get0_data(string);
    return Bytes(data, data + ASN1_STRING_length(string));
}

inline Bio memoryBio(ByteView content)
{
    static_assert(MAX_READ <= std::numeric_limits<int>::max());
    ensure(content.size <= MAX_READ, "reading more than the checker does");
    Bio bio(BIO_new_mem_buf(content.size == 0 ? "" : static_cast<const void*>(content.data),
                            static_cast<int>(content.size)));
    ensure(bio != nullptr, "allocating");
    return bio;
}

inline Bytes digestOf(const EVP_MD* md, ByteView content, const Done& done = {})
{
    const MdCtx ctx(EVP_MD_CTX_new());
    ensure(ctx != nullptr && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1, "hashing");
    for (std::size_t at = 0; at < content.size; at += STEP) {
        const std::size_t count = std::min(STEP, content.size - at);
        ensure(EVP_DigestUpdate(ctx.get(), content.data + at, count) == 1, "hashing");
        if (done) done(count);
    }
    Bytes digest(static_cast<std::size_t>(EVP_MD_get_size(md)));
    ensure(EVP_DigestFinal_ex(ctx.get(), digest.data(), nullptr) == 1, "hashing");
    return digest;
}

} // namespace pkgtool

#endif
