// pkgtool root: which root a checker trusts, by its fingerprint. Common names tell nothing: every trial root has the
// same.
#include "commands.h"
#include "contents.h"
#include "error.h"
#include "fingerprint.h"
#include "openssl.h"
#include "reader.h"
#include "text.h"
#include "verdict.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace pkgtool {

namespace {

// A certificate in DER that signed itself: at least, somebody has the key.
bool isRoot(const Bytes& der)
{
    const Cert cert = fromDer<X509_free>(d2i_X509, der);
    const bool isSelfSigned = cert != nullptr && X509_verify(cert.get(), X509_get0_pubkey(cert.get())) == 1;
    ERR_clear_error();
    return isSelfSigned;
}

// The roots that lie somewhere in a program as they are compiled in: a SEQUENCE of two length octets that begins with
// another (RFC 5280, 4.1), and that is a root.
std::vector<Bytes> rootsInside(ByteView program)
{
    constexpr std::size_t HEADER = 4;
    constexpr std::size_t MAX_LENGTH = 16384; // keeps the work within the program's length
    std::vector<Bytes> roots;
    const auto isSequence = [&](std::size_t at) { return program.data[at] == 0x30 && program.data[at + 1] == 0x82; };
    for (std::size_t at = 0; at + 2 * HEADER < program.size; ++at) {
        if (!isSequence(at) || !isSequence(at + HEADER)) continue;
        const std::size_t length = std::size_t{program.data[at + 2]} << 8 | program.data[at + 3];
        const std::size_t inner = std::size_t{program.data[at + HEADER + 2]} << 8 | program.data[at + HEADER + 3];
        if (length > MAX_LENGTH || inner + HEADER >= length || length > program.size - at - HEADER) continue;
        const Bytes der(program.data + at, program.data + at + HEADER + length);
        if (isRoot(der) && std::find(roots.begin(), roots.end(), der) == roots.end()) roots.push_back(der);
    }
    return roots;
}

// Certificates alone, or a program around some.
std::vector<Object> readRoots(const std::string& path)
{
    const std::unique_ptr<ObjectReader> reader = makeOpensslReader();
    if (path.empty()) return reader->readObjects(loadRoot("").content);
    const MappedFile file(path);
    const ByteView content = file.content();
    constexpr std::size_t MAX_PROGRAM = 64u << 20;
    if (content.size > MAX_PROGRAM) throw UserError(path + " has more than 64 MiB, which no checker has");
    std::vector<Object> roots = reader->readObjects(Bytes(content.data, content.data + content.size));
    roots.erase(std::remove_if(roots.begin(), roots.end(), [](const Object& object) { return object.isCrl; }),
                roots.end());
    if (!roots.empty()) return roots;
    for (const Bytes& der : rootsInside(content)) {
        std::optional<Object> root = reader->readCertificate(der.data(), der.size());
        if (root) roots.push_back(std::move(*root));
    }
    if (roots.empty()) throw UserError("no root certificate in " + path, "a checker has one compiled in, in DER");
    return roots;
}

void showRoots(const std::string& path, bool json)
{
    Json roots = Json::array();
    for (Object& root : readRoots(path)) {
        putFingerprints(root);
        roots.push_back(std::move(root.json));
    }
    if (json) return print({{"schema", SCHEMA}, {"checker", path.empty() ? Json() : Json(path)}, {"roots", roots}});
    for (const Json& root : roots) {
        printf("%s\n", textOf(root["subject"]).c_str());
        printf("  %s to %s, %s %s\n", textOf(root["not_before"]).c_str(), textOf(root["not_after"]).c_str(),
               textOf(root["key"]).c_str(), textOf(root["key_bits"]).c_str());
        printf("  SHA-256 %s\n  key     %s\n", textOf(root["sha256"]).c_str(), textOf(root["key_sha256"]).c_str());
    }
}

} // namespace

void addRootCommand(CLI::App& app)
{
    struct Options {
        std::string checker;
        bool json = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("root", "Show which root a checker trusts, by its fingerprint");
    command->add_option("checker", options->checker,
                        "a pkgcheck program, or certificates; the root compiled into this one otherwise");
    command->add_flag("--json", options->json, "print JSON");
    command->callback([options] { showRoots(options->checker, options->json); });
}

} // namespace pkgtool
