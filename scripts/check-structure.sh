#!/bin/bash
# Checks that no room of the product needs one that needs it. A room is a source and its header; what it needs is what
# they include, and, with BUILD (a build folder of the native backend, build/dev unless told), what its object file
# leaves undefined.
#   scripts/check-structure.sh [BUILD]
# Prints each loop, one line for each other fault. Exit code 0 when there is none, 1 when there is, 2 for a wrong
# option.
set -u
[ $# -le 1 ] || { echo "usage: scripts/check-structure.sh [BUILD]" >&2; exit 2; }
cd "$(dirname "$0")/.." || exit 1
build=${1-build/dev}
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The two rooms below app/ that call into it: a request to exit goes to the window, and the removal of a cache through
# the table of bound functions. Neither of the two calls back.
readonly ALLOWED_INTO_APP="ipc/service_requests app/notification_window
migration/special_requests app/user_interface_table"

fault() {
    echo "check-structure: $*"
    failed=1
}

# sort_rooms WHAT: the pairs "room needed-room" of standard input, through tsort.
sort_rooms() {
    tsort >/dev/null 2>"$work/loops" && [ ! -s "$work/loops" ] && return
    fault "$1: rooms in a circle:"
    sed 's/^tsort: /    /' "$work/loops"
}

rooms() { # the product's rooms, one a line
    git ls-files -- 'app/*.cpp' 'ipc/*.cpp' 'net/*.cpp' 'transfer/*.cpp' 'migration/*.cpp' 'trace/*.cpp' |
        sed 's/\.cpp$//' | grep -v '^app/main$'
}

# ---- includes ----
paths=()
for folder in app ipc net transfer migration trace platform; do
    paths+=("$folder/*.cpp" "$folder/*.h") # git's own patterns, which reach into subfolders
done
git grep -oE '^#include "(app|ipc|net|transfer|migration|trace|platform)/[^"]+"' -- "${paths[@]}" |
    sed -E 's/^([^:]+)\.(cpp|h):#include "([^"]+)\.h"$/\1 \3/' | awk '$1 != $2' | sort -u >"$work/includes"
grep -vE '(^| )platform/' "$work/includes" | sort_rooms "includes"

while read -r room needed; do
    fault "$room includes $needed, which stands above it"
done < <(awk '($1 ~ /^platform\// && $2 !~ /^platform\//) ||
    ($1 ~ /^trace\// && $2 !~ /^(trace|platform)\//)' "$work/includes")

while read -r pair; do
    grep -qxF "$pair" <<<"$ALLOWED_INTO_APP" || fault "${pair% *} includes ${pair#* }: only app/ itself may"
done < <(awk '$1 !~ /^app\// && $2 ~ /^app\//' "$work/includes")

# ---- the tools' part of the seam ----
readonly TOOL_HEADERS="platform/tool_seam platform/datagrams platform/console"
for header in $TOOL_HEADERS; do
    while read -r room; do
        fault "$room includes $header, which is for tools and tests"
    done < <(awk -v header="$header" '$2 == header && $1 !~ /^platform\// { print $1 }' "$work/includes")
done

# ---- headers of their own ----
for room in $(rooms); do
    if [ ! -f "$room.h" ]; then
        fault "$room.cpp has no header of its own"
    elif [ "$(grep -m1 '^#include' "$room.cpp")" != "#include \"$room.h\"" ]; then
        fault "$room.cpp does not include its own header first"
    fi
done

# ---- calls ----
if [ -f "$build/libvorntramsa.a" ]; then
    nm -A --defined-only -g "$build/libvorntramsa.a" |
        sed -E 's/^[^:]+:([^:]+)\.cpp\.o:[0-9a-f ]+([A-Za-z]) (.+)$/\2 \3 \1/' |
        awk '$1 ~ /[TDBR]/ { print $2, $3 }' | sort -u >"$work/defined"
    nm -A --undefined-only "$build/libvorntramsa.a" |
        sed -E 's/^[^:]+:([^:]+)\.cpp\.o: +U (.+)$/\2 \1/' | sort -u >"$work/wanted"
    join "$work/wanted" "$work/defined" | awk '$2 != $3 { print $2, $3 }' | sort -u | sort_rooms "calls"
    # What the seam declares outside the tools' headers is for the product (or for the backend itself).
    for header in $TOOL_HEADERS; do grep -oE '\b[A-Za-z0-9]+\(' "$header.h"; done | sort -u >"$work/for-tools"
    nm -C --undefined-only "$build/libvorntramsa.a" "$build/libvorn_platform.a" | awk '{ print $2 }' |
        grep -oE '^platform::[A-Za-z_0-9]+\(' | sort -u >"$work/called"
    while read -r function; do
        fault "$function stands in the product's part of the seam, and nothing in the product calls it"
    done < <(nm -C --defined-only "$build/libvorn_platform.a" | awk '$2 == "T" { print $3 }' |
        grep -oE '^platform::[A-Za-z_0-9]+\(' | sort -u | comm -23 - "$work/called" | sed 's/^platform:://' |
        grep -vxF -f "$work/for-tools" | tr -d '(')
    # A room's header declares what the room defines: nobody else's does.
    [ -s "$work/defined" ] || fault "$build/libvorntramsa.a defines nothing"
fi
exit $failed
