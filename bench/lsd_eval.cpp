// lsd_eval: log-spectral distance between a recording and its resynthesis,
// both 16 kHz mono 16-bit WAV files.
//
//   lsd_eval reference.wav test.wav      prints the distance in dB
//
// Definition: 25 ms Hann frames (400 samples, symmetric window) every 5 ms
// (80 samples), starting at sample 0, over the common length of the two
// files; 512-point power spectra P = |X|^2 + 1e-10 (the floor is far below
// the 16-bit quantisation noise of a frame); for each frame the RMS over the
// bins 0 .. 256 (0 .. 8 kHz) of 10 log10(P_ref / P_test); the result is the
// mean of that over the frames whose reference level (10 log10 of the
// windowed energy) lies within 60 dB of the loudest reference frame.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "dft.h"
#include "wavm1616io.h"
#include "windowing.h"

namespace {

constexpr uint32_t kFrame = 400;
constexpr uint32_t kHop = 80;
constexpr int32_t kFft = 512;
constexpr double kFloor = 1e-10;
constexpr double kRangeDb = 60.0;

struct Spectra {
  std::vector<double> db;  // (kFft/2 + 1) values per frame
  std::vector<double> level;
};

Spectra analyse(const double *x, uint32_t nframes, const std::vector<double> &win) {
  Spectra s;
  std::vector<double> re(kFft), im(kFft);
  for (uint32_t f = 0; f < nframes; ++f) {
    const double *seg = x + static_cast<size_t>(f) * kHop;
    double energy = 0.0;
    for (int32_t i = 0; i < kFft; ++i) {
      re[i] = (static_cast<uint32_t>(i) < kFrame) ? seg[i] * win[i] : 0.0;
      im[i] = 0.0;
      energy += re[i] * re[i];
    }
    s.level.push_back(10.0 * std::log10(energy + kFloor));
    fftr(kFft, re.data(), im.data());
    for (int32_t k = 0; k <= kFft / 2; ++k) s.db.push_back(10.0 * std::log10(re[k] * re[k] + im[k] * im[k] + kFloor));
  }
  return s;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::printf("Usage: %s reference.wav test.wav\n", argc > 0 ? argv[0] : "lsd_eval");
    return 2;
  }
  double *ref = nullptr, *test = nullptr;
  const uint32_t nref = wavreadm1616(argv[1], &ref);
  const uint32_t ntest = wavreadm1616(argv[2], &test);
  if (nref == 0 || ntest == 0) {
    std::printf("Error: could not read %s.\n", nref == 0 ? argv[1] : argv[2]);
    std::free(ref);
    std::free(test);
    return 1;
  }
  const uint32_t n = nref < ntest ? nref : ntest;
  const uint32_t nframes = n < kFrame ? 0 : (n - kFrame) / kHop + 1;
  if (nframes == 0) {
    std::printf("Error: shorter than one frame.\n");
    std::free(ref);
    std::free(test);
    return 1;
  }
  std::vector<double> win(kFrame);
  winhanning(win.data(), kFrame, 0);
  const Spectra a = analyse(ref, nframes, win), b = analyse(test, nframes, win);
  std::free(ref);
  std::free(test);

  double top = a.level[0];
  for (double l : a.level) top = l > top ? l : top;
  const uint32_t nbins = kFft / 2 + 1;
  double sum = 0.0;
  uint32_t used = 0;
  for (uint32_t f = 0; f < nframes; ++f) {
    if (a.level[f] < top - kRangeDb) continue;
    double acc = 0.0;
    for (uint32_t k = 0; k < nbins; ++k) {
      const double d = a.db[static_cast<size_t>(f) * nbins + k] - b.db[static_cast<size_t>(f) * nbins + k];
      acc += d * d;
    }
    sum += std::sqrt(acc / nbins);
    ++used;
  }
  std::printf("%.2f\n", sum / used);
  return 0;
}
