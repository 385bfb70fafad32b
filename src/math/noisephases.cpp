// The noise-phase table, embedded from the file the build step wrote
// (KESTREL_NOISEPHASES_FILE) as read-only data private to the library.
#include "noisephases.h"

asm(".section .rodata.kestrel_noisephases,\"a\"\n"
    ".balign 64\n"
    ".globl kestrel_noisephases_table\n"
    ".hidden kestrel_noisephases_table\n"
    "kestrel_noisephases_table:\n"
    ".incbin \"" KESTREL_NOISEPHASES_FILE "\"\n"
    ".previous\n");

extern "C" __attribute__((visibility("hidden"))) const kestrel::NoisePhases kestrel_noisephases_table;

namespace kestrel {

const NoisePhases &noisephases() { return kestrel_noisephases_table; }

}  // namespace kestrel
