// All who judge packages judge the same ones, from random PKIs and then damaged element by element: the checker, the
// strict checker, pkgtool verify and pkgtool lint. Nobody accepts what the checker refuses, and what it accepts and the
// strict one does not, lint names.
#include "programs/pkgtool_json.h"
#include "support/checker.h"
#include "support/der_mutator.h"
#include "support/effort.h"
#include "support/generated_package.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/seed.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sstream>

namespace pnvtest {
namespace {

constexpr int kAccepted = 0;
constexpr int kRefused = 255;
constexpr int kInvalidCount = 254;
constexpr int kNotStrict = 253;
constexpr int kWarnings = 10;
constexpr int kErrors = 11;

class Judges : public ::testing::Test {
protected:
    // One whose root is that of the checkers, which every tenth seed has, changed in none to three places.
    Bytes NextPackage()
    {
        static const Bytes root = ReadWholeFile(DataPath("test_root.der"));
        for (;;) {
            const SignedParts parts = GeneratePackage(seed_++).parts;
            if (parts.root != root) continue;
            Bytes package = Build(SignedPackage(parts.payload, parts.cms, parts.crls));
            for (std::size_t left = random_.Below(4); left > 0; --left) {
                package = MutatePackage(package, package, random_, [this](Bytes* octets, std::size_t) {
                    if (!octets->empty()) random_.Of(*octets) ^= static_cast<std::uint8_t>(1u << random_.Below(8));
                });
            }
            return package;
        }
    }

    void Judge(const std::string& path, bool isAcceptedByVerify)
    {
        const int ordinary = Check(PkgcheckTestRootPath(), path).status;
        const ProcessResult strictRun = Check(PkgcheckStrictPath(), path);
        const int strict = strictRun.status;
        const int lint = RunProcess({PkgtoolPath(), "lint", path, "--root", DataPath("test_root.der")}).status;
        EXPECT_EQ(isAcceptedByVerify, ordinary == kAccepted);
        if (ordinary == kAccepted) {
            EXPECT_TRUE(strict == kAccepted || strict == kNotStrict) << strict;
            EXPECT_TRUE(strict == kAccepted || lint == kWarnings || lint == kErrors)
                << "refused by the strict checker, and clean for lint: " << lint;
        } else {
            EXPECT_TRUE(ordinary == kRefused || ordinary == kInvalidCount) << ordinary;
            EXPECT_TRUE(strict == ordinary || IsStopped(strictRun)) << strict << strictRun.out;
            EXPECT_TRUE(lint == kErrors || lint == 1) << lint;
        }
        accepted_ += ordinary == kAccepted;
        strictlyRefused_ += ordinary == kAccepted && strict == kNotStrict;
    }

    static ProcessResult Check(const std::string& checker, const std::string& path)
    {
        const ProcessResult run = RunProcess(ForTarget({checker, path}));
        EXPECT_EQ(run.err, "");
        return run;
    }

    // What costs too much ends the verification before it has a verdict.
    static bool IsStopped(const ProcessResult& strict)
    {
        return strict.status == kNotStrict && (strict.out == "Strict: an RSA exponent is below 3\n" ||
                                               strict.out == "Strict: an RSA exponent has more than 64 bits\n" ||
                                               strict.out == "Strict: there are more than 1000 signatures to check\n");
    }

    const TempDir dir_;
    std::size_t accepted_ = 0;
    std::size_t strictlyRefused_ = 0;

private:
    std::uint64_t seed_ = Seed();
    Random random_{Seed()};
};

TEST_F(Judges, AgreeOnRandomPackages)
{
    const std::size_t packages = LongForm() ? 3000 : 8;
    std::vector<std::string> paths;
    std::vector<std::string> argv{PkgtoolPath(), "verify", "--json", "--root", DataPath("test_root.der")};
    for (std::size_t i = 0; i < packages; ++i) {
        paths.push_back(dir_.Write("package" + std::to_string(i), NextPackage()));
    }
    argv.insert(argv.end(), paths.begin(), paths.end());
    std::istringstream verdicts(RunProcess(argv, {}, std::chrono::seconds(600)).out);
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        std::string line;
        ASSERT_TRUE(std::getline(verdicts, line));
        Judge(path, ParseJson(line)["verdict"] == "accepted");
        if (HasFailure()) return;
    }
    Report("packages that four judged, seed " + std::to_string(Seed()), packages);
    Report("of them accepted", accepted_);
    Report("of them refused by the strict checker alone", strictlyRefused_);
}

} // namespace
} // namespace pnvtest
