/* dft: in-place radix-2 decimation-in-time complex FFT of power-of-two length,
 * unscaled in both directions, in two memory layouts:
 *   interleaved (x[2k] = re, x[2k+1] = im) and split (re[], im[]).
 * direction == -1 is the inverse (kernel e^{+j2pi kn/N}); any other value is
 * the forward transform. n <= 1 leaves the data as it is; any other n that is
 * not a power of two is refused with 1 and the data untouched. */
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

/* A plan: the bit-reversal swaps and every stage's twiddles of one (n,
 * direction), giving the same bits as dofftc/dofftr with that n and direction
 * without recomputing them. Read-only once made, so threads may share one. */
typedef struct FFTPLAN FFTPLAN;
/* Caller owns the plan (fftplanfree); NULL when n is not a power of two >= 1
 * or memory runs out. */
KESTREL_API FFTPLAN *fftplancreate(int32_t n, int8_t direction);
KESTREL_API void fftplanfree(FFTPLAN *plan);
/* The plan's n (0 for NULL). */
KESTREL_API int32_t fftplanlength(const FFTPLAN *plan);
/* In-place transform of plan's n points, interleaved (fftplanc) or split
 * (fftplanr), as dofftc/dofftr; 1 when plan is NULL. */
KESTREL_API uint32_t fftplanc(const FFTPLAN *plan, double *x);
KESTREL_API uint32_t fftplanr(const FFTPLAN *plan, double *re, double *im);

KESTREL_END_C
#endif
