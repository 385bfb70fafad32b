// Pitch estimation: an autocorrelation tracker with a dynamic-programming path
// search, the island post-processor, and the signal helpers it shares with the
// rest of the analysis (pre-filter, autocorrelation, upsampling).
//
// Per frame, the mean-removed, Hann-windowed segment is autocorrelated and
// divided by the window's own autocorrelation; its peaks inside the lag range
// become up to four voiced candidates (slots 1..4; slot 0 is never filled) and
// slot 5 is the unvoiced candidate, strong when the frame is quiet relative to
// the loudest sample. The cheapest path through the candidates, charging for
// voicing changes and octave jumps, gives the track.
//
// Limits of this implementation (refused: f0 all 0, result -1): a sampling rate
// that is not positive and finite, shift 0, an analysis window (3 periods of
// f0min) shorter than 5 or longer than 2^20 samples. A failed allocation of the
// per-frame table is refused the same way.
#include "pitchanalysis.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "dft.h"
#include "pitchtrack.h"
#include "polynom.h"
#include "spectralanalysis.h"
#include "windowing.h"

namespace kestrel {
namespace pitchtrack {

TrackerCosts trackercosts(double fs, uint32_t shift) {
  const double t = (fs * 0.01) / static_cast<double>(shift);
  TrackerCosts k;
  k.voicingthreshold = 0.45;
  k.silencethreshold = 0.03;
  k.octavecost = 0.01;
  k.octavejumpcost = 0.35 * t;
  k.voicedunvoicedcost = 0.14 * t;
  return k;
}

void initframe(PitchFrameCandidates *rec) {
  for (uint32_t j = 0; j < kSlots; ++j) {
    rec->frequency[j] = 0.0;
    rec->back[j] = 0;
  }
  rec->strength = static_cast<double *>(std::calloc(kSlots, sizeof(double)));
}

double unvoicedstrength(double P, double G, const TrackerCosts &k) {
  double a = P / G;
  if (a > 1) a = 1;
  double bonus = 2 - a / (k.silencethreshold / (1 + k.voicingthreshold));
  if (!(bonus > 0)) bonus = 0;  // also for 0/0 in silence
  return k.voicingthreshold + bonus;
}

void offercandidate(PitchFrameCandidates *rec, double s, double T) {
  uint32_t weakest = 1;
  double smin = rec->strength[1];
  for (uint32_t i = 2; i <= 4 && smin != 0; ++i) {
    if (rec->strength[i] < smin) {
      smin = rec->strength[i];
      weakest = i;
    }
  }
  if (rec->frequency[weakest] == 0 || rec->strength[weakest] <= s) {
    rec->strength[weakest] = s;
    rec->frequency[weakest] = 1 / T;
  }
}

void findvoicedcandidates(const double *nr, uint32_t minlag, uint32_t maxlag, double fs, double f0min,
                          const TrackerCosts &k, PitchFrameCandidates *rec) {
  for (uint32_t lag = minlag; lag <= maxlag; ++lag) {
    const double v = nr[lag];
    if (!(v > 0.5 * k.voicingthreshold && v > nr[lag - 1] && v > nr[lag + 1])) continue;
    double coef[3];
    parabfit(nr[lag - 1], v, nr[lag + 1], coef);
    double d = parabextx(coef);
    double h = parabexty(coef);
    if ((lag == minlag && d < 0) || (lag == maxlag && d > 0)) {
      d = 0;
      h = v;
    }
    const double T = (static_cast<double>(lag) + d) / fs;
    if (h > 1) h = 1 / h;
    const double s = h - k.octavecost * std::log2(f0min * T);
    offercandidate(rec, s, T);
  }
}

void removeoctavecost(PitchFrameCandidates *rec, double f0min, const TrackerCosts &k) {
  for (uint32_t j = 0; j < kUnvoiced; ++j)
    if (rec->frequency[j] != 0) rec->strength[j] += k.octavecost * std::log2(f0min / rec->frequency[j]);
}

namespace {

bool usable(const PitchFrameCandidates *rec, uint32_t j) { return j == kUnvoiced || rec->frequency[j] != 0; }

double transition(const PitchFrameCandidates *prev, uint32_t i, const PitchFrameCandidates *cur, uint32_t j,
                  const TrackerCosts &k) {
  const bool iu = (i == kUnvoiced), ju = (j == kUnvoiced);
  if (iu && ju) return 0;
  if (iu || ju) return k.voicedunvoicedcost;
  return k.octavejumpcost * std::fabs(std::log2(cur->frequency[j] / prev->frequency[i]));
}

}  // namespace

void startpath(PitchFrameCandidates *first) {
  for (uint32_t j = 0; j < kSlots; ++j) first->strength[j] = -first->strength[j];
}

void linkframe(const PitchFrameCandidates *prev, PitchFrameCandidates *cur, const TrackerCosts &k) {
  for (uint32_t j = 0; j < kSlots; ++j) {
    if (!usable(cur, j)) continue;
    double best = DBL_MAX;
    uint32_t from = 0;
    for (uint32_t i = 0; i < kSlots; ++i) {
      if (!usable(prev, i)) continue;
      const double c = prev->strength[i] - cur->strength[j] + transition(prev, i, cur, j, k);
      if (c < best) {
        best = c;
        from = i;
      }
    }
    cur->strength[j] = best;
    cur->back[j] = from;
  }
}

uint32_t finalslot(const PitchFrameCandidates *last) {
  double best = DBL_MAX;
  uint32_t slot = kUnvoiced;  // kept only if no cost is below the bound (non-finite costs)
  for (uint32_t j = 0; j < kSlots; ++j) {
    if (!(last->frequency[j] > 0 || j == kUnvoiced)) continue;
    if (last->strength[j] < best) {
      best = last->strength[j];
      slot = j;
    }
  }
  return slot;
}

void backtrack(const PitchFrameCandidates *recs, uint32_t nframes, uint32_t slot, double *f0) {
  for (uint32_t k = nframes; k-- > 0;) {
    f0[k] = recs[k].frequency[slot];
    slot = recs[k].back[slot];
  }
}

}  // namespace pitchtrack
}  // namespace kestrel

