// kestrelana end to end: the built analysis command, alone and followed by
// kestrelsyn (copy synthesis), on a bundled recording and on signals written
// by the tests (16 kHz PCM, other rates, stereo, 24-bit and float WAVs).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "wavm1616io.h"

#ifdef KESTRELANA_PATH

namespace {

namespace fs = std::filesystem;

constexpr double kPi = 3.141592653589793;
constexpr uint32_t kShift = 80;

// --- running the programs ----------------------------------------------------

struct Result {
  int status = -1;
  std::string out;
  std::vector<std::string> lines;
};

std::string quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

Result runcommand(const std::string &program, const std::vector<std::string> &args) {
  std::string cmd = quote(program);
  for (const auto &a : args) cmd += " " + quote(a);
  cmd += " 2>&1";
  Result r;
  FILE *p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t got;
  while ((got = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, got);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  size_t start = 0;
  while (start < r.out.size()) {
    size_t end = r.out.find('\n', start);
    if (end == std::string::npos) end = r.out.size();
    r.lines.push_back(r.out.substr(start, end - start));
    start = end + 1;
  }
  return r;
}

Result ana(const std::vector<std::string> &args) { return runcommand(KESTRELANA_PATH, args); }
Result syn(const std::vector<std::string> &args) { return runcommand(KESTRELSYN_PATH, args); }

bool contains(const std::string &s, const std::string &part) { return s.find(part) != std::string::npos; }

// --- files --------------------------------------------------------------------

// A fresh directory per test, so that tests can run in parallel.
std::string freshdir() {
  const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string dir = std::string(KESTREL_BINARY_DIR) + "/cli_kestrelana/" + info->name();
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

std::set<std::string> listdir(const std::string &dir) {
  std::set<std::string> names;
  for (const auto &e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

std::vector<float> readfloats(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  std::vector<float> v(bytes.size() / 4);
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * 4);
  return v;
}

std::vector<double> readwav(const std::string &path) {
  double *x = nullptr;
  const uint32_t n = wavreadm1616(path.c_str(), &x);
  std::vector<double> v(x, x + n);
  std::free(x);
  return v;
}

void writebytes(const std::string &path, const std::vector<unsigned char> &b) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(b.data()),
                                              static_cast<std::streamsize>(b.size()));
}

void put16(std::vector<unsigned char> *b, uint32_t v) {
  b->push_back(static_cast<unsigned char>(v & 0xFF));
  b->push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}
void put32(std::vector<unsigned char> *b, uint32_t v) {
  for (int k = 0; k < 4; ++k) b->push_back(static_cast<unsigned char>((v >> (8 * k)) & 0xFF));
}
void puttag(std::vector<unsigned char> *b, const char *tag) { b->insert(b->end(), tag, tag + 4); }

enum class Sample { Pcm8, Pcm16, Pcm24, Float32 };

// A WAV file written by hand: format code 1 (PCM) or 3 (float), interleaved
// frames of `channels` values, an optional LIST chunk before "data", and a
// data size that may claim more than is written (the file is then extended
// to that size, sparsely).
struct WavLayout {
  uint32_t rate = 16000;
  uint32_t channels = 1;
  Sample sample = Sample::Pcm16;
  bool listchunk = false;
  uint64_t claimedframes = 0;  // 0: the frames given
};

void writewav(const std::string &path, const WavLayout &layout, const std::vector<double> &interleaved) {
  const uint32_t bytes = layout.sample == Sample::Pcm8 ? 1 : layout.sample == Sample::Pcm16 ? 2
                         : layout.sample == Sample::Pcm24 ? 3 : 4;
  const uint64_t frames = layout.claimedframes ? layout.claimedframes : interleaved.size() / layout.channels;
  const uint32_t datasize = static_cast<uint32_t>(frames * layout.channels * bytes);
  std::vector<unsigned char> b;
  puttag(&b, "RIFF");
  put32(&b, 36 + datasize + (layout.listchunk ? 12 : 0));
  puttag(&b, "WAVE");
  puttag(&b, "fmt ");
  put32(&b, 16);
  put16(&b, layout.sample == Sample::Float32 ? 3 : 1);
  put16(&b, layout.channels);
  put32(&b, layout.rate);
  put32(&b, layout.rate * layout.channels * bytes);
  put16(&b, layout.channels * bytes);
  put16(&b, bytes * 8);
  if (layout.listchunk) {
    puttag(&b, "LIST");
    put32(&b, 4);
    puttag(&b, "INFO");
  }
  puttag(&b, "data");
  put32(&b, datasize);
  for (double v : interleaved) {
    switch (layout.sample) {
      case Sample::Pcm8:
        b.push_back(static_cast<unsigned char>(std::lround(std::max(-1.0, std::min(v, 127.0 / 128)) * 128) + 128));
        break;
      case Sample::Pcm16:
        put16(&b, static_cast<uint32_t>(static_cast<int32_t>(std::lround(std::max(-1.0, std::min(v, 32767.0 / 32768)) * 32768))));
        break;
      case Sample::Pcm24: {
        const int32_t s = static_cast<int32_t>(std::lround(std::max(-1.0, std::min(v, 8388607.0 / 8388608)) * 8388608));
        const auto u = static_cast<uint32_t>(s);
        b.push_back(static_cast<unsigned char>(u & 0xFF));
        b.push_back(static_cast<unsigned char>((u >> 8) & 0xFF));
        b.push_back(static_cast<unsigned char>((u >> 16) & 0xFF));
        break;
      }
      case Sample::Float32: {
        const float f = static_cast<float>(v);
        uint32_t u;
        std::memcpy(&u, &f, 4);
        put32(&b, u);
        break;
      }
    }
  }
  writebytes(path, b);
  if (layout.claimedframes) fs::resize_file(path, b.size() - interleaved.size() * bytes + datasize);
}

// 16 kHz mono 16-bit through the library's writer (the exact reading path).
void writewav16k(const std::string &path, std::vector<double> x) {
  ASSERT_EQ(wavwritem1616(path.c_str(), x.data(), static_cast<uint32_t>(x.size()), 0, 1), x.size());
}

// --- signals --------------------------------------------------------------------

// Harmonics of f0 below fmax (0: 0.45 fs) with 1/k amplitudes and fixed
// phases, scaled to the given peak amplitude, 10 ms fades at both ends.
std::vector<double> harmonicsignal(double f0, double fs, double seconds, double peak, double fmax = 0.0) {
  if (fmax <= 0.0) fmax = 0.45 * fs;
  const size_t n = static_cast<size_t>(std::lround(seconds * fs));
  std::vector<double> x(n, 0.0);
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / fs;
    double v = 0.0;
    for (int k = 1; k * f0 < fmax; ++k) v += std::sin(2 * kPi * k * f0 * t + 0.7 * k) / k;
    x[i] = v;
  }
  double m = 0.0;
  for (double v : x) m = std::max(m, std::fabs(v));
  const size_t fade = static_cast<size_t>(0.01 * fs);
  for (size_t i = 0; i < n; ++i) {
    double g = peak / m;
    if (i < fade) g *= static_cast<double>(i) / fade;
    if (n - 1 - i < fade) g *= static_cast<double>(n - 1 - i) / fade;
    x[i] *= g;
  }
  return x;
}

// Tone bursts (harmonic, 180 Hz) of uneven lengths separated by very quiet
// noise: an energy envelope with sharp, irregular edges.
std::vector<double> burstsignal(double fs) {
  const double edges[][2] = {{0.10, 0.35}, {0.48, 0.56}, {0.80, 1.22}, {1.30, 1.45}};
  std::vector<double> tone = harmonicsignal(180.0, fs, 1.6, 0.5);
  std::vector<double> x(tone.size());
  uint32_t seed = 12345;
  for (size_t i = 0; i < x.size(); ++i) {
    seed = seed * 1664525u + 1013904223u;
    x[i] = 1e-3 * (static_cast<double>(seed >> 8) / 16777216.0 - 0.5);
    const double t = static_cast<double>(i) / fs;
    for (const auto &e : edges)
      if (t >= e[0] && t < e[1]) x[i] += tone[i];
  }
  return x;
}

double rms(const std::vector<double> &x) {
  double s = 0.0;
  for (double v : x) s += v * v;
  return std::sqrt(s / static_cast<double>(x.size()));
}

// Energy envelope in dB (floor 80 dB below the peak) over `win` samples every
// `hop` samples.
std::vector<double> envelope(const std::vector<double> &x, size_t win, size_t hop, size_t n) {
  std::vector<double> e;
  for (size_t s = 0; s + win <= n; s += hop) {
    double acc = 1e-20;
    for (size_t i = s; i < s + win; ++i) acc += x[i] * x[i];
    e.push_back(10.0 * std::log10(acc));
  }
  const double top = *std::max_element(e.begin(), e.end());
  for (double &v : e) v = std::max(v, top - 80.0) - top;
  return e;
}

// Lag (in envelope steps; positive: b is late) of the cross-correlation peak of
// two mean-removed envelopes, searched over +-maxlag.
int envelopelag(std::vector<double> a, std::vector<double> b, int maxlag) {
  const size_t n = std::min(a.size(), b.size());
  a.resize(n);
  b.resize(n);
  for (auto *v : {&a, &b}) {
    double m = 0.0;
    for (double d : *v) m += d;
    m /= static_cast<double>(n);
    for (double &d : *v) d -= m;
  }
  int best = 0;
  double bestr = -1e300;
  for (int lag = -maxlag; lag <= maxlag; ++lag) {
    double r = 0.0;
    size_t cnt = 0;
    for (size_t i = 0; i < n; ++i) {
      const long j = static_cast<long>(i) + lag;
      if (j < 0 || j >= static_cast<long>(n)) continue;
      r += a[i] * b[static_cast<size_t>(j)];
      ++cnt;
    }
    r /= static_cast<double>(cnt);
    if (r > bestr) {
      bestr = r;
      best = lag;
    }
  }
  return best;
}

// Frame count of a recording of n samples: the smallest count >= 1 whose
// resynthesis, (count + 1)*shift + 1 samples, is not shorter than n.
uint32_t expectedframes(uint64_t n, uint64_t shift) {
  uint64_t k = 1;
  while ((k + 1) * shift + 1 < n) ++k;
  return static_cast<uint32_t>(k);
}

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Hz of the voiced frames of a log-f0 file.
std::vector<double> voicedhz(const std::vector<float> &lf0) {
  std::vector<double> hz;
  for (float v : lf0)
    if (v > -1e10f) hz.push_back(std::exp(static_cast<double>(v)));
  return hz;
}

// Spectral centroid (Hz) of a whole 16 kHz signal, from 512-point frames.
double centroid(const std::vector<double> &x) {
  const size_t N = 512;
  std::vector<double> power(N / 2 + 1, 0.0);
  for (size_t s = 0; s + N <= x.size(); s += N / 2)
    for (size_t k = 0; k <= N / 2; ++k) {
      double re = 0.0, im = 0.0;
      for (size_t i = 0; i < N; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * kPi * i / N);
        re += w * x[s + i] * std::cos(2 * kPi * k * i / N);
        im -= w * x[s + i] * std::sin(2 * kPi * k * i / N);
      }
      power[k] += re * re + im * im;
    }
  double num = 0.0, den = 0.0;
  for (size_t k = 0; k <= N / 2; ++k) {
    num += power[k] * k * 16000.0 / N;
    den += power[k];
  }
  return num / den;
}

