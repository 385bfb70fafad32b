// The analysis of one recording already at 16 kHz, mono, full scale +-1.0:
// the frame grid, pitch (optionally refined), maximum voiced frequency,
// warped cepstra and the HTS scaling, as kestrelana writes them before they
// are narrowed to float32. Shared by kestrelana and the Python package so
// that both give the same numbers. Internal C++ (not exported).
#ifndef KESTREL_ANALYSER_H
#define KESTREL_ANALYSER_H

#include <cstdint>
#include <vector>

namespace kestrel_driver {

constexpr double kAnalysisFs = 16000.0;
// Longest recording analysed, in samples at 16 kHz (about 4 h 40 min). Every
// count derived from it (frames, samples of the resynthesis, window ends)
// stays far inside 32 bits, and the worst-case memory stays bounded.
constexpr uint64_t kMaxAnalysisSamples = uint64_t{1} << 28;
// Largest cepstral file, in values: reached only with tiny frame shifts and
// high orders on long recordings.
constexpr uint64_t kMaxCepstralValues = uint64_t{1} << 28;

// Options as checked by kestrelana (lframe 1..8000, order 0..255, ...).
struct AnalyserSettings {
  uint32_t lframe = 80;
  uint32_t order = 59;
  double alpha = 0.42;
  uint8_t method = 0;
  double f0min = 60.0;
  double f0max = 500.0;
  bool crosscorrelation = true;  // getpitchdp; false: the autocorrelation tracker getpitch
  bool refine = false;
  // Analysis-by-synthesis passes: each resynthesises the cepstra, analyses the
  // result on the same pitch track and moves every voiced frame's cepstrum a
  // step towards the recording's by the difference (0: none).
  uint32_t matchpasses = 0;
  bool htsscale = true;
  uint32_t threads = 1;  // cepstral-analysis threads (same bits for any count)
};

enum class AnalysisStatus {
  ok,
  tooshort,        // fewer than lframe + 1 samples
  toomanyvalues,   // (order + 1) * nframes above kMaxCepstralValues
  cepstrumfailed,  // waveform2cc refused
  notfinite,       // an output value is NaN or infinite
};

struct Analysis {
  uint32_t nframes = 0;
  std::vector<double> logf0;  // natural log, -1e10 unvoiced
  std::vector<double> cc;     // nframes rows of order + 1
  std::vector<double> fv;     // Hz; empty unless asked for
};

// Frame i is centred on sample (i + 1)*shift, as kestrelsyn places it. The
// count is the smallest one whose resynthesis, (nframes + 1)*shift + 1
// samples, is at least as long as the recording, and at least one.
uint32_t countframes(uint64_t nsamples, uint64_t shift);

// Analyses x (n samples at 16 kHz). withfv: also the maximum-voiced-frequency
// track. On any status but ok the contents of *out are unspecified.
AnalysisStatus analyserecording(const double *x, uint32_t n, const AnalyserSettings &s, bool withfv,
                                Analysis *out);

}  // namespace kestrel_driver

#endif
