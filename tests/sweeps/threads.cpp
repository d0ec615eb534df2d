// Contexts on several threads, side by side and beside other work with libcrypto, in a program of its own that
// build_test.sh builds with ThreadSanitizer. It also runs without.
#include "support/signature_cases.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <atomic>
#include <thread>

namespace pnvtest {
namespace {

// On the default callbacks, as a program uses them.
Verdict Judge(const Case& input)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof params;
    PELNIC_VRF_CTX ctx = nullptr;
    if (pelnic_set_callback_funcs(&params.callback_funcs) != 0) return {PELNIC_ERR_FAILED, 0};
    PELNIC_ERROR_CODE rc = pelnic_verify_create_ctx(&ctx, &params);
    if (rc != 0) return {rc, 0};
    rc = pelnic_verify_add_cert(ctx, input.anchors.root.data(), Len(input.anchors.root));
    if (rc == 0) rc = pelnic_verify_add_crl(ctx, input.anchors.crls.data(), Len(input.anchors.crls));
    const Verdict verdict = rc == 0 ? Verify(ctx, input.signature, input.content) : Verdict{rc, 0};
    (void)pelnic_vrf_ctx_free(ctx);
    return verdict;
}

// Another user of libcrypto: digests, while an error of its own waits in its thread's queue.
bool DigestsBesideAnError()
{
    constexpr int kReason = 77;
    ERR_raise(ERR_LIB_USER, kReason);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    const bool digested = EVP_Digest("abc", 3, digest, &length, EVP_sha256(), nullptr) == 1 && length == 32;
    const unsigned long error = ERR_get_error();
    return digested && digest[0] == 0xBA && ERR_GET_LIB(error) == ERR_LIB_USER && ERR_GET_REASON(error) == kReason;
}

TEST(Threads, HaveContextsSideBySideAndOtherWorkBeside)
{
    constexpr int kVerifiers = 4;
    constexpr int kVerifications = 25;
    const Case goodOne = cases::Good();
    const Case revoked = cases::RevokedSigner();
    std::atomic<int> wrong{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> verifiers;
    std::vector<std::thread> others;
    for (int i = 0; i < 2; ++i) {
        others.emplace_back([&] {
            while (!done) wrong += DigestsBesideAnError() ? 0 : 1;
        });
    }
    for (int i = 0; i < kVerifiers; ++i) {
        verifiers.emplace_back([&] {
            for (int n = 0; n < kVerifications; ++n) {
                wrong += Judge(goodOne) == good ? 0 : 1;
                wrong += Judge(revoked) == Verdict{PELNIC_ERR_CERT_VERIFY, 0} ? 0 : 1;
            }
        });
    }
    for (std::thread& verifier : verifiers) verifier.join();
    done = true;
    for (std::thread& other : others) other.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
} // namespace pnvtest
