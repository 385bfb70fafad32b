/* dft: in-place radix-2 decimation-in-time complex FFT of power-of-two length,
 * unscaled in both directions, in two memory layouts:
 *   interleaved (x[2k] = re, x[2k+1] = im) and split (re[], im[]).
 * direction == -1 is the inverse (kernel e^{+j2pi kn/N}); any other value is
 * the forward transform. n must be a power of two (not checked). */
#ifndef KESTREL_DFT_H
#define KESTREL_DFT_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

KESTREL_API uint32_t dofftc(int32_t n, double *x, int8_t direction);
KESTREL_API uint32_t dofftr(int32_t n, double *re, double *im, int8_t direction);
KESTREL_API uint32_t fftc(int32_t n, double *x);
KESTREL_API uint32_t ifftc(int32_t n, double *x);
KESTREL_API uint32_t fftr(int32_t n, double *re, double *im);
KESTREL_API uint32_t ifftr(int32_t n, double *re, double *im);

KESTREL_END_C
#endif
