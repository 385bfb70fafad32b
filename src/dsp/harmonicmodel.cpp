// Harmonic-model analysis of one frame.
//
// Harmonic model (Y. Stylianou, "Harmonic plus noise models for speech,
// combined with statistical methods, for speech and speaker modification",
// PhD thesis, ENST Paris, 1996; Y. Stylianou, IEEE Trans. Speech and Audio
// Processing 9(1), 2001): the frame is fitted by weighted least squares with
//   s(n) = a0 + sum_k [A_k cos(k w0 n) + B_k sin(k w0 n)],  n = -h .. h,
// weights w(n)^2, w a Hamming window of 2.5 pitch periods. Because the
// window is symmetric about the centre, the cosine and sine unknowns decouple
// and each normal matrix is Toeplitz-plus-Hankel:
//   cos block  G[k][l] = (W(k-l) + W(k+l)) / 2,  sin block (W(k-l) - W(k+l)) / 2,
// with W(m) = sum_n w(n)^2 cos(m w0 n): O(N H) sums instead of O(N H^2).
//
// Quasi-harmonic model (Y. Pantazis, O. Rosec, Y. Stylianou, "On the
// properties of a time-varying quasi-harmonic model of speech", Interspeech
// 2008; "Adaptive AM-FM signal decomposition with application to speech
// analysis", IEEE Trans. ASLP 19(2), 2011): each component is
//   (a_k + t b_k) exp(j w_k n),
// and the frequency mismatch eta_k = (Re a_k Im b_k - Im a_k Re b_k)/|a_k|^2
// (per unit of t) moves w_k towards the true frequency; refitting with the
// corrected frequencies converges in a few iterations. In real form with
// t = n/h the even unknowns (1, cos w_k n, t sin w_k n) and the odd ones
// (t, sin w_k n, t cos w_k n) again decouple on a symmetric window, here of
// four pitch periods. The corrected frequencies are no longer multiples of
// one another, but the window is a short cosine series, so the matrix entries
// still come in closed form from sums at w_k +- w_l (see windowsums).
//
// Samples outside the signal read as 0, so frames at the ends keep a
// symmetric window (their amplitudes are biased low by the missing part).
#include "harmonicanalysis.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "simd.h"
#include "windowing.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;
// Below this f0 the analysis windows are longer than any speech sound stays
// stationary, and the areas would grow without bound.
constexpr double kLowestF0 = 20.0;
// Window lengths in pitch periods: the harmonic model has 2H+1 unknowns
// (about fs/f0) and keeps good time resolution with 2.5 periods; the
// quasi-harmonic model has twice as many and needs a longer window not to
// fit the noise between harmonics: its amplitudes take 3.5 periods (at 2.5
// the fit follows the noise, at 4 it averages over more of a changing vocal
// tract), the pitch refinement 4, whose frequency corrections need the finer
// resolution.
constexpr double kPeriods = 2.5;
constexpr double kQhmPeriods = 3.5;
constexpr double kQhmRefinePeriods = 4.0;
// Diagonal loading relative to the mean weight: keeps the solve finite for a
// harmonic right at Nyquist without touching well-posed fits.
constexpr double kRidge = 1e-9;
// Quasi-harmonic refits per analysis; the largest frequency correction taken
// from one fit (fraction of w0, about the capture range of a four-period
// Hamming window); and how far a corrected harmonic may stray from the
// refined harmonic series (fraction of the refined w0).
constexpr int kQhmFits = 3;
constexpr double kMaxCorrection = 0.5;
constexpr double kSeriesTolerance = 0.1;
constexpr double kMinSeparation = 0.75;
constexpr uint64_t kMaxAreaDoubles = uint64_t(1) << 25;  // 256 MiB

uint32_t kindof(const void *area) {
  uint32_t kind = 0;
  std::memcpy(&kind, area, sizeof kind);
  return kind;
}

bool finitepositive(double v) { return v > 0.0 && std::isfinite(v); }

// Shared sizing of both areas: harmonics of fmin below min(fmax, fs/2) and
// the model's window at fmin.
struct Sizing {
  double fmin;
  uint32_t maxharms;
  uint32_t maxlen;
  bool ok;
};

Sizing sizefor(double fs, double fmax, double fmin, double periods) {
  Sizing s{};
  s.ok = finitepositive(fs) && !std::isnan(fmax);
  s.fmin = (fmin >= kLowestF0 && std::isfinite(fmin)) ? fmin : kLowestF0;
  if (!s.ok) return s;
  s.maxharms = hanoharms(fs, fmax, s.fmin);
  const double len = std::ceil(periods * fs / s.fmin);
  if (!(len < 1e8) || s.maxharms > 1000000u) {
    s.ok = false;
    return s;
  }
  s.maxlen = getwinlengthnperiodsodd(periods, s.fmin, fs);
  return s;
}

template <class Area>
Area *newarea(uint32_t kind, double fs, double fmax, const Sizing &sz, uint64_t matrix, uint64_t vector) {
  if (!sz.ok || matrix > kMaxAreaDoubles || vector > kMaxAreaDoubles || matrix + vector > kMaxAreaDoubles)
    return nullptr;
  Area *a = static_cast<Area *>(std::calloc(1, sizeof(Area)));
  if (!a) return nullptr;
  a->matrix = static_cast<double *>(std::malloc((matrix ? matrix : 1) * sizeof(double)));
  a->vector = static_cast<double *>(std::malloc((vector ? vector : 1) * sizeof(double)));
  if (!a->matrix || !a->vector) {
    std::free(a->matrix);
    std::free(a->vector);
    std::free(a);
    return nullptr;
  }
  a->kind = kind;
  a->matrixsize = static_cast<uint32_t>(matrix);
  a->fs = fs;
  a->fmax = fmax;
  a->fmin = sz.fmin;
  a->maxharms = sz.maxharms;
  a->maxlen = sz.maxlen;
  return a;
}

template <class Area>
void freearea(Area *a) {
  if (!a) return;
  std::free(a->matrix);
  std::free(a->vector);
  std::free(a);
}

// Frame geometry and the squared Hamming weights of the analysis window:
// w(n) = 0.54 + 0.46 cos(pi n / h), n = 0 .. h (the window is even).
struct Frame {
  const double *x;
  uint32_t len;
  int64_t centre;
  uint32_t h;
  double sample(int64_t n) const {
    const int64_t i = centre + n;
    return (i >= 0 && i < static_cast<int64_t>(len)) ? x[i] : 0.0;
  }
};

