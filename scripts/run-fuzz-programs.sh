#!/bin/bash
# Runs each fuzz program of build/fuzz for a few seconds.
#   scripts/run-fuzz-programs.sh SECONDS [NAME]...
# A program begins with the inputs of tests/fuzz/NAME_inputs and uses tests/fuzz/NAME.dict, where there are any. What
# it found wrong lies in build/fuzz/NAME_fuzz-*. The last line is "fuzz tests: N passed, N failed"; exit code 1 when
# any failed or none ran.
set -u
[[ "${1-}" =~ ^[0-9]+$ ]] || { echo "usage: scripts/run-fuzz-programs.sh SECONDS [NAME]..." >&2; exit 2; }
seconds=$1
shift
cd "$(dirname "$0")/.." || exit 1
names=("$@")
[ ${#names[@]} != 0 ] ||
    mapfile -t names < <(find tests/fuzz -name '*_fuzz.cpp' -printf '%f\n' | sed 's/_fuzz\.cpp$//' | sort)

passed=0
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for name in "${names[@]}"; do
    mkdir -p "$work/$name"
    options=()
    inputs=()
    [ ! -f "tests/fuzz/$name.dict" ] || options+=(-dict="tests/fuzz/$name.dict")
    [ ! -d "tests/fuzz/${name}_inputs" ] || inputs+=("tests/fuzz/${name}_inputs")
    code=0
    timeout 120 "build/fuzz/tests/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 \
        -artifact_prefix="build/fuzz/${name}_fuzz-" -verbosity=0 ${options[@]+"${options[@]}"} "$work/$name" \
        ${inputs[@]+"${inputs[@]}"} >"$work/log" 2>&1 || code=$?
    if [ "$code" = 0 ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        tail -n 60 "$work/log"
    fi
    echo "fuzz $name: ended with code $code"
done
echo "fuzz tests: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
