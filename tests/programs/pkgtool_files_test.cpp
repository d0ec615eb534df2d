// What pkgtool reads, writes and prints, as files: it waits for nothing, destroys nothing that it was not told to, and
// lets no foreign text take a terminal over.
#include "programs/pkgtool_json.h"
#include "support/effort.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/signing_room.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <filesystem>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr std::chrono::seconds kPatience(30);

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

mode_t ModeOf(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

class PkgtoolFiles : public ::testing::Test {
protected:
    static ProcessResult Run(const Words& arguments, const Words& environment = {})
    {
        return RunProcess(Words{PkgtoolPath()} + arguments, environment, kPatience);
    }
    // The words of $@ are pkgtool and these arguments.
    static ProcessResult InShell(const std::string& script, const Words& arguments)
    {
        return RunProcess(Words{"sh", "-c", script, "sh", PkgtoolPath()} + arguments, {}, kPatience);
    }
    // With these options of strace, which say what fails.
    static ProcessResult WithFaults(const Words& faults, const Words& arguments)
    {
        return RunProcess(Words{"strace", "-o", "/dev/null"} + faults + Words{PkgtoolPath()} + arguments,
                          {"ASAN_OPTIONS=detect_leaks=0"}, kPatience);
    }
    static void ExpectTrouble(const ProcessResult& run, const std::string& message)
    {
        EXPECT_FALSE(run.timedOut);
        EXPECT_NE(run.status, 0);
        EXPECT_TRUE(Contains(run.err, message)) << run.err;
        EXPECT_FALSE(Contains(run.err, "internal error")) << run.err;
    }

    Words PackTo(const std::string& output) const
    {
        return {"pack", "--unsigned", "--payload", payloadFile_, "-o", output};
    }
    Words SignTo(const std::string& output) const
    {
        return {"sign",           payloadFile_, "--cert", room_.Path("signer.pem"), "--key", key_,
                "--no-timestamp", "-o",         output};
    }
    // Its settings sign without a timestamp.
    Words ReleaseTo(const std::string& output) const
    {
        const Bytes settings = Text("[sign]\ncert = \"signer.pem\"\nkey = \"signer.key\"\nno-timestamp = true\n");
        return {"release", payloadFile_, "--config", room_.Write("release.toml", settings), "-o", output};
    }
    // A path of so many octets to a file of the room.
    std::string LongPath(std::size_t length) const
    {
        std::string path = room_.Path("");
        while (path.size() + 2 < length) path += "./";
        return path + std::string(length - path.size(), 'x');
    }
    std::string GoodPackage() const
    {
        const Bytes cms = DetachedCms(payload_, DemoCms(room_.Pki()));
        return room_.Write("good.pkg", Build(SignedPackage(payload_, cms, room_.Pki().Crls())));
    }
    // Every command that reads packages and CRLs, on this one file.
    static std::vector<Words> Readers(const std::string& path)
    {
        return {{"list", path},
                {"inspect", path},
                {"explain", path},
                {"lint", path},
                {"verify", path},
                {"inspect", path, "--json"},
                {"explain", path, "--json"},
                {"lint", path, "--json"},
                {"verify", path, "--json"}};
    }

    const SigningRoom room_;
    const Bytes payload_ = Text("firmware image");
    const std::string payloadFile_ = room_.Write("payload", payload_);
    const std::string key_ = room_.Write("signer.key", ReadWholeFile(KeyFile(room_.Pki().signer.key)));
};

// ---- Outputs ----

TEST_F(PkgtoolFiles, ExistingFilesAreReplacedOnlyByForceAndKeepTheirMode)
{
    for (const Words& command : {PackTo(room_.Path("out")), SignTo(room_.Path("out"))}) {
        room_.Write("out", Text("old"));
        ASSERT_EQ(chmod(room_.Path("out").c_str(), 0600), 0);
        const ProcessResult refused = Run(command);
        ExpectTrouble(refused, room_.Path("out") + ": it exists already");
        EXPECT_TRUE(Contains(refused.err, "hint: --force"));
        EXPECT_EQ(room_.Read("out"), Text("old"));
        EXPECT_EQ(Run(command + Words{"--force"}).status, 0);
        EXPECT_NE(room_.Read("out"), Text("old"));
        EXPECT_EQ(ModeOf(room_.Path("out")), mode_t{S_IFREG | 0600});
    }
    EXPECT_EQ(Run(PackTo(room_.Path("new"))).status, 0);
    EXPECT_EQ(ModeOf(room_.Path("new")), ModeOf(payloadFile_)); // as any new file
    const Words byUrl{"sign", payloadFile_,      "--cert",    room_.Path("signer.pem"), "--key", key_,
                      "-o",   room_.Path("out"), "--tsa-url", "http://127.0.0.1:1/"};
    ExpectTrouble(Run(byUrl), room_.Path("out") + ": it exists already"); // and no authority is asked
}

// Not the first of them alone.
TEST_F(PkgtoolFiles, EveryNewFileHasTheModeThatTheUserWants)
{
    const std::string directory = room_.Path("pki");
    ASSERT_EQ(InShell("umask 027 && \"$@\"", {"pki", "new", directory + "/", "--key-bits", "2048"}).status, 0);
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        EXPECT_EQ(ModeOf(entry.path()) & 027, 0u) << entry.path();
        files += entry.is_regular_file() ? 1 : 0;
    }
    EXPECT_GT(files, 3);
}

