/* harmonicanalysis: harmonic counting and generation for synthesis, envelope
 * resampling, and harmonic-model analysis. Harmonic k (k >= 1) is stored at
 * index k-1. */
#ifndef KESTREL_HARMONICANALYSIS_H
#define KESTREL_HARMONICANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Number of harmonics k*f0 strictly below min(fmax, fs/2); 0 for a NaN or
 * non-positive f0, UINT32_MAX when the count does not fit. */
KESTREL_API uint32_t hanoharms(double fs, double fmax, double f0);
/* Modulates the noise in buf (when modulate == 1) pitch-synchronously and adds
 * nh harmonic cosines over before+after samples around the frame centre. 0. */
KESTREL_API int genharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                             const double *amplitudes, const double *phases, double phi, uint8_t modulate);
/* Piecewise-linear resampling of a log-amplitude envelope from a grid of
 * spacing df (n points, first at df) onto m points of spacing dfout (first at
 * dfout); flat at env[0] below df and at env[n-1] beyond n*df.
 * 0, or -1 when n or m is 0. */
KESTREL_API int resamplelogampenv(double df, const double *env, uint32_t n, double dfout, double *out, uint32_t m);

/* --- harmonic-model analysis (harmonicmodel.cpp) -------------------------- */
/* Harmonics are fitted on a Hamming-weighted window centred on the frame,
 * 2.5 pitch periods long for the harmonic model and 4 for the quasi-harmonic
 * one (samples outside the signal read as 0).
 * Amplitudes are linear cosine amplitudes, phases (radians) are at the frame
 * centre: the frame reads sum_k a_k cos(k w0 t + phi_k). Frames with f0 below
 * 20 Hz, or below the area's fmin, are not analysed (-1). */
#define HAMEM_KIND 0x48414d31u  /* first member of HAMEM */
#define QHAMEM_KIND 0x51484d31u /* first member of QHAMEM */
/* Work area of the harmonic model, sized for harmonics of f0 >= fmin below
 * min(fmax, fs/2). matrix is the first buffer (normal matrices); callers may
 * borrow its matrixsize doubles as scratch between analyses. */
typedef struct HAMEM {
  uint32_t kind;       /* HAMEM_KIND */
  uint32_t matrixsize; /* doubles in matrix */
  double *matrix;
  double *vector;      /* window weights, trigonometric sums, right-hand sides */
  double fs, fmax, fmin;
  uint32_t maxharms;   /* most harmonics one analysis may ask for */
  uint32_t maxlen;     /* longest analysis window, samples */
} HAMEM;
/* Work area of the quasi-harmonic model (same layout, its own sizes). */
typedef struct QHAMEM {
  uint32_t kind;       /* QHAMEM_KIND */
  uint32_t matrixsize;
  double *matrix;
  double *vector;
  double fs, fmax, fmin;
  uint32_t maxharms;
  uint32_t maxlen;
} QHAMEM;

/* New harmonic-model work area (fmin raised to 20 Hz); NULL when it cannot be
 * allocated or would exceed 256 MiB. Release with hamemdestroy. */
KESTREL_API HAMEM *hameminitialize(double fs, double fmax, double fmin);
/* Releases the area (NULL allowed). 0. */
KESTREL_API int hamemdestroy(HAMEM *area);
/* Amplitudes (and phases, if phases is not NULL) of harmonics 1..H of f0 by
 * weighted least squares at exact multiples of f0, into amps[0..H-1].
 * 0, or -1 (silent window, f0 or H outside the area, non-finite result). */
KESTREL_API int getharmonics(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t H,
                             double *amps, double *phases, HAMEM *area);
/* nfft-point natural-log amplitude-density spectrum (symmetric) into buf[0..nfft-1]
 * from the harmonics of f0 below min(area fmax, fs/2): log(a_k / (2 sqrt(f0)))
 * at the harmonics, a monotone cubic in power between them, flat outside
 * (floored at the noise spectrum's silence floor). buf: 2*nfft doubles
 * (the second half is scratch). Accepts a QHAMEM too (quasi-harmonic amplitudes).
 * 0, or -1 when the analysis fails (buf[0..nfft-1] then undefined). */
KESTREL_API int getlogspectrumfromharms(const double *x, uint32_t n, double fs, uint32_t centre, double f0,
                                        uint32_t nfft, double *buf, HAMEM *area);

/* New quasi-harmonic work area (fmin raised to 20 Hz); NULL as for HAMEM. */
KESTREL_API QHAMEM *qhameminitialize(double fs, double fmax, double fmin);
/* Releases the area (NULL allowed). 0. */
KESTREL_API int qhamemdestroy(QHAMEM *area);
/* Quasi-harmonic analysis of H harmonics starting at k*f0: each harmonic's
 * frequency is corrected by the model's frequency mismatch (kept within a
 * tenth of a harmonic spacing of the refined harmonic series), refitting
 * three times. amps (and phases if not NULL) as for getharmonics; freqs (if not NULL)
 * receives the corrected frequencies in Hz. 0 or -1. */
KESTREL_API int getsqharmonics(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t H,
                               double *amps, double *phases, double *freqs, QHAMEM *area);
/* Refined f0 (Hz) of the frame from one quasi-harmonic fit of the harmonics
 * of f0 below fmax: the power-weighted mean of the corrected harmonic
 * frequencies divided by their numbers. 0.0 when the fit fails. */
KESTREL_API double qharefinepitch(const double *x, uint32_t n, double fs, uint32_t centre, double f0, double fmax,
                                  QHAMEM *area);

KESTREL_END_C
#endif
