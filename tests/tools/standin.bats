# Tests the stand-in, in worlds that the cases make.
# shellcheck disable=SC2016

load tools.sh

S=$(command -v authd-standin) C=$(command -v standin-client) W=$(command -v authd-world) dir=$BATS_TEST_TMPDIR
export S C W dir SOCKET=/var/run/authd/authd.socket CONTROL=/run/authd/standin.socket

# The scenario file is refused with its name and a message that matches.
scenario() # TEXT PATTERN
{
    printf '%s' "$1" >"$dir/bad.json"
    ends_with 3 "^authd-standin: $dir/bad.json$2" "$S" check "$dir/bad.json"
}

# In a world of its own with the stand-in SCRIPT prints what matches.
played() # SCENARIO PATTERN SCRIPT
{
    printf '%s' "$1" >"$dir/scenario.json"
    ends_with 0 "$2" "$S" run --scenario "$dir/scenario.json" -- bash -c "$functions $3"
}

# In a world of its own SCRIPT ends with STATUS and prints what matches.
alone() # STATUS PATTERN SCRIPT
{
    ends_with "$1" "$2" "$W" -- bash -c "$functions $3"
}

functions='
ctl() { "$S" ctl "$@"; }
serve() { mkfifo /run/ready; "$S" serve "$@" --ready-fd 9 9>/run/ready 8>&- & pid=$!; read -r ready </run/ready; }
auth() { # UID SECRET STEPS
    "$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"uid\": <uint32 $1>, \"data\": <\"$2\">,
        \"challenge\": <@ay %challenge>})" "<Authenticated>" "${@:3}"; }
alex() { auth 1000 1234 "$@"; }
deep() { printf "%*s" "$1" "" | tr " " "$2"; }
flat() { tr -d "\"\047" | tr "\n" " "; }
option() { # FACTOR UID NAME
    echo "FactorMethod (@ay [], \"$1\", {\"type\": <\"get-option\">, \"uid\": <uint32 $2>, \"name\": <\"$3\">})"; }
setting() { # FACTOR UID NAME VALUE
    echo "FactorMethod (@ay ${token:-%token}, \"$1\", {\"type\": <\"set-option\">, \"uid\": <uint32 $2>, \"name\": <\"$3\">, \"value\": <$4>})"; }
action() { # FACTOR UID NAME PARAMS
    echo "FactorMethod (@ay ${token:-%token}, \"$1\", {\"type\": <\"action\">, \"uid\": <uint32 $2>, \"name\": <\"$3\">${4:+, \"params\": <$4>}})"; }
user() { # UID KEY VALUE TOKEN
    echo "SetUserOption (uint32 $1, @ay ${4:-%token}, \"$2\", <$3>)"; }
fence="FactorMethod (@ay [], \"worker\", {\"type\": <\"notify\">, \"params\": <{\"x\": <1>}>})"
try() { # SECRET FACTOR
    "$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"$2\">, \"data\": <\"$1\">, \"challenge\": <@ay %challenge>})" "${@:3}"; }
fails() { try 0000 "$1" "<AuthenticationFailed>" "${@:2}"; }
call() { # SERIAL: a method call as bytes
    printf "\0AUTH EXTERNAL 30\r\nBEGIN\r\n"
    printf "l\1\0\1\0\0\0\0$1\0\0\0\71\0\0\0\1\1o\0\24\0\0\0/vantora/AuthService\0\0\0\0\3\1s\0\20\0\0\0RequestChallenge\0\0\0\0\0\0\0\0"; }
'
deep_json()
{
    printf '{"users":%200000s\n' '' | tr ' ' '[' >"$dir/deep.json"
}

@test "files that are written in a world with files of its own do not leave it" {
    export HOME=$dir/home TMPDIR=$dir XDG_CACHE_HOME=$dir/cache inner='set -e; mkdir "$HOME/inside"; echo changed >"$HOME/file"
        rm "$HOME/gone"; cat "$HOME/kept"; for d in /tmp /var/tmp; do touch "$d/$name"; done; echo "${TMPDIR-none} ${XDG_CACHE_HOME-none} $XDG_RUNTIME_DIR"
        touch "$XDG_RUNTIME_DIR/lock"'
    export name=authd-world-test-$$
    mkdir "$HOME"
    for file in file gone kept; do echo "$file" >"$HOME/$file"; done
    for _ in 1 2; do
        ends_with 0 '^kept none none /run/runtime$' bash -c '"$1" --no-bus --private-files -- sh -c "$inner" 2>&1 | tr "\n" " " | sed "s/ $//"' - "$W"
    done
    ends_with 0 '' env -C "$HOME" "$W" --no-bus --private-files -- sh -c 'touch relative /dev/shm/$name /run/lock/x'
    [ ! -e "$HOME/relative" ] && [ ! -e "/dev/shm/$name" ]
    [ "$(cd "$HOME" && cat file gone kept && printf '%s\n' * | wc -l)" = "$(printf 'file\ngone\nkept\n3')" ]
    [ ! -e "/tmp/$name" ] && [ ! -e "/var/tmp/$name" ]
    for home in / /nowhere ''; do
        ends_with 0 '^/run/home$' env HOME="$home" "$W" --no-bus --private-files -- sh -c 'touch "$HOME/x" && echo "$HOME"'
    done
}

@test "a scenario file that is no JSON object is refused with the place" {
    deep_json
    scenario '' ':1:1: expected a JSON object'
    scenario '[]' ':1:1: expected a JSON object'
    scenario '{"lock-state":' ':1:[0-9]+: .'
    scenario $'{\n "factors": [}\n}' ':2:[0-9]+: .'
    scenario $'{\n "x": "\xff"}' ':2:8: expected UTF-8'
    scenario '{} {"lock-state": 7}' ':1:4: expected nothing after the JSON object'
    scenario 'var x = {"lock-state": "Locked"}' ':1:1: expected a JSON object'
    scenario '{"users": [], "users": []}' ':1:[0-9]+: there is another member "users"'
    ends_with 3 'deep.json:1:109: expected no more than 100 levels' "$S" check "$dir/deep.json"
}

