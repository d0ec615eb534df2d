// A context whose stores a test fills from descriptions, and the verdicts that it gives then:
//
//     CleanPlan plan;
//     Stores stores(plan);
//     stores.Trust(Root());
//     stores.AddCrl(CrlOf(Root()));
//     EXPECT_EQ(stores.Verify(stores.Cert(SigningCa())), 0u);
#ifndef PNVTEST_STORES_H
#define PNVTEST_STORES_H

#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_pki_impl.h"
#include "pki.h"
#include "vrf.h"
#include "x509.h"

namespace pnvtest {

// 2026-01-01 00:00:00 UTC, when every ready-made description is valid.
constexpr PNV_TIME_T k2026 = 1767225600;

// A plan that must be without problems at its end.
class CleanPlan : public CallbackPlan {
public:
    ~CleanPlan() { ExpectNoProblems(*this); }
};

// A CA of this name and key below another one.
inline CertSpec CaBelow(const CertSpec& issuer, std::string_view cn, KeyId key)
{
    return IssuedBy(Intermediate(cn, key), issuer);
}

// The root, and so many CAs each below the one before it.
inline std::vector<CertSpec> CaChain(std::size_t intermediates)
{
    std::vector<CertSpec> chain{Root()};
    while (chain.size() <= intermediates) {
        const KeyId key = chain.size() % 2 == 0 ? KeyId::Rsa2048B : KeyId::Rsa2048C;
        chain.push_back(CaBelow(chain.back(), "Test CA " + std::to_string(chain.size()), key));
    }
    return chain;
}

// Another self-signed CA, which no test trusts.
inline CertSpec ForeignRoot()
{
    const CertSpec root = With(Root(KeyId::Rsa2048H), &CertSpec::subject, TestName("Foreign Root"));
    return IssuedBy(root, root);
}

// Two CAs that issue each other.
struct CaPair {
    CertSpec left = Intermediate("Left CA", KeyId::Rsa2048F);
    CertSpec right = Intermediate("Right CA", KeyId::Rsa2048G);

    CaPair()
    {
        left = IssuedBy(left, right);
        right = IssuedBy(right, left);
    }
};

// Setting up meets no fault of the plan; Package and Verify do.
class Stores {
public:
    // The context judges in 2026.
    explicit Stores(CallbackPlan& plan) : plan_(plan)
    {
        plan_.WithoutFaults([&] { context_.emplace(plan_); });
        context_->Record()->base_time = k2026;
    }

    operator PELNIC_VRF*() const { return context_->Record(); }
    PELNIC_VRF* operator->() const { return context_->Record(); }

    const PELNIC_PKI_STORE& Store() const { return static_cast<PELNIC_PKI*>((*this)->pki_ctx)->pki_store; }
    const LIST_TYPE_PELNIC_X509_CERT& TrustCerts() const { return ListOr(Store().trust_store, kTrustCerts); }
    const LIST_TYPE_PELNIC_X509_CERT& LocalCerts() const { return ListOr(Store().local_store, kLocalCerts); }
    const LIST_TYPE_PELNIC_X509_CRL& Crls() const { return ListOr(Store().trust_store, kCrls); }

    // Decoded, in no store. All records live as long as this.
    PELNIC_X509_CERT* Cert(const Bytes& der)
    {
        plan_.WithoutFaults([&] { certs_.push_back(DecodeCert(*this, der)); });
        return certs_.back().get();
    }
    PELNIC_X509_CERT* Cert(const CertSpec& spec) { return Cert(Build(spec)); }
    PELNIC_X509_CRL* Crl(const Bytes& der)
    {
        plan_.WithoutFaults([&] { crls_.push_back(DecodeCrl(*this, der)); });
        return crls_.back().get();
    }
    PELNIC_X509_CRL* Crl(const CrlSpec& spec) { return Crl(Build(spec)); }

