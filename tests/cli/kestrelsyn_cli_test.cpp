// End-to-end runs of the built kestrelsyn: messages, exit status, WAV output,
// option handling and batch mode.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#ifndef KESTRELSYN_PATH
#error "KESTRELSYN_PATH must name the built program"
#endif

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

const char *const kUsage = "Error: incorrect input arguments.\nType 'kestrelsyn' for help.\n";
constexpr int kArgumentError = 255;

struct Result {
  int status = -1;  // exit status, or 1000 + signal number
  std::string out;
  std::string err;
};

// Runs the program with the given arguments, collecting both output streams.
// A run that takes longer than two minutes is killed (and fails the test).
Result run(const std::vector<std::string> &args) {
  std::string prog = KESTRELSYN_PATH;
  std::vector<std::string> store(args);
  std::vector<char *> argv;
  argv.push_back(&prog[0]);
  for (auto &a : store) argv.push_back(&a[0]);
  argv.push_back(nullptr);

  int outp[2], errp[2];
  if (pipe(outp) != 0 || pipe(errp) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outp[1], 1);
    dup2(errp[1], 2);
    close(outp[0]);
    close(outp[1]);
    close(errp[0]);
    close(errp[1]);
    execv(prog.c_str(), argv.data());
    _exit(127);
  }
  close(outp[1]);
  close(errp[1]);
  Result r;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  pollfd fds[2] = {{outp[0], POLLIN, 0}, {errp[0], POLLIN, 0}};
  std::string *sinks[2] = {&r.out, &r.err};
  int open = 2;
  bool killed = false;
  while (open > 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (poll(fds, 2, 1000) <= 0) continue;
    for (int k = 0; k < 2; ++k) {
      if (fds[k].fd < 0 || !(fds[k].revents & (POLLIN | POLLHUP))) continue;
      char buf[4096];
      const ssize_t got = read(fds[k].fd, buf, sizeof buf);
      if (got > 0) {
        sinks[k]->append(buf, static_cast<size_t>(got));
      } else {
        close(fds[k].fd);
        fds[k].fd = -1;
        --open;
      }
    }
  }
  for (auto &f : fds)
    if (f.fd >= 0) close(f.fd);
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  if (killed) r.err += "[killed after timeout]";
  return r;
}

// A parsed output file of the fixed layout.
struct Wav {
  bool ok = false;
  uint32_t n = 0;
  std::vector<int16_t> s;
  Bytes raw;
};

uint32_t le32(const Bytes &b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}
uint16_t le16(const Bytes &b, size_t at) { return static_cast<uint16_t>(b[at] | (b[at + 1] << 8)); }

Bytes readbytes(const std::string &p) {
  std::ifstream in(p, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

Wav readwav(const std::string &p) {
  Wav w;
  w.raw = readbytes(p);
  const Bytes &b = w.raw;
  if (b.size() < 44) return w;
  EXPECT_EQ(std::string(b.begin(), b.begin() + 4), "RIFF");
  EXPECT_EQ(std::string(b.begin() + 8, b.begin() + 16), "WAVEfmt ");
  EXPECT_EQ(le32(b, 16), 16u);
  EXPECT_EQ(le16(b, 20), 1u);
  EXPECT_EQ(le16(b, 22), 1u);
  EXPECT_EQ(le32(b, 24), 16000u);
  EXPECT_EQ(le32(b, 28), 32000u);
  EXPECT_EQ(le16(b, 32), 2u);
  EXPECT_EQ(le16(b, 34), 16u);
  EXPECT_EQ(std::string(b.begin() + 36, b.begin() + 40), "data");
  const uint32_t data = le32(b, 40);
  EXPECT_EQ(le32(b, 4), data + 36u);
  EXPECT_EQ(b.size(), 44u + data);
  w.n = data / 2;
  for (uint32_t i = 0; i < w.n && 44u + 2u * i + 1 < b.size(); ++i)
    w.s.push_back(static_cast<int16_t>(le16(b, 44 + 2 * i)));
  w.ok = true;
  return w;
}

void writefloats(const std::string &p, const std::vector<float> &v) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(v.data()),
                                           static_cast<std::streamsize>(v.size() * sizeof(float)));
}

