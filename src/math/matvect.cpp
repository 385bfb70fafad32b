// Dense matrix and vector algebra over row-major double arrays.
#include "matvect.h"

#include <algorithm>
#include <cstdint>

extern "C" {

int prodmat(const double *A, const double *B, double *R, uint32_t m, uint32_t n, uint32_t q) {
  // R[i][j] accumulates B[k][j]*A[i][k] in place, k ascending: the order fixes the bits.
  for (uint32_t i = 0; i < m; ++i) {
    const double *a = A + static_cast<uint64_t>(i) * n;
    double *r = R + static_cast<uint64_t>(i) * q;
    for (uint32_t j = 0; j < q; ++j) {
      r[j] = 0;
      for (uint32_t k = 0; k < n; ++k) r[j] += B[static_cast<uint64_t>(k) * q + j] * a[k];
    }
  }
  return 0;
}

}  // extern "C"

namespace {

// Strict weak order over doubles with every NaN above every number, so that
// selection stays well defined (and in bounds) on NaN input.
bool nanlastless(double a, double b) {
  if (a != a) return false;
  if (b != b) return true;
  return a < b;
}

}  // namespace

extern "C" {

double medianelem(double *v, uint32_t n) {
  if (n == 0) return 0.0;
  const uint32_t mid = n / 2;
  std::nth_element(v, v + mid, v + n, nanlastless);
  if (n % 2 == 1) return v[mid];
  // Even count: the lower middle is the largest of the elements left of mid.
  const double lower = *std::max_element(v, v + mid, nanlastless);
  return (lower + v[mid]) / 2;
}

}  // extern "C"
