// Pitch tracking by normalised cross-correlation and dynamic programming over
// the whole utterance.
//
// Per frame, the band-passed signal's normalised cross-correlation
//   C(T) = sum a(i) a(i+T) / sqrt(E(0) E(T)),  i over a window of W samples,
// is computed for every lag with one complex FFT pair. Unlike a windowed
// autocorrelation it reaches 1 for any exactly periodic frame, whatever the
// period and however the level changes, so one scale serves breathy onsets,
// low male and high female voices alike. Its local maxima (parabolically
// interpolated) are the voiced candidates, each with a cost that prefers
// strong peaks and, among near-equal ones, the shorter period (a periodic
// signal correlates at every multiple of its period). The unvoiced
// hypothesis costs the more the better the best peak is; frames far below
// the utterance's loud frames lean towards unvoiced.
//
// A Viterbi search over all frames then picks one hypothesis per frame,
// trading the local costs against transition costs: the log-f0 step between
// voiced frames and a fixed cost for every change of voicing. Decisions are
// thus taken on the whole utterance: a weak onset or a creaky ending stays
// voiced when it continues a confident track, and an isolated noise frame with
// a lucky peak does not become voiced. Last, the period of every voiced frame
// is measured again on two periods of the full-band signal placed
// symmetrically about the frame centre, which follows fast f0 movements the
// long candidate window averages out.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "dft.h"
#include "parallel.h"
#include "pitchanalysis.h"
#include "spectralanalysis.h"
#include "windowing.h"

