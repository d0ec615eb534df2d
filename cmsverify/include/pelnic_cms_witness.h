/*
 * Why a verification refuses, for a log on the device: only with a library that was built with CMSVERIFY_WITNESS, and
 * installed only then. The codes of the other functions stay as they are; an expired signer and an unknown root have
 * the same one, and differ here.
 */
#ifndef PELNIC_CMS_WITNESS_H
#define PELNIC_CMS_WITNESS_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A reason, which "pkgtool code" reads as 64 hexadecimal digits. Numbers are big-endian, what does not apply is 0:
 *    0      1, the version of this format
 *    1      the decision, by its number in pelnic_witness.h; numbers do not change
 *    2      which signer of the signature, from 1
 *    3      1 when it was decided about a signer of the timestamp
 *    4..7   the code of the operation; 0 when the verification came to its end, and the content is not what was signed
 *    8..11  the code of the decision
 *   12..15  the time of the timestamp, at which everything is judged: the low 32 bits of its seconds since 1970
 *   16..19  the offset of the element that does not decode, in what was decoded; or the end of an expired CRL
 *   20      why it does not decode, or why a CRL cannot be used
 *   21      the depth of the element in its tables
 *   24..31  the end of the certificate's serial number, or the first bytes of the element
 */
#define PELNIC_REASON_SIZE 32

/* The reason is the library's and good during the call alone. The library is in the middle of an operation: call none
 * of its functions. */
typedef void (*func_pelnic_witness)(void* user, const PNV_BYTE* reason);

/* Calls func from now on for each operation of this thread that refuses: adding certificates or CRLs, begin, update and
 * final. Null ends it. Needs a compiler with thread_local. */
PELNIC_API void pelnic_set_witness(func_pelnic_witness func, void* user);

#ifdef __cplusplus
}
#endif

#endif
