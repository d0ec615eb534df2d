// The library beside a model that remembers nothing (support/pki_model.h), over random PKIs: objects come in, are
// searched for and verified at several times, nested and not, with and without CRLs, and more objects come in between.
// Every code, verdict, search, last_err, curr_depth, found issuer and kind of log record must be the same.
//
//     CMSVERIFY_LONG=1               50,000 PKIs
//     CMSVERIFY_MODEL_PKIS=1000000   so many
//     CMSVERIFY_SEED=17              from this seed on; alone it is this PKI only
#include "support/effort.h"
#include "support/random_pki.h"
#include "support/sanitized.h"
#include "support/seed.h"
#include "support/vrf.h"
#include "support/x509.h"

#include <cstdlib>
#include <memory>
#include <sstream>

namespace pnvtest {
namespace {

std::set<model::Record>* g_log = nullptr;

void Log(PELNIC_LOG_TYPE level, const PNV_CHAR*, PNV_INT, const PNV_CHAR*, PNV_THREAD_ID, PNV_TIME_T,
         PELNIC_ERROR_CODE rc, const PNV_CHAR* message)
{
    g_log->emplace(level, rc, message == nullptr ? "" : message);
}

struct ReleaseContext {
    void operator()(PELNIC_VRF* ctx) const { (void)pelnic_vrf_ctx_free(ctx); }
};
using OwnedContext = std::unique_ptr<PELNIC_VRF, ReleaseContext>;

// Without the watching callbacks of the other tests, which take ten times as long.
OwnedContext NewContext()
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof(params);
    (void)pelnic_set_callback_funcs(&params.callback_funcs);
    TrustNamedSignatures(&params.callback_funcs);
    params.callback_funcs.plt_funcs.log_funcs.log_func = Log;
    PELNIC_VRF_CTX ctx = nullptr;
    EXPECT_EQ(pelnic_verify_create_ctx(&ctx, &params), 0u);
    return OwnedContext(static_cast<PELNIC_VRF*>(ctx));
}

struct Totals {
    std::size_t verifications = 0;
    std::size_t ranAway = 0;
    std::size_t tooDeep = 0;
    std::map<PELNIC_ERROR_CODE, std::size_t> codes;
};

// One PKI, twice.
class Twins {
public:
    Twins(std::uint64_t seed, Totals* totals) : random_(seed), pki_(MakeRandomPki(random_)), totals_(*totals)
    {
        g_log = &log_;
        for (const Bytes& der : pki_.certEncodings) certs_.push_back(DecodeCert(ctx_.get(), der));
        for (const Bytes& der : pki_.crlEncodings) crls_.push_back(DecodeCrl(ctx_.get(), der));
    }

    // Stops at the first difference, which the trace leads to.
    void Run()
    {
        try {
            const unsigned atOnce = random_.Of({100u, 100u, 85u, 50u});
            for (std::size_t i = 0; i < certs_.size(); ++i) {
                if (random_.Percent(atOnce)) AddCert(i);
            }
            for (std::size_t i = 0; i < crls_.size(); ++i) {
                if (random_.Percent(atOnce)) AddCrl(i);
            }
            for (std::size_t step = 20 + random_.Below(20); step > 0 && !Differs(); --step) Act();
        } catch (const model::RanAway&) {
            ++totals_.ranAway; // what the two noted by now differs
        }
    }
    bool Differs() const { return !difference_.empty(); }
    std::string Report() const { return trace_.str() + difference_; }

private:
    void Act()
    {
        const std::size_t kind = random_.Below(100);
        if (kind < 55) {
            Verify(AnyCert());
        } else if (kind < 65) {
            AddCert(AnyCert());
        } else if (kind < 72) {
            AddCrl(random_.Below(crls_.size() + 1));
        } else if (kind < 78) {
            ctx_->vrf_params.no_check_crl ^= 1;
            model_.noCheckCrl = !model_.noCheckCrl;
            trace_ << "no_check_crl = " << model_.noCheckCrl << "\n";
        } else {
            Search(AnyCert(), AnyCert(), random_.Below(crls_.size() + 1));
        }
    }

