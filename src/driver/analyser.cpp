#include "analyser.h"

#include <cmath>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"

namespace kestrel_driver {

namespace {

constexpr uint32_t kRefineIterations = 5;
// A damped step: the resynthesis's envelope differs from its cepstra in a way
// that itself depends on them (amplitudes interpolated between frames,
// overlap-add), and a full step overshoots.
constexpr double kMatchStep = 0.4;

// The inverse of kestrelsyn's default rescaling: c0 + 5, c1..c_order doubled.
void htsadapteradhoc(double *cc, uint32_t order, uint32_t nframes) {
  for (uint32_t k = 0; k < nframes; ++k) {
    double *c = cc + static_cast<size_t>(k) * (order + 1u);
    c[0] = c[0] + 5.0;
    for (uint32_t j = 1; j <= order; ++j) c[j] = c[j] * 2.0;
  }
}

// Voiced frames only: the resynthesis of an unvoiced frame is one draw of
// noise, and matching its periodogram would fit that draw, not the envelope.
bool matchresynthesis(uint32_t n, const AnalyserSettings &s, const double *f0, const double *fv,
                      uint32_t nframes, double *cc) {
  const uint32_t shift = s.lframe, width = s.order + 1u;
  const size_t ncc = static_cast<size_t>(width) * nframes;
  const std::vector<double> target(cc, cc + ncc);
  std::vector<double> y(getwaveformlength(shift, nframes)), got(ncc);
  for (uint32_t pass = 0; pass < s.matchpasses; ++pass) {
    got.assign(cc, cc + ncc);  // the synthesis round-trips c0; keep cc exact
    if (cc2waveformthreads(y.data(), static_cast<uint32_t>(y.size()), kAnalysisFs, shift, nframes, f0, fv, s.order,
                           got.data(), s.alpha, s.threads) != 0 ||
        waveform2ccthreads(y.data(), n, kAnalysisFs, shift, shift, nframes, f0, s.order, got.data(), s.alpha,
                           s.method, s.threads) != 0)
      return false;
    for (uint32_t k = 0; k < nframes; ++k) {
      if (!(f0[k] > 0.0)) continue;
      const size_t row = static_cast<size_t>(k) * width;
      for (uint32_t j = 0; j < width; ++j) cc[row + j] += kMatchStep * (target[row + j] - got[row + j]);
    }
  }
  return true;
}

bool allfinite(const std::vector<double> &v) {
  for (double d : v)
    if (!std::isfinite(d)) return false;
  return true;
}

}  // namespace

uint32_t countframes(uint64_t nsamples, uint64_t shift) {
  const uint64_t k = (nsamples - 1 + shift - 1) / shift;  // ceil((n - 1)/shift)
  return static_cast<uint32_t>(k > 1 ? k - 1 : 1);
}

AnalysisStatus analyserecording(const double *x, uint32_t n, const AnalyserSettings &s, bool withfv,
                                Analysis *out) {
  const uint32_t shift = s.lframe;
  const uint32_t order = s.order;
  if (n < shift + 1u) return AnalysisStatus::tooshort;
  const uint32_t nframes = countframes(n, shift);
  const uint64_t ncc = static_cast<uint64_t>(order + 1u) * nframes;
  if (ncc > kMaxCepstralValues) return AnalysisStatus::toomanyvalues;

  out->nframes = nframes;
  std::vector<double> &f0 = out->logf0;
  f0 = std::vector<double>(nframes);
  out->cc = std::vector<double>(static_cast<size_t>(ncc));
  out->fv.clear();
  if (s.crosscorrelation)
    getpitchdpthreads(x, n, kAnalysisFs, shift, shift, nframes, s.f0min, s.f0max, f0.data(), s.threads);
  else
    getpitch(x, n, kAnalysisFs, shift, shift, nframes, s.f0min, s.f0max, f0.data());
  if (s.refine)
    refinepitch(x, n, kAnalysisFs, shift, shift, nframes, s.f0min, s.f0max, kRefineIterations, f0.data(), nullptr);
  if (withfv) {
    out->fv = std::vector<double>(nframes);
    getfvoicingthreads(x, n, kAnalysisFs, shift, shift, nframes, f0.data(), out->fv.data(), s.threads);
  }
  if (waveform2ccthreads(x, n, kAnalysisFs, shift, shift, nframes, f0.data(), order, out->cc.data(), s.alpha, s.method,
                         s.threads) != 0)
    return AnalysisStatus::cepstrumfailed;
  if (s.matchpasses > 0 &&
      !matchresynthesis(n, s, f0.data(), withfv ? out->fv.data() : nullptr, nframes, out->cc.data()))
    return AnalysisStatus::cepstrumfailed;
  if (s.htsscale) htsadapteradhoc(out->cc.data(), order, nframes);
  if (!allfinite(f0) || !allfinite(out->cc) || !allfinite(out->fv)) return AnalysisStatus::notfinite;
  f02logf0(nframes, f0.data());
  return AnalysisStatus::ok;
}

}  // namespace kestrel_driver
