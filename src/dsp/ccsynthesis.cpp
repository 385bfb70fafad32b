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
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <unistd.h>

#include "ccanalysis.h"
#include "dft.h"
#include "harmonicanalysis.h"
#include "matvect.h"
#include "noisephases.h"
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

// Vector types for lane-wise IEEE arithmetic: each lane rounds exactly as the
// scalar operation does. Two lanes (SSE2) everywhere; four (AVX2) where the
// processor has them, chosen at run time, with the same bits.
typedef double v2d __attribute__((vector_size(16)));
typedef double v4d __attribute__((vector_size(32)));

// Rows of a matrix stored four at a time, column by column: row 4g + l,
// column k at [(g * n + k) * 4 + l]. Rows past the last one are zero.
constexpr uint32_t kLanes = 4;

void interleaverows(const double *M, uint32_t m, uint32_t n, double *out) {
  const uint64_t groups = (static_cast<uint64_t>(m) + kLanes - 1) / kLanes;
  for (uint64_t g = 0; g < groups; ++g)
    for (uint32_t k = 0; k < n; ++k)
      for (uint32_t l = 0; l < kLanes; ++l) {
        const uint64_t row = g * kLanes + l;
        out[(g * n + k) * kLanes + l] = row < m ? M[row * n + k] : 0.0;
      }
}

// Unaligned load of a register's lanes from p.
template <class VD>
inline __attribute__((always_inline)) VD &loadv(VD &v, const double *p) {
  __builtin_memcpy(&v, p, sizeof v);
  return v;
}

// r[i] = sum_k x[k]*M[i][k], k ascending from 0.0, as prodmat(M, x, r, m, n, 1)
// computes it, with M interleaved by interleaverows: the rows of a group are
// the lanes of kLanes / W registers, each lane its own sum in its own order.
template <class VD, uint32_t W>
inline __attribute__((always_inline)) void matvecbody(const double *Mi, const double *x, double *r, uint32_t m,
                                                      uint32_t n) {
  constexpr uint32_t P = kLanes / W;  // registers per group
  constexpr uint32_t Q = 4 / P;       // groups at a time: four sums in flight
  const uint32_t groups = (m + kLanes - 1) / kLanes;
  const uint64_t gs = static_cast<uint64_t>(n) * kLanes;  // group stride
  for (uint32_t g = 0; g < groups; g += Q) {
    const uint32_t q = groups - g < Q ? groups - g : Q;
    const double *a = Mi + g * gs;
    VD acc[4] = {}, t;
    if (q == Q) {
      for (uint32_t k = 0; k < n; ++k)
#pragma GCC unroll 4
        for (uint32_t v = 0; v < 4; ++v)
          acc[v] = acc[v] + x[k] * loadv(t, a + (v / P) * gs + 4 * k + (v % P) * W);
    } else {
      for (uint32_t k = 0; k < n; ++k)
        for (uint32_t v = 0; v < q * P; ++v)
          acc[v] = acc[v] + x[k] * loadv(t, a + (v / P) * gs + 4 * k + (v % P) * W);
    }
    for (uint32_t l = 0; l < q * kLanes && g * kLanes + l < m; ++l) r[g * kLanes + l] = acc[l / W][l % W];
  }
}

void matvecsse2(const double *Mi, const double *x, double *r, uint32_t m, uint32_t n) {
  matvecbody<v2d, 2>(Mi, x, r, m, n);
}

__attribute__((target("avx2"))) void matvecavx2(const double *Mi, const double *x, double *r, uint32_t m,
                                                  uint32_t n) {
  matvecbody<v4d, 4>(Mi, x, r, m, n);
}

void matvecinterleaved(bool avx2, const double *Mi, const double *x, double *r, uint32_t m, uint32_t n) {
  if (avx2)
    matvecavx2(Mi, x, r, m, n);
  else
    matvecsse2(Mi, x, r, m, n);
}

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
      kestrel::rotatestep(c[v], s[v], vc1[v], vs1[v]);
      const v2d cc = two * c[v];
      crow[2 * v][k] = cc[0];
      if (2 * v + 1 < G) crow[2 * v + 1][k] = cc[1];
      if (sinmatrix) {
        const v2d ss = mtwo * s[v];
        srow[2 * v][k] = ss[0];
        if (2 * v + 1 < G) srow[2 * v + 1][k] = ss[1];
      }
    }
  }
}

