#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz in build-fuzz/ (clang, coverage,
# AddressSanitizer + UndefinedBehaviorSanitizer) and runs each from its seed
# corpus for a fixed number of executions with a fixed seed: a regression run
# that scripts/test.sh includes. Exits non-zero on any finding (crash, leak,
# sanitizer report, timeout); the input is saved in build-fuzz/artifacts/.
#
#   scripts/fuzz.sh              regression run (default 4000 executions per target)
#   scripts/fuzz.sh 200000       longer run; new inputs accumulate in build-fuzz/corpus/
#   KESTREL_FUZZ_SECONDS=1800 scripts/fuzz.sh   each target for half an hour, random seeds
#
# The slower targets run fewer executions: cc2waveform_fuzz a half,
# kestrelsyn_fuzz a tenth and kestrelana_fuzz an eightieth.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-4000}
seconds=${KESTREL_FUZZ_SECONDS:-}
jobs=$(nproc 2>/dev/null || echo 2)
targets=(readers_fuzz params_fuzz cc2waveform_fuzz kestrelsyn_fuzz kestrelana_fuzz)

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Release -DKESTREL_FUZZ=ON \
  -DKESTREL_BUILD_TESTS=OFF -DKESTREL_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j"$jobs" --target "${targets[@]}"

mkdir -p build-fuzz/artifacts
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in "${targets[@]}"; do
  exe=build-fuzz/$t
  seeds=tests/fuzz/corpus/${t%_fuzz}
  [ -x "$exe" ] || { echo "$t: not built (kestrelana needs libsndfile and libsoxr)"; continue; }
  case $t in
    cc2waveform_fuzz) n=$(( (runs + 1) / 2 )); maxlen=4096 ;;
    kestrelsyn_fuzz) n=$(( (runs + 9) / 10 )); maxlen=4096 ;;
    kestrelana_fuzz) n=$(( (runs + 79) / 80 )); maxlen=16384 ;;
    *) n=$runs; maxlen=4096 ;;
  esac
  corpus=build-fuzz/corpus/${t%_fuzz}
  mkdir -p "$corpus"
  if [ -n "$seconds" ]; then
    limit=(-max_total_time="$seconds")
  else
    limit=(-runs="$n" -seed=1)
  fi
  echo "== $t: ${limit[*]} =="
  log=build-fuzz/artifacts/$t.log
  status=0
  "$exe" "${limit[@]}" -max_len="$maxlen" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix=build-fuzz/artifacts/"$t"- "$corpus" "$seeds" >"$log" 2>&1 || status=$?
  grep -E '^(stat::number_of_executed_units|Done)|ERROR|SUMMARY|runtime error' "$log" || true
  [ "$status" -eq 0 ] || { echo "$t: finding (exit $status), see $log and build-fuzz/artifacts/"; exit 1; }
done
echo "fuzz regression run passed"
