#!/bin/bash
# Makes and removes a small network of this host's own: two network namespaces that a virtual cable joins, and nothing
# else.
#   scripts/lan.sh check         exit code 0 when this user may make one here; otherwise a sentence why not, and 1
#   scripts/lan.sh make NAME     namespaces NAME-1 (10.77.0.1) and NAME-2 (10.77.0.2), interface lan0, both /24
#   scripts/lan.sh remove NAME   ends what still runs in them and removes both
# make replaces an old NAME.
# A program runs there with:  ip netns exec NAME-1 PROGRAM...
# What runs in one reaches the other alone: no other network, no name server, and multicast on lan0.
set -u

usage() { sed -n '4,6s/^# *//p' "$0" >&2; exit 2; }

missing() {
    command -v ip >/dev/null || { echo "the command ip is missing (package iproute2)"; return; }
    [ "$(id -u)" = 0 ] || { echo "only root may make network namespaces"; return; }
    local name="vorn-check-$$" said
    if ! said=$( { "$0" make "$name" && ip netns exec "$name-1" true; } 2>&1 ); then
        echo "network namespaces are not allowed here: ${said##*$'\n'}"
    fi
    "$0" remove "$name" >/dev/null 2>&1
}

remove() { # name
    local side pids
    for side in "$1-1" "$1-2"; do
        [ -e "/run/netns/$side" ] || continue
        for signal in TERM KILL; do
            pids=$(ip netns pids "$side" 2>/dev/null) && [ -n "$pids" ] || break
            # shellcheck disable=SC2086
            kill -$signal $pids 2>/dev/null
            for _ in {1..30}; do
                [ -n "$(ip netns pids "$side" 2>/dev/null)" ] || break
                sleep 0.1
            done
        done
        ip netns del "$side"
    done
}

make() { # name
    local n
    remove "$1"
    ip netns add "$1-1" && ip netns add "$1-2" &&
        ip -n "$1-1" link add lan0 type veth peer name lan0 netns "$1-2" || return 1
    for n in 1 2; do
        ip -n "$1-$n" link set lo up && ip -n "$1-$n" addr add "10.77.0.$n/24" brd + dev lan0 &&
            ip -n "$1-$n" link set lan0 up || return 1
    done
}

case "${1-}" in
    check)
        [ $# = 1 ] || usage
        why=$(missing)
        [ -z "$why" ] || { echo "$why"; exit 1; }
        ;;
    make | remove)
        [ $# = 2 ] && [[ "$2" =~ ^[A-Za-z0-9_-]+$ ]] || usage
        "$1" "$2" || { code=$?; [ "$1" = remove ] || remove "$2"; exit $code; }
        ;;
    *) usage ;;
esac
