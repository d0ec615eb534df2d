// The findings of lint: everything that a device would accept although its owner should not ship it.
#ifndef PKGTOOL_LINT_RULES_H
#define PKGTOOL_LINT_RULES_H

#include "contents.h"

#include <string>
#include <vector>

namespace pkgtool {

enum class Severity {
    Note,    // worth knowing
    Warning, // weaker than it looks
    Error,   // accepted without anybody's signature counting, or not accepted
};

struct Finding {
    const char* id; // stable, and explained in docs/pkgtool.md
    Severity severity;
    std::string at; // a place in the report of pkgtool inspect, as a JSON pointer
    std::string sentence;
};
using Findings = std::vector<Finding>;

struct Limits {
    int crlMarginDays; // how long a CRL should stay valid after the timestamp; devices do not require it
    int crlDays;       // the longest validity of a CRL
};

Findings lintContainer(const Contents& contents, std::size_t size);
// Objects that only one of the two readers decodes.
Findings lintReading(const Contents& contents);
Findings lintSignature(const Contents& contents);
Findings lintCrls(const Contents& contents, const Limits& limits);

} // namespace pkgtool

#endif
