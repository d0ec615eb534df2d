// Where the timestamps of a command's signers come from: the options of all commands that stamp, and what they name.
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
    std::string tsaPolicy = "1.3.6.1.4.1.32473.1"; // the enterprise number that RFC 5612 sets aside for examples
    Strings tsaResponses;
    std::string tsaUrl;
    Strings tsaRequests; // files for queries, instead of timestamps
};

// An option that takes one value each time that it is given.
CLI::Option* addRepeatable(CLI::App* command, const std::string& name, Strings& values, const std::string& text);

// The group of the options, and that of the file of queries, which goes with no output.
CLI::Option_group* addTimestampOptions(CLI::App* command, TimestampOptions& options, CLI::Option* output);

// How many sources the options name; one is needed.
int countSources(const TimestampOptions& options);
// Throws unless the option is given once for each signer, or never.
void requireEach(const char* option, const Strings& values, std::size_t signers);
// The same of all options here that belong to a signer each.
void requireEach(const TimestampOptions& options, std::size_t signers);
[[noreturn]] void throwNoSource(int sources);

// The timestamp of signer i.
using Stamp = std::function<Bytes(std::size_t i, const Bytes& signature, const EVP_MD* md)>;
// Null when there are to be none: for queries, say. The options must outlive it.
Stamp timestampSource(const TimestampOptions& options);

} // namespace pkgtool

#endif
