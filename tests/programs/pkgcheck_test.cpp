// The checker as a process, on files that nobody signed: command line, header, ranges, messages and exit statuses.
#include "pkgcheck.h"

#include "support/cms.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace pnvtest {
namespace {

// The process status is the low octet of what main returns.
constexpr int kAccepted = 0;
constexpr int kRefused = 255;          // -1
constexpr int kInvalidCount = 254;     // -2
constexpr int kInvalidArguments = 234; // -22

const std::string kUnsigned = "Info: There is one subfile, Check signature passed\n";
const std::string kNoMemory = "Failed to alloc memory\n";
const std::string kNotVerified = "Check cms file fail for file(err 0xffffffff)\n";
const std::string kNoCrl = "Check cms file fail for file(err 0x88200102)\n"; // the library saw that kContent is none
const std::string kSilent;

const Bytes kContent(64, 0x5A);

SubFileSpec Payload()
{
    return {subfile::payload, kContent, {}, {}};
}
SubFileSpec Cms()
{
    return {subfile::cms, kContent, {}, {}};
}
SubFileSpec Crl()
{
    return {subfile::crl, kContent, {}, {}};
}
SubFileSpec Unknown()
{
    return {0x10000003, kContent, {}, {}};
}
// The same entry with the table saying something else.
SubFileSpec At(std::uint32_t offset, SubFileSpec subFile)
{
    subFile.offset = offset;
    return subFile;
}
SubFileSpec OfLength(std::uint32_t length, SubFileSpec subFile)
{
    subFile.length = length;
    return subFile;
}

Bytes Package(std::vector<SubFileSpec> subFiles)
{
    PackageSpec spec;
    spec.subFiles = std::move(subFiles);
    return Build(spec);
}

Bytes Counting(std::uint32_t subFileCount)
{
    PackageSpec spec;
    spec.subFileCount = subFileCount;
    return Build(spec);
}

class Pkgcheck : public ::testing::Test {
protected:
    static std::vector<std::string> CommandLine(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), PkgcheckPath());
        return ForTarget(arguments);
    }
    static ProcessResult Call(std::vector<std::string> arguments) { return RunProcess(CommandLine(arguments)); }
    static ProcessResult Check(const std::string& path) { return Call({path}); }
    ProcessResult Check(const Bytes& package) const { return Check(dir_.Write("package", package)); }

    static void Expect(const ProcessResult& run, int status, const std::string& out)
    {
        EXPECT_FALSE(run.timedOut);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(run.err, "");
    }
    static void ExpectMatch(const ProcessResult& run, int status, const std::string& pattern)
    {
        Expect(run, status, run.out);
        const ::testing::Matcher<std::string> expected = ::testing::MatchesRegex(pattern);
        EXPECT_TRUE(expected.Matches(run.out)) << run.out;
    }

    // The path of the file "p" in so many characters.
    std::string PathOfLength(std::size_t length) const
    {
        if (dir_.Path().size() + 2 > length) Misuse("the temporary directory has too long a name");
        return dir_.Path() + std::string(length - dir_.Path().size() - 1, '/') + "p";
    }

    TempDir dir_;
};

// ---- Command line ----

TEST_F(Pkgcheck, WantsAPath)
{
    Expect(Call({}), kInvalidArguments, "Invalid arg count\n");
}

TEST_F(Pkgcheck, WantsAPathThatIsNotNull)
{
    char name[] = "pkgcheck";
    char* argv[] = {name, nullptr, nullptr};
    for (int argc : {0, 1, 2}) {
        ::testing::internal::CaptureStdout();
        const int status = pkgcheck_run(argc, argv);
        std::fflush(stdout);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Invalid arg count\n");
        EXPECT_EQ(status, -22);
    }
}

TEST_F(Pkgcheck, IgnoresFurtherArguments)
{
    const std::string path = dir_.Write("package", Counting(1));
    Expect(Call({path, dir_.Path("none"), "--help"}), kAccepted, kUnsigned);
}

// ---- Opening ----

