// Maximum-voiced-frequency estimation. Each voiced frame is analysed with a
// zero-phase, three-period Hann window; every harmonic of f0 gets a sinusoidal
// likeness (how well the spectrum around it matches the window's own
// transform), and the cut harmonic is the one that best explains the harmonics
// below it as sinusoids and those above it as noise. A 5-point median filter
// then removes isolated jumps.
//
// Limits of this implementation: a sampling rate that is not positive and
// finite, or a voiced f0 so low that its analysis FFT would exceed 2^20 points
// (below about 0.18 Hz at 16 kHz), is refused: fv all 0, result -1. f0 values
// that are not positive and finite are unvoiced.
#include "fvanalysis.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "dft.h"
#include "fvtrack.h"
#include "matvect.h"
#include "parallel.h"
#include "polynom.h"
#include "windowing.h"

namespace kestrel {
namespace fvtrack {

uint32_t walkharmonics(const double *P, const double *X, uint32_t nfft, double fs, double f0, uint32_t N,
                       uint32_t hw, double *freq, double *lik) {
  const double df = fs / static_cast<double>(nfft);
  if (!(1.5 * f0 < fs / 2)) return 0;  // not even one harmonic band below fs/2
  double prev = -DBL_MAX;
  uint32_t start = static_cast<uint32_t>(std::ceil(0.5 * f0 / df));
  uint32_t m = 1;
  for (; (m + 0.5) * f0 < fs / 2; ++m) {
    const uint32_t end = static_cast<uint32_t>(std::ceil((m + 0.5) * f0 / df));
    uint32_t b = 0;
    bool found = false;
    for (uint32_t j = start; j < end; ++j) {
      if (P[j - 1] < P[j] && P[j] > P[j + 1] && (!found || P[j] > P[b])) {
        b = j;
        found = true;
      }
    }
    double A, F;
    if (!found) {
      b = static_cast<uint32_t>(std::floor(m * f0 / df + 0.5));
      A = P[b];
      F = b * df;
    } else {
      double coef[3];
      parabfitpoints(P + b - 1, coef);
      A = parabexty(coef);
      F = (b + parabextx(coef)) * df;
    }
    if (A >= prev - kMaxHarmonicStep) {
      freq[m - 1] = F;
      lik[m - 1] = slm(X, nfft, fs, F, N, b, hw);
      if (m > 1 && A - kMaxHarmonicStep > prev) freq[m - 2] = 0;
    } else {
      freq[m - 1] = 0;
    }
    prev = A;
    start = end;
  }
  return m - 1;
}

double choosecut(double *freq, double *lik, uint32_t count, double *L) {
  uint32_t M = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (freq[i] > 0) {
      freq[M] = freq[i];
      lik[M] = std::pow(lik[i], 8.31295041412083);
      ++M;
    }
  }
  // L_i = (q_0 ... q_{i-1}) * ((1 - q_i) ... (1 - q_{M-1})).
  double run = 1;
  for (uint32_t i = M; i-- > 0;) {
    run *= 1 - lik[i];
    L[i] = run;
  }
  run = 1;
  for (uint32_t i = 0; i < M; ++i) {
    L[i] *= run;
    run *= lik[i];
  }
  uint32_t i = 0;
  for (; i < M && freq[i] < 1000; ++i) L[i] = 0;  // no cut below 1 kHz
  double fv = 1000, best = 0;
  for (; i < M; ++i) {
    if (L[i] > best) {
      best = L[i];
      fv = freq[i];
    }
  }
  return fv;
}

}  // namespace fvtrack
}  // namespace kestrel

