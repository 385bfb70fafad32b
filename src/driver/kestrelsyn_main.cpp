// kestrelsyn: decodes log-f0, warped-cepstrum and maximum-voiced-frequency
// feature files into a 16 kHz 16-bit mono WAV file, once or over an index list.
//
// main() reads like the pipeline: read the options, check and settle them,
// then run the batch, processing one utterance per index.
#include <sys/stat.h>

#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "ccanalysis.h"
#include "drivercommon.h"
#include "fdoubleio.h"
#include "kestrelsyn.h"
#include "paramread.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitArgumentError = 255;  // the designed -1 as the shell sees it
constexpr double kSamplingRate = 16000.0;
// Frame shifts beyond this are certainly a mistake and would make the
// synthesis work areas (two shifts per frame) unreasonably large.
constexpr uint32_t kMaxFrameShift = 1048576;
// 2^28 samples (about 4.7 hours, 2 GiB of doubles) per utterance at most.
constexpr uint64_t kMaxOutputSamples = 268435456;

// ---------------------------------------------------------------------------
// Every message of the program, in one place. All go to standard output.
namespace msg {

void badindlist() { std::printf("Error: bad formatted indlist.\n"); }
void alphaincompatible() { std::printf("Warning: floud, fpfilt and fdrc not applicable for this alpha.\n"); }
void shiftoutofrange(long long shift) {
  std::printf("Error: frame shift of %lld samples out of range (1 to %" PRIu32 ").\n", shift, kMaxFrameShift);
}
void alphaoutofrange(double alpha) {
  std::printf("Warning: alpha %g is outside (-1, 1): the output will not be meaningful.\n", alpha);
}
void sameasinput(const char *fileout) { std::printf("Error: %s is both an input and the output.\n", fileout); }
void notfinite(const char *file) { std::printf("Error: %s holds values that are not finite numbers.\n", file); }
void fvnotfinite(const char *filefv) {
  std::printf("Warning: %s holds values that are not finite numbers.\n", filefv);
}
void synthesisfailed(const char *filef0) {
  std::printf("Error: synthesis of %s failed (work area above 1 GiB or out of memory).\n", filef0);
}
void outputname(const char *fileout) { std::printf("%s\n", fileout); }
void indexdoesnotfit(uint32_t index, const char *name) {
  std::printf("Error: index %" PRIu32 " does not fit the file-name placeholder of %s.\n", index, name);
}
void couldnotopen(const char *file) { std::printf("Error: could not open %s.\n", file); }
void incompatible(const char *filef0, const char *filecc) {
  std::printf("Error: %s and %s have incompatible dimensions.\n", filef0, filecc);
}
void toolong(const char *filef0, uint64_t nsamples) {
  std::printf("Error: %s would need %llu output samples (limit %llu).\n", filef0,
              static_cast<unsigned long long>(nsamples), static_cast<unsigned long long>(kMaxOutputSamples));
}
void fvcouldnotopen(const char *filefv) { std::printf("Warning: could not open %s.\n", filefv); }
void fvincompatible(const char *filef0, const char *filefv) {
  std::printf("Warning: %s and %s have incompatible dimensions.\n", filef0, filefv);
}
void outofmemory(const char *filef0) { std::printf("Error: out of memory for %s.\n", filef0); }
void nonfinite(const char *fileout) {
  std::printf("Warning: %s contains non-finite samples, written as -32768.\n", fileout);
}
void couldnotcreate(const char *fileout) { std::printf("Error: could not create %s.\n", fileout); }

}  // namespace msg

// ---------------------------------------------------------------------------
struct Settings {
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
  const char *indlist = nullptr;
  const char *lframetext = nullptr;  // as given, for messages
  uint32_t shift = 80;  // frame shift after the duration factor
};

// File-name slots: the argument strings themselves, rewritten in place per index.
struct Files {
  char *f0 = nullptr;
  char *cc = nullptr;
  char *fv = nullptr;  // may be absent
  char *out = nullptr;
};

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
using Track = std::unique_ptr<double[], FreeDeleter>;

// Options in their fixed order; an absent or unparsable one keeps its default.
void readoptions(uint32_t n, char **list, Settings *s) {
  for (uint32_t k = 0; k < n && !s->lframetext; ++k) s->lframetext = paramnamematch(list[k], "lframe");
  searchintparam(n, list, "lframe", &s->lframe);
  searchdoubleparam(n, list, "alpha", &s->alpha);
  searchdoubleparam(n, list, "fpitch", &s->fpitch);
  searchdoubleparam(n, list, "fvpitch", &s->fvpitch);
  searchdoubleparam(n, list, "fdur", &s->fdur);
  searchdoubleparam(n, list, "fwarp", &s->fwarp);
  searchdoubleparam(n, list, "floud", &s->floud);
  searchdoubleparam(n, list, "fpfilt", &s->fpfilt);
  searchdoubleparam(n, list, "fdrc", &s->fdrc);
  searchintparam(n, list, "wavnorm", &s->wavnorm);
  searchintparam(n, list, "htsscale", &s->htsscale);
  s->indlist = searchstringparam(n, list, "indlist");
}

