// Cepstral enhancement for 16 kHz cepstra warped with alpha 0.42: dynamic-range
// compression of c0, a formant postfilter and a perceptual loudness filter.
// The tables below were fitted for that one analysis setting; coefficients
// beyond a table's length pass through untouched.
#include "ccanalysis.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace {

// Log-spectral shape added to every frame by the loudness filter (c0..c99).
constexpr std::array<double, 100> cloudfilt16k042 = {
    0.216217, -0.053318, -0.103377, -0.027273, -0.048518, -0.002685, -0.010427, 0.002949, -0.002042, -0.001649,  // 0-9
    -0.005429, -0.003549, -0.006043, -0.002547, -0.004555, -0.002302, -0.003778, -0.001662, -0.002685, 0.000145,  // 10-19
    -0.001333, 0.000716, -0.001133, -0.000455, -0.001587, -0.001187, -0.001547, -0.000884, -0.001243, -0.000642,  // 20-29
    -0.000994, -0.000512, -0.000581, -0.000079, -0.000324, 0.000128, -0.000611, -0.000203, -0.000912, -0.000464,  // 30-39
    -0.000766, -0.000359, -0.00054, -0.000222, -0.000451, -0.000145, -0.000265, -0.000051, -0.000114, -0.000089,  // 40-49
    -0.000285, -0.000242, -0.000509, -0.000258, -0.000448, -0.000145, -0.000291, -0.000082, -0.000241, -0.000033,  // 50-59
    -0.000191, 0.000018, -0.000138, -0.000068, -0.000202, -0.000219, -0.000281, -0.000205, -0.000237, -0.000081,  // 60-69
    -0.000158, -0.000035, -0.00013, -0.000028, -0.000118, 0.000007, -0.000137, -0.000031, -0.000201, -0.000129,  // 70-79
    -0.000208, -0.000133, -0.000131, -0.000053, -0.00008, -0.000019, -0.000079, -0.000029, -0.000071, -0.000031,  // 80-89
    -0.00009, -0.000051, -0.000158, -0.00008, -0.000171, -0.00006, -0.000098, -0.000016, -0.00005, -0.000008,  // 90-99
};

// Reference cepstral shape the postfilter leaves alone (entry 0 unused).
constexpr std::array<double, 100> cpostfilt16k042 = {
    0.0, 0.038499, 0.008488, 0.01002, 0.005314, 0.005522, 0.003769, 0.003807, 0.002896, 0.002905,  // 0-9
    0.002345, 0.002347, 0.001967, 0.001968, 0.001693, 0.001693, 0.001484, 0.001484, 0.001321, 0.001321,  // 10-19
    0.001189, 0.001189, 0.001081, 0.001081, 0.00099, 0.00099, 0.000913, 0.000913, 0.000847, 0.000847,  // 20-29
    0.000789, 0.000789, 0.000739, 0.000739, 0.000694, 0.000694, 0.000654, 0.000654, 0.000619, 0.000618,  // 30-39
    0.000586, 0.000586, 0.000557, 0.000557, 0.000531, 0.000531, 0.000507, 0.000506, 0.000484, 0.000484,  // 40-49
    0.000464, 0.000464, 0.000445, 0.000445, 0.000427, 0.000427, 0.000411, 0.000411, 0.000396, 0.000395,  // 50-59
    0.000381, 0.000381, 0.000368, 0.000368, 0.000356, 0.000355, 0.000344, 0.000344, 0.000333, 0.000333,  // 60-69
    0.000322, 0.000322, 0.000312, 0.000312, 0.000303, 0.000303, 0.000294, 0.000294, 0.000286, 0.000286,  // 70-79
    0.000278, 0.000278, 0.00027, 0.00027, 0.000263, 0.000263, 0.000256, 0.000256, 0.000249, 0.000249,  // 80-89
    0.000243, 0.000243, 0.000237, 0.000237, 0.000231, 0.000231, 0.000226, 0.000225, 0.00022, 0.00022,  // 90-99
};

