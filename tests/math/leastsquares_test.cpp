// Least squares and Cholesky inversion: hand-computed inverses and
// determinants, the degenerate 1 x 1 and zero-pivot behaviour, the exact
// regularisation penalty, and solutions checked against systems whose answer
// is known by construction.
#include "matvect.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

// Determinant by Gaussian elimination with partial pivoting in long double:
// independent of the factorisation under test.
long double determinant(std::vector<long double> a, uint32_t n) {
  long double det = 1;
  for (uint32_t c = 0; c < n; ++c) {
    uint32_t piv = c;
    for (uint32_t r = c + 1; r < n; ++r)
      if (std::fabs(a[r * n + c]) > std::fabs(a[piv * n + c])) piv = r;
    if (a[piv * n + c] == 0) return 0;
    if (piv != c) {
      for (uint32_t k = 0; k < n; ++k) std::swap(a[c * n + k], a[piv * n + k]);
      det = -det;
    }
    det *= a[c * n + c];
    for (uint32_t r = c + 1; r < n; ++r) {
      const long double f = a[r * n + c] / a[c * n + c];
      for (uint32_t k = c; k < n; ++k) a[r * n + k] -= f * a[c * n + k];
    }
  }
  return det;
}

// Random symmetric positive-definite matrix R^T R + n I.
std::vector<double> randomspd(uint32_t n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> r(n * n), m(n * n, 0.0);
  for (double &v : r) v = dist(gen);
  for (uint32_t i = 0; i < n; ++i)
    for (uint32_t j = 0; j < n; ++j) {
      double s = 0;
      for (uint32_t k = 0; k < n; ++k) s += r[k * n + i] * r[k * n + j];
      m[i * n + j] = s + (i == j ? n : 0);
    }
  return m;
}

TEST(CholeskyInvDet, HandComputedCases) {
  struct Case {
    const char *name;
    uint32_t n;
    std::vector<double> m;
    double det;
    std::vector<double> inv;  // empty: failure, inverse not checked
  };
  const std::vector<Case> cases = {
      {"2x2 textbook", 2, {4, 2, 2, 3}, 8.0, {0.375, -0.25, -0.25, 0.5}},
      {"1x1 positive", 1, {4}, 4.0, {0.25}},
      {"1x1 negative is inverted", 1, {-2}, -2.0, {-0.5}},
      {"1x1 NaN is inverted", 1, {NAN}, NAN, {NAN}},
      {"negative first pivot", 2, {-1, 0, 0, 1}, 0.0, {}},
      {"negative second pivot", 2, {1, 2, 2, 1}, 0.0, {}},
      {"zero pivot in last row", 2, {1, 1, 1, 1}, 0.0, {}},
      {"diagonal 3x3", 3, {2, 0, 0, 0, 4, 0, 0, 0, 8}, 64.0, {0.5, 0, 0, 0, 0.25, 0, 0, 0, 0.125}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<double> m = c.m;
    std::vector<double> inv(c.n * c.n, 123.0);
    const double det = choleskyinvdet(c.n, m.data(), inv.data(), 1);
    if (std::isnan(c.det)) {
      EXPECT_TRUE(std::isnan(det));
    } else {
      EXPECT_EQ(det, c.det);
    }
    for (size_t k = 0; k < c.inv.size(); ++k) {
      if (std::isnan(c.inv[k]))
        EXPECT_TRUE(std::isnan(inv[k]));
      else
        EXPECT_NEAR(inv[k], c.inv[k], 1e-15) << "element " << k;
    }
    EXPECT_EQ(0, std::memcmp(m.data(), c.m.data(), m.size() * sizeof(double)))
        << "own scratch must leave the input alone";
  }
}

TEST(CholeskyInvDet, DegenerateSizesWriteNothing) {
  double m0 = 1.0, inv0 = 7.0;
  EXPECT_EQ(choleskyinvdet(0, &m0, &inv0, 0), 0.0);
  EXPECT_EQ(inv0, 7.0);
  double z = 0.0, invz = 7.0;
  EXPECT_EQ(choleskyinvdet(1, &z, &invz, 0), 0.0);
  EXPECT_EQ(invz, 7.0);
}

TEST(CholeskyInvDet, FullSymmetricInverseAndDeterminant) {
  for (uint32_t n : {2u, 3u, 5u, 8u, 17u}) {
    SCOPED_TRACE(n);
    const std::vector<double> m = randomspd(n, 100 + n);
    std::vector<double> scratch = m, inv(n * n, 0.0);
    const double det = choleskyinvdet(n, scratch.data(), inv.data(), 0);
    std::vector<long double> ml(m.begin(), m.end());
    const long double ref = determinant(ml, n);
    EXPECT_NEAR(det / static_cast<double>(ref), 1.0, 1e-12);
    // Every element of inv * m, both triangles, must be the identity.
    for (uint32_t i = 0; i < n; ++i)
      for (uint32_t j = 0; j < n; ++j) {
        double s = 0;
        for (uint32_t k = 0; k < n; ++k) s += inv[i * n + k] * m[k * n + j];
        EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12) << i << "," << j;
        EXPECT_EQ(inv[i * n + j], inv[j * n + i]) << "mirrored " << i << "," << j;
      }
    // Without own scratch the input is used for the triangular inverse.
    EXPECT_NE(scratch, m);
    // With own scratch: same bits, input untouched.
    std::vector<double> keep = m, inv2(n * n, 0.0);
    EXPECT_EQ(choleskyinvdet(n, keep.data(), inv2.data(), 1), det);
    EXPECT_EQ(inv2, inv);
    EXPECT_EQ(keep, m);
  }
}

