// Contexts to test with, and the fault sweep. What a plan finds wrong becomes a failure of the running test.
#ifndef PNVTEST_VRF_H
#define PNVTEST_VRF_H

#include "callbacks.h"
#include "cmsverify/pelnic_vrf.h"

#include <gtest/gtest.h>

namespace pnvtest {

// Turns every problem of a plan into a test failure.
inline void ExpectNoProblems(const CallbackPlan& plan)
{
    for (const std::string& problem : plan.Problems()) ADD_FAILURE() << problem;
}

// A bare context for the layers below the interface: the plan's table and nothing else, all other fields zero. Passes
// as the first argument of every operation.
class Vrf {
public:
    // With a plan of its own, which must be without problems when the context ends.
    Vrf() : ownPlan_(std::in_place), plan_(*ownPlan_) { TakeTable(); }
    // With the test's plan, which the test judges.
    explicit Vrf(CallbackPlan& plan) : plan_(plan) { TakeTable(); }
    ~Vrf()
    {
        if (ownPlan_) ExpectNoProblems(*ownPlan_);
    }
    Vrf(const Vrf&) = delete;
    Vrf& operator=(const Vrf&) = delete;

    operator PELNIC_VRF*() { return &vrf_; }
    PELNIC_VRF* operator->() { return &vrf_; }
    CallbackPlan& Plan() { return plan_; }
    // Takes the plan's table again, after the test changed it.
    void TakeTable()
    {
        vrf_.st_size = sizeof(vrf_);
        vrf_.callback_funcs = plan_.Table();
    }

private:
    std::optional<CallbackPlan> ownPlan_;
    CallbackPlan& plan_;
    PELNIC_VRF vrf_{};
};

// A context of the public interface on a plan, with its PKI object; released at the end. Null when it could not be
// created, and CreateResult says why. Declare it after the plan.
class Context {
public:
    explicit Context(CallbackPlan& plan)
    {
        PELNIC_CTX_CREATE_PARAMS params{};
        params.st_size = sizeof(params);
        params.callback_funcs = plan.Table();
        createResult_ = pelnic_verify_create_ctx(&ctx_, &params);
    }
    ~Context()
    {
        if (ctx_ != nullptr) (void)pelnic_vrf_ctx_free(ctx_);
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    operator PELNIC_VRF_CTX() const { return ctx_; }
    PELNIC_VRF* Record() const { return static_cast<PELNIC_VRF*>(ctx_); }
    PELNIC_VRF* operator->() const { return Record(); }
    PELNIC_ERROR_CODE CreateResult() const { return createResult_; }

private:
    PELNIC_VRF_CTX ctx_ = nullptr;
    PELNIC_ERROR_CODE createResult_ = 0;
};

// One run of a sweep: its fault, and whether the run met it. The last run of each mode meets none.
struct FaultRun {
    FaultMode mode;
    std::size_t nth;
    bool met;
};

// Which calls of a sweep fail: every step-th from the first to the last.
struct Sample {
    std::size_t step = 1;
    std::size_t first = 1;
    std::size_t last = SIZE_MAX;
    std::vector<FaultMode> modes{FaultMode::Once, FaultMode::Onward};
};

// Runs operation(plan) with call 1 of these kinds failing, then call 2, and on until a run meets no fault; first that
// call alone, then that call and all after it. Each run has a fresh plan, and check(outcome, run) judges what the
// operation returned. The operation gives back all it took: the run fails if anything is left. Stops at the first run
// that fails. Returns how many runs met a fault.
template <typename Operation, typename Check>
std::size_t SweepFaults(Calls kinds, Operation operation, Check check, const Sample& sample = {})
{
    std::size_t faults = 0;
    for (FaultMode mode : sample.modes) {
        FaultRun run{mode, 0, true};
        for (run.nth = sample.first; run.met && run.nth <= sample.last; run.nth += sample.step) {
            SCOPED_TRACE(::testing::Message() << "call " << run.nth << (mode == FaultMode::Once ? "" : " and on"));
            CallbackPlan plan;
            plan.Fail(kinds, run.nth, mode);
            const auto outcome = operation(plan);
            run.met = plan.FaultsMet() != 0;
            check(outcome, run);
            ExpectNoProblems(plan);
            if (::testing::Test::HasFailure()) return faults;
            faults += run.met ? 1 : 0;
        }
    }
    return faults;
}

} // namespace pnvtest

#endif
