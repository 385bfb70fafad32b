#!/usr/bin/env bash
# Analyses a corpus in N shards run by GNU parallel and, when WAVDIR is given,
# resynthesises it from the features in a second pass.
#
#   examples/cluster/parallel.sh N LIST FEATDIR [WAVDIR]
#
#   N        number of shards; shard K runs kestrelana --shard=K/N
#   LIST     wav.scp list: one "uttid path" a line
#   FEATDIR  receives uttid.lf0, uttid.cc, uttid.fv
#   WAVDIR   receives uttid.wav, synthesised from FEATDIR
#
# Environment:
#   KESTRELANA, KESTRELSYN            the programs (default: found on PATH)
#   KESTRELANA_OPTS, KESTRELSYN_OPTS  further options, split at blanks
#   PARALLEL                          options for GNU parallel itself, e.g.
#                                     "-j 4" or "-S host1,host2" (all hosts
#                                     must see LIST and the directories)
#
# Each shard adds its line to FEATDIR/ana.joblog (WAVDIR/syn.joblog). A shard in
# which any utterance failed has Exitval 1 there, and its ids are listed in
# FEATDIR/ana.failed.K (WAVDIR/syn.failed.K): `cat FEATDIR/ana.failed.*` is the
# list for a rerun. Existing outputs are kept (--skip-existing), so running the
# same command again after a crash redoes only what is missing; use fresh
# directories after changing options. Exits 0 only when every shard succeeded.
set -euo pipefail

if [ $# -lt 3 ] || [ $# -gt 4 ]; then
  echo "usage: $0 N LIST FEATDIR [WAVDIR]" >&2; exit 2
fi
n=$1 list=$2 featdir=$3 wavdir=${4-}
case $n in ''|*[!0-9]*|0*) echo "Error: the shard count N must be a positive integer, not '$n'." >&2; exit 2;; esac
ana=${KESTRELANA:-kestrelana} syn=${KESTRELSYN:-kestrelsyn}
read -ra ana_opts <<< "${KESTRELANA_OPTS-}"
read -ra syn_opts <<< "${KESTRELSYN_OPTS-}"

status=0
mkdir -p "$featdir"
# -q passes every argument through unchanged (paths may hold blanks); {} is the shard number.
parallel -q --tag --joblog "$featdir/ana.joblog" \
  "$ana" --list="$list" --outdir="$featdir" --shard={}/"$n" --failed="$featdir/ana.failed.{}" \
  --skip-existing "${ana_opts[@]}" ::: $(seq "$n") || status=1

if [ -n "$wavdir" ]; then
  mkdir -p "$wavdir"
  parallel -q --tag --joblog "$wavdir/syn.joblog" \
    "$syn" --list="$list" --featdir="$featdir" --outdir="$wavdir" --shard={}/"$n" \
    --failed="$wavdir/syn.failed.{}" --skip-existing "${syn_opts[@]}" ::: $(seq "$n") || status=1
fi
exit $status