@test "a scenario with a wrong member is refused with the member's path" {
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
    scenario '{"factors": [{"name": "worker"}]}' ': factors\[0\].name: the daemon.s own settings have the name "worker"'
    scenario '{"factors": [{"name": "a", "services": "x"}]}' ': factors\[0\].services: expected a list'
    scenario '{"factors": [{"name": "a", "services": ["x", 1]}]}' ': factors\[0\].services\[1\]: expected a text'
}

@test "a scenario with wrong options is refused" {
    scenario '{"options": []}' ': options: expected a JSON object'
    scenario '{"options": {"": true}}' ': options: expected keys that are not empty'
    scenario '{"options": {"a\u0000b": true}}' ':1:16: expected no zero characters'
    scenario '{"options": {"a/b": 1}}' ': options.a/b: expected true, false, a text, a list of texts, or an object'
    scenario '{"options": {"a/b": null}}' ': options.a/b: expected true, false, a text'
    scenario '{"options": {"a/b": ["x", []]}}' ': options.a/b\[1\]: expected a text'
    scenario '{"options": {"a": {"type": "u"}}}' ': options.a.value: missing'
    scenario '{"options": {"a": {"value": "1"}}}' ': options.a.type: missing'
    scenario '{"options": {"a": {"type": 1, "value": "1"}}}' ': options.a.type: expected a text'
    scenario '{"options": {"a": {"type": "u", "value": 1}}}' ': options.a.value: expected a text'
    scenario '{"options": {"a": {"type": "u", "value": "1", "x": 1}}}' ': options.a.x: unknown member'
    scenario '{"options": {"a": {"type": "u", "value": "-1"}}}' ': options.a.value: expected a value of type u'
    scenario '{"options": {"a": {"type": "v", "value": "<just 1>"}}}' ': options.a.value: expected a value that D-Bus can carry'
    scenario '{"options": {"a": {"type": "s", "value": "\"\\ud800\""}}}' ': options.a.value: expected escapes to give characters'
    for type in mi '()' h 'a{sh}' ah uu '' '*' a '{sv}' 'a{vs}' '(a' é "$(printf '%33s' '' | tr ' ' a)i" "$(printf '(%254s)' '' | tr ' ' i)"; do
        scenario "{\"options\": {\"a\": {\"type\": \"$type\", \"value\": \"1\"}}}" ': options.a.type: expected one D-Bus type'
    done
    scenario '{"users": [{"uid": 1, "options": {"x": 1}}]}' ': users\[0\].options.x: expected true, false, a text'
    scenario '{"factors": [{"name": "a", "options": {"": 1}}]}' ': factors\[0\].options: expected keys that are not empty'
}

@test "a scenario with a wrong rule is refused" {
    scenario '{"misbehave": [{"method": "*", "how": "dance"}]}' ': misbehave\[0\].how: expected one of'
}

@test "no command takes a bad scenario" {
    ends_with 3 "$dir/none.json: " "$S" check "$dir/none.json"
    echo '{"x": 1}' >"$dir/x.json"
    ends_with 3 'x.json: x: unknown member' "$S" serve --scenario "$dir/x.json"
    ends_with 3 'x.json: x: unknown member' "$S" run --scenario "$dir/x.json" -- true
}

@test "the built-in scenario is a good one" {
    "$S" scenario >"$dir/built-in.json"
    ends_with 0 '^$' "$S" check "$dir/built-in.json"
}

@test "a command line that is wrong is refused" {
    ends_with 2 'unknown command bogus' "$S" bogus
    ends_with 2 'Unknown option --bogus' "$S" serve --bogus
    ends_with 2 'Unknown option --uid' "$S" serve --uid 7
    ends_with 2 'Unknown option --control' "$S" run --control /x -- true
    ends_with 2 'Cannot parse integer value .*x.* for --ready-fd' "$S" serve --ready-fd x
    ends_with 2 '--ready-fd wants a number from 0' "$S" serve --ready-fd=-1
    ends_with 2 'Missing argument for --control' "$S" serve --control
    ends_with 2 '--control wants a value' "$S" serve --control ''
    ends_with 2 'unexpected argument x' "$S" serve x
    ends_with 2 'run wants a command' "$S" run
    ends_with 2 'ctl wants a request' "$S" ctl
    ends_with 2 'check wants a file, and no more' "$S" check
    ends_with 2 'check wants a file, and no more' "$S" check a b
    ends_with 2 'scenario takes no arguments' "$S" scenario x
    ends_with 2 '--no-bus takes no value' "$S" run --no-bus=7 -- true
    ends_with 2 '--bus-policy wants a file' "$W" --bus-policy /none -- true
    ends_with 2 '--bus-policy goes without --no-bus' "$W" --no-bus --bus-policy /dev/null -- true
    for uid in 4294967295 99999999999999999999 x -1; do
        ends_with 2 '--uid wants a number from 0 to 4294967294' "$S" run --uid $uid -- true
    done
}

@test "help and version are printed" {
    ends_with 0 'Exit status' "$S" -h
    ends_with 0 'Exit status' "$S" ctl --help
    ends_with 0 '^authd-standin [0-9.]+$' "$S" --version
}

@test "output that cannot be written is a failure" {
    ends_with 1 'cannot write to standard output' bash -c '"$S" scenario >/dev/full'
}

@test "run gives the status of its command" {
    ends_with 7 '^$' "$S" run -- sh -c 'exit 7'
    ends_with 0 '^--help --no-bus=7 --$' "$S" run echo --help --no-bus=7 --
    ends_with 0 '^-x -- y$' "$S" run -- echo -x -- y
}

@test "the stand-in removes its sockets when it is ended" {
    alone 0 '^ready$' 'serve; echo $ready; kill -TERM $pid; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
    alone 0 '^$' 'serve; kill -INT $pid; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
    alone 0 '^."ok":true.$' 'serve; ctl "{\"do\":\"quit\"}"; wait $pid && ! [ -e $SOCKET ] && ! [ -e $CONTROL ]'
}

@test "a second daemon is refused while the first answers" {
    alone 1 'another daemon answers on /var/run/authd/authd.socket' 'serve; "$S" serve --control /run/other'
}

@test "a dead socket file is replaced" {
    alone 0 '^ready$' 'serve; kill -KILL $pid; wait $pid 2>/dev/null; rm /run/ready; [ -S $SOCKET ] && serve && echo $ready'
}

