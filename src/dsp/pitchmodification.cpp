// Pitch-track modification: log-f0 <-> Hz conversion, transposition and
// range scaling.  In the log domain a frame is voiced exactly when its value
// is strictly above the -1e10 sentinel, so NaN frames count as unvoiced and
// are carried through the shift and the range scaling untouched.
#include "pitchanalysis.h"

#include <cmath>
#include <cstdint>

namespace {

constexpr double kUnvoicedLogF0 = -1e10;

inline bool voiced(double logf0) { return logf0 > kUnvoicedLogF0; }

}  // namespace

extern "C" {

uint32_t f02logf0(uint32_t n, double *track) {
  for (uint32_t i = 0; i < n; ++i) track[i] = (track[i] > 0.0) ? std::log(track[i]) : kUnvoicedLogF0;
  return 0;
}

uint32_t logf02f0(uint32_t n, double *track) {
  for (uint32_t i = 0; i < n; ++i) track[i] = voiced(track[i]) ? std::exp(track[i]) : 0.0;
  return 0;
}

uint32_t shiftlogpitch(uint32_t n, double *track, double shift) {
  if (shift == 0.0) return 0;
  for (uint32_t i = 0; i < n; ++i)
    if (voiced(track[i])) track[i] += shift;
  return 0;
}

uint32_t scalelogpitchrange(uint32_t n, double *track, double factor) {
  if (factor == 1.0) return 0;
  // The mean of the voiced frames only, taken before any frame changes.
  double sum = 0.0;
  uint32_t count = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (voiced(track[i])) {
      sum += track[i];
      ++count;
    }
  }
  if (count == 0) return 0;
  const double mean = sum / static_cast<double>(count);
  for (uint32_t i = 0; i < n; ++i)
    if (voiced(track[i])) track[i] = (track[i] - mean) * factor + mean;
  return 0;
}

}  // extern "C"
