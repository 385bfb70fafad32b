/* spectralanalysis: noise generation for synthesis, spectral-envelope
 * estimation and filtering for analysis. Log spectra are natural logarithms of
 * an amplitude spectral density (sqrt of power per Hz), the unit the synthesis
 * reads. */
#ifndef KESTREL_SPECTRALANALYSIS_H
#define KESTREL_SPECTRALANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"
#include "randgen.h"

KESTREL_BEGIN_C

/* Noise-analysis work area: an N-point unit-mean-square Hamming window and
 * M doubles of scratch, in one block (window first); forward is the forward
 * FFT plan of M points when the area was made for an FFT length (else NULL). */
typedef struct NAMEM {
  uint32_t N;
  double *window;
  double *scratch;
  struct FFTPLAN *forward;
} NAMEM;

/* buf: 2*nfft doubles (real half, imaginary half). On entry real[1..nfft/2-1]
 * hold log amplitudes; on exit real[] holds one frame of random-phase noise
 * with that amplitude spectrum (one rand() per bin). 0; -1 (buf untouched)
 * when nfft is not a power of two up to 2^30. */
KESTREL_API int gennoisefromlogspectrum(double *buf, uint32_t nfft, double fs);
/* The same with the phases drawn from the caller's generator instead of the C
 * library's rand(): safe on many threads (one state each), and identical to
 * gennoisefromlogspectrum for a state seeded as rand() was. -1 also when
 * state is NULL. */
KESTREL_API int gennoisefromlogspectrumr(double *buf, uint32_t nfft, double fs, RANDGEN *state);

/* Noise-analysis frame size: 25 ms made odd (401 at 16 kHz). */
KESTREL_API uint32_t naframesize(double fs);
/* New work area with an N-point window and M doubles of scratch; NULL on failure. */
KESTREL_API NAMEM *nameminitialize(uint32_t N, uint32_t M);
/* nameminitialize(N, nfft). */
KESTREL_API NAMEM *nameminitializefft(uint32_t N, uint32_t nfft);
/* nameminitialize(N, N + 2*(order+1)). */
KESTREL_API NAMEM *nameminitializelpc(uint32_t N, uint32_t order);
/* Releases the work area (NULL allowed). 0. */
KESTREL_API int namemdestroy(NAMEM *area);
/* Periodogram log spectrum (nfft points, symmetric) of the mean-removed,
 * windowed frame centred on sample c. out: nfft doubles. 0; -1 (out
 * untouched) when nfft is not a power of two in 4 .. 2^30 or below area->N,
 * or a pointer is NULL. */
KESTREL_API int getnoiselogspectrum(const double *x, uint32_t n, double fs, uint32_t c, uint32_t nfft,
                                    double *out, NAMEM *area);

/* --- FIR filtering (firfilter.cpp) ---------------------------------------- */
/* Zero-phase FIR filtering of x (n samples at fs Hz) into y (n samples, must
 * not overlap x) by FFT overlap-add with nfft-point transforms (power of two,
 * 4 .. 2^22). The filter has nfft/2+1 taps: a Hann-windowed frequency-sampling
 * design of the magnitude template, interpolated linearly in dB between the
 * ntemplate breakpoints (tfreq Hz, ascending; tdb dB) and held constant beyond
 * the first and last. Its delay of nfft/4 samples is removed; the signal is
 * taken as 0 outside 0..n-1. 0, or -1 for invalid arguments (y untouched). */
KESTREL_API int fftfilter(const double *x, uint32_t n, double *y, double fs, uint32_t nfft,
                          const double *tfreq, const double *tdb, uint32_t ntemplate);
/* Windowed-sinc (Hamming) low-pass of order+1 taps into h, cut-off fc Hz at
 * fs Hz, centred on tap order/2 and scaled to unit gain at 0 Hz.
 * 0, or -1 when fs or fc is not positive and finite (h untouched). */
KESTREL_API int getlpwinfilter(double *h, uint32_t order, double fc, double fs);
/* In-place FIR filtering of x (n samples) by h (ncoef taps) without delay:
 * x[i] becomes sum_k h[k] * x[i + (ncoef-1)/2 - k], samples outside the
 * signal taken as 0. 0, or -1 when ncoef == 0 (x untouched). */
KESTREL_API int winfilternodelay(double *x, uint32_t n, const double *h, uint32_t ncoef);

/* --- further envelopes (noiseanalysis.cpp), same unit and arguments as
 * getnoiselogspectrum plus f0 (Hz); f0 <= 0 or not finite gives the noise
 * spectrum. The area's scratch is used. 0, or -1 as getnoiselogspectrum. --- */
/* Periodogram averaged in power over a box f0 wide around each bin: a
 * harmonic of amplitude a reads log(a / (2 sqrt(f0))). */
KESTREL_API int getsignallogspectrum(const double *x, uint32_t n, double fs, uint32_t c, double f0, uint32_t nfft,
                                     double *out, NAMEM *area);
/* Peak-picking envelope: one interpolated periodogram peak per band of width
 * f0 (searched from f0/2 on, each band starting f0/2 above the last peak),
 * log(a / (2 sqrt(f0))) at the peaks, linear in between, flat outside. */
KESTREL_API int getseevoclogspectrum(const double *x, uint32_t n, double fs, uint32_t c, double f0, uint32_t nfft,
                                     double *out, NAMEM *area);

KESTREL_END_C
#endif