@test "files that are no sockets are left alone" {
    alone 1 'the file that is there is no socket' 'echo x >/run/x; "$S" serve --control /run/x'
    alone 0 '^precious$' 'echo precious >/run/x; "$S" serve --control /run/x 2>&-; cat /run/x; ! [ -e /run/x.new ]'
    alone 0 '^precious$' 'mkdir /run/authd; echo precious >$SOCKET; "$S" serve 2>&-; cat $SOCKET; ! [ -e $SOCKET.new ]'
}

@test "the socket of a later stand-in is left alone" {
    alone 0 '"running":true' 'serve; first=$pid; ctl "{\"do\":\"accept\",\"how\":\"refuse\"}"; rm /run/ready
        serve --control /run/other; kill $first; wait $first; [ -S $SOCKET ] && ctl --control /run/other "{\"do\":\"state\"}"'
}

@test "a frozen bus does not hold the stand-in up for good" {
    alone 0 'does not answer.*"running":true' 'serve; kill -STOP $AUTHD_WORLD_BUS_PID
        ctl "{\"do\":\"restart\"}" "{\"do\":\"state\"}"; kill $pid; wait $pid'
}

@test "control requests are answered one by one" {
    deep_json
    played '{}' '^."ok":true.$' 'ctl "{\"do\":\"ping\"}"'
    played '{}' '"ok":true.*"ok":true.*"ok":false' 'printf "%s\n" "{\"do\":\"ping\"}" "{\"do\":\"ping\"}" "{}" | ctl -; [ $? = 1 ]'
    played '{}' 'expected nothing after' 'ctl "{\"do\":\"ping\"}{\"do\":\"quit\"}"; [ $? = 1 ]'
    played '{}' 'another member' 'ctl "{\"do\":\"ping\",\"do\":\"quit\"}"; [ $? = 1 ]'
    played '{}' 'no more than 100 levels' 'ctl - <"$dir/deep.json"; ctl "{\"do\":\"ping\"}"'
    played '{}' '^."ok":true.closed$' 'printf "{\"do\":\"ping\"}" | "$C" last-bytes $CONTROL | tr -d "\n"'
    played '{}' 'not come in time.*closed$' \
        'printf "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1,\"timeout\":1}\n" | "$C" last-bytes $CONTROL'
    played '{}' '^$' 'ctl "{\"do\":\"ping\"}" >/dev/full 2>&-; [ $? = 1 ]'
    played '{}' 'no stand-in answers' 'ctl --control /nowhere "{\"do\":\"ping\"}"; [ $? = 1 ]'
}

@test "control requests with values that D-Bus cannot carry are refused" {
    # shellcheck disable=SC2089,SC2090
    for value in '(\"\\ud800\",)' '(\"\\U0000d800\",)'; do
        export value
        played '{}' 'args: expected escapes to give characters' 'ctl "{\"do\":\"emit\",\"signal\":\"Factor\",\"args\":\"$value\"}"; [ $? = 1 ]'
    done
    for value in '(just 5,)' '(<just 5>,)' '(@() (),)' '(@h 3,)'; do
        export value
        played '{}' 'D-Bus can carry.*D-Bus can carry' 'ctl "{\"do\":\"emit\",\"signal\":\"Factor\",\"args\":\"$value\"}" \
            "{\"do\":\"misbehave\",\"method\":\"GetState\",\"how\":\"reply\",\"value\":\"$value\"}"; [ $? = 1 ]'
    done
}

@test "garbage on the socket does no harm" {
    played '{}' '^closed.*"ok":true' 'printf garbage | "$C" bytes $SOCKET; ctl "{\"do\":\"ping\"}"'
    played '{}' 'closed.*"ok":true' 'call "\0" | "$C" bytes $SOCKET | tail -n 1; ctl "{\"do\":\"ping\"}"'
    played '{}' 'closed.*"ok":true' '{ printf "\0"; yes AUTH | head -n 9000 | sed "s/$/\r/"; } | "$C" bytes $SOCKET | tail -n 1
        ctl "{\"do\":\"ping\"}"'
    played '{}' '"method":"RequestChallenge"' 'call "\1" | "$C" last-bytes $SOCKET >&-
        ctl "{\"do\":\"wait-calls\",\"method\":\"RequestChallenge\",\"count\":1}"'
}

lockout='{"lockout": {"failures": 2, "seconds": 3600}, "factors": [{"name": "code"},
    {"name": "broken", "behaviour": "always-fails"},
    {"name": "slow", "behaviour": "slow", "delay": 50, "same-secret-as": "code"}]}'

@test "wrong secrets in a row lock code entry" {
    played "$lockout" '^.true,. AuthenticationFailed.. .true,. AuthenticationFailed.. StateChanged.3,. .false,. $' \
        '{ fails code; fails code "<StateChanged>" "Authenticate (\"login\", {\"factor\": <\"code\">, \"data\": <\"1234\">, \"challenge\": <@ay %challenge>})"; } |
        tr "\n" " "'
    played "${lockout/3600/0.1}" '^.true,. AuthenticationFailed.. .true,. AuthenticationFailed.. StateChanged.3,. StateChanged.1,. .true,. Authenticated $' \
        '{ fails code; fails code "<StateChanged>" "<StateChanged>"; try 1234 code "<Authenticated>"; } | tr "\n" " "'
}

@test "a lockout is announced and refuses right secrets" {
    played '{}' '^.false,. .2,. $' 'ctl "{\"do\":\"lockout\",\"kind\":\"manager\"}" >/dev/null; try 1234 code "GetState ()" | tr "\n" " "'
    played '{}' 'StateChanged.2,.' '"$C" "GetState ()" "<StateChanged>" & ctl "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1}" "{\"do\":\"lockout\",\"kind\":\"manager\"}" >/dev/null; wait $!'
}

@test "factors that always fail do not count, and slow ones answer late" {
    played "$lockout" '^.1,.$' 'fails broken >&-; fails broken >&-; fails broken >&-; "$C" "GetState ()"'
    played "$lockout" 'Authenticated' 'try 1234 slow "<Authenticated>"'
}

@test "a stale challenge is refused" {
    played '{}' '^.false,.$' '"$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"data\": <\"1234\">, \"challenge\": <@ay [1, 2]>})"'
}

