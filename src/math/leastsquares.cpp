// Least squares through the normal equations, with an optional quadratic
// penalty on high-index unknowns, and Cholesky inversion of the symmetric
// normal matrix. The determinant doubles as the failure signal.
#include "matvect.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace {

// Penalty per squared index: makes a regularised discrete-cepstrum fit prefer
// smooth envelopes (unknown i costs i^2 times this).
constexpr double kRegularisation = 0.015791367;

// Largest work area allocated here (doubles); beyond this the call is refused
// rather than risking an unbounded allocation.
constexpr uint64_t kMaxWorkDoubles = uint64_t(1) << 28;

// Element (i, j) of a row-major matrix with `cols` columns.
inline uint64_t at(uint32_t i, uint32_t j, uint32_t cols) {
  return static_cast<uint64_t>(i) * cols + j;
}

// Inverse V of the upper-triangular U (n x n, in u) into v, upper part by
// back substitution column by column, lower part zero.
void invertupper(uint32_t n, const double *u, double *v) {
  for (uint32_t i = 0; i < n; ++i)
    for (uint32_t j = 0; j < i; ++j) v[at(i, j, n)] = 0.0;
  for (uint32_t j = 0; j < n; ++j) {
    v[at(j, j, n)] = 1.0 / u[at(j, j, n)];
    for (uint32_t i = j; i-- > 0;) {
      double s = 0.0;
      for (uint32_t k = i + 1; k <= j; ++k) s += u[at(i, k, n)] * v[at(k, j, n)];
      v[at(i, j, n)] = -s / u[at(i, i, n)];
    }
  }
}

}  // namespace

extern "C" {

double choleskyinvdet(uint32_t n, double *M, double *inv, int16_t ownscratch) {
  if (n == 0) return 0.0;
  if (n == 1) {
    // A 1 x 1 matrix is inverted whatever its sign; only an exact zero fails.
    const double a = M[0];
    if (a == 0.0) return 0.0;
    inv[0] = 1.0 / a;
    return a;
  }
  // M = U^T U, U upper triangular, written row by row into inv.
  double det = 1.0;
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t j = i; j < n; ++j) {
      double sum = 0.0;
      for (uint32_t r = 0; r < i; ++r) sum += inv[at(r, i, n)] * inv[at(r, j, n)];
      const double s = M[at(i, j, n)] - sum;
      if (j == i) {
        // A negative pivot stops at once; a zero or NaN pivot runs on and
        // shows up in the determinant.
        if (s < 0) return 0.0;
        det *= s;
        inv[at(i, i, n)] = std::sqrt(s);
      } else {
        inv[at(i, j, n)] = s / inv[at(i, i, n)];
      }
    }
  }
  if (det == 0.0) return 0.0;

  double *v = M;
  if (ownscratch == 1) {
    const uint64_t cells = static_cast<uint64_t>(n) * n;
    if (cells > kMaxWorkDoubles) return 0.0;
    v = static_cast<double *>(std::malloc(cells * sizeof(double)));
    if (!v) return 0.0;
  }
  invertupper(n, inv, v);
  // inv = V V^T: upper triangle by sums over l = j .. n-1, then mirrored.
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t j = i; j < n; ++j) {
      double s = 0.0;
      for (uint32_t l = j; l < n; ++l) s += v[at(i, l, n)] * v[at(j, l, n)];
      inv[at(i, j, n)] = s;
      inv[at(j, i, n)] = s;
    }
  }
  if (ownscratch == 1) std::free(v);
  return det;
}

int solveleastsquares(const double *A, const double *B, double *X, uint32_t m, uint32_t n, uint32_t q,
                      double *work, int16_t regularise) {
  double *own = nullptr;
  if (!work) {
    const uint64_t size = (static_cast<uint64_t>(q) + 2 * static_cast<uint64_t>(n)) * n;
    if (size > kMaxWorkDoubles) return -1;
    own = static_cast<double *>(std::malloc((size ? size : 1) * sizeof(double)));
    if (!own) return -1;
    work = own;
  }
  double *G = work;
  double *Ginv = work + static_cast<uint64_t>(n) * n;
  double *C = Ginv + static_cast<uint64_t>(n) * n;

  // Normal matrix: lower triangle accumulated, then mirrored.
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t j = 0; j <= i; ++j) {
      double s = 0.0;
      for (uint32_t k = 0; k < m; ++k) s += A[at(k, i, n)] * A[at(k, j, n)];
      G[at(i, j, n)] = s;
      G[at(j, i, n)] = s;
    }
  }
  if (regularise == 1) {
    for (uint32_t i = 0; i < n; ++i) {
      const uint64_t i2 = static_cast<uint64_t>(i) * i;  // exact integer square
      G[at(i, i, n)] += static_cast<double>(i2) * kRegularisation;
    }
  }
  const double d = choleskyinvdet(n, G, Ginv, 0);
  if (d == 0.0) {  // a NaN determinant is not a failure
    std::free(own);
    return -1;
  }
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t j = 0; j < q; ++j) {
      double s = 0.0;
      for (uint32_t k = 0; k < m; ++k) s += A[at(k, i, n)] * B[at(k, j, q)];
      C[at(i, j, q)] = s;
    }
  }
  for (uint32_t i = 0; i < n; ++i) {
    for (uint32_t j = 0; j < q; ++j) {
      double s = 0.0;
      for (uint32_t l = 0; l < n; ++l) s += Ginv[at(i, l, n)] * C[at(l, j, q)];
      X[at(i, j, q)] = s;
    }
  }
  std::free(own);
  return 0;
}

}  // extern "C"
