/* kestrelsyn: the decoder command's helpers (help text, usage error and the
 * inverse of the HTS cepstral scaling). */
#ifndef KESTREL_KESTRELSYN_H
#define KESTREL_KESTRELSYN_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Prints the help text to standard output; progpath's directory is dropped. 0. */
KESTREL_API int plothelp(const char *progpath);
/* Prints the usage error to standard output. 0. */
KESTREL_API int argcerror(const char *progpath);
/* Undoes the HTS scaling in place: c0 -= 5, c1..c_order *= 0.5 per frame. 0. */
KESTREL_API int invhtsadapteradhoc(double *cc, uint32_t order, uint32_t nframes);

KESTREL_END_C
#endif