const std::string kRecording = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/f_vctk_p225_001.wav";

// --- tests ----------------------------------------------------------------------

TEST(KestrelanaCli, HelpTextListsEveryOptionInAnAlignedTable) {
  const Result r = ana({});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(contains(r.out, "=== KESTRELANA16 v0.99 ==="));
  EXPECT_TRUE(contains(r.out, "kestrelana filewav filef0 filecc [filefv] [params]"));
  const char *options[] = {"--lframe=80 ", "--order=39 ", "--alpha=0.42 ", "--method=0 ", "--f0min=60 ",
                           "--f0max=500 ", "--refine=0 ", "--htsscale=1 ", "--indlist= "};
  size_t column = 0;
  for (const char *opt : options) {
    bool found = false;
    for (const auto &line : r.lines) {
      if (line.rfind(std::string("   ") + opt, 0) != 0) continue;
      found = true;
      const size_t text = line.find_first_not_of(' ', 3 + std::strlen(opt));
      if (column == 0) column = text;
      EXPECT_EQ(text, column) << line;
      EXPECT_TRUE(contains(line, "[")) << "no range in: " << line;
    }
    EXPECT_TRUE(found) << opt;
  }
}

TEST(KestrelanaCli, ArgumentErrorsEndTheRunWithStatus255) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/in.wav", f0 = dir + "/o.lf0", cc = dir + "/o.cc";
  writewav16k(wav, harmonicsignal(150.0, 16000.0, 0.3, 0.5));
  const std::string usage = "Error: incorrect input arguments.";
  struct Case {
    std::vector<std::string> args;
    std::string first;  // expected first output line (prefix)
  } cases[] = {
      {{"a"}, usage},
      {{"a", "b"}, usage},
      {{wav, f0, "--order=20"}, usage},
      {{wav, f0, cc, dir + "/o.fv", dir + "/extra"}, usage},
      {{wav, f0, cc, "--order=x"}, usage},
      {{wav, f0, cc, "--order=20", "--order=30"}, usage},
      {{wav, f0, cc, "--bogus=1"}, usage},
      {{wav, f0, cc, "--order=20", dir + "/stray"}, usage},
      {{wav, f0, cc, "--indlist=3-1"}, "Error: bad formatted indlist."},
      {{wav, f0, cc, "--indlist=1,,2"}, "Error: bad formatted indlist."},
      {{wav, f0, cc, "--lframe=0"}, "Error: --lframe=0 is out of range"},
      {{wav, f0, cc, "--lframe=8001"}, "Error: --lframe=8001 is out of range"},
      {{wav, f0, cc, "--order=-1"}, "Error: --order=-1 is out of range"},
      {{wav, f0, cc, "--order=256"}, "Error: --order=256 is out of range"},
      {{wav, f0, cc, "--alpha=0.995"}, "Error: --alpha=0.995 is out of range"},
      {{wav, f0, cc, "--alpha=-1"}, "Error: --alpha=-1 is out of range"},
      {{wav, f0, cc, "--alpha=nan"}, "Error: --alpha=nan is out of range"},
      {{wav, f0, cc, "--method=5"}, "Error: --method=5 is out of range"},
      {{wav, f0, cc, "--method=-1"}, "Error: --method=-1 is out of range"},
      {{wav, f0, cc, "--f0min=19.9"}, "Error: --f0min=19.9 is out of range"},
      {{wav, f0, cc, "--f0min=1001"}, "Error: --f0min=1001 is out of range"},
      {{wav, f0, cc, "--f0max=39"}, "Error: --f0max=39 is out of range"},
      {{wav, f0, cc, "--f0max=2000.5"}, "Error: --f0max=2000.5 is out of range"},
      {{wav, f0, cc, "--f0min=300", "--f0max=300"}, "Error: --f0max=300 must be above --f0min=300."},
      {{wav, f0, cc, "--refine=2"}, "Error: --refine=2 is out of range"},
      {{wav, f0, cc, "--htsscale=-1"}, "Error: --htsscale=-1 is out of range"},
      {{wav, f0, cc, "--htsscale=2"}, "Error: --htsscale=2 is out of range"},
  };
  for (const auto &c : cases) {
    std::string shown;
    for (const auto &a : c.args) shown += a + " ";
    const Result r = ana(c.args);
    EXPECT_EQ(r.status, 255) << shown;
    ASSERT_FALSE(r.lines.empty()) << shown;
    EXPECT_EQ(r.lines[0].rfind(c.first, 0), 0u) << shown << "\n" << r.out;
    if (c.first == usage) {
      EXPECT_TRUE(contains(r.out, "Type 'kestrelana' for help.")) << shown;
    }
  }
  EXPECT_EQ(listdir(dir), std::set<std::string>{"in.wav"});
}

