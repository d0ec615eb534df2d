// pkgtool lint: what a release pipeline should stop although devices would accept it.
#include "commands.h"
#include "container.h"
#include "lint_rules.h"
#include "terminal.h"
#include "text.h"
#include "verdict.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace pkgtool {

namespace {

constexpr int WARNINGS = 10;
constexpr int ERRORS = 11;

struct LintOptions {
    std::string package;
    std::string root;
    Limits limits{0, 400};
    bool json = false;
};

const char* severityText(Severity severity)
{
    switch (severity) {
    case Severity::Note: return "note";
    case Severity::Warning: return "warning";
    case Severity::Error: break;
    }
    return "error";
}

Findings lintVerdict(ByteView package, const Root& root)
{
    const Verdict verdict = judge(package, root);
    if (verdict.isAccepted()) return {};
    return {{"refused", Severity::Error, "",
             "the checker refuses it (" + printable(verdict.message) + "): pkgtool explain tells why"}};
}

void append(Findings& all, const Findings& more)
{
    all.insert(all.end(), more.begin(), more.end());
}

Findings lintAll(const LintOptions& options)
{
    const MappedFile file(options.package);
    const ByteView package = file.content();
    (void)readHeader(options.package, package);
    const Root root = loadRoot(options.root);
    const Contents contents = readContents(package, root.content, root.source);
    Findings findings = lintVerdict(package, root);
    append(findings, lintContainer(contents, package.size));
    append(findings, lintReading(contents));
    append(findings, lintSignature(contents));
    append(findings, lintCrls(contents, options.limits));
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.severity > b.severity; });
    return findings;
}

void printFindings(const Findings& findings)
{
    for (const Finding& finding : findings) {
        const std::string severity = severityText(finding.severity);
        const std::string shown = finding.severity == Severity::Error ? coloured(Colour::Red, severity) : severity;
        printf("%s: %s [%s]\n", shown.c_str(), printable(finding.sentence).c_str(), finding.id);
    }
}

void printFindingsJson(const std::string& package, const Findings& findings)
{
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"id", finding.id},
                        {"severity", severityText(finding.severity)},
                        {"at", finding.at},
                        {"message", finding.sentence}});
    }
    print({{"schema", SCHEMA}, {"package", package}, {"findings", list}});
}

void lint(const LintOptions& options)
{
    const Findings findings = lintAll(options);
    options.json ? printFindingsJson(options.package, findings) : printFindings(findings);
    if (findings.empty() || findings[0].severity == Severity::Note) return;
    throw CLI::RuntimeError(findings[0].severity == Severity::Error ? ERRORS : WARNINGS);
}

} // namespace

void addLintCommand(CLI::App& app)
{
    const auto options = std::make_shared<LintOptions>();
    CLI::App* const command = app.add_subcommand("lint", "Find what devices would accept and should not be shipped");
    command->add_option("package", options->package, "the package; - is standard input")->required();
    command->add_option("--root", options->root, "trust this root certificate, not the one compiled into the checker");
    Limits& limits = options->limits;
    command->add_option("--crl-margin", limits.crlMarginDays,
                        "days that CRLs must stay valid after the timestamp, by default " +
                            std::to_string(limits.crlMarginDays));
    command->add_option("--crl-days", limits.crlDays,
                        "the longest validity of a CRL in days, by default " + std::to_string(limits.crlDays));
    command->add_flag("--json", options->json, "print JSON");
    command->footer("Exit status: 0 nothing but notes, 10 warnings, 11 errors, 2 unreadable, or the\n"
                    "command line is wrong.");
    command->callback([options] { lint(*options); });
}

} // namespace pkgtool
