// Three-point parabolas: coefficients, vertex position and height against
// parabolas built from a known vertex, the operation order of the curvature,
// and the median of an array (used by the fv median filter).
#include "matvect.h"
#include "polynom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

TEST(Parabola, VertexOfParabolasWithKnownVertex) {
  // y(x) = k (x - x0)^2 + y0 sampled at -1, 0, 1.
  struct Case {
    double k, x0, y0;
  } cases[] = {
      {-1.0, 0.0, 1.0},    {-2.0, 0.25, 0.9},  {-0.5, -0.4, 3.0}, {3.0, 0.1, -2.0},
      {-1e-3, 0.49, 0.7},  {-10.0, -0.5, 0.0}, {0.75, 2.0, 1.0},  // vertex outside the three points
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "k=" << c.k << " x0=" << c.x0 << " y0=" << c.y0);
    auto y = [&](double x) { return c.k * (x - c.x0) * (x - c.x0) + c.y0; };
    const double pts[3] = {y(-1), y(0), y(1)};
    double coef[3];
    EXPECT_EQ(parabfit(pts[0], pts[1], pts[2], coef), 0);
    EXPECT_NEAR(coef[0], c.k, 1e-12);
    EXPECT_NEAR(coef[1], -2 * c.k * c.x0, 1e-12);
    EXPECT_EQ(coef[2], pts[1]);
    EXPECT_NEAR(parabextx(coef), c.x0, 1e-9);
    EXPECT_NEAR(parabexty(coef), c.y0, 1e-9);

    double coef2[3];
    EXPECT_EQ(parabfitpoints(pts, coef2), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(coef2[i], coef[i]);
  }
}

TEST(Parabola, CurvatureIsFormedFromTheOuterSumFirst) {
  // Collinear points: (0.3 + 0.1) - 2*0.2 is exactly 0, whereas the difference
  // of differences (0.3 - 0.2) - (0.2 - 0.1) is -2.8e-17.
  double coef[3];
  parabfit(0.1, 0.2, 0.3, coef);
  EXPECT_EQ(coef[0], 0.0);
  EXPECT_EQ(coef[1], (0.3 - 0.1) / 2);
  // A flat top has its vertex at the middle point with the middle value.
  parabfit(0.5, 1.0, 0.5, coef);
  EXPECT_EQ(parabextx(coef), 0.0);
  EXPECT_EQ(parabexty(coef), 1.0);
  // Symmetric neighbours on a peak at the right: vertex offset is +1/2 when
  // y0 is far below and y1 == y2.
  parabfit(0.0, 1.0, 1.0, coef);
  EXPECT_DOUBLE_EQ(parabextx(coef), 0.5);
  EXPECT_DOUBLE_EQ(parabexty(coef), 1.125);
}

TEST(MedianElem, OddEvenNanAndEmpty) {
  struct Case {
    std::vector<double> v;
    double median;
  } cases[] = {
      {{5}, 5},
      {{3, 1, 2}, 2},
      {{9, 1, 4, 2, 3}, 3},
      {{-1, -1, -1, 7, 7}, -1},
      {{4, 1, 3, 2}, 2.5},  // even count: mean of the two middle values
      {{10, 0}, 5},
  };
  for (Case &c : cases) {
    std::vector<double> v = c.v;
    EXPECT_EQ(medianelem(v.data(), static_cast<uint32_t>(v.size())), c.median);
    std::sort(v.begin(), v.end());
    std::vector<double> sorted = c.v;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(v, sorted);  // only reordered
  }
  EXPECT_EQ(medianelem(nullptr, 0), 0.0);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<double> withnan = {nan, 1, 2, nan, 3};  // NaNs rank above the numbers
  EXPECT_EQ(medianelem(withnan.data(), 5), 3);
  std::vector<double> mostlynan = {nan, 1, nan, nan, 3};
  EXPECT_TRUE(std::isnan(medianelem(mostlynan.data(), 5)));
  std::vector<double> onenan = {2, nan, 1, 0, 3};
  EXPECT_EQ(medianelem(onenan.data(), 5), 2);
}

}  // namespace
