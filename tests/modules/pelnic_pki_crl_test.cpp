// Revocation: CRLs scored, chosen, and asked about a certificate and the chain above it.
#include "cmsverify/pelnic_pki_impl.h"

#include "cmsverify/pelnic_plt_proxy.h"
#include "support/stores.h"

namespace pnvtest {
namespace {

constexpr PNV_TIME_T k2035 = 2051222400; // nextUpdate of the ready-made CRLs

const char* const kExpired = "Found an expired CRL, it most likely cause NO CRL error.";
const char* const kNoCrl = "Can't find CRL for certificate.";
const char* const kNoneVerifies = "Verify CRL failed.";

const Bytes kBefore = UtcTime("251231235959Z"); // one second before the check time
const Bytes kNow = UtcTime("260101000000Z");
const Bytes kAfter = UtcTime("260101000001Z");

CrlSpec Expired(CrlSpec crl)
{
    return With(std::move(crl), &CrlSpec::nextUpdate, kBefore);
}

CrlSpec Revoking(CrlSpec crl, const CertSpec& cert, const Bytes& date = UtcTime("250601000000Z"),
                 std::optional<int> reason = std::nullopt)
{
    crl.revoked.push_back({cert.serial, date, reason});
    return crl;
}

// An entity below the root that signs CRLs and nothing else.
CertSpec CrlSigner()
{
    CertSpec signer = With(Signer(KeyId::Rsa2048F), &CertSpec::subject, TestName("Test CRL Signer"));
    signer.keyUsage = usage::crlSign;
    signer.extendedKeyUsage.clear();
    return IssuedBy(signer, Root());
}

// The signing branch without the signing CA's CRL, which the tests choose.
class CrlTest : public StoresTest {
protected:
    void SetUp() override
    {
        root_ = stores_.Trust(pki_.root);
        ca_ = stores_.Trust(pki_.signingCa);
        signer_ = stores_.Cert(pki_.signer);
        stores_.AddCrl(pki_.rootCrl);
    }

    const DemoPki pki_;
    const PELNIC_X509_CERT* root_ = nullptr;
    PELNIC_X509_CERT* ca_ = nullptr;
    PELNIC_X509_CERT* signer_ = nullptr;
};

// ---- Whose CRL it is ----

class CrlIssuerScore : public CrlTest {
protected:
    static constexpr PNV_UINT32 kNotApplicable = 0;

