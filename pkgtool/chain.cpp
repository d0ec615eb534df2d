#include "chain.h"

#include "text.h"

#include "cmsverify/pelnic_pki_impl.h"

#include <algorithm>
#include <set>

namespace pkgtool {

namespace {

// Two times as days, or in full if the days are equal.
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

bool hasUsage(const Json& cert, const char* usage)
{
    const Json& usages = memberOf(cert, "usage");
    return std::find(usages.begin(), usages.end(), usage) != usages.end();
}

bool isTrusted(const Json& cert)
{
    return cert["source"] == source::COMPILED_IN || cert["source"] == source::ROOT_FILE;
}

// Without a CRL's entries: there can be many, and the relevant one comes with the verdict.
Json describe(const Json& object, const char* added)
{
    Json json;
    for (const auto& [name, value] : object.items()) {
        if (name != "revoked") json[name] = value;
    }
    if (added != nullptr) json[added] = Json::array();
    return json;
}

} // namespace

// The CA certificates with that subject that the checker can decode.
std::vector<const ChainStory::Entry*> ChainStory::casNamed(const Json& name) const
{
    std::vector<const Entry*> named;
    for (const Entry& entry : contents_.objects) {
        const Json& cert = entry.second;
        if (memberOf(cert, "is_ca") == true && cert["subject"] == name && cert["read_by"] != read_by::OPENSSL) {
            named.push_back(&entry);
        }
    }
    return named;
}

// Those of them that the library could try: no roots from a signature, and only the first of several with one issuer,
// serial number and key.
std::vector<const ChainStory::Entry*> ChainStory::casAsked(const Json& name) const
{
    std::vector<const Entry*> named = casNamed(name);
    const auto isLeftOut = [&](const Entry* ca) {
        const Json& from = ca->second["source"];
        const auto part = testimony_.parts.find(ca->first);
        const bool isTaken = part != testimony_.parts.end() && testimony_.taken.count(&*part) != 0;
        return (from == source::SIGNATURE || from == source::TOKEN) && !isTaken;
    };
    named.erase(std::remove_if(named.begin(), named.end(), isLeftOut), named.end());
    return named;
}

std::optional<Reason> ChainStory::judgeDates(const LinkTestimony& link, const Json& json) const
{
    const std::string name = "certificate " + briefName(memberOf(json, "subject"));
    const PELNIC_ERROR_CODE rc = codeOf(link.codes, Decision::Dates);
    if (rc == PELNIC_ERR_CERT_EXPIRED) {
        const TimePair times(textOf(memberOf(json, "not_after")), now_);
        return Reason{"certificate-expired", name + " ended " + times.a + ", before the timestamp " + times.b,
                      "renew the certificate and sign again; a timestamp from before its end would have kept it good"};
    }
    if (rc == PELNIC_ERR_CERT_NOT_YET_VALID) {
        const TimePair times(textOf(memberOf(json, "not_before")), now_);
        return Reason{"certificate-not-yet-valid", name + " begins " + times.a + ", after the timestamp " + times.b,
                      "check the clocks of the CA and of the timestamp authority, and sign again"};
    }
    if (rc == 0) return std::nullopt;
    return Reason{"certificate-undecodable", name + " has dates that cannot be read",
                  "have it issued with UTCTime or GeneralizedTime in whole seconds, ending in Z"};
}

// Why the chain ends at a certificate that is not a trusted root.
Reason ChainStory::judgeTop(const Json& json) const
{
    const std::string name = briefName(memberOf(json, "subject"));
    const std::string issuer = briefName(memberOf(json, "issuer"));
    const std::string trusted = briefName(memberOf(contents_.root, "subject"));
    const std::vector<const Entry*> named = casAsked(memberOf(json, "issuer"));
    const std::vector<const Entry*> leftOut = casNamed(memberOf(json, "issuer"));
    if (named.empty() && leftOut.empty()) {
        return {"issuer-missing",
                "the certificate of " + issuer + ", which issued " + name + ", is missing; the checker trusts " +
                    trusted,
                "put the certificate of " + issuer + " into the signature (--chain), or use a checker that trusts it"};
    }
    if (named.empty() && leftOut[0]->second["is_self_issued"] == true) {
        return {"wrong-root",
                "the chain ends at " + issuer + ", which came with the package and is not " + trusted +
                    ", the root that the checker trusts",
                "sign below " + trusted + ", or check with the checker that was built for " + issuer};
    }
    if (named.empty()) {
        return {"issuer-missing",
                "the certificate of " + issuer + ", which issued " + name +
                    ", was ignored: an earlier one has the same issuer, serial number and key",
                "give every CA certificate its own serial number"};
    }
    const auto mayNot = [](const Entry* ca) { return !hasUsage(ca->second, "keyCertSign"); };
    if (std::all_of(named.begin(), named.end(), mayNot)) {
        return {"issuer-usage", issuer + " may not issue certificates: its key usage lacks keyCertSign",
                "issue the certificate of " + issuer + " with keyUsage = critical,keyCertSign,cRLSign"};
    }
    if (std::any_of(named.begin(), named.end(), [](const Entry* ca) { return isTrusted(ca->second); })) {
        return {"wrong-root",
                "the signature on " + name + " does not verify with the key of " + issuer +
                    ", the root that the checker trusts: another root of that name issued it, or it was altered",
                "sign below the root that the checker was built for, or build it for the other one"};
    }
    return {"issuer-signature", "the signature on " + name + " does not verify with the key of " + issuer,
            "the certificate was altered, or another CA of that name issued it: use the one that did"};
}

// Why a CRL does not apply to a certificate; the sentence lacks its subject.
Reason ChainStory::judgeUnfit(const CrlTestimony& testimony, const Json& crl) const
{
    const std::string issuer = briefName(memberOf(crl, "issuer"));
    const std::vector<const Entry*> named = casAsked(memberOf(crl, "issuer"));
    const auto mayNot = [](const Entry* ca) { return !hasUsage(ca->second, "cRLSign"); };
    switch (testimony.unfit) {
    case CrlUnfit::OtherRoot:
        return {"crl-other-root", "leads to another root than the certificate",
                "pack the CRL of the certificate's own CA"};
    case CrlUnfit::Expired: {
        const TimePair times(textOf(memberOf(crl, "next_update")), now_);
        return {"crl-expired", "ended " + times.a + ", before the timestamp " + times.b,
                "publish a CRL of " + issuer + " that covers the signing time, and pack it"};
    }
    case CrlUnfit::NoEnd:
        return {"crl-undecodable", "has no readable nextUpdate",
                "publish it with a nextUpdate in whole seconds of UTC (openssl ca -gencrl -crldays 365)"};
    default: break;
    }
    if (named.empty()) {
        return {"crl-issuer-missing", "lacks the certificate of its issuer",
                "put the certificate of " + issuer + " into the signature (--chain), or among the CRLs"};
    }
    if (std::all_of(named.begin(), named.end(), mayNot)) {
        return {"crl-issuer-usage", "comes from a CA that may not issue CRLs: its key usage lacks cRLSign",
                "issue the certificate of " + issuer + " with keyUsage = critical,keyCertSign,cRLSign"};
    }
    return {"crl-signature", "does not verify with the key of its issuer",
            "it was altered, or another CA of that name issued it: pack the one of this CA"};
}

// The chosen CRL's entry for a certificate: the one that decided, otherwise the first with its serial number; or null.
const Json& ChainStory::revocationOf(const LinkTestimony& link, const Json& json) const
{
    const Json& entries = memberOf(contents_.objects.at(*link.chosen), "revoked");
    if (codeOf(link.codes, Decision::Revocation) != 0) return elementOf(entries, link.entry);
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Json& entry) { return entry["serial"] == json["serial"]; });
    return found != entries.end() ? *found : NO_VALUE;
}

