// Chains: who issued a certificate, up to which root, and what every certificate on the way must be.
#include "cmsverify/pelnic_pki_impl.h"

#include "support/stores.h"

namespace pnvtest {
namespace {

constexpr PNV_TIME_T k2020 = 1577836800; // notBefore of the ready-made certificates
constexpr PNV_TIME_T k2040 = 2208988800; // their notAfter

// An RSA key whose bits are no RSAPublicKey.
Bytes BrokenSpki()
{
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Int(1))));
}

CertSpec WithoutUsage(CertSpec spec)
{
    return With(std::move(spec), &CertSpec::keyUsage, std::nullopt);
}

CertSpec WithUsage(CertSpec spec, unsigned bits)
{
    return With(std::move(spec), &CertSpec::keyUsage, bits);
}

// ---- Dates ----

class CertDate : public StoresTest {
protected:
    PELNIC_ERROR_CODE Check(PNV_TIME_T time, const CertSpec& spec = Signer())
    {
        stores_->base_time = time;
        return _pnvCheckCertDate(stores_, stores_.Cert(spec));
    }
};

TEST_F(CertDate, HoldsFromNotBeforeToNotAfter)
{
    EXPECT_EQ(Check(k2020 - 1), PELNIC_ERR_CERT_NOT_YET_VALID);
    EXPECT_EQ(Check(k2020), 0u);
    EXPECT_EQ(Check(k2026), 0u);
    EXPECT_EQ(Check(k2040), 0u);
    EXPECT_EQ(Check(k2040 + 1), PELNIC_ERR_CERT_EXPIRED);
}

TEST_F(CertDate, ReachesFarFromTheEpoch)
{
    CertSpec spec = With(Signer(), &CertSpec::notBefore, UtcTime("500101000000Z"));
    spec.notAfter = GenTime("99991231235959Z");
    EXPECT_EQ(Check(-631152000 - 1, spec), PELNIC_ERR_CERT_NOT_YET_VALID);
    EXPECT_EQ(Check(-631152000, spec), 0u);
    EXPECT_EQ(Check(253402300799, spec), 0u);
    EXPECT_EQ(Check(253402300800, spec), PELNIC_ERR_CERT_EXPIRED);
}

TEST_F(CertDate, PassesOnWhatTheConversionSays)
{
    for (Bytes CertSpec::*field : {&CertSpec::notBefore, &CertSpec::notAfter}) {
        EXPECT_EQ(Check(k2026, With(Signer(), field, UtcTime("2601010000000"))), PELNIC_ERR_SYS_TIME_FORMAT);
        EXPECT_EQ(Check(k2026, With(Signer(), field, Utf8("260101000000Z"))), PELNIC_ERR_SYS_TIME_FORMAT);
        EXPECT_EQ(Check(k2026, With(Signer(), field, UtcTime("2601010000Z"))), PELNIC_ERR_NULL_POINTER);
    }
}

TEST_F(CertDate, ConvertsBothTimesBeforeItCompares)
{
    EXPECT_EQ(Check(k2020 - 1, With(Signer(), &CertSpec::notAfter, Null())), PELNIC_ERR_SYS_TIME_FORMAT);
}

// ---- Issuers of certificates ----

class CertIssuer : public StoresTest {
protected:
    // Whether issuer issued the signing CA.
    PELNIC_ERROR_CODE Check(const CertSpec& issuer) { return Check(stores_.Cert(SigningCa()), issuer); }
    PELNIC_ERROR_CODE Check(const PELNIC_X509_CERT* cert, const CertSpec& issuer)
    {
        const PELNIC_X509_CERT* candidate = stores_.Cert(issuer);
        const PELNIC_ERROR_CODE rc = _pnvCheckCertIssuer(stores_, cert, candidate);
        EXPECT_EQ(cert->pIssuer, rc == 0 ? candidate : nullptr);
        return rc;
    }
};

TEST_F(CertIssuer, IsRecorded)
{
    EXPECT_EQ(Check(Root()), 0u);
}

TEST_F(CertIssuer, IsTheOneOnRecordAndNoOther)
{
    const PELNIC_X509_CERT* ca = stores_.Cert(SigningCa());
    const PELNIC_X509_CERT* first = stores_.Cert(Root());
    ASSERT_EQ(_pnvCheckCertIssuer(stores_, ca, first), 0u);
    const std::size_t checks = plan_.VerifyRequests().size();
    EXPECT_EQ(_pnvCheckCertIssuer(stores_, ca, first), 0u);
    EXPECT_EQ(_pnvCheckCertIssuer(stores_, ca, stores_.Cert(Root())), PELNIC_ERR_CERT_SIGNATURE);
    EXPECT_EQ(ca->pIssuer, first);
    EXPECT_EQ(plan_.VerifyRequests().size(), checks);
}

TEST_F(CertIssuer, HasTheName)
{
    EXPECT_EQ(Check(With(Root(), &CertSpec::subject, TestName("Other"))), PELNIC_ERR_FAILED);
    const Bytes printable = Name(C("ZZ"), O("Example"), NameAttr(oid::commonName, Printable("Test Root")));
    EXPECT_EQ(Check(With(Root(), &CertSpec::subject, printable)), PELNIC_ERR_FAILED);
    EXPECT_TRUE(plan_.VerifyRequests().empty());
}

TEST_F(CertIssuer, MaySignCertificates)
{
    EXPECT_EQ(Check(WithoutUsage(Root())), PELNIC_ERR_NO_KEY_USAGE);
    EXPECT_EQ(Check(WithUsage(Root(), 0)), PELNIC_ERR_NO_KEY_USAGE);
    EXPECT_EQ(Check(WithUsage(Root(), usage::crlSign)), PELNIC_ERR_CERT_USAGE);
    EXPECT_TRUE(plan_.VerifyRequests().empty());
    EXPECT_EQ(Check(WithUsage(Root(), usage::keyCertSign)), 0u);
}