namespace {

using kestrel::pitchtrack::PitchFrameCandidates;

constexpr uint32_t kMaxPitchWindow = 1u << 20;

// Owns the per-frame table; frees whatever strength arrays are still held.
struct CandidateTable {
  std::vector<PitchFrameCandidates> recs;
  ~CandidateTable() {
    for (PitchFrameCandidates &r : recs) std::free(r.strength);
  }
};

int refuse(uint32_t nframes, double *f0) {
  std::memset(f0, 0, sizeof(double) * nframes);
  return -1;
}

int trackpitch(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
               double f0min, double f0max, double *f0) {
  namespace pt = kestrel::pitchtrack;
  if (!(f0min > 0)) f0min = 60;
  if (!(f0max > f0min)) f0max = 500;
  if (!(fs > 0) || !std::isfinite(fs) || shift == 0 || !std::isfinite(f0min)) return refuse(nframes, f0);

  const uint32_t N = getwinlengthnperiodsodd(3.0, f0min, fs);
  if (N < 5 || N > kMaxPitchWindow) return refuse(nframes, f0);
  const uint32_t half = N / 2;
  const uint32_t nfft = getwinlengthceilpot2(N);
  const int64_t L = getwinlengthnperiodsodd(0.5, f0min, fs);
  const int64_t D = 2 * L;

  const pt::TrackerCosts costs = pt::trackercosts(fs, shift);
  // The autocorrelation arrays hold lags 0 .. half-1 and the peak test reads
  // one lag either side of the range, so the range is kept inside 1 .. half-2.
  double lagmin = std::ceil(fs / f0max);
  const double lagmax = std::floor(fs / f0min);
  if (lagmin < 1) lagmin = 1;
  const uint32_t minlag = static_cast<uint32_t>(lagmin);
  const uint32_t maxlag = (lagmax > half - 2) ? half - 2 : static_cast<uint32_t>(lagmax);

  CandidateTable table;
  table.recs.resize(nframes);
  std::unique_ptr<double, void (*)(void *)> filtered(applyfftfilter(x, n, fs), std::free);
  const double *y = filtered.get();
  if (!y) return refuse(nframes, f0);

  double G = 0;
  for (uint32_t i = 0; i < n; ++i)
    if (std::fabs(y[i]) > G) G = std::fabs(y[i]);

  std::vector<double> w(N);
  winhanning(w.data(), N, 0);
  std::vector<double> buf(2 * static_cast<size_t>(nfft), 0.0);
  for (uint32_t i = 0; i < N; ++i) buf[2 * static_cast<size_t>(i)] = w[i];
  autocorrelation(nfft, buf.data());
  std::vector<double> rw(half), nr(half, 0.0);
  for (uint32_t lag = 0; lag < half; ++lag) rw[lag] = buf[2 * static_cast<size_t>(lag)] / buf[0];

  const int64_t sn = n;
  for (uint32_t k = 0; k < nframes; ++k) {
    const uint32_t c = first + k * shift;
    const int64_t sc = c;
    std::fill(buf.begin(), buf.end(), 0.0);
    // Frames reaching past either end of the signal are zero-padded.
    const int64_t start = (half > c) ? half - sc : 0;
    int64_t end = N;
    if (sc + half > sn - 1) end = N - (sc + half - sn + 1);
    for (int64_t i = start; i < end; ++i) buf[2 * i] = y[i + sc - half];

    double m = 0;
    for (int64_t i = static_cast<int64_t>(half) - D; i <= static_cast<int64_t>(half) + D; ++i)
      if (i >= 0 && i < nfft) m += buf[2 * i];
    m = m / static_cast<double>(2 * D + 1);

    double P = 0;
    for (int64_t i = 0; i < N; ++i) {
      const double v = buf[2 * i] - m;
      if (i >= static_cast<int64_t>(half) - L && i <= static_cast<int64_t>(half) + L && std::fabs(v) > P)
        P = std::fabs(v);
      buf[2 * i] = v * w[i];
    }
    autocorrelation(nfft, buf.data());
    for (uint32_t lag = minlag - 1; lag <= maxlag + 1; ++lag) {
      const double v = (buf[2 * static_cast<size_t>(lag)] / buf[0]) / rw[lag];
      nr[lag] = (v <= 0) ? 0 : v;
    }

    PitchFrameCandidates &rec = table.recs[k];
    pt::initframe(&rec);
    if (!rec.strength) return refuse(nframes, f0);
    rec.strength[pt::kUnvoiced] = pt::unvoicedstrength(P, G, costs);
    pt::findvoicedcandidates(nr.data(), minlag, maxlag, fs, f0min, costs, &rec);
    pt::removeoctavecost(&rec, f0min, costs);

    if (k == 0) {
      pt::startpath(&rec);
    } else {
      PitchFrameCandidates &prev = table.recs[k - 1];
      pt::linkframe(&prev, &rec, costs);
      std::free(prev.strength);
      prev.strength = nullptr;
    }
  }
  filtered.reset();  // the filtered signal is not needed for the search

  const uint32_t slot = pt::finalslot(&table.recs[nframes - 1]);
  pt::backtrack(table.recs.data(), nframes, slot, f0);
  std::free(table.recs[nframes - 1].strength);
  table.recs[nframes - 1].strength = nullptr;

  elimislands(nframes, f0, fs, shift);
  return 0;
}

// A run of consecutive non-zero frames.
struct Run {
  uint32_t start, end;  // [start, end)
};

// Next run of non-zero frames at or after i; start == nframes when none.
Run nextrun(const double *f0, uint32_t nframes, uint32_t i) {
  while (i < nframes && f0[i] == 0) ++i;
  Run r{i, i};
  while (r.end < nframes && f0[r.end] != 0) ++r.end;
  return r;
}

}  // namespace