// The chosen CRL's verdict on the certificate.
std::optional<Reason> ChainStory::readChosen(const LinkTestimony& link, const Json& json, Json& crl) const
{
    const PELNIC_ERROR_CODE rc = codeOf(link.codes, Decision::Revocation);
    const Json& entry = revocationOf(link, json);
    const TimePair times(textOf(memberOf(entry, "date")), now_);
    crl["is_chosen"] = true;
    crl["revocation"] = entry;
    if (rc == 0) {
        crl["says"] = entry.is_null() ? "does not list it" : "revokes it only later, as of " + times.a;
        return std::nullopt;
    }
    const std::string name = briefName(memberOf(json, "subject"));
    if (rc != PELNIC_ERR_CERT_REVOKED) {
        crl["says"] = "cannot be applied";
        return Reason{"crl-undecodable", "the revocation of " + name + " cannot be determined",
                      "have certificate and CRL issued again with well-formed extensions"};
    }
    const Json& reason = memberOf(entry, "reason");
    const std::string asOf = " as of " + times.a + (reason.is_null() ? "" : " (" + textOf(reason) + ")") +
                             (times.a > times.b ? ", and for all earlier times" : "");
    crl["says"] = "revokes it" + asOf;
    return Reason{"certificate-revoked",
                  "the CRL of " + briefName(memberOf(crl, "issuer")) + " revokes certificate " + name + asOf,
                  "sign and timestamp with certificates that are not revoked"};
}

