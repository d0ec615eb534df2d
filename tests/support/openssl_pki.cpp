#include "openssl_pki.h"

#include <algorithm>

namespace pnvtest {

namespace {

constexpr int kNestedVerifications = 11;
constexpr int kOpensslDepth = 100; // OpenSSL's own limit, where ours is not in force

constexpr unsigned kListed = 0x80;
constexpr unsigned kCurrent = 0x40;
constexpr unsigned kSameIssuer = 0x20;
constexpr unsigned kIndirect = 0x10;

bool IsSha2(int signatureNid)
{
    return signatureNid == NID_sha256WithRSAEncryption || signatureNid == NID_sha384WithRSAEncryption ||
           signatureNid == NID_sha512WithRSAEncryption;
}

const STACK_OF(X509_REVOKED) * Entries(X509_CRL* crl)
{
    return X509_CRL_get_REVOKED(crl); // null reads as an empty stack
}

bool IsFor(const X509_REVOKED* entry, X509* cert)
{
    return ASN1_INTEGER_cmp(X509_REVOKED_get0_serialNumber(entry), X509_get0_serialNumber(cert)) == 0;
}

bool Lists(X509_CRL* crl, X509* cert)
{
    const STACK_OF(X509_REVOKED)* entries = Entries(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        if (IsFor(sk_X509_REVOKED_value(entries, i), cert)) return true;
    }
    return false;
}

bool IsIndirect(X509_CRL* crl)
{
    const Owned<ISSUING_DIST_POINT> point(
        static_cast<ISSUING_DIST_POINT*>(X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, nullptr, nullptr)));
    return point != nullptr && point->indirectCRL != 0;
}

long ReasonOf(X509_REVOKED* entry)
{
    const Owned<ASN1_ENUMERATED> reason(
        static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    return reason == nullptr ? -1 : ASN1_ENUMERATED_get(reason.get());
}

bool IsForTimestampsAlone(X509* cert)
{
    return (X509_get_extension_flags(cert) & EXFLAG_XKUSAGE) != 0 &&
           (X509_get_extended_key_usage(cert) & (XKU_CODE_SIGN | XKU_TIMESTAMP)) == XKU_TIMESTAMP;
}

const ASN1_BIT_STRING* SignatureOf(X509_CRL* crl)
{
    const ASN1_BIT_STRING* signature = nullptr;
    X509_CRL_get0_signature(crl, &signature, nullptr);
    return signature;
}

} // namespace

bool IsCa(X509* cert)
{
    return (X509_get_extension_flags(cert) & EXFLAG_CA) != 0;
}

OpensslPki::OpensslPki(Rules& rules) : rules_(rules)
{
    X509_STORE_set_purpose(anchors_.get(), X509_PURPOSE_ANY);
    X509_STORE_set_verify_cb(anchors_.get(), Forgive);
    if (rules_.InForce(Rule::FirstIssuerThatVerifies)) X509_STORE_set_check_issued(anchors_.get(), CheckIssued);
    if (rules_.InForce(Rule::CrlsByScore)) return;
    X509_STORE_set_flags(anchors_.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
}

// ---- What is there ----

// False for a copy.
bool OpensslPki::Keep(Owned<X509> cert)
{
    for (const Owned<X509>& other : certs_) {
        if (X509_cmp(cert.get(), other.get()) == 0) return false;
        const bool copy = IsCa(cert.get()) == IsCa(other.get()) &&
                          X509_issuer_and_serial_cmp(cert.get(), other.get()) == 0 &&
                          EVP_PKEY_eq(X509_get0_pubkey(cert.get()), X509_get0_pubkey(other.get())) == 1;
        if (copy && rules_.Apply(Rule::FirstCopyCounts)) return false;
    }
    certs_.push_back(std::move(cert));
    trusted_.clear();
    return true;
}

void OpensslPki::Trust(Owned<X509> anchor)
{
    X509* const cert = anchor.get();
    const bool below = !IsSelfSigned(cert) && rules_.Apply(Rule::AnchorsBelowOthersAreNoEnd);
    if (below) {
        Add(std::move(anchor));
    } else if (Keep(std::move(anchor)) && IsCa(cert)) {
        X509_STORE_add_cert(anchors_.get(), cert);
    }
}

void OpensslPki::Add(Owned<X509> cert)
{
    X509* const added = cert.get();
    if (IsSelfSigned(added) || !Keep(std::move(cert)) || !IsCa(added)) return;
    X509_up_ref(added);
    sk_X509_push(untrusted_.get(), added);
}

void OpensslPki::Add(Owned<X509_CRL> crl)
{
    for (const Owned<X509_CRL>& other : crls_) {
        const bool copy = ASN1_STRING_cmp(SignatureOf(crl.get()), SignatureOf(other.get())) == 0;
        if (copy && rules_.Apply(Rule::FirstCopyCounts)) return;
    }
    X509_STORE_add_crl(anchors_.get(), crl.get());
    crls_.push_back(std::move(crl));
}

void OpensslPki::SetTime(time_t time)
{
    time_ = time;
    trusted_.clear();
}

X509* OpensslPki::FindSigner(X509_NAME* issuer, const ASN1_INTEGER* serial)
{
    for (const Owned<X509>& cert : certs_) {
        const bool named = ASN1_INTEGER_cmp(X509_get0_serialNumber(cert.get()), serial) == 0 &&
                           SameName(X509_get_issuer_name(cert.get()), issuer);
        if (named && !(IsCa(cert.get()) && rules_.Apply(Rule::SignersAreNoCas))) return cert.get();
    }
    return nullptr;
}

// ---- Verdicts ----

bool OpensslPki::Refuse(const char* why)
{
    why_ = why;
    return false;
}

const char* OpensslPki::Refusal(X509* cert)
{
    why_ = nullptr;
    return Trusted(cert, 0) ? nullptr : why_;
}

bool OpensslPki::Trusted(X509* cert, int nesting)
{
    if (!rules_.Apply(Rule::CrlsByScore)) return OpensslVerifies(cert);
    if (nesting >= kNestedVerifications && (nesting >= kOpensslDepth || rules_.Apply(Rule::NestingIsLimited))) {
        return Refuse("nested too deeply");
    }
    const auto known = trusted_.find({cert, nesting});
    if (known != trusted_.end()) return known->second;
    return trusted_[{cert, nesting}] = WalkEndsWell(cert, nesting);
}

// Up from an indirect CRL's certificate; the issuer of a direct one has been verified when it was chosen.
bool OpensslPki::WalkEndsWell(X509* cert, int nesting)
{
    while (cert != nullptr) {
        if (!OpensslVerifies(cert)) return false;
        if (IsSelfSigned(cert)) return !RevokesItself(cert) || Refuse("root revoked");
        X509_CRL* const crl = BestCrl(cert, nesting);
        if (crl == nullptr) return false;
        if (IsRevoked(cert, crl)) return Refuse("certificate revoked");
        if (!IsIndirect(crl)) return true;
        cert = IssuerOf(cert);
    }
    return Refuse("no issuer");
}

bool OpensslPki::OpensslVerifies(X509* cert)
{
    const Owned<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
    X509_STORE_CTX_init(ctx.get(), anchors_.get(), cert, untrusted_.get());
    X509_STORE_CTX_set_app_data(ctx.get(), this);
    X509_STORE_CTX_set_time(ctx.get(), 0, time_);
    if (X509_verify_cert(ctx.get()) == 1) return true;
    return Refuse(X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get())));
}