TEST_F(Pkgcheck, ReportsAFileThatIsNotThere)
{
    const std::string path = dir_.Path("none");
    Expect(Check(path), kRefused, "Failed to open file(name " + path + " err 2)\n");
}

TEST_F(Pkgcheck, ReportsWhyAFileDoesNotOpen)
{
    const std::string path = dir_.Write("file", {}) + "/x";
    Expect(Check(path), kRefused, "Failed to open file(name " + path + " err 20)\n");
}

TEST_F(Pkgcheck, ReportsAFileItMayNotRead)
{
    const std::string path = dir_.Write("file", Counting(1));
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    std::vector<std::string> argv = CommandLine({path});
    if (geteuid() == 0) { // who may read everything
        argv.insert(argv.begin(), {"setpriv", "--bounding-set=-dac_override,-dac_read_search"});
        if (RunProcess({argv[0], argv[1], "true"}).status != 0) GTEST_SKIP() << "root cannot give up a right here";
    }
    Expect(RunProcess(argv), kRefused, "Failed to open file(name " + path + " err 13)\n");
}

TEST_F(Pkgcheck, ReportsAnEmptyPath)
{
    Expect(Check(std::string()), kRefused, "Failed to open file(name  err 2)\n");
}

TEST_F(Pkgcheck, OpensAPathOf64Characters)
{
    dir_.Write("p", Counting(1));
    Expect(Check(PathOfLength(63)), kAccepted, kUnsigned);
    Expect(Check(PathOfLength(64)), kAccepted, kUnsigned);
}

TEST_F(Pkgcheck, ShowsAPathOf64Characters)
{
    const std::string path = PathOfLength(64);
    Expect(Check(path), kRefused, "Failed to open file(name " + path + " err 2)\n");
}

TEST_F(Pkgcheck, TakesALongerPathForAnEmptyOne)
{
    dir_.Write("p", Counting(1));
    for (std::size_t length : {65u, 66u, 128u, 4000u, 100000u}) {
        Expect(Check(PathOfLength(length)), kRefused, "Failed to open file(name  err 2)\n");
    }
}

// ---- Reading ----

TEST_F(Pkgcheck, RefusesAFileShorterThanTheHeader)
{
    const Bytes package = Counting(1);
    for (std::size_t length : {0u, 1u, 16u, 20u, 351u}) {
        const Bytes cut(package.begin(), package.begin() + static_cast<std::ptrdiff_t>(length));
        Expect(Check(cut), kRefused, "Failed to check file length(len " + std::to_string(length) + ")\n");
    }
}

TEST_F(Pkgcheck, ReadsAFileOfJustTheHeader)
{
    Expect(Check(Counting(1)), kAccepted, kUnsigned);
}

constexpr std::uint64_t kGiB = 1ull << 30;

TEST_F(Pkgcheck, TakesAFileFrom4GiBOnForTooMuchMemory)
{
    const Bytes header = Counting(1); // in 32 bits the third file is just this long
    for (std::uint64_t size : {4 * kGiB, 4 * kGiB + 351, 4 * kGiB + header.size(), 5 * kGiB, 9 * kGiB}) {
        SCOPED_TRACE(size);
        Expect(Check(dir_.WriteSparse("large", size, header)), kRefused, kNoMemory);
    }
}

// The files take no room on the disk, and no memory either.
TEST_F(Pkgcheck, ReportsThatThereIsNoMemoryForAFileFrom2GiBOn)
{
    if (kSanitized) GTEST_SKIP() << "the sanitizer's allocator ends the process";
    const Bytes header = Counting(1);
    for (std::uint64_t size : {2 * kGiB, 2 * kGiB + header.size(), 3 * kGiB, 4 * kGiB - 1}) {
        SCOPED_TRACE(size);
        std::vector<std::string> argv = CommandLine({dir_.WriteSparse("large", size, header)});
        if (Emulator().empty()) { // a 32-bit process has no such block anyway
            argv.insert(argv.begin(), {"sh", "-c", "ulimit -v 1000000 && exec \"$@\"", "sh"});
        }
        Expect(RunProcess(argv), kRefused, kNoMemory);
    }
}

