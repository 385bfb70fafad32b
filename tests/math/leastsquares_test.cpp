// Least squares and Cholesky inversion: hand-computed inverses and
// determinants, the degenerate and zero-pivot behaviour, and the exact
// regularisation penalty on two right-hand sides (the cepstral analysis
// tests solve real overdetermined systems).
#include "matvect.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/synthref.h"

namespace {

using namespace kestreltest;
const double kLambda = 0.015791367;

TEST(CholeskyInvDet, HandComputedAndDegenerateCases) {
  // inv: expected inverse; 123 marks elements that must stay untouched.
  const struct { const char *name; uint32_t n; std::vector<double> m; double det; std::vector<double> inv; } cases[] = {
      {"2x2 textbook", 2, {4, 2, 2, 3}, 8.0, {0.375, -0.25, -0.25, 0.5}},
      {"3x3 by cofactors", 3, {4, 2, 0, 2, 3, 1, 0, 1, 2}, 12.0, {5 / 12., -4 / 12., 2 / 12., -4 / 12., 8 / 12., -4 / 12.,
                                                                2 / 12., -4 / 12., 8 / 12.}},
      {"1x1 negative is inverted", 1, {-2}, -2.0, {-0.5}},  {"1x1 NaN is inverted", 1, {NAN}, NAN, {NAN}},
      {"1x1 zero writes nothing", 1, {0}, 0.0, {123}},      {"negative first pivot", 2, {-1, 0, 0, 1}, 0.0, {}},
      {"negative second pivot", 2, {1, 2, 2, 1}, 0.0, {}}, {"zero pivot in last row", 2, {1, 1, 1, 1}, 0.0, {}}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    for (int16_t own : {int16_t{1}, int16_t{0}}) {
      std::vector<double> m = c.m, inv(c.n * c.n, 123.0);
      const double det = choleskyinvdet(c.n, m.data(), inv.data(), own);
      // An exact 0.0 marks failure (a zero or negative pivot).
      EXPECT_TRUE(std::isnan(c.det) ? std::isnan(det) : c.det ? std::fabs(det - c.det) < 1e-14 : det == 0.0)
          << det;
      for (size_t k = 0; k < c.inv.size(); ++k)
        if (std::isnan(c.inv[k])) EXPECT_TRUE(std::isnan(inv[k]));
        else EXPECT_NEAR(inv[k], c.inv[k], 1e-15) << "element " << k;
      EXPECT_TRUE(own != 1 || std::memcmp(m.data(), c.m.data(), m.size() * sizeof(double)) == 0) << "input kept";
    }
  }
  double m0 = 1.0, inv0 = 7.0;
  EXPECT_TRUE(choleskyinvdet(0, &m0, &inv0, 0) == 0.0 && inv0 == 7.0);
}

TEST(SolveLeastSquares, RegularisationPenalisesBySquaredIndex) {
  // A = identity, B = columns of ones and twos: x_ij = (j + 1)/(1 + i^2 lambda); any flag other
  // than exactly 1 is unregularised.
  const uint32_t n = 12;
  std::vector<double> A(n * n, 0.0), B(2 * n, 1.0), X(2 * n, 0.0);
  for (uint32_t i = 0; i < n; ++i) A[i * n + i] = 1.0, B[2 * i + 1] = 2.0;
  for (int16_t flag : {int16_t(1), int16_t(2)}) {
    ASSERT_EQ(solveleastsquares(A.data(), B.data(), X.data(), n, n, 2, nullptr, flag), 0);
    for (uint32_t k = 0; k < 2 * n; ++k)
      EXPECT_NEAR(X[k], (k % 2 + 1) / (flag == 1 ? 1.0 + static_cast<double>(k / 2 * (k / 2)) * kLambda : 1.0), 1e-15)
          << flag << " " << k;
  }
}

TEST(SolveLeastSquares, SingularAndNaNCases) {
  // Result -1 leaves X alone; a zero first pivot runs on as 0/0 to NaN, which is not a failure
  // (A = 0; regularised, G = diag(0, lambda, 4 lambda)); only a zero last pivot gives -1. The
  // penalised unknown with no data is 0. X is checked from index `from` on.
  const std::vector<double> zcol = {1, 2, 0, 3, 1, 0, 0, 1, 0, 2, 2, 0}, zero(15, 0.0);  // zcol: last column zero
  const struct { std::vector<double> A; uint32_t m, n; int16_t reg; int result; uint32_t from; std::vector<double> X; }
  cases[] = {{std::vector<double>(4, 0.0), 4, 1, 1, -1, 0, {9}},  // n = 1 zero column, regularised
             {{1, 1, 2, 2, 3, 3}, 3, 2, 0, -1, 0, {9, 9}},        // collinear columns
             {zcol, 4, 3, 0, -1, 0, {9, 9, 9}},                   {zcol, 4, 3, 1, 0, 2, {0, 0, 0}},
             {zero, 5, 3, 0, 0, 0, {kNaN, kNaN, kNaN}},          {zero, 5, 3, 1, 0, 0, {kNaN, kNaN, kNaN}}};
  for (const auto &c : cases) {
    std::vector<double> B(c.m, 1.0), X(c.n, 9.0), work((1 + 2 * c.n) * c.n, 0.0);
    EXPECT_EQ(solveleastsquares(c.A.data(), B.data(), X.data(), c.m, c.n, 1, work.data(), c.reg), c.result);
    for (uint32_t i = c.from; i < c.n; ++i)
      EXPECT_TRUE(std::isnan(c.X[i]) ? std::isnan(X[i]) : X[i] == c.X[i]) << &c - cases << " " << i;
  }
  double a0 = 0, b0 = 0, x0 = 3;
  EXPECT_EQ(solveleastsquares(&a0, &b0, &x0, 1, 0, 1, nullptr, 0), -1);  // n = 0: nothing to solve
}

}  // namespace
