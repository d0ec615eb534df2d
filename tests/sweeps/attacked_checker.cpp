// The checker attacked from inside its process: its n-th allocation fails, libcrypto's included, once and from there
// on, and the package changes while it is read. A program of its own, linked with either checker, because libcrypto
// takes another allocator only before it is used: each run is a process, forked before libcrypto has done anything. The
// build puts the functions below in the place of malloc, calloc and read.
#include "pkgcheck.h"
#include "rules.h"
#include "support/effort.h"
#include "support/package.h"
#include "support/random.h"
#include "support/seed.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>

// Of the coverage build alone: _exit writes no counters.
extern "C" void __gcov_dump() __attribute__((weak));

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
ssize_t __real_read(int fd, void* buffer, size_t size);
ssize_t __wrap_read(int fd, void* buffer, size_t size);
}

namespace pnvtest {
namespace {

// ---- The attack

struct Attack {
    std::size_t nth = 0; // the allocation that fails; 0: none does
    FaultMode mode = FaultMode::Once;
    void (*beforeRead)(int fd) = nullptr; // what becomes of the package when its length is known
    void (*afterRead)(int fd) = nullptr;
    std::size_t withheld = 0; // octets that the first read does not give
};
Attack g_attack;

std::size_t* g_asked = nullptr; // allocations so far, of the process that runs the checker; null outside it

bool IsDenied()
{
    if (g_asked == nullptr) return false;
    ++*g_asked;
    return g_attack.nth != 0 &&
           (g_attack.mode == FaultMode::Once ? *g_asked == g_attack.nth : *g_asked >= g_attack.nth);
}

void* Allocate(std::size_t size, const char*, int)
{
    return IsDenied() ? nullptr : __real_malloc(size);
}

void* Reallocate(void* block, std::size_t size, const char*, int)
{
    return IsDenied() ? nullptr : std::realloc(block, size);
}

void Release(void* block, const char*, int)
{
    std::free(block);
}

} // namespace
} // namespace pnvtest

void* __wrap_malloc(size_t size)
{
    return pnvtest::IsDenied() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    return pnvtest::IsDenied() ? nullptr : __real_calloc(count, size);
}

ssize_t __wrap_read(int fd, void* buffer, size_t size)
{
    if (pnvtest::g_attack.beforeRead != nullptr) pnvtest::g_attack.beforeRead(fd);
    const std::size_t withheld = std::exchange(pnvtest::g_attack.withheld, 0);
    const ssize_t got = __real_read(fd, buffer, size - std::min(size, withheld));
    if (pnvtest::g_attack.afterRead != nullptr) pnvtest::g_attack.afterRead(fd);
    return got;
}

