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
// program links those two libraries; the kestrel library does not.
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

#include "ccanalysis.h"
#include "drivercommon.h"
#include "fdoubleio.h"
#include "fvanalysis.h"
#include "paramread.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

namespace {

constexpr double kFs = 16000.0;
// Longest recording analysed, in samples at 16 kHz (about 4 h 40 min). Every
// count derived from it (frames, samples of the resynthesis, window ends)
// stays far inside 32 bits, and the worst-case memory stays bounded.
constexpr uint64_t kMaxSamples = uint64_t{1} << 28;
// Largest cepstral file, in values: reached only with tiny frame shifts and
// high orders on long recordings.
constexpr uint64_t kMaxCepstralValues = uint64_t{1} << 28;
// A sample at or beyond this magnitude sits on a 16-bit rail (32767/32768).
constexpr double kFullScale = 0.999969482421875;
// More than this fraction of samples on the rails: the recording is clipped.
constexpr double kClippedFraction = 0.001;
// Peak below one 16-bit step: nothing to analyse.
constexpr double kSilencePeak = 1.0 / 32768.0;
constexpr uint32_t kRefineIterations = 5;
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

void printwarning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void printwarning(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  printmessage("Warning: ", fmt, args);
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
  std::printf("   --htsscale=1    Cepstra scaled for HTS modelling (c0+5, others x2) [0...1]\n");
  std::printf("   --indlist=      Index list for batch processing, e.g. 1-20,25 [none]\n");
  std::printf("\n\n");
}

// ---------------------------------------------------------------------------
// Settings.

struct Settings {
  int32_t lframe = 80;
  int32_t order = 59;
  double alpha = 0.42;
  int32_t method = 0;
  double f0min = 60.0;
  double f0max = 500.0;
  int32_t pitch = 1;
  int32_t refine = 0;
  int32_t htsscale = 1;
  const char *indlist = nullptr;
};

struct FileNames {
  char *wav = nullptr;
  char *f0 = nullptr;
  char *cc = nullptr;
  char *fv = nullptr;  // absent: no maximum-voiced-frequency analysis
};

// Reads the options in a fixed order; absent or unparsable ones keep their
// defaults (an unparsable one also stays unread and ends the run later).
Settings readsettings(uint32_t nopts, char **opts) {
  Settings s;
  searchintparam(nopts, opts, "lframe", &s.lframe);
  searchintparam(nopts, opts, "order", &s.order);
  searchdoubleparam(nopts, opts, "alpha", &s.alpha);
  searchintparam(nopts, opts, "method", &s.method);
  searchdoubleparam(nopts, opts, "f0min", &s.f0min);
  searchdoubleparam(nopts, opts, "f0max", &s.f0max);
  searchintparam(nopts, opts, "pitch", &s.pitch);
  searchintparam(nopts, opts, "refine", &s.refine);
  searchintparam(nopts, opts, "htsscale", &s.htsscale);
  s.indlist = searchstringparam(nopts, opts, "indlist");
  return s;
}

bool checkint(const char *name, int32_t v, int32_t lo, int32_t hi) {
  if (v >= lo && v <= hi) return true;
  printerror("--%s=%d is out of range [%d...%d].", name, static_cast<int>(v), static_cast<int>(lo),
             static_cast<int>(hi));
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
      !checkint("htsscale", s.htsscale, 0, 1))
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

struct SndfileCloser {
  void operator()(SNDFILE *f) const { sf_close(f); }
};
struct SoxrDeleter {
  void operator()(soxr *r) const { soxr_delete(r); }
};

void countrails(const double *v, size_t n, Signal *sig) {
  for (size_t i = 0; i < n; ++i)
    if (std::fabs(v[i]) >= kFullScale) ++sig->clipped;
  sig->inputsamples += n;
}

bool appendsamples(const double *v, size_t n, Signal *sig, const char *path) {
  if (n > kMaxSamples - sig->converted.size()) {
    printerror("%s is too long (more than %llu samples at 16 kHz).", path,
               static_cast<unsigned long long>(kMaxSamples));
    return false;
  }
  sig->converted.insert(sig->converted.end(), v, v + n);
  return true;
}

// Feeds n mono samples (or the end of input when v is null) to the
// resampler and appends everything it gives back.
bool resample(soxr_t r, const double *v, size_t n, std::vector<double> *out, Signal *sig, const char *path) {
  size_t used = 0;
  for (;;) {
    size_t idone = 0, odone = 0;
    const soxr_error_t err = soxr_process(r, v ? v + used : nullptr, v ? n - used : 0, &idone,
                                          out->data(), out->size(), &odone);
    if (err) {
      printerror("could not resample %s (%s).", path, reason(soxr_strerror(err)).c_str());
      return false;
    }
    if (!appendsamples(out->data(), odone, sig, path)) return false;
    used += idone;
    if (!v) {
      if (odone == 0) return true;  // flushed
    } else if (used >= n && odone < out->size()) {
      return true;  // all taken, nothing more ready
    } else if (idone == 0 && odone == 0) {
      printerror("could not resample %s (the resampler stalled).", path);
      return false;
    }
  }
}

// Everything libsndfile reads: mixed down to mono (channel average) and
// resampled to 16 kHz unless it already is at 16 kHz.
bool readwithsndfile(const char *path, Signal *sig) {
  SF_INFO info;
  std::memset(&info, 0, sizeof info);
  std::unique_ptr<SNDFILE, SndfileCloser> sf(sf_open(path, SFM_READ, &info));
  if (!sf) {
    printerror("%s is not an audio file that can be read (%s).", path, reason(sf_strerror(nullptr)).c_str());
    return false;
  }
  if (info.frames <= 0) {
    printerror("%s holds no samples.", path);
    return false;
  }
  if (info.channels <= 0 || info.samplerate <= 0) {
    printerror("%s has an invalid format (%d channels, %d Hz).", path, info.channels, info.samplerate);
    return false;
  }
  const double ratio = kFs / static_cast<double>(info.samplerate);
  if (static_cast<double>(info.frames) * ratio > static_cast<double>(kMaxSamples)) {
    printerror("%s is too long (%.0f samples at 16 kHz; the limit is %llu).", path,
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
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    resampler.reset(soxr_create(static_cast<double>(info.samplerate), kFs, 1, &err, &io, &quality, nullptr));
    if (!resampler || err) {
      printerror("could not resample %s (%s).", path, reason(soxr_strerror(err)).c_str());
      return false;
    }
    resampled.resize(static_cast<size_t>(std::ceil(kBlockFrames * ratio)) + 1024);
    sig->converted.reserve(static_cast<size_t>(std::ceil(static_cast<double>(info.frames) * ratio)) + 64);
  } else {
    sig->converted.reserve(static_cast<size_t>(info.frames));
  }

  std::vector<double> block(kBlockFrames * nch), mono(kBlockFrames);
  for (;;) {
    const sf_count_t got = sf_readf_double(sf.get(), block.data(), static_cast<sf_count_t>(kBlockFrames));
    if (got <= 0) break;
    const size_t nf = static_cast<size_t>(got);
    countrails(block.data(), nf * nch, sig);
    for (size_t i = 0; i < nf; ++i) {
      double sum = 0.0;
      for (size_t c = 0; c < nch; ++c) sum += block[i * nch + c];
      mono[i] = sum / static_cast<double>(nch);
      if (!std::isfinite(mono[i])) {
        printerror("%s holds samples that are not finite numbers.", path);
        return false;
      }
    }
    const bool ok = needresampling ? resample(resampler.get(), mono.data(), nf, &resampled, sig, path)
                                   : appendsamples(mono.data(), nf, sig, path);
    if (!ok) return false;
  }
  if (sf_error(sf.get()) != SF_ERR_NO_ERROR) {
    printerror("could not read %s (%s).", path, reason(sf_strerror(sf.get())).c_str());
    return false;
  }
  if (needresampling && !resample(resampler.get(), nullptr, 0, &resampled, sig, path)) return false;
  if (sig->converted.empty()) {
    printerror("%s holds no samples.", path);
    return false;
  }
  return true;
}

// Reads a recording into sig. Prints the reason and returns false when it
// cannot be analysed; warns about clipping.
bool readrecording(const char *path, Signal *sig) {
  struct stat st;
  const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    printerror("could not open %s.", path);
    return false;
  }
  const bool statted = ::fstat(fd, &st) == 0;
  ::close(fd);
  if (!statted || !S_ISREG(st.st_mode)) {
    printerror("could not open %s (not a regular file).", path);
    return false;
  }
  if (st.st_size == 0) {
    printerror("%s is empty.", path);
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
        printerror("%s is too long (%u samples; the limit is %llu).", path, static_cast<unsigned>(n),
                   static_cast<unsigned long long>(kMaxSamples));
        return false;
      }
      countrails(x, n, sig);
    }
  }
  if (!sig->exact && !readwithsndfile(path, sig)) return false;

  const double *x = sig->data();
  const uint32_t n = sig->size();
  double peak = 0.0;
  for (uint32_t i = 0; i < n; ++i) peak = std::fmax(peak, std::fabs(x[i]));
  if (peak < kSilencePeak) {
    printerror("%s is silent (no sample reaches one 16-bit step).", path);
    return false;
  }
  if (static_cast<double>(sig->clipped) > kClippedFraction * static_cast<double>(sig->inputsamples))
    printwarning("%s is clipped (%.2f %% of its samples at full scale).", path,
                 100.0 * static_cast<double>(sig->clipped) / static_cast<double>(sig->inputsamples));
  return true;
}

