#include "signing_room.h"

#include "package.h"
#include "paths.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace pnvtest {

namespace {

// The only SignerInfo, which is the end of the SignedData.
Path SignerInfoPath(const Bytes& cms)
{
    const std::size_t members = Children(cms, Find(cms, {1, 0})).size();
    return {1, 0, members - 1, 0};
}

} // namespace

SigningRoom::SigningRoom()
{
    pki_.tsa.extendedKeyUsage.clear();
    pki_.tsa.extraExtensions = {Ext(oid::extKeyUsage, Seq(Oid(oid::timeStamping)), true)};
    WriteCert("root.pem", pki_.root);
    WriteCert("ca.pem", pki_.signingCa);
    WriteCert("signer.pem", pki_.signer);
    WriteCert("tsa-ca.pem", pki_.tsaCa);
    WriteCert("tsa.pem", pki_.tsa);
    Write("root.crl", Build(pki_.rootCrl));
    Write("ca.crl", Build(pki_.signingCrl));
    Write("tsa-ca.crl", Build(pki_.tsaCrl));
}

std::string SigningRoom::WriteCert(const std::string& name, const CertSpec& cert) const
{
    return Write(name, Pem("CERTIFICATE", Build(cert)));
}

std::vector<std::string> SigningRoom::Files() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

PELNIC_ERROR_CODE SigningRoom::Verify(const Bytes& payload, const Bytes& cms) const
{
    return Verify(payload, cms, pki_.Crls());
}

PELNIC_ERROR_CODE SigningRoom::Verify(const Bytes& payload, const Bytes& cms, const Bytes& crls) const
{
    const TempDir dir;
    const std::string package = dir.Write("package", Build(SignedPackage(payload, cms, crls)));
    const ProcessResult run = RunProcess({PkgcheckTestRootPath(), package});
    if (run.status == 0 && run.out.empty()) return 0;
    PELNIC_ERROR_CODE code = 0;
    if (std::sscanf(run.out.c_str(), "Check cms file fail for file(err 0x%x)", &code) != 1) {
        throw std::runtime_error("the checker says: " + run.out + run.err);
    }
    return code;
}

std::string KeyFile(KeyId key)
{
    static constexpr const char* names[] = {"rsa2048-a", "rsa2048-b", "rsa2048-c", "rsa2048-d",
                                            "rsa2048-e", "rsa2048-f", "rsa2048-g", "rsa2048-h",
                                            "rsa3072",   "rsa4096",   "ec-p256"};
    return SupportPath(std::string("test_keys/TEST-ONLY-") + names[static_cast<std::size_t>(key)] + ".pem");
}

bool IsInstalled(const std::string& program)
{
    return RunProcess({"sh", "-c", "command -v " + program}).status == 0;
}

Bytes SignatureValue(const Bytes& cms)
{
    Bytes signature;
    for (const Element& member : Children(cms, Find(cms, SignerInfoPath(cms)))) {
        if (member.tag != 0x04) continue;
        const auto begin = cms.begin() + static_cast<std::ptrdiff_t>(member.ContentOffset());
        signature.assign(begin, begin + static_cast<std::ptrdiff_t>(member.contentLength));
    }
    return signature;
}

Bytes WithTimestamp(const Bytes& cms, const Bytes& token)
{
    const Path path = SignerInfoPath(cms);
    return Replace(cms, path, Seq(Content(cms, path), Ctx(1, Attribute(oid::timestampToken, token))));
}

} // namespace pnvtest
