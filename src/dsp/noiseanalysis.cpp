// Spectral envelopes of one analysis frame, all as natural logarithms of an
// amplitude spectral density (sqrt of power per Hz): the unit in which the
// synthesis reads its envelopes, so that analysis followed by synthesis keeps
// the level of the recording.
//
//  - getnoiselogspectrum: periodogram of a mean-removed, unit-mean-square
//    Hamming-windowed 25 ms segment. White noise of variance s^2 gives
//    log(sqrt(s^2/fs)) in every bin.
//  - getsignallogspectrum: the same periodogram averaged, in power, over a box
//    one harmonic spacing (f0) wide, so that in a voiced frame each harmonic's
//    power is spread as a density over its band: a harmonic of amplitude a
//    reads log(a / (2 sqrt(f0))), exactly what the synthesis turns back into
//    amplitude a. Cepstral liftering of the log then no longer averages the
//    deep valleys between harmonics into the level. Below the fundamental it
//    holds the level of the first harmonic's band.
//  - getseevoclogspectrum: spectral-envelope estimation by peak picking
//    (D. B. Paul, "The spectral envelope estimation vocoder", IEEE Trans.
//    ASSP, 1981): the largest periodogram peak in [f0/2, 3f0/2], then in each
//    band [f + f0/2, f + 3f0/2] after the previous peak f, each refined by a
//    parabola through the log power of three bins (J. O. Smith and X. Serra,
//    1987); peak amplitudes are converted to the harmonic density unit and
//    interpolated linearly (log amplitude against frequency) between peaks.
//    The window is the 25 ms one, or three pitch periods when f0 is so low
//    that 25 ms would not resolve the harmonics.
//
// Unvoiced frames (f0 <= 0 or not finite) get the noise spectrum from all
// three. Frame centres near or past the signal ends are zero-padded.
#include "spectralanalysis.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "dft.h"
#include "simd.h"
#include "windowing.h"

