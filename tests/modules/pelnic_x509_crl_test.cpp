// Questions to a CRL: is it indirect, why was an entry revoked.
#include "cmsverify/pelnic_x509_crl.h"

#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

namespace pnvtest {
namespace {

// ---- Indirect CRLs ----

struct Indirectness {
    PELNIC_ERROR_CODE rc = 0;
    PNV_BOOL value = 0x77777777;
};

Indirectness IsIndirect(const PELNIC_VRF* vrf, const PELNIC_X509_CRL* crl)
{
    Indirectness answer;
    answer.rc = pelnic_x509_crl_is_indirect(vrf, crl, &answer.value);
    return answer;
}

class IndirectCrl : public ::testing::Test {
protected:
    // A CRL whose issuing distribution point has this value.
    static CrlSpec WithPoint(const Bytes& value)
    {
        CrlSpec spec = CrlOf(Root());
        spec.extensions.push_back(Ext(oid::issuingDistributionPoint, value, true));
        return spec;
    }
    void Expect(const CrlSpec& spec, PELNIC_ERROR_CODE rc, PNV_BOOL value)
    {
        const OwnedCrl crl = DecodeCrl(vrf_, Build(spec));
        const Indirectness answer = IsIndirect(vrf_, crl.get());
        EXPECT_EQ(answer.rc, rc);
        EXPECT_EQ(answer.value, value);
    }
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    Vrf vrf_;
};

TEST_F(IndirectCrl, IsOneThatSaysSo)
{
    Expect(Indirect(CrlOf(Root())), 0, 1);
    Expect(WithPoint(Seq(CtxPrim(4, {0x01}))), 0, 1);
    Expect(WithPoint(Seq(CtxPrim(1, {0xFF}), CtxPrim(4, {0xFF}), CtxPrim(5, {0xFF}))), 0, 1);
}

TEST_F(IndirectCrl, IsNotOneThatDoesNot)
{
    Expect(WithPoint(Seq()), 0, 0);
    Expect(WithPoint(Seq(CtxPrim(4, {0x00}))), 0, 0);
    Expect(WithPoint(Seq(CtxPrim(1, {0xFF}), CtxPrim(2, {0xFF}), CtxPrim(5, {0xFF}))), 0, 0);
}

TEST_F(IndirectCrl, WithoutADistributionPointIsNeither)
{
    Expect(CrlOf(Root()), PELNIC_ERR_CRL_NO_IDP, 0);
    Expect(With(CrlOf(Root()), &CrlSpec::extensions, std::vector<Bytes>{}), PELNIC_ERR_CRL_NO_IDP, 0);
}

TEST_F(IndirectCrl, WithAnUndecodableDistributionPointIsNeither)
{
    Expect(WithPoint(Null()), PELNIC_ERR_ASN_DECODE, 0);
    Expect(WithPoint(Seq(CtxPrim(4, {0xFF, 0xFF}))), PELNIC_ERR_ASN_DECODE, 0);
}

TEST_F(IndirectCrl, ResultIsFalseBeforeAnythingCanFail)
{
    const OwnedCrl crl = DecodeCrl(vrf_, Build(Indirect(CrlOf(Root()))));
    for (const Indirectness& answer : {IsIndirect(vrf_, nullptr), IsIndirect(nullptr, crl.get())}) {
        EXPECT_EQ(answer.rc, PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(answer.value, 0u);
    }
    EXPECT_EQ(pelnic_x509_crl_is_indirect(vrf_, crl.get(), nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST(IndirectCrlFaults, ReleasesEverythingWhicheverCallFails)
{
    SweepFaults(
        Call::Malloc | calls::copies,
        [](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedCrl crl;
            plan.WithoutFaults([&] { crl = DecodeCrl(vrf, Build(Indirect(CrlOf(Root())))); });
            const Indirectness answer = IsIndirect(vrf, crl.get());
            EXPECT_EQ(answer.value, answer.rc == 0 ? 1u : 0u);
            return answer.rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc, run.met ? PELNIC_ERR_ASN_DECODE : 0u); });
}

// ---- Reasons ----

class RevocationReason : public ::testing::Test {
protected:
    OwnedItem<PELNIC_X509_REVOKED_ENTRY_item> DecodeEntry(const Bytes& extensions)
    {
        return DecodeItem<PELNIC_X509_REVOKED_ENTRY_item>(vrf_, Seq(Int(0x21), UtcTime("250601000000Z"), extensions));
    }
    // Of an entry with these extensions.
    PELNIC_ERROR_CODE Get(const Bytes& extensions)
    {
        return pelnic_x509_revoke_entry_get_reason(vrf_, DecodeEntry(extensions).get(), &reason_);
    }
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    Vrf vrf_;
    PELNIC_X509_REVOKE_REASON reason_ = RVRS_AACOMPROMISE;
};

TEST_F(RevocationReason, IsTheEnumeratedValue)
{
    for (PNV_INT32 code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, -1, 0x7FFFFFFF}) {
        EXPECT_EQ(Get(Seq(Ext(oid::crlReason, Enum(code)))), 0u);
        EXPECT_EQ(PNV_INT32{reason_}, code);
    }
}

TEST_F(RevocationReason, MayStandBehindOtherExtensions)
{
    EXPECT_EQ(Get(Seq(Ext(oid::subjectAltName, Null()), Ext(oid::crlReason, Enum(4)))), 0u);
    EXPECT_EQ(reason_, RVRS_SUPERSEDED);
}

TEST_F(RevocationReason, IsNoneWithoutTheExtension)
{
    for (const Bytes& extensions : {Bytes{}, Seq(), Seq(Ext(oid::subjectAltName, Null()))}) {
        reason_ = RVRS_AACOMPROMISE;
        EXPECT_EQ(Get(extensions), 0u);
        EXPECT_EQ(reason_, RVRS_NONE);
    }
}

TEST_F(RevocationReason, RefusesAnythingButAnEnumeratedValue)
{
    EXPECT_EQ(Get(Seq(Ext(oid::crlReason, Int(1)))), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Get(Seq(Ext(oid::crlReason, Tlv(0x0A, {})))), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Get(Seq(Ext(oid::crlReason, Tlv(0x0A, {0x00, 0x00, 0x00, 0x00, 0x01})))), PELNIC_ERR_ASN_DECODE);
}

TEST_F(RevocationReason, RefusesNull)
{
    const auto entry = DecodeEntry(Bytes{});
    EXPECT_EQ(pelnic_x509_revoke_entry_get_reason(nullptr, entry.get(), &reason_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_revoke_entry_get_reason(vrf_, nullptr, &reason_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_revoke_entry_get_reason(vrf_, entry.get(), nullptr), PELNIC_ERR_NULL_POINTER);
}

// Never mistaken for an entry without reason.
TEST(RevocationReasonFaults, ReleasesEverythingWhicheverCallFails)
{
    SweepFaults(
        Call::Malloc | calls::copies,
        [](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedItem<PELNIC_X509_REVOKED_ENTRY_item> entry;
            plan.WithoutFaults([&] {
                entry = DecodeItem<PELNIC_X509_REVOKED_ENTRY_item>(
                    vrf, Seq(Int(0x21), UtcTime("250601000000Z"), Seq(Ext(oid::crlReason, Enum(1)))));
            });
            PELNIC_X509_REVOKE_REASON reason = RVRS_NONE;
            const PELNIC_ERROR_CODE rc = pelnic_x509_revoke_entry_get_reason(vrf, entry.get(), &reason);
            EXPECT_EQ(reason, rc == 0 ? RVRS_KEYCOMPROMISE : RVRS_NONE);
            return rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc, run.met ? PELNIC_ERR_ASN_DECODE : 0u); });
}

// ---- Extensions by identifier ----

TEST(CrlExtension, IsFoundInsideTheRecord)
{
    Vrf vrf;
    const OwnedCrl crl = DecodeCrl(vrf, Build(Indirect(CrlOf(Root()))));
    const auto& list = crl->tbs_cert_list->extensions->extensions;
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, crl.get(), AOID_CE_AUTHORITYKEYIDENTIFIER), list.data[0]);
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, crl.get(), AOID_CE_ISSUINGDISTRIBUTIONPOINT), list.data[2]);
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, crl.get(), AOID_CE_KEYUSAGE), nullptr);
}

TEST(CrlExtension, IsNullWithoutWhatCouldHoldIt)
{
    Vrf vrf;
    const OwnedCrl crl = DecodeCrl(vrf, Build(CrlOf(Root())));
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(nullptr, crl.get(), AOID_CE_AUTHORITYKEYIDENTIFIER), nullptr);
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, nullptr, AOID_CE_AUTHORITYKEYIDENTIFIER), nullptr);
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, crl.get(), AOID_UNKNOWN), nullptr);

    const OwnedCrl bare = DecodeCrl(vrf, Build(With(CrlOf(Root()), &CrlSpec::extensions, std::vector<Bytes>{})));
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, bare.get(), AOID_CE_AUTHORITYKEYIDENTIFIER), nullptr);
    const PELNIC_X509_CRL empty{};
    EXPECT_EQ(pelnic_x509_crl_get_extn_by_aoid(vrf, &empty, AOID_CE_AUTHORITYKEYIDENTIFIER), nullptr);
}

} // namespace
} // namespace pnvtest
