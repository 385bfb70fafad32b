// Polynomial fitting: the three-point parabola used to place spectral and
// autocorrelation peaks between samples.
#include "polynom.h"

extern "C" {

int parabfit(double y0, double y1, double y2, double *coef) {
  coef[0] = (y2 + y0 - 2 * y1) / 2;
  coef[1] = (y2 - y0) / 2;
  coef[2] = y1;
  return 0;
}

int parabfitpoints(const double *y, double *coef) { return parabfit(y[0], y[1], y[2], coef); }

double parabextx(const double *coef) { return -coef[1] / (2 * coef[0]); }

double parabexty(const double *coef) { return coef[2] - coef[1] * coef[1] / (4 * coef[0]); }

}  // extern "C"
