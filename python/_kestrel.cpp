// kestrel._kestrel: the thin binding under the Python package. It takes
// float64 C-contiguous arrays (the Python layer converts and checks types),
// calls the same code as the two commands, and releases the GIL around every
// computation. Messages follow the commands' wording, with the argument's
// name in place of the file name.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "analyser.h"
#include "ccanalysis.h"
#include "decoder.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

namespace py = pybind11;
using kestrel_driver::kAnalysisFs;
using kestrel_driver::kMaxAnalysisSamples;

namespace {

using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

// A sample at or beyond this magnitude sits on a 16-bit rail (32767/32768).
constexpr double kFullScale = 0.999969482421875;
// Peak below one 16-bit step: nothing to analyse.
constexpr double kSilencePeak = 1.0 / 32768.0;
// The command reads its input in blocks of this many frames, and feeds the
// resampler block by block; the same blocks give the same samples.
constexpr size_t kBlockFrames = 8192;

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
  char buf[512];
  va_list args;
  va_start(args, f);
  std::vsnprintf(buf, sizeof buf, f, args);
  va_end(args);
  return buf;
}

[[noreturn]] void fail(const std::string &text) { throw py::value_error(text); }

uint32_t count32(size_t n, const char *what) {
  if (n > 0xFFFFFFFFu) fail(fmt("%s has too many values (%zu; the limit is 4294967295).", what, n));
  return static_cast<uint32_t>(n);
}

py::array_t<double> newarray(size_t n) { return py::array_t<double>(static_cast<py::ssize_t>(n)); }

py::array_t<double> newmatrix(size_t rows, size_t cols) {
  return py::array_t<double>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(cols)});
}

struct SoxrDeleter {
  void operator()(soxr *r) const { soxr_delete(r); }
};

// Feeds n samples (or the end of input when v is null) to the resampler and
// appends everything it gives back. Empty string, or the reason of a failure.
std::string resample(soxr_t r, const double *v, size_t n, std::vector<double> *buf, std::vector<double> *out) {
  size_t used = 0;
  for (;;) {
    size_t idone = 0, odone = 0;
    const soxr_error_t err =
        soxr_process(r, v ? v + used : nullptr, v ? n - used : 0, &idone, buf->data(), buf->size(), &odone);
    if (err) return soxr_strerror(err);
    if (odone > kMaxAnalysisSamples - out->size()) return "too long";
    out->insert(out->end(), buf->data(), buf->data() + odone);
    used += idone;
    if (!v) {
      if (odone == 0) return "";
    } else if (used >= n && odone < buf->size()) {
      return "";
    } else if (idone == 0 && odone == 0) {
      return "the resampler stalled";
    }
  }
}

// (samples, channels) at rate fs to mono 16 kHz: channels averaged, then
// libsoxr at its very-high-quality setting unless fs is 16000. Returns the
// signal and the count of input values on the 16-bit rails.
py::tuple to16k(Array x, double fs, const std::string &name) {
  if (x.ndim() != 2) fail(name + " must be 2-D here.");
  const size_t nf = static_cast<size_t>(x.shape(0)), nch = static_cast<size_t>(x.shape(1));
  if (!(fs > 0.0) || !std::isfinite(fs) || fs > 1e9) fail(fmt("fs=%g is not a usable sampling rate.", fs));
  if (nf == 0 || nch == 0) fail(name + " holds no samples.");
  const double ratio = kAnalysisFs / fs;
  if (static_cast<double>(nf) * ratio > static_cast<double>(kMaxAnalysisSamples))
    fail(fmt("%s is too long (%.0f samples at 16 kHz; the limit is %llu).", name.c_str(),
             std::ceil(static_cast<double>(nf) * ratio), static_cast<unsigned long long>(kMaxAnalysisSamples)));
  const double *in = x.data();
  std::vector<double> out;
  uint64_t clipped = 0;
  std::string error;
  bool notfinite = false;
  {
    py::gil_scoped_release release;
    const bool needresampling = fs != kAnalysisFs;
    std::unique_ptr<soxr, SoxrDeleter> r;
    std::vector<double> buf, mono(kBlockFrames);
    if (needresampling) {
      soxr_error_t err = nullptr;
      const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
      const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
      r.reset(soxr_create(fs, kAnalysisFs, 1, &err, &io, &quality, nullptr));
      if (!r || err) error = soxr_strerror(err);
      buf.resize(static_cast<size_t>(std::ceil(kBlockFrames * ratio)) + 1024);
      out.reserve(static_cast<size_t>(std::ceil(static_cast<double>(nf) * ratio)) + 64);
    } else {
      out.reserve(nf);
    }
    for (size_t start = 0; start < nf && error.empty() && !notfinite; start += kBlockFrames) {
      const size_t nb = std::min(kBlockFrames, nf - start);
      const double *block = in + start * nch;
      for (size_t i = 0; i < nb * nch; ++i)
        if (std::fabs(block[i]) >= kFullScale) ++clipped;
      for (size_t i = 0; i < nb && !notfinite; ++i) {
        double sum = 0.0;
        for (size_t c = 0; c < nch; ++c) sum += block[i * nch + c];
        mono[i] = sum / static_cast<double>(nch);
        notfinite = !std::isfinite(mono[i]);
      }
      if (notfinite) break;
      if (needresampling)
        error = resample(r.get(), mono.data(), nb, &buf, &out);
      else
        out.insert(out.end(), mono.data(), mono.data() + nb);
    }
    if (needresampling && error.empty() && !notfinite) error = resample(r.get(), nullptr, 0, &buf, &out);
  }
  if (notfinite) fail(name + " holds samples that are not finite numbers.");
  if (!error.empty()) fail(fmt("could not resample %s (%s).", name.c_str(), error.c_str()));
  if (out.empty()) fail(name + " holds no samples.");
  py::array_t<double> y = newarray(out.size());
  std::memcpy(y.mutable_data(), out.data(), out.size() * sizeof(double));
  return py::make_tuple(y, clipped);
}

