#!/bin/bash
# Installs what is missing and runs the test suites.
#   scripts/test.sh [STAGE]...
# Stages, in this order, all of them unless some are named:
#   style           the tree's format, its structure without circles, and the linter on what changed
#   dev             unit tests under the address and undefined-behaviour sanitizers
#   e2e             whole processes on two hosted machines (the dev build's programs)
#   torture         faults against whole agents: a short run with fixed seeds (scripts/torture.sh)
#   windows         the unit tests of the Windows build under Wine
#   e2e-windows     the whole-machine scenarios on two Wine machines, and between a hosted and a Wine machine, both ways
#   discovery       the discovery program beside another implementation, in network namespaces, hosted and under Wine
#   tsan            the threaded unit tests under the thread sanitizer
#   windows-build   checks of the Windows programs, a second build that must give the same bytes, and a release that is
#                   unpacked and used under Wine
#   fuzz            each fuzz program for a few seconds
# While the tests of one build run, the next builds go on behind them at low priority. Each stage prints a closing
# line of its own; the last line of all is "N passed, N failed". Exit code 0 when all passed, 1 when not, 2 for a
# wrong option.
set -u

readonly STAGES="style dev e2e torture windows e2e-windows discovery tsan windows-build fuzz"
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
work=$(mktemp -d)
export TIMES="$work/times"
: >"$TIMES"
builder=
finish() {
    [ -z "$builder" ] || kill -- -"$builder" 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT
trap 'exit 1' INT TERM

# run_counted NAME COMMAND...: shows the command's output and adds the counts of its closing line. A command that ends
# without one has failed as a whole.
run_counted() {
    local name=$1 code line
    shift
    "$@" 2>&1 | tee "$work/log"
    code=${PIPESTATUS[0]}
    line=$(grep -E '^[a-z0-9 -]+: [0-9]+ passed, [0-9]+ failed$' "$work/log" | tail -n 1)
    if [[ "$line" =~ :\ ([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]]; then
        passed=$((passed + BASH_REMATCH[1]))
        failed=$((failed + BASH_REMATCH[2]))
        [ "$code" = 0 ] || [ "${BASH_REMATCH[2]}" != 0 ] || failed=$((failed + 1))
    else
        failed=$((failed + 1))
        echo "$name: ended with code $code and no count: 1 failed"
    fi
}

# ---- builds: one after the other, in the background, in the order in which the stages need them ----

fuzzers() {
    find tests/fuzz -name '*_fuzz.cpp' -printf '%f\n' 2>/dev/null | sed 's/\.cpp$//' | sort
}

build_one() { # preset
    local targets=all
    case "$1" in
        tsan) targets="$THREADED hosted-machine" ;;
        fuzz) targets=$(fuzzers | tr '\n' ' ') ;;
        second) # its own output says what it found
            scripts/check-windows-build.sh
            return 0
            ;;
    esac
    # shellcheck disable=SC2086
    cmake --preset "$1" && cmake --build --preset "$1" --target $targets
}

build_all() { # preset...
    local preset
    for preset in "$@"; do
        build_one "$preset" >"$work/$preset.log" 2>&1
        echo $? >"$work/$preset.new"
        mv "$work/$preset.new" "$work/$preset.built"
    done
}

presets_of() { # stage
    case "$1" in
        style) ;;
        dev | e2e | torture) echo dev ;;
        windows) echo windows ;;
        e2e-windows | discovery) echo dev windows ;;
        windows-build) echo dev windows second ;;
        *) echo "$1" ;;
    esac
}

