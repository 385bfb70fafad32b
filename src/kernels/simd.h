// Internal to the library: whether the AVX2 code paths may run. They use
// only lane-wise IEEE products, sums, differences and quotients (no fused
// multiply-add), so they give the bits of the SSE2 and scalar paths; building
// with -DKESTREL_NO_AVX2 keeps to those paths, to check that.
#ifndef KESTREL_SIMD_H
#define KESTREL_SIMD_H

#if defined(__x86_64__) && defined(__GNUC__) && !defined(KESTREL_NO_AVX2)
#define KESTREL_AVX2 1
#include <immintrin.h>
#define KESTREL_TARGET_AVX2 __attribute__((target("avx2")))
namespace kestrel {
inline bool haveavx2() { return __builtin_cpu_supports("avx2"); }
}  // namespace kestrel
#else
#define KESTREL_TARGET_AVX2
namespace kestrel {
inline bool haveavx2() { return false; }
}  // namespace kestrel
#endif

#endif
