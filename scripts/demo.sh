#!/usr/bin/env bash
# The main job, seen by a person: a profile moves from an old machine to a new one and every file is compared.
#   scripts/demo.sh [--interrupt] [--windows] [--keep] [FOLDER]
# Ends with 0 only when every file is byte for byte where it belongs; 2 for a wrong option.
set -euo pipefail
cd "$(dirname "$0")/.."
usage() {
  cat >&2 <<'TEXT'
usage: scripts/demo.sh [--interrupt] [--windows] [--keep] [FOLDER]
  FOLDER       move this folder instead of a generated profile (it is copied, never changed)
  --interrupt  kill the old machine's agent half-way, then resume
  --windows    two Wine prefixes with the Windows program instead of two hosted machines
  --keep       keep the two machines afterwards
TEXT
  exit 2
}
preset=release
arguments=()
folder=
for argument in "$@"; do
  case "$argument" in
    --interrupt | --keep) arguments+=("$argument") ;;
    --windows) arguments+=("$argument"); preset=windows ;;
    -*) usage ;;
    *) [ -z "$folder" ] && [ -d "$argument" ] || usage; folder=$(realpath "$argument"); arguments+=("$folder") ;;
  esac
done
scripts/install-packages.sh
build() { # preset, targets...: configure and build quietly; show the log only when it fails
  local name=$1 log="build/$1.log"
  shift
  mkdir -p build
  echo "Building ($name) ..."
  if ! { cmake --preset "$name" && cmake --build --preset "$name" --target "$@"; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "the build failed; all of it: $log" >&2
    exit 1
  fi
}
build release migration-demo
[ "$preset" = release ] || build "$preset" VornTramsaNet VornTramsaNetMDNS service-console machine-files
work=$(mktemp -d "${TMPDIR:-/tmp}/vorn-demo-XXXXXX")
exec build/release/tools/migration-demo --programs "$PWD/build/$preset" --work "$work" "${arguments[@]}"
