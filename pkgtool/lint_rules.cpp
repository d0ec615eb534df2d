#include "lint_rules.h"

#include "container.h"
#include "text.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>
#include <set>

namespace pkgtool {

namespace {

constexpr int WEAK_KEY_BITS = 2048;
constexpr std::size_t MAX_EXPONENT_DIGITS = 16; // 64 bits
constexpr std::time_t DAY = 86400;

std::string pointerTo(const std::string& array, std::size_t i)
{
    return array + "/" + std::to_string(i);
}

std::string dayOf(std::time_t time)
{
    return timeText(time).substr(0, 10);
}

// The index of the sub-file of that type that the checker uses: the later of two.
std::optional<std::size_t> indexOf(const Contents& contents, std::uint32_t type)
{
    for (std::size_t i = contents.subFiles.size(); i-- > 0;) {
        if (contents.subFiles[i]["type"] == typeName(type)) return i;
    }
    return std::nullopt;
}

// Its decoded content, or null.
const Json& contentOf(const Contents& contents, std::uint32_t type)
{
    const std::optional<std::size_t> index = indexOf(contents, type);
    return index ? memberOf(contents.subFiles[*index], "content") : NO_VALUE;
}

std::string placeOf(const Contents& contents, std::uint32_t type)
{
    return pointerTo("/sub_files", indexOf(contents, type).value_or(0)) + "/content";
}

// ---- The container ----

struct Range {
    std::uint64_t begin;
    std::uint64_t end;
    std::size_t index;
};

// The non-empty sub-files inside the file, by position; offsets as in the table.
std::vector<Range> rangesOf(const Json& subFiles)
{
    std::vector<Range> ranges;
    for (std::size_t i = 0; i < subFiles.size(); ++i) {
        const auto offset = subFiles[i]["offset"].get<std::uint64_t>();
        const auto length = subFiles[i]["length"].get<std::uint64_t>();
        if (length > 0 && subFiles[i]["is_inside"] == true) ranges.push_back({offset, offset + length, i});
    }
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
    return ranges;
}

void lintRanges(const Json& subFiles, std::size_t size, Findings& findings)
{
    std::uint64_t covered = 0;
    std::uint64_t end = 0;
    for (const Range& range : rangesOf(subFiles)) {
        if (range.begin < end) {
            findings.push_back({"sub-file-overlap", Severity::Warning, pointerTo("/sub_files", range.index),
                                "this sub-file overlaps another: what is signed depends on who reads it"});
        }
        if (range.end > end) covered += range.end - std::max(end, range.begin);
        end = std::max(end, range.end);
    }
    const std::uint64_t bytes = size - sizeof(Header) - covered;
    if (bytes == 0) return;
    findings.push_back({"bytes-outside-sub-files", Severity::Warning, "/sub_files",
                        std::to_string(bytes) + (bytes == 1 ? " byte of the file is" : " bytes of the file are") +
                            " in no sub-file and unsigned"});
}

void lintTable(const Json& subFiles, Findings& findings)
{
    std::set<std::string> types;
    for (std::size_t i = 0; i < subFiles.size(); ++i) {
        const auto type = subFiles[i]["type"].get<std::string>();
        const std::string place = pointerTo("/sub_files", i);
        if (subFiles[i]["is_inside"] == false) {
            findings.push_back(
                {"sub-file-outside", Severity::Warning, place, "the sub-file " + type + " lies outside the file"});
        }
        if (!types.insert(type).second) {
            findings.push_back({"sub-file-twice", Severity::Warning, place,
                                "there are several sub-files of the type " + type + ", and only the last one counts"});
        }
        if (type[0] == '0') {
            findings.push_back({"sub-file-unknown", Severity::Warning, place,
                                "the checker does not know the type " + type + ", and nobody signed it"});
        }
    }
}

void lintUnsigned(const Contents& contents, Findings& findings)
{
    if (contents.header["sub_file_count"] == 1) {
        findings.push_back({"unsigned-by-count", Severity::Error, "/header/sub_file_count",
                            "the header counts one sub-file: every device accepts it without examining it"});
        return;
    }
    if (contents.header["sub_file_count"] != 3) return; // no device accepts it
    const std::optional<std::size_t> index = indexOf(contents, SUB_FILE_CMS);
    if (index && contents.subFiles[*index]["length"] != 0) return;
    findings.push_back({"unsigned-without-signature", Severity::Error,
                        index ? pointerTo("/sub_files", *index) : "/sub_files",
                        index ? "the signature is empty: every device silently accepts the package"
                              : "there is no signature: every device silently accepts the package"});
}

// ---- Objects that only one of two readers decodes ----

std::string whatIs(const Json& object, const char* member)
{
    if (object.contains("subject")) return "the certificate " + briefName(object["subject"]);
    if (object.contains("issuer")) return "the CRL of " + briefName(object["issuer"]);
    if (object.contains("form")) return "the signature";
    return std::string(member) == "read_by" ? "the timestamp" : "the timestamp's TSTInfo";
}

void lintReaders(const Json& object, const std::string& at, Findings& findings)
{
    for (const char* member : {"read_by", "tst_info_read_by"}) {
        if (memberOf(object, member) == read_by::CHECKER) {
            findings.push_back({"read-by-checker-alone", Severity::Warning, at,
                                whatIs(object, member) + " can be decoded by the checker but not by OpenSSL"});
        }
        if (memberOf(object, member) == read_by::OPENSSL) {
            findings.push_back({"read-by-openssl-alone", Severity::Warning, at,
                                whatIs(object, member) + " can be decoded by OpenSSL but not by the checker"});
        }
    }
    for (const char* member : {"certificates", "crls", "signers", "timestamps"}) {
        const Json& array = memberOf(object, member);
        for (std::size_t i = 0; i < array.size(); ++i) {
            lintReaders(array[i], at + pointerTo(std::string("/") + member, i), findings);
        }
    }
}

// ---- Signers and certificates ----

void lintAttributes(const Json& signer, const std::string& at, Findings& findings)
{
    const Json& attributes = signer["signed_attributes"];
    if (attributes.is_null() || std::find(attributes.begin(), attributes.end(), "contentType") != attributes.end())
        return;
    findings.push_back({"no-content-type", Severity::Warning, at,
                        "the signed attributes lack the content type, which RFC 5652 requires"});
}

void lintTimestamps(const Json& signer, const std::string& at, Findings& findings)
{
    const Json& timestamps = signer["timestamps"];
    if (timestamps.size() > 1) {
        findings.push_back({"timestamp-twice", Severity::Warning, at + "/timestamps",
                            "there are several timestamps, and only the first one counts"});
    }
    if (timestamps.empty() || !timestamps[0]["problem"].is_null()) return;
    const Json& token = timestamps[0];
    const std::string place = at + "/timestamps/0";
    if (token["signers"].empty()) {
        findings.push_back({"timestamp-without-signers", Severity::Error, place,
                            "nobody signed the timestamp: anybody could have chosen the time"});
    }
    if (token["has_accuracy_seconds"] == false) {
        findings.push_back({"timestamp-without-accuracy", Severity::Note, place,
                            "the timestamp states no accuracy in seconds; a verifier of RFC 3161 may want one"});
    }
    for (std::size_t i = 0; i < token["signers"].size(); ++i) {
        lintAttributes(token["signers"][i], place + pointerTo("/signers", i), findings);
    }
}

void lintSigners(const Json& signers, const std::string& at, Findings& findings)
{
    std::size_t direct = 0;
    for (std::size_t i = 0; i < signers.size(); ++i) {
        const std::string place = at + pointerTo("/signers", i);
        lintTimestamps(signers[i], place, findings);
        lintAttributes(signers[i], place, findings);
        if (!signers[i]["signed_attributes"].is_null()) continue;
        ++direct;
        findings.push_back({"signer-without-attributes", Severity::Warning, place,
                            "the signer has no signed attributes: the signed attributes of another of its "
                            "signatures would pass for a payload"});
    }
    if (direct < 2) return;
    findings.push_back(
        {"last-signer-decides", Severity::Error, at + "/signers",
         std::to_string(direct) + " signers have no signed attributes, and of these only the last counts"});
}

// Whether there is a certificate of that kind and issuer. A root's own does not count: no CRL covers it.
bool hasIssued(const Contents& contents, const Json& issuer, bool isCa)
{
    return std::any_of(contents.objects.begin(), contents.objects.end(), [&](const auto& entry) {
        const Json& cert = entry.second;
        return cert.contains("subject") && cert["issuer"] == issuer && cert["is_ca"] == isCa &&
               cert["is_self_issued"] == false;
    });
}

// In hexadecimal digits, two an octet.
void lintExponent(const Json& exponent, const std::string& key, const std::string& place, Findings& findings)
{
    if (exponent == "0" || exponent == "01" || exponent == "02") {
        findings.push_back({"no-exponent", Severity::Error, place,
                            key + " has the exponent " + exponent.get<std::string>() + ": anybody can sign with it"});
    } else if (exponent.is_string() && exponent.get<std::string>().size() > MAX_EXPONENT_DIGITS) {
        findings.push_back({"long-exponent", Severity::Warning, place,
                            key + " has an exponent of more than 64 bits, which makes each check slow"});
    }
}

void lintCertificates(const Contents& contents, const Json& certificates, const std::string& at, Findings& findings)
{
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        const Json& cert = certificates[i];
        if (!cert.contains("subject")) continue; // not a certificate, and the package is refused for it
        const std::string place = at + pointerTo("/certificates", i);
        const std::string name = briefName(cert["subject"]);
        if (cert["is_self_issued"] == true) {
            findings.push_back({"root-carried", Severity::Note, place,
                                name + " is its own issuer: the checker takes no root from a package"});
        } else if (cert["is_ca"] == true && !hasIssued(contents, cert["subject"], true) &&
                   !hasIssued(contents, cert["subject"], false)) {
            findings.push_back({"ca-carried", Severity::Note, place,
                                "the CA " + name +
                                    " comes with the package but issued nothing in it: devices accept "
                                    "every CA below their root"});
        }
        if (cert["key"] == "RSA" && cert["key_bits"] < WEAK_KEY_BITS) {
            findings.push_back(
                {"weak-key", Severity::Warning, place,
                 "the key of " + name + " has " + cert["key_bits"].dump() + " bits; at least 2048 are expected"});
        }
        lintExponent(cert["key_exponent"], "the key of " + name, place, findings);
    }
}

// A CA that got a new key under its old name: one of its certificates may go unchecked.
void lintRenewedCas(const Contents& contents, Findings& findings)
{
    std::map<Json, int> cas; // names as they are: not all of them are UTF-8
    for (const auto& [signedPart, object] : contents.objects) {
        if (object.contains("is_ca") && object["is_ca"] == true) ++cas[object["subject"]];
    }
    for (const auto& [name, count] : cas) {
        if (count < 2) continue;
        findings.push_back({"ca-twice", Severity::Warning, "/sub_files",
                            "there are several certificates of the CA " + briefName(name) +
                                ": a CRL by one key covers certificates by another, whose CA is not checked"});
    }
}

// ---- CRLs ----

// The latest time at which a device will judge the package.
std::optional<std::time_t> latestTimestamp(const Contents& contents)
{
    std::optional<std::time_t> latest;
    const Json& signature = contentOf(contents, SUB_FILE_CMS);
    if (!signature.contains("signers")) return latest;
    for (const Json& signer : signature["signers"]) {
        for (const Json& token : signer["timestamps"]) {
            const std::optional<std::time_t> time = token.contains("time") ? secondsOf(token["time"]) : std::nullopt;
            if (time && (!latest || *time > *latest)) latest = time;
        }
    }
    return latest;
}

// A CRL for CA certificates only, or for others only, is in order if its issuer issued no others.
void lintScope(const Contents& contents, const Json& crl, const std::string& at, Findings& findings)
{
    for (const Json& limit : crl["scope"]) {
        if (limit == "CA certificates" && !hasIssued(contents, crl["issuer"], false)) continue;
        if (limit == "user certificates" && !hasIssued(contents, crl["issuer"], true)) continue;
        findings.push_back({"crl-limited", Severity::Warning, at,
                            "the CRL of " + briefName(crl["issuer"]) + " is limited (" + textOf(limit) +
                                "): devices treat it as complete, and certificates that it omits pass"});
    }
}

void lintCrl(const Json& crl, const std::string& at, std::optional<std::time_t> signedAt, const Limits& limits,
             Findings& findings)
{
    const std::string name = "the CRL of " + briefName(crl["issuer"]);
    const std::optional<std::time_t> begin = secondsOf(crl["this_update"]);
    const std::optional<std::time_t> end = secondsOf(crl["next_update"]);
    if (crl["is_indirect"] == true) {
        findings.push_back({"crl-indirect", Severity::Warning, at, name + " covers other issuers as well"});
    }
    if (signedAt && end && *end >= *signedAt && *end - *signedAt < limits.crlMarginDays * DAY) {
        findings.push_back({"crl-ends-soon", Severity::Warning, at,
                            name + " ends " + dayOf(*end) + ", soon after the timestamp " + dayOf(*signedAt)});
    }
    if (signedAt && begin && *begin > *signedAt) {
        findings.push_back({"crl-begins-later", Severity::Note, at,
                            name + " begins " + dayOf(*begin) + ", after the timestamp " + dayOf(*signedAt) +
                                ", and is used nevertheless"});
    }
    if (begin && end && *end - *begin > limits.crlDays * DAY) {
        findings.push_back({"crl-too-long", Severity::Warning, at,
                            name + " is valid for " + std::to_string((*end - *begin) / DAY) +
                                " days: a later revocation can stay hidden that long"});
    }
}

} // namespace

