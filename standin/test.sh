#!/bin/bash
# Tests the stand-in: standin/test.sh AUTHD-STANDIN [STANDIN-CLIENT]. It makes the worlds that it needs.
# shellcheck disable=SC2016
set -u
S=$(readlink -f "$1")
C=$(readlink -f "${2:-${S%/*}/standin-client}")
W=${S%/*}/authd-world
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export S C W dir
export SOCKET=/var/run/authd/authd.socket CONTROL=/run/authd/standin.socket
failures=0
count=0

# status STATUS PATTERN COMMAND…: COMMAND ends with STATUS and prints what matches PATTERN.
status()
{
    local expected=$1 pattern=$2 output got
    shift 2
    output=$("$@" 2>&1)
    got=$?
    count=$((count + 1))
    if [ $got -ne "$expected" ] || ! [[ $output =~ $pattern ]]; then
        failures=$((failures + 1))
        printf 'FAIL: %s\n  status %s, expected %s; printed: %s\n  expected: %s\n' "${!#}" $got "$expected" "$output" "$pattern"
    fi
}

# scenario TEXT PATTERN: the scenario file is refused with the file's name and a message that matches.
scenario()
{
    printf '%s' "$1" >"$dir/bad.json"
    status 3 "^authd-standin: $dir/bad.json$2" "$S" check "$dir/bad.json"
}

# played SCENARIO PATTERN SCRIPT: in a world of its own with the stand-in SCRIPT prints what matches.
played()
{
    printf '%s' "$1" >"$dir/scenario.json"
    status 0 "$2" "$S" run --scenario "$dir/scenario.json" -- bash -c "$functions $3"
}

# alone STATUS PATTERN SCRIPT: in a world of its own SCRIPT ends with STATUS and prints what matches.
alone()
{
    status "$1" "$2" "$W" -- bash -c "$functions $3"
}

functions='
ctl() { "$S" ctl "$@"; }
serve() { mkfifo /run/ready; "$S" serve "$@" --ready-fd 9 9>/run/ready 8>&- & pid=$!; read -r ready </run/ready; }
try() { # SECRET FACTOR
    "$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"$2\">, \"data\": <\"$1\">, \"challenge\": <@ay %challenge>})" "${@:3}"; }
fails() { try 0000 "$1" "<AuthenticationFailed>" "${@:2}"; }
call() { # SERIAL: a method call as bytes
    printf "\0AUTH EXTERNAL 30\r\nBEGIN\r\n"
    printf "l\1\0\1\0\0\0\0$1\0\0\0\71\0\0\0\1\1o\0\24\0\0\0/vantora/AuthService\0\0\0\0\3\1s\0\20\0\0\0RequestChallenge\0\0\0\0\0\0\0\0"; }
'
printf '{"users":%200000s\n' '' | tr ' ' '[' >"$dir/deep.json"

# 3: bad scenarios, with position and what was expected
scenario '' ':1:1: expected a JSON object'
scenario '[]' ':1:1: expected a JSON object'
scenario '{"lock-state":' ':1:[0-9]+: .'
scenario $'{\n "factors": [}\n}' ':2:[0-9]+: .'
scenario $'{\n "x": "\xff"}' ':2:8: expected UTF-8'
scenario '{} {"lock-state": 7}' ':1:4: expected nothing after the JSON object'
scenario 'var x = {"lock-state": "Locked"}' ':1:1: expected a JSON object'
scenario '{"users": [], "users": []}' ':1:[0-9]+: there is another member "users"'
status 3 'deep.json:1:109: expected no more than 100 levels' "$S" check "$dir/deep.json"
scenario '{"bogus": 1}' ': bogus: unknown member'
scenario '{"lock-state": "Open"}' ': lock-state: expected one of "Unlocked"'
scenario '{"lock-state": 1}' ': lock-state: expected a text'
scenario '{"unlock-if-needed": 1}' ': unlock-if-needed: expected true or false'
scenario '{"lockout": {"failures": -1}}' ': lockout.failures: expected a whole number'
scenario '{"lockout": {"seconds": "x"}}' ': lockout.seconds: expected a number'
scenario '{"services": {}}' ': services: expected a list'
scenario '{"services": ["a", 1]}' ': services\[1\]: expected a text'
scenario '{"users": [1]}' ': users\[0\]: expected a JSON object'
scenario '{"users": [{"uid": 1}, {}]}' ': users\[1\].uid: missing'
scenario '{"users": [{"uid": 1}, {"uid": 1}]}' ': users\[1\].uid: there is another user 1'
scenario '{"users": [{"uid": 1, "secrets": {"nose": "x"}}]}' ': users\[0\].secrets.nose: there is no such factor'
scenario '{"default-user": 7}' ': default-user: expected the uid of one of the users'
scenario '{"factors": [{"name": "a"}, {"name": "a"}]}' ': factors\[1\].name: there is another factor "a"'
scenario '{"factors": [{"name": "a", "behaviour": "slow"}]}' ': factors\[0\].delay: missing'
scenario '{"factors": [{"name": "a", "same-secret-as": "b"}]}' ': factors\[0\].same-secret-as: expected the name'
scenario '{"misbehave": [{"method": "*", "how": "dance"}]}' ': misbehave\[0\].how: expected one of'
status 3 "$dir/none.json: " "$S" check "$dir/none.json"
echo '{"x": 1}' >"$dir/x.json"
status 3 'x.json: x: unknown member' "$S" serve --scenario "$dir/x.json"
status 3 'x.json: x: unknown member' "$S" run --scenario "$dir/x.json" -- true
"$S" scenario >"$dir/built-in.json"
status 0 '^$' "$S" check "$dir/built-in.json"

# 2: wrong usage
status 2 'unknown command bogus' "$S" bogus
status 2 'unknown option --bogus' "$S" serve --bogus
status 2 '--ready-fd wants a number' "$S" serve --ready-fd x
status 2 '--control wants a value' "$S" serve --control
status 2 'unexpected argument x' "$S" serve x
status 2 'run wants a command' "$S" run
status 2 'ctl wants a request' "$S" ctl
status 2 'wrong number of arguments' "$S" check
status 2 '--no-bus takes no value' "$S" run --no-bus=7 -- true
for uid in 4294967295 99999999999999999999 x -1; do
    status 2 '--uid wants a number from 0 to 4294967294' "$S" run --uid $uid -- true
done
status 0 'Exit status' "$S" -h
status 0 'Exit status' "$S" --help
status 0 '^authd-standin [0-9.]+$' "$S" --version
status 1 'cannot write to standard output' bash -c '"$S" scenario >/dev/full'

# Starting and ending
status 7 '^$' "$S" run -- sh -c 'exit 7'
alone 0 '^ready$' 'serve; echo $ready; kill -TERM $pid; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
alone 0 '^$' 'serve; kill -INT $pid; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
alone 0 '^."ok":true.$' 'serve; ctl "{\"do\":\"quit\"}"; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
alone 1 'another daemon answers on /var/run/authd/authd.socket' 'serve; "$S" serve --control /run/other'
alone 0 '^ready$' 'serve; kill -KILL $pid; wait $pid 2>/dev/null; rm /run/ready; [ -S $SOCKET ] && serve && echo $ready'
alone 1 'the file that is there is no socket' 'echo x >/run/x; "$S" serve --control /run/x'
alone 0 '^precious$' 'echo precious >/run/x; "$S" serve --control /run/x 2>&-; cat /run/x; ! [ -e /run/x.new ]'
alone 0 '^precious$' 'mkdir /run/authd; echo precious >$SOCKET; "$S" serve 2>&-; cat $SOCKET; ! [ -e $SOCKET.new ]'
alone 0 '"running":true' 'serve; first=$pid; ctl "{\"do\":\"accept\",\"how\":\"refuse\"}"; rm /run/ready
    serve --control /run/other; kill $first; wait $first; [ -S $SOCKET ] && ctl --control /run/other "{\"do\":\"state\"}"'
alone 0 'does not answer.*"running":true' 'serve; kill -STOP $AUTHD_WORLD_BUS_PID
    ctl "{\"do\":\"restart\"}" "{\"do\":\"state\"}"; kill $pid; wait $pid'

# Control requests
played '{}' '^."ok":true.$' 'ctl "{\"do\":\"ping\"}"'
played '{}' '"ok":true.*"ok":true.*"ok":false' 'printf "%s\n" "{\"do\":\"ping\"}" "{\"do\":\"ping\"}" "{}" | ctl -; [ $? = 1 ]'
played '{}' 'expected nothing after' 'ctl "{\"do\":\"ping\"}{\"do\":\"quit\"}"; [ $? = 1 ]'
played '{}' 'another member' 'ctl "{\"do\":\"ping\",\"do\":\"quit\"}"; [ $? = 1 ]'
played '{}' 'no more than 100 levels' 'ctl - <"$dir/deep.json"; ctl "{\"do\":\"ping\"}"'
played '{}' '^."ok":true.closed$' 'printf "{\"do\":\"ping\"}" | "$C" last-bytes $CONTROL | tr -d "\n"'
played '{}' 'not come in time.*closed$' \
    'printf "{\"do\":\"wait-calls\",\"method\":\"X\",\"count\":1,\"timeout\":1}\n" | "$C" last-bytes $CONTROL'
played '{}' '^$' 'ctl "{\"do\":\"ping\"}" >/dev/full 2>&-; [ $? = 1 ]'
played '{}' 'no stand-in answers' 'ctl --control /nowhere "{\"do\":\"ping\"}"; [ $? = 1 ]'
for value in '(just 5,)' '(<just 5>,)' '(@() (),)' '(@h 3,)'; do
    export value
    played '{}' 'D-Bus can carry.*D-Bus can carry' 'ctl "{\"do\":\"emit\",\"signal\":\"Factor\",\"args\":\"$value\"}" \
        "{\"do\":\"misbehave\",\"method\":\"GetState\",\"how\":\"reply\",\"value\":\"$value\"}"; [ $? = 1 ]'
done

# Garbage does no harm.
played '{}' '^closed.*"ok":true' 'printf garbage | "$C" bytes $SOCKET; ctl "{\"do\":\"ping\"}"'
played '{}' 'closed.*"ok":true' 'call "\0" | "$C" bytes $SOCKET | tail -n 1; ctl "{\"do\":\"ping\"}"'
played '{}' 'closed.*"ok":true' '{ printf "\0"; yes AUTH | head -n 9000 | sed "s/$/\r/"; } | "$C" bytes $SOCKET | tail -n 1
    ctl "{\"do\":\"ping\"}"'
played '{}' '"method":"RequestChallenge"' 'call "\1" | "$C" last-bytes $SOCKET >&-
    ctl "{\"do\":\"wait-calls\",\"method\":\"RequestChallenge\",\"count\":1}"'

# The rules
lockout='{"lockout": {"failures": 2, "seconds": 1}, "factors": [{"name": "code"},
    {"name": "broken", "behaviour": "always-fails"},
    {"name": "slow", "behaviour": "slow", "delay": 50, "same-secret-as": "code"}]}'
played "$lockout" '^.true,. AuthenticationFailed.. .true,. AuthenticationFailed.. StateChanged.3,. .false,. StateChanged.1,. .true,. Authenticated $' \
    '{ fails code; fails code "<StateChanged>" "Authenticate (\"login\", {\"factor\": <\"code\">, \"data\": <\"1234\">, \"challenge\": <@ay %challenge>})" "<StateChanged>"
    try 1234 code "<Authenticated>"; } | tr "\n" " "'
played '{}' '^.false,. .2,. $' 'ctl "{\"do\":\"lockout\",\"kind\":\"manager\"}" >/dev/null; try 1234 code "GetState ()" | tr "\n" " "'
played '{}' 'StateChanged.2,.' '"$C" "GetState ()" "<StateChanged>" & ctl "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1}" "{\"do\":\"lockout\",\"kind\":\"manager\"}" >/dev/null; wait $!'
played "$lockout" '^.1,.$' 'fails broken >&-; fails broken >&-; fails broken >&-; "$C" "GetState ()"'
played "$lockout" 'Authenticated' 'try 1234 slow "<Authenticated>"'
played '{}' '^.false,.$' '"$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"data\": <\"1234\">, \"challenge\": <@ay [1, 2]>})"'
played '{}' 'Authenticated .true,. .true,. .false,. $' \
    'try 1234 code "<Authenticated>" "SetDevlockState (@ay %token, 0)" "SetDevlockState (@ay %token, 1)" "SetDevlockState (@ay %token, 0)" | tr "\n" " "'
played '{}' 'InvalidState.*AccessDenied' '"$C" "SetState (6,)" "SetState (0,)"'
played '{}' 'Authenticated .. StateChanged.0,.' 'try 1234 code "<Authenticated>" "SetState (0,)" "<StateChanged>" | tr "\n" " "'

# Misbehaviours
played '{"misbehave": [{"method": "GetState", "how": "error", "name": "a.b", "message": "no"}]}' 'a.b: no' '"$C" "GetState ()"'
played '{"misbehave": [{"method": "GetState", "how": "reply", "value": "(\"x\",)", "times": 1}]}' ".'x',. .1,. " \
    '"$C" "GetState ()" "GetState ()" | tr "\n" " "'
played '{"misbehave": [{"method": "GetState", "how": "hold"}]}' '^.2,.$' '"$C" "GetState ()" &
    ctl "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1}" "{\"do\":\"set-lock\",\"state\":2}" "{\"do\":\"release\"}" >/dev/null; wait $!'
played '{"misbehave": [{"method": "GetState", "how": "delay", "ms": 1}]}' '^.1,.$' '"$C" "GetState ()"'
played '{"misbehave": [{"method": "RequestChallenge", "how": "drop"}]}' 'closed' '"$C" "UnlockIfNeeded ()" "RequestChallenge ()" "UnlockIfNeeded ()"'

echo "$((count - failures)) passed, $failures failed"
[ $failures -eq 0 ]