// ---------------------------------------------------------------------------
// Frame grid.

// Frame i is centred on sample (i + 1)*shift, as kestrelsyn places it. The
// count is the smallest one whose resynthesis, (nframes + 1)*shift + 1
// samples, is at least as long as the recording, and at least one.
uint32_t countframes(uint64_t nsamples, uint64_t shift) {
  const uint64_t k = (nsamples - 1 + shift - 1) / shift;  // ceil((n - 1)/shift)
  return static_cast<uint32_t>(k > 1 ? k - 1 : 1);
}

// The inverse of kestrelsyn's default rescaling: c0 + 5, c1..c_order doubled.
void htsadapteradhoc(double *cc, uint32_t order, uint32_t nframes) {
  for (uint32_t k = 0; k < nframes; ++k) {
    double *c = cc + static_cast<size_t>(k) * (order + 1u);
    c[0] = c[0] + 5.0;
    for (uint32_t j = 1; j <= order; ++j) c[j] = c[j] * 2.0;
  }
}

bool allfinite(const std::vector<double> &v) {
  for (double d : v)
    if (!std::isfinite(d)) return false;
  return true;
}

// ---------------------------------------------------------------------------
// Output: every file of an utterance goes to a temporary name in its own
// directory and is renamed into place only once all of them are written, so
// a failure never leaves a partial set (or a truncated file) behind.