int OpensslPki::Forgive(int ok, X509_STORE_CTX* ctx)
{
    if (ok != 1 && !static_cast<OpensslPki*>(X509_STORE_CTX_get_app_data(ctx))->IsForgiven(ctx)) return 0;
    X509_STORE_CTX_set_error(ctx, X509_V_OK);
    return 1;
}

bool OpensslPki::IsForgiven(X509_STORE_CTX* ctx)
{
    X509* const cert = X509_STORE_CTX_get_current_cert(ctx);
    X509_CRL* const crl = X509_STORE_CTX_get0_current_crl(ctx);
    const bool above = X509_STORE_CTX_get_error_depth(ctx) > 0;
    X509_REVOKED* entry = nullptr;
    switch (X509_STORE_CTX_get_error(ctx)) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        if (ASN1_TIME_cmp_time_t(X509_get0_notAfter(cert), time_) == 0 && rules_.Apply(Rule::LastSecondCounts)) {
            return true;
        }
        [[fallthrough]];
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return above && rules_.InForce(Rule::CrlsByScore) && rules_.Apply(Rule::CrlIssuerVouches);
    case X509_V_ERR_CRL_HAS_EXPIRED: return crl != nullptr && !IsExpired(crl);
    case X509_V_ERR_CRL_NOT_YET_VALID: return rules_.Apply(Rule::ThisUpdateIsUnread);
    case X509_V_ERR_PATH_LENGTH_EXCEEDED: return rules_.Apply(Rule::PathLengthIsUnread);
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION: return rules_.Apply(Rule::CriticalIsUnread);
    case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
    case X509_V_ERR_DIFFERENT_CRL_SCOPE: return rules_.Apply(Rule::CrlExtensionsAreUnread);
    case X509_V_ERR_CERT_REVOKED:
        if (IsSelfSigned(cert)) return rules_.Apply(Rule::RootIsNotRevoked);
        return crl != nullptr && X509_CRL_get0_by_cert(crl, &entry, cert) != 0 && !Revokes(cert, entry);
    default: return false;
    }
}

