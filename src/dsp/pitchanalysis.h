/* pitchanalysis: pitch-track modification (log f0 in natural log, -1e10 =
 * unvoiced; f0 in Hz, <= 0 = unvoiced) and pitch estimation. */
#ifndef KESTREL_PITCHANALYSIS_H
#define KESTREL_PITCHANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Hz to natural-log f0 in place (values <= 0 or NaN become -1e10). 0. */
KESTREL_API uint32_t f02logf0(uint32_t n, double *track);
/* Natural-log f0 to Hz in place (values <= -1e10 or NaN become 0). 0. */
KESTREL_API uint32_t logf02f0(uint32_t n, double *track);
/* Adds shift (log units) to voiced frames in place. 0. */
KESTREL_API uint32_t shiftlogpitch(uint32_t n, double *track, double shift);
/* Scales voiced log-f0 values about their mean by factor, in place. 0. */
KESTREL_API uint32_t scalelogpitchrange(uint32_t n, double *track, double factor);

/* f0 track in Hz (0 = unvoiced) of nframes frames centred on first + k*shift;
 * f0 is caller-allocated (nframes doubles); f0min <= 0 means 60 Hz, f0max <=
 * f0min means 500 Hz. x is not modified. nframes == 0 writes nothing. 0, or -1
 * (f0 all 0) when fs is not positive and finite, shift is 0, or the analysis
 * window (3 periods of f0min, made odd) is under 5 or over 2^20 samples. */
KESTREL_API int getpitch(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                         uint32_t nframes, double f0min, double f0max, double *f0);
/* f0 track as getpitch gives it (same arguments, frame grid and defaults),
 * from normalised cross-correlation candidates and a voicing score per
 * frame, chosen by dynamic programming over the whole utterance: fewer
 * voiced frames lost and fewer octave jumps. 0, or -1 (f0 all 0) when
 * fs is not positive and finite, shift is 0, f0max is infinite, or the
 * window (25 ms, at least 1.5 periods of f0min) plus the longest lag exceeds
 * 2^20 samples. */
KESTREL_API int getpitchdp(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                           uint32_t nframes, double f0min, double f0max, double *f0);
/* getpitchdp with the per-frame work shared among up to threads threads (0
 * or 1: the calling thread only); the same track, bit for bit, for every
 * count. */
KESTREL_API int getpitchdpthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                                  uint32_t nframes, double f0min, double f0max, double *f0, uint32_t threads);
/* Circular autocorrelation of nfft interleaved complex values in place
 * (real parts hold the result, scaled by nfft; imaginary parts 0). 0, or -1
 * when nfft is not a power of two up to 2^30 (buf untouched). */
KESTREL_API int autocorrelation(uint32_t nfft, double *buf);
/* New array (caller frees) of n samples: x band-pass filtered for pitch
 * analysis (fftfilter, -30 dB below 45 Hz and above 5 kHz, flat 55-3000 Hz,
 * zero delay). NULL when fs is not positive and finite or above 32.7 MHz. */
KESTREL_API double *applyfftfilter(const double *x, uint32_t n, double fs);
/* New array (caller frees) of L*n samples: x upsampled by L with a zero-delay
 * windowed-sinc low-pass (order 50*L, cut-off 0.4*fs). NULL when L == 0,
 * L*n does not fit 32 bits, or fs is not positive and finite. */
KESTREL_API double *upsampling(const double *x, uint32_t n, double fs, uint32_t L);
/* Refines a Hz track in place by quasi-harmonic analysis; fmax may be NULL. 0. */
KESTREL_API int refinepitch(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                            uint32_t nframes, double f0min, double f0max, uint32_t niter, double *f0,
                            const double *fmax);
/* Removes short voiced islands that jump in frequency, in place. 0. */
KESTREL_API int elimislands(uint32_t nframes, double *f0, double fs, uint32_t shift);

KESTREL_END_C
#endif