TEST_F(PkgtoolFiles, UnpackReplacesNothingAndFollowsNoLink)
{
    ASSERT_EQ(Run(PackTo(room_.Path("package"))).status, 0);
    const Words unpack{"unpack", room_.Path("package"), "-d", room_.Path("dir")};
    ASSERT_EQ(Run(unpack).status, 0);
    room_.Write("dir/1-payload", Text("old"));
    ExpectTrouble(Run(unpack), "it exists already");
    EXPECT_EQ(room_.Read("dir/1-payload"), Text("old"));
    EXPECT_EQ(Run(unpack + Words{"--force"}).status, 0);
    EXPECT_EQ(room_.Read("dir/1-payload"), payload_);
    ASSERT_EQ(unlink(room_.Path("dir/1-payload").c_str()), 0);
    ASSERT_EQ(symlink(room_.Path("elsewhere").c_str(), room_.Path("dir/1-payload").c_str()), 0);
    ExpectTrouble(Run(unpack + Words{"--force"}), "it is a link");
    EXPECT_EQ(ModeOf(room_.Path("elsewhere")), mode_t{0});

    const std::string directory = room_.Path("new");
    std::filesystem::create_directory(directory);
    room_.Write("new/2-signature", Text("old"));
    ExpectTrouble(Run({"unpack", GoodPackage(), "-d", directory}), "2-signature: it exists already");
    EXPECT_EQ(ModeOf(directory + "/1-payload"), mode_t{0}); // all of them or none
    const std::string below = payloadFile_ + "/below";
    ExpectTrouble(Run({"unpack", GoodPackage(), "-d", below}), "cannot make " + below + ": Not a directory");
}

TEST_F(PkgtoolFiles, InputsAreNeverOverwritten)
{
    const Bytes key = room_.Read("signer.key");
    ASSERT_EQ(symlink(payloadFile_.c_str(), room_.Path("link").c_str()), 0);
    ASSERT_EQ(link(payloadFile_.c_str(), room_.Path("other-name").c_str()), 0);
    for (const std::string& output : {payloadFile_, room_.Path("link"), room_.Path("other-name")}) {
        ExpectTrouble(Run(PackTo(output) + Words{"--force"}), output + ": it is one of the input files");
        ExpectTrouble(Run(SignTo(output) + Words{"--force"}), "one of the input files");
    }
    ExpectTrouble(Run(SignTo(key_) + Words{"--force"}), "one of the input files");
    ExpectTrouble(InShell("exec \"$@\" >>" + payloadFile_, PackTo("-")), "one of the input files");
    EXPECT_EQ(room_.Read("signer.key"), key);
    EXPECT_EQ(room_.Read("payload"), payload_);
}

TEST_F(PkgtoolFiles, LinksAreFollowed)
{
    for (const char* target : {"there", "not-there"}) {
        const std::string name = room_.Path(target) + "-link";
        ASSERT_EQ(symlink(target, name.c_str()), 0); // beside the link
        if (std::string(target) == "there") room_.Write(target, Text("old"));
        EXPECT_EQ(Run(PackTo(name) + Words{"--force"}).status, 0);
        EXPECT_TRUE(S_ISLNK(ModeOf(name)));
        EXPECT_GT(room_.Read(target).size(), payload_.size());
    }
}

