// A small certificate, CRL, timestamp token and signature, and a whole package, changed in every way that needs no
// thought: cut at every length, with every other value at each octet, with each element left out, doubled, emptied, and
// claiming to be as long as numbers go. Each from a heap block of its exact size: no octet beyond it is read, nothing
// is leaked, no callback is asked for what it cannot do, and nothing is accepted but for octets that no rule looks at.
// The short form tries some of them.
#include "support/crl_bundle.h"
#include "support/effort.h"
#include "support/exact_heap.h"
#include "support/mutants.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <algorithm>

namespace pnvtest {
namespace {

const Bytes kContent = Text("a firmware image");

// One change: the octets it touched, in the encoding as it was, and what it was.
struct Change {
    std::size_t from;
    std::size_t to;
    std::string what;
};
using Try = std::function<void(const Bytes& mutant, const Change& change)>;

// ---- The mutants of an encoding ----

void ForEveryCut(const Bytes& der, const Try& attempt)
{
    for (std::size_t length = 1; length < der.size(); ++length) {
        const Bytes cut(der.begin(), der.begin() + static_cast<std::ptrdiff_t>(length));
        attempt(cut, {length, der.size(), "cut"});
    }
}

// So many of the 255 other values of each octet, evenly spread.
void ForEveryValue(Bytes der, std::size_t values, const Try& attempt)
{
    for (std::size_t i = 0; i < der.size(); ++i) {
        const std::uint8_t genuine = der[i];
        for (std::size_t k = 0; k < values; ++k) {
            der[i] = static_cast<std::uint8_t>(genuine ^ (1 + (i * 7 + k * (255 / values)) % 255));
            attempt(der, {i, i + 1, "value " + std::to_string(der[i])});
        }
        der[i] = genuine;
    }
}

// In 32 bits the first is the largest signed number, the next the smallest, and the last ones wrap around when a
// position is added.
std::vector<std::size_t> FalseLengths()
{
    std::vector<std::size_t> lengths{0x7FFFFFFF, 0x80000000};
    for (std::size_t low = 0xF0; low <= 0xFF; ++low) lengths.push_back(0xFFFFFF00 | low);
    return lengths;
}

void ForEveryElement(const Bytes& der, const Try& attempt)
{
    for (const Path& path : PathsOf(der)) {
        const Element element = Find(der, path);
        const Bytes whole = Extract(der, path);
        const Bytes content = Content(der, path);
        const auto replace = [&](const Bytes& by, const std::string& what) {
            attempt(Replace(der, path, by), {element.offset, element.End(), what});
        };
        if (!path.empty()) replace({}, "left out");
        replace(Cat(whole, whole), "doubled");
        if (!content.empty()) replace(Tlv(element.tag, Bytes{}), "emptied");
        for (std::size_t length : FalseLengths()) {
            replace(Tlv(element.tag, length, content), "length " + std::to_string(length));
        }
    }
}

// ---- Decoding ----

class MutationSweep : public ::testing::Test {
protected:
    // All mutants; in the short form with so many values for each octet, and of all of these every step-th.
    void Sweep(const Bytes& der, std::size_t values, std::size_t step, const Try& attempt)
    {
        if (LongForm()) step = 1;
        std::size_t seen = 0;
        const Try counted = [&](const Bytes& mutant, const Change& change) {
            if (HasFailure() || seen++ % step != 0) return;
            SCOPED_TRACE(::testing::Message()
                         << "octets " << change.from << " to " << change.to << ": " << change.what);
            attempt(mutant, change);
            ++mutants_;
        };
        ForEveryCut(der, counted);
        ForEveryValue(der, LongForm() ? 255 : values, counted);
        ForEveryElement(der, counted);
    }
    void TearDown() override { Report("mutants tried", mutants_); }

