#!/bin/sh
# Runs a command in this world with the stand-in frozen.
set -eu
for process in /proc/[0-9]*; do
    if [ "$(cat "$process/comm")" = authd-standin ]; then
        kill -s STOP "${process#/proc/}"
        exec "$@"
    fi
done
echo "There is no stand-in to freeze" >&2
exit 1
