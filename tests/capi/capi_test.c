/* The public surface is plain C: every header compiles as C99 and a few entry
 * points are called through the shared library. Non-zero exit on a wrong result. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
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

static int failures = 0;

static void check(int ok, const char *what) {
  if (!ok) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

int main(void) {
  char name[] = "out/utt???.wav";
  char opt[] = "--LFrame=100";
  char *opts[1];
  int32_t lframe = 80;
  double cc[4] = {6.0, 2.0, 1.0, -4.0};
  double x[3] = {1.0, -1.0, 0.25};
  int16_t s[3] = {0, 0, 0};
  uint32_t *numbers = NULL;
  uint32_t n;

  check(getdigits(4294967295u) == 10u, "getdigits");
  check(replacefileindex(name, 7u) == 0 && strcmp(name, "out/utt007.wav") == 0, "replacefileindex");
  check(strnumdiagnose("1-3,7(2)") == 0 && strnumdiagnose("3,2") == -1, "strnumdiagnose");
  n = strnum2numarray("1-3,7", &numbers);
  check(n == 4u && numbers != NULL && numbers[3] == 7u, "strnum2numarray");
  free(numbers);
  opts[0] = opt;
  check(searchintparam(1u, opts, "lframe", &lframe) == 0 && lframe == 100 && unreadparams(1u, opts) == 0,
        "searchintparam");
  check(invhtsadapteradhoc(cc, 1u, 2u) == 0 && cc[0] == 1.0 && cc[1] == 1.0 && cc[2] == -4.0 && cc[3] == -2.0,
        "invhtsadapteradhoc");
  check(wavdouble2short(3u, x, s) == 0u && s[0] == 32767 && s[1] == -32768 && s[2] == 8192, "wavdouble2short");
  check(getwaveformlength(80u, 100u) == 8081u, "getwaveformlength");
  return failures == 0 ? 0 : 1;
}
