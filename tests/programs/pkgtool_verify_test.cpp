// pkgtool verify held against the checker, package by package.
#include "programs/pkgtool_json.h"
#include "support/checker.h"
#include "support/cms.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

class PkgtoolVerify : public ::testing::Test {
protected:
    static ProcessResult Verify(const Words& packages, const Words& options = {})
    {
        Words argv{PkgtoolPath(), "verify", "--root", DataPath("test_root.der")};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.insert(argv.end(), packages.begin(), packages.end());
        return RunProcess(argv);
    }
    static std::vector<Json> VerifyJson(const Words& packages, const Words& options, int status)
    {
        Words all{"--json"};
        all.insert(all.end(), options.begin(), options.end());
        const ProcessResult run = Verify(packages, all);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.err, "");
        std::vector<Json> answers;
        std::istringstream lines(run.out);
        for (std::string line; std::getline(lines, line);) answers.push_back(ParseJson(line));
        return answers;
    }

    std::string Write(const std::string& name, const PackageSpec& package) const
    {
        return dir_.Write(name, Build(package));
    }

    struct Traced {
        ProcessResult result;
        std::string trace;
    };
    // Of one good package, called good.
    Traced Trace(const Words& traceOptions, const Words& options = {}) const
    {
        Words argv{"strace", "-o", dir_.Path("trace")};
        argv.insert(argv.end(), traceOptions.begin(), traceOptions.end());
        const Words verify{PkgtoolPath(), "verify", "--root", DataPath("test_root.der"), Write("good", good_)};
        argv.insert(argv.end(), verify.begin(), verify.end());
        argv.insert(argv.end(), options.begin(), options.end());
        const ProcessResult result = RunProcess(argv, {"ASAN_OPTIONS=detect_leaks=0"}); // which traces, too
        const Bytes trace = ReadWholeFile(dir_.Path("trace"));
        return {result, std::string(trace.begin(), trace.end())};
    }

    const TempDir dir_;
    const Bytes payload_ = Text("a firmware image");
    const DemoPki pki_{KeyId::Rsa4096};
    const PackageSpec good_ = SignedPackage(payload_, DetachedCms(payload_, DemoCms(pki_)), pki_.Crls());
};

TEST_F(PkgtoolVerify, AgreesWithTheCheckerOneByOne)
{
    PackageSpec flipped = good_;
    flipped.subFiles[0].content[0] ^= 0x01;
    PackageSpec two = good_;
    two.subFileCount = 2;
    PackageSpec one = good_;
    one.subFileCount = 1;
    PackageSpec withoutCrls = good_;
    withoutCrls.subFiles[2].content.clear();
    CmsSpec unstamped = DemoCms(pki_);
    unstamped.signers[0].unsignedAttributes.clear();
    Words packages = {Write("good", good_),
                      Write("flipped", flipped),
                      Write("two", two),
                      Write("one", one),
                      Write("crls", withoutCrls),
                      Write("stamp", SignedPackage(payload_, DetachedCms(payload_, unstamped), pki_.Crls())),
                      dir_.Write("short", Bytes(351, 0x00)),
                      dir_.Write("empty", {}),
                      dir_.Path("missing")};
    const Words once = packages;
    for (int i = 0; i < 3; ++i) packages.insert(packages.end(), once.begin(), once.end());

    for (const Words& options : {Words{}, Words{"-j", "1"}, Words{"-j", "5"}}) {
        const std::vector<Json> answers = VerifyJson(packages, options, 2);
        ASSERT_EQ(answers.size(), packages.size());
        for (std::size_t i = 0; i < packages.size(); ++i) {
            const Outcome checker = RunChecker(PkgcheckTestRootPath(), packages[i]);
            const Json& answer = answers[i];
            EXPECT_EQ(answer["package"], packages[i]);
            EXPECT_EQ(answer["status"], checker.status) << answer;
            EXPECT_EQ(answer["verdict"], checker.status == 0 ? "accepted" : i % 9 == 8 ? "unreadable" : "refused");
            if (answer["code"].is_null()) continue;
            EXPECT_EQ(checker.out, "Check cms file fail for file(err " + answer["code"].get<std::string>() + ")\n");
            EXPECT_EQ(answer["message"].get<std::string>() + "\n", checker.out);
        }
    }
}

