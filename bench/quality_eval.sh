#!/bin/sh
# Copy synthesis quality of the whole commands: every recording goes through
# kestrelana (with the options given, defaults otherwise) and kestrelsyn, and
# the resyntheses are scored.
#
#   bench/quality_eval.sh BUILD_DIR OUT_DIR [kestrelana options ...]
#
# Recordings: $SPEECH_DIR, else ../shared/speech beside the repository when it
# is there, else examples/speech. Scores:
#  - wideband PESQ and mel-cepstral distortion from ../shared/bench/quality.py
#    when that measurement kit is there (skipped otherwise);
#  - the PESQ-free measures of build/copysynth_eval are separate (they analyse
#    through the library calls, not the commands).
# With $REF_F0_DIR (NAME.f0 text tracks, frame t on sample 80 t, e.g. from the
# kit's world_anchor.sh), each f0 track is also compared with f0cmp.py.
set -eu
if [ "$#" -lt 2 ]; then
  echo "usage: $0 BUILD_DIR OUT_DIR [kestrelana options ...]" >&2
  exit 1
fi
build=$1
out=$2
shift 2
root=$(cd "$(dirname "$0")/.." && pwd)
kit=$root/../shared/bench
if [ -n "${SPEECH_DIR:-}" ]; then
  speech=$SPEECH_DIR
elif [ -d "$root/../shared/speech" ]; then
  speech=$root/../shared/speech
else
  speech=$root/examples/speech
fi
mkdir -p "$out"
for wav in "$speech"/*.wav; do
  name=$(basename "$wav" .wav)
  case $name in long*) continue ;; esac
  "$build/kestrelana" "$wav" "$out/$name.lf0" "$out/$name.cc" "$out/$name.fv" "$@" > /dev/null
  "$build/kestrelsyn" "$out/$name.lf0" "$out/$name.cc" "$out/$name.fv" "$out/$name.wav" > /dev/null
done
if [ -f "$kit/quality.py" ]; then
  /usr/bin/python3 "$kit/quality.py" "$out" --ref-dir "$speech" --label kestrel
else
  echo "No measurement kit at $kit: PESQ and MCD skipped; resyntheses are in $out."
fi
if [ -n "${REF_F0_DIR:-}" ] && [ -f "$kit/f0cmp.py" ]; then
  for lf0 in "$out"/*.lf0; do
    name=$(basename "$lf0" .lf0)
    [ -f "$REF_F0_DIR/$name.f0" ] || continue
    printf '%s ' "$name"
    /usr/bin/python3 "$kit/f0cmp.py" "$REF_F0_DIR/$name.f0" "$lf0" --est-format f32 --est-log --offset -1
  done
fi
