// End-to-end runs of the built kestrelsyn: messages, exit status, WAV output,
// option handling and batch mode.
#include <cstdio>
#include <set>

#include "support/cliutil.h"

namespace {

using namespace kestreltest;

const std::string kUsage = "Error: incorrect input arguments.\nType 'kestrelsyn' for help.\n";
std::string W(const std::string &m) { return "Warning: " + m + ".\n"; }

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
    for (const auto &t : {std::make_pair(".lf0", &f.lf0), {".cc", &f.cc}, {".fv", &f.fv}})
      writefloats(at("@/" + stem + t.first), *t.second);
  }
  void check(const std::string &s, const std::string &out, int status = 0, std::function<void()> inchild = {}) {
    expectrun(KESTRELSYN_PATH, s, status, out, inchild);
  }
  // The bytes of u's synthesis (with fv) under the given options.
  Bytes render(const std::string &opts, const std::string &message = "") {
    check("@/u.lf0 @/u.cc @/u.fv @/e.wav " + opts, message);
    return bytes("@/e.wav");
  }
  // The samples as 16-bit values, after checking the fixed header for n samples.
  std::vector<int> wav(const std::string &name, uint32_t n) {
    const Bytes b = bytes(name), ref = wavbytes(WavLayout{}, std::vector<double>(n));
    EXPECT_TRUE(b.size() == ref.size() && std::equal(ref.begin(), ref.begin() + 44, b.begin())) << name;
    std::vector<int> s;
    for (double v : samples(name)) s.push_back(int(v * 32768.0));
    return s;
  }
};

TEST_F(KestrelsynCli, LengthFollowsTheFrameShiftAndRunsAreDeterministic) {
  writeutt("u", makefeatures(6));
  const std::pair<const char *, uint32_t> rows[] = {
      {"--fdur=1.3", 104}, {"--fdur=0.7", 55} /* 56 in double */, {"--fdur=10", 320}, {"--fdur=nan", 320},
      {"--fdur=-inf", 20}, {"--LFRAME=40", 40}, {"--lframe=4 --fdur=0.25", 1}, {"--lframe=-2147483647 --fdur=2", 2}, {"", 80}};
  for (const auto &row : rows) {
    check(std::string("@/u.lf0 @/u.cc @/d.wav ") + row.first, "");
    wav("@/d.wav", 7 * row.second + 1);
  }
  // Without options (the last row): silent at both ends; two runs with fv agree and differ from it.
  const std::vector<int> s = wav("@/d.wav", 7 * 80 + 1);
  EXPECT_TRUE(s.front() == 0 && s.back() == 0 && std::any_of(s.begin(), s.end(), [](int v) { return v != 0; }));
  const Bytes withfv = render("");
  EXPECT_TRUE(withfv == render("") && withfv != bytes("@/d.wav"));
}

