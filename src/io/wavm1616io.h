/* wavm1616io: RIFF/WAVE PCM mono 16 kHz 16-bit files; in memory full scale
 * is +-1.0 (1.0 == 32768). */
#ifndef KESTREL_WAVM1616IO_H
#define KESTREL_WAVM1616IO_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Writes n samples. normalise == 1 scales x in place to a 0.99 peak first;
 * keepinput == 1 keeps x, otherwise x is converted in place (destroyed).
 * Returns n, or 0 when the file cannot be created or written. */
KESTREL_API uint32_t wavwritem1616(const char *path, double *x, uint32_t n, int8_t normalise, uint8_t keepinput);
/* Reads a mono 16 kHz 16-bit PCM file; *x is malloc'ed (caller frees).
 * Returns the sample count, or 0. */
KESTREL_API uint32_t wavreadm1616(const char *path, double **x);
/* Doubles to 16-bit samples: truncation toward zero, asymmetric saturation. 0.
 * out may alias in (in-place narrowing). */
KESTREL_API uint32_t wavdouble2short(uint32_t n, const double *in, int16_t *out);
/* 16-bit samples to doubles (divided by 32768), last to first so that out
 * may alias in (in-place widening). 0. */
KESTREL_API uint32_t wavshort2double(uint32_t n, const int16_t *in, double *out);
/* Scales x in place so that its largest magnitude becomes 0.99. 0. */
KESTREL_API uint32_t wavampnormalize(double *x, uint32_t n);

KESTREL_END_C
#endif
