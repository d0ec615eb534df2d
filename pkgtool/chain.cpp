#include "chain.h"

#include "text.h"

#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_x509_cert.h"
#include "cmsverify/pelnic_x509_utils.h"

#include <algorithm>

namespace pkgtool {

namespace {

constexpr int DEEPEST = 11; // certificates that may be under verification at once

// Two times as days, or in full where the days are the same.
struct TimePair {
    TimePair(const std::string& first, const std::string& second)
        : days(first.substr(0, 10) != second.substr(0, 10)), a(cut(first)), b(cut(second))
    {
    }
    std::string cut(const std::string& time) const { return days ? time.substr(0, 10) : time; }

    bool days;
    std::string a;
    std::string b;
};

bool sameName(const PELNIC_VRF* vrf, const PELNIC_X509_NAME* a, const PELNIC_X509_NAME* b)
{
    return pelnic_compare_x509_name(vrf, a, b) == 0;
}

bool isSelfSigned(const PELNIC_VRF* vrf, const PELNIC_X509_CERT* cert)
{
    PNV_BOOL answer = 0;
    return pelnic_x509_is_self_signed(vrf, cert, &answer) == 0 && answer != 0;
}

bool isIndirect(const PELNIC_VRF* vrf, const PELNIC_X509_CRL* crl)
{
    PNV_BOOL answer = 0;
    (void)pelnic_x509_crl_is_indirect(vrf, crl, &answer); // a failure counts as direct
    return answer != 0;
}

const PELNIC_PKI_STORE& storeOf(const PELNIC_VRF* vrf)
{
    return static_cast<const PELNIC_PKI*>(vrf->pki_ctx)->pki_store;
}

// The CA certificates of that subject.
std::vector<const PELNIC_X509_CERT*> casNamed(const PELNIC_VRF* vrf, const PELNIC_X509_NAME* name)
{
    std::vector<const PELNIC_X509_CERT*> named;
    const PELNIC_PKI_TRUST_STORE* const trust = storeOf(vrf).trust_store;
    for (PNV_UINT32 i = 0; trust != nullptr && i < trust->ca_certs.num; ++i) {
        const PELNIC_X509_CERT* const ca = trust->ca_certs.data[i];
        if (sameName(vrf, ca->toBeSigned->subject, name)) named.push_back(ca);
    }
    return named;
}

} // namespace

bool hasKeyUsage(const PELNIC_VRF* vrf, const PELNIC_X509_CERT* cert, PNV_UINT32 bit)
{
    PNV_UINT32 usage = 0;
    return pelnic_x509_cert_get_keyusage(vrf, cert, &usage) == 0 && (usage & bit) != 0;
}

const Json& ChainWalk::find(const PELNIC_ASN_OCTS& signedPart) const
{
    return contents_.objects.at(Bytes(signedPart.octs, signedPart.octs + signedPart.len));
}

Json ChainWalk::describe(const PELNIC_X509_CERT* cert) const
{
    Json json = find(*cert->raw_signed);
    json["crls"] = Json::array();
    return json;
}

Json ChainWalk::describe(const PELNIC_X509_CRL* crl) const
{
    Json json;
    for (const auto& [name, value] : find(*crl->raw_signed).items()) {
        if (name != "revoked") json[name] = value; // that is as long as it likes, and what counts of it comes below
    }
    return json;
}

const Json* ChainWalk::entryFor(const PELNIC_X509_CRL* crl, const Json& serial)
{
    const auto [found, isNew] = entries_.try_emplace(crl);
    if (isNew) {
        for (const Json& entry : memberOf(find(*crl->raw_signed), "revoked")) {
            found->second.try_emplace(textOf(entry["serial"]), &entry);
        }
    }
    const auto entry = found->second.find(textOf(serial));
    return entry != found->second.end() ? entry->second : nullptr;
}

std::optional<Reason> ChainWalk::judgeDates(const PELNIC_X509_CERT* cert, const Json& link) const
{
    const std::string name = "certificate " + briefName(memberOf(link, "subject"));
    const PELNIC_ERROR_CODE rc = _pnvCheckCertDate(vrf_, cert);
    if (rc == PELNIC_ERR_CERT_EXPIRED) {
        const TimePair times(textOf(memberOf(link, "not_after")), now());
        return Reason{"certificate-expired", name + " ended " + times.a + ", before the timestamp " + times.b,
                      "renew the certificate and sign again; a timestamp from before its end would have kept it good"};
    }
    if (rc == PELNIC_ERR_CERT_NOT_YET_VALID) {
        const TimePair times(textOf(memberOf(link, "not_before")), now());
        return Reason{"certificate-not-yet-valid", name + " begins " + times.a + ", after the timestamp " + times.b,
                      "check the clocks of the CA and of the timestamp authority, and sign again"};
    }
    if (rc == 0) return std::nullopt;
    return Reason{"certificate-undecodable", name + " has dates that cannot be read",
                  "have it issued with UTCTime or GeneralizedTime in whole seconds, ending in Z"};
}

// Why the chain does not go on above a certificate that is no trusted root.
Reason ChainWalk::judgeTop(const PELNIC_X509_CERT* cert, const Json& link) const
{
    const std::string name = briefName(memberOf(link, "subject"));
    const std::string issuer = briefName(memberOf(link, "issuer"));
    const std::string trusted = briefName(memberOf(contents_.root, "subject"));
    const std::vector<const PELNIC_X509_CERT*> named = casNamed(vrf_, cert->toBeSigned->issuer);
    const bool isBroughtAlong = std::any_of(contents_.objects.begin(), contents_.objects.end(), [&](const auto& entry) {
        return memberOf(entry.second, "is_self_issued") == true &&
               entry.second["subject"] == memberOf(link, "issuer") && entry.second["source"] != source::COMPILED_IN &&
               entry.second["source"] != source::ROOT_FILE;
    });
    if (named.empty() && isBroughtAlong) {
        return {"wrong-root",
                "the chain ends at " + issuer + ", which came with the package and is not " + trusted +
                    ", the root that the checker trusts",
                "sign below " + trusted + ", or check with the checker that was built for " + issuer};
    }
    if (named.empty()) {
        return {"issuer-missing",
                "no certificate of " + issuer + ", which issued " + name + ", is there; the checker trusts " + trusted,
                "put the certificate of " + issuer + " into the signature (--chain), or use a checker that trusts it"};
    }
    const auto mayNot = [&](const PELNIC_X509_CERT* ca) { return !hasKeyUsage(vrf_, ca, PNV_KU_KEY_CERT_SIGN); };
    if (std::all_of(named.begin(), named.end(), mayNot)) {
        return {"issuer-usage", issuer + " may not issue certificates: its key usage lacks keyCertSign",
                "issue the certificate of " + issuer + " with keyUsage = critical,keyCertSign,cRLSign"};
    }
    if (named[0]->bFromPackage == 0) {
        return {"wrong-root",
                name + " was issued by another " + issuer +
                    " than the root that the checker trusts: the name is the same, the key is not",
                "sign below the root that the checker was built for, or build it for this one"};
    }
    return {"issuer-signature", "the signature on " + name + " does not verify with the key of " + issuer,
            "the certificate was altered, or another CA of that name issued it: use the one that did"};
}

// Why a CRL cannot speak for a certificate; the sentence lacks its subject.
Reason ChainWalk::judgeUnusable(const PELNIC_X509_CRL* crl, const PELNIC_X509_CERT* root, const Json& json) const
{
    const std::string issuer = briefName(memberOf(json, "issuer"));
    const PELNIC_X509_CERT* const author = pelnic_pki_find_crl_issuer(vrf_, crl);
    const std::vector<const PELNIC_X509_CERT*> named = casNamed(vrf_, crl->tbs_cert_list->issuer);
    const auto mayNot = [&](const PELNIC_X509_CERT* ca) { return !hasKeyUsage(vrf_, ca, PNV_KU_CRL_SIGN); };
    if (author == nullptr && named.empty()) {
        return {"crl-issuer-missing", "lacks the certificate of its issuer",
                "put the certificate of " + issuer + " into the signature (--chain), or beside the CRLs"};
    }
    if (author == nullptr && std::all_of(named.begin(), named.end(), mayNot)) {
        return {"crl-issuer-usage", "comes from a CA that may not issue any: its key usage lacks cRLSign",
                "issue the certificate of " + issuer + " with keyUsage = critical,keyCertSign,cRLSign"};
    }
    if (author == nullptr) {
        return {"crl-signature", "does not verify with the key of its issuer",
                "it was altered, or another CA of that name issued it: pack the one of this CA"};
    }
    if (_pnvFindCertRoot(vrf_, author) != root) {
        return {"crl-other-root", "leads to another root than the certificate",
                "pack the CRL of the certificate's own CA"};
    }
    PNV_TIME_T nextUpdate = 0;
    if (pelnic_convert_datetime_to_time(vrf_, crl->tbs_cert_list->next_update, &nextUpdate) == 0) {
        const TimePair times(timeText(nextUpdate), now());
        return {"crl-expired", "ended " + times.a + ", before the timestamp " + times.b,
                "publish a CRL of " + issuer + " that covers the signing time, and pack it"};
    }
    return {"crl-undecodable", "has no nextUpdate that can be read",
            "publish it with one in whole seconds of UTC (openssl ca -gencrl -crldays 365)"};
}

std::vector<ChainWalk::Candidate> ChainWalk::candidatesFor(const PELNIC_X509_CERT* cert,
                                                           const PELNIC_X509_CERT* root) const
{
    std::vector<Candidate> candidates;
    const LIST_TYPE_PELNIC_X509_CRL& crls = storeOf(vrf_).trust_store->crl_store;
    for (PNV_UINT32 i = 0; i < crls.num; ++i) {
        const PELNIC_X509_CRL* const crl = crls.data[i];
        if (!sameName(vrf_, cert->toBeSigned->issuer, crl->tbs_cert_list->issuer) && !isIndirect(vrf_, crl)) continue;
        candidates.push_back({crl, _pnvCrlGetScore(vrf_, crl, cert, root)});
    }
    return candidates;
}

// What the chosen CRL says of the certificate.
std::optional<Failure> ChainWalk::readBest(const PELNIC_X509_CERT* cert, const PELNIC_X509_CRL* best, const Json& link,
                                           Json& json, const std::string& at)
{
    json["is_chosen"] = true;
    next_ = isIndirect(vrf_, best) ? _pnvFindCertIssuer(vrf_, cert) : pelnic_pki_find_crl_issuer(vrf_, best);
    const Json* const entry = entryFor(best, memberOf(link, "serial"));
    PELNIC_X509_CRL* used = nullptr;
    const PELNIC_ERROR_CODE rc = _pnvCheckCrlOfCert(vrf_, const_cast<PELNIC_X509_CERT*>(cert), &used);
    if (rc == 0) {
        json["says"] = entry == nullptr ? "does not list it" : "revokes it only later";
        return std::nullopt;
    }
    const std::string name = briefName(memberOf(link, "subject"));
    json["says"] = rc == PELNIC_ERR_CERT_REVOKED ? "revokes it" : "cannot be applied";
    if (rc != PELNIC_ERR_CERT_REVOKED) {
        return Failure{at,
                       link,
                       {"crl-undecodable", "whether " + name + " is revoked cannot be told",
                        "have certificate and CRL issued again with well-formed extensions"}};
    }
    const std::string since = entry == nullptr ? "?" : textOf((*entry)["date"]).substr(0, 10);
    const std::string why =
        entry == nullptr || (*entry)["reason"].is_null() ? "" : " (" + textOf((*entry)["reason"]) + ")";
    return Failure{
        at,
        link,
        {"certificate-revoked",
         "the CRL of " + briefName(memberOf(json, "issuer")) + " revokes certificate " + name + " as of " + since + why,
         "sign and timestamp with certificates that are not revoked"}};
}

std::optional<Failure> ChainWalk::visitCrls(const PELNIC_X509_CERT* cert, const PELNIC_X509_CERT* root, Json& link,
                                            const std::string& at)
{
    const std::vector<Candidate> candidates = candidatesFor(cert, root);
    const PELNIC_X509_CRL* const best = _pnvFindBestCrlOfCert(vrf_, cert);
    std::optional<Failure> failure;
    std::optional<Failure> unusable;
    const Candidate* strongest = nullptr;
    for (const Candidate& candidate : candidates) {
        const std::string place = at + "/crls/" + std::to_string(link["crls"].size());
        Json json = describe(candidate.crl);
        json["score"] = candidate.score;
        json["is_chosen"] = false;
        json["says"] = nullptr;
        if (candidate.crl == best) failure = readBest(cert, best, link, json, place);
        if (candidate.score == 0) {
            Failure why{place, json, judgeUnusable(candidate.crl, root, json)};
            json["says"] = why.reason.sentence;
            why.reason.sentence = "CRL of " + briefName(memberOf(json, "issuer")) + " " + why.reason.sentence;
            const bool isEarlier = unusable && unusable->reason.kind == "crl-expired";
            if (!isEarlier) unusable = why; // of several unusable ones the expired one is reported
        } else if (strongest == nullptr || candidate.score > strongest->score) {
            strongest = &candidate;
        }
        link["crls"].push_back(json);
    }
    if (best != nullptr) return failure;
    if (strongest != nullptr) { // its issuer does not verify, which is reported further up
        next_ = pelnic_pki_find_crl_issuer(vrf_, strongest->crl);
        return std::nullopt;
    }
    next_ = _pnvFindCertIssuer(vrf_, cert);
    if (unusable) return unusable;
    const std::string issuer = briefName(memberOf(link, "issuer"));
    return Failure{
        at,
        link,
        {"crl-missing",
         "no CRL of " + issuer + ", which issued " + briefName(memberOf(link, "subject")) + ", is in the package",
         "pack a CRL of " + issuer + " that covers " + now().substr(0, 10)}};
}

std::optional<Failure> ChainWalk::visit(const PELNIC_X509_CERT* cert, Json& link, const std::string& at)
{
    next_ = nullptr;
    if (const auto reason = judgeDates(cert, link)) {
        next_ = isSelfSigned(vrf_, cert) ? nullptr : _pnvFindCertIssuer(vrf_, cert);
        return Failure{at, link, *reason};
    }
    if (isSelfSigned(vrf_, cert)) return std::nullopt; // only the trusted one ever gets here
    const PELNIC_X509_CERT* const root = _pnvFindCertRoot(vrf_, cert);
    if (root != nullptr) return visitCrls(cert, root, link, at);
    next_ = _pnvFindCertIssuer(vrf_, cert);
    if (next_ != nullptr) return std::nullopt; // the chain breaks further up
    return Failure{at, link, judgeTop(cert, link)};
}

std::optional<Failure> ChainWalk::walk(const PELNIC_X509_CERT* cert, Json& links, const std::string& at)
{
    // What the library remembers of a certificate is of its last verification: here of this one, at the present time.
    PNV_BOOL isVerified = 0;
    (void)pelnic_pki_verify_cert(vrf_, cert, 1, &isVerified);
    std::optional<Failure> first;
    for (int depth = 0; cert != nullptr; ++depth) {
        const std::string place = at + "/" + std::to_string(depth);
        links.push_back(describe(cert));
        if (depth == DEEPEST) {
            if (first) return first;
            return Failure{place,
                           links.back(),
                           {"path-too-deep", "the chain has more than 11 certificates",
                            "issue the signer's certificate nearer to the root"}};
        }
        vrf_->curr_depth = depth + 1;
        std::optional<Failure> failure = visit(cert, links.back(), place);
        vrf_->curr_depth = 0;
        if (!first) first = std::move(failure);
        cert = next_;
    }
    return first;
}

} // namespace pkgtool
