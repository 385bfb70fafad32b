/* spectralanalysis: noise generation for synthesis, spectral-envelope
 * estimation and filtering for analysis. Log spectra are natural logarithms of
 * an amplitude spectral density (sqrt of power per Hz), the unit the synthesis
 * reads. */
#ifndef KESTREL_SPECTRALANALYSIS_H
#define KESTREL_SPECTRALANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Noise-analysis work area: an N-point unit-mean-square Hamming window and
 * M doubles of scratch, in one block (window first). */
typedef struct NAMEM {
  uint32_t N;
  double *window;
  double *scratch;
} NAMEM;

/* buf: 2*nfft doubles (real half, imaginary half). On entry real[1..nfft/2-1]
 * hold log amplitudes; on exit real[] holds one frame of random-phase noise
 * with that amplitude spectrum (uses rand()). 0. */
KESTREL_API int gennoisefromlogspectrum(double *buf, uint32_t nfft, double fs);

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
 * windowed frame centred on sample c. out: nfft doubles. 0. */
KESTREL_API int getnoiselogspectrum(const double *x, uint32_t n, double fs, uint32_t c, uint32_t nfft,
                                    double *out, NAMEM *area);

KESTREL_END_C
#endif