TEST(KestrelanaCli, OptionsAtTheirLimitsAreAccepted) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/in.wav", f0 = dir + "/o.lf0", cc = dir + "/o.cc";
  const std::vector<double> x = harmonicsignal(150.0, 16000.0, 0.6, 0.5);
  writewav16k(wav, x);
  struct Case {
    std::vector<std::string> opts;
    uint32_t shift, order;
  } cases[] = {
      {{"--order=0"}, 80, 0},       {{"--ORDER=255"}, 80, 255},  {{"--lframe=8000"}, 8000, 39},
      {{"--lframe=7"}, 7, 39},      {{"--alpha=0.99"}, 80, 39},  {{"--alpha=-0.99", "--method=4"}, 80, 39},
      {{"--f0min=20", "--f0max=2000", "--refine=1"}, 80, 39},    {{"--htsscale=0", "--method=3"}, 80, 39},
      {{"--f0min=999", "--f0max=1000", "--method=2"}, 80, 39},   {{"--method=1", "--order=24"}, 80, 24},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {wav, f0, cc};
    args.insert(args.end(), c.opts.begin(), c.opts.end());
    const Result r = ana(args);
    EXPECT_EQ(r.status, 0) << c.opts[0];
    EXPECT_EQ(r.out, "") << c.opts[0];
    const uint32_t nframes = expectedframes(x.size(), c.shift);
    EXPECT_EQ(readfloats(f0).size(), nframes) << c.opts[0];
    EXPECT_EQ(readfloats(cc).size(), static_cast<size_t>(nframes) * (c.order + 1)) << c.opts[0];
    for (float v : readfloats(cc)) ASSERT_TRUE(std::isfinite(v)) << c.opts[0];
  }
}