TEST_F(PkgtoolVerify, SaysItInOneLineEach)
{
    PackageSpec flipped = good_;
    flipped.subFiles[0].content[0] ^= 0x01;
    const std::string good = Write("good", good_);
    const std::string bad = Write("bad", flipped);
    const std::string code = RunProcess({PkgtoolPath(), "code", "0xffffffff"}).out;
    const std::string meaning = code.substr(code.find(": ") + 2, code.find('\n') - code.find(": ") - 2);
    const ProcessResult run = Verify({bad, good});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, ""); // the bar is for terminals
    EXPECT_EQ(run.out, "refused   " + bad + ": Check cms file fail for file(err 0xffffffff), PELNIC_ERR_FAILED: " +
                           meaning + "\naccepted  " + good +
                           "\n2 checked: 1 accepted, 0 accepted and NOT SIGNED, 1 refused, 0 unreadable\n"
                           "pkgtool explain PACKAGE says why a package is refused, and what to do\n");
    EXPECT_EQ(Verify({good, good}).status, 0);
}

TEST_F(PkgtoolVerify, SaysWhichAcceptedPackagesNobodySigned)
{
    PackageSpec one;
    one.subFiles = {{subfile::payload, payload_, {}, {}}};
    PackageSpec empty = good_;
    empty.subFiles[1].content.clear();
    TokenSpec token = DemoToken(pki_);
    token.cms.signers.clear();
    const PackageSpec anyTime = SignedPackage(payload_, DetachedCms(payload_, DemoCms(pki_, token)), pki_.Crls());
    const std::string good = Write("good", good_);
    for (const PackageSpec& package : {one, empty, anyTime}) {
        const std::string path = Write("unsigned", package);
        const ProcessResult run = Verify({path, good});
        EXPECT_EQ(run.status, 3);
        EXPECT_EQ(run.out.find("accepted, NOT SIGNED  " + path), 0u) << run.out;
        EXPECT_NE(run.out.find("\naccepted  " + good + "\n2 checked: 1 accepted, 1 accepted and NOT SIGNED, 0 refused"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(Verify({path}, {"--allow-unsigned"}).status, 0);
        EXPECT_EQ(VerifyJson({path}, {}, 3)[0]["signed"], false);
        EXPECT_EQ(VerifyJson({path}, {}, 3)[0]["verdict"], "accepted");
    }
    EXPECT_EQ(VerifyJson({good}, {}, 0)[0]["signed"], true);
    EXPECT_EQ(VerifyJson({dir_.Path("missing")}, {"--allow-unsigned"}, 2)[0]["signed"], Json());
}

TEST_F(PkgtoolVerify, DrawsABarOnATerminal)
{
    if (RunProcess({"script", "--version"}).status != 0) GTEST_SKIP() << "there is no script command";
    const std::string good = Write("good", good_);
    const std::string out =
        RunProcess({"script", "-qec", PkgtoolPath() + " verify " + good + " " + good, "/dev/null"}).out;
    EXPECT_NE(out.find("[####################....................] 1 of 2"), std::string::npos) << out;
    EXPECT_NE(out.find("[########################################] 2 of 2"), std::string::npos) << out;
    EXPECT_FALSE(std::regex_search(out, std::regex("of 2, [0-9]+ s[^\r]"))) << out; // what follows has its own line
}

// The second package comes only when the first one's verdict has been read.
TEST_F(PkgtoolVerify, TellsEachVerdictAtOnce)
{
    const std::string good = Write("good", good_);
    const std::string script = "mkfifo \"$1\" && \"$2\" verify --root \"$3\" \"$4\" - <\"$1\" | "
                               "{ exec 3>\"$1\"; read -r line; cat \"$4\" >&3; exec 3>&-; echo \"$line\"; cat; }";
    const ProcessResult run =
        RunProcess({"sh", "-c", script, "sh", dir_.Path("fifo"), PkgtoolPath(), DataPath("test_root.der"), good});
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.out.find("accepted  " + good + "\naccepted  -\n2 checked: 2 accepted, "), 0u) << run.out;
}

TEST_F(PkgtoolVerify, EachPackageHasOneProcessWhichDoesNotOutliveThisOne)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string trace = Trace({"-f", "-e", "trace=/clone|fork|prctl", "-e", "signal=none"}, {"-j", "3"}).trace;
    const std::size_t first = trace.find("|SIGCHLD");
    EXPECT_NE(first, std::string::npos) << trace;
    EXPECT_EQ(trace.find("|SIGCHLD", first + 1), std::string::npos) << trace;
    EXPECT_NE(trace.find("prctl(PR_SET_PDEATHSIG, SIGKILL"), std::string::npos) << trace;
}

TEST_F(PkgtoolVerify, ChecksNoMoreAtATimeThanTold)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string trace =
        Trace({"-f", "-e", "trace=/clone|fork", "-e", "signal=none"}, {"-j", "1", Write("second", good_)}).trace;
    const std::size_t second = trace.find("|SIGCHLD", trace.find("|SIGCHLD") + 1);
    EXPECT_NE(second, std::string::npos) << trace;
    EXPECT_LT(trace.find("+++ exited"), second) << trace;
}

