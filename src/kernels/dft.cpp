// One radix-2 decimation-in-time FFT over two memory layouts.  The twiddle
// factors of a stage of span m come from one complex rotation by 2 pi/m,
// w(k+1) = w(k) * (cos, sin) rounded to double at each step from w(0) = 1, so
// each stage needs a single cos/sin pair; every product is rounded exactly as
// written, which fixes the result bits.
//
// The butterflies of one stage touch disjoint pairs, so their order is free:
// they run group by group with k innermost, two at a time in SSE2 lanes (lane-
// wise IEEE arithmetic, the same operations in the same order per element).
// Without a plan the twiddles are generated a block at a time on the stack; a
// plan holds every stage's table and the bit-reversal pairs.
#include "dft.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include "simd.h"

struct FFTPLAN {
  int32_t n;
  uint32_t npairs;
  uint32_t *pairs;  // bit-reversal swaps (i, j), i < j, in ascending i
  double *wre;      // stage with half-span h: entries h-1 .. 2h-2
  double *wim;
};

namespace {

constexpr double kTwoPi = 6.283185307179586;
// Twiddles generated per block when there is no plan (two arrays on the stack).
constexpr int64_t kBlock = 128;

bool ispow2(int32_t n) { return n > 0 && (n & (n - 1)) == 0; }

// Rotation of the stage of span m: advance() gives w(k+1) from w(k).
struct Rotor {
  double ct, st, wre = 1.0, wim = 0.0;
  Rotor(int64_t m, int8_t direction) {
    const double sign = (direction == -1) ? 1.0 : -1.0;
    const double theta = (sign * kTwoPi) / static_cast<double>(m);
    ct = std::cos(theta);
    st = std::sin(theta);
  }
  void advance() {
    const double nre = wre * ct - wim * st;
    const double nim = wre * st + wim * ct;
    wre = nre;
    wim = nim;
  }
  // count twiddles from the current one on into wr/wi; leaves the rotor at the next.
  void fill(double *wr, double *wi, int64_t count) {
    for (int64_t k = 0; k < count; ++k) {
      wr[k] = wre;
      wi[k] = wim;
      advance();
    }
  }
};

inline void butterfly(double &pre, double &pim, double &qre, double &qim, double wre, double wim) {
  const double tre = qre * wre - qim * wim;
  const double tim = qre * wim + qim * wre;
  const double a = pre, b = pim;
  pre = a + tre;
  pim = b + tim;
  qre = a - tre;
  qim = b - tim;
}

// Split layout: the butterflies k0 .. k0+count-1 of every group of span 2h,
// with twiddles wr[0..count), wi[0..count).
void stagesplit(int64_t n, int64_t h, int64_t k0, int64_t count, const double *wr, const double *wi, double *re,
                double *im) {
  int64_t s = 0;
#if defined(__SSE2__)
  if (h == 1) {  // one butterfly per group: two neighbouring groups share the lanes
    const __m128d wre = _mm_set1_pd(wr[0]), wim = _mm_set1_pd(wi[0]);
    for (; s + 4 <= n; s += 4) {
      const __m128d r0 = _mm_loadu_pd(re + s), r1 = _mm_loadu_pd(re + s + 2);
      const __m128d i0 = _mm_loadu_pd(im + s), i1 = _mm_loadu_pd(im + s + 2);
      const __m128d pre = _mm_unpacklo_pd(r0, r1), qre = _mm_unpackhi_pd(r0, r1);
      const __m128d pim = _mm_unpacklo_pd(i0, i1), qim = _mm_unpackhi_pd(i0, i1);
      const __m128d tre = _mm_sub_pd(_mm_mul_pd(qre, wre), _mm_mul_pd(qim, wim));
      const __m128d tim = _mm_add_pd(_mm_mul_pd(qre, wim), _mm_mul_pd(qim, wre));
      const __m128d are = _mm_add_pd(pre, tre), aim = _mm_add_pd(pim, tim);
      const __m128d bre = _mm_sub_pd(pre, tre), bim = _mm_sub_pd(pim, tim);
      _mm_storeu_pd(re + s, _mm_unpacklo_pd(are, bre));
      _mm_storeu_pd(re + s + 2, _mm_unpackhi_pd(are, bre));
      _mm_storeu_pd(im + s, _mm_unpacklo_pd(aim, bim));
      _mm_storeu_pd(im + s + 2, _mm_unpackhi_pd(aim, bim));
    }
  }
#endif
  for (; s < n; s += 2 * h) {
    double *pr = re + s + k0, *pi = im + s + k0;
    double *qr = pr + h, *qi = pi + h;
    int64_t k = 0;
#if defined(__SSE2__)
    for (; k + 2 <= count; k += 2) {
      const __m128d wre = _mm_loadu_pd(wr + k), wim = _mm_loadu_pd(wi + k);
      const __m128d qre = _mm_loadu_pd(qr + k), qim = _mm_loadu_pd(qi + k);
      const __m128d tre = _mm_sub_pd(_mm_mul_pd(qre, wre), _mm_mul_pd(qim, wim));
      const __m128d tim = _mm_add_pd(_mm_mul_pd(qre, wim), _mm_mul_pd(qim, wre));
      const __m128d pre = _mm_loadu_pd(pr + k), pim = _mm_loadu_pd(pi + k);
      _mm_storeu_pd(pr + k, _mm_add_pd(pre, tre));
      _mm_storeu_pd(pi + k, _mm_add_pd(pim, tim));
      _mm_storeu_pd(qr + k, _mm_sub_pd(pre, tre));
      _mm_storeu_pd(qi + k, _mm_sub_pd(pim, tim));
    }
#endif
    for (; k < count; ++k) butterfly(pr[k], pi[k], qr[k], qi[k], wr[k], wi[k]);
  }
}

// Interleaved layout, same butterflies: two neighbours are split into re and
// im lanes, transformed as in stagesplit and interleaved again.
void stageinterleaved(int64_t n, int64_t h, int64_t k0, int64_t count, const double *wr, const double *wi,
                      double *x) {
  int64_t s = 0;
#if defined(__SSE2__)
  if (h == 1) {  // one butterfly per group: two neighbouring groups share the lanes
    const __m128d wre = _mm_set1_pd(wr[0]), wim = _mm_set1_pd(wi[0]);
    for (; s + 4 <= n; s += 4) {
      double *g = x + 2 * s;  // p, q, then the next group's p, q
      const __m128d p0 = _mm_loadu_pd(g), q0 = _mm_loadu_pd(g + 2);
      const __m128d p1 = _mm_loadu_pd(g + 4), q1 = _mm_loadu_pd(g + 6);
      const __m128d pre = _mm_unpacklo_pd(p0, p1), pim = _mm_unpackhi_pd(p0, p1);
      const __m128d qre = _mm_unpacklo_pd(q0, q1), qim = _mm_unpackhi_pd(q0, q1);
      const __m128d tre = _mm_sub_pd(_mm_mul_pd(qre, wre), _mm_mul_pd(qim, wim));
      const __m128d tim = _mm_add_pd(_mm_mul_pd(qre, wim), _mm_mul_pd(qim, wre));
      const __m128d are = _mm_add_pd(pre, tre), aim = _mm_add_pd(pim, tim);
      const __m128d bre = _mm_sub_pd(pre, tre), bim = _mm_sub_pd(pim, tim);
      _mm_storeu_pd(g, _mm_unpacklo_pd(are, aim));
      _mm_storeu_pd(g + 2, _mm_unpacklo_pd(bre, bim));
      _mm_storeu_pd(g + 4, _mm_unpackhi_pd(are, aim));
      _mm_storeu_pd(g + 6, _mm_unpackhi_pd(bre, bim));
    }
  }
#endif
  for (; s < n; s += 2 * h) {
    double *p = x + 2 * (s + k0);
    double *q = p + 2 * h;
    int64_t k = 0;
#if defined(__SSE2__)
    for (; k + 2 <= count; k += 2) {
      const __m128d wre = _mm_loadu_pd(wr + k), wim = _mm_loadu_pd(wi + k);
      const __m128d q0 = _mm_loadu_pd(q + 2 * k), q1 = _mm_loadu_pd(q + 2 * k + 2);
      const __m128d qre = _mm_unpacklo_pd(q0, q1), qim = _mm_unpackhi_pd(q0, q1);
      const __m128d tre = _mm_sub_pd(_mm_mul_pd(qre, wre), _mm_mul_pd(qim, wim));
      const __m128d tim = _mm_add_pd(_mm_mul_pd(qre, wim), _mm_mul_pd(qim, wre));
      const __m128d p0 = _mm_loadu_pd(p + 2 * k), p1 = _mm_loadu_pd(p + 2 * k + 2);
      const __m128d pre = _mm_unpacklo_pd(p0, p1), pim = _mm_unpackhi_pd(p0, p1);
      const __m128d are = _mm_add_pd(pre, tre), aim = _mm_add_pd(pim, tim);
      const __m128d bre = _mm_sub_pd(pre, tre), bim = _mm_sub_pd(pim, tim);
      _mm_storeu_pd(p + 2 * k, _mm_unpacklo_pd(are, aim));
      _mm_storeu_pd(p + 2 * k + 2, _mm_unpackhi_pd(are, aim));
      _mm_storeu_pd(q + 2 * k, _mm_unpacklo_pd(bre, bim));
      _mm_storeu_pd(q + 2 * k + 2, _mm_unpackhi_pd(bre, bim));
    }
#endif
    for (; k < count; ++k) butterfly(p[2 * k], p[2 * k + 1], q[2 * k], q[2 * k + 1], wr[k], wi[k]);
  }
}

#if defined(KESTREL_AVX2)
// The same stages four butterflies at a time in AVX lanes (used when the
// processor has AVX2; lane-wise IEEE products, sums and differences, no fused
// multiply-add, so every element gets the bits of the SSE2 and scalar loops).
// count is a multiple of 4.
KESTREL_TARGET_AVX2 void stagesplitavx2(int64_t n, int64_t h, int64_t k0, int64_t count,
                                                    const double *wr, const double *wi, double *re, double *im) {
  for (int64_t s = 0; s < n; s += 2 * h) {
    double *pr = re + s + k0, *pi = im + s + k0;
    double *qr = pr + h, *qi = pi + h;
    for (int64_t k = 0; k < count; k += 4) {
      const __m256d wre = _mm256_loadu_pd(wr + k), wim = _mm256_loadu_pd(wi + k);
      const __m256d qre = _mm256_loadu_pd(qr + k), qim = _mm256_loadu_pd(qi + k);
      const __m256d tre = _mm256_sub_pd(_mm256_mul_pd(qre, wre), _mm256_mul_pd(qim, wim));
      const __m256d tim = _mm256_add_pd(_mm256_mul_pd(qre, wim), _mm256_mul_pd(qim, wre));
      const __m256d pre = _mm256_loadu_pd(pr + k), pim = _mm256_loadu_pd(pi + k);
      _mm256_storeu_pd(pr + k, _mm256_add_pd(pre, tre));
      _mm256_storeu_pd(pi + k, _mm256_add_pd(pim, tim));
      _mm256_storeu_pd(qr + k, _mm256_sub_pd(pre, tre));
      _mm256_storeu_pd(qi + k, _mm256_sub_pd(pim, tim));
    }
  }
}

// Interleaved: the in-lane unpacks put butterflies k, k+2, k+1, k+3 in the
// lanes, so the twiddles are permuted the same way.
KESTREL_TARGET_AVX2 void stageinterleavedavx2(int64_t n, int64_t h, int64_t k0, int64_t count,
                                                          const double *wr, const double *wi, double *x) {
  for (int64_t s = 0; s < n; s += 2 * h) {
    double *p = x + 2 * (s + k0);
    double *q = p + 2 * h;
    for (int64_t k = 0; k < count; k += 4) {
      const __m256d wre = _mm256_permute4x64_pd(_mm256_loadu_pd(wr + k), 0xD8);
      const __m256d wim = _mm256_permute4x64_pd(_mm256_loadu_pd(wi + k), 0xD8);
      const __m256d q0 = _mm256_loadu_pd(q + 2 * k), q1 = _mm256_loadu_pd(q + 2 * k + 4);
      const __m256d qre = _mm256_unpacklo_pd(q0, q1), qim = _mm256_unpackhi_pd(q0, q1);
      const __m256d tre = _mm256_sub_pd(_mm256_mul_pd(qre, wre), _mm256_mul_pd(qim, wim));
      const __m256d tim = _mm256_add_pd(_mm256_mul_pd(qre, wim), _mm256_mul_pd(qim, wre));
      const __m256d p0 = _mm256_loadu_pd(p + 2 * k), p1 = _mm256_loadu_pd(p + 2 * k + 4);
      const __m256d pre = _mm256_unpacklo_pd(p0, p1), pim = _mm256_unpackhi_pd(p0, p1);
      const __m256d are = _mm256_add_pd(pre, tre), aim = _mm256_add_pd(pim, tim);
      const __m256d bre = _mm256_sub_pd(pre, tre), bim = _mm256_sub_pd(pim, tim);
      _mm256_storeu_pd(p + 2 * k, _mm256_unpacklo_pd(are, aim));
      _mm256_storeu_pd(p + 2 * k + 4, _mm256_unpackhi_pd(are, aim));
      _mm256_storeu_pd(q + 2 * k, _mm256_unpacklo_pd(bre, bim));
      _mm256_storeu_pd(q + 2 * k + 4, _mm256_unpackhi_pd(bre, bim));
    }
  }
}

#endif

// Element k of an interleaved complex array: re at 2k, im at 2k+1.
struct Interleaved {
  double *x;
  bool avx2 = kestrel::haveavx2();
  void swap(int64_t i, int64_t j) const {
    std::swap(x[2 * i], x[2 * j]);
    std::swap(x[2 * i + 1], x[2 * j + 1]);
  }
  void stage(int64_t n, int64_t h, int64_t k0, int64_t count, const double *wr, const double *wi) const {
#if defined(KESTREL_AVX2)
    if (avx2 && count % 4 == 0) return stageinterleavedavx2(n, h, k0, count, wr, wi, x);
#endif
    stageinterleaved(n, h, k0, count, wr, wi, x);
  }
};

// Element k of a split complex array: re[k], im[k].
struct Split {
  double *r;
  double *i;
  bool avx2 = kestrel::haveavx2();
  void swap(int64_t a, int64_t b) const {
    std::swap(r[a], r[b]);
    std::swap(i[a], i[b]);
  }
  void stage(int64_t n, int64_t h, int64_t k0, int64_t count, const double *wr, const double *wi) const {
#if defined(KESTREL_AVX2)
    if (avx2 && count % 4 == 0) return stagesplitavx2(n, h, k0, count, wr, wi, r, i);
#endif
    stagesplit(n, h, k0, count, wr, wi, r, i);
  }
};

// Bytes with their bits reversed, built by the compiler.
struct ByteReversal {
  uint8_t r[256];
  constexpr ByteReversal() : r() {
    for (int v = 0; v < 256; ++v) {
      int b = 0;
      for (int i = 0; i < 8; ++i) b |= ((v >> i) & 1) << (7 - i);
      r[v] = static_cast<uint8_t>(b);
    }
  }
};
constexpr ByteReversal kByteReversal;

inline uint32_t reverse32(uint32_t v) {
  const uint8_t *t = kByteReversal.r;
  return (uint32_t{t[v & 255]} << 24) | (uint32_t{t[(v >> 8) & 255]} << 16) | (uint32_t{t[(v >> 16) & 255]} << 8) |
         uint32_t{t[v >> 24]};
}

// Calls f(i, j) for every i < j = bitreverse(i) over log2(n) bits, ascending i
// (n a power of two >= 2).
template <class F>
void forbitpairs(int64_t n, F f) {
  int bits = 0;
  while ((int64_t{1} << bits) < n) ++bits;
  for (int64_t i = 1; i < n; ++i) {
    const int64_t j = reverse32(static_cast<uint32_t>(i)) >> (32 - bits);
    if (j > i) f(i, j);
  }
}

// Every stage's twiddles of an n-point transform (n a power of two >= 2),
// stage with half-span h at entries h-1 .. 2h-2 of wre/wim. The stages'
// recurrences are independent: they run two at a time, the longest left
// with the next, each with its own operations, so that the time is bounded
// by about 2n/3 steps of one chain instead of n-1.
void filltwiddles(int64_t n, int8_t direction, double *wre, double *wim) {
  for (int64_t h = n / 2; h >= 1; h /= 4) {
    Rotor a(2 * h, direction);
    const int64_t g = h / 2;  // the next stage's half-span (0: none)
    int64_t k = 0;
    if (g > 0) {
      Rotor b(2 * g, direction);
      for (; k < g; ++k) {
        wre[h - 1 + k] = a.wre;
        wim[h - 1 + k] = a.wim;
        a.advance();
        wre[g - 1 + k] = b.wre;
        wim[g - 1 + k] = b.wim;
        b.advance();
      }
    }
    a.fill(wre + h - 1 + k, wim + h - 1 + k, h - k);
  }
}

// Twiddle tables up to this length are made per call (on the heap) rather
// than a block at a time.
constexpr int32_t kMaxTableN = 1 << 16;

template <class Layout>
void transform(int32_t n, const Layout &x, int8_t direction) {
  if (n >= 8 && n <= kMaxTableN) {
    double *table = static_cast<double *>(std::malloc(2 * static_cast<size_t>(n - 1) * sizeof(double)));
    if (table) {
      double *wre = table, *wim = table + (n - 1);
      filltwiddles(n, direction, wre, wim);
      forbitpairs(n, [&](int64_t i, int64_t j) { x.swap(i, j); });
      for (int64_t h = 1; 2 * h <= n; h *= 2) x.stage(n, h, 0, h, wre + h - 1, wim + h - 1);
      std::free(table);
      return;
    }
  }
  forbitpairs(n, [&](int64_t i, int64_t j) { x.swap(i, j); });
  double wr[kBlock], wi[kBlock];
  for (int64_t h = 1; 2 * h <= n; h *= 2) {
    Rotor rot(2 * h, direction);
    for (int64_t k0 = 0; k0 < h; k0 += kBlock) {
      const int64_t count = (h - k0 < kBlock) ? h - k0 : kBlock;
      rot.fill(wr, wi, count);
      x.stage(n, h, k0, count, wr, wi);
    }
  }
}

template <class Layout>
void transform(const FFTPLAN *plan, const Layout &x) {
  for (uint32_t t = 0; t < plan->npairs; ++t) x.swap(plan->pairs[2 * t], plan->pairs[2 * t + 1]);
  const int64_t n = plan->n;
  for (int64_t h = 1; 2 * h <= n; h *= 2) x.stage(n, h, 0, h, plan->wre + h - 1, plan->wim + h - 1);
}

}  // namespace