// The whole analysis of a 16 kHz recording, as kestrelana does it.
py::tuple analyse(Array x, uint32_t lframe, uint32_t order, double alpha, uint8_t method, double f0min,
                  double f0max, bool refine, bool htsscale, bool withfv, const std::string &name,
                  uint8_t pitch, uint32_t threads, uint32_t match) {
  const uint32_t n = count32(static_cast<size_t>(x.size()), name.c_str());
  if (n > kMaxAnalysisSamples)
    fail(fmt("%s is too long (%u samples; the limit is %llu).", name.c_str(), static_cast<unsigned>(n),
             static_cast<unsigned long long>(kMaxAnalysisSamples)));
  const double *px = x.data();
  kestrel_driver::AnalyserSettings s;
  s.lframe = lframe;
  s.order = order;
  s.alpha = alpha;
  s.method = method;
  s.f0min = f0min;
  s.f0max = f0max;
  s.refine = refine;
  s.matchpasses = match;
  s.htsscale = htsscale;
  s.crosscorrelation = pitch == 1;
  s.threads = threads;
  kestrel_driver::Analysis a;
  kestrel_driver::AnalysisStatus status;
  double peak = 0.0;
  {
    py::gil_scoped_release release;
    for (uint32_t i = 0; i < n; ++i) peak = std::fmax(peak, std::fabs(px[i]));
    status = peak < kSilencePeak ? kestrel_driver::AnalysisStatus::ok
                                 : kestrel_driver::analyserecording(px, n, s, withfv, &a);
  }
  if (peak < kSilencePeak) fail(name + " is silent (no sample reaches one 16-bit step).");
  switch (status) {
    case kestrel_driver::AnalysisStatus::ok:
      break;
    case kestrel_driver::AnalysisStatus::tooshort:
      fail(fmt("%s is too short (%u samples at 16 kHz; one frame needs %u).", name.c_str(),
               static_cast<unsigned>(n), static_cast<unsigned>(lframe + 1u)));
    case kestrel_driver::AnalysisStatus::toomanyvalues:
      fail(fmt("%s gives too many cepstral values (%llu; the limit is %llu): raise shift or lower order.",
               name.c_str(), static_cast<unsigned long long>(order + 1ull) * kestrel_driver::countframes(n, lframe),
               static_cast<unsigned long long>(kestrel_driver::kMaxCepstralValues)));
    case kestrel_driver::AnalysisStatus::cepstrumfailed:
      fail("cepstral analysis of " + name + " failed.");
    case kestrel_driver::AnalysisStatus::notfinite:
      fail("analysis of " + name + " gave values that are not finite numbers.");
  }
  py::array_t<double> lf0 = newarray(a.nframes), cc = newmatrix(a.nframes, order + 1u);
  std::memcpy(lf0.mutable_data(), a.logf0.data(), a.logf0.size() * sizeof(double));
  std::memcpy(cc.mutable_data(), a.cc.data(), a.cc.size() * sizeof(double));
  py::object fv = py::none();
  if (withfv) {
    py::array_t<double> v = newarray(a.nframes);
    std::memcpy(v.mutable_data(), a.fv.data(), a.fv.size() * sizeof(double));
    fv = v;
  }
  return py::make_tuple(lf0, cc, fv);
}

