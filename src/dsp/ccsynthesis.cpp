// Harmonic-plus-noise synthesis from frequency-warped cepstra, and the
// cepstrum-to-envelope helpers it is built from.
//
// Per frame: the cepstrum gives a log envelope on a 100 Hz grid (noise, 1.68 dB
// louder), high-passed above the maximum voiced frequency in voiced frames,
// resampled onto FFT bins and turned into random-phase noise; voiced frames add
// harmonics of f0 below fv with the cepstrum's minimum phase plus a fixed
// excitation phase; segments of two shifts are overlap-added with triangular
// windows.  The arithmetic follows the documented order exactly: the output is
// reproducible to the last bit, and the faster internal loops below are checked
// against a plain evaluation by the tests.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#include "ccanalysis.h"
#include "dft.h"
#include "harmonicanalysis.h"
#include "matvect.h"
#include "randgen.h"
#include "spectralanalysis.h"
#include "windowing.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;
constexpr double kNoiseGain = 0.19332249068594076;  // ln 1.213274, noise only
constexpr double kGridStep = 100.0;                  // envelope grid spacing and first point, Hz
constexpr double kF0Floor = 10.0;
constexpr double kF0Ceiling = 1500.0;
constexpr double kF0MinStart = 500.0;
constexpr double kFvLoudest = 4500.0;  // fv of the loudest voiced frame without fv track
constexpr double kFvFloor = 1000.0;
constexpr double kHpGainKnee = -2.302585092994046;  // -ln 10: -20 dB at 0.8 fc
constexpr double kHpGainZero = -3.684136148790474;  // -1.6 ln 10: -32 dB at 0 Hz
constexpr double kExcA = 0.95;                      // excitation all-pass coefficient

// Work areas beyond this many doubles (1 GiB) are refused rather than attempted.
constexpr uint64_t kMaxWorkDoubles = uint64_t{1} << 27;

// Natural-log high-pass gain at f below fc (flo = 0.8 fc).
inline double hpgain(double f, double flo, double fc) {
  if (f < flo) return (kHpGainKnee - kHpGainZero) * f / flo + kHpGainZero;
  return (1 - (f - flo) / (fc - flo)) * kHpGainKnee;
}

// r[i] = sum_k x[k]*M[i][k], k ascending from 0.0, as prodmat(M, x, r, m, n, 1)
// computes it; four rows at a time so that the independent sums overlap.
void matvec(const double *M, const double *x, double *r, uint32_t m, uint32_t n) {
  uint32_t i = 0;
  for (; i + 4 <= m; i += 4) {
    const double *a0 = M + static_cast<uint64_t>(i) * n;
    const double *a1 = a0 + n;
    const double *a2 = a1 + n;
    const double *a3 = a2 + n;
    double r0 = 0, r1 = 0, r2 = 0, r3 = 0;
    for (uint32_t k = 0; k < n; ++k) {
      const double xk = x[k];
      r0 += xk * a0[k];
      r1 += xk * a1[k];
      r2 += xk * a2[k];
      r3 += xk * a3[k];
    }
    r[i] = r0;
    r[i + 1] = r1;
    r[i + 2] = r2;
    r[i + 3] = r3;
  }
  for (; i < m; ++i) {
    const double *a = M + static_cast<uint64_t>(i) * n;
    double acc = 0;
    for (uint32_t k = 0; k < n; ++k) acc += x[k] * a[k];
    r[i] = acc;
  }
}

typedef double v2d __attribute__((vector_size(16)));  // lane-wise IEEE arithmetic

// Rows r .. r+G-1 of the cepstral cosine (and sine) matrices. Each row's
// columns come from its own rotation by the row's warped frequency; G rows are
// rotated side by side so that their independent recurrences overlap.
constexpr uint32_t kRowGroup = 4;

