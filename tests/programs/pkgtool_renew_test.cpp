// pkgtool renew-crls: the package is what pkgtool pack would have made of the new CRLs, and nothing else is changed.
#include "support/package.h"
#include "support/paths.h"
#include "support/signing_room.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kUserError = 2;

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class PkgtoolRenewCrls : public ::testing::Test {
protected:
    PkgtoolRenewCrls()
    {
        spec_ = SignedPackage(payload_, DetachedCms(payload_, DemoCms(room_.Pki())), room_.Pki().Crls());
        room_.Write("old.pkg", Build(spec_));
        newer_ = room_.Pki().rootCrl;
        newer_.thisUpdate = GenTime("20260301000000Z");
        newer_.nextUpdate = GenTime("20360301000000Z");
        room_.Write("newer.crl", Build(newer_));
    }
    static ProcessResult Run(const Words& arguments) { return RunProcess(Words{PkgtoolPath()} + arguments); }
    Words NewCrls() const
    {
        return {"--crl", room_.Path("newer.crl"), "--crl", room_.Path("ca.crl"), "--crl", room_.Path("tsa-ca.crl")};
    }
    Words Renew(const std::string& output = "new.pkg") const
    {
        return Words{"renew-crls", room_.Path("old.pkg"), "-o", room_.Path(output)} + NewCrls();
    }
    Bytes NewBundle() const { return Cat(Build(newer_), room_.Read("ca.crl"), room_.Read("tsa-ca.crl")); }
    void ExpectFailure(int status, const Words& command, const std::string& message, const std::string& hint) const
    {
        const Words before = room_.Files();
        const Bytes old = room_.Read("old.pkg");
        const ProcessResult result = Run(command);
        EXPECT_EQ(result.status, status) << result.out;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(hint), std::string::npos) << result.err;
        EXPECT_EQ(room_.Files(), before);
        EXPECT_EQ(room_.Read("old.pkg"), old);
    }

    const SigningRoom room_;
    const Bytes payload_ = Text("firmware image\n");
    PackageSpec spec_;
    CrlSpec newer_;
};

TEST_F(PkgtoolRenewCrls, MakesWhatPackWouldHaveMade)
{
    const ProcessResult renewed = Run(Renew() + Words{"--root", DataPath("test_root.der"), "--check"});
    EXPECT_EQ(renewed.status, kDone) << renewed.err;
    spec_.subFiles[2].content = NewBundle();
    EXPECT_EQ(room_.Read("new.pkg"), Build(spec_));
    EXPECT_EQ(renewed.out, "packed " + std::to_string(Build(spec_).size()) + " octets, with CRLs of " +
                               std::to_string(NewBundle().size()) + " in place of " +
                               std::to_string(room_.Pki().Crls().size()) + "\n");
    EXPECT_EQ(Run({"verify", "--root", DataPath("test_root.der"), room_.Path("new.pkg")}).status, kDone);
}

// Wherever the CRLs lie, and whatever the header says of itself.
TEST_F(PkgtoolRenewCrls, ChangesNothingElse)
{
    std::swap(spec_.subFiles[0], spec_.subFiles[2]);
    spec_.description = "Release 1.2";
    spec_.version = 7;
    spec_.reserved = 3;
    spec_.length = 12345; // not its length
    spec_.headerCrc = 0x89ABCDEF;
    spec_.subFileCount = 3;
    spec_.subFiles.push_back({subfile::payload, {}, 100000, 5}); // not counted
    const Bytes trailing = Text("something behind");
    room_.Write("old.pkg", Cat(Build(spec_), trailing));
    const ProcessResult renewed = Run(Renew());
    EXPECT_EQ(renewed.status, kDone) << renewed.err;
    EXPECT_NE(renewed.err.find("the header's checksums are as they were"), std::string::npos) << renewed.err;
    spec_.subFiles[0].content = NewBundle();
    EXPECT_EQ(room_.Read("new.pkg"), Cat(Build(spec_), trailing));
}

