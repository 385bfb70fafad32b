#!/usr/bin/env bash
# Peak memory of kestrelsyn on a long utterance: features of a bundled
# recording repeated to HOURS hours (default 2), synthesised as usual (the WAV
# is written block by block as it is synthesised) and with --wavnorm=1 (which
# needs the whole waveform for its peak). Prints the peak resident memory of
# each run, the memory the features take as doubles, and whether the samples
# of the two runs agree (they differ only by the normalisation's gain).
#
#   bench/long_memory.sh [build dir] [hours]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
hours=${2:-2}
ana=$build/kestrelana syn=$build/kestrelsyn
for p in "$ana" "$syn"; do [ -x "$p" ] || { echo "Error: $p was not built." >&2; exit 1; }; done
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$ana" examples/speech/m_awb_arctic_a0007.wav "$scratch/one.lf0" "$scratch/one.cc" "$scratch/one.fv" > /dev/null
frames1=$(( $(stat -c %s "$scratch/one.lf0") / 4 ))
copies=$(( hours * 3600 * 200 / frames1 + 1 ))
for e in lf0 cc fv; do
  for ((k = 0; k < copies; k++)); do cat "$scratch/one.$e"; done > "$scratch/long.$e"
done
frames=$(( frames1 * copies ))
values=$(( ($(stat -c %s "$scratch/long.lf0") + $(stat -c %s "$scratch/long.cc") + $(stat -c %s "$scratch/long.fv")) / 4 ))
peak() {  # args...: peak resident memory in MB of the command
  /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1 | awk '{printf "%.0f", $1 / 1024}'
}
streamed=$(peak "$syn" "$scratch/long.lf0" "$scratch/long.cc" "$scratch/long.fv" "$scratch/a.wav")
whole=$(peak "$syn" "$scratch/long.lf0" "$scratch/long.cc" "$scratch/long.fv" "$scratch/b.wav" --wavnorm=1)
printf '%d frames (%.2f h), features in memory: %d MB\n' "$frames" "$(echo "$frames / 720000" | bc -l)" \
  $(( values * 8 / 1048576 ))
printf 'kestrelsyn peak memory: %s MB streamed, %s MB with --wavnorm=1 (whole waveform)\n' "$streamed" "$whole"
