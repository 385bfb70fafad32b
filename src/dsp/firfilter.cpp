// FIR filter design and filtering for the analysis front end.
//
// fftfilter: the magnitude template is sampled on the nfft-point frequency
// grid as a real, zero-phase response; its inverse FFT is cut to the
// nfft/2+1 taps around lag 0 and tapered by a Hann window (K+2 points, end
// zeros dropped), which trades a transition width of about 2 fs/K either side
// of a breakpoint for stop-band ripple some 44 dB below the pass band. The
// taps are symmetric (linear phase, delay nfft/4); overlap-add blocks of
// nfft/2 samples then fill each nfft-point circular convolution exactly. A
// real filter lets two consecutive blocks share one complex FFT (one in the
// real part, one in the imaginary part). The delay is removed when the blocks
// are added into the output, so output sample i is aligned with input i.
//
// getlpwinfilter / winfilternodelay: the classic Hamming-windowed sinc
// (about -53 dB stop band, transition about 3.3 fs/(order+1)), normalised to
// unit DC gain, and a direct-form convolution centred on the middle tap.
#include "spectralanalysis.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "dft.h"
#include "windowing.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr uint32_t kMaxFftFilterLength = 1u << 22;

bool ispowerof2(uint32_t v) { return v != 0 && (v & (v - 1)) == 0; }

// Template gain in dB at f: linear between breakpoints, held beyond the ends.
double templatedb(double f, const double *tfreq, const double *tdb, uint32_t nt) {
  if (f <= tfreq[0]) return tdb[0];
  for (uint32_t i = 1; i < nt; ++i) {
    if (f <= tfreq[i]) {
      const double span = tfreq[i] - tfreq[i - 1];
      if (span <= 0) return tdb[i];  // coincident breakpoints: a step
      return tdb[i - 1] + (tdb[i] - tdb[i - 1]) * (f - tfreq[i - 1]) / span;
    }
  }
  return tdb[nt - 1];
}

bool validtemplate(const double *tfreq, const double *tdb, uint32_t nt) {
  if (nt == 0 || !tfreq || !tdb) return false;
  for (uint32_t i = 0; i < nt; ++i) {
    if (!std::isfinite(tfreq[i]) || !std::isfinite(tdb[i])) return false;
    if (i > 0 && tfreq[i] < tfreq[i - 1]) return false;
  }
  return true;
}

// The K = nfft/2+1 causal taps of the windowed frequency-sampling design.
std::vector<double> designtemplatefir(double fs, uint32_t nfft, const double *tfreq, const double *tdb,
                                      uint32_t nt) {
  std::vector<double> grid(2 * static_cast<size_t>(nfft), 0.0);
  for (uint32_t k = 0; k < nfft; ++k) {
    const uint32_t kk = (k <= nfft / 2) ? k : nfft - k;  // real response: mirror the upper half
    const double f = static_cast<double>(kk) * fs / static_cast<double>(nfft);
    grid[2 * static_cast<size_t>(k)] = std::pow(10.0, templatedb(f, tfreq, tdb, nt) / 20);
  }
  ifftc(static_cast<int32_t>(nfft), grid.data());

  const uint32_t K = nfft / 2 + 1;
  const uint32_t D = nfft / 4;
  std::vector<double> win(K + 2);
  winhanning(win.data(), K + 2, 0);
  std::vector<double> taps(K);
  for (uint32_t j = 0; j < K; ++j) {
    const uint32_t lag = (j + nfft - D) % nfft;  // tap j holds lag j - D
    taps[j] = grid[2 * static_cast<size_t>(lag)] / static_cast<double>(nfft) * win[j + 1];
  }
  return taps;
}

}  // namespace

