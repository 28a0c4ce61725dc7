#!/bin/bash
# Tests supervise-lockscreen: supervise.sh SCRIPT AUTHD-WORLD AUTH-LOCKSCREEN
set -u
script=$1
world=$2
lockscreen=$3

place=$(mktemp -d)
trap 'kill $(jobs -p) 2> /dev/null; rm -rf "$place"' EXIT
failures=0
# A screen that ends from inside of what it makes leaves that behind.
export ASAN_OPTIONS=${ASAN_OPTIONS-}:detect_leaks=0

fail() {
    echo "FAIL: $1" >&2
    failures=$((failures + 1))
}

# Waits for the next line of the supervisor's log; the shell and the screen write to it, too.
expect() {
    local line=
    until [[ $line == supervise-lockscreen:* ]]; do
        if ! IFS= read -r -t 100 line <&"$log"; then
            fail "\"$1\" is not logged"
            return
        fi
    done
    [[ $line == *"$1"* ]] || fail "\"$1\" is not logged, but \"$line\""
}

# begin ARGUMENT...: starts the supervisor, and follows its log.
begin() {
    mkfifo "$place/log"
    "$@" 2> "$place/log" > "$place/output" &
    supervisor=$!
    exec {log}< "$place/log"
    rm "$place/log"
}

finish() {
    kill -TERM $supervisor
    expect Stopped
    wait $supervisor || fail "The supervisor does not end with status 0"
    exec {log}<&-
}

# A clock for the supervisor that goes while it sleeps, and only then: however busy the machine is, no run takes long
# that is not to. What is slept is written down. A sleep of 4 seconds does not end.
export CLOCK=$place/clock SLEEP
SLEEP=$(command -v sleep)
mkdir "$place/bin"
cat > "$place/bin/date" << 'END'
#!/bin/sh
cat "$CLOCK"
END
cat > "$place/bin/sleep" << 'END'
#!/bin/sh
echo "$1" >> "$CLOCK.slept"
echo $(($(cat "$CLOCK") + $1)) > "$CLOCK"
[ "$1" != 4 ] || exec "$SLEEP" 1000
END
chmod +x "$place/bin/date" "$place/bin/sleep"
echo 1000 > "$CLOCK"

# A screen that ends in another way each time: with 1, with 0, by a crash, by SIGKILL, after a long run, and not at all.
cat > "$place/screen" << 'END'
#!/bin/sh
runs=$(($(cat "$1/runs" 2> /dev/null) + 1))
echo $runs > "$1/runs"
case $runs in
1) exit 1 ;;
2) exit 0 ;;
3) kill -SEGV $$ ;;
4) kill -KILL $$ ;;
5)
    sleep 2
    exit 1
    ;;
esac
trap 'echo ended > "$1/end"; kill $!; exit 0' TERM
"$SLEEP" 1000 &
echo $$ > "$1/pid.new"
mv "$1/pid.new" "$1/pid"
wait
END
chmod +x "$place/screen"

path=$PATH
PATH=$place/bin:$PATH
begin "$script" --longest 2 -- "$place/screen" "$place"
expect "Starting $place/screen"
expect "ended with status 1. The device stays locked. Starting it again in 1 s"
expect "Starting"
expect "ended with status 0. The device stays locked. Starting it again in 2 s"
expect "Starting"
expect "killed by signal 11. The device stays locked. Starting it again in 2 s"
expect "Starting"
expect "killed by signal 9. The device stays locked. Starting it again in 2 s"
expect "Starting"
expect "ended with status 1. The device stays locked. Starting it again in 1 s"
expect "Starting"
until [ -e "$place/pid" ]; do "$SLEEP" 0.05; done
# The fifth sleep is the screen's.
slept=$(xargs < "$CLOCK.slept")
[ "$slept" = "1 2 2 2 2 1" ] || fail "The pauses were $slept"
[ "$(cat "$place/runs")" = 6 ] || fail "The screen was not started six times"
finish
[ "$(cat "$place/end")" = ended ] || fail "SIGTERM was not passed on"
! kill -0 "$(cat "$place/pid")" 2> /dev/null || fail "The screen still runs"

# A stop during the pause starts nothing any more, and does not wait for its end. What cannot be started is tried again
# like what ends.
for end in "false 1" "$place/none 127"; do
    begin "$script" -- "${end% *}"
    for pause in 1 2 4; do
        expect "Starting ${end% *}"
        expect "ended with status ${end#* }. The device stays locked. Starting it again in $pause s"
    done
    until [ "$(tail -n 1 "$CLOCK.slept")" = 4 ]; do "$SLEEP" 0.05; done
    finish
    : > "$CLOCK.slept"
done
PATH=$path

# The lock screen itself ends with status 1 where there is no system bus.
begin "$world" --no-bus -- "$script" -- "$lockscreen"
expect "Starting $lockscreen"
expect "ended with status 1. The device stays locked"
kill -TERM $supervisor
wait $supervisor
exec {log}<&-

for arguments in "" "--" "false" "--longest 0 -- false" "--longest x -- false" "--longest"; do
    # shellcheck disable=SC2086 # Several words each.
    "$script" $arguments 2> "$place/error"
    [ $? = 2 ] || fail "The arguments \"$arguments\" are not refused"
    grep -q "^Usage: " "$place/error" || fail "The arguments \"$arguments\" are not explained"
done
"$script" --help | grep -q "^Usage: " || fail "There is no help"

exit $((failures > 0))
