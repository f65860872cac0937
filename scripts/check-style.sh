#!/bin/bash
# Checks how the tree looks and hangs together: .clang-format on every source, lines of at most 120 columns in sources
# and scripts, no circles (scripts/check-structure.sh), and .clang-tidy on the sources that differ from BASE.
#   scripts/check-style.sh [BASE]
# BASE is a commit; unless told, what the upstream main has, or the commit before the last where that is this one.
# The last line is "style checks: N passed, N failed". Exit code 0 when all passed, 1 when not, 2 for a wrong option.
set -u
[ $# -le 1 ] || { echo "usage: scripts/check-style.sh [BASE]" >&2; exit 2; }
cd "$(dirname "$0")/.." || exit 1

base=${1-}
if [ -z "$base" ]; then
    base=$(git rev-parse -q --verify origin/main || true)
    [ -n "$base" ] && [ "$base" != "$(git rev-parse HEAD)" ] ||
        base=$(git rev-parse -q --verify HEAD~1 || git rev-parse HEAD)
fi
git rev-parse -q --verify "$base^{commit}" >/dev/null || { echo "check-style: $base is no commit" >&2; exit 2; }

passed=0
failed=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT

check() { # what, command...: its output is shown when it fails
    local what=$1
    shift
    if "$@" >"$log" 2>&1; then
        passed=$((passed + 1))
        echo "ok      $what"
    else
        failed=$((failed + 1))
        head -n 60 "$log"
        echo "FAILED  $what"
    fi
}

sources() {
    git ls-files -z -- '*.cpp' '*.h'
}

formatted() {
    sources | xargs -0 clang-format --dry-run -Werror
}

narrow() {
    ! git grep -nE '^.{121,}$' -- '*.cpp' '*.h' 'CMakeLists.txt' '*/CMakeLists.txt' '*.cmake'
}

tidy() {
    local files
    mapfile -t files < <(git diff --name-only --diff-filter=d "$base" -- '*.cpp' |
        grep -vE '^(tests|bench)/|^platform/windows/|_windows\.cpp$')
    [ ${#files[@]} != 0 ] || return 0
    cmake --preset dev -B build/tidy || return 1 # a folder of its own: build/dev may be building meanwhile
    printf '%s\n' "${files[@]}" | xargs -n 4 -P "$(nproc)" clang-tidy -p build/tidy --quiet --warnings-as-errors='*'
}

check "every source is as clang-format writes it" formatted
check "no line is longer than 120 columns" narrow
check "no room needs one that needs it" scripts/check-structure.sh
check "clang-tidy on what differs from $(git rev-parse --short "$base")" tidy
echo "style checks: $passed passed, $failed failed"
[ "$failed" = 0 ]
