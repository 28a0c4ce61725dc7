# Tests authctl doctor: each row makes the world that it needs, and in it what is wrong there.
# shellcheck disable=SC2016

load tools.sh

export OK="OK 0123456789abcdef0123456789abcdef"
me=$(id -u)
# An ordinary user has a world to himself: the daemon's user and the hosts' cannot be different ones there.
open=3 right='Nothing is wrong$'
[ "$me" -eq 0 ] || open=0 right='see the notices$'
# Another process listens on the socket.
elsewhere='ctl "{\"do\":\"stop\"}" "{\"do\":\"start\",\"socket\":false}"'

# In a world of its own a script ends with STATUS and prints what matches PATTERN.
found() # STATUS PATTERN WORLD SCRIPT
{
    # shellcheck disable=SC2086
    ends_with "$1" "$2" authd-world $3 -- bash -c ". $BATS_TEST_DIRNAME/doctor-world.sh; $4"
}

needs_users()
{
    [ "$me" -eq 0 ] || skip "an ordinary user has a world to himself"
}

@test "nothing is wrong where a daemon, a bus and a policy are right" {
    found 0 '^(ok [^'$'\n'']*'$'\n''){10}.*'"$right" '' 'bus "$example"; serve; doctor'
}

@test "doctor asks for introspection data, a challenge and the state alone, and no host hears of that" {
    found 0 '^ok  .*"calls":\[[^]]*"RequestChallenge"[^]]*"GetState"[^]]*\],.*"calls":\[[^]]*"Introspect"[^]]*"Introspect"[^]]*"Introspect"[^]]*\],' '' 'bus "$example"; serve; doctor
        authd-standin ctl "{\"do\":\"calls\"}" "{\"do\":\"standard-calls\"}" >/run/calls; cat /run/calls
        [ $(grep -o "\"method\":" /run/calls | wc -l) -eq 5 ]'
    found 0 '^Locked SecurityUi $' --standin '
        authctl watch >/run/out & until grep -qs Locked /run/out; do :; done
        doctor >/dev/null 2>&1; ctl "{\"do\":\"set-lock\",\"state\":5}"
        until grep -q SecurityUi /run/out; do :; done; kill $!
        awk "\$2 == \"state\" { printf \"%s \", \$3 }" /run/out'
}

@test "a socket that is missing, or is none, or does not listen is told with what to do" {
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
}

@test "nobody is told to change what a link leads to" {
    for script in 'touch /run/file; ln -s /run/file /run/authd' 'mkdir /run/authd; touch /run/file; ln -s /run/file $SOCKET'; do
        found 1 '/var/run/authd[.a-z/]* is no .*namei -l /var/run/authd/authd.socket' '' "$script; without 'mv|chmod' both"
    done
}

@test "a handshake that is refused, wrong or never answered is told" {
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
}

@test "a daemon that does not answer, or lacks what hosts use, is told" {
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
    found 1 'answers Introspect of /vantora/AuthService with garbage: a message that is cut off' '' 'fake "$OK" cut=a mute; doctor'
    found 1 'answers Introspect of /vantora/AuthService with garbage: a message that is too long' '' 'fake "$OK" huge=a mute; doctor'
    found 1 'ok  *main-object' --no-bus 'fake "$OK" "stale=<node/>" "text=$(describe "" "")" mute; doctor'
}

@test "a challenge or a state that is refused, of another type or never answered is told" {
    found 4 'freeze  *challenge  *the daemon does not answer RequestChallenge within 2 s.*freezes for 25 s when a user authenticates' \
        --standin 'rule RequestChallenge "\"how\":\"mute\""; doctor'
    found 3 'warning  *challenge  *the daemon refuses RequestChallenge: no!.*refuses every user.*systemctl restart authd' --standin \
        'rule RequestChallenge "\"how\":\"error\",\"message\":\"no!\""; doctor'
    found 3 'warning  *challenge  *the daemon answers RequestChallenge with the type "s" instead of "ay".*dpkg' --standin \
        'rule RequestChallenge "\"how\":\"reply\",\"value\":\"('\''x'\'',)\""; doctor'
    found 3 'warning  *challenge  *the daemon closes the connection instead of answering RequestChallenge'$'\n''.*refuses every user' --standin \
        'rule RequestChallenge "\"how\":\"drop\""; runs'
    found 3 'warning  *challenge  *the daemon answers RequestChallenge with garbage: what is no message'$'\n''.*refuses every user' '' \
        'fake "$OK" "text=<node/>" "text=<node/>" "raw=$(printf "%40s" "")" mute; doctor'
    found 3 'warning  *state  *the daemon, on the bus, does not answer GetState within 2 s.*Undefined until' --standin \
        'rule GetState "\"how\":\"mute\""; doctor'
    found 3 'warning  *state  *the daemon, on the bus, refuses GetState: no!.*Undefined until.*policy, /usr/share' --standin \
        'rule GetState "\"how\":\"error\",\"message\":\"no!\""; doctor'
    found 3 'Undefined.*warning  *state  *the daemon answers GetState with the type "u" instead of "i"' --standin \
        'rule GetState "\"how\":\"reply\",\"value\":\"(uint32 1,)\""; authctl state; doctor'
}