@test "a user's id is a whole number of any type" {
    for uid in 'uint32 1001' 1001 'int64 1001' 'uint64 1001' 'int16 1001' 'uint16 1001' 1001.0; do
        played '{}' '^.true,. Authenticated $' \
            "uid='$uid'"'; "$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"uid\": <$uid>,
                \"data\": <\"9876\">, \"challenge\": <@ay %challenge>})" "<Authenticated>" | tr "\n" " "'
    done
    for uid in -1 -1.0 1001.5 '@d nan' 1e300 'int64 4294968297' 'uint64 18446744073709551615' \"1001\" '[1001]' true; do
        played '{}' '^.false,. $' \
            "uid='$uid'"'; "$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"uid\": <$uid>,
                \"data\": <\"9876\">, \"challenge\": <@ay %challenge>})" | tr "\n" " "'
    done
    played '{"users": [{"uid": 7, "secrets": {"code": "1"}}]}' '^.true,. Authenticated $' \
        '"$C" "RequestChallenge ()" "Authenticate (\"login\", {\"factor\": <\"code\">, \"uid\": <byte 7>,
            \"data\": <\"1\">, \"challenge\": <@ay %challenge>})" "<Authenticated>" | tr "\n" " "'
}

@test "only a good token unlocks, and only until the device is locked" {
    played '{}' 'Authenticated .true,. .true,. .false,. $' \
        'try 1234 code "<Authenticated>" "SetDevlockState (@ay %token, 0)" "SetDevlockState (@ay %token, 1)" "SetDevlockState (@ay %token, 0)" | tr "\n" " "'
    played '{}' 'InvalidState.*AccessDenied' '"$C" "SetState (6,)" "SetState (0,)"'
    played '{}' 'Authenticated .. StateChanged.0,.' 'try 1234 code "<Authenticated>" "SetState (0,)" "<StateChanged>" | tr "\n" " "'
}

@test "the rules of a scenario change what becomes of calls" {
    played '{"misbehave": [{"method": "GetState", "how": "error", "name": "a.b", "message": "no"}]}' 'a.b: no' '"$C" "GetState ()"'
    played '{"misbehave": [{"method": "GetState", "how": "reply", "value": "(\"x\",)", "times": 1}]}' ".'x',. .1,. " \
        '"$C" "GetState ()" "GetState ()" | tr "\n" " "'
    played '{"misbehave": [{"method": "GetState", "how": "hold"}]}' '^.2,.$' '"$C" "GetState ()" &
        ctl "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1}" "{\"do\":\"set-lock\",\"state\":2}" "{\"do\":\"release\"}" >/dev/null; wait $!'
    played '{"misbehave": [{"method": "GetState", "how": "delay", "ms": 1}]}' '^.1,.$' '"$C" "GetState ()"'
    played '{"misbehave": [{"method": "RequestChallenge", "how": "drop"}]}' 'closed' '"$C" "UnlockIfNeeded ()" "RequestChallenge ()" "UnlockIfNeeded ()"'
}

options() # SCENARIO PATTERN REQUEST: the options without their quotes match
{
    export request=$3
    played "$1" "$2" 'ctl "$request" | flat'
}
all='\[code, smartcard, sudis, broken, slow\]'

@test "options that a scenario leaves out have values" {
    options '{}' "^.options:.worker/available-service-factors/login:$all,worker/available-service-factors/unlock:$all,""\
worker/available-services:\[login, unlock\],worker/can-switch-to-user:true.,ok:true. $" '{"do":"options"}'
    options '{}' '^.options:.devlock/show-notifications:true,worker/disabled-factors:@as \[\],worker/is-multi-factorable:false,'\
'worker/is-user-settable:true,worker/last-login-date:2026-11-20 08:15,worker/service-factors/login:\[code\],'\
'worker/service-factors/unlock:\[code, smartcard\],worker/show-last-login:true.,ok:true. $' '{"do":"options","uid":1000}'
    options '{"users": [{"uid": 5}]}' '^.options:.devlock/show-notifications:false,worker/disabled-factors:@as \[\],'\
'worker/is-multi-factorable:false,worker/is-user-settable:true,worker/last-login-date:,worker/service-factors/login:@as \[\],'\
'worker/service-factors/unlock:@as \[\],worker/show-last-login:false.,ok:true. $' '{"do":"options","uid":5}'
    options '{}' '^.options:.disabled-factors:\[sudis\],is-multi-factorable:false,.*show-last-login:false.,ok:true. $' \
        '{"do":"options","uid":1001,"factor":"worker"}'
    options '{}' '^.options:.keypad:digits,length:uint32 4.,ok:true. $' '{"do":"options","uid":1001,"factor":"code"}'
    options '{}' '^.options:..,ok:true. $' '{"do":"options","uid":1001,"factor":"sudis"}'
    options '{"services": ["b", "a", "b", ""]}' '^.options:.worker/available-service-factors/:.*worker/available-services:\[b, a, b, \],' \
        '{"do":"options"}'
    options '{"services": []}' '^.options:.worker/available-services:@as \[\],worker/can-switch-to-user:true.,ok' '{"do":"options"}'
    options '{"services": []}' 'last-login-date:2026-11-20 08:15,worker/service-factors/login:\[code\],' '{"do":"options","uid":1000}'
    options '{"options": {"x": {"type": "a{sv}", "value": "{\"a\": <uint16 7>}"}}}' 'worker/can-switch-to-user:true,x:.a: <uint16 7>.' \
        '{"do":"options"}'
    options '{"services": ["a", "b"], "factors": [{"name": "z"}, {"name": "y", "services": ["b", "c", "b"]}, {"name": "x", "services": []}]}' \
        'available-service-factors/a:\[z\],worker/available-service-factors/b:\[z, y\],' '{"do":"options"}'
    options '{"options": {"worker/available-services": true, "worker/can-switch-to-user": false}}' \
        'worker/available-services:true,worker/can-switch-to-user:false.' '{"do":"options"}'
}