TEST(KestrelanaCli, CopySynthesisOfARecordingKeepsLengthAlignmentAndLevel) {
  const std::string dir = freshdir();
  const std::string f0 = dir + "/r.lf0", cc = dir + "/r.cc", fv = dir + "/r.fv", out = dir + "/r.wav";
  const std::vector<double> x = readwav(kRecording);
  ASSERT_GT(x.size(), 16000u);

  Result r = ana({kRecording, f0, cc, fv});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "");
  const uint32_t nframes = expectedframes(x.size(), kShift);
  const std::vector<float> lf0 = readfloats(f0), c = readfloats(cc), v = readfloats(fv);
  ASSERT_EQ(lf0.size(), nframes);
  ASSERT_EQ(c.size(), 40u * nframes);
  ASSERT_EQ(v.size(), nframes);
  size_t voiced = 0;
  for (size_t k = 0; k < nframes; ++k) {
    if (lf0[k] == -1e10f) continue;
    ++voiced;
    EXPECT_GE(lf0[k], std::log(60.0) - 1e-3) << k;
    EXPECT_LE(lf0[k], std::log(500.0) + 1e-3) << k;
  }
  EXPECT_GT(voiced, nframes / 5);
  EXPECT_LT(voiced, nframes * 9 / 10);
  for (float f : v) {
    EXPECT_GE(f, 0.0f);
    EXPECT_LE(f, 8000.0f);
  }
  // A female speaker: median f0 well inside 140..260 Hz.
  const double med = median(voicedhz(lf0));
  EXPECT_GT(med, 140.0);
  EXPECT_LT(med, 260.0);

  r = syn({f0, cc, fv, out});
  ASSERT_EQ(r.status, 0) << r.out;
  const std::vector<double> y = readwav(out);
  ASSERT_GE(y.size(), x.size());
  EXPECT_LT(y.size() - x.size(), kShift);
  EXPECT_EQ(y.size(), (nframes + 1u) * kShift + 1u);

  const double db = 20.0 * std::log10(rms(y) / rms(x));
  EXPECT_LT(std::fabs(db), 3.0) << db << " dB";
  // Envelopes of 20 ms every 10 samples: the peak must lie within one frame.
  const int lag = envelopelag(envelope(x, 320, 10, x.size()), envelope(y, 320, 10, x.size()), 40);
  EXPECT_LE(std::abs(lag), 8) << lag * 10 << " samples";

  // Positive fwarp lowers the synthesis alpha, which moves the envelope up in
  // frequency (a shorter vocal tract); negative fwarp moves it down.
  const std::string up = dir + "/up.wav", down = dir + "/down.wav";
  ASSERT_EQ(syn({f0, cc, fv, up, "--fwarp=0.1"}).status, 0);
  ASSERT_EQ(syn({f0, cc, fv, down, "--fwarp=-0.1"}).status, 0);
  const double cplain = centroid(y), cup = centroid(readwav(up)), cdown = centroid(readwav(down));
  EXPECT_GT(cup, cplain * 1.03);
  EXPECT_LT(cdown, cplain / 1.03);
}

TEST(KestrelanaCli, FrameGridFollowsLframeAndResynthesisLength) {
  const std::string dir = freshdir();
  // Lengths around the frame boundaries of shift 100: (k + 1)*100 + 1 and one more.
  for (uint32_t n : {2201u, 2202u, 2300u, 2199u}) {
    const std::string wav = dir + "/in.wav", f0 = dir + "/o.lf0", cc = dir + "/o.cc", out = dir + "/o.wav";
    writewav16k(wav, harmonicsignal(200.0, 16000.0, n / 16000.0, 0.5));
    ASSERT_EQ(readwav(wav).size(), n);
    Result r = ana({wav, f0, cc, "--lframe=100", "--order=24"});
    ASSERT_EQ(r.status, 0) << r.out;
    const uint32_t nframes = expectedframes(n, 100);
    EXPECT_EQ(readfloats(f0).size(), nframes) << n;
    EXPECT_EQ(readfloats(cc).size(), 25u * nframes) << n;
    r = syn({f0, cc, out, "--lframe=100"});
    ASSERT_EQ(r.status, 0) << r.out;
    const size_t len = readwav(out).size();
    EXPECT_GE(len, n);
    EXPECT_LT(len - n, 100u) << n;
  }
  // Hand-worked: 2201 samples = (21 + 1)*100 + 1 -> 21 frames; 2202 -> 22; 2199 -> 21.
  EXPECT_EQ(expectedframes(2201, 100), 21u);
  EXPECT_EQ(expectedframes(2202, 100), 22u);
  EXPECT_EQ(expectedframes(2199, 100), 21u);
}