// Checks shared by every analysis; fills the frame and the weights (h + 1
// doubles into w2). False when the frame cannot or need not be analysed.
template <class Area>
bool prepareframe(const double *x, uint32_t n, double fs, uint32_t centre, double f0, double periods, const Area *a,
                  Frame *fr, double *w2) {
  if (n > 0 && !x) return false;
  if (!finitepositive(fs) || !finitepositive(f0) || !(f0 >= a->fmin) || !(f0 < 0.5 * fs)) return false;
  const uint32_t Nw = getwinlengthnperiodsodd(periods, f0, fs);
  if (Nw < 3 || Nw > a->maxlen) return false;
  fr->x = x;
  fr->len = n;
  fr->centre = centre;
  fr->h = Nw / 2;
  const uint32_t h = fr->h;
  bool any = false;
  for (int64_t k = -static_cast<int64_t>(h); k <= static_cast<int64_t>(h) && !any; ++k)
    any = fr->sample(k) != 0.0;  // a NaN counts as a signal
  if (!any) return false;
  const double step = kPi / static_cast<double>(h);
  const double c1 = std::cos(step), s1 = std::sin(step);
  double c = 1.0, s = 0.0;
  for (uint32_t k = 0; k <= h; ++k) {
    const double w = 0.54 + 0.46 * c;
    w2[k] = w * w;
    kestrel::rotatestep(c, s, c1, s1);
  }
  return true;
}

// Cholesky solves of G x = b in place (b becomes x) for a symmetric
// positive-definite G of which the upper triangle (row-major, n x n) is
// given; G is destroyed and holds U with G = U'U. Pivot rows are applied four at a time to the rows
// below them along contiguous memory, two columns per vector operation; every
// entry still takes its updates in pivot order, so the result equals the
// plain elimination bit for bit. The solve is split into the factorisation
// with the forward substitution, and the back substitution, whose sums are
// one serial chain each: two systems of a fit run their chains side by side.
constexpr uint32_t kPanel = 4;
#if defined(__GNUC__)
typedef double v2d __attribute__((vector_size(16)));
inline v2d loadv2d(const double *p) {
  v2d v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
#endif

#if defined(KESTREL_AVX2)
// Row update of the panel loop from column l on, four columns per AVX
// operation (processors with AVX2): the same lane-wise products and
// differences in the same order as the SSE2 and scalar loops. Returns the
// first column left over.
KESTREL_TARGET_AVX2 uint32_t panelrowavx2(double *__restrict Ui, const double *__restrict P0,
                                                      const double *__restrict P1, const double *__restrict P2,
                                                      const double *__restrict P3, const double u[4], uint32_t l,
                                                      uint32_t n) {
  const __m256d v0 = _mm256_set1_pd(u[0]), v1 = _mm256_set1_pd(u[1]), v2 = _mm256_set1_pd(u[2]),
                v3 = _mm256_set1_pd(u[3]);
  for (; l + 4 <= n; l += 4) {
    __m256d t = _mm256_loadu_pd(Ui + l);
    t = _mm256_sub_pd(t, _mm256_mul_pd(v0, _mm256_loadu_pd(P0 + l)));
    t = _mm256_sub_pd(t, _mm256_mul_pd(v1, _mm256_loadu_pd(P1 + l)));
    t = _mm256_sub_pd(t, _mm256_mul_pd(v2, _mm256_loadu_pd(P2 + l)));
    t = _mm256_sub_pd(t, _mm256_mul_pd(v3, _mm256_loadu_pd(P3 + l)));
    _mm256_storeu_pd(Ui + l, t);
  }
  return l;
}
#endif

// Factorisation and forward substitution (b becomes U'^-1 b); false on a
// pivot that is not positive and finite.
bool choleskyforward(double *G, double *b, uint32_t n, double ridge) {
#if defined(KESTREL_AVX2)
  const bool avx2 = kestrel::haveavx2();
#endif
  for (uint32_t i = 0; i < n; ++i) G[static_cast<uint64_t>(i) * n + i] += ridge;
  for (uint32_t jb = 0; jb < n; jb += kPanel) {
    const uint32_t je = (n - jb > kPanel) ? jb + kPanel : n;
    for (uint32_t j = jb; j < je; ++j) {
      double *Uj = G + static_cast<uint64_t>(j) * n;
      const double s = Uj[j];
      if (!(s > 0.0) || !std::isfinite(s)) return false;
      const double d = std::sqrt(s);
      Uj[j] = d;
      uint32_t i = j + 1;
#if defined(__GNUC__)
      const v2d vd = {d, d};
      for (; i + 2 <= n; i += 2) {
        const v2d t = loadv2d(Uj + i) / vd;
        std::memcpy(Uj + i, &t, sizeof t);
      }
#endif
      for (; i < n; ++i) Uj[i] /= d;
      for (i = j + 1; i < je; ++i) {
        double *Ui = G + static_cast<uint64_t>(i) * n;
        const double u = Uj[i];
        uint32_t l = i;
#if defined(__GNUC__)
        const v2d vu = {u, u};
        for (; l + 2 <= n; l += 2) {
          const v2d t = loadv2d(Ui + l) - vu * loadv2d(Uj + l);
          std::memcpy(Ui + l, &t, sizeof t);
        }
#endif
        for (; l < n; ++l) Ui[l] -= u * Uj[l];
      }
    }
    const double *P[kPanel];
    for (uint32_t p = 0; p < je - jb; ++p) P[p] = G + static_cast<uint64_t>(jb + p) * n;
    for (uint32_t i = je; i < n; ++i) {
      double *__restrict Ui = G + static_cast<uint64_t>(i) * n;
      if (je - jb == kPanel) {
        const double *__restrict P0 = P[0], *__restrict P1 = P[1], *__restrict P2 = P[2], *__restrict P3 = P[3];
        const double u0 = P0[i], u1 = P1[i], u2 = P2[i], u3 = P3[i];
        uint32_t l = i;
#if defined(KESTREL_AVX2)
        if (avx2) {
          const double u[4] = {u0, u1, u2, u3};
          l = panelrowavx2(Ui, P0, P1, P2, P3, u, l, n);
        }
#endif
#if defined(__GNUC__)
        const v2d v0 = {u0, u0}, v1 = {u1, u1}, v2 = {u2, u2}, v3 = {u3, u3};
        for (; l + 2 <= n; l += 2) {
          v2d t = loadv2d(Ui + l);
          t -= v0 * loadv2d(P0 + l);
          t -= v1 * loadv2d(P1 + l);
          t -= v2 * loadv2d(P2 + l);
          t -= v3 * loadv2d(P3 + l);
          std::memcpy(Ui + l, &t, sizeof t);
        }
#endif
        for (; l < n; ++l) Ui[l] = (((Ui[l] - u0 * P0[l]) - u1 * P1[l]) - u2 * P2[l]) - u3 * P3[l];
      } else {
        for (uint32_t p = 0; p < je - jb; ++p) {
          const double u = P[p][i];
          for (uint32_t l = i; l < n; ++l) Ui[l] -= u * P[p][l];
        }
      }
    }
  }
  // Forward substitution by rows of U: once x[k] is known it is taken off every
  // later right-hand side, so each one still loses its terms in ascending k.
  for (uint32_t k = 0; k < n; ++k) {
    const double *Uk = G + static_cast<uint64_t>(k) * n;
    const double xk = b[k] / Uk[k];
    b[k] = xk;
    uint32_t i = k + 1;
#if defined(__GNUC__)
    const v2d vx = {xk, xk};
    for (; i + 2 <= n; i += 2) {
      const v2d t = loadv2d(b + i) - loadv2d(Uk + i) * vx;
      std::memcpy(b + i, &t, sizeof t);
    }
#endif
    for (; i < n; ++i) b[i] -= Uk[i] * xk;
  }
  return true;
}

// Back substitution row i of U x = b: b[i] - sum U[i][k] x[k], k ascending.
inline void backrow(const double *U, double *b, uint32_t n, uint32_t i) {
  const double *Ui = U + static_cast<uint64_t>(i) * n;
  double t = b[i];
  for (uint32_t k = i + 1; k < n; ++k) t -= Ui[k] * b[k];
  b[i] = t / Ui[i];
}

bool allfinite(const double *b, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i)
    if (!std::isfinite(b[i])) return false;
  return true;
}