    PNV_UINT32 Score(const PELNIC_X509_CRL* crl)
    {
        PNV_UINT32 score = 0;
        const PNV_BOOL applicable = _pnvCrlGetIssuerScore(stores_, crl, signer_, root_, &score);
        EXPECT_EQ(applicable, score == 0 ? 0u : 1u);
        return score;
    }
    PNV_UINT32 Score(const CrlSpec& spec) { return Score(stores_.Crl(spec)); }
};

TEST_F(CrlIssuerScore, MarksSameIssuerAndIndirect)
{
    EXPECT_EQ(Score(pki_.signingCrl), PNV_CRL_SAME_ISSUER);
    EXPECT_EQ(Score(Indirect(pki_.signingCrl)), PNV_CRL_SAME_ISSUER | PNV_CRL_INDIRECT);
    EXPECT_EQ(Score(Indirect(pki_.rootCrl)), PNV_CRL_INDIRECT);
    EXPECT_EQ(Score(pki_.rootCrl), kNotApplicable);
}

TEST_F(CrlIssuerScore, TakesACrlForDirectUnlessItSaysOtherwise)
{
    CrlSpec crl = pki_.rootCrl;
    crl.extensions.push_back(IssuingDistPoint(false));
    EXPECT_EQ(Score(crl), kNotApplicable);
    crl.extensions.back() = Ext(oid::issuingDistributionPoint, Null(), true); // does not decode
    EXPECT_EQ(Score(crl), kNotApplicable);
    crl.issuer = pki_.signingCrl.issuer;
    crl.issuerKey = pki_.signingCrl.issuerKey;
    EXPECT_EQ(Score(crl), PNV_CRL_SAME_ISSUER);
}

TEST_F(CrlIssuerScore, NeedsTheCertificatesIssuerName)
{
    PELNIC_X509_NAME* issuer = std::exchange(signer_->toBeSigned->issuer, nullptr);
    EXPECT_EQ(Score(Indirect(pki_.rootCrl)), kNotApplicable);
    signer_->toBeSigned->issuer = issuer;
}

TEST_F(CrlIssuerScore, NeedsAnIssuerThatSignedIt)
{
    EXPECT_EQ(Score(With(pki_.signingCrl, &CrlSpec::brokenSignature, true)), kNotApplicable);
    EXPECT_EQ(Score(With(pki_.signingCrl, &CrlSpec::issuerKey, KeyId::Rsa2048H)), kNotApplicable);
    EXPECT_EQ(Score(Indirect(CrlOf(pki_.tsaCa))), kNotApplicable);
}

TEST_F(CrlIssuerScore, NeedsTheCertificatesOwnRoot)
{
    const CertSpec foreign = ForeignRoot();
    const CertSpec namesake =
        With(CaBelow(foreign, "Test Signing CA", KeyId::Rsa2048G), &CertSpec::serial, Bytes{0x71});
    stores_.Trust(foreign);
    stores_.Trust(namesake);
    EXPECT_EQ(Score(CrlOf(namesake)), kNotApplicable);
    EXPECT_EQ(Score(Indirect(CrlOf(foreign))), kNotApplicable);
}

// The very same object: the root's twin under another serial number is another root.
TEST_F(CrlIssuerScore, ComparesRootsAsObjects)
{
    const PELNIC_X509_CERT* twin = stores_.Cert(pki_.root);
    PNV_UINT32 score = 0;
    EXPECT_EQ(_pnvCrlGetIssuerScore(stores_, stores_.Crl(pki_.signingCrl), signer_, twin, &score), 0u);
}

// By name, not by key: a namesake below the same root speaks for the signing CA.
TEST_F(CrlIssuerScore, GoesByTheIssuersName)
{
    stores_.Trust(With(CaBelow(pki_.root, "Test Signing CA", KeyId::Rsa2048G), &CertSpec::serial, Bytes{0x71}));
    CrlSpec crl = pki_.signingCrl;
    crl.issuerKey = KeyId::Rsa2048G;
    EXPECT_EQ(Score(crl), PNV_CRL_SAME_ISSUER);
}

TEST_F(CrlIssuerScore, TakesAnIssuerOutOfTheLocalStore)
{
    stores_.Local(CrlSigner());
    EXPECT_EQ(Score(Indirect(CrlOf(CrlSigner()))), PNV_CRL_INDIRECT);
}

// ---- The whole score ----

class CrlScore : public CrlTest {
protected:
    PNV_UINT32 Score(const PELNIC_X509_CRL* crl) { return _pnvCrlGetScore(stores_, crl, signer_, root_); }
    PNV_UINT32 Score(const CrlSpec& spec) { return Score(stores_.Crl(spec)); }
};

TEST_F(CrlScore, AddsUp)
{
    const CrlSpec direct = pki_.signingCrl;
    const CrlSpec foreign = Indirect(pki_.rootCrl);
    EXPECT_EQ(Score(direct), 0x60u);
    EXPECT_EQ(Score(Indirect(direct)), 0x70u);
    EXPECT_EQ(Score(foreign), 0x50u);
    EXPECT_EQ(Score(Revoking(direct, pki_.signer)), 0xE0u);
    EXPECT_EQ(Score(Revoking(foreign, pki_.signer)), 0xD0u);
    EXPECT_EQ(Score(Revoking(Expired(direct), pki_.signer)), 0xA0u);
    EXPECT_EQ(Score(Revoking(Expired(foreign), pki_.signer)), 0x90u);
    EXPECT_EQ(Score(pki_.rootCrl), 0u);
    EXPECT_EQ(Score(Revoking(pki_.rootCrl, pki_.signer)), 0u);
}

TEST_F(CrlScore, IsCurrentUpToNextUpdate)
{
    const PELNIC_X509_CRL* crl = stores_.Crl(pki_.signingCrl);
    stores_->base_time = k2035;
    EXPECT_EQ(Score(crl), 0x60u);
    EXPECT_TRUE(plan_.Logs().empty());
    stores_->base_time = k2035 + 1;
    EXPECT_EQ(Score(crl), 0u);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CRL_EXPIRED, kExpired));
}

TEST_F(CrlScore, WarnsOfAnExpiredCrlThatListsTheCertificateToo)
{
    EXPECT_EQ(Score(Revoking(Expired(pki_.signingCrl), pki_.signer)), 0xA0u);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CRL_EXPIRED, kExpired));
}

TEST_F(CrlScore, DoesNotAskWhenTheCrlWasIssued)
{
    EXPECT_EQ(Score(With(pki_.signingCrl, &CrlSpec::thisUpdate, UtcTime("340101000000Z"))), 0x60u);
}