// A small utterance: voiced with a rising f0 from 110 Hz and an unvoiced tail, order-24
// cepstra with dyadic values (exact after c0 - 5 and halving), fv 4 kHz.
struct Features {
  std::vector<float> lf0, cc, fv;
};
Features makefeatures(uint32_t nframes, uint32_t order = 24) {
  Features f;
  for (uint32_t i = 0; i < nframes; ++i) {
    f.lf0.push_back(i < nframes * 3 / 4 ? static_cast<float>(std::log(110.0 + 2.5 * i)) : -1e10f);
    f.cc.push_back(2.5f);
    for (uint32_t k = 1; k <= order; ++k)
      f.cc.push_back(static_cast<float>((k % 2 ? 0.25 : -0.125) / (1 << (k / 6))));
    f.fv.push_back(4000.0f);
  }
  return f;
}

class KestrelsynCli : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = ::testing::TempDir() + "kestrel_cli_XXXXXX";
    ASSERT_NE(mkdtemp(&templ[0]), nullptr);
    dir_ = templ;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  // Writes f0 / cc / fv files named <stem>.lf0, .cc, .fv.
  void writeutt(const std::string &stem, const Features &f) {
    writefloats(path(stem + ".lf0"), f.lf0);
    writefloats(path(stem + ".cc"), f.cc);
    writefloats(path(stem + ".fv"), f.fv);
  }
  // Runs f0 cc [fv] out with options; returns the result, out file in *wav.
  Result synth(const std::string &stem, const std::string &out, const std::vector<std::string> &opts,
               bool withfv = false) {
    std::vector<std::string> a = {path(stem + ".lf0"), path(stem + ".cc")};
    if (withfv) a.push_back(path(stem + ".fv"));
    a.push_back(path(out));
    a.insert(a.end(), opts.begin(), opts.end());
    return run(a);
  }
  std::string dir_;
};

