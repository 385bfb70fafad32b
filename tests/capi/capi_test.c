/* The public surface is plain C: every header compiles as C99 and entry points
 * of several modules are called through the shared library. Non-zero exit on a
 * wrong result. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "driver/kestrelsyn.h"
#include "dsp/ccanalysis.h"
#include "dsp/fvanalysis.h"
#include "dsp/harmonicanalysis.h"
#include "dsp/pitchanalysis.h"
#include "dsp/spectralanalysis.h"
#include "io/fdoubleio.h"
#include "io/wavm1616io.h"
#include "kernels/dft.h"
#include "kernels/windowing.h"
#include "math/matvect.h"
#include "math/polynom.h"
#include "params/paramread.h"

int main(void) {
  char name[] = "out/utt???.wav";
  double cc[2] = {6.0, 2.0}, x[2] = {1.0, 0.25};
  int16_t s[2] = {0, 0};
  const int ok = replacefileindex(name, 7u) == 0 && strcmp(name, "out/utt007.wav") == 0 &&
                 invhtsadapteradhoc(cc, 1u, 1u) == 0 && cc[0] == 1.0 && cc[1] == 1.0 &&
                 wavdouble2short(2u, x, s) == 0u && s[0] == 32767 && s[1] == 8192 &&
                 getwaveformlength(80u, 100u) == 8081u;
  if (!ok) printf("FAILED: a C call gave a wrong result\n");
  return ok ? 0 : 1;
}
