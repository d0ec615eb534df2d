// That the other tests of this program are on mbedTLS.
#include <gtest/gtest.h>

#include "examples/callbacks/mbedtls_crypto.h"

namespace {

TEST(OnMbedtls, AreTheDefaultCallbacks)
{
    PELNIC_CALLBACK_FUNCS defaults{};
    PELNIC_CALLBACK_FUNCS expected{};
    ASSERT_EQ(pelnic_set_callback_funcs(&defaults), 0u);
    mbedtls_crypto(&expected);
    EXPECT_EQ(defaults.md_funcs.pelnic_md_init, expected.md_funcs.pelnic_md_init);
    EXPECT_EQ(defaults.crypt_funcs.pelnic_verify_final, expected.crypt_funcs.pelnic_verify_final);
}

} // namespace