TEST_F(CertIssuer, HasAKeyThatDecodes)
{
    EXPECT_EQ(Check(With(Root(), &CertSpec::key, KeyId::EcP256)), PELNIC_ERR_UNSUPPORTED_ALGO);
    EXPECT_EQ(Check(With(Root(), &CertSpec::subjectPublicKey, BrokenSpki())), PELNIC_ERR_ASN_DECODE);
}

TEST_F(CertIssuer, MadeTheSignature)
{
    EXPECT_EQ(Check(With(Root(), &CertSpec::key, KeyId::Rsa2048H)), PELNIC_ERR_CERT_SIGNATURE);
    const PELNIC_X509_CERT* forged = stores_.Cert(With(SigningCa(), &CertSpec::brokenSignature, true));
    EXPECT_EQ(Check(forged, Root()), PELNIC_ERR_CERT_SIGNATURE);
}

TEST_F(CertIssuer, IsUnknownWhenTheSignatureCannotBeChecked)
{
    plan_.Fail(Call::VerifyFinal, 1);
    EXPECT_EQ(Check(Root()), PELNIC_ERR_FAILED);
    const CertSpec mixed = With(SigningCa(), &CertSpec::outerAlgorithm, AlgoId(oid::sha384WithRsa));
    EXPECT_EQ(Check(stores_.Cert(mixed), Root()), PELNIC_ERR_CERT_VERIFY);
    const CertSpec sha1 = With(SigningCa(), &CertSpec::hash, Hash::Sha1);
    EXPECT_EQ(Check(stores_.Cert(sha1), Root()), PELNIC_ERR_UNSUPPORTED_DIGEST);
}

TEST_F(CertIssuer, NeedsTheOneGoodAnswer)
{
    ForEveryVerdict(plan_, [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        EXPECT_EQ(Check(Root()) == 0, code == 0 && verdict == 1) << code << ", " << verdict;
    });
}

TEST_F(CertIssuer, MaySignCertificatesThoughOnRecord)
{
    const PELNIC_X509_CERT* ca = stores_.Cert(SigningCa());
    for (const auto& [root, rc] : {std::pair(WithoutUsage(Root()), PELNIC_ERR_NO_KEY_USAGE),
                                   std::pair(WithUsage(Root(), usage::crlSign), PELNIC_ERR_CERT_USAGE)}) {
        ca->pIssuer = stores_.Cert(root);
        EXPECT_EQ(_pnvVerifyCertByIssuer(stores_, ca, ca->pIssuer), rc);
    }
}

TEST_F(CertIssuer, VerifiesTheCertificate)
{
    const PELNIC_X509_CERT* ca = stores_.Cert(SigningCa());
    EXPECT_EQ(_pnvVerifyCertByIssuer(stores_, ca, stores_.Cert(TsaCa())), PELNIC_ERR_FAILED);
    EXPECT_EQ(_pnvVerifyCertByIssuer(stores_, ca, stores_.Cert(With(Root(), &CertSpec::key, KeyId::Rsa2048H))),
              PELNIC_ERR_CERT_SIGNATURE);
    const PELNIC_X509_CERT* root = stores_.Cert(Root());
    EXPECT_EQ(_pnvVerifyCertByIssuer(stores_, ca, root), 0u);
    EXPECT_EQ(ca->pIssuer, root);
}

class FindCertIssuer : public StoresTest {
protected:
    const PELNIC_X509_CERT* Find(const CertSpec& spec) { return _pnvFindCertIssuer(stores_, stores_.Cert(spec)); }
};

TEST_F(FindCertIssuer, FindsNothingWithoutAStore)
{
    EXPECT_EQ(Find(SigningCa()), nullptr);
}

TEST_F(FindCertIssuer, LooksOnlyIntoTheTrustStore)
{
    stores_.Local(Root());
    EXPECT_EQ(Find(SigningCa()), nullptr);
    stores_.AddCrl(CrlOf(Root())); // a trust store without certificates
    EXPECT_EQ(Find(SigningCa()), nullptr);
    const PELNIC_X509_CERT* root = stores_.Trust(Root());
    EXPECT_EQ(Find(SigningCa()), root);
}

TEST_F(FindCertIssuer, TakesTheFirstThatFits)
{
    stores_.Trust(TsaCa());
    stores_.Trust(WithUsage(With(Root(), &CertSpec::serial, Bytes{0x71}), usage::crlSign));
    stores_.Trust(With(With(Root(), &CertSpec::serial, Bytes{0x72}), &CertSpec::key, KeyId::Rsa2048H));
    const PELNIC_X509_CERT* first = stores_.Trust(With(Root(), &CertSpec::serial, Bytes{0x73}));
    stores_.Trust(Root());
    EXPECT_EQ(Find(SigningCa()), first);
}

// ---- Roots ----

class FindCertRoot : public StoresTest {
protected:
    const PELNIC_X509_CERT* Find(const PELNIC_X509_CERT* cert) { return _pnvFindCertRoot(stores_, cert); }
    const PELNIC_X509_CERT* Find(const CertSpec& spec) { return Find(stores_.Cert(spec)); }
};

TEST_F(FindCertRoot, OfASelfSignedCertificateIsItself)
{
    const PELNIC_X509_CERT* root = stores_.Cert(Root());
    EXPECT_EQ(Find(root), root);
}

