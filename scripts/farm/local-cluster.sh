#!/usr/bin/env bash
# A one-node Slurm cluster on this machine, for tests and trials, run as root.
#
#   local-cluster.sh start [--owner PID]   installs slurm-wlm and munge when missing,
#                                          starts munged, slurmctld and slurmd with a
#                                          configuration generated in a new temporary
#                                          folder, and prints that folder
#   local-cluster.sh stop DIR              cancels its jobs, stops its daemons and
#                                          removes the folder
#
# Commands reach the cluster with SLURM_CONF=DIR/slurm.conf. Everything lives in
# the folder (keys, sockets, state, logs) and the ports are picked free, so the
# cluster touches nothing of the machine's own and several may run at once.
# With --owner, a watchdog stops the cluster when process PID ends, so that a
# killed caller leaves nothing running. Its delays are cut for trials: a requeued
# job may start again 5 s after it stopped (cred_expire; 120 s by default), the
# scheduler looks at waiting jobs every second, and a job past its time limit is
# killed 5 s after it is told to end.
set -euo pipefail

say() { echo "local-cluster: $*" >&2; }

install_missing() {
  local missing=()
  for p in slurm-wlm munge; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null && apt-get install -y -qq "${missing[@]}" >/dev/null
}

port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

free_port() {
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 20000))
    port_in_use "$port" || { echo "$port"; return 0; }
  done
  return 1
}

# Processes started for this cluster: the daemons by their pid files, and the
# job steps, found by the files they hold open inside the folder.
cluster_pids() {
  local dir=$1 pid
  for f in "$dir"/munged.pid "$dir"/slurmctld.pid "$dir"/slurmd.pid "$dir"/watchdog.pid; do
    [ -s "$f" ] && cat "$f"
  done
  for pid in $(pgrep -x slurmstepd || true); do
    if ls -l "/proc/$pid/fd" 2>/dev/null | grep -qF "$dir/"; then echo "$pid"; fi
  done
  return 0
}

stop_cluster() {
  local dir=$1 self=$BASHPID pids pid
  [ -f "$dir/slurm.conf" ] || { say "$dir holds no local cluster"; return 1; }
  if [ -s "$dir/slurmctld.pid" ]; then
    SLURM_CONF="$dir/slurm.conf" timeout 10 scancel --full --quiet --user="$(id -un)" 2>/dev/null || true
  fi
  pids=$(cluster_pids "$dir" | grep -vx "$self" || true)
  [ -n "$pids" ] && kill $pids 2>/dev/null || true
  for _ in $(seq 50); do
    pids=$(for pid in $pids; do if kill -0 "$pid" 2>/dev/null; then echo "$pid"; fi; done)
    [ -z "$pids" ] && break
    sleep 0.2
  done
  [ -n "$pids" ] && kill -9 $pids 2>/dev/null || true
  rm -rf "$dir"
  say "stopped"
}

write_config() {
  local dir=$1 node=$2 cpus=$3 ctld_port=$4 slurmd_port=$5
  cat >"$dir/slurm.conf" <<EOF
ClusterName=quazel-local
SlurmctldHost=$(hostname)(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$dir/munge/munge.socket,cred_expire=5
CredType=cred/munge
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
PlugStackConfig=$dir/plugstack.conf
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
SchedulerType=sched/backfill
SchedulerParameters=bf_interval=1,sched_interval=2
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
MinJobAge=600
KillWait=5
SlurmctldTimeout=30
SlurmdTimeout=30
NodeName=$node NodeHostname=$(hostname) NodeAddr=127.0.0.1 CPUs=$cpus State=UNKNOWN
PartitionName=local Nodes=$node Default=YES MaxTime=INFINITE State=UP
EOF
  : >"$dir/plugstack.conf"
}

start_cluster() {
  local owner=""
  if [ "${1:-}" = "--owner" ]; then owner=$2; fi
  [ "$(id -u)" -eq 0 ] || { say "the daemons need root"; return 1; }
  install_missing || { say "slurm-wlm and munge cannot be installed"; return 1; }
  local dir node=quazel-node cpus ctld_port slurmd_port
  dir=$(mktemp -d /tmp/quazel-cluster.XXXXXX)
  trap 'stop_cluster "$dir" >/dev/null 2>&1' ERR
  mkdir -p "$dir/munge" "$dir/state" "$dir/spool"
  chmod 700 "$dir/munge"
  cpus=$(nproc)
  ctld_port=$(free_port)
  slurmd_port=$(free_port)
  [ "$ctld_port" != "$slurmd_port" ] || slurmd_port=$((ctld_port + 1))
  write_config "$dir" "$node" "$cpus" "$ctld_port" "$slurmd_port"

  dd if=/dev/urandom of="$dir/munge/munge.key" bs=1024 count=1 status=none
  chmod 400 "$dir/munge/munge.key"
  munged --force --socket="$dir/munge/munge.socket" --key-file="$dir/munge/munge.key" \
    --pid-file="$dir/munged.pid" --log-file="$dir/munged.log" --seed-file="$dir/munge/seed" ||
    { say "munged does not start: $(tail -n 3 "$dir/munged.log" 2>/dev/null)"; false; }

  export SLURM_CONF="$dir/slurm.conf"
  slurmctld -i || { say "slurmctld does not start: $(tail -n 3 "$dir/slurmctld.log" 2>/dev/null)"; false; }
  slurmd -N "$node" || { say "slurmd does not start: $(tail -n 3 "$dir/slurmd.log" 2>/dev/null)"; false; }
  # The node is ready when the controller sees it idle.
  local state=""
  for _ in $(seq 60); do
    state=$(sinfo -h -N -n "$node" -o %T 2>/dev/null || true)
    [ "$state" = idle ] && break
    sleep 0.5
  done
  if [ "$state" != idle ]; then
    say "the node did not come up (state '${state:-none}'): $(tail -n 3 "$dir/slurmd.log" 2>/dev/null)"
    false
  fi
  trap - ERR
  if [ -n "$owner" ]; then
    (
      trap '' HUP
      while kill -0 "$owner" 2>/dev/null && [ -d "$dir" ]; do sleep 1; done
      [ -d "$dir" ] && stop_cluster "$dir" >/dev/null 2>&1
    ) </dev/null >/dev/null 2>&1 &
    echo $! >"$dir/watchdog.pid"
  fi
  say "running in $dir ($cpus CPUs, controller port $ctld_port)"
  echo "$dir"
}

case "${1:-}" in
  start) shift; start_cluster "$@" ;;
  stop) stop_cluster "${2:?usage: local-cluster.sh stop DIR}" ;;
  *) echo "usage: local-cluster.sh start [--owner PID] | stop DIR" >&2; exit 2 ;;
esac
