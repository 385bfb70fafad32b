#!/usr/bin/env bash
# Runs examples/cluster/slurm_array.sh as a 3-task array on a private
# single-node Slurm cluster on 127.0.0.1: the tasks together give exactly the
# files of one unsharded run, and only the task holding an unreadable
# recording ends with exit code 1. The cluster (munged, slurmctld, slurmd)
# lives in a scratch directory and is always stopped and removed again.
# Exits 77 (skipped) where Slurm or MUNGE is missing or cannot start here.
set -uo pipefail
. "$(dirname "$0")/common.sh"

for c in munged munge unmunge slurmctld slurmd sbatch scontrol sinfo squeue scancel python3; do
  command -v $c > /dev/null || skip "$c is not installed (Debian packages munge slurmctld slurmd slurm-client; scripts/setup.sh installs them)"
done
[ "$(id -u)" -eq 0 ] || skip "slurmd must run as root to start jobs; run the test as root"

# Settings of an enclosing Slurm job or of the user's shell must not reach ours.
unset $(compgen -e | grep -E '^(SLURM|SBATCH|SQUEUE|SINFO)_')
work=$(mktemp -d "$scratch_parent/kestrel-slurm.XXXXXX") || fail "cannot create a scratch directory in $scratch_parent"
chmod 755 "$work"   # munged wants its socket reachable by every user
export SLURM_CONF=$work/slurm.conf
pids=()

# Cancels the jobs (the cluster is private: every job in it is this test's),
# stops the daemons (TERM, then KILL after 10 s) and whatever still runs with
# this cluster's configuration (job scripts, step daemons), then removes it all.
cleanup() {
  local p i
  trap - EXIT INT TERM
  kill -0 "${pids[1]-}" 2> /dev/null && timeout 5 scancel --user="$(id -un)" 2> /dev/null && sleep 1
  for p in "${pids[@]}"; do kill -TERM "$p" 2> /dev/null; done
  for i in $(seq 100); do ps -p "$(IFS=,; echo "${pids[*]}")" > /dev/null || break; sleep 0.1; done
  for p in "${pids[@]}" $(grep -lszFx "SLURM_CONF=$SLURM_CONF" /proc/[0-9]*/environ | cut -d/ -f3); do
    [ "$p" != $$ ] && kill -KILL "$p" 2> /dev/null
  done
  wait 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

logs() { local f; for f in "$@"; do echo "--- $f"; tail -n 20 "$work/$f" 2> /dev/null; done; }
# wait_for SECONDS PID 'LOGS' 'CHECK': runs the shell command CHECK (with $1 =
# the node name) until it succeeds, each try bounded to 5 s; skips the test
# when daemon PID has exited (showing LOGS) and fails after SECONDS.
wait_for() {
  local end=$((SECONDS + $1)) pid=$2 files=$3 check=$4
  until timeout 5 bash -c "$check" bash "$node" > /dev/null 2>&1; do
    kill -0 "$pid" 2> /dev/null || { logs $files; skip "${files%%.*} cannot start in this environment (log above)"; }
    [ $SECONDS -lt $end ] || { logs $files; fail "${files%%.*} not ready within $1 s"; }
    sleep 0.2
  done
}

make_corpus "$work"
node=$(hostname -s 2> /dev/null); [[ $node =~ ^[A-Za-z0-9][A-Za-z0-9-]*$ ]] || node=localhost
cpus=$(nproc); [ "$cpus" -gt 2 ] && cpus=2
read -r ctld_port slurmd_port < <(python3 -c 'import socket
ss = [socket.socket() for _ in range(2)]; [s.bind(("127.0.0.1", 0)) for s in ss]; print(*(s.getsockname()[1] for s in ss))')

# MUNGE on its own key and socket, then Slurm.
head -c 1024 /dev/urandom > "$work/munge.key"; chmod 600 "$work/munge.key"
munged --foreground --socket="$work/munge.socket" --key-file="$work/munge.key" --pid-file="$work/munged.pid" \
  --log-file="$work/munged.log" --seed-file="$work/munged.seed" > "$work/munged.out" 2>&1 &
pids+=($!)
wait_for 10 $! "munged.out munged.log" "munge -n -S '$work/munge.socket' | unmunge -S '$work/munge.socket'"
mkdir -p "$work/state" "$work/spool" "$work/jobs"
: > "$work/plugstack.conf"
cat > "$SLURM_CONF" <<CONF
ClusterName=kestreltest
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
AuthType=auth/munge
AuthInfo=socket=$work/munge.socket
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd.log
PlugStackConfig=$work/plugstack.conf
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
MinJobAge=600
NodeName=$node NodeAddr=127.0.0.1 NodeHostname=$node CPUs=$cpus State=UNKNOWN
PartitionName=debug Nodes=$node Default=YES MaxTime=INFINITE State=UP
CONF
slurmctld -D -i > "$work/slurmctld.out" 2>&1 &
pids+=($!)
wait_for 30 $! "slurmctld.out slurmctld.log" "scontrol ping | grep -q 'is UP'"
slurmd -D -N "$node" > "$work/slurmd.out" 2>&1 &
pids+=($!)
wait_for 60 $! "slurmd.out slurmd.log" '[ "$(sinfo -h -N -n "$1" -o %t)" = idle ]'

# sbatch --wait returns the highest exit code of the array's tasks. It runs in
# the background so that a signal reaches the cleanup at once.
(cd "$work/jobs" && KESTRELANA=$ana KESTRELSYN=$syn exec timeout 180 \
  sbatch --parsable --wait --array=1-$n_shards --output="$work/jobs/task-%a.out" \
  "$src/examples/cluster/slurm_array.sh" "$work/wav.scp" ../shards/feat ../shards/wav \
  > "$work/sbatch.out" 2> "$work/sbatch.err") &
wait $!
rc=$?
if [ $rc -ne 1 ]; then
  cat "$work/sbatch.err" "$work"/jobs/task-*.out 2> /dev/null; logs slurmctld.log slurmd.log
  fail "sbatch --wait exited $rc, expected 1 (124: the array did not finish within 180 s)"
fi
for k in $(seq $n_shards); do
  got=$(timeout 10 scontrol -o show job "$(cut -d';' -f1 "$work/sbatch.out")" | grep -E "(^| )ArrayTaskId=$k( |$)" |
        grep -oE ' ExitCode=[0-9]+:[0-9]+' | cut -d= -f2)
  [ "$got" = "$(expected_status "$k"):0" ] || fail "array task $k ended with ExitCode '$got', expected $(expected_status "$k"):0"
done
check_outputs "$work/ref/feat" "$work/shards/feat" $((3 * n_utts)) ana
check_outputs "$work/ref/wav" "$work/shards/wav" "$n_utts" syn
echo "PASS: a $n_shards-task Slurm array equals the unsharded run; only task $missing_shard failed"
