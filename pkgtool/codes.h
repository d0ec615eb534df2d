// The library's result codes in words. This table is their only source besides the public header: pkgtool code prints
// it and docs/codes.md, and a test compares it with the header.
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
    const char* advice;  // for codes that the checker prints; else empty
};

const std::vector<Code>& allCodes();
// Null if there is none.
const Code* findCode(PELNIC_ERROR_CODE value);
// By name, with or without PELNIC_ERR_.
const Code* findCode(const std::string& name);

// The checker's answers besides codes (docs/package-format.md).
struct Status {
    int value;
    const char* meaning;
    const char* advice;
};
const Status* findStatus(PELNIC_ERROR_CODE value);

struct Line {
    const char* words; // its beginning
    int status;
    const char* meaning;
    const char* advice;
};
// The line contained anywhere in the text.
const Line* findLine(const std::string& text);

} // namespace pkgtool

#endif
