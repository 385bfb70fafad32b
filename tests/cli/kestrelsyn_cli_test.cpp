// End-to-end runs of the built kestrelsyn: messages, exit status, WAV output,
// option handling and batch mode.
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <limits>

#include "kestrelsyn.h"
#include "support/cliutil.h"

namespace {

using namespace kestreltest;

const std::string kUsage = "Error: incorrect input arguments.\nType 'kestrelsyn' for help.\n";

// Rising f0 from 110 Hz with an unvoiced last quarter, cepstra with dyadic
// values (exact after c0 - 5 and halving), fv 4 kHz.
struct Features { std::vector<float> lf0, cc, fv; };
Features makefeatures(uint32_t nframes, uint32_t order = 24) {
  Features f;
  for (uint32_t i = 0; i < nframes; ++i) {
    f.lf0.push_back(i < nframes * 3 / 4 ? float(std::log(110.0 + 2.5 * i)) : -1e10f);
    f.cc.push_back(2.5f);
    for (uint32_t k = 1; k <= order; ++k) f.cc.push_back(float((k % 2 ? 0.25 : -0.125) / (1 << (k / 6))));
    f.fv.push_back(4000.0f);
  }
  return f;
}

class KestrelsynCli : public CliTest {
 protected:
  void writeutt(const std::string &stem, const Features &f) {
    writefloats(at("@/" + stem + ".lf0"), f.lf0);
    writefloats(at("@/" + stem + ".cc"), f.cc);
    writefloats(at("@/" + stem + ".fv"), f.fv);
  }
  Result check(const std::string &s, const std::string &out, int status = 0, std::function<void()> inchild = {}) {
    return expectrun(KESTRELSYN_PATH, s, status, out, inchild);
  }
  // The bytes of u's synthesis (with fv) under the given options.
  Bytes render(const std::string &opts, const std::string &message = "") {
    check("@/u.lf0 @/u.cc @/u.fv @/e.wav " + opts, message);
    return bytes("@/e.wav");
  }
  // The samples as 16-bit values, after checking the fixed header for n samples.
  std::vector<int> wav(const std::string &name, uint32_t n) {
    const Bytes b = bytes(name), ref = wavbytes(WavLayout{}, std::vector<double>(n));
    EXPECT_EQ(b.size(), ref.size()) << name;
    EXPECT_TRUE(b.size() >= 44 && std::equal(ref.begin(), ref.begin() + 44, b.begin())) << name;
    std::vector<int> s;
    for (double v : samples(name)) s.push_back(int(v * 32768.0));
    return s;
  }
};

TEST_F(KestrelsynCli, HelpWithoutArguments) {
  testing::internal::CaptureStdout();
  plothelp(KESTRELSYN_PATH);
  check("", testing::internal::GetCapturedStdout());
}

TEST_F(KestrelsynCli, ArgumentErrorsExit255WithoutOutput) {
  writeutt("u", makefeatures(10));
  const std::string F = "@/u.lf0 @/u.cc @/o.wav ", I = "Error: bad formatted indlist.\n";
  std::vector<std::pair<std::string, std::string>> rows = {
      {"a", kUsage}, {"a b", kUsage}, {"a b --fpitch=2", kUsage}, {"@/u.lf0 @/u.cc --fpitch=2", kUsage},
      {"@/u.lf0 @/u.cc @/u.fv @/o.wav @/x.wav", kUsage},
      // The index list is checked before unconsumed options and the count of names.
      {F + "--indlist=x --bogus=1", I}, {"a b --indlist=x", I}};
  for (const char *o : {"--fpitch=2 @/late.wav", "--fpitch=x", "--fpitch=2 --fpitch=3", "--bogus=1", "--fdur=0x",
                        "--fdur=infi", "--lframe=", "--lframe=abc", "--lframe", "--htsscale=on", "--indlist=",
                        "--fdur=2 --"})
    rows.push_back({F + o, kUsage});
  for (const char *l : {"1,,2", "5-1", "4294967296"})  // the parser's own tests have the rest
    rows.push_back({F + "--indlist=" + l, I});
  // The final shift is trunc(fdur x lframe) in extended precision, taken as
  // unsigned 32 bits; the message gives it as computed from the lframe given.
  for (const auto &s : std::vector<std::pair<const char *, const char *>>{
           {"--lframe=0", "0"}, {"--lframe=-80", "-80"}, {"--lframe=1 --fdur=0.25", "0"},
           {"--lframe=4194308 --fdur=0.25", "1048577"}, {"--lframe=2147483648 --fdur=2", "4294967296"},
           {"--lframe=99999999999999", "99999999999999"}})
    rows.push_back({F + s.first, std::string("Error: frame shift of ") + s.second +
                                     " samples out of range (1 to 1048576).\n"});
  for (const auto &row : rows) {
    check(row.first, row.second, 255);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 3) << row.first;  // only u.*
  }
}