TEST_F(Pkgcheck, EndsOnAFifo)
{
    const std::string path = dir_.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    Expect(RunProcess(CommandLine({path}), {}, std::chrono::seconds(20)), kRefused, kNoMemory);
}

TEST_F(Pkgcheck, EndsOnAFifoThatSomebodyWrites)
{
    const std::string path = dir_.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    const Bytes package = Counting(1);
    ASSERT_EQ(write(writer, package.data(), package.size()), static_cast<ssize_t>(package.size()));
    Expect(RunProcess(CommandLine({path}), {}, std::chrono::seconds(20)), kRefused, kNoMemory);
    close(writer);
}

// Where its end lies is the file system's secret.
TEST_F(Pkgcheck, EndsOnADirectory)
{
    ExpectMatch(Check(dir_.Path()), kRefused,
                "Failed to alloc memory\n|Failed to check file length\\(len [0-9]+\\)\n|Failed to read file\\(" +
                    dir_.Path() + "\\)\n");
}

TEST_F(Pkgcheck, EndsOnADevice)
{
    Expect(Check("/dev/null"), kRefused, "Failed to check file length(len 0)\n");
}

TEST_F(Pkgcheck, EndsOnAFileThatCannotSeek)
{
    Expect(Check("/proc/self/mem"), kRefused, kNoMemory);
}

// Such a file claims a page and has a line.
TEST_F(Pkgcheck, ReportsAShortRead)
{
    const std::string path = "/sys/kernel/uevent_seqnum";
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || status.st_size < 352) GTEST_SKIP() << "no such file here";
    Expect(Check(path), kRefused, "Failed to read file(" + path + ")\n");
}

// ---- The number of sub-files ----

TEST_F(Pkgcheck, AcceptsOneSubFileWithoutLookingAtIt)
{
    Expect(Check(Package({Payload()})), kAccepted, kUnsigned);
    Expect(Check(Package({At(0xFFFFFFFF, OfLength(0xFFFFFFFF, Cms()))})), kAccepted, kUnsigned);
}

TEST_F(Pkgcheck, RefusesAnyOtherNumberThanOneAndThree)
{
    for (std::uint32_t count : {0u, 2u, 4u, 8u, 9u, 0x7FFFFFFFu}) {
        Expect(Check(Counting(count)), kInvalidCount,
               "Error: Check cms fail for subfile num(" + std::to_string(count) + ") is invalid\n");
    }
}

TEST_F(Pkgcheck, PrintsTheNumberAsASignedOne)
{
    Expect(Check(Counting(0xFFFFFFFF)), kInvalidCount, "Error: Check cms fail for subfile num(-1) is invalid\n");
    Expect(Check(Counting(0x80000000)), kInvalidCount,
           "Error: Check cms fail for subfile num(-2147483648) is invalid\n");
}

TEST_F(Pkgcheck, ReadsTheNumberAsBigEndian)
{
    Expect(Check(Counting(0x01000000)), kInvalidCount, "Error: Check cms fail for subfile num(16777216) is invalid\n");
    Expect(Check(Counting(0x03000000)), kInvalidCount, "Error: Check cms fail for subfile num(50331648) is invalid\n");
}

TEST_F(Pkgcheck, ReadsNothingElseOfTheHeader)
{
    PackageSpec spec;
    spec.subFiles = {Payload()};
    spec.reserved = spec.headerCrc = spec.fileId = spec.version = spec.fileCrc = spec.compressType = 0xFFFFFFFF;
    spec.length = 7;
    spec.description = std::string(224, '%');
    Expect(Check(Build(spec)), kAccepted, kUnsigned);
}

// ---- Three sub-files ----

TEST_F(Pkgcheck, AcceptsAPackageWithoutSignatureSilently)
{
    Expect(Check(Package({Payload(), Crl(), Unknown()})), kAccepted, kSilent);
    Expect(Check(Package({Unknown(), Unknown(), Unknown()})), kAccepted, kSilent);
    Expect(Check(Counting(3)), kAccepted, kSilent);
}

