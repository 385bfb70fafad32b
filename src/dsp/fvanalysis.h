/* fvanalysis: maximum-voiced-frequency estimation (Hz per frame, 0 = unvoiced). */
#ifndef KESTREL_FVANALYSIS_H
#define KESTREL_FVANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* fv track (nframes doubles, caller-allocated) from x and a Hz f0 track;
 * frames whose f0 is not positive and finite get 0, voiced ones at least
 * 1000 Hz before the 5-point median. nframes == 0 writes nothing. 0, or -1
 * (fv all 0) when fs is not positive and finite or a voiced f0 would need an
 * analysis FFT over 2^20 points (f0 below about 0.18 Hz at 16 kHz). */
KESTREL_API int getfvoicing(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                            uint32_t nframes, const double *f0, double *fv);
/* getfvoicing with the frames shared among up to threads threads (0 or 1:
 * the calling thread only); the same fv, bit for bit, for every count. */
KESTREL_API int getfvoicingthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                                   uint32_t nframes, const double *f0, double *fv, uint32_t threads);
/* Sinusoidal likeness in [0, 1] of frequency f around bin b (+-h bins) of an
 * nfft-point interleaved spectrum X analysed with an N-point Hann window;
 * bins outside 0 .. nfft-1 are left out, and a band without energy gives 0. */
KESTREL_API double slm(const double *X, uint32_t nfft, double fs, double f, uint32_t N, uint32_t b, uint32_t h);
/* In-place running median of width 2*(w/2)+1; the first and last w/2 values
 * are kept; a track shorter than the width is left as it is. 0. */
KESTREL_API int medianfilt(double *v, uint32_t n, uint32_t w);
/* In-place weighted moving average of an fv track over w frames (frame i:
 * i - w/2 .. i - w/2 + w - 1), weights from the values themselves; frames
 * at 0 stay 0. 0. */
KESTREL_API int wsmooth(double *fv, uint32_t n, uint32_t w);

KESTREL_END_C
#endif
