// What a verification costs: signature checks above all, then stack. Counted, never timed.
#include "cmsverify/cms_verify.h"

#include "cmsverify/pelnic_faults.h"
#include "support/cms.h"
#include "support/stores.h"

#include <pthread.h>
#include <sys/mman.h>

#include <cstring>
#include <iostream>

namespace pnvtest {
namespace {

// Shown beside the test, so that a change of the cost is seen before it is a failure.
void Report(const char* what, std::size_t amount)
{
    std::cout << "[   COST   ] " << what << ": " << amount << std::endl;
}

// ---- Signature checks ----

class SignatureChecks : public StoresTest {
protected:
    std::size_t Checks() const { return plan_.VerifyRequests().size(); }
    // The checks that one more verification of the certificate takes.
    std::size_t ChecksOf(const PELNIC_X509_CERT* cert, PELNIC_ERROR_CODE rc)
    {
        const std::size_t before = Checks();
        EXPECT_EQ(stores_.Verify(cert), rc);
        return Checks() - before;
    }

    const DemoPki pki_;
};

// Each certificate once, the root included, and each CRL once.
TEST_F(SignatureChecks, OfOrdinaryChainsAreEight)
{
    stores_.AddSigningBranch(pki_);
    stores_.Trust(pki_.tsaCa);
    stores_.AddCrl(pki_.tsaCrl);
    const PELNIC_X509_CERT* tsa = stores_.Cert(pki_.tsa);
    const PELNIC_X509_CERT* signer = stores_.Cert(pki_.signer);
    {
        const OperationRun begin{stores_};
        const std::size_t checks = ChecksOf(tsa, 0) + ChecksOf(signer, 0);
        Report("signature checks for the chains of signer and timestamp authority", checks);
        EXPECT_EQ(checks, 8u);
        EXPECT_EQ(ChecksOf(signer, 0), 0u);
    }
    EXPECT_EQ(ChecksOf(signer, 0), 2u); // the CRLs' issuers are found anew, those of certificates are on record
}

// The chains, the token and the signer.
TEST_F(SignatureChecks, OfAnOrdinarySignatureAreTen)
{
    PELNIC_VRF_CTX ctx = static_cast<PELNIC_VRF*>(stores_);
    const Bytes root = Build(pki_.root);
    const Bytes crls = pki_.Crls();
    const Bytes content = Text("content");
    const Bytes cms = DetachedCms(content, DemoCms(pki_));
    EXPECT_EQ(pelnic_verify_add_cert(ctx, root.data(), Len(root)), 0u);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, crls.data(), Len(crls)), 0u);
    EXPECT_EQ(pelnic_verify_detach_signature_begin(ctx, cms.data(), Len(cms)), 0u);
    EXPECT_EQ(pelnic_verify_detach_signature_update(ctx, content.data(), static_cast<PNV_INT>(content.size())), 0u);
    PNV_INT32 result = 0;
    EXPECT_EQ(pelnic_verify_detach_signature_final(ctx, &result), 0u);
    EXPECT_EQ(result, 1);
    Report("signature checks for an ordinary signature", Checks());
    EXPECT_EQ(Checks(), 10u);
}

TEST_F(SignatureChecks, OfALongChainAreTwoForEachLevel)
{
    const std::vector<CertSpec> chain = CaChain(9);
    for (const CertSpec& ca : chain) {
        stores_.Trust(ca);
        stores_.AddCrl(CrlOf(ca));
    }
    const std::size_t checks = ChecksOf(stores_.Cert(IssuedBy(Signer(), chain.back())), 0);
    Report("signature checks for a chain of 10 below the root", checks);
    EXPECT_EQ(checks, 21u); // ten certificates, the root and ten CRLs
}

// Forty CAs of one name and twenty CRLs in that name, none of them good: each pair is tried once in a run.
TEST_F(SignatureChecks, OfNamesakesAreOneForEachPair)
{
    constexpr std::uint8_t kCas = 40;
    constexpr std::uint8_t kCrls = 20;
    stores_.Trust(pki_.root);
    stores_.AddCrl(pki_.rootCrl);
    stores_.Trust(pki_.signingCa);
    const Bytes ca = Build(pki_.signingCa);
    for (std::uint8_t i = 1; i < kCas; ++i) stores_.Trust(Replace(ca, {0, tbs::serial}, Int({0x40, i})));
    const Bytes crl = Build(pki_.signingCrl);
    for (std::uint8_t i = 0; i < kCrls; ++i) {
        Bytes forged = crl;
        forged.back() = static_cast<std::uint8_t>(forged.back() + 1 + i);
        stores_.AddCrl(forged);
    }
    const PELNIC_X509_CERT* signer = stores_.Cert(pki_.signer);
    const std::size_t checks = ChecksOf(signer, PELNIC_ERR_CRL_NOT_FOUND);
    Report("signature checks for 40 CAs of one name and 20 CRLs in that name", checks);
    EXPECT_EQ(checks, 800u + 3u); // the signer, its CA and the root
    const OperationRun run{stores_};
    EXPECT_EQ(ChecksOf(signer, PELNIC_ERR_CRL_NOT_FOUND), 800u); // a refusal decides nothing in the next one
    EXPECT_EQ(ChecksOf(signer, PELNIC_ERR_CRL_NOT_FOUND), 0u);
}

