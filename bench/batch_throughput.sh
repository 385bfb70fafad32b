#!/usr/bin/env bash
# Corpus throughput of list mode: 120 utterances (the bundled recordings under
# other names) analysed and resynthesised with --jobs=1 and --jobs=N, several
# alternating rounds; prints the median wall times and the speed-ups.
#
#   bench/batch_throughput.sh [build dir] [N (default: all cores)] [rounds (default 3)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
jobs=${2:-$(nproc)}
rounds=${3:-3}
ana=$build/kestrelana syn=$build/kestrelsyn
for p in "$ana" "$syn"; do [ -x "$p" ] || { echo "Error: $p was not built." >&2; exit 1; }; done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
i=0
for k in $(seq 30); do
  for f in examples/speech/*.wav; do
    echo "utt$(printf %03d $i)_$(basename "$f" .wav) $PWD/$f"
    i=$((i + 1))
  done
done | head -120 > "$scratch/wav.scp"
audio=$(for f in examples/speech/*.wav; do echo "$(( ($(stat -c %s "$f") - 44) / 2 ))"; done |
  awk '{s += $1} END {print s / 16000 * 30}')

# Wall seconds of one list run into a fresh directory.
timed() {  # program, args...
  rm -rf "$scratch/o"
  local t0 t1
  t0=$(date +%s.%N)
  "$@" > /dev/null || [ $? -eq 1 ]
  t1=$(date +%s.%N)
  echo "$t1 - $t0" | bc -l
}
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }

"$ana" --list="$scratch/wav.scp" --outdir="$scratch/feat" --jobs="$jobs" > /dev/null
declare -A t
for ((r = 0; r < rounds; r++)); do
  for j in 1 "$jobs"; do
    t[ana$j]+="$(timed "$ana" --list="$scratch/wav.scp" --outdir="$scratch/o" --jobs="$j") "
    t[syn$j]+="$(timed "$syn" --list="$scratch/wav.scp" --featdir="$scratch/feat" --outdir="$scratch/o" --jobs="$j") "
  done
done
printf '%-10s %8s %12s %12s %9s\n' command jobs "wall (s)" "utt/s" speed-up
for c in ana syn; do
  base=$(tr ' ' '\n' <<< "${t[${c}1]}" | grep . | median)
  for j in 1 "$jobs"; do
    m=$(tr ' ' '\n' <<< "${t[$c$j]}" | grep . | median)
    printf '%-10s %8s %12.2f %12.1f %9.2f\n' "kestrel$c" "$j" "$m" "$(echo "120 / $m" | bc -l)" \
      "$(echo "$base / $m" | bc -l)"
    [ "$j" = 1 ] && [ "$jobs" = 1 ] && break
  done
done
echo "($(printf %.0f "$audio") s of audio, $rounds rounds, medians)"
