#include "diagnosis.h"

#include "chain.h"
#include "check.h"
#include "container.h"
#include "crl_bundle.h"
#include "error.h"
#include "library.h"

#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_cms_utils.h"
#include "cmsverify/pelnic_faults.h"
#include "cmsverify/pelnic_pkcs7_verify.h"
#include "cmsverify/pelnic_x509_cert.h"

#include <algorithm>
#include <functional>

namespace pkgtool {

namespace {

constexpr PNV_UINT32 MIN_SIGNATURE = 38; // octets; what is shorter is not decoded

// The release tools' own check says more about an input that does not decode than the library's code; where it finds
// nothing, the words given are used.
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

// What is around a signature that does not decode, or among its certificates; nothing when that is in order.
std::optional<Reason> judgeEnvelope(const Json& subFile)
{
    const Json& content = memberOf(subFile, "content");
    const std::string label = textOf(memberOf(content, "pem_label"));
    const bool isKnown = label == "CMS" || label == "PKCS7";
    if (isKnown && content["pem_end"] == "missing") {
        return Reason{"signature-undecodable", "the signature's PEM text has no -----END " + label + "-----",
                      "pack the signature's file whole; that line is its last one"};
    }
    if (isKnown && content["pem_end"] == "shares dashes") {
        return Reason{"signature-undecodable", "the signature's PEM text ends in the line that begins it",
                      "put -----END " + label + "----- on a line of its own"};
    }
    const Json& claimed = memberOf(content, "claimed_length");
    if (!claimed.is_null() && claimed > memberOf(subFile, "length")) {
        return Reason{"signature-undecodable",
                      "the signature claims " + textOf(claimed) + " bytes, and the sub-file has " +
                          textOf(subFile["length"]),
                      "it was cut off, or its first bytes were altered: pack the signature's file whole"};
    }
    const Json& certificates = memberOf(content, "certificates");
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        const Json& cert = certificates[i];
        const std::string number = "element " + std::to_string(i + 1) + " of the signature's certificates";
        if (cert["read_by"].is_null()) {
            return Reason{"signature-undecodable", number + " is no certificate",
                          "put nothing but X.509 certificates into the signature"};
        }
        if (cert["read_by"] != read_by::OPENSSL) continue;
        const bool isZero = textOf(cert["serial"]).find_first_not_of('0') == std::string::npos;
        return Reason{"signature-undecodable",
                      number + ", " + briefName(cert["subject"]) + ", cannot be decoded by the checker" +
                          (isZero ? ": its serial number is 0" : ""),
                      isZero ? "have it issued again with a positive serial number, or leave it out"
                             : "have it issued again in strict DER, or leave it out"};
    }
    return std::nullopt;
}

// Takes the steps of a verification. The library ends at the first that fails; here the rest is still told, as far as
// it can be.
class Replay {
public:
    Replay(const Bytes& package, const Root& root, const Contents& contents)
        : package_(package), root_(root), contents_(contents), header_(decodeHeader(package)), ctx_(newContext()),
          vrf_(static_cast<PELNIC_VRF*>(ctx_.get())), chains_(vrf_, contents)
    {
    }

    void run();

    PELNIC_ERROR_CODE code = 0; // of the step that failed
    Json failure;
    Json signers = Json::array();

private:
    bool hasFailed() const { return !failure.is_null(); }
    void fail(PELNIC_ERROR_CODE rc, const Failure& what);
    std::optional<std::size_t> indexOf(std::uint32_t type) const;
    std::string placeOf(std::uint32_t type) const;

    bool checkContainer(const PELNIC_VERIFY_SIGNATURE_S& sig);
    void checkSignature(const PELNIC_VERIFY_SIGNATURE_S& sig);
    void checkSigner(const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view, const std::string& at);
    void checkTimestamp(const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view, Json& node, const std::string& at);
    void checkToken(const PELNIC_PKCS7_CONTENT* token, const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view, Json& node,
                    const std::string& at);
    void checkAuthority(const PELNIC_PKCS7_SIGNER_INFO* si, const PELNIC_ASN_OCTS* info, Json& node,
                        const std::string& at);
    const PELNIC_X509_CERT* checkCertificate(const PELNIC_PKCS7_SIGNER_INFO* si, PNV_UINT32 purpose, Json& node,
                                             const std::string& at);
    void checkValue(const PELNIC_PKCS7_SIGNER_INFO* si, const PELNIC_X509_CERT* cert, const Json& node,
                    const std::string& at);
    void checkPayload(const PELNIC_VERIFY_SIGNATURE_S& sig);
    Reason refineBySigners(const Reason& reason) const;