    std::size_t AnyCert() { return random_.Below(certs_.size()); }

    void Verify(std::size_t i)
    {
        SetTime();
        const bool isNested = random_.Percent(15);
        const PNV_INT depth = static_cast<PNV_INT>(random_.Below(16)) - 4;
        if (isNested) ctx_->curr_depth = model_.currDepth = depth;
        trace_ << "verify cert " << i << " at " << model_.baseTime;
        if (isNested) trace_ << " from depth " << depth;
        PNV_BOOL result = 77;
        const PELNIC_ERROR_CODE code = pelnic_pki_verify_cert(ctx_.get(), certs_[i].get(), !isNested, &result);
        Compare(code, model_.VerifyCert(&pki_.certs[i], !isNested));
        totals_.tooDeep += log_.count({PELNIC_LOG_TYPE_ERROR, 0, "The path of certificate is too deep."});
        CompareLogs();
        if (result != (code == 0)) difference_ += "result " + std::to_string(result) + "\n";
        ++totals_.verifications;
        ++totals_.codes[code];
    }

    void SetTime()
    {
        if (pki_.times.empty() || random_.Percent(30)) {
            model_.baseTime = 1767225600; // 2026
        } else {
            model_.baseTime = random_.Of(pki_.times) + static_cast<PNV_TIME_T>(random_.Below(3)) - 1;
        }
        ctx_->base_time = model_.baseTime;
    }

    // Most of them where they belong.
    void AddCert(std::size_t i)
    {
        const bool toTrust = random_.Percent(97) == pki_.certs[i].isCa;
        trace_ << "add cert " << i << (toTrust ? " to trust" : " to local");
        const auto add = toTrust ? pelnic_pki_store_add_trust_cert : pelnic_pki_store_add_local_cert;
        const PELNIC_ERROR_CODE code = add(ctx_.get(), certs_[i].get());
        const model::Cert* const cert = &pki_.certs[i];
        Compare(code, toTrust ? model_.AddTrustCert(cert) : model_.AddLocalCert(cert));
    }

    void AddCrl(std::size_t i)
    {
        if (i >= crls_.size()) return;
        trace_ << "add crl " << i;
        const PELNIC_ERROR_CODE code = pelnic_pki_store_add_crl(ctx_.get(), crls_[i].get());
        Compare(code, model_.AddCrl(&pki_.crls[i]));
    }

    // Every question but verification, of these objects.
    void Search(std::size_t i, std::size_t k, std::size_t crl)
    {
        PELNIC_VRF* const ctx = ctx_.get();
        const model::Cert* const cert = &pki_.certs[i];
        const PELNIC_X509_CERT* const record = certs_[i].get();
        switch (random_.Below(5)) {
        case 0:
            trace_ << "find root of " << i;
            Compare(IndexOf(_pnvFindCertRoot(ctx, record)), IndexOf(model_.FindCertRoot(cert)));
            break;
        case 1:
            trace_ << "find issuer of " << i;
            Compare(IndexOf(_pnvFindCertIssuer(ctx, record)), IndexOf(model_.FindCertIssuer(cert)));
            break;
        case 2:
            trace_ << "check issuer " << k << " of " << i;
            Compare(_pnvCheckCertIssuer(ctx, record, certs_[k].get()), model_.CheckCertIssuer(cert, &pki_.certs[k]));
            break;
        case 3:
            trace_ << "find issuer and serial of " << i;
            Compare(IndexOf(pelnic_pki_find_cert_by_issuer_sn(ctx, record->toBeSigned->issuer,
                                                              record->toBeSigned->serialNumber)),
                    IndexOf(model_.FindCertByIssuerSn(cert->issuer, cert->serial)));
            break;
        default:
            if (crl >= crls_.size()) return;
            trace_ << "find issuer of crl " << crl << ", and check cert " << i;
            Compare(IndexOf(pelnic_pki_find_crl_issuer(ctx, crls_[crl].get())),
                    IndexOf(model_.FindCrlIssuer(&pki_.crls[crl])));
            Compare(_pnvCheckCrlIssuer(ctx, crls_[crl].get(), record), model_.CheckCrlIssuer(&pki_.crls[crl], cert));
        }
    }