namespace {

// The stored floor constant of the periodogram (per window sample).
constexpr double kFloorPerSample = 1.0000000000000002e-10;
constexpr double kTwoPi = 6.283185307179586;
// Largest work area (doubles) created here: refuses absurd frame sizes.
constexpr uint64_t kMaxAreaDoubles = uint64_t(1) << 27;

bool ispowerof2(uint32_t v) { return v != 0 && (v & (v - 1)) == 0; }

// A usable noise area and FFT length for it.
bool validframe(const double *x, uint32_t n, const uint32_t nfft, const double *out, const NAMEM *area) {
  if (!area || !out || !area->window || !area->scratch) return false;
  if (n > 0 && !x) return false;
  if (!ispowerof2(nfft) || nfft < 4 || nfft > (1u << 30)) return false;
  return area->N <= nfft;
}

// Valid window indices [start, end) of an N-point window centred on c over a
// signal of n samples; index i stands for sample c - half + i. The bounds
// equal the unsigned rule (start = half - c when c < half; end = N - (c + half
// - (n - 1)) when c + half > n - 1) where that rule does not wrap, and leave
// no sample where it would (centres far past the end, an empty signal).
void segmentbounds(uint32_t N, uint32_t n, uint32_t c, uint32_t *start, uint32_t *end) {
  const int64_t half = N / 2;
  const int64_t s = (static_cast<int64_t>(c) < half) ? half - c : 0;
  int64_t e = N;
  const int64_t last = static_cast<int64_t>(n) - 1;
  if (static_cast<int64_t>(c) + half > last) e = static_cast<int64_t>(N) - (static_cast<int64_t>(c) + half - last);
  if (e < s) e = s;
  if (e > N) e = N;
  *start = static_cast<uint32_t>(s);
  *end = static_cast<uint32_t>(e);
}

// Unit-mean-square Hamming value n of an N-point window, by the same formula
// as winhamming with the normalising flag (used when a frame needs a window
// other than the area's).
struct HammingRotor {
  double c = 1.0, s = 0.0, c1 = 1.0, s1 = 0.0;
  explicit HammingRotor(uint32_t N) {
    const double step = kTwoPi / static_cast<double>(N - 1);
    c1 = std::cos(step);
    s1 = std::sin(step);
  }
  double next() {  // value at the current index, then advance
    const double v = 0.8566 - 0.7297 * c;
    kestrel::rotatestep(c, s, c1, s1);
    return v;
  }
};

// Steps 1-4 of the periodogram: mean-removed (mean over the full N), windowed
// segment at index 0 of re, zero-padded to nfft, forward FFT with im.
// win == nullptr computes the unit-mean-square Hamming window on the fly.
// Returns the window sum over all N points (for peak amplitudes).
double periodogram(const double *x, uint32_t n, uint32_t c, uint32_t N, const double *win, uint32_t nfft,
                   double *re, double *im, const FFTPLAN *plan) {
  uint32_t start, end;
  segmentbounds(N, n, c, &start, &end);
  const uint32_t half = N / 2;
  const uint32_t base = c - half;  // wraps; base + i is in range for start <= i < end
  double sum = 0.0;
  for (uint32_t i = start; i < end; ++i) sum += x[base + i];
  const double mean = sum / static_cast<double>(N);
  for (uint32_t i = 0; i < nfft; ++i) im[i] = 0.0;
  double wsum = 0.0;
  if (win) {
    for (uint32_t i = 0; i < N; ++i) wsum += win[i];
    for (uint32_t i = 0; i < start; ++i) re[i] = 0.0;
    for (uint32_t i = start; i < end; ++i) re[i] = (x[base + i] - mean) * win[i];
  } else {
    HammingRotor rot(N);
    for (uint32_t i = 0; i < N; ++i) {
      const double w = rot.next();
      wsum += w;
      re[i] = (i >= start && i < end) ? (x[base + i] - mean) * w : 0.0;
    }
  }
  for (uint32_t i = end > start ? end : start; i < nfft; ++i) re[i] = 0.0;
  if (fftplanlength(plan) == static_cast<int32_t>(nfft))
    fftplanr(plan, re, im);
  else
    fftr(static_cast<int32_t>(nfft), re, im);
  return wsum;
}

// Log amplitude density of an unscaled periodogram value P for an N-point
// window at fs, floored like the noise spectrum.
inline double logdensity(double P, double floor, double scale) {
  if (floor > P) P = floor;
  return std::log(std::sqrt(P * scale));
}

// DC and Nyquist copy their neighbours; the upper half mirrors the lower.
void finishsymmetric(double *out, uint32_t nfft) {
  const uint32_t h = nfft / 2;
  out[0] = out[1];
  out[h] = out[h - 1];
  for (uint32_t k = 1; k < h; ++k) out[nfft - k] = out[k];
}

bool voicedf0(double f0, double fs) { return f0 > 0.0 && std::isfinite(f0) && f0 < 0.5 * fs; }

}  // namespace

