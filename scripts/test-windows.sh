#!/bin/bash
# Builds the Windows programs and runs every unit test program under Wine, on a machine in build/windows/machine.
#   scripts/test-windows.sh [--no-build]
# Sources of the native suite that this build leaves out are named with their reason. The last line is
# "windows tests: N passed, N failed". Exit code 0 when all passed, 1 when not, 2 for a wrong option.
set -eu

case "$*" in
    "" | --no-build) ;;
    *) echo "usage: scripts/test-windows.sh [--no-build]" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.."

if [ $# = 0 ]; then
    cmake --preset windows >/dev/null
    cmake --build --preset windows
fi
scripts/wine-prefix.sh build/windows/machine
set -a
# shellcheck disable=SC1091
. build/windows/machine/machine.env
set +a
# Wine keeps a file's access list as permission bits, cut by the mask of the process: without one they come back whole.
umask 0
trap 'wineserver -k || true' EXIT

echo "left out under Wine, since they need the hosted machine's faults, clock, counts or pretended environment:"
find tests -name '*_hosted_test.cpp' | sed 's|^tests/||; s|_hosted_test.cpp$||' | sort | tr '\n' ' ' |
    fold -s -w 110 | sed 's/^/    /'
echo

mapfile -t programs < <(find build/windows/tests -name 'test_*.exe' | sort)
code=0
RUNNER=wine scripts/run-test-programs.sh windows 300 "${programs[@]}" || code=1
exit $code