TEST_F(PkgtoolFiles, WhatIsNoRegularFileIsWrittenInto)
{
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const ProcessResult run =
        InShell("cat " + fifo + " >" + room_.Path("got") + " & \"$@\"; s=$?; wait; exit $s", PackTo(fifo));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(S_ISFIFO(ModeOf(fifo)));
    EXPECT_EQ(Run(PackTo(room_.Path("package"))).status, 0);
    EXPECT_EQ(room_.Read("got"), room_.Read("package"));

    ExpectTrouble(Run(PackTo(room_.Path(""))), "it is a directory");
    // Nodes of one's own: a tool that replaces them shall not break the machine.
    const std::string null = room_.Path("null");
    const std::string full = room_.Path("full");
    if (mknod(null.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0 ||
        mknod(full.c_str(), S_IFCHR | 0600, makedev(1, 7)) != 0)
        GTEST_SKIP() << "only root makes devices";
    EXPECT_EQ(Run(PackTo(null)).status, 0);
    ExpectTrouble(Run(PackTo(full)), "cannot write " + full + ": No space left");
    EXPECT_TRUE(S_ISCHR(ModeOf(null)));
    EXPECT_TRUE(S_ISCHR(ModeOf(full)));
}

TEST_F(PkgtoolFiles, ADashIsStandardInputAndOutput)
{
    ASSERT_EQ(Run(PackTo(room_.Path("package"))).status, 0);
    const std::string input = " <" + payloadFile_;
    const std::string stdoutLink = room_.Path("stdout"); // like the one in /dev
    ASSERT_EQ(symlink("/proc/self/fd/1", stdoutLink.c_str()), 0);
    const Words pack{"pack", "--unsigned", "--payload", "-", "-o"};
    for (const std::string& script :
         {"\"$@\" - " + input, "\"$@\" " + stdoutLink + input, "cat" + input + " | \"$@\" -"}) {
        const ProcessResult run = InShell(script + " | cat >" + room_.Path("out"), pack);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(room_.Read("out"), room_.Read("package")) << script;
    }
    EXPECT_EQ(InShell("exec \"$@\" - <" + room_.Path("package"), {"list"}).out,
              Run({"list", room_.Path("package")}).out);
    ExpectTrouble(InShell("exec \"$@\"" + input, {"pack", "--payload", "-", "--cms", "-", "-o", room_.Path("none")}),
                  "standard input can be read only once");
    EXPECT_EQ(ModeOf("-"), mode_t{0});
}

// What is written beside an output has a longer name.
TEST_F(PkgtoolFiles, NamesThatLeaveNoRoomAreRefused)
{
    const std::size_t directory = PATH_MAX - std::string(".unfinished.XXXXXX").size();
    const std::size_t inDirectory = directory - std::string("/image.cms").size();
    const Words shortEnough = ReleaseTo(LongPath(inDirectory - 1));
    const Words before = room_.Files();
    ExpectTrouble(Run(PackTo(LongPath(PATH_MAX - 2))), ": File name too long\n");
    ExpectTrouble(Run(ReleaseTo(LongPath(directory))), ": its name is too long\n");
    ExpectTrouble(Run(ReleaseTo(LongPath(inDirectory))), ": its name is too long\n");
    EXPECT_FALSE(Contains(Run(shortEnough).err, "its name is too long"));
    EXPECT_EQ(room_.Files(), before);
}

// Some file systems cannot; any other failure is one.
TEST_F(PkgtoolFiles, NewFilesNeedNoRenamingWithoutReplacing)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string out = room_.Path("out");
    const Words before = room_.Files();
    const auto failing = [](const std::string& how) { return Words{"-e", "inject=renameat2:error=" + how}; };
    for (const char* how : {"EINVAL", "ENOSYS"}) {
        const ProcessResult run = WithFaults(failing(how), PackTo(out));
        ASSERT_EQ(run.status, 0) << how << run.err;
        EXPECT_EQ(room_.Files().size(), before.size() + 1) << how;
        EXPECT_GT(room_.Read("out").size(), payload_.size());
        ASSERT_EQ(unlink(out.c_str()), 0);
    }
    ExpectTrouble(WithFaults(failing("EEXIST"), PackTo(out)), "cannot write " + out + ": File exists\n");
    ExpectTrouble(WithFaults(failing("EINVAL") + Words{"-e", "inject=/^link:error=EPERM"}, PackTo(out)),
                  "cannot write " + out + ": Operation not permitted\n");
    EXPECT_EQ(room_.Files(), before);
}

