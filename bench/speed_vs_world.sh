#!/usr/bin/env bash
# Speed against the WORLD vocoder, measured side by side in one run: per round
# (ROUNDS, default 3) the WORLD anchor times its DIO analysis and its synthesis
# on every recording, then each Kestrel build times the same files:
#  - library calls: build/libtime_eval (process CPU time of getpitchdp +
#    getfvoicing + waveform2cc, and of cc2waveform);
#  - whole commands: kestrelana and kestrelsyn processes (user + system CPU
#    time of the child process), WAV to features and features to WAV.
# Each figure is the median of REPEATS runs (default 3) within the round. Per
# file and round the ratio Kestrel / WORLD is taken (analysis against WORLD's
# DIO + StoneMask + CheapTrick + D4C, synthesis against its synthesis; WORLD's
# own driver times its stages inside the process); the table gives per file the
# median ratio over rounds, then the median over files with its range.
#
#   bench/speed_vs_world.sh [BUILD_DIR ...]     (default: build)
#   ROUNDS=5 REPEATS=3 KESTREL_SHARED_BENCH=../shared/bench bench/speed_vs_world.sh build /tmp/old/build
#
# Several build directories (say, of two commits) are timed in the same rounds.
# Without the measurement kit (../shared/bench next to the source tree, with
# its recordings in ../shared/speech) the script says so and exits 0.
set -euo pipefail
cd "$(dirname "$0")/.."
shared=${KESTREL_SHARED_BENCH:-../shared/bench}
rounds=${ROUNDS:-3}
repeats=${REPEATS:-3}
if [ ! -f "$shared/world_anchor.sh" ]; then
  echo "speed_vs_world: no measurement kit at $shared (world_anchor.sh); nothing measured."
  exit 0
fi
speech=${KESTREL_SPEECH_DIR:-$shared/../speech}
files=("$speech"/[fm]_*.wav)
if [ ! -f "${files[0]}" ]; then
  echo "speed_vs_world: no recordings in $speech; nothing measured."
  exit 0
fi
[ "$#" -gt 0 ] || set -- build
for b in "$@"; do
  for p in kestrelana kestrelsyn libtime_eval; do
    [ -x "$b/$p" ] || { echo "Error: $b/$p was not built." >&2; exit 1; }
  done
done

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
times=$tmp/times.tsv  # round, system, file, what, seconds
: > "$times"

# Median of the CPU seconds (user + system, microsecond resolution) of
# $repeats runs of a command; its output is discarded, a failure ends the run.
cat > "$tmp/cputime.py" <<'EOF'
import resource, statistics, subprocess, sys
times = []
for _ in range(int(sys.argv[1])):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(sys.argv[2:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    times.append(after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime)
print(f'{statistics.median(times):.6f}')
EOF
cputime() { /usr/bin/python3 "$tmp/cputime.py" "$repeats" "$@"; }

for ((round = 1; round <= rounds; round++)); do
  echo "round $round of $rounds" >&2
  REPEATS=$repeats sh "$shared/world_anchor.sh" "$tmp/world" "${files[@]}" > /dev/null 2>&1
  awk -F'\t' -v r="$round" '$1 == "dio" {print r "\tWORLD\t" $2 "\tana\t" $4; print r "\tWORLD\t" $2 "\tsyn\t" $5}' \
    "$tmp/world/world_timings.tsv" >> "$times"
  for b in "$@"; do
    "$b/libtime_eval" "$repeats" "${files[@]}" |
      awk -F'\t' -v r="$round" -v s="$b" '{print r "\t" s "\t" $1 "\tlibana\t" $3; print r "\t" s "\t" $1 "\tlibsyn\t" $4}' \
      >> "$times"
    for wav in "${files[@]}"; do
      name=$(basename "$wav" .wav)
      f=$tmp/$name
      ta=$(cputime "$b/kestrelana" "$wav" "$f.lf0" "$f.cc" "$f.fv")
      ts=$(cputime "$b/kestrelsyn" "$f.lf0" "$f.cc" "$f.fv" "$f.wav")
      printf '%s\t%s\t%s\tcmdana\t%s\n%s\t%s\t%s\tcmdsyn\t%s\n' "$round" "$b" "$name" "$ta" "$round" "$b" "$name" "$ts" \
        >> "$times"
    done
  done
done

/usr/bin/python3 - "$times" "$rounds" "$repeats" "$@" <<'EOF'
import statistics as st, sys
path, rounds, repeats, builds = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
t = {}
for line in open(path):
    r, s, f, w, v = line.rstrip('\n').split('\t')
    t[(r, s, f, w)] = float(v)
files = sorted({k[2] for k in t if k[1] == 'WORLD'})
rs = sorted({k[0] for k in t})
cols = [('libana', 'ana', 'analysis, library'), ('cmdana', 'ana', 'kestrelana'),
        ('libsyn', 'syn', 'synthesis, library'), ('cmdsyn', 'syn', 'kestrelsyn')]
print(f'\nKestrel / WORLD CPU time ({rounds} rounds of {repeats} runs; median over rounds per file)')
for b in builds:
    print(f'\n{b}\n\n| file | ' + ' | '.join(c[2] for c in cols) + ' |')
    print('|---|' + '---:|' * len(cols))
    per = {c[0]: [] for c in cols}
    for f in files:
        row = []
        for k, w, _ in cols:
            q = st.median(t[(r, b, f, k)] / t[(r, 'WORLD', f, w)] for r in rs)
            per[k].append(q)
            row.append(f'{q:.3f}')
        print(f'| {f} | ' + ' | '.join(row) + ' |')
    print('| median (range) | ' + ' | '.join(
        f'{st.median(per[k]):.3f} ({min(per[k]):.2f} … {max(per[k]):.2f})' for k, _, _ in cols) + ' |')
EOF
