// The reason code of a library with its witness (pelnic_cms_witness.h), as a device logs it.
#ifndef PKGTOOL_REASON_CODE_H
#define PKGTOOL_REASON_CODE_H

#include "json.h"
#include "pelnic_cms_verify.h"

#include <optional>
#include <string>

namespace pkgtool {

struct ReasonCode {
    PELNIC_ERROR_CODE code; // the one that says most; 0 when the content is not what was signed
    Json json;              // described in docs/pkgtool.md
    std::string text;       // the same in a sentence
};

// None for anything but 64 hexadecimal digits of this format, which may stand behind other words of a log.
std::optional<ReasonCode> readReasonCode(const std::string& text);

} // namespace pkgtool

#endif
