// The checker on signed packages, as its user runs it: built with a root whose key the tests have.
#include "support/checker.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace pnvtest {
namespace {

// What the checker says, and its exit status.
const std::string kRootFile = DataPath("test_root.der");

Bytes RootCertificate()
{
    return Build(DemoPki(KeyId::Rsa4096).root);
}

class SignedPackageTest : public ::testing::Test {
protected:
    static Outcome Check(const std::string& path) { return RunChecker(PkgcheckTestRootPath(), path); }
    Outcome Check(const PackageSpec& package) const { return Check(dir_.Write("package", Build(package))); }

    static bool HasMemory(std::int64_t gibibytes)
    {
        return sysconf(_SC_AVPHYS_PAGES) >= (gibibytes << 30) / sysconf(_SC_PAGESIZE);
    }

    Bytes Signature(const CmsSpec& cms) const { return DetachedCms(payload_, cms); }
    PackageSpec Package(const CmsSpec& cms) const { return SignedPackage(payload_, Signature(cms), pki_.Crls()); }
    PackageSpec Package() const { return Package(DemoCms(pki_)); }

    const Bytes payload_ = Bytes(100000, 0x5A);
    DemoPki pki_{KeyId::Rsa4096};
    TempDir dir_;
};

// ---- The root ----

TEST_F(SignedPackageTest, RootIsWhatTheBuilderMakes)
{
    EXPECT_EQ(ReadWholeFile(kRootFile), RootCertificate())
        << "written anew by --gtest_also_run_disabled_tests --gtest_filter=*RootIsWritten";
}

TEST_F(SignedPackageTest, DISABLED_RootIsWritten)
{
    const Bytes root = RootCertificate();
    std::ofstream(kRootFile, std::ios::binary).write(reinterpret_cast<const char*>(root.data()), Len(root));
}

TEST_F(SignedPackageTest, BelowAnotherRootIsRefused)
{
    pki_ = DemoPki(KeyId::Rsa2048A);
    EXPECT_EQ(Check(Package()), RefusedWith("0x88200009"));
}

// ---- Accepted: status 0 and not a word ----

TEST_F(SignedPackageTest, IsAcceptedSilently)
{
    EXPECT_EQ(Check(Package()), kAcceptedSilently);
}

// A configuration that libcrypto must not read: under it SHA-256 is not to be found, and foreign code is asked for.
class HostileOpenSslConfiguration : public SignedPackageTest {
protected:
    const std::string foreign_ = dir_.Path("foreign.so");
    const std::string configuration_ =
        dir_.Write("hostile.cnf", Text("openssl_conf = init\n[init]\nalg_section = algorithms\nproviders = providers\n"
                                       "[algorithms]\ndefault_properties = fips=yes\n"
                                       "[providers]\nforeign = foreign\n[foreign]\nmodule = " +
                                       foreign_ + "\nactivate = 1\n"));
    const std::vector<std::string> environment_{"OPENSSL_CONF=" + configuration_};
    const std::vector<std::string> command_ =
        ForTarget({PkgcheckTestRootPath(), dir_.Write("package", Build(Package()))});
};

TEST_F(HostileOpenSslConfiguration, DoesNotKeepAPackageFromBeingAccepted)
{
    const ProcessResult obedient = RunProcess({"openssl", "dgst", "-sha256", configuration_}, environment_);
    EXPECT_NE(obedient.status, 0) << "whoever reads it can do nothing";
    const ProcessResult run = RunProcess(command_, environment_);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
}

TEST_F(HostileOpenSslConfiguration, IsNotOpenedNorAnythingThatItNames)
{
    if (!CanTrace()) GTEST_SKIP() << "nothing can be traced here";
    const TracedProcess traced = RunTraced(command_, environment_);
    EXPECT_EQ(traced.result.status, 0);
    EXPECT_EQ(traced.files.find(configuration_), std::string::npos) << traced.files;
    EXPECT_EQ(traced.files.find(foreign_), std::string::npos) << traced.files;
}

TEST_F(SignedPackageTest, IsClosedAgain)
{
    if (!CanTrace()) GTEST_SKIP() << "nothing can be traced here";
    const std::string package = dir_.Write("package", Build(Package()));
    const std::string files = RunTraced(ForTarget({PkgcheckTestRootPath(), package})).files;
    const std::size_t opened = files.find('"' + package + '"');
    ASSERT_NE(opened, std::string::npos) << files;
    const std::size_t lineEnd = files.find('\n', opened);
    const std::size_t handle = files.rfind("= ", lineEnd) + 2;
    EXPECT_NE(files.find("close(" + files.substr(handle, lineEnd - handle) + ")", lineEnd), std::string::npos) << files;
}

TEST_F(SignedPackageTest, MayHoldItsSubFilesInAnyOrder)
{
    PackageSpec package = Package();
    std::rotate(package.subFiles.begin(), package.subFiles.begin() + 1, package.subFiles.end());
    EXPECT_EQ(Check(package), kAcceptedSilently);
    std::swap(package.subFiles[0], package.subFiles[1]);
    EXPECT_EQ(Check(package), kAcceptedSilently);
}

TEST_F(SignedPackageTest, MayHoldPem)
{
    const Bytes crls = Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("X509 CRL", Build(pki_.signingCrl)),
                           Pem("X509 CRL", Build(pki_.tsaCrl)));
    for (std::string_view label : {"CMS", "PKCS7"}) {
        EXPECT_EQ(Check(SignedPackage(payload_, Pem(label, Signature(DemoCms(pki_))), crls)), kAcceptedSilently);
    }
}