TEST_F(FindCertRoot, IsTheEndOfTheChain)
{
    const std::vector<CertSpec> chain = CaChain(5);
    const PELNIC_X509_CERT* root = stores_.Trust(chain[0]);
    for (std::size_t i = 1; i < chain.size(); ++i) stores_.Trust(chain[i]);
    EXPECT_EQ(Find(IssuedBy(Signer(), chain.back())), root);
}

TEST_F(FindCertRoot, IsMissingWithTheIssuer)
{
    EXPECT_EQ(Find(Signer()), nullptr);
    stores_.Trust(SigningCa());
    EXPECT_EQ(Find(Signer()), nullptr);
}

TEST_F(FindCertRoot, IsMissingWhenTheSelfSignedTestFails)
{
    plan_.Fail(Call::VerifyFinal, 1);
    EXPECT_EQ(Find(Root()), nullptr);
    EXPECT_EQ(Find(With(Root(), &CertSpec::key, KeyId::EcP256)), nullptr);
}

// A new root key under the old name, certified by the old key: self-issued, not self-signed.
TEST_F(FindCertRoot, LiesBeyondASelfIssuedCertificate)
{
    const PELNIC_X509_CERT* root = stores_.Trust(Root());
    EXPECT_EQ(Find(IssuedBy(Root(KeyId::Rsa2048G), Root())), root);
}

// ---- Issuers of CRLs ----

class CrlIssuer : public StoresTest {
protected:
    // Whether issuer issued the root's CRL.
    PELNIC_ERROR_CODE Check(const CertSpec& issuer, const CrlSpec& crl = CrlOf(Root()))
    {
        return _pnvCheckCrlIssuer(stores_, stores_.Crl(crl), stores_.Cert(issuer));
    }
    PELNIC_ERROR_CODE Verify(const CertSpec& issuer)
    {
        return _pnvVerifyCrlByIssuer(stores_, stores_.Crl(CrlOf(Root())), stores_.Cert(issuer));
    }
};

TEST_F(CrlIssuer, MadeTheSignature)
{
    EXPECT_EQ(Check(Root()), 0u);
    EXPECT_EQ(Verify(Root()), 0u);
    EXPECT_EQ(Check(With(Root(), &CertSpec::key, KeyId::Rsa2048H)), PELNIC_ERR_CRL_VERIFY);
    EXPECT_EQ(Check(Root(), With(CrlOf(Root()), &CrlSpec::brokenSignature, true)), PELNIC_ERR_CRL_VERIFY);
}

TEST_F(CrlIssuer, HasTheName)
{
    EXPECT_EQ(Check(SigningCa()), PELNIC_ERR_FAILED);
    EXPECT_EQ(Check(With(Root(), &CertSpec::subject, TestName("Other"))), PELNIC_ERR_FAILED);
    EXPECT_TRUE(plan_.VerifyRequests().empty());
}

// The name is the caller's business where the issuer is known.
TEST_F(CrlIssuer, IsVerifiedByItsKeyAlone)
{
    EXPECT_EQ(Verify(With(Root(), &CertSpec::subject, TestName("Other"))), 0u);
}

TEST_F(CrlIssuer, MaySignCrls)
{
    for (auto check : {_pnvCheckCrlIssuer, _pnvVerifyCrlByIssuer}) {
        const auto ask = [&](const CertSpec& issuer) {
            return check(stores_, stores_.Crl(CrlOf(Root())), stores_.Cert(issuer));
        };
        EXPECT_EQ(ask(WithoutUsage(Root())), PELNIC_ERR_NO_KEY_USAGE);
        EXPECT_EQ(ask(WithUsage(Root(), usage::keyCertSign)), PELNIC_ERR_CERT_USAGE);
        EXPECT_EQ(ask(WithUsage(Root(), usage::crlSign)), 0u);
    }
}

TEST_F(CrlIssuer, HasAKeyThatDecodes)
{
    EXPECT_EQ(Check(With(Root(), &CertSpec::key, KeyId::EcP256)), PELNIC_ERR_UNSUPPORTED_ALGO);
    EXPECT_EQ(Check(With(Root(), &CertSpec::subjectPublicKey, BrokenSpki())), PELNIC_ERR_ASN_DECODE);
}

// One code for a bad signature and for a check that does not run, whatever keeps it from running.
TEST_F(CrlIssuer, HasOneCodeForEveryFailureOfTheCheck)
{
    for (Call call :
         {Call::VerifyCreate, Call::VerifyInit, Call::VerifyUpdate, Call::VerifyFinal, Call::VerifyVerdict}) {
        plan_.Fail(call, 1);
        EXPECT_EQ(Check(Root()), PELNIC_ERR_CRL_VERIFY);
    }
    const Bytes other = AlgoId(oid::sha512WithRsa);
    EXPECT_EQ(Check(Root(), With(CrlOf(Root()), &CrlSpec::outerAlgorithm, other)), PELNIC_ERR_CRL_VERIFY);
    EXPECT_EQ(Check(Root(), With(CrlOf(Root()), &CrlSpec::hash, Hash::Sha1)), PELNIC_ERR_CRL_VERIFY);
}

TEST_F(CrlIssuer, NeedsTheOneGoodAnswer)
{
    ForEveryVerdict(plan_, [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        EXPECT_EQ(Check(Root()), code == 0 && verdict == 1 ? 0u : PELNIC_ERR_CRL_VERIFY) << code << ", " << verdict;
    });
}

class FindCrlIssuer : public StoresTest {
protected:
    const PELNIC_X509_CERT* Find(const CrlSpec& spec = CrlOf(Root()))
    {
        return pelnic_pki_find_crl_issuer(stores_, stores_.Crl(spec));
    }
};

