// The gate against failing callbacks: every public operation, and the checker's whole sequence of them, with the n-th
// call of every kind of callback failing, once and from there on, in one operation alone and to the end. Whatever
// fails, what the undisturbed run refuses is refused, what is accepted or compared is answered the same or refused, and
// every block, file and crypto context comes back.
//
// Then all goes on with nothing failing any more: the context repeats what had failed, and its next answer is that of a
// fresh context. If it lacks something although no operation said so, it answers nothing, and the log says why.
//
// The short form lets a sample of the calls fail, which changes with the commit.
#include "support/crl_bundle.h"
#include "support/effort.h"
#include "support/fault_kinds.h"
#include "support/paths.h"
#include "support/random.h"
#include "support/seed.h"
#include "support/signature_cases.h"
#include "support/temp_dir.h"
#include "tool/rules.h"
#include "tool/verify_signature.h"

#include <algorithm>
#include <fstream>

namespace pnvtest {
namespace {

// What a caller may act on: an acceptance, or the result of a comparison. Nothing for a refusal of any kind.
using Answer = std::optional<PNV_INT32>;
constexpr PNV_INT32 kAccepted = 1;

// ---- Sequences of operations ----

// All kinds of callbacks, the wrong verdict included.
std::vector<NamedCall> Kinds()
{
    std::vector<NamedCall> kinds(std::begin(kFailingCalls), std::end(kFailingCalls));
    kinds.insert(kinds.end(), std::begin(kWrongVerdict), std::end(kWrongVerdict));
    return kinds;
}

// Operations by name, and how often each of them calls which callbacks.
using Operations = std::map<std::string, std::map<Call, std::size_t>>;

// Calls public operations. Faults hit those in the window only, which is one operation's name, or empty for all.
class Caller {
public:
    Caller(CallbackPlan& plan, std::string window) : plan_(plan), window_(std::move(window)) {}

    template <typename Operation> PELNIC_ERROR_CODE operator()(const std::string& name, Operation operation)
    {
        PELNIC_ERROR_CODE rc = 0;
        const auto step = [&] { rc = operation(); };
        std::map<Call, std::size_t> before;
        for (const NamedCall& kind : Kinds()) before[kind.call] = plan_.Count(kind.call);
        if (window_.empty() || window_ == name) {
            step();
        } else {
            plan_.WithoutFaults(step);
        }
        for (const auto& [call, count] : before) called_[name][call] += plan_.Count(call) - count;
        return rc;
    }
    CallbackPlan& Plan() { return plan_; }
    const Operations& Called() const { return called_; }

private:
    CallbackPlan& plan_;
    const std::string window_;
    Operations called_;
};
#define CALL(call, operation, ...) call(#operation, [&] { return operation(__VA_ARGS__); })

// Runs a sequence in a context of its own.
template <typename Sequence> Answer InContext(Caller& call, Sequence sequence)
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof(params);
    params.callback_funcs = call.Plan().Table();
    PELNIC_VRF_CTX ctx = nullptr;
    if (CALL(call, pelnic_verify_create_ctx, &ctx, &params) != 0) return {};
    const Answer answer = sequence(ctx);
    EXPECT_EQ(CALL(call, pelnic_vrf_ctx_free, ctx), 0u);
    return answer;
}

Answer Accepted(const Verdict& verdict)
{
    return verdict == good ? Answer(kAccepted) : Answer();
}

// ---- What happens after the faults ----

bool HoldsAll(const std::set<Bytes>& held, const std::set<Bytes>& wanted)
{
    return std::includes(held.begin(), held.end(), wanted.begin(), wanted.end());
}

std::size_t ExplainedFaults(const CallbackPlan& plan)
{
    const std::vector<LogRecord>& logs = plan.Logs();
    return static_cast<std::size_t>(std::count_if(logs.begin(), logs.end(), [](const LogRecord& record) {
        return record.level == PELNIC_LOG_TYPE_ERROR && record.rc == PELNIC_ERR_SYS_MEM_ALLOC &&
               !record.message.value_or("").empty();
    }));
}

// A way to an answer: operations that give the context its inputs, then those that ask.
class Route {
public:
    using Add = std::function<PELNIC_ERROR_CODE(Caller&, PELNIC_VRF_CTX)>;
    using Ask = std::function<Verdict(Caller&, PELNIC_VRF_CTX)>;

