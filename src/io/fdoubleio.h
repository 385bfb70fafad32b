/* fdoubleio: headerless 32-bit float feature files (host byte order). */
#ifndef KESTREL_FDOUBLEIO_H
#define KESTREL_FDOUBLEIO_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Reads a float file widened to doubles; *array is malloc'ed (caller frees).
 * Returns the value count, 0 on failure (pointer untouched). */
KESTREL_API uint32_t fdoubleread(const char *path, double **array);
/* Writes n doubles as floats. keepinput == 1 keeps array intact, otherwise
 * array is narrowed in place (its doubles are destroyed). n, or 0 on failure. */
KESTREL_API uint32_t fdoublewrite(const char *path, double *array, uint32_t n, uint8_t keepinput);
/* Reads a float file as floats; *array is malloc'ed (caller frees). Count or 0. */
KESTREL_API uint32_t ffloatread(const char *path, float **array);
/* Writes n floats. n, or 0 on failure. */
KESTREL_API uint32_t ffloatwrite(const char *path, const float *array, uint32_t n);

KESTREL_END_C
#endif
