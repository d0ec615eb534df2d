#include "diagnosis.h"

#include "chain.h"
#include "container.h"
#include "der.h"
#include "error.h"
#include "requirements.h"

#include "cmsverify/cms_verify_input.h"
#include "text.h"

#include <algorithm>
#include <functional>

namespace pkgtool {

namespace {

// The release tools' checks say more about an input than the library's code; if they find nothing, the given words are
// used.
Reason refine(Reason reason, const std::function<void()>& check)
{
    try {
        check();
    } catch (const UserError& error) {
        reason.sentence = error.what();
        if (!error.hint().empty()) reason.advice = error.hint();
    }
    return reason;
}

// ---- Elements that do not decode ----

std::string faultText(const ElementFault& element)
{
    switch (element.fault) {
    case DecodeFault::End: return "no octets are left for it";
    case DecodeFault::TagForm: return "its tag has more than one byte";
    case DecodeFault::Tag:
        return element.expected.empty() ? "it is not the expected element" : "it is no " + element.expected;
    case DecodeFault::LengthForm: return "its length is indefinite, or in more than four bytes";
    case DecodeFault::Length: return "it claims more bytes than are left";
    case DecodeFault::Missing: return "it ends before " + element.missing;
    case DecodeFault::Overrun: return "its contents do not end where it does";
    case DecodeFault::Value: return "its content is invalid for its type";
    case DecodeFault::Type: return "its type is unknown to the checker";
    default: return "";
    }
}

// The offset of an element in its sub-file, or null if its input is not there or there twice.
Json placeIn(const Bytes& subFile, const ElementFault& element)
{
    const Bytes& input = element.input;
    const auto from = [&](Bytes::const_iterator at) {
        return std::search(at, subFile.end(), input.begin(), input.end());
    };
    const auto found = from(subFile.begin());
    if (input.empty() || found == subFile.end() || from(found + 1) != subFile.end()) return {};
    return static_cast<std::size_t>(found - subFile.begin()) + element.offset;
}

// ---- The story ----

class Story {
public:
    Story(ByteView package, const Contents& contents, const Verdict& verdict)
        : package_(package), contents_(contents), header_(decodeHeader(package)), testimony_(verdict.testimony)
    {
    }

    void tell(const Verdict& verdict);

    Json failure;
    Json signers = Json::array();

private:
    // Only the first failure counts.
    void fail(const std::string& at, const Json& about, const Reason& reason);
    std::optional<std::size_t> indexOf(std::uint32_t type) const;
    std::string placeOf(std::uint32_t type) const;
    Bytes subFile(std::uint32_t type) const;

    void judgeContainer(const PELNIC_VERIFY_SIGNATURE_S& sig);
    void judgeInputs();
    void failToDecode(std::uint32_t type, const std::string& at, const Json& about, const Reason& reason);
    std::optional<Reason> judgeEnvelope(const Json& subFile) const;
    std::optional<Reason> judgeCertificates(const Json& certificates) const;
    Reason refineBySigners(const Reason& reason) const;

    void tellSigner(const SignerTestimony& signer, const Json& view, const std::string& at);
    void tellTimestamp(const SignerTestimony& signer, const Json& view, Json& node, const std::string& at);
    void tellCertificate(const SignerTestimony& signer, const std::string& time, bool isAuthority, Json& node,
                         const std::string& at);
    void judgeValue(const SignerTestimony& signer, const Json& node, const std::string& at);