@test "a bus that is away, or does not answer, or answers wrong is told" {
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
}

@test "doctor takes the addresses of the bus as hosts do" {
    found 0 'ok  *bus  *user '"$me"' may use the bus at unix:path=/run/my%20bus' '' 'bus "$example" unix:path=/run/my%20bus; serve; doctor'
    found 0 "$right" '' 'bus "$example" unix:abstract=$(mktemp -u doctor-XXXXXXXXXX); serve; doctor'
    found 1 'nobody listens at unix:abstract=nowhere' --standin 'export DBUS_SYSTEM_BUS_ADDRESS=unix:abstract=nowhere; both'
    found 0 'notice  *bus  *there is no socket /nowhere.*goes on to the next.*ok  *bus.*but see the notices$' '' \
        'bus "$example"; serve; DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere;$DBUS_SYSTEM_BUS_ADDRESS;unix:path=/x"; doctor'
    found "$open" 'ok  *bus' --standin 'unset DBUS_SYSTEM_BUS_ADDRESS; doctor'
    found "$open" 'ok  *bus' --standin 'export DBUS_SYSTEM_BUS_ADDRESS=; doctor'
}

@test "a transport that doctor does not know, or nobody, is told" {
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
}

@test "an address that is none, or names no one socket, is told" {
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
}

@test "a bus with another guid than that of its address is told" {
    for rest in ,guid=00000000000000000000000000000000 ',guid=0,guid=$guid' ',guid=$(tr a-f A-F <<<$guid)' ',guid=0;$address'; do
        found 1 'fault  *bus  *the bus at [^ ]* has another guid: [0-9a-f]{32}'$'\n''.*unset DBUS' '' \
            'bus "$example"; serve; address=$(</run/strict.address) guid=${address#*guid=}; DBUS_SYSTEM_BUS_ADDRESS+="'"$rest"'"; both'
    done
    found 0 'ok  *bus' '' 'bus "$example"; serve; DBUS_SYSTEM_BUS_ADDRESS=$(</run/strict.address); runs'
}

@test "a name that nobody owns, or whose owner cannot be told, is told" {
    found 3 'warning  *name  *no daemon owns vantora.AuthService on the bus, which knows none to start.*Undefined' '' \
        'bus "$example"; serve; ctl "{\"do\":\"release-name\"}"; doctor'
    for answers in 'error=a.b.NameHasNoOwner' 'number=5 error=a.b.NameHasNoOwner'; do
        found 3 'warning  *name  *the bus does not tell who owns vantora.AuthService: the daemon may just have gone'$'\n' --standin \
            'fake_bus "$OK" text=:1.7 text=:1.8 '"$answers"' number=0; without "^ok  *name" doctor'
    done
}

@test "another process than the owner of the name on the socket is told" {
    found 3 'notice  *process  *process [0-9]+ of user '"$me"' listens on the socket, process [0-9]+ of user '"$me"' owns the name' --standin \
        "$elsewhere"'; fake "$OK" "text=<node/>" "text=<node/>" bytes=x; doctor'
    found 4 'ok  *main-object.*freeze  *settings-object  *the daemon does not answer Introspect of /vantora/AuthService/Settings' --standin \
        "$elsewhere"'; fake "$OK" "text=$(describe "" "")" mute; doctor'
    found 4 'the daemon does not answer Introspect' --standin "$elsewhere"'; fake "$OK" flood; doctor'
}

@test "the policy of the bus is measured without a daemon, too, but not by the daemon's user" {
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
}

@test "doctor believes no bus about whose signal it measures" {
    found 3 'not measured: user [0-9]+ got no connection to the bus' --standin \
        'fake_bus "$OK" text=:1.7 error=a.b.NameHasNoOwner text=a number=5 text=a; doctor'
}

@test "what others say is shown by its codes, on its line" {
    foreign='x\u001b[1A\u009b\u202e\u2028\nok'
    for check in main-object settings-object devlock-object; do
        found 3 "warning  *$check  *[^"$'\n'']*is refused: x\\u001b\[1A\\u009b\\u202e\\u2028\\nok'$'\n' --standin \
            "misbehave '\"how\":\"error\",\"message\":\"$foreign\"'; doctor"
    done
    found 3 '"finding":"Introspect of /vantora/AuthService is refused: x\\u001b\[1A\\u009b\\u202e\\u2028\\nok"' --standin \
        "misbehave '\"how\":\"error\",\"message\":\"$foreign\"'; doctor --json"
    found 1 'handshake with garbage: "\\u001b\[1A\\u202e\\\\u"' '' 'fake $'"'"'\e[1A\xe2\x80\xae\\u'"'"' mute; LC_ALL=C.UTF-8 doctor'
}

