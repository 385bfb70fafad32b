// Internal to the library: whether the AVX2 code paths may run. They use
// only lane-wise IEEE products, sums, differences and quotients (no fused
// multiply-add), so they give the bits of the SSE2 and scalar paths; building
// with -DKESTREL_NO_AVX2=ON keeps to those paths, to check that.
#ifndef KESTREL_SIMD_H
#define KESTREL_SIMD_H

#if defined(__x86_64__) && defined(__GNUC__) && !defined(KESTREL_NO_AVX2)
#define KESTREL_AVX2 1
#include <immintrin.h>
#define KESTREL_TARGET_AVX2 __attribute__((target("avx2")))
namespace kestrel {
inline bool haveavx2() { return __builtin_cpu_supports("avx2"); }
// 4 x 4 transpose: out[q] holds element q of in[0], in[1], in[2], in[3].
KESTREL_TARGET_AVX2 inline void transpose4(const __m256d in[4], __m256d out[4]) {
  const __m256d t0 = _mm256_unpacklo_pd(in[0], in[1]), t1 = _mm256_unpackhi_pd(in[0], in[1]);
  const __m256d t2 = _mm256_unpacklo_pd(in[2], in[3]), t3 = _mm256_unpackhi_pd(in[2], in[3]);
  out[0] = _mm256_permute2f128_pd(t0, t2, 0x20);
  out[1] = _mm256_permute2f128_pd(t1, t3, 0x20);
  out[2] = _mm256_permute2f128_pd(t0, t2, 0x31);
  out[3] = _mm256_permute2f128_pd(t1, t3, 0x31);
}
}  // namespace kestrel
#else
#define KESTREL_TARGET_AVX2
namespace kestrel {
inline bool haveavx2() { return false; }
}  // namespace kestrel
#endif

// One step of a rotation (c, s) by (c1, s1), lane-wise: c c1 - s s1 and
// s c1 + c s1, in that order, as every rotating loop of the library steps it.
namespace kestrel {
template <class V>
inline __attribute__((always_inline)) void rotatestep(V &c, V &s, const V &c1, const V &s1) {
  const V nc = c * c1 - s * s1;
  const V ns = s * c1 + c * s1;
  c = nc;
  s = ns;
}
}  // namespace kestrel

#endif