TEST(KestrelanaCli, HtsScalingIsUndoneByKestrelsynDefaults) {
  const std::string dir = freshdir();
  const std::string a0 = dir + "/a.lf0", acc = dir + "/a.cc", b0 = dir + "/b.lf0", bcc = dir + "/b.cc";
  ASSERT_EQ(ana({kRecording, a0, acc}).status, 0);
  ASSERT_EQ(ana({kRecording, b0, bcc, "--htsscale=0"}).status, 0);
  const std::vector<float> scaled = readfloats(acc), plain = readfloats(bcc);
  ASSERT_EQ(scaled.size(), plain.size());
  EXPECT_EQ(readfloats(a0), readfloats(b0));
  for (size_t i = 0; i < plain.size(); ++i) {
    if (i % 40 == 0)
      ASSERT_NEAR(scaled[i], plain[i] + 5.0f, 1e-5 * (1.0 + std::fabs(plain[i]))) << i;
    else
      ASSERT_EQ(scaled[i], 2.0f * plain[i]) << i;  // doubling is exact in float
  }
  // Default synthesis of the scaled cepstra == synthesis of the plain ones as read.
  const std::string wa = dir + "/a.wav", wb = dir + "/b.wav";
  ASSERT_EQ(syn({a0, acc, wa}).status, 0);
  ASSERT_EQ(syn({b0, bcc, wb, "--htsscale=0"}).status, 0);
  const std::vector<double> ya = readwav(wa), yb = readwav(wb);
  ASSERT_EQ(ya.size(), yb.size());
  double maxdiff = 0.0;
  for (size_t i = 0; i < ya.size(); ++i) maxdiff = std::max(maxdiff, std::fabs(ya[i] - yb[i]));
  EXPECT_LE(maxdiff, 4.0 / 32768.0);
}

TEST(KestrelanaCli, HarmonicSignalGivesItsPitch) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/h.wav", f0 = dir + "/h.lf0", cc = dir + "/h.cc", fv = dir + "/h.fv";
  const std::vector<double> x = harmonicsignal(150.0, 16000.0, 1.0, 0.5);
  writewav16k(wav, x);
  for (const char *refine : {"--refine=0", "--refine=1"}) {
    const Result r = ana({wav, f0, cc, fv, refine});
    ASSERT_EQ(r.status, 0) << r.out;
    const std::vector<float> lf0 = readfloats(f0), v = readfloats(fv);
    const std::vector<double> hz = voicedhz(lf0);
    EXPECT_GT(hz.size(), lf0.size() * 9 / 10) << refine;
    EXPECT_NEAR(median(hz), 150.0, 150.0 * 0.01) << refine;
    std::vector<double> fvvoiced;
    for (size_t k = 0; k < lf0.size(); ++k)
      if (lf0[k] > -1e10f) fvvoiced.push_back(v[k]);
    EXPECT_GE(median(fvvoiced), 1000.0) << refine;
  }
}

// Rates, channel counts and sample formats that go through libsndfile (and
// libsoxr when not at 16 kHz) give the features of the same signal read
// exactly at 16 kHz, with the channels averaged.
TEST(KestrelanaCli, OtherFormatsAreResampledAndMixedDown) {
  const std::string dir = freshdir();
  // Harmonics below 3.5 kHz only, so that every rate carries the same signal.
  const double seconds = 1.2, f = 200.0, peak = 0.4, fmax = 3500.0;
  const std::string ref = dir + "/ref.wav";
  writewav16k(ref, harmonicsignal(f, 16000.0, seconds, peak, fmax));
  ASSERT_EQ(ana({ref, dir + "/ref.lf0", dir + "/ref.cc"}).status, 0);
  const std::vector<float> reflf0 = readfloats(dir + "/ref.lf0");
  const size_t nref = reflf0.size();
  ASSERT_EQ(syn({dir + "/ref.lf0", dir + "/ref.cc", dir + "/ref.out.wav"}).status, 0);
  const double refrms = rms(readwav(dir + "/ref.out.wav"));
  const double refhz = median(voicedhz(reflf0));
  const std::vector<double> refenv = envelope(readwav(ref), 320, 10, readwav(ref).size());

  struct Case {
    const char *name;
    WavLayout layout;
    double left, right;  // gains of the first two channels (further ones silent)
    // dB: copy synthesis is not exactly level-invariant (about 0.1 dB at -12 dB),
    // and at 8 kHz nothing is left of the original's noise floor above 4 kHz.
    // Summing instead of averaging the channels would be 6 dB off or more.
    double leveltol;
  } cases[] = {
      {"44k1_stereo_left_only", {44100, 2, Sample::Pcm16}, 1.0, 0.0, 0.5},
      {"22k05_stereo_both", {22050, 2, Sample::Pcm16}, 1.0, 1.0, 0.5},
      {"48k_mono_24bit", {48000, 1, Sample::Pcm24}, 1.0, 0.0, 0.5},
      {"8k_mono_float", {8000, 1, Sample::Float32}, 1.0, 0.0, 1.0},
      {"16k_mono_float", {16000, 1, Sample::Float32}, 1.0, 0.0, 0.5},
      {"16k_3ch_24bit", {16000, 3, Sample::Pcm24}, 0.5, 0.25, 0.5},
  };
  for (const auto &c : cases) {
    const std::vector<double> s = harmonicsignal(f, c.layout.rate, seconds, peak, fmax);
    std::vector<double> inter;
    for (double v : s) {
      inter.push_back(c.left * v);
      for (uint32_t ch = 1; ch < c.layout.channels; ++ch) inter.push_back(ch == 1 ? c.right * v : 0.0);
    }
    const std::string base = dir + "/" + c.name, out = base + ".out.wav";
    writewav(base + ".wav", c.layout, inter);
    Result r = ana({base + ".wav", base + ".lf0", base + ".cc"});
    ASSERT_EQ(r.status, 0) << c.name << r.out;
    EXPECT_EQ(r.out, "") << c.name;
    const std::vector<float> lf0 = readfloats(base + ".lf0"), cc = readfloats(base + ".cc");
    EXPECT_LE(std::abs(static_cast<long>(lf0.size()) - static_cast<long>(nref)), 1) << c.name;
    ASSERT_EQ(cc.size(), lf0.size() * 40) << c.name;
    EXPECT_NEAR(median(voicedhz(lf0)), refhz, refhz * 0.005) << c.name;
    // Same timing as the 16 kHz original after resynthesis.
    r = syn({base + ".lf0", base + ".cc", out});
    ASSERT_EQ(r.status, 0) << c.name;
    const std::vector<double> y = readwav(out);
    const size_t n16 = static_cast<size_t>(std::lround(seconds * 16000));
    // The level of the 16 kHz original times the channel average.
    const double mixgain = (c.left + (c.layout.channels > 1 ? c.right : 0.0)) / c.layout.channels;
    EXPECT_NEAR(20.0 * std::log10(rms(y) / refrms), 20.0 * std::log10(mixgain), c.leveltol) << c.name;
    EXPECT_GE(y.size() + 1, n16) << c.name;
    EXPECT_LE(y.size(), n16 + kShift) << c.name;
    const int lag = envelopelag(refenv, envelope(y, 320, 10, std::min(y.size(), n16)), 40);
    EXPECT_LE(std::abs(lag), 8) << c.name << ": " << lag * 10 << " samples";
  }
}