// Back substitutions of two factorised systems: their rows with the same
// number of terms (counted from the last row) run together.
void backsubstitute2(const double *UA, double *bA, uint32_t nA, const double *UB, double *bB, uint32_t nB) {
  const uint32_t both = nA < nB ? nA : nB;
  for (uint32_t r = 0; r < both; ++r) {
    const uint32_t iA = nA - 1 - r, iB = nB - 1 - r;
    const double *a = UA + static_cast<uint64_t>(iA) * nA, *c = UB + static_cast<uint64_t>(iB) * nB;
    double tA = bA[iA], tB = bB[iB];
    for (uint32_t k = 1; k <= r; ++k) {
      tA -= a[iA + k] * bA[iA + k];
      tB -= c[iB + k] * bB[iB + k];
    }
    bA[iA] = tA / a[iA];
    bB[iB] = tB / c[iB];
  }
  for (uint32_t i = nA - both; i-- > 0;) backrow(UA, bA, nA, i);
  for (uint32_t i = nB - both; i-- > 0;) backrow(UB, bB, nB, i);
}

// The systems (GA, bA) and (GB, bB) of one fit, each solved exactly as on its
// own; false when either fails.
bool choleskysolve2(double *GA, double *bA, uint32_t nA, double *GB, double *bB, uint32_t nB, double ridge) {
  if (!choleskyforward(GA, bA, nA, ridge) || !choleskyforward(GB, bB, nB, ridge)) return false;
  backsubstitute2(GA, bA, nA, GB, bB, nB);
  return allfinite(bA, nA) && allfinite(bB, nB);
}

#if defined(__GNUC__)
// The terms of window samples n0 .. n0+3 that the harmonic sums take: weights
// (doubled off centre), even and odd weighted samples, and the rotation steps.
inline void sampleterms4(const Frame &fr, const double *w2, double w0, uint32_t n0, double *gw, double *xe,
                         double *xo, double *c1, double *s1) {
  for (uint32_t j = 0; j < 4; ++j) {
    const uint32_t n = n0 + j;
    const double xp = fr.sample(n), xm = fr.sample(-static_cast<int64_t>(n));
    const double g = w2[n];
    gw[j] = (n == 0) ? g : 2.0 * g;
    xe[j] = g * ((n == 0) ? xp : xp + xm);
    xo[j] = g * (xp - xm);
    const double th = w0 * static_cast<double>(n);
    c1[j] = std::cos(th);
    s1[j] = std::sin(th);
  }
}

// fitharmonic's sums over the window samples n0 .. n0+3: their rotations run
// side by side in SSE2 lanes, and every sum still takes its terms in
// ascending n, so the sums equal the sample-by-sample loop bit for bit.
void harmonicsums4(const Frame &fr, const double *w2, double w0, uint32_t n0, uint32_t H, double *W, double *rc,
                   double *rs) {
  double gw[4], xe[4], xo[4], c1[4], s1[4];
  sampleterms4(fr, w2, w0, n0, gw, xe, xo, c1, s1);
  const v2d gwa = {gw[0], gw[1]}, gwb = {gw[2], gw[3]}, xea = {xe[0], xe[1]}, xeb = {xe[2], xe[3]};
  const v2d xoa = {xo[0], xo[1]}, xob = {xo[2], xo[3]};
  const v2d c1a = {c1[0], c1[1]}, c1b = {c1[2], c1[3]}, s1a = {s1[0], s1[1]}, s1b = {s1[2], s1[3]};
  v2d ca = {1.0, 1.0}, cb = ca, sa = {0.0, 0.0}, sb = sa;
  uint32_t m = 0;
  for (; m <= H; ++m) {
    const v2d wa = gwa * ca, wb = gwb * cb, ea = xea * ca, eb = xeb * cb, oa = xoa * sa, ob = xob * sb;
    W[m] = (((W[m] + wa[0]) + wa[1]) + wb[0]) + wb[1];
    rc[m] = (((rc[m] + ea[0]) + ea[1]) + eb[0]) + eb[1];
    rs[m] = (((rs[m] + oa[0]) + oa[1]) + ob[0]) + ob[1];
    const v2d nca = ca * c1a - sa * s1a, ncb = cb * c1b - sb * s1b;
    sa = sa * c1a + ca * s1a;
    sb = sb * c1b + cb * s1b;
    ca = nca;
    cb = ncb;
  }
  for (; m <= 2 * H; ++m) {
    const v2d wa = gwa * ca, wb = gwb * cb;
    W[m] = (((W[m] + wa[0]) + wa[1]) + wb[0]) + wb[1];
    const v2d nca = ca * c1a - sa * s1a, ncb = cb * c1b - sb * s1b;
    sa = sa * c1a + ca * s1a;
    sb = sb * c1b + cb * s1b;
    ca = nca;
    cb = ncb;
  }
}
#endif