namespace {

// Longest window plus lag span, samples.
constexpr double kMaxSpan = 1 << 20;
// Frames a thread takes at a time.
constexpr uint32_t kChunkFrames = 8;
// Voiced candidates kept per frame.
constexpr uint32_t kCandidates = 6;
// Candidate window, s; never under 1.5 periods of the lowest f0.
constexpr double kWindow = 0.025;
constexpr double kMinPeriods = 1.5;
// Weakest correlation peak taken as a candidate.
constexpr double kMinPeak = 0.1;
// Candidate cost 1 - C (1 - kLagWeight T / Tmax): the shorter of two
// near-equal peaks wins, which keeps the track off multiples of the period.
constexpr double kLagWeight = 0.6;
// Unvoiced cost kVoicingBias + best peak: a frame is voiced on its own when
// its best (lag-weighted) peak exceeds about (1 - kVoicingBias) / 2.
constexpr double kVoicingBias = 0.3;
// Frames more than kQuietKnee dB below the loud frames (95th percentile of
// the frame energies) add up to kQuietWeight to every voiced cost, reached
// kQuietRange dB further down.
constexpr double kQuietKnee = 30.0;
constexpr double kQuietRange = 20.0;
constexpr double kQuietWeight = 0.5;
constexpr double kLoudFraction = 0.95;
// Energy floor of the correlation, relative to the loud frames: faint noise
// and silence do not correlate to 1 by themselves.
constexpr double kFloor = 1e-6;
// Transition costs: per unit of |log f0 step| between voiced frames (an
// octave jump costs 0.35), and per change of voicing.
constexpr double kStepWeight = 0.5;
constexpr double kVoicingChange = 1.0;
// Analysed band, Hz: hum and breath below, frication above stay out.
constexpr double kBandLow = 55.0, kBandHigh = 3000.0;
// Final period measurement window, periods.
constexpr double kRefinePeriods = 2.0;

struct Candidate {
  double lag;   // samples, interpolated
  double cost;  // local cost
};

struct FrameHypotheses {
  uint32_t count = 0;  // voiced candidates
  Candidate cand[kCandidates];
  double unvoiced = 0.0;  // local cost of the unvoiced hypothesis
};

int refuse(uint32_t nframes, double *f0) {
  for (uint32_t k = 0; k < nframes; ++k) f0[k] = 0.0;
  return -1;
}

// New array (caller frees): x band-passed to kBandLow .. kBandHigh, zero delay.
double *bandpass(const double *x, uint32_t n, double fs) {
  static const double tfreq[] = {0.0, kBandLow - 10.0, kBandLow, kBandHigh, kBandHigh * 5.0 / 3.0, 1e9};
  static const double tdb[] = {-40.0, -40.0, 0.0, 0.0, -40.0, -40.0};
  const double want = std::trunc(2048.0 * fs / 16000.0);
  if (!(want <= static_cast<double>(1u << 22))) return nullptr;
  const uint32_t nfft = getwinlengthceilpot2(want < 4.0 ? 4u : static_cast<uint32_t>(want));
  double *y = static_cast<double *>(std::malloc(sizeof(double) * (n > 0 ? n : 1)));
  if (!y) return nullptr;
  if (fftfilter(x, n, y, fs, nfft, tfreq, tdb, 6) != 0) {
    std::free(y);
    return nullptr;
  }
  return y;
}

inline double sampleat(const double *x, uint32_t n, int64_t i) {
  return (i >= 0 && i < static_cast<int64_t>(n)) ? x[i] : 0.0;
}

// Lag (samples) of the normalised cross-correlation peak of two windows of
// kRefinePeriods periods placed symmetrically about the frame centre c, among
// the integer lags around lag, parabolically interpolated; lag itself when
// there is no peak there.
double refinelag(const double *x, uint32_t n, int64_t c, double lag, uint32_t minlag, uint32_t maxlag) {
  const int64_t W = static_cast<int64_t>(std::ceil(kRefinePeriods * lag));
  const int64_t t0 = static_cast<int64_t>(std::floor(lag));
  double v[5];
  for (int64_t d = -2; d <= 2; ++d) {
    const int64_t t = t0 + d;
    if (t < static_cast<int64_t>(minlag) - 1 || t > static_cast<int64_t>(maxlag) + 1) return lag;
    const int64_t a0 = c - (W + t) / 2;
    double r = 0.0, ea = 0.0, eb = 0.0;
    for (int64_t i = 0; i < W; ++i) {
      const double xa = sampleat(x, n, a0 + i), xb = sampleat(x, n, a0 + i + t);
      r += xa * xb;
      ea += xa * xa;
      eb += xb * xb;
    }
    v[d + 2] = (ea > 0.0 && eb > 0.0) ? r / std::sqrt(ea * eb) : 0.0;
  }
  int best = 1;
  for (int i = 2; i <= 3; ++i)
    if (v[i] > v[best]) best = i;
  const double l = v[best - 1], m = v[best], r = v[best + 1];
  const double den = l - 2.0 * m + r;
  if (!(m >= l && m >= r) || !(den < 0.0)) return lag;
  return static_cast<double>(t0 + best - 2) + 0.5 * (l - r) / den;
}

// Offers candidate cd to h, replacing its costliest one when full.
void offer(FrameHypotheses *h, const Candidate &cd) {
  if (h->count < kCandidates) {
    h->cand[h->count++] = cd;
    return;
  }
  uint32_t worst = 0;
  for (uint32_t i = 1; i < kCandidates; ++i)
    if (h->cand[i].cost > h->cand[worst].cost) worst = i;
  if (cd.cost < h->cand[worst].cost) h->cand[worst] = cd;
}

int track(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes, double f0min,
          double f0max, double *f0, uint32_t threads) {
  if (!(f0min > 0)) f0min = 60;
  if (!(f0max > f0min)) f0max = 500;
  if (!(fs > 0) || !std::isfinite(fs) || shift == 0 || !std::isfinite(f0min) || !std::isfinite(f0max))
    return refuse(nframes, f0);
  double minlagd = std::floor(fs / f0max), maxlagd = std::ceil(fs / f0min);
  // A range too narrow to hold a peak between its ends is widened by a lag
  // either side (the result is clamped to the range).
  if (maxlagd < minlagd + 2.0) {
    minlagd -= 1.0;
    maxlagd += 1.0;
  }
  const double wd = std::ceil(std::max(kWindow, kMinPeriods / f0min) * fs);
  if (!(wd + maxlagd + 2 <= kMaxSpan)) return refuse(nframes, f0);
  const uint32_t minlag = minlagd < 2 ? 2 : static_cast<uint32_t>(minlagd);
  const uint32_t maxlag = static_cast<uint32_t>(maxlagd);
  const uint32_t W = static_cast<uint32_t>(wd);
  if (maxlag < minlag + 2 || W < 4) return refuse(nframes, f0);
  const uint32_t span = W + maxlag + 1;
  const uint32_t nfft = getwinlengthceilpot2(span);

  std::unique_ptr<double, void (*)(void *)> filtered(bandpass(x, n, fs), std::free);
  const double *y = filtered.get();
  if (!y) return refuse(nframes, f0);

  // The first window starts so that the two windows straddle the frame centre
  // at the geometric middle of the lag range.
  const int64_t midlag = static_cast<int64_t>(std::sqrt(static_cast<double>(minlag) * maxlag));
  const int64_t offset = static_cast<int64_t>(W / 2) + midlag / 2;
  auto startof = [&](uint32_t f) { return static_cast<int64_t>(first) + static_cast<int64_t>(f) * shift - offset; };

  // Frame energies and the level of the loud frames.
  threads = kestrel::threadsfor(nframes, kChunkFrames, threads);
  std::vector<double> energy0(nframes);
  kestrel::parallelchunks(nframes, kChunkFrames, threads, [&](uint32_t, uint64_t begin, uint64_t end) {
    for (uint64_t f = begin; f < end; ++f) {
      double e = 0.0;
      const int64_t s0 = startof(static_cast<uint32_t>(f));
      for (uint32_t i = 0; i < W; ++i) {
        const double v = sampleat(y, n, s0 + i);
        e += v * v;
      }
      energy0[f] = std::isfinite(e) ? e : 0.0;
    }
  });
  std::vector<double> sorted(energy0);
  const size_t pick = static_cast<size_t>(kLoudFraction * static_cast<double>(nframes - 1));
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(pick), sorted.end());
  const double eloud = sorted[pick] > 0.0 ? sorted[pick] : 1e-300;
  const double efloor = eloud * kFloor;
  const double dt = (static_cast<double>(shift) / fs) / 0.01;  // local costs per 10 ms