@test "everybody reads options" {
    played '{}' '^\(<\[code\]>,\) \(<2026-11-20 08:15>,\) \(<uint32 4>,\) \(<true>,\) \(<true>,\) $' '"$C" \
        "GetUserOption (uint32 1001, \"worker/service-factors/login\")" "GetUserOption (uint32 1000, \"worker/last-login-date\")" \
        "$(option code 1001 length)" "$(option worker 1000 show-last-login)" "GetOption (\"worker/can-switch-to-user\",)" | flat'
    played '{}' '^\(.devlock/show-notifications: <true>, worker/last-login-date: <2026-11-20 08:15>.,\) \(@a.sv. ..,\) $' '"$C" \
        "GetUserOptions (uint32 1000, [\"x\", \"worker/last-login-date\", \"\", \"devlock/show-notifications\", \"x\", \"worker/last-login-date\"])" \
        "GetUserOptions (uint32 1001, @as [])" | flat'
    played '{}' '^([^ ]*UnknownUser: [^:]* 7 ){4}$' '"$C" "GetUserOption (uint32 7, \"x\")" "GetUserOptions (uint32 7, @as [])" \
        "$(user 7 x 1 [])" "$(option code 7 x)" | flat'
    played '{}' '^([^ ]*UnknownOption: There is no option ( |x )){6}$' '"$C" "GetOption (\"x\",)" "GetOption (\"\",)" \
        "GetUserOption (uint32 1000, \"x\")" "$(option code 1000 x)" "$(option worker 1000 x)" "$(option worker 1000 "")" | flat'
    played '{}' 'InvalidArgs.*InvalidArgs.*InvalidArgs.*InvalidArgs' '"$C" "GetOption (1,)" "GetUserOption (1000, \"x\")" \
        "SetUserOption (@ay [], uint32 1000, \"x\", <1>)" "SetUserOption (uint32 1000, @ay [], \"x\", \"y\")"'
}

@test "every connection is told of a changed option, after the reply" {
    played '{}' '^\(true,\) UserOptionChanged\(uint32 1000, devlock/show-notifications, <false>\) reply UserOptionChanged \(<false>,\) $' \
        'alex order "$(user 1000 devlock/show-notifications false)" "<UserOptionChanged>" order \
        "GetUserOption (uint32 1000, \"devlock/show-notifications\")" | tail -n +4 | flat'
    played '{}' '^\(true,\) UserOptionChanged\(uint32 1000, worker/show-last-login, <true>\) Factor\(worker, '\
'.type: <option-changed>, uid: <uint32 1000>, name: <show-last-login>, value: <true>.\) reply UserOptionChanged Factor $' \
        'alex order "$(user 1000 worker/show-last-login true)" "<UserOptionChanged>" "<Factor>" order | tail -n +4 | flat'
    played '{}' '^\(<true>,\) UserOptionChanged\(uint32 1000, worker/last-login-date, <>\) Factor\(worker, '\
'.type: <option-changed>, uid: <uint32 1000>, name: <last-login-date>, value: <>.\) reply UserOptionChanged Factor \(<>,\) $' \
        'alex order "$(setting worker 1000 last-login-date "\"\"")" "<UserOptionChanged>" "<Factor>" order "$(option worker 1000 last-login-date)" |
        tail -n +4 | flat'
    played '{}' '^\(<true>,\) Factor\(code, .type: <option-changed>, uid: <uint32 1000>, name: <length>, value: <uint32 6>.\) '\
'reply Factor \(<uint32 6>,\) \(<uint32 4>,\) $' \
        'alex order "$(setting code 1000 length "uint32 6")" "<Factor>" order "$(option code 1000 length)" "$(option code 1001 length)" |
        tail -n +4 | flat'
    played '{}' '^UserOptionChanged\(uint32 1000, worker/show-last-login, <false>\) $' '"$C" "$fence" "<UserOptionChanged>" >"$dir/other" & other=$!
        ctl "{\"do\":\"wait-calls\",\"method\":\"FactorMethod\",\"count\":1}" >&-
        alex "$(user 1000 worker/show-last-login false)" >&-; wait $other; tail -n 1 "$dir/other" | flat'
}

@test "only a good token of the user changes options" {
    played '{}' '^([^ ]*AccessDenied: There is no good token of user 100[01] ){5}\(<true>,\) Factor\(worker, .x: <1>.\) '\
'reply reply reply reply reply reply Factor \(<true>,\) $' 'alex order "$(user 1001 worker/show-last-login true)" \
        "$(setting code 1001 length "uint32 6")" "$(action worker 1001 reset)" "$(action worker 1001 echo)" \
        "$(user 1000 worker/show-last-login false "[1]")" "$fence" "<Factor>" order "$(option worker 1000 show-last-login)" | tail -n +4 | flat'
    played '{}' '^\(true,\) \(true,\) \(true,\) [^ ]*AccessDenied' 'alex "SetDevlockState (@ay %token, 0)" "$(user 1000 worker/show-last-login false)" \
        "SetDevlockState (@ay %token, 1)" "$(user 1000 worker/show-last-login false)" | tail -n +3 | flat'
    played '{}' '^[^ ]*AccessDenied[^(]*\(<false>,\) \(<uint32 6>,\) $' \
        'alex "$(user 1000 worker/show-last-login false)" "$(setting code 1000 length "uint32 6")" >&-
        token=$(ctl "{\"do\":\"calls\"}" | grep -o "\[byte[^]]*, byte[^]]*\]\|\[byte[^]]*\]" | tail -n 1)
        ctl "{\"do\":\"restart\"}" >&-
        "$C" "$(user 1000 worker/show-last-login true "$token")" "$(option worker 1000 show-last-login)" "$(option code 1000 length)" | flat'
}

