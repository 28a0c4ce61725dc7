import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import ".."

// Apart from the rest, because the settings client stays in the process.
PatientTestCase {
    id: test
    name: "options"

    StandIn { id: daemon }

    SignalSpy { id: switches; target: AuthSettingsClient; signalName: "canSwitchToUserChanged" }

    function init() {
        // It connects anew.
        const connected = daemon.state().peers.length;
        daemon.reset();
        tryVerify(() => daemon.state().peers.length === connected);
        AuthSettingsClient.uid = 0;
        AuthSettingsClient.uid = 1000;
        switches.clear();
    }

    function test_optionOfAUser() {
        compare(daemon.options(1000)["worker/is-multi-factorable"], "false");
        daemon.setOption("worker/is-multi-factorable", true, 1000);
        tryVerify(() => AuthSettingsClient.isMultiFactorable);
        compare(daemon.options(1000)["worker/is-multi-factorable"], "true");
        compare(daemon.options(1001)["worker/is-multi-factorable"], "false");

        daemon.setOption("worker/service-factors/unlock", ["sudis"], 1000);
        tryCompare(AuthSettingsClient, "unlockFactors", ["sudis"]);
        compare(daemon.options(1000)["worker/service-factors/unlock"], "['sudis']");
    }

    function test_globalOption() {
        compare(daemon.options()["worker/can-switch-to-user"], "true");
        verify(AuthSettingsClient.canSwitchToUser);
        daemon.setOption("worker/can-switch-to-user", false);
        tryVerify(() => !AuthSettingsClient.canSwitchToUser);
        compare(daemon.options()["worker/can-switch-to-user"], "false");
    }

    function test_otherValues() {
        daemon.setOption("text", "a 'text'\n");
        daemon.setOption("number", { type: "t", value: "18446744073709551615" });
        compare(daemon.options().text, "\"a 'text'\\n\"");
        compare(daemon.options().number, "uint64 18446744073709551615");
    }

    function test_optionsAreReadAnew() {
        daemon.setOption("worker/last-login-date", "today", 1000);
        compare(daemon.options(1000)["worker/last-login-date"], "'today'");
        daemon.reset();
        compare(daemon.options(1000)["worker/last-login-date"], "'2026-11-20 08:15'");
    }
}
