// Cepstral analysis: one frequency-warped cepstral vector per frame, in the
// convention the synthesis reads (log|H| = c0 + 2 sum ck cos(k w~)). Five
// per-frame methods share a common tail that turns an nfft-point natural-log
// spectrum into a warped cepstrum through the real cepstrum and ccwarp; the
// two discrete-cepstrum methods fit the warped cepstrum to harmonic log
// amplitudes directly and fall back on the noise spectrum.
#include "ccanalysis.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <new>
#include <vector>

#include "dft.h"
#include "harmonicanalysis.h"
#include "matvect.h"
#include "parallel.h"
#include "simd.h"
#include "spectralanalysis.h"
#include "windowing.h"

namespace {

constexpr double kDefaultFmin = 60.0;
constexpr uint32_t kMaxFft = 1u << 22;
// Frames a thread takes at a time.
constexpr uint32_t kChunkFrames = 8;
// Largest design matrix plus solver work area (doubles) a discrete-cepstrum
// fit may allocate when the harmonic area's buffer is too small (order ~1400).
constexpr uint64_t kMaxFitDoubles = uint64_t(1) << 22;

bool ispowerof2(uint32_t v) { return v != 0 && (v & (v - 1)) == 0; }

uint32_t kindof(const void *area) {
  uint32_t kind = 0;
  if (area) std::memcpy(&kind, area, sizeof kind);
  return kind;
}

// G consecutive passes of the warping recursion over buf[0..P], pass g adding
// cdown[-g]: element j of pass g needs only elements j-1 and j of pass g-1 and
// its own j-1, so the passes advance together one element at a time, their
// independent chains overlapping, each with its own operations and order.
constexpr uint64_t kWarpPasses = 8;

template <uint64_t G>
struct WarpGroup {
  double in[G], own[G];  // per pass: its input and its output at j - 1
  const double *cdown;
  // Element j of the group's passes from x, the element of the pass before
  // them; returns the element of the group's last pass.
  double step(uint64_t j, double x, double alpha, double beta) {
    if (j == 0) {
#pragma GCC unroll 8
      for (uint64_t g = 0; g < G; ++g) {
        const double v = alpha * x + cdown[-static_cast<int64_t>(g)];
        in[g] = x;
        own[g] = v;
        x = v;
      }
    } else if (j == 1) {
#pragma GCC unroll 8
      for (uint64_t g = 0; g < G; ++g) {
        const double v = alpha * x + beta * in[g];
        in[g] = x;
        own[g] = v;
        x = v;
      }
    } else {
#pragma GCC unroll 8
      for (uint64_t g = 0; g < G; ++g) {
        const double v = alpha * (x - own[g]) + in[g];
        in[g] = x;
        own[g] = v;
        x = v;
      }
    }
    return x;
  }
};

template <uint64_t G>
void warppasses(double *buf, uint64_t P, const double *cdown, double alpha, double beta) {
  WarpGroup<G> w;
  w.cdown = cdown;
  for (uint64_t j = 0; j <= P; ++j) buf[j] = w.step(j, buf[j], alpha, beta);
}

// L groups of kWarpPasses passes each in vector lanes, lane l taking the
// passes after lane l-1's and running kLag elements behind it, so that its
// input was made kLag steps before and consecutive steps overlap: lane l
// works on element t - l*kLag at step t. Elements 0 and 1 take the general
// formula alpha * (x - own) + in with own = 0 (x - 0 is x exactly) and in
// replaced by cdown[-g] or beta * in, which gives their own formulas' bits;
// a lane outside 0..P computes values nobody reads. cdown is the first pass's
// coefficient, lane l's is cdown - l*kWarpPasses.
constexpr uint64_t kLag = 4;

template <uint32_t L>
struct Lanes;
template <>
struct Lanes<2> {
  typedef double vec __attribute__((vector_size(16)));
  typedef int64_t index __attribute__((vector_size(16)));
};
template <>
struct Lanes<4> {
  typedef double vec __attribute__((vector_size(32)));
  typedef int64_t index __attribute__((vector_size(32)));
};

template <uint32_t L>
inline __attribute__((always_inline)) void warplanes(double *buf, uint64_t P, const double *cdown, double alpha,
                                                     double beta) {
  typedef typename Lanes<L>::vec vec;
  typedef typename Lanes<L>::index index;
  constexpr uint64_t G = kWarpPasses;
  vec in[G] = {}, own[G] = {}, cd[G];
  for (uint64_t g = 0; g < G; ++g)
    for (uint32_t l = 0; l < L; ++l) cd[g][l] = cdown[-static_cast<int64_t>(l * G + g)];
  vec hist[kLag] = {};  // output of the step t in hist[t % kLag]
  vec va, vb;
  index lag;  // lane l: l * kLag
  for (uint32_t l = 0; l < L; ++l) {
    va[l] = alpha;
    vb[l] = beta;
    lag[l] = static_cast<int64_t>(l * kLag);
  }
  const vec zero = {};
  const uint64_t last = P + (L - 1) * kLag;  // the last lane's last step
  const uint64_t early = (L - 1) * kLag + 1;  // to this step some lane may be at element 0 or 1
  for (uint64_t t = 0; t <= last; ++t) {
    const double b = t <= P ? buf[t] : 0.0;
    vec fresh;
    for (uint32_t l = 0; l < L; ++l) fresh[l] = b;
    // Lane l's input is lane l-1's output kLag steps ago; lane 0 reads buf.
    vec x;
    if constexpr (L == 2)
      x = __builtin_shufflevector(hist[t % kLag], fresh, 2, 0);  // (new, lane 0)
    else
      x = __builtin_shufflevector(hist[t % kLag], fresh, 4, 0, 1, 2);  // (new, lanes 0 1 2)
    if (t <= early) {
      index e = -lag;
      e += static_cast<int64_t>(t);  // each lane's element
      const index at0 = e == 0, at1 = e == 1, at01 = at0 | at1;
#pragma GCC unroll 8
      for (uint64_t g = 0; g < G; ++g) {
        const vec o = at01 ? zero : own[g];
        const vec a = at0 ? cd[g] : (at1 ? vb * in[g] : in[g]);
        const vec v = va * (x - o) + a;
        in[g] = x;
        own[g] = v;
        x = v;
      }
    } else {
#pragma GCC unroll 8
      for (uint64_t g = 0; g < G; ++g) {
        const vec v = va * (x - own[g]) + in[g];
        in[g] = x;
        own[g] = v;
        x = v;
      }
    }
    hist[t % kLag] = x;
    if (t >= (L - 1) * kLag) buf[t - (L - 1) * kLag] = x[L - 1];
  }
}

void warplanes2(double *buf, uint64_t P, const double *cdown, double alpha, double beta) {
  warplanes<2>(buf, P, cdown, alpha, beta);
}

KESTREL_TARGET_AVX2 void warplanes4avx2(double *buf, uint64_t P, const double *cdown, double alpha, double beta) {
  warplanes<4>(buf, P, cdown, alpha, beta);
}

// Warps r[0..m] into c[0..p] with a scratch of p+1 doubles: the free
// imaginary half of buf when it is large enough, otherwise a temporary.
// false only when that temporary cannot be allocated.
bool warpinto(const double *r, uint32_t m, double *c, uint32_t p, double alpha, double *im, uint32_t nfft) {
  if (static_cast<uint64_t>(p) + 1 <= nfft) {
    ccwarp(r, m, c, p, alpha, im);
    return true;
  }
  double *work = static_cast<double *>(std::malloc((static_cast<uint64_t>(p) + 1) * sizeof(double)));
  if (!work) return false;
  ccwarp(r, m, c, p, alpha, work);
  std::free(work);
  return true;
}

// Common tail: nfft-point log spectrum S in the real half of buf -> real
// cepstrum -> halve r(nfft/2) and r0 -> warp r0..rm -> double c0.
int cepstrumtail(double *buf, uint32_t nfft, uint32_t m, uint32_t p, double *c, double alpha,
                 const FFTPLAN *inverse) {
  double *re = buf;
  double *im = buf + nfft;
  const double scale = 1.0 / static_cast<double>(nfft);
  for (uint32_t i = 0; i < nfft; ++i) re[i] = re[i] * scale;
  for (uint32_t i = 0; i < nfft; ++i) im[i] = 0.0;
  if (fftplanlength(inverse) == static_cast<int32_t>(nfft))
    fftplanr(inverse, re, im);
  else
    ifftr(static_cast<int32_t>(nfft), re, im);
  re[nfft / 2] = re[nfft / 2] * 0.5;
  re[0] = re[0] * 0.5;
  if (!warpinto(re, m, c, p, alpha, im, nfft)) return -1;
  c[0] = c[0] * 2.0;  // the result of ccwarp is not checked: c0 is doubled anyway
  return 0;
}

// Noise log spectrum and the common tail over all quefrencies.
int noisetail(const double *x, uint32_t n, double fs, uint32_t centre, uint32_t nfft, double *buf, uint32_t p,
              double *c, double alpha, CCMEM *area) {
  if (getnoiselogspectrum(x, n, fs, centre, nfft, buf, area->noise) != 0) return -1;
  return cepstrumtail(buf, nfft, nfft / 2, p, c, alpha, area->inverse);
}

// Arguments every per-frame method needs to be meaningful and in bounds.
bool validcall(const double *x, uint32_t n, uint32_t nfft, const double *buf, const double *c, const CCMEM *area) {
  if (!buf || !c || !area || !area->noise || (n > 0 && !x)) return false;
  if (!ispowerof2(nfft) || nfft < 4 || nfft > kMaxFft) return false;
  return area->noise->N <= nfft;
}

bool voiced(double f0) { return f0 > 0.0 && std::isfinite(f0); }

// Regularised discrete cepstrum (codes 1 and 2): c0..cp fitted by least
// squares to the harmonic log amplitudes. 0 when the fit succeeded; -1 when
// the caller must fall back.
int discretecepstrum(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
                     uint32_t p, double *c, double alpha, void *harmonic, bool quasi) {
  if (!voiced(f0) || !harmonic) return -1;
  const uint32_t H = hanoharms(fs, fs, f0);
  if (H == 0 || H > nfft) return -1;
  double *amps = buf;
  double *freqs = buf + nfft;
  const uint32_t kind = kindof(harmonic);
  bool havefreqs = false;
  if (kind == QHAMEM_KIND) {
    QHAMEM *q = static_cast<QHAMEM *>(harmonic);
    if (getsqharmonics(x, n, fs, centre, f0, H, amps, nullptr, quasi ? freqs : nullptr, q) != 0) return -1;
    havefreqs = quasi;
  } else if (kind == HAMEM_KIND) {
    if (getharmonics(x, n, fs, centre, f0, H, amps, nullptr, static_cast<HAMEM *>(harmonic)) != 0) return -1;
  } else {
    return -1;
  }
  const double rootf0 = std::sqrt(f0);
  for (uint32_t h = 0; h < H; ++h) {
    amps[h] = std::log(amps[h] * 0.5 / rootf0);
    if (!std::isfinite(amps[h])) return -1;  // a zero amplitude has no log
  }
  // Design matrix H x (p+1) and the solver's (1 + 2(p+1))(p+1) doubles: in
  // the harmonic area's first buffer when they fit there.
  const uint64_t cols = static_cast<uint64_t>(p) + 1;
  const uint64_t need = static_cast<uint64_t>(H) * cols + (1 + 2 * cols) * cols;
  double *matrix;
  uint32_t capacity;
  if (kind == QHAMEM_KIND) {
    matrix = static_cast<QHAMEM *>(harmonic)->matrix;
    capacity = static_cast<QHAMEM *>(harmonic)->matrixsize;
  } else {
    matrix = static_cast<HAMEM *>(harmonic)->matrix;
    capacity = static_cast<HAMEM *>(harmonic)->matrixsize;
  }
  double *own = nullptr;
  if (need > capacity) {
    if (need > kMaxFitDoubles) return -1;  // orders far beyond any use: fall back
    own = static_cast<double *>(std::malloc(need * sizeof(double)));
    if (!own) return -1;
    matrix = own;
  }
  ccmatrixcreate(p, H, f0, havefreqs ? freqs : nullptr, fs, alpha, matrix, nullptr);
  const int r = solveleastsquares(matrix, amps, c, H, p + 1, 1, matrix + static_cast<uint64_t>(H) * cols, 1);
  std::free(own);
  return r;
}

// The per-frame routine of a method code; any code not listed is method 0.
using FrameMethod = int (*)(const double *, uint32_t, double, uint32_t, double, uint32_t, double *, uint32_t,
                            double *, double, CCMEM *);
FrameMethod framemethod(uint8_t method);

}  // namespace