TEST_F(FindCrlIssuer, FindsNothingWithoutStores)
{
    EXPECT_EQ(Find(), nullptr);
}

TEST_F(FindCrlIssuer, FindsNothingWithoutAContextOrACrl)
{
    stores_.Trust(Root());
    EXPECT_EQ(pelnic_pki_find_crl_issuer(nullptr, stores_.Crl(CrlOf(Root()))), nullptr);
    EXPECT_EQ(pelnic_pki_find_crl_issuer(stores_, nullptr), nullptr);
}

TEST_F(FindCrlIssuer, PrefersTheTrustStore)
{
    stores_.Local(Root());
    const PELNIC_X509_CERT* trusted = stores_.Trust(Root());
    EXPECT_EQ(Find(), trusted);
}

TEST_F(FindCrlIssuer, FallsBackToTheLocalStore)
{
    stores_.Trust(SigningCa());
    stores_.Local(Signer());
    const CertSpec delegate = WithUsage(With(Signer(), &CertSpec::subject, TestName("CRL Signer")), usage::crlSign);
    const PELNIC_X509_CERT* local = stores_.Local(With(delegate, &CertSpec::serial, Bytes{0x71}));
    EXPECT_EQ(Find(CrlOf(delegate)), local);
}

TEST_F(FindCrlIssuer, TakesTheFirstThatFits)
{
    stores_.Trust(WithUsage(With(Root(), &CertSpec::serial, Bytes{0x71}), usage::keyCertSign));
    stores_.Trust(With(With(Root(), &CertSpec::serial, Bytes{0x72}), &CertSpec::key, KeyId::Rsa2048H));
    const PELNIC_X509_CERT* first = stores_.Trust(With(Root(), &CertSpec::serial, Bytes{0x73}));
    stores_.Trust(Root());
    EXPECT_EQ(Find(), first);
}

TEST_F(FindCrlIssuer, TakesNoOneForAForgedCrl)
{
    stores_.Trust(Root());
    stores_.Local(Root());
    EXPECT_EQ(Find(With(CrlOf(Root()), &CrlSpec::brokenSignature, true)), nullptr);
}

// What the first search has learnt does not hide what came later.
TEST_F(FindCrlIssuer, FindsWhoCameAfterTheFirstSearch)
{
    const PELNIC_X509_CRL* crl = stores_.Crl(CrlOf(Root()));
    stores_.Trust(With(Root(), &CertSpec::key, KeyId::Rsa2048H));
    EXPECT_EQ(pelnic_pki_find_crl_issuer(stores_, crl), nullptr);
    const PELNIC_X509_CERT* root = stores_.Trust(Root());
    EXPECT_EQ(pelnic_pki_find_crl_issuer(stores_, crl), root);
    EXPECT_EQ(pelnic_pki_find_crl_issuer(stores_, crl), root);
}

// ---- Certificates by issuer and serial number ----

class FindCertByIssuerSn : public StoresTest {
protected:
    // Looks for the certificate that has issuer and serial number of this one.
    const PELNIC_X509_CERT* Find(const CertSpec& spec)
    {
        const PELNIC_X509_CERTINFO& info = *stores_.Cert(spec)->toBeSigned;
        return pelnic_pki_find_cert_by_issuer_sn(stores_, info.issuer, info.serialNumber);
    }
};

TEST_F(FindCertByIssuerSn, NeedsIssuerSerialAndStore)
{
    EXPECT_EQ(Find(Signer()), nullptr);
    const PELNIC_X509_CERTINFO& info = *stores_.Local(Signer())->toBeSigned;
    EXPECT_EQ(pelnic_pki_find_cert_by_issuer_sn(stores_, nullptr, info.serialNumber), nullptr);
    EXPECT_EQ(pelnic_pki_find_cert_by_issuer_sn(stores_, info.issuer, nullptr), nullptr);
}

TEST_F(FindCertByIssuerSn, LooksOnlyIntoTheLocalStore)
{
    stores_.Trust(SigningCa());
    EXPECT_EQ(Find(SigningCa()), nullptr);
    const PELNIC_X509_CERT* local = stores_.Local(SigningCa());
    EXPECT_EQ(Find(SigningCa()), local);
}

TEST_F(FindCertByIssuerSn, ComparesBoth)
{
    stores_.Local(Signer());
    EXPECT_EQ(Find(With(Signer(), &CertSpec::serial, Bytes{0x71})), nullptr);
    EXPECT_EQ(Find(With(Signer(), &CertSpec::issuer, TestName("Other"))), nullptr);
}

TEST_F(FindCertByIssuerSn, TakesTheFirst)
{
    stores_.Local(Tsa());
    const PELNIC_X509_CERT* first = stores_.Local(Signer());
    stores_.Local(With(Signer(), &CertSpec::key, KeyId::Rsa2048F));
    EXPECT_EQ(Find(Signer()), first);
}

// ---- One step of the walk ----

class WalkStep : public StoresTest {
protected:
    static constexpr PNV_BOOL kGoesOn = 0;
    static constexpr PNV_BOOL kDone = 1;

    PELNIC_ERROR_CODE Step(const CertSpec& spec)
    {
        author_ = nullptr;
        done_ = kGoesOn;
        return _pnvInternalVerifyCertificate(stores_, stores_.Cert(spec), &author_, &done_);
    }

    const DemoPki pki_;
    const PELNIC_X509_CERT* author_ = nullptr;
    PNV_BOOL done_ = kGoesOn;
};

