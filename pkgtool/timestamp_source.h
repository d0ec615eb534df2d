// The sources of the timestamps of a command's signers: the common options of all commands that stamp.
#ifndef PKGTOOL_TIMESTAMP_SOURCE_H
#define PKGTOOL_TIMESTAMP_SOURCE_H

#include "openssl.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace pkgtool {

using Strings = std::vector<std::string>;

struct TimestampOptions {
    std::string tsaCert;
    std::string tsaKey;
    std::string tsaPassword;
    Strings tsaChain;
    std::string tsaTime;
    std::string tsaPolicy = "1.3.6.1.4.1.32473.1"; // RFC 5612's enterprise number for examples
    Strings tsaResponses;
    std::string tsaUrl;
    Strings tsaRequests; // files for queries, instead of timestamps
};

// An option that takes one value each time.
CLI::Option* addRepeatable(CLI::App* command, const std::string& name, Strings& values, const std::string& text);

// The group of the options, and the option for the file of queries, which excludes an output.
CLI::Option_group* addTimestampOptions(CLI::App* command, TimestampOptions& options, CLI::Option* output);

// The number of sources in the options; one is needed.
int countSources(const TimestampOptions& options);
// Throws unless the option is given once per signer, or never.
void requireEach(const char* option, const Strings& values, std::size_t signers);
// The same for all options here that belong to one signer each.
void requireEach(const TimestampOptions& options, std::size_t signers);
[[noreturn]] void throwNoSource(int sources);

// The timestamp of signer i.
using Stamp = std::function<Bytes(std::size_t i, const Bytes& signature, const EVP_MD* md)>;
// Null if there are none, such as for queries. The options must outlive it.
Stamp timestampSource(const TimestampOptions& options);

} // namespace pkgtool

#endif