start_builds() {
    local stage preset needed=()
    for stage in $STAGES; do
        [[ "$wanted" == *" $stage "* ]] || continue
        for preset in $(presets_of "$stage"); do
            [[ " ${needed[*]-} " == *" $preset "* ]] || needed+=("$preset")
        done
    done
    [ ${#needed[@]} != 0 ] || return
    set -m # a process group of its own, so that an interrupt of this script ends its compilers
    (
        renice -n 15 $BASHPID >/dev/null
        build_all "${needed[@]}"
    ) </dev/null &
    builder=$!
    set +m
}

# built PRESET...: waits for the builds. False, with the end of its output shown and a failure counted, when one failed.
built() {
    local preset
    for preset in "$@"; do
        while [ ! -e "$work/$preset.built" ]; do
            kill -0 "$builder" 2>/dev/null || [ -e "$work/$preset.built" ] || echo 1 >"$work/$preset.built"
            sleep 0.5
        done
        [ "$(cat "$work/$preset.built")" != 0 ] || continue
        tail -n 60 "$work/$preset.log"
        echo "$preset: the build failed"
        failed=$((failed + 1))
        return 1
    done
}

# ---- stages ----

# The thread sanitizer of this compiler cannot place its memory where the system spreads mappings widely.
fixed_placement() {
    setarch "$(uname -m)" -R true 2>/dev/null && echo "setarch $(uname -m) -R"
}

stage_style() {
    run_counted style scripts/check-style.sh
}

stage_dev() {
    built dev || return
    # shellcheck disable=SC2046
    run_counted dev env UBSAN_OPTIONS=print_stacktrace=1 JOBS=4 scripts/run-test-programs.sh dev 300 \
        $(find build/dev/tests -maxdepth 1 -type f -name 'test_*' -perm -u+x | sort)
}

stage_e2e() {
    built dev || return
    run_counted e2e env JOBS=2 SHARDS=2 VORN_E2E_PROGRAMS="$PWD/build/dev" \
        scripts/run-test-programs.sh e2e 1200 build/dev/tests/e2e/test_e2e
}

stage_torture() {
    built dev || return
    local code other # two halves side by side: each mostly waits for time-outs
    local run=(env VORN_E2E_PROGRAMS="$PWD/build/dev" build/dev/tests/torture/torture --short)
    "${run[@]}" kill-sender kill-receiver kill-both outage calls sessions cancel >"$work/half.log" 2>&1 &
    other=$!
    run_counted torture "${run[@]}" disk-full bits state-junk pipe-junk peer-junk pressure
    wait $other
    code=$?
    run_counted torture sh -c "cat '$work/half.log'; exit $code"
}

stage_windows() {
    built windows || return
    run_counted windows scripts/test-windows.sh --no-build
}

stage_e2e-windows() {
    built dev windows || return
    run_counted e2e-windows env JOBS=2 SHARDS=2 VORN_E2E_KIND=wine VORN_E2E_PROGRAMS="$PWD/build/windows" \
        scripts/run-test-programs.sh e2e-windows 1200 build/dev/tests/e2e/test_e2e
    local kind
    for kind in hosted-wine wine-hosted; do # old machine first
        run_counted "e2e $kind" env VORN_E2E_KIND=$kind VORN_E2E_PROGRAMS="$PWD/build/dev" \
            VORN_E2E_WINDOWS_PROGRAMS="$PWD/build/windows" \
            GTEST_FILTER='Migration.*:Link.RightPin*:*SendWindows*/Both:*SendWindows*/OldAlone' JOBS=2 SHARDS=2 \
            scripts/run-test-programs.sh "e2e $kind" 400 build/dev/tests/e2e/test_e2e
    done
}

stage_discovery() {
    built dev windows || return
    run_counted discovery scripts/test-discovery.sh build/dev build/windows
}

stage_tsan() {
    built tsan || return
    local programs=() name
    for name in $THREADED; do
        programs+=("build/tsan/tests/$name")
    done
    run_counted tsan env JOBS=2 RUNNER="$(fixed_placement)" \
        TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" \
        scripts/run-test-programs.sh tsan 300 "${programs[@]}"
}

stage_windows-build() {
    built dev windows second || return
    run_counted windows-build cat "$work/second.log"
    run_counted package scripts/check-package.sh
}

stage_fuzz() {
    built fuzz || return
    run_counted fuzz scripts/run-fuzz-programs.sh 8
}

started=$SECONDS
start_builds
for stage in $STAGES; do
    if [[ "$wanted" == *" $stage "* ]]; then
        begun=$SECONDS
        echo "---- $stage"
        "stage_$stage"
        echo "---- $stage took $((SECONDS - begun)) s"
    fi
done
if [ -s "$TIMES" ]; then
    echo "the slowest tests:"
    sort -rn "$TIMES" | head -n 10 | awk '{ printf "    %6.1f s  %s\n", $1 / 1000, substr($0, index($0, " ") + 1) }'
fi
echo "all stages took $((SECONDS - started)) s"
echo "$passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
