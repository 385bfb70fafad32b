// kestrelana: the analysis command. Turns a recording into the three feature
// files that kestrelsyn reads back (log f0, warped cepstra and, optionally,
// maximum voiced frequency), on kestrelsyn's frame grid, so that analysis
// followed by synthesis gives a waveform as long as the recording and aligned
// with it. Same option syntax, messages, batch mode and exit status as
// kestrelsyn.
//
// Audio input: 16 kHz mono 16-bit PCM WAV files go through the library's own
// reader (bit-exact samples); anything else libsndfile reads (other rates,
// channel counts, sample formats, FLAC, OGG, ...) is mixed down to mono by
// averaging the channels and resampled to 16 kHz with libsoxr. Only this
// program uses those two libraries, loaded when a recording first needs them;
// the kestrel library does not.
#include <dlfcn.h>
#include <fcntl.h>
#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "analyser.h"
#include "drivercommon.h"
#include "fdoubleio.h"
#include "fileguard.h"
#include "paramread.h"
#include "runner.h"
#include "uttlist.h"
#include "wavm1616io.h"

namespace {

using kestrel_batch::Log;

constexpr double kFs = kestrel_driver::kAnalysisFs;
constexpr uint64_t kMaxSamples = kestrel_driver::kMaxAnalysisSamples;
// A sample at or beyond this magnitude sits on a 16-bit rail (32767/32768).
constexpr double kFullScale = 0.999969482421875;
// More than this fraction of samples on the rails: the recording is clipped.
constexpr double kClippedFraction = 0.001;
// Peak below one 16-bit step: nothing to analyse.
constexpr double kSilencePeak = 1.0 / 32768.0;
// Frames read per block from libsndfile.
constexpr size_t kBlockFrames = 8192;

// ---------------------------------------------------------------------------
// Messages: all on standard output, as kestrelsyn prints them.

void printmessage(const char *kind, const char *fmt, va_list args) {
  std::fputs(kind, stdout);
  std::vprintf(fmt, args);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void printerror(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void printerror(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  printmessage("Error: ", fmt, args);
  va_end(args);
}

// A library's reason text without its final full stop, to fit in a message.
std::string reason(const char *text) {
  std::string r = text ? text : "unknown reason";
  while (!r.empty() && (r.back() == '.' || r.back() == '\n')) r.pop_back();
  return r;
}

void printusageerror(const char *progpath) {
  std::printf("Error: incorrect input arguments.\nType '%s' for help.\n", getfilename(progpath));
  std::fflush(stdout);
}

void printhelp(const char *progpath) {
  const char *prog = getfilename(progpath);
  kestrel_driver::printbanner("KESTRELANA16", "Harmonic-plus-noise analysis of speech at 16 kHz.");
  std::printf("  Usage:\n");
  std::printf("   %s filewav filef0 filecc [filefv] [params]\n", prog);
  std::printf("\n");
  std::printf("  Arguments:\n");
  std::printf("   filewav: input audio file (WAV, FLAC, OGG, ...; any rate; channels averaged)\n");
  std::printf("   filef0:  output file for logf0 (-1e10 = unvoiced)\n");
  std::printf("   filecc:  output file for cepstral coeffs.\n");
  std::printf("   filefv:  output file for max. voiced freq. (optional)\n");
  std::printf("\n");
  std::printf("  Optional parameters and default values:\n");
  std::printf("   --lframe=80     Frame shift (samples at 16 kHz) [1...8000]\n");
  std::printf("   --order=59      Cepstral order [0...255]\n");
  std::printf("   --alpha=0.42    All-pass (frequency-warping) factor [-0.99...0.99]\n");
  std::printf("   --method=0      Cepstral method [0...4]: 0 harmonic envelope,\n");
  std::printf("                   1 discrete cepstrum, 2 quasi-harmonic discrete cepstrum,\n");
  std::printf("                   3 signal spectrum, 4 SEEVOC envelope\n");
  std::printf("   --f0min=60      Lowest f0 (Hz) [20...1000]\n");
  std::printf("   --f0max=500     Highest f0 (Hz) [40...2000], above f0min\n");
  std::printf("   --pitch=1       Pitch tracker [0...1]: 0 autocorrelation peaks,\n");
  std::printf("                   1 cross-correlation, whole-utterance search\n");
  std::printf("   --refine=0      Pitch refinement by harmonic analysis [0...1]\n");
  std::printf("   --match=0       Analysis-by-synthesis passes on voiced cepstra [0...2]\n");
  std::printf("   --htsscale=1    Cepstra scaled for HTS modelling (c0+5, others x2) [0...1]\n");
  std::printf("   --indlist=      Index list for batch processing, e.g. 1-20,25 [none]\n");
  std::printf("\n");
  std::printf("  List mode: %s --list=wav.scp --outdir=DIR [params]\n", prog);
  std::printf("   --list=         Lines 'uttid path' ('-' = standard input); writes DIR/uttid.lf0, .cc, .fv\n");
  std::printf("   --jobs=1        Utterances analysed in parallel (0 = all cores)\n");
  std::printf("   --shard=K/N     Only the lines at positions p with p mod N = K-1 [1/1]\n");
  std::printf("   --skip-existing Leave utterances whose three outputs exist\n");
  std::printf("   --failed=FILE   Write the ids that failed, one a line\n");
  std::printf("   --progress      Progress line on standard error (default when it is a terminal)\n");
  std::printf("   --threads=1     Threads inside one recording (0 = all cores; any mode)\n");
  std::printf("\n\n");
}

// ---------------------------------------------------------------------------
// Settings.

// Integer options keep the whole value given, so that a number beyond 32
// bits is range-checked as given rather than wrapped.
struct Settings {
  long long lframe = 80;
  long long order = 59;
  double alpha = 0.42;
  long long method = 0;
  double f0min = 60.0;
  double f0max = 500.0;
  long long pitch = 1;
  long long refine = 0;
  long long match = 0;
  long long htsscale = 1;
  const char *indlist = nullptr;
  kestrel_batch::BatchOptions batch;
};

struct FileNames {
  const char *wav = nullptr;
  const char *f0 = nullptr;
  const char *cc = nullptr;
  const char *fv = nullptr;  // absent: no maximum-voiced-frequency analysis
};

// Reads the options in a fixed order; absent or unparsable ones keep their
// defaults (an unparsable one also stays unread and ends the run later).
// An integer option accepted as "%d" accepts it (and marks it read), but its
// value is the whole number given (saturated to 64 bits).
void searchwideint(uint32_t nopts, char **opts, const char *name, long long *value) {
  for (uint32_t k = 0; k < nopts; ++k) {
    const char *text = paramnamematch(opts[k], name);
    int32_t narrow = 0;
    if (text && getintparam(opts[k], name, &narrow) == 0) {
      *value = std::strtoll(text, nullptr, 10);
      return;
    }
  }
}

Settings readsettings(uint32_t nopts, char **opts) {
  Settings s;
  searchwideint(nopts, opts, "lframe", &s.lframe);
  searchwideint(nopts, opts, "order", &s.order);
  searchdoubleparam(nopts, opts, "alpha", &s.alpha);
  searchwideint(nopts, opts, "method", &s.method);
  searchdoubleparam(nopts, opts, "f0min", &s.f0min);
  searchdoubleparam(nopts, opts, "f0max", &s.f0max);
  searchwideint(nopts, opts, "pitch", &s.pitch);
  searchwideint(nopts, opts, "refine", &s.refine);
  searchwideint(nopts, opts, "match", &s.match);
  searchwideint(nopts, opts, "htsscale", &s.htsscale);
  s.indlist = searchstringparam(nopts, opts, "indlist");
  return s;
}

bool checkint(const char *name, long long v, int lo, int hi) {
  if (v >= lo && v <= hi) return true;
  printerror("--%s=%lld is out of range [%d...%d].", name, v, lo, hi);
  return false;
}

// NaN fails both comparisons and is refused like any other value outside.
bool checkdouble(const char *name, double v, double lo, double hi) {
  if (v >= lo && v <= hi) return true;
  printerror("--%s=%g is out of range [%g...%g].", name, v, lo, hi);
  return false;
}

bool checksettings(const Settings &s) {
  if (!checkint("lframe", s.lframe, 1, 8000) || !checkint("order", s.order, 0, 255) ||
      !checkdouble("alpha", s.alpha, -0.99, 0.99) || !checkint("method", s.method, 0, 4) ||
      !checkdouble("f0min", s.f0min, 20.0, 1000.0) || !checkdouble("f0max", s.f0max, 40.0, 2000.0) ||
      !checkint("pitch", s.pitch, 0, 1) || !checkint("refine", s.refine, 0, 1) ||
      !checkint("match", s.match, 0, 2) || !checkint("htsscale", s.htsscale, 0, 1))
    return false;
  if (!(s.f0max > s.f0min)) {
    printerror("--f0max=%g must be above --f0min=%g.", s.f0max, s.f0min);
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Audio input.

struct FreeDeleter {
  void operator()(double *p) const { std::free(p); }
};

// The recording at 16 kHz, mono, full scale +-1.0.
struct Signal {
  std::unique_ptr<double, FreeDeleter> exact;  // from wavreadm1616
  uint32_t nexact = 0;
  std::vector<double> converted;  // from libsndfile (+ libsoxr)
  uint64_t clipped = 0;           // input samples (all channels) on the rails
  uint64_t inputsamples = 0;      // input samples (all channels)

  const double *data() const { return exact ? exact.get() : converted.data(); }
  uint32_t size() const { return exact ? nexact : static_cast<uint32_t>(converted.size()); }
};

// libsndfile and libsoxr, loaded when a recording first needs them: most
// recordings are 16-bit mono 16 kHz WAV files, which the exact reader takes,
// and a run on them does not load a dozen codec libraries. Loaded once per
// process and never changed after.
struct AudioLibs {
  decltype(&::sf_open) open = nullptr;
  decltype(&::sf_close) close = nullptr;
  decltype(&::sf_strerror) strerror = nullptr;
  decltype(&::sf_readf_double) readf_double = nullptr;
  decltype(&::sf_error) error = nullptr;
  decltype(&::soxr_create) soxr_create = nullptr;
  decltype(&::soxr_process) soxr_process = nullptr;
  decltype(&::soxr_delete) soxr_delete = nullptr;
  decltype(&::soxr_io_spec) soxr_io_spec = nullptr;
  decltype(&::soxr_quality_spec) soxr_quality_spec = nullptr;
  std::string missing;  // the library that could not be loaded, if any
};

template <class F>
void bind(void *lib, const char *name, F *f) {
  *f = lib ? reinterpret_cast<F>(::dlsym(lib, name)) : nullptr;
}

const AudioLibs &audiolibs() {
  static const AudioLibs libs = [] {
    AudioLibs l;
    // The run-time names of the libraries the build found (Debian: libsndfile1, libsoxr0).
    void *sndfile = ::dlopen("libsndfile.so.1", RTLD_NOW | RTLD_LOCAL);
    void *soxr = ::dlopen("libsoxr.so.0", RTLD_NOW | RTLD_LOCAL);
    bind(sndfile, "sf_open", &l.open);
    bind(sndfile, "sf_close", &l.close);
    bind(sndfile, "sf_strerror", &l.strerror);
    bind(sndfile, "sf_readf_double", &l.readf_double);
    bind(sndfile, "sf_error", &l.error);
    bind(soxr, "soxr_create", &l.soxr_create);
    bind(soxr, "soxr_process", &l.soxr_process);
    bind(soxr, "soxr_delete", &l.soxr_delete);
    bind(soxr, "soxr_io_spec", &l.soxr_io_spec);
    bind(soxr, "soxr_quality_spec", &l.soxr_quality_spec);
    if (!l.open || !l.close || !l.strerror || !l.readf_double || !l.error)
      l.missing = "libsndfile.so.1";
    else if (!l.soxr_create || !l.soxr_process || !l.soxr_delete || !l.soxr_io_spec || !l.soxr_quality_spec)
      l.missing = "libsoxr.so.0";
    return l;
  }();
  return libs;
}

struct SndfileCloser {
  void operator()(SNDFILE *f) const { audiolibs().close(f); }
};
struct SoxrDeleter {
  void operator()(soxr *r) const { audiolibs().soxr_delete(r); }
};

void countrails(const double *v, size_t n, Signal *sig) {
  for (size_t i = 0; i < n; ++i)
    if (std::fabs(v[i]) >= kFullScale) ++sig->clipped;
  sig->inputsamples += n;
}

bool appendsamples(const double *v, size_t n, Signal *sig, const char *path, Log &log) {
  if (n > kMaxSamples - sig->converted.size()) {
    log.error("%s is too long (more than %llu samples at 16 kHz).", path,
               static_cast<unsigned long long>(kMaxSamples));
    return false;
  }
  sig->converted.insert(sig->converted.end(), v, v + n);
  return true;
}

// Feeds n mono samples (or the end of input when v is null) to the
// resampler and appends everything it gives back.
bool resample(soxr_t r, const double *v, size_t n, std::vector<double> *out, Signal *sig, const char *path,
              Log &log) {
  const AudioLibs &lib = audiolibs();
  size_t used = 0;
  for (;;) {
    size_t idone = 0, odone = 0;
    const soxr_error_t err = lib.soxr_process(r, v ? v + used : nullptr, v ? n - used : 0, &idone,
                                          out->data(), out->size(), &odone);
    if (err) {
      log.error("could not resample %s (%s).", path, reason(soxr_strerror(err)).c_str());
      return false;
    }
    if (!appendsamples(out->data(), odone, sig, path, log)) return false;
    used += idone;
    if (!v) {
      if (odone == 0) return true;  // flushed
    } else if (used >= n && odone < out->size()) {
      return true;  // all taken, nothing more ready
    } else if (idone == 0 && odone == 0) {
      log.error("could not resample %s (the resampler stalled).", path);
      return false;
    }
  }
}

// Everything libsndfile reads: mixed down to mono (channel average) and
// resampled to 16 kHz unless it already is at 16 kHz.
bool readwithsndfile(const char *path, Signal *sig, Log &log) {
  const AudioLibs &lib = audiolibs();
  if (!lib.missing.empty()) {
    log.error("%s is not a 16 kHz mono 16-bit WAV file, and %s, which reads other formats, could not be loaded.", path,
              lib.missing.c_str());
    return false;
  }
  SF_INFO info;
  std::memset(&info, 0, sizeof info);
  std::unique_ptr<SNDFILE, SndfileCloser> sf(lib.open(path, SFM_READ, &info));
  if (!sf) {
    log.error("%s is not an audio file that can be read (%s).", path, reason(lib.strerror(nullptr)).c_str());
    return false;
  }
  if (info.frames <= 0) {
    log.error("%s holds no samples.", path);
    return false;
  }
  if (info.channels <= 0 || info.samplerate <= 0) {
    log.error("%s has an invalid format (%d channels, %d Hz).", path, info.channels, info.samplerate);
    return false;
  }
  const double ratio = kFs / static_cast<double>(info.samplerate);
  if (static_cast<double>(info.frames) * ratio > static_cast<double>(kMaxSamples)) {
    log.error("%s is too long (%.0f samples at 16 kHz; the limit is %llu).", path,
               std::ceil(static_cast<double>(info.frames) * ratio),
               static_cast<unsigned long long>(kMaxSamples));
    return false;
  }
  const size_t nch = static_cast<size_t>(info.channels);
  const bool needresampling = info.samplerate != 16000;
  std::unique_ptr<soxr, SoxrDeleter> resampler;
  std::vector<double> resampled;
  if (needresampling) {
    soxr_error_t err = nullptr;
    const soxr_io_spec_t io = lib.soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
    const soxr_quality_spec_t quality = lib.soxr_quality_spec(SOXR_VHQ, 0);
    resampler.reset(lib.soxr_create(static_cast<double>(info.samplerate), kFs, 1, &err, &io, &quality, nullptr));
    if (!resampler || err) {
      log.error("could not resample %s (%s).", path, reason(soxr_strerror(err)).c_str());
      return false;
    }
    resampled.resize(static_cast<size_t>(std::ceil(kBlockFrames * ratio)) + 1024);
    sig->converted.reserve(static_cast<size_t>(std::ceil(static_cast<double>(info.frames) * ratio)) + 64);
  } else {
    sig->converted.reserve(static_cast<size_t>(info.frames));
  }

  std::vector<double> block(kBlockFrames * nch), mono(kBlockFrames);
  for (;;) {
    const sf_count_t got = lib.readf_double(sf.get(), block.data(), static_cast<sf_count_t>(kBlockFrames));
    if (got <= 0) break;
    const size_t nf = static_cast<size_t>(got);
    countrails(block.data(), nf * nch, sig);
    for (size_t i = 0; i < nf; ++i) {
      double sum = 0.0;
      for (size_t c = 0; c < nch; ++c) sum += block[i * nch + c];
      mono[i] = sum / static_cast<double>(nch);
      if (!std::isfinite(mono[i])) {
        log.error("%s holds samples that are not finite numbers.", path);
        return false;
      }
    }
    const bool ok = needresampling ? resample(resampler.get(), mono.data(), nf, &resampled, sig, path, log)
                                   : appendsamples(mono.data(), nf, sig, path, log);
    if (!ok) return false;
  }
  if (lib.error(sf.get()) != SF_ERR_NO_ERROR) {
    log.error("could not read %s (%s).", path, reason(lib.strerror(sf.get())).c_str());
    return false;
  }
  if (needresampling && !resample(resampler.get(), nullptr, 0, &resampled, sig, path, log)) return false;
  if (sig->converted.empty()) {
    log.error("%s holds no samples.", path);
    return false;
  }
  return true;
}

// Bytes of samples that a RIFF/WAVE file's data chunk announces beyond the
// end of the file: a cut-off file, which is analysed as far as it goes. 0
// for anything else, and for the sizes 0 and 0xFFFFFFFF that streamed WAVs
// use for "unknown".
uint64_t missingwavbytes(const char *path, uint64_t filesize) {
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> f(std::fopen(path, "rb"), std::fclose);
  unsigned char h[12];
  if (!f || std::fread(h, 1, 12, f.get()) != 12 || std::memcmp(h, "RIFF", 4) != 0 || std::memcmp(h + 8, "WAVE", 4) != 0)
    return 0;
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 1000 && pos + 8 <= filesize; ++chunk) {
    if (std::fseek(f.get(), static_cast<long>(pos), SEEK_SET) != 0 || std::fread(h, 1, 8, f.get()) != 8) return 0;
    const uint64_t size = h[4] | (h[5] << 8) | (h[6] << 16) | (static_cast<uint64_t>(h[7]) << 24);
    pos += 8;
    if (std::memcmp(h, "data", 4) == 0)
      return (size == 0 || size == 0xFFFFFFFFu || pos + size <= filesize) ? 0 : pos + size - filesize;
    pos += size + (size & 1u);
  }
  return 0;
}

// Reads a recording into sig. Prints the reason and returns false when it
// cannot be analysed; warns about clipping.
bool readrecording(const char *path, Signal *sig, Log &log) {
  struct stat st;
  const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    log.error("could not open %s.", path);
    return false;
  }
  const bool statted = ::fstat(fd, &st) == 0;
  ::close(fd);
  if (!statted || !S_ISREG(st.st_mode)) {
    log.error("could not open %s (not a regular file).", path);
    return false;
  }
  if (st.st_size == 0) {
    log.error("%s is empty.", path);
    return false;
  }
  // The exact reader allocates what the header announces (never more than the
  // file holds); only files that cannot hold more than the limit go there.
  // Longer ones are sized up by libsndfile before anything is read.
  if (static_cast<uint64_t>(st.st_size) <= 2 * kMaxSamples + 44) {
    double *x = nullptr;
    const uint32_t n = wavreadm1616(path, &x);
    if (n > 0) {
      sig->exact.reset(x);
      sig->nexact = n;
      if (n > kMaxSamples) {
        log.error("%s is too long (%u samples; the limit is %llu).", path, static_cast<unsigned>(n),
                   static_cast<unsigned long long>(kMaxSamples));
        return false;
      }
      countrails(x, n, sig);
    }
  }
  if (!sig->exact && !readwithsndfile(path, sig, log)) return false;
  if (const uint64_t missing = missingwavbytes(path, static_cast<uint64_t>(st.st_size)))
    log.warning("%s is cut short (its header announces %llu more bytes of samples than it holds).", path,
                 static_cast<unsigned long long>(missing));

  const double *x = sig->data();
  const uint32_t n = sig->size();
  double peak = 0.0;
  for (uint32_t i = 0; i < n; ++i) peak = std::fmax(peak, std::fabs(x[i]));
  if (peak < kSilencePeak) {
    log.error("%s is silent (no sample reaches one 16-bit step).", path);
    return false;
  }
  if (static_cast<double>(sig->clipped) > kClippedFraction * static_cast<double>(sig->inputsamples))
    log.warning("%s is clipped (%.2f %% of its samples at full scale).", path,
                 100.0 * static_cast<double>(sig->clipped) / static_cast<double>(sig->inputsamples));
  return true;
}

// ---------------------------------------------------------------------------
// Output: every file of an utterance goes to a temporary beside it (the
// library writers' scheme) and is renamed into place only once all of them
// are written, so a failure never leaves a partial set (or a truncated file)
// behind. An existing device (such as /dev/null) is written directly.

class PendingOutputs {
 public:
  explicit PendingOutputs(Log &log) : log_(log) {}
  // Writes n values (the array is narrowed in place) to a temporary beside path.
  bool add(const char *path, double *values, uint32_t n) {
    auto out = std::make_unique<kestrel_io::OutputFile>(path);
    if (!out->isopen() || !out->write(kestrel_io::narrowinplace(values, n), sizeof(float), n) || !out->close()) {
      log_.error("could not create %s.", path);
      return false;  // out removes its temporary
    }
    files_.emplace_back(path, std::move(out));
    return true;
  }

  bool commit() {
    for (auto &f : files_)
      if (!f.second->commit()) {
        log_.error("could not create %s.", f.first);
        return false;  // the remaining temporaries are removed with files_
      }
    return true;
  }

 private:
  std::vector<std::pair<const char *, std::unique_ptr<kestrel_io::OutputFile>>> files_;
  Log &log_;
};

// True when writing to out would replace the recording itself.
bool sameasinput(const char *in, const struct stat &inst, const char *out) {
  if (std::strcmp(in, out) == 0) return true;
  struct stat st;
  return ::stat(out, &st) == 0 && st.st_dev == inst.st_dev && st.st_ino == inst.st_ino;
}

bool checkoutputnames(const FileNames &names, Log &log) {
  struct stat inst;
  const bool instat = ::stat(names.wav, &inst) == 0;
  const char *outs[3] = {names.f0, names.cc, names.fv};
  for (int i = 0; i < 3; ++i) {
    if (!outs[i]) continue;
    struct stat st;
    const bool exists = ::stat(outs[i], &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
      log.error("could not create %s (it is a directory).", outs[i]);
      return false;
    }
    if (instat ? sameasinput(names.wav, inst, outs[i]) : std::strcmp(names.wav, outs[i]) == 0) {
      log.error("%s is both the input and an output.", outs[i]);
      return false;
    }
    // One device (such as /dev/null) may take several outputs; a file may not.
    for (int j = 0; j < i && !(exists && !S_ISREG(st.st_mode)); ++j)
      if (outs[j] && std::strcmp(outs[i], outs[j]) == 0) {
        log.error("%s is given for two outputs.", outs[i]);
        return false;
      }
  }
  return true;
}

// ---------------------------------------------------------------------------
// One utterance.

// Returns the seconds of audio analysed (0 on failure).
double processutterance(const FileNames &names, const Settings &s, Log &log) {
  if (!checkoutputnames(names, log)) return 0.0;
  Signal sig;
  if (!readrecording(names.wav, &sig, log)) return 0.0;
  const double *x = sig.data();
  const uint32_t n = sig.size();
  const uint32_t shift = static_cast<uint32_t>(s.lframe);
  const uint32_t order = static_cast<uint32_t>(s.order);
  if (n < shift + 1u) {
    log.error("%s is too short (%u samples at 16 kHz; one frame needs %u).", names.wav,
               static_cast<unsigned>(n), static_cast<unsigned>(shift + 1u));
    return 0.0;
  }
  kestrel_driver::AnalyserSettings as;
  as.lframe = shift;
  as.order = order;
  as.alpha = s.alpha;
  as.method = static_cast<uint8_t>(s.method);
  as.f0min = s.f0min;
  as.f0max = s.f0max;
  as.crosscorrelation = s.pitch == 1;
  as.refine = s.refine == 1;
  as.matchpasses = static_cast<uint32_t>(s.match);
  as.htsscale = s.htsscale == 1;
  as.threads = s.batch.threads;
  kestrel_driver::Analysis a;
  switch (kestrel_driver::analyserecording(x, n, as, names.fv != nullptr, &a)) {
    case kestrel_driver::AnalysisStatus::ok:
      break;
    case kestrel_driver::AnalysisStatus::toomanyvalues:
      log.error("%s gives too many cepstral values (%llu; the limit is %llu): raise lframe or lower order.",
                 names.wav, static_cast<unsigned long long>(order + 1ull) * kestrel_driver::countframes(n, shift),
                 static_cast<unsigned long long>(kestrel_driver::kMaxCepstralValues));
      return 0.0;
    case kestrel_driver::AnalysisStatus::cepstrumfailed:
      log.error("cepstral analysis of %s failed; nothing written.", names.wav);
      return 0.0;
    default:  // not finite
      log.error("analysis of %s gave values that are not finite numbers; nothing written.", names.wav);
      return 0.0;
  }
  const uint32_t nframes = a.nframes;
  const uint32_t ncc = static_cast<uint32_t>(a.cc.size());
  std::vector<double> &f0 = a.logf0, &cc = a.cc, &fv = a.fv;

  PendingOutputs out(log);
  if (!out.add(names.f0, f0.data(), nframes)) return 0.0;
  if (!out.add(names.cc, cc.data(), ncc)) return 0.0;
  if (names.fv && !out.add(names.fv, fv.data(), nframes)) return 0.0;
  return out.commit() ? static_cast<double>(n) / kFs : 0.0;
}

// ---------------------------------------------------------------------------
// Batch.

// A long recording at a small shift and a high order can need more memory
// than there is: the recording is then skipped with a message, as in list mode.
void analyseguarded(const FileNames &names, const Settings &s, Log &log) {
  kestrel_batch::runguarded(log, names.wav, [&] { processutterance(names, s, log); });
}

void runindexed(char *const slots[4], const Settings &s) {
  const FileNames names{slots[0], slots[1], slots[2], slots[3]};
  Log log;
  if (!s.indlist) {
    analyseguarded(names, s, log);
    log.flush();
    return;
  }
  kestrel_driver::foreachindex(s.indlist, [&](uint32_t i) {
    const char *misfit = kestrel_driver::setindexednames(slots, 4, i);
    log.line("%s", names.cc);
    if (misfit)
      log.error("index %u does not fit the file-name placeholder of %s.", static_cast<unsigned>(i), misfit);
    else
      analyseguarded(names, s, log);
    log.flush();
  });
}

// List mode: each "uttid path" line to OUTDIR/uttid.lf0, .cc and .fv.
int runlist(const Settings &s) {
  const kestrel_batch::BatchOptions &b = s.batch;
  std::vector<kestrel_batch::Utterance> all;
  std::string error;
  if (!kestrel_batch::readuttlist(b.list, true, &all, &error) || !kestrel_batch::makedirectory(b.outdir, &error)) {
    std::printf("%s\n", error.c_str());
    return -1;
  }
  const std::string outdir = std::string(b.outdir) + "/";
  auto job = [&](const kestrel_batch::Utterance &u, kestrel_batch::Outcome *o) {
    const std::string f0 = outdir + u.id + ".lf0", cc = outdir + u.id + ".cc", fv = outdir + u.id + ".fv";
    if (b.skipexisting && kestrel_batch::fileexists(f0) && kestrel_batch::fileexists(cc) &&
        kestrel_batch::fileexists(fv)) {
      o->skipped = true;
      return;
    }
    o->log.line("%s", cc.c_str());
    o->audioseconds = processutterance(FileNames{u.path.c_str(), f0.c_str(), cc.c_str(), fv.c_str()}, s, o->log);
  };
  return kestrel_batch::runutterances(kestrel_batch::takeshard(all, b.shardk, b.shardn), b, job);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 1) {
    printhelp(argv[0]);
    return 0;
  }
  int firstopt = argc;
  for (int i = 0; i < argc; ++i)
    if (isparam(argv[i])) {
      firstopt = i;
      break;
    }
  const uint32_t nopts = static_cast<uint32_t>(argc - firstopt);
  char **opts = argv + firstopt;

  kestrel_batch::BatchOptions batch;
  std::string error;
  const bool batchok = kestrel_batch::readbatchoptions(nopts, opts, &batch, &error);
  const bool listmode = batch.list != nullptr;
  if (argc < 4 && !listmode) {
    printusageerror(argv[0]);
    return -1;
  }
  Settings settings = readsettings(nopts, opts);
  settings.batch = batch;
  if (settings.indlist && strnumdiagnose(settings.indlist) != 0) {
    printerror("bad formatted indlist.");
    return -1;
  }
  if (unreadparams(nopts, opts) || (listmode && (firstopt != 1 || settings.indlist))) {
    printusageerror(argv[0]);
    return -1;
  }
  if (!batchok) {
    std::printf("%s\n", error.c_str());
    return -1;
  }
  if (listmode && (!batch.outdir || batch.featdir)) {
    printerror("--list needs --outdir (and takes no --featdir).");
    return -1;
  }
  if (!listmode && batch.anyset) {
    printerror("--outdir, --jobs, --shard, --skip-existing, --failed and --progress need --list.");
    return -1;
  }
  char *slots[4] = {nullptr, nullptr, nullptr, nullptr};  // wav, f0, cc, fv
  if (firstopt == 4 || firstopt == 5) {
    slots[0] = argv[1];
    slots[1] = argv[2];
    slots[2] = argv[3];
    if (firstopt == 5) slots[3] = argv[4];
  } else if (!listmode) {
    printusageerror(argv[0]);
    return -1;
  }
  if (!checksettings(settings)) return -1;

  if (listmode) return runlist(settings);
  runindexed(slots, settings);
  return 0;
}
