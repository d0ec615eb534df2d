#include "contents.h"

#include "container.h"
#include "der.h"
#include "openssl.h"
#include "reader.h"
#include "text.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <set>

namespace pkgtool {

namespace {

// Reads certificates, CRLs and signatures as the device does, and with OpenSSL those that only OpenSSL decodes. Keeps
// the first of equal objects.
class PackageReader {
public:
    explicit PackageReader(std::map<Bytes, Json>& objects) : objects_(objects) {}

    // Concatenated certificates and CRLs, in DER or in PEM, up to anything else.
    Json readObjects(const Bytes& content, const char* source);
    Json readSignature(const Bytes& content);

private:
    Json keep(Object object, const Json& readBy, const char* source);
    Json certificateJson(const Bytes& der, const char* source);
    Json tokenJson(const Bytes& der);
    void putParts(const SignedParts& parts, const char* source, Json& json);

    const std::unique_ptr<ObjectReader> device_ = makeDeviceReader();
    const std::unique_ptr<ObjectReader> openssl_ = makeOpensslReader();
    std::map<Bytes, Json>& objects_;
};

Json readersJson(bool isReadByDevice, bool isReadByOpenssl)
{
    if (isReadByDevice && isReadByOpenssl) return read_by::BOTH;
    if (isReadByDevice) return read_by::CHECKER;
    return isReadByOpenssl ? Json(read_by::OPENSSL) : Json();
}

Json PackageReader::keep(Object object, const Json& readBy, const char* source)
{
    putFingerprints(object);
    object.json["source"] = source;
    object.json["read_by"] = readBy;
    objects_.emplace(std::move(object.signedPart), object.json);
    return std::move(object.json);
}

Json PackageReader::readObjects(const Bytes& content, const char* source)
{
    Json file = {{"form", isPem(content) ? "PEM" : "DER"},
                 {"certificates", Json::array()},
                 {"crls", Json::array()},
                 {"unread_bytes", 0}};
    std::vector<Object> byDevice = device_->readObjects(content);
    std::vector<Object> byOpenssl = openssl_->readObjects(content);
    const auto partsOf = [](const std::vector<Object>& objects) {
        std::map<Bytes, Bytes> parts;
        for (const Object& object : objects) parts.emplace(object.signedPart, object.encoding);
        return parts;
    };
    const std::map<Bytes, Bytes> ofDevice = partsOf(byDevice);
    const std::map<Bytes, Bytes> ofOpenssl = partsOf(byOpenssl);
    if (!isPem(content)) {
        file["unread_bytes"] =
            std::accumulate(byDevice.begin(), byDevice.end(), content.size(),
                            [](std::size_t left, const Object& o) { return left - o.encoding.size(); });
    }
    const auto put = [&](Object& object, const Json& readBy) {
        Json& list = file[object.isCrl ? "crls" : "certificates"];
        list.push_back(keep(std::move(object), readBy, source));
    };
    for (Object& object : byDevice) {
        const auto same = ofOpenssl.find(object.signedPart);
        if (object.encoding.empty() && same != ofOpenssl.end()) object.encoding = same->second;
        put(object, readersJson(true, same != ofOpenssl.end()));
    }
    for (Object& object : byOpenssl) {
        if (ofDevice.count(object.signedPart) == 0) put(object, read_by::OPENSSL);
    }
    return file;
}

Json PackageReader::certificateJson(const Bytes& der, const char* source)
{
    std::optional<Object> byDevice = device_->readCertificate(der.data(), der.size());
    std::optional<Object> byOpenssl = openssl_->readCertificate(der.data(), der.size());
    if (!byDevice && !byOpenssl) return {{"problem", "not a certificate"}, {"read_by", nullptr}};
    const Json readBy = readersJson(byDevice.has_value(), byOpenssl.has_value());
    return keep(std::move(byDevice ? *byDevice : *byOpenssl), readBy, source);
}

Json PackageReader::tokenJson(const Bytes& der)
{
    const std::optional<SignedParts> byDevice = device_->readToken(der);
    const std::optional<SignedParts> byOpenssl = openssl_->readToken(der);
    const bool isTaken = byDevice && byDevice->isTaken;
    Json json = {{"problem", isTaken ? Json() : Json("not a token that the checker can decode")},
                 {"read_by", readersJson(isTaken, byOpenssl.has_value())}};
    if (!byDevice && !byOpenssl) return json;
    const SignedParts& parts = byDevice ? *byDevice : *byOpenssl;
    const std::optional<Json> infoOfDevice = device_->readTstInfo(parts.content);
    const std::optional<Json> infoOfOpenssl = openssl_->readTstInfo(parts.content);
    if (isTaken && !infoOfDevice) json["problem"] = "no TSTInfo that the checker can decode";
    json["tst_info_read_by"] = readersJson(infoOfDevice.has_value(), infoOfOpenssl.has_value());
    json["content_type"] = parts.contentType;
    if (infoOfDevice || infoOfOpenssl) json.update(infoOfDevice ? *infoOfDevice : *infoOfOpenssl);
    putParts(parts, source::TOKEN, json);
    return json;
}

void PackageReader::putParts(const SignedParts& parts, const char* source, Json& json)
{
    json["certificates"] = Json::array();
    json["signers"] = Json::array();
    for (const Bytes& der : parts.certificates) json["certificates"].push_back(certificateJson(der, source));
    for (const SignerParts& signer : parts.signers) {
        json["signers"].push_back(signer.json);
        Json& timestamps = json["signers"].back()["timestamps"] = Json::array();
        if (source == source::TOKEN) continue; // no checker looks at a token inside a token, whatever the depth
        for (const Bytes& token : signer.tokens) timestamps.push_back(tokenJson(token));
    }
}

// The claimed length of an element, with its identifier and length octets; null if unknown.
Json claimedLength(const Bytes& der)
{
    constexpr std::size_t MAX_LENGTH_OCTETS = 4; // more are refused
    if (der.size() < 2) return {};
    if (der[1] < 0x80) return 2 + std::uint64_t{der[1]};
    const std::size_t octets = der[1] & 0x7Fu;
    if (octets == 0 || octets > MAX_LENGTH_OCTETS || der.size() < 2 + octets) return {};
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < octets; ++i) length = length << 8 | der[2 + i];
    return 2 + octets + length;
}

// The frame of a signature: its claimed length, or its armour.
void putEnvelope(const Bytes& content, Json& json)
{
    if (!isPem(content)) {
        json["claimed_length"] = claimedLength(content);
        return;
    }
    const std::string begin = "-----BEGIN ";
    const std::string text(content.begin(), std::find(content.begin(), content.end(), 0x00)); // as the checker does
    const std::size_t labelEnd = text.find("-----", begin.size());
    if (text.compare(0, begin.size(), begin) != 0 || labelEnd == std::string::npos) return;
    const std::string label = text.substr(begin.size(), labelEnd - begin.size());
    const std::size_t end = text.find("-----END " + label + "-----");
    json["pem_label"] = label;
    json["pem_end"] = end == std::string::npos ? "missing" : end < labelEnd + 5 ? "shares dashes" : "present";
}

Json PackageReader::readSignature(const Bytes& content)
{
    const std::optional<SignedParts> byDevice = device_->readSignature(content);
    const std::optional<SignedParts> byOpenssl = openssl_->readSignature(content);
    const bool isTaken = byDevice && byDevice->isTaken;
    Json json = {{"form", isPem(content) ? "PEM" : "DER"},
                 {"problem", isTaken ? Json() : Json("not a CMS signature that the checker can decode")},
                 {"read_by", readersJson(isTaken, byOpenssl.has_value())}};
    putEnvelope(content, json);
    if (byDevice || byOpenssl) putParts(byDevice ? *byDevice : *byOpenssl, source::SIGNATURE, json);
    return json;
}

// ---- Names ----

// The common names that stand for several of the names that were read: one cannot tell who is meant by them.
std::set<std::string> ambiguous;

// "CN=Demo CA", or all of it when there is none.
std::string commonName(const std::string& name)
{
    const std::string key = "CN=";
    std::size_t at = name.rfind(key);
    while (at != std::string::npos && at != 0 && name[at - 1] != ',' && name[at - 1] != '+')
        at = name.rfind(key, at - 1);
    if (at == std::string::npos) return name;
    std::size_t end = at;
    while (end < name.size() && name[end] != ',') end += name[end] == '\\' ? 2 : 1;
    return name.substr(at, end - at);
}

void findAmbiguousNames(const Contents& contents)
{
    std::map<std::string, std::string> names;
    const auto add = [&](const Json& json) {
        if (!json.is_string()) return;
        const std::string name = textOf(json);
        const auto [known, isNew] = names.emplace(commonName(name), name);
        if (!isNew && known->second != name) ambiguous.insert(known->first);
    };
    for (const auto& [signedPart, object] : contents.objects) {
        add(memberOf(object, "subject"));
        add(memberOf(object, "issuer"));
    }
}

// ---- The package ----

Json headerJson(const Header& header)
{
    const std::string description(header.strDescription, strnlen(header.strDescription, sizeof header.strDescription));
    return {{"file_id", header.ulFileID},
            {"version", header.ulVersion},
            {"length", header.ulLength},
            {"compress_type", header.ulCompressType},
            {"header_crc", header.ulHeaderCrc},
            {"file_crc", header.ulFileCRC},
            {"reserved", header.ulReserved4RPS},
            {"description", description},
            {"sub_file_count", header.ulSubFileNum}};
}

} // namespace

