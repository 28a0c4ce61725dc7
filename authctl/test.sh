#!/bin/bash
# Tests authctl against the stand-in. To be run in a world: authd-standin run -- authctl/test.sh AUTHCTL AUTHD-STANDIN
set -u
authctl=$1
standin=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
count=0

# status STATUS PATTERN COMMAND…: COMMAND ends with STATUS and prints what matches PATTERN and no secret.
status()
{
    local expected=$1 pattern=$2 output got
    shift 2
    output=$("$@" 2>&1)
    got=$?
    count=$((count + 1))
    if [ $got -ne "$expected" ] || ! [[ $output =~ $pattern ]] || [[ $output =~ 1234|geheim|[0-9a-f]{9} ]]; then
        failures=$((failures + 1))
        printf 'FAIL: %s\n  status %s, expected %s; printed: %s\n  expected: %s\n' "$*" $got "$expected" "$output" "$pattern"
    fi
}

ctl()
{
    "$standin" ctl "$@" >/dev/null || { echo "FAIL: the stand-in refused $*" && exit 1; }
}

with_code() # CODE ARGUMENT…
{
    printf '%s\n' "$1" | "$authctl" "${@:2}"
}

session() # LINE…
{
    printf '%s\n' "$@" | "$authctl" session --json
}

on_terminal() # KEYS COMMAND
{
    # The keys are typed when the secret is asked for: a silent terminal would throw away earlier ones.
    mkfifo "$dir/keys"
    script -qefc "$2" "$dir/typescript" <"$dir/keys" &
    exec 8>"$dir/keys"
    while kill -0 $! 2>/dev/null && ! grep -qs 'code:' "$dir/typescript"; do :; done
    printf '%b' "$1" >&8
    wait $!
    local ended=$?
    exec 8>&-
    rm "$dir/keys" "$dir/typescript"
    return $ended
}

tells() # TEXT COMMAND…
{
    [[ $("${@:2}") == *"$1"* ]]
}

short_token() # ARGUMENT…
{
    ctl '{"do":"misbehave","method":"Authenticate","how":"reply","value":"(true,)"}' '{"do":"clear-calls"}'
    printf '1234' | "$authctl" authenticate login --factor code --data - "$@" &
    ctl '{"do":"wait-calls","method":"Authenticate","count":1,"timeout":5000}' \
        '{"do":"emit","signal":"Authenticated","args":"([byte 0x61, 0x62, 0x63, 0x64],)"}' '{"do":"behave"}'
    wait $!
}

ended_by() # SIGNAL ARGUMENT…
{
    rm -f "$dir/out"
    "$authctl" "${@:2}" >"$dir/out" 2>&1 &
    while kill -0 $! 2>/dev/null && ! grep -qs state "$dir/out"; do :; done
    kill -s "$1" $!
    wait $!
}

# 0: done
status 0 '^Locked$' "$authctl" state
status 0 '"number":1,"ok":true,"state":"Locked","status":0' "$authctl" state --json
status 0 '^Authenticated for login \(token of 32 bytes, [0-9a-f]{4}…\)$' with_code 1234 authenticate login --factor code --data -
status 0 '"token":\{"begins":"[0-9a-f]{4}","length":32\}' with_code 1234 --json authenticate login --factor code --data-fd 0 --uid 1000
status 0 '^Unlocked$' with_code 1234 unlock --factor code --data -
status 0 '^Locked$' with_code 1234 set-state locked --service login --factor code --data -
status 0 '^SecurityUi$' "$authctl" set-state 5
status 0 '^Locked$' "$authctl" lock
status 0 '^7$' "$authctl" factor-method code echo value:u=7
status 0 '^00ff$' "$authctl" factor-method code echo value:ay=00ff
status 0 '^\["a","b"\]$' "$authctl" factor-method code echo value:as=a,b
status 0 '^x=y$' "$authctl" factor-method code echo value=x=y
status 0 '-h, --help.*Exit status' "$authctl" --help
status 0 'Exit status' "$authctl" -h
status 0 '^authctl [0-9.]+$' "$authctl" --version
status 0 '' ended_by TERM watch
status 0 '' ended_by INT watch --json

