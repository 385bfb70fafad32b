// Build step: writes the noise-phase table (kestrel::NoisePhases, as it lies in
// memory) to the file named by argv[1], for the library to embed.
#include <cstdio>
#include <memory>

#include "noisephases.h"
#include "randgen.h"

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: noisephases_make OUT\n");
    return 1;
  }
  std::unique_ptr<kestrel::NoisePhases> t(new kestrel::NoisePhases());
  randgenseed(&t->after, 0);
  for (uint32_t i = 0; i < kestrel::kNoisePhaseDraws; ++i)
    kestrel::noisephase(randgendraw(&t->after), &t->cs[2 * i], &t->cs[2 * i + 1]);
  std::FILE *f = std::fopen(argv[1], "wb");
  const bool ok = f && std::fwrite(t.get(), sizeof(*t), 1, f) == 1;
  if ((f && std::fclose(f) != 0) || !ok) {
    std::fprintf(stderr, "Error: cannot write %s\n", argv[1]);
    std::remove(argv[1]);
    return 1;
  }
  return 0;
}
