# Tests authctl against the stand-in, in a world of its own for each case.
# shellcheck disable=SC2016,SC2086

load tools.sh

completions=$BATS_TEST_DIRNAME/../../authctl/completions

# authctl ends so, prints what matches PATTERN, and no secret.
status() # STATUS PATTERN COMMAND…
{
    ends_with "$@"
    # Nobody's user id has as many digits as a token that has leaked, and how a token begins may look like a code.
    local told
    told=$(sed -E 's/429496729[56]/nobody/g; s/bytes, [0-9a-f]{4}…|"begins":"[0-9a-f]{4}"//g' <<<"$output")
    ! [[ $told =~ 1234|geheim|[0-9a-f]{9} ]] || fail "${*:3}" "  printed a secret: $output"
}

# Rows of one case: a command line, and what authctl says of it.
# shellcheck disable=SC2034
refused() # [OPTION…] <<<ROWS
{
    local line pattern
    while IFS='|' read -r line pattern; do
        eval "status 2 \"\$pattern\" authctl $line </dev/null"
    done
}

# What the daemon may say, as JSON and the texts of GVariant have it; and how it is shown, in words and in JSON.
words='A\u001b[1A\u009b\u007f\u202e\u2066\u061c\u200e\u2028\u2029\ufeff\t\nauthctl: B\\C äع指é👨\u200d👩🏴\U000e0067\U000e007f🫠'
region=$'\xf3\xa0\x81\xa7\xf3\xa0\x81\xbf' joiner=$'\xe2\x80\x8d'
shown='A\u001b[1A\u009b\u007f\u202e\u2066\u061c\u200e\u2028\u2029\ufeff\u0009\nauthctl: B\\C äع指é👨'$joiner'👩🏴'$region'🫠'
shown_json=${shown/'\u0009'/'\t'}

export LC_ALL=C.UTF-8
json_words=${words/'\U000e0067\U000e007f'/$region}
said="'${words//\\/\\\\}'"

# authctl ends so and prints a text, and nothing that a terminal obeys.
shows() # STATUS TEXT COMMAND…
{
    ends_with "$1" '' "${@:3}"
    [[ $output == *"$2"* ]] || fail "${*:3}" "  printed: $output" "  expected: $2"
    ! LC_ALL=C grep -qP \
        '[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xd8\x9c|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]|\xef\xbb\xbf' <<<"$output" ||
        fail "${*:3}" "  printed what a terminal obeys: $(printf %q "$output")"
}

ctl()
{
    authd-standin ctl "$@" >/dev/null || { echo "the stand-in refused $*" && exit 1; }
}

with_code() # CODE ARGUMENT…
{
    printf '%s\n' "$1" | authctl "${@:2}"
}

session() # LINE…
{
    printf '%s\n' "$@" | authctl session --json
}

# A session that holds the token of user 1000's settings already: the time that a line may take begins with the line.
holding_token() # LINE
{
    session 'user 1000 set is-user-settable on --factor code --data -' 1234 "$1"
}

called() # METHOD [COUNT]: waits until the daemon has been called, and has dealt with that
{
    ctl "{\"do\":\"wait-calls\",\"method\":\"$1\",\"count\":${2-1},\"timeout\":60000}"
}

# Types keys when a secret is asked for the first time, and so on: a silent terminal would throw away earlier ones.
# Keys that begin with a colon are something to do instead.
on_terminal() # KEYS[|KEYS…] COMMAND
{
    local keys terminal ended asked=0 deadline=$((SECONDS + 120)) IFS='|'
    mkfifo "$dir/keys"
    # What a shell starts in the background ignores SIGINT and SIGQUIT unless told otherwise.
    timeout --foreground 120 env --default-signal=INT,QUIT script -qefc "$2" "$dir/typescript" <"$dir/keys" &
    terminal=$!
    exec 8>"$dir/keys"
    for keys in $1; do
        asked=$((asked + 1))
        while kill -0 $terminal 2>/dev/null && [ "$(grep -aos 'code: ' "$dir/typescript" | wc -l)" -lt $asked ]; do
            [ $SECONDS -lt $deadline ] || { echo "not asked $asked times" && kill $terminal; }
        done
        case $keys in
        :*) IFS=' ' eval "${keys#:}" ;;
        *) printf '%b' "$keys" >&8 ;;
        esac
    done
    wait $terminal
    ended=$?
    exec 8>&-
    rm "$dir/keys" "$dir/typescript"
    return $ended
}

heeding() # SIGNAL PROCESS, the threads that do not block it
{
    local task blocked
    for task in "/proc/$2/task/"*; do
        blocked=$(sed -n 's/^SigBlk:\s*/0x/p' "$task/status") || return
        (((blocked >> ($(kill -l "$1") - 1)) & 1)) || echo "${task##*/}"
    done
}

setup()
{
    dir=$BATS_TEST_TMPDIR
    PATH=$PATH:$dir
    # Something that asks for a secret, for a shell on a terminal.
    cat >"$dir/ask" <<END
#!/bin/sh
tty >"$dir/tty"
echo \$\$ >"$dir/asking"
exec authctl authenticate login --factor code
END
    # What has been typed there and not been read.
    cat >"$dir/left" <<'END'
#!/bin/sh
settings=$(stty -g)
stty -icanon min 0 time 0
echo "left:$(head -c 9)."
stty "$settings"
END
    chmod +x "$dir/ask" "$dir/left"
}

send() # SIGNAL: to what asks
{
    kill -s "$1" "$(<"$dir/asking")"
}

tells() # TEXT COMMAND…
{
    [[ $("${@:2}") == *"$1"* ]]
}

