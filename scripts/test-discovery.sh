#!/bin/bash
# Discovery on a network: two namespaces that a virtual cable joins (scripts/lan.sh), the discovery program and the
# agent of a hosted machine and of one under Wine, and avahi as somebody else's implementation.
#   scripts/test-discovery.sh [BUILD [WINDOWS-BUILD]]     build folders; build/dev and build/windows unless told
# The last line is "discovery tests: N passed, N failed"; exit code 0 when none failed. Where no namespaces can be
# made everything is skipped.
set -u
cd "$(dirname "$0")/.." || exit 2
[ $# -le 2 ] || { echo "usage: scripts/test-discovery.sh [BUILD [WINDOWS-BUILD]]" >&2; exit 2; }
build=$(realpath -m "${1-build/dev}")
windows=$(realpath -m "${2-build/windows}")
readonly TYPE=_vorn-tramsa._tcp PORT=40123
readonly INI='C:\Discovery\Socket.dat'
passed=0
failed=0
skipped=0
lan="vorn-$$"
work=$(mktemp -d)
bus=unix:path=$work/bus

skip() { echo "    skipped: $1"; skipped=$((skipped + 1)); }
finish() {
    scripts/lan.sh remove "$lan"
    if [ -e "$work/wine/machine.env" ]; then WINEPREFIX="$work/wine" wineserver -k 2>/dev/null; fi
    rm -rf "$work"
}
close() {
    [ "$skipped" = 0 ] || echo "discovery tests: $skipped skipped"
    echo "discovery tests: $passed passed, $failed failed"
    [ "$failed" = 0 ]
    exit
}
check() { # what, command...
    local what=$1
    shift
    if "$@"; then
        echo "    passed: $what"
        passed=$((passed + 1))
    else
        echo "    FAILED: $what"
        failed=$((failed + 1))
        tail -n 5 "$work"/*.log
        cat "$work"/*/drive_c/Discovery/Socket.dat; echo "found [$(found)]"
    fi
}
# within SECONDS COMMAND...: repeats it until it holds
within() {
    local until=$((SECONDS + $1))
    shift
    while ! "$@"; do
        [ "$SECONDS" -lt "$until" ] || return 1
        sleep 0.2
    done
}

why=$(scripts/lan.sh check) || { skip "all of it: $why"; close; }
for program in avahi-daemon avahi-browse avahi-publish dbus-daemon perl; do
    command -v $program >/dev/null || { skip "all of it: $program is missing"; close; }
done
[ -x "$build/tools/VornTramsaNetMDNS" ] || { echo "no programs in $build"; failed=1; close; }
trap finish EXIT
trap 'exit 1' INT TERM

on() { # 1|2 COMMAND...
    local side=$1
    shift
    # one that runs behind this script is the process that it starts, so that its id ends the program itself
    [ "$BASHPID" = $$ ] || exec ip netns exec "$lan-$side" env -u VORN_RENDEZVOUS DBUS_SYSTEM_BUS_ADDRESS="$bus" "$@"
    ip netns exec "$lan-$side" env -u VORN_RENDEZVOUS DBUS_SYSTEM_BUS_ADDRESS="$bus" "$@"
}

# ---- avahi, with a bus of its own, in namespace 2 ----
start_avahi() {
    cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>$bus</listen><auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_type="method_call"/><allow send_type="signal"/><allow send_requested_reply="true"/><allow receive_type="method_call"/>
<allow receive_type="signal"/><allow receive_type="method_return"/><allow receive_type="error"/></policy></busconfig>
CONF
    printf '%s\n' '[server]' host-name=other-pc use-ipv4=yes use-ipv6=no allow-interfaces=lan0 '[wide-area]' enable-wide-area=no \
        '[publish]' publish-hinfo=no publish-workstation=no >"$work/avahi.conf"
    on 2 dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile >"$work/bus.log" 2>&1 &
    within 10 test -S "$work/bus" || return 1
    # its own /run: the daemon has a pid file there, and this host may run one
    on 2 sh -c "mount -t tmpfs none /run && mkdir /run/avahi-daemon && exec avahi-daemon -f '$work/avahi.conf' --no-drop-root --no-chroot \
        --no-rlimits" >"$work/avahi.log" 2>&1 &
    within 10 grep -q 'startup complete' "$work/avahi.log"
}
# avahi_sees TEXT: an instance is resolved to it ("name;host's address;port"); with no TEXT none may be there
avahi_sees() {
    local found
    found=$(on 2 timeout 3 avahi-browse --resolve --terminate --parsable --no-db-lookup $TYPE 2>/dev/null | awk -F';' '/^=/ { print $4 ";" $8 ";" $9 }' |
        sed 's/\\032/ /g; s/\\040/(/g; s/\\041/)/g') # characters by number, in decimal
    if [ $# = 0 ]; then [ -z "$found" ]; else grep -qxF -- "$1" <<<"$found"; fi
}
publish() { # name, port
    on 2 avahi-publish --service "$1" $TYPE "$2" >"$work/publish.log" 2>&1 &
    published=$!
    within 10 grep -q Established "$work/publish.log"
}

# ---- the discovery program on a machine, in namespace 1 ----
make_machine() { # folder, computer
    "$build/tools/hosted-machine" create "$work/$1" --computer "$2" --user anna --program "$build/VornTramsaNet" \
        --discovery "$build/tools/VornTramsaNetMDNS" >/dev/null && mkdir -p "$work/$1/drive_c/Discovery"
}
discovery() { # arguments of the program
    if [ "$kind" = wine ]; then
        (
            set -a
            # shellcheck disable=SC1091
            . "$work/wine/machine.env"
            set +a
            on 1 wine "$windows/tools/VornTramsaNetMDNS.exe" "$@"
        )
    else
        on 1 env VORN_MACHINE="$work/hosted" "$build/tools/VornTramsaNetMDNS" "$@"
    fi
}
# An agent's port, as far as discovery looks at it.
listen() {
    on 1 perl -MIO::Socket::INET -e 'IO::Socket::INET->new(Listen => 1, LocalPort => $ARGV[0]) or die; sleep 300' $PORT 2>>"$work/listen.log" &
    listener=$!
    sleep 0.3
}
end() { # process ids started above
    local pid
    for pid in "$@"; do
        kill "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
}
# What the search has found, "address:port address:port"; "none" for a count of 0, "" without one.
found() {
    local file="$work/$kind/drive_c/Discovery/Socket.dat" text
    text=$(sed -n '/^\[ServerEnum\]/,/^\[[^S]/p' "$file" 2>/dev/null | tr -d '\r')
    case "$(sed -n 's/^Count=//p' <<<"$text")" in
        "") ;;
        0) echo none ;;
        *) paste -d: <(grep -E '^[0-9]+=' <<<"$text" | cut -d= -f2) <(grep -E '^[0-9]+_port=' <<<"$text" | cut -d= -f2) | tr '\n' ' ' | sed 's/ $//' ;;
    esac
}
finds() { [ "$(found)" = "$1" ]; }
ended() { ! kill -0 "$1" 2>/dev/null; }

