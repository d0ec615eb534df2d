// Why the library refused a package: its steps are taken again one by one, by its own functions on a context of their
// own, and the first that fails is named. The verdict comes from elsewhere and is never changed here.
#ifndef PKGTOOL_DIAGNOSIS_H
#define PKGTOOL_DIAGNOSIS_H

#include "contents.h"
#include "verdict.h"

namespace pkgtool {

// The members are described in docs/explain.md.
struct Diagnosis {
    Json signers; // each with its timestamp and its chain, as far as the check got
    Json failure; // null for an accepted package, and when nothing is found that gives the verdict's code
};
Diagnosis diagnose(const Bytes& package, const Root& root, const Contents& contents, const Verdict& verdict);

} // namespace pkgtool

#endif
