#!/usr/bin/env bash
# Builds Kestrel twice (optimised, and with AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs the whole test suite on both, then a short fuzz regression run (scripts/fuzz.sh).
# Exits non-zero when any test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/setup.sh

run_suite() {  # build dir, extra cmake args...
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DKESTREL_BUILD_BENCH=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600
}

# The tests that run the library or the programs on several threads at once,
# built and run alone under ThreadSanitizer.
threaded_targets=(test_dsp_reentrancy_test test_dsp_ccsynthesis_test test_dsp_ccanalysis_test
                  test_cli_batch_cli_test kestrelana kestrelsyn)
threaded_tests='Reentrancy|EveryThreadCount|BatchTest.LogsAndFiles'

echo "== optimised build =="
run_suite build
echo "== sanitizer build (address, undefined) =="
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-san -DKESTREL_SANITIZE=address,undefined -DKESTREL_BUILD_BENCH=OFF -DKESTREL_NO_AVX2=ON
echo "== thread-sanitizer build (threaded tests) =="
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Release -DKESTREL_BUILD_BENCH=OFF -DKESTREL_SANITIZE=thread >/dev/null
cmake --build build-tsan -j"$jobs" --target "${threaded_targets[@]}"
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan -j"$jobs" --output-on-failure --timeout 600 -R "$threaded_tests"
echo "== fuzz regression run (libFuzzer, address + undefined) =="
scripts/fuzz.sh
