// pkgtool pki: your own PKI, for a trial or with its keys in a token. A PKI is a directory: NAME.pem for each
// certificate, NAME.crl for each CA, NAME.key unless the keys are in a token, and release.toml for pkgtool release. The
// CRLs are the only state: a new one takes over the entries of its predecessor.
#include "commands.h"
#include "error.h"
#include "pki_issue.h"
#include "text.h"

#include <openssl/pem.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>

namespace pkgtool {

namespace {

namespace fs = std::filesystem;

constexpr mode_t PRIVATE_FILE = 0600;
constexpr mode_t PUBLIC_FILE = 0644;

// The members of a PKI, each after its issuer. Keys in a token are for real use, so certificates that sign every day
// are replaced more often than those that sign once a year.
struct Member {
    const char* name; // of its files, and of its key in a token
    const char* title;
    const char* issuer;
    CertKind kind;
    unsigned bits;
    int trialDays;
    int tokenDays;
};
constexpr Member MEMBERS[] = {
    {"root", "Root", "root", CertKind::Root, 4096, 3650, 7300},
    {"ca", "Firmware CA", "root", CertKind::Ca, 3072, 3650, 3650},
    {"tsa-ca", "Timestamp CA", "root", CertKind::Ca, 3072, 3650, 3650},
    {"signer", "Firmware signer", "ca", CertKind::Signer, 3072, 3650, 730},
    {"tsa", "Timestamp authority", "tsa-ca", CertKind::Authority, 3072, 3650, 730},
};

bool isCa(const Member& member)
{
    return member.kind == CertKind::Root || member.kind == CertKind::Ca;
}

struct PkiOptions {
    std::string directory;
    std::string organization = "Trial";
    unsigned keyBits = 0; // 0: each member's default
    std::string token;
    std::string password;
    int crlDays = 90;
    std::string certificate;
    std::string reason;

    std::string file(const std::string& name, const char* suffix) const { return directory + "/" + name + suffix; }
};

// ---- Keys ----

// The location of the key with that name: the token's URI (RFC 7512) with the object's name, before any query.
std::string keyLocation(const PkiOptions& options, const std::string& name)
{
    if (options.token.empty()) return options.file(name, ".key");
    const std::size_t query = std::min(options.token.find('?'), options.token.size());
    return options.token.substr(0, query) + ";object=" + name + ";type=private" + options.token.substr(query);
}

Pkey newKey(const PkiOptions& options, const Member& member)
{
    if (!options.token.empty()) return loadKey(keyLocation(options, member.name), options.password);
    return makeKey(options.keyBits != 0 ? options.keyBits : member.bits);
}

Identity loadCa(const PkiOptions& options, const std::string& name)
{
    return loadIdentity(options.file(name, ".pem"), keyLocation(options, name), options.password);
}

// ---- Files ----

// Never replaces another file.
void writeNew(const std::string& path, const Bytes& content, mode_t mode)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    FILE* const file = fd < 0 ? nullptr : fdopen(fd, "wb");
    const bool isWritten = file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size();
    if (file == nullptr || fclose(file) != 0 || !isWritten) {
        throw UserError("cannot write " + path + ": " + std::strerror(errno));
    }
}

// Writes with any PEM function.
template <typename Write> Bytes toPem(Write write)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    ensure(bio != nullptr && write(bio.get()) == 1, "encoding");
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return Bytes(text, text + length);
}

Bytes pemOf(X509* cert)
{
    return toPem([=](BIO* bio) { return PEM_write_bio_X509(bio, cert); });
}

Bytes pemOf(X509_CRL* crl)
{
    return toPem([=](BIO* bio) { return PEM_write_bio_X509_CRL(bio, crl); });
}

void writeKey(const std::string& path, EVP_PKEY* key)
{
    Bytes pem =
        toPem([=](BIO* bio) { return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr); });
    writeNew(path, pem, PRIVATE_FILE);
    OPENSSL_cleanse(pem.data(), pem.size());
}