Findings lintContainer(const Contents& contents, std::size_t size)
{
    // What counts more sub-files than there is room for is no package: the checker's refusal says so, and it is enough.
    if (contents.header["sub_file_count"] > MAX_SUB_FILES) return {};
    Findings findings;
    lintUnsigned(contents, findings);
    lintTable(contents.subFiles, findings);
    lintRanges(contents.subFiles, size, findings);
    if (contents.header["length"] != size) {
        findings.push_back({"header-length", Severity::Note, "/header/length",
                            "the header says " + contents.header["length"].dump() + " bytes, and the file has " +
                                std::to_string(size)});
    }
    return findings;
}

Findings lintReading(const Contents& contents)
{
    Findings findings;
    for (const std::uint32_t type : {SUB_FILE_CMS, SUB_FILE_CRL}) {
        lintReaders(contentOf(contents, type), placeOf(contents, type), findings);
    }
    return findings;
}

Findings lintSignature(const Contents& contents)
{
    Findings findings;
    const std::string place = placeOf(contents, SUB_FILE_CMS);
    const Json& signature = contentOf(contents, SUB_FILE_CMS);
    if (!signature.contains("signers")) return findings;
    lintSigners(signature["signers"], place, findings);
    lintCertificates(contents, signature["certificates"], place, findings);
    lintRenewedCas(contents, findings);
    return findings;
}

Findings lintCrls(const Contents& contents, const Limits& limits)
{
    Findings findings;
    const std::string place = placeOf(contents, SUB_FILE_CRL);
    const Json& file = contentOf(contents, SUB_FILE_CRL);
    if (!file.contains("crls")) return findings;
    const std::optional<std::time_t> signedAt = latestTimestamp(contents);
    for (std::size_t i = 0; i < file["crls"].size(); ++i) {
        lintScope(contents, file["crls"][i], place + pointerTo("/crls", i), findings);
        lintCrl(file["crls"][i], place + pointerTo("/crls", i), signedAt, limits, findings);
    }
    if (file["unread_bytes"] != 0) {
        findings.push_back({"crl-unread-bytes", Severity::Warning, place,
                            file["unread_bytes"].dump() + " bytes after the CRLs are ignored"});
    }
    return findings;
}

} // namespace pkgtool