# A stop in a program's first six seconds may be meant for the one before, and lets it linger.
outlive_early_stops() {
    while [ $((SECONDS - begun)) -lt 8 ]; do sleep 0.2; done
}

announce() {
    : >"$work/$kind/drive_c/Discovery/Socket.dat"
    printf '[ServerMDNS]\r\nPort=%s\r\n' $PORT >"$work/$kind/drive_c/Discovery/Socket.dat"
    listen
    discovery server "$INI" >"$work/server.log" 2>&1 &
    server=$!
    begun=$SECONDS
}
search() {
    printf '[LastClient]\r\nServerIP=\r\n' >"$work/$kind/drive_c/Discovery/Socket.dat"
    discovery client "$INI" >"$work/client.log" 2>&1 &
    client=$!
    begun=$SECONDS
}

# name: how people see this machine
scenarios() {
    local name=$1
    announce
    check "$kind: avahi finds the announced port" within 15 avahi_sees "$name;10.77.0.1;$PORT"
    outlive_early_stops
    discovery stop
    check "$kind: the announcement ends when it is stopped" within 10 ended $server
    check "$kind: and takes back what it said" within 5 avahi_sees
    end "$listener"

    publish "$name" 999
    announce
    check "$kind: a name that somebody has is given up" within 15 avahi_sees "$name (2);10.77.0.1;$PORT"
    end "$published" "$listener"
    check "$kind: an agent that is gone is not announced" within 15 ended $server
    check "$kind: and nobody finds it" within 5 avahi_sees

    search
    check "$kind: a search that finds nobody says so" within 15 finds none
    publish "Other PC" 41000
    check "$kind: what avahi publishes is found" within 15 finds 10.77.0.2:41000
    ip -n "$lan-1" link set lan0 down
    check "$kind: an interface that goes takes it along" within 15 finds none
    ip -n "$lan-1" link set lan0 up
    check "$kind: and it is found again when that comes back" within 20 finds 10.77.0.2:41000
    end "$published"
    check "$kind: what avahi takes back is gone" within 15 finds none
    outlive_early_stops
    discovery stop
    check "$kind: the search ends when it is stopped" within 10 ended $client
}

