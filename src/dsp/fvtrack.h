// Internal to the library (C++ linkage, not exported): the per-frame steps of
// the maximum-voiced-frequency estimator in fvanalysis.cpp, declared here so
// that the unit tests can drive them with hand-made spectra.
#ifndef KESTREL_FVTRACK_H
#define KESTREL_FVTRACK_H

#include <cstdint>

namespace kestrel {
namespace fvtrack {

// Natural-log ratio of 15 dB of power: the largest step allowed between
// neighbouring harmonic amplitudes.
constexpr double kMaxHarmonicStep = 3.4538776394910693;

// Walks the harmonics m = 1, 2, ... of f0 while (m+0.5)*f0 < fs/2 over the log
// power spectrum P (nfft/2+1 values) of the nfft-point spectrum X (interleaved),
// analysed with an N-point window; hw is the slm half-width in bins. Harmonic m
// goes to freq[m-1] (Hz, 0 = dropped) and lik[m-1] (its slm). Returns the
// number of harmonics walked.
uint32_t walkharmonics(const double *P, const double *X, uint32_t nfft, double fs, double f0, uint32_t N,
                       uint32_t hw, double *freq, double *lik);

// From count walked harmonics: compacts the kept ones (freq > 0) to the front
// of freq/lik, raising each likeness to the power 8.31295041412083, fills
// L[0 .. kept-1] with the cut likelihoods and returns the chosen maximum
// voiced frequency (at least 1000 Hz).
double choosecut(double *freq, double *lik, uint32_t count, double *L);

}  // namespace fvtrack
}  // namespace kestrel

#endif