TEST_F(SignatureChecks, OfNamesakesAreTheSameWhenTheLastOneIssuedThem)
{
    constexpr std::uint8_t kCas = 40;
    constexpr int kCrls = 20;
    stores_.Trust(pki_.root);
    stores_.AddCrl(pki_.rootCrl);
    const CertSpec namesake = With(pki_.signingCa, &CertSpec::key, KeyId::Rsa2048H);
    const Bytes other = Build(namesake);
    for (std::uint8_t i = 1; i < kCas; ++i) stores_.Trust(Replace(other, {0, tbs::serial}, Int({0x40, i})));
    stores_.Trust(pki_.signingCa);
    for (int i = 0; i < kCrls; ++i) {
        const std::string update = "2501" + std::to_string(10 + i) + "000000Z";
        stores_.AddCrl(With(pki_.signingCrl, &CrlSpec::thisUpdate, UtcTime(update)));
    }
    const PELNIC_X509_CERT* signer = stores_.Cert(pki_.signer);
    const std::size_t checks = ChecksOf(signer, 0);
    Report("signature checks for 40 CAs of one name and 20 good CRLs of the last one", checks);
    EXPECT_EQ(checks, 800u + 40u + 3u); // the signer too meets all forty; its CA, the root and the root's CRL
    const OperationRun run{stores_};
    EXPECT_EQ(ChecksOf(signer, 0), 801u);
    EXPECT_EQ(ChecksOf(signer, 0), 0u);
}

// ---- Comparisons ----

// Serial numbers differ most often, and one comparison tells; names that are the same take several.
TEST(StoreWork, OfFindingASignerIsOneComparisonForEachOther)
{
    constexpr std::uint8_t kOthers = 100;
    CleanPlan plan;
    Stores stores(plan);
    const Bytes signer = Build(DemoPki().signer);
    for (std::uint8_t i = 0; i < kOthers; ++i) stores.Local(Replace(signer, {0, tbs::serial}, Int({0x40, i})));
    const PELNIC_X509_CERT* const last = stores.Local(Replace(signer, {0, tbs::serial}, Int({0x41, 0})));
    const std::size_t before = plan.Count(Call::Memcmp);
    EXPECT_EQ(pelnic_pki_find_cert_by_issuer_sn(stores, last->toBeSigned->issuer, last->toBeSigned->serialNumber),
              last);
    const std::size_t comparisons = plan.Count(Call::Memcmp) - before;
    Report("comparisons to find the last of 101 certificates of one issuer", comparisons);
    EXPECT_GE(comparisons, std::size_t{kOthers});
    EXPECT_LE(comparisons, kOthers + 20u);
}

// ---- A chain of 3,000 CAs on a small stack ----

constexpr std::size_t kStackSize = 256 * 1024;
constexpr std::uint8_t kPaint = 0xA5;

// How many octets at the low end still have their paint. The sanitizer does not know what is left on a stack.
__attribute__((no_sanitize("address"))) std::size_t Untouched(const std::uint8_t* stack)
{
    std::size_t untouched = 0;
    while (untouched < kStackSize && stack[untouched] == kPaint) ++untouched;
    return untouched;
}

// Runs a function on a thread with 256 KiB of stack, and tells how much of it was used at most.
std::size_t PeakStackOf(const std::function<void()>& function)
{
    const std::size_t guard = 64 * 1024;
    void* mapping = mmap(nullptr, guard + kStackSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(mapping, MAP_FAILED);
    std::uint8_t* stack = static_cast<std::uint8_t*>(mapping) + guard;
    EXPECT_EQ(mprotect(stack, kStackSize, PROT_READ | PROT_WRITE), 0);
    std::memset(stack, kPaint, kStackSize);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstack(&attributes, stack, kStackSize), 0);
    pthread_t thread;
    const auto run = [](void* f) -> void* {
        (*static_cast<const std::function<void()>*>(f))();
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&function)), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);

    const std::size_t peak = kStackSize - Untouched(stack);
    munmap(mapping, guard + kStackSize);
    return peak;
}

