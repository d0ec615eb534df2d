#include "forecast.h"

#include "der.h"
#include "diagnosis.h"
#include "error.h"
#include "progress.h"
#include "text.h"

#include <algorithm>
#include <cstdio>

namespace pkgtool {

namespace {

#ifdef PKGTOOL_TRUSTS_NOBODY
constexpr bool TRUSTS_NOBODY = true; // the placeholder root is compiled in
#else
constexpr bool TRUSTS_NOBODY = false;
#endif

} // namespace

void addForecastOptions(CLI::App* command, ForecastOptions& options)
{
    command->add_option("--root", options.root, "predict the verdict with this root, not the compiled-in one");
    command->add_flag("--check", options.check, "write nothing that the checker would refuse");
}

bool foretell(const ForecastOptions& options, const OutputFile& output)
{
    if (TRUSTS_NOBODY && options.root.empty() && !options.check) return false;
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
    if (options.check) throw Refusal("the checker would refuse this package: " + why, advice);
    fprintf(stderr, "pkgtool: warning: packed, but the checker will refuse it: %s\nhint: %s\n", printable(why).c_str(),
            printable(advice).c_str());
    return true;
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
