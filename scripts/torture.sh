#!/bin/bash
# Faults against two agents of the sanitizer build on hosted machines: kills, outages, failing calls, full disks,
# flipped bits, junk.
#   scripts/torture.sh [EXPERIMENT]... [--seed N] [--runs N] [--first N] [--short]
# Prints a table. Exit code 0 when nothing was lost, doubled, left behind, hung, crashed or reported by a sanitizer; 1
# when something was; 2 for a wrong option. --short is what the tests run: few runs of each, 2 to 3 minutes. --first N
# --runs 1 repeats run N of an experiment. TORTURE_BUILD: the build folder, build/dev unless told.
set -u
cd "$(dirname "$0")/.." || exit 1
build=${TORTURE_BUILD:-$PWD/build/dev}
[ -f "$build/build.ninja" ] || cmake --preset dev >/dev/null || exit 1
ninja -C "$build" torture machine-programs >/dev/null || { echo "torture: the build failed" >&2; exit 1; }
export VORN_E2E_PROGRAMS=$build
exec "$build/tests/torture/torture" "$@"