// The decoder of kestrelsyn on arrays. Returns (samples as float64, or as the
// int16 values kestrelsyn writes; whether the enhancement filters were
// dropped for this alpha; whether any sample was not finite).
py::tuple synthesise(Array logf0, Array cc, py::object fvobj, int32_t lframe, double alpha, double fpitch,
                     double fvpitch, double fdur, double fwarp, double floud, double fpfilt, double fdrc,
                     int32_t htsscale, int32_t wavnorm, bool asint16) {
  const uint32_t nframes = count32(static_cast<size_t>(logf0.size()), "lf0");
  if (cc.ndim() != 2 || static_cast<size_t>(cc.shape(0)) != nframes)
    fail("lf0 and cc have incompatible dimensions.");
  const uint32_t order = count32(static_cast<size_t>(cc.shape(1)), "cc") - 1u;
  Array fv;
  if (!fvobj.is_none()) {
    fv = fvobj.cast<Array>();
    if (static_cast<size_t>(fv.size()) != nframes) fail("lf0 and fv have incompatible dimensions.");
  }
  kestrel_driver::DecoderSettings s;
  s.lframe = lframe;
  s.alpha = alpha;
  s.fpitch = fpitch;
  s.fvpitch = fvpitch;
  s.fdur = fdur;
  s.fwarp = fwarp;
  s.floud = floud;
  s.fpfilt = fpfilt;
  s.fdrc = fdrc;
  s.wavnorm = wavnorm;
  s.htsscale = htsscale;
  bool alphadropped = false;
  if (!kestrel_driver::settledecoder(&s, &alphadropped))
    fail(fmt("frame shift of %u samples out of range (1 to %u).", static_cast<unsigned>(s.shift),
             static_cast<unsigned>(kestrel_driver::kMaxFrameShift)));
  const uint64_t needed = kestrel_driver::decodedlength(s, nframes);
  if (needed > kestrel_driver::kMaxOutputSamples)
    fail(fmt("lf0 would need %llu output samples (limit %llu).", static_cast<unsigned long long>(needed),
             static_cast<unsigned long long>(kestrel_driver::kMaxOutputSamples)));
  const uint32_t nsamples = static_cast<uint32_t>(needed);
  py::array out = asint16 ? py::array(py::array_t<int16_t>(nsamples)) : py::array(newarray(nsamples));
  const double *pf0 = logf0.data(), *pcc = cc.data(), *pfv = fvobj.is_none() ? nullptr : fv.data();
  void *pout = out.mutable_data();
  int status = 0;
  bool nonfinite = false;
  {
    py::gil_scoped_release release;
    // The decoder modifies its features in place: it gets copies.
    std::vector<double> f0copy(pf0, pf0 + nframes), cccopy(pcc, pcc + static_cast<size_t>(nframes) * (order + 1u));
    std::vector<double> wave;
    double *w = static_cast<double *>(pout);
    if (asint16) {
      wave.assign(nsamples, 0.0);
      w = wave.data();
    } else {
      std::fill(w, w + nsamples, 0.0);
    }
    status = kestrel_driver::decodeutterance(s, nframes, f0copy.data(), cccopy.data(), order, pfv, w, nsamples);
    if (status == 0) {
      for (uint32_t i = 0; i < nsamples && !nonfinite; ++i) nonfinite = !std::isfinite(w[i]);
      if (kestrel_driver::normaliseflag(s.wavnorm) == 1) wavampnormalize(w, nsamples);
      if (asint16) wavdouble2short(nsamples, w, static_cast<int16_t *>(pout));
    }
  }
  if (status != 0) fail("synthesis of lf0 needs more working memory than allowed (1 GiB).");
  return py::make_tuple(out, alphadropped, nonfinite);
}

// --- the library's routines on arrays ---------------------------------------

void checkrate(double fs) {
  if (!(fs > 0.0) || !std::isfinite(fs)) fail(fmt("fs=%g is not a usable sampling rate.", fs));
}

py::array_t<double> getpitch_(Array x, double fs, uint32_t shift, uint32_t first, uint32_t nframes, double f0min,
                              double f0max) {
  checkrate(fs);
  const uint32_t n = count32(static_cast<size_t>(x.size()), "x");
  py::array_t<double> f0 = newarray(nframes);
  const double *px = x.data();
  double *pf0 = f0.mutable_data();
  int status;
  {
    py::gil_scoped_release release;
    status = getpitch(px, n, fs, shift, first, nframes, f0min, f0max, pf0);
  }
  if (status != 0) fail("getpitch refused these settings (f0min too low or too high for this fs?).");
  return f0;
}