TEST_F(CrlScore, IsNothingWithoutATime)
{
    for (const Bytes& noTime : {UtcTime("3501010000000"), UtcTime("3501010000Z"), Utf8("350101000000Z")}) {
        EXPECT_EQ(Score(Revoking(With(pki_.signingCrl, &CrlSpec::nextUpdate, noTime), pki_.signer)), 0u);
    }
}

// nextUpdate is the element behind thisUpdate, whatever that is.
TEST_F(CrlScore, IsNothingWithoutNextUpdate)
{
    EXPECT_EQ(Score(With(pki_.signingCrl, &CrlSpec::nextUpdate, std::nullopt)), 0u);
    EXPECT_EQ(Score(Revoking(With(pki_.signingCrl, &CrlSpec::nextUpdate, std::nullopt), pki_.signer)), 0u);
}

TEST_F(CrlScore, FindsTheSerialNumberAnywhereInTheList)
{
    CrlSpec crl = pki_.signingCrl;
    crl.revoked = {{{0x71}}, {{0x01, 0x24}}, {Cat(Bytes{0x00}, pki_.signer.serial)}};
    EXPECT_EQ(Score(crl), 0xE0u);
    crl.revoked.pop_back();
    EXPECT_EQ(Score(crl), 0x60u);
}

// Looking ahead ends with the list; one of 40 or 80 entries has no slot to spare.
TEST_F(CrlScore, FindsTheLastOfManySerialNumbers)
{
    for (const std::size_t entries : {32u, 33u, 34u, 40u, 80u}) {
        CrlSpec crl = pki_.signingCrl;
        crl.revoked.assign(entries, {{0x71}});
        EXPECT_EQ(Score(crl), 0x60u) << entries;
        crl.revoked.back() = {pki_.signer.serial};
        EXPECT_EQ(Score(crl), 0xE0u) << entries;
    }
}

TEST_F(CrlScore, SkipsNullEntries)
{
    PELNIC_X509_CRL* crl = stores_.Crl(Revoking(Revoking(pki_.signingCrl, pki_.tsaCa), pki_.signer));
    PELNIC_X509_REVOKED_ENTRY** entries = crl->tbs_cert_list->revoked_certs->revoked_list.data;
    PELNIC_X509_REVOKED_ENTRY* first = std::exchange(entries[0], nullptr);
    EXPECT_EQ(Score(crl), 0xE0u);
    entries[0] = first;
}

// ---- Scoring and sorting ----

class ScoredCrls : public CrlTest {
protected:
    using List = LIST_TYPE_PELNIC_CRL_SCORE_INFO;

    void TearDown() override
    {
        for (PNV_UINT32 i = 0; i < list_.num; ++i) pelnic_free(stores_, list_.data[i]);
        pelnic_free(stores_, list_.data);
    }

    List list_{};
};

TEST_F(ScoredCrls, KeepTheOrderOfTheStore)
{
    const PELNIC_X509_CRL* first = stores_.AddCrl(pki_.signingCrl);
    stores_.AddCrl(Expired(pki_.signingCrl));
    const PELNIC_X509_CRL* second = stores_.AddCrl(Revoking(pki_.signingCrl, pki_.signer));
    ASSERT_EQ(_pnvGetScoredCrl(stores_, signer_, &list_), 0u);
    ASSERT_EQ(list_.num, 2u);
    EXPECT_EQ(list_.data[0]->pCrl, first);
    EXPECT_EQ(list_.data[0]->crlScore, 0x60u);
    EXPECT_EQ(list_.data[1]->pCrl, second);
    EXPECT_EQ(list_.data[1]->crlScore, 0xE0u);
}

TEST_F(ScoredCrls, LoseNoRecordWhicheverAllocationFails)
{
    stores_.AddCrl(pki_.signingCrl);
    std::size_t refused = 0;
    for (std::size_t nth = 1; list_.num == 0; ++nth) {
        ASSERT_LT(nth, 1000u);
        plan_.Fail(Call::Malloc, nth);
        if (_pnvGetScoredCrl(stores_, signer_, &list_) != 0) ++refused;
    }
    EXPECT_NE(refused, 0u);
}

