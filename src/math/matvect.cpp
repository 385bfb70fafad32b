// Dense matrix and vector algebra over row-major double arrays.
#include "matvect.h"

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
