#!/usr/bin/env bash
# Runs examples/cluster/parallel.sh in 3 shards on a small corpus: the shards
# together give exactly the files of one unsharded run, and the job logs mark
# the shard holding an unreadable recording as failed, and only that one.
set -uo pipefail
. "$(dirname "$0")/common.sh"
command -v parallel > /dev/null || fail "GNU parallel is not installed (Debian package parallel; scripts/setup.sh installs it)"

work=$(mktemp -d "$scratch_parent/kestrel-parallel.XXXXXX") || fail "cannot create a scratch directory in $scratch_parent"
trap 'rm -rf "$work"' EXIT
make_corpus "$work"
KESTRELANA=$ana KESTRELSYN=$syn "$src/examples/cluster/parallel.sh" $n_shards \
  "$work/wav.scp" "$work/shards/feat" "$work/shards/wav" < /dev/null > "$work/parallel.log" 2>&1
rc=$?
[ $rc -eq 1 ] || { cat "$work/parallel.log"; fail "parallel.sh exited $rc, expected 1"; }
for log in feat/ana.joblog wav/syn.joblog; do
  for k in $(seq $n_shards); do
    got=$(awk -F'\t' -v s="--shard=$k/$n_shards" 'NR > 1 && index($9, s) { print $7 }' "$work/shards/$log")
    [ "$got" = "$(expected_status "$k")" ] || fail "$log: shard $k has Exitval '$got', expected $(expected_status "$k")"
  done
done
check_outputs "$work/ref/feat" "$work/shards/feat" $((3 * n_utts)) ana
check_outputs "$work/ref/wav" "$work/shards/wav" "$n_utts" syn
echo "PASS: $n_shards shards equal the unsharded run; the job logs flag shard $missing_shard"
