// pkgtool stamp: timestamps for a signature made elsewhere, such as by a signing service.
#include "commands.h"
#include "der.h"
#include "error.h"
#include "requirements.h"
#include "signed_data.h"
#include "text.h"
#include "timestamp.h"
#include "timestamp_source.h"

#include <cstdio>
#include <memory>
#include <utility>

namespace pkgtool {

namespace {

struct StampOptions {
    std::string signature;
    std::string output;
    Existing existing = Existing::Refuse;
    std::string payload;
    Strings chain;
    TimestampOptions timestamp;
};

struct Signer {
    CMS_SignerInfo* info;
    X509* cert;
    const EVP_MD* md;
};

// In order. Signers with a timestamp keep it.
std::vector<Signer> unstampedSigners(CMS_ContentInfo* cms)
{
    std::vector<Signer> signers;
    STACK_OF(CMS_SignerInfo)* const infos = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) {
        CMS_SignerInfo* const info = sk_CMS_SignerInfo_value(infos, i);
        if (timestampOf(info) != nullptr) continue;
        X509* cert = nullptr;
        X509_ALGOR* digest = nullptr;
        CMS_SignerInfo_get0_algs(info, nullptr, &cert, &digest, nullptr);
        const ASN1_OBJECT* algorithm = nullptr;
        X509_ALGOR_get0(&algorithm, nullptr, nullptr, digest);
        signers.push_back({info, cert, EVP_get_digestbyobj(algorithm)});
    }
    return signers;
}

// Both checks tell the signature its signers' certificates.
Cms readStampable(const StampOptions& options, const Bytes& content)
{
    requireStampable(content, options.signature);
    Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo,
                                            isPem(content) ? withoutArmour(content, options.signature) : content);
    CMS_set1_signers_certs(cms.get(), nullptr, 0);
    return cms;
}

// The output is checked as if somebody else had made it: encoding it again must not have changed anything.
void requireStamped(const StampOptions& options, const Bytes& der)
{
    requireStampable(der, options.signature);
    if (options.payload.empty()) return requireSigners(der, options.signature);
    requireSignature(der, MappedFile(options.payload).content(), options.signature);
}

// In the order of the files: the first belongs to the first unstamped signer.
void writeQueries(const StampOptions& options, const std::vector<Signer>& signers)
{
    const Strings& paths = options.timestamp.tsaRequests;
    for (const std::string& path : paths) requireWritable(path, options.existing);
    for (std::size_t i = 0; i < signers.size(); ++i) {
        writeFile(paths[i], makeQuery(signatureOf(signers[i].info), signers[i].md), options.existing);
    }
}

void stamp(const StampOptions& options)
{
    const int sources = countSources(options.timestamp);
    if (sources != 1) throwNoSource(sources);
    const Bytes content = readFile(options.signature);
    const Cms cms = readStampable(options, content);
    const std::vector<Signer> signers = unstampedSigners(cms.get());
    if (signers.empty()) {
        throw UserError("every signer of " + options.signature + " has a timestamp already", "pack it unchanged");
    }
    requireEach(options.timestamp, signers.size());
    if (!options.timestamp.tsaRequests.empty()) return writeQueries(options, signers);
    requireWritable(options.output, options.existing);
    const Stamp source = timestampSource(options.timestamp);

    std::vector<Cert> chain;
    appendCertificates(options.chain, chain);
    for (const Cert& cert : chain) addCertificate(cms.get(), cert.get());
    Strings summaries;
    for (std::size_t i = 0; i < signers.size(); ++i) {
        const Bytes token = source(i, signatureOf(signers[i].info), signers[i].md);
        attachTimestamp(signers[i].info, token);
        summaries.push_back("signed by " + nameOf(signers[i].cert) + ", stamped " + timeOfToken(token));
    }
    const Bytes der = toDer(i2d_CMS_ContentInfo, cms.get());
    requireStamped(options, der);
    writeFile(options.output, isPem(content) ? armour(der) : der, options.existing);
    if (isStandardOutput(options.output)) return; // which gets only the signature
    for (const std::string& text : summaries) printf("%s\n", printable(text).c_str());
}

} // namespace

void addStampCommand(CLI::App& app)
{
    const auto options = std::make_shared<StampOptions>();
    StampOptions& o = *options;
    CLI::App* const command = app.add_subcommand("stamp", "Add the timestamps that a signature from elsewhere lacks");
    command->add_option("signature", o.signature, "the signature, DER or PEM; - is standard input")->required();
    CLI::Option* const output =
        command->add_option("-o,--output", o.output, "the stamped one, in the same form; - is standard output");
    addForceFlag(command, o.existing);
    command->add_option("--payload", o.payload, "check that the signature covers this payload");
    addRepeatable(command, "--chain", o.chain, "certificates to add, of CAs or an authority");
    addTimestampOptions(command, o.timestamp, output);
    command->footer("Signers who have a timestamp keep it; responses and queries are for the others, in their order.\n"
                    "A signature that the checker would refuse for anything else is refused before it is stamped.\n\n" +
                    app.get_footer());
    command->callback([options] {
        if (options->output.empty() && options->timestamp.tsaRequests.empty()) throw CLI::RequiredError("--output");
        stamp(*options);
    });
}

} // namespace pkgtool