// The file is there, whole and not yet in its place, when it is synchronised with the disk.
TEST_F(PkgtoolFiles, NothingIsLeftAfterASignal)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    room_.Write("out", Text("old"));
    const std::vector<Words> commands{PackTo(room_.Path("out")), ReleaseTo(room_.Path("out"))};
    const Words before = room_.Files();
    for (const auto& [name, number] : {std::pair("INT", SIGINT), {"TERM", SIGTERM}, {"HUP", SIGHUP}}) {
        for (const Words& command : commands) {
            const ProcessResult run =
                WithFaults({"-e", "inject=fsync:signal=" + std::string(name)}, command + Words{"--force"});
            EXPECT_EQ(run.status, 128 + number) << run.err;
            EXPECT_EQ(room_.Files(), before);
            EXPECT_EQ(room_.Read("out"), Text("old"));
        }
    }
}

// ---- Reports ----

TEST_F(PkgtoolFiles, AReportThatCannotBeWrittenIsTrouble)
{
    const std::string good = GoodPackage();
    const std::vector<Words> more{{"code", "0x88200009"},
                                  {"crl", "show", room_.Path("root.crl")},
                                  {"crl", "compare", room_.Path("root.crl"), room_.Path("root.crl")},
                                  {"--help"},
                                  {"sign", "--help"}};
    std::vector<Words> commands = Readers(good);
    commands.insert(commands.end(), more.begin(), more.end());
    for (const Words& command : commands) {
        SCOPED_TRACE(command[0]);
        const ProcessResult full = InShell("exec \"$@\" >/dev/full", command);
        EXPECT_EQ(full.status, 2);
        EXPECT_TRUE(Contains(full.err, "pkgtool: write error: No space left on device")) << full.err;
    }
    const ProcessResult closed = InShell("exec \"$@\" >&-", {"list", good});
    EXPECT_EQ(closed.status, 2);
    EXPECT_TRUE(Contains(closed.err, "pkgtool: write error")) << closed.err;
    const Words unpack{"unpack", good, "-d", room_.Path("unpacked")}; // which reports nothing
    EXPECT_EQ(InShell("exec \"$@\" >&-", unpack).status, 0);
    EXPECT_EQ(room_.Read("unpacked/1-payload"), payload_);
}

TEST_F(PkgtoolFiles, WhatNobodyForesawIsTold)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const ProcessResult run = WithFaults({"-e", "inject=chdir:error=EIO"}, ReleaseTo(room_.Path("none")));
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(Contains(run.err, "pkgtool: internal error: ")) << run.err;
    EXPECT_TRUE(Contains(run.err, "Input/output error")) << run.err;
}

// ---- Inputs ----