    // Decoded and put into its store by the caller.
    template <typename Description> PELNIC_X509_CERT* Trust(const Description& description)
    {
        return Added(pelnic_pki_store_add_trust_cert, Cert(description));
    }
    template <typename Description> PELNIC_X509_CERT* Local(const Description& description)
    {
        return Added(pelnic_pki_store_add_local_cert, Cert(description));
    }
    template <typename Description> PELNIC_X509_CRL* AddCrl(const Description& description)
    {
        return Added(pelnic_pki_store_add_crl, Crl(description));
    }
    // Decoded and offered to the stores as a certificate that came with a package; they need not take it.
    template <typename Description> PELNIC_X509_CERT* Package(const Description& description)
    {
        PELNIC_X509_CERT* cert = Cert(description);
        LIST_TYPE_PELNIC_X509_CERT list{1, &cert, 1};
        (void)_pnvAddCertToStore(*this, &list);
        return cert;
    }
    // The root, the signing CA and a CRL of each: what the demo signer needs.
    void AddSigningBranch(const DemoPki& pki)
    {
        Trust(pki.root);
        Trust(pki.signingCa);
        AddCrl(pki.rootCrl);
        AddCrl(pki.signingCrl);
    }

    void SwitchCrlCheckOff() { (*this)->vrf_params.no_check_crl = 1; }

    // The verdict of an outermost verification, which is true with code 0 and with no other.
    PELNIC_ERROR_CODE Verify(const PELNIC_X509_CERT* cert)
    {
        PNV_BOOL result = 0xA5A5A5A5;
        last_ = cert;
        const PELNIC_ERROR_CODE rc = pelnic_pki_verify_cert(*this, cert, 1, &result);
        EXPECT_EQ(result, rc == 0 ? 1u : 0u);
        EXPECT_EQ((*this)->curr_depth, 0);
        return rc;
    }
    PELNIC_ERROR_CODE Verify(const CertSpec& spec) { return Verify(Cert(spec)); }
    // The latest verification once more, and nothing fails; nothing if there was none.
    std::optional<PELNIC_ERROR_CODE> VerifyAgain()
    {
        std::optional<PELNIC_ERROR_CODE> rc;
        if (last_ != nullptr) plan_.WithoutFaults([&] { rc = Verify(last_); });
        return rc;
    }

private:
    static constexpr auto kTrustCerts = &PELNIC_PKI_TRUST_STORE::ca_certs;
    static constexpr auto kLocalCerts = &PELNIC_PKI_LOCAL_STORE::local_certs;
    static constexpr auto kCrls = &PELNIC_PKI_TRUST_STORE::crl_store;

    // A store that has not come into being reads as an empty list.
    template <typename StoreType, typename List>
    static const List& ListOr(const StoreType* store, List StoreType::*list)
    {
        static const List empty{};
        return store == nullptr ? empty : store->*list;
    }
    template <typename Record> Record* Added(PELNIC_ERROR_CODE (*add)(const PELNIC_VRF*, Record*), Record* record)
    {
        plan_.WithoutFaults([&] { EXPECT_EQ(add(*this, record), 0u); });
        return record;
    }

    CallbackPlan& plan_;
    std::optional<Context> context_;
    std::vector<OwnedCert> certs_;
    std::vector<OwnedCrl> crls_;
    const PELNIC_X509_CERT* last_ = nullptr;
};

// Whether there is a record of this level, code and message; without a code any will do.
inline ::testing::AssertionResult Logged(const CallbackPlan& plan, PELNIC_LOG_TYPE level,
                                         std::optional<PELNIC_ERROR_CODE> rc, const std::string& message)
{
    ::testing::AssertionResult nothing = ::testing::AssertionFailure() << "logged was:";
    for (const LogRecord& record : plan.Logs()) {
        const std::string text = record.message.value_or("(null)");
        if (record.level == level && record.rc == rc.value_or(record.rc) && text == message) {
            return ::testing::AssertionSuccess();
        }
        nothing << "\n  level " << record.level << ", code " << std::hex << record.rc << std::dec << ": " << text;
    }
    return nothing;
}
inline ::testing::AssertionResult LoggedError(const CallbackPlan& plan, std::optional<PELNIC_ERROR_CODE> rc,
                                              const std::string& message = "")
{
    return Logged(plan, PELNIC_LOG_TYPE_ERROR, rc, message);
}
inline ::testing::AssertionResult LoggedWarning(const CallbackPlan& plan, std::optional<PELNIC_ERROR_CODE> rc,
                                                const std::string& message)
{
    return Logged(plan, PELNIC_LOG_TYPE_WARNING, rc, message);
}

// For a test that looks at the context's stores and log.
class StoresTest : public ::testing::Test {
protected:
    CleanPlan plan_;
    Stores stores_{plan_};
};

} // namespace pnvtest

#endif