TEST_F(PkgtoolRenewCrls, WritesInPlaceOnlyWhenToldSo)
{
    chmod(room_.Path("old.pkg").c_str(), 0640);
    room_.Write("new.pkg", Text("there already"));
    ExpectFailure(kUserError, Renew(), "it exists already", "--force");
    EXPECT_EQ(Run(Renew("old.pkg")).status, kDone);
    spec_.subFiles[2].content = NewBundle();
    EXPECT_EQ(room_.Read("old.pkg"), Build(spec_));
    struct stat status {};
    ASSERT_EQ(stat(room_.Path("old.pkg").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0640u);
    ExpectFailure(kUserError, Renew("newer.crl") + Words{"--force"}, "is one of the input files", "");
}

TEST_F(PkgtoolRenewCrls, TakesNoOlderCrl)
{
    ASSERT_EQ(Run(Renew("old.pkg")).status, kDone);
    ExpectFailure(kUserError,
                  {"renew-crls", room_.Path("old.pkg"), "-o", room_.Path("new.pkg"), "--crl", room_.Path("root.crl")},
                  "is of 2025-01-01T00:00:00Z, and the package has one of 2026-03-01T00:00:00Z", "lack a revocation");
}

TEST_F(PkgtoolRenewCrls, ForetellsTheVerdict)
{
    const Words one{"renew-crls", room_.Path("old.pkg"),   "-o",     room_.Path("new.pkg"),
                    "--crl",      room_.Path("newer.crl"), "--root", DataPath("test_root.der")};
    ExpectFailure(kRefused, one + Words{"--check"}, "the checker would refuse this package", "CRL");
    const ProcessResult warned = Run(one);
    EXPECT_EQ(warned.status, kDone);
    EXPECT_NE(warned.err.find("warning: packed, but the checker will refuse it"), std::string::npos) << warned.err;
    // One warning suffices.
    EXPECT_EQ(warned.err.find("the new package has no CRL of"), std::string::npos) << warned.err;
}

// Even one that this checker does not need, and although no root is known. Certificates among the CRLs do not count.
TEST_F(PkgtoolRenewCrls, NamesTheIssuersThatDropOut)
{
    CrlSpec needless = room_.Pki().rootCrl;
    needless.issuer = Name(Cn("Another CA"));
    spec_.subFiles[2].content = Cat(Build(room_.Pki().tsa), Build(needless), spec_.subFiles[2].content);
    room_.Write("old.pkg", Build(spec_));
    const Words rooted = Renew() + Words{"--root", DataPath("test_root.der")};
    ExpectFailure(kRefused, rooted + Words{"--check"}, "the package would lose its CRL of CN=Another CA\n",
                  "\nhint: give one of every CA with --crl");
    const ProcessResult accepted = Run(rooted);
    EXPECT_EQ(accepted.status, kDone);
    EXPECT_EQ(accepted.err, "pkgtool: warning: the new package has no CRL of CN=Another CA; the old one had\n"
                            "hint: give one of every CA with --crl; all CRLs of the package are replaced\n");
    const ProcessResult several =
        Run({"renew-crls", room_.Path("old.pkg"), "-o", room_.Path("other.pkg"), "--crl", room_.Path("newer.crl")});
    EXPECT_EQ(several.status, kDone);
    EXPECT_NE(several.err.find("no CRL of C=ZZ,O=Example,CN=Test Signing CA and of C=ZZ,O=Example,CN=Test TSA CA and "
                               "of CN=Another CA; the old one had\n"),
              std::string::npos)
        << several.err;
}

// The largest that the checker reads, with longer CRLs.
TEST_F(PkgtoolRenewCrls, MakesNoneThatIsTooLarge)
{
    const TempDir dir;
    const std::string largest = dir.WriteSparse("largest", 0x7FFFF000, Build(spec_));
    const ProcessResult result = RunProcess(Words{"sh", "-c", "ulimit -f 100 && exec \"$@\"", "sh", PkgtoolPath(),
                                                  "renew-crls", largest, "-o", dir.Path("new")} +
                                            NewCrls());
    EXPECT_EQ(result.status, kRefused);
    EXPECT_EQ(result.err, "pkgtool: the checker reads no package of 2 GiB or more\n");
}

// It is touched while there is more to copy than the pipe takes.
TEST_F(PkgtoolRenewCrls, NoticesThatThePackageChangedMeanwhile)
{
    const std::string package = room_.Write("old.pkg", Cat(Build(spec_), Bytes(std::size_t{2} << 20)));
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string reader = "(touch -t 200101010000 " + package + "; cat >/dev/null) <" + fifo;
    const ProcessResult result =
        RunProcess(Words{"sh", "-c", reader + " & \"$@\"; s=$?; wait; exit $s", "sh", PkgtoolPath()} + Renew("fifo"));
    EXPECT_EQ(result.status, kUserError);
    EXPECT_EQ(result.err, "pkgtool: cannot read " + package + ": it changed while it was read\n");
}

TEST_F(PkgtoolRenewCrls, RefusesWhatItCannotRenew)
{
    const Words rest = Words{"-o", room_.Path("new.pkg")} + NewCrls();
    const auto expect = [&](const Bytes& package, const std::string& message) {
        ExpectFailure(kUserError, Words{"renew-crls", room_.Write("bad.pkg", package)} + rest, message, "");
    };
    room_.Write("bad.pkg", {}); // counts among the files that were there before
    expect(Text("short"), "shorter than a package header");
    PackageSpec spec = spec_;
    spec.subFileCount = 1;
    expect(Build(spec), "is not a package of three sub-files with one of CRLs");
    spec = spec_;
    spec.subFiles[1].type = subfile::crl;
    expect(Build(spec), "is not a package of three sub-files with one of CRLs");
    spec = spec_;
    spec.subFiles[2].length = 0xFFFFFFFF;
    expect(Build(spec), "a sub-file lies outside the file, or shares octets with the CRLs");
    spec = spec_;
    spec.subFiles[1].length = static_cast<std::uint32_t>(spec.subFiles[1].content.size()) + 1;
    expect(Build(spec), "a sub-file lies outside the file, or shares octets with the CRLs");
    room_.Write("garbage", Text("garbage"));
    ExpectFailure(kRefused,
                  {"renew-crls", room_.Path("old.pkg"), "-o", room_.Path("new.pkg"), "--crl", room_.Path("garbage")},
                  "holds something that is not a CRL", "");
}

} // namespace
} // namespace pnvtest
