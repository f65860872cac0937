#!/usr/bin/env bash
# How fast the agents move data, with a window of files on the way and one file at a time, beside scp and rsync over
# ssh (aes128-gcm) and an rsync daemon without encryption: the same data, medium and loopback, interleaved, directly
# and behind 1 ms each way.
#   scripts/bench.sh [--medium tmpfs|disk|both] [--sets LSMN] [--paths direct|delayed|both] [--runs N] [--delayed-runs
#   N] [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
usage() {
  cat >&2 <<'TEXT'
usage: scripts/bench.sh [--medium tmpfs|disk|both] [--sets LSMN] [--paths direct|delayed|both] [--runs N] [--delayed-runs N] [--quick]
  --sets   L one 2 GiB file, S 10,000 files of 4 KiB, M a mixed profile of 3,000 files and 600 MB,
           N 100,000 files of 1 KiB: rate of the first and the last tenth, direct only (all four unless told)
  --paths  over loopback directly, through a proxy that delays by 1 ms each way and does not throttle, or both (both)
  --runs   interleaved runs whose median counts (5); --delayed-runs: through the proxy (3)
  --quick  data of a tenth and one run
TEXT
  exit 2
}
medium=both sets=LSMN paths=direct,delayed runs=5 delayed_runs=3 divisor=1
while [ $# -gt 0 ]; do
  case "$1" in
    --medium) [[ "${2:-}" =~ ^(tmpfs|disk|both)$ ]] || usage; medium=$2; shift ;;
    --sets) [[ "${2:-}" =~ ^[LSMN]+$ ]] || usage; sets=$2; shift ;;
    --paths) [[ "${2:-}" =~ ^(direct|delayed|both)$ ]] || usage; paths=${2/both/direct,delayed}; shift ;;
    --runs) [[ "${2:-}" =~ ^[1-9][0-9]?$ ]] || usage; runs=$2; shift ;;
    --delayed-runs) [[ "${2:-}" =~ ^[1-9][0-9]?$ ]] || usage; delayed_runs=$2; shift ;;
    --quick) runs=1 delayed_runs=1 divisor=10 ;;
    *) usage ;;
  esac
  shift
done
scripts/install-packages.sh
mkdir -p build
{ cmake --preset release && cmake --build --preset release --target migration-bench; } >build/release.log 2>&1 ||
  { tail -n 40 build/release.log >&2; exit 1; }

servers=() work=
stop_servers() {
  local server
  for server in "${servers[@]}"; do kill "$server" 2>/dev/null && wait "$server" 2>/dev/null || true; done
  servers=()
  [ -z "$work" ] || rm -rf "$work"
}
trap stop_servers EXIT

start_servers() { # two ports
  ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
  ssh-keygen -q -t ed25519 -N '' -f "$work/key"
  cp "$work/key.pub" "$work/authorized_keys"
  cat >"$work/sshd_config" <<TEXT
Port $1
ListenAddress 127.0.0.1
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PidFile none
StrictModes no
UsePAM no
PermitRootLogin yes
Subsystem sftp internal-sftp
TEXT
  [ "$(id -u)" != 0 ] || mkdir -p /run/sshd
  "$(command -v sshd || echo /usr/sbin/sshd)" -D -f "$work/sshd_config" -E "$work/sshd.log" &
  servers+=($!)
  cat >"$work/ssh.sh" <<TEXT
#!/bin/sh
exec ssh -i $work/key -c aes128-gcm@openssh.com -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR "\$@"
TEXT
  chmod +x "$work/ssh.sh"
  cat >"$work/rsyncd.conf" <<TEXT
address = 127.0.0.1
port = $2
use chroot = no
uid = $(id -u)
gid = $(id -g)
[bench]
path = $work
read only = no
TEXT
  rsync --daemon --no-detach --config="$work/rsyncd.conf" --log-file="$work/rsyncd.log" &
  servers+=($!)
}

run_on() { # a folder on the medium, its name
  local port status=0
  work=$(mktemp -d "$1/vorn-bench-XXXXXX")
  port=$((20000 + RANDOM % 20000))
  start_servers "$port" $((port + 1))
  echo "On $2 ($runs runs directly, $delayed_runs behind the delay, medians; load before: $(cut -d' ' -f1-3 /proc/loadavg)):"
  build/release/bench/migration-bench --programs "$PWD/build/release" --work "$work" --ssh "$work/ssh.sh" --ssh-port "$port" \
    --daemon-port $((port + 1)) --sets "$sets" --paths "$paths" --runs "$runs" --delayed-runs "$delayed_runs" --divisor "$divisor" ||
    status=$?
  echo "  load after: $(cut -d' ' -f1-3 /proc/loadavg)"
  stop_servers
  work=
  return $status
}
result=0
if [ "$medium" != disk ]; then run_on /dev/shm "tmpfs" || result=1; fi
if [ "$medium" != tmpfs ]; then run_on "${TMPDIR:-/var/tmp}" "disk" || result=1; fi
exit $result
