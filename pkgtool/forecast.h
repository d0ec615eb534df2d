// What goes into a package, and what the checker will say of it while that can still be mended.
#ifndef PKGTOOL_FORECAST_H
#define PKGTOOL_FORECAST_H

#include "files.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace pkgtool {

struct ForecastOptions {
    std::string root;
    bool check = false;
};
void addForecastOptions(CLI::App* command, ForecastOptions& options);

// Warns of a package under way that the checker would refuse; with --check throws. Silent when no root is to be
// trusted.
void foretell(const ForecastOptions& options, const OutputFile& package);

// One file behind the other, as the checker reads them: all DER or all PEM.
Bytes readCrlFiles(const std::vector<std::string>& paths, bool isChecked = true);

} // namespace pkgtool

#endif
