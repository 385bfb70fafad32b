#!/usr/bin/env bash
#SBATCH --job-name=kestrel
#SBATCH --cpus-per-task=1
#SBATCH --output=kestrel-%A_%a.out
# One Slurm array task per shard of a corpus: task K analyses the utterances of
# shard K of N and, when WAVDIR is given, then resynthesises the same shard
# from its features. Shard K needs only its own features, so the two passes
# share one task and no task waits for another.
#
#   sbatch --array=1-N examples/cluster/slurm_array.sh LIST FEATDIR [WAVDIR]
#
#   LIST     wav.scp list: one "uttid path" a line
#   FEATDIR  receives uttid.lf0, uttid.cc, uttid.fv
#   WAVDIR   receives uttid.wav, synthesised from FEATDIR
#   Relative paths are taken from the directory sbatch was called in; every
#   node must see them.
#
# Environment (sbatch passes it on):
#   KESTRELANA, KESTRELSYN            the programs (default: found on PATH)
#   KESTRELANA_OPTS, KESTRELSYN_OPTS  further options, split at blanks
#   KESTREL_SHARDS                    N, when the array is not exactly 1-N (for
#                                     instance to rerun shards 3 and 7 of 8:
#                                     KESTREL_SHARDS=8 sbatch --array=3,7 ...)
#
# Each task runs --jobs=$SLURM_CPUS_PER_TASK threads (ask for more with
# sbatch --cpus-per-task=C). A task in which any utterance failed ends with
# exit code 1 (squeue/sacct show it FAILED; sbatch --wait exits 1), and the ids
# are listed in FEATDIR/ana.failed.K (WAVDIR/syn.failed.K): `cat` them for the
# list of a rerun. Existing outputs are kept (--skip-existing), so a requeued or
# resubmitted task redoes only what is missing; use fresh directories after
# changing options.
set -uo pipefail

if [ $# -lt 2 ] || [ $# -gt 3 ]; then
  echo "usage: sbatch --array=1-N $0 LIST FEATDIR [WAVDIR]" >&2; exit 2
fi
list=$1 featdir=$2 wavdir=${3-}
if [ -z "${SLURM_ARRAY_TASK_ID-}" ]; then
  echo "Error: not an array task; submit with sbatch --array=1-N." >&2; exit 2
fi
k=$SLURM_ARRAY_TASK_ID
if [ -n "${KESTREL_SHARDS-}" ]; then
  n=$KESTREL_SHARDS
elif [ "${SLURM_ARRAY_TASK_MIN-}" = 1 ] && [ "${SLURM_ARRAY_TASK_MAX-}" = "${SLURM_ARRAY_TASK_COUNT-}" ]; then
  n=$SLURM_ARRAY_TASK_COUNT
else
  echo "Error: the array is not 1-N; give the shard count as KESTREL_SHARDS=N." >&2; exit 2
fi
ana=${KESTRELANA:-kestrelana} syn=${KESTRELSYN:-kestrelsyn}
read -ra ana_opts <<< "${KESTRELANA_OPTS-}"
read -ra syn_opts <<< "${KESTRELSYN_OPTS-}"
jobs=${SLURM_CPUS_PER_TASK:-1}

status=0
keep_worst() { [ "$1" -gt "$status" ] && status=$1; return 0; }

mkdir -p "$featdir"
"$ana" --list="$list" --outdir="$featdir" --shard="$k/$n" --jobs="$jobs" \
  --failed="$featdir/ana.failed.$k" --skip-existing "${ana_opts[@]}"
keep_worst $?

if [ -n "$wavdir" ]; then
  mkdir -p "$wavdir"
  "$syn" --list="$list" --featdir="$featdir" --outdir="$wavdir" --shard="$k/$n" --jobs="$jobs" \
    --failed="$wavdir/syn.failed.$k" --skip-existing "${syn_opts[@]}"
  keep_worst $?
fi
exit $status
