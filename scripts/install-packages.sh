#!/bin/bash
# Installs what the builds, the tests, the demo and the benchmarks need on Debian 12, as far as it is missing.
#   scripts/install-packages.sh [--list]
# Exit code 0: everything is there; 1: something is missing and may not or could not be installed; 2: wrong option.
set -u

PACKAGES=(
    # native build, and the library behind the hosted backend's cipher
    g++ cmake ninja-build libssl-dev googletest nlohmann-json3-dev ca-certificates git procps
    # fuzz programs
    clang libclang-rt-14-dev
    # format and linter
    clang-format clang-tidy
    # Windows build, and where its programs run
    g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine wine64
    # what the benchmarks compare with
    openssh-client openssh-server rsync
    # the network of two machines that discovery is tried on, and somebody else's discovery to try it against
    iproute2 avahi-daemon avahi-utils dbus
    # looks into a release
    unzip
)

case "${1-}" in
    "") ;;
    --list) printf '%s\n' "${PACKAGES[@]}"; exit 0 ;;
    *) echo "usage: scripts/install-packages.sh [--list]" >&2; exit 2 ;;
esac
[ $# -le 1 ] || { echo "usage: scripts/install-packages.sh [--list]" >&2; exit 2; }

missing_packages() {
    local package
    for package in "${PACKAGES[@]}"; do
        case "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" in
            installed) ;;
            *) echo "$package" ;;
        esac
    done
}

if ! command -v dpkg-query >/dev/null; then
    echo "packages: this is no Debian system; needed are: ${PACKAGES[*]}" >&2
    exit 1
fi
mapfile -t missing < <(missing_packages)
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" = 0 ]; then
    as_root=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    as_root=(sudo -n)
else
    echo "packages: not root, and sudo asks for a password or is missing. Install these first:" >&2
    echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
fi

echo "packages: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
install_missing() {
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends -o DPkg::Lock::Timeout=300 "${missing[@]}" >"$log" 2>&1
}
# The lists of a fresh system are empty, and old ones name packages that are gone: fetched only when the first try
# fails.
if ! install_missing; then
    if ! "${as_root[@]}" apt-get update -o DPkg::Lock::Timeout=300 >"$log" 2>&1 || ! install_missing; then
        tail -n 20 "$log" >&2
        echo "packages: could not install ${missing[*]}" >&2
        exit 1
    fi
fi
mapfile -t missing < <(missing_packages)
[ ${#missing[@]} -eq 0 ] || { echo "packages: still missing: ${missing[*]}" >&2; exit 1; }
echo "packages: installed"
