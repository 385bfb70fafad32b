// Internal to the library: the noise phases of the start of every utterance.
//
// Synthesis reseeds its generator with 0 for each utterance, so the first
// draws, and the cosines and sines of the phases they give, are the same for
// every utterance. They are computed once, when the library is built, by the
// same expression as at run time (noisephase below, so the same bits), and
// held as a read-only table: the first kNoisePhaseDraws noise bins of an
// utterance cost two loads instead of a sine and a cosine.
#ifndef KESTREL_NOISEPHASES_H
#define KESTREL_NOISEPHASES_H

#include <cmath>
#include <cstdint>

#include "randgen.h"

namespace kestrel {

// Draws covered: 10.5 s of noise at the default frame shift (127 bins a frame).
constexpr uint32_t kNoisePhaseDraws = uint32_t{1} << 18;

// Cosine and sine of the phase of one draw: draw * 2 pi / (2^31 - 1).
inline void noisephase(int32_t draw, double *c, double *s) {
  constexpr double kPhaseStep = 2.925836159896768e-09;  // 2*pi/2147483647
  const double psi = static_cast<double>(draw) * kPhaseStep;
  *s = std::sin(psi);
  *c = std::cos(psi);
}

// The table as built: cosine and sine of draw i at [2i] and [2i + 1], then
// the generator after the table's draws.
struct NoisePhases {
  double cs[2 * kNoisePhaseDraws];
  RANDGEN after;
};

// The table built into the library.
const NoisePhases &noisephases();

}  // namespace kestrel

#endif
