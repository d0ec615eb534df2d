// Where the build put what the tests run and read. An environment variable of the program's name takes its place.
#ifndef PNVTEST_PATHS_H
#define PNVTEST_PATHS_H

#include <string>

namespace pnvtest {

std::string PkgcheckPath();                       // PKGCHECK: the checker with the placeholder root
std::string PkgcheckTestRootPath();               // PKGCHECK_TEST_ROOT: the checker that accepts what the tests sign
std::string PkgcheckStrictPath();                 // PKGCHECK_STRICT: the strict one with that root
std::string PkgtoolPath();                        // PKGTOOL
std::string DataPath(const std::string& file);    // in tests/data
std::string SupportPath(const std::string& file); // in tests/support

} // namespace pnvtest

#endif