#if defined(KESTREL_AVX2)
// One rotation step of the four samples' (cos, sin) of m w0 n.
KESTREL_TARGET_AVX2 inline void rotate4(__m256d &c, __m256d &s, __m256d c1, __m256d s1) {
  const __m256d nc = _mm256_sub_pd(_mm256_mul_pd(c, c1), _mm256_mul_pd(s, s1));
  s = _mm256_add_pd(_mm256_mul_pd(s, c1), _mm256_mul_pd(c, s1));
  c = nc;
}

// r[0] plus the four samples' terms f[j] * v[j] in ascending sample order.
KESTREL_TARGET_AVX2 inline void sumsingle(double *r, const double f[4], __m256d v) {
  double lv[4];
  _mm256_storeu_pd(lv, v);
  *r = (((*r + f[0] * lv[0]) + f[1] * lv[1]) + f[2] * lv[2]) + f[3] * lv[3];
}

// r[0..3] plus the four samples' terms f[j] * t[j] (t transposed: lanes by
// harmonic), in ascending sample order.
KESTREL_TARGET_AVX2 inline void sumblock(double *r, const __m256d f[4], const __m256d t[4]) {
  __m256d acc = _mm256_loadu_pd(r);
#pragma GCC unroll 4
  for (uint32_t j = 0; j < 4; ++j) acc = _mm256_add_pd(acc, _mm256_mul_pd(f[j], t[j]));
  _mm256_storeu_pd(r, acc);
}

// harmonicsums4 with AVX2: the four samples' rotations in one vector; four
// harmonics' worth of them are transposed so that the sums of four
// consecutive harmonics take their terms side by side, each still in
// ascending n, with the products and sums of the scalar loop.
KESTREL_TARGET_AVX2 void harmonicsums4avx2(const Frame &fr, const double *w2, double w0, uint32_t n0, uint32_t H,
                                           double *W, double *rc, double *rs) {
  double gw[4], xe[4], xo[4], c1[4], s1[4];
  sampleterms4(fr, w2, w0, n0, gw, xe, xo, c1, s1);
  const __m256d vc1 = _mm256_loadu_pd(c1), vs1 = _mm256_loadu_pd(s1);
  __m256d c = _mm256_set1_pd(1.0), s = _mm256_set1_pd(0.0);
  __m256d g[4], e[4], o[4];
#pragma GCC unroll 4
  for (uint32_t j = 0; j < 4; ++j) {
    g[j] = _mm256_set1_pd(gw[j]);
    e[j] = _mm256_set1_pd(xe[j]);
    o[j] = _mm256_set1_pd(xo[j]);
  }
  uint32_t m = 0;
  for (; m + 4 <= H + 1; m += 4) {
    __m256d C[4], S[4], TC[4], TS[4];
#pragma GCC unroll 4
    for (uint32_t q = 0; q < 4; ++q) {
      C[q] = c;
      S[q] = s;
      rotate4(c, s, vc1, vs1);
    }
    kestrel::transpose4(C, TC);
    kestrel::transpose4(S, TS);
    sumblock(W + m, g, TC);
    sumblock(rc + m, e, TC);
    sumblock(rs + m, o, TS);
  }
  for (; m <= H; ++m) {
    sumsingle(W + m, gw, c);
    sumsingle(rc + m, xe, c);
    sumsingle(rs + m, xo, s);
    rotate4(c, s, vc1, vs1);
  }
  for (; m + 4 <= 2 * H + 1; m += 4) {
    __m256d C[4], TC[4];
#pragma GCC unroll 4
    for (uint32_t q = 0; q < 4; ++q) {
      C[q] = c;
      rotate4(c, s, vc1, vs1);
    }
    kestrel::transpose4(C, TC);
    sumblock(W + m, g, TC);
  }
  for (; m <= 2 * H; ++m) {
    sumsingle(W + m, gw, c);
    rotate4(c, s, vc1, vs1);
  }
}
#endif

// Harmonic least squares at k*w0, k = 0..H. On success rc[0..H] holds
// (a0, A_1..A_H) and rs[1..H] holds B_1..B_H.
bool fitharmonic(const Frame &fr, const double *w2, double w0, uint32_t H, HAMEM *a, double **rcout,
                 double **rsout) {
  const uint32_t h = fr.h;
  double *W = a->vector + (h + 1);  // W(0..2H)
  double *rc = W + (2 * static_cast<uint64_t>(H) + 1);
  double *rs = rc + (H + 1);        // rs[1..H] used, rs[0] unused
  for (uint32_t m = 0; m <= 2 * H; ++m) W[m] = 0.0;
  for (uint32_t k = 0; k <= H; ++k) rc[k] = rs[k] = 0.0;
  uint32_t n = 0;
#if defined(__GNUC__)
#if defined(KESTREL_AVX2)
  if (kestrel::haveavx2())
    for (; n + 4 <= h + 1; n += 4) harmonicsums4avx2(fr, w2, w0, n, H, W, rc, rs);
#endif
  for (; n + 4 <= h + 1; n += 4) harmonicsums4(fr, w2, w0, n, H, W, rc, rs);
#endif
  for (; n <= h; ++n) {
    const double xp = fr.sample(n), xm = fr.sample(-static_cast<int64_t>(n));
    const double g = w2[n];
    const double gw = (n == 0) ? g : 2.0 * g;
    const double xe = g * ((n == 0) ? xp : xp + xm);
    const double xo = g * (xp - xm);
    const double th = w0 * static_cast<double>(n);
    const double c1 = std::cos(th), s1 = std::sin(th);
    double c = 1.0, s = 0.0;
    uint32_t m = 0;
    for (; m <= H; ++m) {
      W[m] += gw * c;
      rc[m] += xe * c;
      rs[m] += xo * s;
      kestrel::rotatestep(c, s, c1, s1);
    }
    for (; m <= 2 * H; ++m) {
      W[m] += gw * c;
      kestrel::rotatestep(c, s, c1, s1);
    }
  }
  const uint32_t nc = H + 1, ns = H;
  double *Gc = a->matrix;
  double *Gs = Gc + static_cast<uint64_t>(nc) * nc;
  for (uint32_t k = 0; k <= H; ++k)
    for (uint32_t l = 0; l <= k; ++l) Gc[static_cast<uint64_t>(l) * nc + k] = 0.5 * (W[k - l] + W[k + l]);
  for (uint32_t k = 1; k <= H; ++k)
    for (uint32_t l = 1; l <= k; ++l)
      Gs[static_cast<uint64_t>(l - 1) * ns + (k - 1)] = 0.5 * (W[k - l] - W[k + l]);
  const double ridge = kRidge * W[0];
  if (!choleskysolve2(Gc, rc, nc, Gs, rs + 1, ns, ridge)) return false;
  *rcout = rc;
  *rsout = rs;
  return true;
}

