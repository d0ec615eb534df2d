// Certificates judged by X509_verify_cert with OpenSSL's own callbacks: they say where one of the rules has another
// opinion. Without rules it is X509_verify_cert with CRLs for the whole chain.
#ifndef PNVTEST_OPENSSL_PKI_H
#define PNVTEST_OPENSSL_PKI_H

#include "openssl_ptr.h"
#include "oracle_rules.h"

#include <ctime>
#include <map>

namespace pnvtest {

class OpensslPki {
public:
    explicit OpensslPki(Rules& rules);

    void Trust(Owned<X509> anchor);
    // What came with a package. Self-signed certificates are left out.
    void Add(Owned<X509> cert);
    void Add(Owned<X509_CRL> crl);
    void SetTime(time_t time);

    X509* FindSigner(X509_NAME* issuer, const ASN1_INTEGER* serial);
    // Null when the certificate is good, else why it is not.
    const char* Refusal(X509* cert);

private:
    struct CandidateCrl {
        X509_CRL* crl;
        X509* issuer;
        unsigned score;
    };

    static int CheckIssued(X509_STORE_CTX* ctx, X509* cert, X509* issuer);
    static int Forgive(int ok, X509_STORE_CTX* ctx);

    bool Keep(Owned<X509> cert);
    bool Trusted(X509* cert, int nesting);
    bool WalkEndsWell(X509* cert, int nesting);
    bool OpensslVerifies(X509* cert);
    bool IsForgiven(X509_STORE_CTX* ctx);
    bool Refuse(const char* why);

    bool SameName(const X509_NAME* a, const X509_NAME* b);
    bool MaySign(X509* issuer, unsigned usage);
    template <typename Signed>
    bool Verifies(Signed* item, int algorithm, int (*verify)(Signed*, EVP_PKEY*), X509* issuer);
    bool Verifies(X509* cert, X509* issuer);
    bool IsSelfSigned(X509* cert);
    bool HasIssued(X509* issuer, X509* cert);
    X509* IssuerOf(X509* cert);
    X509* RootOf(X509* cert);

    X509* IssuerOf(X509_CRL* crl);
    bool IsExpired(X509_CRL* crl);
    CandidateCrl Scored(X509_CRL* crl, X509* cert);
    X509_CRL* BestCrl(X509* cert, int nesting);
    bool Revokes(X509* cert, X509_REVOKED* entry);
    bool IsRevoked(X509* cert, X509_CRL* crl);
    bool RevokesItself(X509* root);

    Rules& rules_;
    Owned<X509_STORE> anchors_{X509_STORE_new()};
    Owned<STACK_OF(X509)> untrusted_{sk_X509_new_null()};
    std::vector<Owned<X509>> certs_; // in the order in which they came
    std::vector<Owned<X509_CRL>> crls_;
    time_t time_ = 0;
    const char* why_ = nullptr;
    std::map<std::pair<const void*, const X509*>, bool> verified_;
    std::map<const X509*, X509*> issuers_;
    std::map<std::pair<const X509*, int>, bool> trusted_; // at this time, with what has come so far
};

bool IsCa(X509* cert);

} // namespace pnvtest

#endif