    ByteView package_;
    const Contents& contents_;
    const Header header_;
    const Testimony& testimony_;
};

void Story::fail(const std::string& at, const Json& about, const Reason& reason)
{
    if (!failure.is_null()) return;
    const Json& subject = memberOf(about, "subject");
    failure = {{"at", at},
               {"kind", reason.kind},
               {"subject", subject.is_null() ? memberOf(about, "issuer") : subject},
               {"serial", memberOf(about, "serial")},
               {"reason", reason.sentence},
               {"advice", reason.advice},
               {"element", nullptr}};
}

// Of two sub-files with one type the checker uses the later one.
std::optional<std::size_t> Story::indexOf(std::uint32_t type) const
{
    for (std::size_t i = contents_.subFiles.size(); i-- > 0;) {
        if (header_.stSubFileInfo[i].ulSubFileID == type) return i;
    }
    return std::nullopt;
}

std::string Story::placeOf(std::uint32_t type) const
{
    const std::optional<std::size_t> index = indexOf(type);
    return index ? "/sub_files/" + std::to_string(*index) : "/sub_files";
}

Bytes Story::subFile(std::uint32_t type) const
{
    return contentOf(header_.stSubFileInfo[*indexOf(type)], package_);
}

Reason Story::refineBySigners(const Reason& reason) const
{
    return refine(reason, [&] { requireSigners(subFile(SUB_FILE_CMS), "the signature"); });
}

// ---- Cases before the library's verification, or without its report

void Story::judgeContainer(const PELNIC_VERIFY_SIGNATURE_S& sig)
{
    if (header_.ulSubFileNum == 1) return;
    if (header_.ulSubFileNum != 3) {
        return fail("/header/sub_file_count", {},
                    {"sub-file-count",
                     "the header counts " + std::to_string(header_.ulSubFileNum) +
                         " sub-files; the checker takes three, or one of an unsigned package",
                     "pack a payload, its signature and the CRLs"});
    }
    if (sig.uiCmsLength == 0) return;
    if (sig.pBin == nullptr || sig.uiBinLength == 0) {
        return fail(placeOf(SUB_FILE_PAYLOAD), {},
                    {"payload-missing", "there is a signature, but no payload or an empty one", "pack the payload"});
    }
    for (std::uint32_t type : {SUB_FILE_CMS, SUB_FILE_PAYLOAD, SUB_FILE_CRL}) {
        const std::optional<std::size_t> index = indexOf(type);
        if (!index || contents_.subFiles[*index]["is_inside"] == true || contents_.subFiles[*index]["length"] == 0)
            continue;
        return fail(placeOf(type), {},
                    {"sub-file-outside", "the " + typeName(type) + " lies outside the file",
                     "the file was cut off, or its table is wrong: pack again"});
    }
    if (sig.pCrl != nullptr) return;
    fail("/sub_files", {}, {"crl-file-missing", "there is no CRL sub-file", "pack a CRL of every CA (--crl)"});
}

// ---- Inputs

// An undecodable input, with the element at fault.
void Story::failToDecode(std::uint32_t type, const std::string& at, const Json& about, const Reason& reason)
{
    const bool isFirst = failure.is_null();
    fail(at, about, reason);
    if (!isFirst || !testimony_.element) return;
    const ElementFault& element = *testimony_.element;
    Bytes content = subFile(type);
    try {
        if (type == SUB_FILE_CMS && isPem(content)) content = withoutArmour(content, "the signature");
    } catch (const UserError&) {
        content.clear(); // then nothing of it was decoded
    }
    failure["element"] = {{"path", element.path},
                          {"offset", placeIn(content, element)},
                          {"expected", orNull(element.expected)},
                          {"found", hexText(element.found.data(), element.found.size())},
                          {"fault", faultText(element)}};
}

// A fault in the frame of an undecodable signature, or nothing.
std::optional<Reason> Story::judgeEnvelope(const Json& json) const
{
    if (memberOf(json, "length") < MIN_INPUT) {
        return Reason{"signature-undecodable",
                      "the signature has " + textOf(json["length"]) + " bytes, and no signature has fewer than " +
                          std::to_string(MIN_INPUT),
                      "it was cut off, or is none: pack the complete signature file"};
    }
    const Json& content = memberOf(json, "content");
    const std::string label = textOf(memberOf(content, "pem_label"));
    const bool isKnown = label == "CMS" || label == "PKCS7";
    if (isKnown && content["pem_end"] == "missing") {
        return Reason{"signature-undecodable", "the signature's PEM text has no -----END " + label + "-----",
                      "pack the complete signature file; that line is its last"};
    }
    if (isKnown && content["pem_end"] == "shares dashes") {
        return Reason{"signature-undecodable", "the signature's PEM text ends in the line that begins it",
                      "put -----END " + label + "----- on a line of its own"};
    }
    const Json& claimed = memberOf(content, "claimed_length");
    if (claimed.is_null() || claimed <= memberOf(json, "length"))
        return judgeCertificates(memberOf(content, "certificates"));
    return Reason{"signature-undecodable",
                  "the signature claims " + textOf(claimed) + " bytes, and the sub-file has " + textOf(json["length"]),
                  "it was cut off, or its first bytes were altered: pack the complete signature file"};
}

// The last decoded element of the certificate set, if it is at fault.
std::optional<Reason> Story::judgeCertificates(const Json& certificates) const
{
    const std::string path = testimony_.element ? testimony_.element->path : "";
    const std::string set = "certificates[";
    if (path.rfind(set, 0) != 0) return std::nullopt;
    const std::size_t index = std::stoul(path.substr(set.size()));
    const Json& cert = elementOf(certificates, index);
    const std::string number = "element " + std::to_string(index + 1) + " of the signature's certificates";
    if (!cert.contains("subject")) {
        return Reason{"signature-undecodable", number + " is not a certificate",
                      "put only X.509 certificates into the signature"};
    }
    const bool isZero = textOf(cert["serial"]).find_first_not_of('0') == std::string::npos;
    return Reason{"signature-undecodable",
                  number + ", " + briefName(cert["subject"]) + ", cannot be decoded by the checker: " +
                      (isZero ? "its serial number is 0" : faultText(*testimony_.element)),
                  isZero ? "have it issued again with a positive serial number, or leave it out"
                         : "have it issued again in strict DER, or leave it out"};
}

void Story::judgeInputs()
{
    // An empty input is refused without being decoded.
    if (testimony_.codes.count(Decision::Roots) == 0 || codeOf(testimony_.codes, Decision::Roots) != 0) {
        return fail("/root", {},
                    {"root-unusable", "the root certificate cannot be used",
                     "give a certificate of a CA, of version 3, in DER or PEM"});
    }
    if (testimony_.codes.count(Decision::Crls) == 0 || codeOf(testimony_.codes, Decision::Crls) != 0) {
        const Reason reason{"crl-file-undecodable", "the CRL sub-file holds no decodable CRL",
                            "pack CRLs in DER or PEM, each with a nextUpdate"};
        return failToDecode(SUB_FILE_CRL, placeOf(SUB_FILE_CRL), {},
                            refine(reason, [&] { requireCrls(subFile(SUB_FILE_CRL), "the CRL sub-file"); }));
    }
    if (codeOf(testimony_.codes, Decision::Signature) == 0) return;
    const Json& json = contents_.subFiles[*indexOf(SUB_FILE_CMS)];
    const Json& content = memberOf(json, "content");
    std::optional<Reason> reason = judgeEnvelope(json);
    // If OpenSSL decodes it, or it is nothing like a signature, the release tools know the remedy.
    const bool isOfSignedData = testimony_.element && testimony_.element->path.rfind("signed_data.", 0) == 0;
    const Reason damaged{"signature-undecodable", "the signature cannot be decoded",
                         isOfSignedData
                             ? "it was damaged, or made by a program that does not write DER: pack it unchanged"
                             : "pack the CMS signature unchanged, in DER or PEM"};
    if (!reason) reason = isOfSignedData && memberOf(content, "read_by").is_null() ? damaged : refineBySigners(damaged);
    failToDecode(SUB_FILE_CMS, placeOf(SUB_FILE_CMS), {}, *reason);
}

// ---- Signers

void Story::tellTimestamp(const SignerTestimony& signer, const Json& view, Json& node, const std::string& at)
{
    const Json& token = elementOf(memberOf(view, "timestamps"), 0);
    if (codeOf(signer.codes, Decision::Token) != 0) {
        const Reason reason =
            token.is_null() ? Reason{"timestamp-missing", "the signature has no timestamp",
                                     "sign with a timestamp (pkgtool sign --tsa-url or --tsa-cert)"}
                            : Reason{"timestamp-undecodable", "the timestamp cannot be decoded",
                                     "let the authority make a token in DER, configured as in docs/interoperation.md"};
        return token.is_null() ? fail(at, node, reason) : failToDecode(SUB_FILE_CMS, at, node, refineBySigners(reason));
    }
    if (token.is_null()) return;
    const bool isTimeTold = signer.codes.count(Decision::Time) != 0;
    const PELNIC_ERROR_CODE rc = codeOf(signer.codes, Decision::Time);
    Json& timestamp = node["timestamp"] = {{"time", isTimeTold && rc == 0 ? orNull(timeText(signer.time))
                                                    : isTimeTold          ? Json()
                                                                          : memberOf(token, "time")},
                                           {"authorities", Json::array()}};
    const std::string place = at + "/timestamp";
    if (rc == PELNIC_ERR_TSP_IMPRINT_MISMATCH) {
        return fail(place, {},
                    {"timestamp-imprint", "the timestamp is for another signature",
                     "ask the authority for a timestamp of this signature"});
    }
    if (rc != 0) {
        const Reason reason{"timestamp-undecodable", "the timestamp's TSTInfo cannot be decoded",
                            "let the authority give whole seconds and no tsa name"};
        return failToDecode(SUB_FILE_CMS, place, {}, refineBySigners(reason));
    }
    const Json& authorities = memberOf(token, "signers");
    for (std::size_t i = 0; i < authorities.size(); ++i) {
        const SignerTestimony authority = i < signer.authorities.size() ? signer.authorities[i] : SignerTestimony{};
        timestamp["authorities"].push_back({{"subject", nullptr},
                                            {"issuer", memberOf(authorities[i], "issuer")},
                                            {"serial", memberOf(authorities[i], "serial")},
                                            {"chain", Json::array()}});
        tellCertificate(authority, textOf(timestamp["time"]), true, timestamp["authorities"].back(),
                        place + "/authorities/" + std::to_string(i));
    }
}

// The certificate of a signer or authority, and its chain in the node.
void Story::tellCertificate(const SignerTestimony& signer, const std::string& time, bool isAuthority, Json& node,
                            const std::string& at)
{
    const char* const purposeName = isAuthority ? "timeStamping" : "codeSigning";
    Part cert = signer.cert;
    if (codeOf(signer.codes, Decision::SignerCert) != 0) {
        const std::string who = isAuthority ? "timestamp authority" : "signer";
        return fail(at, node,
                    refineBySigners({isAuthority ? "authority-certificate-missing" : "signer-certificate-missing",
                                     "the certificate of the " + who + " with serial " + textOf(node["serial"]) +
                                         " of " + briefName(node["issuer"]) + " is missing",
                                     isAuthority ? "ask for it (openssl ts -query -cert), or add it with --chain"
                                                 : "put the signer's certificate into the signature"}));
    }
    for (const auto& [signedPart, object] : contents_.objects) { // after the failure
        if (cert != nullptr) break;
        if (memberOf(object, "serial") == node["serial"] && object["issuer"] == node["issuer"]) cert = &signedPart;
    }
    if (cert == nullptr) return;
    const std::optional<Failure> broken =
        ChainStory(contents_, testimony_, signer, time).tell(cert, node["chain"], at + "/chain");
    const Json link = node["chain"][0];
    const std::string name = briefName(memberOf(link, "subject"));
    node["subject"] = memberOf(link, "subject");
    if (codeOf(signer.codes, Decision::Usage) == 0) {
        if (codeOf(signer.codes, Decision::ChainDone) != 0 && broken) fail(broken->at, broken->about, broken->reason);
    } else if (signer.isPurposeAsked) {
        fail(at + "/chain/0", link,
             {"purpose", name + " lacks " + purposeName + " in its extended key usage",
              std::string("issue it with extendedKeyUsage = ") + purposeName});
    } else {
        fail(at + "/chain/0", link,
             {"key-usage", name + " lacks digitalSignature in its key usage",
              "issue it with keyUsage = critical,digitalSignature"});
    }
    if (!isAuthority || codeOf(signer.codes, Decision::ChainDone) != 0) return;
    if (!failure.is_null() || codeOf(signer.codes, Decision::AuthorityDone) == 0) return;
    fail(at, node,
         refineBySigners({"timestamp-signature", "the signature of the timestamp does not verify",
                          "the timestamp was altered: ask the authority for a new one"}));
}

// The signer's signature over its attributes; without attributes only its algorithm so far.
void Story::judgeValue(const SignerTestimony& signer, const Json& node, const std::string& at)
{
    const PELNIC_ERROR_CODE rc = codeOf(signer.codes, Decision::SignerDone);
    if (rc == 0 || !failure.is_null()) return;
    if (node["has_signed_attributes"] == false) {
        return fail(at, node,
                    refineBySigners({"signature-algorithm", "the signature's algorithm is not supported",
                                     "sign with RSA PKCS #1 v1.5 and SHA-256, for instance"}));
    }
    if (codeOf(signer.codes, Decision::Value) != 0) {
        return fail(at, node,
                    refineBySigners({"signature-value", "the signature over the attributes does not verify",
                                     "the signature was altered, or another key made it: sign again"}));
    }
    if (rc == PELNIC_ERR_CMS_DIGEST_CONFLICT) {
        return fail(at, node,
                    {"digest-conflict", "this signer signed another payload than the one before",
                     "let all signers sign the same payload"});
    }
    fail(at, node,
         refineBySigners({"message-digest",
                          node["message_digest"] == "" ? "the message digest in the signed attributes is empty"
                                                       : "the signed attributes have no usable message digest",
                          "sign with the message-digest attribute, or without signed attributes"}));
}

void Story::tellSigner(const SignerTestimony& signer, const Json& view, const std::string& at)
{
    signers.push_back({{"subject", nullptr},
                       {"issuer", memberOf(view, "issuer")},
                       {"serial", memberOf(view, "serial")},
                       {"digest", memberOf(view, "digest")},
                       {"has_signed_attributes", !memberOf(view, "signed_attributes").is_null()},
                       {"message_digest", memberOf(view, "message_digest")},
                       {"timestamp", nullptr},
                       {"chain", Json::array()}});
    Json& node = signers.back();
    tellTimestamp(signer, view, node, at);
    const Json time = memberOf(node["timestamp"], "time");
    if (time.is_null()) return; // no time for the verification
    tellCertificate(signer, textOf(time), false, node, at);
    judgeValue(signer, node, at);
}

void Story::tell(const Verdict& verdict)
{
    Header raw; // in the file's byte order
    std::copy_n(package_.data, sizeof raw, reinterpret_cast<unsigned char*>(&raw));
    if (!verdict.isAccepted()) judgeContainer(pkgcheck_locate(package_.data, &raw));
    if (!verdict.code && testimony_.codes.empty()) return;
    judgeInputs();
    if (testimony_.codes.count(Decision::Signature) == 0 || !failure.is_null()) return;
    const Json& content = memberOf(contents_.subFiles[*indexOf(SUB_FILE_CMS)], "content");
    const Json& views = memberOf(content, "signers");
    for (std::size_t i = 0; i < views.size(); ++i) {
        const SignerTestimony signer = i < testimony_.signers.size() ? testimony_.signers[i] : SignerTestimony{};
        tellSigner(signer, views[i], "/signers/" + std::to_string(i));
    }
    if (codeOf(testimony_.codes, Decision::Payload) == 0) return;
    if (views.empty()) {
        return fail(placeOf(SUB_FILE_CMS), {}, {"signature-without-signers", "nobody signed", "sign the payload"});
    }
    fail(placeOf(SUB_FILE_PAYLOAD), {},
         {"payload-altered", "the payload is not what was signed",
          "pack the signed payload unchanged; line endings count (openssl cms -binary)"});
}

} // namespace

Diagnosis diagnose(ByteView package, const Contents& contents, const Verdict& verdict)
{
    Story story(package, contents, verdict);
    story.tell(verdict);
    return {story.signers, story.failure};
}

} // namespace pkgtool