// Window sums behind the quasi-harmonic normal matrices. The squared Hamming
// weight is a short cosine series, g(n) = sum_m alpha_m cos(m pi n / h),
// m = -2..2, so every entry is a combination of
//   A0(v) = sum g cos(v n),  B1(v) = sum g t sin(v n),  A2(v) = sum g t^2 cos(v n)
// (n = -h..h) at the difference and sum frequencies v = w_k -+ w_l, and each
// of these follows from the Dirichlet kernel D(p) = sum cos(p n) =
// sin(M p) / sin(p/2), M = h + 1/2, and its first two derivatives at
// p = v + m pi/h: O(K^2) work per fit instead of O(N K^2).
constexpr double kAlpha[5] = {0.46 * 0.46 / 4.0, 0.54 * 0.46, 0.54 * 0.54 + 0.46 * 0.46 / 2.0, 0.54 * 0.46,
                              0.46 * 0.46 / 4.0};

struct Kernel {
  uint32_t h;
  double M, invh;
  double rc[5], rs[5];  // rotation of M p by the shift m pi/h
  double hc[5], hs[5];  // rotation of p/2 by the shift
  double shift[5];      // m pi/h
};

Kernel makekernel(uint32_t h) {
  Kernel kn{};
  kn.h = h;
  kn.M = static_cast<double>(h) + 0.5;
  kn.invh = 1.0 / static_cast<double>(h);
  for (int i = 0; i < 5; ++i) {
    const double m = static_cast<double>(i - 2);
    kn.shift[i] = m * kPi / static_cast<double>(h);
    const double big = m * (kPi + 0.5 * kPi / static_cast<double>(h));
    const double half = 0.5 * kn.shift[i];
    kn.rc[i] = std::cos(big);
    kn.rs[i] = std::sin(big);
    kn.hc[i] = std::cos(half);
    kn.hs[i] = std::sin(half);
  }
  return kn;
}

// sin and cos of M w, correcting for the rounding of the product (near
// Nyquist with long windows the rounded argument alone would put errors of
// 1e-13 into the kernel, which its 1/sin(p/2) then amplifies). M has at most
// 26 significant bits, so M times either half of w is exact.
void sincosproduct(double M, double w, double *s, double *c) {
  const double p = M * w;
  const double split = 134217729.0 * w;  // 2^27 + 1
  const double wh = split - (split - w), wl = w - wh;
  const double e = (M * wh - p) + M * wl;
  const double sp = std::sin(p), cp = std::cos(p);
  *s = sp + cp * e;
  *c = cp - sp * e;
}

// a + b and its rounding error.
double twosum(double a, double b, double *err) {
  const double s = a + b, bb = s - a;
  *err = (a - (s - bb)) + (b - bb);
  return s;
}

// D, D', D'' at p + dp by summation, where sin(p/2) is too small for the
// closed form (p near a multiple of 2 pi). There a rounding of p is
// magnified by up to h^3, so the tiny dp (the rounding of the sum or
// difference of two frequencies) enters to first order.
void dirichletdirect(double p, double dp, uint32_t h, double *d) {
  if (p == 0.0 && dp == 0.0) {
    const double hd = static_cast<double>(h);
    d[0] = 2.0 * hd + 1.0;
    d[1] = 0.0;
    d[2] = -hd * (hd + 1.0) * (2.0 * hd + 1.0) / 3.0;
    return;
  }
  const double c1 = std::cos(p), s1 = std::sin(p);
  double c = 1.0, s = 0.0, e0 = 0.0, e1 = 0.0, e2 = 0.0, e3 = 0.0;
  for (uint32_t n = 1; n <= h; ++n) {
    kestrel::rotatestep(c, s, c1, s1);
    const double x = static_cast<double>(n), x2 = x * x;
    e0 += c;
    e1 += x * s;
    e2 += x2 * c;
    e3 += x2 * x * s;
  }
  // D = 1 + 2 sum cos, D' = -2 sum n sin, D'' = -2 sum n^2 cos, D''' = 2 sum n^3 sin
  d[0] = 1.0 + 2.0 * e0 - dp * 2.0 * e1;
  d[1] = -2.0 * e1 - dp * 2.0 * e2;
  d[2] = -2.0 * e2 + dp * 2.0 * e3;
}

// A0, B1, A2 at v + dv (dv the rounding error of v) from S0 = sin(M v),
// C0 = cos(M v), s0 = sin(v/2), c0 = cos(v/2).
void windowsums(const Kernel &kn, double v, double dv, double S0, double C0, double s0, double c0, double *out) {
  double a0 = 0.0, b1 = 0.0, a2 = 0.0;
  const double M = kn.M;
  for (int i = 0; i < 5; ++i) {
    const double s = s0 * kn.hc[i] + c0 * kn.hs[i];
    double d[3];
    if (std::fabs(s) * static_cast<double>(kn.h) < 1.0) {
      double dp = 0.0;
      const double p = twosum(v, kn.shift[i], &dp);
      dirichletdirect(p, dp + dv, kn.h, d);
    } else {
      const double S = S0 * kn.rc[i] + C0 * kn.rs[i];
      const double C = C0 * kn.rc[i] - S0 * kn.rs[i];
      const double c = c0 * kn.hc[i] - s0 * kn.hs[i];
      const double is = 1.0 / s, q = c * is;
      const double D = S * is, MC = M * C * is;
      d[0] = D;
      d[1] = MC - 0.5 * D * q;
      d[2] = -M * M * D - MC * q + 0.25 * D + 0.5 * D * q * q;
    }
    a0 += kAlpha[i] * d[0];
    b1 += kAlpha[i] * d[1];
    a2 += kAlpha[i] * d[2];
  }
  out[0] = a0;
  out[1] = -b1 * kn.invh;
  out[2] = -a2 * kn.invh * kn.invh;
}