extern "C" {

int ccwarp(const double *c, uint32_t m, double *out, uint32_t p, double alpha, double *work) {
  if (std::fabs(alpha) >= 1.0) return -1;
  if (alpha == 0.0) {
    // The unwarped shortcut copies c[0 .. min(m, p) - 1] only: out[p] is left
    // alone and c[m] unused, unlike the recursion (kept on purpose).
    for (uint32_t i = 0; i < p; ++i) out[i] = (i < m) ? c[i] : 0.0;
    return 0;
  }
  // 64-bit loop counters: m or p at UINT32_MAX must still terminate.
  const uint64_t P = p, M = m;
  for (uint64_t j = 0; j <= P; ++j) out[j] = 0.0;
  const double beta = 1.0 - alpha * alpha;
  // Pass i takes c[M - i]; passes run eight at a time, in place, so that the
  // scratch the interface provides for is no longer needed.
  (void)work;
  uint64_t i = 0;
  // Groups of passes side by side in vector lanes, each lane one element
  // behind the one before it: the same operations on every element.
  if (kestrel::haveavx2())
    for (; i + 4 * kWarpPasses <= M + 1; i += 4 * kWarpPasses) warplanes4avx2(out, P, c + (M - i), alpha, beta);
  for (; i + 2 * kWarpPasses <= M + 1; i += 2 * kWarpPasses) warplanes2(out, P, c + (M - i), alpha, beta);
  for (; i + kWarpPasses <= M + 1; i += kWarpPasses) warppasses<kWarpPasses>(out, P, c + (M - i), alpha, beta);
  for (; i <= M; ++i) warppasses<1>(out, P, c + (M - i), alpha, beta);
  return 0;
}

// In 32 bits, wrapping like every count: callers whose sizes may exceed
// 32 bits check them beforehand (waveform2cc refuses such calls).
uint32_t getccsize(uint32_t nframes, uint32_t p) { return (p + 1u) * nframes; }

uint32_t getnumframes(uint32_t nsamples, uint32_t shift, uint32_t first) {
  return getnumanalysisframes(nsamples, shift, first);
}

CCMEM *ccmeminitialize(double fs, double fmin, uint32_t framesize, uint32_t nfft, uint8_t method) {
  CCMEM *area = static_cast<CCMEM *>(std::malloc(sizeof(CCMEM)));
  if (!area) return nullptr;
  area->harmonic = nullptr;
  area->inverse = nullptr;
  area->noise = nameminitializefft(framesize, nfft);
  if (!area->noise) {
    std::free(area);
    return nullptr;
  }
  // Without a harmonic area (allocation refused) voiced frames take the
  // noise spectrum, as when their analysis fails.
  // Without a plan the cepstrum is transformed without one: the same bits.
  if (nfft <= kMaxFft) area->inverse = fftplancreate(static_cast<int32_t>(nfft), -1);
  if (method == 0 || method == 1)
    area->harmonic = hameminitialize(fs, fs, fmin);
  else if (method != 3 && method != 4)
    area->harmonic = qhameminitialize(fs, fs, fmin);
  return area;
}

int ccmemdestroy(CCMEM *area) {
  if (!area) return 0;
  const uint32_t kind = kindof(area->harmonic);
  if (kind == HAMEM_KIND) hamemdestroy(static_cast<HAMEM *>(area->harmonic));
  if (kind == QHAMEM_KIND) qhamemdestroy(static_cast<QHAMEM *>(area->harmonic));
  namemdestroy(area->noise);
  fftplanfree(area->inverse);
  std::free(area);
  return 0;
}

int getharmmcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
                uint32_t p, double *c, double alpha, CCMEM *area) {
  if (!validcall(x, n, nfft, buf, c, area)) return -1;
  // A quasi-harmonic area (unlisted method codes) serves as well.
  if (f0 == 0.0 || !area->harmonic ||
      getlogspectrumfromharms(x, n, fs, centre, f0, nfft, buf, static_cast<HAMEM *>(area->harmonic)) == -1) {
    if (getnoiselogspectrum(x, n, fs, centre, nfft, buf, area->noise) != 0) return -1;
  }
  return cepstrumtail(buf, nfft, nfft / 2, p, c, alpha, area->inverse);
}

