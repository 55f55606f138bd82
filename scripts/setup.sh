# Sourced by the other scripts: goes to the project's directory, installs packages that a bare Debian machine lacks, and
# reports what a script is doing. Output is plain lines, on a terminal and in a log.

set -euo pipefail
script=scripts/$(basename "$0") # how it was called, from the project's directory
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[ -e "$script" ] || script=$0
export LC_ALL=C # names of objects are bytes

activity=starting # what the script is doing, for the heartbeat and the verdict
concluded=        # set once a verdict has been printed

# begin ACTIVITY: announces what is done next.
begin() {
    activity=$1
    echo "== $activity"
}

# duration SECONDS
duration() {
    if [ "$1" -lt 60 ]; then echo "$1 s"; else echo "$(($1 / 60)) min $(($1 % 60)) s"; fi
}

# The one-line verdict. A script that has to clean up defines `finish`.
conclude() {
    local status=$?
    ! declare -F finish >/dev/null || finish || true
    if [ "$status" -eq 0 ]; then
        echo "$script: OK ($(duration "$SECONDS"))"
    elif [ -z "$concluded" ]; then
        echo "$script: FAILED while $activity (status $status, $(duration "$SECONDS"))" >&2
    fi
}
trap conclude EXIT

# die REASON: ends the script with this verdict.
die() {
    echo "$script: FAILED: $*" >&2
    concluded=yes
    exit 1
}

# heartbeat LOG: until standard input ends, prints every 20 s how long it has been and the last line of LOG.
heartbeat() {
    local since=$SECONDS status
    while true; do
        status=0
        read -rt 20 || status=$?
        [ "$status" -gt 128 ] || return 0 # timed out
        echo "   $(duration $((SECONDS - since))), $activity: $(tail -n 1 "$1" | tr -d '\r' | cut -c 1-100)"
    done
}

# watch LOG COMMAND...: runs the command with a heartbeat that shows the last line of LOG.
watch() {
    local status=0 heart
    exec 9> >(heartbeat "$1")
    heart=$!
    "${@:2}" 9>&- || status=$?
    exec 9>&-
    wait "$heart" || true
    return "$status"
}

# quiet COMMAND...: its output is shown only when it fails.
quiet() {
    local log status=0
    log=$(mktemp)
    watch "$log" "$@" >"$log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return "$status"
}
