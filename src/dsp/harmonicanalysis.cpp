// Harmonic counting and generation for the synthesis, and resampling of
// log-amplitude envelopes between uniform frequency grids.  Every cosine comes
// from a complex rotation rounded to double at each step; the order in which
// the harmonics are added to a sample is ascending, which fixes the bits.
#include "harmonicanalysis.h"

#include <cmath>
#include <cstdint>

#include "simd.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
// sqrt(2)/3: (2 - cos)^2 has mean 4.5, so the modulated noise keeps its power.
constexpr double kModulationGain = 0.47140452079103173;

// Sample b scaled by the noise modulation (2 - cos), whose rotation (mc, ms)
// then advances one step (mc1, ms1).
inline double modulate(double b, double &mc, double &ms, double mc1, double ms1) {
  b = (2.0 - mc) * kModulationGain * b;
  kestrel::rotatestep(mc, ms, mc1, ms1);
  return b;
}

// Harmonics are added a few at a time (eight, or sixteen with AVX2) so that
// their rotations run side by side; per sample the additions still happen in
// ascending harmonic order.
constexpr unsigned kGroup = 16;

struct Harmonic {
  double amplitude;
  double c, s;    // cos/sin of the current sample's phase
  double ck, sk;  // per-sample rotation
};

// Harmonics side by side in the lanes of a register: two per SSE2 register,
// or four per AVX2 register where the processor has them (chosen at run
// time). Lane-wise IEEE products and sums: each lane rounds exactly as the
// scalar recurrence does, so both give the same bits.
typedef double v2d __attribute__((vector_size(16)));
typedef double v4d __attribute__((vector_size(32)));

// Adds the G harmonics of h to buf[0..L-1]; when modulate, every sample is
// first multiplied by the pitch-synchronous noise gain driven by (mc, ms).
template <class VD, unsigned W, unsigned G, bool Modulate>
inline __attribute__((always_inline)) void addgroup(double *buf, uint32_t L, const Harmonic *h, double mc, double ms,
                                                    double mc1, double ms1) {
  constexpr unsigned V = G ? (G + W - 1) / W : 1;
  VD a[V], c[V], s[V], ck[V], sk[V];
#pragma GCC unroll 8
  for (unsigned v = 0; v < V; ++v) {
#pragma GCC unroll 4
    for (unsigned l = 0; l < W; ++l) {
      const unsigned g = W * v + l;
      const Harmonic hg = g < G ? h[g] : Harmonic{0, 1, 0, 1, 0};  // unused lane
      a[v][l] = hg.amplitude;
      c[v][l] = hg.c;
      s[v][l] = hg.s;
      ck[v][l] = hg.ck;
      sk[v][l] = hg.sk;
    }
  }
  for (uint32_t n = 0; n < L; ++n) {
    double b = buf[n];
    if (Modulate) b = modulate(b, mc, ms, mc1, ms1);
#pragma GCC unroll 8
    for (unsigned v = 0; v < V; ++v) {
      const VD t = a[v] * c[v];
#pragma GCC unroll 4
      for (unsigned l = 0; l < W; ++l)
        if (W * v + l < G) b = t[l] + b;
    }
    buf[n] = b;
#pragma GCC unroll 8
    for (unsigned v = 0; v < V; ++v) {
      kestrel::rotatestep(c[v], s[v], ck[v], sk[v]);
    }
  }
}

template <class VD, unsigned W, bool Modulate>
inline __attribute__((always_inline)) void addharmonicsbody(double *buf, uint32_t L, const Harmonic *h, unsigned g,
                                                            double mc, double ms, double mc1, double ms1) {
  switch (g) {
    case 1: addgroup<VD, W, 1, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 2: addgroup<VD, W, 2, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 3: addgroup<VD, W, 3, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 4: addgroup<VD, W, 4, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 5: addgroup<VD, W, 5, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 6: addgroup<VD, W, 6, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 7: addgroup<VD, W, 7, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    case 8: addgroup<VD, W, 8, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
    default: addgroup<VD, W, 0, Modulate>(buf, L, h, mc, ms, mc1, ms1); break;
  }
}

