// Three-point parabolas against parabolas built from a known vertex, the
// operation order of the curvature, and the median of an array.
#include "matvect.h"
#include "polynom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

TEST(Parabola, VertexOfParabolasWithKnownVertex) {
  // y(x) = k (x - x0)^2 + y0 sampled at -1, 0, 1; the last vertex lies outside the three points.
  const struct { double k, x0, y0; } cases[] = {
      {-2.0, 0.25, 0.9}, {3.0, 0.1, -2.0}, {-10.0, -0.5, 0.0}, {0.75, 2.0, 1.0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "k=" << c.k << " x0=" << c.x0 << " y0=" << c.y0);
    double pts[3], coef[3], coef2[3];
    for (int i = 0; i < 3; ++i) pts[i] = c.k * (i - 1 - c.x0) * (i - 1 - c.x0) + c.y0;
    EXPECT_TRUE(parabfit(pts[0], pts[1], pts[2], coef) == 0 && parabfitpoints(pts, coef2) == 0);
    EXPECT_TRUE(std::fabs(coef[0] - c.k) < 1e-12 && std::fabs(coef[1] + 2 * c.k * c.x0) < 1e-12 && coef[2] == pts[1]);
    EXPECT_TRUE(std::fabs(parabextx(coef) - c.x0) < 1e-9 && std::fabs(parabexty(coef) - c.y0) < 1e-9);
    EXPECT_TRUE(std::equal(coef, coef + 3, coef2));
  }
  // Collinear points: (0.3 + 0.1) - 2*0.2 is exactly 0, whereas the difference
  // of differences (0.3 - 0.2) - (0.2 - 0.1) is -2.8e-17.
  double coef[3];
  parabfit(0.1, 0.2, 0.3, coef);
  EXPECT_TRUE(coef[0] == 0.0 && coef[1] == (0.3 - 0.1) / 2) << coef[0];
  parabfit(0.5, 1.0, 0.5, coef);  // flat top: vertex at the middle point, middle value
  EXPECT_TRUE(parabextx(coef) == 0.0 && parabexty(coef) == 1.0);
}

TEST(MedianElem, OddEvenNanAndEmpty) {
  // Even counts give the mean of the two middle values; NaNs rank above the numbers.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct { std::vector<double> v; double median; } cases[] = {
      {{5}, 5}, {{9, 1, 4, 2, 3}, 3}, {{4, 1, 3, 2}, 2.5}, {{10, 0}, 5}, {{6, 5, 4, 3, 2, 1}, 3.5},
      {{1, 2, 3, 4, 5, 6}, 3.5}, {{nan, 1, 2, nan, 3}, 3}, {{nan, 1, nan, nan, 3}, nan}};
  for (const auto &c : cases) {
    std::vector<double> v = c.v;
    const double m = medianelem(v.data(), static_cast<uint32_t>(v.size()));
    EXPECT_TRUE(std::isnan(c.median) ? std::isnan(m) : m == c.median) << m;
    std::vector<double> a = c.v, b = v;  // only reordered (NaNs compared as +inf)
    for (auto *w : {&a, &b}) {
      std::replace_if(w->begin(), w->end(), [](double x) { return std::isnan(x); }, HUGE_VAL);
      std::sort(w->begin(), w->end());
    }
    EXPECT_EQ(a, b);
  }
  EXPECT_EQ(medianelem(nullptr, 0), 0.0);
}

}  // namespace
