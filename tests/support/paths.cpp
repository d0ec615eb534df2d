#include "paths.h"

#include <cstdlib>

namespace pnvtest {

namespace {

std::string EnvironmentOr(const char* variable, const char* path)
{
    const char* const value = std::getenv(variable);
    return value != nullptr ? value : path;
}

} // namespace

std::string PkgcheckPath()
{
    return EnvironmentOr("PKGCHECK", PKGCHECK_PATH);
}

std::string PkgcheckTestRootPath()
{
    return EnvironmentOr("PKGCHECK_TEST_ROOT", PKGCHECK_TEST_ROOT_PATH);
}

std::string PkgcheckStrictPath()
{
    return EnvironmentOr("PKGCHECK_STRICT", PKGCHECK_STRICT_PATH);
}

std::string PkgtoolPath()
{
    return EnvironmentOr("PKGTOOL", PKGTOOL_PATH);
}

std::string DataPath(const std::string& file)
{
    return TESTS_PATH "/data/" + file;
}

std::string SupportPath(const std::string& file)
{
    return TESTS_PATH "/support/" + file;
}

} // namespace pnvtest