extern "C" {

uint32_t naframesize(double fs) { return getwinlengthdurodd(0.025, fs); }

NAMEM *nameminitialize(uint32_t N, uint32_t M) {
  const uint64_t total = static_cast<uint64_t>(N) + M;
  if (total > kMaxAreaDoubles) return nullptr;
  NAMEM *area = static_cast<NAMEM *>(std::malloc(sizeof(NAMEM)));
  if (!area) return nullptr;
  double *block = static_cast<double *>(std::malloc((total ? total : 1) * sizeof(double)));
  if (!block) {
    std::free(area);
    return nullptr;
  }
  area->N = N;
  area->window = block;
  area->scratch = block + N;
  area->forward = nullptr;
  winhamming(area->window, N, 1);
  return area;
}

NAMEM *nameminitializefft(uint32_t N, uint32_t nfft) {
  NAMEM *area = nameminitialize(N, nfft);
  // Without a plan (nfft not a power of two, or no memory) the periodogram
  // transforms without one: the same bits either way.
  if (area && nfft <= (1u << 30)) area->forward = fftplancreate(static_cast<int32_t>(nfft), 1);
  return area;
}

NAMEM *nameminitializelpc(uint32_t N, uint32_t order) {
  const uint64_t M = static_cast<uint64_t>(N) + 2 * (static_cast<uint64_t>(order) + 1);
  if (M > UINT32_MAX) return nullptr;
  return nameminitialize(N, static_cast<uint32_t>(M));
}

int namemdestroy(NAMEM *area) {
  if (area) {
    fftplanfree(area->forward);
    std::free(area->window);
    std::free(area);
  }
  return 0;
}

int getnoiselogspectrum(const double *x, uint32_t n, double fs, uint32_t c, uint32_t nfft, double *out,
                        NAMEM *area) {
  if (!validframe(x, n, nfft, out, area)) return -1;
  const uint32_t N = area->N;
  double *im = area->scratch;
  periodogram(x, n, c, N, area->window, nfft, out, im, area->forward);
  const double scale = 1.0 / (static_cast<double>(N) * fs);
  const double floor = static_cast<double>(N) * kFloorPerSample;
  const uint32_t h = nfft / 2;
  for (uint32_t k = 1; k < h; ++k) {
    double P = out[k] * out[k] + im[k] * im[k];
    if (floor > P) P = floor;  // an exact tie keeps P
    out[k] = std::log(std::sqrt(P * scale));
    out[nfft - k] = out[k];
  }
  out[0] = out[1];
  out[h] = out[h - 1];
  return 0;
}

int getsignallogspectrum(const double *x, uint32_t n, double fs, uint32_t c, double f0, uint32_t nfft, double *out,
                         NAMEM *area) {
  if (!voicedf0(f0, fs)) return getnoiselogspectrum(x, n, fs, c, nfft, out, area);
  if (!validframe(x, n, nfft, out, area)) return -1;
  const uint32_t N = area->N;
  double *P = area->scratch;  // the imaginary part, then the power spectrum
  periodogram(x, n, c, N, area->window, nfft, out, P, area->forward);
  const uint32_t h = nfft / 2;
  for (uint32_t k = 0; k <= h; ++k) P[k] = out[k] * out[k] + P[k] * P[k];
  // Box of width f0 centred on bin k over the piecewise-constant periodogram
  // (bin j covers [j - 1/2, j + 1/2]), reflected at DC and Nyquist.
  const double df = fs / static_cast<double>(nfft);
  const double hw = 0.5 * f0 / df;
  const int64_t reach = static_cast<int64_t>(std::ceil(hw + 0.5));
  const double scale = 1.0 / (static_cast<double>(N) * fs);
  const double floor = static_cast<double>(N) * kFloorPerSample;
  for (uint32_t k = 1; k < h; ++k) {
    double acc = 0.0, wt = 0.0;
    const int64_t lo = static_cast<int64_t>(k) - reach, hi = static_cast<int64_t>(k) + reach;
    for (int64_t j = lo; j <= hi; ++j) {
      double w = hw + 0.5 - std::fabs(static_cast<double>(j - static_cast<int64_t>(k)));
      if (w <= 0.0) continue;
      if (w > 1.0) w = 1.0;
      int64_t r = j < 0 ? -j : j;                   // even about DC
      if (r > h) r = 2 * static_cast<int64_t>(h) - r;  // even about Nyquist
      if (r < 0) r = 0;                               // boxes wider than the band
      acc += w * P[r];
      wt += w;
    }
    out[k] = logdensity(wt > 0.0 ? acc / wt : P[k], floor, scale);
  }
  // Below the fundamental a voiced frame has nothing to describe, and the
  // steep edge there (the mean removed, the hum filtered off) would ring
  // through a cepstrum cut short at high pitch, across the whole band: hold
  // the level of the first harmonic's band instead.
  const double first = std::floor(f0 / df);
  const uint32_t k1 = first < static_cast<double>(h - 1) ? static_cast<uint32_t>(first) : h - 1;
  for (uint32_t k = 1; k < k1; ++k) out[k] = out[k1];
  finishsymmetric(out, nfft);
  return 0;
}

int getseevoclogspectrum(const double *x, uint32_t n, double fs, uint32_t c, double f0, uint32_t nfft, double *out,
                         NAMEM *area) {
  if (!voicedf0(f0, fs)) return getnoiselogspectrum(x, n, fs, c, nfft, out, area);
  if (!validframe(x, n, nfft, out, area)) return -1;
  // 25 ms resolves harmonics above about 120 Hz; below, three periods do.
  // An f0 so low that three periods exceed the FFT has no bands to search.
  uint32_t N = area->N;
  const double *win = area->window;
  const double periods = 3.0 * fs / f0;
  if (!(periods < static_cast<double>(nfft))) return getnoiselogspectrum(x, n, fs, c, nfft, out, area);
  if (periods > static_cast<double>(N)) {
    N = getwinlengthnperiodsodd(3.0, f0, fs);
    if (N > nfft) N = nfft - 1;
    win = nullptr;
  }
  double *im = area->scratch;
  const double wsum = periodogram(x, n, c, N, win, nfft, out, im, area->forward);
  const uint32_t h = nfft / 2;
  for (uint32_t k = 0; k <= h; ++k) out[k] = out[k] * out[k] + im[k] * im[k];

  // Peaks as (frequency Hz, log amplitude density) pairs in the scratch.
  const double floor = static_cast<double>(N) * kFloorPerSample;
  const double lognorm = std::log(wsum) + 0.5 * std::log(f0);
  // The noise spectrum's silence floor, log(sqrt(1e-10/fs)).
  const double floorlog = std::log(std::sqrt(floor * (1.0 / (static_cast<double>(N) * fs))));
  const double df = fs / static_cast<double>(nfft);
  double *peak = im;
  const uint32_t maxpeaks = nfft / 2;
  uint32_t npeaks = 0;
  double fprev = 0.0;
  uint32_t kprev = 0;
  while (npeaks < maxpeaks) {
    const double flo = (npeaks == 0 ? 0.5 * f0 : fprev + 0.5 * f0);
    const double fhi = flo + f0;
    double klo = std::ceil(flo / df), khi = std::floor(fhi / df);
    if (klo < static_cast<double>(kprev + 1)) klo = static_cast<double>(kprev + 1);
    if (klo < 1.0) klo = 1.0;
    if (khi > static_cast<double>(h - 1)) khi = static_cast<double>(h - 1);
    if (!(klo <= static_cast<double>(h - 1))) break;
    if (khi < klo) khi = klo;
    uint32_t kb = static_cast<uint32_t>(klo);
    for (uint32_t k = kb + 1; k <= static_cast<uint32_t>(khi); ++k)
      if (out[k] > out[kb]) kb = k;
    // Parabola through the log power of the peak bin and its neighbours.
    const double pm = out[kb - 1] > floor ? out[kb - 1] : floor;
    const double p0 = out[kb] > floor ? out[kb] : floor;
    const double pp = out[kb + 1] > floor ? out[kb + 1] : floor;
    const double lm = std::log(pm), l0 = std::log(p0), lp = std::log(pp);
    const double den = lm - 2.0 * l0 + lp;
    double d = 0.0, lpk = l0;
    if (den < 0.0 && std::isfinite(den)) {
      d = 0.5 * (lm - lp) / den;
      if (d > 0.5) d = 0.5;
      if (d < -0.5) d = -0.5;
      lpk = l0 - 0.25 * (lm - lp) * d;
    }
    double level = 0.5 * lpk - lognorm;  // log(|X| / (sum(w) sqrt(f0)))
    if (!(p0 > floor) || level < floorlog) level = floorlog;  // silence, or below it
    if (std::isnan(lpk)) level = lpk;
    const double fk = (static_cast<double>(kb) + d) * df;
    peak[2 * npeaks] = fk;
    peak[2 * npeaks + 1] = level;
    ++npeaks;
    fprev = fk;
    kprev = kb;
  }
  if (npeaks == 0) return getnoiselogspectrum(x, n, fs, c, nfft, out, area);

  // Linear interpolation of the peak levels onto the bins, flat outside.
  uint32_t j = 0;
  for (uint32_t k = 0; k <= h; ++k) {
    const double f = static_cast<double>(k) * df;
    while (j + 1 < npeaks && peak[2 * (j + 1)] < f) ++j;
    double v;
    if (f <= peak[0]) {
      v = peak[1];
    } else if (j + 1 >= npeaks) {
      v = peak[2 * j + 1];
    } else {
      const double f1 = peak[2 * j], f2 = peak[2 * (j + 1)];
      const double t = f2 > f1 ? (f - f1) / (f2 - f1) : 0.0;
      v = peak[2 * j + 1] + t * (peak[2 * (j + 1) + 1] - peak[2 * j + 1]);
    }
    out[k] = v;
  }
  for (uint32_t k = 1; k < h; ++k) out[nfft - k] = out[k];
  return 0;
}

}  // extern "C"