// Each run ends in one message on stdout: an argument error exits 255, a
// problem of one utterance exits 0 with no output or the output made without
// the fv track; nothing else is left in the directory.
TEST_F(KestrelsynCli, MessagesExitStatusAndOutputs) {
  // The program alone prints its help, naming itself without its directory (the usage error too, in kUsage).
  const Result help = run(KESTRELSYN_PATH, {});
  EXPECT_TRUE(help.status == 0 && help.err.empty());
  for (const std::string line : {"  === KESTRELSYN16 v0.99 ===", "   kestrelsyn filef0 filecc filefv fileout [params]",
                                 "   --wavnorm=0     Adapt wav amplitude to available range"})
    EXPECT_NE(help.out.find("\n" + line + "\n"), std::string::npos) << line;
  writeutt("u", makefeatures(5));
  // cc11 is not a multiple of 5 values, cc3 fewer values than frames, cc5 of order 0; fvlong's surplus is ignored.
  const struct { const char *name; size_t n; float v; } files[] = {
      {"cc11.bin", 11, 0.1f}, {"cc3.bin", 3, 0.1f}, {"cc5.bin", 5, 0.1f}, {"fvshort.bin", 4, 4000.0f},
      {"fvlong.bin", 8, 4000.0f}, {"g.lf0", 2, std::log(10.5f)}, {"g.cc", 2 * 100001, 0.0f}};
  for (const auto &file : files) writefloats(at("@/") + file.name, std::vector<float>(file.n, file.v));
  // (255 + 1) 2^20 + 1 samples is one over the limit, 16382 frames of 16385 exactly the
  // limit (refused only at creating the file), 4096 x 2^20 + 1 would wrap to 1 in 32 bits.
  for (uint32_t n : {254u, 255u, 4095u, 16382u}) writeutt("n" + std::to_string(n), makefeatures(n, 0));
  fs::create_symlink(at("@/u.lf0"), at("@/link.wav"));
  // Damaged tracks, each on top of the one before: -inf log f0 (the last
  // frame is unvoiced, -1e10, in u), a NaN log f0, a -inf cepstrum, a NaN fv.
  Features f = makefeatures(5);
  f.lf0[4] = -HUGE_VALF;
  writefloats(at("@/minf.lf0"), f.lf0);
  f.lf0[2] = f.fv[3] = NAN;
  f.cc[30] = -HUGE_VALF;
  writeutt("nan", f);
  check("@/u.lf0 @/u.cc @/nofv.wav", "");
  check("@/u.lf0 @/u.cc @/u.fv @/fv.wav", "");
  const std::set<std::string> inputs = names();
  const std::string U = "@/u.lf0 @/u.cc ", F = U + "@/o.wav ", I = E("bad formatted indlist"),
                    big = " @/o.wav --lframe=1048576", dims = " have incompatible dimensions",
                    nf = " holds values that are not finite numbers", L = "--list=@/l --featdir=@ --outdir=@ ",
                    needlist = E("--outdir, --featdir, --jobs, --shard, --skip-existing, --failed and --progress need --list");
  // same: "" no output, "*" any output of the right length, else the file it equals.
  struct Row { std::string cmd, message; int status; std::string same; };
  std::vector<Row> rows = {
      // Too few names is a usage error before the index list is looked at.
      {"a", kUsage, 255, ""}, {"a --indlist=x", kUsage, 255, ""}, {"a b --fpitch=2", kUsage, 255, ""},
      {U + "@/u.fv @/o.wav @/x", kUsage, 255, ""}, {F + "--indlist=x --bogus=1", I, 255, ""},
      {"a b --indlist=x", I, 255, ""}, {F + "--indlist=5-1", I, 255, ""},
      {"--list=@/l.scp --outdir=@/o", E("--list needs --featdir and --outdir"), 255, ""},
      {L + "--indlist=1", kUsage, 255, ""}, {"@/a " + L, kUsage, 255, ""}, {F + "--jobs=2", needlist, 255, ""},
      {F + "--skip-existing", needlist, 255, ""},
      {L + "--jobs=1025", E("--jobs=1025 is not a thread count (0 = all cores, at most 1024)"), 255, ""},
      {L + "--progress --no-progress", E("--progress and --no-progress given together"), 255, ""},
      {"@/missing.lf0 @/u.cc @/o.wav", E("could not open @/missing.lf0"), 0, ""},
      {"@/u.lf0 @/missing.cc @/o.wav", E("could not open @/missing.cc"), 0, ""},
      {"@/u.lf0 @/cc11.bin @/o.wav", E("@/u.lf0 and @/cc11.bin" + dims), 0, ""},
      {"@/u.lf0 @/cc3.bin @/o.wav", E("@/u.lf0 and @/cc3.bin" + dims), 0, ""}, {"@/u.lf0 @/cc5.bin @/o.wav", "", 0, "*"},
      {"@/n255.lf0 @/n255.cc" + big, E("@/n255.lf0 would need 268435457 output samples (limit 268435456)"), 0, ""},
      {"@/n4095.lf0 @/n4095.cc" + big, E("@/n4095.lf0 would need 4294967297 output samples (limit 268435456)"), 0, ""},
      {"@/n16382.lf0 @/n16382.cc @/no/o.wav --lframe=16385", E("could not create @/no/o.wav"), 0, ""},
      {U + "@/missing.fv @/o.wav", W("could not open @/missing.fv"), 0, "@/nofv.wav"},
      {U + "@/fvshort.bin @/o.wav", W("@/u.lf0 and @/fvshort.bin" + dims), 0, "@/nofv.wav"},
      {U + "@/fvlong.bin @/o.wav", "", 0, "@/fv.wav"},
      // An output naming an input, also through a link, is refused before anything is read.
      {U + "@/u.cc", E("@/u.cc is both an input and the output"), 0, ""},
      {U + "@/link.wav", E("@/link.wav is both an input and the output"), 0, ""},
      // A NaN log f0 or a non-finite cepstrum ends the utterance, -inf log f0
      // is unvoiced, an fv track with a NaN is not used.
      {"@/nan.lf0 @/u.cc @/o.wav", E("@/nan.lf0" + nf), 0, ""}, {"@/u.lf0 @/nan.cc @/o.wav", E("@/nan.cc" + nf), 0, ""},
      {"@/minf.lf0 @/u.cc @/o.wav", "", 0, "@/nofv.wav"}, {U + "@/nan.fv @/o.wav", W("@/nan.fv" + nf), 0, "@/nofv.wav"},
      // A synthesis work area beyond 1 GiB (2 frames at 10.5 Hz, order 100000).
      {"@/g.lf0 @/g.cc @/o.wav", E("synthesis of @/g.lf0 failed (work area above 1 GiB or out of memory)"), 0, ""}};
  for (const char *o : {"--fpitch=2 @/late.wav", "--fpitch=x", "--fpitch=2 --fpitch=3", "--fdur=infi", "--lframe=",
                        "--lframe", "--htsscale=on", "--fdur=2 --"})
    rows.push_back({F + o, kUsage, 255, ""});
  // The shift is trunc(fdur x lframe) in extended precision, as unsigned 32
  // bits; the message gives it as computed from the lframe given.
  for (const auto &s : std::vector<std::pair<const char *, const char *>>{
           {"--lframe=0", "0"}, {"--lframe=-80", "-80"}, {"--lframe=1 --fdur=0.25", "0"},
           {"--lframe=4194308 --fdur=0.25", "1048577"}, {"--lframe=99999999999999", "99999999999999"}})
    rows.push_back({F + s.first, E(std::string("frame shift of ") + s.second + " samples out of range (1 to 1048576)"), 255, ""});
  for (const auto &row : rows) {
    check(row.cmd, row.message, row.status);
    EXPECT_EQ(fs::is_regular_file(at("@/o.wav")), !row.same.empty()) << row.cmd;
    if (!row.same.empty()) {
      wav("@/o.wav", 6 * 80 + 1);
      EXPECT_TRUE(row.same == "*" || bytes("@/o.wav") == bytes(row.same)) << row.cmd;
      fs::remove(at("@/o.wav"));
    }
    EXPECT_EQ(names(), inputs) << row.cmd;
  }
  // A write that fails midway (file-size limit) leaves no partial file, no
  // temporary, and an older file intact.
  const auto nfiles = std::distance(fs::directory_iterator(dir), {});
  writebytes(at("@/o.wav"), {'o', 'l', 'd'});
  check("@/u.lf0 @/u.cc @/o.wav", E("could not create @/o.wav"), 0, [] { limitfilesize(200); });
  EXPECT_EQ(bytes("@/o.wav"), (Bytes{'o', 'l', 'd'}));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), nfiles + 1);
  fs::remove(at("@/o.wav"));
  // Normalising needs the whole waveform: a buffer (2 GiB) that cannot be
  // allocated when the address space is capped, or under AddressSanitizer
  // (which needs a vast one) its allocations.
  check("@/n254.lf0 @/n254.cc" + big + " --wavnorm=1", E("out of memory for @/n254.lf0"), 0, [] {
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
  for (const char *norm : {"", " --wavnorm=1"}) {
    check(std::string("@/bad.lf0 @/bad.cc @/bad.wav") + norm, W("@/bad.wav contains non-finite samples, written as -32768"));
    const std::vector<int> s = wav("@/bad.wav", 6 * 80 + 1);
    EXPECT_NE(std::find(s.begin(), s.end(), -32768), s.end());
  }
}

// Options whose effect shows only through real synthesis: clamping (NaN to
// the upper bound), the alpha compatibility, the composition of warpings, HTS
// rescaling, normalisation.
TEST_F(KestrelsynCli, OptionEffects) {
  writeutt("u", makefeatures(16));
  const std::string nofilters = "Warning: floud, fpfilt and fdrc not applicable for this alpha.\n",
                    outside = " is outside (-1, 1): the output will not be meaningful";
  const struct { const char *opts; std::string message; } warn[] = {
      {"--alpha=0.55 --floud=1", nofilters}, {"--alpha=0.55 --fpfilt=-1", nofilters},  // before clamping to 0
      {"--alpha=0.55 --fdrc=0.5", nofilters},
      // A NaN alpha also makes NaN samples.
      {"--alpha=nan --fpfilt=0.5", nofilters + W("@/e.wav contains non-finite samples, written as -32768")},
      {"--alpha=0.99", ""}, {"--alpha=1", W("alpha 1" + outside)}, {"--alpha=-2.5 --fwarp=0.1", W("alpha -2.5" + outside)}};
  for (const auto &w : warn) render(w.opts, w.message);
  // (a, b, same): the two renderings are equal or differ.
  const struct { const char *a, *b; bool same; } rows[] = {
      {"--fpitch=10", "--fpitch=4", true}, {"--fpitch=nan", "--fpitch=4", true}, {"--fpitch=4", "--fpitch=3.9", false},
      {"--fpitch=0.1", "--fpitch=0.25", true}, {"--FPITCH=2", "--fpitch=2", true}, {"--fpitch=1", "", true},
      {"--fvpitch=-1", "--fvpitch=0", true}, {"--fvpitch=0", "--fvpitch=0.1", false}, {"--fvpitch=5", "--fvpitch=4", true},
      {"--fwarp=1", "--fwarp=0.99", true}, {"--fwarp=-5", "--fwarp=-0.99", true}, {"--floud=5", "--floud=4", true},
      {"--floud=4", "--floud=3.5", false}, {"--floud=-inf", "--floud=-4", true}, {"--fpfilt=2", "--fpfilt=1", true},
      {"--fpfilt=-1", "", true}, {"--fpfilt=0.1", "", false}, {"--fdrc=-1", "", true}, {"--fdrc=7", "--fdrc=1", true},
      {"--htsscale=0", "--htsscale=2", true}, {"--wavnorm=257", "--wavnorm=1", true}, {"--wavnorm=-255", "--wavnorm=1", true},
      {"--wavnorm=2", "", true}, {"--wavnorm=256", "", true},
      {"--alpha=0.55", "--alpha=0.55 --floud=1 --fpfilt=1 --fdrc=1", true},
      {"--fwarp=0.1", "--fwarp=0.1 --floud=1", false},  // with alpha 0.42 given, loudness stays on
      {"--fpitch=2", "", false}, {"--fvpitch=2", "", false}, {"--fwarp=0.1", "", false}, {"--fdrc=1", "", false},
      {"--htsscale=0", "", false}, {"--wavnorm=1", "", false}, {"--alpha=0.3", "", false}};
  for (const auto &r : rows) {
    const bool alphadropped = std::string(r.b).find("alpha=0.55") != std::string::npos;
    EXPECT_EQ(render(r.a) == render(r.b, alphadropped ? nofilters : ""), r.same) << r.a << " / " << r.b;
  }
  // fwarp composes with alpha: (alpha - fwarp) / (1 - fwarp alpha).
  char composed[64];
  std::snprintf(composed, sizeof composed, "--alpha=%.17g", (0.42 + 0.3) / (1.0 + 0.3 * 0.42));
  EXPECT_EQ(render("--fwarp=-0.3"), render(composed));
  // HTS rescaling is c0 - 5 and halving: the default on u equals --htsscale=0
  // on cepstra rescaled beforehand (exact in float for these values).
  Features f = makefeatures(16);
  for (size_t i = 0; i < f.cc.size(); ++i) f.cc[i] = (i % 25 == 0) ? f.cc[i] - 5.0f : f.cc[i] * 0.5f;
  writeutt("pre", f);
  check("@/pre.lf0 @/pre.cc @/pre.fv @/pre.wav --htsscale=0", "");
  EXPECT_EQ(bytes("@/pre.wav"), render(""));
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
      {"@/t??.lf0 @/t??.cc @/w?.wav --indlist=9-10", "@/w9.wav\n@/w9.wav\nError: index 10" + nofit + "w9.wav.\n"},
      {"@/t?.lf0 @/t??.cc @/w?.wav --indlist=10", "@/w?.wav\nError: index 10" + nofit + "t?.lf0.\n"},
      // The loop ends at the largest index without wrapping around.
      {"@/u??????????.lf0 @/u??????????.cc @/o??????????.wav --indlist=4294967294-4294967295",
       "@/o4294967294.wav\nError: could not open @/u4294967294.lf0.\n"
       "@/o4294967295.wav\nError: could not open @/u4294967295.lf0.\n"}};
  for (const auto &row : rows) check(row.first, row.second);
  for (const auto &w : std::vector<std::pair<const char *, uint32_t>>{
           {"@/out/utt001.wav", 6}, {"@/out/utt004.wav", 10}, {"@/out/f004.wav", 10}, {"@/fixed.wav", 5}})
    wav(w.first, w.second * 80 + 1);
  EXPECT_FALSE(fs::exists(at("@/out/utt002.wav")));
  EXPECT_FALSE(fs::exists(at("@/w?.wav")));
}

}  // namespace
