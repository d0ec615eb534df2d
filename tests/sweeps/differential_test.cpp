// Generated packages, judged by the verification as the checker calls it and by OpenSSL, which is told in which rules
// the two differ on purpose (support/oracle_rules.h). They must agree on every one, and on the code of every refusal.
//
//     CMSVERIFY_LONG=1       20,000 packages, some minutes in an optimised build
//     CMSVERIFY_CASES=5000   so many
//     CMSVERIFY_SEED=17      the package of this seed alone, or with CMSVERIFY_CASES from it on
#include "support/generated_package.h"
#include "support/process.h"
#include "support/seed.h"
#include "verify_signature.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <map>

namespace pnvtest {
namespace {

PELNIC_ERROR_CODE VerdictOnParts(const SignedParts& parts)
{
    PELNIC_VERIFY_SIGNATURE_S sig{parts.root.data(), Len(parts.root), parts.crls.data(),    Len(parts.crls),
                                  parts.cms.data(),  Len(parts.cms),  parts.payload.data(), Len(parts.payload)};
    return Pelnic_Verify_Signature_Integrity(&sig);
}

// ---- How many, and which ----

constexpr std::uint64_t kEnoughForAll = 20000; // among so many every rule decides some

std::uint64_t Cases()
{
    std::uint64_t cases = Emulator().empty() ? 800 : 100;
    if (std::getenv("CMSVERIFY_SEED") != nullptr) cases = 1;
    if (std::getenv("CMSVERIFY_LONG") != nullptr) cases = kEnoughForAll;
    return Setting("CMSVERIFY_CASES", cases);
}

// ---- What came of it ----

const RuleSet kAllRules = RuleSet().set();

class Tally {
public:
    void Add(const SignedParts& parts, const Opinion& opinion)
    {
        ++all_;
        ++classes_[opinion.why];
        accepted_ += opinion.Accepts();
        const bool differs = AskOpenssl(parts, {}).Accepts() != opinion.Accepts();
        bool byOneRule = false;
        for (std::size_t rule = 0; rule < kRules; ++rule) {
            if (!opinion.met.test(rule)) continue;
            RuleSet others = kAllRules;
            others.reset(rule);
            if (AskOpenssl(parts, others).Accepts() == opinion.Accepts()) continue;
            ++decided_[rule];
            byOneRule = true;
        }
        byRules_ += differs;
        bySeveralRules_ += differs && !byOneRule;
    }

    std::size_t Accepted() const { return accepted_; }
    std::size_t DecidedBy(std::size_t rule) const { return decided_[rule]; }

    void Print() const
    {
        Line(all_, "packages");
        for (const auto& [why, count] : classes_) Line(count, "  " + why);
        Line(byRules_, "on which OpenSSL by itself says otherwise");
        Line(bySeveralRules_, "  for more than one reason");
        for (std::size_t rule = 0; rule < kRules; ++rule) {
            const RuleText& text = TextOf(static_cast<Rule>(rule));
            Line(decided_[rule], std::string("decided by ") + text.name + ": " + text.text);
        }
    }

private:
    static void Line(std::size_t count, const std::string& what)
    {
        std::cout << "[   DIFF   ] " << std::setw(6) << count << " " << what << std::endl;
    }

    std::size_t all_ = 0;
    std::size_t accepted_ = 0;
    std::size_t byRules_ = 0;
    std::size_t bySeveralRules_ = 0;
    std::map<std::string, std::size_t> classes_;
    std::size_t decided_[kRules] = {};
};

TEST(Differential, VerifierAndOpensslAgree)
{
    const std::uint64_t cases = Cases();
    const std::uint64_t first = Setting("CMSVERIFY_SEED", 1);
    Tally tally;
    for (std::uint64_t seed = first; seed != first + cases; ++seed) {
        const GeneratedPackage package = GeneratePackage(seed);
        const Opinion opinion = AskOpenssl(package.parts, kAllRules);
        EXPECT_EQ(VerdictOnParts(package.parts), opinion.code)
            << "CMSVERIFY_SEED=" << seed << ": " << opinion.why << "; " << ::testing::PrintToString(package.changes);
        tally.Add(package.parts, opinion);
    }
    tally.Print();
    if (cases >= kEnoughForAll) {
        EXPECT_GE(tally.Accepted(), cases * 3 / 10) << "too few are accepted for the refusals to mean much";
        for (std::size_t rule = 0; rule < kRules; ++rule) {
            EXPECT_NE(tally.DecidedBy(rule), 0u) << TextOf(static_cast<Rule>(rule)).name << " makes no difference";
        }
    }
}

} // namespace
} // namespace pnvtest
