// What a program shows, held against a record of it in tests/data/screens. With CMSVERIFY_RECORD=1 in the environment
// it is recorded anew, and the test counts as skipped: whoever changes words reads the difference.
#ifndef PNVTEST_SCREEN_H
#define PNVTEST_SCREEN_H

#include <string>

namespace pnvtest {

// A mistake names the first line that differs.
void ExpectScreen(const std::string& name, const std::string& shown);

} // namespace pnvtest

#endif
