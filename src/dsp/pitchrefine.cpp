// Refinement of an f0 track by quasi-harmonic analysis: each voiced frame's
// f0 is replaced by the quasi-harmonic estimate while that stays in range,
// moves by at most 20 % per step, and has not yet converged (0.1 %).
#include "pitchanalysis.h"

#include <cmath>
#include <cstdint>

#include "harmonicanalysis.h"

namespace {

constexpr double kDefaultFmax = 4500.0;  // Hz, when no per-frame maximum is given
constexpr double kMaxJump = 0.2;
constexpr double kConverged = 0.001;

}  // namespace

extern "C" {

int refinepitch(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
                double f0min, double f0max, uint32_t niter, double *f0, const double *fmax) {
  if (niter == 0 || nframes == 0 || !f0) return 0;
  double top = kDefaultFmax;
  if (fmax) {
    top = 0.0;
    for (uint32_t k = 0; k < nframes; ++k)
      if (fmax[k] > top) top = fmax[k];  // NaN entries never win
  }
  QHAMEM *area = qhameminitialize(fs, top, f0min);
  if (!area) return 0;
  for (uint32_t k = 0; k < nframes; ++k) {
    if (!(f0[k] > 0.0)) continue;
    const uint32_t centre = first + k * shift;
    const double limit = fmax ? fmax[k] : kDefaultFmax;
    for (uint32_t it = 0; it < niter; ++it) {
      const double f = qharefinepitch(x, n, fs, centre, f0[k], limit, area);
      if (!(f >= f0min && f <= f0max)) break;  // also a failed fit (0) or NaN
      const double rel = std::fabs(f - f0[k]) / f0[k];
      if (rel > kMaxJump) break;
      f0[k] = f;
      if (rel < kConverged) break;
    }
  }
  qhamemdestroy(area);
  return 0;
}

}  // extern "C"
