// A small signature with one octet changed, and cut at every length, each in a context of its own: no crash, no leak,
// and no acceptance but for octets that no rule looks at.
#include "support/exact_heap.h"
#include "support/process.h"
#include "support/signature.h"

#include <cstdio>

namespace pnvtest {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

const Bytes kContent = Text("a firmware image");
constexpr std::uint8_t kMasks[] = {0x01, 0x20, 0x80, 0xFF};

// Every mask on every octet takes long where the code runs slowly: there some octets get the masks in turn.
struct Effort {
    std::size_t step = 1;
    bool everyMask = true;
};
Effort Affordable()
{
    if (!Emulator().empty()) return {7, false};
    if (kSanitized) return {2, false};
    return {};
}

// ---- What is unchecked ----

// Octets [from, to) of the signature, and why it is no harm that they may be anything.
struct Unchecked {
    std::size_t from;
    std::size_t to;
    const char* why;
};

enum class Part { Tag, Header, Content, FirstContentOctet, Whole };

class UncheckedList {
public:
    explicit UncheckedList(const Bytes& der) : der_(der) {}

    void Add(const Path& path, Part part, const char* why)
    {
        const Element element = Find(der_, path);
        const std::size_t content = element.ContentOffset();
        switch (part) {
        case Part::Tag: ranges_.push_back({element.offset, element.offset + 1, why}); break;
        case Part::Header: ranges_.push_back({element.offset, content, why}); break;
        case Part::Content: ranges_.push_back({content, element.End(), why}); break;
        case Part::FirstContentOctet: ranges_.push_back({content, content + 1, why}); break;
        case Part::Whole: ranges_.push_back({element.offset, element.End(), why}); break;
        }
    }
    // In a SignedData with its one certificate and one signer, who has no signed attributes when direct.
    void AddSignedData(const Path& contentInfo, bool direct)
    {
        const auto at = [&](const Path& below) { return Join(contentInfo, below); };
        const std::size_t algorithm = direct ? 3 : 4;
        Add(at({1}), Part::Header,
            "explicit tag of the SignedData: stepped over with its length, which nothing ends by");
        Add(at({1, 0, 0}), Part::Content, "version of the SignedData: one table decodes all of them");
        Add(at({1, 0, 1, 0}), Part::Content,
            "digestAlgorithms: a hint to whom reads in one pass; signers name their own");
        Add(at({1, 0, 2, 0}), Part::Whole, "content type: what the content is called changes no octet that is hashed");
        Add(at({1, 0, 3, 0, 1, 1}), Part::Tag, "parameters of a certificate's algorithm: its OID says all");
        Add(at({1, 0, 3, 0, 2}), Part::FirstContentOctet,
            "unused bits of a certificate's signature: no octet of it changes");
        Add(at({1, 0, 4, 0, 0}), Part::Content, "version of the SignerInfo: one table decodes all of them");
        Add(at({1, 0, 4, 0, 2, 1}), Part::Tag, "parameters of the digest algorithm: its OID says all");
        Add(at({1, 0, 4, 0, algorithm}), Part::Content,
            "signatureAlgorithm: it is RSA PKCS #1 v1.5 with the digest algorithm");
        Add(at({1, 0, 4, 0, algorithm + 1}), Part::Tag, "tag of the signature value: its octets are what counts");
    }
    void AddTimestamp(const Path& attribute)
    {
        const Path token = Join(attribute, {1, 0});
        Add(Join(attribute, {1}), Part::Tag, "tag of an attribute's values: kept as they are");
        AddSignedData(token, false);
        Add(Join(token, {1, 0, 2, 1}), Part::Tag,
            "explicit tag of the TSTInfo: kept as it is, whatever follows the type");
        Add(Join(token, {1, 0, 2, 1, 0}), Part::Tag,
            "tag of the octet string around the TSTInfo: its octets are hashed");
    }

    const std::vector<Unchecked>& Ranges() const { return ranges_; }

private:
    static Path Join(Path path, const Path& below)
    {
        path.insert(path.end(), below.begin(), below.end());
        return path;
    }