py::array_t<double> getfvoicing_(Array x, Array f0, double fs, uint32_t shift, uint32_t first) {
  checkrate(fs);
  const uint32_t n = count32(static_cast<size_t>(x.size()), "x");
  const uint32_t nframes = count32(static_cast<size_t>(f0.size()), "f0");
  py::array_t<double> fv = newarray(nframes);
  const double *px = x.data(), *pf0 = f0.data();
  double *pfv = fv.mutable_data();
  int status;
  {
    py::gil_scoped_release release;
    status = getfvoicing(px, n, fs, shift, first, nframes, pf0, pfv);
  }
  if (status != 0) fail("getfvoicing refused these settings.");
  return fv;
}

py::array_t<double> waveform2cc_(Array x, Array f0, double fs, uint32_t shift, uint32_t first, uint32_t order,
                                 double alpha, uint8_t method) {
  checkrate(fs);
  const uint32_t n = count32(static_cast<size_t>(x.size()), "x");
  const uint32_t nframes = count32(static_cast<size_t>(f0.size()), "f0");
  count32(static_cast<size_t>(nframes) * (order + 1u), "cc");
  py::array_t<double> cc = newmatrix(nframes, order + 1u);
  const double *px = x.data(), *pf0 = f0.data();
  double *pcc = cc.mutable_data();
  int status;
  {
    py::gil_scoped_release release;
    status = waveform2cc(px, n, fs, shift, first, nframes, pf0, order, pcc, alpha, method);
  }
  if (status != 0) fail("cepstral analysis failed.");
  return cc;
}

py::array_t<double> cc2waveform_(Array f0, Array cc, py::object fvobj, double fs, uint32_t shift, double alpha,
                                 uint32_t length) {
  checkrate(fs);
  const uint32_t nframes = count32(static_cast<size_t>(f0.size()), "f0");
  if (cc.ndim() != 2 || static_cast<size_t>(cc.shape(0)) != nframes)
    fail("f0 and cc have incompatible dimensions.");
  const uint32_t order = count32(static_cast<size_t>(cc.shape(1)), "cc") - 1u;
  Array fv;
  if (!fvobj.is_none()) {
    fv = fvobj.cast<Array>();
    if (static_cast<size_t>(fv.size()) != nframes) fail("f0 and fv have incompatible dimensions.");
  }
  py::array_t<double> y = newarray(length);
  const double *pf0 = f0.data(), *pcc = cc.data(), *pfv = fvobj.is_none() ? nullptr : fv.data();
  double *py_ = y.mutable_data();
  int status;
  {
    py::gil_scoped_release release;
    std::vector<double> cccopy(pcc, pcc + static_cast<size_t>(nframes) * (order + 1u));
    std::fill(py_, py_ + length, 0.0);
    status = cc2waveform(py_, length, fs, shift, nframes, pf0, pfv, order, cccopy.data(), alpha);
  }
  if (status != 0) fail("synthesis needs more working memory than allowed (1 GiB).");
  return y;
}

// A streaming synthesis: the library's stream, frames in and samples out.
class Stream {
 public:
  Stream(double fs, uint32_t shift, uint32_t order, double alpha, double f0min, bool hasfv, double c0min,
         double c0max, uint32_t threads)
      : order_(order), hasfv_(hasfv) {
    checkrate(fs);
    if (shift == 0) fail("shift must be at least 1.");
    st_ = ccstreamopen(fs, shift, order, alpha, f0min, hasfv ? 1 : 0, c0min, c0max, threads);
    if (!st_) fail("synthesis needs more working memory than allowed (1 GiB).");
  }
  ~Stream() { ccstreamclose(st_); }
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  // Pushes frames and returns the samples that became final.
  py::array_t<double> push(Array f0, Array cc, py::object fvobj) {
    const uint32_t n = count32(static_cast<size_t>(f0.size()), "f0");
    if (cc.ndim() != 2 || static_cast<size_t>(cc.shape(0)) != n || static_cast<size_t>(cc.shape(1)) != order_ + 1u)
      fail("f0 and cc have incompatible dimensions.");
    Array fv;
    if (hasfv_) {
      if (fvobj.is_none()) fail("this stream was opened with an fv track: give fv.");
      fv = fvobj.cast<Array>();
      if (static_cast<size_t>(fv.size()) != n) fail("f0 and fv have incompatible dimensions.");
    }
    std::vector<double> cccopy(cc.data(), cc.data() + static_cast<size_t>(n) * (order_ + 1u));
    int status;
    {
      py::gil_scoped_release release;
      status = ccstreampush(st_, n, f0.data(), hasfv_ ? fv.data() : nullptr, cccopy.data());
    }
    if (status != 0) fail("the stream is finished, or out of memory.");
    return pullall();
  }
  // Ends the stream and returns the remaining samples.
  py::array_t<double> finish() {
    ccstreamfinish(st_);
    return pullall();
  }

