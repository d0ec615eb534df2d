#include "rules.h"

const char* pkgcheck_unsigned_refusal()
{
    return nullptr;
}

const char* pkgcheck_signature_refusal(const PELNIC_VERIFY_SIGNATURE_S*)
{
    return nullptr;
}