namespace {

constexpr double kPi = 3.141592653589793;
constexpr uint32_t kMaxFvFft = 1u << 20;
constexpr uint32_t kChunkFrames = 8;  // frames a thread takes at a time

bool isvoiced(double f0) { return f0 > 0 && std::isfinite(f0); }

// Hann-window transform kernel, in units where the main lobe spans |z| < 2 pi.
double hannkernel(double z) { return std::sin(z) * (1 / z - 0.5 * (1 / (z + kPi) + 1 / (z - kPi))); }

// Weight of one fv value in wsmooth; non-finite values weigh nothing.
double fvweight(double v) {
  if (v == 0 || !std::isfinite(v)) return 0;
  if (v < 2000) return v / 2000;
  if (v < 4000) return 1;
  if (v < 8000) return (8000 - v) / 4000;
  return 0;
}

// Forward FFT plans of the lengths one estimate meets (one per power of two),
// made when a length first occurs and released with the estimate.
class Plans {
 public:
  Plans() = default;
  Plans(const Plans &) = delete;
  Plans &operator=(const Plans &) = delete;
  ~Plans() {
    for (FFTPLAN *p : plans_) fftplanfree(p);
  }
  // fftc of nfft (a power of two) points, through the plan when one could be made.
  void forward(uint32_t nfft, double *x) {
    uint32_t b = 0;
    while ((1u << b) < nfft) ++b;
    if (!plans_[b]) plans_[b] = fftplancreate(static_cast<int32_t>(nfft), 1);
    if (plans_[b])
      fftplanc(plans_[b], x);
    else
      fftc(static_cast<int32_t>(nfft), x);
  }

 private:
  FFTPLAN *plans_[32] = {};
};

// A thread's buffers: the frame's spectrum, then per-harmonic frequencies,
// likeness values and the log power spectrum (later the cut likelihoods).
struct FvWork {
  std::vector<double> spectrum, area;
  size_t bins = 0;  // nfft / 2 of the longest frame
  Plans plans;
};

// fv of voiced frame k (f0 > 0) before the median.
double framefv(const double *x, uint32_t n, double fs, uint32_t c, double f0, FvWork *w) {
  const uint32_t N = getwinlengthnperiodsodd(3.0, f0, fs);
  const uint32_t half = N / 2;
  const uint32_t nfft = getwinlengthceilpot2(4 * N);
  const double df = fs / nfft;
  const double hwd = std::floor(0.5 * f0 / df);
  const uint32_t hw = (hwd > nfft) ? nfft : static_cast<uint32_t>(hwd);
  double *freq = w->area.data();
  double *lik = freq + w->bins;
  double *logp = lik + w->bins;

  // Zero-phase frame: sample c at index 0, c+i at i, c-i at nfft-i.
  // Every element is written once: the window's two ends (nfft >= 4N
  // keeps them apart) and zeros elsewhere.
  double *sp = w->spectrum.data();
  sp[0] = (c < n) ? 2 * x[c] : 0.0;
  sp[1] = 0.0;
  for (uint32_t i = 1; i <= half; ++i) {
    const double win = 1 + std::cos(kPi * i / half);
    double *lo = sp + 2 * static_cast<size_t>(i), *hi = sp + 2 * static_cast<size_t>(nfft - i);
    lo[0] = (static_cast<uint64_t>(c) + i < n) ? x[c + i] * win : 0.0;
    lo[1] = 0.0;
    hi[0] = (i <= c && c - i < n) ? x[c - i] * win : 0.0;
    hi[1] = 0.0;
  }
  std::fill(sp + 2 * (static_cast<size_t>(half) + 1), sp + 2 * static_cast<size_t>(nfft - half), 0.0);
  w->plans.forward(nfft, sp);
  for (uint32_t j = 0; j <= nfft / 2; ++j) {
    const double re = sp[2 * static_cast<size_t>(j)], im = sp[2 * static_cast<size_t>(j) + 1];
    logp[j] = std::log(re * re + im * im);
  }
  const uint32_t count = kestrel::fvtrack::walkharmonics(logp, sp, nfft, fs, f0, N, hw, freq, lik);
  return kestrel::fvtrack::choosecut(freq, lik, count, logp);
}

int estimatefv(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
               const double *f0, double *fv, uint32_t threads) {
  std::memset(fv, 0, sizeof(double) * nframes);
  if (!(fs > 0) || !std::isfinite(fs)) return -1;
  double fmin = 60;
  for (uint32_t k = 0; k < nframes; ++k)
    if (isvoiced(f0[k]) && f0[k] < fmin) fmin = f0[k];
  const uint32_t N0 = getwinlengthnperiodsodd(3.0, fmin, fs);
  if (N0 > kMaxFvFft / 4) return -1;
  const uint32_t nfft0 = getwinlengthceilpot2(4 * N0);

  threads = kestrel::threadsfor(nframes, kChunkFrames, threads);
  std::vector<FvWork> work(threads);
  for (FvWork &w : work) {
    w.spectrum.resize(2 * static_cast<size_t>(nfft0));
    w.bins = nfft0 / 2;
    w.area.resize(w.bins * 3 + 1);
  }
  // Frames are independent until the median.
  kestrel::parallelchunks(nframes, kChunkFrames, threads, [&](uint32_t t, uint64_t begin, uint64_t end) {
    for (uint64_t k = begin; k < end; ++k)
      if (isvoiced(f0[k])) fv[k] = framefv(x, n, fs, first + static_cast<uint32_t>(k) * shift, f0[k], &work[t]);
  });
  medianfilt(fv, nframes, 5);
  return 0;
}

}  // namespace

