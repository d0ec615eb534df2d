// The checker as its caller sees it: an exit status and a line.
#ifndef PNVTEST_CHECKER_H
#define PNVTEST_CHECKER_H

#include <ostream>
#include <string>

namespace pnvtest {

struct Outcome {
    int status;
    std::string out;

    bool operator==(const Outcome& other) const { return status == other.status && out == other.out; }
};
void PrintTo(const Outcome& outcome, std::ostream* out);

const Outcome kAcceptedSilently{0, ""};
Outcome RefusedWith(const std::string& code); // by the library: "0x88200009"

// Runs a checker of the target on the package at path; one that hangs or writes to the error output fails the test.
Outcome RunChecker(const std::string& checker, const std::string& path);

} // namespace pnvtest

#endif
