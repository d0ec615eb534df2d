// The checker in environments that nobody meant: descriptors closed, full or broken, hostile variables, no arguments at
// all, hardly a stack. Whatever happens to its words, its status tells the truth.
#include "support/checker.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/sanitized.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pnvtest {
namespace {

constexpr int kAccepted = 0;
constexpr int kRefused = 255;
constexpr int kInvalidArguments = 234;

class PkgcheckEnvironment : public ::testing::Test {
protected:
    PkgcheckEnvironment()
    {
        const DemoPki pki(KeyId::Rsa4096);
        const Bytes cms = DetachedCms(payload_, DemoCms(pki));
        good_ = dir_.Write("good", Build(SignedPackage(payload_, cms, pki.Crls())));
        bad_ = dir_.Write("bad", Build(SignedPackage(Text("another image"), cms, pki.Crls())));
    }

    // By a shell that sets things up and then becomes the checker: script says how, and "$@" is the checker. What the
    // tests were started with is closed, so that each test knows which descriptors there are.
    static ProcessResult Under(const std::string& script, const std::string& path,
                               const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> argv = ForTarget({PkgcheckTestRootPath(), path});
        argv.insert(argv.begin(), {"sh", "-c", "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; " + script, "sh"});
        return RunProcess(argv, environment, std::chrono::seconds(60));
    }
    void ExpectTheTruth(const std::string& script, const std::vector<std::string>& environment = {}) const
    {
        SCOPED_TRACE(script);
        EXPECT_EQ(Under(script, good_, environment).status, kAccepted);
        EXPECT_EQ(Under(script, bad_, environment).status, kRefused);
    }
    void ExpectTheTruthUnder(const std::vector<std::string>& environment) const
    {
        SCOPED_TRACE(environment.front());
        const Outcome refused = RefusedWith("0xffffffff");
        const ProcessResult good = Under("exec \"$@\"", good_, environment);
        const ProcessResult bad = Under("exec \"$@\"", bad_, environment);
        EXPECT_EQ((Outcome{good.status, good.out}), kAcceptedSilently);
        EXPECT_EQ((Outcome{bad.status, bad.out}), refused);
    }

    const Bytes payload_ = Text("a firmware image");
    TempDir dir_;
    std::string good_;
    std::string bad_;
};

// ---- Descriptors

// The package is then opened as one of them.
TEST_F(PkgcheckEnvironment, TellsTheTruthWithStandardDescriptorsClosed)
{
    for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
        ExpectTheTruth(std::string("exec \"$@\" ") + closed);
    }
}

// Nothing of a package is overwritten by words that go to where it was opened.
TEST_F(PkgcheckEnvironment, LeavesThePackageAloneWithStandardDescriptorsClosed)
{
    const Bytes before = ReadWholeFile(bad_);
    (void)Under("exec \"$@\" <&- >&- 2>&-", bad_);
    EXPECT_EQ(ReadWholeFile(bad_), before);
}

TEST_F(PkgcheckEnvironment, TellsTheTruthToAFullDevice)
{
    ExpectTheTruth("exec \"$@\" >/dev/full 2>/dev/full");
}

TEST_F(PkgcheckEnvironment, TellsTheTruthWithReadOnlyOutput)
{
    ExpectTheTruth("exec \"$@\" 1</dev/null");
}

// The signal is as far from 0 as any refusal.
TEST_F(PkgcheckEnvironment, AcceptsNothingIntoABrokenPipe)
{
    const std::string script = "{ sleep 0.3; \"$@\"; echo $? >&3; } 3>\"" + dir_.Path("status") + "\" | true";
    (void)Under(script, bad_);
    const Bytes status = ReadWholeFile(dir_.Path("status"));
    EXPECT_NE(std::string(status.begin(), status.end()), "0\n");
    (void)Under("trap '' PIPE; " + script, bad_);
    EXPECT_EQ(ReadWholeFile(dir_.Path("status")), Text("255\n"));
}

// One descriptor besides the standard ones, or one in place of one of them, is all that it needs.
TEST_F(PkgcheckEnvironment, NeedsOneDescriptor)
{
    if (!Emulator().empty()) GTEST_SKIP() << "the emulator needs more descriptors";
    ExpectTheTruth("ulimit -n 4; exec \"$@\"");
    if (!kSanitized) ExpectTheTruth("exec <&-; ulimit -n 3; exec \"$@\""); // the sanitizer has no way out
}

