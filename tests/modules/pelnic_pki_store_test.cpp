// The stores of certificates and CRLs: what goes in, where, how often, and who owns it.
#include "cmsverify/pelnic_pki_impl.h"

#include "support/stores.h"

#include <algorithm>

namespace pnvtest {
namespace {

// ---- The PKI object ----

TEST(PkiObject, BeginsEmpty)
{
    Vrf vrf;
    ASSERT_EQ(pelnic_pki_init(vrf), 0u);
    const auto* pki = static_cast<const PELNIC_PKI*>(vrf->pki_ctx);
    ASSERT_NE(pki, nullptr);
    EXPECT_EQ(pki->st_size, sizeof(PELNIC_PKI));
    EXPECT_EQ(pki->pki_store.local_store, nullptr);
    EXPECT_EQ(pki->pki_store.trust_store, nullptr);
    const auto* reserved = reinterpret_cast<const PNV_BYTE*>(&pki->pki_store.verify_param);
    EXPECT_TRUE(std::all_of(reserved, reserved + sizeof(PELNIC_PKI_VERIFY_PARAM), [](PNV_BYTE b) { return b == 0; }));
    pelnic_pki_uninit(vrf);
}

TEST(PkiObject, IsMissingAfterAFailure)
{
    SweepFaults(
        calls::copies | Call::Malloc,
        [](CallbackPlan& plan) {
            Vrf vrf(plan);
            const PELNIC_ERROR_CODE rc = pelnic_pki_init(vrf);
            EXPECT_EQ(vrf->pki_ctx == nullptr, rc != 0);
            pelnic_pki_uninit(vrf);
            return rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            const PELNIC_ERROR_CODE expected = run.nth == 1 ? PELNIC_ERR_SYS_MEM_ALLOC : injectedFault;
            EXPECT_EQ(rc, run.met ? expected : 0u);
        });
}

TEST(PkiObject, WithoutStoresIsOneBlock)
{
    Vrf vrf;
    ASSERT_EQ(pelnic_pki_init(vrf), 0u);
    EXPECT_EQ(vrf.Plan().LiveBlocks(), 1u);
    pelnic_pki_uninit(vrf);
    EXPECT_EQ(vrf.Plan().Count(Call::Free), 1u);
}

TEST(PkiObject, UninitLeavesTheHandleToTheContext)
{
    Vrf vrf;
    ASSERT_EQ(pelnic_pki_init(vrf), 0u);
    const PELNIC_PKI_CTX handle = vrf->pki_ctx;
    pelnic_pki_uninit(vrf);
    EXPECT_EQ(vrf->pki_ctx, handle);
}

TEST(PkiObject, UninitWithoutAnObjectDoesNothing)
{
    Vrf vrf;
    pelnic_pki_uninit(vrf);
    EXPECT_EQ(vrf.Plan().Count(Call::Free), 0u);
}

TEST(PkiObject, UninitGivesBackOneReferenceOfEachElement)
{
    Vrf vrf;
    ASSERT_EQ(pelnic_pki_init(vrf), 0u);
    const OwnedCert ca = DecodeCert(vrf, Build(Root()));
    const OwnedCert signer = DecodeCert(vrf, Build(Signer()));
    const OwnedCrl crl = DecodeCrl(vrf, Build(CrlOf(Root())));
    ASSERT_EQ(pelnic_pki_store_add_trust_cert(vrf, ca.get()), 0u);
    ASSERT_EQ(pelnic_pki_store_add_local_cert(vrf, signer.get()), 0u);
    ASSERT_EQ(pelnic_pki_store_add_crl(vrf, crl.get()), 0u);
    pelnic_pki_uninit(vrf);
    EXPECT_EQ(ca->iRef, 1);
    EXPECT_EQ(signer->iRef, 1);
    EXPECT_EQ(crl->iRef, 1);
}

// ---- The CA test ----

class CaTest : public StoresTest {
protected:
    struct Answer {
        PELNIC_ERROR_CODE rc;
        PNV_BOOL isCa;
        bool operator==(const Answer& other) const { return rc == other.rc && isCa == other.isCa; }
    };
    Answer Ask(const CertSpec& spec)
    {
        Answer answer{0, 0xA5A5A5A5};
        answer.rc = pelnic_pki_is_ca_cert(stores_, stores_.Cert(spec), &answer.isCa);
        return answer;
    }
    Answer AskWith(const std::optional<Bytes>& basicConstraints)
    {
        return Ask(With(Signer(), &CertSpec::basicConstraints, basicConstraints));
    }
};

TEST_F(CaTest, RefusesNullArguments)
{
    PNV_BOOL isCa = 0;
    EXPECT_EQ(pelnic_pki_is_ca_cert(nullptr, stores_.Cert(Root()), &isCa), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_pki_is_ca_cert(stores_, nullptr, &isCa), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_pki_is_ca_cert(stores_, stores_.Cert(Root()), nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(CaTest, RefusesVersionsThatHaveNoExtensions)
{
    EXPECT_EQ(Ask(Version1(Root())), (Answer{PELNIC_ERR_CERT_VERSION, 0}));
    EXPECT_EQ(Ask(With(Root(), &CertSpec::version, 1)), (Answer{PELNIC_ERR_CERT_VERSION, 0}));
    EXPECT_EQ(Ask(With(Root(), &CertSpec::version, 2)), (Answer{PELNIC_ERR_CERT_VERSION, 0}));
}

TEST_F(CaTest, TakesLaterVersions)
{
    EXPECT_EQ(Ask(With(Root(), &CertSpec::version, 4)), (Answer{0, 1}));
}

TEST_F(CaTest, SaysNoWithoutBasicConstraints)
{
    EXPECT_EQ(AskWith(std::nullopt), (Answer{0, 0}));
}

TEST_F(CaTest, SaysWhatBasicConstraintsSay)
{
    EXPECT_EQ(AskWith(NotCa()), (Answer{0, 0}));
    EXPECT_EQ(AskWith(Seq(Bool(false))), (Answer{0, 0}));
    EXPECT_EQ(AskWith(Ca()), (Answer{0, 1}));
    EXPECT_EQ(AskWith(Ca(0)), (Answer{0, 1}));
    EXPECT_EQ(AskWith(Seq(Tlv(0x01, {0x01}))), (Answer{0, 1})); // BER: any octet but zero is true
}

TEST_F(CaTest, SaysNoToConstraintsThatDoNotDecode)
{
    for (const Bytes& garbage :
         {Null(), Bytes{}, Seq(Int(1), Bool(true)), Tlv(0x30, 9, Bool(true)), Seq(Bits(0, {}))}) {
        EXPECT_EQ(AskWith(garbage), (Answer{0, 0}));
    }
}

TEST_F(CaTest, TakesTheFirstOfTwoExtensions)
{
    const Bytes second = Ext(oid::basicConstraints, Ca(), true);
    EXPECT_EQ(Ask(With(Signer(), &CertSpec::extraExtensions, std::vector<Bytes>{second})), (Answer{0, 0}));
}

TEST(CaTestFaults, AreANo)
{
    SweepFaults(
        calls::copies | Call::Malloc,
        [](CallbackPlan& plan) {
            Stores stores(plan);
            PNV_BOOL isCa = 0xA5A5A5A5;
            EXPECT_EQ(pelnic_pki_is_ca_cert(stores, stores.Cert(Root()), &isCa), 0u);
            return isCa;
        },
        [](PNV_BOOL isCa, const FaultRun& run) { EXPECT_EQ(isCa, run.met ? 0u : 1u); });
}

// ---- What both certificate stores have in common ----

struct CertStore {
    const char* name;
    PELNIC_ERROR_CODE (*add)(const PELNIC_VRF*, PELNIC_X509_CERT*);
    const LIST_TYPE_PELNIC_X509_CERT& (Stores::*certs)() const;
};

class CertStores : public ::testing::TestWithParam<CertStore> {
protected:
    PELNIC_ERROR_CODE Add(PELNIC_X509_CERT* cert) { return GetParam().add(stores_, cert); }
    PELNIC_ERROR_CODE Add(const CertSpec& spec) { return Add(stores_.Cert(spec)); }
    const LIST_TYPE_PELNIC_X509_CERT& Certs() const { return (stores_.*GetParam().certs)(); }
    void TearDown() override { EXPECT_TRUE(plan_.Logs().empty()); }

    CleanPlan plan_;
    Stores stores_{plan_};
};
INSTANTIATE_TEST_SUITE_P(, CertStores,
                         ::testing::Values(CertStore{"Trust", &pelnic_pki_store_add_trust_cert, &Stores::TrustCerts},
                                           CertStore{"Local", &pelnic_pki_store_add_local_cert, &Stores::LocalCerts}),
                         [](const auto& store) { return store.param.name; });

TEST_P(CertStores, RefuseNoCertificate)
{
    EXPECT_EQ(Add(nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_P(CertStores, NeedAPkiObject)
{
    PELNIC_X509_CERT* ca = stores_.Cert(Root());
    const PELNIC_PKI_CTX pki = std::exchange(stores_->pki_ctx, nullptr);
    EXPECT_EQ(Add(ca), PELNIC_ERR_NO_PKI);
    EXPECT_EQ(Add(nullptr), PELNIC_ERR_NULL_POINTER);
    stores_->pki_ctx = pki;
    EXPECT_EQ(ca->iRef, 1);
}

TEST_P(CertStores, TakeAReferenceOfTheirOwn)
{
    PELNIC_X509_CERT* ca = stores_.Cert(Root());
    EXPECT_EQ(Add(ca), 0u);
    ASSERT_EQ(Certs().num, 1u);
    EXPECT_EQ(Certs().data[0], ca);
    EXPECT_EQ(ca->iRef, 2);
}

TEST_P(CertStores, ComeIntoBeingOneByOne)
{
    ASSERT_EQ(Add(Root()), 0u);
    EXPECT_EQ(stores_.TrustCerts().num + stores_.LocalCerts().num, 1u);
    EXPECT_EQ(stores_.Store().trust_store == nullptr, stores_.Store().local_store != nullptr);
}

TEST_P(CertStores, KeepTheOrderOfTheAdds)
{
    std::vector<PELNIC_X509_CERT*> added;
    for (std::uint8_t serial = 9; serial > 0; --serial) {
        added.push_back(stores_.Cert(With(Root(), &CertSpec::serial, Bytes{serial})));
        ASSERT_EQ(Add(added.back()), 0u);
    }
    EXPECT_EQ(std::vector<PELNIC_X509_CERT*>(Certs().data, Certs().data + Certs().num), added);
}

TEST_P(CertStores, RefuseTheSameCertificateAgain)
{
    PELNIC_X509_CERT* ca = stores_.Cert(Root());
    ASSERT_EQ(Add(ca), 0u);
    EXPECT_EQ(Add(ca), PELNIC_ERR_CERT_DUPLICATE);
    EXPECT_EQ(Certs().num, 1u);
    EXPECT_EQ(ca->iRef, 2);
}

TEST_P(CertStores, RefuseWhatAgreesInIssuerSerialAndKey)
{
    ASSERT_EQ(Add(Root()), 0u);
    CertSpec lookalike = Root();
    lookalike.subject = TestName("Other");
    lookalike.notAfter = UtcTime("350101000000Z");
    lookalike.keyUsage = usage::crlSign;
    lookalike.hash = Hash::Sha512;
    PELNIC_X509_CERT* second = stores_.Cert(lookalike);
    EXPECT_EQ(Add(second), PELNIC_ERR_CERT_DUPLICATE);
    EXPECT_EQ(Certs().num, 1u);
    EXPECT_EQ(second->iRef, 1);
}

TEST_P(CertStores, TakeWhatDiffersInOneOfThem)
{
    ASSERT_EQ(Add(Root()), 0u);
    EXPECT_EQ(Add(With(Root(), &CertSpec::issuer, TestName("Other"))), 0u);
    EXPECT_EQ(Add(With(Root(), &CertSpec::serial, Bytes{0x7F})), 0u);
    EXPECT_EQ(Add(With(Root(), &CertSpec::key, KeyId::Rsa2048B)), 0u);
    EXPECT_EQ(Certs().num, 4u);
}

TEST_P(CertStores, TestAgainstEveryElement)
{
    ASSERT_EQ(Add(Root()), 0u);
    ASSERT_EQ(Add(SigningCa()), 0u);
    ASSERT_EQ(Add(TsaCa()), 0u);
    for (const CertSpec& again : {Root(), SigningCa(), TsaCa()}) EXPECT_EQ(Add(again), PELNIC_ERR_CERT_DUPLICATE);
    EXPECT_EQ(Certs().num, 3u);
}

TEST_P(CertStores, CompareSerialNumbersWithoutLeadingZeros)
{
    ASSERT_EQ(Add(With(Root(), &CertSpec::serial, Bytes{0x05})), 0u);
    EXPECT_EQ(Add(With(Root(), &CertSpec::serial, Bytes{0x00, 0x00, 0x05})), PELNIC_ERR_CERT_DUPLICATE);
}

// Of the key only the bits count, not the algorithm that they are for.
TEST_P(CertStores, CompareKeysByTheirBits)
{
    ASSERT_EQ(Add(Root()), 0u);
    const Bytes otherAlgorithm = Replace(Spki(KeyId::Rsa2048A), {0}, AlgoId(oid::rsaPss));
    EXPECT_EQ(Add(With(Root(), &CertSpec::subjectPublicKey, otherAlgorithm)), PELNIC_ERR_CERT_DUPLICATE);
}

TEST_P(CertStores, DoNotKnowOfEachOther)
{
    PELNIC_X509_CERT* ca = stores_.Cert(Root());
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, ca), 0u);
    EXPECT_EQ(pelnic_pki_store_add_local_cert(stores_, ca), 0u);
    EXPECT_EQ(ca->iRef, 3);
}

// The sixth certificate makes the list grow.
TEST(CertStoreFaults, ChangeNothing)
{
    for (auto add : {pelnic_pki_store_add_trust_cert, pelnic_pki_store_add_local_cert}) {
        for (PNV_UINT32 before : {0u, 5u}) {
            SweepFaults(
                calls::copies | Call::Malloc,
                [&](CallbackPlan& plan) {
                    Stores stores(plan);
                    PELNIC_X509_CERT* ca = stores.Cert(Root());
                    plan.WithoutFaults([&] {
                        for (PNV_UINT32 i = 0; i < before; ++i) {
                            const Bytes serial{0x77, static_cast<std::uint8_t>(i)};
                            EXPECT_EQ(add(stores, stores.Cert(With(Root(), &CertSpec::serial, serial))), 0u);
                        }
                    });
                    const PELNIC_ERROR_CODE rc = add(stores, ca);
                    EXPECT_EQ(ca->iRef, rc == 0 ? 2 : 1);
                    EXPECT_EQ(stores.TrustCerts().num + stores.LocalCerts().num, before + (rc == 0 ? 1u : 0u));
                    return rc;
                },
                [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
        }
    }
}

// ---- The trust store's own rule ----

using TrustStore = StoresTest;

TEST_F(TrustStore, TakesOnlyCas)
{
    for (const CertSpec& noCa :
         {Version1(Root()), With(Root(), &CertSpec::basicConstraints, std::nullopt),
          With(Root(), &CertSpec::basicConstraints, NotCa()), With(Root(), &CertSpec::basicConstraints, Null())}) {
        PELNIC_X509_CERT* cert = stores_.Cert(noCa);
        EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, cert), PELNIC_ERR_CERT_NOT_CA);
        EXPECT_EQ(cert->iRef, 1);
    }
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
}

TEST_F(TrustStore, TakesIntermediateCas)
{
    stores_.Trust(SigningCa());
    EXPECT_EQ(stores_.TrustCerts().num, 1u);
}

TEST_F(TrustStore, HasNoCrlListOfItsOwnAccord)
{
    stores_.Trust(Root());
    EXPECT_EQ(stores_.Crls().capacity, 0u);
}

using LocalStore = StoresTest;

TEST_F(LocalStore, TakesAnyCertificate)
{
    stores_.Local(Version1(Signer()));
    stores_.Local(With(Tsa(), &CertSpec::basicConstraints, std::nullopt));
    stores_.Local(Signer(KeyId::Rsa2048F));
    stores_.Local(Root());
    EXPECT_EQ(stores_.LocalCerts().num, 4u);
}

// What a store fails with when it cannot be made, and what its list fails with.
TEST(LocalStoreFaults, HaveTheCodesOfStoreAndList)
{
    const struct {
        Call kind;
        std::size_t nth;
        PELNIC_ERROR_CODE rc;
    } faults[] = {{Call::Malloc, 1, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Memset, 1, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Malloc, 2, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Memset, 2, injectedFault}};
    for (const auto& fault : faults) {
        CleanPlan plan;
        Stores stores(plan);
        PELNIC_X509_CERT* cert = stores.Cert(Signer());
        plan.Fail(fault.kind, fault.nth);
        EXPECT_EQ(pelnic_pki_store_add_local_cert(stores, cert), fault.rc);
        EXPECT_EQ(cert->iRef, 1);
    }
}

// ---- The CRL store ----

class CrlStore : public StoresTest {
protected:
    void TearDown() override { EXPECT_TRUE(plan_.Logs().empty()); }
    PELNIC_ERROR_CODE Add(PELNIC_X509_CRL* crl) { return pelnic_pki_store_add_crl(stores_, crl); }
};

TEST_F(CrlStore, RefusesNoCrl)
{
    EXPECT_EQ(Add(nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(CrlStore, NeedsAPkiObject)
{
    PELNIC_X509_CRL* crl = stores_.Crl(CrlOf(Root()));
    const PELNIC_PKI_CTX pki = std::exchange(stores_->pki_ctx, nullptr);
    EXPECT_EQ(Add(crl), PELNIC_ERR_NO_PKI);
    EXPECT_EQ(Add(nullptr), PELNIC_ERR_NULL_POINTER);
    stores_->pki_ctx = pki;
    EXPECT_EQ(crl->iRef, 1);
}

TEST_F(CrlStore, ComesIntoBeingWithItsFirstCrl)
{
    PELNIC_X509_CRL* crl = stores_.Crl(CrlOf(Root()));
    EXPECT_EQ(Add(crl), 0u);
    EXPECT_EQ(stores_.Crls().capacity, 5u);
    ASSERT_EQ(stores_.Crls().num, 1u);
    EXPECT_EQ(stores_.Crls().data[0], crl);
    EXPECT_EQ(crl->iRef, 2);
    EXPECT_EQ(stores_.TrustCerts().num, 0u);
}

TEST_F(CrlStore, JoinsATrustStoreThatIsThere)
{
    stores_.Trust(Root());
    stores_.AddCrl(CrlOf(Root()));
    EXPECT_EQ(stores_.TrustCerts().num, 1u);
    EXPECT_EQ(stores_.Crls().num, 1u);
}

TEST_F(CrlStore, KeepsTheOrderOfTheAdds)
{
    std::vector<PELNIC_X509_CRL*> added;
    for (const char* update : {"250109000000Z", "250108000000Z", "250107000000Z", "250106000000Z", "250105000000Z",
                               "250104000000Z", "250103000000Z"}) {
        added.push_back(stores_.AddCrl(With(CrlOf(Root()), &CrlSpec::thisUpdate, UtcTime(update))));
    }
    EXPECT_EQ(std::vector<PELNIC_X509_CRL*>(stores_.Crls().data, stores_.Crls().data + stores_.Crls().num), added);
}

TEST_F(CrlStore, RefusesTheSameSignatureUnderOtherContent)
{
    const Bytes first = Build(CrlOf(Root()));
    const Bytes content = Extract(Build(CrlOf(SigningCa())), {0});
    stores_.AddCrl(first);
    PELNIC_X509_CRL* second = stores_.Crl(Replace(first, {0}, content));
    EXPECT_EQ(Add(second), PELNIC_ERR_CRL_DUPLICATE);
    EXPECT_EQ(stores_.Crls().num, 1u);
    EXPECT_EQ(second->iRef, 1);
}

TEST_F(CrlStore, TakesTheSameContentUnderAnotherSignature)
{
    stores_.AddCrl(CrlOf(Root()));
    stores_.AddCrl(With(CrlOf(Root()), &CrlSpec::brokenSignature, true));
    EXPECT_EQ(stores_.Crls().num, 2u);
}

// The first CRL makes the store and its list, the sixth one makes the list grow.
TEST(CrlStoreFaults, ChangeNothing)
{
    for (int before : {0, 5}) {
        SweepFaults(
            calls::copies | Call::Malloc,
            [&](CallbackPlan& plan) {
                Stores stores(plan);
                for (int i = 0; i < before; ++i) {
                    const Bytes update = UtcTime("25010" + std::to_string(i + 2) + "000000Z");
                    stores.AddCrl(With(CrlOf(Root()), &CrlSpec::thisUpdate, update));
                }
                PELNIC_X509_CRL* crl = stores.Crl(CrlOf(Root()));
                const PELNIC_ERROR_CODE rc = pelnic_pki_store_add_crl(stores, crl);
                EXPECT_EQ(crl->iRef, rc == 0 ? 2 : 1);
                EXPECT_EQ(stores.Crls().num, static_cast<PNV_UINT32>(before) + (rc == 0 ? 1u : 0u));
                if (rc != 0) plan.WithoutFaults([&] { EXPECT_EQ(pelnic_pki_store_add_crl(stores, crl), 0u); });
                return rc;
            },
            [](PELNIC_ERROR_CODE rc, const FaultRun& run) { EXPECT_EQ(rc != 0, run.met); });
    }
}

TEST(CrlStoreFaults, HaveTheCodesOfStoreAndList)
{
    const struct {
        Call kind;
        std::size_t nth;
        PELNIC_ERROR_CODE rc;
    } faults[] = {{Call::Malloc, 1, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Memset, 1, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Malloc, 2, PELNIC_ERR_SYS_MEM_ALLOC},
                  {Call::Memset, 2, injectedFault}};
    for (const auto& fault : faults) {
        CleanPlan plan;
        Stores stores(plan);
        PELNIC_X509_CRL* crl = stores.Crl(CrlOf(Root()));
        plan.Fail(fault.kind, fault.nth);
        EXPECT_EQ(pelnic_pki_store_add_crl(stores, crl), fault.rc);
        EXPECT_EQ(crl->iRef, 1);
    }
}

} // namespace
} // namespace pnvtest