// ---- Issuers ----

bool OpensslPki::SameName(const X509_NAME* a, const X509_NAME* b)
{
    if (X509_NAME_cmp(a, b) != 0) return false;
    unsigned char* octets[2] = {nullptr, nullptr};
    const int lengths[] = {i2d_X509_NAME(a, &octets[0]), i2d_X509_NAME(b, &octets[1])};
    const bool same = lengths[0] == lengths[1] && std::equal(octets[0], octets[0] + lengths[0], octets[1]);
    OPENSSL_free(octets[0]);
    OPENSSL_free(octets[1]);
    return same || !rules_.Apply(Rule::NamesAreOctets);
}

bool OpensslPki::MaySign(X509* issuer, unsigned usage)
{
    if ((X509_get_extension_flags(issuer) & EXFLAG_KUSAGE) == 0) return !rules_.Apply(Rule::SilenceIsNoPermission);
    return (X509_get_key_usage(issuer) & usage) != 0;
}

template <typename Signed>
bool OpensslPki::Verifies(Signed* item, int algorithm, int (*verify)(Signed*, EVP_PKEY*), X509* issuer)
{
    const auto [entry, isNew] = verified_.try_emplace({item, issuer}, false);
    if (isNew) {
        const bool allowed = IsSha2(algorithm) || !rules_.Apply(Rule::Sha2Only);
        EVP_PKEY* const key = X509_get0_pubkey(issuer);
        entry->second = allowed && key != nullptr && verify(item, key) == 1;
    }
    return entry->second;
}

bool OpensslPki::Verifies(X509* cert, X509* issuer)
{
    return Verifies(cert, X509_get_signature_nid(cert), X509_verify, issuer);
}

bool OpensslPki::IsSelfSigned(X509* cert)
{
    return SameName(X509_get_subject_name(cert), X509_get_issuer_name(cert)) && Verifies(cert, cert);
}

bool OpensslPki::HasIssued(X509* issuer, X509* cert)
{
    if (!SameName(X509_get_issuer_name(cert), X509_get_subject_name(issuer))) return false;
    if (!MaySign(issuer, KU_KEY_CERT_SIGN) || !Verifies(cert, issuer)) return false;
    return X509_check_issued(issuer, cert) == X509_V_OK || rules_.Apply(Rule::KeyIdentifiersAreUnread);
}

X509* OpensslPki::IssuerOf(X509* cert)
{
    X509*& known = issuers_[cert];
    if (known == nullptr && IsSelfSigned(cert)) known = cert;
    for (std::size_t i = 0; known == nullptr && i < certs_.size(); ++i) {
        X509* const issuer = certs_[i].get();
        if (IsCa(issuer) && HasIssued(issuer, cert)) known = issuer;
    }
    return known;
}

int OpensslPki::CheckIssued(X509_STORE_CTX* ctx, X509* cert, X509* issuer)
{
    OpensslPki& self = *static_cast<OpensslPki*>(X509_STORE_CTX_get_app_data(ctx));
    X509* const chosen = self.IssuerOf(cert);
    if (chosen != issuer && X509_check_issued(issuer, cert) == X509_V_OK) {
        (void)self.rules_.Apply(Rule::FirstIssuerThatVerifies); // in force: this callback is installed
    }
    return chosen == issuer;
}

X509* OpensslPki::RootOf(X509* cert)
{
    for (std::size_t steps = 0; cert != nullptr && steps <= certs_.size(); ++steps) {
        if (IsSelfSigned(cert)) return cert;
        cert = IssuerOf(cert);
    }
    return nullptr; // none, or CAs that issue each other
}

// ---- CRLs ----