    // Runs function(context, octets), which must leave nothing behind, and in which no callback may fail.
    template <typename Function> static void Use(const Bytes& octets, Function function)
    {
        CallbackPlan plan;
        plan.Silence();
        plan.RememberGoodSignatures();
        {
            const Context ctx(plan);
            function(ctx, ExactHeap(octets));
            EXPECT_EQ(ctx->nCallbackFaults, 0u);
        }
        ExpectNoProblems(plan);
    }

    std::size_t mutants_ = 0;
};

TEST_F(MutationSweep, OfACertificate)
{
    CertSpec spec = FlatPki().signer;
    spec.subjectPublicKey = RsaSpki(Bytes(16, 0xC5));
    Sweep(Build(spec), 8, 1, [](const Bytes& mutant, const Change&) {
        Use(mutant, [](PELNIC_VRF_CTX ctx, const ExactHeap& cert) {
            (void)pelnic_verify_add_cert(ctx, cert.data(), Len(cert));
        });
    });
}

// Verified and summarised by the key of a root that is there, and compared with itself.
TEST_F(MutationSweep, OfACrl)
{
    CrlSpec spec = FlatPki().rootCrl;
    spec.revoked = {{{0x21}, UtcTime("250601000000Z"), 4}};
    const Bytes root = Build(FlatPki().root);
    Sweep(Build(spec), 4, 1, [&](const Bytes& mutant, const Change&) {
        Use(mutant, [&](PELNIC_VRF_CTX ctx, const ExactHeap& crl) {
            EXPECT_EQ(pelnic_verify_add_cert(ctx, root.data(), Len(root)), 0u);
            PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
            if (pelnic_decode_crl(ctx, crl.data(), Len(crl), &bundle) != 0) return;
            PELNIC_CRL_PERIOD_STAT relation = SCPS_NEW;
            const PELNIC_ERROR_CODE rc = pelnic_crl_compare(ctx, bundle, bundle, &relation);
            EXPECT_TRUE(rc == 0 ? relation == SCPS_SAME : relation == SCPS_MIX);
            EXPECT_EQ(pelnic_crl_free(ctx, bundle), 0u);
        });
    });
}

TEST_F(MutationSweep, OfATimestampToken)
{
    const TokenSpec spec = FlatToken(FlatPki());
    const Try decodeToken = [](const Bytes& mutant, const Change&) {
        Use(mutant, [](PELNIC_VRF_CTX ctx, const ExactHeap& token) {
            PELNIC_VRF* const vrf = static_cast<PELNIC_VRF*>(ctx);
            PELNIC_PKCS7_CONTENT* content = nullptr;
            PNV_UINT32 octets = 0;
            if (pelnic_pkcs7_decode_signed(vrf, token.data(), Len(token), &content, &octets) != 0) return;
            EXPECT_LE(octets, token.size());
            pelnic_pkcs7_free_signed(vrf, content);
        });
    };
    Sweep(TimestampToken(spec, kContent), 3, 1, decodeToken);

    TokenSpec full = spec;
    full.accuracy = Accuracy(1);
    full.ordering = Bool(true);
    full.nonce = Int(77);
    const Try decodeTstInfo = [](const Bytes& mutant, const Change&) {
        Use(mutant, [](PELNIC_VRF_CTX ctx, const ExactHeap& encoded) {
            PELNIC_VRF* const vrf = static_cast<PELNIC_VRF*>(ctx);
            PELNIC_TST_INFO* info = nullptr;
            PNV_UINT32 octets = 0;
            if (pelnic_decode_timestamp_token(vrf, encoded.data(), Len(encoded), &info, &octets) != 0) return;
            EXPECT_LE(octets, encoded.size());
            pelnic_free_timestamp_token(vrf, info);
        });
    };
    Sweep(TstInfo(full, kContent), 32, 1, decodeTstInfo);
}

// ---- Verdicts ----

// What else may be done to the small signature: elements that may be missing, or there twice, or empty.
class UncheckedElements {
public:
    explicit UncheckedElements(const Bytes& der) : der_(der) {}

