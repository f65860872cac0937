#!/bin/bash
# Checks what the windows preset has built, as a release engineer would before signing it: kind and hardening of each
# program, its import table, version resource, manifest and symbols, and that a second build of the same sources in
# another folder gives the same bytes.
#   scripts/check-windows-build.sh [--no-rebuild]
# --no-rebuild leaves the second build out. One line per check; the last line is "windows build checks: N passed, N
# failed". Exit code 0 when all passed, 1 when not, 2 for a wrong option.
set -u

rebuild=1
case "$*" in
    "") ;;
    --no-rebuild) rebuild=0 ;;
    *) echo "usage: scripts/check-windows-build.sh [--no-rebuild]" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.." || exit 1

readonly TOOLCHAIN=x86_64-w64-mingw32
readonly BUILT=build/windows
# Libraries that every supported Windows has. The agent binds the user interface's at run time.
libraries="advapi32.dll bcrypt.dll iphlpapi.dll kernel32.dll msvcrt.dll ole32.dll"
readonly SYSTEM_LIBRARIES="$libraries version.dll ws2_32.dll"

passed=0
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# report WHAT CONDITION-CODE [DETAIL]
report() {
    if [ "$2" = 0 ]; then
        passed=$((passed + 1))
        echo "ok      $1"
    else
        failed=$((failed + 1))
        echo "FAILED  $1${3:+: $3}"
    fi
}

version_text() { # the text that platform/version_info.h gives a name
    sed -n "s/^#define $1 *\"\(.*\)\".*/\1/p" platform/version_info.h
}

mapfile -t programs < <(find "$BUILT" -maxdepth 2 -name '*.exe' -not -path "$BUILT/tests/*" \
    -not -path "$BUILT/machine/*" | sort)
[[ " ${programs[*]-} " == *" $BUILT/VornTramsaNet.exe "* ]]
report "the agent is built" $? \
    "no $BUILT/VornTramsaNet.exe: run cmake --preset windows && cmake --build --preset windows"

for program in ${programs[@]+"${programs[@]}"}; do
    name=$(basename "$program")
    "$TOOLCHAIN-objdump" -p "$program" >"$work/headers" 2>&1
    grep -q 'file format pei-x86-64' "$work/headers"
    report "$name: a 64-bit program" $?

    subsystem="Windows CUI"
    [ "$name" != VornTramsaNet.exe ] || subsystem="Windows GUI"
    grep -q "^Subsystem.*($subsystem)" "$work/headers"
    report "$name: subsystem $subsystem" $? "$(grep '^Subsystem' "$work/headers")"

    missing=
    for flag in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
        grep -q "^[[:space:]]*$flag\$" "$work/headers" || missing+="$flag "
    done
    grep -q '^Entry 5 0\{16\} ' "$work/headers" && missing+="relocations "
    [ -z "$missing" ]
    report "$name: placed at random, data not executable" $? "missing: $missing"

    foreign=
    while read -r library; do
        [[ " $SYSTEM_LIBRARIES " == *" ${library,,} "* ]] || foreign+="$library "
    done < <(sed -n 's/^[[:space:]]*DLL Name: //p' "$work/headers")
    grep -q 'DLL Name:' "$work/headers" && [ -z "$foreign" ]
    report "$name: imports only $SYSTEM_LIBRARIES" $? "imports $foreign"

    "$TOOLCHAIN-windres" -J coff -O rc "$program" >"$work/resources" 2>&1
    sed -n '/^1 24 /,$p' "$work/resources" | sed -n 's/^ *"\(.*\)\\n"$/\1/p' | sed 's/""/"/g' >"$work/manifest"
    diff -q "$work/manifest" platform/windows/VornTramsaNet.manifest >/dev/null
    report "$name: the manifest is platform/windows/VornTramsaNet.manifest" $?

    ! "$TOOLCHAIN-objdump" -h "$program" | grep -q ' \.debug_' &&
        "$TOOLCHAIN-objdump" -h "$program" | grep -q ' \.gnu_debuglink' &&
        "$TOOLCHAIN-objdump" -h "$program.debug" 2>/dev/null | grep -q ' \.debug_info'
    report "$name: symbols are in $name.debug, and the program names it" $?

    ! grep -qaF "$PWD" "$program" && ! grep -qaF "$PWD" "$program.debug"
    report "$name: holds no path of the machine it was built on" $?
done

for asked in 'requestedExecutionLevel level="asInvoker" uiAccess="false"' '>true</longPathAware>' \
    '{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}' "version=\"$(version_text VORN_VERSION_TEXT)\""; do
    grep -qF "$asked" platform/windows/VornTramsaNet.manifest
    report "manifest: $asked" $?
done

if [ -f "$BUILT/VornTramsaNet.exe" ]; then
    "$TOOLCHAIN-windres" -J coff -O rc "$BUILT/VornTramsaNet.exe" >"$work/resources" 2>&1
    block=$(sed -n '/BLOCK "040904b0"/,/END/p' "$work/resources")
    while read -r field constant; do
        text=$(version_text "$constant")
        [ -n "$text" ] && grep -qF "VALUE \"$field\", \"$text\"" <<<"$block"
        report "version resource, block 040904b0: $field is \"$text\"" $?
    done <<<"ProductVersion VORN_VERSION_TEXT
FileVersion VORN_VERSION_TEXT
ProductName VORN_PRODUCT_NAME
FileDescription VORN_FILE_DESCRIPTION
CompanyName VORN_COMPANY_NAME
InternalName VORN_INTERNAL_NAME
OriginalFilename VORN_ORIGINAL_FILENAME
LegalCopyright VORN_LEGAL_COPYRIGHT"
    numbers=$(sed -n 's/^#define VORN_VERSION_NUMBERS *//p' platform/version_info.h)
    grep -q "^ *FILEVERSION $numbers" "$work/resources" && grep -q "^ *PRODUCTVERSION $numbers" "$work/resources" &&
        [ "${numbers//, /.}" = "$(version_text VORN_VERSION_TEXT)" ]
    report "version resource: numbers $numbers" $?
fi

if [ "$rebuild" = 1 ]; then
    # The sources as they lie here, at a path of another length, without a compiler cache that could answer in its
    # place.
    mkdir -p "$work/second-build-of-the-same-sources"
    git ls-files -z --cached --others --exclude-standard -- . |
        xargs -0 -I{} sh -c '[ ! -e "$1" ] || printf "%s\0" "$1"' _ {} |
        tar -c --null -T - | tar -x -C "$work/second-build-of-the-same-sources"
    targets=()
    for program in ${programs[@]+"${programs[@]}"}; do
        targets+=("$(basename "$program" .exe)")
    done
    (
        cd "$work/second-build-of-the-same-sources" && export CCACHE_DISABLE=1 &&
            cmake --preset windows && cmake --build --preset windows --target "${targets[@]}"
    ) >"$work/log" 2>&1
    code=$?
    report "a second build in another folder" $code "$(tail -n 20 "$work/log")"
    for program in ${programs[@]+"${programs[@]}"}; do
        [ "$code" = 0 ] || break
        for file in "$program" "$program.debug"; do
            cmp "$file" "$work/second-build-of-the-same-sources/$file" >"$work/log" 2>&1
            report "$(basename "$file"): both builds give the same bytes" $? "$(cat "$work/log")"
        done
    done
fi

echo "windows build checks: $passed passed, $failed failed"
[ "$failed" = 0 ]
