#include "timestamp_source.h"

#include "error.h"
#include "requirements.h"
#include "timestamp.h"

#include <ctime>
#include <memory>

namespace pkgtool {

namespace {

Stamp stampLocally(const TimestampOptions& options)
{
    const auto authority = std::make_shared<LocalAuthority>();
    authority->identity = loadIdentity(options.tsaCert, options.tsaKey, options.tsaPassword);
    requireTimestampAuthority(authority->identity.cert.get());
    appendCertificates(options.tsaChain, authority->chain);
    authority->time = options.tsaTime.empty() ? Asn1Time(ASN1_GENERALIZEDTIME_set(nullptr, std::time(nullptr)))
                                              : parseTime(options.tsaTime);
    authority->policy.reset(OBJ_txt2obj(options.tsaPolicy.c_str(), 1));
    if (authority->policy == nullptr) throw UserError("'" + options.tsaPolicy + "' is not a dotted object identifier");
    return [authority](std::size_t, const Bytes& signature, const EVP_MD* md) {
        return makeToken(*authority, signature, md);
    };
}

} // namespace

CLI::Option* addRepeatable(CLI::App* command, const std::string& name, Strings& values, const std::string& text)
{
    return command->add_option(name, values, text)->allow_extra_args(false);
}

CLI::Option_group* addTimestampOptions(CLI::App* command, TimestampOptions& options, CLI::Option* output)
{
    CLI::Option_group* const when = command->add_option_group("timestamp", "Where the timestamp comes from; one of");
    CLI::Option* const cert =
        when->add_option("--tsa-cert", options.tsaCert, "certificate of an authority of your own");
    CLI::Option* const key = when->add_option("--tsa-key", options.tsaKey, "its private key: a file, or a pkcs11: URI");
    when->add_option("--tsa-pass", options.tsaPassword, "its password or PIN: env:NAME or file:PATH")
        ->type_name("SOURCE")
        ->needs(cert);
    addRepeatable(when, "--tsa-chain", options.tsaChain, "certificates of the CAs above it")->needs(cert);
    when->add_option("--tsa-time", options.tsaTime, "the time it states, 2026-01-31T12:00:00Z; by default now")
        ->type_name("TIME")
        ->needs(cert);
    when->add_option("--tsa-policy", options.tsaPolicy, "the policy it states, an object identifier")
        ->type_name("OID")
        ->needs(cert);
    addRepeatable(when, "--tsa-response", options.tsaResponses, "an authority's response, one per signer");
    when->add_option("--tsa-url", options.tsaUrl, "ask this authority (RFC 3161 over HTTP)")->type_name("URL");
    CLI::Option* const requests = addRepeatable(when, "--tsa-request-out", options.tsaRequests,
                                                "write only the query to this file, one per signer");
    cert->needs(key);
    key->needs(cert);
    output->excludes(requests);
    return when;
}

int countSources(const TimestampOptions& options)
{
    return !options.tsaCert.empty() + !options.tsaResponses.empty() + !options.tsaUrl.empty() +
           !options.tsaRequests.empty();
}

void requireEach(const char* option, const Strings& values, std::size_t signers)
{
    if (values.empty() || values.size() == signers) return;
    throw UserError(std::string(option) + " is needed once for each of the " + std::to_string(signers) + " signers");
}

void requireEach(const TimestampOptions& options, std::size_t signers)
{
    requireEach("--tsa-response", options.tsaResponses, signers);
    requireEach("--tsa-request-out", options.tsaRequests, signers);
}

void throwNoSource(int sources)
{
    throw UserError(sources == 0 ? "no source of the timestamp is given" : "only one timestamp per signer",
                    "the checker needs a timestamp for every signer: --tsa-cert, --tsa-response or --tsa-url, or "
                    "--tsa-request-out to ask for one");
}

Stamp timestampSource(const TimestampOptions& options)
{
    if (!options.tsaCert.empty()) return stampLocally(options);
    if (!options.tsaResponses.empty()) {
        return [&](std::size_t i, const Bytes&, const EVP_MD*) {
            return tokenOfResponse(readFile(options.tsaResponses[i]), options.tsaResponses[i]);
        };
    }
    if (!options.tsaUrl.empty()) {
        return [&](std::size_t, const Bytes& signature, const EVP_MD* md) {
            return fetchToken(options.tsaUrl, signature, md);
        };
    }
    return nullptr;
}

} // namespace pkgtool