TEST_F(ScoredCrls, EndWhereThereIsNoRecord)
{
    stores_.AddCrl(pki_.signingCrl);
    std::size_t allocations = 0;
    for (int time = 0; time < 2; ++time) { // the second time issuers are known
        const std::size_t before = plan_.Count(Call::Malloc);
        ASSERT_EQ(_pnvGetScoredCrl(stores_, signer_, &list_), 0u);
        allocations = plan_.Count(Call::Malloc) - before;
    }
    plan_.Fail(Call::Malloc, allocations); // the last one, which is the record
    EXPECT_EQ(_pnvGetScoredCrl(stores_, signer_, &list_), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(list_.num, 2u);
}

TEST_F(ScoredCrls, NeedARoot)
{
    const PELNIC_X509_CERT* orphan = stores_.Cert(pki_.tsa);
    EXPECT_EQ(_pnvGetScoredCrl(stores_, orphan, &list_), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(list_.num, 0u);
}

TEST_F(ScoredCrls, AreNoneWhereNoCrlApplies)
{
    EXPECT_EQ(_pnvGetScoredCrl(stores_, signer_, &list_), 0u);
    EXPECT_EQ(list_.num, 0u);
}

TEST(ScoredCrlsWithoutStores, NeedATrustStore)
{
    CleanPlan plan;
    Stores stores(plan);
    stores.Local(Signer());
    LIST_TYPE_PELNIC_CRL_SCORE_INFO list{};
    EXPECT_EQ(_pnvGetScoredCrl(stores, stores.Cert(Root()), &list), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST(CrlScoreSortDesc, PutsTheGreaterScoreFirst)
{
    Vrf vrf;
    const PELNIC_CRL_SCORE_INFO high{0xA0, nullptr};
    const PELNIC_CRL_SCORE_INFO low{0x60, nullptr};
    EXPECT_EQ(_pnvCrlScoreSortDesc(vrf, &high, &low), -1);
    EXPECT_EQ(_pnvCrlScoreSortDesc(vrf, &low, &low), 0);
    EXPECT_EQ(_pnvCrlScoreSortDesc(vrf, &low, &high), 1);
}

// ---- Picking ----

class BestCrl : public CrlTest {
protected:
    // The pick among these, in this order, each with a score entry of its own.
    const PELNIC_X509_CRL* Pick(const std::vector<const PELNIC_X509_CRL*>& crls)
    {
        std::vector<PELNIC_CRL_SCORE_INFO> infos;
        std::vector<PELNIC_CRL_SCORE_INFO*> data;
        for (const PELNIC_X509_CRL* crl : crls) infos.push_back({0x60, crl});
        for (PELNIC_CRL_SCORE_INFO& info : infos) data.push_back(&info);
        const LIST_TYPE_PELNIC_CRL_SCORE_INFO list{Len(data), data.data(), Len(data)};
        const PELNIC_CRL_SCORE_INFO* best = _pnvPickBestCrl(stores_, &list);
        return best == nullptr ? nullptr : best->pCrl;
    }
    const PELNIC_X509_CRL* Find() { return _pnvFindBestCrlOfCert(stores_, signer_); }
};

TEST_F(BestCrl, IsTheFirstWhoseIssuerVerifies)
{
    const PELNIC_X509_CRL* forged = stores_.Crl(With(pki_.signingCrl, &CrlSpec::brokenSignature, true));
    const PELNIC_X509_CRL* unowned = stores_.Crl(pki_.tsaCrl);
    const PELNIC_X509_CRL* first = stores_.Crl(pki_.signingCrl);
    EXPECT_EQ(Pick({nullptr, forged, unowned, first, stores_.Crl(pki_.rootCrl)}), first);
}

TEST_F(BestCrl, IsMissingWhenNoIssuerVerifies)
{
    stores_.Trust(With(pki_.tsaCa, &CertSpec::notAfter, kBefore));
    EXPECT_EQ(Pick({stores_.Crl(pki_.tsaCrl)}), nullptr);
    EXPECT_EQ(Pick({}), nullptr);
}

TEST_F(BestCrl, VerifiesItsIssuerAtTheDepthReached)
{
    stores_->curr_depth = 10;
    EXPECT_NE(Pick({stores_.Crl(pki_.rootCrl)}), nullptr);
    EXPECT_EQ(stores_->curr_depth, 10);
    stores_->curr_depth = 11;
    EXPECT_EQ(Pick({stores_.Crl(pki_.rootCrl)}), nullptr);
    EXPECT_EQ(stores_->curr_depth, 11);
}

TEST_F(BestCrl, IsTheCurrentOneOfTwo)
{
    stores_.AddCrl(Expired(pki_.signingCrl));
    const PELNIC_X509_CRL* current = stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(Find(), current);
    EXPECT_TRUE(LoggedWarning(plan_, PELNIC_ERR_CRL_EXPIRED, kExpired));
}

TEST_F(BestCrl, IsTheExpiredOneThatListsTheCertificate)
{
    stores_.AddCrl(pki_.signingCrl);
    const PELNIC_X509_CRL* expired = stores_.AddCrl(Revoking(Expired(pki_.signingCrl), pki_.signer));
    EXPECT_EQ(Find(), expired);
}

TEST_F(BestCrl, IsTheDirectOneBesideAnIndirectOne)
{
    stores_.AddCrl(Indirect(pki_.rootCrl));
    const PELNIC_X509_CRL* direct = stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(Find(), direct);
}

TEST_F(BestCrl, IsTheIndirectOneOfTheIssuersOwn)
{
    stores_.AddCrl(pki_.signingCrl);
    const PELNIC_X509_CRL* indirect = stores_.AddCrl(Indirect(pki_.signingCrl));
    EXPECT_EQ(Find(), indirect);
}

TEST_F(BestCrl, IsTheFirstOfEqualScore)
{
    const PELNIC_X509_CRL* first = stores_.AddCrl(pki_.signingCrl);
    stores_.AddCrl(With(pki_.signingCrl, &CrlSpec::thisUpdate, UtcTime("251201000000Z")));
    EXPECT_EQ(Find(), first);
}

TEST_F(BestCrl, IsTheNextWhenTheBestHasNoValidIssuer)
{
    stores_.Local(With(CrlSigner(), &CertSpec::notAfter, kBefore));
    stores_.AddCrl(Revoking(Indirect(CrlOf(CrlSigner())), pki_.signer));
    const PELNIC_X509_CRL* next = stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(Find(), next);
    EXPECT_FALSE(LoggedError(plan_, 0, kNoneVerifies));
}

TEST_F(BestCrl, LeavesTheReasonOfAMissInLastErr)
{
    EXPECT_EQ(Find(), nullptr);
    EXPECT_EQ(stores_->last_err, PELNIC_ERR_CRL_NOT_FOUND);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoCrl));

    stores_.Local(With(CrlSigner(), &CertSpec::notAfter, kBefore));
    stores_.AddCrl(Indirect(CrlOf(CrlSigner())));
    EXPECT_EQ(Find(), nullptr);
    EXPECT_EQ(stores_->last_err, PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoneVerifies));

    EXPECT_EQ(_pnvFindBestCrlOfCert(stores_, stores_.Cert(pki_.tsa)), nullptr);
    EXPECT_EQ(stores_->last_err, PELNIC_ERR_CERT_NO_ISSUER);
}

// An allocator's own code as well as one of the library.
TEST_F(BestCrl, LeavesTheCodeOfAFailingCallbackInLastErr)
{
    stores_.AddCrl(pki_.signingCrl);
    for (Call failing : {Call::Malloc, Call::Memset}) {
        std::set<PELNIC_ERROR_CODE> left;
        for (std::size_t nth = 1; nth < 400; ++nth) {
            stores_->last_err = 0;
            plan_.Fail(failing, nth);
            if (Find() == nullptr) left.insert(stores_->last_err);
        }
        EXPECT_EQ(left.count(failing == Call::Malloc ? PELNIC_ERR_SYS_MEM_ALLOC : injectedFault), 1u);
    }
}

TEST_F(BestCrl, LeavesLastErrAloneWhenFound)
{
    stores_.AddCrl(pki_.signingCrl);
    stores_->last_err = 0x12345678;
    EXPECT_NE(Find(), nullptr);
    EXPECT_EQ(stores_->last_err, 0x12345678u);
}

TEST_F(BestCrl, LeavesTheCrlsTheirReferences)
{
    const PELNIC_X509_CRL* crl = stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(Find(), crl);
    EXPECT_EQ(crl->iRef, 2);
}

// ---- Whether the reason matters ----

class NeedCheckReason : public CrlTest {
protected:
    void Expect(const CertSpec& spec, PELNIC_ERROR_CODE rc, PNV_BOOL needed)
    {
        PNV_BOOL answer = 0xA5A5A5A5;
        EXPECT_EQ(_pnvNeedCheckReason(stores_, stores_.Cert(spec), &answer), rc);
        EXPECT_EQ(answer, needed);
    }
    static CertSpec For(std::vector<std::string_view> purposes, CertSpec cert = Signer())
    {
        return With(std::move(cert), &CertSpec::extendedKeyUsage, std::move(purposes));
    }
};

TEST_F(NeedCheckReason, ForCas)
{
    Expect(Root(), 0, 1);
    Expect(SigningCa(), 0, 1);
    Expect(For({oid::codeSigning}, SigningCa()), 0, 1);
}

TEST_F(NeedCheckReason, ForTimestampingAlone)
{
    Expect(Tsa(), 0, 1);
    Expect(For({oid::timeStamping, oid::serverAuth}), 0, 1); // the other purpose is not known
    Expect(For({oid::timeStamping, oid::codeSigning}), 0, 0);
}

TEST_F(NeedCheckReason, ForNobodyElse)
{
    Expect(Signer(), 0, 0);
    Expect(For({}), 0, 0);
    Expect(For({oid::serverAuth}), 0, 0);
}

TEST_F(NeedCheckReason, PassesOnFailures)
{
    CertSpec unreadable = For({});
    unreadable.extraExtensions = {Ext(oid::extKeyUsage, Null())};
    Expect(unreadable, PELNIC_ERR_ASN_DECODE, 0);
    Expect(Version1(Signer()), PELNIC_ERR_CERT_VERSION, 0);
}

// ---- Whether an entry revokes ----

class CertRevoked : public CrlTest {
protected:
    PELNIC_ERROR_CODE Check(const CertSpec& cert, const RevokedSpec& entry)
    {
        const PELNIC_X509_CRL* crl = stores_.Crl(With(pki_.signingCrl, &CrlSpec::revoked, std::vector{entry}));
        return _pnvIsCertRevoked(stores_, stores_.Cert(cert), crl->tbs_cert_list->revoked_certs->revoked_list.data[0]);
    }
    PELNIC_ERROR_CODE Check(const CertSpec& cert, const Bytes& date, std::optional<int> reason)
    {
        return Check(cert, {cert.serial, date, reason});
    }

    const std::optional<int> kNoReason = std::nullopt;
};

TEST_F(CertRevoked, ConcernsTheSerialNumberInTheEntry)
{
    EXPECT_EQ(Check(pki_.signer, {{0x71}, kBefore}), 0u);
    EXPECT_EQ(Check(pki_.signer, {{0x71}, Null(), 1}), 0u); // nothing else is read then
    EXPECT_EQ(Check(pki_.signer, {Cat(Bytes{0x00}, pki_.signer.serial), kBefore}), PELNIC_ERR_CERT_REVOKED);
}

TEST_F(CertRevoked, CountsFromItsDateForEndEntities)
{
    for (std::optional<int> reason : {kNoReason, std::optional(1), std::optional(4), std::optional(6)}) {
        EXPECT_EQ(Check(pki_.signer, kBefore, reason), PELNIC_ERR_CERT_REVOKED);
        EXPECT_EQ(Check(pki_.signer, kNow, reason), PELNIC_ERR_CERT_REVOKED);
        EXPECT_EQ(Check(pki_.signer, kAfter, reason), 0u);
    }
}

TEST_F(CertRevoked, CountsFromItsDateForBenignReasons)
{
    for (const CertSpec& cert : {pki_.signingCa, pki_.tsa}) {
        for (int reason : {RVRS_AFFILIATIONCHANGED, RVRS_SUPERSEDED, RVRS_CESSATIONOFOPERATION}) {
            EXPECT_EQ(Check(cert, kBefore, reason), PELNIC_ERR_CERT_REVOKED);
            EXPECT_EQ(Check(cert, kNow, reason), PELNIC_ERR_CERT_REVOKED);
            EXPECT_EQ(Check(cert, kAfter, reason), 0u);
        }
    }
}

TEST_F(CertRevoked, CountsForAllTimesForAnyOtherReason)
{
    for (const CertSpec& cert : {pki_.signingCa, pki_.tsa}) {
        EXPECT_EQ(Check(cert, kAfter, kNoReason), PELNIC_ERR_CERT_REVOKED);
        for (int reason : {-1, 0, 1, 2, 6, 7, 8, 9, 10, 1000}) {
            EXPECT_EQ(Check(cert, kAfter, reason), PELNIC_ERR_CERT_REVOKED) << reason;
            EXPECT_EQ(Check(cert, Null(), reason), PELNIC_ERR_CERT_REVOKED) << reason; // the date is not read
        }
    }
}

TEST_F(CertRevoked, TakesOtherExtensionsForNoReason)
{
    RevokedSpec entry{pki_.signingCa.serial, kAfter};
    entry.extensions = {Ext(oid::crlNumber, Int(4))};
    EXPECT_EQ(Check(pki_.signingCa, entry), PELNIC_ERR_CERT_REVOKED);
    entry.extensions.push_back(Ext(oid::crlReason, Enum(RVRS_SUPERSEDED)));
    EXPECT_EQ(Check(pki_.signingCa, entry), 0u);
}

TEST_F(CertRevoked, PassesOnFailures)
{
    EXPECT_EQ(Check(pki_.signer, Utf8("250601000000Z"), kNoReason), PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(Check(pki_.signingCa, UtcTime("2506010000Z"), RVRS_SUPERSEDED), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Check(Version1(pki_.signer), kBefore, kNoReason), PELNIC_ERR_CERT_VERSION);
    RevokedSpec unreadable{pki_.signingCa.serial, kBefore};
    unreadable.extensions = {Ext(oid::crlReason, Int(4))};
    EXPECT_EQ(Check(pki_.signingCa, unreadable), PELNIC_ERR_ASN_DECODE);
    unreadable.serial = pki_.signer.serial;
    EXPECT_EQ(Check(pki_.signer, unreadable), PELNIC_ERR_CERT_REVOKED); // its reason is not read
}

// ---- A certificate against its best CRL ----

class CrlOfCert : public CrlTest {
protected:
    PELNIC_ERROR_CODE Check(PELNIC_X509_CERT* cert)
    {
        used_ = &mark_;
        return _pnvCheckCrlOfCert(stores_, cert, &used_);
    }

    PELNIC_X509_CRL mark_{};
    PELNIC_X509_CRL* used_ = nullptr; // the mark while nothing was written
};

TEST_F(CrlOfCert, IsNotAskedForWhenTheCheckIsOff)
{
    stores_.AddCrl(Revoking(pki_.signingCrl, pki_.signer));
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(Check(signer_), 0u);
    EXPECT_EQ(used_, &mark_);
    EXPECT_TRUE(plan_.VerifyRequests().empty());
}

TEST_F(CrlOfCert, CoversTheCertificate)
{
    const PELNIC_X509_CRL* crl = stores_.AddCrl(Revoking(pki_.signingCrl, pki_.tsa));
    EXPECT_EQ(Check(signer_), 0u);
    EXPECT_EQ(used_, crl);
}

TEST_F(CrlOfCert, RevokesTheCertificate)
{
    const PELNIC_X509_CRL* crl = stores_.AddCrl(Revoking(pki_.signingCrl, pki_.signer));
    EXPECT_EQ(Check(signer_), PELNIC_ERR_CERT_REVOKED);
    EXPECT_EQ(used_, crl);
}

TEST_F(CrlOfCert, RevokesByAnyOfItsEntries)
{
    CrlSpec crl = Revoking(pki_.signingCrl, pki_.tsa);
    crl = Revoking(crl, pki_.signer, kAfter);
    crl = Revoking(crl, pki_.signer, kNow);
    stores_.AddCrl(crl);
    EXPECT_EQ(Check(signer_), PELNIC_ERR_CERT_REVOKED);
}

TEST_F(CrlOfCert, IsMissing)
{
    EXPECT_EQ(Check(signer_), PELNIC_ERR_CRL_NOT_FOUND);
    EXPECT_EQ(used_, &mark_);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoCrl));
    EXPECT_EQ(Check(stores_.Cert(pki_.tsa)), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(used_, &mark_);
}

TEST_F(CrlOfCert, StopsAtAnEntryThatCannotBeJudged)
{
    CrlSpec crl = Revoking(pki_.signingCrl, pki_.signer, Null());
    stores_.AddCrl(Revoking(crl, pki_.signer));
    EXPECT_EQ(Check(signer_), PELNIC_ERR_SYS_TIME_FORMAT);
    EXPECT_EQ(used_, &mark_);
}

TEST_F(CrlOfCert, StopsAtTheFirstEntryThatRevokes)
{
    CrlSpec crl = Revoking(pki_.signingCrl, pki_.signer);
    stores_.AddCrl(Revoking(crl, pki_.signer, Null()));
    EXPECT_EQ(Check(signer_), PELNIC_ERR_CERT_REVOKED);
}

TEST_F(CrlOfCert, MayHaveNullEntries)
{
    PELNIC_X509_CRL* crl = stores_.AddCrl(Revoking(Revoking(pki_.signingCrl, pki_.tsa), pki_.signer));
    PELNIC_X509_REVOKED_ENTRY** entries = crl->tbs_cert_list->revoked_certs->revoked_list.data;
    PELNIC_X509_REVOKED_ENTRY* first = std::exchange(entries[0], nullptr);
    EXPECT_EQ(Check(signer_), PELNIC_ERR_CERT_REVOKED);
    entries[0] = first;
}

// ---- Chains and their CRLs ----

using ChainCrls = CrlTest;

TEST_F(ChainCrls, ListedCertificateVerifiesWhenTheCheckIsOff)
{
    stores_.AddCrl(Revoking(pki_.signingCrl, pki_.signer));
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CERT_REVOKED);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(signer_), 0u);
}

