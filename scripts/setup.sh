# Sourced by the other scripts: goes to the project's directory, installs packages that a bare Debian machine lacks, and
# says what a script is doing. All output is plain lines, on a terminal as in a log.

set -euo pipefail
script=$(realpath "$0")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
script=${script#"$PWD/"}
export LC_ALL=C # names of objects are bytes

scratch=""        # a directory for logs, once there is one
activity=starting # what the script is doing, for the heartbeat and the verdict
concluded=""      # set once the verdict has been printed

# begin ACTIVITY [NOTE]: announces what is done next.
begin() {
    activity=$1
    echo "== $activity${2:+ ($2)}"
}

# duration SECONDS
duration() {
    if [ "$1" -lt 60 ]; then echo "$1 s"; else echo "$(($1 / 60)) min $(($1 % 60)) s"; fi
}

# Ends every script with a one-line verdict. A script that has something to clean up defines `finish`.
conclude() {
    local status=$?
    ! declare -F finish >/dev/null || finish || true
    [ -z "$scratch" ] || rm -rf "$scratch"
    if [ "$status" -eq 0 ]; then
        echo "$script: OK ($(duration "$SECONDS"))"
    elif [ -z "$concluded" ]; then
        echo "$script: FAILED in \"$activity\" (status $status, $(duration "$SECONDS"))" >&2
    fi
    exit "$status"
}
trap conclude EXIT
# Without these the status would be that of the last command. They wait for the command that is running.
trap 'exit 130' INT
trap 'exit 143' TERM

# die REASON: ends the script with this verdict.
die() {
    echo "$script: FAILED: $*" >&2
    concluded=yes
    exit 1
}

# heartbeat LOG: until standard input ends, prints the elapsed time and the last line of LOG every 20 s.
heartbeat() {
    local since=$SECONDS status
    while true; do
        status=0
        read -rt 20 || status=$?
        [ "$status" -gt 128 ] || return 0 # not a timeout
        echo "   $(duration $((SECONDS - since))) $activity: $(tail -n 1 "$1" | tr -d '\r' | cut -c 1-100)"
    done
}

# watch LOG COMMAND...: runs the command with its output appended to LOG, and a heartbeat meanwhile.
watch() {
    local status=0 heart
    exec 9> >(heartbeat "$1")
    heart=$!
    "${@:2}" >>"$1" 2>&1 9>&- || status=$?
    exec 9>&-
    wait "$heart" || true
    return "$status"
}

make_scratch() {
    [ -n "$scratch" ] || scratch=$(mktemp -d)
}

# quiet COMMAND...: shows the command's output only when it fails.
quiet() {
    local log status=0
    make_scratch
    log=$(mktemp -p "$scratch")
    watch "$log" "$@" || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return "$status"
}

# need PACKAGE...: installs those that are missing, as root or through sudo.
need() {
    local package missing=() as_root=() log offline
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
        use_sudo || die "missing packages, and no right to install them (run this as root or with sudo): ${missing[*]}"
    fi
    begin "installing ${missing[*]}"
    make_scratch
    log=$scratch/apt
    if ! { watch "$log" "${as_root[@]}" apt-get -o Acquire::http::Timeout=20 update &&
        watch "$log" "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get -o Acquire::http::Timeout=20 install -y --no-install-recommends "${missing[@]}"; }; then
        # apt-get update succeeds without a network.
        offline=$(grep -m 1 -oE 'Temporary failure resolving|Could not (resolve|connect)|[Cc]onnection timed out' \
            "$log" || true)
        [ -z "$offline" ] || die "no network (apt: $offline); missing packages: ${missing[*]}"
        cat "$log" >&2
        die "apt cannot install the missing packages: ${missing[*]}"
    fi
}

# May this user become root? sudo may ask for the password, on a terminal.
use_sudo() {
    command -v sudo >/dev/null || return
    sudo --non-interactive true 2>/dev/null || { [ -t 0 ] && sudo --validate; }
}

# claim_directory DIRECTORY: refuses a build directory in which another user has built.
claim_directory() {
    local other
    [ -e "$1" ] || { [ -w . ] || die "$(id -un) cannot write to $PWD"; return 0; }
    other=$(find "$1" ! -type l ! -writable -print -quit)
    [ -z "$other" ] || die "$(id -un) cannot write to $other: remove the directory $1"
}

# claim_port_21 SCRIPT ARGUMENT...: gets the right to listen on port 21, from root, from a network namespace (in which
# SCRIPT is run again) or from sudo. Sets `privilege`, which precedes the command of a server, and `identity`, which may
# follow it: the server then runs as this user with the right to the port alone, and leaves no file of root's.
claim_port_21() {
    privilege=() identity=()
    [ "$(id -u)" -ne 0 ] || return 0
    [ "$(cat /proc/sys/net/ipv4/ip_unprivileged_port_start)" -gt 21 ] || return 0
    if unshare --user --map-root-user --net true 2>/dev/null; then
        need iproute2
        [ -z "$scratch" ] || rm -rf "$scratch"
        exec unshare --user --map-root-user --net \
            bash -c 'PATH=$PATH:/usr/sbin:/sbin; ip link set lo up && exec "$0" "$@"' "$PWD/$1" "${@:2}"
    fi
    use_sudo || die "no right to listen on port 21: run this as root, or as a user who may use sudo or" \
        "create a network namespace, or set net.ipv4.ip_unprivileged_port_start=21"
    privilege=(sudo)
    identity=(setpriv --reuid="$(id -u)" --regid="$(id -g)" --init-groups
        --inh-caps=+net_bind_service --ambient-caps=+net_bind_service)
}

# end_servers PID...: ends servers that were started with `privilege`.
end_servers() {
    [ $# -gt 0 ] || return 0
    "${privilege[@]}" kill "$@" 2>/dev/null || true
    wait "$@" 2>/dev/null || true
}

rehearsals=() # process ids

# rehearse PROGRAM DIRECTORY ADDRESS OPTION...: starts a rehearsal server on the directory, which is made if it is not
# there, and waits until it listens. Its log is DIRECTORY.log.
rehearse() {
    local log=$2.log tries
    mkdir -p "$2"
    : >"$log" # before the server is, for grep
    "${privilege[@]}" "${identity[@]}" "$1" --root "$2" --address "${@:3}" >"$log" 2>&1 &
    rehearsals+=($!)
    for ((tries = 0; tries < 100; tries++)); do
        ! grep -q listening "$log" || return 0
        [ -d "/proc/${rehearsals[-1]}" ] || break
        sleep 0.1
    done
    die "the rehearsal server on $3: $(tail -n 1 "$log")"
}

end_rehearsals() {
    end_servers "${rehearsals[@]}"
    rehearsals=()
}
