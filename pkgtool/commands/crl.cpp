// pkgtool crl show and crl compare. Verdicts are the library's; the explanations come from its summaries.
#include "codes.h"
#include "commands.h"
#include "crl_bundle.h"
#include "json.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace pkgtool {

namespace {

struct CrlOptions {
    std::vector<std::string> roots;
    std::vector<std::string> intermediates;
    std::vector<std::string> bundles;
    std::string offered;
    std::string device;
    bool json = false;

    std::vector<std::string> certFiles() const
    {
        std::vector<std::string> files = roots;
        files.insert(files.end(), intermediates.begin(), intermediates.end());
        return files;
    }
};

// ---- Values as text; empty if the summary has none ----

std::string serialText(const PELNIC_SERIAL_NUM& serial)
{
    return hexText(serial.sn, serial.sn_len);
}

std::vector<std::string> revokedSerials(const PELNIC_CRL_INFO& crl)
{
    std::vector<std::string> serials;
    const PELNIC_REVOKE_LIST& list = crl.revoke_list;
    std::transform(list.sn_list, list.sn_list + list.revoke_count, std::back_inserter(serials), serialText);
    return serials;
}

std::string issuerText(const PELNIC_CRL_INFO& crl)
{
    return *crl.issuer == '\0' ? "(a name that the verifier cannot read)" : printable(crl.issuer);
}

const char* verdictText(const CrlVerdict& verdict)
{
    constexpr const char* TEXTS[] = {"SAME", "NEW", "OLD", "MIX"};
    return TEXTS[verdict.stat];
}

const char* reasonText(const CrlVerdict& verdict)
{
    switch (verdict.code) {
    case PELNIC_ERR_CRL_INVALID_ENTRY: return "the issuer of a CRL did not verify";
    case PELNIC_ERR_CRL_DUPLICATE_ISSUER: return "a bundle has two CRLs of one issuer";
    case PELNIC_ERR_CRL_ISSUER_DROPPED: return "the newer bundle dropped an issuer that its root did not revoke";
    default: break;
    }
    switch (verdict.stat) {
    case SCPS_SAME: return "the bundles have the same dates";
    case SCPS_NEW: return "the offered bundle is newer";
    case SCPS_OLD: return "the offered bundle is older";
    case SCPS_MIX: break;
    }
    return "the offered bundle is newer for one issuer and older for another";
}

const char* relationText(Relation relation)
{
    switch (relation) {
    case Relation::Newer: return "newer";
    case Relation::Older: return "older";
    case Relation::Equal: return "equal";
    case Relation::Missing: return "missing";
    case Relation::Dropped: return "dropped";
    case Relation::Unverified: return "unverified";
    case Relation::Duplicate: break;
    }
    return "duplicate";
}

// ---- Tables ----

// The verifier judges at the CRL's date, not today.
const char* unverifiedText(const PELNIC_CRL_INFO& crl)
{
    if (crl.issuer_sn.sn_len == 0) return "not verified: no certificate of its issuer matches it";
    return "not verified: its issuer was not valid or was revoked, is below no known root, or lacks the root's CRL "
           "here";
}

// Long lists are truncated; --json has them in full.
std::string revokedText(const PELNIC_CRL_INFO& crl)
{
    constexpr std::size_t SHOWN = 8;
    std::vector<std::string> serials = revokedSerials(crl);
    const std::size_t count = serials.size();
    serials.resize(std::min(count, SHOWN));
    return CLI::detail::join(serials, ", ") + (count > SHOWN ? " and " + std::to_string(count - SHOWN) + " more" : "");
}

std::string orDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

void printBundle(const CrlBundle& bundle)
{
    printf("%s\n  %-20s  %-20s  verified  issuer\n", printable(bundle.path()).c_str(), "this update", "valid until");
    for (const PELNIC_CRL_INFO* crl : bundle.crls()) {
        const std::string serial = serialText(crl->issuer_sn);
        printf("  %-20s  %-20s  %-8s  %s%s\n", orDash(timeText(crl->update_time)).c_str(),
               orDash(timeText(crl->valid_until)).c_str(), crl->valid == 1 ? "yes" : "no", issuerText(*crl).c_str(),
               serial.empty() ? "" : (", serial " + serial).c_str());
        if (crl->valid != 1) printf("      %s\n", unverifiedText(*crl));
        if (crl->revoke_list.revoke_count > 0) printf("      revokes %s\n", revokedText(*crl).c_str());
    }
}

std::string changeText(const IssuerChange& change)
{
    const std::string offered = change.offered == nullptr ? "" : timeText(change.offered->update_time);
    const std::string device = change.device == nullptr ? "" : timeText(change.device->update_time);
    const std::string where = change.offered != nullptr ? "only in the offered bundle" : "only on the device";
    switch (change.relation) {
    case Relation::Newer: return offered + " after " + device;
    case Relation::Older: return offered + " before " + device;
    case Relation::Equal: return offered;
    case Relation::Missing: return where;
    case Relation::Dropped:
        return where + (change.excuse == nullptr ? ", and the other bundle's first revoke list lacks its issuer"
                                                 : ", but its issuer is revoked by " + issuerText(*change.excuse));
    case Relation::Unverified: return "its issuer did not verify";
    case Relation::Duplicate: break;
    }
    return "more than one CRL";
}

void printComparison(const CrlBundle& offered, const CrlBundle& device, const CrlVerdict& verdict)
{
    printf("Offered: ");
    printBundle(offered);
    printf("\nOn the device: ");
    printBundle(device);
    printf("\n");
    for (const IssuerChange& change : explain(offered.crls(), device.crls())) {
        const PELNIC_CRL_INFO& crl = change.offered != nullptr ? *change.offered : *change.device;
        printf("%-10s  %s: %s\n", relationText(change.relation), issuerText(crl).c_str(), changeText(change).c_str());
    }
    printf("%s: %s\n", verdictText(verdict), reasonText(verdict));
}

// ---- JSON ----

Json bundleJson(const CrlBundle& bundle)
{
    Json crls = Json::array();
    for (const PELNIC_CRL_INFO* crl : bundle.crls()) {
        Json revoked = Json::array();
        for (const std::string& serial : revokedSerials(*crl)) revoked.push_back({{"serial", serial}});
        crls.push_back({{"issuer", orNull(crl->issuer)},
                        {"issuer_serial", orNull(serialText(crl->issuer_sn))},
                        {"this_update", orNull(timeText(crl->update_time))},
                        {"next_update", orNull(timeText(crl->valid_until))},
                        {"verified", crl->valid == 1},
                        {"revoked", revoked}});
    }
    return {{"bundle", bundle.path()}, {"crls", crls}};
}

Json changeJson(const IssuerChange& change)
{
    const auto issuer = [](const PELNIC_CRL_INFO* crl) { return crl == nullptr ? Json() : orNull(crl->issuer); };
    const auto time = [](const PELNIC_CRL_INFO* crl) {
        return crl == nullptr ? Json() : orNull(timeText(crl->update_time));
    };
    return {{"issuer", issuer(change.offered != nullptr ? change.offered : change.device)},
            {"relation", relationText(change.relation)},
            {"in_offered", change.offered != nullptr},
            {"on_device", change.device != nullptr},
            {"offered_this_update", time(change.offered)},
            {"device_this_update", time(change.device)},
            {"excused_by", issuer(change.excuse)}};
}

void printComparisonJson(const CrlBundle& offered, const CrlBundle& device, const CrlVerdict& verdict)
{
    Json issuers = Json::array();
    for (const IssuerChange& change : explain(offered.crls(), device.crls())) issuers.push_back(changeJson(change));
    const Code* const code = verdict.code != 0 ? findCode(verdict.code) : nullptr;
    print({{"schema", SCHEMA},
           {"verdict", verdictText(verdict)},
           {"code", code != nullptr ? Json(hexadecimal(verdict.code)) : Json()},
           {"name", code != nullptr ? Json(code->name) : Json()},
           {"reason", reasonText(verdict)},
           {"issuers", issuers},
           {"offered", bundleJson(offered)},
           {"device", bundleJson(device)}});
}

// ---- Commands ----

void show(const CrlOptions& options)
{
    Json bundles = Json::array();
    for (const std::string& path : options.bundles) {
        const CrlBundle bundle(path, options.certFiles());
        if (!options.json) printBundle(bundle);
        bundles.push_back(bundleJson(bundle));
    }
    if (options.json) print({{"schema", SCHEMA}, {"bundles", bundles}});
}

int exitStatus(PELNIC_CRL_PERIOD_STAT stat)
{
    switch (stat) {
    case SCPS_NEW: return 0;
    case SCPS_SAME: return 10;
    case SCPS_OLD: return 11;
    case SCPS_MIX: break;
    }
    return 12;
}

void compareBundles(const CrlOptions& options)
{
    const CrlBundle offered(options.offered, options.certFiles());
    const CrlBundle device(options.device, options.certFiles());
    const CrlVerdict verdict = compare(offered, device);
    const auto report = options.json ? printComparisonJson : printComparison;
    report(offered, device, verdict);
    if (verdict.stat != SCPS_NEW) throw CLI::RuntimeError(exitStatus(verdict.stat));
}

void addCommonOptions(CLI::App* command, CrlOptions& options)
{
    command->add_option("--root", options.roots, "root certificates, PEM or DER; repeat for several files")
        ->allow_extra_args(false);
    command->add_option("--intermediate", options.intermediates, "certificates of the CAs below them, likewise")
        ->allow_extra_args(false);
    command->add_flag("--json", options.json, "print JSON");
}

} // namespace

