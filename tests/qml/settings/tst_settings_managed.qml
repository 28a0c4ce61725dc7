import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import "../../../examples/settings"
import "../login"

// A user who may not set factors is the first whom the program selects: the model has no rows then.
Item {
    id: scene

    width: 360
    height: 720

    StandIn { id: daemon }

    Component {
        id: screen

        SettingsPage { anchors.fill: parent }
    }

    PageTest {
        name: "settings-managed"

        function test_whatIsNotKnownIsNotShown() {
            daemon.reset();
            daemon.setOption("worker/is-user-settable", false, 1000);
            page = createTemporaryObject(screen, scene, { user: 1000 });
            tryVerify(() => item("secret").activeFocus);
            compare(AuthSettingsClient.factors.loginFactorsCount, 0);
            compare(item("managed").text, "How you sign in is managed for you, and not shown here.");
            verify(item("unlock-smartcard").checked);
            type("1234");
            keyClick(Qt.Key_Return);
            tryCompare(page, "isUnlocked", true);
            verify(!item("unlock-smartcard").enabled);
            verify(item("notifications").enabled);

            // The next reset brings the rows.
            daemon.setOption("worker/is-user-settable", true, 1000);
            tryVerify(() => findChild(page, "login-code") && item("login-code").checked);
            verify(!item("managed").visible);
        }
    }
}