TEST(KestrelanaCli, SixteenKilohertzFileWithExtraChunkGivesTheSameFeatures) {
  const std::string dir = freshdir();
  const std::vector<double> x = harmonicsignal(170.0, 16000.0, 0.8, 0.5);
  writewav16k(dir + "/plain.wav", x);
  WavLayout layout;
  layout.listchunk = true;
  writewav(dir + "/list.wav", layout, readwav(dir + "/plain.wav"));
  ASSERT_EQ(readwav(dir + "/list.wav").size(), 0u);  // the exact reader refuses it
  ASSERT_EQ(ana({dir + "/plain.wav", dir + "/p.lf0", dir + "/p.cc", dir + "/p.fv"}).status, 0);
  ASSERT_EQ(ana({dir + "/list.wav", dir + "/l.lf0", dir + "/l.cc", dir + "/l.fv"}).status, 0);
  EXPECT_EQ(readfloats(dir + "/p.lf0"), readfloats(dir + "/l.lf0"));
  EXPECT_EQ(readfloats(dir + "/p.cc"), readfloats(dir + "/l.cc"));
  EXPECT_EQ(readfloats(dir + "/p.fv"), readfloats(dir + "/l.fv"));
}

// Sharp, irregular energy edges land where they were, within half a frame,
// read exactly at 16 kHz or resampled from 44.1 kHz stereo.
TEST(KestrelanaCli, BurstsStayAlignedAfterCopySynthesis) {
  const std::string dir = freshdir();
  const std::vector<double> x = burstsignal(16000.0);
  writewav16k(dir + "/b16.wav", x);
  const std::vector<double> s44 = burstsignal(44100.0);
  std::vector<double> inter;
  for (double v : s44) inter.insert(inter.end(), {v, v});
  writewav(dir + "/b44.wav", WavLayout{44100, 2, Sample::Pcm16}, inter);
  const std::vector<double> ex = envelope(x, 160, 4, x.size());
  for (const char *name : {"b16", "b44"}) {
    const std::string base = dir + "/" + name;
    ASSERT_EQ(ana({base + ".wav", base + ".lf0", base + ".cc", base + ".fv"}).status, 0) << name;
    ASSERT_EQ(syn({base + ".lf0", base + ".cc", base + ".fv", base + ".out.wav"}).status, 0) << name;
    const std::vector<double> y = readwav(base + ".out.wav");
    ASSERT_GE(y.size(), x.size()) << name;
    const int lag = envelopelag(ex, envelope(y, 160, 4, x.size()), 60);
    EXPECT_LE(std::abs(lag), 10) << name << ": " << lag * 4 << " samples";
  }
}