template <bool Modulate>
void addharmonicssse2(double *buf, uint32_t L, const Harmonic *h, unsigned g, double mc, double ms, double mc1,
                      double ms1) {
  addharmonicsbody<v2d, 2, Modulate>(buf, L, h, g, mc, ms, mc1, ms1);
}


// 4R harmonics on AVX2, four samples at a time: the products of the four
// samples are transposed so that one register holds a harmonic at four
// samples, and the sums run in sample lanes, still in ascending harmonic
// order. The rotations, products and sums are those of addgroup<v4d, 4, 4R>;
// only the lanes they are added in differ. R registers of rotations hide
// the latency of each rotation step.
template <unsigned R, bool Modulate>
__attribute__((target("avx2"))) void addblockavx2(double *buf, uint32_t L, const Harmonic *h, double mc, double ms,
                                                   double mc1, double ms1) {
  v4d a[R], c[R], s[R], ck[R], sk[R];
  for (unsigned v = 0; v < R; ++v)
    for (unsigned l = 0; l < 4; ++l) {
      const Harmonic &hg = h[4 * v + l];
      a[v][l] = hg.amplitude;
      c[v][l] = hg.c;
      s[v][l] = hg.s;
      ck[v][l] = hg.ck;
      sk[v][l] = hg.sk;
    }
  uint32_t n = 0;
  for (; n + 4 <= L; n += 4) {
    double bq[4];
#pragma GCC unroll 4
    for (unsigned q = 0; q < 4; ++q) {
      bq[q] = buf[n + q];
      if (Modulate) {
        bq[q] = (2.0 - mc) * kModulationGain * bq[q];
        kestrel::rotatestep(mc, ms, mc1, ms1);
      }
    }
    v4d b = {bq[0], bq[1], bq[2], bq[3]};
    v4d t[R][4];  // register v, sample q
#pragma GCC unroll 4
    for (unsigned q = 0; q < 4; ++q) {
#pragma GCC unroll 4
      for (unsigned v = 0; v < R; ++v) {
        t[v][q] = a[v] * c[v];
        kestrel::rotatestep(c[v], s[v], ck[v], sk[v]);
      }
    }
#pragma GCC unroll 4
    for (unsigned v = 0; v < R; ++v) {
      const v4d u0 = __builtin_shufflevector(t[v][0], t[v][1], 0, 4, 2, 6);
      const v4d u1 = __builtin_shufflevector(t[v][0], t[v][1], 1, 5, 3, 7);
      const v4d u2 = __builtin_shufflevector(t[v][2], t[v][3], 0, 4, 2, 6);
      const v4d u3 = __builtin_shufflevector(t[v][2], t[v][3], 1, 5, 3, 7);
      b = __builtin_shufflevector(u0, u2, 0, 1, 4, 5) + b;  // harmonic 4v at the four samples
      b = __builtin_shufflevector(u1, u3, 0, 1, 4, 5) + b;
      b = __builtin_shufflevector(u0, u2, 2, 3, 6, 7) + b;
      b = __builtin_shufflevector(u1, u3, 2, 3, 6, 7) + b;
    }
    __builtin_memcpy(buf + n, &b, sizeof b);
  }
  for (; n < L; ++n) {
    double b = buf[n];
    if (Modulate) b = modulate(b, mc, ms, mc1, ms1);
    for (unsigned v = 0; v < R; ++v) {
      const v4d t = a[v] * c[v];
      for (unsigned l = 0; l < 4; ++l) b = t[l] + b;
      kestrel::rotatestep(c[v], s[v], ck[v], sk[v]);
    }
    buf[n] = b;
  }
}

template <bool Modulate>
__attribute__((target("avx2"))) void addharmonicsavx2(double *buf, uint32_t L, const Harmonic *h, unsigned g,
                                                       double mc, double ms, double mc1, double ms1) {
  if (g == 16) {
    addblockavx2<4, Modulate>(buf, L, h, mc, ms, mc1, ms1);
  } else if (g > 8) {  // the first eight (and the modulation), then the others
    addblockavx2<2, Modulate>(buf, L, h, mc, ms, mc1, ms1);
    addharmonicsbody<v4d, 4, false>(buf, L, h + 8, g - 8, mc, ms, mc1, ms1);
  } else if (g == 8) {
    addblockavx2<2, Modulate>(buf, L, h, mc, ms, mc1, ms1);
  } else {
    addharmonicsbody<v4d, 4, Modulate>(buf, L, h, g, mc, ms, mc1, ms1);
  }
}