Crl loadCrl(const std::string& path)
{
    const Bytes content = readFile(path);
    const Bio bio = memoryBio(content);
    Crl crl(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (crl == nullptr) throw UserError(path + " is not a CRL in PEM", "it is made by pkgtool pki new");
    return crl;
}

// The settings for signing with this PKI; paths are relative to the file itself.
std::string releaseConfig(const PkiOptions& options)
{
    const auto key = [&](const char* name) {
        return options.token.empty() ? std::string(name) + ".key" : keyLocation(options, name);
    };
    const std::string pass = options.password.empty() ? "" : "pass = \"" + options.password + "\"\n";
    return "# For pkgtool release: options of pkgtool sign, pack, verify and lint, by their names. Paths are relative "
           "to\n"
           "# this file.\n"
           "[sign]\n"
           "cert = \"signer.pem\"\n"
           "key = \"" +
           key("signer") + "\"\n" + pass +
           "chain = \"ca.pem\"\n"
           "tsa-cert = \"tsa.pem\"\n"
           "tsa-key = \"" +
           key("tsa") + "\"\n" + (pass.empty() ? "" : "tsa-" + pass) +
           "tsa-chain = \"tsa-ca.pem\"\n"
           "\n"
           "[pack]\n"
           "crl = [\"root.crl\", \"ca.crl\", \"tsa-ca.crl\"]\n"
           "\n"
           "[verify]\n"
           "root = \"root.pem\"\n";
}

// ---- new ----

void requireFree(const std::string& directory)
{
    std::error_code failed;
    if (!fs::exists(directory, failed) || (fs::is_directory(directory, failed) && fs::is_empty(directory, failed)))
        return;
    throw UserError(directory + " exists already", "keys are never overwritten: name another directory");
}

std::map<std::string, Identity> issueMembers(const PkiOptions& options)
{
    std::map<std::string, Identity> identities;
    for (const Member& member : MEMBERS) {
        const CertRequest request{member.kind, options.organization, options.organization + " " + member.title,
                                  options.token.empty() ? member.trialDays : member.tokenDays};
        Identity identity{nullptr, newKey(options, member)};
        identity.cert = issueCertificate(request, identity.key.get(), identities[member.issuer]);
        identities[member.name] = std::move(identity);
    }
    return identities;
}

void makePki(PkiOptions options)
{
    while (options.directory.size() > 1 && options.directory.back() == '/') options.directory.pop_back();
    requireFree(options.directory);
    const std::map<std::string, Identity> identities = issueMembers(options);
    UnfinishedDirectory directory(options.directory);
    for (const Member& member : MEMBERS) {
        const Identity& identity = identities.at(member.name);
        const std::string name = member.name;
        writeNew(directory.file(name + ".pem"), pemOf(identity.cert.get()), PUBLIC_FILE);
        if (options.token.empty()) writeKey(directory.file(name + ".key"), identity.key.get());
        if (isCa(member)) {
            const Crl crl = issueCrl(identity, nullptr, nullptr, options.crlDays);
            writeNew(directory.file(name + ".crl"), pemOf(crl.get()), PUBLIC_FILE);
        }
    }
    const std::string config = releaseConfig(options);
    writeNew(directory.file("release.toml"), Bytes(config.begin(), config.end()), PUBLIC_FILE);
    directory.complete();

    for (const Member& member : MEMBERS) {
        printf("%s  %s\n", options.file(member.name, ".pem").c_str(),
               printable(nameOf(identities.at(member.name).cert.get())).c_str());
    }
    printf("The private keys are in %s. The CRLs end in %d days: renew them with pkgtool pki crl.\n"
           "next: pkgtool release IMAGE --pki %s -o IMAGE.pkg\n",
           options.token.empty() ? "files that only you may read, which is for trials" : "the token", options.crlDays,
           options.directory.c_str());
}

// ---- crl and revoke ----

void renewCrl(const PkiOptions& options, const std::string& name, const Revocation* revocation)
{
    const std::string path = options.file(name, ".crl");
    const Crl previous = loadCrl(path);
    const Crl crl = issueCrl(loadCa(options, name), previous.get(), revocation, options.crlDays);
    writeFile(path, pemOf(crl.get()), Existing::Update);
    printf("%s  %d revoked, ends in %d days\n", path.c_str(),
           std::max(0, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl.get()))), options.crlDays);
}

