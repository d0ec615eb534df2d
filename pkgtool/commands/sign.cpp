// pkgtool sign.
#include "commands.h"
#include "container.h"
#include "error.h"
#include "forecast.h"
#include "progress.h"
#include "requirements.h"
#include "signed_data.h"
#include "text.h"
#include "timestamp.h"
#include "timestamp_source.h"

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>

namespace pkgtool {

namespace {

struct SignOptions {
    std::string payload;
    std::string output;
    Existing existing = Existing::Refuse;
    bool pem = false;
    Strings certs;
    Strings keys;
    Strings pkcs12;
    Strings signatures;
    Strings toBeSigned;
    Strings passwords;
    Strings chain;
    Strings digests{"sha256"};
    std::string signingTime;

    TimestampOptions timestamp;
    bool noTimestamp = false;
    ForecastOptions forecast;
};

struct Signer {
    Identity identity;
    const EVP_MD* md;
};

// The single value, or that of signer i.
const std::string& valueFor(const Strings& values, std::size_t i)
{
    return values.size() == 1 ? values.front() : values[i];
}

void requireOneOrEach(const char* option, const Strings& values, std::size_t signers)
{
    if (values.size() <= 1 || values.size() == signers) return;
    throw UserError(std::string(option) + " is given " + std::to_string(values.size()) + " times for " +
                        std::to_string(signers) + " signers",
                    "give it once for all signers or once for each, in the order of the signers");
}

// For example in a separate room: the octets are carried in, the signature is carried out.
bool isKeyElsewhere(const SignOptions& options)
{
    return !options.signatures.empty() || !options.toBeSigned.empty();
}

void requireConsistent(const SignOptions& options)
{
    const std::size_t signers = options.certs.size() + options.pkcs12.size();
    if (isKeyElsewhere(options)) {
        if (!options.keys.empty() || !options.pkcs12.empty()) {
            throw UserError("--signature and --to-be-signed-out do not go with --key or --p12",
                            "use one way for all signers");
        }
    } else if (options.certs.size() != options.keys.size()) {
        throw UserError("every --cert needs its --key",
                        "or name a PKCS #12 file with --p12, or let the key sign elsewhere with --to-be-signed-out");
    }
    if (signers == 0) throw UserError("there is no signer", "name a signer with --cert and --key, or with --p12");
    requireEach("--signature", options.signatures, signers);
    requireEach("--to-be-signed-out", options.toBeSigned, signers);
    requireOneOrEach("--digest", options.digests, signers);
    requireOneOrEach("--pass", options.passwords, signers);
    requireEach(options.timestamp, signers);

    const int sources = countSources(options.timestamp) + options.noTimestamp;
    if (!options.toBeSigned.empty() && sources != 0) {
        throw UserError("there is nothing to stamp yet", "give the timestamp's options with --signature");
    }
    if (sources == 1 || !options.toBeSigned.empty()) return;
    throwNoSource(sources);
}

// In the order of the command line; those of PKCS #12 files come last.
std::vector<Signer> loadSigners(const SignOptions& options, std::vector<Cert>& chain)
{
    std::vector<Signer> signers;
    const auto add = [&](const std::function<Identity(const std::string& password)>& load) {
        const std::size_t i = signers.size();
        Identity identity = load(options.passwords.empty() ? std::string() : valueFor(options.passwords, i));
        requireSigner(identity.cert.get());
        signers.push_back({std::move(identity), EVP_get_digestbyname(valueFor(options.digests, i).c_str())});
    };
    for (std::size_t i = 0; i < options.certs.size(); ++i) {
        add([&](const std::string& password) {
            return isKeyElsewhere(options) ? loadCertificate(options.certs[i])
                                           : loadIdentity(options.certs[i], options.keys[i], password);
        });
    }
    for (const std::string& path : options.pkcs12) {
        add([&](const std::string& password) { return loadPkcs12(path, password, chain); });
    }
    return signers;
}

// UTCTime up to 2049, GeneralizedTime later (RFC 5652, 11.3); null if no time is given.
Asn1Time signingTimeOf(const SignOptions& options)
{
    if (options.signingTime.empty()) return nullptr;
    const Bytes text = bytesOf(parseTime(options.signingTime).get());
    Asn1Time time(ASN1_TIME_new());
    ensure(time != nullptr && ASN1_TIME_set_string_X509(time.get(), std::string(text.begin(), text.end()).c_str()) == 1,
           "setting a time");
    return time;
}

// Reads signer i's signature from its file, or writes the octets to sign to one.
MakeSignature signElsewhere(const SignOptions& options, const Signer& signer, std::size_t i)
{
    return [&options, &signer, i](const Bytes& toBeSigned) {
        if (!options.toBeSigned.empty()) {
            writeFile(options.toBeSigned[i], toBeSigned, options.existing);
            return Bytes();
        }
        Bytes signature = readFile(options.signatures[i]);
        if (!isSignature(signer.identity.cert.get(), signer.md, toBeSigned, signature)) {
            throw UserError(options.signatures[i] + " is not a signature by " + nameOf(signer.identity.cert.get()) +
                                " of what --to-be-signed-out wrote",
                            "sign with RSA PKCS #1 v1.5 and the same --digest; payload, certificate and --signing-time "
                            "must be the same");
        }
        return signature;
    };
}

// Checked before an authority is asked or a file written.
void requireOutputs(const SignOptions& options)
{
    for (const Strings& paths : {options.toBeSigned, options.timestamp.tsaRequests, Strings{options.output}}) {
        for (const std::string& path : paths) {
            if (!path.empty()) requireWritable(path, options.existing);
        }
    }
}

Bytes digestOfImage(const SignOptions& options, const EVP_MD* md, ByteView payload)
{
    Progress progress("hashing " + options.payload, payload.size);
    return digestOf(md, payload, [&](std::size_t octets) { progress.advance(octets); });
}

// A line that describes a signer's part of the signature.
std::string summary(const Signer& signer, const Bytes& digest, const std::string& time)
{
    return "signed by " + nameOf(signer.identity.cert.get()) + ", " +
           (time.empty() ? "not stamped" : "stamped " + time) + ", " + EVP_MD_get0_name(signer.md) +
           " of the payload " + hexText(digest.data(), digest.size());
}

void sign(const SignOptions& options)
{
    requireConsistent(options);
    std::vector<Cert> chain;
    const std::vector<Signer> signers = loadSigners(options, chain);
    appendCertificates(options.chain, chain);
    const Stamp stamp = timestampSource(options.timestamp);
    const Asn1Time signingTime = signingTimeOf(options);
    const MappedFile image(options.payload);
    const ByteView payload = image.content();
    if (payload.size == 0) throw Refusal(options.payload + " is empty, and the checker refuses an empty payload");
    requireReadable(sizeof(Header) + payload.size);
    requireOutputs(options);

    Strings summaries;
    const Cms cms = newDetached();
    for (const Cert& cert : chain) addCertificate(cms.get(), cert.get());
    for (std::size_t i = 0; i < signers.size(); ++i) {
        const Signer& signer = signers[i];
        SignerOptions how{signer.md, digestOfImage(options, signer.md, payload)};
        how.signingTime = signingTime.get();
        if (isKeyElsewhere(options)) how.makeSignature = signElsewhere(options, signer, i);
        CMS_SignerInfo* const info = addSigner(cms.get(), signer.identity, how);
        addCertificate(cms.get(), signer.identity.cert.get());
        std::string time;
        if (stamp) {
            const Bytes token = stamp(i, signatureOf(info), signer.md);
            attachTimestamp(info, token);
            time = timeOfToken(token);
            foretell(options.forecast, signer.identity.cert.get(), chain, time);
        }
        summaries.push_back(summary(signer, how.contentDigest, time));
        if (!options.timestamp.tsaRequests.empty()) {
            writeFile(options.timestamp.tsaRequests[i], makeQuery(signatureOf(info), signer.md), options.existing);
        }
    }
    if (options.output.empty()) return;

    const Bytes der = encode(cms.get());
    if (stamp) requireSignature(der, payload, "the signature");
    image.requireUnchanged();
    writeFile(options.output, options.pem ? armour(der) : der, options.existing);
    if (isStandardOutput(options.output)) return; // which gets only the signature
    for (const std::string& text : summaries) printf("%s\n", printable(text).c_str());
}

} // namespace

void addSignCommand(CLI::App& app)
{
    const auto options = std::make_shared<SignOptions>();
    SignOptions& o = *options;
    CLI::App* const command = app.add_subcommand("sign", "Make a payload's detached, timestamped CMS signature");
    command->add_option("payload", o.payload, "the image to sign; - is standard input")->required();
    CLI::Option* const output = command->add_option("-o,--output", o.output, "the signature; - is standard output");
    addForceFlag(command, o.existing);
    command->add_flag("--pem", o.pem, "write PEM instead of DER");

    addForecastOptions(command, o.forecast);

    CLI::Option_group* const who = command->add_option_group("signers", "Who signs; repeat for several signers");
    addRepeatable(who, "--cert", o.certs, "signer's certificate: PEM, DER");
    addRepeatable(who, "--key", o.keys, "its private key: PEM, DER, PKCS #12 or a pkcs11: URI");
    CLI::Option* const toBeSigned = addRepeatable(who, "--to-be-signed-out", o.toBeSigned,
                                                  "write only the octets for a key elsewhere to sign to this file");
    CLI::Option* const signature =
        addRepeatable(who, "--signature", o.signatures, "that key's bare signature value, RSA PKCS #1 v1.5");
    addRepeatable(who, "--p12", o.pkcs12, "certificate, key and chain in a PKCS #12 file");
    addRepeatable(who, "--pass", o.passwords, "password or PIN of the keys: env:NAME or file:PATH")
        ->type_name("SOURCE");
    addRepeatable(who, "--chain", o.chain, "certificates of the CAs between signer and root");
    addRepeatable(who, "--digest", o.digests, "sha256 (default), sha384 or sha512")
        ->check(CLI::IsMember({"sha256", "sha384", "sha512"}));
    who->add_option("--signing-time", o.signingTime, "put this time (2026-01-31T12:00:00Z) into the signature")
        ->type_name("TIME");

    CLI::Option_group* const when = addTimestampOptions(command, o.timestamp, output);
    when->add_flag("--no-timestamp", o.noTimestamp, "none, for tests: the checker refuses such a signature");
    output->excludes(toBeSigned);
    toBeSigned->excludes(signature)->excludes(when->get_option("--tsa-request-out"));

    command->footer("A response file belongs to the query that the same command made with --tsa-request-out instead.\n"
                    "The same inputs give the same bytes; with --tsa-cert only if there is a --tsa-time.\n\n" +
                    app.get_footer());
    command->callback([options] {
        const bool isQuestion = !options->timestamp.tsaRequests.empty() || !options->toBeSigned.empty();
        if (options->output.empty() && !isQuestion) throw CLI::RequiredError("--output");
        sign(*options);
    });
}

} // namespace pkgtool
