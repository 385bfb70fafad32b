// kestrelsyn: decodes log-f0, warped-cepstrum and maximum-voiced-frequency
// feature files into a 16 kHz 16-bit mono WAV file, once, over an index list,
// or over an utterance list on several threads.
//
// main() reads like the pipeline: read the options, check and settle them,
// then run the batch, processing one utterance at a time.
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
#include <string>
#include <vector>

#include "ccanalysis.h"
#include "decoder.h"
#include "drivercommon.h"
#include "fdoubleio.h"
#include "kestrelsyn.h"
#include "paramread.h"
#include "runner.h"
#include "uttlist.h"
#include "wavm1616io.h"
#include "wavwriter.h"

namespace {

using kestrel_batch::Log;
using kestrel_driver::DecoderSettings;
using kestrel_driver::kMaxFrameShift;
using kestrel_driver::kMaxOutputSamples;

constexpr int kExitOk = 0;
constexpr int kExitArgumentError = 255;  // the designed -1 as the shell sees it

// ---------------------------------------------------------------------------
// Every message of the program, in one place. Run-level ones go straight to
// standard output; an utterance's go to its log, printed when it is done.
namespace msg {

void badindlist() { std::printf("Error: bad formatted indlist.\n"); }
void alphaincompatible() { std::printf("Warning: floud, fpfilt and fdrc not applicable for this alpha.\n"); }
void shiftoutofrange(long long shift) {
  std::printf("Error: frame shift of %lld samples out of range (1 to %" PRIu32 ").\n", shift, kMaxFrameShift);
}
void alphaoutofrange(double alpha) {
  std::printf("Warning: alpha %g is outside (-1, 1): the output will not be meaningful.\n", alpha);
}
void listneedsdirs() { std::printf("Error: --list needs --featdir and --outdir.\n"); }
void needslist() {
  std::printf("Error: --outdir, --featdir, --jobs, --shard, --skip-existing, --failed and --progress need --list.\n");
}
void runerror(const std::string &text) { std::printf("%s\n", text.c_str()); }

void outputname(Log &log, const char *fileout) { log.line("%s", fileout); }
void indexdoesnotfit(Log &log, uint32_t index, const char *name) {
  log.error("index %" PRIu32 " does not fit the file-name placeholder of %s.", index, name);
}
void couldnotopen(Log &log, const char *file) { log.error("could not open %s.", file); }
void sameasinput(Log &log, const char *fileout) { log.error("%s is both an input and the output.", fileout); }
void notfinite(Log &log, const char *file) { log.error("%s holds values that are not finite numbers.", file); }
void fvnotfinite(Log &log, const char *filefv) {
  log.warning("%s holds values that are not finite numbers.", filefv);
}
void incompatible(Log &log, const char *filef0, const char *filecc) {
  log.error("%s and %s have incompatible dimensions.", filef0, filecc);
}
void toolong(Log &log, const char *filef0, uint64_t nsamples) {
  log.error("%s would need %llu output samples (limit %llu).", filef0, static_cast<unsigned long long>(nsamples),
            static_cast<unsigned long long>(kMaxOutputSamples));
}
void fvcouldnotopen(Log &log, const char *filefv) { log.warning("could not open %s.", filefv); }
void fvincompatible(Log &log, const char *filef0, const char *filefv) {
  log.warning("%s and %s have incompatible dimensions.", filef0, filefv);
}
void outofmemory(Log &log, const char *filef0) { log.error("out of memory for %s.", filef0); }
void synthesisfailed(Log &log, const char *filef0) {
  log.error("synthesis of %s failed (work area above 1 GiB or out of memory).", filef0);
}
void nonfinite(Log &log, const char *fileout) {
  log.warning("%s contains non-finite samples, written as -32768.", fileout);
}
void couldnotcreate(Log &log, const char *fileout) { log.error("could not create %s.", fileout); }

}  // namespace msg

// ---------------------------------------------------------------------------
struct Settings {
  DecoderSettings decoder;
  const char *indlist = nullptr;
  const char *lframetext = nullptr;  // as given, for messages
  kestrel_batch::BatchOptions batch;
};

// The files of one utterance.
struct Files {
  const char *f0 = nullptr;
  const char *cc = nullptr;
  const char *fv = nullptr;  // may be absent
  const char *out = nullptr;
};

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
using Track = std::unique_ptr<double[], FreeDeleter>;

// Options in their fixed order; an absent or unparsable one keeps its default.
void readoptions(uint32_t n, char **list, Settings *s) {
  DecoderSettings &d = s->decoder;
  for (uint32_t k = 0; k < n && !s->lframetext; ++k) s->lframetext = paramnamematch(list[k], "lframe");
  searchintparam(n, list, "lframe", &d.lframe);
  searchdoubleparam(n, list, "alpha", &d.alpha);
  searchdoubleparam(n, list, "fpitch", &d.fpitch);
  searchdoubleparam(n, list, "fvpitch", &d.fvpitch);
  searchdoubleparam(n, list, "fdur", &d.fdur);
  searchdoubleparam(n, list, "fwarp", &d.fwarp);
  searchdoubleparam(n, list, "floud", &d.floud);
  searchdoubleparam(n, list, "fpfilt", &d.fpfilt);
  searchdoubleparam(n, list, "fdrc", &d.fdrc);
  searchintparam(n, list, "wavnorm", &d.wavnorm);
  searchintparam(n, list, "htsscale", &d.htsscale);
  s->indlist = searchstringparam(n, list, "indlist");
}

// The frame shift as the user gave it (not wrapped to 32 bits as %d reads
// it), for the out-of-range message: trunc(fdur x lframe), saturated.
long long givenframeshift(const Settings &s) {
  const long long lframe = s.lframetext ? std::strtoll(s.lframetext, nullptr, 10) : s.decoder.lframe;
  const long double shift = std::trunc(static_cast<long double>(s.decoder.fdur) * static_cast<long double>(lframe));
  if (shift >= 9.2e18L) return LLONG_MAX;
  if (shift <= -9.2e18L) return LLONG_MIN;
  return static_cast<long long>(shift);
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
bool outputisaninput(const Files &files, Log &log) {
  struct stat out;
  const bool outstat = ::stat(files.out, &out) == 0;
  for (const char *in : {files.f0, files.cc, files.fv}) {
    if (!in) continue;
    struct stat st;
    if (std::strcmp(in, files.out) == 0 ||
        (outstat && ::stat(in, &st) == 0 && st.st_dev == out.st_dev && st.st_ino == out.st_ino)) {
      msg::sameasinput(log, files.out);
      return true;
    }
  }
  return false;
}

// Writes index i into every name and logs the output name. False when a
// placeholder is too narrow for i.
bool setbatchnames(char *const names[4], uint32_t i, Log &log) {
  const char *misfit = kestrel_driver::setindexednames(names, 4, i);
  msg::outputname(log, names[3]);
  if (misfit) {
    msg::indexdoesnotfit(log, i, misfit);
    return false;
  }
  return true;
}

// The voiced-frequency track, or none (with a warning) when it is unusable.
Track readfvtrack(const Files &files, uint32_t nframes, Log &log) {
  if (!files.fv) return nullptr;
  double *fv = nullptr;
  const uint32_t nfv = fdoubleread(files.fv, &fv);
  Track track(nfv ? fv : nullptr);
  if (nfv == 0) {
    msg::fvcouldnotopen(log, files.fv);
    return nullptr;
  }
  if (nfv < nframes) {
    msg::fvincompatible(log, files.f0, files.fv);
    return nullptr;  // frees it
  }
  if (countnonfinite(track.get(), nframes, false) > 0) {
    msg::fvnotfinite(log, files.fv);
    return nullptr;
  }
  return track;  // a longer track is fine: the surplus is ignored
}

bool hasnonfinite(const double *x, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i)
    if (!std::isfinite(x[i])) return true;
  return false;
}

// Normalising needs the whole waveform's peak: synthesised in one piece.
uint32_t writenormalised(const DecoderSettings &s, const Files &files, uint32_t nframes, uint32_t order, Track &logf0,
                         Track &cc, Track &fv, Log &log) {
  const uint32_t nsamples = static_cast<uint32_t>(kestrel_driver::decodedlength(s, nframes));
  Track wave(static_cast<double *>(std::calloc(nsamples, sizeof(double))));
  if (!wave) {
    msg::outofmemory(log, files.f0);
    return 0;
  }
  if (kestrel_driver::decodeutterance(s, nframes, logf0.get(), cc.get(), order, fv.get(), wave.get(), nsamples) !=
      0) {
    msg::synthesisfailed(log, files.f0);
    return 0;
  }
  logf0.reset();
  cc.reset();
  fv.reset();
  if (hasnonfinite(wave.get(), nsamples)) msg::nonfinite(log, files.out);
  if (wavwritem1616(files.out, wave.get(), nsamples, 1, 0) == 0) {
    msg::couldnotcreate(log, files.out);
    return 0;
  }
  return nsamples;
}

// Read, check, modify, synthesise and write one utterance. Every failure
// ends this utterance only. Returns the output length in samples (0 on failure).
uint32_t processutterance(const DecoderSettings &s, const Files &files, Log &log) {
  if (outputisaninput(files, log)) return 0;
  double *raw = nullptr;
  const uint32_t nframes = fdoubleread(files.f0, &raw);
  if (nframes == 0) {
    msg::couldnotopen(log, files.f0);
    return 0;
  }
  Track logf0(raw);
  if (countnonfinite(logf0.get(), nframes, true) > 0) {
    msg::notfinite(log, files.f0);
    return 0;
  }

  raw = nullptr;
  const uint32_t ncc = fdoubleread(files.cc, &raw);
  if (ncc == 0) {
    logf0.reset();
    msg::couldnotopen(log, files.cc);
    return 0;
  }
  Track cc(raw);
  if (countnonfinite(cc.get(), ncc, false) > 0) {
    msg::notfinite(log, files.cc);
    return 0;
  }

  const uint32_t order = ncc / nframes - 1u;  // wraps when ncc < nframes; caught below
  if ((order + 1u) * nframes != ncc) {
    msg::incompatible(log, files.f0, files.cc);
    return 0;
  }

  const uint64_t needed = kestrel_driver::decodedlength(s, nframes);
  if (needed > kMaxOutputSamples) {
    msg::toolong(log, files.f0, needed);
    return 0;
  }

  Track fv = readfvtrack(files, nframes, log);
  const uint32_t nsamples = static_cast<uint32_t>(needed);
  if (kestrel_driver::normaliseflag(s.wavnorm) == 1) return writenormalised(s, files, nframes, order, logf0, cc, fv, log);

  // Samples go to the file as they are synthesised: memory does not grow with
  // the utterance. The file is created with the first block, so a refused
  // synthesis leaves nothing behind.
  std::unique_ptr<kestrel_io::WavWriter> out;
  bool nonfinite = false;
  const int status = kestrel_driver::decodeutterancestreamed(
      s, nframes, logf0.get(), cc.get(), order, fv.get(), [&](const double *x, uint32_t n) {
        if (!out) out.reset(new kestrel_io::WavWriter(files.out, nsamples));
        nonfinite = nonfinite || hasnonfinite(x, n);
        return out->write(x, n);
      });
  if (status == -1) {
    msg::synthesisfailed(log, files.f0);
    return 0;
  }
  if (nonfinite) msg::nonfinite(log, files.out);
  if (status != 0 || !out || !out->finish()) {
    msg::couldnotcreate(log, files.out);
    return 0;
  }
  return nsamples;
}

// One utterance without an index list, else every index of every interval.
void runindexed(const Settings &s, char *const names[4]) {
  Files files{names[0], names[1], names[2], names[3]};
  Log log;
  if (!s.indlist) {
    processutterance(s.decoder, files, log);
    log.flush();
    return;
  }
  kestrel_driver::foreachindex(s.indlist, [&](uint32_t i) {
    if (setbatchnames(names, i, log)) processutterance(s.decoder, files, log);
    log.flush();
  });
}

// List mode: FEATDIR/id.lf0, .cc and (when present) .fv to OUTDIR/id.wav.
int runlist(const Settings &s) {
  const kestrel_batch::BatchOptions &b = s.batch;
  std::vector<kestrel_batch::Utterance> all;
  std::string error;
  if (!kestrel_batch::readuttlist(b.list, false, &all, &error) ||
      !kestrel_batch::makedirectory(b.outdir, &error)) {
    msg::runerror(error);
    return kExitArgumentError;
  }
  const std::string featdir = std::string(b.featdir) + "/", outdir = std::string(b.outdir) + "/";
  auto job = [&](const kestrel_batch::Utterance &u, kestrel_batch::Outcome *o) {
    const std::string f0 = featdir + u.id + ".lf0", cc = featdir + u.id + ".cc", fv = featdir + u.id + ".fv";
    const std::string out = outdir + u.id + ".wav";
    if (b.skipexisting && kestrel_batch::fileexists(out)) {
      o->skipped = true;
      return;
    }
    const Files files{f0.c_str(), cc.c_str(), kestrel_batch::fileexists(fv) ? fv.c_str() : nullptr, out.c_str()};
    msg::outputname(o->log, files.out);
    o->audioseconds = processutterance(s.decoder, files, o->log) / kestrel_driver::kDecoderFs;
  };
  return kestrel_batch::runutterances(kestrel_batch::takeshard(all, b.shardk, b.shardn), b, job);
}

}  // namespace

