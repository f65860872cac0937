#!/bin/bash
# Installs what is missing and runs the test suites.
#   scripts/test.sh [STAGE]...
# Stages, in this order, all of them unless some are named:
#   dev          unit tests under the address and undefined-behaviour sanitizers
#   tsan         the threaded unit tests under the thread sanitizer
#   windows      the Windows programs: checks of the build, and the unit tests under Wine
#   e2e          whole processes on two hosted machines (the dev build's programs)
#   e2e-windows  the same scenarios on two Wine machines, and a migration between a hosted and a Wine machine, both ways
#   fuzz         each fuzz program for a few seconds
# Each stage ends with a closing line of its own; the last line of all is "N passed, N failed". Exit code 0 when all passed,
# 1 when not, 2 for a wrong option.
set -u

readonly STAGES="dev tsan windows e2e e2e-windows fuzz"
readonly THREADED="test_platform test_ipc test_app test_net test_transfer"

for stage in "$@"; do
    if [[ " $STAGES " != *" $stage "* ]]; then
        echo "usage: scripts/test.sh [STAGE]...   stages: $STAGES" >&2
        exit 2
    fi
done
wanted=" ${*:-$STAGES} "
cd "$(dirname "$0")/.." || exit 1

scripts/install-packages.sh || exit 1

passed=0
failed=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# run_counted NAME COMMAND...: shows the command's output and adds the counts of its closing line. A command that ends
# without one has failed as a whole.
run_counted() {
    local name=$1 code line
    shift
    "$@" 2>&1 | tee "$log"
    code=${PIPESTATUS[0]}
    line=$(grep -E '^[a-z0-9 -]+: [0-9]+ passed, [0-9]+ failed$' "$log" | tail -n 1)
    if [[ "$line" =~ :\ ([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]]; then
        passed=$((passed + BASH_REMATCH[1]))
        failed=$((failed + BASH_REMATCH[2]))
        [ "$code" = 0 ] || [ "${BASH_REMATCH[2]}" != 0 ] || failed=$((failed + 1))
    else
        failed=$((failed + 1))
        echo "$name: ended with code $code and no count: 1 failed"
    fi
}

build() { # preset, targets...
    local preset=$1
    shift
    cmake --preset "$preset" >"$log" 2>&1 && cmake --build --preset "$preset" ${@:+--target "$@"} >"$log" 2>&1 && return
    tail -n 60 "$log"
    echo "$preset: the build failed"
    failed=$((failed + 1))
    return 1
}

# The thread sanitizer of this compiler cannot place its memory where the system spreads mappings widely.
fixed_placement() {
    setarch "$(uname -m)" -R true 2>/dev/null && echo "setarch $(uname -m) -R"
}

stage_dev() {
    build dev all || return
    run_counted dev env UBSAN_OPTIONS=print_stacktrace=1 scripts/run-test-programs.sh dev 300 \
        $(find build/dev/tests -maxdepth 1 -type f -name 'test_*' -perm -u+x | sort)
}

stage_tsan() {
    # shellcheck disable=SC2086
    build tsan $THREADED hosted-machine || return
    local programs=() name
    for name in $THREADED; do
        programs+=("build/tsan/tests/$name")
    done
    run_counted tsan env TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" RUNNER="$(fixed_placement)" \
        scripts/run-test-programs.sh tsan 300 "${programs[@]}"
}

stage_windows() {
    run_counted windows scripts/test-windows.sh
    run_counted windows scripts/check-windows-build.sh
}

stage_e2e() {
    build dev all || return
    run_counted e2e env AGAIN=1 VORN_E2E_PROGRAMS="$PWD/build/dev" scripts/run-test-programs.sh e2e 1200 build/dev/tests/e2e/test_e2e
}

stage_e2e-windows() {
    build dev test_e2e && build windows || return
    run_counted e2e-windows env AGAIN=1 VORN_E2E_KIND=wine VORN_E2E_PROGRAMS="$PWD/build/windows" \
        scripts/run-test-programs.sh e2e-windows 1200 build/dev/tests/e2e/test_e2e
    local kind
    for kind in hosted-wine wine-hosted; do # old machine first
        run_counted "e2e $kind" env AGAIN=1 VORN_E2E_KIND=$kind VORN_E2E_PROGRAMS="$PWD/build/dev" VORN_E2E_WINDOWS_PROGRAMS="$PWD/build/windows" \
            GTEST_FILTER='Migration.*:Link.RightPin*' scripts/run-test-programs.sh "e2e $kind" 400 build/dev/tests/e2e/test_e2e
    done
}

stage_fuzz() {
    local names=() name code nPassed=0 nFailed=0 inputs
    mapfile -t names < <(find tests/fuzz -name '*_fuzz.cpp' -printf '%f\n' 2>/dev/null | sed 's/\.cpp$//' | sort)
    if [ ${#names[@]} = 0 ]; then
        echo "fuzz: tests/fuzz has no programs yet"
        return
    fi
    build fuzz "${names[@]}" || return
    for name in "${names[@]}"; do
        inputs=$(mktemp -d)
        code=0
        timeout 120 "build/fuzz/tests/$name" -max_total_time=8 -timeout=10 -rss_limit_mb=1024 -artifact_prefix="build/fuzz/$name-" -verbosity=0 \
            "$inputs" $(find tests/fuzz -maxdepth 1 -type d -name "${name%_fuzz}_inputs") >"$log" 2>&1 || code=$?
        rm -rf "$inputs"
        if [ "$code" = 0 ]; then
            nPassed=$((nPassed + 1))
        else
            nFailed=$((nFailed + 1))
            tail -n 60 "$log"
        fi
        echo "fuzz $name: ended with code $code"
    done
    echo "fuzz tests: $nPassed passed, $nFailed failed"
    passed=$((passed + nPassed))
    failed=$((failed + nFailed))
}

started=$SECONDS
for stage in $STAGES; do
    if [[ "$wanted" == *" $stage "* ]]; then
        begun=$SECONDS
        echo "---- $stage"
        "stage_$stage"
        echo "---- $stage took $((SECONDS - begun)) s"
    fi
done
echo "all stages took $((SECONDS - started)) s"
echo "$passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
