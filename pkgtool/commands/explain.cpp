// pkgtool explain: the checker's verdict on a package and its reasons, on one screen.
#include "codes.h"
#include "commands.h"
#include "container.h"
#include "diagnosis.h"
#include "fingerprint.h"
#include "html.h"
#include "terminal.h"
#include "text.h"

#include <cstdio>
#include <memory>

namespace pkgtool {

namespace {

constexpr int REFUSED = 1;

struct ExplainOptions {
    std::string package;
    std::string root;
    bool json = false;
    std::string html;
    Existing existing = Existing::Refuse;
    bool allowUnsigned = false;
};

// ---- The report ----

Json logJson(const std::vector<LogRecord>& log)
{
    Json records = Json::array();
    for (const LogRecord& record : log) {
        records.push_back({{"level", record.level == PELNIC_LOG_TYPE_ERROR ? "error" : "warning"},
                           {"code", record.code == 0 ? Json() : Json(hexadecimal(record.code))},
                           {"message", orNull(record.message)},
                           {"file", record.file},
                           {"line", record.line},
                           {"function", record.function}});
    }
    return records;
}

// Without the contents of the sub-files, which pkgtool inspect shows.
Json tableJson(const Json& subFiles)
{
    Json table = subFiles;
    for (Json& subFile : table) subFile.erase("content");
    return table;
}

Json makeReport(const ExplainOptions& options)
{
    const MappedFile file(options.package);
    const ByteView package = file.content();
    const Root root = loadRoot(options.root);
    const Verdict verdict = judge(package, root);
    const Code* const code = verdict.code ? findCode(*verdict.code) : nullptr;
    Json report = {{"schema", SCHEMA},
                   {"package", options.package},
                   {"verdict", verdict.isAccepted() ? "accepted" : "refused"},
                   {"signed", verdict.isAccepted() ? Json(verdict.isSigned) : Json()},
                   {"status", verdict.status},
                   {"message", orNull(verdict.message)},
                   {"code", verdict.code ? Json(hexadecimal(*verdict.code)) : Json()},
                   {"name", code != nullptr ? Json(code->name) : Json()},
                   {"meaning", code != nullptr ? Json(code->meaning) : Json()},
                   {"failure", nullptr},
                   {"header", nullptr},
                   {"sub_files", Json::array()},
                   {"root", nullptr},
                   {"signers", Json::array()},
                   {"log", logJson(verdict.log)}};
    if (package.size < sizeof(Header)) return report;
    Contents contents = readContents(package, root.content, root.source);
    putFingerprints(contents.subFiles, file);
    const Diagnosis diagnosis = diagnose(package, contents, verdict);
    report["failure"] = diagnosis.failure;
    report["header"] = contents.header;
    report["sub_files"] = tableJson(contents.subFiles);
    report["root"] = contents.root;
    report["signers"] = diagnosis.signers;
    return report;
}

// ---- One screen ----

std::string dayOf(const Json& time)
{
    return textOf(time).substr(0, 10);
}

// Prints lines, and marks the line of the failing place.
class Screen {
public:
    explicit Screen(const Json& report) : failing_(report["failure"].is_null() ? "" : textOf(report["failure"]["at"]))
    {
    }