 private:
  py::array_t<double> pullall() {
    std::vector<double> out;
    {
      py::gil_scoped_release release;
      std::vector<double> buf(65536);
      for (uint32_t got; (got = ccstreampull(st_, buf.data(), 65536)) > 0;)
        out.insert(out.end(), buf.begin(), buf.begin() + got);
    }
    py::array_t<double> y = newarray(static_cast<uint32_t>(out.size()));
    std::copy(out.begin(), out.end(), y.mutable_data());
    return y;
  }
  CCSTREAM *st_ = nullptr;
  uint32_t order_;
  bool hasfv_;
};

// The utterance-wide values a stream needs: (lowest f0, c0 min, c0 max).
py::tuple streamprescan(Array f0, Array cc, bool hasfv) {
  const uint32_t n = count32(static_cast<size_t>(f0.size()), "f0");
  if (cc.ndim() != 2 || static_cast<size_t>(cc.shape(0)) != n) fail("f0 and cc have incompatible dimensions.");
  const uint32_t order = count32(static_cast<size_t>(cc.shape(1)), "cc") - 1u;
  double f0min, c0min, c0max;
  ccstreamprescan(n, f0.data(), cc.data(), order, hasfv ? 1 : 0, &f0min, &c0min, &c0max);
  return py::make_tuple(f0min, c0min, c0max);
}

}  // namespace

PYBIND11_MODULE(_kestrel, m) {
  py::class_<Stream>(m, "Stream")
      .def(py::init<double, uint32_t, uint32_t, double, double, bool, double, double, uint32_t>(), py::arg("fs"),
           py::arg("shift"), py::arg("order"), py::arg("alpha"), py::arg("f0min"), py::arg("hasfv"),
           py::arg("c0min"), py::arg("c0max"), py::arg("threads"))
      .def("push", &Stream::push, py::arg("f0"), py::arg("cc"), py::arg("fv") = py::none())
      .def("finish", &Stream::finish);
  m.def("streamprescan", &streamprescan, py::arg("f0"), py::arg("cc"), py::arg("hasfv"));
  m.doc() = "Binding of the Kestrel library; use the kestrel package instead.";
  m.def("to16k", &to16k, py::arg("x"), py::arg("fs"), py::arg("name"));
  m.def("analyse", &analyse, py::arg("x"), py::arg("lframe"), py::arg("order"), py::arg("alpha"),
        py::arg("method"), py::arg("f0min"), py::arg("f0max"), py::arg("refine"), py::arg("htsscale"),
        py::arg("withfv"), py::arg("name"), py::arg("pitch") = 1, py::arg("threads") = 1,
        py::arg("match") = 0);
  m.def("synthesise", &synthesise, py::arg("logf0"), py::arg("cc"), py::arg("fv"), py::arg("lframe"),
        py::arg("alpha"), py::arg("fpitch"), py::arg("fvpitch"), py::arg("fdur"), py::arg("fwarp"),
        py::arg("floud"), py::arg("fpfilt"), py::arg("fdrc"), py::arg("htsscale"), py::arg("wavnorm"),
        py::arg("asint16"));
  m.def("countframes", [](uint64_t n, uint64_t shift) { return kestrel_driver::countframes(n, shift); });
  m.def("getpitch", &getpitch_);
  m.def("getfvoicing", &getfvoicing_);
  m.def("waveform2cc", &waveform2cc_);
  m.def("cc2waveform", &cc2waveform_);
  m.def("logf02f0", [](Array lf0) {
    const uint32_t n = count32(static_cast<size_t>(lf0.size()), "lf0");
    py::array_t<double> f0 = newarray(n);
    const double *in = lf0.data();
    double *out = f0.mutable_data();
    {
      py::gil_scoped_release release;
      std::memcpy(out, in, n * sizeof(double));
      logf02f0(n, out);
    }
    return f0;
  });
}
