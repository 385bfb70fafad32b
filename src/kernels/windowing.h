/* windowing: analysis windows, windowed segments, overlap-add and the frame /
 * length rules. All counts and positions are unsigned 32-bit; index arithmetic
 * wraps. Nothing here allocates. */
#ifndef KESTREL_WINDOWING_H
#define KESTREL_WINDOWING_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Symmetric Hamming window of N points into w; normalise != 0 gives unit mean square. 0. */
KESTREL_API uint32_t winhamming(double *w, uint32_t N, uint8_t normalise);
/* Symmetric Hann window of N points into w; normalise != 0 gives unit mean square. 0. */
KESTREL_API uint32_t winhanning(double *w, uint32_t N, uint8_t normalise);
/* q[n] = w[n] * sin(-2 pi n/(N-1)): the odd quadrature companion of w. 0. */
KESTREL_API uint32_t wincomplementary(const double *w, double *q, uint32_t N);
/* Copies x[centre-half .. centre+half] (times win if given) into out (2*half+1
 * values), zero outside the signal. 1 if any copied value is non-zero, else 0. */
KESTREL_API uint32_t getwindowedsamples(const double *x, uint32_t len, uint32_t centre,
                                        double *out, uint32_t half, const double *win);
/* Adds frame into out[start .. end-1] with triangular weights peaking at centre. 0. */
KESTREL_API uint32_t olatriang(double *out, const double *frame, uint32_t start, uint32_t centre, uint32_t end);
/* Raised-cosine overlap-add; out[centre] is assigned, not added. 0. */
KESTREL_API uint32_t olahann(double *out, const double *frame, uint32_t start, uint32_t centre, uint32_t end);
/* Frame centres first, first+shift, ... not beyond nsamples-1. */
KESTREL_API uint32_t getnumanalysisframes(uint32_t nsamples, uint32_t shift, uint32_t first);
/* shift*(nframes+1)+1 output samples. */
KESTREL_API uint32_t getolasynthesislength(uint32_t shift, uint32_t nframes);
/* ceil(nperiods*fs/f0) made odd. */
KESTREL_API uint32_t getwinlengthnperiodsodd(double nperiods, double f0, double fs);
/* Smallest power of two >= n (1 for 0 and 1). */
KESTREL_API uint32_t getwinlengthceilpot2(uint32_t n);
/* ceil(duration*fs) made odd. */
KESTREL_API uint32_t getwinlengthdurodd(double duration, double fs);

KESTREL_END_C
#endif