TEST_F(KestrelsynCli, HelpWithoutArguments) {
  const Result r = run({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out.rfind("\n", 0), 0u);  // starts with an empty line
  EXPECT_NE(r.out.find("\n  === KESTRELSYN16 v0.99 ===\n"), std::string::npos);
  EXPECT_NE(r.out.find("Kestrel developers, see README.md"), std::string::npos);
  const std::string tail =
      "  Usage:\n"
      "   kestrelsyn filef0 filecc filefv fileout [params]\n"
      "\n"
      "  Arguments:\n"
      "   filef0:  input file for logf0\n"
      "   filecc:  input file for cepstral coeffs.\n"
      "   filefv:  input file for max. voiced freq.\n"
      "   fileout: output wav file (mono 16kHz 16bits)\n"
      "\n"
      "  Optional parameters and default values:\n"
      "   --lframe=80     Frame shift (samples)\n"
      "   --fpitch=1.0    Pitch modification factor [0.25...4]\n"
      "   --fvpitch=1.0   Log-pitch variance modification factor [0...4]\n"
      "   --fdur=1.0      Duration modification factor [0.25...4]\n"
      "   --fwarp=0.0     All-pass factor for vocal tract modification [-1...1]\n"
      "   --floud=0.0     Factor for perceptual loudness [-4...4]\n"
      "   --fpfilt=0.0    Postfiltering factor [0...1]\n"
      "   --wavnorm=0     Adapt wav amplitude to available range\n"
      "\n"
      "\n";
  ASSERT_GE(r.out.size(), tail.size());
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
}

TEST_F(KestrelsynCli, UsageErrors) {
  writeutt("u", makefeatures(10));
  const std::string f0 = path("u.lf0"), cc = path("u.cc"), fv = path("u.fv"), out = path("out.wav");
  const std::vector<std::vector<std::string>> cases = {
      {"a"},
      {"a", "b"},
      {"a", "b", "--fpitch=2"},                  // only two names before the option
      {f0, cc, fv, out, path("extra.wav")},      // five names
      {f0, cc, "--fpitch=2"},                    // two names, three arguments
      {f0, cc, out, "--fpitch=2", path("late.wav")},  // a name after an option
      {f0, cc, out, "--fpitch=x"},
      {f0, cc, out, "--fpitch=2", "--fpitch=3"},
      {f0, cc, out, "--bogus=1"},
      {f0, cc, out, "--fdur=0x"},
      {f0, cc, out, "--fdur=infi"},
      {f0, cc, out, "--lframe="},
      {f0, cc, out, "--lframe=abc"},
      {f0, cc, out, "--lframe"},
      {f0, cc, out, "--htsscale=on"},
      {f0, cc, out, "--indlist="},               // an empty value never matches
      {f0, cc, out, "--fdur=2", "--"},
  };
  for (const auto &args : cases) {
    const Result r = run(args);
    std::string shown;
    for (const auto &a : args) shown += a + " ";
    EXPECT_EQ(r.status, kArgumentError) << shown;
    EXPECT_EQ(r.out, kUsage) << shown;
    EXPECT_EQ(r.err, "") << shown;
    EXPECT_FALSE(fs::exists(out)) << shown;
    EXPECT_FALSE(fs::exists(path("late.wav"))) << shown;
  }
}

TEST_F(KestrelsynCli, BadIndexList) {
  writeutt("u", makefeatures(10));
  const std::string f0 = path("u.lf0"), cc = path("u.cc"), out = path("out.wav");
  for (const char *list : {"1,,2", "5-1", "1-5,5", "-1", "x", "1-100(2)", "4294967296", "1-99999999999", "1(2"}) {
    const Result r = run({f0, cc, out, std::string("--indlist=") + list});
    EXPECT_EQ(r.status, kArgumentError) << list;
    EXPECT_EQ(r.out, "Error: bad formatted indlist.\n") << list;
  }
  // Checked before unconsumed options and before the count of names.
  Result r = run({f0, cc, out, "--indlist=x", "--bogus=1"});
  EXPECT_EQ(r.status, kArgumentError);
  EXPECT_EQ(r.out, "Error: bad formatted indlist.\n");
  r = run({"a", "b", "--indlist=x"});
  EXPECT_EQ(r.status, kArgumentError);
  EXPECT_EQ(r.out, "Error: bad formatted indlist.\n");
}

TEST_F(KestrelsynCli, FrameShiftOutOfRange) {
  writeutt("u", makefeatures(10));
  const std::string f0 = path("u.lf0"), cc = path("u.cc"), out = path("out.wav");
  const struct {
    std::vector<std::string> opts;
    const char *shift;
  } cases[] = {
      {{"--lframe=0"}, "0"},
      {{"--lframe=0x"}, "0"},                           // "%d" reads the 0
      {{"--lframe=-80"}, "4294967216"},                 // taken as unsigned
      {{"--lframe=1", "--fdur=0.25"}, "0"},
      {{"--lframe=1048577"}, "1048577"},
      {{"--lframe=4194308", "--fdur=0.25"}, "1048577"},
      {{"--lframe=2147483648", "--fdur=2"}, "0"},       // 2^32: low 32 bits
      {{"--lframe=-1", "--fdur=0.5"}, "2147483647"},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {f0, cc, out};
    args.insert(args.end(), c.opts.begin(), c.opts.end());
    const Result r = run(args);
    EXPECT_EQ(r.status, kArgumentError) << c.opts[0];
    EXPECT_EQ(r.out, std::string("Error: frame shift of ") + c.shift + " samples out of range (1 to 1048576).\n")
        << c.opts[0];
    EXPECT_FALSE(fs::exists(out));
  }
}

TEST_F(KestrelsynCli, OutputLayoutLengthAndDeterminism) {
  const uint32_t nframes = 20;
  writeutt("u", makefeatures(nframes));
  for (bool withfv : {false, true}) {
    const Result r = synth("u", "a.wav", {}, withfv);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");  // no index list: no name printed, nothing to report
    EXPECT_EQ(r.err, "");
    const Wav a = readwav(path("a.wav"));
    ASSERT_TRUE(a.ok);
    ASSERT_EQ(a.n, (nframes + 1) * 80 + 1);
    EXPECT_EQ(a.s.front(), 0);
    EXPECT_EQ(a.s.back(), 0);
    EXPECT_TRUE(std::any_of(a.s.begin(), a.s.end(), [](int16_t v) { return v != 0; })) << "silent output";

    ASSERT_EQ(synth("u", "b.wav", {}, withfv).status, 0);
    EXPECT_TRUE(readbytes(path("b.wav")) == a.raw) << "two runs differ";
  }
  // With and without the voiced-frequency track the outputs differ.
  ASSERT_EQ(synth("u", "nofv.wav", {}).status, 0);
  ASSERT_EQ(synth("u", "fv.wav", {}, true).status, 0);
  EXPECT_FALSE(readbytes(path("nofv.wav")) == readbytes(path("fv.wav")));
}

TEST_F(KestrelsynCli, DurationFactorSetsTheFrameShift) {
  const uint32_t nframes = 6;
  writeutt("u", makefeatures(nframes));
  const struct {
    std::vector<std::string> opts;
    uint32_t shift;
  } cases[] = {
      {{}, 80},
      {{"--fdur=1.3"}, 104},
      {{"--fdur=0.3"}, 23},   // 80 x 0.3 lies just below 24
      {{"--fdur=0.7"}, 55},   // and 80 x 0.7 just below 56
      {{"--fdur=10"}, 320},
      {{"--fdur=0.1"}, 20},
      {{"--fdur=nan"}, 320},
      {{"--fdur=inf"}, 320},
      {{"--fdur=-inf"}, 20},
      {{"--fdur=4"}, 320},
      {{"--fdur=0.25"}, 20},
      {{"--lframe=100", "--fdur=2"}, 200},
      {{"--lframe=80abc"}, 80},
      {{"--LFRAME=40"}, 40},
      {{"--FDur=1.5x"}, 120},
      {{"--fdur=0x1p1"}, 160},
      {{"--lframe=3", "--fdur=4"}, 12},
      {{"--lframe=4", "--fdur=0.25"}, 1},
      {{"--lframe=-2147483647", "--fdur=2"}, 2},  // 2^32 + 2, low 32 bits
  };
  for (const auto &c : cases) {
    const std::string shown = c.opts.empty() ? "(none)" : c.opts[0];
    const Result r = synth("u", "d.wav", c.opts);
    EXPECT_EQ(r.status, 0) << shown;
    EXPECT_EQ(r.out, "") << shown;
    const Wav w = readwav(path("d.wav"));
    ASSERT_TRUE(w.ok) << shown;
    EXPECT_EQ(w.n, (nframes + 1) * c.shift + 1) << shown;
    fs::remove(path("d.wav"));
  }
}

TEST_F(KestrelsynCli, LargestFrameShiftIsAccepted) {
  writeutt("one", makefeatures(1));
  const Result r = synth("one", "big.wav", {"--lframe=1048576"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(fs::file_size(path("big.wav")), 44u + 2u * (2u * 1048576u + 1u));
}

TEST_F(KestrelsynCli, OutputLengthLimit) {
  // (255 + 1) x 2^20 + 1 is one sample over the limit; (4095 + 1) x 2^20 + 1
  // is 2^32 + 1, which a 32-bit length would have wrapped to 1.
  for (uint32_t nframes : {255u, 4095u}) {
    const std::string stem = "n" + std::to_string(nframes);
    writeutt(stem, makefeatures(nframes, 0));
    const Result r = synth(stem, "long.wav", {"--lframe=1048576"}, false);
    const uint64_t needed = (static_cast<uint64_t>(nframes) + 1) * 1048576u + 1;
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Error: " + path(stem + ".lf0") + " would need " + std::to_string(needed) +
                         " output samples (limit 268435456).\n");
    EXPECT_FALSE(fs::exists(path("long.wav")));
  }
  // The check comes before the voiced-frequency file is looked at.
  const Result r = run({path("n255.lf0"), path("n255.cc"), path("nofile.fv"), path("long.wav"), "--lframe=1048576"});
  EXPECT_EQ(r.out, "Error: " + path("n255.lf0") + " would need 268435457 output samples (limit 268435456).\n");
}

TEST_F(KestrelsynCli, UnreadableOrIncompatibleFeatureFiles) {
  const uint32_t nframes = 5;
  writeutt("u", makefeatures(nframes));
  writefloats(path("empty.bin"), {});
  std::ofstream(path("three.bin"), std::ios::binary).write("abc", 3);
  writefloats(path("cc11.bin"), std::vector<float>(11, 0.1f));  // not a multiple of 5
  writefloats(path("cc3.bin"), std::vector<float>(3, 0.1f));    // fewer values than frames
  const std::string f0 = path("u.lf0"), cc = path("u.cc"), out = path("out.wav");

  const struct {
    std::string f0, cc, message;
  } cases[] = {
      {path("missing.lf0"), cc, "Error: could not open " + path("missing.lf0") + ".\n"},
      {path("empty.bin"), cc, "Error: could not open " + path("empty.bin") + ".\n"},
      {path("three.bin"), cc, "Error: could not open " + path("three.bin") + ".\n"},
      {dir_, cc, "Error: could not open " + dir_ + ".\n"},
      {f0, path("missing.cc"), "Error: could not open " + path("missing.cc") + ".\n"},
      {f0, path("empty.bin"), "Error: could not open " + path("empty.bin") + ".\n"},
      {f0, path("cc11.bin"), "Error: " + f0 + " and " + path("cc11.bin") + " have incompatible dimensions.\n"},
      {f0, path("cc3.bin"), "Error: " + f0 + " and " + path("cc3.bin") + " have incompatible dimensions.\n"},
  };
  for (const auto &c : cases) {
    const Result r = run({c.f0, c.cc, out});
    EXPECT_EQ(r.status, 0) << c.message;
    EXPECT_EQ(r.out, c.message);
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(fs::exists(out)) << c.message;
  }

  // One value per frame is a valid order-0 matrix.
  writefloats(path("cc5.bin"), std::vector<float>(5, 0.1f));
  const Result r = run({f0, path("cc5.bin"), out});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readwav(out).n, (nframes + 1) * 80 + 1);
}

TEST_F(KestrelsynCli, VoicedFrequencyTrackProblemsAreWarnings) {
  const uint32_t nframes = 8;
  writeutt("u", makefeatures(nframes));
  writefloats(path("fvshort.bin"), std::vector<float>(nframes - 1, 4000.0f));
  writefloats(path("fvlong.bin"), std::vector<float>(nframes + 3, 4000.0f));
  writefloats(path("empty.bin"), {});
  const std::string f0 = path("u.lf0"), cc = path("u.cc"), out = path("out.wav");
  const struct {
    std::string fv, message;
  } cases[] = {
      {path("missing.fv"), "Warning: could not open " + path("missing.fv") + ".\n"},
      {path("empty.bin"), "Warning: could not open " + path("empty.bin") + ".\n"},
      {path("fvshort.bin"), "Warning: " + f0 + " and " + path("fvshort.bin") + " have incompatible dimensions.\n"},
      {path("fvlong.bin"), ""},
  };
  ASSERT_EQ(run({f0, cc, path("nofv.wav")}).status, 0);
  ASSERT_EQ(run({f0, cc, path("u.fv"), path("fv.wav")}).status, 0);
  for (const auto &c : cases) {
    const Result r = run({f0, cc, c.fv, out});
    EXPECT_EQ(r.status, 0) << c.fv;
    EXPECT_EQ(r.out, c.message);
    const Wav w = readwav(out);
    EXPECT_EQ(w.n, (nframes + 1) * 80 + 1) << c.fv;
    // Without a usable track the output is the one without fv; a longer
    // track is used (its surplus ignored).
    const std::string same = c.message.empty() ? "fv.wav" : "nofv.wav";
    EXPECT_TRUE(w.raw == readbytes(path(same))) << c.fv;
    fs::remove(out);
  }
}

TEST_F(KestrelsynCli, OutputNotCreatable) {
  writeutt("u", makefeatures(5));
  const std::string out = path("no/such/dir/out.wav");
  const Result r = synth("u", "no/such/dir/out.wav", {});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Error: could not create " + out + ".\n");
  const Result d = run({path("u.lf0"), path("u.cc"), dir_});  // a directory
  EXPECT_EQ(d.status, 0);
  EXPECT_EQ(d.out, "Error: could not create " + dir_ + ".\n");
}

TEST_F(KestrelsynCli, AlphaCompatibilityWarning) {
  writeutt("u", makefeatures(12));
  const std::string warning = "Warning: floud, fpfilt and fdrc not applicable for this alpha.\n";
  const struct {
    std::vector<std::string> opts;
    bool warns;
  } cases[] = {
      {{"--alpha=0.55", "--floud=1"}, true},
      {{"--alpha=0.55", "--fpfilt=-1"}, true},  // tested before clamping makes it 0
      {{"--alpha=0.55", "--fdrc=0.5"}, true},
      {{"--alpha=nan", "--fpfilt=0.5"}, true},
      {{"--alpha=0.55", "--floud=nan"}, true},
      {{"--alpha=0.55", "--floud=0"}, false},
      {{"--alpha=0.55"}, false},
      {{"--alpha=0.42", "--fwarp=0.1", "--floud=1"}, false},
      {{"--floud=1", "--fpfilt=0.5", "--fdrc=0.5"}, false},
  };
  for (const auto &c : cases) {
    const Result r = synth("u", "w.wav", c.opts);
    EXPECT_EQ(r.status, 0) << c.opts[0] << " " << (c.opts.size() > 1 ? c.opts[1] : "");
    // A NaN alpha also makes the synthesised samples NaN.
    const std::string nonfinite = "Warning: " + path("w.wav") + " contains non-finite samples, written as -32768.\n";
    const std::string expected = std::string(c.warns ? warning : "") + (c.opts[0] == "--alpha=nan" ? nonfinite : "");
    EXPECT_EQ(r.out, expected) << c.opts[0] << " " << (c.opts.size() > 1 ? c.opts[1] : "");
    EXPECT_TRUE(fs::exists(path("w.wav")));
  }
  // The three filters are really switched off; with alpha 0.42 the loudness
  // filter stays on even when fwarp moves the final alpha away from 0.42.
  ASSERT_EQ(synth("u", "a55.wav", {"--alpha=0.55"}).status, 0);
  ASSERT_EQ(synth("u", "a55loud.wav", {"--alpha=0.55", "--floud=1", "--fpfilt=1", "--fdrc=1"}).status, 0);
  EXPECT_TRUE(readbytes(path("a55.wav")) == readbytes(path("a55loud.wav")));
  ASSERT_EQ(synth("u", "warp.wav", {"--fwarp=0.1"}).status, 0);
  ASSERT_EQ(synth("u", "warploud.wav", {"--fwarp=0.1", "--floud=1"}).status, 0);
  EXPECT_FALSE(readbytes(path("warp.wav")) == readbytes(path("warploud.wav")));
}

// Options whose effect shows only through real synthesis: clamping, the
// composition of warpings, HTS rescaling, normalisation.
TEST_F(KestrelsynCli, OptionEffects) {
  writeutt("u", makefeatures(16));
  auto render = [&](const std::string &name, const std::vector<std::string> &opts) {
    const Result r = synth("u", name, opts, true);
    EXPECT_EQ(r.status, 0) << name;
    EXPECT_EQ(r.out, "") << name;
    return readbytes(path(name));
  };
  const Bytes base = render("base.wav", {});
  struct Same {
    std::vector<std::string> a, b;
  };
  const Same same[] = {
      {{"--fpitch=10"}, {"--fpitch=4"}},
      {{"--fpitch=nan"}, {"--fpitch=4"}},
      {{"--fpitch=0.1"}, {"--fpitch=0.25"}},
      {{"--FPITCH=2"}, {"--fpitch=2"}},
      {{"--fvpitch=-1"}, {"--fvpitch=0"}},
      {{"--fvpitch=5"}, {"--fvpitch=4"}},
      {{"--fwarp=1"}, {"--fwarp=0.99"}},
      {{"--fwarp=-5"}, {"--fwarp=-0.99"}},
      {{"--floud=5"}, {"--floud=4"}},
      {{"--floud=-inf"}, {"--floud=-4"}},
      {{"--fpfilt=2"}, {"--fpfilt=1"}},
      {{"--fpfilt=-1"}, {}},
      {{"--fdrc=-1"}, {}},
      {{"--fdrc=7"}, {"--fdrc=1"}},
      {{"--fpitch=1"}, {}},
      {{"--htsscale=0"}, {"--htsscale=2"}},
      {{"--wavnorm=257"}, {"--wavnorm=1"}},
      {{"--wavnorm=-255"}, {"--wavnorm=1"}},
      {{"--wavnorm=2"}, {}},
      {{"--wavnorm=256"}, {}},
  };
  for (const Same &s : same) {
    const std::string shown = s.a[0] + " vs " + (s.b.empty() ? std::string("(none)") : s.b[0]);
    EXPECT_TRUE(render("a.wav", s.a) == (s.b.empty() ? base : render("b.wav", s.b))) << shown;
  }
  for (const char *opt : {"--fpitch=2", "--fvpitch=2", "--fwarp=0.1", "--floud=1", "--fpfilt=1", "--fdrc=1",
                          "--htsscale=0", "--wavnorm=1", "--alpha=0.3"})
    EXPECT_FALSE(render("c.wav", {opt}) == base) << opt << " has no effect";

  // fwarp composes with alpha: (alpha - fwarp) / (1 - fwarp alpha).
  for (double fwarp : {0.1, -0.3}) {
    char composed[64], warp[64];
    std::snprintf(composed, sizeof composed, "--alpha=%.17g", (0.42 - fwarp) / (1.0 - fwarp * 0.42));
    std::snprintf(warp, sizeof warp, "--fwarp=%.17g", fwarp);
    EXPECT_TRUE(render("w1.wav", {warp}) == render("w2.wav", {composed})) << warp;
  }

  // HTS rescaling is c0 - 5 and halving: default on u equals htsscale 0 on
  // the rescaled cepstra (exact in float for these values).
  Features f = makefeatures(16);
  for (size_t i = 0; i < f.cc.size(); ++i) f.cc[i] = (i % 25 == 0) ? f.cc[i] - 5.0f : f.cc[i] * 0.5f;
  writeutt("pre", f);
  const Result pre = run({path("pre.lf0"), path("pre.cc"), path("pre.fv"), path("pre.wav"), "--htsscale=0"});
  EXPECT_EQ(pre.status, 0);
  EXPECT_TRUE(readbytes(path("pre.wav")) == base);

  // Normalisation puts the peak at 0.99 of full scale, truncated: 32440.
  render("norm.wav", {"--wavnorm=1"});
  const Wav w = readwav(path("norm.wav"));
  int peak = 0;
  for (int16_t v : w.s) peak = std::max(peak, std::abs(static_cast<int>(v)));
  EXPECT_EQ(peak, 32440);
}

TEST_F(KestrelsynCli, NonFiniteFeatures) {
  Features f = makefeatures(8);
  f.cc[25] = std::numeric_limits<float>::quiet_NaN();  // c0 of frame 1
  f.cc[30] = HUGE_VALF;
  writeutt("bad", f);
  const Result r = synth("bad", "bad.wav", {});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "Warning: " + path("bad.wav") + " contains non-finite samples, written as -32768.\n");
  const Wav w = readwav(path("bad.wav"));
  EXPECT_EQ(w.n, 9u * 80u + 1u);
  EXPECT_TRUE(std::find(w.s.begin(), w.s.end(), -32768) != w.s.end());
}