    // One that takes in asks with operations that give the context inputs, too, and lose some for good.
    Route(std::vector<Add> adds, Ask ask, Answer (*answer)(const Verdict&), bool takesIn = false)
        : adds_(std::move(adds)), ask_(std::move(ask)), answer_(answer), takesIn_(takesIn)
    {
    }

    // In a context of its own, which is asked once more afterwards, and then nothing fails. The first time must be
    // undisturbed: it shows what a fresh context holds and answers.
    Answer operator()(Caller& call)
    {
        return InContext(call, [&](PELNIC_VRF_CTX ctx) {
            std::vector<PELNIC_ERROR_CODE> codes;
            for (const Add& add : adds_) {
                codes.push_back(add(call, ctx));
                if (codes.back() != 0) break;
            }
            const bool isGiven = codes.back() == 0;
            const std::size_t done = isGiven ? adds_.size() : codes.size() - 1;
            const auto* const record = static_cast<const PELNIC_VRF*>(ctx);
            const std::set<Bytes> given = InputsOf(record);
            const Verdict verdict = isGiven ? ask_(call, ctx) : Verdict{codes.back(), 0};
            if (!fresh_) fresh_ = {given, verdict, {}};
            SCOPED_TRACE(::testing::PrintToString(codes) + " from adding, then " + ::testing::PrintToString(verdict));
            call.Plan().WithoutFaults([&] { GoOn(Caller(call.Plan(), ""), ctx, done); });
            return answer_(verdict);
        });
    }

private:
    struct Fresh {
        std::set<Bytes> given;
        Verdict verdict;
        std::optional<Verdict> next; // asked again
    };

    void GoOn(Caller call, PELNIC_VRF_CTX ctx, std::size_t done)
    {
        (void)Final(ctx); // ends what may be in progress
        for (; done < adds_.size(); ++done) EXPECT_EQ(adds_[done](call, ctx), 0u) << "repeated add " << done;
        const std::set<Bytes> held = InputsOf(static_cast<const PELNIC_VRF*>(ctx));
        call.Plan().ClearLogs();
        const Verdict verdict = ask_(call, ctx);
        if (!fresh_->next) fresh_->next = verdict;
        EXPECT_TRUE(takesIn_ || *fresh_->next == fresh_->verdict);
        if (HoldsAll(held, fresh_->given)) {
            const bool isAsFresh = verdict == fresh_->verdict || verdict == *fresh_->next;
            EXPECT_TRUE(isAsFresh || (takesIn_ && !answer_(verdict))) << "then " << verdict;
            return;
        }
        EXPECT_FALSE(answer_(verdict)) << "something is missing, then " << verdict;
        if (!takesIn_ && answer_(fresh_->verdict)) {
            EXPECT_EQ(ExplainedFaults(call.Plan()), 1u) << "records that say why";
        }
    }