TEST(KestrelanaCli, BatchGoesOnPastAMissingFile) {
  const std::string dir = freshdir();
  writewav16k(dir + "/utt001.wav", harmonicsignal(120.0, 16000.0, 0.5, 0.5));
  writewav16k(dir + "/utt003.wav", harmonicsignal(240.0, 16000.0, 0.7, 0.5));
  const Result r = ana({dir + "/utt???.wav", dir + "/utt???.lf0", dir + "/utt???.cc", dir + "/utt???.fv",
                     "--indlist=1-3"});
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> expected = {dir + "/utt001.cc", dir + "/utt002.cc",
                                             "Error: could not open " + dir + "/utt002.wav.", dir + "/utt003.cc"};
  EXPECT_EQ(r.lines, expected) << r.out;
  EXPECT_EQ(listdir(dir), (std::set<std::string>{"utt001.wav", "utt001.lf0", "utt001.cc", "utt001.fv",
                                                 "utt003.wav", "utt003.lf0", "utt003.cc", "utt003.fv"}));
  EXPECT_NEAR(median(voicedhz(readfloats(dir + "/utt001.lf0"))), 120.0, 2.0);
  EXPECT_NEAR(median(voicedhz(readfloats(dir + "/utt003.lf0"))), 240.0, 3.0);
  // kestrelsyn reads the batch back.
  const Result s = syn({dir + "/utt???.lf0", dir + "/utt???.cc", dir + "/utt???.fv", dir + "/syn???.wav",
                     "--indlist=1,3"});
  EXPECT_EQ(s.status, 0);
  EXPECT_EQ(readwav(dir + "/syn001.wav").size(), (expectedframes(8000, 80) + 1u) * 80u + 1u);
  EXPECT_EQ(readwav(dir + "/syn003.wav").size(), (expectedframes(11200, 80) + 1u) * 80u + 1u);

  // A placeholder too narrow for the index skips that utterance with an error
  // instead of analysing the previous index's file again.
  writewav16k(dir + "/n9.wav", harmonicsignal(150.0, 16000.0, 0.3, 0.5));
  writewav16k(dir + "/n10.wav", harmonicsignal(150.0, 16000.0, 0.3, 0.5));
  const Result narrow = ana({dir + "/n?.wav", dir + "/n?.lf0", dir + "/n?.cc", "--indlist=9-10"});
  EXPECT_EQ(narrow.status, 0);
  const std::vector<std::string> narrowlines = {
      dir + "/n9.cc", dir + "/n9.cc", "Error: index 10 does not fit the file-name placeholder of " + dir + "/n9.wav."};
  EXPECT_EQ(narrow.lines, narrowlines) << narrow.out;
}

// Every bad input ends its utterance with one "Error: " line, leaves nothing
// behind, and does not change the exit status.
TEST(KestrelanaCli, BadInputsEndTheUtteranceCleanly) {
  const std::string dir = freshdir();
  const std::string in = dir + "/in";
  fs::create_directories(in);
  std::vector<double> nanwave = harmonicsignal(150.0, 16000.0, 0.3, 0.5);
  nanwave[1000] = std::nan("");
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"missing.wav", "Error: could not open " + in + "/missing.wav."},
      {"empty.wav", "Error: " + in + "/empty.wav is empty."},
      {"text.wav", "Error: " + in + "/text.wav is not an audio file that can be read ("},
      {"zero16k.wav", "Error: " + in + "/zero16k.wav holds no samples."},
      {"zero44k.wav", "Error: " + in + "/zero44k.wav holds no samples."},
      {"silent16k.wav", "Error: " + in + "/silent16k.wav is silent"},
      {"silent44k.wav", "Error: " + in + "/silent44k.wav is silent"},
      {"short.wav", "Error: " + in + "/short.wav is too short (80 samples at 16 kHz; one frame needs 81)."},
      {"dir.wav", "Error: could not open " + in + "/dir.wav (not a regular file)."},
      {"long16k.wav", "Error: " + in + "/long16k.wav is too long"},
      {"long8k.wav", "Error: " + in + "/long8k.wav is too long"},
      {"nan.wav", "Error: " + in + "/nan.wav holds samples that are not finite numbers."},
  };
  writebytes(in + "/empty.wav", {});
  {
    std::ofstream(in + "/text.wav") << "This is not audio at all, just some words.\n";
  }
  writewav(in + "/zero16k.wav", WavLayout{}, {});
  writewav(in + "/zero44k.wav", WavLayout{44100, 2, Sample::Pcm16}, {});
  writewav16k(in + "/silent16k.wav", std::vector<double>(16000, 0.0));
  writewav(in + "/silent44k.wav", WavLayout{44100, 2, Sample::Pcm16}, std::vector<double>(88200, 0.0));
  writewav16k(in + "/short.wav", harmonicsignal(150.0, 16000.0, 80 / 16000.0, 0.5));
  fs::create_directories(in + "/dir.wav");
  {
    WavLayout layout;
    layout.claimedframes = (uint64_t{1} << 28) + 1;  // one sample over the limit, sparse
    writewav(in + "/long16k.wav", layout, std::vector<double>(1000, 0.1));
    layout.rate = 8000;
    layout.claimedframes = (uint64_t{1} << 27) + 1;  // 2^28 + 2 samples once resampled
    writewav(in + "/long8k.wav", layout, std::vector<double>(1000, 0.1));
  }
  writewav(in + "/nan.wav", WavLayout{16000, 1, Sample::Float32}, nanwave);

  for (const auto &e : expected) {
    const std::string out = dir + "/out";
    fs::remove_all(out);
    fs::create_directories(out);
    const Result r = ana({in + "/" + e.first, out + "/o.lf0", out + "/o.cc", out + "/o.fv"});
    EXPECT_EQ(r.status, 0) << e.first;
    ASSERT_EQ(r.lines.size(), 1u) << e.first << ": " << r.out;
    EXPECT_EQ(r.lines[0].rfind(e.second, 0), 0u) << r.lines[0];
    EXPECT_EQ(r.lines[0].back(), '.') << r.lines[0];
    EXPECT_EQ(r.lines[0].find(".)."), std::string::npos) << r.lines[0];
    EXPECT_TRUE(listdir(out).empty()) << e.first;
  }
  fs::remove_all(dir);  // the sparse long files claim 768 MB between them
}