template <uint32_t G>
void fillrows(uint32_t p, uint32_t r, double w, const double *freqs, double alpha, double *cosmatrix,
              double *sinmatrix) {
  constexpr uint32_t V = (G + 1) / 2;
  const uint64_t stride = static_cast<uint64_t>(p) + 1;
  double c1[2 * V], s1[2 * V];
  double *crow[2 * V];
  double *srow[2 * V];
  for (uint32_t g = 0; g < 2 * V; ++g) {
    if (g < G) {
      const double omega = freqs ? freqs[r + g] * w : static_cast<double>(r + g + 1) * w;
      const double wt = fwarp(omega, alpha);
      c1[g] = std::cos(wt);
      s1[g] = std::sin(wt);
      crow[g] = cosmatrix + (r + g) * stride;
      srow[g] = sinmatrix ? sinmatrix + (r + g) * stride : nullptr;
      crow[g][0] = 1.0;
      if (sinmatrix) srow[g][0] = -0.0;
    } else {
      c1[g] = 1.0;  // unused lane
      s1[g] = 0.0;
    }
  }
  v2d c[V], s[V], vc1[V], vs1[V];
  for (uint32_t v = 0; v < V; ++v) {
    c[v] = v2d{1.0, 1.0};
    s[v] = v2d{0.0, 0.0};
    vc1[v] = v2d{c1[2 * v], c1[2 * v + 1]};
    vs1[v] = v2d{s1[2 * v], s1[2 * v + 1]};
  }
  const v2d two = {2.0, 2.0}, mtwo = {-2.0, -2.0};
  for (uint32_t k = 1; k <= p; ++k) {
#pragma GCC unroll 4
    for (uint32_t v = 0; v < V; ++v) {
      const v2d nc = c[v] * vc1[v] - s[v] * vs1[v];
      const v2d ns = s[v] * vc1[v] + c[v] * vs1[v];
      c[v] = nc;
      s[v] = ns;
      const v2d cc = two * nc;
      crow[2 * v][k] = cc[0];
      if (2 * v + 1 < G) crow[2 * v + 1][k] = cc[1];
      if (sinmatrix) {
        const v2d ss = mtwo * ns;
        srow[2 * v][k] = ss[0];
        if (2 * v + 1 < G) srow[2 * v + 1][k] = ss[1];
      }
    }
  }
}

// gennoisefromlogspectrumr with the frame's draws taken in one batch and the
// inverse FFT from a plan made once per utterance: the same operations on the
// same values. draws holds nfft/2 - 1 values.
void noiseframe(double *buf, uint32_t nfft, double fs, RANDGEN *state, int32_t *draws, const FFTPLAN *inverse) {
  constexpr double kPhaseStep = 2.925836159896768e-09;  // 2*pi/2147483647
  double *re = buf;
  double *im = buf + nfft;
  const uint32_t half = nfft / 2;
  const double gain = std::sqrt(fs / static_cast<double>(nfft));
  randgendraws(state, draws, half - 1);
  re[0] = im[0] = 0.0;
  re[half] = im[half] = 0.0;
  for (uint32_t k = 1; k < half; ++k) {
    const double m = std::exp(re[k]) * gain;
    const double psi = static_cast<double>(draws[k - 1]) * kPhaseStep;
    im[k] = std::sin(psi) * m;
    re[k] = std::cos(psi) * m;
    re[nfft - k] = re[k];
    im[nfft - k] = -im[k];
  }
  fftplanr(inverse, re, im);
}

// Triangular overlap-add of a 2*shift frame starting at output sample start,
// with olatriang's weights and arithmetic, dropping samples at or beyond limit.
void olatriangclipped(double *out, const double *frame, uint64_t start, uint32_t shift, uint64_t limit) {
  const uint32_t span = 2 * shift;
  const double d = static_cast<double>(shift);
  for (uint32_t i = 0; i < shift && start + i < limit; ++i)
    out[start + i] += frame[i] * static_cast<double>(i) / d;
  for (uint32_t i = shift; i < span && start + i < limit; ++i)
    out[start + i] += frame[i] * static_cast<double>(span - i) / d;
}

}  // namespace

