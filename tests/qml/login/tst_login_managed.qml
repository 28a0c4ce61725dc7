import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import "../../../examples/login"

// A user who may not set factors is the first whom the program selects: the model has no rows then.
Item {
    id: scene

    width: 360
    height: 720

    StandIn { id: daemon }

    Component {
        id: screen

        LoginScreen { anchors.fill: parent }
    }

    PageTest {
        name: "login-managed"

        function test_aUserWhoMayNotSetFactorsSignsIn() {
            daemon.reset();
            daemon.setOption("worker/is-user-settable", false, 1000);
            daemon.setOption("worker/service-factors/login", ["smartcard"], 1000);
            page = createTemporaryObject(screen, scene, { user: 1000 });
            tryVerify(() => item("secret").activeFocus);
            compare(AuthSettingsClient.factors.loginFactorsCount, 0);
            compare(item("secret").placeholderText, "Code");
            click("other");
            compare(item("secret").placeholderText, "Smart card");
            tap("secret");
            type("card-1000");
            keyClick(Qt.Key_Return);
            tryCompare(page, "signedIn", true);
            click("back");

            // Somebody else, whose factors are known.
            click("user1001");
            tryVerify(() => item("secret").activeFocus);
            compare(item("secret").placeholderText, "Code");
            verify(!item("other").visible);
        }
    }
}
