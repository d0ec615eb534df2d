// The library's result codes in words. This table is their only source besides the public header: pkgtool code reads
// it, docs/codes.md is printed from it, and a test holds it against the header.
#ifndef PKGTOOL_CODES_H
#define PKGTOOL_CODES_H

#include "pelnic_cms_verify.h"

#include <string>
#include <vector>

namespace pkgtool {

struct Code {
    PELNIC_ERROR_CODE value;
    const char* name;
    const char* meaning; // the public header's comment
    const char* advice;  // for those that the checker prints; else empty
};

const std::vector<Code>& allCodes();
// Null when there is none.
const Code* findCode(PELNIC_ERROR_CODE value);
// By its name, with or without PELNIC_ERR_ in front.
const Code* findCode(const std::string& name);

// What the checker answers besides a code (docs/package-format.md).
struct Status {
    int value;
    const char* meaning;
    const char* advice;
};
const Status* findStatus(PELNIC_ERROR_CODE value);

struct Line {
    const char* words; // with which it begins
    int status;
    const char* meaning;
    const char* advice;
};
// The line that stands anywhere in the text.
const Line* findLine(const std::string& text);

} // namespace pkgtool

#endif
