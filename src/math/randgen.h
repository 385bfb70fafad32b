/* randgen: the additive-feedback pseudo-random generator whose sequence fixes
 * the synthesis noise, held in a caller-owned state so that any number of
 * threads can draw at once. After randgenseed(s, seed) the draws equal those
 * of the C library's rand() after srand(seed) on GNU/Linux, on any platform. */
#ifndef KESTREL_RANDGEN_H
#define KESTREL_RANDGEN_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* 31 words of lagged-Fibonacci state and the two positions that are added
 * (front = rear + 3, cyclically). Plain data: copy it to fork a sequence. */
typedef struct RANDGEN {
  uint32_t r[31];
  uint32_t front;
  uint32_t rear;
} RANDGEN;

/* Largest value randgendraw returns. */
#define RANDGEN_MAX 2147483647

/* Seeds the state as srand(seed) does (seed 0 acts as 1), including the 310
 * draws it discards. 0; -1 when state is NULL. */
KESTREL_API int randgenseed(RANDGEN *state, uint32_t seed);
/* Next value in 0 .. RANDGEN_MAX. */
KESTREL_API int32_t randgendraw(RANDGEN *state);
/* The next count values into out[0..count), caller-owned; the same as count
 * calls of randgendraw, without the per-call cost. */
KESTREL_API void randgendraws(RANDGEN *state, int32_t *out, uint32_t count);

KESTREL_END_C
#endif
