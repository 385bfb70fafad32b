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
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "ccanalysis.h"
#include "dft.h"
#include "harmonicanalysis.h"
#include "matvect.h"
#include "randgen.h"
#include "simd.h"
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

#if defined(KESTREL_AVX2)
// acc (lanes: rows a0 .. a3) plus x[k+q] * a_j[k+q] for q = 0 .. 3 in turn:
// four columns of four rows transposed, so that each lane takes its row's
// terms in ascending k, as the scalar loop does.
KESTREL_TARGET_AVX2 inline __attribute__((always_inline)) __m256d mac4x4(__m256d acc, const double *a0,
                                                                        const double *a1, const double *a2,
                                                                        const double *a3, const __m256d xk[4]) {
  const __m256d r0 = _mm256_loadu_pd(a0), r1 = _mm256_loadu_pd(a1);
  const __m256d r2 = _mm256_loadu_pd(a2), r3 = _mm256_loadu_pd(a3);
  const __m256d t0 = _mm256_unpacklo_pd(r0, r1), t1 = _mm256_unpackhi_pd(r0, r1);
  const __m256d t2 = _mm256_unpacklo_pd(r2, r3), t3 = _mm256_unpackhi_pd(r2, r3);
  acc = _mm256_add_pd(acc, _mm256_mul_pd(xk[0], _mm256_permute2f128_pd(t0, t2, 0x20)));
  acc = _mm256_add_pd(acc, _mm256_mul_pd(xk[1], _mm256_permute2f128_pd(t1, t3, 0x20)));
  acc = _mm256_add_pd(acc, _mm256_mul_pd(xk[2], _mm256_permute2f128_pd(t0, t2, 0x31)));
  acc = _mm256_add_pd(acc, _mm256_mul_pd(xk[3], _mm256_permute2f128_pd(t1, t3, 0x31)));
  return acc;
}

// Rows i .. i+4V-1 of matvec, four to an AVX vector; V vectors keep V
// independent chains of sums going.
template <uint32_t V>
KESTREL_TARGET_AVX2 void matvecavx2(const double *M, const double *x, double *r, uint32_t i, uint32_t n) {
  const double *a = M + static_cast<uint64_t>(i) * n;
  __m256d acc[V];
#pragma GCC unroll 4
  for (uint32_t v = 0; v < V; ++v) acc[v] = _mm256_setzero_pd();
  uint32_t k = 0;
  for (; k + 4 <= n; k += 4) {
    const __m256d xk[4] = {_mm256_set1_pd(x[k]), _mm256_set1_pd(x[k + 1]), _mm256_set1_pd(x[k + 2]),
                           _mm256_set1_pd(x[k + 3])};
#pragma GCC unroll 4
    for (uint32_t v = 0; v < V; ++v) {
      const double *b = a + static_cast<uint64_t>(4 * v) * n + k;
      acc[v] = mac4x4(acc[v], b, b + n, b + 2 * static_cast<uint64_t>(n), b + 3 * static_cast<uint64_t>(n), xk);
    }
  }
  for (; k < n; ++k) {
    const __m256d xk = _mm256_set1_pd(x[k]);
#pragma GCC unroll 4
    for (uint32_t v = 0; v < V; ++v) {
      const double *b = a + static_cast<uint64_t>(4 * v) * n + k;
      const __m256d col = _mm256_set_pd(b[3 * static_cast<uint64_t>(n)], b[2 * static_cast<uint64_t>(n)], b[n], b[0]);
      acc[v] = _mm256_add_pd(acc[v], _mm256_mul_pd(xk, col));
    }
  }
#pragma GCC unroll 4
  for (uint32_t v = 0; v < V; ++v) _mm256_storeu_pd(r + i + 4 * v, acc[v]);
}
#endif

