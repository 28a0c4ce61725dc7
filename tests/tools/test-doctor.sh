#!/bin/bash
# Tests authctl doctor: authctl/test-doctor.sh AUTHCTL AUTHD-STANDIN FAKE-DAEMON. It makes the worlds that it needs.
# shellcheck disable=SC2016
set -u
A=$(readlink -f "$1")
S=$(readlink -f "$2")
F=$(readlink -f "$3")
W=${S%/*}/authd-world
ROOT=$(readlink -f "${0%/*}/..")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
chmod 755 "$dir"
export A S F ROOT quote=\'
# As in the other tests of authctl; the hosts started here leave what the toolkit leaves.
export ASAN_OPTIONS=${ASAN_OPTIONS-}:detect_leaks=0
functions=
count=0
me=$(id -u)
# An ordinary user has a world to himself: the daemon's user and the hosts' cannot be different ones there.
open=3 right='Nothing is wrong$'
[ "$me" -eq 0 ] || open=0 right='see the notices$'

# found STATUS PATTERN WORLD SCRIPT: in a world of its own SCRIPT ends with STATUS and prints what matches. The cases
# run side by side: some do nothing but wait.
found()
{
    count=$((count + 1))
    while [ "$(jobs -rp | wc -l)" -ge 8 ]; do
        wait -n
    done
    examined "$count" "$@" &
}

examined()
{
    local number=$1 expected=$2 pattern=$3 world=$4 script=$5 output got
    # shellcheck disable=SC2086
    output=$("$W" $world -- bash -c "$functions $script" 2>&1)
    got=$?
    if [ $got -ne "$expected" ] || ! [[ $output =~ $pattern ]]; then
        printf 'FAIL: %s %s\n  status %s, expected %s; printed: %s\n  expected: %s\n' "$world" "$script" $got "$expected" \
            "$output" "$pattern" >"$dir/failed.$number"
    fi
}

# With the policy that buses have, and the daemon's own.
functions='
SOCKET=/var/run/authd/authd.socket
ctl() { "$S" ctl "$@" >/dev/null || { echo "the stand-in refused $*" && exit 125; }; }
# Examines as a user; it ends within 10 s, and a busy machine gets some more.
doctor() { timeout 15 "$A" doctor "$@"; }
as() { local user=$1; shift; timeout 15 setpriv --reuid "$user" --regid "$user" --clear-groups "$A" doctor "$@"; }
# What a host really does here, and then what the doctor says.
both() { "$A" state >/dev/null 2>&1; [ $? -eq 1 ] || { echo "a host does not end with 1" && exit 125; }; doctor; }
runs() { "$A" state >/dev/null || { echo "a host does not run" && exit 125; }; doctor; }
# What the doctor says, unless it is told to do this.
without() { # WORDS COMMAND…
    "${@:2}" >/run/said
    local got=$?
    cat /run/said
    ! grep -E "$1" /run/said || got=124
    return $got
}
rule() { ctl "{\"do\":\"misbehave\",\"method\":\"$1\",$2}"; }
misbehave() { rule Introspect "$1"; }
fake() { mkdir -p /run/authd && "$F" $SOCKET "$@" >/run/fake.pid; }
fake_bus() { "$F" /run/bus "$@" >/dev/null; chmod 666 /run/bus; export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/bus; }
OK="OK 0123456789abcdef0123456789abcdef"
bus() { # POLICY [LISTEN [AUTH]]: a bus with an address and a policy of its own
    local address=${2-unix:path=/run/strict}
    cat >/run/strict.conf <<END
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>$address</listen>
  <auth>${3-EXTERNAL}</auth>
  <servicedir>/run/services</servicedir>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  $1
</busconfig>
END
    mkfifo /run/strict.ready
    dbus-daemon --config-file=/run/strict.conf --nofork --nopidfile --print-pid=3 3>/run/strict.ready \
        --print-address=4 4>/run/strict.address 2>/run/strict.log &
    read -r BUS </run/strict.ready
    export DBUS_SYSTEM_BUS_ADDRESS=$address
}
describe() { # INTERFACE SED: the description of an object, changed
    sed -e "/<!--/,/-->/d" -e "$2" "$ROOT/dbus/vantora.AuthService$1.xml" | tr "\n" " "
}
lacking() { # INTERFACE SED: all objects are described so
    misbehave "\"how\":\"reply\",\"value\":\"($quote$(describe "$@" | sed "s/\"/\\\\\"/g")$quote,)\""
    doctor
}
example="<include>$ROOT/dbus/vantora.AuthService.conf</include>"
[ "$(id -u)" -eq 0 ] || example="$example
  <policy user=\"$(id -u)\"><allow own=\"vantora.AuthService\"/><allow send_type=\"signal\"/></policy>"
serve() { # [COMMAND…]: the stand-in, run by a command
    mkfifo /run/ready && chmod 666 /run/ready
    mkdir -p /run/authd && chmod 777 /run/authd
    "$@" "$S" serve --ready-fd 9 9>/run/ready 2>/run/standin.log &
    DAEMON=$!
    read -r _ </run/ready || cat /run/standin.log
    chmod 755 /run/authd
}
'

# Nothing is wrong
found 0 '^(ok [^'$'\n'']*'$'\n''){10}.*'"$right" '' 'bus "$example"; serve; doctor'
# It asks for introspection data, a challenge and the state, the bus apart, and for nothing else; hosts hear nothing of
# it, whatever the policy is.
found 0 '^ok  .*"calls":\[[^]]*"RequestChallenge"[^]]*"GetState"[^]]*\],.*"calls":\[[^]]*"Introspect"[^]]*"Introspect"[^]]*"Introspect"[^]]*\],' '' 'bus "$example"; serve; doctor
    "$S" ctl "{\"do\":\"calls\"}" "{\"do\":\"standard-calls\"}" >/run/calls; cat /run/calls
    [ $(grep -o "\"method\":" /run/calls | wc -l) -eq 5 ]'
found 0 '^Locked SecurityUi $' --standin '
    "$A" watch >/run/out & until grep -qs Locked /run/out; do :; done
    doctor >/dev/null 2>&1; ctl "{\"do\":\"set-lock\",\"state\":5}"
    until grep -q SecurityUi /run/out; do :; done; kill $!
    awk "\$2 == \"state\" { printf \"%s \", \$3 }" /run/out'

# The socket
found 1 'fault  *socket  *there is no socket /var/run/authd/authd.socket, though its directory is there.*A host ends with status 1.*systemctl restart authd' \
    --standin 'ctl "{\"do\":\"stop\"}"; both'
found 1 'its directory /var/run/authd is missing' '' both
found 1 '"check":"socket","consequence":"A host ends with status 1.","event":"check","finding":"[^"]*is missing","level":"fault","remedy":"Start the daemon, or start it again: systemctl restart authd","status":1.*"command":"doctor","error":"a host would end with status 1 here","ok":false,"status":1' \
    '' 'doctor --json'
found 1 'is a symbolic link to nothing' '' 'mkdir /run/authd; ln -s /nowhere $SOCKET; both'
found 1 '/var/run/authd is no directory.*mv -n /var/run/authd /var/run/authd.old\. Start the daemon' '' 'touch /run/authd; both'
found 1 'authd.socket is no socket but a file.*mv -n /var' '' 'mkdir /run/authd; touch $SOCKET; both'
found 1 'authd.socket is no socket but a directory' '' 'mkdir -p $SOCKET; both'
found 1 'nobody listens on /var/run/authd/authd.socket' --standin 'ctl "{\"do\":\"accept\",\"how\":\"refuse\"}"; both'
found 4 'freeze  *socket  *nobody accepts the connections to /var/run/authd.*for as long as this lasts' '' 'fake full; doctor'
found 3 'warning  *directory  *everybody may put another socket in place of the daemon.s in /var/run/authd.*chmod o-w /var/run/authd' \
    --standin 'chmod 777 /run/authd; doctor'
found 0 "$right" '' 'bus "$example"; serve; chmod 1777 /run/authd; doctor'

# Nothing that may be anybody else's is to be changed.
for script in 'touch /run/file; ln -s /run/file /run/authd' 'mkdir /run/authd; touch /run/file; ln -s /run/file $SOCKET'; do
    found 1 '/var/run/authd[.a-z/]* is no .*namei -l /var/run/authd/authd.socket' '' "$script; without 'mv|chmod' both"
done

# The handshake
found 4 'freeze  *handshake  *the daemon does not answer the handshake within 2 s.*freezes for 50 s' --standin \
    'ctl "{\"do\":\"accept\",\"how\":\"mute\"}"; doctor'
found 1 'fault  *handshake  *the daemon closes the connection instead of answering the handshake' --standin \
    'ctl "{\"do\":\"accept\",\"how\":\"close\"}"; both'
found 1 'the daemon refuses user '"$me"' the handshake EXTERNAL \(it offers: OTHER\)' '' 'fake "REJECTED OTHER" mute; both'
found 1 'the daemon answers the handshake with garbage: "hello"' '' 'fake hello mute; both'
for line in OK 'OK ' 'OK xyz' 'OK 01 x' 'OK 01 ' OKx; do
    found 1 "the daemon answers the handshake with garbage: \"$line\"" '' "fake '$line' mute; both"
done
found 1 'the daemon answers the handshake with garbage: "OK 01' '' $'fake "OK 01\n" mute; both'
found 1 'ok  *handshake' '' 'fake "OK  AbC"; doctor'
found 1 'the daemon answers the handshake with garbage: a line without an end' '' 'fake "$(printf "%40000s" "")" mute; doctor'

# What the daemon answers
found 4 'freeze  *main-object  *the daemon does not answer Introspect.*freeze  *devlock-object  *the daemon, on the bus, does not answer.*the device-lock state.*policy' \
    --standin 'misbehave "\"how\":\"mute\""; doctor'
found 4 'does not answer the handshake.*devlock-object  *the daemon, on the bus, does not answer' '' \
    'bus "$example"; serve; kill -STOP $DAEMON; doctor'
found 1 'fault  *main-object  *the daemon closes the connection instead of answering Introspect' '' 'fake "$OK"; both'
found 3 'main-object  *Introspect of /vantora/AuthService is refused: no!.*settings-object  *Introspect.*devlock-object.*refused: no!' --standin \
    'misbehave "\"how\":\"error\",\"message\":\"no!\""; doctor'
found 3 'main-object  *[^ ]* lacks the interface vantora.AuthService'$'\n''.*lacks the interface vantora.AuthService.Settings'$'\n''.*lacks the interface vantora.AuthService.Devlock'$'\n' \
    --standin 'misbehave "\"how\":\"reply\",\"value\":\"(\\\"<node/>\\\",)\""; doctor'
found 1 'the daemon answers Introspect of /vantora/AuthService with garbage: what is no message' '' \
    'fake "$OK" "raw=$(printf "%40s" "")" mute; both'
found 1 'ok  *main-object.*ok  *settings-object' --no-bus \
    'fake "$OK" big-endian "text=$(<"$ROOT/dbus/vantora.AuthService.xml")" "text=$(<"$ROOT/dbus/vantora.AuthService.Settings.xml")"; doctor'
found 3 '/vantora/AuthService lacks method RequestChallenge\(\)ay'$'\n' --standin 'lacking "" s/RequestChallenge/RequestChallenges/'
found 3 '/vantora/AuthService lacks method SetDevlockState\(ayi\)b'$'\n' --standin \
    'lacking "" "/name=.state. type=.i./s/type=.i./type=\"u\"/"'
found 3 '/vantora/AuthService lacks method SetDevlockState\(ayi\)b'$'\n' --standin \
    'lacking "" "/name=.done. type=.b./s/type=.b./type=\"u\"/"'
found 3 'Settings lacks signal Factor\(sa\{sv\}\)'$'\n' --standin 'lacking .Settings "s/signal name=.Factor./signal name=\"X\"/"'
found 3 'Devlock lacks method GetState\(\)i, method SetState\(i\), signal StateChanged\(i\)'$'\n' --standin \
    'lacking .Devlock "s/type=.i./type=\"x\"/"'
found 1 'answers Introspect of /vantora/AuthService with garbage: an answer that is cut off' '' 'fake "$OK" cut=a mute; doctor'
found 1 'answers Introspect of /vantora/AuthService with garbage: a message that is too long' '' 'fake "$OK" huge=a mute; doctor'
found 1 'ok  *main-object' --no-bus 'fake "$OK" "stale=<node/>" "text=$(describe "" "")" mute; doctor'

found 4 'freeze  *challenge  *the daemon does not answer RequestChallenge within 2 s.*freezes for 25 s when a user authenticates' \
    --standin 'rule RequestChallenge "\"how\":\"mute\""; doctor'
found 3 'warning  *challenge  *the daemon refuses RequestChallenge: no!.*refuses every user.*systemctl restart authd' --standin \
    'rule RequestChallenge "\"how\":\"error\",\"message\":\"no!\""; doctor'
found 3 'warning  *challenge  *the daemon answers RequestChallenge with the type "s" instead of "ay".*dpkg' --standin \
    'rule RequestChallenge "\"how\":\"reply\",\"value\":\"(${quote}x$quote,)\""; doctor'
found 3 'warning  *challenge  *the daemon closes the connection instead of answering RequestChallenge'$'\n''.*refuses every user' --standin \
    'rule RequestChallenge "\"how\":\"drop\""; runs'
found 3 'warning  *challenge  *the daemon answers RequestChallenge with garbage: what is no message'$'\n''.*refuses every user' '' \
    'fake "$OK" "text=<node/>" "text=<node/>" "raw=$(printf "%40s" "")" mute; doctor'
found 3 'warning  *state  *the daemon, on the bus, does not answer GetState within 2 s.*Undefined until' --standin \
    'rule GetState "\"how\":\"mute\""; doctor'
found 3 'warning  *state  *the daemon, on the bus, refuses GetState: no!.*Undefined until.*policy, /usr/share' --standin \
    'rule GetState "\"how\":\"error\",\"message\":\"no!\""; doctor'
found 3 'Undefined.*warning  *state  *the daemon answers GetState with the type "u" instead of "i"' --standin \
    'rule GetState "\"how\":\"reply\",\"value\":\"(uint32 1,)\""; "$A" state; doctor'

# The bus
found 1 'fault  *bus  *there is no socket [^ ]*, though its directory is there.*ends with status 1.*unset DBUS_SYSTEM_BUS_ADDRESS' \
    --no-bus both
found 1 'fault  *bus  *there is no socket /var/run/dbus/system_bus_socket.*ends with status 1.*systemctl start dbus.socket' \
    --no-bus 'unset DBUS_SYSTEM_BUS_ADDRESS; both'
found 4 'freeze  *bus  *the bus does not answer the handshake within 2 s.*journalctl -u dbus' --standin \
    'unset DBUS_SYSTEM_BUS_ADDRESS; kill -STOP $AUTHD_WORLD_BUS_PID; doctor'
found 1 'nobody listens on /run/dbus/system_bus_socket' --standin \
    'kill -KILL $AUTHD_WORLD_BUS_PID; while kill -0 $AUTHD_WORLD_BUS_PID 2>/dev/null; do :; done; both'
found 4 'freeze  *bus  *the bus does not answer the handshake within 2 s.*unset DBUS' --standin 'kill -STOP $AUTHD_WORLD_BUS_PID; doctor'
found 1 'the bus refuses user '"$me"' the handshake EXTERNAL \(it offers: ANONYMOUS\)' --standin \
    'bus "" unix:path=/run/strict ANONYMOUS; doctor'
found 1 'the bus closes the connection instead of answering' --standin 'fake_bus "$OK"; both'
found 1 'the bus answers the handshake with garbage' --standin 'fake_bus hello; doctor'
found 1 'fault  *bus  *the bus does not answer Hello within 2 s.*freezes for 25 s when it starts, and ends with status 1' \
    --standin 'fake_bus "$OK" mute; doctor'
found 1 'the bus refuses Hello: no' --standin 'fake_bus "$OK" error=a.b.LimitsExceeded; both'
found 4 'ok  *bus.*the bus does not answer GetNameOwner.*unset DBUS' --standin 'fake_bus "$OK" text=:1.7 mute; doctor'
found 1 'the bus closes the connection instead of answering GetConnectionUnixProcessID' --standin \
    'fake_bus "$OK" text=:1.7 big-endian text=:1.8; doctor'
found 4 'nobody accepts the connections to unix:path=/run/bus.*unset DBUS' --standin 'fake_bus full; doctor'

# Addresses of the bus
found 0 'ok  *bus  *user '"$me"' may use the bus at unix:path=/run/my%20bus' '' 'bus "$example" unix:path=/run/my%20bus; serve; doctor'
found 0 "$right" '' 'bus "$example" unix:abstract=$(mktemp -u doctor-XXXXXXXXXX); serve; doctor'
found 1 'nobody listens at unix:abstract=nowhere' --standin 'export DBUS_SYSTEM_BUS_ADDRESS=unix:abstract=nowhere; both'
found 0 'notice  *bus  *there is no socket /nowhere.*goes on to the next.*ok  *bus.*but see the notices$' '' \
    'bus "$example"; serve; DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere;$DBUS_SYSTEM_BUS_ADDRESS;unix:path=/x"; doctor'
found "$open" 'ok  *bus' --standin 'unset DBUS_SYSTEM_BUS_ADDRESS; doctor'
found "$open" 'ok  *bus' --standin 'export DBUS_SYSTEM_BUS_ADDRESS=; doctor'
for address in tcp:host=localhost,port=1 nonce-tcp:host=localhost,port=1,noncefile=/run/x unixexec:path=/bin/false autolaunch:; do
    found 3 'warning  *bus  *authctl cannot examine the transport of the address '"$address"$'\n''.*unset DBUS.*it is not known whether a host' \
        --standin "unset DISPLAY; export DBUS_SYSTEM_BUS_ADDRESS=$address; both"
done
found 3 'notice  *bus  *there is no socket /nowhere.*warning  *bus  *authctl cannot examine.*tcp:.*it is not known' \
    --standin 'export DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere;tcp:host=localhost,port=1;unix:path=/nowhere"; both'
for address in systemd: launchd:env=X ' unix:path=/run/dbus/system_bus_socket' UNIX:path=/run/dbus/system_bus_socket; do
    found 1 "fault  *bus  *hosts know no transport such as that of the address \"$address\"" \
        --standin "export DBUS_SYSTEM_BUS_ADDRESS='$address'; both"
    found "$open" 'notice  *bus  *hosts know no transport.*goes on to the next.*ok  *bus' \
        --standin "DBUS_SYSTEM_BUS_ADDRESS='$address;'\$DBUS_SYSTEM_BUS_ADDRESS; runs"
done
found "$open" 'ok  *bus' --standin 'DBUS_SYSTEM_BUS_ADDRESS+=";"; doctor'
for address in nowhere ';' unix:path 'unix:path=/a b' unix:path=/a%2 'unix:path=/a;;unix:path=/b' unix:path= \
    $'unix:path=/run/dbus/system_bus_socket\n'; do
    found 1 'DBUS_SYSTEM_BUS_ADDRESS is no address of D-Bus' --standin "export DBUS_SYSTEM_BUS_ADDRESS='$address'; both"
done
for address in unix: unix:dir=/tmp unix:path=%00 unix:path=/run/dbus/system_bus_socket,{tmpdir=/x,abstract=x}; do
    found 1 "the address $address does not name one socket" --standin "export DBUS_SYSTEM_BUS_ADDRESS=$address; both"
done
for rest in %00x ,path=/nowhere ,dir=/x; do
    found "$open" 'ok  *bus' --standin "DBUS_SYSTEM_BUS_ADDRESS+=$rest; runs"
done
found "$open" 'ok  *bus' --standin \
    'long=/run/$(printf "%094d" 0); ln -s /run/dbus/system_bus_socket $long; DBUS_SYSTEM_BUS_ADDRESS=unix:path=$long; runs'
found 1 'a name of more than 99 bytes.*unset DBUS' --standin \
    'long=/run/$(printf "%095d" 0); ln -s /run/dbus/system_bus_socket $long; DBUS_SYSTEM_BUS_ADDRESS=unix:path=$long; both'
found 1 'a name of more than 99 bytes.*unset DBUS' --standin 'export DBUS_SYSTEM_BUS_ADDRESS=unix:abstract=$(printf "%099d" 0); both'
for address in unix:path={/dev/null,/%00,/run,/nowhere,nowhere,/run/0/1,/etc/passwd/x} unix:abstract=x; do
    found 1 'fault  *bus .*unset DBUS_SYSTEM_BUS_ADDRESS' --standin \
        "export DBUS_SYSTEM_BUS_ADDRESS=$address; without 'mv|chmod|dbus.socket|-u dbus|restart the machine' both"
done

# The guid of an address
for rest in ,guid=00000000000000000000000000000000 ',guid=0,guid=$guid' ',guid=$(tr a-f A-F <<<$guid)' ',guid=0;$address'; do
    found 1 'fault  *bus  *the bus at [^ ]* has another guid: [0-9a-f]{32}'$'\n''.*unset DBUS' '' \
        'bus "$example"; serve; address=$(</run/strict.address) guid=${address#*guid=}; DBUS_SYSTEM_BUS_ADDRESS+="'"$rest"'"; both'
done
found 0 'ok  *bus' '' 'bus "$example"; serve; DBUS_SYSTEM_BUS_ADDRESS=$(</run/strict.address); runs'

# The name
found 3 'warning  *name  *no daemon owns vantora.AuthService on the bus, which knows none to start.*Undefined' '' \
    'bus "$example"; serve; ctl "{\"do\":\"release-name\"}"; doctor'

# Who listens, and who owns the name
elsewhere='ctl "{\"do\":\"stop\"}" "{\"do\":\"start\",\"socket\":false}"'
found 3 'notice  *process  *process [0-9]+ of user '"$me"' listens on the socket, process [0-9]+ of user '"$me"' owns the name' --standin \
    "$elsewhere"'; fake "$OK" "text=<node/>" "text=<node/>" bytes=x; doctor'
found 4 'ok  *main-object.*freeze  *settings-object  *the daemon does not answer Introspect of /vantora/AuthService/Settings' --standin \
    "$elsewhere"'; fake "$OK" "text=$(describe "" "")" mute; doctor'
found 4 'the daemon does not answer Introspect' --standin "$elsewhere"'; fake "$OK" flood; doctor'

# Who may announce the state of the device lock
found 0 'notice  *policy  *who may send device-lock signals was not measured: user 1000 is the daemon.s own.*see the notices$' \
    '--uid 1000 --standin' doctor

# Without a daemon nobody is its user, so that an ordinary user finds out, too.
stranger=$me
[ "$me" -ne 0 ] || stranger=65534
found 1 "warning  *policy  *user $stranger may send device-lock signals.*/usr/share/dbus-1/system.d/vantora.AuthService.conf forbid them" \
    '' 'bus ""; doctor'
found 1 "warning  *policy  *user $stranger may send device-lock signals" '' doctor
found 1 "ok  *policy  *user $stranger may not send device-lock signals" '' \
    'bus "<include>$ROOT/dbus/vantora.AuthService.conf</include>"; doctor'
found 1 '"check":"policy","consequence":"[^"]*","event":"check","finding":"[^"]*","level":"warning","remedy":"[^"]*","status":3' \
    '' 'doctor --json'

# It believes no bus about whose signal it measures.
found 3 'not measured: user [0-9]+ got no connection to the bus' --standin \
    'fake_bus "$OK" text=:1.7 error=a.b.NameHasNoOwner text=a number=5 text=a; doctor'

# What others say is shown by its codes, so that it is one line and the terminal obeys none of it.
foreign='x\u001b[1A\u009b\u202e\u2028\nok'
for check in main-object settings-object devlock-object; do
    found 3 "warning  *$check  *[^"$'\n'']*is refused: x\\u001b\[1A\\u009b\\u202e\\u2028\\nok'$'\n' --standin \
        "misbehave '\"how\":\"error\",\"message\":\"$foreign\"'; doctor"
done
found 3 '"finding":"Introspect of /vantora/AuthService is refused: x\\u001b\[1A\\u009b\\u202e\\u2028\\nok"' --standin \
    "misbehave '\"how\":\"error\",\"message\":\"$foreign\"'; doctor --json"
found 1 'handshake with garbage: "\\u001b\[1A\\u202e\\\\u"' '' 'fake $'"'"'\e[1A\xe2\x80\xae\\u'"'"' mute; LC_ALL=C.UTF-8 doctor'

# What comes late, and what takes no output
found 4 'freeze  *time  *answers came so late' --no-bus '
    fake "$OK" slow=1500 slow=1500 "text=<node/>" slow=1500 "text=<node/>" bytes=x
    fake_bus "$OK" slow=1500 text=:1.7 slow=1500 text=:1.8; doctor'
found 6 'the output cannot be written' --standin 'doctor >/dev/full'
found 2 'too many arguments for doctor' --standin 'doctor now'
found 2 'doctor does not authenticate' --standin 'doctor --factor code'
found 2 'doctor is not a command of a session' --standin 'echo doctor | "$A" session'

# Where there are several users, which an ordinary user cannot make.
if [ "$(id -u)" -eq 0 ]; then
    daemon_user='<policy user="daemon"><allow own="vantora.AuthService"/><allow send_type="signal" send_interface="vantora.AuthService.Devlock"/></policy>'
    found 0 '^(ok [^'$'\n'']*'$'\n''){11}Nothing is wrong$' '' 'bus "$example"; serve; doctor'
    found 0 'policy  *user 65534 may not send device-lock signals: the bus withheld' '' 'bus "$example"; serve; doctor'
    found 0 '"check":"policy","event":"check","finding":"user 65534 may not[^}]*"level":"ok","status":0.*"command":"doctor","ok":true,"status":0' \
        '' 'bus "$example"; serve; doctor --json'
    found 0 'notice  *name  *no daemon owns vantora.AuthService on the bus, which starts one.*policy.*may not.*see the notices$' '' '
        mkdir /run/services
        printf "[D-BUS Service]\nName=vantora.AuthService\nExec=/bin/touch /run/started\nUser=root\n" >/run/services/vantora.AuthService.service
        bus "$example"; serve; ctl "{\"do\":\"release-name\"}"; doctor && [ ! -e /run/started ]'
    found 3 'warning  *policy  *user 65534 may send device-lock signals.*listens to whoever announces the device-lock state, and believes it.*to all but' \
        --standin 'without "cp " doctor'
    found 3 'warning  *policy  *user 65534' '' \
        'bus "<policy context=\"default\"><allow own=\"*\"/><allow send_type=\"method_call\"/></policy>"; serve; doctor'
    found 3 'warning  *policy  *user 65534' '' 'bus "$example
        <policy context=\"default\"><allow send_type=\"signal\" send_interface=\"vantora.AuthService.Devlock\" send_broadcast=\"false\"/></policy>"
        serve; doctor'
    found 0 'policy  *user 65534 may not send' '' 'bus "<policy context=\"default\">
        <allow own=\"*\"/><allow send_type=\"method_call\"/><deny send_type=\"signal\" send_path=\"/vantora/AuthService/Devlock\"
        send_interface=\"vantora.AuthService.Devlock\" send_member=\"StateChanged\"/></policy>"; serve; doctor'
    found 0 'policy  *user 65534 may not send' '' \
        'bus "$example<policy user=\"nobody\"><deny send_destination=\"org.freedesktop.DBus\"/></policy>"; serve; doctor'
    found 0 'notice  *policy  *who may send device-lock signals was not measured: user 65534 got no connection to the bus' '' \
        'bus "$example<policy context=\"default\"><deny user=\"nobody\"/></policy>"; serve; doctor'
    found 0 'user 2 may connect.*policy  *user 2 may not send device-lock signals' '' 'bus "$example"; serve; as 2'
    found 0 'policy  *user 65534 may not' '' "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; doctor"
    found 0 'process [0-9]+ of user 1 owns.*policy  *user 2 may not' '' \
        "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; as 2"
    found 0 'not measured: user 1 is the daemon.s own; run authctl doctor as another' '' \
        "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; as 1"
    found 3 'policy  *user 2 may send device-lock signals' --standin 'as 2'
    found 1 'user 2 may not enter the directory /var/run/authd \(mode 0700, user 0, group 0\).*chmod a\+x /var/run/authd' \
        --standin 'chmod 700 /run/authd; as 2'
    found 1 'user 2 may not connect to /var/run/authd/authd.socket \(mode 0600, user 0, group 0\).*chmod a\+rw' \
        --standin 'chmod 600 $SOCKET; as 2'
    found 1 'user 2 may not enter the directory /var \(mode 0700, user 0, group 0\).*namei -l /var/run/authd/authd.socket' \
        --standin 'mount -t tmpfs -o mode=700 tmpfs /var; without "mv|chmod" as 2'
    found 1 'user 2 may not enter the directory /var/run \(mode 0700, user 0, group 0\).*namei -l /var/run/authd/authd.socket' \
        --standin 'chmod 700 /run; without "mv|chmod" as 2'
    found 1 'user 2 may not enter the directory /var/run/authd .*namei -l /var/run/authd/authd.socket' '' \
        'mkdir -m 700 /run/other; ln -s other /run/authd; without "mv|chmod" as 2'
    found 1 'user 2 may not connect to /var/run/authd/authd.socket .*namei -l /var/run/authd/authd.socket' '' \
        'mkdir /run/authd; "$F" /run/other mute; chmod 600 /run/other; ln -s /run/other $SOCKET; without "mv|chmod" as 2'
    found 1 'the bus closes the connection instead of answering' --standin \
        'bus "<policy context=\"default\"><deny user=\"bin\"/></policy>"; as 2'
    found 3 'warning  *process  *process [0-9]+ of user 2 listens on the socket, process [0-9]+ of user 0 owns the name.*can be deceived' \
        --standin "$elsewhere"'
        chmod 777 /run/authd; setpriv --reuid 2 --clear-groups "$F" $SOCKET "$OK" "text=<node/>" "text=<node/>" bytes=x
        chmod 755 /run/authd; doctor'
fi

# Answers drawn by lot, broken ones among them, neither stop it nor hold it up.
lots() # SEED…
{
    found 0 '^$' '' '
        for seed in '"$*"'; do
            fake lot=$seed; fake_bus lot=$seed
            doctor >/run/out 2>&1; status=$?
            [ $status -le 4 ] && [ $status -ne 2 ] || { echo "seed $seed: status $status" && cat /run/out; }
            kill $(cat /run/fake.pid)
        done'
}
for ((seed = ${SEED-0}; seed < ${SEED-0} + 200; seed += 50)); do
    # shellcheck disable=SC2046
    lots $(seq $seed $((seed + 49)))
done

wait
cat "$dir"/failed.* 2>/dev/null
failures=$(find "$dir" -name 'failed.*' | wc -l)
echo "$((count - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
