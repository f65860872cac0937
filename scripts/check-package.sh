#!/bin/bash
# Checks a release as the people who get it would use it: packs it twice, compares the bytes, unpacks it on two new
# Windows machines under Wine where nothing else of ours is, and moves a small profile with migrate.
#   scripts/check-package.sh
# Takes the programs that build/windows holds. One line per check; the last line is "package checks: N passed, N
# failed". Exit code 0 when all passed, 1 when not, 2 for a wrong option.
set -u
[ $# = 0 ] || { echo "usage: scripts/check-package.sh" >&2; exit 2; }
cd "$(dirname "$0")/.." || exit 1

passed=0
failed=0
work=$(mktemp -d)
giver=
finish() {
    [ -z "$giver" ] || kill "$giver" 2>/dev/null
    for machine in old new; do
        [ ! -f "$work/$machine/machine.env" ] || on "$machine" wineserver -k
    done
    rm -rf "$work"
}
trap finish EXIT

report() { # what, condition code, file whose end tells why
    if [ "$2" = 0 ]; then
        passed=$((passed + 1))
        echo "ok      $1"
    else
        failed=$((failed + 1))
        [ ! -s "${3-}" ] || tail -n 30 "$3"
        echo "FAILED  $1"
    fi
}

on() { # machine, command...: both machines meet in a folder; nothing goes out to the network
    local machine=$1
    shift
    ( set -a && . "$work/$machine/machine.env" && VORN_RENDEZVOUS=$work/rendezvous && exec "$@" )
}

documents() { # machine
    echo "$work/$1/drive_c/users/$1-user/Documents"
}

scripts/package.sh --no-build "$work/first" >"$work/log" 2>&1 && scripts/package.sh --no-build "$work/second" >>"$work/log" 2>&1
report "two archives, made twice" $? "$work/log"
for archive in "$work"/first/*.zip; do
    cmp "$archive" "$work/second/$(basename "$archive")" >"$work/log" 2>&1
    report "$(basename "$archive"): the same bytes both times" $? "$work/log"
done
archive=$(find "$work/first" -name '*-win64.zip')
[[ "$archive" == */VornTramsaNet-"$(sed -n 's/^#define VORN_VERSION_TEXT *"\(.*\)".*/\1/p' platform/version_info.h)"-win64.zip ]]
report "the archive's name has the programs' version" $?

mkdir "$work/rendezvous"
for machine in old new; do
    scripts/wine-prefix.sh "$work/$machine" --user "$machine-user" >"$work/log" 2>&1 &&
        unzip -q "$archive" -d "$work/$machine/drive_c/VORN" >>"$work/log" 2>&1 &&
        mkdir -p "$(documents $machine)"
    report "unpacked on the $machine machine" $? "$work/log"
done
source=$(documents old)/Briefe
mkdir -p "$source/leer" "$source/Ü"
for name in "an Oma.txt" "Ü/groß.bin" "Ü/klein.txt"; do
    head -c $((RANDOM * 20)) /dev/urandom >"$source/$name"
done
: >"$source/nichts.txt"

program=$(cd "$work/old/drive_c" && find VORN -name migrate.exe | head -n 1)
program="C:\\${program//\//\\}"
on old wine "$program" give --json >"$work/give" 2>&1 </dev/null &
giver=$!
pin=
for _ in {1..600}; do
    pin=$(sed -n 's/.*"pin":"\([0-9]*\)".*/\1/p' "$work/give" | head -n 1)
    [ -z "$pin" ] && kill -0 $giver 2>/dev/null || break
    sleep 0.1
done
[ -n "$pin" ]
report "the old machine shows a PIN" $? "$work/give"
on new timeout 120 wine "$program" take "${pin:-0}" Documents --yes >"$work/take" 2>&1 </dev/null
code=$?
report "migrate take ends with 0" $code "$work/take"
[ $code = 0 ] || kill $giver # it would wait for another try
wait $giver
report "migrate give ends with 0" $? "$work/give"
giver=
diff -r "$source" "$(documents new)/Briefe" >"$work/log" 2>&1
report "what came is what was there" $? "$work/log"

echo "package checks: $passed passed, $failed failed"
[ "$failed" = 0 ]