class PendingOutputs {
 public:
  PendingOutputs() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    mode_ = static_cast<mode_t>(0666 & ~mask);
  }
  PendingOutputs(const PendingOutputs &) = delete;
  PendingOutputs &operator=(const PendingOutputs &) = delete;
  ~PendingOutputs() {
    for (const auto &f : files_) ::unlink(f.first.c_str());
  }

  // Writes n values (the array is narrowed in place) to a temporary beside
  // path. An existing device or pipe (such as /dev/null) is written directly:
  // it cannot be replaced by a rename, nor left half-written.
  bool add(const char *path, double *values, uint32_t n) {
    struct stat st;
    if (::stat(path, &st) == 0 && !S_ISREG(st.st_mode)) {
      if (fdoublewrite(path, values, n, 0) == n) return true;
      printerror("could not create %s.", path);
      return false;
    }
    std::string tmp = std::string(path) + ".tmpXXXXXX";
    const int fd = ::mkstemp(&tmp[0]);
    if (fd < 0) {
      printerror("could not create %s.", path);
      return false;
    }
    const bool modeset = ::fchmod(fd, mode_) == 0;
    ::close(fd);
    if (!modeset || fdoublewrite(tmp.c_str(), values, n, 0) != n) {
      ::unlink(tmp.c_str());
      printerror("could not create %s.", path);
      return false;
    }
    files_.emplace_back(std::move(tmp), path);
    return true;
  }

  bool commit() {
    while (!files_.empty()) {
      const auto &f = files_.front();
      if (std::rename(f.first.c_str(), f.second.c_str()) != 0) {
        printerror("could not create %s.", f.second.c_str());
        return false;  // the destructor removes this and the remaining temporaries
      }
      files_.erase(files_.begin());
    }
    return true;
  }

 private:
  std::vector<std::pair<std::string, std::string>> files_;
  mode_t mode_ = 0644;
};

// True when writing to out would replace the recording itself.
bool sameasinput(const char *in, const struct stat &inst, const char *out) {
  if (std::strcmp(in, out) == 0) return true;
  struct stat st;
  return ::stat(out, &st) == 0 && st.st_dev == inst.st_dev && st.st_ino == inst.st_ino;
}

bool checkoutputnames(const FileNames &names) {
  struct stat inst;
  const bool instat = ::stat(names.wav, &inst) == 0;
  const char *outs[3] = {names.f0, names.cc, names.fv};
  for (int i = 0; i < 3; ++i) {
    if (!outs[i]) continue;
    struct stat st;
    const bool exists = ::stat(outs[i], &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
      printerror("could not create %s (it is a directory).", outs[i]);
      return false;
    }
    if (instat ? sameasinput(names.wav, inst, outs[i]) : std::strcmp(names.wav, outs[i]) == 0) {
      printerror("%s is both the input and an output.", outs[i]);
      return false;
    }
    // One device (such as /dev/null) may take several outputs; a file may not.
    for (int j = 0; j < i && !(exists && !S_ISREG(st.st_mode)); ++j)
      if (outs[j] && std::strcmp(outs[i], outs[j]) == 0) {
        printerror("%s is given for two outputs.", outs[i]);
        return false;
      }
  }
  return true;
}