short_token() # ARGUMENT…
{
    ctl '{"do":"misbehave","method":"Authenticate","how":"reply","value":"(true,)"}' '{"do":"clear-calls"}'
    printf '1234' | authctl authenticate login --factor code --data - "$@" &
    called Authenticate
    ctl '{"do":"emit","signal":"Authenticated","args":"([byte 0x61, 0x62, 0x63, 0x64],)"}' '{"do":"behave"}'
    wait $!
}

ended_by() # SIGNAL ARGUMENT…
{
    rm -f "$dir/out"
    authctl "${@:2}" >"$dir/out" 2>&1 &
    while kill -0 $! 2>/dev/null && ! grep -qs state "$dir/out"; do :; done
    kill -s "$1" $!
    wait $!
}

changes() # ARGUMENT…: changes user 1000's settings
{
    with_code 1234 "$@" --factor code --data -
}

writes() # COUNT: the daemon was asked so often to write a user's option
{
    [ "$(authd-standin ctl '{"do":"calls"}' | grep -o '"method": *"SetUserOption"' | wc -l)" -eq "$1" ]
}

holds() # TEXT ARGUMENT…: the daemon's options hold a text; more members of the request
{
    tells "$1" authd-standin ctl "{\"do\":\"options\",\"uid\":1000${2-}}"
}

misbehave() # METHOD HOW
{
    ctl '{"do":"behave"}' "{\"do\":\"misbehave\",\"method\":\"$1\",\"how\":$2}"
}

# Waits until what a process in the background prints holds a text.
until_told() # TEXT
{
    local deadline=$((SECONDS + 120))
    until grep -qsF "$1" "$dir/out"; do
        [ $SECONDS -lt $deadline ] || { echo "not told: $1" >&2 && return 1; }
    done
}

kept()
{
    local as=()
    [ "$(id -u)" -ne 0 ] || as=(as_user 1000)
    rm -f "$dir/out"
    mkfifo "$dir/lines"
    "${as[@]}" authctl session >"$dir/out" <"$dir/lines" &
    {
        echo state >&9
        until_told Locked
        grep core "/proc/$!/limits"
        ! ("${as[@]}" cat "/proc/$!/environ") || echo readable
    } 9>"$dir/lines"
    wait $!
    rm "$dir/lines"
}

another_notice() # VALUE SECONDS
{
    ctl '{"do":"misbehave","method":"FactorMethod","how":"hold","times":1}' '{"do":"clear-calls"}'
    changes method code set length:u=9 --user 1000 --timeout "$2" &
    called FactorMethod
    ctl "{\"do\":\"set-option\",\"uid\":1000,\"factor\":\"code\",\"name\":\"length\",\"value\":{\"type\":\"u\",\"value\":\"$1\"}}"
    [ "$1" -eq 2 ] || ctl '{"do":"release"}'
    wait $!
}

read_anew()
{
    rm -f "$dir/out"
    {
        echo 'user 1000 show'
        until_told '"command":"user show"'
        ctl '{"do":"stop"}'
        until_told '"number":4'
        ctl '{"do":"set-option","uid":1000,"key":"worker/is-user-settable","value":false}' '{"do":"start"}' '{"do":"set-lock","state":5}'
        until_told '"number":5'
        echo 'user 1000 show'
    } | authctl session --json >"$dir/out"
    cat "$dir/out"
}