// Quasi-harmonic least squares at frequencies w[0..K-1] (radians/sample).
// On success coef[4k .. 4k+3] = (c, s, d, e) of component k:
// (c + d t) cos(w n) + (s + e t) sin(w n), t = n/h.
bool fitquasiharmonic(const Frame &fr, const double *w2, const double *w, uint32_t K, QHAMEM *a, double *coef) {
  const uint32_t h = fr.h;
  const uint32_t B = 2 * K + 1;
  double *v = a->vector + (h + 1);
  double *be = v;       // even right-hand side / solution
  double *bo = be + B;  // odd
  double *re = bo + B;  // first row of the even matrix (the constant)
  double *ro = re + B;  // first row of the odd matrix (t)
  double *ck = ro + B;  // cos(w_k n), sin(w_k n), and their steps
  double *sk = ck + K;
  double *c1 = sk + K;
  double *s1 = c1 + K;
  double *Ge = a->matrix;
  double *Go = Ge + static_cast<uint64_t>(B) * B;
  for (uint32_t i = 0; i < B; ++i) be[i] = bo[i] = re[i] = ro[i] = 0.0;
  for (uint32_t k = 0; k < K; ++k) {
    ck[k] = 1.0;
    sk[k] = 0.0;
    c1[k] = std::cos(w[k]);
    s1[k] = std::sin(w[k]);
  }
  // Right-hand sides and the rows of the constant and t: O(N K).
  const double invh = 1.0 / static_cast<double>(h);
  for (uint32_t n = 0; n <= h; ++n) {
    const double t = static_cast<double>(n) * invh;
    const double xp = fr.sample(n), xm = fr.sample(-static_cast<int64_t>(n));
    const double g = w2[n];
    const double ge = (n == 0) ? g : 2.0 * g;
    const double xe = g * ((n == 0) ? xp : xp + xm);
    const double xo = g * (xp - xm);
    re[0] += ge;
    be[0] += xe;
    const bool odd = n > 0;  // odd functions vanish at the centre
    if (odd) {
      ro[0] += ge * t * t;
      bo[0] += xo * t;
    }
    for (uint32_t k = 0; k < K; ++k) {
      const double cv = ck[k], sv = sk[k];
      const double ts = t * sv, tc = t * cv;
      be[1 + 2 * k] += xe * cv;
      be[2 + 2 * k] += xe * ts;
      re[1 + 2 * k] += ge * cv;
      re[2 + 2 * k] += ge * ts;
      if (odd) {
        bo[1 + 2 * k] += xo * sv;
        bo[2 + 2 * k] += xo * tc;
        ro[1 + 2 * k] += ge * sv * t;
        ro[2 + 2 * k] += ge * tc * t;
      }
      const double nc = cv * c1[k] - sv * s1[k];
      sk[k] = sv * c1[k] + cv * s1[k];
      ck[k] = nc;
    }
  }
  // The rest of both upper triangles from the window sums; the rotor
  // arrays now hold sin(M w_k), cos(M w_k), sin(w_k/2), cos(w_k/2).
  const Kernel kn = makekernel(h);
  double *SM = ck, *CM = sk, *SH = c1, *CH = s1;
  for (uint32_t k = 0; k < K; ++k) {
    sincosproduct(kn.M, w[k], SM + k, CM + k);
    SH[k] = std::sin(0.5 * w[k]);
    CH[k] = std::cos(0.5 * w[k]);
  }
  for (uint32_t i = 0; i < B; ++i) {
    Ge[i] = re[i];
    Go[i] = ro[i];
  }
  double zero[3];  // the difference frequency of a component with itself
  windowsums(kn, 0.0, 0.0, 0.0, 1.0, 0.0, 1.0, zero);
  for (uint32_t k = 0; k < K; ++k) {
    const uint64_t kc = 1 + 2 * static_cast<uint64_t>(k), kt = kc + 1;
    for (uint32_t l = 0; l <= k; ++l) {
      double dif[3], sum[3], dd = 0.0, ds = 0.0;
      const double vd = twosum(w[k], -w[l], &dd), vs = twosum(w[k], w[l], &ds);
      if (l == k) {
        dif[0] = zero[0];
        dif[1] = zero[1];
        dif[2] = zero[2];
      } else {
        windowsums(kn, vd, dd, SM[k] * CM[l] - CM[k] * SM[l], CM[k] * CM[l] + SM[k] * SM[l],
                   SH[k] * CH[l] - CH[k] * SH[l], CH[k] * CH[l] + SH[k] * SH[l], dif);
      }
      windowsums(kn, vs, ds, SM[k] * CM[l] + CM[k] * SM[l], CM[k] * CM[l] - SM[k] * SM[l],
                 SH[k] * CH[l] + CH[k] * SH[l], CH[k] * CH[l] - SH[k] * SH[l], sum);
      const uint64_t lc = 1 + 2 * static_cast<uint64_t>(l), lt = lc + 1;
      Ge[lc * B + kc] = 0.5 * (dif[0] + sum[0]);  // cos_l cos_k
      Ge[lc * B + kt] = 0.5 * (sum[1] + dif[1]);  // cos_l t sin_k
      Ge[lt * B + kt] = 0.5 * (dif[2] - sum[2]);  // t sin_l t sin_k
      Go[lc * B + kc] = 0.5 * (dif[0] - sum[0]);  // sin_l sin_k
      Go[lc * B + kt] = 0.5 * (sum[1] - dif[1]);  // sin_l t cos_k
      Go[lt * B + kt] = 0.5 * (dif[2] + sum[2]);  // t cos_l t cos_k
      if (l < k) {
        Ge[lt * B + kc] = 0.5 * (sum[1] - dif[1]);  // t sin_l cos_k
        Go[lt * B + kc] = 0.5 * (sum[1] + dif[1]);  // t cos_l sin_k
      }
    }
  }
  const double ridge = kRidge * re[0];
  if (!choleskysolve2(Ge, be, B, Go, bo, B, ridge)) return false;
  for (uint32_t k = 0; k < K; ++k) {
    coef[4 * k + 0] = be[1 + 2 * k];  // c
    coef[4 * k + 1] = bo[1 + 2 * k];  // s
    coef[4 * k + 2] = bo[2 + 2 * k];  // d
    coef[4 * k + 3] = be[2 + 2 * k];  // e
  }
  return true;
}

