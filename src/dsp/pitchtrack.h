// Internal to the library (C++ linkage, not exported): the candidate table
// and path search of the autocorrelation pitch tracker in pitchanalysis.cpp,
// declared here so that the unit tests can drive each step on hand-made
// autocorrelations and candidate tables.
#ifndef KESTREL_PITCHTRACK_H
#define KESTREL_PITCHTRACK_H

#include <cstdint>

namespace kestrel {
namespace pitchtrack {

// Slots 0..4: voiced candidates (frequency 0 = empty; the slot scan never
// fills slot 0). Slot 5: the unvoiced candidate, frequency always 0.
constexpr uint32_t kSlots = 6;
constexpr uint32_t kUnvoiced = 5;

struct PitchFrameCandidates {
  double frequency[kSlots];
  // Separately allocated (malloc) 6 doubles: candidate strengths, then in
  // place the accumulated path costs; freed once the next frame is linked.
  double *strength;
  uint32_t back[kSlots];
};

// Tracker constants for one call (step length t = 0.01 s / frame shift).
struct TrackerCosts {
  double voicingthreshold;  // V = 0.45
  double silencethreshold;  // S = 0.03
  double octavecost;        // C = 0.01
  double octavejumpcost;    // J = 0.35 * t
  double voicedunvoicedcost;  // 0.14 * t, either direction
};
TrackerCosts trackercosts(double fs, uint32_t shift);

// Empty record with a fresh strength array (all slots empty, strengths 0).
void initframe(PitchFrameCandidates *rec);

// Strength of the unvoiced candidate from the local peak P and global peak G.
double unvoicedstrength(double P, double G, const TrackerCosts &k);

// Offers one voiced candidate of ranked strength s and period T (seconds) to
// slots 1..4: the weakest slot (scan stops at a strength of exactly 0; first
// wins ties) takes it when that slot is empty or no stronger than s.
void offercandidate(PitchFrameCandidates *rec, double s, double T);

// Scans nr[minlag .. maxlag] (nr also read at minlag-1 and maxlag+1) for
// qualifying peaks and offers each one, in increasing lag order.
void findvoicedcandidates(const double *nr, uint32_t minlag, uint32_t maxlag, double fs, double f0min,
                          const TrackerCosts &k, PitchFrameCandidates *rec);

// Adds C*log2(f0min/F) to the strength of every voiced slot with F != 0.
void removeoctavecost(PitchFrameCandidates *rec, double f0min, const TrackerCosts &k);

// Frame 0: cost = -strength for all six slots.
void startpath(PitchFrameCandidates *first);
// Frame k > 0: overwrites cur's strengths with path costs and sets back[].
// Does not free prev's array (the caller does, right after).
void linkframe(const PitchFrameCandidates *prev, PitchFrameCandidates *cur, const TrackerCosts &k);
// Slot of the last frame where the cheapest path ends.
uint32_t finalslot(const PitchFrameCandidates *last);
// Writes f0[0 .. nframes-1] along the back pointers from slot `slot` of the last frame.
void backtrack(const PitchFrameCandidates *recs, uint32_t nframes, uint32_t slot, double *f0);

}  // namespace pitchtrack
}  // namespace kestrel

#endif