TEST_F(WalkStep, LooksAtTheDateFirst)
{
    stores_->base_time = k2040 + 1;
    EXPECT_EQ(Step(Root()), PELNIC_ERR_CERT_EXPIRED);
    EXPECT_EQ(done_, kGoesOn);
    EXPECT_TRUE(plan_.VerifyRequests().empty());
}

TEST_F(WalkStep, EndsAtASelfSignedCertificate)
{
    EXPECT_EQ(Step(Root()), 0u);
    EXPECT_EQ(done_, kDone);
}

TEST_F(WalkStep, PassesOnAFailedSelfSignedTest)
{
    EXPECT_EQ(Step(With(Root(), &CertSpec::key, KeyId::EcP256)), PELNIC_ERR_UNSUPPORTED_ALGO);
}

TEST_F(WalkStep, EndsWhereADirectCrlCovers)
{
    stores_.AddSigningBranch(pki_);
    EXPECT_EQ(Step(pki_.signer), 0u);
    EXPECT_EQ(done_, kDone);
}

// An issuing distribution point that does not decode makes no indirect CRL.
TEST_F(WalkStep, EndsWhereACrlOfUnknownScopeCovers)
{
    stores_.Trust(pki_.root);
    stores_.Trust(pki_.signingCa);
    stores_.AddCrl(pki_.rootCrl);
    CrlSpec crl = pki_.signingCrl;
    crl.extensions.push_back(Ext(oid::issuingDistributionPoint, Null(), true));
    stores_.AddCrl(crl);
    EXPECT_EQ(Step(pki_.signer), 0u);
    EXPECT_EQ(done_, kDone);
}

TEST_F(WalkStep, GoesOnWhereAnIndirectCrlCovers)
{
    stores_.Trust(pki_.root);
    const PELNIC_X509_CERT* ca = stores_.Trust(pki_.signingCa);
    stores_.AddCrl(Indirect(pki_.rootCrl));
    EXPECT_EQ(Step(pki_.signer), 0u);
    EXPECT_EQ(done_, kGoesOn);
    EXPECT_EQ(author_, ca);
}

TEST_F(WalkStep, GoesOnWithoutCrlChecks)
{
    stores_.AddSigningBranch(pki_);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(Step(pki_.signer), 0u);
    EXPECT_EQ(done_, kGoesOn);
    EXPECT_EQ(author_, stores_.TrustCerts().data[1]);
}

TEST_F(WalkStep, StopsAtARevokedCertificate)
{
    DemoPki pki;
    pki.signingCrl.revoked = {{pki.signer.serial}};
    stores_.AddSigningBranch(pki);
    EXPECT_EQ(Step(pki.signer), PELNIC_ERR_CERT_REVOKED);
    EXPECT_EQ(done_, kGoesOn);
}

TEST_F(WalkStep, StopsWithoutIssuer)
{
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(Step(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(done_, kGoesOn);
    EXPECT_EQ(author_, nullptr);
}

// ---- The whole walk ----

class VerifyCert : public StoresTest {
protected:
    // With a CRL of every CA, unless the check is off.
    void AddChain(const std::vector<CertSpec>& chain)
    {
        for (const CertSpec& ca : chain) {
            stores_.Trust(ca);
            stores_.AddCrl(CrlOf(ca));
        }
    }
    PELNIC_ERROR_CODE VerifySignerBelow(const CertSpec& ca) { return stores_.Verify(IssuedBy(Signer(), ca)); }

    const DemoPki pki_;
};

TEST_F(VerifyCert, RefusesNullArguments)
{
    PNV_BOOL result = 0;
    EXPECT_EQ(pelnic_pki_verify_cert(nullptr, stores_.Cert(Root()), 1, &result), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_pki_verify_cert(stores_, nullptr, 1, &result), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(pelnic_pki_verify_cert(stores_, stores_.Cert(Root()), 1, nullptr), PELNIC_ERR_NULL_POINTER);
}

TEST_F(VerifyCert, AcceptsNothingInAContextThatLostAnInput)
{
    const PELNIC_X509_CERT* root = stores_.Cert(Root());
    stores_->bInputLost = 1;
    EXPECT_EQ(stores_.Verify(root), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC,
                            "A callback failed while certificates or CRLs were added: this context accepts nothing "
                            "any more."));
    stores_->bInputLost = 0;
    EXPECT_EQ(stores_.Verify(root), 0u);
}

// Neither stores nor CRLs are looked at.
TEST_F(VerifyCert, AcceptsASelfSignedCertificateOfTheCallerAtOnce)
{
    EXPECT_EQ(stores_.Verify(ForeignRoot()), 0u);
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), Signer())), 0u);
}

TEST_F(VerifyCert, JudgesASelfSignedCertificateByItsDates)
{
    const PELNIC_X509_CERT* root = stores_.Cert(Root());
    for (const auto& [time, rc] : {std::pair(k2020 - 1, PELNIC_ERR_CERT_NOT_YET_VALID), std::pair(k2020, 0u),
                                   std::pair(k2040, 0u), std::pair(k2040 + 1, PELNIC_ERR_CERT_EXPIRED)}) {
        stores_->base_time = time;
        EXPECT_EQ(stores_.Verify(root), rc);
    }
}

TEST_F(VerifyCert, AcceptsAChainWithCrls)
{
    stores_.AddSigningBranch(pki_);
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(VerifyCert, AcceptsAChainWithoutCrlsWhenTheCheckIsOff)
{
    stores_.Trust(pki_.root);
    stores_.Trust(pki_.signingCa);
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CRL_NOT_FOUND);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
}

