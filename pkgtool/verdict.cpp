#include "verdict.h"

#include "container.h"
#include "contents.h"
#include "crl_bundle.h"
#include "error.h"
#include "tool/root_cert.h"

#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_cms_utils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace pkgtool {

namespace {

// The log callback is told nothing of whom it logs for.
std::vector<LogRecord>* recording = nullptr;

void record(PELNIC_LOG_TYPE level, const PNV_CHAR*, PNV_INT, const PNV_CHAR*, PNV_THREAD_ID, PNV_TIME_T,
            PELNIC_ERROR_CODE code, const PNV_CHAR* message)
{
    recording->push_back({level, code, message});
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

// As the caller of a process sees what its main returns.
int exitStatus(int result)
{
    return result & 0xFF;
}

bool isTimeSigned(const PELNIC_VRF* vrf, const PELNIC_PKCS7_SIGNER_INFO& signer)
{
    void* token = nullptr;
    if (pelnic_x509_extract_attribute(vrf, signer.unauth_attrs, AOID_PKCS9_AT_TIMESTAMP_TOKEN, &token) != 0) {
        return false;
    }
    const bool isSigned = static_cast<PELNIC_PKCS7_CONTENT*>(token)->signed_data->signer_infos->infos.num != 0;
    pelnic_x509_free_attribute(vrf, token, AOID_PKCS9_AT_TIMESTAMP_TOKEN);
    return isSigned;
}

// Of an accepted package: the checker wants no signature of some, and no signature on some timestamps.
bool isSignedPackage(ByteView package)
{
    const Header header = decodeHeader(package);
    Header raw;
    std::memcpy(&raw, package.data, sizeof raw);
    const PELNIC_VERIFY_SIGNATURE_S parts = pkgcheck_locate(package.data, &raw);
    if (header.ulSubFileNum == 1 || parts.uiCmsLength == 0) return false;
    const VerifyContext ctx = newContext();
    auto* const vrf = static_cast<PELNIC_VRF*>(ctx.get());
    PELNIC_PKCS7_CONTENT* signature = nullptr;
    if (_pnvDecodeCms(vrf, parts.pCms, parts.uiCmsLength, &signature) != 0) return false;
    const LIST_TYPE_PELNIC_PKCS7_SIGNER_INFO& signers = signature->signed_data->signer_infos->infos;
    const bool isSigned = signers.num != 0 && std::all_of(signers.data, signers.data + signers.num,
                                                          [&](const PELNIC_PKCS7_SIGNER_INFO* signer) {
                                                              return isTimeSigned(vrf, *signer);
                                                          });
    pelnic_pkcs7_free_signed(vrf, signature);
    return isSigned;
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
        return {
            exitStatus(-1), error.what(), std::nullopt, {}, false}; // no more than the checker's reading of the file
    }
    Verdict verdict{};
    recording = &verdict.log;
    const TextFile out;
    PkgcheckJob job{root.content.data(), static_cast<PNV_UINT32>(root.content.size()), record, out.file(), 0};
    verdict.status = exitStatus(pkgcheck_check(package.data, static_cast<PNV_UINT32>(package.size), &job));
    verdict.message = out.firstLine();
    if (job.code != 0) verdict.code = job.code;
    recording = nullptr;
    verdict.isSigned = verdict.isAccepted() && isSignedPackage(package);
    return verdict;
}

} // namespace pkgtool