    const std::vector<Add> adds_;
    const Ask ask_;
    Answer (*const answer_)(const Verdict&);
    const bool takesIn_;
    std::optional<Fresh> fresh_;
};

// Ends with the first operation that fails.
#define THEN(rc, ...) \
    if ((rc) == 0) (rc) = CALL(__VA_ARGS__)

Verdict AskByParts(Caller& call, PELNIC_VRF_CTX ctx, const Case& input)
{
    const Bytes& cms = input.signature;
    const auto length = static_cast<PNV_INT>(input.content.size());
    Verdict verdict{0, 0};
    THEN(verdict.code, call, pelnic_verify_detach_signature_begin, ctx, cms.data(), Len(cms));
    THEN(verdict.code, call, pelnic_verify_detach_signature_update, ctx, input.content.data(), length);
    THEN(verdict.code, call, pelnic_verify_detach_signature_final, ctx, &verdict.result);
    return verdict;
}

Route::Add AddRoot(const Case& input)
{
    return [&](Caller& call, PELNIC_VRF_CTX ctx) {
        return CALL(call, pelnic_verify_add_cert, ctx, input.anchors.root.data(), Len(input.anchors.root));
    };
}

// A signature through the operations on octets.
Route ByParts(const Case& input)
{
    const Route::Add setParams = [](Caller& call, PELNIC_VRF_CTX ctx) {
        const PELNIC_VRF_PARAMS params{sizeof(PELNIC_VRF_PARAMS), 0, {}};
        return CALL(call, pelnic_set_verify_params, ctx, &params);
    };
    const Route::Add addCrls = [&](Caller& call, PELNIC_VRF_CTX ctx) {
        return CALL(call, pelnic_verify_add_crl, ctx, input.anchors.crls.data(), Len(input.anchors.crls));
    };
    return Route(
        {setParams, AddRoot(input), addCrls},
        [&](Caller& call, PELNIC_VRF_CTX ctx) { return AskByParts(call, ctx, input); }, Accepted);
}

// The same with CRLs that come by way of a summary.
Route ByDecodedCrls(const Case& input)
{
    const Route::Add decodeCrls = [&](Caller& call, PELNIC_VRF_CTX ctx) {
        PELNIC_CRL_BUNDLE_INFO* summary = nullptr;
        const PELNIC_ERROR_CODE rc =
            CALL(call, pelnic_decode_crl, ctx, input.anchors.crls.data(), Len(input.anchors.crls), &summary);
        if (summary == nullptr) return rc;
        EXPECT_EQ(CALL(call, pelnic_crl_free, ctx, summary), 0u);
        return rc;
    };
    return Route(
        {AddRoot(input), decodeCrls}, [&](Caller& call, PELNIC_VRF_CTX ctx) { return AskByParts(call, ctx, input); },
        Accepted);
}

PELNIC_CALLBACK_FUNCS g_table; // of the running plan

PELNIC_ERROR_CODE GiveTable(PELNIC_CALLBACK_FUNCS* funcs)
{
    *funcs = g_table;
    return 0;
}

// The same by the checker's sequence, which is a single operation here.
Answer VerifyByChecker(Caller& call, const Case& input)
{
    g_table = call.Plan().Table();
    const Anchors& anchors = input.anchors;
    const PELNIC_VERIFY_SIGNATURE_S sig{anchors.root.data(),  Len(anchors.root),      anchors.crls.data(),
                                        Len(anchors.crls),    input.signature.data(), Len(input.signature),
                                        input.content.data(), Len(input.content)};
    return Accepted({CALL(call, Pelnic_Verify_Signature_Over, GiveTable, &sig, nullptr), 1});
}

// The elements of a DER stream as PEM blocks.
Bytes PemStream(const Bytes& der)
{
    Bytes pem;
    for (std::size_t at = 0; at < der.size();) {
        const Element element = ElementAt(der, at);
        const Bytes one(der.begin() + static_cast<std::ptrdiff_t>(at),
                        der.begin() + static_cast<std::ptrdiff_t>(element.End()));
        // The TBSCertificate of version 3 begins with [0], the TBSCertList with an INTEGER.
        const bool isCert = Find(one, {0, 0}).tag == 0xA0;
        pem = Cat(pem, Pem(isCert ? "CERTIFICATE" : "X509 CRL", one));
        at = element.End();
    }
    return pem;
}

// The same through the operations on files, in PEM.
class FilesOf {
public:
    explicit FilesOf(const Case& input)
        : root_(dir_.Write("root", PemStream(input.anchors.root))),
          crls_(dir_.Write("crls", PemStream(input.anchors.crls))),
          signature_(dir_.Write("signature", Pem("CMS", input.signature))),
          content_(dir_.Write("content", input.content))
    {
    }
    Route Way() const
    {
        const Route::Add addRoot = [this](Caller& call, PELNIC_VRF_CTX ctx) {
            return CALL(call, pelnic_verify_add_cert_file, ctx, root_.c_str());
        };
        const Route::Add addCrls = [this](Caller& call, PELNIC_VRF_CTX ctx) {
            return CALL(call, pelnic_verify_add_crl_file, ctx, crls_.c_str());
        };
        const Route::Ask ask = [this](Caller& call, PELNIC_VRF_CTX ctx) {
            Verdict verdict{0, 0};
            verdict.code = CALL(call, pelnic_verify_detach_signature_quick, ctx, content_.c_str(), signature_.c_str(),
                                &verdict.result);
            return verdict;
        };
        return Route({addRoot, addCrls}, ask, Accepted);
    }

private:
    const TempDir dir_;
    const std::string root_;
    const std::string crls_;
    const std::string signature_;
    const std::string content_;
};

// Two bundles of CRLs, the device's from a file.
struct Bundles {
    const char* name;
    Bytes (*offered)();
    Bytes (*device)();
    PNV_INT32 relation; // SCPS_MIX is no answer to act on
};
void PrintTo(const Bundles& bundles, std::ostream* out)
{
    *out << bundles.name;
}

class BundleFiles {
public:
    explicit BundleFiles(const Bundles& bundles)
        : offered_(bundles.offered()), device_(dir_.Write("device", PemStream(bundles.device())))
    {
    }
    Route Way() const
    {
        const Route::Add addCerts = [this](Caller& call, PELNIC_VRF_CTX ctx) {
            return CALL(call, pelnic_verify_add_cert, ctx, root_.data(), Len(root_));
        };
        const Route::Ask ask = [this](Caller& call, PELNIC_VRF_CTX ctx) { return Compare(call, ctx); };
        return Route({addCerts}, ask, Related, true);
    }

private:
    static Answer Related(const Verdict& verdict)
    {
        return verdict.code == 0 && verdict.result != SCPS_MIX ? Answer(verdict.result) : Answer();
    }

