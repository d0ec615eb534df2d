// Why the library refused a package: what its witness told of the one verification, in words. What lies behind the
// first failure is told from the contents.
#ifndef PKGTOOL_DIAGNOSIS_H
#define PKGTOOL_DIAGNOSIS_H

#include "contents.h"
#include "verdict.h"

namespace pkgtool {

// The members are described in docs/explain.md.
struct Diagnosis {
    Json signers; // each with its timestamp and its chain, as far as they can be told
    Json failure; // null for an accepted package, and when nothing is found that explains the refusal
};
Diagnosis diagnose(ByteView package, const Contents& contents, const Verdict& verdict);

} // namespace pkgtool

#endif
