import QtQuick 2.15
import Vantora.Auth 1.0
import "../../../examples/settings"
import "../login"

// A user who may not set factors is the first whom the program selects: the model has no rows then.
PageTest {
    name: "settings-managed"
    screen: Component {
        SettingsPage { anchors.fill: parent }
    }

    function test_whatIsNotKnownIsNotShown() {
        daemon.setOption("worker/is-user-settable", false, 1000);
        show(1000);
        compare(AuthSettingsClient.factors.loginFactorsCount, 0);
        compare(item("managed").text, "How you sign in is managed for you, and not shown here.");
        verify(item("unlock-smartcard").checked);
        enter("1234");
        tryCompare(page, "isUnlocked", true);
        verify(!item("unlock-smartcard").enabled);
        verify(item("notifications").enabled);

        // The next reset brings the rows.
        daemon.setOption("worker/is-user-settable", true, 1000);
        tryVerify(() => findChild(page, "login-code") && item("login-code").checked);
        verify(!item("managed").visible);
    }
}