TEST_F(PkgtoolVerify, SaysThatThereIsNoMemoryForAnswers)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string trace = Trace({"-e", "trace=/^mmap"}).trace;
    const std::size_t shared = trace.find("MAP_SHARED|MAP_ANONYMOUS");
    ASSERT_NE(shared, std::string::npos) << trace;
    const auto before = std::count(trace.begin(), trace.begin() + static_cast<std::ptrdiff_t>(shared), '\n');
    const ProcessResult run = Trace({"-e", "inject=/^mmap:error=ENOMEM:when=" + std::to_string(before + 1)}).result;
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "pkgtool: not enough memory\n");
    EXPECT_EQ(run.out, "");
}

// It is asked for its state when it is opened, and when it has been judged.
TEST_F(PkgtoolVerify, NoticesThatAPackageChangedMeanwhile)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string good = dir_.Path("good");
    const ProcessResult run = Trace({"-f", "-P", good, "-e", "inject=/fstat|statx:error=EIO:when=2"}).result;
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out.find("unreadable  " + good + ": cannot read " + good + ": it changed while it was read\n"), 0u)
        << run.out;
}

TEST_F(PkgtoolVerify, ADeadProcessCostsItsOwnVerdictAlone)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string good = Write("good", good_);
    const std::string deadly = Write("deadly", good_);
    const ProcessResult run =
        RunProcess({"strace", "-f", "-o", "/dev/null", "-P", deadly, "-e", "inject=openat:signal=KILL", PkgtoolPath(),
                    "verify", "--root", DataPath("test_root.der"), "-j", "2", good, deadly, good},
                   {"ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "accepted  " + good + "\nunreadable  " + deadly +
                           ": the process that checked it ended with signal 9\naccepted  " + good +
                           "\n3 checked: 2 accepted, 0 accepted and NOT SIGNED, 0 refused, 1 unreadable\n");
}

TEST_F(PkgtoolVerify, LooksBelowDirectories)
{
    const std::string archive = dir_.Path("archive");
    ASSERT_EQ(RunProcess({"mkdir", "-p", archive + "/b"}).status, 0);
    const std::string first = Write("archive/a.pkg", good_);
    const std::string second = Write("archive/b/a.pkg", good_);
    ASSERT_EQ(RunProcess({"ln", "-s", first, archive + "/c.pkg"}).status, 0); // whose file is there already
    const std::vector<Json> answers = VerifyJson({second, archive}, {"-r"}, 0);
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0]["package"], second);
    EXPECT_EQ(answers[1]["package"], first);
    EXPECT_EQ(answers[2]["package"], second);
    EXPECT_EQ(VerifyJson({archive}, {}, 2)[0]["verdict"], "unreadable");
}

TEST_F(PkgtoolVerify, WritesJUnit)
{
    PackageSpec one;
    one.subFiles = {{subfile::payload, payload_, {}, {}}};
    PackageSpec flipped = good_;
    flipped.subFiles[0].content[0] ^= 0x01;
    const std::string odd = Write("a&b<\"\x1B", good_);
    const Words packages{odd, Write("bad", flipped), Write("one", one), dir_.Path("missing")};
    const std::string file = dir_.Path("junit.xml");
    EXPECT_EQ(Verify(packages, {"--junit", file}).status, 2);
    const Bytes content = ReadWholeFile(file);
    const std::string xml(content.begin(), content.end());
    EXPECT_NE(xml.find("tests=\"4\" failures=\"2\" errors=\"1\""), std::string::npos) << xml;
    EXPECT_NE(xml.find("name=\"" + dir_.Path("a&amp;b&lt;&quot;\\x1b") + "\"></testcase>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<failure message=\"Check cms file fail for file(err 0xffffffff)"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<failure message=\"accepted, NOT SIGNED\"/>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<error message=\"cannot open "), std::string::npos) << xml;
    EXPECT_EQ(Verify(packages, {"--junit", file}).out, ""); // there already
    EXPECT_NE(Verify(packages, {"--junit", file, "--force"}).out, "");
}

TEST_F(PkgtoolVerify, TakesNamesThatTheCheckerCannot)
{
    EXPECT_EQ(Verify({Write(std::string(100, 'x'), good_)}).status, 0);
}

TEST_F(PkgtoolVerify, TrustsTheCheckersRootUnlessToldOtherwise)
{
    const ProcessResult run = RunProcess({PkgtoolPath(), "verify", Write("good", good_)});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("0x88200009"), std::string::npos) << run.out;
}

} // namespace
} // namespace pnvtest