@test "refusals are looked for in their order" {
    played '{}' '^[^ ]*UnknownFactor: There is no factor nose GDBus[^ ]*UnknownFactor: There is no factor GDBus' '"$C" \
        "FactorMethod (@ay [], \"nose\", {\"type\": <\"dance\">})" "FactorMethod (@ay [], \"\", {\"type\": <\"dance\">})" \
        "GetOption (\"x\",)" | flat | tr -s " "'
    played '{}' '^([^ ]*UnknownMethod: The factor has no method (dance)? *){3}$' '"$C" "FactorMethod (@ay [], \"code\", {\"type\": <\"dance\">})" \
        "FactorMethod (@ay [], \"code\", @a{sv} {})" "FactorMethod (@ay [], \"worker\", {\"type\": <5>})" | flat'
    played '{}' '^([^ ]*InvalidArgs: There is no uid of the type u ){3}([^ ]*InvalidArgs: There is no name of the type s ){3}'\
'([^ ]*InvalidArgs: There is no value ){2}[^ ]*InvalidArgs: There is no params of the type a.sv. $' '"$C" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"get-option\">, \"name\": <\"x\">})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"set-option\">, \"name\": <\"x\">, \"uid\": <7>, \"value\": <1>})" \
        "FactorMethod (@ay [], \"worker\", {\"type\": <\"action\">, \"name\": <\"x\">, \"uid\": <\"1000\">})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"get-option\">, \"uid\": <uint32 7>})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"get-option\">, \"uid\": <uint32 7>, \"name\": <1>})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"action\">, \"uid\": <uint32 7>, \"name\": <<\"x\">>})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"set-option\">, \"uid\": <uint32 7>, \"name\": <\"x\">})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"echo\">})" \
        "FactorMethod (@ay [], \"code\", {\"type\": <\"action\">, \"uid\": <uint32 7>, \"name\": <\"x\">, \"params\": <1>})" | flat'
    played '{}' '^([^ ]*UnknownUser: There is no user 7 ){3}$' '"$C" "$(user 7 x 1 [])" "$(token=[] setting code 7 x 1)" "$(token=[] action code 7 x)" | flat'
    played '{}' '^([^ ]*UnknownOption: There is no option x ){2}[^ ]*UnknownMethod: The factor has no action x $' \
        '"$C" "$(user 1000 x 1 [])" "$(token=[] setting code 1000 x 1)" "$(token=[] action code 1000 x)" | flat'
    played '{}' '^([^ ]*AccessDenied[^G]*){2}$' '"$C" "$(user 1000 worker/show-last-login 1 [])" "$(token=[] setting code 1000 length 1)" | flat'
    played '{}' '^[^ ]*InvalidArgs: The option worker/disabled-factors is of type as [^ ]*InvalidArgs: The option length is of type u $' \
        'alex "$(user 1000 worker/disabled-factors "@av []")" "$(setting code 1000 length 5)" | tail -n +3 | flat'
}

@test "a value has no more than 60 levels" {
    loose='{"options": {"x": true}, "users": [{"uid": 1000, "secrets": {"code": "1234"}, "options": {"worker/any": {"type": "v", "value": "<1>"}}}]}'
    played "$loose" '^\(true,\) [^ ]*InvalidArgs: expected a value that D-Bus can carry, of no more than 60 levels reply UserOptionChanged Factor reply $' \
        'alex order "$(user 1000 worker/any "$(deep 60 "<")5$(deep 60 ">")")" "$(user 1000 worker/any "$(deep 61 "<")5$(deep 61 ">")")" order |
        tail -n +4 | flat'
    played "$loose" 'InvalidArgs: expected a value that D-Bus can carry' 'alex "$(user 1000 worker/any "<@h 0>")"'
}

@test "the actions are echo and reset" {
    played '{}' '^\(<.a: <.b: <5>.>.>,\) \(<@a.sv. ..>,\) $' \
        'alex "$(action sudis 1000 echo "{\"a\": <{\"b\": <5>}>}")" "$(action worker 1000 echo)" | tail -n +3 | flat'
    played '{}' '^\(<true>,\) Factor\(code, .type: <option-changed>, uid: <uint32 1000>, name: <keypad>, value: <digits>.\) '\
'Factor\(code, .type: <option-changed>, uid: <uint32 1000>, name: <length>, value: <uint32 4>.\) reply Factor Factor \(<uint32 4>,\) $' \
        'alex "$(setting code 1000 length "uint32 6")" "<Factor>" order "$(action code 1000 reset)" "<Factor>" "<Factor>" order \
        "$(option code 1000 length)" | tail -n +6 | flat'
    played '{}' '^\(<true>,\)( UserOptionChanged\(uint32 1000, worker/[^(]*\) Factor\(worker, [^(]*\)){7} \(<true>,\) '\
'\(.devlock/show-notifications: <false>, worker/added: <b>, worker/disabled-factors: <@as \[\]>, worker/show-last-login: <true>.,\) $' \
        'ctl "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"worker/added\",\"value\":\"b\"}" \
        "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"worker/show-last-login\",\"value\":\"x\"}" \
        "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"devlock/show-notifications\",\"value\":false}" \
        "{\"do\":\"remove-option\",\"uid\":1000,\"key\":\"worker/disabled-factors\"}" >&-
        signals=(); for i in 1 2 3 4 5 6 7; do signals+=("<UserOptionChanged>" "<Factor>"); done
        alex "$(action worker 1000 reset)" "${signals[@]}" "$fence" \
        "GetUserOptions (uint32 1000, [\"worker/show-last-login\", \"worker/disabled-factors\", \"worker/added\", \"devlock/show-notifications\"])" |
        tail -n +3 | flat'
    played '{}' '^.worker/disabled-factors worker/is-multi-factorable worker/is-user-settable worker/last-login-date '\
'worker/service-factors/login worker/service-factors/unlock worker/show-last-login $' \
        'signals=(); for i in 1 2 3 4 5 6 7; do signals+=("<UserOptionChanged>"); done
        printf .; alex "$(action worker 1000 reset)" "${signals[@]}" | grep -o "worker/[a-z/-]*" | tr "\n" " "'
}

asked() # PATTERN REQUEST…: the answers, without quotes, match
{
    local pattern=$1
    shift
    printf '%s\n' "$@" >"$dir/requests"
    played '{}' "$pattern" 'ctl - <"$dir/requests" | flat'
}

