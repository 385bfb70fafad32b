// List mode of both commands, end to end: the log and the files do not depend
// on --jobs, shards add up to the whole run, a killed run resumes with
// --skip-existing, failures are listed and set the exit status.
#include <signal.h>

#include <chrono>
#include <map>
#include <thread>

#include "support/cliutil.h"

#if defined(KESTRELANA_PATH) && defined(KESTRELSYN_PATH)

namespace {

using namespace kestreltest;
using Tree = std::map<std::string, Bytes>;

const std::string kAna = KESTRELANA_PATH, kSyn = KESTRELSYN_PATH;
const std::string kSpeech = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/";

std::string text(const std::string &path) {
  const Bytes b = readbytes(path);
  return std::string(b.begin(), b.end());
}

// Every regular file under dir (name -> bytes).
Tree tree(const std::string &dir) {
  Tree t;
  if (fs::exists(dir))
    for (const auto &e : fs::directory_iterator(dir))
      if (e.is_regular_file()) t[e.path().filename().string()] = readbytes(e.path().string());
  return t;
}

std::string replaceall(std::string s, const std::string &from, const std::string &to) {
  for (size_t k = 0; (k = s.find(from, k)) != std::string::npos; k += to.size()) s.replace(k, from.size(), to);
  return s;
}

class BatchTest : public CliTest {
 protected:
  // @/wav.scp: n copies of two bundled recordings under ids without numbers,
  // with a missing file ("gone") and a file that is not audio ("garbled")
  // after the second; a comment and a blank line.
  void writelist(int n) {
    const char *recs[] = {"f_vctk_p225_001", "f_axb_arctic_a0004"};
    writebytes(at("@/noise.wav"), Bytes(300, 'x'));
    std::string scp = "# uttid path\n\n";
    for (int i = 0; i < n; ++i) {
      scp += std::string("spk_") + char('a' + i % 26) + char('a' + i / 26) + "_" + recs[i % 2] + "  " + kSpeech +
             recs[i % 2] + ".wav\n";
      if (i == 1) scp += at("gone\t@/missing.wav\ngarbled @/noise.wav\n");
    }
    std::ofstream(at("@/wav.scp")) << scp;
  }
  // Runs a list-mode command; its log with the directory replaced by "@".
  Result runlist(const std::string &prog, const std::string &a, int status) {
    Result r = run(prog, args(a));
    EXPECT_EQ(r.status, status) << a << "\n" << r.out;
    EXPECT_EQ(r.err, "") << a;
    r.out = replaceall(r.out, dir, "@");
    return r;
  }
};

TEST_F(BatchTest, LogsAndFilesDoNotDependOnJobsAndFailuresAreAccounted) {
  writelist(4);
  Result ana1, syn1;
  for (const char *j : {"1", "2", "4"}) {
    // Two jobs also split each utterance over two threads.
    const std::string f = std::string("@/f") + j, w = std::string("@/w") + j;
    const std::string t = std::string(j) == "2" ? " --threads=2" : "";
    Result ana = runlist(kAna, "--list=@/wav.scp --outdir=" + f + " --failed=@/failed" + j + " --jobs=" + j + t, 1);
    Result syn = runlist(kSyn, "--list=@/wav.scp --featdir=" + f + " --outdir=" + w + " --jobs=" + j + t, 1);
    ana.out = replaceall(ana.out, f.substr(2), "f");
    syn.out = replaceall(replaceall(syn.out, f.substr(2), "f"), w.substr(2), "w");
    EXPECT_EQ(text(at("@/failed") + j), "gone\ngarbled\n") << j;
    if (std::string(j) == "1") {
      ana1 = ana, syn1 = syn;
      continue;
    }
    EXPECT_EQ(ana.out, ana1.out) << j;
    EXPECT_EQ(syn.out, syn1.out) << j;
    EXPECT_EQ(tree(at(f)), tree(at("@/f1"))) << j;
    EXPECT_EQ(tree(at(w)), tree(at("@/w1"))) << j;
  }
  EXPECT_EQ(ana1.out,
            "@/f/spk_aa_f_vctk_p225_001.cc\n@/f/spk_ba_f_axb_arctic_a0004.cc\n@/f/gone.cc\n"
            "Error: could not open @/missing.wav.\n@/f/garbled.cc\n"
            "Error: @/noise.wav is not an audio file that can be read (Format not recognised).\n"
            "@/f/spk_ca_f_vctk_p225_001.cc\n@/f/spk_da_f_axb_arctic_a0004.cc\n2 of 6 utterances failed.\n");
  EXPECT_NE(syn1.out.find("@/w/gone.wav\nError: could not open @/f/gone.lf0.\n"), std::string::npos);
  EXPECT_EQ(tree(at("@/f1")).size(), 12u);
  EXPECT_EQ(tree(at("@/w1")).size(), 4u);

  // The list's WAV is the one the single-utterance command writes.
  const std::string id = "@/f1/spk_aa_f_vctk_p225_001";
  expectrun(kSyn, id + ".lf0 " + id + ".cc " + id + ".fv @/single.wav", 0, "");
  EXPECT_EQ(bytes("@/single.wav"), bytes("@/w1/spk_aa_f_vctk_p225_001.wav"));

  // A clean list from standard input (only the first field counts): exit 0, no summary.
  std::ofstream(at("@/clean.scp")) << "spk_ca_f_vctk_p225_001 whatever\n";
  const std::string clean = at("@/clean.scp");
  const Result r = run(kSyn, args("--list=- --featdir=@/f1 --outdir=@/clean"),
                       [&clean] { dup2(open(clean.c_str(), O_RDONLY), 0); });
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(replaceall(r.out, dir, "@"), "@/clean/spk_ca_f_vctk_p225_001.wav\n");
}

TEST_F(BatchTest, ShardsAddUpToTheWholeRun) {
  writelist(3);
  runlist(kAna, "--list=@/wav.scp --outdir=@/all", 1);
  Tree shards;
  for (int k = 1; k <= 3; ++k) {
    const std::string d = "@/s" + std::to_string(k);
    runlist(kAna, "--list=@/wav.scp --outdir=" + d + " --shard=" + std::to_string(k) + "/3", k == 2 ? 0 : 1);
    for (auto &f : tree(at(d))) EXPECT_TRUE(shards.insert(f).second) << f.first;
  }
  EXPECT_EQ(shards, tree(at("@/all")));
}

TEST_F(BatchTest, AKilledRunResumesWithSkipExistingToTheSameFiles) {
  writelist(8);
  runlist(kAna, "--list=@/wav.scp --outdir=@/ref", 1);
  // Kill a run once it has written a few utterances.
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execl(kAna.c_str(), kAna.c_str(), at("--list=@/wav.scp").c_str(), at("--outdir=@/run").c_str(), nullptr);
    _exit(127);
  }
  for (int t = 0; t < 2000 && tree(at("@/run")).size() < 6; ++t) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  const size_t done = tree(at("@/run")).size() / 3;
  ASSERT_GE(done, 2u);
  ASSERT_LT(done, 8u) << "the run finished before it could be killed";
  const auto first = fs::last_write_time(at("@/run/spk_aa_f_vctk_p225_001.cc"));
  const Result r = runlist(kAna, "--list=@/wav.scp --outdir=@/run --skip-existing", 1);
  EXPECT_NE(r.out.find(std::to_string(done) + " of 10 utterances skipped: their outputs exist.\n"),
            std::string::npos) << r.out;
  EXPECT_EQ(fs::last_write_time(at("@/run/spk_aa_f_vctk_p225_001.cc")), first);
  Tree run = tree(at("@/run"));
  for (auto it = run.begin(); it != run.end();) it = it->first.find(".tmp") != std::string::npos ? run.erase(it) : ++it;
  EXPECT_EQ(run, tree(at("@/ref")));
}