void addharmonics(bool avx2, bool modulate, double *buf, uint32_t L, const Harmonic *h, unsigned g, double mc,
                  double ms, double mc1, double ms1) {
  if (avx2) {
    if (modulate)
      addharmonicsavx2<true>(buf, L, h, g, mc, ms, mc1, ms1);
    else
      addharmonicsavx2<false>(buf, L, h, g, mc, ms, mc1, ms1);
  } else {
    if (modulate)
      addharmonicssse2<true>(buf, L, h, g, mc, ms, mc1, ms1);
    else
      addharmonicssse2<false>(buf, L, h, g, mc, ms, mc1, ms1);
  }
}

}  // namespace

extern "C" {

uint32_t hanoharms(double fs, double fmax, double f0) {
  if (fmax <= f0 || 0.5 * fs <= f0) return 0;
  if (!(f0 > 0.0)) return 0;  // no harmonics of a NaN or non-positive f0
  const double limit = (fmax <= 0.5 * fs) ? fmax : 0.5 * fs;
  const double q = std::ceil(limit / f0);
  // A NaN limit gives no harmonic; a count beyond 32 bits saturates, so that
  // callers sizing arrays with it can refuse it.
  if (!(q >= 1.0)) return 0;
  if (q > 4294967296.0) return UINT32_MAX;
  return static_cast<uint32_t>(static_cast<uint64_t>(q) - 1u);
}

int genharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                 const double *amplitudes, const double *phases, double phi, uint8_t modulate) {
  const uint32_t L = before + after;
  if (nh == 0 || L == 0) return 0;
  const double w = f0 * kTwoPi / fs;
  const double c1 = std::cos(w);
  const double s1 = std::sin(w);
  const double theta0 = phi - static_cast<double>(before) * w;

  // Noise modulation runs fused with the first group of harmonics (or alone if
  // every amplitude is zero): per sample it still precedes the additions.
  bool pending = (modulate == 1);
  double mc = 0.0, ms = 0.0;
  if (pending) {
    mc = std::cos(theta0);
    ms = std::sin(theta0);
  }

  const bool avx2 = kestrel::haveavx2();
  const unsigned groupsize = avx2 ? kGroup : kGroup / 2;
  Harmonic group[kGroup];
  unsigned g = 0;
  double ck = c1, sk = s1;
  for (uint32_t j = 0; j < nh; ++j) {
    // A zero amplitude skips the harmonic and leaves the rotor where it is, so
    // the next harmonic takes this one's frequency step (deliberate).
    if (amplitudes[j] == 0.0) continue;
    const double theta = phases[j] + theta0 * static_cast<double>(j + 1);
    group[g] = Harmonic{amplitudes[j], std::cos(theta), std::sin(theta), ck, sk};
    ++g;
    const double nck = ck * c1 - sk * s1;
    const double nsk = sk * c1 + ck * s1;
    ck = nck;
    sk = nsk;
    if (g == groupsize) {
      addharmonics(avx2, pending, buf, L, group, g, mc, ms, c1, s1);
      pending = false;
      g = 0;
    }
  }
  if (g > 0 || pending) addharmonics(avx2, pending, buf, L, group, g, mc, ms, c1, s1);
  return 0;
}

int resamplelogampenv(double df, const double *env, uint32_t n, double dfout, double *out, uint32_t m) {
  if (n == 0 || m == 0) return -1;
  uint32_t j = 0;
  double fl = 0.0, vl = env[0];
  double fh = df, vh = env[0];
  for (uint32_t i = 0; i < m; ++i) {
    const double f = static_cast<double>(i + 1) * dfout;
    while (j <= n && fh < f) {
      ++j;
      fl = fh;
      fh = fh + df;
      vl = vh;
      // Past the last point the value stays env[n-1]; this also keeps a
      // frequency beyond (n+1)*df from reading outside env.
      if (j < n) vh = env[j];
    }
    out[i] = (f - fl) * (vh - vl) / df + vl;
  }
  return 0;
}

}  // extern "C"