TEST_F(SignedPackageTest, MayBeSignedInEveryWay)
{
    CmsSpec cms = DemoCms(pki_);
    for (Hash hash : {Hash::Sha256, Hash::Sha384, Hash::Sha512}) {
        cms.signers[0].hash = hash;
        EXPECT_EQ(Check(Package(cms)), kAcceptedSilently);
        EXPECT_EQ(Check(Package(Direct(cms))), kAcceptedSilently);
    }
}

TEST_F(SignedPackageTest, MayHoldOneOctet)
{
    const Bytes payload{0x00};
    EXPECT_EQ(Check(SignedPackage(payload, DetachedCms(payload, DemoCms(pki_)), pki_.Crls())), kAcceptedSilently);
}

TEST_F(SignedPackageTest, MayHoldMoreThan256MiB)
{
    if (sizeof(void*) < 8 || !HasMemory(1)) GTEST_SKIP() << "there is too little memory";
    const Bytes zeros((256u << 20) + 1);
    PackageSpec package = SignedPackage({}, DetachedCms(zeros, DemoCms(pki_)), pki_.Crls());
    package.subFiles[0].length = Len(zeros);
    package.subFiles[0].offset = Len(Build(package)) - std::uint32_t{packageHeaderSize}; // behind the others
    const Bytes head = Build(package);
    EXPECT_EQ(Check(dir_.WriteSparse("package", head.size() + zeros.size(), head)), kAcceptedSilently);
}

TEST_F(SignedPackageTest, MayBeReadWithASignerThatHasExpiredSince)
{
    pki_.signer.notAfter = UtcTime("210101000000Z");
    TokenSpec token = DemoToken(pki_);
    token.time = GenTime("20201231235959Z");
    EXPECT_EQ(Check(Package(DemoCms(pki_, token))), kAcceptedSilently);
}

// ---- Refused ----

TEST_F(SignedPackageTest, WithAFlippedPayloadBitIsRefused)
{
    for (const CmsSpec& cms : {DemoCms(pki_), Direct(DemoCms(pki_))}) {
        for (std::size_t octet : {std::size_t{0}, payload_.size() / 2, payload_.size() - 1}) {
            PackageSpec package = Package(cms);
            package.subFiles[0].content[octet] ^= 0x01;
            EXPECT_EQ(Check(package), RefusedWith("0xffffffff"));
        }
    }
}

TEST_F(SignedPackageTest, WithAShorterPayloadIsRefused)
{
    PackageSpec package = Package();
    package.subFiles[0].length = Len(payload_) - 1;
    EXPECT_EQ(Check(package), RefusedWith("0xffffffff"));
}

TEST_F(SignedPackageTest, IsJudgedByTheLaterOfTwoPayloads)
{
    PackageSpec package = Package();
    package.subFileCount = 3;
    package.subFiles.insert(package.subFiles.begin(), {subfile::payload, Bytes(10, 0x00), {}, {}});
    EXPECT_EQ(Check(package), RefusedWith("0xffffffff")); // the third entry is the CMS, so there is no CRL
    package.subFiles[0].type = subfile::crl;
    package.subFiles[0].content = pki_.Crls();
    EXPECT_EQ(Check(package), kAcceptedSilently);
}

