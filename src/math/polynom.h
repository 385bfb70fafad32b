/* polynom: polynomial evaluation, root finding and fitting. */
#ifndef KESTREL_POLYNOM_H
#define KESTREL_POLYNOM_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

KESTREL_END_C
#endif