TEST(KestrelanaCli, ClippingWarnsAboveOneInAThousandSamples) {
  const std::string dir = freshdir();
  // 16000 samples below full scale, then exactly k of them on the rails.
  for (int k : {16, 17}) {
    std::vector<double> x = harmonicsignal(150.0, 16000.0, 1.0, 0.5);
    for (int i = 0; i < k; ++i) x[4000 + 500 * i] = (i % 2) ? -1.0 : 1.0;
    const std::string wav = dir + "/c" + std::to_string(k) + ".wav";
    writewav16k(wav, x);
    const Result r = ana({wav, dir + "/c.lf0", dir + "/c.cc"});
    EXPECT_EQ(r.status, 0);
    if (k == 16) {
      EXPECT_EQ(r.out, "");
    } else {
      ASSERT_EQ(r.lines.size(), 1u) << r.out;
      EXPECT_EQ(r.lines[0], "Warning: " + wav + " is clipped (0.11 % of its samples at full scale).");
    }
    EXPECT_EQ(readfloats(dir + "/c.lf0").size(), expectedframes(16000, 80));  // analysed all the same
  }
  // Stereo: the rails are counted over both channels before the mixdown.
  std::vector<double> s = harmonicsignal(150.0, 44100.0, 1.0, 0.5), inter;
  for (size_t i = 0; i < s.size(); ++i) {
    inter.push_back(i % 200 == 0 ? 1.0 : s[i]);
    inter.push_back(s[i]);
  }
  writewav(dir + "/st.wav", WavLayout{44100, 2, Sample::Pcm16}, inter);
  const Result r = ana({dir + "/st.wav", dir + "/c.lf0", dir + "/c.cc"});
  ASSERT_EQ(r.lines.size(), 1u) << r.out;
  EXPECT_EQ(r.lines[0], "Warning: " + dir + "/st.wav is clipped (0.25 % of its samples at full scale).");
}

TEST(KestrelanaCli, FailedOutputsLeaveNothingHalfWritten) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/in.wav", good = dir + "/good", missing = dir + "/nodir";
  writewav16k(wav, harmonicsignal(150.0, 16000.0, 0.5, 0.5));
  fs::create_directories(good);
  struct Case {
    std::string f0, cc, fv, failing;
  } cases[] = {
      {missing + "/o.lf0", good + "/o.cc", good + "/o.fv", missing + "/o.lf0"},
      {good + "/o.lf0", missing + "/o.cc", good + "/o.fv", missing + "/o.cc"},
      {good + "/o.lf0", good + "/o.cc", missing + "/o.fv", missing + "/o.fv"},
      {good + "/o.lf0", wav + "/o.cc", "", wav + "/o.cc"},  // a file where a directory should be
  };
  for (const auto &c : cases) {
    // Earlier results under the same names must survive a failed run untouched.
    std::ofstream(good + "/o.lf0") << "old";
    std::vector<std::string> args = {wav, c.f0, c.cc};
    if (!c.fv.empty()) args.push_back(c.fv);
    const Result r = ana(args);
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.lines.size(), 1u) << r.out;
    EXPECT_EQ(r.lines[0], "Error: could not create " + c.failing + ".");
    EXPECT_EQ(listdir(good), std::set<std::string>{"o.lf0"}) << c.failing;
    std::ifstream f(good + "/o.lf0");
    std::string content((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, "old") << c.failing;
    EXPECT_EQ(listdir(dir), (std::set<std::string>{"in.wav", "good"}));
  }
  // Output files get the permissions of any file the user creates.
  fs::remove(good + "/o.lf0");
  ASSERT_EQ(ana({wav, good + "/o.lf0", good + "/o.cc"}).status, 0);
  std::ofstream(good + "/ref") << "x";
  struct stat a, b;
  ASSERT_EQ(stat((good + "/o.cc").c_str(), &a), 0);
  ASSERT_EQ(stat((good + "/ref").c_str(), &b), 0);
  EXPECT_EQ(a.st_mode & 0777, b.st_mode & 0777);
}

TEST(KestrelanaCli, OutputsNeverReplaceTheRecording) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/in.wav";
  writewav16k(wav, harmonicsignal(150.0, 16000.0, 0.5, 0.5));
  const auto before = readwav(wav);
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{wav, wav, dir + "/o.cc"}, "Error: " + wav + " is both the input and an output."},
      {{wav, dir + "/o.lf0", dir + "/./in.wav"}, "Error: " + dir + "/./in.wav is both the input and an output."},
      {{wav, dir + "/o.lf0", dir + "/o.cc", dir + "/o.lf0"}, "Error: " + dir + "/o.lf0 is given for two outputs."},
  };
  for (const auto &c : cases) {
    const Result r = ana(c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.lines, std::vector<std::string>{c.message});
    EXPECT_EQ(readwav(wav), before);
    EXPECT_EQ(listdir(dir), std::set<std::string>{"in.wav"});
  }
}

TEST(KestrelanaCli, DevicesAreWrittenDirectlyAndDirectoriesRefused) {
  const std::string dir = freshdir();
  const std::string wav = dir + "/in.wav";
  writewav16k(wav, harmonicsignal(150.0, 16000.0, 0.5, 0.5));
  Result r = ana({wav, "/dev/null", dir + "/o.cc"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readfloats(dir + "/o.cc").size(), 40u * expectedframes(8000, 80));
  r = ana({wav, "/dev/null", dir + "/o.cc", "/dev/null"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  struct stat st;
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  fs::remove(dir + "/o.cc");
  fs::create_directories(dir + "/o.fv");
  r = ana({wav, dir + "/o.lf0", dir + "/o.cc", dir + "/o.fv"});
  EXPECT_EQ(r.lines, std::vector<std::string>{"Error: could not create " + dir + "/o.fv (it is a directory)."});
  EXPECT_EQ(listdir(dir), (std::set<std::string>{"in.wav", "o.fv"}));
  EXPECT_TRUE(fs::is_empty(dir + "/o.fv"));
}

}  // namespace

#else

TEST(KestrelanaCli, NotBuilt) { GTEST_SKIP() << "kestrelana is not built (libsndfile/libsoxr missing)"; }

#endif
