#!/usr/bin/env bash
# Copy synthesis on the bundled recordings: every examples/speech/*.wav is
# analysed with kestrelana and resynthesised with kestrelsyn, as is and with
# three modifications. The WAVs go to out/ (listen to them); per file the
# script prints the real-time factors of analysis and of synthesis (median
# wall time of several runs divided by the recording's duration) and the
# log-spectral distance of the plain resynthesis (bench/lsd_eval.cpp).
#
#   scripts/demo.sh                      installs packages, builds build/, runs
#   KESTREL_BUILD_DIR=b KESTREL_OUT_DIR=o KESTREL_DEMO_RUNS=5 scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
build=${KESTREL_BUILD_DIR:-build}
out=${KESTREL_OUT_DIR:-out}
runs=${KESTREL_DEMO_RUNS:-3}
jobs=$(nproc 2>/dev/null || echo 2)

scripts/setup.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$jobs"
ana=$build/kestrelana
syn=$build/kestrelsyn
lsd=$build/lsd_eval
for p in "$ana" "$syn" "$lsd"; do
  [ -x "$p" ] || { echo "Error: $p was not built." >&2; exit 1; }
done
mkdir -p "$out"

# Runs a command; any message it prints (kestrel programs print only errors
# and warnings) is shown and ends the demo.
quiet() {
  local msg
  msg=$("$@")
  if [ -n "$msg" ]; then echo "$msg" >&2; return 1; fi
}

# Median wall time in seconds of $runs runs of a command.
mediantime() {
  local t0 t1 times=()
  for ((r = 0; r < runs; r++)); do
    t0=$(date +%s%N)
    quiet "$@"
    t1=$(date +%s%N)
    times+=($((t1 - t0)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{t[NR] = $1} END {printf "%.4f", t[int((NR + 1) / 2)] / 1e9}'
}

echo
echo "Copy synthesis: kestrelana -> kestrelsyn ($runs timed runs per step, median; WAVs in $out/)"
printf '%-22s %8s %10s %10s %9s\n' "file" "dur (s)" "RTF ana" "RTF syn" "LSD (dB)"
sumana=0 sumsyn=0 sumlsd=0 nfiles=0
for wav in examples/speech/*.wav; do
  name=$(basename "$wav" .wav)
  base=$out/$name
  # The bundled files are plain 44-byte-header 16 kHz 16-bit mono WAVs.
  dur=$(awk -v b="$(stat -c %s "$wav")" 'BEGIN {printf "%.3f", (b - 44) / 2 / 16000}')
  tana=$(mediantime "$ana" "$wav" "$base.lf0" "$base.cc" "$base.fv")
  tsyn=$(mediantime "$syn" "$base.lf0" "$base.cc" "$base.fv" "${base}_copy.wav")
  quiet "$syn" "$base.lf0" "$base.cc" "$base.fv" "${base}_fpitch1.5.wav" --fpitch=1.5
  quiet "$syn" "$base.lf0" "$base.cc" "$base.fv" "${base}_fdur1.5.wav" --fdur=1.5
  quiet "$syn" "$base.lf0" "$base.cc" "$base.fv" "${base}_fwarp0.1.wav" --fwarp=0.1
  d=$("$lsd" "$wav" "${base}_copy.wav")
  # Spectrograms of the recording and its resynthesis, with f0 and fv (the Python package).
  [ -e "$build/python/kestrel/_plotting.py" ] && PYTHONPATH=$build/python quiet /usr/bin/python3 -m kestrel.plot \
    "$wav" "$base" "$base.png" --resynthesis "${base}_copy.wav"
  rtfana=$(awk -v t="$tana" -v d="$dur" 'BEGIN {printf "%.4f", t / d}')
  rtfsyn=$(awk -v t="$tsyn" -v d="$dur" 'BEGIN {printf "%.4f", t / d}')
  printf '%-22s %8.2f %10s %10s %9s\n' "$name" "$dur" "$rtfana" "$rtfsyn" "$d"
  sumana=$(awk -v a="$sumana" -v b="$rtfana" 'BEGIN {print a + b}')
  sumsyn=$(awk -v a="$sumsyn" -v b="$rtfsyn" 'BEGIN {print a + b}')
  sumlsd=$(awk -v a="$sumlsd" -v b="$d" 'BEGIN {print a + b}')
  nfiles=$((nfiles + 1))
done
awk -v a="$sumana" -v s="$sumsyn" -v l="$sumlsd" -v n="$nfiles" \
  'BEGIN {printf "%-22s %8s %10.4f %10.4f %9.2f\n", "mean", "", a / n, s / n, l / n}'
echo
echo "Per file in $out/: <name>_copy.wav (plain resynthesis), <name>_fpitch1.5.wav (f0 x 1.5),"
echo "<name>_fdur1.5.wav (1.5 times longer), <name>_fwarp0.1.wav (formants raised: a shorter vocal"
echo "tract; negative --fwarp lowers them, a longer tract), the features <name>.lf0/.cc/.fv, and"
echo "<name>.png: spectrograms of the recording and its resynthesis with the f0 and fv tracks."
