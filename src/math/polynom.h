/* polynom: polynomial evaluation, root finding and fitting. A parabola is
 * held as three coefficients {a, b, c} of y(x) = a*x^2 + b*x + c. */
#ifndef KESTREL_POLYNOM_H
#define KESTREL_POLYNOM_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* Parabola through (-1, y0), (0, y1), (1, y2) into coef {a, b, c}:
 * a = (y2 + y0 - 2*y1)/2, b = (y2 - y0)/2, c = y1. 0. */
KESTREL_API int parabfit(double y0, double y1, double y2, double *coef);
/* parabfit over three consecutive samples y[0], y[1], y[2] taken at offsets
 * -1, 0, 1 (so y may point one before a peak bin). 0. */
KESTREL_API int parabfitpoints(const double *y, double *coef);
/* Vertex abscissa -b/(2a) of coef {a, b, c} (offset from the middle point);
 * not finite when a == 0. */
KESTREL_API double parabextx(const double *coef);
/* Vertex ordinate c - b^2/(4a) of coef {a, b, c}; not finite when a == 0. */
KESTREL_API double parabexty(const double *coef);

KESTREL_END_C
#endif