TEST_F(VerifyCert, AcceptsTheSameCertificateAgain)
{
    stores_.AddSigningBranch(pki_);
    const PELNIC_X509_CERT* signer = stores_.Cert(pki_.signer);
    EXPECT_EQ(stores_.Verify(signer), 0u);
    EXPECT_EQ(stores_.Verify(signer), 0u);
    stores_->base_time = k2040 + 1;
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CERT_EXPIRED);
}

TEST_F(VerifyCert, NeedsTheIssuerInTheTrustStore)
{
    stores_.Trust(pki_.root);
    stores_.AddCrl(pki_.rootCrl);
    stores_.AddCrl(pki_.signingCrl);
    stores_.Local(pki_.signingCa);
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(VerifyCert, NeedsATrustStore)
{
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(VerifyCert, NeedsASelfSignedEnd)
{
    stores_.Trust(pki_.signingCa);
    stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
}

// Such a CA is passed over as a candidate, so that nobody is left.
TEST_F(VerifyCert, FindsNoIssuerThatMayNotSignCertificates)
{
    stores_.SwitchCrlCheckOff();
    stores_.Trust(pki_.root);
    stores_.Trust(WithUsage(pki_.signingCa, usage::crlSign));
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.Trust(WithoutUsage(With(pki_.signingCa, &CertSpec::serial, Bytes{0x71})));
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.Trust(With(pki_.signingCa, &CertSpec::serial, Bytes{0x72}));
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
}

TEST_F(VerifyCert, RefusesAForgedSignature)
{
    stores_.AddSigningBranch(pki_);
    EXPECT_EQ(stores_.Verify(With(pki_.signer, &CertSpec::brokenSignature, true)), PELNIC_ERR_CERT_NO_ISSUER);
}

// The walk must not take a switched-off CRL check for a CRL that covers the certificate.
TEST_F(VerifyCert, RefusesAForgedSignatureWhenTheCheckIsOff)
{
    stores_.SwitchCrlCheckOff();
    stores_.AddSigningBranch(pki_);
    EXPECT_EQ(stores_.Verify(With(pki_.signer, &CertSpec::brokenSignature, true)), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(VerifyCert, RefusesAForgedIntermediate)
{
    stores_.SwitchCrlCheckOff();
    stores_.Trust(pki_.root);
    stores_.Trust(With(pki_.signingCa, &CertSpec::brokenSignature, true));
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(VerifyCert, JudgesEveryDateOnTheWay)
{
    stores_.SwitchCrlCheckOff();
    stores_.Trust(With(pki_.root, &CertSpec::notAfter, UtcTime("270101000000Z")));
    stores_.Trust(With(pki_.signingCa, &CertSpec::notBefore, UtcTime("210101000000Z")));
    const PELNIC_X509_CERT* signer = stores_.Cert(pki_.signer);
    for (const auto& [time, rc] :
         {std::pair(PNV_TIME_T{1609459199}, PELNIC_ERR_CERT_NOT_YET_VALID),             // end of 2020
          std::pair(PNV_TIME_T{1609459200}, 0u), std::pair(PNV_TIME_T{1798761600}, 0u), // 2027-01-01
          std::pair(PNV_TIME_T{1798761601}, PELNIC_ERR_CERT_EXPIRED)}) {
        stores_->base_time = time;
        EXPECT_EQ(stores_.Verify(signer), rc) << time;
    }
}

TEST_F(VerifyCert, TurnsAnExpiredCaIntoACrlWithoutIssuer)
{
    stores_.Trust(pki_.root);
    stores_.Trust(With(pki_.signingCa, &CertSpec::notAfter, UtcTime("251231235959Z")));
    stores_.AddCrl(pki_.rootCrl);
    stores_.AddCrl(pki_.signingCrl);
    EXPECT_EQ(stores_.Verify(pki_.signer), PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, 0, "Verify CRL failed."));
}

// ---- Depth ----

TEST_F(VerifyCert, RefusesATwelfthNestedVerification)
{
    for (PNV_INT depth : {11, 12, 1000}) {
        plan_.ClearLogs();
        stores_->curr_depth = depth;
        PNV_BOOL result = 1;
        EXPECT_EQ(pelnic_pki_verify_cert(stores_, stores_.Cert(Root()), 0, &result), PELNIC_ERR_PATH_TOO_DEEP);
        EXPECT_EQ(result, 0u);
        EXPECT_EQ(stores_->curr_depth, depth);
        EXPECT_TRUE(LoggedError(plan_, 0, "The path of certificate is too deep."));
    }
}

TEST_F(VerifyCert, TakesAnEleventhNestedVerification)
{
    stores_->curr_depth = 10;
    PNV_BOOL result = 0;
    EXPECT_EQ(pelnic_pki_verify_cert(stores_, stores_.Cert(Root()), 0, &result), 0u);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(stores_->curr_depth, 10);
}

TEST_F(VerifyCert, LeavesTheDepthOfAFailureAsItWas)
{
    stores_->curr_depth = 7;
    PNV_BOOL result = 1;
    EXPECT_EQ(pelnic_pki_verify_cert(stores_, stores_.Cert(Signer()), 0, &result), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(stores_->curr_depth, 7);
}

TEST_F(VerifyCert, BeginsAnewWhenAsked)
{
    stores_->curr_depth = 11;
    EXPECT_EQ(stores_.Verify(Root()), 0u);
}

// Each CA's CRL has the CA verified in turn: the signer, nine CAs and the root are eleven.
TEST_F(VerifyCert, ReachesNineIntermediatesWithDirectCrls)
{
    const std::vector<CertSpec> chain = CaChain(9);
    AddChain(chain);
    EXPECT_EQ(VerifySignerBelow(chain.back()), 0u);
}

TEST_F(VerifyCert, DoesNotReachTenIntermediatesWithDirectCrls)
{
    const std::vector<CertSpec> chain = CaChain(10);
    AddChain(chain);
    EXPECT_EQ(VerifySignerBelow(chain.back()), PELNIC_ERR_CRL_VERIFY);
    EXPECT_TRUE(LoggedError(plan_, 0, "The path of certificate is too deep."));
    EXPECT_TRUE(LoggedError(plan_, 0, "Verify CRL failed."));
    EXPECT_EQ(VerifySignerBelow(chain[9]), 0u);
}

// The walk itself has no limit but the trust store's size, which such a chain uses up.
TEST_F(VerifyCert, ReachesAnyNumberOfIntermediatesWithoutCrls)
{
    stores_.SwitchCrlCheckOff();
    const std::vector<CertSpec> chain = CaChain(40);
    for (auto ca = chain.rbegin(); ca != chain.rend(); ++ca) stores_.Trust(*ca);
    EXPECT_EQ(VerifySignerBelow(chain.back()), 0u);
    EXPECT_EQ(_pnvFindCertRoot(stores_, stores_.Cert(IssuedBy(Signer(), chain.back()))), stores_.TrustCerts().data[40]);
}

TEST_F(VerifyCert, ReachesAnyNumberOfIntermediatesWithAnIndirectCrl)
{
    const std::vector<CertSpec> chain = CaChain(20);
    for (const CertSpec& ca : chain) stores_.Trust(ca);
    stores_.AddCrl(Indirect(pki_.rootCrl));
    EXPECT_EQ(VerifySignerBelow(chain.back()), 0u);
}

// ---- What came with a package ----

// One wrong answer of the crypto library lets a self-signed certificate of a package pass as a common one.
class PackageCert : public StoresTest {
protected:
    const PELNIC_X509_CERT* SmuggleIn(const CertSpec& selfSigned)
    {
        plan_.Fail(Call::VerifyVerdict, 1);
        const PELNIC_X509_CERT* cert = stores_.Package(selfSigned);
        EXPECT_EQ(plan_.FaultsMet(), 1u);
        EXPECT_EQ(cert->iRef, 2);
        return cert;
    }
    // With the CRL check on and off.
    void ExpectVerdict(const PELNIC_X509_CERT* cert, PELNIC_ERROR_CODE rc)
    {
        for (PNV_INT noCheck : {0, 1}) {
            stores_->vrf_params.no_check_crl = noCheck;
            EXPECT_EQ(stores_.Verify(cert), rc);
        }
    }

    const CertSpec root_ = ForeignRoot();
    const CertSpec signer_ = IssuedBy(Signer(), root_);
    const CertSpec loner_ = IssuedBy(Signer(), Signer()); // self-signed and no CA
};

TEST_F(PackageCert, SelfSignedStaysOutside)
{
    stores_.Package(root_);
    stores_.Package(loner_);
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
    EXPECT_EQ(stores_.Store().local_store, nullptr);
}

TEST_F(PackageCert, LinksAChain)
{
    const DemoPki pki;
    stores_.Trust(pki.root);
    stores_.Package(pki.signingCa);
    stores_.Package(pki.signer);
    stores_.AddCrl(pki.rootCrl);
    stores_.AddCrl(pki.signingCrl);
    ExpectVerdict(stores_.LocalCerts().data[0], 0);
}

TEST_F(PackageCert, EndsNoChain)
{
    SmuggleIn(root_);
    stores_.AddCrl(CrlOf(root_));
    ASSERT_EQ(stores_.TrustCerts().num, 1u);
    ExpectVerdict(stores_.Cert(signer_), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(PackageCert, EndsNoChainBehindItsOwnLinks)
{
    const CertSpec ca = CaBelow(root_, "Foreign CA", KeyId::Rsa2048G);
    SmuggleIn(root_);
    stores_.Package(ca);
    stores_.AddCrl(CrlOf(root_));
    stores_.AddCrl(CrlOf(ca));
    ExpectVerdict(stores_.Cert(IssuedBy(Signer(), ca)), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(PackageCert, IsNoRoot)
{
    const PELNIC_X509_CERT* root = SmuggleIn(root_);
    EXPECT_EQ(_pnvFindCertRoot(stores_, root), nullptr);
    EXPECT_EQ(_pnvFindCertRoot(stores_, stores_.Cert(signer_)), nullptr);
}

TEST_F(PackageCert, IsRefusedWhereAWalkBegins)
{
    ExpectVerdict(SmuggleIn(root_), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(PackageCert, IsRefusedAsASignerOfItsOwn)
{
    const PELNIC_X509_CERT* loner = SmuggleIn(loner_);
    const PELNIC_X509_CERTINFO& info = *loner->toBeSigned;
    ASSERT_EQ(pelnic_pki_find_cert_by_issuer_sn(stores_, info.issuer, info.serialNumber), loner);
    ExpectVerdict(loner, PELNIC_ERR_CERT_NO_ISSUER);
}

// An indirect CRL speaks for everybody below the root that it chains to.
TEST_F(PackageCert, MakesNoRootForACrl)
{
    SmuggleIn(root_);
    stores_.Trust(Root());
    stores_.AddCrl(Indirect(CrlOf(root_)));
    EXPECT_EQ(stores_.Verify(SigningCa()), PELNIC_ERR_CRL_NOT_FOUND);
}

TEST_F(PackageCert, BecomesAnAnchorWhenTheCallerAddsIt)
{
    SmuggleIn(root_);
    const Bytes der = Build(root_);
    EXPECT_EQ(pelnic_verify_add_cert(stores_, der.data(), Len(der)), 0u);
    EXPECT_EQ(stores_.TrustCerts().num, 1u);
    stores_.AddCrl(CrlOf(root_));
    ExpectVerdict(stores_.Cert(signer_), 0);
}

TEST_F(PackageCert, BecomesAnAnchorWhenItIsAddedToTheTrustStore)
{
    SmuggleIn(root_);
    EXPECT_EQ(pelnic_pki_store_add_trust_cert(stores_, stores_.Cert(root_)), PELNIC_ERR_CERT_DUPLICATE);
    stores_.AddCrl(CrlOf(root_));
    ExpectVerdict(stores_.Cert(signer_), 0);
}

// The store takes the two for one: the one in it is still the package's, and may say what the caller's does not.
TEST_F(PackageCert, StaysOneWhenTheCallerAddsAnotherOfItsIssuerSerialNumberAndKey)
{
    SmuggleIn(root_);
    const Bytes twin = Build(With(root_, &CertSpec::notAfter, UtcTime("391231235959Z")));
    EXPECT_EQ(pelnic_verify_add_cert(stores_, twin.data(), Len(twin)), 0u);
    EXPECT_TRUE(LoggedWarning(plan_, std::nullopt, "Duplicate certificate add."));
    EXPECT_EQ(stores_.TrustCerts().num, 1u);
    stores_.AddCrl(CrlOf(root_));
    ExpectVerdict(stores_.Cert(signer_), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(PackageCert, BecomesALocalCertificateWhenTheCallerAddsIt)
{
    const PELNIC_X509_CERT* loner = SmuggleIn(loner_);
    const Bytes der = Build(loner_);
    EXPECT_EQ(pelnic_verify_add_cert(stores_, der.data(), Len(der)), 0u);
    EXPECT_EQ(stores_.LocalCerts().num, 1u);
    ExpectVerdict(loner, 0);
}

TEST_F(PackageCert, TakesNothingFromAnAnchorOfTheCaller)
{
    stores_.Trust(root_);
    stores_.AddCrl(CrlOf(root_));
    plan_.Fail(Call::VerifyVerdict, 1);
    stores_.Package(root_);
    EXPECT_EQ(plan_.FaultsMet(), 1u);
    EXPECT_EQ(stores_.TrustCerts().num, 1u);
    ExpectVerdict(stores_.Cert(signer_), 0);
}

// The caller's own copy never was in a package.
TEST_F(PackageCert, SaysNothingAboutAnotherCopy)
{
    SmuggleIn(root_);
    ExpectVerdict(stores_.Cert(root_), 0);
}

// ---- Cycles ----

class Cycle : public StoresTest {
protected:
    void SetUp() override
    {
        stores_.Trust(pair_.left);
        stores_.Trust(pair_.right);
        stores_.AddCrl(CrlOf(pair_.left));
        stores_.AddCrl(CrlOf(pair_.right));
    }

    const CaPair pair_;
    const DemoPki pki_;
};

TEST_F(Cycle, ChangesNothingForAChainBesideIt)
{
    stores_.AddSigningBranch(pki_);
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
}

TEST_F(Cycle, ChangesNothingForAChainWithAnIndirectCrl)
{
    stores_.Trust(pki_.root);
    stores_.Trust(pki_.signingCa);
    stores_.AddCrl(Indirect(CrlOf(pair_.left)));
    stores_.AddCrl(Indirect(pki_.rootCrl));
    EXPECT_EQ(stores_.Verify(pki_.signer), 0u);
}

TEST_F(Cycle, HasNoRoot)
{
    EXPECT_EQ(_pnvFindCertRoot(stores_, stores_.TrustCerts().data[0]), nullptr);
    EXPECT_EQ(_pnvFindCertRoot(stores_, stores_.Cert(IssuedBy(Signer(), pair_.left))), nullptr);
}

TEST_F(Cycle, ValidatesNothing)
{
    const PELNIC_X509_CERT* signer = stores_.Cert(IssuedBy(Signer(), pair_.left));
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.AddCrl(Indirect(CrlOf(pair_.right)));
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(signer), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(stores_.Verify(stores_.TrustCerts().data[0]), PELNIC_ERR_CERT_NO_ISSUER);
}

TEST_F(Cycle, EndsAtOnce)
{
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), pair_.left)), PELNIC_ERR_CERT_NO_ISSUER);
    EXPECT_EQ(plan_.VerifyRequests().size(), 3u); // the signer by the one, and each of the pair by the other
}

// One name, two keys that certify each other: self-issued all around, self-signed nowhere.
TEST_F(Cycle, OfOneNameValidatesNothing)
{
    const CertSpec one = Intermediate("Twin CA", KeyId::Rsa2048D);
    const CertSpec two = Intermediate("Twin CA", KeyId::Rsa2048E);
    stores_.Trust(IssuedBy(one, two));
    stores_.Trust(IssuedBy(two, one));
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), one)), PELNIC_ERR_CERT_NO_ISSUER);
    stores_.SwitchCrlCheckOff();
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), one)), PELNIC_ERR_CERT_NO_ISSUER);
}

// The way out of the ring is never taken: the first issuer that fits stays on record.
TEST_F(Cycle, WithAWayOutIsStillARing)
{
    stores_.SwitchCrlCheckOff();
    stores_.Trust(pki_.root);
    stores_.Trust(IssuedBy(With(pair_.right, &CertSpec::serial, Bytes{0x71}), pki_.root));
    EXPECT_EQ(stores_.Verify(IssuedBy(Signer(), pair_.left)), PELNIC_ERR_CERT_NO_ISSUER);
}

} // namespace
} // namespace pnvtest