// The harmonic log amplitudes and phases of one frame straight from the
// cepstrum x: rows of the cosine and sine matrices that ccmatrixcreate(p, ..,
// f0, no list, ..) would fill, each multiplied by x as matvec does, column 0
// first, without storing the matrices. Every element and every partial sum
// is the same double as in that two-step evaluation. G rows side by side;
// c1, s1: their rotations, padded to whole registers with (1, 0).
template <class VD, uint32_t W, uint32_t G>
inline __attribute__((always_inline)) void rotatedots(uint32_t p, const double *c1, const double *s1,
                                                      const double *x, double *amps, double *phases) {
  constexpr uint32_t V = (G + W - 1) / W;
  VD c[V], s[V], vc1[V], vs1[V], ac[V], as[V];
  const VD zero = {}, one = zero + 1.0, mzero = -zero;
  for (uint32_t v = 0; v < V; ++v) {
    c[v] = one;
    s[v] = zero;
    loadv(vc1[v], c1 + v * W);
    loadv(vs1[v], s1 + v * W);
    ac[v] = zero + x[0] * one;  // column 0: 1.0 and -0.0
    as[v] = zero + x[0] * mzero;
  }
  for (uint32_t k = 1; k <= p; ++k) {
#pragma GCC unroll 4
    for (uint32_t v = 0; v < V; ++v) {
      kestrel::rotatestep(c[v], s[v], vc1[v], vs1[v]);
      ac[v] = ac[v] + x[k] * (2.0 * c[v]);
      as[v] = as[v] + x[k] * (-2.0 * s[v]);
    }
  }
  for (uint32_t g = 0; g < G; ++g) {
    amps[g] = ac[g / W][g % W];
    phases[g] = as[g / W][g % W];
  }
}

template <uint32_t G>
void rotatedotssse2(uint32_t p, const double *c1, const double *s1, const double *x, double *amps, double *phases) {
  rotatedots<v2d, 2, G>(p, c1, s1, x, amps, phases);
}

template <uint32_t G>
__attribute__((target("avx2"))) void rotatedotsavx2(uint32_t p, const double *c1, const double *s1, const double *x,
                                                     double *amps, double *phases) {
  rotatedots<v4d, 4, G>(p, c1, s1, x, amps, phases);
}

template <uint32_t G>
void harmonicdots(bool avx2, uint32_t p, uint32_t r, double w, double alpha, const double *x, double *amps,
                  double *phases) {
  constexpr uint32_t kPadded = (G + 3) / 4 * 4;
  double c1[kPadded], s1[kPadded];
  for (uint32_t g = 0; g < kPadded; ++g) {
    if (g < G) {
      const double wt = fwarp(static_cast<double>(r + g + 1) * w, alpha);
      c1[g] = std::cos(wt);
      s1[g] = std::sin(wt);
    } else {
      c1[g] = 1.0;  // unused lane
      s1[g] = 0.0;
    }
  }
  if (avx2)
    rotatedotsavx2<G>(p, c1, s1, x, amps + r, phases + r);
  else
    rotatedotssse2<G>(p, c1, s1, x, amps + r, phases + r);
}

// amps[0..nh) and phases[0..nh) of harmonics of f0: the products of the
// cepstrum with ccmatrixcreate's harmonic cosine and sine rows.
void harmonicrows(bool avx2, uint32_t p, uint32_t nh, double f0, double fs, double alpha, const double *x,
                  double *amps, double *phases) {
  const double w = f0 * kTwoPi / fs;
  uint32_t r = 0;
  for (; r + 8 <= nh; r += 8) harmonicdots<8>(avx2, p, r, w, alpha, x, amps, phases);
  for (; r + 4 <= nh; r += 4) harmonicdots<4>(avx2, p, r, w, alpha, x, amps, phases);
  for (; r + 2 <= nh; r += 2) harmonicdots<2>(avx2, p, r, w, alpha, x, amps, phases);
  if (r < nh) harmonicdots<1>(avx2, p, r, w, alpha, x, amps, phases);
}

