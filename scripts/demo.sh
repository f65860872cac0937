#!/usr/bin/env bash
# The main job, as two people do it: migrate give on an old machine, migrate take on a new one, every file compared.
#   scripts/demo.sh [--interrupt] [--windows | --lan] [--keep] [FOLDER]
# Ends with 0 only when every file is byte for byte where it belongs; 2 for a wrong option; 3 when --lan is not allowed
# here.
set -euo pipefail
cd "$(dirname "$0")/.."
usage() {
  cat >&2 <<'TEXT'
usage: scripts/demo.sh [--interrupt] [--windows | --lan] [--keep] [FOLDER]
  FOLDER       move this folder instead of a generated profile (it is copied, never changed)
  --interrupt  press Ctrl-C on the new machine half-way, then go on with migrate take --resume
  --windows    two Wine prefixes with the Windows program instead of two hosted machines
  --lan        the two machines in two network namespaces, where they find each other by multicast (root)
  --keep       keep the two machines afterwards
TEXT
  exit 2
}
preset=release
arguments=()
folder=
lan=
for argument in "$@"; do
  case "$argument" in
    --interrupt | --keep) arguments+=("$argument") ;;
    --windows) arguments+=("$argument"); preset=windows ;;
    --lan) lan=vorn-demo-$$; arguments+=(--lan "$lan") ;;
    -*) usage ;;
    *) [ -z "$folder" ] && [ -d "$argument" ] || usage; folder=$(realpath "$argument"); arguments+=("$folder") ;;
  esac
done
[ -z "$lan" ] || [ "$preset" = release ] || usage
scripts/install-packages.sh
if [ -n "$lan" ] && ! why=$(scripts/lan.sh check); then
  echo "--lan cannot be had: $why" >&2
  exit 3
fi
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
[ "$preset" = release ] || build "$preset" VornTramsaNet VornTramsaNetMDNS migrate service-console machine-files
work=$(mktemp -d "${TMPDIR:-/tmp}/vorn-demo-XXXXXX")
if [ -n "$lan" ]; then
  trap 'scripts/lan.sh remove "$lan"' EXIT
  scripts/lan.sh make "$lan"
fi
build/release/tools/migration-demo --programs "$PWD/build/$preset" --work "$work" "${arguments[@]}"