// r[i] = sum_k x[k]*M[i][k], k ascending from 0.0, as prodmat(M, x, r, m, n, 1)
// computes it; four rows at a time so that the independent sums overlap.
void matvec(const double *M, const double *x, double *r, uint32_t m, uint32_t n) {
  uint32_t i = 0;
#if defined(KESTREL_AVX2)
  if (kestrel::haveavx2()) {
    for (; i + 16 <= m; i += 16) matvecavx2<4>(M, x, r, i, n);
    for (; i + 4 <= m; i += 4) matvecavx2<1>(M, x, r, i, n);
  }
#endif
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

// Utterance-wide settings and shared read-only tables of a synthesis.
struct Utterance {
  double fs, alpha, c0min, c0max;
  uint32_t shift, order, p1, nhmax, nenv, nfft;
  uint64_t nmat, total;
  bool flatc0;
  bool hasfv;
  const double *envm;     // envelope-grid cosine matrix
  const FFTPLAN *inverse;
};

// What a frame takes from the frames before it, fixed by the serial pre-pass.
struct FrameState {
  RANDGEN noise;  // generator at the frame's first draw
  double f;       // f0 after the range and fv checks (0: unvoiced)
  double fvi;     // maximum voiced frequency (voiced frames)
  double phi;     // phase of the fundamental at the frame centre
};

// One thread's work area.
struct FrameWork {
  std::vector<double> area;  // matrices, vectors and the FFT frame
  std::vector<int32_t> draws;
};

constexpr uint32_t kMaxThreads = 256;
constexpr uint64_t kBlockDoubles = uint64_t{1} << 20;  // segments per round, in doubles
constexpr uint64_t kMaxBlockFrames = 512;

// f0 of a frame after the range check and the fv test (fvi set when voiced);
// c0 is read after its round trip through the noise gain, as the frame sees it.
// fvtrack is the frame's fv when the utterance has a track.
double voicing(const Utterance &u, double fvtrack, double f, const double *c, double *fvi) {
  if (f > 0 && (f < kF0Floor || f > kF0Ceiling)) f = 0;
  *fvi = 0.0;
  if (f > 0) {
    const double c0 = (c[0] + kNoiseGain) - kNoiseGain;
    double v;
    if (u.hasfv)
      v = fvtrack;
    else
      v = u.flatc0 ? kFvLoudest : (c0 - u.c0min) * kFvLoudest / (u.c0max - u.c0min);
    if (v < kFvFloor) v = kFvFloor;
    *fvi = v;
    if (f >= v) f = 0;
  }
  return f;
}

// The 2*shift samples of a frame (cepstrum c, changed by the c0 round trip) into seg.
void synthframe(const Utterance &u, double *c, const FrameState &st, double *seg, FrameWork *w) {
  double *hcos = w->area.data();
  double *hsin = hcos + static_cast<uint64_t>(u.p1) * u.nhmax;
  double *amps = hcos + u.nmat;
  double *phases = amps + u.nhmax;
  double *grid = phases + u.nhmax;
  double *re = grid + u.nenv;
  const uint32_t nbins = u.nfft / 2 - 1;  // nfft >= 2 since shift >= 1
  const double dfbin = u.fs / static_cast<double>(u.nfft);
  const double f = st.f;

  c[0] += kNoiseGain;
  matvec(u.envm, c, grid, u.nenv, u.p1);
  c[0] -= kNoiseGain;
  if (f > 0) applyhpfilterlog(u.nenv, kGridStep, grid, st.fvi);

  resamplelogampenv(kGridStep, grid, u.nenv, dfbin, re + 1, nbins);
  RANDGEN noise = st.noise;
  noiseframe(re, u.nfft, u.fs, &noise, w->draws.data(), u.inverse);

  if (f > 0) {
    uint32_t nh = hanoharms(u.fs, st.fvi, f);
    if (nh > u.nhmax) nh = u.nhmax;  // cannot happen for f >= f0min; keeps the arrays safe
    ccmatrixcreate(u.order, nh, f, nullptr, u.fs, u.alpha, hcos, hsin);
    matvec(hcos, c, amps, nh, u.p1);
    const double gain = 2 * std::sqrt(f);
    for (uint32_t k = 0; k < nh; ++k) amps[k] = std::exp(amps[k]) * gain;
    applyantihpfilter(nh, f, amps, st.fvi);
    matvec(hsin, c, phases, nh, u.p1);
    applyexcphase(nh, f, u.fs, phases);
    genharmonics(re, u.shift, u.shift, u.fs, f, nh, amps, phases, st.phi, 1);
  }
  for (uint32_t k = 0; k < 2 * u.shift; ++k) seg[k] = re[k];
}

// The nb frames of cc (rows p1 apart) into their segments, frame j on thread
// j mod threads (the calling thread is thread 0; a thread that cannot be
// started leaves its frames to the calling thread).
void runframes(const Utterance &u, uint32_t nb, double *cc, const FrameState *states, double *segments,
               FrameWork *work, uint32_t threads) {
  const uint64_t twoshift = 2 * static_cast<uint64_t>(u.shift);
  auto run = [&](uint32_t t, uint32_t step, FrameWork *w) {
    for (uint32_t j = t; j < nb; j += step)
      synthframe(u, cc + static_cast<uint64_t>(j) * u.p1, states[j], segments + j * twoshift, w);
  };
  if (threads <= 1) {
    run(0, 1, &work[0]);
    return;
  }
  std::thread pool[kMaxThreads];
  for (uint32_t t = 1; t < threads; ++t) {
    try {
      pool[t] = std::thread(run, t, threads, &work[t]);
    } catch (...) {
    }
  }
  run(0, threads, &work[0]);
  for (uint32_t t = 1; t < threads; ++t)
    if (!pool[t].joinable()) run(t, threads, &work[0]);
  for (uint32_t t = 1; t < threads; ++t)
    if (pool[t].joinable()) pool[t].join();
}

// The lowest f0 that sizes the harmonic matrices, and the c0 range of the fv
// estimate (0, 0 with a track): the values synthesis needs before its first frame.
void prescan(uint32_t nframes, const double *f0, const double *cc, uint64_t p1, bool hasfv, double *f0min,
             double *c0min, double *c0max) {
  *f0min = kF0MinStart;
  for (uint32_t i = 0; i < nframes; ++i)
    if (f0[i] >= kF0Floor && f0[i] < *f0min) *f0min = f0[i];
  *c0max = 0.0;
  *c0min = 0.0;
  if (!hasfv) {
    *c0max = -DBL_MAX;
    *c0min = DBL_MAX;
    for (uint32_t i = 0; i < nframes; ++i) {
      const double c0 = cc[i * p1];
      if (f0[i] > 0 && c0 > *c0max) *c0max = c0;
      if (c0 < *c0min) *c0min = c0;
    }
  }
}

}  // namespace

