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

// ---- Over a table of the test ----

CallbackPlan* g_plan = nullptr;

PELNIC_ERROR_CODE Over(CallbackPlan& plan, const Case& input)
{
    g_plan = &plan;
    const PELNIC_VERIFY_SIGNATURE_S sig = RecordOf(input);
    const auto give = [](PELNIC_CALLBACK_FUNCS* funcs) -> PELNIC_ERROR_CODE {
        *funcs = g_plan->Table();
        return 0;
    };
    return Pelnic_Verify_Signature_Over(give, &sig, nullptr);
}

TEST(VerifySignature, ReturnsTheCodeOfAContextThatCannotBeCreated)
{
    const Case input = cases::Good();
    CallbackPlan plan;
    const PELNIC_CALLBACK_FUNCS complete = plan.Table();
    plan.Table().st_size = 0;
    EXPECT_EQ(Over(plan, input), PELNIC_ERR_INVALID_SIZE);
    plan.Table() = complete;
    plan.Table().plt_funcs.sys_funcs.file_funcs.fread = nullptr;
    EXPECT_EQ(Over(plan, input), PELNIC_ERR_CALLBACK_MISSING);
    plan.Table() = complete;
    plan.Fail(Call::Memset, 1);
    EXPECT_EQ(Over(plan, input), PELNIC_ERR_SYS_MEM_SET);
    plan.Fail(Call::Malloc, 2);
    EXPECT_EQ(Over(plan, input), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(plan.Logs().empty()) << "there is no context to log in";
    ExpectNoProblems(plan);
}

struct FailingStep {
    const char* function; // which logs it last
    Case input;
    PELNIC_ERROR_CODE rc;
};

// Neither is a later step run, nor anything left behind, with or without a sanitizer to see it.
TEST(VerifySignature, GivesEverythingBackWhicheverStepFails)
{
    const Bytes nothing(38, 0x00);
    Case noRoot = cases::Good();
    noRoot.anchors.root = nothing;
    Case noCrl = cases::Good();
    noCrl.anchors.crls = nothing;
    Case noSigner = cases::Good();
    CmsSpec cms = FlatCms(FlatPki());
    cms.signers.clear();
    noSigner.signature = DetachedCms(noSigner.content, cms);
    for (const FailingStep& step :
         {FailingStep{"pelnic_verify_add_cert", noRoot, PELNIC_ERR_CERT_INVALID},
          FailingStep{"pelnic_verify_add_crl", noCrl, PELNIC_ERR_CRL_DECODE},
          FailingStep{"pelnic_verify_detach_signature_begin", cases::RevokedSigner(), PELNIC_ERR_CERT_VERIFY},
          FailingStep{"pelnic_verify_detach_signature_update", noSigner, PELNIC_ERR_CMS_NOT_BEGUN}}) {
        SCOPED_TRACE(step.function);
        CallbackPlan plan;
        EXPECT_EQ(Over(plan, step.input), step.rc);
        ASSERT_FALSE(plan.Logs().empty());
        EXPECT_EQ(plan.Logs().back().function, step.function);
        ExpectNoProblems(plan);
    }
}

TEST(VerifySignature, GivesEverythingBackAfterItsLastStep)
{
    CallbackPlan plan;
    EXPECT_EQ(Over(plan, cases::Good()), 0u);
    const std::size_t last = plan.Count(Call::MdFinal);
    EXPECT_EQ(Over(plan, cases::OtherContent(cases::Good())), PELNIC_ERR_FAILED);
    EXPECT_TRUE(plan.Logs().empty());
    plan.Fail(Call::MdFinal, last);
    EXPECT_EQ(Over(plan, cases::Good()), PELNIC_ERR_FAILED);
    ASSERT_FALSE(plan.Logs().empty());
    EXPECT_EQ(plan.Logs().back().function, "pelnic_verify_detach_signature_final");
    ExpectNoProblems(plan);
}

PELNIC_CALLBACK_FUNCS g_defaults;
std::size_t g_answersBefore = 0; // until the crypto library gives this one
PNV_INT g_answer = 0;

PELNIC_ERROR_CODE Answer(PELNIC_CRYPTO_VRF_CTX vrf, const PNV_BYTE* signature, PNV_UINT32 length, PNV_INT* result)
{
    const PELNIC_ERROR_CODE rc = g_defaults.crypt_funcs.pelnic_verify_final(vrf, signature, length, result);
    if (g_answersBefore-- == 0) *result = g_answer;
    return rc;
}

// The signature over the content is the last that is checked, and its verdict is the crypto library's own.
TEST(VerifySignature, AcceptsTheVerdict1Only)
{
    const Case input = cases::GoodDirect();
    CallbackPlan counting;
    EXPECT_EQ(Over(counting, input), 0u);
    const std::size_t checks = counting.Count(Call::VerifyFinal);
    const PELNIC_VERIFY_SIGNATURE_S sig = RecordOf(input);
    const auto give = [](PELNIC_CALLBACK_FUNCS* funcs) -> PELNIC_ERROR_CODE {
        const PELNIC_ERROR_CODE rc = pelnic_set_callback_funcs(funcs);
        g_defaults = *funcs;
        funcs->crypt_funcs.pelnic_verify_final = Answer;
        return rc;
    };
    for (PNV_INT answer : {1, 0, 2, 3, -1, 0x100, 0x101, INT32_MAX, INT32_MIN}) {
        g_answersBefore = checks - 1;
        g_answer = answer;
        EXPECT_EQ(Pelnic_Verify_Signature_Over(give, &sig, nullptr), answer == 1 ? 0u : PELNIC_ERR_FAILED) << answer;
    }
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
