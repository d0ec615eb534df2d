// The one call behind a verdict: its arguments, its callback table, and what the log of its caller gets.
#include "verify_signature.h"

#include "support/signature_cases.h"

#include <algorithm>

namespace pnvtest {
namespace {

std::vector<PELNIC_ERROR_CODE> g_logged;

void Note(PELNIC_LOG_TYPE, const PNV_CHAR*, PNV_INT, const PNV_CHAR*, PNV_THREAD_ID, PNV_TIME_T, PELNIC_ERROR_CODE rc,
          const PNV_CHAR*)
{
    g_logged.push_back(rc);
}

// The record keeps borrowing from the case.
PELNIC_VERIFY_SIGNATURE_S RecordOf(const Case& input)
{
    return {input.anchors.root.data(), Len(input.anchors.root), input.anchors.crls.data(), Len(input.anchors.crls),
            input.signature.data(),    Len(input.signature),    input.content.data(),      Len(input.content)};
}

TEST(VerifySignature, RefusesANullRecordOrPointer)
{
    EXPECT_EQ(Pelnic_Verify_Signature_Integrity(nullptr), PELNIC_ERR_FAILED);
    const Case good = cases::Good();
    const PELNIC_VERIFY_SIGNATURE_S complete = RecordOf(good);
    EXPECT_EQ(Pelnic_Verify_Signature_Integrity(&complete), 0u);
    for (const PNV_BYTE* PELNIC_VERIFY_SIGNATURE_S::*pointer :
         {&PELNIC_VERIFY_SIGNATURE_S::pCert, &PELNIC_VERIFY_SIGNATURE_S::pCrl, &PELNIC_VERIFY_SIGNATURE_S::pCms,
          &PELNIC_VERIFY_SIGNATURE_S::pBin}) {
        PELNIC_VERIFY_SIGNATURE_S sig = complete;
        sig.*pointer = nullptr;
        EXPECT_EQ(Pelnic_Verify_Signature_Integrity(&sig), PELNIC_ERR_FAILED);
    }
}

// The table's own code, whatever it is, and nothing is verified.
TEST(VerifySignature, ReturnsTheCodeOfACallbackTableThatFails)
{
    const Case good = cases::Good();
    const PELNIC_VERIFY_SIGNATURE_S sig = RecordOf(good);
    const auto failing = [](PELNIC_CALLBACK_FUNCS*) -> PELNIC_ERROR_CODE { return 0x1234; };
    g_logged.clear();
    EXPECT_EQ(Pelnic_Verify_Signature_Over(failing, &sig, Note), 0x1234u);
    EXPECT_TRUE(g_logged.empty());
    EXPECT_EQ(Pelnic_Verify_Signature_Over(failing, nullptr, Note), PELNIC_ERR_FAILED);
}

TEST(VerifySignature, TellsTheLogOfTheCallerWhyItRefuses)
{
    g_logged.clear();
    const Case revoked = cases::RevokedSigner();
    const PELNIC_VERIFY_SIGNATURE_S sig = RecordOf(revoked);
    const PELNIC_ERROR_CODE rc = Pelnic_Verify_Signature_Logged(&sig, Note);
    EXPECT_EQ(rc, Pelnic_Verify_Signature_Integrity(&sig));
    EXPECT_NE(rc, 0u);
    EXPECT_NE(std::find(g_logged.begin(), g_logged.end(), rc), g_logged.end());
}

} // namespace
} // namespace pnvtest