extern "C" {

uint32_t dofftc(int32_t n, double *x, int8_t direction) {
  if (n <= 1) return 0;
  if (!ispow2(n)) return 1;
  transform(n, Interleaved{x}, direction);
  return 0;
}

uint32_t dofftr(int32_t n, double *re, double *im, int8_t direction) {
  if (n <= 1) return 0;
  if (!ispow2(n)) return 1;
  transform(n, Split{re, im}, direction);
  return 0;
}

uint32_t fftc(int32_t n, double *x) { return dofftc(n, x, 1); }
uint32_t ifftc(int32_t n, double *x) { return dofftc(n, x, -1); }
uint32_t fftr(int32_t n, double *re, double *im) { return dofftr(n, re, im, 1); }
uint32_t ifftr(int32_t n, double *re, double *im) { return dofftr(n, re, im, -1); }

FFTPLAN *fftplancreate(int32_t n, int8_t direction) {
  if (!ispow2(n)) return nullptr;
  FFTPLAN *plan = static_cast<FFTPLAN *>(std::calloc(1, sizeof(FFTPLAN)));
  if (!plan) return nullptr;
  plan->n = n;
  if (n > 1) forbitpairs(n, [&](int64_t, int64_t) { ++plan->npairs; });
  const size_t ntw = static_cast<size_t>(n > 1 ? n - 1 : 1);
  plan->pairs = static_cast<uint32_t *>(std::malloc((2 * static_cast<size_t>(plan->npairs) + 1) * sizeof(uint32_t)));
  plan->wre = static_cast<double *>(std::malloc(ntw * sizeof(double)));
  plan->wim = static_cast<double *>(std::malloc(ntw * sizeof(double)));
  if (!plan->pairs || !plan->wre || !plan->wim) {
    fftplanfree(plan);
    return nullptr;
  }
  uint32_t t = 0;
  if (n > 1) forbitpairs(n, [&](int64_t i, int64_t j) {
    plan->pairs[t++] = static_cast<uint32_t>(i);
    plan->pairs[t++] = static_cast<uint32_t>(j);
  });
  if (n > 1) filltwiddles(n, direction, plan->wre, plan->wim);
  return plan;
}

void fftplanfree(FFTPLAN *plan) {
  if (!plan) return;
  std::free(plan->pairs);
  std::free(plan->wre);
  std::free(plan->wim);
  std::free(plan);
}

int32_t fftplanlength(const FFTPLAN *plan) { return plan ? plan->n : 0; }

uint32_t fftplanc(const FFTPLAN *plan, double *x) {
  if (!plan) return 1;
  transform(plan, Interleaved{x});
  return 0;
}

uint32_t fftplanr(const FFTPLAN *plan, double *re, double *im) {
  if (!plan) return 1;
  transform(plan, Split{re, im});
  return 0;
}

}  // extern "C"