connected_anew()
{
    local deadline=$((SECONDS + 120))
    until [[ $(authd-standin ctl '{"do":"state"}') =~ \"peers\":\[[0-9]+,[0-9]+\] ]]; do
        [ $SECONDS -lt $deadline ] || { echo 'not connected anew' >&2 && return 1; }
    done
}

read_anew_twice()
{
    rm -f "$dir/out"
    {
        echo 'user 1000 show'
        until_told '"command":"user show"'
        local settable
        for settable in false true; do
            ctl '{"do":"stop"}' '{"do":"start"}' \
                "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"worker/is-user-settable\",\"value\":$settable,\"announce\":false}"
            connected_anew
            echo 'user 1000 show'
            until_told "\"is-user-settable\":$settable"
        done
    } | authctl session --json >"$dir/out"
    cat "$dir/out"
}

watch_user()
{
    rm -f "$dir/out"
    authctl watch --user 1000 >"$dir/out" &
    until_told 'user                1000' || return 1
    ctl '{"do":"set-option","uid":1000,"key":"worker/service-factors/unlock","value":["sudis","smartcard"]}'
    until_told 'unlock-factors      sudis, smartcard' || return 1
    kill -TERM $!
    wait $!
}

set_user() # KEY VALUE
{
    ctl "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"$1\",\"value\":$2}"
}

option_changed() # [VALUE]
{
    local limit=60
    [ $# -eq 0 ] || limit=10
    ctl '{"do":"misbehave","method":"FactorMethod","how":"hold","times":1}' '{"do":"clear-calls"}'
    changes method code set keypad="$(printf %b "$words")" --user 1000 --timeout $limit &
    called FactorMethod
    if [ $# -eq 0 ]; then
        ctl '{"do":"release"}'
    else
        ctl "{\"do\":\"set-option\",\"uid\":1000,\"factor\":\"code\",\"name\":\"keypad\",\"value\":$1}"
    fi
    wait $!
}

watched() # ARGUMENT…
{
    rm -f "$dir/out"
    authctl watch --user 1000 "$@" >"$dir/out" 2>&1 &
    until_told Locked && until_told 1000
    set_user worker/service-factors/unlock "[\"smartcard\",\"$json_words\"]"
    set_user worker/service-factors/login "[\"$json_words\"]"
    ctl "{\"do\":\"emit\",\"signal\":\"Factor\",\"args\":\"($said, {$said: <$said>})\"}" '{"do":"set-lock","state":5}'
    until_told SecurityUi
    ctl '{"do":"set-lock","state":1}'
    kill -TERM $!
    wait $!
    cat "$dir/out"
}

stopped_between()
{
    rm -f "$dir/out"
    {
        echo 'options get worker/can-switch-to-user'
        until_told '"status":0'
        ctl '{"do":"stop"}'
        echo 'options get worker/can-switch-to-user'
    } | authctl session --json >"$dir/out"
    local ended=$?
    cat "$dir/out"
    return $ended
}

interrupted()
{
    authctl factor-method code echo value=v &
    called FactorMethod
    kill -TERM $!
    wait $!
}

# What bash offers for the last word
offered() # WORD…
{
    bash -c '. "$0" && [ "$(complete -p authctl)" = "complete -F _authctl authctl" ] &&
        COMP_WORDS=(authctl "$@") COMP_CWORD=$# && _authctl authctl && echo "${COMPREPLY[*]}"' "$completions/authctl" "$@"
}

# zsh gets what is typed and a tab.
typed_into_zsh() # <<<ROWS
{
    # On this terminal the line shows just what is typed and completed.
    TERM=dumb timeout 120 zsh -f -c '
        zmodload zsh/zpty && zpty shell zsh -f -i
        expect() { zpty -r -m shell shown "*$1*" }
        zpty -w shell "PS1=\"<>\"; fpath=($1 \$fpath); autoload -U compinit; compinit -u -D; echo rea\"\"dy"
        expect "ready*<>"
        while IFS="|" read -r typed wanted; do
            zpty -n -w shell "authctl $typed"$'"'\t'"'
            expect "$wanted "
            zpty -n -w shell $'"'\x15'"'
        done' zsh "$completions"
}

@test "a command line that is wrong is refused" {
    refused <<'END'
|no command
bogus|no such command: "bogus"
authenticate login|wants --factor
authenticate login --factor code --data geheim|everybody can see
authenticate login geheim --factor code|never from the command line
unlock geheim --factor code|never from the command line
state extra|too many arguments for state \(see
set-state open|no such state: "open"
state --timeout soon|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout 0|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout -1|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout 1e9|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout nan|wants a number of seconds, more than 0 and at most 1000000 \(see
lock --factor '' --data -|--factor wants a factor's name
lock --factor=|--factor wants a factor's name
lock --factor --help|--factor wants a factor's name
user 1000 set is-user-settable on --factor '' --data -|--factor wants a factor's name
user 1000 set is-user-settable on --factor=|--factor wants a factor's name
authenticate login --factor '' --data -|--factor wants a factor's name
authenticate login --factor=|--factor wants a factor's name
lock --token|in a session
drop|a command of a session
options|the commands of options are: get \(see
options get|more arguments
user 1000 dance|the commands of user are: show, set, last-login
user 1000 show --user 1001|does not take --user
factors --factor code|does not authenticate
factors toggle code --token|works only in a session
factors toggle code|wants an authentication: --factor \(see
user 1000 set is-user-settable on|wants an authentication
unlock-factors toggle code|wants an authentication
method code set length:u=5|wants an authentication
method code action reset|wants an authentication
END
}

@test "commands do what they say and tell it in words or in JSON" {
    status 0 '^Locked$' authctl state
    status 0 '"number":1,"ok":true,"state":"Locked","status":0' authctl state --json
    status 0 '^Authenticated for login \(token of 32 bytes, [0-9a-f]{4}…\)$' with_code 1234 authenticate login --factor code --data -
    status 0 '"token":\{"begins":"[0-9a-f]{4}","length":32\}' with_code 1234 --json authenticate login --factor code --data-fd 0 --uid 1000
    status 0 '^Unlocked$' with_code 1234 unlock --factor code --data -
    status 0 '^Locked$' with_code 1234 set-state locked --service login --factor code --data -
    status 0 '^SecurityUi$' authctl set-state 5
    status 0 '^Locked$' authctl lock
    status 0 '^7$' authctl factor-method code echo value:u=7
    status 0 '^00ff$' authctl factor-method code echo value:ay=00ff
    status 0 '^\["a","b"\]$' authctl factor-method code echo value:as=a,b
    status 0 '^x=y$' authctl factor-method code echo value=x=y
    status 0 '-h, --help.*Exit status' authctl --help
    status 0 'Exit status' authctl -h
    status 0 '^authctl [0-9.]+$' authctl --version
    status 0 '' ended_by TERM watch
    status 0 '' ended_by INT watch --json

    status 0 'token of 4 bytes\)$' short_token
    status 0 '"token":\{"length":4\}' short_token --json

    status 0 '' tells '"value":9007199254740992}' authctl factor-method code echo value:x=9007199254740992 --json
    status 0 '' tells '"value":"-9007199254740993"}' authctl factor-method code echo value:x=-9007199254740993 --json
    status 0 '' tells '"value":"18446744073709551615"}' authctl factor-method code echo value:t=18446744073709551615 --json
}

@test "nested answers and signals are shown as JSON" {
    status 0 '^\{"a":\[1,\{"b":\[true,"c",\[\]\]\}\]\}$' authctl factor-method code echo 'value:json={"a":[1,{"b":[true,"c",[]]}]}'
    status 0 '"factor":"code","params":\{"a":\[\[2\],\{"b":\{\}\}\]\}' session \
        "factor-method code notify 'params:json={\"a\":[[2],{\"b\":{}}]}'" 'factor-method code echo value=v'
    ctl '{"do":"misbehave","method":"FactorMethod","how":"reply","value":"(<(1, <'"'a'"'>, {uint32 7: [(true, [byte 0xff])]}, [objectpath '"'/o'"'], <<signature '"'as'"'>>, [<[[5]]>])>,)"}'
    status 0 '^\[1,"a",\{"7":\[\[true,"ff"\]\]\},\["/o"\],"as",\[\[\[5\]\]\]\]$' authctl factor-method code any
    status 0 '"value":\[1,"a",\{"7":\[\[true,"ff"\]\]\},\["/o"\],"as",\[\[\[5\]\]\]\]' authctl factor-method code any --json
}

@test "parameters go out with the types asked for" {
    ctl '{"do":"clear-calls"}'
    authctl factor-method code echo a:y=1 b:n=-2 c:q=3 d:i=-4 e:u=5 f:x=-6 g:t=7 h:d=1.5 i:b=true j:as=k 'l:json={"m":"n"}' value=v >"$dir/out"
    status 0 "'a': <byte 0x01>, 'b': <int16 -2>, 'c': <uint16 3>, 'd': <-4>, 'e': <uint32 5>, 'f': <int64 -6>, 'g': <uint64 7>, 'h': <1.5>, 'i': <true>, 'j': <\['k'\]>, 'l': <\{'m': <'n'>\}>" \
        authd-standin ctl '{"do":"calls"}'
}

@test "a value that is wrong is refused with its word" {
    status 2 'not KEY=VALUE' authctl factor-method code echo value
    status 2 'no such type: "value:z=1"' authctl factor-method code echo value:z=1
    status 2 'not of its type' authctl factor-method code echo value:b=yes
    status 2 'not of its type' authctl factor-method code echo 'value:json={'
    for value in null '{"a":[1,{"b":null}]}'; do
        status 2 'D-Bus has no null: "value:json=' authctl factor-method code echo "value:json=$value"
        status 2 'D-Bus has no null' authctl method code set "value:json=$value" --factor code
    done
    status 2 'not a number from 0 to 255: "value:y=256"' authctl factor-method code echo value:y=256
    status 2 'not a number from -32768 to 32767' authctl factor-method code echo value:n=-32769
    status 2 'not a number from 0 to 65535' authctl factor-method code echo value:q=-1
    status 2 'given twice' authctl factor-method code echo type:u=7
    status 2 'given twice' authctl factor-method code echo value=a value=b
    status 2 'user is given by a number, the user id: "alex"' authctl user alex show
    status 2 'user is given by a number' authctl factors --user 4294967296
    for nobody in 0 4294967295; do
        status 2 "means nobody: \"$nobody\"" authctl user $nobody show
        status 2 "means nobody: \"$nobody\"" authctl factors --user $nobody
    done
    status 2 'no such flag: "is-settable"' authctl user 1000 set is-settable on --factor code
    status 2 'on or off: "yes"' authctl user 1000 set is-user-settable yes --factor code
    status 2 'never from the command line' authctl user 1000 set is-user-settable on geheim --factor code
    status 2 'not KEY=VALUE' authctl method code set length --factor code
    status 2 'not a number from 0 to 4294967295: "length:u=-1"' authctl method code set length:u=-1 --factor code
    status 2 'no terminal' setsid -w authctl authenticate login --factor code
}

@test "what the daemon refuses has status 3" {
    status 3 '^authctl: not authenticated$' with_code 0000 authenticate login --factor code --data -
    status 3 '"error":"not authenticated","ok":false,"status":3' with_code 1234 authenticate login --factor nosuch --data - --json
    status 3 'the call failed' authctl factor-method code nosuch
    status 3 'left the state at Locked' authctl set-state 17
    status 3 'not unlocked' authctl unlock-if-needed
}

@test "a session keeps the token until the device is locked" {
    status 3 '"state":"Unlocked","status":0.*"event":"discredit".*"state":"Locked","status":0.*"command":"unlock","error":"the state may not be set"' \
        session 'authenticate unlock --factor code --data -' 1234 'unlock --token' 'lock --token' '' '# nothing' 'unlock --token'
    status 0 '"command":"drop","ok":true' session 'authenticate unlock --factor code --data -' 1234 drop quit bogus
    status 0 '"factor":"code","params":\{"a b":"c"\}' session \
        "factor-method code notify 'params:json={\"a b\":\"c\"}'" 'factor-method code echo value=v'
    status 2 'no such command' session state bogus
}

@test "a line of a session that is wrong is not repeated, nor is a secret taken for a command" {
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
}

@test "the terminal shows no secret, and shows again what is typed afterwards" {
    status 0 'Authenticated for login.* echo ' on_terminal '1234\n' "authctl authenticate login --factor code && stty -a"
    status 5 'code: ' on_terminal '\003' "trap : INT; authctl authenticate login --factor code; status=\$?; stty -a | grep -q ' echo ' && exit \$status"
}

@test "no signal or key leaves the terminal silent, or what has been typed to whoever reads next" {
    for signal in INT TERM HUP QUIT ABRT ALRM PIPE USR1 USR2 XCPU; do
        case $signal in
        INT | TERM | HUP | QUIT) ended=5 ;;
        *) ended=$((128 + $(kill -l $signal))) ;;
        esac
        status $ended 'code: .* echo ' on_terminal ":send $signal" "bash -mc 'exec 2>/dev/null; ask; status=\$?; stty -a; exit \$status'"
    done
    for key in '\003' '\034'; do
        status 5 'left:\.' on_terminal "12$key" "bash -mc 'stty noflsh; ask; status=\$?; left; exit \$status'"
    done
    for signal in TSTP TTIN TTOU; do
        status 0 'code: .*stopped 1(48|49|50).* echo .*code: .*Authenticated for login.* echo ' on_terminal ":send $signal|1234\\n" \
            "bash -mc 'ask; echo stopped \$?; stty -a; fg >/dev/null && stty -a'"
    done
    status 0 'stopped 148.*left:\..* echo .*code: .*Authenticated for login' on_terminal '12\x1a|1234\n' \
        "bash -mc 'stty noflsh; ask; echo stopped \$?; left; stty -a; fg >/dev/null'"
    status 0 'Authenticated for login' on_terminal '12\x04\x1a|1234\n' "bash -mc 'ask; fg >/dev/null'"
}

@test "in the background authctl waits for the foreground, and leaves the terminal as others have it" {
    status 0 'stopped 0.*left:x\..* echo .*foreground.*code: .*Authenticated for login.* echo ' \
        on_terminal ':send TSTP; until grep -q "stopped 0" "$dir/typescript"; do :; done; printf x >&8|1234\n' \
        "bash -mc 'ask; stty -icanon; echo stopped \$?; until read -t 0; do :; done
            bg >/dev/null; until jobs -l | grep -q output; do :; done; left; stty -a; stty icanon
            echo foreground; fg >/dev/null && stty -a'"
    status 0 'foreground.*code: .*Authenticated for login.* icanon.* echo ' on_terminal '1234\n' \
        "bash -mc 'stty -icanon -icrnl -echo; ask & until jobs -l | grep -q output; do :; done; stty sane
            echo foreground; fg >/dev/null && stty -a'"
    status 0 'stopped 148.*gone.* -icanon .*-echo ' on_terminal ':send TSTP' \
        "bash -mc 'ask; echo stopped \$?; stty -icanon -echo; kill %1
            while grep -qs State:.[^Z] /proc/\$(<$dir/asking)/status; do :; done; echo gone; stty -a'"
}

@test "the thread that asks is the only one that signals come to" {
    status 0 'Authenticated for login' on_terminal \
        ':asking=$(<"$dir/asking"); if [ "$(heeding TERM "$asking")" = "$asking" ]; then printf "1234\n" >&8; else kill $terminal; fi' ask
}

@test "where no shell sees to the terminal authctl does" {
    status 0 'code: .*code: .*Authenticated for login' on_terminal ':send TSTP|1234\n' 'ask; exit'
    status 0 'code: .*code: .*Authenticated for login' on_terminal ':send STOP; stty -F "$(<"$dir/tty")" echo; send CONT|1234\n' 'ask; exit'
}

@test "no other process and no core gets a secret" {
    status 0 '^Max core file size  *0  *0  *bytes *
cat: /proc/[0-9]*/environ: Permission denied$' kept
}

@test "without an outcome in time the status is 4" {
    ctl '{"do":"misbehave","method":"Authenticate","how":"mute"}'
    # Asking for the state may use up the time as well.
    status 4 'not tell an outcome' with_code 1234 authenticate login --factor code --data - --timeout 10
    status 4 '"status":4' session 'authenticate login --factor code --data - --timeout 10' 1234
}

@test "a call that the library waits for takes its full time" {
    ctl '{"do":"misbehave","method":"SetUserOption","how":"mute","times":1}'
    status 4 '^authctl: the daemon did not answer: Did not receive a reply' changes user 1000 set show-notifications off --timeout 20
}

@test "an interrupted command has status 5" {
    ctl '{"do":"misbehave","method":"FactorMethod","how":"mute"}'
    status 5 '' interrupted
}

@test "a global option is printed" {
    status 0 '^\["login","unlock"\]$' authctl options get worker/available-services
    status 0 '"key":"worker/can-switch-to-user","ok":true,"status":0,.*"value":true' authctl options get worker/can-switch-to-user --json
    status 3 '^authctl: the daemon refused: vantora.AuthService.Error.UnknownOption: ' authctl options get nosuch
    status 3 '"error":"the daemon refused: vantora.AuthService.Error.UnknownOption: .*"status":3' authctl options get nosuch --json
    misbehave GetOption '"reply","value":"(5,)"'
    status 3 '^authctl: the daemon refused: org.freedesktop.DBus.Error.InvalidSignature: ' authctl options get worker/available-services
    misbehave GetOption '"mute"'
    status 4 'did not answer in time' authctl options get worker/available-services --timeout 0.2
    misbehave GetOption '"drop"'
    status 4 'did not answer: ' authctl options get worker/available-services
}

@test "a user's settings are printed" {
    ctl '{"do":"set-option","uid":1000,"key":"devlock/show-notifications","value":true}'
    status 0 '^show-notifications   on
is-multi-factorable  off
is-user-settable     on
unlock-factors       code, smartcard
warning              settings_users-la-user_has_token_hint
show-last-login      on
last-login-date      2026-11-20 08:15
can-switch-to-user   on$' authctl user 1000 show
    status 0 '"unlock-factors":\["code"\],"user":1001,"warning":""' authctl user 1001 show --json
    status 0 '^2026-11-20 08:15$' authctl user 1000 last-login
    status 0 '^none$' authctl user 1001 last-login
    for command in 'user 7 show' 'user 7 last-login' 'factors --user 7'; do
        status 3 '^authctl: the daemon refused: There is no user 7$' authctl $command
    done
    misbehave GetUserOption '"error","message":"Not \"today\" C:\\\"n"'
    status 3 'refused: Not "today" C:\\\\"n$' authctl user 1000 show
    misbehave GetOption '"error","message":"Not at all"'
    status 3 'options could not be read: Not at all$' authctl factors --user 1000
    status 3 'options could not be read: Not at all".*options could not be read: Not at all [(][^)]*start another session[)]"' \
        session 'user 1000 show' 'user 1001 show'
    misbehave GetOption '"drop"'
    status 4 'options could not be read: Not connected' authctl factors --user 1000
}

@test "without --user it is the caller, or in a session the user of the command before" {
    case $(id -u) in
    0) status 2 '^authctl: the user id 0 means nobody; name a user with --user$' authctl factors ;;
    1000 | 1001) status 0 "\"user\":$(id -u)" authctl factors --json ;;
    *) status 3 "refused: There is no user $(id -u)" authctl factors ;;
    esac
    status 0 '"command":"factors".*"user":1001' session 'user 1001 show' factors
    status 0 '"command":"factors".*"user":1001' session 'user 1000 show' 'user 1001 last-login' factors
    status 3 '"command":"factors","error":"the daemon refused: There is no user 7"' session 'user 1000 show' 'user 7 show' factors
}

@test "the table of factors has its columns one below the other, in any script" {
    accent=$'e\xcc\x81'
    status 0 '^ROW  NAME       TITLE                   SERVICE  CHOSEN  DISABLED  CAN BE TOGGLED
0    code       authd-factor-code       login    yes     no        no
1    smartcard  authd-factor-smartcard  login    no      no        yes
' authctl factors --user 1000
    ctl '{"do":"set-option","uid":1000,"key":"worker/disabled-factors","value":["smartcard","slow"]}' \
        '{"do":"set-option","key":"worker/available-service-factors/login","value":["code","ключ","指紋","e\u0301","a\u001bb","\u2028","smartcard"]}' \
        '{"do":"set-option","key":"worker/available-service-factors/unlock","value":["smartcard","code"]}'
    status 0 '^ROW  NAME       TITLE .*
0    code       authd-.*
1    ключ       authd-.*
2    指紋       authd-.*
3    '$accent'          authd-.*
4    a\\u001bb   authd-.*
5    \\u2028     authd-.*
6    smartcard  authd-factor-smartcard  login    no      yes       yes$' env LC_ALL=C.UTF-8 authctl factors --user 1000
    ctl '{"do":"set-option","key":"worker/available-service-factors/login","value":["code","sudis"]}'
    # No login row carries this name, and the rows are made anew for what is disabled.
    status 0 '1    sudis      authd-factor-sudis      login    no      no        yes
2    smartcard  authd-factor-smartcard  unlock   yes     yes       no$' authctl factors --user 1000
    status 0 '"can-be-toggled":false,"chosen":true,"disabled":true,"name":"smartcard","row":2,"service":"unlock"' \
        authctl factors --user 1000 --json
    # One choice at a time unchooses the row for unlock as well, which is announced last.
    status 0 '
1    sudis      authd-factor-sudis      login    yes     no        no
2    smartcard  authd-factor-smartcard  unlock   no      yes       no$' changes factors toggle sudis --user 1000
}

@test "a flag is set where it is not what it was, and reported when the daemon has answered" {
    for flag in show-notifications is-multi-factorable is-user-settable; do
        key=worker/$flag
        [ $flag != show-notifications ] || key=devlock/$flag
        ctl "{\"do\":\"set-option\",\"uid\":1000,\"key\":\"$key\",\"value\":true}" '{"do":"clear-calls"}'
        status 0 "^$flag is on already; nothing was sent\$" changes user 1000 set $flag on
        status 0 '' writes 0
        status 0 "^$flag is off\$" changes user 1000 set $flag off
        status 0 '' writes 1
        status 0 '' holds "\"$key\":\"false\""
        misbehave SetUserOption '"signal-first"'
        status 0 "\"changed\":true.*\"$flag\":true" changes user 1000 set $flag on --json
        misbehave SetUserOption '"error","message":"Not \"today\""'
        status 3 '^authctl: the daemon refused: Not "today"$' changes user 1000 set $flag off
        status 0 '' holds "\"$key\":\"true\""
        ctl '{"do":"behave"}'
    done
    misbehave SetUserOption '"reply","value":"(false,)"'
    status 3 'refused, without saying why' changes user 1000 set show-notifications off
    status 4 'did not announce the change in time' holding_token 'user 1000 set is-multi-factorable off --token --timeout 0.5'
    misbehave SetUserOption '"lose-signals"'
    status 0 '^show-notifications is off$' changes user 1000 set show-notifications off
    status 4 'did not announce the change in time' holding_token 'user 1000 set is-multi-factorable off --token --timeout 0.5'
    ctl '{"do":"behave"}'
    status 0 '^show-notifications is on$' with_code 9876 user 1001 set show-notifications on --factor code --data -
    status 3 '^authctl: not authenticated$' with_code 0000 user 1000 set show-notifications on --factor code --data -
    status 3 '^authctl: the daemon refused: .*token' with_code 9876 user 1000 set show-notifications on --uid 1001 --factor code --data -
    status 3 '"error":"the daemon refused: .*token.*"status":3' session 'user 1000 set show-notifications on --token'
}

@test "a factor is chosen for login or unlock, and reported when the daemon has announced it" {
    ctl '{"do":"set-option","uid":1000,"key":"worker/service-factors/login","value":["code"]}' \
        '{"do":"set-option","uid":1000,"key":"worker/service-factors/unlock","value":["code","smartcard"]}'
    for option in login unlock; do
        ctl "{\"do\":\"set-option\",\"key\":\"worker/available-service-factors/$option\",\"value\":[\"code\",\"smartcard\",\"sudis\"]}"
    done
    ctl '{"do":"set-option","uid":1000,"key":"worker/disabled-factors","value":[]}'
    ctl '{"do":"clear-calls"}'
    status 3 'sees no login factor "nosuch"' changes factors toggle nosuch --user 1000
    status 3 '"code" is the only login factor chosen' changes factors toggle code --user 1000
    status 3 'not offer "nosuch" for unlock; it offers: code, smartcard, sudis$' changes unlock-factors toggle nosuch --user 1000
    status 0 '' writes 0
    status 0 '
0    code       authd-factor-code       login    no      no        yes
1    smartcard  authd-factor-smartcard  login    yes     no        no
' changes factors toggle smartcard --user 1000
    status 0 '' holds "\"worker/service-factors/login\":\"['smartcard']\""
    misbehave SetUserOption '"signal-first"'
    status 0 '"chosen":true,"disabled":false,"name":"sudis"' changes factors toggle sudis --user 1000 --json
    status 0 '^Chosen for unlock: sudis$' changes unlock-factors toggle sudis --user 1000
    status 0 '"unlock-factors":\["code","smartcard"\]' changes unlock-factors toggle sudis --user 1000 --json
    status 0 '' holds "\"worker/service-factors/unlock\":\"['code', 'smartcard']\""
    misbehave SetUserOption '"error","message":"Not today"'
    status 3 '^authctl: the daemon refused: Not today$' changes factors toggle code --user 1000
    status 3 '^authctl: the daemon refused: Not today$' changes unlock-factors toggle code --user 1000
    misbehave SetUserOption '"lose-signals"'
    status 4 'did not announce the change in time' holding_token 'factors toggle code --token --timeout 0.5'
    # It begins by asking what may be chosen.
    status 4 'did not announce the change in time' changes unlock-factors toggle code --user 1000 --timeout 10
}

@test "a factor's options and actions are read, set and run" {
    status 0 '^4$' authctl method code get length --user 1000
    status 0 '^length is 6$' changes method code set length:u=6 --user 1000
    status 0 '' holds '"length":"uint32 6"' ',"factor":"code"'
    status 0 '"name":"length",.*"value":6' authctl method code get length --user 1000 --json
    status 3 '^authctl: the daemon refused: .*nosuch' authctl method code get nosuch --user 1000
    status 3 '^authctl: the daemon refused: ' authctl method nosuch get length --user 1000
    status 3 '^authctl: the daemon refused: .* type u$' changes method code set length=6 --user 1000
    status 0 '^true$' changes method code action reset --user 1000
    status 0 '^4$' authctl method code get length --user 1000
    status 0 '^\{"a":1,"b":"c=d"\}$' changes method code action echo a:u=1 b=c=d --user 1000
    status 3 '^authctl: the daemon refused: .*nosuch' changes method code action nosuch --user 1000
    misbehave FactorMethod '"signal-first"'
    status 0 '^length is 5$' changes method code set length:u=5 --user 1000
    misbehave FactorMethod '"lose-signals"'
    status 4 'neither announced the change nor refused it in time' holding_token 'method code set length:u=7 --token --timeout 0.5'
    misbehave FactorMethod '"mute"'
    status 4 'neither announced the change nor refused it in time' holding_token 'method code set length:u=8 --token --timeout 0.5'
    status 4 'did not answer in time' holding_token 'method code action reset --token --timeout 0.5'
    misbehave FactorMethod '"drop"'
    status 4 'did not answer: ' authctl method code get length --user 1000
}

@test "the notice of another change is not that of this one" {
    status 0 '^length is 9$' another_notice 3 60
    status 3 'the daemon made it 2$' another_notice 2 10
    ctl '{"do":"release"}'
}

@test "a session acts with the token of the settings, and follows the user named last" {
    status 0 '"event":"user","time":[^}]*"user":1000.*"event":"factors".*"event":"settings-token".*"event":"is-multi-factorable","on":true.*"command":"user set".*"chosen":true,"event":"factor-changed","name":"smartcard".*"command":"factors toggle"' \
        session 'user 1001 show' 'user 1000 set is-multi-factorable on --factor code --data -' 1234 'factors toggle smartcard --token'
    status 3 '"event":"settings-discredit".*"command":"user set","error":"the daemon refused' \
        session 'method code action reset --user 1000 --factor code --data -' 1234 drop 'user 1000 set show-notifications off --token'
    # The secret is no command, even if none is wanted.
    status 0 '"command":"factors toggle","error".*"command":"state","number":1,"ok":true' \
        session 'factors toggle nosuch --user 1000 --factor code --data -' 1234 state
}

@test "after the daemon was away the settings are read anew" {
    status 0 '"command":"user show".*"is-user-settable":true.*"command":"user show".*"is-user-settable":false' read_anew
}

@test "after the daemon was away twice the settings are read anew, though the state does not show it" {
    status 0 '"is-user-settable":true.*"is-user-settable":false.*"is-user-settable":true' read_anew_twice
}

@test "watch prints what becomes of a user's settings" {
    status 0 '' watch_user
    status 3 'refused: There is no user 7' authctl watch --user 7
}

@test "what others say is shown on its line, and as JSON is JSON of the same value" {
    ctl "{\"do\":\"set-option\",\"key\":\"text\",\"value\":\"$json_words\"}" \
        "{\"do\":\"set-option\",\"key\":\"list\",\"value\":[\"$json_words\",\"\\\"\"]}"
    shows 0 "$shown" authctl options get text
    shows 0 "[\"$shown_json\",\"\\\"\"]" authctl options get list
    shows 0 "\"value\":\"$shown_json\"" authctl options get text --json
    shows 0 "\"value\":[\"$shown_json\",\"\\\"\"]" authctl options get list --json
    # What is shown as JSON is JSON, of the same value.
    shows 0 "$(authctl options get list)" authctl factor-method code echo "value:json=$(authctl options get list)"
    ctl '{"do":"remove-option","key":"text"}' '{"do":"remove-option","key":"list"}'
}

@test "what a factor says is shown on its line" {
    misbehave FactorMethod "\"reply\",\"value\":\"(<{$said: <$said>}>,)\""
    shows 0 "{\"$shown_json\":\"$shown_json\"}" authctl factor-method code any
    shows 0 "{\"$shown_json\":\"$shown_json\"}" authctl factor-method code any --json
    shows 0 "{\"$shown_json\":\"$shown_json\"}" authctl method code get length --user 1000
    shows 0 "{\"$shown_json\":\"$shown_json\"}" changes method code action reset --user 1000
    misbehave FactorMethod "\"reply\",\"value\":\"(<$said>,)\""
    shows 0 "$shown" authctl factor-method code any
    shows 0 "$shown" authctl method code get length --user 1000
    shows 0 "$shown" changes method code action reset --user 1000
}

offer_words()
{
    local service
    for service in login unlock; do
        ctl "{\"do\":\"set-option\",\"key\":\"worker/available-service-factors/$service\",\"value\":[\"code\",\"smartcard\",\"$json_words\"]}"
    done
}

@test "what a user's settings say is shown on its line" {
    set_user worker/last-login-date "\"$json_words\""
    set_user worker/service-factors/unlock "[\"code\",\"$json_words\"]"
    shows 0 "last-login-date      $shown" authctl user 1000 show
    shows 0 "unlock-factors       code, $shown" authctl user 1000 show
    shows 0 "\"last-login-date\":\"$shown_json\"" authctl user 1000 show --json
    shows 0 "$shown" authctl user 1000 last-login
    offer_words
    shows 0 "$shown  authd-factor-A" authctl factors --user 1000
    shows 0 "\"name\":\"$shown_json\"" authctl factors --user 1000 --json
    shows 0 "Chosen for unlock: $shown" changes unlock-factors toggle code --user 1000
    shows 3 "offers: code, smartcard, $shown" authctl unlock-factors toggle nosuch --user 1000 --factor code --data - </dev/null
    shows 3 "sees no login factor \"0$shown\"" authctl factors toggle "0$(printf %b "$words")" --user 1000 --factor code --data - </dev/null
}

@test "the value that another makes of an option is shown on its line" {
    shows 0 "keypad is $shown" option_changed
    shows 3 "made it 0$shown" option_changed "\"0$json_words\""
    shows 3 'made it ["\\u001b\\\\"]' option_changed '["\u001b\\"]'
    ctl '{"do":"release"}'
}

@test "what happens by itself is shown on its line" {
    offer_words
    shows 0 "factor              $shown {\"$shown_json\":\"$shown_json\"}" watched
    for event in 'unlock-factors      smartcard, ' 'factor-changed      '; do
        shows 0 "$event$shown" cat "$dir/out"
    done
    set_user worker/service-factors/login '["code"]'
    set_user worker/service-factors/unlock '["code"]'
    shows 0 "\"factor\":\"$shown_json\",\"params\":{\"$shown_json\":\"$shown_json\"}" watched --json
}

@test "the library's own messages are shown on their lines" {
    misbehave Authenticate "\"error\",\"message\":\"$json_words\""
    shows 4 'failed: "A\\u001B[1A' with_code 1234 authenticate login --factor code --data - --timeout 5
}

@test "the words of a refusal are shown on their line" {
    set_user devlock/show-notifications true
    for method in GetOption GetUserOptions SetUserOption FactorMethod; do
        misbehave $method "\"error\",\"message\":\"$json_words\""
        case $method in
        GetOption)
            shows 3 "$shown" authctl options get nosuch
            shows 3 "$shown" authctl factors --user 1000
            ;;
        GetUserOptions) shows 3 "refused: $shown" authctl user 1000 show ;;
        SetUserOption) shows 3 "refused: $shown" changes user 1000 set show-notifications off ;;
        FactorMethod)
            shows 3 "refused: $shown" authctl user 1000 last-login
            shows 3 "refused: $shown" authctl method code get length --user 1000
            shows 3 "\"error\":\"the daemon refused: $shown_json\"" authctl method code get length --user 1000 --json
            ;;
        esac
    done
}

