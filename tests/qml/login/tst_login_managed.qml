import QtQuick 2.15
import Vantora.Auth 1.0
import "../../../examples/login"

// A user who may not set factors is the first whom the program selects: the model has no rows then.
PageTest {
    name: "login-managed"
    screen: Component {
        LoginScreen { anchors.fill: parent }
    }

    function test_aUserWhoMayNotSetFactorsSignsIn() {
        daemon.setOption("worker/is-user-settable", false, 1000);
        daemon.setOption("worker/service-factors/login", ["smartcard"], 1000);
        show(1000);
        tryForm("Code");
        compare(AuthSettingsClient.factors.loginFactorsCount, 0);
        click("other");
        compare(item("secret").placeholderText, "Smart card");
        tap("secret");
        enter("card-1000");
        tryCompare(page, "signedIn", true);
        click("back");

        // Somebody else, whose factors are known.
        click("user1001");
        tryForm("Code");
        verify(!item("other").visible);
    }
}
