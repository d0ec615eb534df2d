// pkgtool inspect: the contents of a package, without a verdict.
#include "commands.h"
#include "container.h"
#include "contents.h"
#include "fingerprint.h"

#include <cstdio>
#include <memory>

namespace pkgtool {

namespace {

std::string listText(const Json& values)
{
    std::string text;
    for (const Json& value : values) text += (text.empty() ? "" : ", ") + textOf(value);
    return text;
}

// The only reader that decodes it, unless both do.
std::string readersText(const Json& object)
{
    if (object["read_by"] == read_by::CHECKER) return ", which OpenSSL cannot decode";
    return object["read_by"] == read_by::OPENSSL ? ", which the checker cannot decode" : "";
}

void printFingerprint(const Json& object, const char* member, const char* what, const std::string& indent)
{
    if (object[member].is_string()) printf("%s    %s %s\n", indent.c_str(), what, textOf(object[member]).c_str());
}

void printCertificate(const Json& cert, const std::string& indent)
{
    if (!cert.contains("subject"))
        return (void)printf("%s%s among the certificates\n", indent.c_str(), textOf(cert["problem"]).c_str());
    printf("%scertificate %s, serial %s%s\n", indent.c_str(), textOf(cert["subject"]).c_str(),
           textOf(cert["serial"]).c_str(), readersText(cert).c_str());
    printf("%s    issued by %s\n", indent.c_str(), textOf(cert["issuer"]).c_str());
    printf("%s    %s to %s, %s %s, signed with %s\n", indent.c_str(), textOf(cert["not_before"]).c_str(),
           textOf(cert["not_after"]).c_str(), textOf(cert["key"]).c_str(), textOf(cert["key_bits"]).c_str(),
           textOf(cert["signature_algorithm"]).c_str());
    printFingerprint(cert, "sha256", "SHA-256", indent);
    printFingerprint(cert, "key_sha256", "SHA-256 of the key", indent);
    printf("%s    %s: %s\n", indent.c_str(), cert["is_ca"] == true ? "CA" : "no CA", listText(cert["usage"]).c_str());
}

void printCrl(const Json& crl, const std::string& indent)
{
    printf("%sCRL of %s%s%s\n", indent.c_str(), textOf(crl["issuer"]).c_str(),
           crl["is_indirect"] == true ? ", and for other issuers" : "", readersText(crl).c_str());
    if (!crl["scope"].empty()) printf("%s    limited to: %s\n", indent.c_str(), listText(crl["scope"]).c_str());
    printf("%s    %s to %s, signed with %s\n", indent.c_str(), textOf(crl["this_update"]).c_str(),
           textOf(crl["next_update"]).c_str(), textOf(crl["signature_algorithm"]).c_str());
    printFingerprint(crl, "sha256", "SHA-256", indent);
    if (crl["revoked"].empty()) printf("%s    revokes nothing\n", indent.c_str());
    for (const Json& entry : crl["revoked"]) {
        printf("%s    revokes serial %s on %s%s\n", indent.c_str(), textOf(entry["serial"]).c_str(),
               textOf(entry["date"]).c_str(),
               entry["reason"].is_null() ? "" : (", " + textOf(entry["reason"])).c_str());
    }
}

void printSignedData(const Json& data, const std::string& indent);

void printToken(const Json& token, const std::string& indent)
{
    if (!token["problem"].is_null()) printf("%stimestamp: %s\n", indent.c_str(), textOf(token["problem"]).c_str());
    if (token.contains("time")) {
        printf("%stimestamp %s, serial %s, policy %s, imprint by %s%s\n", indent.c_str(), textOf(token["time"]).c_str(),
               textOf(token["serial"]).c_str(), textOf(token["policy"]).c_str(), textOf(token["imprint"]).c_str(),
               readersText(token).c_str());
    }
    if (token.contains("signers")) printSignedData(token, indent + "    ");
}

void printSigner(const Json& signer, const std::string& indent)
{
    const Json& attributes = signer["signed_attributes"];
    printf("%ssigner with serial %s of %s\n", indent.c_str(), textOf(signer["serial"]).c_str(),
           textOf(signer["issuer"]).c_str());
    printf("%s    %s, %s, %s\n", indent.c_str(), textOf(signer["digest"]).c_str(),
           textOf(signer["signature_algorithm"]).c_str(),
           attributes.is_null() ? "no signed attributes" : ("signed attributes " + listText(attributes)).c_str());
    if (signer["message_digest"] == "") printf("%s    the message digest is empty\n", indent.c_str());
    for (const Json& token : signer["timestamps"]) printToken(token, indent + "    ");
}

void printSignedData(const Json& data, const std::string& indent)
{
    for (const Json& cert : data["certificates"]) printCertificate(cert, indent);
    for (const Json& signer : data["signers"]) printSigner(signer, indent);
    if (data["signers"].empty()) printf("%snobody signed\n", indent.c_str());
}

// Unexpected data around a signature.
void printEnvelope(const Json& content, const Json& length)
{
    const Json& claimed = memberOf(content, "claimed_length");
    if (!claimed.is_null() && claimed != length)
        printf("  it claims %s bytes, and the sub-file has %s\n", textOf(claimed).c_str(), textOf(length).c_str());
    if (!content.contains("pem_label")) return;
    printf("  armoured as %s, end %s\n", textOf(content["pem_label"]).c_str(), textOf(content["pem_end"]).c_str());
}

void printContent(const Json& content, const Json& length)
{
    const std::string indent = "  ";
    printf(", %s\n", textOf(content["form"]).c_str());
    if (!content.contains("problem")) {
        for (const Json& cert : content["certificates"]) printCertificate(cert, indent);
        for (const Json& crl : content["crls"]) printCrl(crl, indent);
        if (content["unread_bytes"] != 0)
            printf("  %s byte%s of something else\n", textOf(content["unread_bytes"]).c_str(),
                   content["unread_bytes"] == 1 ? "" : "s");
        return;
    }
    printEnvelope(content, length);
    if (!content["problem"].is_null()) printf("  %s\n", textOf(content["problem"]).c_str());
    if (content["read_by"] == read_by::CHECKER) printf("  OpenSSL cannot decode this signature\n");
    if (content.contains("signers")) printSignedData(content, indent);
}

void inspect(const std::string& path, bool json)
{
    const MappedFile file(path);
    const ByteView package = file.content();
    const Header header = readHeader(path, package);
    Contents contents = readContents(package, {}, "");
    putFingerprints(contents.subFiles, file);
    if (json) {
        return print({{"schema", SCHEMA},
                      {"package", path},
                      {"size", package.size},
                      {"header", contents.header},
                      {"sub_files", contents.subFiles}});
    }
    printTable(header, package);
    for (std::size_t i = 0; i < contents.subFiles.size(); ++i) {
        const Json& digest = memberOf(contents.subFiles[i], "sha256");
        if (digest.is_string()) printf("  SHA-256 of sub-file %zu  %s\n", i + 1, textOf(digest).c_str());
    }
    for (std::size_t i = 0; i < contents.subFiles.size(); ++i) {
        const Json& subFile = contents.subFiles[i];
        if (!subFile.contains("content")) continue;
        printf("\nsub-file %zu: %s", i + 1, textOf(subFile["type"]).c_str());
        printContent(subFile["content"], subFile["length"]);
    }
}

} // namespace

void addInspectCommand(CLI::App& app)
{
    struct Options {
        std::string package;
        bool json = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command =
        app.add_subcommand("inspect", "Show the contents of a package without verifying anything");
    command->add_option("package", options->package, "the package; - is standard input")->required();
    command->add_flag("--json", options->json, "print JSON");
    command->callback([options] { inspect(options->package, options->json); });
}

} // namespace pkgtool