namespace pnvtest {
namespace {

// ---- One run

constexpr int kAccepted = 0;
constexpr int kRefused = 255;
constexpr int kNotStrict = 253;

bool IsStrict()
{
    return pkgcheck_unsigned_refusal() != nullptr;
}

// The strict rules refuse as well when they have no memory to look.
bool IsRefusal(int status)
{
    return status == kRefused || (IsStrict() && status == kNotStrict);
}

// The exit status of a process that runs the function, or 1000 and the signal that ended it.
template <typename Function> int InChild(Function function)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int status = function();
        if (__gcov_dump != nullptr) __gcov_dump();
        _exit(status & 0xFF);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

struct Result {
    int status;
    std::size_t asked;
};

class AttackedChecker : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(CRYPTO_set_mem_functions(Allocate, Reallocate, Release), 1) << "libcrypto was used before";
        void* const shared =
            mmap(nullptr, sizeof(std::size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(shared, MAP_FAILED);
        s_asked = static_cast<std::size_t*>(shared);
    }

    // Built, with libcrypto, in a process of its own.
    template <typename Make> void Package(Make make)
    {
        ASSERT_EQ(InChild([&] {
                      dir_.Write("package", Build(make()));
                      return 0;
                  }),
                  0);
    }

    Result Run(const Attack& attack) const
    {
        *s_asked = 0;
        const int status = InChild([&] {
            if (std::freopen("/dev/null", "w", stdout) == nullptr) return 99;
            char program[] = "pkgcheck";
            std::string path = dir_.Path("package");
            char* argv[] = {program, path.data(), nullptr};
            g_attack = attack;
            g_asked = s_asked;
            return pkgcheck_run(2, argv);
        });
        return {status, *s_asked};
    }

    // All allocations fail one after the other, or a sample of them. Without an attack this is the status, and it may
    // turn into a refusal and into nothing else.
    void FailAllocations(int status) const
    {
        const Result undisturbed = Run({});
        ASSERT_EQ(undisturbed.status, status);
        std::size_t faults = 0;
        for (FaultMode mode : {FaultMode::Once, FaultMode::Onward}) {
            for (std::size_t nth : Chosen(undisturbed.asked)) {
                SCOPED_TRACE(::testing::Message()
                             << "allocation " << nth << (mode == FaultMode::Once ? "" : " and on"));
                const int answer = Run({nth, mode}).status;
                ASSERT_TRUE(answer == status || IsRefusal(answer)) << answer;
                ++faults;
            }
        }
        Report("allocations of the checker that failed, seed " + std::to_string(Seed()), faults);
    }

    const TempDir dir_;

private:
    static std::set<std::size_t> Chosen(std::size_t all)
    {
        constexpr std::size_t kSample = 15;
        Random random(Seed());
        std::set<std::size_t> chosen;
        for (std::size_t nth = 1; LongForm() && nth <= all; ++nth) chosen.insert(nth);
        while (chosen.size() < std::min(kSample, all)) chosen.insert(1 + random.Below(all));
        return chosen;
    }

    static std::size_t* s_asked;
};
std::size_t* AttackedChecker::s_asked = nullptr;

// ---- Packages

DemoPki Pki()
{
    return DemoPki(KeyId::Rsa4096);
}

const Bytes kPayload = Text("a firmware image");

PackageSpec Signed(const CmsSpec& cms, const Bytes& crls = Pki().Crls())
{
    return SignedPackage(kPayload, DetachedCms(kPayload, cms), crls);
}

PackageSpec Good()
{
    return Signed(DemoCms(Pki()));
}

// The CRLs of all CAs, and one more of the signing CA, which revokes the signer.
Bytes CrlsRevokingTheSigner(bool isFirst)
{
    const DemoPki pki = Pki();
    CrlSpec revoking = pki.signingCrl;
    revoking.revoked = {{pki.signer.serial}};
    return isFirst ? Cat(Build(revoking), pki.Crls()) : Cat(pki.Crls(), Build(revoking));
}

// ---- Without memory

TEST_F(AttackedChecker, WithoutMemoryAcceptsOrRefusesAGoodPackage)
{
    Package(Good);
    FailAllocations(kAccepted);
}

TEST_F(AttackedChecker, WithoutMemoryRefusesASignerWhomTheSecondOfTwoCrlsRevokes)
{
    Package([] { return Signed(DemoCms(Pki()), CrlsRevokingTheSigner(false)); });
    FailAllocations(kRefused);
}

TEST_F(AttackedChecker, WithoutMemoryRefusesASignerWhomTheFirstOfTwoCrlsRevokes)
{
    Package([] { return Signed(DemoCms(Pki()), CrlsRevokingTheSigner(true)); });
    FailAllocations(kRefused);
}

// The CA that the root revoked stands between root and signer.
TEST_F(AttackedChecker, WithoutMemoryRefusesASignerBelowARevokedCa)
{
    Package([] {
        DemoPki pki = Pki();
        const Bytes clean = pki.Crls();
        pki.rootCrl.revoked = {{pki.signingCa.serial}};
        return Signed(DemoCms(pki), Cat(clean, Build(pki.rootCrl)));
    });
    FailAllocations(kRefused);
}

TEST_F(AttackedChecker, WithoutMemoryRefusesTheBadOneOfTwoSigners)
{
    Package([] {
        CmsSpec cms = DemoCms(Pki());
        cms.signers.push_back(cms.signers[0]);
        cms.signers[0].brokenSignature = true;
        cms.signers[1].hash = Hash::Sha512;
        return Signed(cms);
    });
    FailAllocations(kRefused);
}

// What the strict checker alone refuses.
int StrictlyRefused()
{
    return IsStrict() ? kNotStrict : kAccepted;
}

TEST_F(AttackedChecker, WithoutMemoryRefusesATimestampThatNobodySigned)
{
    Package([] {
        TokenSpec token = DemoToken(Pki());
        token.cms.signers.clear();
        return Signed(DemoCms(Pki(), token));
    });
    FailAllocations(StrictlyRefused());
}

TEST_F(AttackedChecker, WithoutMemoryRefusesSeveralSignersWithoutAttributes)
{
    Package([] {
        CmsSpec cms = Direct(DemoCms(Pki()));
        cms.signers.push_back(cms.signers[0]);
        return Signed(cms);
    });
    FailAllocations(StrictlyRefused());
}

TEST_F(AttackedChecker, WithoutMemoryRefusesSignedAttributesReplayedAsAPayload)
{
    Package([] {
        const Bytes genuine = DetachedCms(kPayload, DemoCms(Pki()));
        const Bytes attributes = Set(Content(genuine, {1, 0, 4, 0, 3}));
        return SignedPackage(attributes, Replace(genuine, {1, 0, 4, 0, 3}, {}), Pki().Crls());
    });
    FailAllocations(StrictlyRefused());
}

// ---- The work of several verifications in one process

PELNIC_ERROR_CODE InitThatSucceeds(PELNIC_CRYPTO_VRF_CTX, const PELNIC_BIGINT*, const PELNIC_BIGINT*, PNV_UINT32)
{
    return 0;
}

class LimitedWork {
public:
    LimitedWork()
    {
        table_.crypt_funcs.pelnic_verify_init = InitThatSucceeds;
        pkgcheck_limit_work(&table_);
    }
    // A key's exponent, as the library hands it over.
    PELNIC_ERROR_CODE Init(const Bytes& exponent)
    {
        PELNIC_BIGINT e{};
        std::copy(exponent.begin(), exponent.end(), e.aVal);
        e.uiLength = static_cast<PNV_UINT32>(exponent.size());
        return table_.crypt_funcs.pelnic_verify_init(nullptr, &e, nullptr, AOID_SHA256);
    }

private:
    PELNIC_CALLBACK_FUNCS table_{};
};

TEST(LimitedWork, OfTheOrdinaryCheckerHasNoLimit)
{
    if (IsStrict()) return;
    LimitedWork work;
    for (const Bytes& exponent : {Bytes{0x01}, Bytes(9, 0x01)}) EXPECT_EQ(work.Init(exponent), 0u);
    EXPECT_EQ(pkgcheck_work_refusal(), nullptr);
}

TEST(LimitedWork, OfTheStrictCheckerStopsAtWeakAndLongExponents)
{
    if (!IsStrict()) return;
    const std::vector<std::pair<Bytes, const char*>> cases = {
        {{}, "an RSA exponent is below 3"},
        {{0x00}, "an RSA exponent is below 3"},
        {{0x01}, "an RSA exponent is below 3"},
        {{0x02}, "an RSA exponent is below 3"},
        {{0x00, 0x00, 0x02}, "an RSA exponent is below 3"},
        {{0x03}, nullptr},
        {{0x00, 0x03}, nullptr},
        {{0x01, 0x01}, nullptr},
        {{0x01, 0x00}, nullptr},
        {Bytes(8, 0xFF), nullptr},
        {Bytes(9, 0x01), "an RSA exponent has more than 64 bits"},
    };
    for (const auto& [exponent, refusal] : cases) {
        SCOPED_TRACE(testing::PrintToString(exponent));
        LimitedWork work; // anew: what stopped the one before is forgotten
        EXPECT_EQ(work.Init(exponent), refusal == nullptr ? 0u : PELNIC_ERR_FAILED);
        EXPECT_STREQ(pkgcheck_work_refusal(), refusal);
        EXPECT_EQ(work.Init({0x03}), refusal == nullptr ? 0u : PELNIC_ERR_FAILED); // nothing more is asked
        EXPECT_STREQ(pkgcheck_work_refusal(), refusal);
    }
}

TEST(LimitedWork, OfTheStrictCheckerIsAThousandChecksEachTime)
{
    if (!IsStrict()) return;
    for (int time = 0; time < 2; ++time) {
        LimitedWork work;
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(work.Init({0x03}), 0u);
        EXPECT_EQ(pkgcheck_work_refusal(), nullptr);
        EXPECT_EQ(work.Init({0x03}), PELNIC_ERR_FAILED);
        EXPECT_STREQ(pkgcheck_work_refusal(), "there are more than 1000 signatures to check");
    }
}

// ---- Without memory, packages without a signature

PackageSpec OneSubFile()
{
    PackageSpec package;
    package.subFiles = {{subfile::payload, kPayload}};
    return package;
}

TEST_F(AttackedChecker, WithoutMemoryForThePackageRefusesIt)
{
    Package(OneSubFile);
    EXPECT_EQ(Run({}).status, StrictlyRefused());
    EXPECT_EQ(Run({1, FaultMode::Once}).status, kRefused); // the first allocation is the package's
    Package(Good);
    EXPECT_EQ(Run({1, FaultMode::Once}).status, kRefused);
}

TEST_F(AttackedChecker, WithoutMemoryRefusesPackagesWithoutSignature)
{
    Package(OneSubFile);
    FailAllocations(StrictlyRefused());
    Package([] { return SignedPackage(kPayload, {}, Pki().Crls()); });
    FailAllocations(StrictlyRefused());
}

// ---- While the file changes

constexpr off_t kHeader = 352;

void ShrinkByOne(int fd)
{
    const off_t length = lseek(fd, 0, SEEK_END);
    lseek(fd, 0, SEEK_SET);
    if (truncate(("/proc/self/fd/" + std::to_string(fd)).c_str(), length - 1) != 0) std::abort();
}

void ShrinkToTheHeader(int fd)
{
    if (truncate(("/proc/self/fd/" + std::to_string(fd)).c_str(), kHeader) != 0) std::abort();
}

void ShrinkToNothing(int fd)
{
    if (truncate(("/proc/self/fd/" + std::to_string(fd)).c_str(), 0) != 0) std::abort();
}

void Grow(int fd)
{
    std::FILE* const file = std::fopen(("/proc/self/fd/" + std::to_string(fd)).c_str(), "a");
    if (file == nullptr || std::fputs("more", file) < 0 || std::fclose(file) != 0) std::abort();
}

// Makes the package one of a single sub-file, which nobody need sign.
void DropTheSignature(int fd)
{
    std::FILE* const file = std::fopen(("/proc/self/fd/" + std::to_string(fd)).c_str(), "r+");
    const std::uint8_t one[] = {0, 0, 0, 1};
    if (file == nullptr || std::fseek(file, 16, SEEK_SET) != 0 || std::fwrite(one, 1, 4, file) != 4) std::abort();
    if (std::fclose(file) != 0) std::abort();
}

void DamageThePayload(int fd)
{
    std::FILE* const file = std::fopen(("/proc/self/fd/" + std::to_string(fd)).c_str(), "r+");
    if (file == nullptr || std::fseek(file, kHeader, SEEK_SET) != 0 || std::fputc('A', file) == EOF) std::abort();
    if (std::fclose(file) != 0) std::abort();
}

TEST_F(AttackedChecker, RefusesAFileThatShrinksWhileItIsRead)
{
    for (auto shrink : {ShrinkByOne, ShrinkToTheHeader, ShrinkToNothing}) {
        Package(Good);
        EXPECT_EQ(Run({0, FaultMode::Once, shrink}).status, kRefused);
    }
}

// The rest is there for whoever asks once more.
TEST_F(AttackedChecker, RefusesAShortReadAndAsksForNoMore)
{
    Package(Good);
    for (std::size_t withheld : {1u, 1000u}) {
        EXPECT_EQ(Run({0, FaultMode::Once, nullptr, nullptr, withheld}).status, kRefused);
    }
}

TEST_F(AttackedChecker, JudgesAFileThatGrowsByWhatItWas)
{
    Package(Good);
    EXPECT_EQ(Run({0, FaultMode::Once, Grow}).status, kAccepted);
    Package([] { return Signed(DemoCms(Pki()), CrlsRevokingTheSigner(false)); });
    EXPECT_EQ(Run({0, FaultMode::Once, Grow}).status, kRefused);
}

TEST_F(AttackedChecker, JudgesAFileThatChangesByWhatItRead)
{
    Package(Good);
    EXPECT_EQ(Run({0, FaultMode::Once, DamageThePayload}).status, kRefused);
    Package(Good);
    EXPECT_EQ(Run({0, FaultMode::Once, nullptr, DamageThePayload}).status, kAccepted);
    Package([] { return Signed(DemoCms(Pki()), CrlsRevokingTheSigner(false)); });
    EXPECT_EQ(Run({0, FaultMode::Once, nullptr, DropTheSignature}).status, kRefused);
}

} // namespace
} // namespace pnvtest