    void Add(const Path& path, const std::string& what, const char* why)
    {
        const Element element = Find(der_, path);
        expected_.push_back({{element.offset, element.End(), what}, why, false});
    }
    // Emptied by its length octet, with the content behind it.
    void AddLength0(const Path& path, const char* why)
    {
        const std::size_t length = Find(der_, path).offset + 1;
        expected_.push_back({{length, length + 1, "value 0"}, why, false});
    }
    // In a SignedData with its one certificate and one signer.
    void AddSignedData(const Path& contentInfo)
    {
        const auto at = [&](const Path& below) { return Join(contentInfo, below); };
        const char* const behind = "what follows the last element that is asked for is not read";
        const char* const hint = "digestAlgorithms: a hint to whom reads in one pass; signers name their own";
        const char* const parameters = "parameters of an algorithm: its OID says all";
        Add(at({}), "doubled", behind);
        Add(at({1}), "doubled", behind);
        Add(at({1, 0}), "doubled", behind);
        Add(at({1, 0, 1}), "emptied", hint);
        Add(at({1, 0, 1, 0}), "left out", hint);
        Add(at({1, 0, 1, 0}), "doubled", hint);
        Add(at({1, 0, 3, 0}), "doubled", "a certificate that is there twice is one certificate");
        Add(at({1, 0, 3, 0, 1, 1}), "left out", parameters);
        Add(at({1, 0, 3, 0, 2}), "doubled", behind);
        Add(at({1, 0, 4}), "doubled", behind);
        Add(at({1, 0, 4, 0}), "doubled", "a signer who is there twice signed twice");
        Add(at({1, 0, 4, 0, 2, 1}), "left out", parameters);
    }
    void AddTimestamp(const Path& attribute)
    {
        const Path token = Join(attribute, {1, 0});
        const char* const unsignedToken = "a token that nobody signed passes";
        AddSignedData(token);
        Add(Join(token, {1, 0, 2, 1, 0}), "doubled", "what follows the TSTInfo is not read");
        Add(Join(token, {1, 0, 4}), "emptied", unsignedToken);
        AddLength0(Join(token, {1, 0, 4}), unsignedToken);
        Add(Join(token, {1, 0, 4, 0}), "left out", unsignedToken);
    }

    bool Has(const Change& change)
    {
        for (Expected& expected : expected_) {
            if (expected.change.from != change.from || expected.change.what != change.what) continue;
            if (expected.change.to == change.to) return expected.seen = true;
        }
        return false;
    }
    void ExpectSeen() const
    {
        for (const Expected& expected : expected_) {
            EXPECT_TRUE(expected.seen) << expected.change.from << " " << expected.change.what << ": " << expected.why;
        }
    }

private:
    struct Expected {
        Change change;
        const char* why;
        bool seen;
    };

    const Bytes& der_;
    std::vector<Expected> expected_;
};

bool IsWithin(const Change& change, const std::vector<Unchecked>& ranges)
{
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const Unchecked& range) { return change.from >= range.from && change.to <= range.to; });
}

class VerdictSweep : public MutationSweep {
protected:
    static bool IsAccepted(const Anchors& anchors, const Bytes& signature)
    {
        bool accepted = false;
        Use(signature, [&](PELNIC_VRF_CTX ctx, const ExactHeap& octets) {
            (void)pelnic_verify_add_cert(ctx, anchors.root.data(), Len(anchors.root));
            (void)pelnic_verify_add_crl(ctx, anchors.crls.data(), Len(anchors.crls));
            PELNIC_ERROR_CODE rc = pelnic_verify_detach_signature_begin(ctx, octets.data(), Len(octets));
            if (rc == 0) rc = Update(ctx, kContent);
            accepted = rc == 0 && Final(ctx) == good;
        });
        return accepted;
    }

    const Bytes signature_ = DetachedCms(kContent, FlatCms(FlatPki()));
    const Anchors anchors_ = FlatAnchors(FlatPki());
};