TEST_F(KestrelsynCli, LengthFollowsTheFrameShiftAndRunsAreDeterministic) {
  writeutt("u", makefeatures(6));
  const std::pair<const char *, uint32_t> rows[] = {
      {"", 80}, {"--fdur=1.3", 104}, {"--fdur=0.3", 23}, {"--fdur=0.7", 55},  // 24 and 56 in double
      {"--fdur=10", 320}, {"--fdur=0.1", 20}, {"--fdur=nan", 320}, {"--fdur=-inf", 20}, {"--lframe=80abc", 80},
      {"--LFRAME=40", 40}, {"--FDur=1.5x", 120}, {"--fdur=0x1p1", 160}, {"--lframe=4 --fdur=0.25", 1},
      {"--lframe=-2147483647 --fdur=2", 2}};  // 2^32 + 2
  for (const auto &row : rows) {
    check(std::string("@/u.lf0 @/u.cc @/d.wav ") + row.first, "");
    wav("@/d.wav", 7 * row.second + 1);
  }
  for (const std::string fv : {"", "@/u.fv "}) {
    check("@/u.lf0 @/u.cc " + fv + "@/a.wav", "");
    check("@/u.lf0 @/u.cc " + fv + "@/" + (fv.empty() ? "nofv" : "fv") + ".wav", "");
    EXPECT_EQ(bytes("@/a.wav"), bytes(fv.empty() ? "@/nofv.wav" : "@/fv.wav")) << "two runs differ";
    const std::vector<int> s = wav("@/a.wav", 7 * 80 + 1);
    EXPECT_TRUE(s.front() == 0 && s.back() == 0 && std::any_of(s.begin(), s.end(), [](int v) { return v != 0; }));
  }
  EXPECT_NE(bytes("@/fv.wav"), bytes("@/nofv.wav"));
  writeutt("one", makefeatures(1));
  check("@/one.lf0 @/one.cc @/big.wav --lframe=1048576", "");
  EXPECT_EQ(fs::file_size(at("@/big.wav")), 44u + 2u * (2u * 1048576u + 1u));
}

