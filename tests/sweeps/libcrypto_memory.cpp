// The checker's main job while libcrypto gets no memory: its n-th allocation in the life of the process fails, once and
// from there on, that of its initialization included. A program of its own, because libcrypto takes another allocator
// only before it has used its own; and each run is a process of its own, forked before libcrypto has done anything.
#include "support/effort.h"
#include "support/signature_cases.h"
#include "support/temp_dir.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

// Of the coverage build alone: _exit writes no counters.
extern "C" void __gcov_dump() __attribute__((weak));

namespace pnvtest {
namespace {

// ---- libcrypto's allocator ----

struct Shortage {
    std::size_t nth = 0; // 0: never
    FaultMode mode = FaultMode::Once;
    bool whileVerifying = false; // counts only what is asked for while a signature is checked
    bool hasOldError = false;    // before each check: of another signature, by the host
    bool verifying = false;
    std::size_t asked = 0;

    bool Denies()
    {
        if (whileVerifying && !verifying) return false;
        ++asked;
        return nth != 0 && (mode == FaultMode::Once ? asked == nth : asked >= nth);
    }
    bool Met() const { return nth != 0 && asked >= nth; }
};
Shortage g_shortage;

void* Allocate(std::size_t size, const char*, int)
{
    return g_shortage.Denies() ? nullptr : std::malloc(size);
}

void* Reallocate(void* block, std::size_t size, const char*, int)
{
    return g_shortage.Denies() ? nullptr : std::realloc(block, size);
}

void Release(void* block, const char*, int)
{
    std::free(block);
}

// ---- One run ----

// What a forked process says with its exit status.
enum Finding { Accepted = 1, Met = 2, Problems = 4 };

pfunc_pelnic_verify_final g_verifyFinal;

PELNIC_ERROR_CODE VerifyFinal(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 len, PNV_INT* result)
{
    if (g_shortage.hasOldError) ERR_raise(ERR_LIB_RSA, RSA_R_BAD_SIGNATURE);
    g_shortage.verifying = true;
    const PELNIC_ERROR_CODE rc = g_verifyFinal(ctx, signature, len, result);
    g_shortage.verifying = false;
    return rc;
}

bool IsAccepted(CallbackPlan& plan, const Case& input)
{
    g_verifyFinal = std::exchange(plan.Table().crypt_funcs.pelnic_verify_final, VerifyFinal);
    const Context ctx(plan);
    const Anchors& anchors = input.anchors;
    return ctx.Record() != nullptr && pelnic_verify_add_cert(ctx, anchors.root.data(), Len(anchors.root)) == 0 &&
           pelnic_verify_add_crl(ctx, anchors.crls.data(), Len(anchors.crls)) == 0 &&
           Verify(ctx, input.signature, input.content) == good;
}

int Findings(const Case& input, const Shortage& shortage)
{
    g_shortage = shortage;
    CallbackPlan plan;
    int findings = IsAccepted(plan, input) ? Accepted : 0;
    if (g_shortage.Met()) findings |= Met;
    if (!plan.Problems().empty()) findings |= Problems;
    return findings;
}

// The exit status of a forked process that runs the function, or 128 and more when it crashed.
template <typename Function> int InChild(Function function)
{
    const pid_t child = fork();
    if (child == 0) {
        const int finding = function();
        if (__gcov_dump != nullptr) __gcov_dump();
        _exit(finding);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Builds the case, with libcrypto, in a child.
Case MadeElsewhere(Case (*make)())
{
    const TempDir dir;
    EXPECT_EQ(InChild([&] {
                  const Case input = make();
                  dir.Write("root", input.anchors.root);
                  dir.Write("crls", input.anchors.crls);
                  dir.Write("signature", input.signature);
                  dir.Write("content", input.content);
                  return 0;
              }),
              0);
    const auto part = [&](const char* name) { return ReadWholeFile(dir.Path(name)); };
    return {"", {part("root"), part("crls")}, part("signature"), part("content")};
}

// ---- The sweep ----

class LibcryptoMemory : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(CRYPTO_set_mem_functions(Allocate, Reallocate, Release), 1) << "libcrypto was used before";
    }

    static void Sweep(Case (*make)(), bool isGood, bool whileVerifying = false, bool hasOldError = false)
    {
        const Case input = MadeElsewhere(make);
        EXPECT_EQ(InChild([&] { return Findings(input, {}); }), isGood ? Accepted : 0);
        std::size_t faults = 0;
        for (FaultMode mode : {FaultMode::Once, FaultMode::Onward}) {
            for (std::size_t nth = 1;; nth += LongForm() || whileVerifying || nth < kAll ? 1 : kStep) {
                SCOPED_TRACE(::testing::Message()
                             << "allocation " << nth << (mode == FaultMode::Once ? "" : " and on"));
                const int findings = InChild([&] { return Findings(input, {nth, mode, whileVerifying, hasOldError}); });
                ASSERT_TRUE((findings & ~(Accepted | Met)) == 0) << findings;
                ASSERT_TRUE(isGood || (findings & Accepted) == 0);
                if ((findings & Met) == 0) break;
                ++faults;
            }
        }
        Report("allocations of libcrypto that failed", faults);
    }

    // libcrypto's own beginnings, and a sample of what follows.
    static constexpr std::size_t kAll = 60;
    static constexpr std::size_t kStep = 97;
};

TEST_F(LibcryptoMemory, FailsWithAGoodSignature)
{
    Sweep(cases::Good, true);
}

TEST_F(LibcryptoMemory, FailsWithARevokedSigner)
{
    Sweep(cases::RevokedSigner, false);
}

// A CRL whose signature seems bad for want of memory would be passed over, and the other one does not revoke.
TEST_F(LibcryptoMemory, FailsWithOneOfTwoCrlsRevoking)
{
    Sweep(cases::RevokedByOneOfTwoCrls, false);
}

TEST_F(LibcryptoMemory, FailsWhileTheSignaturesOfTwoCrlsAreChecked)
{
    Sweep(cases::RevokedByOneOfTwoCrls, false, true);
}

// Nor is it passed over for an error that was there before.
TEST_F(LibcryptoMemory, FailsWhereTheHostHasLeftAnError)
{
    Sweep(cases::RevokedByOneOfTwoCrls, false, true, true);
}

// What the library asks of libcrypto holds for the whole process: whoever else is in it still finds ciphers and digests
// by their names, and the texts of errors.
TEST_F(LibcryptoMemory, LeavesLibcryptoToTheHostAsItWas)
{
    const Case input = MadeElsewhere(cases::Good);
    EXPECT_EQ(InChild([&] {
                  CallbackPlan plan;
                  const bool accepted = IsAccepted(plan, input);
                  const bool named = EVP_get_cipherbyname("AES-128-CBC") != nullptr &&
                                     EVP_get_digestbyname("SHA1") != nullptr &&
                                     OBJ_nid2sn(OBJ_sn2nid("SHA256")) == std::string("SHA256") &&
                                     ERR_reason_error_string(ERR_PACK(ERR_LIB_RSA, 0, RSA_R_BAD_SIGNATURE)) != nullptr;
                  return accepted && named ? Accepted : 0;
              }),
              Accepted);
}

TEST_F(LibcryptoMemory, FailsWithOtherContent)
{
    Sweep([] { return cases::OtherContent(cases::Good()); }, false);
}

} // namespace
} // namespace pnvtest