TEST_F(ChainCrls, StoreWithoutAnyCrl)
{
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CRL_NOT_FOUND);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoCrl));
}

TEST_F(ChainCrls, RevocationAtTheCheckTime)
{
    stores_.AddCrl(Revoking(pki_.signingCrl, pki_.signer, kNow));
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CERT_REVOKED);
    stores_->base_time = k2026 - 1;
    EXPECT_EQ(stores_.Verify(signer_), 0u);
}

TEST_F(ChainCrls, RevokedCaLeavesItsCrlWithoutIssuer)
{
    stores_.AddCrl(Revoking(With(pki_.rootCrl, &CrlSpec::thisUpdate, kNow), pki_.signingCa));
    stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(stores_.Verify(ca_), PELNIC_ERR_CERT_REVOKED);
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoneVerifies));
}

TEST_F(ChainCrls, ForgedCrlIsNoCrl)
{
    stores_.AddCrl(With(pki_.signingCrl, &CrlSpec::brokenSignature, true));
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CRL_NOT_FOUND);
}

TEST_F(ChainCrls, CaWithoutCrlSignHasNoCrl)
{
    const CertSpec ca = With(CaBelow(pki_.root, "Other CA", KeyId::Rsa2048G), &CertSpec::keyUsage, usage::keyCertSign);
    stores_.Trust(ca);
    stores_.AddCrl(CrlOf(ca));
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), ca)), PELNIC_ERR_CRL_NOT_FOUND);
    EXPECT_TRUE(LoggedError(plan_, 0, kNoCrl));
}