extern "C" {

uint32_t getwaveformlength(uint32_t shift, uint32_t nframes) { return getolasynthesislength(shift, nframes); }

double fwarp(double w, double alpha) {
  return std::atan2((1 - alpha * alpha) * std::sin(w), (1 + alpha * alpha) * std::cos(w) - 2 * alpha);
}

int ccmatrixcreate(uint32_t p, uint32_t n, double f0, const double *freqs, double fs, double alpha,
                   double *cosmatrix, double *sinmatrix) {
  // The cosine matrix is always written: a sine matrix alone is refused too.
  if (!cosmatrix) return -1;
  const double w = freqs ? kTwoPi / fs : f0 * kTwoPi / fs;
  uint32_t r = 0;
  for (; r + kRowGroup <= n; r += kRowGroup) fillrows<kRowGroup>(p, r, w, freqs, alpha, cosmatrix, sinmatrix);
  for (; r < n; ++r) fillrows<1>(p, r, w, freqs, alpha, cosmatrix, sinmatrix);
  return 0;
}

int applyhpfilterlog(uint32_t n, double df, double *logamp, double fc) {
  const double flo = 0.8 * fc;
  double f = df;
  for (uint32_t i = 0; i < n && f < fc; ++i) {
    logamp[i] += hpgain(f, flo, fc);
    f += df;
  }
  return 0;
}

int applyantihpfilter(uint32_t n, double df, double *amp, double fc) {
  const double flo = 0.8 * fc;
  double f = df;
  for (uint32_t i = 0; i < n && f < fc; ++i) {
    const double G = std::exp(hpgain(f, flo, fc));
    amp[i] *= std::sqrt(1 - G * G);
    f += df;
  }
  return 0;
}

int applyexcphase(uint32_t nh, double f0, double fs, double *phases) {
  const double a2 = kExcA * kExcA;
  const double w = f0 * kTwoPi / fs;
  const double c1 = std::cos(w);
  const double s1 = std::sin(w);
  double c = 1.0, s = 0.0;
  for (uint32_t i = 0; i < nh; ++i) {
    const double nc = c * c1 - s * s1;
    const double ns = s * c1 + c * s1;
    c = nc;
    s = ns;
    phases[i] = kPi - 2 * std::atan2((1 - a2) * s, 2 * kExcA - (1 + a2) * c) + phases[i];
  }
  return 0;
}

int cc2waveform(double *output, uint32_t length, double fs, uint32_t shift, uint32_t nframes, const double *f0,
                const double *fv, uint32_t order, double *cc, double alpha) {
  if (length > 0 && !output) return -1;
  for (uint32_t n = 0; n < length; ++n) output[n] = 0.0;
  if (nframes == 0) return 0;
  if (!f0 || !cc) return -1;
  const uint64_t p1 = static_cast<uint64_t>(order) + 1;
  if (p1 > kMaxWorkDoubles) return -1;

  double f0min = kF0MinStart;
  for (uint32_t i = 0; i < nframes; ++i)
    if (f0[i] >= kF0Floor && f0[i] < f0min) f0min = f0[i];

  double c0max = 0.0, c0min = 0.0;
  if (!fv) {
    c0max = -DBL_MAX;
    c0min = DBL_MAX;
    for (uint32_t i = 0; i < nframes; ++i) {
      const double c0 = cc[i * p1];
      if (f0[i] > 0 && c0 > c0max) c0max = c0;
      if (c0 < c0min) c0min = c0;
    }
  }
  // Every voiced frame sharing the utterance's lowest c0 leaves the fv formula
  // without a scale: those utterances use the loudest-frame fv throughout.
  const bool flatc0 = (c0max == c0min);

  // Frames from this one on lie wholly beyond the output (or have no span):
  // they only get their c0 round trip, which callers can observe.
  uint32_t nsynth = nframes;
  if (shift == 0) {
    nsynth = 0;
  } else {
    const uint64_t fit = (static_cast<uint64_t>(length) + shift - 1) / shift;
    if (fit < nsynth) nsynth = static_cast<uint32_t>(fit);
  }

  if (nsynth > 0) {
    const uint32_t nhmax = hanoharms(fs, fs, f0min);
    const uint32_t nenv = hanoharms(fs, fs, kGridStep);
    const uint64_t twoshift = 2 * static_cast<uint64_t>(shift);
    const uint64_t rows = 2 * static_cast<uint64_t>(nhmax) + nenv;
    if (twoshift > kMaxWorkDoubles || rows > kMaxWorkDoubles) return -1;
    const uint32_t nfft = getwinlengthceilpot2(static_cast<uint32_t>(twoshift));
    const uint64_t nmat = p1 * rows;
    const uint64_t total = nmat + rows + 2 * static_cast<uint64_t>(nfft);
    if (nmat > kMaxWorkDoubles || total > kMaxWorkDoubles) return -1;

    std::vector<double> work;
    std::vector<int32_t> draws;
    try {
      work.assign(static_cast<size_t>(total), 0.0);
      draws.assign(nfft / 2, 0);
    } catch (const std::bad_alloc &) {
      return -1;
    }
    FFTPLAN *inverse = fftplancreate(static_cast<int32_t>(nfft), -1);
    if (!inverse) return -1;
    // Matrix block: harmonic cosines, harmonic sines, envelope-grid cosines;
    // vector block: amplitudes, phases, grid log amplitudes; then the frame.
    double *hcos = work.data();
    double *hsin = hcos + p1 * nhmax;
    double *envm = hsin + p1 * nhmax;
    double *amps = hcos + nmat;
    double *phases = amps + nhmax;
    double *grid = phases + nhmax;
    double *re = grid + nenv;
    const uint32_t p1n = static_cast<uint32_t>(p1);
    const uint32_t nbins = nfft / 2 - 1;  // nfft >= 2 since shift >= 1
    const double dfbin = fs / static_cast<double>(nfft);

    ccmatrixcreate(order, nenv, kGridStep, nullptr, fs, alpha, envm, nullptr);
    RANDGEN noise;
    randgenseed(&noise, 0);
    double phi = 0.0;
    double f0prev = 0.0;

    for (uint32_t i = 0; i < nsynth; ++i) {
      double *c = cc + i * p1;
      const uint64_t start = static_cast<uint64_t>(i) * shift;
      double f = f0[i];
      if (f > 0 && (f < kF0Floor || f > kF0Ceiling)) f = 0;

      c[0] += kNoiseGain;
      matvec(envm, c, grid, nenv, p1n);
      c[0] -= kNoiseGain;

      double fvi = 0.0;
      if (f > 0) {
        if (fv)
          fvi = fv[i];
        else
          fvi = flatc0 ? kFvLoudest : (c[0] - c0min) * kFvLoudest / (c0max - c0min);
        if (fvi < kFvFloor) fvi = kFvFloor;
        if (f >= fvi)
          f = 0;
        else
          applyhpfilterlog(nenv, kGridStep, grid, fvi);
      }

      resamplelogampenv(kGridStep, grid, nenv, dfbin, re + 1, nbins);
      noiseframe(re, nfft, fs, &noise, draws.data(), inverse);

      if (f > 0) {
        uint32_t nh = hanoharms(fs, fvi, f);
        if (nh > nhmax) nh = nhmax;  // cannot happen for f >= f0min; keeps the arrays safe
        ccmatrixcreate(order, nh, f, nullptr, fs, alpha, hcos, hsin);
        matvec(hcos, c, amps, nh, p1n);
        const double gain = 2 * std::sqrt(f);
        for (uint32_t k = 0; k < nh; ++k) amps[k] = std::exp(amps[k]) * gain;
        applyantihpfilter(nh, f, amps, fvi);
        matvec(hsin, c, phases, nh, p1n);
        if (f0prev > 0)
          phi = phi + kPi * (f + f0prev) * static_cast<double>(shift) / fs;
        else
          phi = 0.0;
        applyexcphase(nh, f, fs, phases);
        genharmonics(re, shift, shift, fs, f, nh, amps, phases, phi, 1);
      }

      if (start + twoshift <= length)
        olatriang(output, re, static_cast<uint32_t>(start), static_cast<uint32_t>(start + shift),
                  static_cast<uint32_t>(start + twoshift));
      else
        olatriangclipped(output, re, start, shift, length);
      f0prev = f;
    }
    fftplanfree(inverse);
  }

  for (uint32_t i = nsynth; i < nframes; ++i) {
    double *c = cc + i * p1;
    c[0] += kNoiseGain;
    c[0] -= kNoiseGain;
  }
  return 0;
}

}  // extern "C"
