// pkgtool pki and release as processes: what they make is judged by the checker's verification, and private keys are
// neither shown nor overwritten.
#include "support/paths.h"
#include "support/process.h"
#include "support/signing_room.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace pnvtest {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kUserError = 2;
constexpr int kRefused = 1;
constexpr int kNotSigned = 3;
constexpr int kWarnings = 10;

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

ProcessResult Pkgtool(const Words& arguments, const Words& environment = {})
{
    return RunProcess(Words{PkgtoolPath()} + arguments, environment);
}

std::string Openssl(const Words& arguments)
{
    return RunProcess(Words{"openssl"} + arguments).out;
}

Words FilesIn(const std::string& directory)
{
    Words names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

unsigned ModeOf(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

// Made once for a process, in an empty directory that exists already.
class TrialPki {
public:
    TrialPki()
    {
        fs::create_directory(Path());
        result_ = Pkgtool({"pki", "new", Path() + "/", "--key-bits", "2048", "--name", "Example"});
    }
    static const TrialPki& Get()
    {
        static const TrialPki pki;
        return pki;
    }
    std::string Path() const { return dir_.Path("pki"); }
    const ProcessResult& Result() const { return result_; }

private:
    TempDir dir_;
    ProcessResult result_;
};

class PkgtoolPki : public ::testing::Test {
protected:
    PkgtoolPki() { fs::copy(TrialPki::Get().Path(), Pki()); }

    std::string Pki() const { return dir_.Path("pki"); }
    std::string Text(const std::string& name) const
    {
        const Bytes content = ReadWholeFile(dir_.Path(name));
        return std::string(content.begin(), content.end());
    }
    void Write(const std::string& name, const std::string& text) const
    {
        dir_.Write(name, Bytes(text.begin(), text.end()));
    }

    ProcessResult Release(const Words& environment = {}) const
    {
        return Pkgtool({"release", image_, "--pki", Pki(), "-o", package_}, environment);
    }
    ProcessResult Verify() const { return Pkgtool({"verify", "--root", Pki() + "/root.pem", package_}); }

    void ExpectUserError(const Words& arguments, const std::string& message) const
    {
        const Words before = FilesIn(dir_.Path());
        const ProcessResult result = Pkgtool(arguments);
        EXPECT_EQ(result.status, kUserError);
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(FilesIn(dir_.Path()), before);
    }

    // A released package is accepted, and nothing else is left behind.
    void ExpectReleased(const ProcessResult& released) const
    {
        EXPECT_EQ(released.status, kDone) << released.out << released.err;
        EXPECT_EQ(Verify().status, kDone);
        EXPECT_EQ(FilesIn(dir_.Path()), (Words{"image", "image.pkg", "pki"}));
    }
    // The checker refuses what would be released: explained, and not written.
    void ExpectRefused(const std::string& why) const
    {
        const ProcessResult released = Release();
        EXPECT_EQ(released.status, kRefused);
        EXPECT_NE(released.out.find("why:  "), std::string::npos) << released.out << released.err;
        EXPECT_NE(released.out.find(why, released.out.find("why:  ")), std::string::npos) << released.out;
        EXPECT_EQ(FilesIn(dir_.Path()), (Words{"image", "pki"}));
    }

    TempDir dir_;
    const std::string image_ = dir_.Write("image", Bytes(1000, 0x55));
    const std::string package_ = dir_.Path("image.pkg");
};

TEST_F(PkgtoolPki, NewMakesRootCasSignerAuthorityAndCrls)
{
    EXPECT_EQ(TrialPki::Get().Result().status, kDone) << TrialPki::Get().Result().err;
    EXPECT_EQ(FilesIn(Pki()),
              (Words{"ca.crl", "ca.key", "ca.pem", "release.toml", "root.crl", "root.key", "root.pem", "signer.key",
                     "signer.pem", "tsa-ca.crl", "tsa-ca.key", "tsa-ca.pem", "tsa.key", "tsa.pem"}));
    const std::string said = Openssl({"x509", "-noout", "-subject", "-issuer", "-in", Pki() + "/tsa.pem"});
    EXPECT_EQ(said, "subject=O = Example, CN = Example Timestamp authority\n"
                    "issuer=O = Example, CN = Example Timestamp CA\n");
    EXPECT_NE(Openssl({"x509", "-noout", "-text", "-in", Pki() + "/root.pem"}).find("(2048 bit)"), std::string::npos);
}

TEST_F(PkgtoolPki, KeysAreForTheirOwnerAndNeverPrinted)
{
    const std::string original = TrialPki::Get().Path();
    EXPECT_EQ(ModeOf(original), 0700u);
    for (const char* name : {"root", "ca", "tsa-ca", "signer", "tsa"}) {
        EXPECT_EQ(ModeOf(original + "/" + name + ".key"), 0600u) << name;
    }
    const ProcessResult& result = TrialPki::Get().Result();
    EXPECT_NE(result.out.find("signer.pem"), std::string::npos);
    EXPECT_EQ((result.out + result.err).find("PRIVATE"), std::string::npos);
}

TEST_F(PkgtoolPki, NewRefusesWhatIsThere)
{
    const std::string key = Text("pki/root.key");
    ExpectUserError({"pki", "new", Pki()}, "exists already");
    EXPECT_EQ(Text("pki/root.key"), key);
    ExpectUserError({"pki", "new", image_}, "exists already");
    ExpectUserError({"pki", "new", "//", "--key-bits", "2048"}, "/ exists already");
    ExpectUserError({"pki", "new", dir_.Path("no/such"), "--key-bits", "2048"}, "No such file or directory");
    ExpectUserError({"pki", "new", dir_.Path("new"), "--key-bits", "1024"}, "1024");
    ExpectUserError({"pki", "new", dir_.Path("new"), "--key-bits", "2048", "--name", ""}, "cannot be part of a name");
    ExpectUserError({"pki", "new", dir_.Path("new"), "--key-bits", "2048", "--name", std::string(65, 'x')},
                    "cannot be part of a name");
}

TEST_F(PkgtoolPki, ReleaseSignsStampsPacksChecksAndLints)
{
    const ProcessResult released = Release();
    ExpectReleased(released);
    const ProcessResult lint = Pkgtool({"lint", package_, "--root", Pki() + "/root.pem"});
    EXPECT_EQ(lint.status, kDone);
    EXPECT_EQ(lint.out, "");
    for (const std::string& step : Words{"signed and stamped  " + image_, "packed", "checked", "lint", "written"}) {
        EXPECT_NE(("\n" + released.out).find("\n" + step), std::string::npos) << released.out;
    }
}

// Without the option it does not even begin.
TEST_F(PkgtoolPki, ReleaseOverwritesOnlyByForce)
{
    Write("image.pkg", "another");
    const ProcessResult refused = Release();
    EXPECT_EQ(refused.status, kUserError);
    EXPECT_EQ(refused.out, "");
    EXPECT_NE(refused.err.find("image.pkg: it exists already"), std::string::npos) << refused.err;
    EXPECT_EQ(Text("image.pkg"), "another");
    ExpectReleased(Pkgtool({"release", image_, "--pki", Pki(), "-o", package_, "--force"}));
}

// The first file that is written ends the process: none may be written.
TEST_F(PkgtoolPki, LeavesNothingBehindWhenASignalEndsIt)
{
    constexpr int kEndedBySignal = 128 + SIGXFSZ;
    const auto withoutRoom = [](const std::string& command) {
        return RunProcess({"sh", "-c", "ulimit -f 0; exec " + PkgtoolPath() + " " + command});
    };
    EXPECT_EQ(withoutRoom("release " + image_ + " --pki " + Pki() + " -o " + package_).status, kEndedBySignal);
    EXPECT_EQ(withoutRoom("pki new --key-bits 2048 " + dir_.Path("new")).status, kEndedBySignal);
    EXPECT_EQ(FilesIn(dir_.Path()), (Words{"image", "pki"}));
}

TEST_F(PkgtoolPki, ReleaseHasNoPipes)
{
    ExpectUserError({"release", "-", "--pki", Pki(), "-o", package_}, "release reads the image several times");
    ExpectUserError({"release", image_, "--pki", Pki(), "-o", "-"}, "release reads the image several times");
}

TEST_F(PkgtoolPki, RevokedSignerIsRefused)
{
    const ProcessResult revoked = Pkgtool({"pki", "revoke", Pki(), "signer", "--reason", "keyCompromise"});
    EXPECT_EQ(revoked.status, kDone) << revoked.err;
    const std::string crl = Openssl({"crl", "-noout", "-text", "-in", Pki() + "/ca.crl"});
    EXPECT_NE(crl.find("Key Compromise"), std::string::npos) << crl;
    EXPECT_NE(crl.find("X509v3 CRL Number: \n                2\n"), std::string::npos) << crl;
    ExpectRefused("revokes certificate CN=Example Firmware signer");

    ExpectUserError({"pki", "revoke", Pki(), "signer"}, "is revoked already");
}

TEST_F(PkgtoolPki, RevokedCaIsRefusedAndStaysOnTheNextCrl)
{
    EXPECT_EQ(Pkgtool({"pki", "revoke", Pki(), "tsa-ca"}).status, kDone);
    EXPECT_EQ(Pkgtool({"pki", "crl", Pki(), "--crl-days", "7"}).status, kDone);
    const std::string crl = Openssl({"crl", "-noout", "-text", "-in", Pki() + "/root.crl"});
    EXPECT_NE(crl.find("X509v3 CRL Number: \n                3\n"), std::string::npos) << crl;
    ExpectRefused("revokes certificate CN=Example Timestamp CA");
}

TEST_F(PkgtoolPki, RevokesByPathAndOnlyWhatItIssued)
{
    const SigningRoom other;
    ExpectUserError({"pki", "revoke", Pki(), other.Path("signer.pem")}, "no CA in " + Pki() + " issued");
    ExpectUserError({"pki", "revoke", Pki(), "root"}, "a root is not revoked by its own CRL");
    ExpectUserError({"pki", "revoke", Pki(), "signer", "--reason", "anger"}, "'anger' is not a revocation reason");
    EXPECT_EQ(Pkgtool({"pki", "revoke", Pki(), Pki() + "/tsa.pem"}).status, kDone);
    ExpectRefused("revokes certificate CN=Example Timestamp authority");
    fs::remove(Pki() + "/signer.pem"); // CAs alone are asked
    ExpectUserError({"pki", "revoke", Pki(), other.Path("signer.pem")}, "no CA in " + Pki() + " issued");
}

TEST_F(PkgtoolPki, CrlsAreRenewedForSoManyDays)
{
    const ProcessResult renewed = Pkgtool({"pki", "crl", Pki(), "--crl-days", "5"});
    EXPECT_EQ(renewed.status, kDone);
    EXPECT_NE(renewed.out.find("root.crl  0 revoked, ends in 5 days\n"), std::string::npos) << renewed.out;
    ExpectReleased(Release()); // lint has nothing against CRLs for short times
    fs::remove(package_);
    // It has when told to; the package is there all the same.
    Write("pki/release.toml", Text("pki/release.toml") + "\n[lint]\ncrl-margin = 30\n");
    const ProcessResult released = Release();
    EXPECT_EQ(released.status, kWarnings);
    EXPECT_NE(released.out.find("[crl-ends-soon]"), std::string::npos) << released.out;
    EXPECT_EQ(Verify().status, kDone);
}

TEST_F(PkgtoolPki, ReleaseReadsTheOptionsOfEachCommandFromItsConfiguration)
{
    Write("pki/release.toml", Text("pki/release.toml") + "\n[lint]\ncrl-margin = 100\n");
    EXPECT_EQ(Release().status, kWarnings);
    fs::remove(package_);

    // From elsewhere, by another name, with another digest and text in the header.
    std::string config = Text("pki/release.toml");
    config.replace(config.find("[pack]\n"), 7, "digest = \"sha512\"\n[pack]\ndescription = \"two words\"\n");
    Write("pki/other.toml", config);
    const ProcessResult released =
        Pkgtool({"release", image_, "--config", Pki() + "/other.toml", "--output", package_});
    EXPECT_EQ(released.status, kWarnings) << released.err;
    EXPECT_NE(Pkgtool({"list", package_}).out.find("two words"), std::string::npos);
    EXPECT_NE(Pkgtool({"inspect", package_}).out.find("SHA512"), std::string::npos);
}

// Not the one that is compiled in, whose chains these are not.
TEST_F(PkgtoolPki, EveryStepTrustsTheRootOfVerify)
{
    const std::string good = Text("pki/release.toml");
    std::string config = good;
    const std::string chain = "\nchain = \"ca.pem\"";
    config.replace(config.find(chain), chain.size(), "");
    Write("pki/release.toml", config);
    const ProcessResult refused = Release();
    EXPECT_EQ(refused.status, kRefused);
    for (const char* warning : {"pkgtool: warning: signed, but the checker will refuse it: the certificate that issued "
                                "'CN=Example Firmware signer,O=Example' is neither in the signature nor ",
                                "pkgtool: warning: packed, but the checker will refuse it: the certificate of "
                                "CN=Example Firmware CA, which issued "}) {
        EXPECT_NE(refused.err.find(warning), std::string::npos) << refused.err;
    }
    config = good;
    config.replace(config.find("[pack]"), 6, "root = \"root.pem\"\n[pack]\nroot = \"root.pem\""); // once more
    Write("pki/release.toml", config);
    const ProcessResult released = Release();
    ExpectReleased(released);
    EXPECT_EQ(released.err, "");
}

// A header that counts one sub-file makes every device accept it unchecked.
TEST_F(PkgtoolPki, WhatNobodyWouldCheckIsNotReleased)
{
    std::string config = Text("pki/release.toml");
    config.replace(config.find("[pack]\n"), 7, "[pack]\nunchecked = true\nsub-file-count = 1\n");
    Write("pki/release.toml", config);
    const ProcessResult released = Release();
    EXPECT_EQ(released.status, kNotSigned);
    EXPECT_NE(released.out.find("NOT SIGNED"), std::string::npos) << released.out << released.err;
    EXPECT_EQ(FilesIn(dir_.Path()), (Words{"image", "pki"}));
}

TEST_F(PkgtoolPki, ReleaseNamesWhatIsWrongInItsConfiguration)
{
    const auto expect = [this](const std::string& config, const std::string& message) {
        Write("pki/release.toml", config);
        ExpectUserError({"release", image_, "--pki", Pki(), "-o", package_}, message);
    };
    const std::string good = Text("pki/release.toml");
    expect("cert = \"signer.pem\"\n", "cert is not in a section");
    expect("[inspect]\njson = true\n", "not in a section");
    expect(good + "\n[sign]\nnonsense = \"1\"\n", "[sign]: ");
    expect(good + "\n[verify]\njson = true\n", "[verify]: no option --json");
    expect("[pack]\ncrl = \"ca.crl\"\n", "there is no signer");
    ExpectUserError({"release", image_, "--pki", dir_.Path("none"), "-o", package_}, "none/release.toml");
    ExpectUserError({"release", dir_.Path("none"), "--config", Pki() + "/release.toml", "-o", package_}, "");
    ExpectUserError({"release", image_, "-o", package_}, "[--pki,--config] is missing\n");
    ExpectUserError({"release", image_, "--pki", Pki(), "--config", Pki() + "/release.toml", "-o", package_},
                    "give one of [--pki,--config]; 2 were given\n");
}

// Ed25519 signs no digest (RFC 8032).
TEST_F(PkgtoolPki, SaysWhichSignatureAKeyCannotMake)
{
    const std::string key = dir_.Path("ed25519");
    const std::string object = dir_.Path("key;object=root;type=private"); // what keys are called in a place by its URI
    RunProcess({"openssl", "genpkey", "-algorithm", "ed25519", "-out", key});
    fs::copy(key, object);
    ExpectUserError({"pki", "new", dir_.Path("new"), "--token", "file:" + dir_.Path("key")},
                    "signing a certificate: invalid digest\nhint: use RSA keys that can sign\n");
    fs::rename(key, Pki() + "/root.key");
    Openssl({"req", "-x509", "-new", "-key", Pki() + "/root.key", "-subj", "/CN=root", "-out", Pki() + "/root.pem"});
    ExpectUserError({"pki", "crl", Pki()}, "signing a CRL: invalid digest\nhint: use RSA keys that can sign\n");
}

TEST_F(PkgtoolPki, KeysCanBeInAToken)
{
    if (!IsInstalled("softhsm2-util")) GTEST_SKIP() << "needs softhsm2 and libengine-pkcs11-openssl";
    Write("softhsm2.conf", "directories.tokendir = " + dir_.Path() + "\n");
    const Words environment{"SOFTHSM2_CONF=" + dir_.Path("softhsm2.conf"), "PIN=1234",
                            "PKCS11_MODULE_PATH=/usr/lib/softhsm/libsofthsm2.so"};
    RunProcess({"softhsm2-util", "--init-token", "--free", "--label", "release", "--pin", "1234", "--so-pin", "4321"},
               environment);
    int id = 10;
    for (const char* name : {"root", "ca", "tsa-ca", "signer", "tsa"}) {
        const std::string plain = dir_.Path("plain");
        RunProcess({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", Pki() + "/" + name + ".key", "-out", plain});
        RunProcess({"softhsm2-util", "--import", plain, "--token", "release", "--label", name, "--id",
                    std::to_string(id++), "--pin", "1234"},
                   environment);
        fs::remove(plain);
    }
    fs::remove_all(Pki());
    const Words token{"--token", "pkcs11:token=release", "--pass", "env:PIN"};
    const ProcessResult made = Pkgtool(Words{"pki", "new", Pki()} + token, environment);
    EXPECT_EQ(made.status, kDone) << made.err;
    const Words files = FilesIn(Pki());
    EXPECT_TRUE(std::none_of(files.begin(), files.end(),
                             [](const std::string& name) { return name.find(".key") != std::string::npos; }));
    EXPECT_EQ(Pkgtool(Words{"pki", "crl", Pki()} + token, environment).status, kDone);
    const ProcessResult released = Release(environment);
    EXPECT_EQ(released.status, kDone) << released.out << released.err;
    EXPECT_EQ(Verify().status, kDone);
}

} // namespace
} // namespace pnvtest