void addCrlCommand(CLI::App& app)
{
    const auto options = std::make_shared<CrlOptions>();
    CrlOptions& o = *options;
    CLI::App* const crl = app.add_subcommand("crl", "Show CRL bundles, and whether one is newer than another");
    crl->require_subcommand(1);
    crl->footer("Each bundle is verified by the certificates given and by what it holds itself, so the CRL of an\n"
                "intermediate CA needs the root's CRL in the same bundle.");

    CLI::App* const showCommand = crl->add_subcommand("show", "Show the CRLs of bundles as the verifier reads them");
    showCommand->add_option("bundle", o.bundles, "files of 1 to 16 CRLs, PEM or DER, and their issuers' certificates")
        ->required();
    addCommonOptions(showCommand, o);
    showCommand->footer(app.get_footer());
    showCommand->callback([options] { show(*options); });

    CLI::App* const compareCommand = crl->add_subcommand("compare", "Decide whether a bundle is newer than another");
    compareCommand->add_option("offered", o.offered, "the bundle offered for update")->required();
    compareCommand->add_option("device", o.device, "the bundle on the device")->required();
    addCommonOptions(compareCommand, o);
    compareCommand->footer("Exit status: 0 NEW, 10 SAME, 11 OLD, 12 MIX, 2 unreadable, or the\n"
                           "command line is wrong.");
    compareCommand->callback([options] { compareBundles(*options); });
}

} // namespace pkgtool
