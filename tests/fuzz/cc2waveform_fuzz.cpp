// cc2waveform (and the enhancement filters before it) on fuzzed features:
// any f0, fv, cepstra and alpha, up to 16 frames of order 47 with shifts up
// to 400 samples, into an output buffer of exactly the length given.
#include <vector>

#include "ccanalysis.h"
#include "fuzzutil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kestrelfuzz::Bytes in{data, size};
  const uint32_t nframes = 1 + in.take<uint8_t>() % 16;
  const uint32_t order = in.take<uint8_t>() % 48;
  const uint32_t shift = 1 + in.take<uint16_t>() % 400;
  const auto flags = in.take<uint8_t>();
  const double alpha = (flags & 1) ? in.take<double>() : 0.42;
  const double factor = in.take<double>();
  const uint32_t full = getwaveformlength(shift, nframes);
  const uint32_t length = (flags & 2) ? in.take<uint16_t>() % (full + 1) : full;
  std::vector<double> f0(nframes), fv(nframes), cc(static_cast<size_t>(nframes) * (order + 1));
  // Frequencies: mostly in Hz on a grid, sometimes any double at all.
  for (uint32_t i = 0; i < nframes; ++i) {
    const auto c = in.take<uint16_t>();
    f0[i] = (c & 0x8000) ? in.take<double>() : (c % 1600) * 1.0;
    const auto d = in.take<uint16_t>();
    fv[i] = (d & 0x8000) ? in.take<double>() : (d % 8000) * 1.0;
  }
  for (double &c : cc) c = in.take<float>();
  if (flags & 4) applycdrc16k042(cc.data(), order, nframes, factor);
  if (flags & 8) applycpostfilt16k042(cc.data(), order, nframes, factor, nullptr);
  if (flags & 16) applycloudfilt16k042(cc.data(), order, nframes, factor);
  std::vector<double> out(length);
  cc2waveform(length ? out.data() : nullptr, length, 16000.0, shift, nframes, f0.data(),
              (flags & 32) ? fv.data() : nullptr, order, cc.data(), alpha);
  return 0;
}