TEST_F(ChainCrls, IndirectCrlSpeaksForTheWholeChain)
{
    stores_.AddCrl(Indirect(pki_.rootCrl));
    EXPECT_EQ(stores_.Verify(signer_), 0u);
}

// By serial number alone: whose certificate an entry means is not read.
TEST_F(ChainCrls, IndirectCrlRevokesBySerialNumber)
{
    stores_.AddCrl(pki_.signingCrl);
    stores_.AddCrl(Revoking(Indirect(pki_.rootCrl), pki_.signer));
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CERT_REVOKED);
}

// Where an indirect CRL covers, the walk itself goes on to the issuer and judges it.
TEST_F(ChainCrls, IndirectCrlDoesNotCoverForTheIssuer)
{
    const CertSpec middle = With(pki_.signingCa, &CertSpec::notAfter, kBefore);
    const CertSpec other = With(middle, &CertSpec::subject, TestName("Other CA"));
    stores_.Trust(With(other, &CertSpec::serial, Bytes{0x71}));
    stores_.AddCrl(Indirect(pki_.rootCrl));
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), other)), PELNIC_ERR_CERT_EXPIRED);
}

TEST_F(ChainCrls, IndirectCrlMayComeFromALocalCertificate)
{
    stores_.Local(CrlSigner());
    stores_.AddCrl(Indirect(CrlOf(CrlSigner())));
    EXPECT_EQ(stores_.Verify(signer_), 0u);
}

TEST_F(ChainCrls, RevokedCrlSignerCoversNobody)
{
    stores_.Local(CrlSigner());
    stores_.AddCrl(Indirect(CrlOf(CrlSigner())));
    stores_.AddCrl(Revoking(With(pki_.rootCrl, &CrlSpec::thisUpdate, kNow), CrlSigner()));
    EXPECT_EQ(stores_.Verify(signer_), PELNIC_ERR_CRL_VERIFY);
}

// Without a CRL of the root, the CRL signer's own CRL would have to cover the CRL signer.
TEST(SelfCoveringCrl, EndsAtTheDepthLimit)
{
    CleanPlan plan;
    Stores stores(plan);
    stores.Trust(Root());
    stores.Trust(SigningCa());
    stores.Local(CrlSigner());
    stores.AddCrl(Indirect(CrlOf(CrlSigner())));
    EXPECT_EQ(stores.Verify(Signer()), PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan, 0, "The path of certificate is too deep."));
}

} // namespace
} // namespace pnvtest