// A synthesis in progress: the utterance's tables and work areas, what the
// frames carry from one to the next (generator state, phase, previous f0),
// and the samples not yet handed out. Frames are synthesised in rounds; a
// serial pass fixes each frame's state, so a round's frames are independent
// and their segments are overlap-added in frame order, whatever the rounds.
struct CCSTREAM {
  Utterance u{};
  uint32_t threads = 1;
  uint64_t block = 1;  // frames per round at most
  std::vector<double> envm;
  // Segments of a round, each written whole before it is read: left
  // uninitialised, so that only what rounds use is ever touched.
  std::unique_ptr<double[]> segments;
  std::vector<FrameWork> work;
  std::vector<FrameState> states;
  FFTPLAN *inverse = nullptr;
  RANDGEN noise{};
  double phi = 0.0, f0prev = 0.0;
  uint64_t nframes = 0;  // frames synthesised
  bool finished = false;
  // Samples from acc0 on: acc[k] is sample acc0 + k; those below ready are final.
  std::vector<double> acc;
  uint64_t acc0 = 0, ready = 0;

  ~CCSTREAM() { fftplanfree(inverse); }

  // Sets up the tables and work areas; false when they are refused.
  bool init(double fs, uint32_t shift, uint32_t order, double alpha, double f0min, bool hasfv, double c0min,
            double c0max, uint32_t nthreads) {
    const uint64_t p1 = static_cast<uint64_t>(order) + 1;
    if (shift == 0 || p1 > kMaxWorkDoubles || !(fs > 0.0)) return false;
    u.fs = fs;
    u.shift = shift;
    u.alpha = alpha;
    u.order = order;
    u.p1 = static_cast<uint32_t>(p1);
    u.hasfv = hasfv;
    u.c0min = c0min;
    u.c0max = c0max;
    // Every voiced frame sharing the utterance's lowest c0 leaves the fv
    // formula without a scale: those utterances use the loudest-frame fv.
    u.flatc0 = (c0max == c0min);
    u.nhmax = hanoharms(fs, fs, f0min);
    u.nenv = hanoharms(fs, fs, kGridStep);
    const uint64_t twoshift = 2 * static_cast<uint64_t>(shift);
    const uint64_t rows = 2 * static_cast<uint64_t>(u.nhmax) + u.nenv;
    if (twoshift > kMaxWorkDoubles || rows > kMaxWorkDoubles) return false;
    u.nfft = getwinlengthceilpot2(static_cast<uint32_t>(twoshift));
    u.nmat = p1 * rows;
    u.total = u.nmat + rows + 2 * static_cast<uint64_t>(u.nfft);
    if (u.nmat > kMaxWorkDoubles || u.total > kMaxWorkDoubles) return false;
    threads = nthreads == 0 ? 1 : (nthreads > kMaxThreads ? kMaxThreads : nthreads);
    // Frames synthesised per round: enough to keep every thread busy, few
    // enough that their segments stay small.
    block = kBlockDoubles / twoshift;
    if (block > kMaxBlockFrames) block = kMaxBlockFrames;
    if (block < threads) block = threads;
    try {
      envm.assign(static_cast<size_t>(p1 * u.nenv), 0.0);
      segments.reset(new double[static_cast<size_t>(block * twoshift)]);
      states.resize(static_cast<size_t>(block));
      work.resize(threads);
      for (FrameWork &w : work) {
        w.area.assign(static_cast<size_t>(u.total), 0.0);
        w.draws.assign(u.nfft / 2, 0);
      }
      acc.assign(static_cast<size_t>(shift) + 1, 0.0);
    } catch (const std::bad_alloc &) {
      return false;
    }
    inverse = fftplancreate(static_cast<int32_t>(u.nfft), -1);
    if (!inverse) return false;
    u.inverse = inverse;
    u.envm = envm.data();
    ccmatrixcreate(order, u.nenv, kGridStep, nullptr, fs, alpha, envm.data(), nullptr);
    randgenseed(&noise, 0);
    return true;
  }