    Verdict Compare(Caller& call, PELNIC_VRF_CTX ctx) const
    {
        PELNIC_CRL_BUNDLE_INFO* offered = nullptr;
        PELNIC_CRL_BUNDLE_INFO* device = nullptr;
        PELNIC_CRL_PERIOD_STAT relation = SCPS_MIX;
        PELNIC_ERROR_CODE rc = 0;
        THEN(rc, call, pelnic_decode_crl_file, ctx, device_.c_str(), &device);
        THEN(rc, call, pelnic_decode_crl, ctx, offered_.data(), Len(offered_), &offered);
        THEN(rc, call, pelnic_crl_compare, ctx, offered, device, &relation);
        for (PELNIC_CRL_BUNDLE_INFO* bundle : {offered, device}) {
            if (bundle == nullptr) continue;
            EXPECT_EQ(CALL(call, pelnic_crl_free, ctx, bundle), 0u);
        }
        return {rc, relation};
    }

    const TempDir dir_;
    const Bytes root_ = Cat(Build(DemoPki().root), Build(DemoPki().signingCa), Build(DemoPki().tsaCa));
    const Bytes offered_;
    const std::string device_;
};

// ---- The sweep ----

using Sequence = std::function<Answer(Caller&)>;

class FaultGate : public ::testing::Test {
protected:
    // Sweeps every kind of callback over the sequence, whose undisturbed answer is known. A deceivable one may answer
    // anything when it is told a wrong verdict.
    void Sweep(const Sequence& sequence, Answer undisturbed, bool isDeceivable = false)
    {
        const Operations operations = OperationsOf(sequence, undisturbed);
        for (const NamedCall& kind : Kinds()) {
            SCOPED_TRACE(kind.name);
            const bool isDeceived = isDeceivable && kind.call == Call::VerifyVerdict;
            std::size_t total = 0;
            for (const auto& [name, calls] : operations) {
                const std::size_t count = calls.at(kind.call);
                total += count;
                if (count == 0) continue;
                SCOPED_TRACE(name);
                SweepWindow(kind.call, sequence, name, SampleOf(count), undisturbed, isDeceived);
            }
            if (total != 0) SweepWindow(kind.call, sequence, "", ToTheEnd(SampleOf(total)), undisturbed, isDeceived);
        }
    }
    void SetUp() override { Report("seed", Seed()); }
    void TearDown() override { Report("faults injected", faults_); }