Contents readContents(ByteView package, const Bytes& root, const char* rootSource)
{
    ignoreConfiguration();
    const Header header = decodeHeader(package);
    Contents contents{nullptr, headerJson(header), Json::array(), {}};
    PackageReader reader(contents.objects);
    contents.root = elementOf(reader.readObjects(root, rootSource)["certificates"], 0);
    for (const SSubFileInfo_S& entry : entriesOf(header)) {
        contents.subFiles.push_back({{"type", typeName(entry.ulSubFileID)},
                                     {"offset", entry.ulSubFileOffset},
                                     {"length", entry.ulSubFileLen},
                                     {"is_inside", isInside(entry, package)}});
    }
    for (const std::uint32_t type : {SUB_FILE_CRL, SUB_FILE_CMS}) {
        for (std::size_t i = 0; i < contents.subFiles.size(); ++i) {
            const SSubFileInfo_S& entry = header.stSubFileInfo[i];
            if (entry.ulSubFileID != type || !isInside(entry, package)) continue;
            const Bytes content = contentOf(entry, package);
            contents.subFiles[i]["content"] =
                type == SUB_FILE_CRL ? reader.readObjects(content, source::CRL_FILE) : reader.readSignature(content);
        }
    }
    findAmbiguousNames(contents);
    return contents;
}

std::string briefName(const Json& json)
{
    const std::string name = textOf(json);
    const std::string brief = commonName(name);
    return ambiguous.count(brief) != 0 ? name : brief;
}

} // namespace pkgtool