extern "C" {

int getpitch(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first, uint32_t nframes,
             double f0min, double f0max, double *f0) {
  if (nframes == 0) return 0;
  try {
    return trackpitch(x, n, fs, shift, first, nframes, f0min, f0max, f0);
  } catch (const std::bad_alloc &) {
    return refuse(nframes, f0);
  }
}

int autocorrelation(uint32_t nfft, double *buf) {
  if (nfft == 0 || (nfft & (nfft - 1)) != 0 || nfft > 0x40000000u) return -1;
  fftc(static_cast<int32_t>(nfft), buf);
  for (size_t k = 0; k < nfft; ++k) {
    const double re = buf[2 * k], im = buf[2 * k + 1];
    buf[2 * k] = re * re + im * im;
    buf[2 * k + 1] = 0;
  }
  ifftc(static_cast<int32_t>(nfft), buf);
  return 0;
}

double *applyfftfilter(const double *x, uint32_t n, double fs) {
  // Template: -30 dB below 45 Hz (hum, breath), flat 55 .. 3000 Hz, down to
  // -30 dB at 5000 Hz and above.
  static const double tfreq[] = {0, 45, 55, 3000, 5000, 1e6};
  static const double tdb[] = {-30, -30, 0, 0, -30, -30};
  if (!(fs > 0) || !std::isfinite(fs)) return nullptr;
  uint32_t nfft = 2048;
  if (fs != 16000) {
    const double want = std::trunc(2048 * fs / 16000);
    if (want > (1u << 22)) return nullptr;
    nfft = getwinlengthceilpot2(static_cast<uint32_t>(want));
    if (nfft < 4) nfft = 4;  // rates below 32 Hz: the shortest filter that exists
  }
  double *y = static_cast<double *>(std::malloc(sizeof(double) * (n > 0 ? n : 1)));
  if (!y) return nullptr;
  if (fftfilter(x, n, y, fs, nfft, tfreq, tdb, 6) != 0) {
    std::free(y);
    return nullptr;
  }
  return y;
}

double *upsampling(const double *x, uint32_t n, double fs, uint32_t L) {
  const uint64_t total = static_cast<uint64_t>(L) * n;
  const uint64_t order = 50 * static_cast<uint64_t>(L);
  if (L == 0 || total > 0xffffffffu || order >= 0xffffffffu) return nullptr;
  if (!(fs > 0) || !std::isfinite(fs)) return nullptr;
  std::vector<double> h;
  try {
    h.resize(order + 1);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
  const double rate = static_cast<double>(L) * fs;
  if (getlpwinfilter(h.data(), static_cast<uint32_t>(order), 0.4 * fs, rate) != 0) return nullptr;
  double *out = static_cast<double *>(std::calloc(total > 0 ? total : 1, sizeof(double)));
  if (!out) return nullptr;
  for (uint64_t i = 0; i < n; ++i) out[i * L] = x[i] * static_cast<double>(L);
  winfilternodelay(out, static_cast<uint32_t>(total), h.data(), static_cast<uint32_t>(order + 1));
  return out;
}

int elimislands(uint32_t nframes, double *f0, double fs, uint32_t shift) {
  if (nframes == 0 || shift == 0) return 0;
  const double M = std::floor(fs * 0.05 / static_cast<double>(shift));
  // No run can be longer than M+1 frames (or M is not a count): nothing to compare with.
  if (!(M >= 0) || M + 1 >= nframes) return 0;
  const uint32_t limit = static_cast<uint32_t>(M) + 1;

  double lo = DBL_MAX, hi = 0;
  for (Run r = nextrun(f0, nframes, 0); r.start < nframes; r = nextrun(f0, nframes, r.end)) {
    if (r.end - r.start <= limit) continue;
    for (uint32_t i = r.start; i < r.end; ++i) {
      if (f0[i] < lo) lo = f0[i];
      if (f0[i] > hi) hi = f0[i];
    }
  }
  if (hi == 0 || lo == DBL_MAX) return 0;

  // r1/r2 persist from island to island: a side without a voiced neighbour
  // keeps the previous island's ratio (initially 0 before, largest double after).
  double r1 = 0, r2 = DBL_MAX;
  bool havebefore = false;
  uint32_t before = 0;  // nearest non-zero frame left of the current run
  for (Run r = nextrun(f0, nframes, 0); r.start < nframes;) {
    const Run next = nextrun(f0, nframes, r.end);
    bool removed = false;
    if (r.end - r.start <= limit) {
      bool inside = false;
      for (uint32_t i = r.start; i < r.end && !inside; ++i) inside = (lo <= f0[i] && f0[i] <= hi);
      if (!inside) {
        if (havebefore) {
          r1 = f0[r.start] / f0[before];
          if (r1 < 1) r1 = 1 / r1;
        }
        if (next.start < nframes) {
          r2 = f0[r.end - 1] / f0[next.start];
          if (r2 < 1) r2 = 1 / r2;
        }
        if (r1 > 1.7 || r2 > 1.7) {
          for (uint32_t i = r.start; i < r.end; ++i) f0[i] = 0;
          removed = true;
        }
      }
    }
    if (!removed) {
      havebefore = true;
      before = r.end - 1;
    }
    r = next;
  }
  return 0;
}

}  // extern "C"