    const Bytes& package_;
    const Root& root_;
    const Contents& contents_;
    const Header header_;
    VerifyContext ctx_;
    PELNIC_VRF* vrf_;
    ChainWalk chains_;
};

void Replay::fail(PELNIC_ERROR_CODE rc, const Failure& what)
{
    if (hasFailed()) return;
    code = rc;
    const Json& subject = memberOf(what.about, "subject");
    failure = {{"at", what.at},
               {"kind", what.reason.kind},
               {"subject", subject.is_null() ? memberOf(what.about, "issuer") : subject},
               {"serial", memberOf(what.about, "serial")},
               {"reason", what.reason.sentence},
               {"advice", what.reason.advice}};
}

// Of two sub-files of one type the checker takes the later one.
std::optional<std::size_t> Replay::indexOf(std::uint32_t type) const
{
    for (std::size_t i = contents_.subFiles.size(); i-- > 0;) {
        if (header_.stSubFileInfo[i].ulSubFileID == type) return i;
    }
    return std::nullopt;
}

std::string Replay::placeOf(std::uint32_t type) const
{
    const std::optional<std::size_t> index = indexOf(type);
    return index ? "/sub_files/" + std::to_string(*index) : "/sub_files";
}

Reason Replay::refineBySigners(const Reason& reason) const
{
    const Bytes signature = contentOf(header_.stSubFileInfo[*indexOf(SUB_FILE_CMS)], package_);
    return refine(reason, [&] { requireSigners(signature, "the signature"); });
}

// Whether there is a signature to go on with.
bool Replay::checkContainer(const PELNIC_VERIFY_SIGNATURE_S& sig)
{
    if (header_.ulSubFileNum == 1) return false;
    if (header_.ulSubFileNum != 3) {
        fail(0, {"/header/sub_file_count",
                 {},
                 {"sub-file-count",
                  "the header counts " + std::to_string(header_.ulSubFileNum) +
                      " sub-files; the checker takes three, or one of an unsigned package",
                  "pack a payload, its signature and the CRLs"}});
        return false;
    }
    if (sig.uiCmsLength == 0) return false;
    if (sig.pBin == nullptr || sig.uiBinLength == 0) {
        fail(0, {placeOf(SUB_FILE_PAYLOAD),
                 {},
                 {"payload-missing", "there is a signature, but no payload or an empty one", "pack the payload"}});
        return false;
    }
    for (std::uint32_t type : {SUB_FILE_CMS, SUB_FILE_PAYLOAD, SUB_FILE_CRL}) {
        const std::optional<std::size_t> index = indexOf(type);
        if (!index || contents_.subFiles[*index]["is_inside"] == true || contents_.subFiles[*index]["length"] == 0)
            continue;
        fail(PELNIC_ERR_FAILED, {placeOf(type),
                                 {},
                                 {"sub-file-outside", "the " + typeName(type) + " lies outside the file",
                                  "the file was cut off, or its table is wrong: pack again"}});
        return false;
    }
    return true;
}

void Replay::run()
{
    SProgramFileHeader_S raw; // as it is in the file
    std::copy_n(package_.begin(), sizeof raw, reinterpret_cast<unsigned char*>(&raw));
    const PELNIC_VERIFY_SIGNATURE_S sig = pkgcheck_locate(package_.data(), &raw);
    if (!checkContainer(sig)) return;
    if (sig.pCrl == nullptr) {
        return fail(
            PELNIC_ERR_FAILED,
            {"/sub_files", {}, {"crl-file-missing", "there is no CRL sub-file", "pack a CRL of every CA (--crl)"}});
    }
    PELNIC_ERROR_CODE rc =
        pelnic_verify_add_cert(vrf_, root_.content.data(), static_cast<PNV_UINT32>(root_.content.size()));
    if (rc != 0) {
        return fail(rc, {"/root",
                         {},
                         {"root-unusable", "the root certificate cannot be used",
                          "give a certificate of a CA, of version 3, in DER or PEM"}});
    }
    rc = pelnic_verify_add_crl(vrf_, sig.pCrl, sig.uiCrlLength);
    if (rc != 0) {
        const Reason reason{"crl-file-undecodable", "the CRL sub-file holds no CRL that can be decoded",
                            "pack CRLs in DER or PEM, each with a nextUpdate"};
        return fail(rc, {placeOf(SUB_FILE_CRL), {}, refine(reason, [&] {
                             requireCrls(Bytes(sig.pCrl, sig.pCrl + sig.uiCrlLength), "the CRL sub-file");
                         })});
    }
    checkSignature(sig);
    if (!hasFailed()) checkPayload(sig);
}

void Replay::checkSignature(const PELNIC_VERIFY_SIGNATURE_S& sig)
{
    const OperationRun asInBegin{vrf_}; // no signature is checked twice
    _pnvSyncCrl(vrf_);
    PELNIC_PKCS7_CONTENT* decoded = nullptr;
    PELNIC_ERROR_CODE rc = PELNIC_ERR_CMS_FORMAT;
    if (sig.uiCmsLength >= MIN_SIGNATURE) rc = _pnvDecodeCms(vrf_, sig.pCms, sig.uiCmsLength, &decoded);
    const SignatureRecord signature(decoded, {vrf_});
    const std::string place = placeOf(SUB_FILE_CMS);
    if (rc == 0 && (decoded->signed_data == nullptr || decoded->signed_data->signer_infos == nullptr)) {
        rc = PELNIC_ERR_CMS_NO_SIGNER;
    }
    const std::optional<Reason> around =
        rc != 0 ? judgeEnvelope(contents_.subFiles[*indexOf(SUB_FILE_CMS)]) : std::nullopt;
    if (around) return fail(rc, {place, {}, *around});
    if (rc != 0) {
        return fail(rc, {place,
                         {},
                         refineBySigners({"signature-undecodable", "the signature cannot be decoded",
                                          "pack the CMS signature as it was made, in DER or PEM"})});
    }
    (void)_pnvExtractCertsIntoVerifyContext(vrf_, decoded);
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& infos = decoded->signed_data->signer_infos->infos;
    const Json& content = memberOf(contents_.subFiles[*indexOf(SUB_FILE_CMS)], "content");
    for (PNV_UINT32 i = 0; i < infos.num; ++i) {
        checkSigner(infos.data[i], elementOf(memberOf(content, "signers"), i), "/signers/" + std::to_string(i));
    }
    if (infos.num == 0) {
        fail(PELNIC_ERR_CMS_NOT_BEGUN, {place, {}, {"signature-without-signers", "nobody signed", "sign the payload"}});
    }
}

void Replay::checkSigner(const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view, const std::string& at)
{
    signers.push_back({{"subject", nullptr},
                       {"issuer", memberOf(view, "issuer")},
                       {"serial", memberOf(view, "serial")},
                       {"digest", memberOf(view, "digest")},
                       {"has_signed_attributes", si->auth_attrs != nullptr},
                       {"message_digest", memberOf(view, "message_digest")},
                       {"timestamp", nullptr},
                       {"chain", Json::array()}});
    Json& node = signers.back();
    checkTimestamp(si, elementOf(memberOf(view, "timestamps"), 0), node, at);
    if (memberOf(node["timestamp"], "time").is_null()) return; // no time to judge anything at
    const PELNIC_X509_CERT* const cert = checkCertificate(si, PNV_EKU_CODE_SIGNING, node, at);
    if (cert != nullptr && !hasFailed()) checkValue(si, cert, node, at);
}

void Replay::checkTimestamp(const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view, Json& node, const std::string& at)
{
    void* extracted = nullptr;
    const PELNIC_ERROR_CODE rc =
        pelnic_x509_extract_attribute(vrf_, si->unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &extracted);
    if (rc != 0) {
        const Reason reason =
            view.is_null() ? Reason{"timestamp-missing", "the signature has no timestamp",
                                    "sign with a timestamp (pkgtool sign --tsa-url or --tsa-cert)"}
                           : Reason{"timestamp-undecodable", "the timestamp cannot be decoded",
                                    "let the authority make a token in DER, of the kind that README.md describes"};
        return fail(rc, {at, node, view.is_null() ? reason : refineBySigners(reason)});
    }
    node["timestamp"] = {{"time", nullptr}, {"authorities", Json::array()}};
    checkToken(static_cast<const PELNIC_PKCS7_CONTENT*>(extracted), si, view, node["timestamp"], at + "/timestamp");
    pelnic_x509_free_attribute(vrf_, extracted, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
}

void Replay::checkToken(const PELNIC_PKCS7_CONTENT* token, const PELNIC_PKCS7_SIGNER_INFO* si, const Json& view,
                        Json& node, const std::string& at)
{
    const PELNIC_PKCS7_CONTENT_INFO* const inside = token->signed_data->content;
    PELNIC_ASN_OCTS* octets = nullptr;
    PNV_UINT32 length = 0;
    PELNIC_ERROR_CODE rc = PELNIC_ERR_TSP_DECODE;
    if (inside != nullptr && inside->content != nullptr) {
        rc = _pnvDecode<PELNIC_ASN_OCTS_item>(vrf_, inside->content->octs, inside->content->len, 0, &octets, &length);
    }
    const OctetsRecord info(octets, {vrf_});
    if (rc == 0) rc = _pnvVerifyTstInfo(vrf_, info.get(), si);
    if (rc == PELNIC_ERR_TSP_IMPRINT_MISMATCH) {
        return fail(rc, {at,
                         {},
                         {"timestamp-imprint", "the timestamp is for another signature",
                          "ask the authority for a timestamp of this signature"}});
    }
    if (rc != 0) {
        return fail(rc, {at,
                         {},
                         refineBySigners({"timestamp-undecodable", "the timestamp cannot be read",
                                          "ask the authority for one with SHA-2 and whole seconds"})});
    }
    node["time"] = orNull(timeText(vrf_->base_time));
    (void)_pnvExtractCertsIntoVerifyContext(vrf_, token);
    const PELNIC_PKCS7_SIGNER_INFO_BUNDLE* const signersOfToken = token->signed_data->signer_infos;
    for (PNV_UINT32 i = 0; signersOfToken != nullptr && i < signersOfToken->infos.num; ++i) {
        const Json& authority = elementOf(memberOf(view, "signers"), i);
        node["authorities"].push_back({{"subject", nullptr},
                                       {"issuer", memberOf(authority, "issuer")},
                                       {"serial", memberOf(authority, "serial")},
                                       {"chain", Json::array()}});
        checkAuthority(signersOfToken->infos.data[i], info.get(), node["authorities"].back(),
                       at + "/authorities/" + std::to_string(i));
    }
}

void Replay::checkAuthority(const PELNIC_PKCS7_SIGNER_INFO* si, const PELNIC_ASN_OCTS* info, Json& node,
                            const std::string& at)
{
    if (checkCertificate(si, PNV_EKU_TIME_STAMPING, node, at) == nullptr || hasFailed()) return;
    const PELNIC_ERROR_CODE rc = _pnvVerifyTsSignerInfo(vrf_, si, info);
    if (rc == 0) return;
    fail(rc, {at, node,
              refineBySigners({"timestamp-signature", "the signature of the timestamp does not verify",
                               "the timestamp was altered: ask the authority for a new one"})});
}

// The certificate of a signer or authority, with its chain in the node; null when there is none.
const PELNIC_X509_CERT* Replay::checkCertificate(const PELNIC_PKCS7_SIGNER_INFO* si, PNV_UINT32 purpose, Json& node,
                                                 const std::string& at)
{
    const bool isSigner = purpose == PNV_EKU_CODE_SIGNING;
    const char* const purposeName = isSigner ? "codeSigning" : "timeStamping";
    const PELNIC_X509_CERT* const cert = _pnvFindAuthorCertBySignerInfo(vrf_, si);
    if (cert == nullptr) {
        const std::string who = isSigner ? "signer" : "timestamp authority";
        const Reason reason{isSigner ? "signer-certificate-missing" : "authority-certificate-missing",
                            "the certificate of the " + who + " with serial " + textOf(node["serial"]) + " of " +
                                briefName(node["issuer"]) + " is not there",
                            isSigner ? "put the signer's certificate into the signature"
                                     : "ask for it (openssl ts -query -cert), or add it with --chain"};
        fail(isSigner ? PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND : PELNIC_ERR_TSP_CERT_NOT_FOUND,
             {at, node, refineBySigners(reason)});
        return nullptr;
    }
    const PELNIC_ERROR_CODE rc = _pnvVerifyIssuerCert(vrf_, cert, purpose);
    const std::optional<Failure> broken = chains_.walk(cert, node["chain"], at + "/chain");
    const Json& link = node["chain"][0];
    const std::string name = briefName(memberOf(link, "subject"));
    node["subject"] = memberOf(link, "subject");
    if (rc == PELNIC_ERR_CERT_VERIFY) {
        if (broken) fail(rc, *broken);
    } else if (rc != 0 && !hasKeyUsage(vrf_, cert, PNV_KU_DIGITAL_SIGNATURE)) {
        fail(rc, {at + "/chain/0",
                  link,
                  {"key-usage", name + " lacks digitalSignature in its key usage",
                   "issue it with keyUsage = critical,digitalSignature"}});
    } else if (rc != 0) {
        fail(rc, {at + "/chain/0",
                  link,
                  {"purpose", name + " lacks " + purposeName + " in its extended key usage",
                   std::string("issue it with extendedKeyUsage = ") + purposeName}});
    }
    return cert;
}

// The signer's own signature: over its attributes now, or over the payload later.
void Replay::checkValue(const PELNIC_PKCS7_SIGNER_INFO* si, const PELNIC_X509_CERT* cert, const Json& node,
                        const std::string& at)
{
    if (si->auth_attrs == nullptr) {
        const PELNIC_ERROR_CODE rc = _pnvCreateVerifyHandle(vrf_, si, cert);
        if (rc == 0) return;
        return fail(rc, {at, node,
                         refineBySigners({"signature-algorithm", "the signature's algorithm is not known",
                                          "sign with RSA PKCS #1 v1.5 and SHA-256, for instance"})});
    }
    PNV_INT verdict = 0;
    PELNIC_ERROR_CODE rc = pelnic_pkcs7_detached_signature_verify(vrf_, si, cert, &verdict);
    if (rc != 0 || verdict != 1) {
        return fail(PELNIC_ERR_CMS_SIGNATURE,
                    {at, node,
                     refineBySigners({"signature-value", "the signature over the attributes does not verify",
                                      "the signature was altered, or another key made it: sign again"})});
    }
    rc = _pnvAddSignerInfoToVerifyProcess(vrf_, si);
    if (rc == PELNIC_ERR_CMS_DIGEST_CONFLICT) {
        return fail(rc, {at,
                         node,
                         {"digest-conflict", "this signer signed another payload than the one before",
                          "let all signers sign the same payload"}});
    }
    if (rc == 0) return;
    fail(rc, {at, node,
              refineBySigners({"message-digest",
                               node["message_digest"] == "" ? "the message digest in the signed attributes is empty"
                                                            : "the signed attributes have no message digest to go by",
                               "sign with the message-digest attribute, or without signed attributes"})});
}

void Replay::checkPayload(const PELNIC_VERIFY_SIGNATURE_S& sig)
{
    PNV_INT32 result = 0;
    PELNIC_ERROR_CODE rc = pelnic_verify_detach_signature_update(vrf_, sig.pBin, static_cast<PNV_INT>(sig.uiBinLength));
    if (rc == 0) rc = pelnic_verify_detach_signature_final(vrf_, &result);
    if (rc == 0 && result == 1) return;
    fail(rc != 0 ? rc : PELNIC_ERR_FAILED,
         {placeOf(SUB_FILE_PAYLOAD),
          {},
          {"payload-altered", "the payload is not what was signed",
           "pack the payload that was signed, as it was; line ends count (openssl cms -binary)"}});
}

} // namespace

Diagnosis diagnose(const Bytes& package, const Root& root, const Contents& contents, const Verdict& verdict)
{
    Replay replay(package, root, contents);
    replay.run();
    // What does not end as the verification did explains nothing.
    const bool explains = !verdict.isAccepted() && replay.code == verdict.code.value_or(0);
    return {replay.signers, explains ? replay.failure : Json()};
}

} // namespace pkgtool