@test "control requests for options that are wrong are refused" {
    for wrong in '"do":"set-option","value":true' '"do":"remove-option"'; do
        asked '^(.ok:false,error:key: missing. ){2}.ok:false,error:key: expected a text that is not empty. '\
'.ok:false,error:uid: missing. .ok:false,error:uid: there is no user 7. .ok:false,error:factor: there is no factor \\nose\\. '\
'.ok:false,error:name: missing. .ok:false,error:name: expected a text that is not empty. .ok:false,error:name: unknown member. '\
'.ok:false,error:key: unknown member. $' "{$wrong}" "{$wrong,\"uid\":1000}" "{$wrong,\"key\":\"\"}" \
            "{$wrong,\"factor\":\"code\",\"name\":\"x\"}" "{$wrong,\"uid\":7,\"key\":\"x\"}" \
            "{$wrong,\"uid\":1000,\"factor\":\"nose\",\"name\":\"x\"}" "{$wrong,\"uid\":1000,\"factor\":\"code\",\"key\":\"x\"}" \
            "{$wrong,\"uid\":1000,\"factor\":\"code\",\"name\":\"\"}" "{$wrong,\"uid\":1000,\"key\":\"worker/show-last-login\",\"name\":\"x\"}" \
            "{$wrong,\"uid\":1000,\"factor\":\"code\",\"key\":\"x\",\"name\":\"length\"}"
    done
    asked '^.ok:false,error:value: missing. .ok:false,error:value: expected true, .*error:value\[0\]: expected a text. .*error:value.type: '\
'expected one D-Bus type.*error:announce: expected true.*error:there is no option \\x\\. .*error:uid: missing. .*error:x: unknown member. $' \
        '{"do":"set-option","key":"x"}' '{"do":"set-option","key":"x","value":7}' '{"do":"set-option","key":"x","value":[1]}' \
        '{"do":"set-option","key":"x","value":{"type":"mi","value":"nothing"}}' '{"do":"set-option","key":"x","value":true,"announce":1}' \
        '{"do":"remove-option","key":"x"}' '{"do":"options","factor":"code"}' '{"do":"reset-options","x":1}' '{"do":"reset-secrets","x":1}'
}

@test "control requests set, remove and reset options" {
    asked '^(.ok:true. ){4}.options:.keypad:digits,new:@a.uv. ...,ok:true. .options:.*,later:true,.*$' \
        '{"do":"set-option","uid":1000,"factor":"code","name":"new","value":{"type":"a{uv}","value":"{}"}}' \
        '{"do":"remove-option","uid":1000,"factor":"code","name":"length"}' \
        '{"do":"set-option","uid":1000,"factor":"worker","name":"later","value":true}' \
        '{"do":"remove-option","uid":1000,"factor":"worker","name":"last-login-date"}' \
        '{"do":"options","uid":1000,"factor":"code"}' '{"do":"options","uid":1000,"factor":"worker"}'
    asked '^(.ok:true. ){4}.options:.keypad:digits,length:uint32 4.,ok:true. .options:[^x]*.,ok:true. .options:.*,last-login-date:2026-11-20 08:15,'\
'service-factors/login:\[code\],service-factors/unlock:\[code, smartcard\],show-last-login:true.,ok:true. $' \
        '{"do":"set-option","uid":1000,"factor":"code","name":"x","value":true}' '{"do":"set-option","key":"x","value":true}' \
        '{"do":"remove-option","uid":1000,"key":"worker/last-login-date"}' '{"do":"reset-options"}' '{"do":"options","uid":1000,"factor":"code"}' \
        '{"do":"options"}' '{"do":"options","uid":1000,"factor":"worker"}'
}

told() # REQUEST SIGNAL PATTERN: a client that waits for SIGNAL gets what matches, and no more than PATTERN says
{
    export request=$1 signal=$2
    played '{}' "$3" '"$C" "$fence" "<Factor>" "$signal" "!$fence" "<Factor>" order >"$dir/told" & client=$!
    ctl "{\"do\":\"wait-calls\",\"method\":\"FactorMethod\",\"count\":1}" "$request" >&-; wait $client; tail -n +3 "$dir/told" | flat'
}
notice='Factor\(worker, .x: <1>.\)'

@test "everybody is told of an option that a control request sets" {
    told '{"do":"set-option","key":"x","value":{"type":"(yv)","value":"(1, <b'"'x'"'>)"}}' '<OptionChanged>' \
        "^OptionChanged\(x, <\(byte 0x01, <bx>\)>\) $notice reply Factor OptionChanged reply Factor \$"
    told '{"do":"set-option","uid":1000,"key":"devlock/x","value":[]}' '<UserOptionChanged>' \
        "^UserOptionChanged\(uint32 1000, devlock/x, <@as \[\]>\) $notice reply Factor UserOptionChanged reply Factor \$"
    told '{"do":"set-option","uid":1001,"key":"worker/","value":["","a/b","ключ","a","a"]}' '<Factor>' \
        "^Factor\(worker, .type: <option-changed>, uid: <uint32 1001>, name: <>, value: <\[, a/b, ключ, a, a\]>.\) $notice reply Factor UserOptionChanged Factor reply Factor \$"
    told '{"do":"set-option","uid":1001,"factor":"worker","name":"x","value":false}' '<UserOptionChanged>' \
        '^UserOptionChanged\(uint32 1001, worker/x, <false>\) Factor\(worker, .type: <option-changed>, uid: <uint32 1001>, name: <x>, value: <false>.\)'
    told '{"do":"set-option","uid":1001,"factor":"slow","name":"x","value":"y"}' '<Factor>' \
        "^Factor\(slow, .type: <option-changed>, uid: <uint32 1001>, name: <x>, value: <y>.\) $notice reply Factor Factor reply Factor \$"
}

untold() # REQUEST: nobody is told before what comes next
{
    export request=$1 next='{"do":"emit","signal":"OptionChanged","args":"(\"next\", <1>)"}'
    played '{}' '^.ok:true. reply Factor OptionChanged $' '"$C" "$fence" "<OptionChanged>" order >"$dir/told" & client=$!
    ctl "{\"do\":\"wait-calls\",\"method\":\"FactorMethod\",\"count\":1}" >&-
    ctl "$request" | flat; ctl "$next" >&-; wait $client; tail -n 1 "$dir/told" | flat'
}

@test "nobody is told of an option that is set silently, removed or reset" {
    untold '{"do":"set-option","uid":1000,"key":"worker/show-last-login","value":false,"announce":false}'
    untold '{"do":"remove-option","uid":1000,"key":"worker/show-last-login"}'
    untold '{"do":"reset-options"}'
}

@test "nobody is told of a state that is set silently" {
    played '{}' '^.1,. StateChanged.3,. $' '"$C" "GetState ()" "<StateChanged>" >"$dir/told" & client=$!
    ctl "{\"do\":\"wait-calls\",\"method\":\"GetState\",\"count\":1}" "{\"do\":\"set-lock\",\"state\":2,\"announce\":false}" \
        "{\"do\":\"set-lock\",\"state\":3}" >&-; wait $client; tr "\n" " " <"$dir/told"'
    played '{}' '^.ok:true. .2,.$' 'ctl "{\"do\":\"set-lock\",\"state\":2,\"announce\":false}" | flat; "$C" "GetState ()"'
}

