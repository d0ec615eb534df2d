#include "pki_model.h"

#include "cmsverify/pelnic_asn1_def.h"
#include "cmsverify/pelnic_x509_crl.h"

#include <algorithm>

namespace pnvtest::model {

namespace {

constexpr std::size_t kSteps = 20000;
constexpr unsigned kLinks = 500; // of one chain: more are a circle
constexpr std::size_t kLongestKey = 512;

// The digest, AOID_UNKNOWN without one.
PELNIC_AOIDS HashOf(Algorithm algorithm)
{
    switch (algorithm) {
    case Algorithm::Sha256WithRsa:
    case Algorithm::Sha256: return AOID_SHA256;
    case Algorithm::Sha384WithRsa: return AOID_SHA384;
    case Algorithm::Sha512WithRsa: return AOID_SHA512;
    default: return AOID_UNKNOWN;
    }
}

bool IsKnown(Algorithm algorithm)
{
    return algorithm < Algorithm::Unknown;
}

bool AreDuplicates(const Cert* a, const Cert* b)
{
    return a->issuer == b->issuer && a->serial == b->serial && a->key.bits == b->key.bits;
}

bool HasDuplicate(const std::vector<const Cert*>& store, const Cert* cert)
{
    return std::any_of(store.begin(), store.end(), [&](const Cert* stored) { return AreDuplicates(stored, cert); });
}

} // namespace

Answer IsCaCert(const Cert* cert)
{
    if (cert->version < 2) return {PELNIC_ERR_CERT_VERSION};
    return {0, cert->isCa};
}

void Pki::Step()
{
    if (++steps_ > kSteps) throw RanAway{};
}

void Pki::Log(PELNIC_LOG_TYPE level, PELNIC_ERROR_CODE code, const std::string& message)
{
    log.emplace(level, code, message);
}

// ---- Stores ----

PELNIC_ERROR_CODE Pki::AddTrustCert(const Cert* cert)
{
    const Answer isCa = IsCaCert(cert);
    if (isCa.code != 0 || isCa.value == 0) return PELNIC_ERR_CERT_NOT_CA;
    hasTrustStore_ = true;
    if (HasDuplicate(caCerts_, cert)) return PELNIC_ERR_CERT_DUPLICATE;
    caCerts_.push_back(cert);
    return 0;
}

PELNIC_ERROR_CODE Pki::AddLocalCert(const Cert* cert)
{
    if (HasDuplicate(localCerts_, cert)) return PELNIC_ERR_CERT_DUPLICATE;
    localCerts_.push_back(cert);
    return 0;
}

PELNIC_ERROR_CODE Pki::AddCrl(const Crl* crl)
{
    hasTrustStore_ = true;
    for (const Crl* stored : crlStore_) {
        if (stored->signature.bits == crl->signature.bits) return PELNIC_ERR_CRL_DUPLICATE;
    }
    crlStore_.push_back(crl);
    return 0;
}

// ---- Signatures ----

Answer Pki::PkeyVerify(const Signature& signature, const PublicKey& key, PNV_UINT32 hashId)
{
    if (!key.isRsa) return {PELNIC_ERR_UNSUPPORTED_ALGO};
    if (key.modulus.size() > kLongestKey) {
        Log(PELNIC_LOG_TYPE_ERROR, PELNIC_ERR_FAILED,
            "Unsupported key length " + std::to_string(key.modulus.size() * 8));
        return {PELNIC_ERR_NULL_POINTER};
    }
    return {0, signature.modulus == key.modulus && signature.hashId == hashId};
}

Answer Pki::Verify(const Signed& object, const PublicKey& key, PELNIC_ERROR_CODE differentAlgorithms)
{
    const bool bothUnknown = !IsKnown(object.inner) && !IsKnown(object.outer);
    if (object.inner != object.outer && !bothUnknown) return {differentAlgorithms};
    const PELNIC_AOIDS hashId = HashOf(object.outer);
    if (hashId == AOID_UNKNOWN) return {PELNIC_ERR_UNSUPPORTED_DIGEST};
    if (object.outer == Algorithm::Sha256) return {PELNIC_ERR_UNSUPPORTED_ALGO};
    return PkeyVerify(object.signature, key, static_cast<PNV_UINT32>(hashId));
}

Answer Pki::IsSelfSigned(const Cert* cert)
{
    if (cert->pIssuer == cert) return {0, true};
    if (cert->subject != cert->issuer) return {0, false};
    if (cert->key.code != 0) return {cert->key.code};
    const Answer verdict = Verify(*cert, cert->key, PELNIC_ERR_CERT_VERIFY);
    if (verdict.code != 0) return verdict;
    if (verdict.value != 0) cert->pIssuer = cert;
    return verdict;
}

// ---- Chains ----

PELNIC_ERROR_CODE Pki::CheckCertDate(const Cert* cert) const
{
    if (cert->notBefore.code != 0) return cert->notBefore.code;
    if (cert->notAfter.code != 0) return cert->notAfter.code;
    if (baseTime < cert->notBefore.value) return PELNIC_ERR_CERT_NOT_YET_VALID;
    return cert->notAfter.value >= baseTime ? 0 : PELNIC_ERR_CERT_EXPIRED;
}

PELNIC_ERROR_CODE Pki::CheckCertIssuer(const Cert* cert, const Cert* candidate)
{
    Step();
    if (cert->pIssuer != nullptr) return cert->pIssuer == candidate ? 0 : PELNIC_ERR_CERT_SIGNATURE;
    if (cert->issuer != candidate->subject) return PELNIC_ERR_FAILED;
    if (candidate->keyUsage.code != 0) return candidate->keyUsage.code;
    if ((candidate->keyUsage.value & 0x04) == 0) return PELNIC_ERR_CERT_USAGE;
    if (candidate->key.code != 0) return candidate->key.code;
    const Answer verdict = Verify(*cert, candidate->key, PELNIC_ERR_CERT_VERIFY);
    if (verdict.code != 0) return verdict.code;
    if (verdict.value == 0) return PELNIC_ERR_CERT_SIGNATURE;
    cert->pIssuer = candidate;
    return 0;
}

const Cert* Pki::FindCertIssuer(const Cert* cert)
{
    for (const Cert* candidate : caCerts_) {
        if (CheckCertIssuer(cert, candidate) == 0) return candidate;
    }
    return nullptr;
}

PELNIC_ERROR_CODE Pki::VerifyCertByIssuer(const Cert* cert, const Cert* issuer)
{
    if (issuer->keyUsage.code != 0) return issuer->keyUsage.code;
    if ((issuer->keyUsage.value & 0x04) == 0) return PELNIC_ERR_CERT_USAGE;
    return CheckCertIssuer(cert, issuer);
}

const Cert* Pki::FindCertRoot(const Cert* cert, unsigned links)
{
    if (links > kLinks) throw RanAway{};
    const Answer selfSigned = IsSelfSigned(cert);
    if (selfSigned.code != 0) return nullptr;
    if (selfSigned.value != 0) return cert;
    const Cert* const issuer = FindCertIssuer(cert);
    return issuer == nullptr ? nullptr : FindCertRoot(issuer, links + 1);
}

PELNIC_ERROR_CODE Pki::CheckCrlIssuer(const Crl* crl, const Cert* cert)
{
    Step();
    if (crl->issuer != cert->subject) return PELNIC_ERR_FAILED;
    if (cert->keyUsage.code != 0) return cert->keyUsage.code;
    if ((cert->keyUsage.value & 0x02) == 0) return PELNIC_ERR_CERT_USAGE;
    return VerifyCrlByIssuer(crl, cert);
}

PELNIC_ERROR_CODE Pki::VerifyCrlByIssuer(const Crl* crl, const Cert* cert)
{
    if (cert->keyUsage.code != 0) return cert->keyUsage.code;
    if ((cert->keyUsage.value & 0x02) == 0) return PELNIC_ERR_CERT_USAGE;
    if (cert->key.code != 0) return cert->key.code;
    const Answer verdict = Verify(*crl, cert->key, PELNIC_ERR_FAILED);
    return verdict.code == 0 && verdict.value != 0 ? 0 : PELNIC_ERR_CRL_VERIFY;
}

const Cert* Pki::FindCrlIssuer(const Crl* crl)
{
    for (const std::vector<const Cert*>* store : {&caCerts_, &localCerts_}) {
        for (const Cert* cert : *store) {
            if (CheckCrlIssuer(crl, cert) == 0) return cert;
        }
    }
    return nullptr;
}

const Cert* Pki::FindCertByIssuerSn(int issuer, const Bytes& serial)
{
    for (const Cert* cert : localCerts_) {
        if (cert->issuer == issuer && cert->serial == serial) return cert;
    }
    return nullptr;
}

PELNIC_ERROR_CODE Pki::InternalVerifyCertificate(const Cert* cert, const Cert** author, bool* done)
{
    Step();
    PELNIC_ERROR_CODE rc = CheckCertDate(cert);
    if (rc != 0) return rc;
    const Answer selfSigned = IsSelfSigned(cert);
    if (selfSigned.code != 0) return selfSigned.code;
    if (selfSigned.value != 0) {
        *done = true;
        return 0;
    }
    if (!noCheckCrl) {
        const Crl* used = nullptr;
        rc = CheckCrlOfCert(cert, &used);
        if (rc != 0) return rc;
        if (used->indirect.code != 0 || used->indirect.value == 0) {
            *done = true;
            return 0;
        }
    }
    const Cert* const issuer = FindCertIssuer(cert);
    if (issuer == nullptr) return PELNIC_ERR_CERT_NO_ISSUER;
    rc = VerifyCertByIssuer(cert, issuer);
    if (rc != 0) return rc;
    *author = issuer;
    return 0;
}

PELNIC_ERROR_CODE Pki::VerifyCert(const Cert* cert, bool resetDepth)
{
    if (resetDepth) currDepth = 0;
    if (currDepth >= 11) {
        Log(PELNIC_LOG_TYPE_ERROR, 0, "The path of certificate is too deep.");
        return PELNIC_ERR_PATH_TOO_DEEP;
    }
    ++currDepth;
    bool done = false;
    PELNIC_ERROR_CODE rc = 0;
    while (rc == 0 && !done) rc = InternalVerifyCertificate(cert, &cert, &done);
    --currDepth;
    return rc;
}

// ---- Revocation ----

bool Pki::CrlGetIssuerScore(const Crl* crl, const Cert* cert, const Cert* root, PNV_UINT32* score)
{
    const bool indirect = crl->indirect.code == 0 && crl->indirect.value != 0;
    const bool sameIssuer = cert->issuer == crl->issuer;
    if (!sameIssuer && !indirect) return false;
    const Cert* const issuer = FindCrlIssuer(crl);
    if (issuer == nullptr) return false;
    if (FindCertRoot(issuer) != root) return false;
    if (sameIssuer) *score |= 0x20;
    if (indirect) *score |= 0x10;
    return true;
}

PNV_UINT32 Pki::CrlGetScore(const Crl* crl, const Cert* cert, const Cert* root)
{
    PNV_UINT32 score = 0;
    if (!CrlGetIssuerScore(crl, cert, root, &score)) return 0;
    for (const Entry& entry : crl->revoked) {
        if (entry.serial == cert->serial) score |= 0x80;
    }
    if (crl->nextUpdate.code != 0) return 0;
    if (crl->nextUpdate.value < baseTime) {
        Log(PELNIC_LOG_TYPE_WARNING, PELNIC_ERR_CRL_EXPIRED,
            "Found an expired CRL, it most likely cause NO CRL error.");
        return (score & 0x80) != 0 ? score : 0;
    }
    return score | 0x40;
}

PELNIC_ERROR_CODE Pki::GetScoredCrl(const Cert* cert, std::vector<Score>* list)
{
    if (!hasTrustStore_) return PELNIC_ERR_CERT_NO_ISSUER;
    const Cert* const root = FindCertRoot(cert);
    if (root == nullptr) return PELNIC_ERR_CERT_NO_ISSUER;
    for (const Crl* crl : crlStore_) {
        const PNV_UINT32 score = CrlGetScore(crl, cert, root);
        if (score != 0) list->push_back({score, crl});
    }
    return 0;
}

const Crl* Pki::PickBestCrl(const std::vector<Score>& list)
{
    for (const Score& score : list) {
        const Cert* const issuer = FindCrlIssuer(score.crl);
        if (issuer != nullptr && VerifyCert(issuer, false) == 0) return score.crl;
    }
    return nullptr;
}

const Crl* Pki::FindBestCrlOfCert(const Cert* cert)
{
    std::vector<Score> list;
    const PELNIC_ERROR_CODE rc = GetScoredCrl(cert, &list);
    if (rc != 0) {
        lastErr = rc;
        return nullptr;
    }
    if (list.empty()) {
        Log(PELNIC_LOG_TYPE_ERROR, 0, "Can't find CRL for certificate.");
        lastErr = PELNIC_ERR_CRL_NOT_FOUND;
        return nullptr;
    }
    std::stable_sort(list.begin(), list.end(), [](const Score& a, const Score& b) { return a.score > b.score; });
    const Crl* const best = PickBestCrl(list);
    if (best == nullptr) {
        Log(PELNIC_LOG_TYPE_ERROR, 0, "Verify CRL failed.");
        lastErr = PELNIC_ERR_CRL_VERIFY;
    }
    return best;
}

Answer Pki::NeedCheckReason(const Cert* cert)
{
    if (cert->extendedKeyUsage.code != 0) return {cert->extendedKeyUsage.code};
    if (cert->extendedKeyUsage.value == 0x40) return {0, true};
    return IsCaCert(cert);
}

PELNIC_ERROR_CODE Pki::IsCertRevoked(const Cert* cert, const Entry& entry) const
{
    if (entry.serial != cert->serial) return 0;
    const Answer reasonMatters = NeedCheckReason(cert);
    if (reasonMatters.code != 0) return reasonMatters.code;
    if (reasonMatters.value != 0) {
        if (entry.reason.code != 0) return entry.reason.code;
        const bool benign = entry.reason.value == RVRS_AFFILIATIONCHANGED || entry.reason.value == RVRS_SUPERSEDED ||
                            entry.reason.value == RVRS_CESSATIONOFOPERATION;
        if (!benign) return PELNIC_ERR_CERT_REVOKED;
    }
    if (entry.date.code != 0) return entry.date.code;
    return baseTime < entry.date.value ? 0 : PELNIC_ERR_CERT_REVOKED;
}

PELNIC_ERROR_CODE Pki::CheckCrlOfCert(const Cert* cert, const Crl** used)
{
    const Crl* const best = FindBestCrlOfCert(cert);
    if (best == nullptr) return lastErr;
    for (const Entry& entry : best->revoked) {
        const PELNIC_ERROR_CODE rc = IsCertRevoked(cert, entry);
        if (rc != 0) return rc;
    }
    *used = best;
    return 0;
}

} // namespace pnvtest::model