// A context on the default callbacks, but for cryptography: every signature is valid. Not on a plan, which would take
// its time to count ten million comparisons.
class CredulousContext {
public:
    CredulousContext()
    {
        PELNIC_CTX_CREATE_PARAMS params{};
        params.st_size = sizeof(params);
        (void)pelnic_set_callback_funcs(&params.callback_funcs);
        params.callback_funcs.crypt_funcs = {sizeof(PELNIC_CRYPTO_FUNCS), Create, Init, Update, Final, Destroy};
        EXPECT_EQ(pelnic_verify_create_ctx(&ctx_, &params), 0u);
        Vrf()->base_time = k2026;
    }
    ~CredulousContext() { EXPECT_EQ(pelnic_vrf_ctx_free(ctx_), 0u); }
    CredulousContext(const CredulousContext&) = delete;
    CredulousContext& operator=(const CredulousContext&) = delete;

    PELNIC_VRF* Vrf() const { return static_cast<PELNIC_VRF*>(ctx_); }

private:
    static PELNIC_ERROR_CODE Create(PELNIC_CRYPTO_VRF_CTX* out)
    {
        static char handle;
        *out = &handle;
        return 0;
    }
    static PELNIC_ERROR_CODE Init(PELNIC_CRYPTO_VRF_CTX, const PELNIC_BIGINT*, const PELNIC_BIGINT*, PNV_UINT32)
    {
        return 0;
    }
    static PELNIC_ERROR_CODE Update(PELNIC_CRYPTO_VRF_CTX, const PNV_BYTE*, PNV_UINT32) { return 0; }
    static PELNIC_ERROR_CODE Final(PELNIC_CRYPTO_VRF_CTX, const PNV_BYTE*, PNV_UINT32, PNV_INT* result)
    {
        *result = 1;
        return 0;
    }
    static void Destroy(PELNIC_CRYPTO_VRF_CTX) {}

    PELNIC_VRF_CTX ctx_ = nullptr;
};

Bytes NumberedName(std::size_t number)
{
    return Name(Cn(std::to_string(100000 + number)));
}

// A root and so many CAs, each below the one before it, with a CRL of the last.
class NumberedChain {
public:
    explicit NumberedChain(std::size_t intermediates)
    {
        for (std::size_t i = 0; i <= intermediates; ++i) {
            const OwnedCert cert = Certificate(i);
            EXPECT_EQ(pelnic_pki_store_add_trust_cert(context_.Vrf(), cert.get()), 0u);
        }
        const OwnedCrl crl =
            DecodeCrl(context_.Vrf(), Build(With(CrlOf(Root()), &CrlSpec::issuer, NumberedName(intermediates))));
        EXPECT_EQ(pelnic_pki_store_add_crl(context_.Vrf(), crl.get()), 0u);
        leaf_ = Certificate(intermediates + 1);
    }

    const PELNIC_X509_CERT* TrustedRoot() const
    {
        return static_cast<PELNIC_PKI*>(context_.Vrf()->pki_ctx)->pki_store.trust_store->ca_certs.data[0];
    }
    const PELNIC_X509_CERT* FindRoot() const { return _pnvFindCertRoot(context_.Vrf(), leaf_.get()); }
    PELNIC_ERROR_CODE Verify(PNV_INT noCheckCrl) const
    {
        context_.Vrf()->vrf_params.no_check_crl = noCheckCrl;
        PNV_BOOL result = 0;
        return pelnic_pki_verify_cert(context_.Vrf(), leaf_.get(), 1, &result);
    }

private:
    // Made from one certificate by its names and serial number; nobody looks at the signature.
    OwnedCert Certificate(std::size_t number) const
    {
        Bytes der = Replace(sample_, {0, tbs::subject}, NumberedName(number));
        der = Replace(der, {0, tbs::issuer}, NumberedName(number == 0 ? 0 : number - 1));
        const auto high = static_cast<std::uint8_t>(0x40 | number >> 8);
        return DecodeCert(context_.Vrf(),
                          Replace(der, {0, tbs::serial}, Int({high, static_cast<std::uint8_t>(number)})));
    }

    const Bytes sample_ = Build(Root());
    CredulousContext context_;
    OwnedCert leaf_{nullptr, {nullptr}};
};

TEST(StackWork, DoesNotGrowWithTheChain)
{
    std::size_t peaks[2];
    const std::size_t lengths[] = {8, 3000};
    for (std::size_t i = 0; i < 2; ++i) {
        const NumberedChain chain(lengths[i]);
        peaks[i] = PeakStackOf([&] {
            EXPECT_EQ(chain.FindRoot(), chain.TrustedRoot());
            EXPECT_EQ(chain.Verify(1), 0u);
            EXPECT_EQ(chain.Verify(0), PELNIC_ERR_CRL_VERIFY);
        });
    }
    Report("octets of stack for a chain of 8 CAs", peaks[0]);
    Report("octets of stack for a chain of 3,000 CAs", peaks[1]);
    EXPECT_LT(peaks[1], kStackSize);
    EXPECT_LE(peaks[1], peaks[0] + 1024);
}

} // namespace
} // namespace pnvtest