// Problems of one utterance: reported on stdout, exit 0, no output or the
// output made without the fv track.
TEST_F(KestrelsynCli, UtteranceMessages) {
  writeutt("u", makefeatures(5));
  writefloats(at("@/empty.bin"), {});
  writefloats(at("@/cc11.bin"), std::vector<float>(11, 0.1f));  // not a multiple of 5
  writefloats(at("@/cc3.bin"), std::vector<float>(3, 0.1f));    // fewer values than frames
  writefloats(at("@/cc5.bin"), std::vector<float>(5, 0.1f));    // order 0
  writefloats(at("@/fvshort.bin"), std::vector<float>(4, 4000.0f));
  writefloats(at("@/fvlong.bin"), std::vector<float>(8, 4000.0f));  // surplus ignored
  for (uint32_t n : {254u, 255u, 4095u}) writeutt("n" + std::to_string(n), makefeatures(n, 0));
  fs::create_symlink(at("@/u.lf0"), at("@/link.wav"));
  Features f = makefeatures(5);
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = HUGE_VALF;
  f.lf0[4] = -inf;  // the last frame is unvoiced (-1e10) in u
  writefloats(at("@/minf.lf0"), f.lf0);
  for (const auto &bad : std::vector<std::pair<const char *, float>>{{"nan", nan}, {"inf", inf}}) {
    f.lf0[2] = bad.second;
    writefloats(at("@/" + std::string(bad.first) + ".lf0"), f.lf0);
  }
  f.cc[30] = -inf;
  writefloats(at("@/nan.cc"), f.cc);
  writefloats(at("@/nan.fv"), std::vector<float>(5, nan));
  writefloats(at("@/g.lf0"), std::vector<float>(2, std::log(10.5f)));
  writefloats(at("@/g.cc"), std::vector<float>(2 * 100001, 0.0f));
  check("@/u.lf0 @/u.cc @/nofv.wav", "");
  check("@/u.lf0 @/u.cc @/u.fv @/fv.wav", "");
  auto E = [](const std::string &m) { return "Error: " + m + ".\n"; };
  auto W = [](const std::string &m) { return "Warning: " + m + ".\n"; };
  const std::string U = "@/u.lf0 @/u.cc ", big = " @/o.wav --lframe=1048576", dims = " have incompatible dimensions",
                    both = " is both an input and the output", nf = " holds values that are not finite numbers",
                    n255 = "@/n255.lf0 would need 268435457 output samples (limit 268435456)";
  // same: "" no output, "*" any output of the right length, else the file it equals.
  const struct { std::string cmd, message, same; } rows[] = {
      {"@/missing.lf0 @/u.cc @/o.wav", E("could not open @/missing.lf0"), ""},
      {"@/empty.bin @/u.cc @/o.wav", E("could not open @/empty.bin"), ""},
      {"@/u.lf0 @/missing.cc @/o.wav", E("could not open @/missing.cc"), ""},
      {"@/u.lf0 @/cc11.bin @/o.wav", E("@/u.lf0 and @/cc11.bin" + dims), ""},
      {"@/u.lf0 @/cc3.bin @/o.wav", E("@/u.lf0 and @/cc3.bin" + dims), ""},
      {"@/u.lf0 @/cc5.bin @/o.wav", "", "*"},
      // (255 + 1) 2^20 + 1 is one over the limit; 4096 x 2^20 + 1 would wrap to 1 in 32 bits;
      // the length is checked before the fv file is looked at.
      {"@/n255.lf0 @/n255.cc" + big, E(n255), ""}, {"@/n255.lf0 @/n255.cc @/nofile.fv" + big, E(n255), ""},
      {"@/n4095.lf0 @/n4095.cc" + big, E("@/n4095.lf0 would need 4294967297 output samples (limit 268435456)"), ""},
      {U + "@/missing.fv @/o.wav", W("could not open @/missing.fv"), "@/nofv.wav"},
      {U + "@/fvshort.bin @/o.wav", W("@/u.lf0 and @/fvshort.bin" + dims), "@/nofv.wav"},
      {U + "@/fvlong.bin @/o.wav", "", "@/fv.wav"}, {U + "@/no/dir/o.wav", E("could not create @/no/dir/o.wav"), ""},
      // An output naming an input, also through a link, is refused before anything is read.
      {U + "@/u.cc", E("@/u.cc" + both), ""}, {U + "@/u.fv @/u.fv", E("@/u.fv" + both), ""},
      {U + "@/link.wav", E("@/link.wav" + both), ""},
      // NaN or +inf log f0 and any non-finite cepstrum end the utterance,
      // -inf log f0 is unvoiced, an fv track with them is not used.
      {"@/nan.lf0 @/u.cc @/o.wav", E("@/nan.lf0" + nf), ""}, {"@/inf.lf0 @/u.cc @/o.wav", E("@/inf.lf0" + nf), ""},
      {"@/u.lf0 @/nan.cc @/o.wav", E("@/nan.cc" + nf), ""}, {"@/minf.lf0 @/u.cc @/o.wav", "", "@/nofv.wav"},
      {U + "@/nan.fv @/o.wav", W("@/nan.fv" + nf), "@/nofv.wav"},
      // A synthesis work area beyond 1 GiB (2 frames at 10.5 Hz, order 100000).
      {"@/g.lf0 @/g.cc @/o.wav", E("synthesis of @/g.lf0 failed (work area above 1 GiB or out of memory)"), ""},
  };
  for (const auto &row : rows) {
    check(row.cmd, row.message);
    EXPECT_EQ(fs::is_regular_file(at("@/o.wav")), !row.same.empty()) << row.cmd;
    if (row.same.empty()) continue;
    wav("@/o.wav", 6 * 80 + 1);
    EXPECT_TRUE(row.same == "*" || bytes("@/o.wav") == bytes(row.same)) << row.cmd;
    fs::remove(at("@/o.wav"));
  }
  // A write that fails midway (file-size limit) leaves no partial file, and an older one intact.
  const auto nfiles = std::distance(fs::directory_iterator(dir), {});
  for (const bool older : {false, true}) {
    if (older) writebytes(at("@/o.wav"), {'o', 'l', 'd'});
    check("@/u.lf0 @/u.cc @/o.wav", "Error: could not create @/o.wav.\n", 0, [] {
      const rlimit lim{200, 200};
      setrlimit(RLIMIT_FSIZE, &lim);
      std::signal(SIGXFSZ, SIG_IGN);
    });
    EXPECT_EQ(bytes("@/o.wav"), (older ? Bytes{'o', 'l', 'd'} : Bytes{}));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), nfiles + older);  // no temporary left
  }
  fs::remove(at("@/o.wav"));
  // Normalising needs the whole waveform: a buffer (2 GiB) that cannot be
  // allocated when the address space is capped, or under AddressSanitizer
  // (which needs a vast one) its allocations.
  check("@/n254.lf0 @/n254.cc" + big + " --wavnorm=1", "Error: out of memory for @/n254.lf0.\n", 0, [] {
#ifdef __SANITIZE_ADDRESS__
    setenv("ASAN_OPTIONS", "allocator_may_return_null=1:max_allocation_size_mb=1024", 1);
    std::freopen("/dev/null", "w", stderr);  // its warning; an error would still change the status
#else
    const rlimit lim{1u << 30, 1u << 30};
    setrlimit(RLIMIT_AS, &lim);
#endif
  });
  EXPECT_FALSE(fs::exists(at("@/o.wav")));
  // Finite features too large for the synthesis give non-finite samples, written as -32768.
  f = makefeatures(5);
  f.cc[25] = 1e30f;  // c0 of frame 1
  writeutt("bad", f);
  check("@/bad.lf0 @/bad.cc @/bad.wav", "Warning: @/bad.wav contains non-finite samples, written as -32768.\n");
  const std::vector<int> s = wav("@/bad.wav", 6 * 80 + 1);
  EXPECT_NE(std::find(s.begin(), s.end(), -32768), s.end());
}

