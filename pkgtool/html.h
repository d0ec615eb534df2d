// The report of pkgtool explain as a page for a ticket or an audit: one file without scripts, pictures or anything from
// elsewhere. What comes from a package is text in it and nothing else.
#ifndef PKGTOOL_HTML_H
#define PKGTOOL_HTML_H

#include "json.h"

#include <string>

namespace pkgtool {

std::string htmlPage(const Json& report);

} // namespace pkgtool

#endif