// ---------------------------------------------------------------------------
// One utterance.

void processutterance(const FileNames &names, const Settings &s) {
  if (!checkoutputnames(names)) return;
  Signal sig;
  if (!readrecording(names.wav, &sig)) return;
  const double *x = sig.data();
  const uint32_t n = sig.size();
  const uint32_t shift = static_cast<uint32_t>(s.lframe);
  const uint32_t order = static_cast<uint32_t>(s.order);
  if (n < shift + 1u) {
    printerror("%s is too short (%u samples at 16 kHz; one frame needs %u).", names.wav,
               static_cast<unsigned>(n), static_cast<unsigned>(shift + 1u));
    return;
  }
  const uint32_t nframes = countframes(n, shift);
  const uint64_t ncc = static_cast<uint64_t>(order + 1u) * nframes;
  if (ncc > kMaxCepstralValues) {
    printerror("%s gives too many cepstral values (%llu; the limit is %llu): raise lframe or lower order.",
               names.wav, static_cast<unsigned long long>(ncc),
               static_cast<unsigned long long>(kMaxCepstralValues));
    return;
  }

  std::vector<double> f0(nframes), cc(static_cast<size_t>(ncc)), fv;
  (s.pitch == 1 ? getpitchdp : getpitch)(x, n, kFs, shift, shift, nframes, s.f0min, s.f0max, f0.data());
  if (s.refine == 1)
    refinepitch(x, n, kFs, shift, shift, nframes, s.f0min, s.f0max, kRefineIterations, f0.data(), nullptr);
  if (names.fv) {
    fv.resize(nframes);
    getfvoicing(x, n, kFs, shift, shift, nframes, f0.data(), fv.data());
  }
  if (waveform2cc(x, n, kFs, shift, shift, nframes, f0.data(), order, cc.data(), s.alpha,
                  static_cast<uint8_t>(s.method)) != 0) {
    printerror("cepstral analysis of %s failed; nothing written.", names.wav);
    return;
  }
  if (s.htsscale == 1) htsadapteradhoc(cc.data(), order, nframes);
  if (!allfinite(f0) || !allfinite(cc) || !allfinite(fv)) {
    printerror("analysis of %s gave values that are not finite numbers; nothing written.", names.wav);
    return;
  }
  f02logf0(nframes, f0.data());

  PendingOutputs out;
  if (!out.add(names.f0, f0.data(), nframes)) return;
  if (!out.add(names.cc, cc.data(), static_cast<uint32_t>(ncc))) return;
  if (names.fv && !out.add(names.fv, fv.data(), nframes)) return;
  out.commit();
}

// ---------------------------------------------------------------------------
// Batch.

void runbatch(FileNames names, const Settings &s) {
  if (!s.indlist) {
    processutterance(names, s);
    return;
  }
  char *const slots[] = {names.wav, names.f0, names.cc, names.fv};
  kestrel_driver::foreachindex(s.indlist, [&](uint32_t i) {
    const char *misfit = kestrel_driver::setindexednames(slots, 4, i);
    std::printf("%s\n", names.cc);
    if (misfit) {
      printerror("index %u does not fit the file-name placeholder of %s.", static_cast<unsigned>(i), misfit);
      return;
    }
    std::fflush(stdout);
    processutterance(names, s);
  });
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 1) {
    printhelp(argv[0]);
    return 0;
  }
  if (argc < 4) {
    printusageerror(argv[0]);
    return -1;
  }
  int firstopt = argc;
  for (int i = 0; i < argc; ++i)
    if (isparam(argv[i])) {
      firstopt = i;
      break;
    }
  const uint32_t nopts = static_cast<uint32_t>(argc - firstopt);
  char **opts = argv + firstopt;

  const Settings settings = readsettings(nopts, opts);
  if (settings.indlist && strnumdiagnose(settings.indlist) != 0) {
    printerror("bad formatted indlist.");
    return -1;
  }
  if (unreadparams(nopts, opts)) {
    printusageerror(argv[0]);
    return -1;
  }
  FileNames names;
  if (firstopt == 4 || firstopt == 5) {
    names.wav = argv[1];
    names.f0 = argv[2];
    names.cc = argv[3];
    if (firstopt == 5) names.fv = argv[4];
  } else {
    printusageerror(argv[0]);
    return -1;
  }
  if (!checksettings(settings)) return -1;

  runbatch(names, settings);
  return 0;
}