TEST_F(KestrelsynCli, BatchOverNumberedFiles) {
  fs::create_directory(path("in"));
  fs::create_directory(path("out"));
  writeutt("in/utt001", makefeatures(5));
  writeutt("in/utt003", makefeatures(7));
  writeutt("in/utt004", makefeatures(9));
  const std::string f0 = path("in/utt???.lf0"), cc = path("in/utt???.cc"), out = path("out/utt???.wav");

  // A missing file in the middle: reported, and the batch goes on.
  Result r = run({f0, cc, out, "--indlist=1-4"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, path("out/utt001.wav") + "\n" + path("out/utt002.wav") + "\n" + "Error: could not open " +
                       path("in/utt002.lf0") + ".\n" + path("out/utt003.wav") + "\n" + path("out/utt004.wav") + "\n");
  EXPECT_EQ(readwav(path("out/utt001.wav")).n, 6u * 80u + 1u);
  EXPECT_FALSE(fs::exists(path("out/utt002.wav")));
  EXPECT_EQ(readwav(path("out/utt003.wav")).n, 8u * 80u + 1u);
  EXPECT_EQ(readwav(path("out/utt004.wav")).n, 10u * 80u + 1u);

  // Several intervals; the fv name follows too.
  fs::remove_all(path("out"));
  fs::create_directory(path("out"));
  r = run({f0, cc, path("in/utt???.fv"), out, "--indlist=1,3-4(3)"});
  EXPECT_EQ(r.out, path("out/utt001.wav") + "\n" + path("out/utt003.wav") + "\n" + path("out/utt004.wav") + "\n");
  EXPECT_TRUE(fs::exists(path("out/utt004.wav")));

  // Without an index list the names are taken literally.
  r = run({f0, cc, out});
  EXPECT_EQ(r.out, "Error: could not open " + f0 + ".\n");
}

TEST_F(KestrelsynCli, BatchNamesWithoutOrWithNarrowPlaceholders) {
  writeutt("s7", makefeatures(4));
  writeutt("s8", makefeatures(4));
  // No placeholder in the output name: kept unchanged, written each time.
  Result r = run({path("s?.lf0"), path("s?.cc"), path("fixed.wav"), "--indlist=7-8"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, path("fixed.wav") + "\n" + path("fixed.wav") + "\n");
  EXPECT_TRUE(fs::exists(path("fixed.wav")));

  // Placeholders too narrow for 10: the first offending name in the order
  // f0, cc, fv, out is reported after the output name; the batch goes on.
  writeutt("t09", makefeatures(4));
  writeutt("t10", makefeatures(4));
  r = run({path("t??.lf0"), path("t??.cc"), path("w?.wav"), "--indlist=9-10"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, path("w9.wav") + "\n" + path("w9.wav") + "\nError: index 10 does not fit the file-name placeholder of " +
                       path("w9.wav") + ".\n");
  r = run({path("t?.lf0"), path("t??.cc"), path("w?.wav"), "--indlist=10,11"});
  EXPECT_EQ(r.out, path("w?.wav") + "\nError: index 10 does not fit the file-name placeholder of " + path("t?.lf0") +
                       ".\n" + path("w?.wav") + "\nError: index 11 does not fit the file-name placeholder of " +
                       path("t?.lf0") + ".\n");
  EXPECT_FALSE(fs::exists(path("w?.wav")));
}

TEST_F(KestrelsynCli, BatchEndsAtTheLargestIndex) {
  const std::string f0 = path("u??????????.lf0"), cc = path("u??????????.cc"), out = path("o??????????.wav");
  Result r = run({f0, cc, out, "--indlist=4294967295"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, path("o4294967295.wav") + "\nError: could not open " + path("u4294967295.lf0") + ".\n");
  r = run({f0, cc, out, "--indlist=4294967294-4294967295"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, path("o4294967294.wav") + "\nError: could not open " + path("u4294967294.lf0") + ".\n" +
                       path("o4294967295.wav") + "\nError: could not open " + path("u4294967295.lf0") + ".\n");
}

}  // namespace