@test "late answers, an output that takes nothing and wrong usage end doctor" {
    found 4 'freeze  *time  *answers came so late' --no-bus '
        fake "$OK" slow=1500 slow=1500 "text=<node/>" slow=1500 "text=<node/>" bytes=x
        fake_bus "$OK" slow=1500 text=:1.7 slow=1500 text=:1.8; doctor'
    found 4 'freeze  *time  *answers came so late' --no-bus '
        fake "$OK" slow=1500 slow=1500 "text=<node/>" slow=1500 "text=<node/>" slow=1500 bytes=x
        fake_bus "$OK" slow=1500; without "^ok  *bus" doctor'
    found 6 'the output cannot be written' --standin 'doctor >/dev/full'
    found 2 'too many arguments for doctor' --standin 'doctor now'
    found 2 'doctor does not authenticate' --standin 'doctor --factor code'
    found 2 'doctor is not a command of a session' --standin 'echo doctor | authctl session'
}

@test "where there are several users, doctor as root finds nothing wrong and measures the policy for nobody" {
    needs_users
    found 0 '^(ok [^'$'\n'']*'$'\n''){11}Nothing is wrong$' '' 'bus "$example"; serve; doctor'
    found 0 'policy  *user 65534 may not send device-lock signals: the bus withheld' '' 'bus "$example"; serve; doctor'
    found 0 '"check":"policy","event":"check","finding":"user 65534 may not[^}]*"level":"ok","status":0.*"command":"doctor","ok":true,"status":0' \
        '' 'bus "$example"; serve; doctor --json'
    found 0 'notice  *name  *no daemon owns vantora.AuthService on the bus, which starts one.*policy.*may not.*see the notices$' '' '
        mkdir /run/services
        printf "[D-BUS Service]\nName=vantora.AuthService\nExec=/bin/touch /run/started\nUser=root\n" >/run/services/vantora.AuthService.service
        bus "$example"; serve; ctl "{\"do\":\"release-name\"}"; doctor && [ ! -e /run/started ]'
}

@test "where there are several users, a policy that lets anybody send device-lock signals is told" {
    needs_users
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
}

@test "where there are several users, doctor measures the policy for its own" {
    needs_users
    daemon_user='<policy user="daemon"><allow own="vantora.AuthService"/><allow send_type="signal" send_interface="vantora.AuthService.Devlock"/></policy>'
    found 0 'user 2 may connect.*policy  *user 2 may not send device-lock signals' '' 'bus "$example"; serve; as 2'
    found 0 'policy  *user 65534 may not' '' "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; doctor"
    found 0 'process [0-9]+ of user 1 owns.*policy  *user 2 may not' '' \
        "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; as 2"
    found 0 'not measured: user 1 is the daemon.s own; run authctl doctor as another' '' \
        "bus \"\$example${daemon_user//\"/\\\"}\"; serve setpriv --reuid 1 --regid 1 --clear-groups; as 1"
    found 3 'policy  *user 2 may send device-lock signals' --standin 'as 2'
}

@test "where there are several users, what one of them may not do is told" {
    needs_users
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
        'mkdir /run/authd; fake-daemon /run/other mute; chmod 600 /run/other; ln -s /run/other $SOCKET; without "mv|chmod" as 2'
    found 1 'the bus closes the connection instead of answering' --standin \
        'bus "<policy context=\"default\"><deny user=\"bin\"/></policy>"; as 2'
    found 3 'warning  *process  *process [0-9]+ of user 2 listens on the socket, process [0-9]+ of user 0 owns the name.*can be deceived' \
        --standin "$elsewhere"'
        chmod 777 /run/authd; setpriv --reuid 2 --clear-groups fake-daemon $SOCKET "$OK" "text=<node/>" "text=<node/>" bytes=x
        chmod 755 /run/authd; doctor'
}

@test "answers drawn by lot, broken ones among them, neither stop nor hold up doctor" {
    local first walks=()
    for ((first = ${SEED-0}; first < ${SEED-0} + 200; first += 50)); do
        found 0 '^$' '' '
            for ((seed = '$first'; seed < '$first' + 50; ++seed)); do
                fake lot=$seed; fake_bus lot=$seed
                doctor >/run/out 2>&1; status=$?
                [ $status -le 4 ] && [ $status -ne 2 ] || { echo "seed $seed: status $status" && cat /run/out; }
                kill $(cat /run/fake.pid)
            done' &
        walks+=($!)
    done
    for walk in "${walks[@]}"; do
        wait "$walk"
    done
}
