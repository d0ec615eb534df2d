// The exchange with a server of RFC 3161, 3.4.
#ifndef PKGTOOL_HTTP_H
#define PKGTOOL_HTTP_H

#include "files.h"

namespace pkgtool {

// Sends a timestamp query and returns the body of the answer.
Bytes postTimestampQuery(const std::string& url, const Bytes& query);

} // namespace pkgtool

#endif
