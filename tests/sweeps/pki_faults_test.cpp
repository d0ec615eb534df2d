// Every callback of the table failing at its n-th call, once and from there on, for every n, under whole operations:
// the right code or a clean success, nothing left behind, and nothing accepted that is refused when all goes well, then
// or when the same is asked again and nothing fails.
#include "cmsverify/cms_verify.h"

#include "support/cms.h"
#include "support/fault_kinds.h"
#include "support/stores.h"
#include "support/temp_dir.h"

#include <algorithm>

namespace pnvtest {
namespace {

// Those that have nothing but an answer, which is then "different" or "not there".
constexpr NamedCall kAnsweringCalls[] = {
    {"Memcmp", Call::Memcmp}, {"Strncmp", Call::Strncmp}, {"Strstr", Call::Strstr},
    {"Strchr", Call::Strchr}, {"Strlen", Call::Strlen},   {"Strcmp", Call::Strcmp},
};

class EveryCall : public ::testing::TestWithParam<NamedCall> {
protected:
    Call Failing() const { return GetParam().call; }
};
const auto kCallName = [](const auto& run) { return run.param.name; };
INSTANTIATE_TEST_SUITE_P(Failing, EveryCall, ::testing::ValuesIn(kFailingCalls), kCallName);
INSTANTIATE_TEST_SUITE_P(Deceived, EveryCall, ::testing::ValuesIn(kWrongVerdict), kCallName);
INSTANTIATE_TEST_SUITE_P(Answering, EveryCall, ::testing::ValuesIn(kAnsweringCalls), kCallName);

::testing::AssertionResult IsOneOf(PELNIC_ERROR_CODE rc, std::initializer_list<PELNIC_ERROR_CODE> codes)
{
    if (std::find(codes.begin(), codes.end(), rc) != codes.end()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not a promised code: " << std::hex << rc;
}

// ---- Creating a context ----

TEST_P(EveryCall, WhileAContextIsCreated)
{
    SweepFaults(
        Failing(),
        [](CallbackPlan& plan) {
            Context context(plan);
            EXPECT_EQ(context.Record() != nullptr, context.CreateResult() == 0);
            return context.CreateResult();
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            EXPECT_EQ(rc != 0, run.met);
            EXPECT_TRUE(IsOneOf(rc, {0, PELNIC_ERR_SYS_MEM_ALLOC, PELNIC_ERR_SYS_MEM_SET, injectedFault}));
        });
}

// ---- Adding a file ----

// Three certificates and two CRLs.
class PemFile {
public:
    const std::string& Path() const { return path_; }
    // What a context holds of it; anything else in a store fails the test.
    std::size_t Held(const Stores& stores) const
    {
        for (PNV_UINT32 i = 0; i < stores.TrustCerts().num; ++i) {
            const Bytes cert = Encoding(*stores.TrustCerts().data[i]);
            EXPECT_TRUE(cert == root_ || cert == ca_);
        }
        for (PNV_UINT32 i = 0; i < stores.LocalCerts().num; ++i) {
            const Bytes cert = Encoding(*stores.LocalCerts().data[i]);
            EXPECT_TRUE(cert == root_ || cert == ca_ || cert == signer_);
        }
        for (PNV_UINT32 i = 0; i < stores->crl_list.num; ++i) {
            const Bytes crl = Encoding(*stores->crl_list.data[i]);
            EXPECT_TRUE(crl == rootCrl_ || crl == caCrl_);
        }
        return stores.TrustCerts().num + stores.LocalCerts().num + stores->crl_list.num;
    }

private:
    const TempDir dir_;
    const Bytes root_ = Build(Root());
    const Bytes ca_ = Build(SigningCa());
    const Bytes signer_ = Build(Signer());
    const Bytes rootCrl_ = Build(CrlOf(Root()));
    const Bytes caCrl_ = Build(CrlOf(SigningCa()));
    const std::string path_ =
        dir_.Write("file.pem", Cat(Pem("CERTIFICATE", root_), Pem("X509 CRL", rootCrl_), Pem("CERTIFICATE", ca_),
                                   Pem("X509 CRL", caCrl_), Pem("CERTIFICATE", signer_)));
};

struct Added {
    PELNIC_ERROR_CODE rc;
    std::size_t held;
};

TEST_P(EveryCall, WhileCertificatesAreAddedFromAFile)
{
    const PemFile file;
    SweepFaults(
        Failing(),
        [&](CallbackPlan& plan) {
            Stores stores(plan);
            const PELNIC_ERROR_CODE rc =
                pelnic_verify_add_cert_file(static_cast<PELNIC_VRF*>(stores), file.Path().c_str());
            EXPECT_EQ(stores->crl_list.num, 0u);
            return Added{rc, file.Held(stores)};
        },
        [](const Added& added, const FaultRun& run) {
            EXPECT_TRUE(IsOneOf(added.rc, {0, PELNIC_ERR_SYS_FILE_OPEN, PELNIC_ERR_SYS_FILE_EMPTY,
                                           PELNIC_ERR_SYS_FILE_TOO_LARGE, PELNIC_ERR_SYS_FILE_READ,
                                           PELNIC_ERR_CMS_FORMAT, PELNIC_ERR_CERT_INVALID, PELNIC_ERR_CERT_NOT_CA,
                                           PELNIC_ERR_NULL_POINTER, PELNIC_ERR_SYS_MEM_ALLOC, injectedFault}));
            EXPECT_LE(added.held, 3u);
            if (!run.met) {
                EXPECT_EQ(added.rc, 0u);
                EXPECT_EQ(added.held, 3u);
            }
        });
}

TEST_P(EveryCall, WhileCrlsAreAddedFromAFile)
{
    const PemFile file;
    SweepFaults(
        Failing(),
        [&](CallbackPlan& plan) {
            Stores stores(plan);
            const PELNIC_ERROR_CODE rc =
                pelnic_verify_add_crl_file(static_cast<PELNIC_VRF*>(stores), file.Path().c_str());
            return Added{rc, file.Held(stores)};
        },
        [](const Added& added, const FaultRun& run) {
            EXPECT_TRUE(
                IsOneOf(added.rc, {0, PELNIC_ERR_SYS_FILE_OPEN, PELNIC_ERR_SYS_FILE_EMPTY,
                                   PELNIC_ERR_SYS_FILE_TOO_LARGE, PELNIC_ERR_SYS_FILE_READ, PELNIC_ERR_CRL_DECODE,
                                   PELNIC_ERR_NULL_POINTER, PELNIC_ERR_SYS_MEM_ALLOC, injectedFault}));
            EXPECT_LE(added.held, 5u);
            if (!run.met) {
                EXPECT_EQ(added.rc, 0u);
                EXPECT_EQ(added.held, 4u); // the root stays outside
            }
        });
}

// ---- Verifying a chain ----

// Encodings, built once: the sweeps decode them a thousand times.
struct Chain {
    explicit Chain(std::size_t intermediates)
        : specs(CaChain(intermediates)), signerSpec(IssuedBy(Signer(), specs.back()))
    {
        for (const CertSpec& ca : specs) {
            cas.push_back(Build(ca));
            crls.push_back(Build(CrlOf(ca)));
        }
        signer = Build(signerSpec);
    }

    std::vector<CertSpec> specs; // of the CAs, the root first
    CertSpec signerSpec;
    std::vector<Bytes> cas;
    std::vector<Bytes> crls;
    Bytes signer;
};

void AddCas(Stores& stores, const Chain& chain)
{
    for (const Bytes& ca : chain.cas) stores.Trust(ca);
}

void AddCrls(Stores& stores, const Chain& chain)
{
    for (const Bytes& crl : chain.crls) stores.AddCrl(crl);
}

// Four levels: a root, two CAs and a signer.
TEST_P(EveryCall, WhileAGoodChainIsVerified)
{
    static const Chain chain(2);
    SweepFaults(
        Failing(),
        [](CallbackPlan& plan) {
            Stores stores(plan);
            AddCas(stores, chain);
            AddCrls(stores, chain);
            const PELNIC_ERROR_CODE rc = stores.Verify(stores.Cert(chain.signer));
            EXPECT_EQ(stores.VerifyAgain(), 0u);
            return rc;
        },
        [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            EXPECT_TRUE(IsOneOf(rc, {0, PELNIC_ERR_CERT_NO_ISSUER, PELNIC_ERR_CRL_NOT_FOUND, PELNIC_ERR_CRL_VERIFY,
                                     PELNIC_ERR_SYS_MEM_ALLOC, injectedFault}));
            EXPECT_TRUE(run.met || rc == 0);
        });
}

// ---- Verifying what has to be refused ----

struct Refusal {
    const char* name;
    PELNIC_ERROR_CODE code; // when nothing fails
    PELNIC_ERROR_CODE (*verify)(Stores&);
};

// A root, a CA, a signer.
const Chain& Demo()
{
    static const Chain demo(1);
    return demo;
}

Bytes RevokingCrl(const CertSpec& ca, const CertSpec& cert, const Bytes& date = UtcTime("250601000000Z"))
{
    return Build(With(CrlOf(ca), &CrlSpec::revoked, std::vector<RevokedSpec>{{cert.serial, date}}));
}

PELNIC_ERROR_CODE VerifyWithCrls(Stores& stores, const Bytes& rootCrl, const Bytes& caCrl)
{
    AddCas(stores, Demo());
    stores.AddCrl(rootCrl);
    stores.AddCrl(caCrl);
    return stores.Verify(stores.Cert(Demo().signer));
}

// Refused by what a CRL says, where without that CRL, or without its last word, there would be no reason to.
const Refusal kRefusalsByOneCrl[] = {
    {"RevokedSignerBesideAnotherCrl", PELNIC_ERR_CERT_REVOKED,
     [](Stores& stores) {
         static const Bytes crl = RevokingCrl(Demo().specs[1], Demo().signerSpec);
         stores.AddCrl(crl);
         return VerifyWithCrls(stores, Demo().crls[0], Demo().crls[1]);
     }},
    {"RevokedSignerByAnIndirectCrl", PELNIC_ERR_CERT_REVOKED,
     [](Stores& stores) {
         static const Bytes crl = Build(Indirect(
             With(CrlOf(Demo().specs[0]), &CrlSpec::revoked, std::vector<RevokedSpec>{{Demo().signerSpec.serial}})));
         stores.AddCrl(crl);
         return VerifyWithCrls(stores, Demo().crls[0], Demo().crls[1]);
     }},
};

// Refused for want of a good CRL, or by a question that the walk asks beside the CRL.
const Refusal kRefusalsByCrl[] = {
    {"RevokedSigner", PELNIC_ERR_CERT_REVOKED,
     [](Stores& stores) {
         static const Bytes crl = RevokingCrl(Demo().specs[1], Demo().signerSpec);
         return VerifyWithCrls(stores, Demo().crls[0], crl);
     }},
    {"RevokedCa", PELNIC_ERR_CRL_VERIFY,
     [](Stores& stores) {
         static const Bytes crl = RevokingCrl(Demo().specs[0], Demo().specs[1]);
         return VerifyWithCrls(stores, crl, Demo().crls[1]);
     }},
    {"CaCompromisedInTheFuture", PELNIC_ERR_CRL_VERIFY, // which counts for all times, as it is a CA
     [](Stores& stores) {
         static const Bytes crl = RevokingCrl(Demo().specs[0], Demo().specs[1], UtcTime("270101000000Z"));
         return VerifyWithCrls(stores, crl, Demo().crls[1]);
     }},
    {"ExpiredCaBehindAnIndirectCrl", PELNIC_ERR_CERT_EXPIRED, // the walk goes on behind it
     [](Stores& stores) {
         static const Bytes ca = Build(With(Demo().specs[1], &CertSpec::notAfter, UtcTime("251231235959Z")));
         static const Bytes crl = Build(Indirect(CrlOf(Demo().specs[0])));
         stores.Trust(Demo().cas[0]);
         stores.Trust(ca);
         stores.AddCrl(crl);
         return stores.Verify(stores.Cert(Demo().signer));
     }},
    {"NoCrlOfTheCa", PELNIC_ERR_CRL_NOT_FOUND,
     [](Stores& stores) {
         AddCas(stores, Demo());
         stores.AddCrl(Demo().crls[0]);
         return stores.Verify(stores.Cert(Demo().signer));
     }},
    {"NoCrlOfTheRoot", PELNIC_ERR_CRL_VERIFY,
     [](Stores& stores) {
         AddCas(stores, Demo());
         stores.AddCrl(Demo().crls[1]);
         return stores.Verify(stores.Cert(Demo().signer));
     }},
    {"ExpiredCrl", PELNIC_ERR_CRL_NOT_FOUND,
     [](Stores& stores) {
         static const Bytes expired =
             Build(With(CrlOf(Demo().specs[1]), &CrlSpec::nextUpdate, UtcTime("251231235959Z")));
         return VerifyWithCrls(stores, Demo().crls[0], expired);
     }},
};

const Refusal kRefusalsByChain[] = {
    {"ForgedSigner", PELNIC_ERR_CERT_NO_ISSUER,
     [](Stores& stores) {
         static const Bytes forged = Build(With(Demo().signerSpec, &CertSpec::brokenSignature, true));
         AddCas(stores, Demo());
         AddCrls(stores, Demo());
         return stores.Verify(stores.Cert(forged));
     }},
    {"ForgedSignerWithoutCrlCheck", PELNIC_ERR_CERT_NO_ISSUER,
     [](Stores& stores) {
         static const Bytes forged = Build(With(Demo().signerSpec, &CertSpec::brokenSignature, true));
         stores.SwitchCrlCheckOff();
         AddCas(stores, Demo());
         return stores.Verify(stores.Cert(forged));
     }},
    {"ExpiredSigner", PELNIC_ERR_CERT_EXPIRED,
     [](Stores& stores) {
         stores->base_time = 2208988801; // a second too late
         return VerifyWithCrls(stores, Demo().crls[0], Demo().crls[1]);
     }},
    {"Cycle", PELNIC_ERR_CERT_NO_ISSUER,
     [](Stores& stores) {
         static const CaPair pair;
         static const Bytes left = Build(pair.left);
         static const Bytes right = Build(pair.right);
         static const Bytes signer = Build(IssuedBy(Signer(), pair.left));
         static const Bytes crl = Build(CrlOf(pair.left));
         stores.Package(left);
         stores.Package(right);
         stores.AddCrl(crl);
         return stores.Verify(stores.Cert(signer));
     }},
};

// Foreign chains that come with a package. Self-signed certificates are kept out by a signature check alone, which one
// failure is enough to mislead.
struct ForeignChain {
    const CertSpec rootSpec = ForeignRoot();
    const Bytes root = Build(rootSpec);
    const Bytes crl = Build(CrlOf(rootSpec));
    const Bytes signer = Build(IssuedBy(Signer(), rootSpec));
    const Bytes loner = Build(IssuedBy(Signer(), Signer()));
};

const ForeignChain& Foreign()
{
    static const ForeignChain foreign;
    return foreign;
}

PELNIC_ERROR_CODE VerifyFirstLocal(Stores& stores)
{
    const LIST_TYPE_PELNIC_X509_CERT& local = stores.LocalCerts();
    return local.num == 0 ? PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND : stores.Verify(local.data[0]);
}

PELNIC_ERROR_CODE VerifyForeignChain(Stores& stores)
{
    stores.Trust(Demo().cas[0]);
    stores.Package(Foreign().root);
    stores.Package(Foreign().signer);
    stores.AddCrl(Foreign().crl);
    return VerifyFirstLocal(stores);
}

const Refusal kForeignRefusals[] = {
    {"ForeignChain", PELNIC_ERR_CERT_NO_ISSUER, VerifyForeignChain},
    {"ForeignChainWithoutCrlCheck", PELNIC_ERR_CERT_NO_ISSUER,
     [](Stores& stores) {
         stores.SwitchCrlCheckOff();
         return VerifyForeignChain(stores);
     }},
    {"ForeignSignerOfItsOwn", PELNIC_ERR_CMS_SIGNER_CERT_NOT_FOUND,
     [](Stores& stores) {
         stores.Package(Foreign().loner);
         return VerifyFirstLocal(stores);
     }},
};

class EveryRefusal : public ::testing::TestWithParam<Refusal> {
protected:
    template <typename NamedCalls> static void ExpectRefusedWhile(const NamedCalls& calls)
    {
        for (const NamedCall& failing : calls) {
            SCOPED_TRACE(failing.name);
            SweepFaults(
                failing.call,
                [](CallbackPlan& plan) {
                    Stores stores(plan);
                    const PELNIC_ERROR_CODE rc = GetParam().verify(stores);
                    EXPECT_NE(stores.VerifyAgain(), 0u);
                    return rc;
                },
                [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
                    EXPECT_NE(rc, 0u);
                    EXPECT_TRUE(run.met || rc == GetParam().code) << std::hex << rc;
                });
        }
    }
};
INSTANTIATE_TEST_SUITE_P(OneCrl, EveryRefusal, ::testing::ValuesIn(kRefusalsByOneCrl), kCallName);
INSTANTIATE_TEST_SUITE_P(Crl, EveryRefusal, ::testing::ValuesIn(kRefusalsByCrl), kCallName);
INSTANTIATE_TEST_SUITE_P(Chain, EveryRefusal, ::testing::ValuesIn(kRefusalsByChain), kCallName);
INSTANTIATE_TEST_SUITE_P(Foreign, EveryRefusal, ::testing::ValuesIn(kForeignRefusals), kCallName);

TEST_P(EveryRefusal, StaysOneWhateverFails)
{
    ExpectRefusedWhile(kFailingCalls);
}

// A CRL whose signature is called bad counts for nothing, as it must: then another CRL may cover the certificate.
class DeceivedRefusal : public EveryRefusal {};
INSTANTIATE_TEST_SUITE_P(Crl, DeceivedRefusal, ::testing::ValuesIn(kRefusalsByCrl), kCallName);
INSTANTIATE_TEST_SUITE_P(Chain, DeceivedRefusal, ::testing::ValuesIn(kRefusalsByChain), kCallName);
INSTANTIATE_TEST_SUITE_P(Foreign, DeceivedRefusal, ::testing::ValuesIn(kForeignRefusals), kCallName);

TEST_P(DeceivedRefusal, StaysOneWhenAGoodSignatureIsCalledBad)
{
    ExpectRefusedWhile(kWrongVerdict);
}

// A comparison that says "different" hides an entry of a CRL, and nobody can tell.
class MisledRefusal : public EveryRefusal {};
INSTANTIATE_TEST_SUITE_P(Chain, MisledRefusal, ::testing::ValuesIn(kRefusalsByChain), kCallName);
INSTANTIATE_TEST_SUITE_P(Foreign, MisledRefusal, ::testing::ValuesIn(kForeignRefusals), kCallName);

TEST_P(MisledRefusal, StaysOneWhateverIsAnsweredWrongly)
{
    ExpectRefusedWhile(kAnsweringCalls);
}

// The same with a whole signature, all of whose certificates belong to the foreign root, that one included.
class ForeignSignature : public ::testing::Test {
protected:
    ForeignSignature()
    {
        DemoPki pki;
        pki.root = ForeignRoot();
        pki.rootCrl = CrlOf(pki.root);
        pki.signingCa = IssuedBy(pki.signingCa, pki.root);
        pki.tsaCa = IssuedBy(pki.tsaCa, pki.root);
        root_ = Build(pki.root);
        crls_ = Cat(pki.Crls(), root_);
        TokenSpec token = DemoToken(pki);
        token.cms.certificates.push_back(root_);
        CmsSpec spec = DemoCms(pki, token);
        spec.certificates.push_back(root_);
        cms_ = DetachedCms(Text("content"), spec);
    }
    PELNIC_ERROR_CODE Begin(Stores& stores) const
    {
        PELNIC_VRF_CTX ctx = static_cast<PELNIC_VRF*>(stores);
        EXPECT_EQ(pelnic_verify_add_crl(ctx, crls_.data(), Len(crls_)), 0u);
        return BeginAgain(stores);
    }
    PELNIC_ERROR_CODE BeginAgain(Stores& stores) const
    {
        PELNIC_VRF_CTX ctx = static_cast<PELNIC_VRF*>(stores);
        return pelnic_verify_detach_signature_begin(ctx, cms_.data(), Len(cms_));
    }

    Bytes root_;
    Bytes crls_;
    Bytes cms_;
};

TEST_F(ForeignSignature, IsAcceptedByWhoTrustsItsRoot)
{
    CleanPlan plan;
    Stores stores(plan);
    stores.Trust(root_);
    EXPECT_EQ(Begin(stores), 0u);
}

TEST_F(ForeignSignature, IsRefusedWhateverTheCryptoLibrarySays)
{
    for (Call call :
         {Call::VerifyCreate, Call::VerifyInit, Call::VerifyUpdate, Call::VerifyFinal, Call::VerifyVerdict}) {
        SweepFaults(
            call,
            [&](CallbackPlan& plan) {
                Stores stores(plan);
                stores.Trust(Demo().cas[0]);
                const PELNIC_ERROR_CODE rc = Begin(stores);
                plan.WithoutFaults([&] { EXPECT_EQ(BeginAgain(stores), PELNIC_ERR_CERT_VERIFY); });
                return rc;
            },
            [](PELNIC_ERROR_CODE rc, const FaultRun& run) {
                EXPECT_NE(rc, 0u);
                EXPECT_TRUE(run.met || rc == PELNIC_ERR_CERT_VERIFY) << std::hex << rc;
            });
    }
}

} // namespace
} // namespace pnvtest
