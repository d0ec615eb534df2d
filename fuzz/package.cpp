// A whole package through the checker. The checker takes the default callbacks; the build puts the table of the run in
// their place by wrapping pelnic_set_callback_funcs.
#include "fuzz.h"

#include "pkgcheck.h"

#include <sys/mman.h>
#include <unistd.h>

static PELNIC_CALLBACK_FUNCS* s_table = nullptr; // of the run in progress, while it is the checker's turn

extern "C" {
PNV_UINT32 __real_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs);
PNV_UINT32 __wrap_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs);
}

PNV_UINT32 __wrap_pelnic_set_callback_funcs(PELNIC_CALLBACK_FUNCS* funcs)
{
    if (s_table == nullptr) return __real_pelnic_set_callback_funcs(funcs);
    *funcs = *s_table;
    return 0;
}

namespace pnvfuzz {

namespace {

// The path of a file with this content, the same for every input.
std::string FileWith(const Trial& trial)
{
    static const int fd = memfd_create("package", MFD_CLOEXEC);
    Require(ftruncate(fd, 0) == 0 && pwrite(fd, trial.data, trial.size, 0) == static_cast<ssize_t>(trial.size),
            "the input can be written to a file");
    return "/proc/self/fd/" + std::to_string(fd);
}

} // namespace

bool FuzzPackage(const Trial& trial)
{
    std::string path = FileWith(trial);
    char program[] = "pkgcheck";
    char* argv[] = {program, path.data(), nullptr};
    s_table = &trial.plan.Table();
    const int status = pkgcheck_run(2, argv);
    s_table = nullptr;
    return status == 0 && !trial.plan.VerifyRequests().empty(); // not for lack of a signature
}

} // namespace pnvfuzz