// gennoisefromlogspectrumr with the frame's draws taken in one batch and the
// inverse FFT from a plan made once per utterance: the same operations on the
// same values. The frame's draws are the utterance's draws firstdraw on; those
// inside the noise-phase table come from it, the rest from predrawn when given
// (at the same indices), else from *state, which is at draw
// max(firstdraw, kNoisePhaseDraws) and is advanced past them. scratch and
// predrawn hold nfft/2 - 1 values.
void noiseframe(double *buf, uint32_t nfft, double fs, RANDGEN *state, uint64_t firstdraw, int32_t *scratch,
                const int32_t *predrawn, const FFTPLAN *inverse) {
  double *re = buf;
  double *im = buf + nfft;
  const uint32_t half = nfft / 2;
  const double gain = std::sqrt(fs / static_cast<double>(nfft));
  const uint32_t count = half - 1;
  const uint64_t left = firstdraw < kestrel::kNoisePhaseDraws ? kestrel::kNoisePhaseDraws - firstdraw : 0;
  const uint32_t intable = left < count ? static_cast<uint32_t>(left) : count;
  const int32_t *draws = predrawn;
  if (!draws) {
    randgendraws(state, scratch + intable, count - intable);
    draws = scratch;
  }
  const double *table = kestrel::noisephases().cs + 2 * (intable > 0 ? firstdraw : 0);
  re[0] = im[0] = 0.0;
  re[half] = im[half] = 0.0;
  for (uint32_t k = 1; k < half; ++k) {
    const double m = std::exp(re[k]) * gain;
    double c, s;
    if (k <= intable) {
      c = table[2 * (k - 1)];
      s = table[2 * (k - 1) + 1];
    } else {
      kestrel::noisephase(draws[k - 1], &c, &s);
    }
    im[k] = s * m;
    re[k] = c * m;
    re[nfft - k] = re[k];
    im[nfft - k] = -im[k];
  }
  fftplanr(inverse, re, im);
}

// olatriang(out, frame, 0, shift, 2*shift) for a frame that does not overlap
// out: the same product, then quotient, then sum per sample, W samples side
// by side.
template <class VD, uint32_t W>
inline __attribute__((always_inline)) void olabody(double *out, const double *frame, uint32_t shift) {
  const double d = static_cast<double>(shift);
  const uint32_t span = 2 * shift;
  VD num, step, o, f;
  for (uint32_t l = 0; l < W; ++l) step[l] = static_cast<double>(W);
  uint32_t i = 0;
  for (uint32_t l = 0; l < W; ++l) num[l] = static_cast<double>(l);
  for (; i + W <= shift; i += W, num = num + step) {  // rising: i / shift (integers below 2^32, exact)
    loadv(o, out + i);
    loadv(f, frame + i);
    o = o + f * num / d;
    __builtin_memcpy(out + i, &o, sizeof o);
  }
  for (; i < shift; ++i) out[i] += frame[i] * static_cast<double>(i) / d;
  for (uint32_t l = 0; l < W; ++l) num[l] = static_cast<double>(span - i - l);
  for (; i + W <= span; i += W, num = num - step) {  // falling: (2 shift - i) / shift
    loadv(o, out + i);
    loadv(f, frame + i);
    o = o + f * num / d;
    __builtin_memcpy(out + i, &o, sizeof o);
  }
  for (; i < span; ++i) out[i] += frame[i] * static_cast<double>(span - i) / d;
}

void olasse2(double *out, const double *frame, uint32_t shift) { olabody<v2d, 2>(out, frame, shift); }

__attribute__((target("avx2"))) void olaavx2(double *out, const double *frame, uint32_t shift) {
  olabody<v4d, 4>(out, frame, shift);
}

void olaframe(bool avx2, double *out, const double *frame, uint32_t shift) {
  if (avx2)
    olaavx2(out, frame, shift);
  else
    olasse2(out, frame, shift);
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
  bool flatc0;
  bool hasfv;
  bool avx2;  // four-lane kernels
  const double *envm;     // envelope-grid cosine matrix, rows interleaved
  const FFTPLAN *inverse;
};

// What a frame takes from the frames before it, fixed by the serial pre-pass.
// A cache line each: the calling thread writes the next frames' states while
// other threads read theirs.
struct alignas(64) FrameState {
  uint64_t firstdraw;  // the frame's first noise draw in the utterance
  double f;       // f0 after the range and fv checks (0: unvoiced)
  double fvi;     // maximum voiced frequency (voiced frames)
  double phi;     // phase of the fundamental at the frame centre
};

