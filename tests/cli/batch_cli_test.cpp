// List mode of both commands, end to end: the log and the files do not depend
// on --jobs, an interrupted run resumes with --skip-existing, failures are listed and
// set the exit status.
#include <map>

#include "support/cliutil.h"

#if defined(KESTRELANA_PATH) && defined(KESTRELSYN_PATH)

namespace {

using namespace kestreltest;
using Tree = std::map<std::string, Bytes>;

const std::string kAna = KESTRELANA_PATH, kSyn = KESTRELSYN_PATH;

// Every file in dir (name -> bytes), a leftover temporary included.
Tree tree(const std::string &dir) {
  Tree t;
  for (const auto &e : fs::directory_iterator(dir)) t[e.path().filename().string()] = readbytes(e.path().string());
  return t;
}

class BatchTest : public CliTest {
 protected:
  // @/wav.scp: n copies of two bundled recordings under ids without numbers
  // (paths with trailing blanks), with a missing file ("gone") and a file that
  // is not audio ("garbled") after the second; a comment and a blank line.
  void writelist(int n) {
    const char *recs[] = {"f_vctk_p225_001", "f_axb_arctic_a0004"};
    writebytes(at("@/noise.wav"), Bytes(300, 'x'));
    std::string scp = "# uttid path\n\n";
    for (int i = 0; i < n; ++i) {
      scp += std::string("spk_") + char('a' + i % 26) + char('a' + i / 26) + "_" + recs[i % 2] + "  " +
             KESTREL_SOURCE_DIR + "/examples/speech/" + recs[i % 2] + ".wav \n";
      if (i == 1) scp += at("gone\t@/missing.wav\ngarbled @/noise.wav\n");
    }
    std::ofstream(at("@/wav.scp")) << scp;
  }
};

TEST_F(BatchTest, LogsAndFilesDoNotDependOnJobsAndFailuresAreAccounted) {
  writelist(4);
  for (const std::string j : {"1", "4"}) {  // four jobs also split each utterance over two threads
    const std::string opts = " --jobs=" + j + (j == "4" ? " --threads=2" : "");
    expectrun(kAna, "--list=@/wav.scp --outdir=@/f" + j + " --failed=@/failed" + j + opts, 1,
              "@/f" + j + "/spk_aa_f_vctk_p225_001.cc\n@/f" + j + "/spk_ba_f_axb_arctic_a0004.cc\n@/f" + j +
                  "/gone.cc\nError: could not open @/missing.wav.\n@/f" + j + "/garbled.cc\n"
                  "Error: @/noise.wav is not an audio file that can be read (Format not recognised).\n@/f" + j +
                  "/spk_ca_f_vctk_p225_001.cc\n@/f" + j + "/spk_da_f_axb_arctic_a0004.cc\n2 of 6 utterances failed.\n");
    const std::string log = run(kSyn, args("--list=@/wav.scp --featdir=@/f" + j + " --outdir=@/w" + j + opts)).out;
    EXPECT_NE(log.find(at("@/w" + j + "/gone.wav\nError: could not open @/f" + j + "/gone.lf0.\n")), std::string::npos);
    EXPECT_EQ(bytes("@/failed" + j), (Bytes{'g', 'o', 'n', 'e', '\n', 'g', 'a', 'r', 'b', 'l', 'e', 'd', '\n'}));
  }
  EXPECT_TRUE(tree(at("@/f4")) == tree(at("@/f1")) && tree(at("@/f1")).size() == 12u);
  EXPECT_TRUE(tree(at("@/w4")) == tree(at("@/w1")) && tree(at("@/w1")).size() == 4u);
  // The list's WAV is the one the single-utterance command writes.
  const std::string id = "@/f1/spk_aa_f_vctk_p225_001";
  expectrun(kSyn, id + ".lf0 " + id + ".cc " + id + ".fv @/single.wav", 0, "");
  EXPECT_EQ(bytes("@/single.wav"), bytes("@/w1/spk_aa_f_vctk_p225_001.wav"));
  // A clean list from standard input (only the first field counts; no fv is
  // no fv track): exit 0, no summary.
  fs::remove(at("@/f1/spk_ca_f_vctk_p225_001.fv"));
  std::ofstream(at("@/clean.scp")) << "spk_ca_f_vctk_p225_001 whatever\n";
  const std::string clean = at("@/clean.scp");
  expectrun(kSyn, "--list=- --featdir=@/f1 --outdir=@/clean", 0, "@/clean/spk_ca_f_vctk_p225_001.wav\n",
            [&clean] { dup2(open(clean.c_str(), O_RDONLY), 0); });
}

// A rerun with --skip-existing redoes only the utterances with an output
// missing (as a killed run leaves them) and keeps the others untouched. (That
// shards add up to the whole run is checked with the cluster recipes in tests/cluster.)
TEST_F(BatchTest, SkipExistingRedoesOnlyIncompleteUtterances) {
  writelist(2);
  run(kAna, args("--list=@/wav.scp --outdir=@/f"));
  run(kSyn, args("--list=@/wav.scp --featdir=@/f --outdir=@/w"));
  const Tree feats = tree(at("@/f")), wavs = tree(at("@/w"));
  const auto kept = fs::last_write_time(at("@/f/spk_aa_f_vctk_p225_001.cc"));
  for (const char *f : {"@/f/spk_ba_f_axb_arctic_a0004.fv", "@/w/spk_aa_f_vctk_p225_001.wav"}) fs::remove(at(f));
  expectrun(kAna, "--list=@/wav.scp --outdir=@/f --SKIP-EXISTING", 1,
            "@/f/spk_ba_f_axb_arctic_a0004.cc\n@/f/gone.cc\nError: could not open @/missing.wav.\n@/f/garbled.cc\n"
            "Error: @/noise.wav is not an audio file that can be read (Format not recognised).\n"
            "1 of 4 utterances skipped: their outputs exist.\n2 of 4 utterances failed.\n");
  expectrun(kSyn, "--list=@/wav.scp --featdir=@/f --outdir=@/w --skip-existing", 1,
            "@/w/spk_aa_f_vctk_p225_001.wav\n@/w/gone.wav\nError: could not open @/f/gone.lf0.\n@/w/garbled.wav\n"
            "Error: could not open @/f/garbled.lf0.\n"
            "1 of 4 utterances skipped: their outputs exist.\n2 of 4 utterances failed.\n");
  EXPECT_EQ(fs::last_write_time(at("@/f/spk_aa_f_vctk_p225_001.cc")), kept);
  EXPECT_TRUE(tree(at("@/f")) == feats && tree(at("@/w")) == wavs);
}

TEST_F(BatchTest, ListAndOptionErrorsStopTheRunBeforeAnything) {
  const std::string L = "--list=@/l.scp --outdir=@/o", U = "Error: incorrect input arguments.\nType 'kestrelana' for help.\n";
  const struct { std::string list, args, out; } cases[] = {
      {"a x.wav\nb\n", L, "Error: @/l.scp line 2: expected 'uttid path', found only 'b'.\n"},
      {"a x.wav\n\na y.wav\n", L, "Error: @/l.scp line 3: utterance id 'a' already given on line 1.\n"},
      {"../up x.wav\n", L, "Error: @/l.scp line 1: utterance id '../up' contains '/'.\n"},
      {"..\tx.wav\n", L, "Error: @/l.scp line 1: utterance id '..' is not a file name.\n"},
      {std::string("a\0b x.wav\n", 10), L, "Error: @/l.scp line 1: utterance id 'a\\0b' contains a NUL byte.\n"},
      {".\tx.wav\n", L, "Error: @/l.scp line 1: utterance id '.' is not a file name.\n"},
      {"a sox x.wav -t wav - |\n", L, "Error: @/l.scp line 1: commands ending in '|' are not supported; give a file.\n"},
      {"", "--list=@/none.scp --outdir=@/o", "Error: could not open @/none.scp.\n"},
      {"", "--list=@/l.scp --outdir=@/l.scp", "Error: could not create the directory @/l.scp.\n"},
      {"", "--list=@/l.scp", "Error: --list needs --outdir (and takes no --featdir).\n"},
      {"", L + " --shard=0/2", "Error: --shard=0/2 must be K/N with 1 <= K <= N.\n"},
      {"", L + " --shard=3/2", "Error: --shard=3/2 must be K/N with 1 <= K <= N.\n"},
      {"", L + " --jobs=-1", "Error: --jobs=-1 is not a thread count (0 = all cores, at most 1024).\n"},
      {"", "@/a.wav @/a.lf0 @/a.cc --jobs=2",
       "Error: --outdir, --jobs, --shard, --skip-existing, --failed and --progress need --list.\n"},
      {"", "@/a.wav " + L, U}, {"", L + " --skip-existing --skip-existing", U}};
  for (const auto &c : cases) {
    std::ofstream(at("@/l.scp")) << c.list;
    expectrun(kAna, c.args, 255, c.out);
    EXPECT_FALSE(fs::exists(at("@/o"))) << c.args;
  }
}

}  // namespace

#endif
