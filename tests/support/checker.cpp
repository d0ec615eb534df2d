#include "checker.h"

#include "process.h"

#include <gtest/gtest.h>

namespace pnvtest {

void PrintTo(const Outcome& outcome, std::ostream* out)
{
    *out << "status " << outcome.status << ", \"" << outcome.out << '"';
}

Outcome RefusedWith(const std::string& code)
{
    return {255, "Check cms file fail for file(err " + code + ")\n"};
}

Outcome RunChecker(const std::string& checker, const std::string& path)
{
    const ProcessResult run = RunProcess(ForTarget({checker, path}));
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.err, "");
    return {run.status, run.out};
}

} // namespace pnvtest