    const Bytes& der_;
    std::vector<Unchecked> ranges_;
};

// ---- Flips ----

Verdict VerifyFresh(CallbackPlan& plan, const Anchors& anchors, const ExactHeap& signature)
{
    Context ctx(plan);
    Provide(ctx, anchors);
    PELNIC_ERROR_CODE rc = pelnic_verify_detach_signature_begin(ctx, signature.data(), Len(signature));
    if (rc == 0) rc = Update(ctx, kContent);
    return rc == 0 ? Final(ctx) : Verdict{rc, 0};
}

class SignatureFlips : public ::testing::Test {
protected:
    // Flips octets [from, to). Those accepted must lie in the ranges, and each range must have had its share.
    void Flip(const Bytes& der, std::size_t from, std::size_t to, const std::vector<Unchecked>& unchecked)
    {
        const Effort effort = Affordable();
        std::vector<bool> seen(unchecked.size());
        for (std::size_t i = from; i < to; i += effort.step) {
            for (std::size_t mask = 0; mask < std::size(kMasks); ++mask) {
                if (!effort.everyMask && mask != i / effort.step % std::size(kMasks)) continue;
                if (FlipOne(der, i, kMasks[mask])) MarkSeen(unchecked, i, &seen);
                if (HasFailure()) return;
            }
        }
        for (std::size_t i = 0; effort.everyMask && i < unchecked.size(); ++i) {
            const bool flipped = unchecked[i].from >= from && unchecked[i].to <= to;
            EXPECT_EQ(seen[i], flipped) << unchecked[i].why;
        }
        std::printf("%zu flips tried, %zu accepted\n", flips_, accepted_);
    }

    const Anchors anchors_ = FlatAnchors(FlatPki());

private:
    bool FlipOne(const Bytes& der, std::size_t i, std::uint8_t mask)
    {
        SCOPED_TRACE(::testing::Message() << "octet " << i << " ^ " << int{mask});
        ExactHeap signature(der);
        signature.data()[i] ^= mask;
        CallbackPlan plan;
        plan.Silence();
        const Verdict verdict = VerifyFresh(plan, anchors_, signature);
        ExpectNoProblems(plan);
        EXPECT_TRUE(verdict == good || verdict.result == 0);
        ++flips_;
        accepted_ += verdict == good ? 1 : 0;
        return verdict == good;
    }
    static void MarkSeen(const std::vector<Unchecked>& unchecked, std::size_t octet, std::vector<bool>* seen)
    {
        bool allowed = false;
        for (std::size_t i = 0; i < unchecked.size(); ++i) {
            if (octet < unchecked[i].from || octet >= unchecked[i].to) continue;
            (*seen)[i] = true;
            allowed = true;
        }
        EXPECT_TRUE(allowed) << "octet " << octet << " was flipped and nobody noticed";
    }

    std::size_t flips_ = 0;
    std::size_t accepted_ = 0;
};

TEST_F(SignatureFlips, OfASignerWithAttributesAreNoticed)
{
    const Bytes der = DetachedCms(kContent, FlatCms(FlatPki()));
    UncheckedList unchecked(der);
    unchecked.AddSignedData({}, false);
    unchecked.AddTimestamp({1, 0, 4, 0, 6, 0});
    Flip(der, 0, der.size(), unchecked.Ranges());
}

// Up to the unsigned attributes; a token is a token.
TEST_F(SignatureFlips, OfADirectSignerAreNoticed)
{
    const Bytes der = DetachedCms(kContent, Direct(FlatCms(FlatPki())));
    UncheckedList unchecked(der);
    unchecked.AddSignedData({}, true);
    Flip(der, 0, Find(der, {1, 0, 4, 0, 5, 0, 1}).offset, unchecked.Ranges());
}

// ---- Prefixes ----

TEST_F(SignatureFlips, PrefixesAreRefused)
{
    const Bytes der = DetachedCms(kContent, FlatCms(FlatPki()));
    const std::size_t step = Affordable().step;
    std::size_t prefixes = 0;
    for (std::size_t length = 1; length < der.size(); length += step) {
        CallbackPlan plan;
        plan.Silence();
        const Verdict verdict = VerifyFresh(plan, anchors_, ExactHeap(der, length));
        EXPECT_EQ(verdict.code, length < 38 ? PELNIC_ERR_CMS_FORMAT : PELNIC_ERR_CMS_DECODE) << length;
        ExpectNoProblems(plan);
        ++prefixes;
    }
    std::printf("%zu prefixes tried\n", prefixes);
}

} // namespace
} // namespace pnvtest