// What is accepted of a good signature was changed where no rule looks.
TEST_F(VerdictSweep, OfASignature)
{
    const Path timestamp{1, 0, 4, 0, 6, 0};
    UncheckedList octets(signature_);
    octets.AddSignedData({}, false);
    octets.AddTimestamp(timestamp);
    UncheckedElements elements(signature_);
    elements.AddSignedData({});
    elements.Add(timestamp, "doubled", "the first timestamp counts");
    elements.AddTimestamp(timestamp);
    std::size_t accepted = 0;
    Sweep(signature_, 1, 5, [&](const Bytes& mutant, const Change& change) {
        if (!IsAccepted(anchors_, mutant)) return;
        EXPECT_TRUE(elements.Has(change) || IsWithin(change, octets.Ranges()));
        ++accepted;
    });
    if (LongForm()) elements.ExpectSeen();
    Report("of them accepted", accepted);
}

// Nothing that can be done to a signature, or to the CRL, makes up for a revocation.
TEST_F(VerdictSweep, OfARevokedSignersSignature)
{
    Anchors revoking = anchors_;
    revoking.crls = Build(Revoking({FlatPki().signer.serial}, FlatPki().rootCrl));
    Sweep(signature_, 1, 17, [&](const Bytes& mutant, const Change&) { EXPECT_FALSE(IsAccepted(revoking, mutant)); });
    Sweep(revoking.crls, 1, 3, [&](const Bytes& mutant, const Change&) {
        EXPECT_FALSE(IsAccepted({revoking.root, mutant}, signature_));
    });
}

// ---- Whole packages ----

// What may be anything in the header of a package: fields that nobody reads, and how to say that nothing is signed.
const std::vector<Unchecked> kUncheckedHeader = {
    {0, 16, "reserved, checksum, file and version"},
    {16, 20, "the number of sub-files: 1 is an unsigned package"},
    {32, 36, "the type of the second sub-file: without a signature the package is an unsigned one"},
    {56, 352, "further sub-files, description, length, checksum, compression"},
};

// Judged by the checker as a process; behind the header as the library judges the same parts.
TEST_F(MutationSweep, OfAPackage)
{
    const DemoPki pki(KeyId::Rsa4096);
    const Bytes cms = DetachedCms(kContent, DemoCms(pki));
    const Bytes package = Build(SignedPackage(kContent, cms, pki.Crls()));
    const TempDir dir;
    const std::size_t step = LongForm() ? 1 : Emulator().empty() ? 131 : 397;
    const auto part = [&](const Bytes& whole, std::size_t from, std::size_t length) {
        const auto begin = whole.begin() + static_cast<std::ptrdiff_t>(packageHeaderSize + from);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(length));
    };
    const auto isGood = [&](const Bytes& mutant) {
        CallbackPlan plan;
        const Context ctx(plan);
        const Bytes root = Build(pki.root);
        const Bytes crls = part(mutant, kContent.size() + cms.size(), pki.Crls().size());
        (void)pelnic_verify_add_cert(ctx, root.data(), Len(root));
        (void)pelnic_verify_add_crl(ctx, crls.data(), Len(crls));
        return Verify(ctx, part(mutant, kContent.size(), cms.size()), part(mutant, 0, kContent.size())) == good;
    };
    std::size_t seen = 0;
    ForEveryValue(package, 1, [&](const Bytes& mutant, const Change& change) {
        if (HasFailure() || seen++ % step != 0) return;
        SCOPED_TRACE(::testing::Message() << "octet " << change.from << ": " << change.what);
        const ProcessResult run = RunProcess(ForTarget({PkgcheckTestRootPath(), dir.Write("package", mutant)}));
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(run.status == 0 || run.status == 255 || run.status == 254) << run.status;
        if (change.from >= packageHeaderSize) {
            EXPECT_EQ(run.status == 0, isGood(mutant));
        } else {
            EXPECT_TRUE(run.status != 0 || IsWithin(change, kUncheckedHeader));
        }
        ++mutants_;
    });
}

} // namespace
} // namespace pnvtest
