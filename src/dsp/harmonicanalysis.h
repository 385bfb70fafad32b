/* harmonicanalysis: harmonic counting and generation for synthesis, envelope
 * resampling, and harmonic-model analysis. Harmonic k (k >= 1) is stored at
 * index k-1. */
#ifndef KESTREL_HARMONICANALYSIS_H
#define KESTREL_HARMONICANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Number of harmonics k*f0 strictly below min(fmax, fs/2). */
KESTREL_API uint32_t hanoharms(double fs, double fmax, double f0);
/* Modulates the noise in buf (when modulate == 1) pitch-synchronously and adds
 * nh harmonic cosines over before+after samples around the frame centre. 0. */
KESTREL_API int genharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                             const double *amplitudes, const double *phases, double phi, uint8_t modulate);
/* Piecewise-linear resampling of a log-amplitude envelope from a grid of
 * spacing df (n points, first at df) onto m points of spacing dfout.
 * 0, or -1 when n or m is 0. */
KESTREL_API int resamplelogampenv(double df, const double *env, uint32_t n, double dfout, double *out, uint32_t m);

KESTREL_END_C
#endif
