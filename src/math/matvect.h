/* matvect: dense matrix and vector algebra. Matrices are row-major doubles,
 * rows stored back to back (element (i,j) of an r x c matrix at i*c+j). */
#ifndef KESTREL_MATVECT_H
#define KESTREL_MATVECT_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* R (m x q) = A (m x n) * B (n x q); R must not overlap A or B. 0. */
KESTREL_API int prodmat(const double *A, const double *B, double *R, uint32_t m, uint32_t n, uint32_t q);
/* Least-squares X (n x q) of A (m x n) X = B (m x q) through the normal
 * equations; regularise == 1 adds i^2 * 0.015791367 to diagonal i.
 * work: (q + 2n)*n doubles or NULL (allocated here). 0, or -1 when singular. */
KESTREL_API int solveleastsquares(const double *A, const double *B, double *X, uint32_t m, uint32_t n,
                                  uint32_t q, double *work, int16_t regularise);
/* Inverse of a symmetric positive-definite n x n matrix by Cholesky; returns
 * the determinant, 0.0 on failure. M is used as scratch unless ownscratch == 1. */
KESTREL_API double choleskyinvdet(uint32_t n, double *M, double *inv, int16_t ownscratch);

/* Median of v[0..n-1]; v is reordered in place (pass a copy to keep it).
 * Even n gives the mean of the two middle values; NaNs sort above every
 * number; n == 0 gives 0. */
KESTREL_API double medianelem(double *v, uint32_t n);

KESTREL_END_C
#endif
