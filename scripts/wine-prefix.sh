#!/bin/bash
# Makes a Windows machine for Wine in a folder of its own, or completes the one that is there.
#   scripts/wine-prefix.sh FOLDER [--user NAME] [--drive LETTER[=HOSTFOLDER]]... [--folder NAME=PATH]...
# --drive adds a fixed drive (in FOLDER/drive_LETTER unless told). --folder moves the user's Desktop, Documents or
# Pictures to a Windows path. The machine has no screen (the null graphics driver) and shows this system's root as
# network drive Z. FOLDER/machine.env holds what a program of that machine needs in its environment:
#   ( set -a; . FOLDER/machine.env; wine PROGRAM )
# Wine takes the user's name from USER, when the machine is made and again in every process; a machine keeps its user.
set -eu

usage() {
    echo "usage: scripts/wine-prefix.sh FOLDER [--user NAME] [--drive LETTER[=HOSTFOLDER]]..." \
        "[--folder NAME=PATH]..." >&2
    exit 2
}

folder=
user=$(id -un)
drives=()
moved=()
while [ $# -gt 0 ]; do
    case "$1" in
        --user) [ $# -ge 2 ] && [[ "$2" =~ ^[A-Za-z0-9._-]+$ ]] || usage; user=$2; shift 2 ;;
        --drive) [ $# -ge 2 ] && [[ "$2" =~ ^[D-Yd-y](=.+)?$ ]] || usage; drives+=("$2"); shift 2 ;;
        --folder)
            [ $# -ge 2 ] && [[ "$2" =~ ^(Desktop|Documents|Pictures)=[A-Za-z]:\\ ]] || usage
            moved+=("$2")
            shift 2
            ;;
        -*) usage ;;
        *) [ -z "$folder" ] || usage; folder=$1; shift ;;
    esac
done
[ -n "$folder" ] || usage

mkdir -p "$folder"
folder=$(cd "$folder" && pwd)
new=1
if [ -f "$folder/machine.env" ]; then
    new=0
    # shellcheck disable=SC1091
    user=$(. "$folder/machine.env" && echo "$USER")
fi

export WINEPREFIX=$folder WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml=;winemenubuilder.exe=" USER=$user
unset DISPLAY WAYLAND_DISPLAY
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# Wine's own words of a first start (no 32-bit part, no display) say nothing about this machine: shown when it fails.
run() {
    local code=0
    timeout 180 "$@" </dev/null >>"$log" 2>&1 || code=$?
    [ "$code" != 0 ] || return 0
    cat "$log" >&2
    echo "wine-prefix: failed with code $code: $*" >&2
    exit 1
}

add_value() { # key, name, data
    run wine reg add "$1" /v "$2" /t REG_SZ /d "$3" /f
}

if [ "$new" = 1 ]; then
    run wineboot --init
    # Folders of the user here must not become folders of the machine's user.
    for link in "$folder/drive_c/users/$user"/*; do
        if [ -L "$link" ]; then
            rm "$link"
            mkdir "$link"
        fi
    done
    add_value 'HKCU\Software\Wine\Drivers' Graphics null
    add_value 'HKLM\Software\Wine\Drives' z: network
fi

for drive in ${drives[@]+"${drives[@]}"}; do
    letter=${drive%%=*}
    letter=${letter,,}
    target=$folder/drive_$letter
    [[ "$drive" != *=* ]] || target=${drive#*=}
    mkdir -p "$target"
    ln -sfn "$(cd "$target" && pwd)" "$folder/dosdevices/$letter:"
done

for pair in ${moved[@]+"${moved[@]}"}; do
    value=${pair%%=*}
    case "$value" in
        Documents) value=Personal ;;
        Pictures) value="My Pictures" ;;
    esac
    add_value 'HKCU\Software\Microsoft\Windows\CurrentVersion\Explorer\User Shell Folders' "$value" "${pair#*=}"
    path=${pair#*=}
    rest=${path:3}
    mkdir -p "$folder/dosdevices/$(echo "${path:0:2}" | tr '[:upper:]' '[:lower:]')/${rest//\\//}"
done

if [ "$new" = 1 ]; then
    # The driver is chosen when the desktop starts, so this machine's server ends and takes the desktop with it.
    timeout 60 wineserver -k || true
    run wineserver -w
    printf 'WINEPREFIX=%q\nUSER=%q\nWINEDEBUG=-all\nWINEDLLOVERRIDES="%s"\n' \
        "$folder" "$user" 'mscoree=;mshtml=;winemenubuilder.exe=' >"$folder/machine.env"
fi