  // Synthesises nb (at most block) frames; emit(j, segment) overlap-adds
  // frame nframes + j where the caller wants it.
  template <class Emit>
  void round(uint32_t nb, const double *f0, const double *fv, double *cc, Emit emit) {
    const uint32_t nbins = u.nfft / 2 - 1;
    for (uint32_t j = 0; j < nb; ++j) {
      FrameState &st = states[j];
      st.noise = noise;
      randgendraws(&noise, work[0].draws.data(), nbins);
      st.f = voicing(u, fv ? fv[j] : 0.0, f0[j], cc + static_cast<uint64_t>(j) * u.p1, &st.fvi);
      if (st.f > 0) {
        if (f0prev > 0)
          phi = phi + kPi * (st.f + f0prev) * static_cast<double>(u.shift) / u.fs;
        else
          phi = 0.0;
      }
      st.phi = phi;
      f0prev = st.f;
    }
    runframes(u, nb, cc, states.data(), segments.get(), work.data(), threads > nb ? nb : threads);
    const uint64_t twoshift = 2 * static_cast<uint64_t>(u.shift);
    for (uint32_t j = 0; j < nb; ++j) emit(nframes + j, segments.get() + j * twoshift);
    nframes += nb;
  }

  // Frames in rounds, overlap-added into acc; samples before the next
  // frame's start become final.
  bool push(uint32_t n, const double *f0, const double *fv, double *cc) {
    const uint64_t shift = u.shift;
    for (uint32_t done = 0; done < n;) {
      const uint32_t nb = static_cast<uint32_t>(n - done < block ? n - done : block);
      const uint64_t end = (nframes + nb + 1) * shift;  // past the round's last segment
      // Drop what was handed out, then make room for the round.
      if (pulled > acc0) {
        acc.erase(acc.begin(), acc.begin() + static_cast<std::ptrdiff_t>(pulled - acc0));
        acc0 = pulled;
      }
      try {
        if (acc0 + acc.size() < end) acc.resize(static_cast<size_t>(end - acc0), 0.0);
      } catch (const std::bad_alloc &) {
        return false;
      }
      round(nb, f0 + done, fv ? fv + done : nullptr, cc + static_cast<uint64_t>(done) * u.p1,
            [&](uint64_t i, const double *seg) {
              const uint32_t start = static_cast<uint32_t>(i * shift - acc0);
              olatriang(acc.data(), seg, start, start + u.shift, start + 2 * u.shift);
            });
      done += nb;
      ready = nframes * shift;
    }
    return true;
  }

  void finish() {
    if (finished) return;
    finished = true;
    const uint64_t end = (nframes + 1) * static_cast<uint64_t>(u.shift) + 1;  // the final sample stays 0.0
    if (acc0 + acc.size() < end) acc.resize(static_cast<size_t>(end - acc0), 0.0);
    ready = end;
  }