// Frequency mismatch (radians/sample) of component (c, s, d, e).
double mismatch(const double *q, uint32_t h) {
  const double c = q[0], s = q[1], d = q[2], e = q[3];
  const double p = c * c + s * s;
  if (!(p > 0.0)) return 0.0;
  return (s * d - c * e) / (static_cast<double>(h) * p);
}

double clampabs(double v, double lim) { return v > lim ? lim : (v < -lim ? -lim : v); }

// Fundamental (radians/sample) from the corrected frequencies of a fit: the
// power-weighted mean of (w_k + eta_k)/k. Weighting by power alone (rather
// than by power times k^2, the variance-optimal choice when every correction
// is valid) lets the strong low harmonics, always within the capture range,
// decide. 0 when nothing has power.
double refinedw0(const double *w, const double *coef, uint32_t K, uint32_t h, double w0) {
  double num = 0.0, den = 0.0;
  for (uint32_t k = 0; k < K; ++k) {
    const double *q = coef + 4 * k;
    const double p = q[0] * q[0] + q[1] * q[1];
    const double wk = w[k] + clampabs(mismatch(q, h), kMaxCorrection * w0);
    num += p * wk / static_cast<double>(k + 1);
    den += p;
  }
  if (!(den > 0.0)) return 0.0;
  const double r = num / den;
  return std::isfinite(r) ? r : 0.0;
}

// Log amplitude density on the bins k = 0 .. h (k*du in harmonic numbers)
// from the power densities P[0..H-1] of harmonics 1..H: a monotone cubic in
// power between harmonics (F. N. Fritsch and R. E. Carlson, "Monotone
// piecewise cubic interpolation", SIAM J. Numer. Anal., 1980), flat below the
// first and above the last. Interpolating power rather than log amplitude
// keeps the level of the valleys between unequal harmonics (a chord of the
// log would take their geometric mean); the monotone cubic has no corner at
// each harmonic, which a warped cepstrum of moderate order would otherwise
// reproduce as ripple at the pitch quefrency. Monotone between neighbours,
// it never overshoots, so the power stays positive. slope: H doubles.
void interpolateharmonics(const double *P, double *slope, uint32_t H, double du, uint32_t h, double *out) {
  for (uint32_t k = 0; k < H; ++k) {
    if (H == 1) {
      slope[k] = 0.0;
      continue;
    }
    const double dl = (k > 0) ? P[k] - P[k - 1] : P[k + 1] - P[k];
    const double dr = (k + 1 < H) ? P[k + 1] - P[k] : dl;
    slope[k] = (dl * dr > 0.0) ? 0.5 * (dl + dr) : 0.0;  // 0 at a local extremum
  }
  for (uint32_t k = 0; k + 1 < H; ++k) {
    const double d = P[k + 1] - P[k];
    if (d == 0.0) continue;  // both slopes are already 0
    const double a = slope[k] / d, b = slope[k + 1] / d;
    const double r = a * a + b * b;
    if (r > 9.0) {  // keep the cubic monotone
      const double t = 3.0 / std::sqrt(r);
      slope[k] = t * a * d;
      slope[k + 1] = t * b * d;
    }
  }
  for (uint32_t k = 0; k <= h; ++k) {
    const double u = static_cast<double>(k) * du;
    double v;
    if (u <= 1.0) {
      v = P[0];
    } else if (u >= static_cast<double>(H)) {
      v = P[H - 1];
    } else {
      const uint32_t j = static_cast<uint32_t>(u);  // between harmonics j and j+1
      const double t = u - static_cast<double>(j), t2 = t * t, t3 = t2 * t;
      v = (2.0 * t3 - 3.0 * t2 + 1.0) * P[j - 1] + (t3 - 2.0 * t2 + t) * slope[j - 1] +
          (3.0 * t2 - 2.0 * t3) * P[j] + (t3 - t2) * slope[j];
    }
    out[k] = 0.5 * std::log(v);
  }
}

// Vector layout sizes (doubles) of the two areas for K harmonics and a
// window of maxlen samples.
uint64_t hamvector(uint64_t K, uint64_t maxlen) { return (maxlen / 2 + 1) + (2 * K + 1) + 2 * (K + 1); }
uint64_t hammatrix(uint64_t K) { return (K + 1) * (K + 1) + K * K; }
uint64_t qhamvector(uint64_t K, uint64_t maxlen) {
  // weights, 4 vectors of 2K+1, 4 rotor arrays, frequencies and coefficients
  return (maxlen / 2 + 1) + 4 * (2 * K + 1) + 4 * K + K + 4 * K;
}
uint64_t qhammatrix(uint64_t K) { return 2 * (2 * K + 1) * (2 * K + 1); }

// Quasi-harmonic analysis on `periods` pitch periods with `fits` fits; w (K doubles) holds the start
// frequencies and receives the final ones; coef the final fit.
bool runqhm(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t K, QHAMEM *a,
            double periods, int fits, Frame *fr, double **wout, double **coefout) {
  if (K == 0 || K > a->maxharms) return false;
  double *w2 = a->vector;
  if (!prepareframe(x, n, fs, centre, f0, periods, a, fr, w2)) return false;
  double *w = a->vector + (fr->h + 1) + 4 * (2 * static_cast<uint64_t>(K) + 1) + 4 * static_cast<uint64_t>(K);
  double *coef = w + K;
  const double w0 = kTwoPi * f0 / fs;
  for (uint32_t k = 0; k < K; ++k) w[k] = static_cast<double>(k + 1) * w0;
  for (int it = 0; it < fits; ++it) {
    if (!fitquasiharmonic(*fr, w2, w, K, a, coef)) return false;
    if (it + 1 == fits) break;
    // Corrected frequencies stay close to the harmonic series of the refined
    // f0: a harmonic whose start was outside the model's capture range (a
    // high harmonic of a slightly wrong f0) is re-seeded near its true place
    // instead of wandering.
    const double w0r = refinedw0(w, coef, K, fr->h, w0);
    const double base = (w0r > 0.0) ? w0r : w0;
    // Components also keep their order, at least kMinSeparation * w0 apart
    // and below Nyquist with room for the ones above them. Two components
    // pushed onto one frequency (a refined f0 a little high moves the top
    // harmonics past Nyquist, where they would stay at their start, right on
    // a lower one) make the normal matrix singular: their amplitudes then
    // grow without bound in opposite signs.
    const double sep = kMinSeparation * w0;
    for (uint32_t k = 0; k < K; ++k) {
      const double nominal = static_cast<double>(k + 1) * base;
      double wk = w[k] + clampabs(mismatch(coef + 4 * k, fr->h), kMaxCorrection * w0);
      wk = nominal + clampabs(wk - nominal, kSeriesTolerance * base);
      if (!std::isfinite(wk)) wk = w[k];
      const double lo = (k == 0) ? sep : w[k - 1] + sep;
      const double hi = kPi * (1.0 - 1e-9) - static_cast<double>(K - 1 - k) * sep;
      if (wk > hi) wk = hi;
      if (wk < lo) wk = lo;
      w[k] = wk;
    }
  }
  *wout = w;
  *coefout = coef;
  return true;
}

}  // namespace