// CAs first.
X509* OpensslPki::IssuerOf(X509_CRL* crl)
{
    for (bool ca : {true, false}) {
        for (const Owned<X509>& cert : certs_) {
            X509* const issuer = cert.get();
            const bool named = IsCa(issuer) == ca && SameName(X509_CRL_get_issuer(crl), X509_get_subject_name(issuer));
            if (!named || !MaySign(issuer, KU_CRL_SIGN)) continue;
            if (Verifies(crl, X509_CRL_get_signature_nid(crl), X509_CRL_verify, issuer)) return issuer;
        }
    }
    return nullptr;
}

bool OpensslPki::IsExpired(X509_CRL* crl)
{
    const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl);
    const int order = nextUpdate == nullptr ? 1 : ASN1_TIME_cmp_time_t(nextUpdate, time_);
    return order < 0 || (order == 0 && !rules_.Apply(Rule::LastSecondCounts));
}

// Score 0: the CRL does not speak for the certificate.
OpensslPki::CandidateCrl OpensslPki::Scored(X509_CRL* crl, X509* cert)
{
    CandidateCrl scored{crl, IssuerOf(crl), 0};
    const CandidateCrl unfit{crl, scored.issuer, 0};
    const bool sameIssuer = SameName(X509_CRL_get_issuer(crl), X509_get_issuer_name(cert));
    const bool indirect = IsIndirect(crl) && rules_.Apply(Rule::IndirectCrlSpeaksForItsRoot);
    if (!sameIssuer && !indirect) return unfit;
    if (scored.issuer == nullptr || RootOf(scored.issuer) != RootOf(cert)) return unfit;
    if (X509_CRL_get0_nextUpdate(crl) == nullptr && rules_.Apply(Rule::NextUpdateIsRequired)) return unfit;
    if (ASN1_TIME_cmp_time_t(X509_CRL_get0_lastUpdate(crl), time_) > 0 && !rules_.Apply(Rule::ThisUpdateIsUnread)) {
        return unfit;
    }
    const bool restricted = X509_CRL_get_ext_by_critical(crl, 1, -1) >= 0 && !indirect;
    if (restricted && !rules_.Apply(Rule::CrlExtensionsAreUnread)) return unfit;

    if (Lists(crl, cert)) scored.score |= kListed;
    if (!IsExpired(crl)) {
        scored.score |= kCurrent;
    } else if (scored.score == 0 || !rules_.Apply(Rule::ExpiredCrlRevokes)) {
        return unfit;
    }
    scored.score |= (sameIssuer ? kSameIssuer : 0) | (indirect ? kIndirect : 0);
    return scored;
}

X509_CRL* OpensslPki::BestCrl(X509* cert, int nesting)
{
    std::vector<CandidateCrl> candidates;
    for (const Owned<X509_CRL>& crl : crls_) {
        const CandidateCrl scored = Scored(crl.get(), cert);
        if (scored.score != 0) candidates.push_back(scored);
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const CandidateCrl& a, const CandidateCrl& b) { return a.score > b.score; });
    for (const CandidateCrl& candidate : candidates) {
        if (Trusted(candidate.issuer, nesting + 1)) return candidate.crl;
    }
    if (candidates.empty()) Refuse("no CRL for a certificate");
    return nullptr;
}

bool OpensslPki::Revokes(X509* cert, X509_REVOKED* entry)
{
    const long reason = ReasonOf(entry);
    if (reason == CRL_REASON_REMOVE_FROM_CRL && !rules_.Apply(Rule::RemovalRevokes)) return false;
    const bool benign = reason == CRL_REASON_AFFILIATION_CHANGED || reason == CRL_REASON_SUPERSEDED ||
                        reason == CRL_REASON_CESSATION_OF_OPERATION;
    if (!benign && (IsCa(cert) || IsForTimestampsAlone(cert))) return true;
    const bool later = ASN1_TIME_cmp_time_t(X509_REVOKED_get0_revocationDate(entry), time_) > 0;
    return !later || !rules_.Apply(Rule::RevocationHasADate);
}

bool OpensslPki::IsRevoked(X509* cert, X509_CRL* crl)
{
    const STACK_OF(X509_REVOKED)* entries = Entries(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        X509_REVOKED* const entry = sk_X509_REVOKED_value(entries, i);
        if (IsFor(entry, cert) && Revokes(cert, entry)) return true;
    }
    return false;
}

bool OpensslPki::RevokesItself(X509* root)
{
    for (const Owned<X509_CRL>& crl : crls_) {
        const bool revoked = IssuerOf(crl.get()) == root && !IsIndirect(crl.get()) && IsRevoked(root, crl.get());
        if (revoked && !rules_.Apply(Rule::RootIsNotRevoked)) return true;
    }
    return false;
}

} // namespace pnvtest
