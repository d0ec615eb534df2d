#include "html.h"

#include "contents.h"
#include "text.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>
#include <vector>

namespace pkgtool {

namespace {

constexpr const char* HEAD = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<style>
body { font: 1rem/1.4 sans-serif; color: #111; background: #fff; max-width: 64rem; margin: 1rem auto; padding: 0 1rem }
h1 { font-size: 1.3rem; overflow-wrap: anywhere }
h2 { font-size: 1.1rem; margin-top: 2rem }
.verdict { display: inline-block; padding: .2rem .8rem; border: 3px solid; font-weight: bold; font-size: 1.2rem }
.accepted { color: #05631c } .refused { color: #a40000 } .unsigned { color: #7a4b00 }
dt { font-weight: bold } dd { margin: 0 0 .5rem 0 }
ol.chain { list-style: none; padding: 0 }
ol.chain > li { border: 2px solid #666; padding: .3rem .6rem; max-width: 44rem; overflow-wrap: anywhere }
ol.chain > li + li { margin-top: 1.4rem; position: relative }
ol.chain > li + li::before { content: "\2193 issued"; position: absolute; top: -1.4rem; left: 1rem; color: #444 }
.failed { border: 4px solid #a40000 !important; background: #fff0f0 }
table { border-collapse: collapse; width: 100% }
td, th { border: 1px solid #999; padding: .2rem .4rem; text-align: left; vertical-align: top; overflow-wrap: anywhere }
code { font-size: .85rem; overflow-wrap: anywhere }
svg { width: 100%; height: auto; border: 1px solid #999 }
@media print { body { margin: 0; max-width: none } li, tr, svg { break-inside: avoid } }
</style>
)";

std::string textIn(const Json& value)
{
    return markupText(textOf(value));
}

std::string element(const std::string& tag, const std::string& content)
{
    return "<" + tag + ">" + content + "</" + tag.substr(0, tag.find(' ')) + ">\n";
}

std::string row(const std::vector<std::string>& cells, const char* tag = "td")
{
    std::string content;
    for (const std::string& cell : cells) content += element(tag, cell);
    return element("tr", content);
}

std::string digest(const Json& value)
{
    return value.is_string() ? element("code", textIn(value)) : "";
}

// ---- The verdict ----

std::string verdictOf(const Json& report)
{
    const bool isAccepted = report["verdict"] == "accepted";
    const bool isSigned = report["signed"] == true;
    const std::string words = !isAccepted ? "REFUSED" : isSigned ? "ACCEPTED" : "ACCEPTED, NOT SIGNED";
    const std::string kind = !isAccepted ? "refused" : isSigned ? "accepted" : "unsigned";
    std::string html = element("p class=\"verdict " + kind + "\"", words);
    if (!report["code"].is_null())
        html += element("p", element("code", textIn(report["code"])) + textIn(report["name"]) + ": " +
                                 textIn(report["meaning"]));
    if (!report["message"].is_null()) html += element("p", element("code", textIn(report["message"])));
    const Json& failure = report["failure"];
    if (!failure.is_object()) return html;
    return html + element("dl", element("dt", "Why") + element("dd", textIn(failure["reason"])) +
                                    element("dt", "What to do") + element("dd", textIn(failure["advice"])));
}

// ---- Chains, and all that has dates on the way ----

struct Span {
    std::string what;
    Json begin;
    Json end;
    Json revoked; // of a certificate
};

class Chains {
public:
    explicit Chains(const Json& report)
        : failing_(report["failure"].is_object() ? textOf(report["failure"]["at"]) : "/nothing")
    {
        const Json& signers = report["signers"];
        for (std::size_t i = 0; i < signers.size(); ++i) addSigner(signers[i], "/signers/" + std::to_string(i));
    }

    const std::string& html() const { return html_; }
    const std::vector<Span>& spans() const { return spans_; }
    const std::vector<Json>& times() const { return times_; }
    // By their fingerprints.
    const std::map<std::string, Json>& certificates() const { return certificates_; }

private:
    std::string mark(const std::string& at) const { return at == failing_ ? " class=\"failed\"" : ""; }
    std::string here(const std::string& at) const
    {
        return at == failing_ ? element("strong", "It failed here. ") : "";
    }

    void addSigner(const Json& signer, const std::string& at)
    {
        const Json& timestamp = signer["timestamp"];
        html_ += element("h3" + mark(at),
                         here(at) + "Signer " + textIn(signer["subject"]) + ", " + textIn(signer["digest"]));
        addChain(signer["chain"], at + "/chain");
        if (!timestamp.is_object()) return;
        times_.push_back(timestamp["time"]);
        const std::string place = at + "/timestamp";
        html_ += element("h3" + mark(place), here(place) + "Timestamp " + textIn(timestamp["time"]));
        const Json& authorities = timestamp["authorities"];
        if (authorities.empty()) {
            html_ +=
                element("p", timestamp["time"].is_null() ? "Its signers were not looked at." : "Nobody signed it.");
        }
        for (std::size_t i = 0; i < authorities.size(); ++i) {
            const std::string authority = place + "/authorities/" + std::to_string(i);
            html_ +=
                element("h4" + mark(authority), here(authority) + "Authority " + textIn(authorities[i]["subject"]));
            addChain(authorities[i]["chain"], authority + "/chain");
        }
    }

    // From the top down, as certificates are issued.
    void addChain(const Json& chain, const std::string& at)
    {
        std::string links;
        for (std::size_t i = chain.size(); i-- > 0;) {
            const Json& cert = chain[i];
            const std::string place = at + "/" + std::to_string(i);
            links +=
                element("li" + mark(place),
                        here(place) + element("strong", textIn(cert["subject"])) + textIn(cert["not_before"]) + " to " +
                            textIn(cert["not_after"]) + ", " + textIn(cert["key"]) + " " + textIn(cert["key_bits"]) +
                            ", from: " + textIn(cert["source"]) + crlList(memberOf(cert, "crls"), place));
            addSpan({briefName(cert["subject"]), cert["not_before"], cert["not_after"], revocationDate(cert)});
            if (cert["sha256"].is_string()) certificates_.emplace(cert["sha256"].get<std::string>(), cert);
        }
        html_ += element("ol class=\"chain\"", links);
    }

    std::string crlList(const Json& crls, const std::string& at)
    {
        std::string list;
        for (std::size_t i = 0; i < crls.size(); ++i) {
            const Json& crl = crls[i];
            const std::string place = at + "/crls/" + std::to_string(i);
            const Json& says = memberOf(crl, "says");
            list += element("li" + mark(place), here(place) + "CRL of " + textIn(crl["issuer"]) + ", " +
                                                    textIn(crl["this_update"]) + " to " + textIn(crl["next_update"]) +
                                                    (says.is_null() ? "" : ": " + textIn(says)));
            addSpan({"CRL of " + briefName(crl["issuer"]), crl["this_update"], crl["next_update"], nullptr});
        }
        return list.empty() ? "" : element("ul", list);
    }

    static Json revocationDate(const Json& cert)
    {
        for (const Json& crl : memberOf(cert, "crls")) {
            const Json& revocation = memberOf(crl, "revocation");
            if (revocation.is_object()) return memberOf(revocation, "date");
        }
        return nullptr;
    }

    void addSpan(const Span& span)
    {
        const auto known = std::find_if(spans_.begin(), spans_.end(), [&](const Span& other) {
            return other.what == span.what && other.begin == span.begin && other.end == span.end;
        });
        if (known == spans_.end()) return spans_.push_back(span);
        if (known->revoked.is_null()) known->revoked = span.revoked;
    }

    std::string failing_;
    std::string html_;
    std::vector<Span> spans_;
    std::vector<Json> times_;
    std::map<std::string, Json> certificates_;
};

// ---- The time line ----

// A picture for the eye; the chains above have the same dates as text.
std::string timeLine(const Chains& chains)
{
    constexpr int LINE = 22, LEFT = 300, WIDTH = 1000;
    std::vector<std::time_t> all;
    for (const Span& span : chains.spans()) {
        for (const Json* time : {&span.begin, &span.end, &span.revoked}) {
            if (const auto seconds = secondsOf(*time)) all.push_back(*seconds);
        }
    }
    for (const Json& time : chains.times()) {
        if (const auto seconds = secondsOf(time)) all.push_back(*seconds);
    }
    if (all.empty()) return "";
    const auto [first, last] = std::minmax_element(all.begin(), all.end());
    const double length = std::max<double>(1, static_cast<double>(*last - *first));
    const auto x = [&, begin = *first](std::time_t time) {
        return std::to_string(LEFT + static_cast<int>((WIDTH - LEFT) * (static_cast<double>(time - begin) / length)));
    };
    // Long names end where the bars begin.
    std::string drawing =
        "<clipPath id=\"names\"><rect width=\"" + std::to_string(LEFT - 8) + "\" height=\"100%\"/></clipPath>\n";
    int y = 0;
    for (const Span& span : chains.spans()) {
        y += LINE;
        const auto begin = secondsOf(span.begin);
        const auto end = secondsOf(span.end);
        const auto revoked = secondsOf(span.revoked);
        drawing += "<text clip-path=\"url(#names)\" x=\"4\" y=\"" + std::to_string(y) + "\">" + markupText(span.what) +
                   "</text>\n";
        if (begin && end && *begin <= *end) {
            drawing += "<line x1=\"" + x(*begin) + "\" x2=\"" + x(*end) + "\" y1=\"" + std::to_string(y - 4) +
                       "\" y2=\"" + std::to_string(y - 4) + "\" stroke=\"#245\" stroke-width=\"8\"/>\n";
        }
        if (revoked) {
            drawing += "<path d=\"M" + x(*revoked) + " " + std::to_string(y - 4) +
                       "m-7 -7l14 14m0 -14l-14 14\" stroke=\"#a40000\" stroke-width=\"4\"/>\n";
        }
    }
    for (const Json& time : chains.times()) {
        const auto seconds = secondsOf(time);
        if (!seconds) continue;
        drawing += "<line x1=\"" + x(*seconds) + "\" x2=\"" + x(*seconds) + "\" y1=\"0\" y2=\"" +
                   std::to_string(y + 8) + "\" stroke=\"#a40000\" stroke-width=\"2\" stroke-dasharray=\"6 3\"/>\n";
    }
    return element("h2", "Time line") +
           element("p",
                   "A bar is how long a certificate or CRL is valid, a cross is when a certificate was revoked; the "
                   "dashed line is the timestamp, at which everything is judged.") +
           "<svg role=\"img\" aria-label=\"validity of certificates and CRLs, and revocations, beside the timestamp\" "
           "viewBox=\"0 0 " +
           std::to_string(WIDTH) + " " + std::to_string(y + LINE) + "\" font-size=\"13\">\n" + drawing + "</svg>\n";
}

// ---- Tables ----

std::string subFileTable(const Json& subFiles)
{
    std::string rows = row({"Sub-file", "Offset", "Length", "SHA-256"}, "th");
    for (const Json& subFile : subFiles) {
        const Json& sha256 = memberOf(subFile, "sha256");
        rows += row({textIn(subFile["type"]), textIn(subFile["offset"]), textIn(subFile["length"]),
                     sha256.is_null() ? "outside the file" : digest(sha256)});
    }
    return element("h2", "Package") + element("table", rows);
}

std::string fingerprintTable(const Json& root, const Chains& chains)
{
    std::map<std::string, Json> certificates = chains.certificates();
    if (root.is_object() && root["sha256"].is_string()) certificates.emplace(root["sha256"].get<std::string>(), root);
    std::string rows = row({"Certificate", "Serial number", "SHA-256 of certificate and of its key"}, "th");
    for (const auto& [sha256, cert] : certificates) {
        rows += row({textIn(cert["subject"]), element("code", textIn(cert["serial"])),
                     digest(cert["sha256"]) + "<br>" + digest(cert["key_sha256"])});
    }
    return element("h2", "Fingerprints") + element("table", rows);
}

std::string logTable(const Json& log)
{
    if (log.empty()) return "";
    std::string rows = row({"Level", "Code", "Message", "Where"}, "th");
    for (const Json& record : log) {
        rows += row({textIn(record["level"]), record["code"].is_null() ? "" : textIn(record["code"]),
                     record["message"].is_null() ? "" : textIn(record["message"]),
                     textIn(record["file"]) + ":" + textIn(record["line"])});
    }
    return element("h2", "The library's log") + element("table", rows);
}

} // namespace

std::string htmlPage(const Json& report)
{
    const std::string name = textIn(report["package"]);
    const Chains chains(report);
    const Json& root = report["root"];
    std::string body = element("h1", name) + verdictOf(report) + subFileTable(report["sub_files"]);
    if (root.is_object()) {
        body += element("h2", "Trusted root") + element("p", textIn(root["subject"]) + " (" + textIn(root["source"]) +
                                                                 ")<br>" + digest(root["sha256"]));
    }
    if (!chains.html().empty()) body += element("h2", "Signers and their chains") + chains.html();
    body += timeLine(chains) + fingerprintTable(root, chains) + logTable(report["log"]);
    return HEAD + element("title", name + ": " + textIn(report["verdict"])) + "</head>\n" +
           element("body", "\n" + body) + "</html>\n";
}

} // namespace pkgtool