TEST_F(PkgtoolFiles, WhatIsNoFileIsRefusedWithoutWaiting)
{
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string huge = room_.Path("huge");
    ASSERT_EQ(truncate(room_.Write("huge", Text("x")).c_str(), off_t{12} << 30), 0);
    const std::pair<std::string, std::string> inputs[] = {{fifo, ": it is a FIFO"},
                                                          {room_.Path(""), ": it is a directory"},
                                                          {"/dev/zero", ": it is a device"},
                                                          {huge, ": it has 2 GiB or more"},
                                                          {room_.Path("missing"), ": No such file"}};
    const std::string none = room_.Path("none");
    for (const auto& [path, message] : inputs) ExpectTrouble(Run({"list", path}), path + message);
    EXPECT_TRUE(Contains(Run({"list", room_.Path("")}).err, "\nhint: name a file; pkgtool verify -r takes all files "));
    EXPECT_TRUE(Contains(Run({"list", fifo}).err, "\nhint: read another command's output from standard input"));
    for (const Words& command : {Words{"inspect", fifo},
                                 {"explain", fifo},
                                 {"lint", fifo},
                                 {"unpack", fifo, "-d", none},
                                 {"crl", "show", fifo},
                                 {"pack", "--unsigned", "--payload", fifo, "-o", none},
                                 {"crl", "show", room_.Path("root.crl"), "--root", fifo},
                                 {"lint", GoodPackage(), "--root", fifo}}) {
        ExpectTrouble(Run(command), fifo + ": it is a FIFO");
    }
    for (const Words& command : {Words{"sign", fifo, "--cert", room_.Path("signer.pem"), "--key", key_},
                                 {"sign", payloadFile_, "--cert", fifo, "--key", key_},
                                 {"sign", payloadFile_, "--cert", room_.Path("signer.pem"), "--key", fifo},
                                 {"sign", payloadFile_, "--p12", fifo},
                                 {"sign", payloadFile_, "--p12", key_, "--pass", "file:" + fifo}}) {
        ExpectTrouble(Run(command + Words{"--no-timestamp", "-o", none}), fifo + ": it is a FIFO");
    }
}

// One octet more and the checker reads it no longer. In a file without a disk, holes cost nothing.
TEST_F(PkgtoolFiles, TheLargestInputIsRead)
{
    if (!LongForm()) GTEST_SKIP() << "needs 4 GiB of memory, and CMSVERIFY_LONG=1";
    constexpr off_t kMaxRead = 0x7FFFF000;
    const int file = memfd_create("large", MFD_CLOEXEC);
    ASSERT_GE(file, 0);
    const std::string large = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file);
    const Words pack{"pack", "--payload", payloadFile_, "--cms", large, "-o", room_.Path("none")};
    ASSERT_EQ(ftruncate(file, kMaxRead), 0);
    ExpectTrouble(Run(pack), "pkgtool: the checker reads no package of 2 GiB or more\n"); // a header comes before it
    ASSERT_EQ(ftruncate(file, kMaxRead + 1), 0);
    ExpectTrouble(Run(pack), "cannot read " + large + ": it has 2 GiB or more, and the checker reads no such file\n");
    close(file);
}

