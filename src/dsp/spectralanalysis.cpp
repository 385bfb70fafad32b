// Random-phase noise from a log-amplitude spectrum (one synthesis frame).
// The phases come from a generator with rand()'s sequence, one draw per bin in
// ascending order; the caller seeds it, which makes the noise reproducible.
#include "spectralanalysis.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "dft.h"

namespace {

// 2*pi/2147483647: maps rand() onto a phase in [0, 2*pi].
constexpr double kPhaseStep = 2.925836159896768e-09;

// Draw is a callable giving the next value in 0 .. 2147483647.
template <class Draw>
int gennoise(double *buf, uint32_t nfft, double fs, Draw draw) {
  // The inverse FFT needs a power of two that fits its signed 32-bit length.
  if (nfft == 0 || (nfft & (nfft - 1)) != 0 || nfft > (1u << 30)) return -1;
  double *re = buf;
  double *im = buf + nfft;
  const uint32_t half = nfft / 2;
  const double gain = std::sqrt(fs / static_cast<double>(nfft));
  re[0] = im[0] = 0.0;
  re[half] = im[half] = 0.0;
  for (uint32_t k = 1; k < half; ++k) {
    const double m = std::exp(re[k]) * gain;
    const double psi = static_cast<double>(draw()) * kPhaseStep;
    im[k] = std::sin(psi) * m;
    re[k] = std::cos(psi) * m;
    re[nfft - k] = re[k];
    im[nfft - k] = -im[k];
  }
  ifftr(static_cast<int32_t>(nfft), re, im);
  return 0;
}

}  // namespace

extern "C" {

int gennoisefromlogspectrum(double *buf, uint32_t nfft, double fs) {
  return gennoise(buf, nfft, fs, [] { return std::rand(); });
}

int gennoisefromlogspectrumr(double *buf, uint32_t nfft, double fs, RANDGEN *state) {
  if (!state) return -1;
  return gennoise(buf, nfft, fs, [state] { return randgendraw(state); });
}

}  // extern "C"
