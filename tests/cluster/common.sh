# Shared by the cluster-recipe tests (sourced): arguments, a small corpus under
# non-numbered ids with one missing recording, the unsharded reference run and
# the checks of a sharded run against it.
#   usage of a test: TEST KESTRELANA KESTRELSYN   (scratch space in $TMPDIR or /tmp)
if [ $# -ne 2 ]; then echo "usage: $0 KESTRELANA KESTRELSYN" >&2; exit 2; fi
ana=$1 syn=$2 scratch_parent=${TMPDIR:-/tmp}
unset KESTRELANA_OPTS KESTRELSYN_OPTS KESTREL_SHARDS PARALLEL   # the recipes read these
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
n_shards=3 n_utts=8 missing_id=ghost_take missing_shard=2

fail() { echo "FAIL: $*"; exit 1; }
skip() { echo "SKIPPED: $*"; exit 77; }

# make_corpus DIR: DIR/wav.scp lists every bundled recording twice under names
# without a run of digits, and at position 5 (so in shard 2 of 3) a recording
# that does not exist; then the reference, DIR/ref/feat and DIR/ref/wav, from
# one run of each program over the whole list (both report the missing one).
make_corpus() {
  local dir=$1 id rec
  mkdir -p "$dir/audio"
  for id in awb_grandfather:m_awb_arctic_a0007 aew_author:m_aew_arctic_a0001 axb_take-b:f_axb_arctic_a0004 \
      p225_please:f_vctk_p225_001 ghost_take: awb_second.take:m_awb_arctic_a0007 aew_again:m_aew_arctic_a0001 \
      axb_again:f_axb_arctic_a0004 p225_again:f_vctk_p225_001; do
    rec=${id#*:} id=${id%%:*}
    [ -z "$rec" ] || cp "$src/examples/speech/$rec.wav" "$dir/audio/$id.wav" || fail "cannot copy $rec"
    echo "$id $dir/audio/$id.wav" >> "$dir/wav.scp"
  done
  "$ana" --list="$dir/wav.scp" --outdir="$dir/ref/feat" > "$dir/ref-ana.log" 2>&1
  [ $? -eq 1 ] || { cat "$dir/ref-ana.log"; fail "unsharded kestrelana did not exit 1"; }
  "$syn" --list="$dir/wav.scp" --featdir="$dir/ref/feat" --outdir="$dir/ref/wav" > "$dir/ref-syn.log" 2>&1
  [ $? -eq 1 ] || { cat "$dir/ref-syn.log"; fail "unsharded kestrelsyn did not exit 1"; }
}

# expected_status K: the exit status of shard K, 1 where the missing recording is.
expected_status() { if [ "$1" -eq $missing_shard ]; then echo 1; else echo 0; fi; }

# check_outputs REF GOT COUNT PREFIX: GOT holds exactly REF's files (besides the
# recipes' failed lists and job logs), COUNT of them, each byte for byte equal,
# and GOT/PREFIX.failed.* name exactly the missing utterance.
check_outputs() {
  local ref=$1 got=$2 count=$3 prefix=$4 f
  outputs() { (cd "$1" && ls -A | grep -Ev '^(ana|syn)\.failed\.[0-9]+$|\.joblog$'); }
  [ "$(outputs "$ref" | wc -l)" -eq "$count" ] || fail "reference $ref holds $(outputs "$ref" | wc -l) files, expected $count"
  diff <(outputs "$ref") <(outputs "$got") || fail "shards wrote other files than the unsharded run (diff above)"
  for f in $(outputs "$ref"); do cmp -s "$ref/$f" "$got/$f" || fail "$got/$f differs from the unsharded run"; done
  [ "$(cat "$got/$prefix".failed.* 2>/dev/null)" = "$missing_id" ] || fail "$got/$prefix.failed.* do not name just $missing_id"
}