// The enhancement filters are designed for alpha 0.42 at 16 kHz only. Tested
// on the values as given (a NaN differs from everything).
void checkalphacompatibility(Settings *s) {
  if (s->alpha != 0.42 && (s->floud != 0.0 || s->fpfilt != 0.0 || s->fdrc != 0.0)) {
    s->floud = 0.0;
    s->fpfilt = 0.0;
    s->fdrc = 0.0;
    msg::alphaincompatible();
  }
}

// Out-of-range values are clamped, never reset; NaN goes to the upper bound.
double clampfactor(double v, double defaultvalue, double lo, double hi) {
  if (v == defaultvalue) return v;
  if (v <= lo) return lo;
  if (v >= hi) return hi;
  if (std::isnan(v)) return hi;
  return v;
}

void clampfactors(Settings *s) {
  s->fdur = clampfactor(s->fdur, 1.0, 0.25, 4.0);
  s->fpitch = clampfactor(s->fpitch, 1.0, 0.25, 4.0);
  s->fvpitch = clampfactor(s->fvpitch, 1.0, 0.0, 4.0);
  s->fwarp = clampfactor(s->fwarp, 0.0, -0.99, 0.99);
  s->floud = clampfactor(s->floud, 0.0, -4.0, 4.0);
  s->fpfilt = clampfactor(s->fpfilt, 0.0, 0.0, 1.0);
  s->fdrc = clampfactor(s->fdrc, 0.0, 0.0, 1.0);
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

// The frame shift as the user gave it (not wrapped to 32 bits as %d reads
// it), for the out-of-range message: trunc(fdur x lframe), saturated.
long long givenframeshift(const Settings &s) {
  const long long lframe = s.lframetext ? std::strtoll(s.lframetext, nullptr, 10) : s.lframe;
  const long double shift = std::trunc(static_cast<long double>(s.fdur) * static_cast<long double>(lframe));
  if (shift >= 9.2e18L) return LLONG_MAX;
  if (shift <= -9.2e18L) return LLONG_MIN;
  return static_cast<long long>(shift);
}

// A warping factor outside (-1, 1) is no all-pass: the cepstra cannot be
// read with it (NaN is reported through the non-finite samples it gives).
void checkalpharange(const Settings &s) {
  if (std::fabs(s.alpha) >= 1.0) msg::alphaoutofrange(s.alpha);
}

// Composition of the cepstra's own all-pass warping with the fwarp one.
void composewarping(Settings *s) {
  if (s->fwarp != 0.0) s->alpha = (s->alpha - s->fwarp) / (1.0 - s->fwarp * s->alpha);
}

// Writes index i into every name and prints the output name. False when a
// placeholder is too narrow for i.
bool setbatchnames(const Files &files, uint32_t i) {
  char *const names[] = {files.f0, files.cc, files.fv, files.out};
  const char *misfit = kestrel_driver::setindexednames(names, 4, i);
  msg::outputname(files.out);
  if (misfit) {
    msg::indexdoesnotfit(i, misfit);
    return false;
  }
  return true;
}

// Values that are NaN or infinite; -inf is counted only when not allowed
// (a log f0 of -inf is an unvoiced frame like -1e10).
uint32_t countnonfinite(const double *x, uint32_t n, bool minusinfallowed) {
  uint32_t count = 0;
  for (uint32_t i = 0; i < n; ++i)
    if (!std::isfinite(x[i]) && !(minusinfallowed && x[i] == -HUGE_VAL)) ++count;
  return count;
}

// True (with the message) when writing the output would replace one of the
// inputs, also through links.
bool outputisaninput(const Files &files) {
  struct stat out;
  const bool outstat = ::stat(files.out, &out) == 0;
  for (const char *in : {files.f0, files.cc, files.fv}) {
    if (!in) continue;
    struct stat st;
    if (std::strcmp(in, files.out) == 0 ||
        (outstat && ::stat(in, &st) == 0 && st.st_dev == out.st_dev && st.st_ino == out.st_ino)) {
      msg::sameasinput(files.out);
      return true;
    }
  }
  return false;
}

// The voiced-frequency track, or none (with a warning) when it is unusable.
Track readfvtrack(const Files &files, uint32_t nframes) {
  if (!files.fv) return nullptr;
  double *fv = nullptr;
  const uint32_t nfv = fdoubleread(files.fv, &fv);
  Track track(nfv ? fv : nullptr);
  if (nfv == 0) {
    msg::fvcouldnotopen(files.fv);
    return nullptr;
  }
  if (nfv < nframes) {
    msg::fvincompatible(files.f0, files.fv);
    return nullptr;  // frees it
  }
  if (countnonfinite(track.get(), nframes, false) > 0) {
    msg::fvnotfinite(files.fv);
    return nullptr;
  }
  return track;  // a longer track is fine: the surplus is ignored
}

bool hasnonfinite(const double *x, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i)
    if (!std::isfinite(x[i])) return true;
  return false;
}

