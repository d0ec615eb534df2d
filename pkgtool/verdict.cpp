#include "verdict.h"

#include "container.h"
#include "contents.h"
#include "error.h"
#include "tool/root_cert.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace pkgtool {

namespace {

// The log callback has no argument for its owner.
std::vector<LogRecord>* recording = nullptr;

void record(PELNIC_LOG_TYPE level, const PNV_CHAR* file, PNV_INT line, const PNV_CHAR* function, PNV_THREAD_ID,
            PNV_TIME_T, PELNIC_ERROR_CODE code, const PNV_CHAR* message)
{
    std::string path = file; // as given to the compiler, from a build tree
    while (path.rfind("../", 0) == 0) path.erase(0, 3);
    recording->push_back({level, code, message, path, line, function});
}

// Collects what is printed to it.
class TextFile {
public:
    TextFile() : file_(open_memstream(&text_, &size_))
    {
        if (file_ == nullptr) throw std::runtime_error("no memory");
    }
    ~TextFile()
    {
        fclose(file_);
        free(text_);
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    FILE* file() const { return file_; }
    std::string firstLine() const
    {
        fflush(file_);
        const std::string text(text_, size_);
        return text.substr(0, text.find('\n'));
    }

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    FILE* file_;
};

// The result of main as the caller of a process sees it.
int exitStatus(int result)
{
    return result & 0xFF;
}

// For an accepted package: the checker accepts some packages, and some timestamps, without a signature.
bool isSignedPackage(const Testimony& testimony)
{
    const auto isTimeSigned = [](const SignerTestimony& signer) { return !signer.authorities.empty(); };
    return !testimony.signers.empty() && std::all_of(testimony.signers.begin(), testimony.signers.end(), isTimeSigned);
}

} // namespace

Root loadRoot(const std::string& path)
{
    if (path.empty()) return {Bytes(szCert_F, szCert_F + szCert_F_size), source::COMPILED_IN};
    Root root{readFile(path), source::ROOT_FILE};
    if (root.content.empty()) throw UserError(path + " is empty");
    return root;
}

Verdict judge(ByteView package, const Root& root)
{
    try {
        (void)decodeHeader(package);
        requireReadable(package.size);
    } catch (const UserError& error) {
        return {exitStatus(-1), error.what(), std::nullopt, {}, false, {}}; // only the checker's reading of the file
    }
    Verdict verdict{};
    recording = &verdict.log;
    const Listening listening(verdict.testimony);
    const TextFile out;
    PkgcheckJob job{root.content.data(), static_cast<PNV_UINT32>(root.content.size()), record, out.file(), 0};
    verdict.status = exitStatus(pkgcheck_check(package.data, static_cast<PNV_UINT32>(package.size), &job));
    verdict.message = out.firstLine();
    if (job.code != 0) verdict.code = job.code;
    recording = nullptr;
    verdict.isSigned = verdict.isAccepted() && isSignedPackage(verdict.testimony);
    return verdict;
}

} // namespace pkgtool