hostile_packets() { # from namespace 2, as a response is sent
    on 2 perl -MIO::Socket::INET -MSocket -e '
        my $s = IO::Socket::INET->new(Proto => "udp", LocalPort => 5353, ReuseAddr => 1) or die "$!";
        setsockopt($s, 0, 32, inet_aton("10.77.0.2")) or die;
        my $to = sockaddr_in(5353, inet_aton("224.0.0.251"));
        my @bad = ("", "x", pack("n6", 0, 0x8400, 0, 65535, 0, 0), pack("n6", 0, 0x8400, 0, 1, 0, 0) . "\xC0\x0C" . ("\0" x 10),
            pack("n6", 0, 0, 1, 0, 0, 0) . "\xC0\x0C\0\xFF\0\1", "\xFF" x 1400, pack("n6", 0, 0x8600, 0, 3, 0, 0));
        srand(7);
        for my $n (1 .. 2000) {
            my $bytes = $bad[$n % @bad] . join("", map { chr(int(rand(256))) } 1 .. $n % 60);
            send($s, $bytes, 0, $to);
            select(undef, undef, undef, 0.001) if $n % 20 == 0;
        }'
}

whole_link() {
    local side pin
    for side in 1 2; do
        make_machine "link$side" "PC-$side" || return 1
        on $side env VORN_MACHINE="$work/link$side" "$build/VornTramsaNet" >"$work/agent$side.log" 2>&1 &
        agents+=($!)
    done
    on 1 env VORN_MACHINE="$work/link1" "$build/tools/service-console" --wait 40 -c 'agent present' -c 'send STON_GETPINCODE 1' \
        -c 'expect STON_GETPINCODE p1=3 set=pin:p2' -c 'print PIN $pin' -c 'expect STON_GETPINCODE p1=2 t1=PC-2' >"$work/console1.log" 2>&1 &
    local console=$!
    within 20 grep -qE 'PIN [0-9]+' "$work/console1.log" || return 1
    pin=$(grep -oE 'PIN [0-9]+' "$work/console1.log" | tail -n 1 | cut -d' ' -f2)
    on 2 env VORN_MACHINE="$work/link2" "$build/tools/service-console" --wait 40 -c 'agent present' -c "send STON_SETPINCCODE 1 $pin" \
        -c 'expect STON_SETPINCCODE p1=2 t1=PC-1' >"$work/console2.log" 2>&1 && wait $console
}

scripts/lan.sh make "$lan" || { echo "the network could not be made"; failed=1; close; }
start_avahi || { echo "avahi did not start"; failed=$((failed + 1)); cat "$work"/*.log; close; }

kind=hosted
make_machine hosted OLD-PC || { failed=1; close; }
scenarios OLD-PC

search
publish "Other PC" 41000
hostile_packets
check "hosted: hostile packets change nothing" within 15 finds 10.77.0.2:41000
end "$published"
end "$client"

ip -n "$lan-1" addr del 10.77.0.1/24 dev lan0
search
check "hosted: without a network it says so once" within 10 grep -q 'no network that multicast works on' "$work/client.log"
check "hosted: and counts nobody" within 10 finds none
ip -n "$lan-1" addr add 10.77.0.1/24 brd + dev lan0
publish "Other PC" 41000
check "hosted: a network that comes later is used" within 15 finds 10.77.0.2:41000
end "$published" "$client"

agents=()
check "two agents in two namespaces link by PIN" whole_link
check "and are announced no more, though they were linked at once" within 20 avahi_sees
end "${agents[@]}"

kind=wine
if ! command -v wine >/dev/null; then
    skip "the Windows program: wine is missing"
elif [ ! -e "$windows/tools/VornTramsaNetMDNS.exe" ]; then
    skip "the Windows program: it is not built in $windows"
else
    scripts/wine-prefix.sh "$work/wine" && mkdir -p "$work/wine/drive_c/Discovery" && ln -s wine "$work/WINE-PC"
    scenarios "$(hostname | cut -c1-15 | tr '[:lower:]' '[:upper:]')"
fi
close