TEST_F(Pkgcheck, AcceptsAnEmptySignatureSilently)
{
    Expect(Check(Package({Payload(), OfLength(0, Cms()), Crl()})), kAccepted, kSilent);
}

TEST_F(Pkgcheck, ReadsThreeEntriesOnly)
{
    PackageSpec spec;
    spec.subFiles = {Payload(), Crl(), Unknown(), Cms()};
    spec.subFileCount = 3;
    Expect(Check(Build(spec)), kAccepted, kSilent);
}

// A null pointer prints as the platform prints it.
TEST_F(Pkgcheck, ReportsAMissingPayload)
{
    char null[32];
    std::snprintf(null, sizeof null, "%p", static_cast<void*>(nullptr));
    const std::string shown = null == std::string("(nil)") ? "\\(nil\\)" : null;
    ExpectMatch(Check(Package({Cms(), Crl(), Unknown()})), kRefused,
                "Check cms fail for no sub file, bin " + shown + " 0 cms 0x[0-9a-f]+ 0x40\n");
}

constexpr const char* kEmptyPayload = "Check cms fail for no sub file, bin 0x[0-9a-f]+ 0 cms 0x[0-9a-f]+ 0x40\n";

TEST_F(Pkgcheck, ReportsAnEmptyPayload)
{
    ExpectMatch(Check(Package({OfLength(0, Payload()), Cms(), Crl()})), kRefused, kEmptyPayload);
}

TEST_F(Pkgcheck, RefusesASignatureWithoutCrl)
{
    Expect(Check(Package({Payload(), Cms(), Unknown()})), kRefused, kNotVerified);
}

TEST_F(Pkgcheck, UsesTheLaterOfTwoPayloads)
{
    ExpectMatch(Check(Package({Payload(), OfLength(0, Payload()), Cms()})), kRefused, kEmptyPayload);
    Expect(Check(Package({OfLength(0, Payload()), Payload(), Cms()})), kRefused, kNotVerified);
}

TEST_F(Pkgcheck, UsesTheLaterOfTwoSignatures)
{
    Expect(Check(Package({Cms(), OfLength(0, Cms()), Payload()})), kAccepted, kSilent);
    Expect(Check(Package({OfLength(0, Cms()), Cms(), Payload()})), kRefused, kNotVerified);
}

TEST_F(Pkgcheck, DoesNotKnowTypesThatOnlyLookAlike)
{
    for (std::uint32_t type : {0u, 2u, 0x10000000u, 0x01000010u, 0x10000003u, 0xFFFFFFFFu}) {
        Expect(Check(Package({Payload(), {type, kContent, {}, {}}, Crl()})), kAccepted, kSilent);
    }
}

// ---- Sub-files outside the file ----

// A package of payload, CMS and CRL with one of them somewhere else.
class PkgcheckRange : public Pkgcheck, public ::testing::WithParamInterface<std::size_t> {
protected:
    Bytes PackageWith(std::optional<std::uint32_t> offset, std::optional<std::uint32_t> length) const
    {
        std::vector<SubFileSpec> subFiles{Payload(), Cms(), Crl()};
        subFiles[GetParam()].offset = offset;
        subFiles[GetParam()].length = length;
        return Package(subFiles);
    }

    static constexpr std::uint32_t kContents = 3 * 64; // octets behind the header
};

INSTANTIATE_TEST_SUITE_P(PayloadCmsAndCrl, PkgcheckRange, ::testing::Values(0, 1, 2));

TEST_P(PkgcheckRange, MayReachToTheEndOfTheFile)
{
    Expect(Check(PackageWith(0, kContents)), kRefused, kNoCrl);
    Expect(Check(PackageWith(kContents - 1, 1)), kRefused, kNoCrl);
}

TEST_P(PkgcheckRange, MayNotReachAnOctetBeyond)
{
    Expect(Check(PackageWith(0, kContents + 1)), kRefused, kNotVerified);
    Expect(Check(PackageWith(kContents - 1, 2)), kRefused, kNotVerified);
    Expect(Check(PackageWith(kContents, 1)), kRefused, kNotVerified);
}

