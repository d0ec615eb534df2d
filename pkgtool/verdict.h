// The checker's verdict on a package, reached by the checker's own code, with the library's log records.
#ifndef PKGTOOL_VERDICT_H
#define PKGTOOL_VERDICT_H

#include "files.h"
#include "pelnic_cms_verify.h"
#include "testimony.h"

#include <optional>
#include <string>
#include <vector>

namespace pkgtool {

// The trusted certificate.
struct Root {
    Bytes content;
    const char* source; // of contents.h
};
// The one in the file, DER or PEM; without a path the checker's compiled-in one.
Root loadRoot(const std::string& path);

struct LogRecord {
    PELNIC_LOG_TYPE level;
    PELNIC_ERROR_CODE code; // 0 for none
    std::string message;    // may be empty
    std::string file;       // with its folder, as the library was compiled
    int line;
    std::string function;
};

struct Verdict {
    int status;                            // the checker's exit status
    std::string message;                   // its line, without the line end
    std::optional<PELNIC_ERROR_CODE> code; // of the library's refusal
    std::vector<LogRecord> log;
    bool isSigned; // both payload and timestamp have a signer; otherwise an acceptance says nothing about the payload
    Testimony testimony;

    bool isAccepted() const { return status == 0; }
};
Verdict judge(ByteView package, const Root& root);

// The exit status for accepted but unsigned packages, unless the user allows them.
constexpr int NOT_SIGNED = 3;

} // namespace pkgtool

#endif
