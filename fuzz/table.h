// The callback table that all targets run on. It watches the library as the tests' own table does (support/callbacks.h)
// at a fraction of the cost: memory comes from an arena, handles are blocks of it, and what a signature check answered
// is remembered by key, data and signature. Two cryptographies stand behind it: libcrypto, and one under which every
// signature is good and every digest the same, so that damaged inputs get behind the checks.
#ifndef PNVFUZZ_TABLE_H
#define PNVFUZZ_TABLE_H

#include "arena.h"

#include "cmsverify/include/pelnic_cms_verify.h"

#include <map>
#include <string>

namespace pnvfuzz {

enum class Crypto { Real, Lenient };

// What the lenient cryptography answers to any message, whatever the algorithm's size.
constexpr std::uint8_t kLenientDigestOctet = 0x00;

// The callbacks that can be made to answer something else. Their order is that of the octets in the corpus.
enum class Liar : std::uint8_t {
    Malloc, // null, with any code, 0 too
    Memset, // a code that is not 0, and nothing done; so do the copies
    Memmove,
    Memcpy,
    Memcmp, // any number; so do the comparisons of strings
    Strncmp,
    Strstr, // null
    Strchr, // null
    Strlen, // a shorter one
    Strcmp,
    Strcpy,
    Strcat,
    Vsnprintf, // any number, and no text
    Fopen,     // null
    Fread,     // fewer octets
    Fclose,    // any code
    FileSize,  // any size
    MdCreate,  // any code, and null
    MdInit,    // any code
    MdUpdate,
    MdFinal,  // any code
    MdLength, // of the digest: any
    VerifyCreate,
    VerifyInit,
    VerifyUpdate,
    VerifyFinal,
    Verdict, // any number
    End
};

// A call that answers something else than the truth.
struct Lie {
    Liar liar;
    std::size_t turn; // so many of its calls are true before
    bool isLasting;   // all calls after it lie, too
    std::uint32_t answer;
};

// What one run of the library has and does; the table works on the one there is.
struct Run {
    Arena arena{};
    Crypto crypto = Crypto::Real;
    std::vector<Lie> lies{};
    std::map<std::string, std::vector<std::uint8_t>> files{}; // what fopen finds, by path

    PNV_UINT64 claimed = 0; // octets that files do not hold: the library makes room for them before it reads

    std::vector<std::string> problems{}; // what the library did wrong
    std::size_t checks = 0;              // signature checks that came to an answer
};
Run& TheRun();

// The table, for a context. Its callbacks belong to TheRun().
const PELNIC_CALLBACK_FUNCS& Table();

} // namespace pnvfuzz

#endif
