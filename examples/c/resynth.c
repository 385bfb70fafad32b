/* Copy synthesis through the C interface of libkestrel: reads a 16 kHz mono
 * 16-bit WAV file, estimates f0 and maximum voiced frequency, analyses warped
 * cepstra and synthesises them again.
 *
 *   resynth in.wav out.wav
 *
 * Frame i is centred on sample (i + 1) * 80, the grid of the synthesis, and
 * the frame count makes the output at least as long as the input. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

int main(int argc, char **argv) {
  const double fs = 16000.0, alpha = 0.42;
  const uint32_t shift = 80, order = 39;
  double *x = NULL, *f0 = NULL, *fv = NULL, *cc = NULL, *y = NULL;
  uint32_t n, nframes, length;
  int status = 1;

  if (argc != 3) {
    printf("usage: %s in.wav out.wav\n", argv[0]);
    return 2;
  }
  n = wavreadm1616(argv[1], &x);
  if (n <= shift + 1) {
    printf("Error: could not read %s as a 16 kHz mono 16-bit WAV file.\n", argv[1]);
    return 1;
  }
  nframes = (n - 1 + shift - 1) / shift - 1; /* ceil((n - 1) / shift) - 1 */
  length = getwaveformlength(shift, nframes);
  f0 = malloc(nframes * sizeof *f0);
  fv = malloc(nframes * sizeof *fv);
  cc = malloc((size_t)getccsize(nframes, order) * sizeof *cc);
  y = malloc(length * sizeof *y);
  if (!f0 || !fv || !cc || !y) {
    printf("Error: out of memory.\n");
    goto done;
  }

  getpitch(x, n, fs, shift, shift, nframes, 60.0, 500.0, f0); /* Hz, 0 = unvoiced */
  getfvoicing(x, n, fs, shift, shift, nframes, f0, fv);       /* Hz */
  if (waveform2cc(x, n, fs, shift, shift, nframes, f0, order, cc, alpha, 0) != 0) {
    printf("Error: cepstral analysis failed.\n");
    goto done;
  }
  cc2waveform(y, length, fs, shift, nframes, f0, fv, order, cc, alpha);
  if (wavwritem1616(argv[2], y, length, 0, 0) != length) {
    printf("Error: could not create %s.\n", argv[2]);
    goto done;
  }
  printf("%s: %u frames, %u samples written to %s\n", argv[1], nframes, length, argv[2]);
  status = 0;

done:
  free(x);
  free(f0);
  free(fv);
  free(cc);
  free(y);
  return status;
}