TEST_F(KestrelsynCli, AlphaCompatibilityWarning) {
  writeutt("u", makefeatures(12));
  const std::string warning = "Warning: floud, fpfilt and fdrc not applicable for this alpha.\n",
                    nonfinite = "Warning: @/w.wav contains non-finite samples, written as -32768.\n";
  const std::pair<const char *, std::string> rows[] = {
      {"--alpha=0.55 --floud=1", warning}, {"--alpha=0.55 --fpfilt=-1", warning},  // before clamping to 0
      {"--alpha=0.55 --fdrc=0.5", warning}, {"--alpha=0.55 --floud=nan", warning},
      {"--alpha=nan --fpfilt=0.5", warning + nonfinite},  // a NaN alpha also makes NaN samples
      {"--alpha=0.55 --floud=0", ""}, {"--alpha=0.55", ""}, {"--alpha=0.42 --fwarp=0.1 --floud=1", ""},
      {"--floud=1 --fpfilt=0.5 --fdrc=0.5", ""}, {"--alpha=0.99", ""},
      {"--alpha=1", "Warning: alpha 1 is outside (-1, 1): the output will not be meaningful.\n"},
      {"--alpha=-2.5 --fwarp=0.1", "Warning: alpha -2.5 is outside (-1, 1): the output will not be meaningful.\n"}};
  for (const auto &row : rows) {
    check(std::string("@/u.lf0 @/u.cc @/w.wav ") + row.first, row.second);
    EXPECT_TRUE(fs::exists(at("@/w.wav")));
  }
  // The three are really off; with alpha 0.42 given, loudness stays on even
  // when fwarp moves the final alpha away from 0.42.
  EXPECT_EQ(render("--alpha=0.55"), render("--alpha=0.55 --floud=1 --fpfilt=1 --fdrc=1", warning));
  EXPECT_NE(render("--fwarp=0.1"), render("--fwarp=0.1 --floud=1"));
}

