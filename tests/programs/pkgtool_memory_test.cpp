// How much memory pkgtool takes for a large image: that of one mapped file, and little beyond.
#include "support/paths.h"
#include "support/sanitized.h"
#include "support/signing_room.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr long kMiB = 1024; // in the units of ru_maxrss
constexpr long kImage = 256 * kMiB;
constexpr long kBeyond = (kSanitized ? 192 : 64) * kMiB; // the sanitizers' own is some 110

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class PkgtoolMemory : public ::testing::Test {
protected:
    PkgtoolMemory() { std::filesystem::resize_file(image_, std::uintmax_t{kImage} * 1024); }

    // The peak of a run that goes well, in KiB.
    static long PeakOf(const Words& arguments)
    {
        const Words measure{"python3", "-c",
                            "import resource, subprocess, sys\n"
                            "status = subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL).returncode\n"
                            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\n"
                            "sys.exit(status)",
                            PkgtoolPath()};
        const ProcessResult run = RunProcess(measure + arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        return std::atol(run.out.c_str());
    }

    const SigningRoom room_;
    const std::string image_ = room_.Write("image", {});
};

TEST_F(PkgtoolMemory, IsThatOfOneMappedFile)
{
    const Words sign{"sign",       image_,
                     "--cert",     room_.Path("signer.pem"),
                     "--key",      KeyFile(room_.Pki().signer.key),
                     "--chain",    room_.Path("ca.pem"),
                     "--tsa-cert", room_.Path("tsa.pem"),
                     "--tsa-key",  KeyFile(room_.Pki().tsa.key),
                     "-o",         room_.Path("signature")};
    EXPECT_LT(PeakOf(sign + Words{"--tsa-chain", room_.Path("tsa-ca.pem")}), kImage + kBeyond);
    const std::string package = room_.Path("package");
    const Words root{"--root", DataPath("test_root.der")};
    const Words pack{"pack",
                     "--payload",
                     image_,
                     "--cms",
                     room_.Path("signature"),
                     "--crl",
                     room_.Path("root.crl"),
                     "--crl",
                     room_.Path("ca.crl"),
                     "--crl",
                     room_.Path("tsa-ca.crl"),
                     "-o",
                     package,
                     "--check"};
    EXPECT_LT(PeakOf(pack + root), kImage + kBeyond);
    EXPECT_LT(PeakOf(Words{"verify", package} + root), kImage + kBeyond);
    EXPECT_LT(PeakOf({"list", package}), kBeyond);
    EXPECT_LT(PeakOf({"inspect", package}), kBeyond);
    EXPECT_LT(PeakOf(Words{"lint", package, "--crl-days", "4000"} + root), kImage + kBeyond);
}

} // namespace
} // namespace pnvtest