status 0 'token of 4 bytes\)$' short_token
status 0 '"token":\{"length":4\}' short_token --json

status 0 '' tells '"value":9007199254740992}' "$authctl" factor-method code echo value:x=9007199254740992 --json
status 0 '' tells '"value":"-9007199254740993"}' "$authctl" factor-method code echo value:x=-9007199254740993 --json
status 0 '' tells '"value":"18446744073709551615"}' "$authctl" factor-method code echo value:t=18446744073709551615 --json

# Nested answers and signals
status 0 '^\{"a":\[1,\{"b":\[true,"c",\[\]\]\}\]\}$' "$authctl" factor-method code echo 'value:json={"a":[1,{"b":[true,"c",[]]}]}'
status 0 '"factor":"code","params":\{"a":\[\[2\],\{"b":\{\}\}\]\}' session \
    "factor-method code notify 'params:json={\"a\":[[2],{\"b\":{}}]}'" 'factor-method code echo value=v'
ctl '{"do":"misbehave","method":"FactorMethod","how":"reply","value":"(<(1, <'"'a'"'>, {uint32 7: [(true, [byte 0xff])]}, [objectpath '"'/o'"'], <<signature '"'as'"'>>, [<[[5]]>])>,)"}'
status 0 '^\[1,"a",\{"7":\[\[true,"ff"\]\]\},\["/o"\],"as",\[\[\[5\]\]\]\]$' "$authctl" factor-method code any
status 0 '"value":\[1,"a",\{"7":\[\[true,"ff"\]\]\},\["/o"\],"as",\[\[\[5\]\]\]\]' "$authctl" factor-method code any --json
ctl '{"do":"behave"}'

# The types go out as asked for.
ctl '{"do":"clear-calls"}'
"$authctl" factor-method code echo a:y=1 b:n=-2 c:q=3 d:i=-4 e:u=5 f:x=-6 g:t=7 h:d=1.5 i:b=true j:as=k 'l:json={"m":"n"}' value=v >"$dir/out"
status 0 "'a': <byte 0x01>, 'b': <int16 -2>, 'c': <uint16 3>, 'd': <-4>, 'e': <uint32 5>, 'f': <int64 -6>, 'g': <uint64 7>, 'h': <1.5>, 'i': <true>, 'j': <\['k'\]>, 'l': <\{'m': <'n'>\}>" \
    "$standin" ctl '{"do":"calls"}'

# 2: wrong usage
status 2 'no command' "$authctl"
status 2 'no such command: "bogus"' "$authctl" bogus
status 2 'wants --factor' "$authctl" authenticate login
status 2 'everybody can see' "$authctl" authenticate login --factor code --data geheim
status 2 'never from the command line' "$authctl" authenticate login geheim --factor code
status 2 'never from the command line' "$authctl" unlock geheim --factor code
status 2 'too many arguments for state \(see' "$authctl" state extra
status 2 'no such state: "open"' "$authctl" set-state open
status 2 'wants a number' "$authctl" state --timeout soon
status 2 'not KEY=VALUE' "$authctl" factor-method code echo value
status 2 'no such type: "value:z=1"' "$authctl" factor-method code echo value:z=1
status 2 'not of its type' "$authctl" factor-method code echo value:b=yes
status 2 'not a number from 0 to 255: "value:y=256"' "$authctl" factor-method code echo value:y=256
status 2 'not a number from -32768 to 32767' "$authctl" factor-method code echo value:n=-32769
status 2 'not a number from 0 to 65535' "$authctl" factor-method code echo value:q=-1
status 2 'given twice' "$authctl" factor-method code echo type:u=7
status 2 'given twice' "$authctl" factor-method code echo value=a value=b
status 2 'in a session' "$authctl" lock --token
status 2 'a command of a session' "$authctl" drop
status 2 'no terminal' setsid -w "$authctl" authenticate login --factor code

