/* fvanalysis: maximum-voiced-frequency estimation (Hz per frame, 0 = unvoiced). */
#ifndef KESTREL_FVANALYSIS_H
#define KESTREL_FVANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* fv track (nframes doubles, caller-allocated) from x and a Hz f0 track. 0. */
KESTREL_API int getfvoicing(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                            uint32_t nframes, const double *f0, double *fv);
/* Sinusoidal likeness in [0, 1] of frequency f around bin b (+-h bins) of an
 * nfft-point interleaved spectrum X analysed with an N-point Hann window. */
KESTREL_API double slm(const double *X, uint32_t nfft, double fs, double f, uint32_t N, uint32_t b, uint32_t h);
/* In-place running median of width w; the first and last w/2 values are kept. 0. */
KESTREL_API int medianfilt(double *v, uint32_t n, uint32_t w);
/* In-place weighted moving average of an fv track over w frames. 0. */
KESTREL_API int wsmooth(double *fv, uint32_t n, uint32_t w);

KESTREL_END_C
#endif