  uint32_t pull(double *out, uint32_t max) {
    uint64_t n = ready - pulled;
    if (n > max) n = max;
    const double *from = acc.data() + (pulled - acc0);
    for (uint64_t k = 0; k < n; ++k) out[k] = from[k];
    pulled += n;
    return static_cast<uint32_t>(n);
  }
  uint64_t pulled = 0;
};

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
  return cc2waveformthreads(output, length, fs, shift, nframes, f0, fv, order, cc, alpha, 1);
}

int cc2waveformthreads(double *output, uint32_t length, double fs, uint32_t shift, uint32_t nframes,
                       const double *f0, const double *fv, uint32_t order, double *cc, double alpha,
                       uint32_t threads) {
  if (length > 0 && !output) return -1;
  for (uint32_t n = 0; n < length; ++n) output[n] = 0.0;
  if (nframes == 0) return 0;
  if (!f0 || !cc) return -1;
  const uint64_t p1 = static_cast<uint64_t>(order) + 1;
  if (p1 > kMaxWorkDoubles) return -1;

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
    double f0min, c0min, c0max;
    prescan(nframes, f0, cc, p1, fv != nullptr, &f0min, &c0min, &c0max);
    CCSTREAM st;
    if (!st.init(fs, shift, order, alpha, f0min, fv != nullptr, c0min, c0max, threads > nsynth ? nsynth : threads))
      return -1;
    // The whole output is at hand: segments go straight into it.
    const uint64_t twoshift = 2 * static_cast<uint64_t>(shift);
    for (uint32_t b0 = 0; b0 < nsynth; b0 += static_cast<uint32_t>(st.block)) {
      const uint32_t nb = (nsynth - b0 < st.block) ? nsynth - b0 : static_cast<uint32_t>(st.block);
      st.round(nb, f0 + b0, fv ? fv + b0 : nullptr, cc + b0 * p1, [&](uint64_t i, const double *seg) {
        const uint64_t start = i * shift;
        if (start + twoshift <= length)
          olatriang(output, seg, static_cast<uint32_t>(start), static_cast<uint32_t>(start + shift),
                    static_cast<uint32_t>(start + twoshift));
        else
          olatriangclipped(output, seg, start, shift, length);
      });
    }
  }

  for (uint32_t i = nsynth; i < nframes; ++i) {
    double *c = cc + i * p1;
    c[0] += kNoiseGain;
    c[0] -= kNoiseGain;
  }
  return 0;
}

int ccstreamprescan(uint32_t nframes, const double *f0, const double *cc, uint32_t order, uint8_t hasfv,
                    double *f0min, double *c0min, double *c0max) {
  if ((nframes > 0 && (!f0 || (!cc && !hasfv))) || !f0min || !c0min || !c0max) return -1;
  prescan(nframes, f0, cc, static_cast<uint64_t>(order) + 1, hasfv != 0, f0min, c0min, c0max);
  return 0;
}

CCSTREAM *ccstreamopen(double fs, uint32_t shift, uint32_t order, double alpha, double f0min, uint8_t hasfv,
                       double c0min, double c0max, uint32_t threads) {
  CCSTREAM *st = new (std::nothrow) CCSTREAM;
  if (st && !st->init(fs, shift, order, alpha, f0min, hasfv != 0, c0min, c0max, threads)) {
    delete st;
    st = nullptr;
  }
  return st;
}

int ccstreampush(CCSTREAM *st, uint32_t nframes, const double *f0, const double *fv, double *cc) {
  if (!st || st->finished || (nframes > 0 && (!f0 || !cc || (st->u.hasfv && !fv)))) return -1;
  if (st->nframes + nframes > UINT32_MAX) return -1;
  return st->push(nframes, f0, st->u.hasfv ? fv : nullptr, cc) ? 0 : -1;
}

int ccstreamfinish(CCSTREAM *st) {
  if (!st) return -1;
  st->finish();
  return 0;
}

uint32_t ccstreampull(CCSTREAM *st, double *out, uint32_t max) {
  if (!st || (!out && max > 0)) return 0;
  return st->pull(out, max);
}

int ccstreamclose(CCSTREAM *st) {
  delete st;
  return 0;
}

}  // extern "C"