// Linear loudness estimate from c0..c39, in dB per cepstral unit.
constexpr std::array<double, 40> cdrcweights16k042 = {
    9.3548, 9.5034, 13.2856, 8.5283, 6.7815, 6.7028, 5.8989, 4.8194, 3.0412, 0.9842,  // 0-9
    1.1115, 2.9367, 0.6398, 1.9756, 0.8612, -0.7755, -0.2643, -1.2187, -2.6671, -2.9419,  // 10-19
    -2.7885, -4.6615, -2.9509, -4.4856, -3.4965, -4.5608, -3.6405, -5.9302, -3.8724, -7.5799,  // 20-29
    -3.8302, -4.7725, -4.1459, -3.8386, -4.9377, -5.6, -5.3026, -6.2338, -6.025, -4.6858,  // 30-39
};

constexpr double kLoudnessOffsetDb = 53.9683;
constexpr double kDbToLogAmp = 0.1151292546497023;  // ln(10) / 20
constexpr double kLowestDouble = -1.7976931348623157e308;

// Number of table entries used for a cepstrum of the given order: min(order + 1, size).
template <std::size_t N>
std::size_t usedlength(const std::array<double, N> &, uint32_t order) {
  return (order < N) ? static_cast<std::size_t>(order) + 1 : N;
}

// Target level (dB relative to the loudest frame) for a frame d dB from it.
// The knees are continuous; a NaN level falls through to the top segment.
double compressedlevel(double d) {
  if (d < -40.0) return d;
  if (d < -35.0) return 4.0 * d + 120.0;
  if (d < -25.0) return 0.8 * d + 8.0;
  if (d < -20.0) return 0.4 * d - 2.0;
  return -10.0;
}

// Per-frame postfilter strength clamped to [0, 1]; a NaN weight means full strength.
double clampedweight(double w) {
  if (w >= 1.0 || std::isnan(w)) return 1.0;
  if (w <= 0.0) return 0.0;
  return w;
}

}  // namespace

extern "C" {

uint32_t applycdrc16k042(double *cc, uint32_t order, uint32_t nframes, double factor) {
  if (factor == 0.0 || nframes == 0) return 0;
  std::unique_ptr<double[]> level(new (std::nothrow) double[nframes]);
  if (!level) return 0;  // without the loudness estimates nothing can be compressed
  const std::size_t stride = static_cast<std::size_t>(order) + 1;
  const std::size_t K = usedlength(cdrcweights16k042, order);

  for (uint32_t t = 0; t < nframes; ++t) {
    const double *c = cc + t * stride;
    double e = kLoudnessOffsetDb;
    for (std::size_t k = 0; k < K; ++k) e += cdrcweights16k042[k] * c[k];
    level[t] = e;
  }
  double loudest = kLowestDouble;
  for (uint32_t t = 0; t < nframes; ++t)
    if (level[t] >= loudest) loudest = level[t];

  for (uint32_t t = 0; t < nframes; ++t) {
    const double d = level[t] - loudest;
    const double y = compressedlevel(d);
    cc[t * stride] += factor * kDbToLogAmp * (y - d);
  }
  return 0;
}

uint32_t applycpostfilt16k042(double *cc, uint32_t order, uint32_t nframes, double factor,
                              const double *weights) {
  if (factor == 0.0) return 0;
  const std::size_t stride = static_cast<std::size_t>(order) + 1;
  const std::size_t K = usedlength(cpostfilt16k042, order);

  double energy = 0.0;
  for (std::size_t k = 1; k < K; ++k) energy += cpostfilt16k042[k] * cpostfilt16k042[k];

  for (uint32_t t = 0; t < nframes; ++t) {
    double *c = cc + t * stride;
    double dot = 0.0;
    for (std::size_t k = 1; k < K; ++k) dot += cpostfilt16k042[k] * c[k];
    const double p = dot / energy;
    const double g = weights ? factor * clampedweight(weights[t]) : factor;
    // Amplify the part orthogonal to the reference shape; c0 and the part
    // along the shape (overall gain and tilt) stay as they are.
    for (std::size_t k = 1; k < K; ++k) c[k] = c[k] + (c[k] - cpostfilt16k042[k] * p) * g;
  }
  return 0;
}

uint32_t applycloudfilt16k042(double *cc, uint32_t order, uint32_t nframes, double factor) {
  if (factor == 0.0) return 0;
  const std::size_t stride = static_cast<std::size_t>(order) + 1;
  const std::size_t K = usedlength(cloudfilt16k042, order);
  for (uint32_t t = 0; t < nframes; ++t) {
    double *c = cc + t * stride;
    for (std::size_t k = 0; k < K; ++k) c[k] += factor * cloudfilt16k042[k];
  }
  return 0;
}

}  // extern "C"