    std::size_t IndexOf(const PELNIC_X509_CERT* cert) const
    {
        std::size_t i = 0;
        while (i < certs_.size() && certs_[i].get() != cert) ++i;
        return cert == nullptr ? 9999 : i;
    }
    std::size_t IndexOf(const model::Cert* cert) const
    {
        return cert == nullptr ? 9999 : static_cast<std::size_t>(cert - pki_.certs.data());
    }

    // The library's answer and the model's, and what both have noted.
    template <typename Value> void Compare(Value library, Value expected)
    {
        model_.Begin();
        std::ostringstream what;
        what << std::hex;
        if (library != expected) what << "answer " << library << ", the model's " << expected << "\n";
        if (ctx_->last_err != model_.lastErr) {
            what << "last_err " << ctx_->last_err << ", the model's " << model_.lastErr << "\n";
        }
        if (ctx_->curr_depth != model_.currDepth) {
            what << "curr_depth " << ctx_->curr_depth << ", the model's " << model_.currDepth << "\n";
        }
        for (std::size_t i = 0; i < certs_.size(); ++i) {
            const std::size_t issuer = IndexOf(certs_[i]->pIssuer);
            if (issuer == IndexOf(pki_.certs[i].pIssuer)) continue;
            what << "issuer of " << i << " " << issuer << ", the model's " << IndexOf(pki_.certs[i].pIssuer) << "\n";
        }
        difference_ += what.str();
        trace_ << ": " << std::hex << library << std::dec << "\n";
    }

    // A key of no use is complained about whenever somebody tries it, which the library does less often.
    static bool IsRepeated(const model::Record& record)
    {
        return std::get<std::string>(record).rfind("Unsupported key length", 0) == 0;
    }
    void CompareLogs()
    {
        for (const model::Record& record : log_) {
            if (model_.log.count(record) == 0) difference_ += "logged: " + std::get<std::string>(record) + "\n";
        }
        for (const model::Record& record : model_.log) {
            if (log_.count(record) != 0 || IsRepeated(record)) continue;
            difference_ += "not logged: " + std::get<std::string>(record) + "\n";
        }
        log_.clear();
        model_.log.clear();
    }

    Random random_;
    RandomPki pki_;
    Totals& totals_;
    std::set<model::Record> log_;
    const OwnedContext ctx_ = NewContext();
    std::vector<OwnedCert> certs_;
    std::vector<OwnedCrl> crls_;
    model::Pki model_;
    std::ostringstream trace_;
    std::string difference_;
};

std::uint64_t Pkis()
{
    std::uint64_t pkis = kSanitized ? 300 : 1500;
    if (std::getenv("CMSVERIFY_SEED") != nullptr) pkis = 1;
    if (LongForm()) pkis = 50000;
    return Setting("CMSVERIFY_MODEL_PKIS", pkis);
}

TEST(PkiModel, SaysTheSameOfRandomPkis)
{
    const std::uint64_t first = Seed();
    const std::uint64_t pkis = Pkis();
    std::cout << "[   SEED   ] " << first << std::endl;
    Totals totals;
    for (std::uint64_t seed = first; seed != first + pkis; ++seed) {
        Twins twins(seed, &totals);
        twins.Run();
        ASSERT_FALSE(twins.Differs()) << "CMSVERIFY_SEED=" << seed << ":\n" << twins.Report();
    }
    Report("PKIs", pkis);
    Report("verifications", totals.verifications);
    Report("accepted", totals.codes[0]);
    Report("that reached the limit of depth", totals.tooDeep);
    Report("kinds of refusals", totals.codes.size() - 1);
    Report("PKIs left because the model ran away", totals.ranAway);
    if (pkis < 100) return;
    EXPECT_GT(totals.codes[0], totals.verifications / 20);
    EXPECT_GT(totals.codes.size(), 8u);
    EXPECT_GT(totals.tooDeep, 0u);
    EXPECT_LT(totals.ranAway, pkis / 10);
}

} // namespace
} // namespace pnvtest