    void line(const std::string& at, unsigned depth, const std::string& text) const
    {
        const std::string indented = std::string(2 * depth, ' ') + text;
        if (at.empty() || at != failing_) return (void)printf("  %s\n", indented.c_str());
        printf("%s\n", coloured(Colour::Red, "> " + indented).c_str());
    }

private:
    std::string failing_;
};

void printContainer(const Json& report, const Screen& screen)
{
    if (report["header"].is_null()) return;
    const std::string count = textOf(report["header"]["sub_file_count"]);
    screen.line("/header/sub_file_count", 0, "package with " + count + (count == "1" ? " sub-file" : " sub-files"));
    if (report["failure"].is_object() && report["failure"]["at"] == "/sub_files")
        screen.line("/sub_files", 1, "a missing one");
    for (std::size_t i = 0; i < report["sub_files"].size(); ++i) {
        const Json& subFile = report["sub_files"][i];
        char text[96];
        (void)snprintf(text, sizeof text, "%-10s offset %10s  length %10s%s", textOf(subFile["type"]).c_str(),
                       textOf(subFile["offset"]).c_str(), textOf(subFile["length"]).c_str(),
                       subFile["is_inside"] == true ? "" : "  outside the file");
        screen.line("/sub_files/" + std::to_string(i), 1, text);
        const Json& digest = memberOf(subFile, "sha256");
        if (subFile["type"] == "payload" && digest.is_string()) screen.line("", 2, "SHA-256 " + textOf(digest));
    }
}

void printRoot(const Json& root, const Screen& screen)
{
    screen.line("/root", 0,
                root.is_null() ? "trusts no readable certificate"
                               : "trusts " + briefName(root["subject"]) + " (" + textOf(root["source"]) + ")");
    if (root.is_object()) screen.line("", 1, "SHA-256 " + textOf(root["sha256"]));
}

void printChain(const Json& chain, const Screen& screen, const std::string& at, unsigned depth)
{
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const Json& cert = chain[i];
        const std::string place = at + "/" + std::to_string(i);
        screen.line(place, depth,
                    briefName(cert["subject"]) + ", " + dayOf(cert["not_before"]) + " to " + dayOf(cert["not_after"]) +
                        " (" + textOf(cert["source"]) + ")");
        for (std::size_t k = 0; k < cert["crls"].size(); ++k) {
            const Json& crl = cert["crls"][k];
            char score[16];
            (void)snprintf(score, sizeof score, "0x%02x", crl["score"].get<unsigned>());
            screen.line(place + "/crls/" + std::to_string(k), depth + 1,
                        "CRL of " + briefName(crl["issuer"]) + ", " + dayOf(crl["this_update"]) + " to " +
                            dayOf(crl["next_update"]) + ", score " + score +
                            (crl["is_chosen"] == true ? ", chosen" : "") +
                            (crl["says"].is_null() ? "" : ": " + textOf(crl["says"])));
        }
    }
}

void printTimestamp(const Json& timestamp, const Screen& screen, const std::string& at)
{
    if (timestamp.is_null()) return screen.line("", 1, "no readable timestamp");
    const Json& authorities = timestamp["authorities"];
    const char* const who = !authorities.empty()          ? ", by"
                            : timestamp["time"].is_null() ? ", whose signers were not looked at"
                                                          : ", signed by nobody";
    screen.line(at, 1, "timestamp " + textOf(timestamp["time"]) + who);
    for (std::size_t i = 0; i < authorities.size(); ++i) {
        const std::string place = at + "/authorities/" + std::to_string(i);
        screen.line(place, 2, "authority " + briefName(authorities[i]["subject"]));
        printChain(authorities[i]["chain"], screen, place + "/chain", 3);
    }
}

void printSigners(const Json& signers, const Screen& screen)
{
    for (std::size_t i = 0; i < signers.size(); ++i) {
        const Json& signer = signers[i];
        const std::string place = "/signers/" + std::to_string(i);
        const std::string name = signer["subject"].is_null()
                                     ? "serial " + textOf(signer["serial"]) + " of " + briefName(signer["issuer"])
                                     : briefName(signer["subject"]);
        screen.line(place, 0,
                    "signer " + name + ", " + textOf(signer["digest"]) +
                        (signer["has_signed_attributes"] == true ? "" : ", without signed attributes"));
        printTimestamp(signer["timestamp"], screen, place + "/timestamp");
        printChain(signer["chain"], screen, place + "/chain", 1);
    }
}

// The undecodable element, with the names of the decoder's tables.
void printElement(const Json& element)
{
    if (element.is_null()) return;
    const std::string path = element["path"] == "" ? "the whole" : textOf(element["path"]);
    printf("at:   %s", path.c_str());
    if (!element["offset"].is_null()) printf(", byte %s", textOf(element["offset"]).c_str());
    printf(": %s", textOf(element["fault"]).c_str());
    if (element["found"] != "") printf(" (%s)", textOf(element["found"]).c_str());
    printf("\n");
}

void printWhy(const Json& report)
{
    const Json& failure = report["failure"];
    if (report["verdict"] == "accepted") return;
    if (failure.is_object()) {
        printf("\nwhy:  %s\n", textOf(failure["reason"]).c_str());
        printElement(failure["element"]);
        printf("do:   %s\n", textOf(failure["advice"]).c_str());
        return;
    }
    if (report["code"].is_null()) return; // the checker's own line has said it
    printf("\nwhy:  no reason for this refusal was found. The library's log:\n");
    for (const Json& record : report["log"]) {
        printf("      %s:%s %s %s %s\n", textOf(record["file"]).c_str(), textOf(record["line"]).c_str(),
               textOf(record["level"]).c_str(), record["code"].is_null() ? "" : textOf(record["code"]).c_str(),
               record["message"].is_null() ? "" : textOf(record["message"]).c_str());
    }
}

std::string verdictText(const Json& report)
{
    if (report["verdict"] != "accepted") return coloured(Colour::Red, "REFUSED");
    return report["signed"] == true ? coloured(Colour::Green, "ACCEPTED")
                                    : coloured(Colour::Yellow, "ACCEPTED, NOT SIGNED");
}

void printScreen(const Json& report)
{
    printf("%s: %s", textOf(report["package"]).c_str(), verdictText(report).c_str());
    if (!report["code"].is_null()) printf(" %s %s", textOf(report["code"]).c_str(), textOf(report["name"]).c_str());
    printf("\n");
    if (!report["message"].is_null()) printf("  %s\n", textOf(report["message"]).c_str());
    const Screen screen(report);
    printContainer(report, screen);
    if (report["header"].is_object()) printRoot(report["root"], screen);
    printSigners(report["signers"], screen);
    if (report["signed"] == false) {
        printf("  %s\n", report["signers"].empty() ? "nobody signed it: the checker did not examine its contents"
                                                   : "nobody signed its timestamp: anybody could have chosen the time");
    }
    printWhy(report);
}

void explain(const ExplainOptions& options)
{
    if (!options.html.empty()) requireWritable(options.html, options.existing);
    const Json report = makeReport(options);
    if (!options.html.empty()) {
        const std::string page = htmlPage(report);
        writeFile(options.html, Bytes(page.begin(), page.end()), options.existing);
    }
    const bool isPageAlone = !options.html.empty() && isStandardOutput(options.html);
    if (!isPageAlone) options.json ? print(report) : printScreen(report);
    if (report["verdict"] != "accepted") throw CLI::RuntimeError(REFUSED);
    if (report["signed"] == false && !options.allowUnsigned) throw CLI::RuntimeError(NOT_SIGNED);
}

} // namespace

void addExplainCommand(CLI::App& app)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App* const command = app.add_subcommand("explain", "Show the checker's verdict on a package, and why");
    command->add_option("package", options->package, "the package; - is standard input")->required();
    command->add_option("--root", options->root, "trust this root certificate, not the one compiled into the checker");
    command->add_flag("--json", options->json, "print JSON");
    command->add_option("--html", options->html, "also write it to this file, as a page for a ticket or an audit");
    addForceFlag(command, options->existing);
    command->add_flag("--allow-unsigned", options->allowUnsigned, "status 0 for an accepted package without signature");
    command->footer("Exit status: 0 accepted, 1 refused, 2 unreadable, or the command line is wrong,\n"
                    "3 accepted and not signed.");
    command->callback([options] { explain(*options); });
}

} // namespace pkgtool
