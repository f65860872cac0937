#!/bin/bash
# Runs GoogleTest programs one after the other and adds up their own counts.
#   scripts/run-test-programs.sh LABEL SECONDS PROGRAM...
# SECONDS bounds each program. RUNNER, when set, is the command that runs one ("wine"). A failing program's output is shown
# in full; a skipped test is shown with its reason. A program that ends without its closing count (a crash, the bound) counts
# as one failed test. With AGAIN=1 the tests that failed are run once more: whole machines share processors, ports and a
# Windows stand-in with everything else here. Both runs are shown, and what passed only then is named before the closing
# line; a test that fails twice has failed. The last line is "LABEL tests: N passed, N failed"; exit code 1 when any failed or none ran.
set -u

if [ $# -lt 2 ] || ! [[ "$2" =~ ^[0-9]+$ ]]; then
    echo "usage: scripts/run-test-programs.sh LABEL SECONDS PROGRAM..." >&2
    exit 2
fi
label=$1
seconds=$2
shift 2

passed=0
failed=0
second=()
log=$(mktemp)
trap 'rm -f "$log"' EXIT
read -ra runner <<<"${RUNNER-}"

# run_program PROGRAM [GTEST OPTION]...: its output in the log; sets code, nPassed, nFailed, why.
run_program() {
    local program=$1 counts
    shift
    timeout --kill-after=10 "$seconds" ${runner[@]+"${runner[@]}"} "$program" --gtest_color=no --gtest_brief=0 "$@" </dev/null >"$log" 2>&1
    code=$?
    counts=$(tr -d '\r' <"$log" | awk '
        /^\[==========\] [0-9]+ tests? from .* ran\./ { closed = 1 }
        closed && /^\[  PASSED  \] [0-9]+ test/ { passed = $4 }
        closed && /^\[  FAILED  \] [0-9]+ test/ { failed = $4 }
        END { if (closed) print passed + 0, failed + 0 }')
    read -r nPassed nFailed <<<"${counts:-0 1}"
    why=
    if [ -z "$counts" ]; then
        why=", ended early with code $code"
        [ "$code" != 124 ] || why=", stopped after $seconds s"
        nPassed=$(grep -c '^\[       OK \]' "$log")
    elif [ "$code" != 0 ] && [ "$nFailed" = 0 ]; then
        # Every test passed, and the program still failed: a sanitizer's report at its end, or a crash in its clean-up.
        why=", but ended with code $code"
        nFailed=1
    fi
}

for program in "$@"; do
    started=$SECONDS
    run_program "$program"
    mapfile -t names < <(tr -d '\r' <"$log" | sed -nE 's/^\[  FAILED  \] ([A-Za-z0-9_.\/]+)$/\1/p' | sort -u)
    if [ "${AGAIN-}" = 1 ] && [ ${#names[@]} != 0 ] && [ ${#names[@]} = "$nFailed" ]; then
        tr -d '\r' <"$log"
        echo "    once more: ${names[*]}"
        passedBefore=$nPassed
        run_program "$program" --gtest_filter="$(IFS=:; echo "${names[*]}")"
        [ "$nFailed" != 0 ] || second+=("${names[@]}")
        nPassed=$((nPassed + passedBefore))
    fi
    passed=$((passed + nPassed))
    failed=$((failed + nFailed))
    [ "$nFailed" = 0 ] || tr -d '\r' <"$log"
    tr -d '\r' <"$log" | grep -B3 '^\[  SKIPPED \] .*ms)$' | sed 's/^/    /'
    name=$(basename "$program" .exe)
    echo "$label $name: $nPassed passed, $nFailed failed$why ($((SECONDS - started)) s)"
done

[ ${#second[@]} = 0 ] || echo "$label: passed at the second try only: ${second[*]}"
echo "$label tests: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