@test "an output that takes nothing ends authctl with status 6" {
    for arguments in state 'state --json' session --help -h --version complete; do
        status 6 'the output cannot be written: No space left' bash -c "authctl $arguments >/dev/full <<<state"
    done
    status 3 'not unlocked' bash -c "authctl unlock-if-needed >/dev/full"
}

@test "where the daemon is away the status is 1" {
    status 1 '"status":0.*"error":"Cannot connect to the daemon: ' stopped_between
    status 1 'Cannot connect to' authctl state
    status 1 'Cannot connect to' env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere authctl lock
}

@test "help tells of every command, and of one what it takes" {
    status 0 'Usage: authctl .OPTION…. user UID set FLAG on.off.*--factor F ' authctl user 1000 set --help
    status 0 'Usage: authctl .OPTION…. state' authctl --factor code state -h
    [[ $output != *--factor* && $output == *--timeout* ]]
    output=$(authctl --help)
    for word in $(authctl complete -- '') $(authctl complete -- --); do
        [[ $output == *"  $word "* || $output == *", $word "* ]] || fail "no $word in the help"
        sed 's/\\-/-/g' "$BATS_TEST_DIRNAME/../../authctl/authctl.1" | grep -q -e "$word" || fail "no $word in the manual"
    done
}

@test "bash completes commands, arguments, options and their values" {
    while IFS='|' read -r line expected; do
        eval "ends_with 0 \"^$expected\\$\" offered $line"
    done <<'END'
lo|lock
un|unlock unlock-if-needed unlock-factors
dr|
set-state ''|Unlocked Locked ManagerLockout CodeEntryLockout Undefined SecurityUi
set-state Lo|Locked
authenticate ''|login unlock
user ''|
user 1000 ''|show set last-login
user 1000 set ''|show-notifications is-multi-factorable is-user-settable
user 1000 set is-user-settable o|on off
factors ''|toggle
factors toggle --u|--uid --user
state --|--timeout --json --verbose --help --version
authenticate --|--factor --uid --data --data-fd --timeout --json --verbose --help --version
lock --factor ''|
lock --service ''|login unlock
lock --service =|login unlock
lock --service = un|unlock
lock --data ''|-
--json --factor code loc|lock
bogus ''|
doctor now ''|
END
}

@test "zsh completes commands, arguments, options and their values" {
    typed_into_zsh <<'END'
sess|session
set-state Lo|Locked
user 1000 set is-multi|is-multi-factorable
lock --verb|--verbose
lock --service=un|--service=unlock
END
}
