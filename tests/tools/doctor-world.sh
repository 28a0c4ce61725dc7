# shellcheck shell=bash disable=SC2034,SC2119,SC2120
# What the tests of authctl doctor do in a world; they source it there.
ROOT=$(readlink -f "${BASH_SOURCE[0]%/*}/../..")
. "$ROOT/tests/tools/tools.sh"
SOCKET=/var/run/authd/authd.socket
ctl() { authd-standin ctl "$@" >/dev/null || { echo "the stand-in refused $*" && exit 125; }; }
# Examines as a user; it ends within 10 s, and a busy machine gets some more.
doctor() { timeout 15 authctl doctor "$@"; }
as() { (as_user "$1" timeout 15 authctl doctor "${@:2}"); }
# What a host really does here, and then what the doctor says.
both() { authctl state >/dev/null 2>&1; [ $? -eq 1 ] || { echo "a host does not end with 1" && exit 125; }; doctor; }
runs() { authctl state >/dev/null || { echo "a host does not run" && exit 125; }; doctor; }
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
fake() { mkdir -p /run/authd && fake-daemon $SOCKET "$@" >/run/fake.pid; }
fake_bus() { fake-daemon /run/bus "$@" >/dev/null; chmod 666 /run/bus; export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/bus; }
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
    misbehave "\"how\":\"reply\",\"value\":\"('$(describe "$@" | sed "s/\"/\\\\\"/g")',)\""
    doctor
}
example="<include>$ROOT/dbus/vantora.AuthService.conf</include>"
[ "$(id -u)" -eq 0 ] || example="$example
  <policy user=\"$(id -u)\"><allow own=\"vantora.AuthService\"/><allow send_type=\"signal\"/></policy>"
serve() { # [COMMAND…]: the stand-in, run by a command
    mkfifo /run/ready && chmod 666 /run/ready
    mkdir -p /run/authd && chmod 777 /run/authd
    "$@" authd-standin serve --ready-fd 9 9>/run/ready 2>/run/standin.log &
    DAEMON=$!
    read -r _ </run/ready || cat /run/standin.log
    chmod 755 /run/authd
}
