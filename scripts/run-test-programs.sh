#!/bin/bash
# Runs GoogleTest programs and adds up their own counts.
#   scripts/run-test-programs.sh LABEL SECONDS PROGRAM...
# SECONDS bounds each program. RUNNER, when set, is the command that runs one ("wine"). JOBS programs run side by side
# (1 unless set): only for programs whose tests make machines of their own. With SHARDS=N each program runs as N
# processes that share its tests out among them. A failing program's output is shown in full; a skipped test is shown
# with its reason. A program that ends without its closing count (a crash, the bound) counts as one failed test. Every
# test has one try. With TIMES=FILE a line "MILLISECONDS LABEL TEST" for each test is appended to FILE. The last line
# is "LABEL tests: N passed, N failed"; exit code 1 when any failed or none ran.
set -u

if [ $# -lt 2 ] || ! [[ "$2" =~ ^[0-9]+$ ]]; then
    echo "usage: scripts/run-test-programs.sh LABEL SECONDS PROGRAM..." >&2
    exit 2
fi
label=$1
seconds=$2
shift 2
jobs=${JOBS:-1}
shards=${SHARDS:-1}
read -ra runner <<<"${RUNNER-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# run_program NUMBER PROGRAM SHARD: its output in work/NUMBER.log, then its counts and name in work/NUMBER.end.
run_program() {
    local log="$work/$1.log" program=$2 started=$SECONDS code counts nPassed nFailed why= name
    GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$3 timeout --kill-after=10 "$seconds" ${runner[@]+"${runner[@]}"} \
        "$program" --gtest_color=no --gtest_brief=0 </dev/null >"$log" 2>&1
    code=$?
    counts=$(tr -d '\r' <"$log" | awk '
        /^\[==========\] [0-9]+ tests? from .* ran\./ { closed = 1 }
        closed && /^\[  PASSED  \] [0-9]+ test/ { passed = $4 }
        closed && /^\[  FAILED  \] [0-9]+ test/ { failed = $4 }
        END { if (closed) print passed + 0, failed + 0 }')
    read -r nPassed nFailed <<<"${counts:-0 1}"
    if [ -z "$counts" ]; then
        why=", ended early with code $code"
        [ "$code" != 124 ] || why=", stopped after $seconds s"
        nPassed=$(grep -c '^\[       OK \]' "$log")
    elif [ "$code" != 0 ] && [ "$nFailed" = 0 ]; then
        # Every test passed, and the program still failed: a sanitizer's report at its end, or a crash in its clean-up.
        why=", but ended with code $code"
        nFailed=1
    fi
    name=$(basename "$program" .exe)
    [ "$shards" = 1 ] || name+=" $(($3 + 1))/$shards"
    why+=" ($((SECONDS - started)) s)"
    echo "$nPassed $nFailed $label $name: $nPassed passed, $nFailed failed$why" >"$work/$1.end.new"
    mv "$work/$1.end.new" "$work/$1.end"
}

number=0
for program in "$@"; do
    for ((shard = 0; shard < shards; shard++)); do
        while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
            wait -n
        done
        number=$((number + 1))
        run_program "$number" "$program" "$shard" &
    done
done
wait

passed=0
failed=0
for ((i = 1; i <= number; i++)); do
    read -r nPassed nFailed line <"$work/$i.end"
    passed=$((passed + nPassed))
    failed=$((failed + nFailed))
    tr -d '\r' <"$work/$i.log" >"$work/text"
    [ "$nFailed" = 0 ] || cat "$work/text"
    grep -B3 '^\[  SKIPPED \] .*ms)$' "$work/text" | sed 's/^/    /'
    [ -z "${TIMES-}" ] ||
        sed -nE "s/^\[ +(OK|FAILED) +\] ([^ ,]+).* \(([0-9]+) ms\)\$/\3 $label \2/p" "$work/text" >>"$TIMES"
    echo "$line"
done
echo "$label tests: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
