#!/bin/bash
# Makes the archives of a release: VornTramsaNet-VERSION-win64.zip with the programs, the trace formats and the guide,
# and VornTramsaNet-VERSION-win64-symbols.zip. The same sources give the same bytes.
#   scripts/package.sh [--no-build] [FOLDER]
# FOLDER is where the archives go, build/package unless told. --no-build takes the programs of build/windows, and the
# trace formats of build/release or build/dev, as they are. The names of the archives are the last lines. Exit code 0
# when both are made, 2 for a wrong option.
set -eu

usage() { echo "usage: scripts/package.sh [--no-build] [FOLDER]" >&2; exit 2; }

build=1
folder=
for argument in "$@"; do
    case "$argument" in
        --no-build) build=0 ;;
        -*) usage ;;
        *) [ -z "$folder" ] || usage; folder=$argument ;;
    esac
done
cd "$(dirname "$0")/.."
folder=$(realpath -m "${folder:-build/package}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() { # shown only when it fails
    "$@" >"$work/log" 2>&1 || { tail -n 40 "$work/log" >&2; echo "package: failed: $*" >&2; exit 1; }
}

if [ "$build" = 1 ]; then
    scripts/install-packages.sh
    run cmake --preset release
    run cmake --build --preset release --target make-tmf
    run cmake --preset windows
    run cmake --build --preset windows --target VornTramsaNet VornTramsaNetMDNS migrate service-console
fi
formats=
for native in release dev; do
    [ -n "$formats" ] || [ ! -f "build/$native/VornTramsaNet.tmf" ] || formats=$PWD/build/$native/VornTramsaNet.tmf
done
[ -n "$formats" ] || { echo "package: no build has made VornTramsaNet.tmf" >&2; exit 1; }
run cmake -B build/windows -D "VORN_TRACE_FORMATS=$formats"

# The date of the last change; dates in a zip are local times.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date -r CHANGELOG.md +%s)
export SOURCE_DATE_EPOCH TZ=UTC
umask 022
run cpack --config build/windows/CPackConfig.cmake -B "$work/archives"
mkdir -p "$folder"
mv "$work"/archives/*.zip "$folder/"
ls "$folder"/*.zip
