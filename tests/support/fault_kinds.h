// The callbacks that a sweep makes fail, one after the other.
#ifndef PNVTEST_FAULT_KINDS_H
#define PNVTEST_FAULT_KINDS_H

#include "callbacks.h"

namespace pnvtest {

struct NamedCall {
    const char* name;
    Call call;
};

// Those that report that they fail.
constexpr NamedCall kFailingCalls[] = {
    {"Malloc", Call::Malloc},
    {"Memset", Call::Memset},
    {"Memmove", Call::Memmove},
    {"Memcpy", Call::Memcpy},
    {"Strcpy", Call::Strcpy},
    {"Strcat", Call::Strcat},
    {"Vsnprintf", Call::Vsnprintf},
    {"Fopen", Call::Fopen},
    {"Fread", Call::Fread},
    {"Fclose", Call::Fclose},
    {"FileSize", Call::FileSize},
    {"MdCreate", Call::MdCreate},
    {"MdInit", Call::MdInit},
    {"MdUpdate", Call::MdUpdate},
    {"MdFinal", Call::MdFinal},
    {"VerifyCreate", Call::VerifyCreate},
    {"VerifyInit", Call::VerifyInit},
    {"VerifyUpdate", Call::VerifyUpdate},
    {"VerifyFinal", Call::VerifyFinal},
};

// The one wrong answer that a failure inside the crypto library can look like: a good signature is called bad.
constexpr NamedCall kWrongVerdict[] = {{"VerifyVerdict", Call::VerifyVerdict}};

} // namespace pnvtest

#endif
