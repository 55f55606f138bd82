# Sourced by the other scripts: where the project is, and the packages that a bare Debian machine lacks.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C # names of objects are bytes

# need PACKAGE...: installs those that are missing, as root or through sudo. Quiet while all goes well.
need() {
    local package missing=() log as_root=()
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "missing packages, and no sudo to install them: ${missing[*]}" >&2; return 1; }
        as_root=(sudo)
    fi
    echo "installing ${missing[*]}"
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
            "${missing[@]}"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# quiet COMMAND...: its output is shown only when it fails.
quiet() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return "$status"
}

# claim_port_21 SCRIPT ARGUMENT...: port 21 needs a privilege: root's, a network of our own (in which SCRIPT is run
# again), or sudo's. Leaves in `privilege` what to put before the command of a server.
claim_port_21() {
    privilege=()
    [ "$(id -u)" -ne 0 ] || return 0
    [ "$(cat /proc/sys/net/ipv4/ip_unprivileged_port_start)" -gt 21 ] || return 0
    if unshare --user --map-root-user --net true 2>/dev/null; then
        need iproute2
        exec unshare --user --map-root-user --net \
            bash -c 'PATH=$PATH:/usr/sbin:/sbin; ip link set lo up && exec "$0" "$@"' "$PWD/$1" "${@:2}"
    fi
    privilege=(sudo)
}
