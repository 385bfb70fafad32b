// The decoder's settings and per-utterance pipeline, shared by kestrelsyn and
// the Python package so that both give the same samples: option clamping, the
// duration rule for the frame shift, the warping composition, and the fixed
// order of modifications before synthesis. Internal C++ (not exported).
#ifndef KESTREL_DECODER_H
#define KESTREL_DECODER_H

#include <cstdint>
#include <functional>

namespace kestrel_driver {

constexpr double kDecoderFs = 16000.0;
// Frame shifts beyond this are certainly a mistake and would make the
// synthesis work areas (two shifts per frame) unreasonably large.
constexpr uint32_t kMaxFrameShift = 1048576;
// 2^28 samples (about 4.7 hours, 2 GiB of doubles) per utterance at most.
constexpr uint64_t kMaxOutputSamples = 268435456;

struct DecoderSettings {
  int32_t lframe = 80;
  double alpha = 0.42;
  double fpitch = 1.0;
  double fvpitch = 1.0;
  double fdur = 1.0;
  double fwarp = 0.0;
  double floud = 0.0;
  double fpfilt = 0.0;
  double fdrc = 0.0;
  int32_t wavnorm = 0;
  int32_t htsscale = 1;
  uint32_t shift = 80;  // frame shift after the duration factor (set by settledecoder)
  uint32_t threads = 1;  // synthesis threads inside the utterance (same bits for any count)
};

// Turns the options as given into the ones used: the enhancement filters are
// dropped for an alpha other than 0.42 (*alphadropped set; processing goes
// on), factors are clamped, the shift is scaled by fdur and checked, and
// fwarp is composed into alpha. False when the shift is out of range.
bool settledecoder(DecoderSettings *s, bool *alphadropped);

// Output samples of an utterance of nframes frames, in 64 bits.
uint64_t decodedlength(const DecoderSettings &s, uint32_t nframes);

// The whole pipeline on one utterance's features, modified in place: HTS
// rescaling, pitch shift and range, compression, postfilter, loudness, log f0
// to Hz, synthesis into wave (decodedlength samples, caller-owned). fv may be
// null. Returns cc2waveform's status (0, or -1 when its work areas cannot be had).
int decodeutterance(const DecoderSettings &s, uint32_t nframes, double *logf0, double *cc, uint32_t order,
                    const double *fv, double *wave, uint32_t nsamples);

// The same pipeline with the samples handed to sink in blocks as they are
// synthesised (the same samples, in order), so that memory does not grow with
// the utterance. Returns 0, -1 when synthesis is refused (work areas), or -2
// when sink returned false (the rest is not synthesised).
using SampleSink = std::function<bool(const double *samples, uint32_t count)>;
int decodeutterancestreamed(const DecoderSettings &s, uint32_t nframes, double *logf0, double *cc, uint32_t order,
                            const double *fv, const SampleSink &sink);

// The normalise flag of the WAV writer: the low 8 bits of wavnorm as a signed byte (257 -> 1).
int8_t normaliseflag(int32_t wavnorm);

}  // namespace kestrel_driver

#endif