TEST_F(PkgcheckEnvironment, AcceptsNothingWithoutADescriptor)
{
    if (!Emulator().empty()) GTEST_SKIP() << "the emulator needs more descriptors";
    for (const char* script : {"ulimit -n 3; exec \"$@\"", "ulimit -n 1; exec \"$@\"", "ulimit -n 0; exec \"$@\""}) {
        for (const std::string& package : {good_, bad_}) {
            const int status = Under(script, package).status;
            EXPECT_TRUE(status == 126 || status == 127) << script << ": " << status; // the loader needs one, too
        }
    }
}

// ---- Variables

TEST_F(PkgcheckEnvironment, ReadsNoVariableOfLibcrypto)
{
    const std::string nothing = dir_.Path("nothing");
    for (const char* name : {"OPENSSL_CONF", "OPENSSL_MODULES", "OPENSSL_ENGINES", "SSL_CERT_FILE", "SSL_CERT_DIR",
                             "CTLOG_FILE", "RANDFILE", "OPENSSL_ia32cap"}) {
        ExpectTheTruthUnder({std::string(name) + "=" + nothing});
    }
}

TEST_F(PkgcheckEnvironment, ReadsNoLocaleAndNoZone)
{
    const std::string nothing = dir_.Path("nothing");
    ExpectTheTruthUnder({"LC_ALL=tr_TR.UTF-8", "LANG=ar_EG", "LANGUAGE=xx", "LOCPATH=" + nothing});
    ExpectTheTruthUnder({"GCONV_PATH=" + nothing, "NLSPATH=" + nothing});
    ExpectTheTruthUnder({"TZ=:" + nothing, "TZDIR=" + nothing});
    ExpectTheTruthUnder({"TZ=Nowhere-14"});
}

TEST_F(PkgcheckEnvironment, TellsTheTruthUnderAnotherHeap)
{
    ExpectTheTruthUnder({"MALLOC_PERTURB_=165", "MALLOC_CHECK_=3", "MALLOC_ARENA_MAX=1", "MALLOC_TOP_PAD_=0"});
    ExpectTheTruthUnder({"GLIBC_TUNABLES=glibc.malloc.perturb=90:glibc.malloc.tcache_count=0"});
}

TEST_F(PkgcheckEnvironment, TellsTheTruthUnderAnEmptyEnvironment)
{
    ExpectTheTruth("exec env -i \"$@\"");
}

// ---- Arguments, standard input and stack

// Linux gives a program without arguments an empty first one since 5.18; before, there was none.
TEST_F(PkgcheckEnvironment, WantsAPathWithoutEvenAName)
{
    if (!Emulator().empty()) GTEST_SKIP() << "the emulator needs a name";
    const std::string checker = PkgcheckTestRootPath();
    const pid_t child = fork();
    if (child == 0) {
        char* argv[] = {nullptr};
        char* environment[] = {nullptr};
        execve(checker.c_str(), argv, environment);
        _exit(99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kInvalidArguments);
}

TEST_F(PkgcheckEnvironment, RefusesAPackageThatAPipeBrings)
{
    const ProcessResult run = Under("cat \"" + good_ + "\" | \"$@\"", "/dev/stdin");
    EXPECT_EQ(run.status, kRefused);
    EXPECT_EQ(run.out, "Failed to alloc memory\n");
}

TEST_F(PkgcheckEnvironment, ReadsAPackageThatIsItsStandardInput)
{
    EXPECT_EQ(Under("exec \"$@\" <\"" + good_ + "\"", "/dev/stdin").status, kAccepted);
    EXPECT_EQ(Under("exec \"$@\" <\"" + bad_ + "\"", "/dev/stdin").status, kRefused);
}

TEST_F(PkgcheckEnvironment, TellsTheTruthOnASmallStack)
{
    if (kSanitized || !Emulator().empty()) GTEST_SKIP() << "sanitizers and the emulator need more stack";
    for (const char* kibibytes : {"256", "64"}) ExpectTheTruth(std::string("ulimit -s ") + kibibytes + "; exec \"$@\"");
}

TEST_F(PkgcheckEnvironment, EndsOnFilesOfTheKernel)
{
    for (const char* path : {"/dev/zero", "/dev/full", "/dev/tty", "/proc/self/maps", "/proc/self/cmdline",
                             "/proc/version", "/sys", "/proc/self/fd", "/proc/self/exe"}) {
        SCOPED_TRACE(path);
        const ProcessResult run = Under("exec \"$@\"", path);
        EXPECT_FALSE(run.timedOut);
        EXPECT_NE(run.status, kAccepted);
        EXPECT_TRUE(run.status == kRefused || run.status == 254) << run.status; // -1, or -2 for its sub-files
    }
}

} // namespace
} // namespace pnvtest