TEST_F(SignedPackageTest, ByARevokedSignerIsRefused)
{
    pki_.signingCrl.revoked = {{pki_.signer.serial}};
    EXPECT_EQ(Check(Package()), RefusedWith("0x88200009"));
}

TEST_F(SignedPackageTest, WithoutATimestampIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].unsignedAttributes.clear();
    EXPECT_EQ(Check(Package(cms)), RefusedWith("0x88100001"));
    cms.signers[0].unsignedAttributes = {[](const Bytes&) { return SigningTimeAttribute(UtcTime("260101000000Z")); }};
    EXPECT_EQ(Check(Package(cms)), RefusedWith("0x88200312"));
}

TEST_F(SignedPackageTest, WithATimestampOfAnotherSignatureIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers[0].unsignedAttributes = {[this](const Bytes&) { return Timestamp(DemoToken(pki_))(payload_); }};
    EXPECT_EQ(Check(Package(cms)), RefusedWith("0x88200402"));
}

TEST_F(SignedPackageTest, WithATimestampThatAnyCertificateMadeIsRefused)
{
    pki_.tsa.extendedKeyUsage = {oid::codeSigning};
    EXPECT_EQ(Check(Package()), RefusedWith("0x88200007"));
}

TEST_F(SignedPackageTest, WithASignatureThatDoesNotDecodeIsRefused)
{
    PackageSpec package = Package();
    package.subFiles[1].content.resize(37);
    EXPECT_EQ(Check(package), RefusedWith("0x88200305"));
    package.subFiles[1].content.push_back(0x00);
    EXPECT_EQ(Check(package), RefusedWith("0x88200312"));
}

TEST_F(SignedPackageTest, WithACrlThatDoesNotDecodeIsRefused)
{
    for (const Bytes& crl : {Bytes(64, 0x00), Bytes{0x30}, Build(pki_.root)}) {
        EXPECT_EQ(Check(SignedPackage(payload_, Signature(DemoCms(pki_)), crl)), RefusedWith("0x88200102"));
    }
}

TEST_F(SignedPackageTest, WithoutTheCrlOfEveryCaIsRefused)
{
    for (const CrlSpec& only : {pki_.rootCrl, pki_.signingCrl, pki_.tsaCrl}) {
        EXPECT_EQ(Check(SignedPackage(payload_, Signature(DemoCms(pki_)), Build(only))), RefusedWith("0x88200009"));
    }
}

TEST_F(SignedPackageTest, WithSignaturesOfNobodyIsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    cms.signers.clear();
    EXPECT_EQ(Check(Package(cms)), RefusedWith("0x88200307"));
}

// A file that lies in memory and takes room only where something was written.
class SparseFile {
public:
    SparseFile(std::uint64_t length, const Bytes& begin) : fd_(memfd_create("sparse", MFD_CLOEXEC))
    {
        EXPECT_EQ(write(fd_, begin.data(), begin.size()), static_cast<ssize_t>(begin.size()));
        EXPECT_EQ(ftruncate(fd_, static_cast<off_t>(length)), 0);
    }
    ~SparseFile() { close(fd_); }
    SparseFile(const SparseFile&) = delete;
    SparseFile& operator=(const SparseFile&) = delete;

    std::string Path() const { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

// A file of 2 GiB and more is asked for in one read, and no read gives so much. In 32 bits there is no memory for it.
TEST_F(SignedPackageTest, With2GiBOrMoreIsRefusedAsTheOneReadCannotDeliverIt)
{
    constexpr bool wide = sizeof(void*) == 8;
    if (wide && !HasMemory(3)) GTEST_SKIP() << "there is too little memory";
    PackageSpec package = Package();
    std::rotate(package.subFiles.begin(), package.subFiles.begin() + 1, package.subFiles.end());
    package.subFiles.back() = {subfile::payload, {}, {}, 0x80000000};
    const Bytes begin = Build(package);
    const SparseFile file(begin.size() + 0x80000000ull, begin);
    const std::string message = wide ? "Failed to read file(" + file.Path() + ")\n" : "Failed to alloc memory\n";
    EXPECT_EQ(Check(file.Path()), (Outcome{255, message}));
}

} // namespace
} // namespace pnvtest