extern "C" {

int getfvoicing(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                const double *f0, double *fv) {
  return getfvoicingthreads(x, n, fs, shift, first, nframes, f0, fv, 1);
}

int getfvoicingthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                       const double *f0, double *fv, uint32_t threads) {
  if (nframes == 0) return 0;
  try {
    return estimatefv(x, n, fs, shift, first, nframes, f0, fv, threads);
  } catch (const std::bad_alloc &) {
    std::memset(fv, 0, sizeof(double) * nframes);
    return -1;
  }
}

double slm(const double *X, uint32_t nfft, double fs, double f, uint32_t N, uint32_t b, uint32_t h) {
  if (nfft == 0) return 0;
  const double a = f * N / fs;
  const double dn = static_cast<double>(N);
  const double dnfft = static_cast<double>(nfft);
  // Bins b-h .. b+h, kept inside the spectrum.
  const uint64_t lo = (b >= h) ? b - h : 0;
  uint64_t hi = static_cast<uint64_t>(b) + h;
  if (hi > nfft - 1) hi = nfft - 1;
  double Ew = 0, Ex = 0, R = 0, I = 0;
  for (uint64_t j = lo; j <= hi; ++j) {
    const double u = static_cast<double>(j) * dn / dnfft;
    const double z1 = kPi * (u - a);
    // Above fs/4 the mirror image lies nearer through the sampling rate.
    const double z2 = (f < fs / 4) ? kPi * (u + a) : kPi * (u - dn + a);
    const double W = (z1 == 0 ? 1.0 : hannkernel(z1)) + hannkernel(z2);
    const double re = X[2 * j], im = X[2 * j + 1];
    Ew += W * W;
    Ex += re * re + im * im;
    R += re * W;
    I += im * W;
  }
  const double den = Ew * Ex;
  if (!(den > 0)) return 0;  // no energy in the band: nothing sinusoidal
  return std::sqrt((R * R + I * I) / den);
}

int medianfilt(double *v, uint32_t n, uint32_t w) {
  const uint32_t half = w / 2;
  const uint64_t ww = 2 * static_cast<uint64_t>(half) + 1;
  if (n < ww) return 0;  // shorter than one window: left as it is
  std::vector<double> saved(v, v + half);
  std::vector<double> window(ww);
  const uint64_t nout = n - ww + 1;
  for (uint64_t i = 0; i < nout; ++i) {
    std::memcpy(window.data(), v + i, sizeof(double) * ww);
    v[i] = medianelem(window.data(), static_cast<uint32_t>(ww));
  }
  std::memmove(v + half, v, sizeof(double) * nout);
  if (half > 0) std::memcpy(v, saved.data(), sizeof(double) * half);
  return 0;
}

int wsmooth(double *fv, uint32_t n, uint32_t w) {
  if (n == 0 || w == 0) return 0;
  const int64_t half = w / 2;
  const int64_t len = n;
  const std::vector<double> orig(fv, fv + n);
  // Window of frame i: i - half .. i - half + w - 1; outside the track counts as 0.
  double sw = 0, swv = 0;
  auto add = [&](int64_t j, double sign) {
    if (j < 0 || j >= len) return;
    const double wt = fvweight(orig[j]);
    if (wt == 0) return;
    sw += sign * wt;
    swv += sign * (wt * orig[j]);
  };
  const int64_t last0 = static_cast<int64_t>(w) - 1 - half;
  for (int64_t j = 0; j <= last0 && j < len; ++j) add(j, 1);
  for (int64_t i = 0; i < len; ++i) {
    if (i > 0) {
      add(i - half + static_cast<int64_t>(w) - 1, 1);
      add(i - half - 1, -1);
    }
    if (orig[i] != 0 && sw != 0) fv[i] = swv / sw;
  }
  return 0;
}

}  // extern "C"
