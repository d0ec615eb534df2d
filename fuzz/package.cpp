// A whole package through the checker: ordinary or strict, as the program was linked. The checker takes the default
// callbacks; the build puts the fuzzers' table in their place by wrapping pelnic_set_callback_funcs.
#include "fuzz.h"

#include "pkgcheck.h"
#include "root_cert.h"

static bool s_isCheckersTurn = false;

extern "C" {
PNV_UINT32 __real_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs);
PNV_UINT32 __wrap_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs);
}

PNV_UINT32 __wrap_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs)
{
    if (!s_isCheckersTurn) return __real_pelnic_set_callback_funcs(funcs);
    *funcs = pnvfuzz::Table();
    return 0;
}

namespace pnvfuzz {

namespace {

int StatusOf(const Trial& trial)
{
    static FILE* const out = std::fopen("/dev/null", "w");
    PkgcheckJob job = {szCert_F, szCert_F_size, nullptr, out, 0};
    const CheckersTurn turn;
    const int status = pkgcheck_check(trial.data, trial.size, &job);
    Require(status != 0 || job.code == 0, "what did not verify is not accepted");
    return status;
}

} // namespace

CheckersTurn::CheckersTurn()
{
    s_isCheckersTurn = true;
}

CheckersTurn::~CheckersTurn()
{
    s_isCheckersTurn = false;
}

bool FuzzPackage(const Trial& trial)
{
    if (trial.size < sizeof(SProgramFileHeader_S)) return false; // never read
    return StatusOf(trial) == 0 && TheRun().checks != 0;         // not for lack of a signature
}

} // namespace pnvfuzz