// The root is more than a pipe holds: when all of it is written, somebody reads it, who has opened the package.
TEST_F(PkgtoolFiles, AnInputThatShrinksMeanwhileIsTrouble)
{
    const std::string package = GoodPackage();
    const ProcessResult run =
        InShell("{ head -c 1000000 /dev/zero; : >" + package + "; } | \"$@\"", {"explain", package, "--root", "-"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "pkgtool: a file became shorter while it was read\n");
    EXPECT_EQ(run.out, "");

    // The kernel meets its end, and no signal tells of it.
    const ProcessResult copying =
        InShell("{ head -c 1000000 /dev/zero; : >" + payloadFile_ + "; } | \"$@\"",
                {"pack", "--unchecked", "--payload", payloadFile_, "--cms", "-", "-o", room_.Path("none")});
    EXPECT_EQ(copying.status, 2);
    EXPECT_EQ(copying.err, "pkgtool: a file became shorter while it was read\n");
    EXPECT_EQ(ModeOf(room_.Path("none")), mode_t{0});
}

// It is asked for its state when it is opened, and when all of it has been read.
TEST_F(PkgtoolFiles, AnInputThatChangesMeanwhileIsTrouble)
{
    if (!CanTrace()) GTEST_SKIP() << "needs strace";
    const std::string good = GoodPackage();
    const std::string none = room_.Path("none");
    for (const auto& [input, command] : {std::pair(payloadFile_, PackTo(none)),
                                         {payloadFile_, SignTo(none)},
                                         {good, Words{"unpack", good, "-d", room_.Path("unpacked")}}}) {
        const Words trace{"strace", "-o", "/dev/null", "-P", input, "-e", "inject=/fstat|statx:error=EIO:when=2"};
        const ProcessResult run =
            RunProcess(trace + Words{PkgtoolPath()} + command, {"ASAN_OPTIONS=detect_leaks=0"}, kPatience);
        ExpectTrouble(run, "cannot read " + input + ": it changed while it was read\n");
    }
    EXPECT_EQ(ModeOf(none), mode_t{0});
}

TEST_F(PkgtoolFiles, VerifyGoesOnBehindWhatIsNoFile)
{
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string good = GoodPackage();
    const ProcessResult run =
        Run({"verify", "-j", "1", "--root", DataPath("test_root.der"), good, fifo, "/dev/zero", room_.Path(""), good});
    EXPECT_FALSE(run.timedOut);
    EXPECT_TRUE(Contains(run.out, fifo + ": cannot read " + fifo + ": it is a FIFO")) << run.out;
    EXPECT_TRUE(Contains(run.out, "5 checked: 2 accepted, ")) << run.out;
    EXPECT_TRUE(Contains(run.out, "\naccepted  " + good + "\n")) << run.out;
}

// A FIFO in the place of the configuration: whoever reads it waits for ever.
TEST_F(PkgtoolFiles, CommandsThatReadPackagesReadNoConfiguration)
{
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string good = GoodPackage();
    std::vector<Words> commands = Readers(good);
    const std::vector<Words> more{{"unpack", good, "-d", room_.Path("unpacked")},
                                  {"crl", "show", room_.Path("root.crl")},
                                  PackTo(room_.Path("package"))};
    commands.insert(commands.end(), more.begin(), more.end());
    for (const Words& command : commands) {
        EXPECT_FALSE(Run(command, {"OPENSSL_CONF=" + fifo}).timedOut) << command[0];
    }
    if (!CanTrace()) GTEST_SKIP() << "needs strace for the rest";
    const std::string conf = room_.Write("openssl.cnf", Text("# nothing\n"));
    const TracedProcess traced = RunTraced(Words{PkgtoolPath()} + SignTo(room_.Path("cms")), {"OPENSSL_CONF=" + conf});
    EXPECT_TRUE(Contains(traced.files, conf)) << "keys are reached through what it names";
}

// ---- Progress ----

// The reader stops after 9 MB of 16 MiB, when two steps of 4 MiB are done; hashing will be as much again.
TEST_F(PkgtoolFiles, TerminalShowsHowMuchIsDone)
{
    if (RunProcess({"script", "--version"}).status != 0) GTEST_SKIP() << "there is no script command";
    const std::string fifo = room_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string image = room_.Write("large.bin", Bytes(std::size_t{16} << 20));
    const std::string pack = PkgtoolPath() + " pack --unsigned --payload " + image + " -o " + fifo;
    const std::string reader = "(head -c 9000000; sleep 2; cat) <" + fifo + " >" + room_.Path("package");
    const std::string shown = RunProcess({"sh", "-c", reader + " & script -qec '" + pack + "' /dev/null; wait"}).out;
    EXPECT_TRUE(Contains(shown, "\rpkgtool: packing " + image + ", 25 %, ")) << shown;
    EXPECT_TRUE(Contains(shown, "\r\033[Kpacked 16777568 octets")) << shown;
}

// ---- Foreign text ----

const Bytes kNastyOctets = {0x1B, '[',  '3',  '1',  'm',  0x7F,                   // C0 and DEL
                            0xC2, 0x9B, '3',  '1',  'm',  0xC2, 0x90, 0xC2, 0x9D, // U+009B, U+0090, U+009D
                            0xE2, 0x80, 0xAE, 0xE2, 0x81, 0xA7, 0xD8, 0x9C,       // U+202E, U+2067, U+061C
                            0xC3, 0xA9};                                          // U+00E9, which is harmless
const Bytes kBrokenOctets = {0x9B, '3', '1', 'm', 0xC0, 0x9B, 0xE0, 0x82, 0x9B, 0xED, 0xA0, 0x80, 0xF8, 0xE2, 0x80};

// What is left of an output without ASCII's printable characters, line ends, and U+00A0 to U+00FF in UTF-8.
std::string Dangers(const std::string& output)
{
    std::string left;
    for (std::size_t i = 0; i < output.size(); ++i) {
        const auto octet = static_cast<unsigned char>(output[i]);
        const auto next = static_cast<unsigned char>(i + 1 < output.size() ? output[i + 1] : '\0');
        if ((octet == 0xC2 && next >= 0xA0 && next < 0xC0) || (octet == 0xC3 && next >= 0x80 && next < 0xC0)) {
            ++i;
        } else if (octet != '\n' && (octet < 0x20 || octet >= 0x7F)) {
            left += output[i];
        }
    }
    return left;
}

TEST_F(PkgtoolFiles, ForeignTextIsEscapedEverywhere)
{
    const Bytes nasty = Cat(kNastyOctets, kBrokenOctets);
    DemoPki pki = room_.Pki();
    pki.signer.subject = Name(Cn(std::string(kNastyOctets.begin(), kNastyOctets.end())),
                              NameAttr(oid::organizationName, Tlv(0x0C, kBrokenOctets)));
    pki.signingCa.subject = pki.signer.issuer = pki.signingCrl.issuer =
        Name(NameAttr(oid::commonName, Tlv(0x14, nasty)), Cn("CA"));
    PackageSpec package = SignedPackage(payload_, DetachedCms(payload_, DemoCms(pki)), pki.Crls());
    package.description = std::string(nasty.begin(), nasty.end());
    const std::string path = room_.Write(std::string(nasty.begin(), nasty.end()) + ".pkg", Build(package));
    const std::string crl = room_.Write(std::string(nasty.begin(), nasty.end()) + ".crl", Build(pki.signingCrl));
    const std::string signature = room_.Write("cms", DetachedCms(payload_, DemoCms(pki)));

    std::vector<Words> commands = Readers(path);
    const std::vector<Words> more{
        {"list", crl + "-missing"},
        {"unpack", crl, "-d", crl},
        {"crl", "show", crl},
        {"crl", "show", crl, "--json"},
        {"crl", "compare", crl, crl},
        {"pack", "--payload", crl, "--cms", signature, "--crl", crl, "-o", room_.Path("none")},
        {"pack", "--unsigned", "--payload", payloadFile_, "-o", crl},
        {"sign", crl, "--cert", crl, "--key", crl, "--no-timestamp", "-o", room_.Path("none")},
        {"sign", payloadFile_, "--p12", crl, "--pass", crl, "--no-timestamp", "-o", room_.Path("none")},
        {"sign", payloadFile_, "--tsa-url", "http://127.0.0.1:1/" + crl, "--cert", room_.Path("signer.pem"), "--key",
         key_, "-o", room_.Path("none")},
        {"code", crl},
        {crl},
        {"list", crl, crl},
        {"list", "--" + crl},
        {"sign", "--digest", crl}};
    commands.insert(commands.end(), more.begin(), more.end());
    for (const Words& command : commands) {
        const ProcessResult run = Run(command);
        EXPECT_EQ(Dangers(run.out), "") << command[0];
        EXPECT_EQ(Dangers(run.err), "") << command[0];
    }
    const std::string shown = "\\x1b[31m\\x7f\\u009b31m\\u0090\\u009d\\u202e\\u2067\\u061c\xC3\xA9\\x9b31m\\xc0\\x9b"
                              "\\xe0\\x82\\x9b\\xed\\xa0\\x80\\xf8\\xe2\\x80";
    EXPECT_TRUE(Contains(Run({"list", path}).out, "description  " + shown + "\n")) << Run({"list", path}).out;
    const auto json = ParseJson(Run({"inspect", path, "--json"}).out);
    EXPECT_TRUE(Contains(json["header"]["description"].get<std::string>(),
                         std::string(kNastyOctets.begin(), kNastyOctets.end())));
}

// It comes over plain HTTP, so whoever sits on the way can send it.
TEST_F(PkgtoolFiles, TheAuthoritysWordsAreEscaped)
{
    const Bytes text = Tlv(0x0C, Cat(Text("no "), kNastyOctets));
    const std::string response = room_.Write("response", Seq(Seq(Int({2}), Seq(text)))); // PKIStatusInfo: rejection
    const ProcessResult run = Run({"sign", payloadFile_, "--cert", room_.Path("signer.pem"), "--key", key_,
                                   "--tsa-response", response, "-o", room_.Path("none")});
    EXPECT_TRUE(Contains(run.err, "the authority refused: no \\x1b[31m\\x7f\\u009b31m")) << run.err;
    EXPECT_EQ(Dangers(run.err), "");
}

} // namespace
} // namespace pnvtest