TEST_P(PkgcheckRange, MayNotLieFarOutside)
{
    Expect(Check(PackageWith(0x40000000, 64)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0, 0x40000000)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0x7FFFFFFF, 0x7FFFFFFF)), kRefused, kNotVerified);
}

// In 32 bits each of these would lie inside the file again.
TEST_P(PkgcheckRange, MayNotWrapAround)
{
    Expect(Check(PackageWith(0xFFFFFFFF, 1)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0xFFFFFFFF, 64)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0u - 352, 64)), kRefused, kNotVerified);
    Expect(Check(PackageWith(64, 0u - 64)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0, 0u - 352)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0, 0xFFFFFFFF)), kRefused, kNotVerified);
    Expect(Check(PackageWith(0xFFFFFFFF, 0xFFFFFFFF)), kRefused, kNotVerified);
}

TEST_F(Pkgcheck, AsksForASignatureBeforeItAsksForRanges)
{
    Expect(Check(Package({At(0xFFFFFFFF, Payload()), Crl(), Unknown()})), kAccepted, kSilent);
    Expect(Check(Package({At(0xFFFFFFFF, Payload()), OfLength(0, Cms()), Crl()})), kAccepted, kSilent);
}

TEST_F(Pkgcheck, AsksForAPayloadBeforeItAsksForRanges)
{
    ExpectMatch(Check(Package({OfLength(0, Payload()), At(0x40000000, Cms()), Crl()})), kRefused, kEmptyPayload);
}

TEST_F(Pkgcheck, DoesNotAskWhereAnEmptySubFileLies)
{
    Expect(Check(Package({Payload(), At(0x40000000, OfLength(0, Cms())), Crl()})), kAccepted, kSilent);
    ExpectMatch(Check(Package({At(0x40000000, OfLength(0, Payload())), Cms(), Crl()})), kRefused, kEmptyPayload);
}

TEST_F(Pkgcheck, DoesNotAskWhereAnUnknownSubFileLies)
{
    Expect(Check(Package({Payload(), At(0x40000000, Unknown()), Crl()})), kAccepted, kSilent);
}

TEST_F(Pkgcheck, DoesNotAskWhereAnEmptyCrlLies)
{
    Expect(Check(Package({Payload(), Cms(), At(0x40000000, OfLength(0, Crl()))})), kRefused,
           "Check cms file fail for file(err 0x88100001)\n"); // which is the library's answer to it
}

// ---- OpenSSL's configuration ----

// Well signed, but by strangers: the checker finds that out with OpenSSL's help.
Bytes ForeignPackage()
{
    const DemoPki pki;
    return Build(SignedPackage(kContent, DetachedCms(kContent, DemoCms(pki)), pki.Crls()));
}

TEST_F(Pkgcheck, ReadsNoOpenSslConfiguration)
{
    const std::string configuration =
        dir_.Write("hostile.cnf", Text("openssl_conf = init\n[init]\nalg_section = algorithms\n"
                                       "[algorithms]\ndefault_properties = fips=yes\n"));
    const std::string package = dir_.Write("package", ForeignPackage());
    const ProcessResult plain = Check(package);
    EXPECT_EQ(plain.status, kRefused);
    Expect(RunProcess(CommandLine({package}), {"OPENSSL_CONF=" + configuration}), plain.status, plain.out);
}

TEST_F(Pkgcheck, OpensNoOpenSslConfiguration)
{
    if (!CanTrace()) GTEST_SKIP() << "strace cannot trace here";
    const std::string package = dir_.Write("package", ForeignPackage());
    const TracedProcess traced = RunTraced(CommandLine({package}));
    EXPECT_EQ(traced.result.status, kRefused);
    EXPECT_NE(traced.files.find(package), std::string::npos) << traced.files;
    EXPECT_EQ(traced.files.find("openssl.cnf"), std::string::npos) << traced.files;
}

} // namespace
} // namespace pnvtest
