/* The test that a callback table has to pass before the library's verdicts on it can be trusted. */
#ifndef EXAMPLE_CALLBACK_CONFORMANCE_H
#define EXAMPLE_CALLBACK_CONFORMANCE_H

#include "pelnic_cms_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Is told what the table does wrong, one sentence for each failure. */
typedef void (*callback_conformance_report)(const char* failure);

/*
 * Tests a table without a context. Whatever it allocates it releases.
 *
 * file: path of a file that holds just the ten octets "0123456789"; null for a table without files, which must then
 *     open nothing.
 * Returns the number of failures; 0 when the table conforms.
 */
unsigned callback_conformance(const PELNIC_CALLBACK_FUNCS* funcs, const char* file, callback_conformance_report report);

#ifdef __cplusplus
}
#endif

#endif
