#include "forecast.h"

#include "der.h"
#include "diagnosis.h"
#include "error.h"
#include "keys.h"
#include "progress.h"
#include "text.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>

namespace pkgtool {

namespace {

#ifdef PKGTOOL_TRUSTS_NOBODY
constexpr bool TRUSTS_NOBODY = true; // the placeholder root is compiled in
#else
constexpr bool TRUSTS_NOBODY = false;
#endif

// What the placeholder accepts is of interest only to those who ask for it.
bool isRootKnown(const ForecastOptions& options)
{
    return !TRUSTS_NOBODY || !options.root.empty() || options.check;
}

// As a warning, or as an error with --check. did: "packed", made: "package".
void tell(const ForecastOptions& options, const char* did, const char* made, const std::string& why,
          const std::string& advice)
{
    if (options.check) throw Refusal(std::string("the checker would refuse this ") + made + ": " + why, advice);
    fprintf(stderr, "pkgtool: warning: %s, but the checker will refuse it: %s\nhint: %s\n", did, printable(why).c_str(),
            printable(advice).c_str());
}

// Null if there is none that OpenSSL can read.
Cert readRoot(const ForecastOptions& options)
{
    const Bytes root = loadRoot(options.root).content;
    const Bio content = memoryBio(root);
    Cert cert(isPem(root) ? PEM_read_bio_X509(content.get(), nullptr, nullptr, nullptr)
                          : d2i_X509_bio(content.get(), nullptr));
    ERR_clear_error();
    return cert;
}

std::string timeOf(const ASN1_TIME* time)
{
    std::tm utc{};
    return ASN1_TIME_to_tm(time, &utc) == 1 ? timeText(timegm(&utc)) : "";
}

} // namespace

void addForecastOptions(CLI::App* command, ForecastOptions& options)
{
    command->add_option("--root", options.root, "predict the verdict with this root, not the compiled-in one");
    command->add_flag("--check", options.check, "write nothing that the checker would refuse");
}

bool foretell(const ForecastOptions& options, const OutputFile& output)
{
    if (!isRootKnown(options)) return false;
    const std::unique_ptr<MappedFile> file = output.written();
    if (file == nullptr) return false;
    const Root root = loadRoot(options.root);
    const Verdict verdict = [&] {
        const Progress progress("checking the package");
        return judge(file->content(), root);
    }();
    if (verdict.isAccepted()) return false;
    const ByteView package = file->content();
    const Diagnosis diagnosis = diagnose(package, readContents(package, root.content, root.source), verdict);
    const bool isKnown = diagnosis.failure.is_object();
    const std::string why = isKnown ? textOf(diagnosis.failure["reason"]) : verdict.message;
    const std::string advice = isKnown ? textOf(diagnosis.failure["advice"]) : "pkgtool explain tells more";
    tell(options, "packed", "package", why, advice);
    return true;
}

void foretell(const ForecastOptions& options, X509* signer, const std::vector<Cert>& chain, const std::string& time)
{
    const auto tellIt = [&](const std::string& why, const std::string& advice) {
        tell(options, "signed", "signature", why, advice);
    };
    const std::string begin = timeOf(X509_get0_notBefore(signer));
    const std::string end = timeOf(X509_get0_notAfter(signer));
    if (end < time) {
        return tellIt("certificate " + nameOf(signer) + " ended " + end + ", before the timestamp " + time,
                      "renew the certificate and sign again");
    }
    if (begin > time) {
        return tellIt("certificate " + nameOf(signer) + " begins " + begin + ", after the timestamp " + time,
                      "check the clocks of the CA and of the timestamp authority, and sign again");
    }
    const Cert root = isRootKnown(options) ? readRoot(options) : nullptr;
    if (root == nullptr) return;
    std::vector<X509*> reached{signer};
    for (std::size_t i = 0; i < reached.size(); ++i) {
        const auto issued = [&](const Cert& ca) { return X509_check_issued(ca.get(), reached[i]) == X509_V_OK; };
        if (issued(root)) return;
        for (const Cert& ca : chain) {
            const bool isKnown = std::find(reached.begin(), reached.end(), ca.get()) != reached.end();
            if (!isKnown && issued(ca)) reached.push_back(ca.get());
        }
    }
    tellIt("the certificate that issued " + nameOf(reached.back()) + " is neither in the signature nor " +
               nameOf(root.get()) + ", the root that the checker trusts",
           "add the CAs between signer and root with --chain, or sign below that root");
}

Bytes readCrlFiles(const std::vector<std::string>& paths, bool isChecked)
{
    std::vector<Bytes> files;
    for (const std::string& path : paths) {
        files.push_back(readFile(path));
        if (isChecked) requireNothingBeforePem(files.back(), path, "crl");
    }
    const auto isOtherForm = [&](const Bytes& file) { return isPem(file) != isPem(files.front()); };
    if (std::any_of(files.begin(), files.end(), isOtherForm)) {
        throw UserError("some CRLs are PEM and some are DER",
                        "convert them to one form: openssl crl -in FILE -outform DER -out FILE");
    }
    Bytes all;
    for (const Bytes& file : files) all.insert(all.end(), file.begin(), file.end());
    return all;
}

} // namespace pkgtool