@test "a control request resets the secrets and the count of wrong ones" {
    change='"$C" "RequestChallenge ()" "ChangeAuthData (\"code\", {\"old\": <\"1234\">, \"new\": <\"5678\">, \"challenge\": <@ay %challenge>})" "<AuthDataChanged>" >&-;'
    played '{}' '^.true,. AuthenticationFailed.. $' "$change"'try 1234 code "<AuthenticationFailed>" | tr "\n" " "'
    played '{}' '^.true,. Authenticated $' "$change"'ctl "{\"do\":\"reset-secrets\"}" >&-; try 1234 code "<Authenticated>" | tr "\n" " "'
    played "$lockout" '^.1,.$' 'fails code >&-; ctl "{\"do\":\"reset-secrets\"}" >&-; fails code >&-; "$C" "GetState ()"'
    played "$lockout" '^.3,.$' 'fails code >&-; ctl "{\"do\":\"restart\"}" >&-; fails code "<StateChanged>" >&-; "$C" "GetState ()"'
}

@test "options keep their values while the daemon is away" {
    played '{}' '^.ok:true. .ok:true. .ok:true. \(<b>,\) $' 'ctl "{\"do\":\"stop\"}" "{\"do\":\"set-option\",\"key\":\"a\",\"value\":\"b\"}" \
        "{\"do\":\"start\"}" | flat; "$C" "GetOption (\"a\",)" | flat'
}

@test "misspelt names of methods are refused" {
    asked '^(.ok:false,error:method: the daemon has no method .Authentcate.. ){2}.ok:false,error:method: expected the name of one of ' \
        '{"do":"calls","method":"Authentcate"}' '{"do":"wait-calls","method":"Authentcate","count":1}' \
        '{"do":"misbehave","method":"Authentcate","how":"mute"}'
    played '{}' '^.calls:\[.n:1,[^}]*.\],next:2,ok:true. $' '"$C" "RequestChallenge ()" "GetOption (\"a\",)" >&-; ctl "{\"do\":\"calls\",\"method\":\"GetOption\"}" | flat'
}

rule() { printf '{"misbehave": [{"method": "%s", "how": "%s"%s}]}' "$1" "$2" "${3:-}"; }
change='alex order "$(user 1000 worker/show-last-login false)" "<UserOptionChanged>" "<Factor>" order | tail -n 1 | flat'

@test "calls that change options follow rules, too" {
    played "$(rule SetUserOption signal-first)" '^UserOptionChanged Factor reply $' "$change"
    played "$(rule FactorMethod signal-first)" '^Factor reply $' 'alex order "$(setting code 1000 length "uint32 5")" "<Factor>" order | tail -n 1 | flat'
    played "$(rule SetUserOption lose-reply)" '^UserOptionChanged Factor reply \(<false>,\) $' 'alex order "!$(user 1000 worker/show-last-login false)" \
        "<UserOptionChanged>" "<Factor>" "GetOption (\"worker/can-switch-to-user\",)" order "$(option worker 1000 show-last-login)" | tail -n 2 | flat'
    played "$(rule SetUserOption lose-signals)" '^\(true,\) \(<true>,\) Factor\(worker, .x: <1>.\) reply reply Factor \(<false>,\) $' \
        'alex order "$(user 1000 worker/show-last-login false)" "$fence" "<Factor>" order "$(option worker 1000 show-last-login)" | tail -n +4 | flat'
    played "$(rule Authenticate lose-signals)" '^\(true,\) \(<true>,\) Factor\(worker, .x: <1>.\) reply reply reply Factor tokens:1 $' \
        'try 1234 code "$fence" "<Factor>" order | flat; ctl "{\"do\":\"state\"}" | grep -o "\"tokens\":1" | flat'
    slow='"lockout": {"failures": 1, "seconds": 0}, "factors": [{"name": "slow", "behaviour": "slow", "delay": 20}]'
    played "{$slow, \"misbehave\": [{\"method\": \"Authenticate\", \"how\": \"lose-signals\"}]}" \
        '^\(true,\) StateChanged\(1,\) \(<true>,\) Factor\(worker, .x: <1>.\) reply reply reply Factor $' \
        'try 0000 slow "<StateChanged>" "$fence" "<Factor>" order | flat'
    played "$(rule SetUserOption hold)" '^reply UserOptionChanged Factor $' '{ '"$change"'; } & client=$!
        ctl "{\"do\":\"wait-calls\",\"method\":\"SetUserOption\",\"count\":1}" "{\"do\":\"options\",\"uid\":1000}" "{\"do\":\"release\"}" >"$dir/held"
        wait $client; grep -q "show-last-login\":\"true" "$dir/held"'
    played "$(rule GetOption reply ', "value": "(<@as []>, 5)"')" '^\(<@as \[\]>, 5\) $' '"$C" "GetOption (\"x\",)" | flat'
    played "$(rule GetUserOptions crash)" 'closed' '"$C" "GetUserOptions (uint32 1000, [\"x\"])"'
}

@test "a thousand factors are served" {
    many=$(seq -f '{"name": "ф/%g", "options": {"/": "", "é": [""]}}' -s ', ' 1000)
    many="{\"users\": [{\"uid\": 1}, {\"uid\": 2}], \"factors\": [{\"name\": \"\"}, $many]}"
    played "$many" '^1001 1001 \(<@as \[\]>,\) [^ ]*UnknownOption' '"$C" "GetOption (\"worker/available-service-factors/login\",)" | grep -o ", \|<" | wc -l | flat
        ctl "{\"do\":\"options\"}" | grep -o "unlock.*" | grep -o "ф/\|\[..," | wc -l | flat
        "$C" "GetUserOption (uint32 1, \"worker/service-factors/login\")" "$(option "" 1 x)" | flat'
    played "$many" '^\(<\[\]>,\) \(<>,\) $' '"$C" "$(option ф/1000 2 é)" "$(option ф/1 1 /)" | flat'
}
