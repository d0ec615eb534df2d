// The inputs of a package, and the checker's verdict on it or its signature in advance, while they can still be
// corrected.
#ifndef PKGTOOL_FORECAST_H
#define PKGTOOL_FORECAST_H

#include "files.h"
#include "openssl.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace pkgtool {

struct ForecastOptions {
    std::string root;
    bool check = false;
};
void addForecastOptions(CLI::App* command, ForecastOptions& options);

// Warns of an unfinished package that the checker would refuse, and returns whether it did; with --check throws. Silent
// if there is no trusted root.
bool foretell(const ForecastOptions& options, const OutputFile& package);

// The same for a signer at the time of the timestamp, as far as it can be known without CRLs: the certificate's dates,
// and the issuers up to the root.
void foretell(const ForecastOptions& options, X509* signer, const std::vector<Cert>& chain, const std::string& time);

// Concatenates the files as the checker reads them: all DER or all PEM.
Bytes readCrlFiles(const std::vector<std::string>& paths, bool isChecked = true);

} // namespace pkgtool

#endif