// True as soon as ready() is, false once it has stayed false for about `time`.
template <class Ready>
bool spinfor(std::chrono::nanoseconds time, Ready ready) {
  const auto until = std::chrono::steady_clock::now() + time;
  for (;;) {
    for (int k = 0; k < 64; ++k) {
      if (ready()) return true;
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    }
    if (std::chrono::steady_clock::now() >= until) return false;
  }
}

// One thread's work area.
struct FrameWork {
  std::vector<double> area;  // matrices, vectors and the FFT frame
  std::vector<int32_t> draws;
};

constexpr uint32_t kMaxThreads = 256;
constexpr uint64_t kRingDoubles = uint64_t{1} << 20;  // segments in flight, in doubles
constexpr uint64_t kMaxRingFrames = 512;
constexpr uint64_t kPublishFrames = 8;  // states fixed at a time (fewer for a very small ring)
constexpr std::chrono::microseconds kSpinTime{200};  // a worker's look for frames before it sleeps

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

// Synthesises a frame (cepstrum c, changed by the c0 round trip) with its
// noise drawn from *noise, or taken from predrawn (noiseframe); returns its
// 2*shift samples, in w's work area.
const double *synthframe(const Utterance &u, double *c, const FrameState &st, RANDGEN *noise,
                         const int32_t *predrawn, FrameWork *w) {
  double *amps = w->area.data();
  double *phases = amps + u.nhmax;
  double *grid = phases + u.nhmax;
  double *re = grid + u.nenv;
  const uint32_t nbins = u.nfft / 2 - 1;  // nfft >= 2 since shift >= 1
  const double dfbin = u.fs / static_cast<double>(u.nfft);
  const double f = st.f;

  c[0] += kNoiseGain;
  matvecinterleaved(u.avx2, u.envm, c, grid, u.nenv, u.p1);
  c[0] -= kNoiseGain;
  if (f > 0) applyhpfilterlog(u.nenv, kGridStep, grid, st.fvi);

  resamplelogampenv(kGridStep, grid, u.nenv, dfbin, re + 1, nbins);
  noiseframe(re, u.nfft, u.fs, noise, st.firstdraw, w->draws.data(), predrawn, u.inverse);

  if (f > 0) {
    uint32_t nh = hanoharms(u.fs, st.fvi, f);
    if (nh > u.nhmax) nh = u.nhmax;  // cannot happen for f >= f0min; keeps the arrays safe
    harmonicrows(u.avx2, u.order, nh, f, u.fs, u.alpha, c, amps, phases);
    const double gain = 2 * std::sqrt(f);
    for (uint32_t k = 0; k < nh; ++k) amps[k] = std::exp(amps[k]) * gain;
    applyantihpfilter(nh, f, amps, st.fvi);
    applyexcphase(nh, f, u.fs, phases);
    genharmonics(re, u.shift, u.shift, u.fs, f, nh, amps, phases, st.phi, 1);
  }
  return re;
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
// and the samples not yet handed out.
//
// With more than one thread the frames flow through a ring of `depth` slots
// (frame i in slot i mod depth): the calling thread fixes each frame's state in
// frame order (the serial pass), any thread synthesises a frame whose state is
// fixed, and the calling thread overlap-adds finished frames in frame order.
// The calling thread also takes frames whenever it has nothing else to do, so
// the serial work overlaps the synthesis and no thread waits for a batch to end.
struct CCSTREAM {
  Utterance u{};
  uint32_t threads = 1;
  uint64_t depth = 1;  // frames in flight at most
  uint64_t batch = 1;  // states fixed between wake-ups of the workers
  std::vector<double> envm, segments;
  std::vector<int32_t> ringdraws;  // per slot: the frame's draws past the noise-phase table
  uint64_t drawstride = 0;          // their slot size, whole cache lines
  std::vector<FrameWork> work;
  std::vector<FrameState> states;
  FFTPLAN *inverse = nullptr;
  RANDGEN noise{};    // at draw max(drawn, kNoisePhaseDraws)
  uint64_t drawn = 0;  // noise draws of the frames so far
  double phi = 0.0, f0prev = 0.0;
  uint64_t nframes = 0;  // frames synthesised
  bool finished = false;
  // Samples from acc0 on: acc[k] is sample acc0 + k; those below ready are final.
  std::vector<double> acc;
  uint64_t acc0 = 0, ready = 0, pulled = 0;

  // The worker threads and what they share with the calling thread, held
  // apart so that a forked child can leave them to the parent untouched.
  struct Crew {
    std::vector<std::thread> workers;
    std::mutex m;
    std::condition_variable wake;       // workers: frames to take, or stop
    std::condition_variable framedone;  // calling thread: a frame is done
    bool stop = false;                  // guarded by m
  };
  std::unique_ptr<Crew> crew;
  // Frame numbers count from the start of the utterance. Each count has a
  // cache line of its own, apart from what the threads only read.
  struct alignas(64) Count {
    std::atomic<uint64_t> v{0};
  };
  Count published;  // frames below this have their state fixed
  Count claimed;    // frames below this are taken by a thread
  std::unique_ptr<Count[]> done;  // per slot: frame number + 1 once synthesised
  Count waiting;   // 1 while the calling thread waits for a frame
  Count sleepers;  // workers waiting for frames
  double *callcc = nullptr;  // cepstra of the frames of the current push, from frame callfirst on
  uint64_t callfirst = 0;
  pid_t owner = ::getpid();  // a forked child has none of the workers

  bool forked() const { return ::getpid() != owner; }

  ~CCSTREAM() {
    if (crew && forked()) {
      // The workers, their lock and their conditions belong to the parent
      // (a worker may be waiting in the copy): left as they are.
      static_cast<void>(crew.release());
    } else if (crew) {
      {
        std::lock_guard<std::mutex> l(crew->m);
        crew->stop = true;
      }
      crew->wake.notify_all();
      for (std::thread &t : crew->workers) t.join();
    }
    fftplanfree(inverse);
  }

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
    u.avx2 = kestrel::haveavx2();
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
    // Refused by the size of the documented work area (the harmonic matrices
    // included), although the harmonic rows are no longer stored.
    const uint64_t nmat = p1 * rows;
    if (nmat > kMaxWorkDoubles || nmat + rows + 2 * static_cast<uint64_t>(u.nfft) > kMaxWorkDoubles) return false;
    threads = nthreads == 0 ? 1 : (nthreads > kMaxThreads ? kMaxThreads : nthreads);
    // Frames so long that two per thread would not fit the work-area limit
    // get fewer threads.
    if (threads > 1) {
      const uint64_t fit = kMaxWorkDoubles / twoshift;  // at least 64 segments
      if (threads > fit / 2) threads = static_cast<uint32_t>(fit / 2 > 1 ? fit / 2 : 1);
    }
    // Frames in flight: enough to keep every thread busy, few enough that
    // their segments stay small.
    if (threads > 1) {
      depth = kRingDoubles / twoshift;
      if (depth > kMaxRingFrames) depth = kMaxRingFrames;
      if (depth < 2 * static_cast<uint64_t>(threads)) depth = 2 * static_cast<uint64_t>(threads);
      batch = depth / 2 < kPublishFrames ? depth / 2 : kPublishFrames;
    }
    const uint64_t envgroups = (static_cast<uint64_t>(u.nenv) + kLanes - 1) / kLanes;
    try {
      std::vector<double> rowmajor(static_cast<size_t>(p1 * u.nenv));
      ccmatrixcreate(order, u.nenv, kGridStep, nullptr, fs, alpha, rowmajor.data(), nullptr);
      envm.resize(static_cast<size_t>(envgroups * kLanes * p1));
      interleaverows(rowmajor.data(), u.nenv, u.p1, envm.data());
      // One thread synthesises each frame as it goes: no segments to hold.
      if (threads > 1) {
        segments.resize(static_cast<size_t>(depth * twoshift));
        drawstride = (static_cast<uint64_t>(u.nfft / 2 - 1) + 15) & ~uint64_t{15};
        ringdraws.resize(static_cast<size_t>(depth * drawstride));
        done.reset(new Count[static_cast<size_t>(depth)]);
        crew.reset(new Crew);
      }
      states.resize(static_cast<size_t>(depth));
      work.resize(threads);
      for (FrameWork &w : work) {
        // Harmonic amplitudes and phases, envelope grid, FFT frame.
        w.area.resize(static_cast<size_t>(2 * static_cast<uint64_t>(u.nhmax) + u.nenv + 2 * u.nfft));
        w.draws.resize(u.nfft / 2);
      }
      acc.assign(static_cast<size_t>(shift) + 1, 0.0);
    } catch (const std::bad_alloc &) {
      return false;
    }
    inverse = fftplancreate(static_cast<int32_t>(u.nfft), -1);
    if (!inverse) return false;
    u.inverse = inverse;
    u.envm = envm.data();
    noise = kestrel::noisephases().after;
    // A worker that cannot be started leaves its frames to the others.
    for (uint32_t t = 1; t < threads; ++t) {
      try {
        crew->workers.emplace_back(&CCSTREAM::worker, this, &work[t]);
      } catch (...) {
        break;
      }
    }
    return true;
  }

  // The state of the next frame (f0 track value f0, fv track value fvtrack,
  // cepstrum c) from the frames before it. The draw count moves past the
  // frame's draws; the generator is left for the caller to advance.
  void nextstate(double f0, double fvtrack, const double *c, FrameState *st) {
    st->firstdraw = drawn;
    drawn += u.nfft / 2 - 1;
    st->f = voicing(u, fvtrack, f0, c, &st->fvi);
    if (st->f > 0) {
      if (f0prev > 0)
        phi = phi + kPi * (st->f + f0prev) * static_cast<double>(u.shift) / u.fs;
      else
        phi = 0.0;
    }
    st->phi = phi;
    f0prev = st->f;
  }

  // Takes the next frame whose state is fixed; false when there is none.
  bool claim(uint64_t *i) {
    uint64_t j = claimed.v.load(std::memory_order_relaxed);
    while (j < published.v.load(std::memory_order_acquire))
      if (claimed.v.compare_exchange_weak(j, j + 1, std::memory_order_relaxed)) {
        *i = j;
        return true;
      }
    return false;
  }

  // Synthesises frame i into its slot, with work area w.
  void synthslot(uint64_t i, FrameWork *w) {
    const uint64_t slot = i % depth;
    const uint64_t twoshift = 2 * static_cast<uint64_t>(u.shift);
    const double *frame =
        synthframe(u, callcc + (i - callfirst) * u.p1, states[slot], nullptr, ringdraws.data() + slot * drawstride, w);
    double *seg = segments.data() + slot * twoshift;
    for (uint64_t k = 0; k < twoshift; ++k) seg[k] = frame[k];
    // Sequentially consistent with `waiting`: either the calling thread sees
    // the frame done before it sleeps, or this thread sees it waiting.
    done[slot].v.store(i + 1, std::memory_order_seq_cst);
    if (waiting.v.load(std::memory_order_seq_cst) != 0) {
      {
        std::lock_guard<std::mutex> l(crew->m);  // the calling thread may be about to wait for this frame
      }
      crew->framedone.notify_one();
    }
  }

  void worker(FrameWork *w) {
    for (;;) {
      uint64_t i;
      if (claim(&i)) {
        synthslot(i, w);
        continue;
      }
      // Frames usually follow within microseconds (the next batch of states,
      // or the next push after the caller has taken its samples): look again
      // for a while before sleeping, since waking a thread costs far longer.
      const auto pending = [&] {
        return claimed.v.load(std::memory_order_relaxed) < published.v.load(std::memory_order_relaxed);
      };
      if (spinfor(kSpinTime, pending)) continue;
      std::unique_lock<std::mutex> l(crew->m);
      sleepers.v.fetch_add(1, std::memory_order_seq_cst);
      crew->wake.wait(l, [&] {
        return crew->stop || claimed.v.load(std::memory_order_relaxed) < published.v.load(std::memory_order_seq_cst);
      });
      sleepers.v.fetch_sub(1, std::memory_order_relaxed);
      if (crew->stop) return;
    }
  }

  // Synthesises the next n frames; emit(i, segment) overlap-adds frame i
  // (counted from the start of the utterance) where the caller wants it, in
  // frame order.
  template <class Emit>
  void synth(uint32_t n, const double *f0, const double *fv, double *cc, Emit emit) {
    const uint64_t first = nframes, end = nframes + n;
    // One thread synthesises each frame as its state is fixed, drawing from the
    // utterance's generator; so does a forked child, which has no workers.
    if (threads <= 1 || forked()) {
      for (uint64_t i = first; i < end; ++i) {
        double *c = cc + (i - first) * u.p1;
        nextstate(f0[i - first], fv ? fv[i - first] : 0.0, c, &states[0]);
        emit(i, synthframe(u, c, states[0], &noise, nullptr, &work[0]));
      }
      nframes = end;
      return;
    }
    const uint32_t nbins = u.nfft / 2 - 1;
    const uint64_t twoshift = 2 * static_cast<uint64_t>(u.shift);
    callcc = cc;
    callfirst = first;
    uint64_t fixed = first, out = first;  // next frame to fix, next to overlap-add
    while (out < end) {
      // Finished frames first: each frees a slot of the ring.
      if (done[out % depth].v.load(std::memory_order_acquire) == out + 1) {
        emit(out, segments.data() + (out % depth) * twoshift);
        ++out;
        continue;
      }
      // Keep the others fed: fix states a batch at a time, as far as the ring
      // allows (a partial batch only at the end of the frames).
      uint64_t upto = fixed + batch;
      if (upto > end) upto = end;
      if (fixed < upto && upto <= out + depth) {
        for (; fixed < upto; ++fixed) {
          const uint64_t j = fixed - first;
          FrameState &st = states[fixed % depth];
          nextstate(f0[j], fv ? fv[j] : 0.0, cc + j * u.p1, &st);
          // The frame's draws past the table, at the end of its bins, drawn here
          // once, in order, for whichever thread synthesises it.
          const uint64_t past = drawn > kestrel::kNoisePhaseDraws ? drawn - kestrel::kNoisePhaseDraws : 0;
          const uint32_t m = static_cast<uint32_t>(past < nbins ? past : nbins);
          randgendraws(&noise, ringdraws.data() + (fixed % depth) * drawstride + (nbins - m), m);
        }
        // Sequentially consistent with `sleepers`: a worker about to sleep
        // either sees these frames or is seen and woken.
        published.v.store(fixed, std::memory_order_seq_cst);
        if (sleepers.v.load(std::memory_order_seq_cst) != 0) {
          {
            std::lock_guard<std::mutex> l(crew->m);
          }
          crew->wake.notify_all();
        }
        continue;
      }
      uint64_t i;
      if (claim(&i)) {
        synthslot(i, &work[0]);
        continue;
      }
      // Every fixed frame is taken: wait for the one to overlap-add next.
      std::unique_lock<std::mutex> l(crew->m);
      waiting.v.store(1, std::memory_order_seq_cst);
      crew->framedone.wait(l, [&] { return done[out % depth].v.load(std::memory_order_seq_cst) == out + 1; });
      waiting.v.store(0, std::memory_order_relaxed);
    }
    nframes = end;
  }

  // Frames overlap-added into acc; samples before the next frame's start
  // become final.
  bool push(uint32_t n, const double *f0, const double *fv, double *cc) {
    const uint64_t shift = u.shift;
    const uint64_t end = (nframes + n + 1) * shift;  // past the last segment
    // Drop what was handed out, then make room for the frames.
    if (pulled > acc0) {
      acc.erase(acc.begin(), acc.begin() + static_cast<std::ptrdiff_t>(pulled - acc0));
      acc0 = pulled;
    }
    try {
      if (acc0 + acc.size() < end) acc.resize(static_cast<size_t>(end - acc0), 0.0);
    } catch (const std::bad_alloc &) {
      return false;
    }
    synth(n, f0, fv, cc, [&](uint64_t i, const double *seg) {
      olaframe(u.avx2, acc.data() + (i * shift - acc0), seg, u.shift);
    });
    ready = nframes * shift;
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
    kestrel::rotatestep(c, s, c1, s1);
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
    st.synth(nsynth, f0, fv, cc, [&](uint64_t i, const double *seg) {
      const uint64_t start = i * shift;
      if (start + twoshift <= length)
        olaframe(st.u.avx2, output + start, seg, shift);
      else
        olatriangclipped(output, seg, start, shift, length);
    });
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
