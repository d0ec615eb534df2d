#include "rules.h"

const char* pkgcheck_unsigned_refusal()
{
    return nullptr;
}

const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S*)
{
    return nullptr;
}

void pkgcheck_limit_work(PELNIC_CALLBACK_FUNCS*) {}

const char* pkgcheck_work_refusal()
{
    return nullptr;
}