# 3: refused
status 3 '^authctl: not authenticated$' with_code 0000 authenticate login --factor code --data -
status 3 '"error":"not authenticated","ok":false,"status":3' with_code 1234 authenticate login --factor nosuch --data - --json
status 3 'the call failed' "$authctl" factor-method code nosuch
status 3 'left the state at Locked' "$authctl" set-state 17
status 3 'not unlocked' "$authctl" unlock-if-needed

# A session keeps the token until the device is locked.
status 3 '"state":"Unlocked","status":0.*"event":"discredit".*"state":"Locked","status":0.*"command":"unlock","error":"the state may not be set"' \
    session 'authenticate unlock --factor code --data -' 1234 'unlock --token' 'lock --token' '' '# nothing' 'unlock --token'
status 0 '"command":"drop","ok":true' session 'authenticate unlock --factor code --data -' 1234 drop quit bogus
status 0 '"factor":"code","params":\{"a b":"c"\}' session \
    "factor-method code notify 'params:json={\"a b\":\"c\"}'" 'factor-method code echo value=v'
status 2 'no such command' session state bogus

# After a line that is wrong, the line of the secret is neither repeated nor taken for a command.
for line in 'authenticate --factor code --data -' 'authenticate login --factr code --data=-' 'bogus --data "-"' '--data -'; do
    status 0 'is dropped.*"ok":false,"status":2.*"command":"state","number":1,"ok":true' session "$line" 'geheim 1234' state
    status 2 'is dropped' session "$line"
done
# Words that are out of place may be secrets.
for line in geheim 'state geheim' 'set-state geheim' 'state --geheim' 'factor-method code echo geheim' 'geheim lock' \
    'lock --data-fd geheim' 'lock --factor code --uid geheim'; do
    status 0 '"ok":false,"status":2.*"command":"state","number":1,"ok":true' session "$line" state
done

# The terminal shows no secret, and shows again what is typed afterwards.
status 0 'Authenticated for login.* echo ' on_terminal '1234\n' "$authctl authenticate login --factor code && stty -a"
status 5 'code: ' on_terminal '\003' "trap : INT; $authctl authenticate login --factor code; status=\$?; stty -a | grep -q ' echo ' && exit \$status"

# Nor can it be left silent by stopping the process.
status 0 'Authenticated for login.* susp = \^Z' on_terminal '\x1a\x151234\n' \
    "bash -mc '$authctl authenticate login --factor code && stty -a'"

# 4: no outcome in time
ctl '{"do":"misbehave","method":"Authenticate","how":"mute"}'
status 4 'not tell an outcome' with_code 1234 authenticate login --factor code --data - --timeout 0.2
status 4 '"status":4' session 'authenticate login --factor code --data - --timeout 0.2' 1234

# 5: interrupted
ctl '{"do":"behave"}' '{"do":"misbehave","method":"FactorMethod","how":"mute"}' '{"do":"clear-calls"}'
"$authctl" factor-method code echo value=v &
ctl '{"do":"wait-calls","method":"FactorMethod","count":1,"timeout":5000}'
kill -TERM $!
wait $!
status 5 '' bash -c "exit $?"

# 6: nobody takes the output
for arguments in state 'state --json' session --help -h --version; do
    status 6 'the output cannot be written: No space left' bash -c "$authctl $arguments >/dev/full <<<state"
done
status 3 'not unlocked' bash -c "$authctl unlock-if-needed >/dev/full"

# 1: the daemon is away
ctl '{"do":"stop"}'
status 1 'Cannot connect to' "$authctl" state
status 1 'Cannot connect to' env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere "$authctl" lock

echo "$((count - failures)) passed, $failures failed"
[ $failures -eq 0 ]