// Options whose effect shows only through real synthesis: clamping (NaN to
// the upper bound), the composition of warpings, HTS rescaling, normalisation.
TEST_F(KestrelsynCli, OptionEffects) {
  writeutt("u", makefeatures(16));
  const Bytes base = render("");
  const std::pair<const char *, const char *> same[] = {
      {"--fpitch=10", "--fpitch=4"}, {"--fpitch=nan", "--fpitch=4"}, {"--fpitch=0.1", "--fpitch=0.25"},
      {"--FPITCH=2", "--fpitch=2"}, {"--fvpitch=-1", "--fvpitch=0"}, {"--fvpitch=5", "--fvpitch=4"},
      {"--fwarp=1", "--fwarp=0.99"}, {"--fwarp=-5", "--fwarp=-0.99"}, {"--floud=5", "--floud=4"},
      {"--floud=-inf", "--floud=-4"}, {"--fpfilt=2", "--fpfilt=1"}, {"--fpfilt=-1", ""}, {"--fdrc=-1", ""},
      {"--fdrc=7", "--fdrc=1"}, {"--fpitch=1", ""}, {"--htsscale=0", "--htsscale=2"},
      {"--wavnorm=257", "--wavnorm=1"}, {"--wavnorm=-255", "--wavnorm=1"}, {"--wavnorm=2", ""},
      {"--wavnorm=256", ""}};
  for (const auto &s : same) EXPECT_EQ(render(s.first), render(s.second)) << s.first;
  for (const char *opt : {"--fpitch=2", "--fvpitch=2", "--fwarp=0.1", "--floud=1", "--fpfilt=1", "--fdrc=1",
                          "--htsscale=0", "--wavnorm=1", "--alpha=0.3"})
    EXPECT_NE(render(opt), base) << opt << " has no effect";
  // fwarp composes with alpha: (alpha - fwarp) / (1 - fwarp alpha).
  for (double fwarp : {0.1, -0.3}) {
    char composed[64], warp[64];
    std::snprintf(composed, sizeof composed, "--alpha=%.17g", (0.42 - fwarp) / (1.0 - fwarp * 0.42));
    std::snprintf(warp, sizeof warp, "--fwarp=%.17g", fwarp);
    EXPECT_EQ(render(warp), render(composed)) << warp;
  }
  // HTS rescaling is c0 - 5 and halving: the default on u equals --htsscale=0
  // on cepstra rescaled beforehand (exact in float for these values).
  Features f = makefeatures(16);
  for (size_t i = 0; i < f.cc.size(); ++i) f.cc[i] = (i % 25 == 0) ? f.cc[i] - 5.0f : f.cc[i] * 0.5f;
  writeutt("pre", f);
  check("@/pre.lf0 @/pre.cc @/pre.fv @/pre.wav --htsscale=0", "");
  EXPECT_EQ(bytes("@/pre.wav"), base);
  // Normalisation puts the peak at 0.99 of full scale, truncated: 32440.
  render("--wavnorm=1");
  int peak = 0;
  for (int v : wav("@/e.wav", 17 * 80 + 1)) peak = std::max(peak, std::abs(v));
  EXPECT_EQ(peak, 32440);
}

TEST_F(KestrelsynCli, BatchMode) {
  fs::create_directories(at("@/in"));
  fs::create_directories(at("@/out"));
  for (const auto &u : std::vector<std::pair<const char *, uint32_t>>{
           {"in/utt001", 5}, {"in/utt003", 7}, {"in/utt004", 9}, {"s7", 4}, {"s8", 4}, {"t09", 4}, {"t10", 4}})
    writeutt(u.first, makefeatures(u.second));
  const std::string in = "@/in/utt???.lf0 @/in/utt???.cc ", nofit = " does not fit the file-name placeholder of @/";
  const std::pair<std::string, std::string> rows[] = {
      // A missing file in the middle is reported and the batch goes on.
      {in + "@/out/utt???.wav --indlist=1-4", "@/out/utt001.wav\n@/out/utt002.wav\n"
       "Error: could not open @/in/utt002.lf0.\n@/out/utt003.wav\n@/out/utt004.wav\n"},
      {in + "@/in/utt???.fv @/out/f???.wav --indlist=1,3-4(3)", "@/out/f001.wav\n@/out/f003.wav\n@/out/f004.wav\n"},
      {in + "@/out/utt???.wav", "Error: could not open @/in/utt???.lf0.\n"},  // literal without a list
      {"@/s?.lf0 @/s?.cc @/fixed.wav --indlist=7-8", "@/fixed.wav\n@/fixed.wav\n"},
      // Too narrow for 10: the first misfit in the order f0, cc, fv, out, after the output name.
      {"@/t??.lf0 @/t??.cc @/w?.wav --indlist=9-10",
       "@/w9.wav\n@/w9.wav\nError: index 10" + nofit + "w9.wav.\n"},
      {"@/t?.lf0 @/t??.cc @/w?.wav --indlist=10,11",
       "@/w?.wav\nError: index 10" + nofit + "t?.lf0.\n@/w?.wav\nError: index 11" + nofit + "t?.lf0.\n"},
      // The loop ends at the largest index without wrapping around.
      {"@/u??????????.lf0 @/u??????????.cc @/o??????????.wav --indlist=4294967294-4294967295",
       "@/o4294967294.wav\nError: could not open @/u4294967294.lf0.\n"
       "@/o4294967295.wav\nError: could not open @/u4294967295.lf0.\n"}};
  for (const auto &row : rows) check(row.first, row.second);
  for (const auto &w : std::vector<std::pair<const char *, uint32_t>>{
           {"@/out/utt001.wav", 6}, {"@/out/utt003.wav", 8}, {"@/out/utt004.wav", 10}, {"@/out/f004.wav", 10},
           {"@/fixed.wav", 5}})
    wav(w.first, w.second * 80 + 1);
  EXPECT_FALSE(fs::exists(at("@/out/utt002.wav")));
  EXPECT_FALSE(fs::exists(at("@/w?.wav")));
}

}  // namespace
