import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0

// Types that a screen names and does not make connect to nothing.
TestCase {
    id: test

    property AuthClient client
    property AuthDevlockClient devlock
    property AuthSettings settings
    property FactorListModel factors
    property int unread: later ? AuthSettingsClient.uid : AuthDevlockClient.Locked
    property bool later: false

    name: "untouched"

    StandIn { id: daemon }

    Component {
        id: clients
        QtObject {
            readonly property AuthClient client: AuthClient {}
            readonly property AuthDevlockClient devlock: AuthDevlockClient {}
            readonly property AuthSettings settings: AuthSettings {}
            readonly property bool known: AuthSettingsClient.canSwitchToUser
        }
    }

    Loader {
        active: false
        sourceComponent: clients
    }

    function traffic() {
        return daemon.state().peers.concat(daemon.calls(), daemon.request({ do: "standard-calls" }).calls);
    }

    function test_nothingIsAskedForUntilItIsTouched() {
        compare(clients.status, Component.Ready);
        AuthParameters.from({ a: 1 });
        compare(unread, 1);
        compare(traffic().length, 0);

        test.later = true;
        compare(unread, 0);
        compare(daemon.state().peers.length, 1);
        compare(daemon.calls("GetOption").length > 0, true);
        createTemporaryObject(clients, test);
        compare(daemon.state().peers.length, 2);
    }
}
