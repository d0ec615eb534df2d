// The rules in which the verifier differs from OpenSSL on purpose. Each can be left out of an oracle, which then has
// OpenSSL's own rule in its place: so it shows which verdicts hang on it.
#ifndef PNVTEST_ORACLE_RULES_H
#define PNVTEST_ORACLE_RULES_H

#include <bitset>
#include <cstddef>

namespace pnvtest {

enum class Rule {
    // Where OpenSSL is stricter
    LastSecondCounts,
    ThisUpdateIsUnread,
    PathLengthIsUnread,
    CriticalIsUnread,
    CrlExtensionsAreUnread,
    KeyIdentifiersAreUnread,
    RevocationHasADate,
    RootIsNotRevoked,
    AnchorsBelowOthersAreNoEnd,
    UnsignedTokenPasses,
    LastDirectSignerDecides,
    // Where it is more lenient
    SilenceIsNoPermission,
    PurposeIsAsked,
    NamesAreOctets,
    Sha2Only,
    NextUpdateIsRequired,
    RemovalRevokes,
    ExpiredCrlRevokes,
    OldCertificatesStopTheRest,
    SignersAreNoCas,
    SerialNumberIsNotZero,
    WholeSecondsOnly,
    NestingIsLimited,
    // Where both look for the same in another way
    FirstIssuerThatVerifies,
    FirstCopyCounts,
    CrlsByScore,
    IndirectCrlSpeaksForItsRoot,
    CrlIssuerVouches,
    Count
};
constexpr std::size_t kRules = static_cast<std::size_t>(Rule::Count);

struct RuleText {
    const char* name;
    const char* text;
};
const RuleText& TextOf(Rule rule);

using RuleSet = std::bitset<kRules>;

// The rules in force while one package is judged.
class Rules {
public:
    explicit Rules(RuleSet inForce) : inForce_(inForce) {}

    // Asked where the two differ, and only there: whether it is by our rule.
    bool Apply(Rule rule)
    {
        met_.set(static_cast<std::size_t>(rule));
        return InForce(rule);
    }
    bool InForce(Rule rule) const { return inForce_.test(static_cast<std::size_t>(rule)); }
    RuleSet Met() const { return met_; }

private:
    RuleSet inForce_;
    RuleSet met_;
};

} // namespace pnvtest

#endif