extern "C" {

int fftfilter(const double *x, uint32_t n, double *y, double fs, uint32_t nfft, const double *tfreq,
              const double *tdb, uint32_t ntemplate) {
  if (!ispowerof2(nfft) || nfft < 4 || nfft > kMaxFftFilterLength) return -1;
  if (!(fs > 0) || !std::isfinite(fs) || !validtemplate(tfreq, tdb, ntemplate)) return -1;
  if (n == 0) return 0;

  const std::vector<double> taps = designtemplatefir(fs, nfft, tfreq, tdb, ntemplate);
  const uint32_t K = nfft / 2 + 1;
  const uint32_t B = nfft - K + 1;  // block length: B + K - 1 == nfft, no circular wrap
  const int64_t D = nfft / 4;
  const size_t nf = nfft;

  // Filter spectrum, with the 1/nfft of the inverse transform folded in.
  std::vector<double> H(2 * nf, 0.0);
  for (uint32_t j = 0; j < K; ++j) H[2 * static_cast<size_t>(j)] = taps[j];
  fftc(static_cast<int32_t>(nfft), H.data());
  for (double &v : H) v /= static_cast<double>(nfft);

  // One pair of plans for every block: the transforms' bits are those of fftc/ifftc.
  using Plan = std::unique_ptr<FFTPLAN, void (*)(FFTPLAN *)>;
  const Plan forward(fftplancreate(static_cast<int32_t>(nfft), 1), fftplanfree);
  const Plan inverse(fftplancreate(static_cast<int32_t>(nfft), -1), fftplanfree);
  if (!forward || !inverse) return -1;

  std::memset(y, 0, sizeof(double) * n);
  std::vector<double> buf(2 * nf);
  for (int64_t s = 0; s < n; s += 2 * static_cast<int64_t>(B)) {
    std::fill(buf.begin(), buf.end(), 0.0);
    for (int64_t t = 0; t < B && s + t < n; ++t) buf[2 * t] = x[s + t];
    for (int64_t t = 0; t < B && s + B + t < n; ++t) buf[2 * t + 1] = x[s + B + t];
    fftplanc(forward.get(), buf.data());
    for (size_t k = 0; k < nf; ++k) {
      const double re = buf[2 * k], im = buf[2 * k + 1];
      const double hr = H[2 * k], hi = H[2 * k + 1];
      buf[2 * k] = re * hr - im * hi;
      buf[2 * k + 1] = re * hi + im * hr;
    }
    fftplanc(inverse.get(), buf.data());
    // Convolution sample t of the block at s is output sample s + t - D.
    for (int64_t t = 0; t < static_cast<int64_t>(nfft); ++t) {
      const int64_t i0 = s + t - D;
      if (i0 >= 0 && i0 < n) y[i0] += buf[2 * t];
      const int64_t i1 = i0 + B;
      if (i1 >= 0 && i1 < n) y[i1] += buf[2 * t + 1];
    }
  }
  return 0;
}

int getlpwinfilter(double *h, uint32_t order, double fc, double fs) {
  if (!(fs > 0) || !std::isfinite(fs) || !(fc > 0) || !std::isfinite(fc)) return -1;
  const uint64_t K = static_cast<uint64_t>(order) + 1;
  if (K == 1) {
    h[0] = 1.0;
    return 0;
  }
  winhamming(h, static_cast<uint32_t>(K), 0);
  const double wc = 2 * fc / fs;  // cut-off as a fraction of the Nyquist rate
  const double centre = static_cast<double>(order) / 2;
  double sum = 0;
  for (uint64_t k = 0; k < K; ++k) {
    const double u = static_cast<double>(k) - centre;
    const double sinc = (u == 0) ? 1.0 : std::sin(kPi * wc * u) / (kPi * wc * u);
    h[k] *= wc * sinc;
    sum += h[k];
  }
  if (sum != 0 && std::isfinite(sum))
    for (uint64_t k = 0; k < K; ++k) h[k] /= sum;
  return 0;
}

int winfilternodelay(double *x, uint32_t n, const double *h, uint32_t ncoef) {
  if (ncoef == 0) return -1;
  if (n == 0) return 0;
  // Padded copy: p[m + ncoef - 1 - c] = x[m], zero outside, with c = (ncoef-1)/2,
  // so that x[i] = sum_k h[k] * p[i + ncoef - 1 - k].
  const size_t pre = (ncoef - 1) - (ncoef - 1) / 2;
  std::vector<double> p(static_cast<size_t>(n) + ncoef - 1, 0.0);
  std::memcpy(p.data() + pre, x, sizeof(double) * n);
  for (size_t i = 0; i < n; ++i) {
    const double *q = p.data() + i + ncoef - 1;
    double acc = 0;
    for (size_t k = 0; k < ncoef; ++k) acc += h[k] * *(q - k);
    x[i] = acc;
  }
  return 0;
}

}  // extern "C"
