#include "decoder.h"

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "ccanalysis.h"
#include "kestrelsyn.h"
#include "pitchanalysis.h"

namespace kestrel_driver {

namespace {

// Out-of-range values are clamped, never reset; NaN goes to the upper bound.
double clampfactor(double v, double defaultvalue, double lo, double hi) {
  if (v == defaultvalue) return v;
  if (v <= lo) return lo;
  if (v >= hi) return hi;
  if (std::isnan(v)) return hi;
  return v;
}

// fdur x lframe in extended precision, truncated toward zero without an
// intermediate rounding to double (80 x 0.7 gives 55, not 56), low 32 bits.
uint32_t scaledframeshift(int32_t lframe, double fdur) {
  const uint32_t base = static_cast<uint32_t>(lframe);
  if (fdur == 1.0) return base;
  const long double product = static_cast<long double>(fdur) * static_cast<long double>(base);
  // fdur lies in [0.25, 4] after clamping, so the product is in [0, 2^34).
  return static_cast<uint32_t>(static_cast<uint64_t>(product));
}

}  // namespace

bool settledecoder(DecoderSettings *s, bool *alphadropped) {
  *alphadropped = false;
  // The enhancement filters are designed for alpha 0.42 at 16 kHz only.
  // Tested on the values as given (a NaN differs from everything).
  if (s->alpha != 0.42 && (s->floud != 0.0 || s->fpfilt != 0.0 || s->fdrc != 0.0)) {
    s->floud = 0.0;
    s->fpfilt = 0.0;
    s->fdrc = 0.0;
    *alphadropped = true;
  }
  s->fdur = clampfactor(s->fdur, 1.0, 0.25, 4.0);
  s->fpitch = clampfactor(s->fpitch, 1.0, 0.25, 4.0);
  s->fvpitch = clampfactor(s->fvpitch, 1.0, 0.0, 4.0);
  s->fwarp = clampfactor(s->fwarp, 0.0, -0.99, 0.99);
  s->floud = clampfactor(s->floud, 0.0, -4.0, 4.0);
  s->fpfilt = clampfactor(s->fpfilt, 0.0, 0.0, 1.0);
  s->fdrc = clampfactor(s->fdrc, 0.0, 0.0, 1.0);
  s->shift = scaledframeshift(s->lframe, s->fdur);
  if (s->shift == 0 || s->shift > kMaxFrameShift) return false;
  // Composition of the cepstra's own all-pass warping with the fwarp one.
  if (s->fwarp != 0.0) s->alpha = (s->alpha - s->fwarp) / (1.0 - s->fwarp * s->alpha);
  return true;
}

uint64_t decodedlength(const DecoderSettings &s, uint32_t nframes) {
  return (static_cast<uint64_t>(nframes) + 1u) * s.shift + 1u;
}

namespace {

// Every modification before synthesis, in its fixed order, then log f0 to Hz.
void modify(const DecoderSettings &s, uint32_t nframes, double *logf0, double *cc, uint32_t order) {
  if (s.htsscale == 1) invhtsadapteradhoc(cc, order, nframes);
  if (s.fpitch != 1.0) shiftlogpitch(nframes, logf0, std::log(s.fpitch));
  if (s.fvpitch != 1.0) scalelogpitchrange(nframes, logf0, s.fvpitch);
  // Compression, then postfilter, then loudness.
  if (s.fdrc != 0.0) applycdrc16k042(cc, order, nframes, s.fdrc);
  if (s.fpfilt != 0.0) applycpostfilt16k042(cc, order, nframes, s.fpfilt, nullptr);
  if (s.floud != 0.0) applycloudfilt16k042(cc, order, nframes, s.floud);
  logf02f0(nframes, logf0);
}

// Samples pulled at a time; frames are pushed about as many samples at a
// time per synthesis thread (up to kPushThreads), so that what the stream
// holds stays near that (plus two shifts): small enough that the buffers stay
// in cache and few pages are touched, large enough per thread.
constexpr uint32_t kStreamSamples = 8192;
constexpr uint32_t kPushThreads = 8;

}  // namespace

int decodeutterancestreamed(const DecoderSettings &s, uint32_t nframes, double *logf0, double *cc, uint32_t order,
                            const double *fv, const SampleSink &sink) {
  modify(s, nframes, logf0, cc, order);
  double f0min, c0min, c0max;
  const uint8_t hasfv = fv ? 1 : 0;
  if (ccstreamprescan(nframes, logf0, cc, order, hasfv, &f0min, &c0min, &c0max) != 0) return -1;
  std::unique_ptr<CCSTREAM, int (*)(CCSTREAM *)> st(
      ccstreamopen(kDecoderFs, s.shift, order, s.alpha, f0min, hasfv, c0min, c0max, s.threads), ccstreamclose);
  if (!st) return -1;
  std::vector<double> buf(kStreamSamples);
  auto drain = [&] {
    for (uint32_t n; (n = ccstreampull(st.get(), buf.data(), kStreamSamples)) > 0;)
      if (!sink(buf.data(), n)) return false;
    return true;
  };
  const uint64_t p1 = static_cast<uint64_t>(order) + 1;
  const uint32_t perthread = s.shift < kStreamSamples ? kStreamSamples / s.shift : 1;
  const uint32_t step = perthread * (s.threads < 1 ? 1 : (s.threads > kPushThreads ? kPushThreads : s.threads));
  for (uint32_t i = 0; i < nframes; i += step) {
    const uint32_t n = nframes - i < step ? nframes - i : step;
    if (ccstreampush(st.get(), n, logf0 + i, fv ? fv + i : nullptr, cc + i * p1) != 0) return -1;
    if (!drain()) return -2;
  }
  ccstreamfinish(st.get());
  return drain() ? 0 : -2;
}

int decodeutterance(const DecoderSettings &s, uint32_t nframes, double *logf0, double *cc, uint32_t order,
                    const double *fv, double *wave, uint32_t nsamples) {
  modify(s, nframes, logf0, cc, order);
  return cc2waveformthreads(wave, nsamples, kDecoderFs, s.shift, nframes, logf0, fv, order, cc, s.alpha, s.threads);
}

int8_t normaliseflag(int32_t wavnorm) {
  return static_cast<int8_t>(static_cast<uint8_t>(static_cast<uint32_t>(wavnorm) & 0xFFu));
}

}  // namespace kestrel_driver
