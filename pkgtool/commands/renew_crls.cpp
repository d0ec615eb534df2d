// pkgtool renew-crls: replaces the CRLs of a package and nothing else.
#include "commands.h"
#include "container.h"
#include "error.h"
#include "forecast.h"
#include "progress.h"
#include "reader.h"
#include "requirements.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

namespace pkgtool {

namespace {

struct RenewOptions {
    std::string package;
    std::vector<std::string> crls;
    std::string output;
    Existing existing = Existing::Refuse;
    ForecastOptions forecast;
};

// ---- Where the CRLs are ----

// The only CRL sub-file, by its index.
std::size_t findCrls(const std::string& path, const Header& header, ByteView package)
{
    const std::vector<SSubFileInfo_S> entries = entriesOf(header);
    const auto isCrls = [](const SSubFileInfo_S& entry) { return entry.ulSubFileID == SUB_FILE_CRL; };
    const auto found = std::find_if(entries.begin(), entries.end(), isCrls);
    if (header.ulSubFileNum != 3 || std::count_if(entries.begin(), entries.end(), isCrls) != 1) {
        throw UserError(path + " is not a package of three sub-files with one of CRLs", "pkgtool list shows its table");
    }
    const std::size_t begin = found->ulSubFileOffset;
    const std::size_t end = begin + found->ulSubFileLen;
    const auto isInTheWay = [&](const SSubFileInfo_S& other) {
        const bool isApart = other.ulSubFileLen == 0 || other.ulSubFileOffset >= end ||
                             std::size_t{other.ulSubFileOffset} + other.ulSubFileLen <= begin;
        return !isInside(other, package) || (!isCrls(other) && !isApart);
    };
    if (std::any_of(entries.begin(), entries.end(), isInTheWay)) {
        throw UserError(path + ": a sub-file lies outside the file, or shares octets with the CRLs",
                        "unpack it and pack it again");
    }
    return static_cast<std::size_t>(found - entries.begin());
}

// ---- Whether they are newer, and of the same issuers ----

// The latest date of each issuer; the form 2026-01-01T00:00:00Z sorts by time.
using Dates = std::map<std::string, std::string>;

Dates datesOf(const Bytes& crls)
{
    Dates dates;
    for (const Object& object : makeDeviceReader()->readObjects(crls)) {
        if (!object.isCrl || !object.json["this_update"].is_string()) continue;
        std::string& date = dates[textOf(object.json["issuer"])];
        date = std::max(date, object.json["this_update"].get<std::string>());
    }
    return dates;
}

// An older CRL could undo a revocation that the package already has.
void requireNoneOlder(const Dates& before, const Dates& after)
{
    for (const auto& [issuer, date] : before) {
        const auto found = after.find(issuer);
        if (found == after.end() || found->second >= date) continue;
        throw UserError(
            "the CRL of " + issuer + " is of " + found->second + ", and the package has one of " + date,
            "an older CRL may lack a revocation; if that is intended, unpack the package and pack it again");
    }
}

// A checker that needs a lost CRL refuses the package, and a device that has one takes no bundle without it.
void warnOfLost(const Dates& before, const Dates& after, bool isError)
{
    std::string lost;
    for (const auto& [issuer, date] : before) {
        if (after.count(issuer) == 0) lost += (lost.empty() ? "" : " and of ") + issuer;
    }
    if (lost.empty()) return;
    const std::string advice = "give one of every CA with --crl; all CRLs of the package are replaced";
    if (isError) throw Refusal("the package would lose its CRL of " + lost, advice);
    fprintf(stderr, "pkgtool: warning: the new package has no CRL of %s; the old one had\nhint: %s\n", lost.c_str(),
            advice.c_str());
}

// ---- The new package ----

// The same header with `length` octets in place of the CRLs: everything after them moves.
Header movedHeader(Header header, std::size_t index, std::uint32_t length, std::size_t size)
{
    const SSubFileInfo_S crls = header.stSubFileInfo[index];
    const std::uint32_t growth = length - crls.ulSubFileLen; // modulo 2^32, as it is added below
    for (std::size_t i = 0; i < header.ulSubFileNum; ++i) {
        SSubFileInfo_S& entry = header.stSubFileInfo[i];
        if (entry.ulSubFileOffset >= crls.ulSubFileOffset + crls.ulSubFileLen) entry.ulSubFileOffset += growth;
    }
    header.stSubFileInfo[index] = {SUB_FILE_CRL, crls.ulSubFileOffset, length};
    if (header.ulLength == size) header.ulLength += growth;
    return header;
}

void renewCrls(const RenewOptions& options)
{
    const bool isInPlace = options.package != "-" && isSameFile(options.package, options.output);
    const Existing existing = isInPlace ? Existing::Update : options.existing;
    const MappedFile file(options.package);
    const ByteView package = file.content();
    const Header header = readHeader(options.package, package);
    const std::size_t index = findCrls(options.package, header, package);
    const SSubFileInfo_S place = header.stSubFileInfo[index];
    const Bytes crls = readCrlFiles(options.crls);
    requireCrls(crls, CLI::detail::join(options.crls, ", "));
    const Dates before = datesOf(contentOf(place, package));
    const Dates after = datesOf(crls);
    requireNoneOlder(before, after);
    const std::size_t size = package.size - place.ulSubFileLen + crls.size();
    requireReadable(size);

    const std::size_t begin = sizeof(Header) + place.ulSubFileOffset;
    const std::size_t end = begin + place.ulSubFileLen;
    OutputFile output(options.output, existing);
    output.write(encodeHeader(movedHeader(header, index, static_cast<std::uint32_t>(crls.size()), package.size)));
    {
        Progress progress("copying " + options.package, size);
        const Done done = [&](std::size_t octets) { progress.advance(octets); };
        output.write({package.data + sizeof(Header), begin - sizeof(Header)}, done);
        output.write(crls, done);
        output.write({package.data + end, package.size - end}, done);
    }
    file.requireUnchanged();
    if (!foretell(options.forecast, output)) warnOfLost(before, after, options.forecast.check);
    output.commit();
    if (header.ulHeaderCrc != 0 || header.ulFileCRC != 0) {
        fprintf(stderr, "pkgtool: warning: the header's checksums are as they were; pkgtool does not know how they are "
                        "made\n");
    }
    if (isStandardOutput(options.output)) return; // which gets only the package
    printf("packed %zu octets, with CRLs of %zu in place of %u\n", size, crls.size(), place.ulSubFileLen);
}

} // namespace

void addRenewCrlsCommand(CLI::App& app)
{
    const auto options = std::make_shared<RenewOptions>();
    CLI::App* const command = app.add_subcommand("renew-crls", "Replace the CRLs of a package");
    command->add_option("package", options->package, "the package; - is standard input")->required();
    command->add_option("--crl", options->crls, "CRLs, DER or PEM: one of each CA; may be repeated")
        ->allow_extra_args(false)
        ->required();
    command->add_option("-o,--output", options->output, "the new package; the old name overwrites it")->required();
    addForceFlag(command, options->existing);
    addForecastOptions(command, options->forecast);
    command->footer(
        "All CRLs of the package are replaced, none of them by an older one. Nothing else changes, except\n"
        "the places in the header. A CA that had a CRL and has none in the new package gets a warning;\n"
        "with --check it is an error. A checker with PKGCHECK_STRICT refuses CRLs from after the timestamp.\n\n" +
        app.get_footer());
    command->callback([options] { renewCrls(*options); });
}

} // namespace pkgtool