  std::vector<FrameHypotheses> hyps(nframes);
  const double scale = 1.0 / static_cast<double>(nfft);
  // One pair of plans for every frame, shared by the threads: the transforms'
  // bits are those of fftc/ifftc.
  using Plan = std::unique_ptr<FFTPLAN, void (*)(FFTPLAN *)>;
  const Plan forward(fftplancreate(static_cast<int32_t>(nfft), 1), fftplanfree);
  const Plan inverse(fftplancreate(static_cast<int32_t>(nfft), -1), fftplanfree);
  if (!forward || !inverse) return refuse(nframes, f0);
  struct Work {
    std::vector<double> buf, seg, nccf;
  };
  std::vector<Work> work(threads);
  for (Work &w : work) {
    w.buf.resize(2 * static_cast<size_t>(nfft));
    w.seg.resize(span);
    w.nccf.resize(maxlag + 2);
  }
  // Candidates of frame f (frames are independent until the search).
  auto candidates = [&](uint32_t f, Work &w) {
    double *buf = w.buf.data(), *seg = w.seg.data(), *nccf = w.nccf.data();
    const int64_t s0 = startof(f);
    for (uint32_t i = 0; i < span; ++i) seg[i] = sampleat(y, n, s0 + i);
    // First window in the real part, the whole span in the imaginary part.
    for (uint32_t i = 0; i < nfft; ++i) {
      buf[2 * i] = i < W ? seg[i] : 0.0;
      buf[2 * i + 1] = i < span ? seg[i] : 0.0;
    }
    fftplanc(forward.get(), buf);
    // Spectra A = (Z_k + conj Z_-k)/2 and B = (Z_k - conj Z_-k)/2j of the two
    // parts; conj(A) B transforms back to the cross-correlation.
    for (uint32_t i = 0; i <= nfft / 2; ++i) {
      const uint32_t m = (nfft - i) & (nfft - 1);
      const double zr = buf[2 * i], zi = buf[2 * i + 1], wr = buf[2 * m], wi = buf[2 * m + 1];
      const double ar = 0.5 * (zr + wr), ai = 0.5 * (zi - wi);
      const double br = 0.5 * (zi + wi), bi = -0.5 * (zr - wr);
      const double pr = ar * br + ai * bi, pi = ar * bi - ai * br;
      buf[2 * i] = pr;
      buf[2 * i + 1] = pi;
      if (m != i) {
        buf[2 * m] = pr;
        buf[2 * m + 1] = -pi;
      }
    }
    fftplanc(inverse.get(), buf);
    // Energies of the lagged window slide along the span.
    double e = 0.0;
    for (uint32_t i = 0; i < W; ++i) e += seg[i] * seg[i];
    const double e0 = e;
    for (uint32_t t = 0; t <= maxlag; ++t) {
      if (t > 0) e = e - seg[t - 1] * seg[t - 1] + seg[t + W - 1] * seg[t + W - 1];
      if (t + 1 >= minlag) nccf[t] = buf[2 * t] * scale / std::sqrt((e0 + efloor) * ((e > 0.0 ? e : 0.0) + efloor));
    }

    FrameHypotheses &h = hyps[f];
    double best = 0.0;
    for (uint32_t t = minlag; t < maxlag; ++t) {
      const double c = nccf[t], l = nccf[t - 1], r = nccf[t + 1];
      if (!(c >= kMinPeak) || !(c >= l) || !(c > r)) continue;
      const double den = l - 2.0 * c + r;
      double d = 0.0, v = c;
      if (den < 0.0) {
        d = std::min(0.5, std::max(-0.5, 0.5 * (l - r) / den));
        v = std::min(1.0, c - 0.25 * (l - r) * d);
      }
      const double lag = static_cast<double>(t) + d;
      best = std::max(best, v);
      offer(&h, Candidate{lag, 1.0 - v * (1.0 - kLagWeight * lag / static_cast<double>(maxlag))});
    }
    const double below = -10.0 * std::log10((energy0[f] + 1e-300) / eloud);
    const double quiet = std::min(1.0, std::max(0.0, (below - kQuietKnee) / kQuietRange));
    for (uint32_t i = 0; i < h.count; ++i) h.cand[i].cost = (h.cand[i].cost + kQuietWeight * quiet) * dt;
    h.unvoiced = (kVoicingBias + best) * dt;
  };
  kestrel::parallelchunks(nframes, kChunkFrames, threads, [&](uint32_t t, uint64_t begin, uint64_t end) {
    for (uint64_t f = begin; f < end; ++f) candidates(static_cast<uint32_t>(f), work[t]);
  });