std::optional<Failure> ChainStory::tellCrls(const LinkTestimony& link, Json& json, const std::string& at) const
{
    std::optional<Failure> failure;
    std::optional<Failure> unfit;
    for (const CrlTestimony& testimony : link.crls) {
        const std::string place = at + "/crls/" + std::to_string(json["crls"].size());
        Json crl = describe(contents_.objects.at(*testimony.crl), nullptr);
        crl.update({{"score", testimony.score}, {"is_chosen", false}, {"says", nullptr}, {"revocation", nullptr}});
        if (testimony.crl == link.chosen) {
            if (const auto reason = readChosen(link, json, crl)) failure = Failure{place, json, *reason};
        }
        if (testimony.score == 0) {
            Failure why{place, crl, judgeUnfit(testimony, crl)};
            crl["says"] = why.reason.sentence;
            why.reason.sentence = "CRL of " + briefName(memberOf(crl, "issuer")) + " " + why.reason.sentence;
            const bool isEarlier = unfit && unfit->reason.kind == "crl-expired";
            if (!isEarlier) unfit = why; // of several the expired one is reported
        }
        json["crls"].push_back(crl);
    }
    if (codeOf(link.codes, Decision::CrlChosen) != PELNIC_ERR_CRL_NOT_FOUND) return failure;
    if (unfit) return unfit;
    const std::string issuer = briefName(memberOf(json, "issuer"));
    const std::string name = briefName(memberOf(json, "subject"));
    const Reason missing{"crl-missing", "no CRL of " + issuer + ", which issued " + name + ", is in the package",
                         "pack a CRL of " + issuer + " that covers " + now_.substr(0, 10)};
    return Failure{at, json, missing};
}

// Why a self-signed certificate is no root.
Reason ChainStory::judgeSelfSigned(PELNIC_ERROR_CODE rc, const Json& json) const
{
    const std::string name = briefName(memberOf(json, "subject"));
    if (rc == PELNIC_ERR_CERT_NO_ISSUER) {
        return {"wrong-root", "the chain ends at " + name + ", which came with the package",
                "sign below the root that the checker trusts"};
    }
    return {"wrong-root", "the signature of " + name + " on itself cannot be checked",
            "use a root with an RSA key and SHA-256, SHA-384 or SHA-512"};
}

std::optional<Failure> ChainStory::judge(const LinkTestimony& link, Json& json, const std::string& at) const
{
    const auto here = [&](const Reason& reason) { return Failure{at, json, reason}; };
    if (codeOf(link.codes, Decision::TooDeep) != 0) {
        return here({"path-too-deep", "the chain has more than 11 certificates",
                     "issue the signer's certificate nearer to the root"});
    }
    if (const auto reason = judgeDates(link, json)) return here(*reason);
    const PELNIC_ERROR_CODE selfSigned = codeOf(link.codes, Decision::SelfSigned);
    if (selfSigned != 0) return here(judgeSelfSigned(selfSigned, json));
    if (auto failure = tellCrls(link, json, at)) return failure;
    if (codeOf(link.codes, Decision::Issuer) != 0) return here(judgeTop(json));
    return std::nullopt;
}

// The CA named as a certificate's issuer.
Part ChainStory::namedIssuer(const Json& json) const
{
    if (json["is_self_issued"] == true) return nullptr;
    const std::vector<const Entry*> named = casNamed(json["issuer"]);
    return named.empty() ? nullptr : &named[0]->first;
}

// The library's next certificate: the issuer of the CRL that it chose or would have chosen; after a good indirect one,
// the certificate's issuer.
Part ChainStory::above(const LinkTestimony& link, const Json& json) const
{
    if (link.codes.count(Decision::SelfSigned) != 0) return nullptr;
    const CrlTestimony* best = nullptr;
    for (const CrlTestimony& crl : link.crls) {
        const bool isBetter =
            crl.crl == link.chosen || (link.chosen == nullptr && (best == nullptr || crl.score > best->score));
        if (isBetter && crl.score != 0) best = &crl;
    }
    const bool isIndirect = link.chosen != nullptr && best != nullptr && (best->score & PNV_CRL_INDIRECT) != 0;
    const auto crlIssuer =
        best != nullptr && !isIndirect ? signer_.crlIssuers.find(best->crl) : signer_.crlIssuers.end();
    if (crlIssuer != signer_.crlIssuers.end()) return crlIssuer->second;
    return link.codes.count(Decision::Issuer) != 0 ? link.issuer : namedIssuer(json);
}

std::optional<Failure> ChainStory::tell(Part cert, Json& links, const std::string& at) const
{
    std::optional<Failure> first;
    for (std::set<Bytes> told; cert != nullptr && told.insert(*cert).second;) {
        const std::string place = at + "/" + std::to_string(links.size());
        Json json = describe(contents_.objects.at(*cert), "crls");
        const auto link = signer_.links.find(cert);
        if (link == signer_.links.end()) { // after the failure
            cert = namedIssuer(json);
        } else {
            std::optional<Failure> failure = judge(link->second, json, place);
            if (!first) first = std::move(failure);
            cert = above(link->second, json);
        }
        links.push_back(std::move(json));
    }
    if (!first && cert != nullptr) {
        first = Failure{at + "/" + std::to_string(links.size() - 1),
                        links.back(),
                        {"wrong-root", "the certificates above issue each other, and lead to no root",
                         "sign below the root that the checker trusts"}};
    }
    return first;
}

} // namespace pkgtool
