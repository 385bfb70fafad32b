// The operation order of the three-point parabola's curvature, its flat-top
// vertex, and the median of an array.
#include "matvect.h"
#include "polynom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

TEST(Parabola, OperationOrderAndFlatTop) {
  // Vertices of real peaks are pinned through the pitch candidates' interpolation.
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