extern "C" {

HAMEM *hameminitialize(double fs, double fmax, double fmin) {
  const Sizing sz = sizefor(fs, fmax, fmin, kPeriods);
  if (!sz.ok) return nullptr;
  return newarea<HAMEM>(HAMEM_KIND, fs, fmax, sz, hammatrix(sz.maxharms), hamvector(sz.maxharms, sz.maxlen));
}

int hamemdestroy(HAMEM *area) {
  freearea(area);
  return 0;
}

QHAMEM *qhameminitialize(double fs, double fmax, double fmin) {
  const Sizing sz = sizefor(fs, fmax, fmin, kQhmPeriods > kQhmRefinePeriods ? kQhmPeriods : kQhmRefinePeriods);
  if (!sz.ok) return nullptr;
  return newarea<QHAMEM>(QHAMEM_KIND, fs, fmax, sz, qhammatrix(sz.maxharms), qhamvector(sz.maxharms, sz.maxlen));
}

int qhamemdestroy(QHAMEM *area) {
  freearea(area);
  return 0;
}

int getharmonics(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t H, double *amps,
                 double *phases, HAMEM *area) {
  if (!area || !amps || kindof(area) != HAMEM_KIND) return -1;
  if (H == 0 || H > area->maxharms) return -1;
  Frame fr{};
  double *w2 = area->vector;
  if (!prepareframe(x, n, fs, centre, f0, kPeriods, area, &fr, w2)) return -1;
  double *rc = nullptr, *rs = nullptr;
  if (!fitharmonic(fr, w2, kTwoPi * f0 / fs, H, area, &rc, &rs)) return -1;
  for (uint32_t k = 1; k <= H; ++k) {
    amps[k - 1] = std::sqrt(rc[k] * rc[k] + rs[k] * rs[k]);
    if (phases) phases[k - 1] = std::atan2(-rs[k], rc[k]);
  }
  return 0;
}

int getsqharmonics(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t H, double *amps,
                   double *phases, double *freqs, QHAMEM *area) {
  if (!area || !amps || kindof(area) != QHAMEM_KIND) return -1;
  Frame fr{};
  double *w = nullptr, *coef = nullptr;
  if (!runqhm(x, n, fs, centre, f0, H, area, kQhmPeriods, kQhmFits, &fr, &w, &coef)) return -1;
  const double w0 = kTwoPi * f0 / fs;
  for (uint32_t k = 0; k < H; ++k) {
    const double c = coef[4 * k], s = coef[4 * k + 1];
    amps[k] = std::sqrt(c * c + s * s);
    if (phases) phases[k] = std::atan2(-s, c);
    // The last fit's mismatch still improves the frequency (its amplitude at
    // the centre is insensitive to a small mismatch).
    if (freqs) freqs[k] = (w[k] + clampabs(mismatch(coef + 4 * k, fr.h), kSeriesTolerance * w0)) * fs / kTwoPi;
  }
  return 0;
}

double qharefinepitch(const double *x, uint32_t n, double fs, uint32_t centre, double f0, double fmax,
                      QHAMEM *area) {
  if (!area || kindof(area) != QHAMEM_KIND || std::isnan(fmax)) return 0.0;
  uint32_t K = hanoharms(fs, fmax, f0);
  if (K > area->maxharms) K = area->maxharms;
  Frame fr{};
  double *w = nullptr, *coef = nullptr;
  if (!runqhm(x, n, fs, centre, f0, K, area, kQhmRefinePeriods, 1, &fr, &w, &coef)) return 0.0;
  const double f = refinedw0(w, coef, K, fr.h, kTwoPi * f0 / fs) * fs / kTwoPi;
  return std::isfinite(f) ? f : 0.0;
}

int getlogspectrumfromharms(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                            double *buf, HAMEM *area) {
  if (!area || !buf || nfft < 4 || (nfft & (nfft - 1)) != 0) return -1;
  if (!finitepositive(f0) || !finitepositive(fs)) return -1;
  const uint32_t kind = kindof(area);
  double *amps = buf + nfft;
  uint32_t H;
  if (kind == HAMEM_KIND) {
    H = hanoharms(fs, area->fmax, f0);
    if (H == 0 || 2 * static_cast<uint64_t>(H) > nfft) return -1;
    if (getharmonics(x, n, fs, centre, f0, H, amps, nullptr, area) != 0) return -1;
  } else if (kind == QHAMEM_KIND) {
    QHAMEM *q = reinterpret_cast<QHAMEM *>(area);
    H = hanoharms(fs, q->fmax, f0);
    if (H == 0 || 2 * static_cast<uint64_t>(H) > nfft) return -1;
    if (getsqharmonics(x, n, fs, centre, f0, H, amps, nullptr, nullptr, q) != 0) return -1;
  } else {
    return -1;
  }
  // Harmonic power density a^2 / (4 f0), never below the periodogram's
  // silence floor, then interpolated onto the bins 0 .. nfft/2.
  const double floor = 1.0000000000000002e-10 / fs;
  for (uint32_t k = 0; k < H; ++k) {
    const double d = amps[k] * amps[k] / (4.0 * f0);
    amps[k] = (d > floor) ? d : floor;  // also a zero amplitude
  }
  const uint32_t h = nfft / 2;
  interpolateharmonics(amps, amps + H, H, fs / (static_cast<double>(nfft) * f0), h, buf);
  for (uint32_t k = 1; k < h; ++k) buf[nfft - k] = buf[k];
  return 0;
}

}  // extern "C"