void renewCrls(const PkiOptions& options)
{
    for (const Member& member : MEMBERS) {
        if (isCa(member)) renewCrl(options, member.name, nullptr);
    }
}

// A member of the PKI by its name, or any certificate by its path.
Cert certificateToRevoke(const PkiOptions& options)
{
    const std::string& name = options.certificate;
    const bool isMember =
        std::any_of(std::begin(MEMBERS), std::end(MEMBERS), [&](const Member& member) { return name == member.name; });
    return std::move(loadCertificates(isMember ? options.file(name, ".pem") : name).front());
}

void revoke(const PkiOptions& options)
{
    const Cert cert = certificateToRevoke(options);
    const Revocation revocation{cert.get(), options.reason};
    const std::string name = printable(nameOf(cert.get()));
    for (const Member& member : MEMBERS) {
        if (!isCa(member)) continue;
        const Cert ca = std::move(loadCertificates(options.file(member.name, ".pem")).front());
        if (X509_check_issued(ca.get(), cert.get()) != X509_V_OK) continue;
        if (X509_cmp(ca.get(), cert.get()) == 0) {
            throw UserError("a root is not revoked by its own CRL", "build the checker for another root");
        }
        if (isRevokedBy(loadCrl(options.file(member.name, ".crl")).get(), cert.get())) {
            throw UserError(name + " is revoked already");
        }
        return renewCrl(options, member.name, &revocation);
    }
    throw UserError("no CA in " + options.directory + " issued " + name);
}

// ---- Command line ----

void addDirectory(CLI::App* command, PkiOptions& options, const char* text)
{
    command->add_option("directory", options.directory, text)->required();
    CLI::Option* const token =
        command->add_option("--token", options.token, "the keys are in this PKCS #11 token, pkcs11:token=NAME")
            ->type_name("URI");
    command->add_option("--pass", options.password, "its PIN: env:NAME or file:PATH")
        ->type_name("SOURCE")
        ->needs(token);
    command->add_option("--crl-days", options.crlDays, "validity of a CRL in days, by default 90")
        ->check(CLI::Range(1, 36500));
}

} // namespace

void addPkiCommand(CLI::App& app)
{
    const auto options = std::make_shared<PkiOptions>();
    PkiOptions& o = *options;
    CLI::App* const pki = app.add_subcommand("pki", "Make your own PKI, renew its CRLs, revoke certificates");
    pki->require_subcommand(1);

    CLI::App* const create = pki->add_subcommand("new", "Make root, CAs, signer, timestamp authority and CRLs");
    addDirectory(create, o, "the PKI's directory, which must not exist yet");
    create->add_option("--name", o.organization, "the organization in all names, by default Trial")->type_name("NAME");
    create
        ->add_option("--key-bits", o.keyBits,
                     "length of all keys; by default 4096 for the root and 3072 for the others")
        ->check(CLI::Range(2048, 4096));
    create->footer(
        "Without a token the private keys are files of mode 0600, and everything is valid for ten years: for\n"
        "trials. A token has to hold RSA keys named root, ca, tsa-ca, signer and tsa already; the root is then\n"
        "valid for twenty years, CAs for ten, signer and authority for two.\n\n" +
        app.get_footer());
    create->callback([options] { makePki(*options); });

    CLI::App* const crl = pki->add_subcommand("crl", "Issue the next CRL of every CA");
    addDirectory(crl, o, "the PKI's directory");
    crl->callback([options] { renewCrls(*options); });

    CLI::App* const revocation = pki->add_subcommand("revoke", "Revoke a certificate as of now, in its CA's next CRL");
    addDirectory(revocation, o, "the PKI's directory");
    revocation->add_option("certificate", o.certificate, "ca, tsa-ca, signer, tsa, or a certificate's file")
        ->required();
    revocation->add_option("--reason", o.reason, "as in RFC 5280: keyCompromise, superseded ...; by default none")
        ->type_name("REASON");
    revocation->callback([options] { revoke(*options); });
}

} // namespace pkgtool