int main(int argc, char **argv) {
  const char *progpath = (argc > 0 && argv[0]) ? argv[0] : "kestrelsyn";
  if (argc <= 1) {
    plothelp(progpath);
    return kExitOk;
  }

  // Options start at the first element that looks like one (the program
  // path included); everything before it is positional.
  uint32_t npositional = 0;
  while (npositional < static_cast<uint32_t>(argc) && !isparam(argv[npositional])) ++npositional;
  const uint32_t noptions = static_cast<uint32_t>(argc) - npositional;
  char **options = argv + npositional;

  Settings s;
  std::string error;
  const bool batchok = kestrel_batch::readbatchoptions(noptions, options, &s.batch, &error);
  const bool listmode = s.batch.list != nullptr;
  if (argc <= 3 && !listmode) {
    argcerror(progpath);
    return kExitArgumentError;
  }
  readoptions(noptions, options, &s);
  if (s.indlist && strnumdiagnose(s.indlist) != 0) {
    msg::badindlist();
    return kExitArgumentError;
  }
  if (unreadparams(noptions, options) || (listmode && (npositional != 1 || s.indlist))) {
    argcerror(progpath);
    return kExitArgumentError;
  }
  if (!batchok) {
    msg::runerror(error);
    return kExitArgumentError;
  }
  if (listmode && (!s.batch.featdir || !s.batch.outdir)) {
    msg::listneedsdirs();
    return kExitArgumentError;
  }
  if (!listmode && s.batch.anyset) {
    msg::needslist();
    return kExitArgumentError;
  }
  char *names[4] = {nullptr, nullptr, nullptr, nullptr};  // f0, cc, fv, out
  if (npositional == 4) {
    names[0] = argv[1];
    names[1] = argv[2];
    names[3] = argv[3];
  } else if (npositional == 5) {
    names[0] = argv[1];
    names[1] = argv[2];
    names[2] = argv[3];
    names[3] = argv[4];
  } else if (!listmode) {
    argcerror(progpath);
    return kExitArgumentError;
  }

  s.decoder.threads = s.batch.threads;
  const double alphagiven = s.decoder.alpha;
  bool alphadropped = false;
  const bool shiftok = kestrel_driver::settledecoder(&s.decoder, &alphadropped);
  if (alphadropped) msg::alphaincompatible();
  // A warping factor outside (-1, 1) is no all-pass: the cepstra cannot be
  // read with it (NaN is reported through the non-finite samples it gives).
  if (std::fabs(alphagiven) >= 1.0) msg::alphaoutofrange(alphagiven);
  if (!shiftok) {
    msg::shiftoutofrange(givenframeshift(s));
    return kExitArgumentError;
  }

  if (listmode) return runlist(s);
  runindexed(s, names);
  return kExitOk;
}
