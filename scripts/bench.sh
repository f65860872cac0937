#!/usr/bin/env bash
# How fast the agents move data, beside scp and rsync over ssh (aes128-gcm) on the same data, medium and loopback, in one run.
#   scripts/bench.sh [--medium tmpfs|disk|both] [--sets LSMN] [--runs N] [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
usage() {
  cat >&2 <<'TEXT'
usage: scripts/bench.sh [--medium tmpfs|disk|both] [--sets LSMN] [--runs N] [--quick]
  --sets   L one 2 GiB file, S 10,000 files of 4 KiB, M a mixed profile of 3,000 files and 600 MB,
           N 100,000 files of 1 KiB: rate of the first and the last tenth (all four unless told)
  --runs   interleaved runs whose median counts (5)
  --quick  data of a tenth and one run
TEXT
  exit 2
}
medium=both sets=LSMN runs=5 divisor=1
while [ $# -gt 0 ]; do
  case "$1" in
    --medium) [[ "${2:-}" =~ ^(tmpfs|disk|both)$ ]] || usage; medium=$2; shift ;;
    --sets) [[ "${2:-}" =~ ^[LSMN]+$ ]] || usage; sets=$2; shift ;;
    --runs) [[ "${2:-}" =~ ^[1-9][0-9]?$ ]] || usage; runs=$2; shift ;;
    --quick) runs=1 divisor=10 ;;
    *) usage ;;
  esac
  shift
done
scripts/install-packages.sh
mkdir -p build
{ cmake --preset release && cmake --build --preset release --target migration-bench; } >build/release.log 2>&1 ||
  { tail -n 40 build/release.log >&2; exit 1; }

run_on() { # a folder on the medium, its name
  local work port status
  work=$(mktemp -d "$1/vorn-bench-XXXXXX")
  port=$((20000 + RANDOM % 20000))
  ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
  ssh-keygen -q -t ed25519 -N '' -f "$work/key"
  cp "$work/key.pub" "$work/authorized_keys"
  cat >"$work/sshd_config" <<TEXT
Port $port
ListenAddress 127.0.0.1
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PidFile $work/sshd.pid
StrictModes no
UsePAM no
PermitRootLogin yes
Subsystem sftp internal-sftp
TEXT
  [ "$(id -u)" != 0 ] || mkdir -p /run/sshd
  "$(command -v sshd || echo /usr/sbin/sshd)" -f "$work/sshd_config" -E "$work/sshd.log"
  cat >"$work/ssh.sh" <<TEXT
#!/bin/sh
exec ssh -p $port -i $work/key -c aes128-gcm@openssh.com -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR "\$@"
TEXT
  chmod +x "$work/ssh.sh"
  echo "On $2 ($runs runs, median):"
  status=0
  build/release/bench/migration-bench --programs "$PWD/build/release" --work "$work" --ssh-port "$port" --ssh-key "$work/key" \
    --sets "$sets" --runs "$runs" --divisor "$divisor" || status=$?
  kill "$(cat "$work/sshd.pid")" 2>/dev/null || true
  rm -rf "$work"
  return $status
}
result=0
if [ "$medium" != disk ]; then run_on /dev/shm "tmpfs" || result=1; fi
if [ "$medium" != tmpfs ]; then run_on "${TMPDIR:-/var/tmp}" "disk" || result=1; fi
exit $result