int getharmrdc(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
               uint32_t p, double *c, double alpha, CCMEM *area) {
  if (!validcall(x, n, nfft, buf, c, area)) return -1;
  if (discretecepstrum(x, n, fs, centre, f0, nfft, buf, p, c, alpha, area->harmonic, false) == 0) return 0;
  return noisetail(x, n, fs, centre, nfft, buf, p, c, alpha, area);
}

int getqharmrdc(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
                uint32_t p, double *c, double alpha, CCMEM *area) {
  if (!validcall(x, n, nfft, buf, c, area)) return -1;
  if (discretecepstrum(x, n, fs, centre, f0, nfft, buf, p, c, alpha, area->harmonic, true) == 0) return 0;
  return noisetail(x, n, fs, centre, nfft, buf, p, c, alpha, area);
}

int getwwcmcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
               uint32_t p, double *c, double alpha, CCMEM *area) {
  if (!validcall(x, n, nfft, buf, c, area)) return -1;
  if (getsignallogspectrum(x, n, fs, centre, f0, nfft, buf, area->noise) != 0) return -1;
  // Only quefrencies below two thirds of the pitch period carry the envelope.
  uint32_t m = nfft / 2;
  if (f0 > 0.0) {
    const double q = std::floor(fs / (1.5 * f0));
    if (q < static_cast<double>(m)) m = q > 0.0 ? static_cast<uint32_t>(q) : 0;
  }
  return cepstrumtail(buf, nfft, m, p, c, alpha, area->inverse);
}

int getseemcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft, double *buf,
               uint32_t p, double *c, double alpha, CCMEM *area) {
  if (!validcall(x, n, nfft, buf, c, area)) return -1;
  if (getseevoclogspectrum(x, n, fs, centre, f0, nfft, buf, area->noise) != 0) return -1;
  return cepstrumtail(buf, nfft, nfft / 2, p, c, alpha, area->inverse);
}

int waveform2cc(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                const double *f0, uint32_t p, double *cc, double alpha, uint8_t method) {
  return waveform2ccthreads(x, n, fs, shift, first, nframes, f0, p, cc, alpha, method, 1);
}

int waveform2ccthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                       const double *f0, uint32_t p, double *cc, double alpha, uint8_t method, uint32_t threads) {
  if (nframes == 0) return 0;
  const uint64_t rowlen = static_cast<uint64_t>(p) + 1;
  if (!cc || rowlen * nframes > UINT32_MAX) return -1;  // beyond getccsize: nothing to clear
  // Refused calls leave a zeroed output rather than stale values.
  const auto refuse = [&] {
    for (uint64_t i = 0; i < rowlen * nframes; ++i) cc[i] = 0.0;
    return -1;
  };
  if (!f0 || (n > 0 && !x)) return refuse();
  if (!(fs > 0.0) || !std::isfinite(fs)) return refuse();
  // |alpha| >= 1 is not refused: ccwarp then leaves each row as it was and
  // only c0 is doubled (the discrete-cepstrum fits still fill their rows).

  // The lowest positive f0 below the default enlarges the windows and the FFT.
  double fmin = kDefaultFmin;
  for (uint32_t k = 0; k < nframes; ++k)
    if (f0[k] > 0.0 && f0[k] < fmin) fmin = f0[k];

  uint32_t nfft = 0;
  if (fs <= 8000)
    nfft = 512;
  else if (fs <= 16000)
    nfft = 1024;
  else if (fs <= 32000)
    nfft = 2048;
  else if (fs <= 64000)
    nfft = 4096;
  else if (fs <= 128000)
    nfft = 8192;
  const uint32_t F = naframesize(fs);
  const uint32_t N3 = getwinlengthnperiodsodd(3.0, fmin, fs);
  const uint32_t pot2 = getwinlengthceilpot2(F > N3 ? F : N3);
  if (nfft <= pot2) nfft = pot2;
  if (!ispowerof2(nfft) || nfft > kMaxFft) return refuse();

  threads = kestrel::threadsfor(nframes, kChunkFrames, threads);
  // One work area and frame buffer per thread, all made before any frame is
  // analysed.
  CCMEM *areas[kestrel::kMaxThreads] = {};
  double *bufs[kestrel::kMaxThreads] = {};
  bool ready = true;
  for (uint32_t t = 0; t < threads && ready; ++t) {
    areas[t] = ccmeminitialize(fs, fmin, F, nfft, method);
    bufs[t] = static_cast<double *>(std::malloc(2 * static_cast<size_t>(nfft) * sizeof(double)));
    ready = areas[t] && bufs[t];
  }
  std::atomic<bool> failed{!ready};
  if (ready) {
    // Every frame is analysed on its own, so the split does not matter.
    kestrel::parallelchunks(nframes, kChunkFrames, threads, [&](uint32_t t, uint64_t begin, uint64_t end) {
      for (uint64_t k = begin; k < end && !failed.load(std::memory_order_relaxed); ++k) {
        const uint32_t centre = first + static_cast<uint32_t>(k) * shift;
        if (framemethod(method)(x, n, fs, centre, f0[k], nfft, bufs[t], p, cc + rowlen * k, alpha, areas[t]) != 0)
          failed.store(true, std::memory_order_relaxed);
      }
    });
  }
  for (uint32_t t = 0; t < threads; ++t) {
    std::free(bufs[t]);
    if (areas[t]) ccmemdestroy(areas[t]);
  }
  return failed.load() ? refuse() : 0;
}

}  // extern "C"

namespace {

FrameMethod framemethod(uint8_t method) {
  static constexpr FrameMethod kMethods[] = {getharmmcep, getharmrdc, getqharmrdc, getwwcmcep, getseemcep};
  return method < 5 ? kMethods[method] : getharmmcep;
}

}  // namespace