TEST(SolveLeastSquares, RegularisationPenalisesBySquaredIndex) {
  // A = identity, B = ones: G = I + diag(i^2 * 0.015791367), so x_i = 1/(1 + i^2 lambda).
  const uint32_t n = 12;
  std::vector<double> A(n * n, 0.0), B(n, 1.0), X(n, 0.0);
  for (uint32_t i = 0; i < n; ++i) A[i * n + i] = 1.0;
  ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), n, n, 1, nullptr, 1), 0);
  for (uint32_t i = 0; i < n; ++i) {
    const double expected = 1.0 / (1.0 + static_cast<double>(i * i) * 0.015791367);
    EXPECT_NEAR(X[i], expected, 1e-15) << i;
  }
  // Any flag value other than exactly 1 leaves the fit unregularised.
  for (int16_t flag : {int16_t(0), int16_t(2), int16_t(-1)}) {
    ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), n, n, 1, nullptr, flag), 0);
    for (uint32_t i = 0; i < n; ++i) EXPECT_NEAR(X[i], 1.0, 1e-15) << "flag " << flag << " i " << i;
  }
}

TEST(SolveLeastSquares, RecoversExactSolutionsOfOverdeterminedSystems) {
  std::mt19937_64 gen(7);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  const uint32_t m = 30, n = 6, q = 2;
  std::vector<double> A(m * n), Xtrue(n * q), B(m * q, 0.0);
  for (double &v : A) v = dist(gen);
  for (double &v : Xtrue) v = dist(gen);
  for (uint32_t k = 0; k < m; ++k)
    for (uint32_t j = 0; j < q; ++j)
      for (uint32_t i = 0; i < n; ++i) B[k * q + j] += A[k * n + i] * Xtrue[i * q + j];
  std::vector<double> X(n * q, 0.0), X2(n * q, 0.0);
  ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), m, n, q, nullptr, 0), 0);
  for (uint32_t k = 0; k < n * q; ++k) EXPECT_NEAR(X[k], Xtrue[k], 1e-12) << k;
  // A caller-supplied work area of (q + 2n) n doubles gives the same bits.
  std::vector<double> work((q + 2 * n) * n, -1.0);
  ASSERT_EQ(solveleastsquares(A.data(), B.data(), X2.data(), m, n, q, work.data(), 0), 0);
  EXPECT_EQ(X2, X);

  // Residual orthogonality for noisy data: A^T (A X - B) = 0.
  for (double &v : B) v += 0.1 * dist(gen);
  ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), m, n, q, nullptr, 0), 0);
  for (uint32_t i = 0; i < n; ++i)
    for (uint32_t j = 0; j < q; ++j) {
      double g = 0;
      for (uint32_t k = 0; k < m; ++k) {
        double r = -B[k * q + j];
        for (uint32_t l = 0; l < n; ++l) r += A[k * n + l] * X[l * q + j];
        g += A[k * n + i] * r;
      }
      EXPECT_NEAR(g, 0.0, 1e-12) << i << "," << j;
    }
}

