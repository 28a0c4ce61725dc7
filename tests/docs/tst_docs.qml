import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import Examples 1.0
import "../qml"

// The examples of docs/qml.md, in the order in which they are there.
PatientTestCase {
    id: test
    name: "docs"

    StandIn { id: daemon }

    Component { id: client; Example1 {} }
    Component { id: devlock; Example2 {} }
    Component { id: settings; Example3 {} }
    Component { id: lastLogin; Example4 {} }
    Component { id: parameters; Example5 {} }

    SignalSpy {
        id: discredits
        target: AuthSettingsClient
        signalName: "discredit"
    }

    // The first state of a locked device comes as a discredit.
    function initTestCase() {
        daemon.reset();
        tryVerify(() => discredits.count > 0);
    }

    function init() { daemon.lock() }

    function test_client() {
        const example = createTemporaryObject(client, test);
        tryCompare(example, "message", "Try again");
        example.message = "";
        example.enter("4321");
        tryCompare(example, "message", "Try again");
        example.enter("1234");
        tryVerify(() => daemon.lockState() === AuthDevlockClient.Unlocked);
    }

    function test_devlock() {
        const example = createTemporaryObject(devlock, test);
        compare(example.locked, true);
        tryCompare(example.devlock, "state", AuthDevlockClient.Locked);
        compare(example.locked, true);
        daemon.unlock();
        tryCompare(example, "locked", false);
        example.lock();
        tryCompare(example, "locked", true);
    }

    function test_settings() {
        const example = createTemporaryObject(settings, test);
        tryVerify(() => example.chosen.join() === "code,smartcard");
        compare(example.rows.count, 5);
        compare(example.rows.objectAt(0).line, "authd-factor-code ✓");
        example.enter("1234");
        tryVerify(() => example.chosen.join() === "sudis");
    }

    function test_settingsLastLogin() {
        const example = createTemporaryObject(lastLogin, test);
        compare(example.greeting, "Last login: 2026-11-20 08:15");
    }

    function test_settingsParameters() {
        AuthSettingsClient.dropAuthentication();
        const example = createTemporaryObject(parameters, test);
        example.enter(new Uint8Array([0x31, 0x32, 0x33, 0x34]));
        tryVerify(() => AuthSettingsClient.authenticated);
    }
}
