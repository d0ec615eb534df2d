// The rules of stores, chains and revocation once more, as plainly as they can be told: each question is asked anew
// whenever it comes up, duplicates are looked for from one end of a list to the other, and nothing is remembered but
// the issuer that a certificate has found. What the library saves itself must not show: the two are run side by side.
//
// The model knows nothing of encodings. A certificate here is what asking about it answers, a code or a value.
#ifndef PNVTEST_PKI_MODEL_H
#define PNVTEST_PKI_MODEL_H

#include "cmsverify/pelnic_pki_impl.h"
#include "der.h"

#include <optional>
#include <set>
#include <string>
#include <tuple>

namespace pnvtest::model {

struct Answer {
    PELNIC_ERROR_CODE code = 0;
    std::int64_t value = 0;
};

enum class Algorithm { Sha256WithRsa, Sha384WithRsa, Sha512WithRsa, Sha256, Unknown, OtherUnknown };

// Of a subject: what comes of decoding it.
struct PublicKey {
    PELNIC_ERROR_CODE code = 0;
    bool isRsa = true;
    Bytes modulus; // at most 512 octets can be used
    Bytes bits;    // the encoded key
};

// A signature is good when it names the key and the digest that it is checked with.
struct Signature {
    Bytes modulus;
    PNV_UINT32 hashId = 0;
    Bytes bits;
};

struct Signed {
    Algorithm inner = Algorithm::Sha256WithRsa;
    Algorithm outer = Algorithm::Sha256WithRsa;
    Signature signature;
};

struct Cert : Signed {
    PNV_INT version = 2; // as encoded: 2 is version 3
    int issuer = 0;      // names are equal when their numbers are
    int subject = 0;
    Bytes serial;
    Answer notBefore;
    Answer notAfter;
    PublicKey key;
    Answer keyUsage;
    Answer extendedKeyUsage;
    bool isCa = false;
    mutable const Cert* pIssuer = nullptr;
};

struct Entry {
    Bytes serial;
    Answer date;
    Answer reason;
};

struct Crl : Signed {
    int issuer = 0;
    Answer nextUpdate;
    Answer indirect;
    std::vector<Entry> revoked;
};

// Level, code and message.
using Record = std::tuple<PELNIC_LOG_TYPE, PELNIC_ERROR_CODE, std::string>;

// Thrown where asking everything anew takes too long: chains that branch on every level, and circles.
struct RanAway {};

class Pki {
public:
    // ---- What the context holds
    PNV_TIME_T baseTime = 0;
    PNV_INT currDepth = 0;
    PELNIC_ERROR_CODE lastErr = 0;
    bool noCheckCrl = false;
    std::set<Record> log;

    // Each outermost question may take so many steps.
    void Begin() { steps_ = 0; }

    // ---- Stores
    PELNIC_ERROR_CODE AddTrustCert(const Cert* cert);
    PELNIC_ERROR_CODE AddLocalCert(const Cert* cert);
    PELNIC_ERROR_CODE AddCrl(const Crl* crl);

    // ---- Chains
    PELNIC_ERROR_CODE VerifyCert(const Cert* cert, bool resetDepth);
    const Cert* FindCrlIssuer(const Crl* crl);
    const Cert* FindCertByIssuerSn(int issuer, const Bytes& serial);
    PELNIC_ERROR_CODE CheckCertIssuer(const Cert* cert, const Cert* candidate);
    const Cert* FindCertIssuer(const Cert* cert);
    const Cert* FindCertRoot(const Cert* cert, unsigned links = 0);
    PELNIC_ERROR_CODE CheckCrlIssuer(const Crl* crl, const Cert* cert);
    Answer IsSelfSigned(const Cert* cert);

private:
    struct Score {
        PNV_UINT32 score;
        const Crl* crl;
    };

    void Step();
    void Log(PELNIC_LOG_TYPE level, PELNIC_ERROR_CODE code, const std::string& message);
    // The verdict of a signature check.
    Answer PkeyVerify(const Signature& signature, const PublicKey& key, PNV_UINT32 hashId);
    Answer Verify(const Signed& object, const PublicKey& key, PELNIC_ERROR_CODE differentAlgorithms);

    PELNIC_ERROR_CODE CheckCertDate(const Cert* cert) const;
    PELNIC_ERROR_CODE VerifyCertByIssuer(const Cert* cert, const Cert* issuer);
    PELNIC_ERROR_CODE VerifyCrlByIssuer(const Crl* crl, const Cert* cert);
    PELNIC_ERROR_CODE InternalVerifyCertificate(const Cert* cert, const Cert** author, bool* done);

    PELNIC_ERROR_CODE CheckCrlOfCert(const Cert* cert, const Crl** used);
    const Crl* FindBestCrlOfCert(const Cert* cert);
    PELNIC_ERROR_CODE GetScoredCrl(const Cert* cert, std::vector<Score>* list);
    PNV_UINT32 CrlGetScore(const Crl* crl, const Cert* cert, const Cert* root);
    bool CrlGetIssuerScore(const Crl* crl, const Cert* cert, const Cert* root, PNV_UINT32* score);
    const Crl* PickBestCrl(const std::vector<Score>& list);
    PELNIC_ERROR_CODE IsCertRevoked(const Cert* cert, const Entry& entry) const;
    static Answer NeedCheckReason(const Cert* cert);

    bool hasTrustStore_ = false;
    std::vector<const Cert*> caCerts_;
    std::vector<const Cert*> localCerts_;
    std::vector<const Crl*> crlStore_;
    std::size_t steps_ = 0;
};

// The CA test: PELNIC_ERR_CERT_VERSION, or whether it is one.
Answer IsCaCert(const Cert* cert);

} // namespace pnvtest::model

#endif