  // Viterbi search: state i < count is voiced candidate i, state count unvoiced.
  constexpr uint32_t kStates = kCandidates + 1;
  double cost[kStates], next[kStates];
  std::vector<uint8_t> back(static_cast<size_t>(nframes) * kStates);
  for (uint32_t i = 0; i < hyps[0].count; ++i) cost[i] = hyps[0].cand[i].cost;
  cost[hyps[0].count] = hyps[0].unvoiced;
  for (uint32_t f = 1; f < nframes; ++f) {
    const FrameHypotheses &p = hyps[f - 1], &h = hyps[f];
    for (uint32_t i = 0; i <= h.count; ++i) {
      const bool vi = i < h.count;
      double low = INFINITY;
      uint32_t arg = 0;
      for (uint32_t j = 0; j <= p.count; ++j) {
        const bool vj = j < p.count;
        double t = 0.0;
        if (vi && vj)
          t = kStepWeight * std::fabs(std::log(p.cand[j].lag / h.cand[i].lag));
        else if (vi != vj)
          t = kVoicingChange;
        if (cost[j] + t < low) {
          low = cost[j] + t;
          arg = j;
        }
      }
      next[i] = low + (vi ? h.cand[i].cost : h.unvoiced);
      back[static_cast<size_t>(f) * kStates + i] = static_cast<uint8_t>(arg);
    }
    std::copy(next, next + h.count + 1, cost);
  }
  uint32_t state = 0;
  for (uint32_t i = 1; i <= hyps[nframes - 1].count; ++i)
    if (cost[i] < cost[state]) state = i;
  std::vector<uint8_t> path(nframes);
  for (uint32_t f = nframes; f-- > 0;) {
    path[f] = static_cast<uint8_t>(state);
    if (f > 0) state = back[static_cast<size_t>(f) * kStates + state];
  }
  kestrel::parallelchunks(nframes, kChunkFrames, threads, [&](uint32_t, uint64_t begin, uint64_t end) {
    for (uint64_t f = begin; f < end; ++f) {
      const FrameHypotheses &h = hyps[f];
      f0[f] = 0.0;
      if (path[f] < h.count) {
        const int64_t c = static_cast<int64_t>(first) + static_cast<int64_t>(f) * shift;
        const double v = fs / refinelag(x, n, c, h.cand[path[f]].lag, minlag, maxlag);
        f0[f] = std::min(f0max, std::max(f0min, v));
      }
    }
  });
  return 0;
}

}  // namespace

extern "C" {

int getpitchdp(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
               double f0min, double f0max, double *f0) {
  return getpitchdpthreads(x, n, fs, shift, first, nframes, f0min, f0max, f0, 1);
}

int getpitchdpthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                      double f0min, double f0max, double *f0, uint32_t threads) {
  if (nframes == 0) return 0;
  if (!f0 || (n > 0 && !x)) return f0 ? refuse(nframes, f0) : -1;
  try {
    return track(x, n, fs, shift, first, nframes, f0min, f0max, f0, threads);
  } catch (const std::bad_alloc &) {
    return refuse(nframes, f0);
  }
}

}  // extern "C"
