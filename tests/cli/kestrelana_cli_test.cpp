// kestrelana end to end: the built analysis command, alone and followed by
// kestrelsyn (copy synthesis), on a bundled recording and on signals written
// by the tests (16 kHz PCM, other rates, stereo, 24-bit and float WAVs).
#include <map>
#include <set>

#include "support/cliutil.h"

#ifdef KESTRELANA_PATH

namespace {

using namespace kestreltest;

constexpr double kPi = 3.141592653589793;

// Harmonics of f0 below fmax (0: 0.45 fs) with 1/k amplitudes and fixed
// phases, scaled to the given peak, 10 ms fades at both ends.
std::vector<double> harmonicsignal(double f0, double fs, double seconds, double peak = 0.5, double fmax = 0.0) {
  std::vector<double> x(size_t(std::lround(seconds * fs)));
  double m = 0.0;
  for (size_t i = 0; i < x.size(); ++i) {
    for (int k = 1; k * f0 < (fmax > 0.0 ? fmax : 0.45 * fs); ++k)
      x[i] += std::sin(2 * kPi * k * f0 * (double(i) / fs) + 0.7 * k) / k;
    m = std::max(m, std::fabs(x[i]));
  }
  const size_t n = x.size(), fade = size_t(0.01 * fs);
  for (size_t i = 0; i < n; ++i)
    x[i] *= peak / m * (i < fade ? double(i) / fade : 1.0) * (n - 1 - i < fade ? double(n - 1 - i) / fade : 1.0);
  return x;
}

// Harmonic 180 Hz bursts of uneven lengths between very quiet noise: an energy
// envelope with sharp, irregular edges.
std::vector<double> burstsignal(double fs) {
  const double edges[][2] = {{0.10, 0.35}, {0.48, 0.56}, {0.80, 1.22}, {1.30, 1.45}};
  std::vector<double> x = harmonicsignal(180.0, fs, 1.6, 0.5, 3500.0);  // the same at every rate
  uint32_t seed = 12345;
  for (size_t i = 0; i < x.size(); ++i) {
    seed = seed * 1664525u + 1013904223u;
    const double t = double(i) / fs;
    const bool on = std::any_of(std::begin(edges), std::end(edges), [t](auto &e) { return t >= e[0] && t < e[1]; });
    x[i] = (on ? x[i] : 0.0) + 1e-3 * (double(seed >> 8) / 16777216.0 - 0.5);
  }
  return x;
}

double rmsdb(const std::vector<double> &x) {
  double s = 0.0;
  for (double v : x) s += v * v;
  return 10.0 * std::log10(s / double(x.size()));
}

// Lag in samples (positive: y late), within +-240, at which the two signals'
// energy envelopes (dB over 10 ms every 4 samples, floored 80 dB below the
// peak) differ least on average.
int envelopelag(const std::vector<double> &x, const std::vector<double> &y) {
  auto envelope = [n = std::min(x.size(), y.size())](const std::vector<double> &s) {
    std::vector<double> e;
    for (size_t k = 0; k + 160 <= n; k += 4) e.push_back(rmsdb(std::vector<double>(&s[k], &s[k] + 160)));
    const double floor = *std::max_element(e.begin(), e.end()) - 80.0;
    for (double &v : e) v = std::max(v, floor);
    return e;
  };
  const std::vector<double> a = envelope(x), b = envelope(y);
  std::pair<double, int> best{1e300, 0};
  for (long lag = -60, m = long(a.size()); lag <= 60; ++lag) {
    double d = 0.0;
    for (long i = std::max(0L, -lag); i < std::min(m, m - lag); ++i) d += std::fabs(a[size_t(i)] - b[size_t(i + lag)]);
    best = std::min(best, {d / double(m - std::labs(lag)), int(lag)});
  }
  return 4 * best.second;
}

// The smallest frame count >= 1 whose resynthesis, (count + 1) shift + 1
// samples, is not shorter than the recording's n.
uint32_t expectedframes(uint64_t n, uint64_t shift) { return uint32_t(std::max<uint64_t>(1, (n - 2) / shift)); }

// Median Hz of the voiced frames of a log-f0 track (of fv when given).
double voicedmedian(const std::vector<float> &lf0, const std::vector<float> &fv = {}) {
  std::vector<double> v;
  for (size_t k = 0; k < lf0.size(); ++k)
    if (lf0[k] > -1e10f) v.push_back(fv.empty() ? std::exp(double(lf0[k])) : fv[k]);
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

using FileState = std::pair<uintmax_t, fs::file_time_type>;

class KestrelanaCli : public CliTest {
 protected:
  void check(const std::string &s, const std::string &out, int status = 0) {
    expectrun(KESTRELANA_PATH, s, status, out);
  }
  void syn(const std::string &s) { expectrun(KESTRELSYN_PATH, s, 0, ""); }
  // Every file and directory under the test's directory, files with their size and time of last change.
  std::map<std::string, FileState> snapshot() const {
    std::map<std::string, FileState> s;
    for (const auto &e : fs::recursive_directory_iterator(dir))
      s[e.path().string()] = e.is_regular_file() ? FileState{e.file_size(), e.last_write_time()} : FileState{};
    return s;
  }
};

TEST_F(KestrelanaCli, HelpAndArgumentErrorsExit255WithoutOutput) {
  const std::string help = run(KESTRELANA_PATH, {}).out;
  for (const std::string line : {"  === KESTRELANA16 v0.99 ===", "   kestrelana filewav filef0 filecc [filefv] [params]",
                                 "   --lframe=80     Frame shift (samples at 16 kHz) [1...8000]"})
    EXPECT_NE(help.find("\n" + line + "\n"), std::string::npos) << line;
  writewav16k(at("@/in.wav"), harmonicsignal(150.0, 16000.0, 0.3));
  const std::string W = "@/in.wav @/o.lf0 @/o.cc ", I = "Error: bad formatted indlist.\n",
                    U = "Error: incorrect input arguments.\nType 'kestrelana' for help.\n";
  std::vector<std::pair<std::string, std::string>> rows = {
      {"a --indlist=x", U}, {"a b", U}, {"@/in.wav @/o.lf0 --order=20", U}, {W + "@/o.fv @/extra", U},
      {W + "--order=20 --order=30", U}, {W + "--order=20 @/stray", U}, {"a b --indlist=x", I}, {W + "--indlist=3-1", I},
      {W + "--f0min=300 --f0max=300", E("--f0max=300 must be above --f0min=300")},
      {"--list=@/l --outdir=@/o --featdir=@/f", E("--list needs --outdir (and takes no --featdir)")}};
  for (const auto &o : std::vector<std::pair<const char *, const char *>>{
           {"--lframe=0", "1...8000"}, {"--lframe=8001", "1...8000"}, {"--order=-1", "0...255"},
           {"--order=256", "0...255"}, {"--alpha=0.995", "-0.99...0.99"}, {"--alpha=nan", "-0.99...0.99"},
           {"--method=5", "0...4"}, {"--f0min=19.9", "20...1000"}, {"--f0max=2000.5", "40...2000"},
           {"--refine=2", "0...1"}, {"--match=3", "0...2"}, {"--pitch=2", "0...1"}, {"--htsscale=-1", "0...1"},
           {"--order=4294967297", "0...255"}, {"--refine=-4294967295", "0...1"}})  // not wrapped to 32 bits
    rows.push_back({W + o.first, E(o.first + std::string(" is out of range [") + o.second + "]")});
  for (const auto &row : rows) check(row.first, row.second, 255);
  EXPECT_EQ(names(), std::set<std::string>{"in.wav"});
}

// Options at their limits are accepted; the copy synthesis of every analysis
// is not shorter than the recording (n samples), also around the frame
// boundaries of shift 100: (21 + 1) 100 + 1 samples is 21 frames.
TEST_F(KestrelanaCli, OptionsAtTheirLimitsAndCopySynthesisLength) {
  const struct { const char *opts; uint32_t shift, order, n; } rows[] = {
      {"", 80, 59, 9600}, {"--refine=1 --pitch=0", 80, 59, 9600}, {"--ORDER=255 --alpha=0.99", 80, 255, 9600},
      {"--lframe=8000", 8000, 59, 9600}, {"--alpha=-0.99 --method=4 --order=0", 80, 0, 9600},
      {"--f0min=20 --f0max=2000 --refine=1", 80, 59, 9600}, {"--htsscale=0 --method=3", 80, 59, 9600},
      {"--f0min=999 --f0max=1000 --method=2", 80, 59, 9600}, {"--method=1 --order=24", 80, 24, 9600},
      {"--lframe=100 --order=24", 100, 24, 2201}, {"--lframe=100", 100, 59, 2202},
      {"--lframe=100", 100, 59, 2199}};
  for (const auto &c : rows) {
    writewav16k(at("@/in.wav"), harmonicsignal(150.0, 16000.0, c.n / 16000.0));
    check(std::string("@/in.wav @/o.lf0 @/o.cc @/o.fv ") + c.opts, "");
    const uint32_t nframes = expectedframes(c.n, c.shift);
    const std::vector<float> lf0 = floats("@/o.lf0"), cc = floats("@/o.cc");
    EXPECT_TRUE(lf0.size() == nframes && floats("@/o.fv").size() == nframes && cc.size() == nframes * (c.order + 1u)) << c.opts;
    EXPECT_TRUE(std::all_of(cc.begin(), cc.end(), [](float v) { return std::isfinite(v); })) << c.opts;
    // The signal's pitch, voiced nearly throughout, with a maximum voiced frequency well above f0.
    EXPECT_TRUE(c.shift != 80 || std::string(c.opts).find("f0") != std::string::npos ||
                (std::count_if(lf0.begin(), lf0.end(), [](float v) { return v > -1e10f; }) > long(nframes * 9 / 10) &&
                 std::fabs(voicedmedian(lf0) - 150.0) < 1.5 && voicedmedian(lf0, floats("@/o.fv")) >= 1000.0)) << c.opts;
    syn("@/o.lf0 @/o.cc @/o.fv @/o.wav --lframe=" + std::to_string(c.shift));
    const size_t length = samples("@/o.wav").size();
    EXPECT_TRUE(length == (nframes + 1) * c.shift + 1 && length >= c.n) << c.opts << " " << c.n;
  }
}

// Rates, channel counts and sample formats that go through libsndfile (and
// libsoxr when not at 16 kHz, without delay) give the features, level and
// timing of the same signal read exactly at 16 kHz, with the channels averaged.
TEST_F(KestrelanaCli, OtherFormatsAreResampledAndMixedDown) {
  const std::vector<double> x = burstsignal(16000.0);
  // left, right: gains of the first two channels (any further one silent); leveltol (dB): copy synthesis is
  // not exactly level-invariant and at 8 kHz nothing is left above 4 kHz; summing the channels would be 6 dB off.
  const struct { const char *name; WavLayout layout; double left, right, leveltol; } rows[] = {{"ref", {16000, 1, Sample::Pcm16}, 1.0, 0.0, 0.0},  // read exactly: the reference
              {"44k1_stereo_left_only", {44100, 2, Sample::Pcm16}, 1.0, 0.0, 0.5},
              {"48k_mono_24bit", {48000, 1, Sample::Pcm24}, 1.0, 0.0, 0.5},
              {"8k_mono_float", {8000, 1, Sample::Float32}, 1.0, 0.0, 1.0},
              {"16k_3ch_24bit", {16000, 3, Sample::Pcm24}, 0.5, 0.25, 0.5}};
  double refdb = 0.0, refhz = 0.0;
  size_t nref = 0;
  for (const auto &c : rows) {
    std::vector<double> inter;
    for (double v : burstsignal(c.layout.rate))
      for (uint32_t ch = 0; ch < c.layout.channels; ++ch) inter.push_back((ch ? ch == 1 ? c.right : 0.0 : c.left) * v);
    const std::string base = "@/" + std::string(c.name);
    writewav(at(base + ".wav"), c.layout, inter);
    check(base + ".wav " + base + ".lf0 " + base + ".cc", "");
    syn(base + ".lf0 " + base + ".cc " + base + ".out.wav");
    const std::vector<float> lf0 = floats(base + ".lf0");
    const std::vector<double> y = samples(base + ".out.wav");
    if (!nref) {  // the reference keeps the level (within 3 dB) and the pitch of the input
      EXPECT_TRUE(std::fabs(rmsdb(y) - rmsdb(x)) < 3.0 && std::fabs(voicedmedian(lf0) - 180.0) < 2.0);
      refdb = rmsdb(y), refhz = voicedmedian(lf0), nref = lf0.size();
    }
    EXPECT_LE(std::abs(long(lf0.size()) - long(nref)), 1) << c.name;
    EXPECT_NEAR(voicedmedian(lf0), refhz, refhz * 0.005) << c.name;
    const double mixgain = (c.left + (c.layout.channels > 1 ? c.right : 0.0)) / c.layout.channels;
    EXPECT_NEAR(rmsdb(y) - refdb, 20.0 * std::log10(mixgain), c.leveltol) << c.name;
    EXPECT_TRUE(y.size() + 1 >= x.size() && y.size() <= x.size() + 80) << c.name;
    // The sharp, irregular edges land where they were, within half a frame.
    EXPECT_LE(std::abs(envelopelag(x, y)), 40) << c.name;
  }
  // An extra chunk leaves the file to libsndfile, which reads the same samples.
  writewav(at("@/list.wav"), WavLayout{16000, 1, Sample::Pcm16, true}, x);
  ASSERT_EQ(samples("@/list.wav").size(), 0u);  // the exact reader refuses it
  check("@/list.wav @/list.lf0 @/list.cc", "");
  EXPECT_EQ(floats("@/list.cc"), floats("@/ref.cc"));
}

// A bad input, an output that cannot be made or that names the input or
// another output: one "Error: " line, and every file and directory stays as it
// was (the recording, an older result). An index list goes on past an error.
TEST_F(KestrelanaCli, FailuresLeaveEveryFileAsItWas) {
  for (const char *d : {"@/in/dir.wav", "@/good", "@/isdir"}) fs::create_directories(at(d));
  writebytes(at("@/in/empty.wav"), {});
  std::ofstream(at("@/in/text.wav")) << "This is not audio at all, just some words.\n";
  std::ofstream(at("@/good/o.lf0")) << "old";
  writewav(at("@/in/zero44k.wav"), WavLayout{44100, 2}, {});
  writewav16k(at("@/in/silent16k.wav"), std::vector<double>(16000, 0.0));
  writewav16k(at("@/in/short.wav"), harmonicsignal(150.0, 16000.0, 80 / 16000.0));
  // 2^28 + 2 samples once resampled
  writewav(at("@/in/long8k.wav"), {8000, 1, Sample::Pcm16, false, (uint64_t{1} << 27) + 1}, std::vector<double>(1000, 0.1));
  std::vector<double> x = harmonicsignal(150.0, 16000.0, 0.5);
  writewav16k(at("@/in.wav"), x);
  fs::create_symlink(at("@/in.wav"), at("@/link"));
  x[1000] = std::nan("");
  writewav(at("@/in/nan.wav"), WavLayout{16000, 1, Sample::Float32}, x);
  // (input in @/in/ or command, message): an input's message names @/in/input.
  const std::string O = " @/good/o.lf0 @/good/o.cc @/good/o.fv", W = "@/in.wav ", G = W + "@/good/o.lf0 ";
  const std::pair<std::string, std::string> rows[] = {
      {"missing.wav", "could not open %"}, {"empty.wav", "% is empty"}, {"zero44k.wav", "% holds no samples"},
      {"text.wav", "% is not an audio file that can be read (Format not recognised)"},
      {"silent16k.wav", "% is silent (no sample reaches one 16-bit step)"},
      {"short.wav", "% is too short (80 samples at 16 kHz; one frame needs 81)"},
      {"dir.wav", "could not open % (not a regular file)"}, {"nan.wav", "% holds samples that are not finite numbers"},
      {"long8k.wav", "% is too long (268435458 samples at 16 kHz; the limit is 268435456)"},
      {W + "@/nodir/o.lf0 @/good/o.cc @/good/o.fv", "could not create @/nodir/o.lf0"},
      {G + "@/good/o.cc @/nodir/o.fv", "could not create @/nodir/o.fv"},
      {G + "@/in.wav/o.cc", "could not create @/in.wav/o.cc"},  // a file where a directory should be
      {G + "@/good/o.cc @/isdir", "could not create @/isdir (it is a directory)"},
      {W + "@/in.wav @/good/o.cc", "@/in.wav is both the input and an output"},
      {G + "@/link", "@/link is both the input and an output"},
      {G + "@/good/o.cc @/good/o.lf0", "@/good/o.lf0 is given for two outputs"}};
  const auto before = snapshot();
  for (const auto &row : rows) {
    const size_t input = row.second.find('%');
    if (input == std::string::npos) check(row.first, E(row.second));
    else check("@/in/" + row.first + O, E(std::string(row.second).replace(input, 1, "@/in/" + row.first)));
    EXPECT_EQ(snapshot(), before) << row.first;
  }
  // One 16-bit step is not silent; a device is written directly, and may stand for more than one output.
  std::vector<double> quiet(16000, 0.0);
  quiet[100] = 1.0 / 32768;
  writewav16k(at("@/onestep.wav"), quiet);
  check("@/onestep.wav /dev/null @/o.cc /dev/null", "");
  EXPECT_EQ(floats("@/o.cc").size(), 60u * expectedframes(16000, 80));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  writewav16k(at("@/utt001.wav"), harmonicsignal(120.0, 16000.0, 0.5));
  writewav16k(at("@/utt3.wav"), harmonicsignal(120.0, 16000.0, 0.5));
  check("@/utt???.wav @/utt???.lf0 @/utt???.cc --indlist=1-2",
        "@/utt001.cc\n@/utt002.cc\nError: could not open @/utt002.wav.\n");
  check("@/utt?.wav @/u?.lf0 @/u?.cc --indlist=3,10",
        "@/u3.cc\n@/u3.cc\nError: index 10 does not fit the file-name placeholder of @/utt3.wav.\n");
  EXPECT_EQ(floats("@/utt001.lf0"), floats("@/u3.lf0"));
}

TEST_F(KestrelanaCli, ClippingAndCutShortFilesWarn) {
  // 16000 samples below full scale, then exactly k of them on the rails.
  for (int k : {16, 17}) {
    std::vector<double> x = harmonicsignal(150.0, 16000.0, 1.0);
    for (int i = 0; i < k; ++i) x[4000 + 500 * i] = (i % 2) ? -1.0 : 32767 / 32768.0;
    writewav16k(at("@/c.wav"), x);
    check("@/c.wav @/c.lf0 @/c.cc", k == 16 ? "" : "Warning: @/c.wav is clipped (0.11 % of its samples at full scale).\n");
    EXPECT_EQ(floats("@/c.lf0").size(), expectedframes(16000, 80));  // analysed all the same
  }
  // Stereo: the rails are counted over both channels before the mixdown.
  std::vector<double> s = harmonicsignal(150.0, 44100.0, 1.0), inter;
  for (size_t i = 0; i < s.size(); ++i) inter.insert(inter.end(), {i % 200 == 0 ? 1.0 : s[i], s[i]});
  writewav(at("@/st.wav"), WavLayout{44100, 2}, inter);
  check("@/st.wav @/c.lf0 @/c.cc", "Warning: @/st.wav is clipped (0.25 % of its samples at full scale).\n");
  // A file cut short of what its header announces is analysed as far as it goes.
  Bytes cut = wavbytes(WavLayout{}, harmonicsignal(150.0, 16000.0, 0.5));
  cut.resize(cut.size() - 1001);
  writebytes(at("@/cut.wav"), cut);
  check("@/cut.wav @/c.lf0 @/c.cc",
        "Warning: @/cut.wav is cut short (its header announces 1001 more bytes of samples than it holds).\n");
  EXPECT_EQ(floats("@/c.lf0").size(), expectedframes((16000 - 1001) / 2, 80));
}

}  // namespace

#else

TEST(KestrelanaCli, NotBuilt) { GTEST_SKIP() << "kestrelana is not built (libsndfile/libsoxr missing)"; }

#endif
