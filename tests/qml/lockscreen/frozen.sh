#!/bin/bash
# Tests that an unlocked lock screen does not outlive a daemon that stands still, with the times it has on a device:
# frozen.sh AUTHD-WORLD AUTHD-STANDIN AUTH-LOCKSCREEN
set -eu
if [ $# = 3 ]; then
    exec "$1" --standin -- "$0" "$2" "$3"
fi
standin=$1
lockscreen=$2

fail() {
    echo "FAIL: $1" >&2
    exit 1
}

# Waits for what the screen claims next.
expect() {
    local line
    IFS= read -r -t 200 line <&"$claims" || fail "The screen does not say \"$1\" $2"
    [ "$line" = "$1" ] || fail "The screen says \"$line\" $2"
}

# The world has processes of its own.
for process in /proc/[0-9]*; do
    [ "$(cat "$process/comm")" != authd-standin ] || daemon=${process#/proc/}
done

# It would hear codes on its standard output, too, and hears none.
exec {claims}< <(AUTHD_HOSTCHECK_FD=1 exec "$lockscreen" --user 1000)
screen=$!
trap 'kill -CONT $daemon; kill $screen' EXIT
expect locked "at the start"
"$standin" ctl '{"do":"set-lock","state":0}' > /dev/null
expect unlocked "when the device is unlocked"
kill -STOP "$daemon"
expect locked "when the daemon is frozen"
kill -CONT "$daemon"
expect unlocked "when the daemon speaks again"