TEST_F(BatchTest, ListAndOptionErrorsStopTheRunBeforeAnything) {
  const struct {
    const char *list;  // written to @/l.scp
    const char *args;
    const char *out;
  } cases[] = {
      {"a x.wav\nb\n", "--list=@/l.scp --outdir=@/o", "Error: @/l.scp line 2: expected 'uttid path', found only 'b'.\n"},
      {"a x.wav\n\na y.wav\n", "--list=@/l.scp --outdir=@/o",
       "Error: @/l.scp line 3: utterance id 'a' already given on line 1.\n"},
      {"../up x.wav\n", "--list=@/l.scp --outdir=@/o", "Error: @/l.scp line 1: utterance id '../up' contains '/'.\n"},
      {"..\tx.wav\n", "--list=@/l.scp --outdir=@/o", "Error: @/l.scp line 1: utterance id '..' is not a file name.\n"},
      {"a sox x.wav -t wav - |\n", "--list=@/l.scp --outdir=@/o",
       "Error: @/l.scp line 1: commands ending in '|' are not supported; give a file.\n"},
      {"", "--list=@/none.scp --outdir=@/o", "Error: could not open @/none.scp.\n"},
      {"", "--list=@/l.scp", "Error: --list needs --outdir (and takes no --featdir).\n"},
      {"", "--list=@/l.scp --outdir=@/o --shard=0/2", "Error: --shard=0/2 must be K/N with 1 <= K <= N.\n"},
      {"", "--list=@/l.scp --outdir=@/o --shard=3/2", "Error: --shard=3/2 must be K/N with 1 <= K <= N.\n"},
      {"", "--list=@/l.scp --outdir=@/o --jobs=-1",
       "Error: --jobs=-1 is not a thread count (0 = all cores, at most 1024).\n"},
      {"", "@/a.wav @/a.lf0 @/a.cc --jobs=2",
       "Error: --outdir, --jobs, --shard, --skip-existing, --failed and --progress need --list.\n"},
      {"", "@/a.wav --list=@/l.scp --outdir=@/o", "Error: incorrect input arguments.\nType 'kestrelana' for help.\n"},
      {"", "--list=@/l.scp --outdir=@/o --skip-existing --skip-existing",
       "Error: incorrect input arguments.\nType 'kestrelana' for help.\n"},
  };
  for (const auto &c : cases) {
    std::ofstream(at("@/l.scp")) << c.list;
    expectrun(kAna, c.args, 255, c.out);
    EXPECT_FALSE(fs::exists(at("@/o"))) << c.args;
  }
  expectrun(kSyn, "--list=@/l.scp --outdir=@/o", 255, "Error: --list needs --featdir and --outdir.\n");
}

}  // namespace

#endif
