// Why the library refused a package: the witness's report on the one verification, in words. Everything after the first
// failure is described from the contents.
#ifndef PKGTOOL_DIAGNOSIS_H
#define PKGTOOL_DIAGNOSIS_H

#include "contents.h"
#include "verdict.h"

namespace pkgtool {

// docs/explain.md describes the members.
struct Diagnosis {
    Json signers; // each with its timestamp and its chain, as far as known
    Json failure; // null for an accepted package, and if no reason of the refusal is found
};
Diagnosis diagnose(ByteView package, const Contents& contents, const Verdict& verdict);

} // namespace pkgtool

#endif