    static Operations OperationsOf(const Sequence& sequence, Answer undisturbed)
    {
        CallbackPlan plan;
        Caller call(plan, "");
        EXPECT_EQ(sequence(call), undisturbed);
        ExpectNoProblems(plan);
        return call.Called();
    }

private:
    // All of so many calls, or one that the seed draws.
    Sample SampleOf(std::size_t calls)
    {
        if (LongForm()) return {};
        Sample sample;
        sample.first = sample.last = 1 + random_.Below(calls);
        sample.modes = {random_.Of({FaultMode::Once, FaultMode::Onward})};
        return sample;
    }
    static Sample ToTheEnd(Sample sample)
    {
        sample.modes = {FaultMode::Onward};
        return sample;
    }

    void SweepWindow(Call kind, const Sequence& sequence, const std::string& window, const Sample& sample,
                     Answer undisturbed, bool isDeceived)
    {
        if (HasFailure()) return;
        const auto operation = [&](CallbackPlan& plan) {
            plan.RememberGoodSignatures();
            Caller call(plan, window);
            return sequence(call);
        };
        const auto check = [&](Answer answer, const FaultRun& run) {
            EXPECT_TRUE(answer == undisturbed || (run.met && (!answer || isDeceived)));
        };
        faults_ += SweepFaults(kind, operation, check, sample);
    }