// Read, check, modify, synthesise and write one utterance. Every failure
// ends this utterance only.
void processutterance(const Settings &s, const Files &files) {
  if (outputisaninput(files)) return;
  double *raw = nullptr;
  const uint32_t nframes = fdoubleread(files.f0, &raw);
  if (nframes == 0) {
    msg::couldnotopen(files.f0);
    return;
  }
  Track logf0(raw);
  if (countnonfinite(logf0.get(), nframes, true) > 0) {
    msg::notfinite(files.f0);
    return;
  }

  raw = nullptr;
  const uint32_t ncc = fdoubleread(files.cc, &raw);
  if (ncc == 0) {
    logf0.reset();
    msg::couldnotopen(files.cc);
    return;
  }
  Track cc(raw);
  if (countnonfinite(cc.get(), ncc, false) > 0) {
    msg::notfinite(files.cc);
    return;
  }

  const uint32_t order = ncc / nframes - 1u;  // wraps when ncc < nframes; caught below
  if ((order + 1u) * nframes != ncc) {
    logf0.reset();
    cc.reset();
    msg::incompatible(files.f0, files.cc);
    return;
  }

  const uint64_t needed = (static_cast<uint64_t>(nframes) + 1u) * s.shift + 1u;
  if (needed > kMaxOutputSamples) {
    logf0.reset();
    cc.reset();
    msg::toolong(files.f0, needed);
    return;
  }

  if (s.htsscale == 1) invhtsadapteradhoc(cc.get(), order, nframes);
  Track fv = readfvtrack(files, nframes);

  const uint32_t nsamples = getwaveformlength(s.shift, nframes);
  Track wave(static_cast<double *>(std::calloc(nsamples, sizeof(double))));
  if (!wave) {
    msg::outofmemory(files.f0);
    return;
  }

  if (s.fpitch != 1.0) shiftlogpitch(nframes, logf0.get(), std::log(s.fpitch));
  if (s.fvpitch != 1.0) scalelogpitchrange(nframes, logf0.get(), s.fvpitch);
  // DRC, then postfilter, then loudness.
  if (s.fdrc != 0.0) applycdrc16k042(cc.get(), order, nframes, s.fdrc);
  if (s.fpfilt != 0.0) applycpostfilt16k042(cc.get(), order, nframes, s.fpfilt, nullptr);
  if (s.floud != 0.0) applycloudfilt16k042(cc.get(), order, nframes, s.floud);
  logf02f0(nframes, logf0.get());

  if (cc2waveform(wave.get(), nsamples, kSamplingRate, s.shift, nframes, logf0.get(), fv.get(), order, cc.get(),
                  s.alpha) != 0) {
    msg::synthesisfailed(files.f0);
    return;
  }
  logf0.reset();
  cc.reset();
  fv.reset();

  if (hasnonfinite(wave.get(), nsamples)) msg::nonfinite(files.out);
  // Normalise flag: the low 8 bits of wavnorm as a signed byte (257 -> 1).
  const auto normalise = static_cast<int8_t>(static_cast<uint8_t>(static_cast<uint32_t>(s.wavnorm) & 0xFFu));
  if (wavwritem1616(files.out, wave.get(), nsamples, normalise, 0) == 0) msg::couldnotcreate(files.out);
}

// One utterance without an index list, else every index of every interval.
void runbatch(const Settings &s, const Files &files) {
  if (!s.indlist) {
    processutterance(s, files);
    return;
  }
  kestrel_driver::foreachindex(s.indlist, [&](uint32_t i) {
    if (setbatchnames(files, i)) processutterance(s, files);
  });
}

}  // namespace

int main(int argc, char **argv) {
  const char *progpath = (argc > 0 && argv[0]) ? argv[0] : "kestrelsyn";
  if (argc <= 1) {
    plothelp(progpath);
    return kExitOk;
  }
  if (argc <= 3) {
    argcerror(progpath);
    return kExitArgumentError;
  }

  // Options start at the first element that looks like one (the program
  // path included); everything before it is positional.
  uint32_t npositional = 0;
  while (npositional < static_cast<uint32_t>(argc) && !isparam(argv[npositional])) ++npositional;
  const uint32_t noptions = static_cast<uint32_t>(argc) - npositional;
  char **options = argv + npositional;

  Settings s;
  readoptions(noptions, options, &s);
  if (s.indlist && strnumdiagnose(s.indlist) != 0) {
    msg::badindlist();
    return kExitArgumentError;
  }
  if (unreadparams(noptions, options)) {
    argcerror(progpath);
    return kExitArgumentError;
  }
  Files files;
  if (npositional == 4) {
    files.f0 = argv[1];
    files.cc = argv[2];
    files.out = argv[3];
  } else if (npositional == 5) {
    files.f0 = argv[1];
    files.cc = argv[2];
    files.fv = argv[3];
    files.out = argv[4];
  } else {
    argcerror(progpath);
    return kExitArgumentError;
  }

  checkalphacompatibility(&s);
  checkalpharange(s);
  clampfactors(&s);
  s.shift = scaledframeshift(s.lframe, s.fdur);
  if (s.shift == 0 || s.shift > kMaxFrameShift) {
    msg::shiftoutofrange(givenframeshift(s));
    return kExitArgumentError;
  }
  composewarping(&s);

  runbatch(s, files);
  return kExitOk;
}
