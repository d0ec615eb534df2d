// A small signature with one octet changed, and cut at every length, each in a context of its own: no crash, no leak,
// and no acceptance but for octets that no rule looks at.
#include "support/exact_heap.h"
#include "support/mutants.h"
#include "support/process.h"
#include "support/sanitized.h"
#include "support/signature.h"

#include <cstdio>

namespace pnvtest {
namespace {

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