TEST(SolveLeastSquares, SingularAndNaNCases) {
  // n = 1 with a zero column: -1 with or without regularisation, X untouched.
  for (int16_t reg : {int16_t(0), int16_t(1)}) {
    std::vector<double> A(4, 0.0), B = {1, 2, 3, 4};
    double X = 42.0;
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), &X, 4, 1, 1, nullptr, reg), -1) << reg;
    EXPECT_EQ(X, 42.0);
  }
  // Collinear columns: zero last pivot, -1.
  {
    std::vector<double> A = {1, 1, 2, 2, 3, 3}, B = {1, 2, 3}, X = {5, 5};
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 3, 2, 1, nullptr, 0), -1);
    EXPECT_EQ(X[0], 5.0);
  }
  // n = 3, A = 0, regularised: G = diag(0, lambda, 4 lambda); the zero first
  // pivot leaves 0/0 behind, the determinant is NaN and the solve goes on.
  {
    std::vector<double> A(5 * 3, 0.0), B(5, 1.0), X(3, 0.0);
    std::vector<double> work((1 + 2 * 3) * 3, 0.0);
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 5, 3, 1, work.data(), 1), 0);
    for (double v : X) EXPECT_TRUE(std::isnan(v));
  }
  // A zero first pivot does not stop the factorisation even unregularised:
  // 0/0 runs on to a NaN determinant, which is not a failure.
  {
    std::vector<double> A(5 * 3, 0.0), B(5, 1.0), X(3, 9.0);
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 5, 3, 1, nullptr, 0), 0);
    EXPECT_TRUE(std::isnan(X[0]));
  }
  // Only the last pivot being zero gives an exact 0.0 determinant: A with a
  // zero last column is singular (-1) and X is left alone.
  {
    std::vector<double> A = {1, 2, 0, 3, 1, 0, 0, 1, 0, 2, 2, 0}, B(4, 1.0), X(3, 9.0);
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 4, 3, 1, nullptr, 0), -1);
    EXPECT_EQ(X[0], 9.0);
    // Regularised, the last unknown is penalised and the system is solvable.
    EXPECT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 4, 3, 1, nullptr, 1), 0);
    EXPECT_EQ(X[2], 0.0);
  }
  // n = 0: nothing to solve, reported as singular.
  {
    double A = 0, B = 0, X = 3;
    EXPECT_EQ(solveleastsquares(&A, &B, &X, 1, 0, 1, nullptr, 0), -1);
  }
}

TEST(SolveLeastSquares, RegularisedDiagonalEnteringTheInversion) {
  // G = A^T A + diag(i^2 lambda) for a 2-unknown problem, inverted by hand:
  // A = [[1,0],[0,1],[1,1]] gives A^T A = [[2,1],[1,2]]; with the penalty
  // G = [[2,1],[1,2+lambda]], det = 3 + 2 lambda, B = (1, 2, 3): A^T B = (4, 5).
  const double lambda = 0.015791367;
  std::vector<double> A = {1, 0, 0, 1, 1, 1}, B = {1, 2, 3}, X(2);
  ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), 3, 2, 1, nullptr, 1), 0);
  const double det = 3 + 2 * lambda;
  EXPECT_NEAR(X[0], ((2 + lambda) * 4 - 5) / det, 1e-15);
  EXPECT_NEAR(X[1], (2 * 5 - 4) / det, 1e-15);
}

}  // namespace