    Random random_{Seed()};
    std::size_t faults_ = 0;
};

// ---- Signatures ----

struct NamedCase {
    const char* name;
    Case (*make)();
    Verdict undisturbed;
    // A CRL whose signature is called bad counts for nothing, as it must; then the other may cover the certificate.
    bool isDeceivable = false;
};
void PrintTo(const NamedCase& input, std::ostream* out)
{
    *out << input.name;
}
constexpr Verdict kInvalid{PELNIC_ERR_CERT_VERIFY, 0};
constexpr NamedCase kCases[] = {
    {"Good", cases::Good, good},
    {"GoodDirect", cases::GoodDirect, good},
    {"GoodBelowCas", cases::GoodBelowCas, good},
    {"OtherContent", [] { return cases::OtherContent(cases::Good()); }, bad},
    {"OtherContentDirect", [] { return cases::OtherContent(cases::GoodDirect()); }, bad},
    {"AlteredAttributes", cases::AlteredAttributes, {PELNIC_ERR_CMS_SIGNATURE, 0}},
    {"OtherStampedSignature", cases::OtherStampedSignature, {PELNIC_ERR_TSP_IMPRINT_MISMATCH, 0}},
    {"RevokedSigner", cases::RevokedSigner, kInvalid},
    {"RevokedByOneOfTwoCrls", cases::RevokedByOneOfTwoCrls, kInvalid, true},
    {"RevokedByTheFirstOfTwoCrls", cases::RevokedByTheFirstOfTwoCrls, kInvalid, true},
    {"RevokedAmongDuplicates", cases::RevokedAmongDuplicates, kInvalid, true},
    {"RevokedByAnIndirectCrl", cases::RevokedByAnIndirectCrl, kInvalid, true},
    {"ExpiredSigner", cases::ExpiredSigner, kInvalid},
    {"SignerOfAnotherPurpose", cases::SignerOfAnotherPurpose, {PELNIC_ERR_CERT_USAGE, 0}},
    {"SignerBelowNoCa", cases::SignerBelowNoCa, kInvalid},
    {"OwnRoot", cases::OwnRoot, kInvalid},
    {"NoCrl", cases::NoCrl, kInvalid},
    {"ExpiredCrl", cases::ExpiredCrl, kInvalid},
    {"ExpiredCaBeforeTheGoodOne", cases::ExpiredCaBeforeTheGoodOne, kInvalid, true},
    {"ExpiredCaOfTheCaller", cases::ExpiredCaOfTheCaller, kInvalid, true},
};
constexpr auto kName = [](const auto& run) { return std::string(run.param.name); };

class SignatureFaultGate : public FaultGate, public ::testing::WithParamInterface<NamedCase> {
protected:
    void Sweep(const Sequence& sequence)
    {
        const Verdict verdict = GetParam().undisturbed;
        FaultGate::Sweep(sequence, Accepted(verdict), GetParam().isDeceivable);
    }
    const Case input_ = GetParam().make();
};
INSTANTIATE_TEST_SUITE_P(Cases, SignatureFaultGate, ::testing::ValuesIn(kCases), kName);

TEST_P(SignatureFaultGate, IsAskedAboutWhatItSays)
{
    CallbackPlan plan;
    const Context ctx(plan);
    Provide(ctx, input_.anchors);
    EXPECT_EQ(Verify(ctx, input_.signature, input_.content), GetParam().undisturbed);
}

TEST_P(SignatureFaultGate, ByParts)
{
    Sweep(ByParts(input_));
}

TEST_P(SignatureFaultGate, ByDecodedCrls)
{
    Sweep(ByDecodedCrls(input_));
}

TEST_P(SignatureFaultGate, ByChecker)
{
    Sweep([&](Caller& call) { return VerifyByChecker(call, input_); });
}

TEST_P(SignatureFaultGate, ByFiles)
{
    const FilesOf files(input_);
    Sweep(files.Way());
}

// ---- Bundles ----

Bytes RootCrlOn(std::string_view day, const std::vector<Bytes>& revoked = {})
{
    return Build(Revoking(revoked, UpdatedOn(day, DemoPki().rootCrl)));
}

Bytes CrlsOn(std::string_view rootDay, std::string_view signingDay)
{
    return Cat(RootCrlOn(rootDay), Build(UpdatedOn(signingDay, DemoPki().signingCrl)));
}

Bytes Early()
{
    return CrlsOn("250101", "250101");
}

Bytes Late()
{
    return CrlsOn("250201", "250201");
}

constexpr Bundles kBundles[] = {
    {"New", Late, Early, SCPS_NEW},
    {"NewByItsNumber", Early, [] { return RootCrlOn("250101"); }, SCPS_NEW},
    {"NewWithoutARevokedCa", [] { return RootCrlOn("250201", {DemoPki().signingCa.serial}); }, Early, SCPS_NEW},
    {"Same", Early, Early, SCPS_SAME},
    {"Old", Early, Late, SCPS_OLD},
    {"Mixed", [] { return CrlsOn("250201", "250101"); }, [] { return CrlsOn("250101", "250201"); }, SCPS_MIX},
    {"MixedAndLonger", [] { return Cat(CrlsOn("250201", "250101"), Build(DemoPki().tsaCrl)); },
     [] { return CrlsOn("250101", "250201"); }, SCPS_MIX},
    {"WithoutAnIssuer", [] { return RootCrlOn("250201"); }, Early, SCPS_MIX},
};

class BundleFaultGate : public FaultGate, public ::testing::WithParamInterface<Bundles> {};
INSTANTIATE_TEST_SUITE_P(Cases, BundleFaultGate, ::testing::ValuesIn(kBundles), kName);

TEST_P(BundleFaultGate, AnswerTheSameOrNothing)
{
    const Answer undisturbed = GetParam().relation == SCPS_MIX ? Answer() : Answer(GetParam().relation);
    const BundleFiles files(GetParam());
    Sweep(files.Way(), undisturbed);
}

// ---- Completeness ----

// Each operation that the library exports is swept, but for the two that call nothing.
TEST_F(FaultGate, SweepsEveryOperation)
{
    Operations swept{{"pelnic_set_callback_funcs", {}}, {"pelnic_get_version", {}}};
    const Case input = cases::Good();
    const FilesOf files(input);
    const BundleFiles bundles(kBundles[0]);
    swept.merge(OperationsOf(ByParts(input), kAccepted));
    swept.merge(OperationsOf(files.Way(), kAccepted));
    swept.merge(OperationsOf(bundles.Way(), SCPS_NEW));

    std::ifstream symbols(DataPath("../programs/exported_symbols.txt"));
    std::size_t exported = 0;
    for (std::string symbol; std::getline(symbols, symbol); ++exported) EXPECT_EQ(swept.count(symbol), 1u) << symbol;
    EXPECT_EQ(exported, swept.size());
}

} // namespace
} // namespace pnvtest
