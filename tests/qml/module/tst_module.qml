import QtQml 2.15
import QtQml.Models 2.15
import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import ".."

PatientTestCase {
    id: test
    name: "module"

    StandIn { id: daemon }

    AuthDevlockClient {
        id: follower

        property var seen: []

        onStateChanged: seen.push(state)
    }

    Component {
        id: clientComponent
        AuthClient {
            id: client

            readonly property SignalSpy tokens: SignalSpy { target: client; signalName: "authenticatedChanged" }
        }
    }

    Component {
        id: plainClientComponent
        AuthClient {}
    }

    Component {
        id: holderComponent
        QtObject { property AuthClient client }
    }

    Component {
        id: devlockComponent
        QtObject {
            readonly property AuthDevlockClient devlock: AuthDevlockClient {}
            readonly property bool open: devlock.state === AuthDevlockClient.Unlocked
            readonly property string name:
                ["open", "locked", "lockout", "lockout", "unknown", "secure"][devlock.state] || "?"
        }
    }

    Component {
        id: settingsComponent
        QtObject {
            readonly property double uid: AuthSettingsClient.uid
            readonly property string unlock: AuthSettingsClient.unlockFactors.join()
            readonly property bool many: AuthSettingsClient.isMultiFactorable
            readonly property bool shown: AuthSettingsClient.showNotifications
            readonly property int logins: AuthSettingsClient.factors.loginFactorsCount
            readonly property bool authenticated: AuthSettingsClient.authenticated
            property int resets: 0
            readonly property Instantiator rows: Instantiator {
                model: AuthSettingsClient.factors
                delegate: QtObject {
                    readonly property string line: model.name + (model.enabled ? "+" : "")
                }
            }
            readonly property Connections connections: Connections {
                target: AuthSettingsClient.factors
                function onModelReset() { ++resets }
            }

            function names() {
                let lines = [];
                for (let i = 0; i < rows.count; ++i)
                    lines.push(rows.objectAt(i).line);
                return lines.join(" ");
            }
        }
    }

    Component {
        id: lastLoginComponent
        AuthSettings {}
    }

    function initTestCase() {
        compare(AuthSettingsClient.uid, 0);
        tryCompare(follower, "state", AuthDevlockClient.Locked);
    }

    function init() {
        AuthSettingsClient.uid = 0;
        daemon.lock();
        tryCompare(follower, "state", AuthDevlockClient.Locked);
        follower.seen = [];
        daemon.reset();
        // The new daemon has been noticed, and its state heard; nothing else is left of the last test.
        tryVerify(() => follower.seen.indexOf(AuthDevlockClient.Undefined) >= 0);
        daemon.lock();
        tryCompare(follower, "state", AuthDevlockClient.Locked);
        tryVerify(() => daemon.state().peers.length === 1);
    }

    function text(buffer) { return Array.from(new Uint8Array(buffer)).join() }

    function makeClient() {
        const client = createTemporaryObject(clientComponent, test);
        // The first state of a locked device comes as a discredit.
        tryCompare(client.tokens, "count", 1);
        client.tokens.clear();
        return client;
    }

    function test_enumerators() {
        const names = ["Unlocked", "Locked", "ManagerLockout", "CodeEntryLockout", "Undefined", "SecurityUi"];
        compare(names.map(name => AuthDevlockClient[name]), [0, 1, 2, 3, 4, 5]);
    }

    function test_cannotBeCreated_data() {
        return [
            { tag: "FactorListModel",
              text: "FactorListModel cannot be created: use the one of AuthSettingsClient.factors" },
            { tag: "AuthSettingsClient", text: "Element is not creatable." },
            { tag: "AuthParameters", text: "Element is not creatable." },
        ];
    }

    function test_cannotBeCreated(row) {
        const text = "import Vantora.Auth 1.0\n" + row.tag + " {}";
        const errors = errorOf(() => Qt.createQmlObject(text, test, "made")).qmlErrors;
        compare(errors.length, 1);
        compare(errors[0].message, row.text);
        compare(errors[0].lineNumber, 2);
    }

    // The process' client is no AuthClient of QML's making: QtObject is a type for both.
    function test_typesOfProperties() {
        const any = Qt.createQmlObject("import QtQml 2.15\nQtObject { property QtObject client }", test, "any");
        any.client = AuthSettingsClient;
        compare(any.client, AuthSettingsClient);
        any.client = makeClient();
        any.destroy();

        const holder = createTemporaryObject(holderComponent, test);
        compare(String(errorOf(() => { holder.client = AuthSettingsClient })),
                "Error: Cannot assign QObject* to QmlAuthClient*");
        holder.client = makeClient();
    }

    function test_token() {
        const client = makeClient();
        client.authenticate("login", { factor: "code", data: "1234" });
        verify(client.progress);
        tryVerify(() => client.authenticated);
        verify(!client.progress);
        const token = client.tokens.signalArguments[0][0];
        verify(token instanceof ArrayBuffer);
        compare(token.byteLength, 32);

        compare(client.setLocked(AuthDevlockClient.Unlocked), true);
        const sent = daemon.calls("SetDevlockState")[0].args;
        const bytes = Array.from(new Uint8Array(token)).map(b => "0x" + ("0" + b.toString(16)).slice(-2));
        compare(sent, "([byte " + bytes.join(", ") + "], 0)");

        client.dropAuthentication();
        const none = client.tokens.signalArguments[1][0];
        verify(none instanceof ArrayBuffer);
        compare(none.byteLength, 0);
        ignoreWarning("setLocked m_authToken is empty, not authenticated request");
        compare(client.setLocked(AuthDevlockClient.Locked), false);
    }

    function test_bytesAreASecret() {
        const client = makeClient();
        client.authenticate("login", { data: new Uint8Array([0x31, 0x32, 0x33, 0x34]), factor: "code", uid: 1000 });
        tryVerify(() => client.authenticated);
    }

    function test_tokenOfTheSettings() {
        compare(AuthSettingsClient.token.byteLength, 0);
        let token = null;
        function take(authToken) { token = authToken; }
        AuthSettingsClient.authenticatedChanged.connect(take);
        AuthSettingsClient.authenticate("login", { data: "1234", factor: "code", uid: 1000 });
        tryVerify(() => AuthSettingsClient.authenticated);
        AuthSettingsClient.authenticatedChanged.disconnect(take);
        verify(AuthSettingsClient.token instanceof ArrayBuffer);
        compare(AuthSettingsClient.token.byteLength, 32);
        compare(text(AuthSettingsClient.token), text(token));
        // A copy.
        new Uint8Array(AuthSettingsClient.token).fill(0);
        compare(text(AuthSettingsClient.token), text(token));
        AuthSettingsClient.dropAuthentication();
    }

    function test_uid_data() {
        return [
            { tag: "1000", value: 1000, uid: 1000 },
            { tag: "4000000000", value: 4000000000, uid: 4000000000 },
            { tag: "4294967295", value: 4294967295, uid: 4294967295 },
            { tag: "-1", value: -1, uid: 4294967295 },
            { tag: "999.5", value: 999.5, uid: 1000 },
            { tag: "text", value: "1000", uid: 1000 },
            { tag: "NaN", value: NaN, uid: 0 },
        ];
    }

    function test_uid(row) {
        AuthSettingsClient.uid = 1001;
        if (row.uid === 4000000000) {
            for (const call of ["getUserOptions", "getUserOption"])
                ignoreWarning(call + " failed: \"There is no user 4000000000\"");
        }
        AuthSettingsClient.uid = row.value;
        compare(AuthSettingsClient.uid, row.uid);
    }

    function test_uidIsNot_data() {
        return [
            { tag: "undefined", value: undefined, text: "Error: Cannot assign [undefined] to uint" },
            { tag: "null", value: null, text: "Error: Cannot assign std::nullptr_t to uint" },
            { tag: "object", value: {}, text: "Error: Cannot assign QJSValue to uint" },
        ];
    }

    function test_uidIsNot(row) {
        AuthSettingsClient.uid = 1000;
        compare(String(errorOf(() => { AuthSettingsClient.uid = row.value })), row.text);
        compare(AuthSettingsClient.uid, 1000);
    }

    function test_unlockFactors() {
        AuthSettingsClient.uid = 1000;
        const factors = AuthSettingsClient.unlockFactors;
        compare(factors.length, 2);
        compare(factors[1], "smartcard");
        compare(factors.indexOf("code"), 0);
        compare(factors.map(f => f.toUpperCase()).join(), "CODE,SMARTCARD");
        compare(Array.from(factors).join(), "code,smartcard");
        // A list of QML 5.15's own, which is no Array.
        verify(!Array.isArray(factors));
        verify(Array.isArray(Array.from(factors)));
    }

    function test_devlockFollowsTheDaemon() {
        const screen = createTemporaryObject(devlockComponent, test);
        compare(screen.name, "unknown");
        tryCompare(screen, "name", "locked");
        daemon.unlock();
        tryCompare(screen, "open", true);
        daemon.lockout("manager");
        tryCompare(screen, "name", "lockout");
        verify(!screen.open);
        screen.devlock.state = AuthDevlockClient.SecurityUi;
        compare(screen.name, "lockout");
        tryCompare(screen, "name", "secure");
        daemon.stop();
        tryCompare(screen, "name", "unknown");
        daemon.start();
        daemon.setLockState(AuthDevlockClient.Unlocked);
        tryCompare(screen, "name", "open");
        daemon.setLockState(77);
        tryCompare(screen, "name", "?");
        compare(screen.devlock.state, 77);
    }

    function test_settingsFollowTheDaemon() {
        const page = createTemporaryObject(settingsComponent, test);
        AuthSettingsClient.uid = 1000;
        compare(page.uid, 1000);
        compare(page.shown, true);
        compare(page.names(), "code+ smartcard sudis broken slow");
        compare(page.logins, 5);

        AuthSettingsClient.authenticate("login", { factor: "code", data: "1234", uid: 1000 });
        tryCompare(page, "authenticated", true);
        daemon.setOption("worker/is-multi-factorable", true, 1000);
        tryCompare(page, "many", true);

        daemon.restart();
        tryCompare(page, "authenticated", false);
        tryVerify(() => daemon.state().peers.length === 1);
        daemon.setOption("worker/service-factors/unlock", ["sudis"], 1000);
        tryCompare(page, "unlock", "sudis");
        const resets = page.resets;
        daemon.setOption("worker/disabled-factors", ["broken"], 1000);
        tryVerify(() => page.names() === "code+ smartcard sudis slow");
        verify(page.resets > resets);
        compare(page.many, true);
    }

    function test_lastLogin() {
        const settings = createTemporaryObject(lastLoginComponent, test);
        const spy = createTemporaryQmlObject("import QtTest 1.15; SignalSpy {}", test);
        spy.target = settings;
        spy.signalName = "lastLoginDateChanged";
        settings.uid = 1000;
        compare(spy.count, 1);
        compare(settings.lastLoginDate, "2026-11-20 08:15");
        daemon.setOption("worker/last-login-date", "today", 1000);
        tryCompare(spy, "count", 2);
        compare(settings.lastLoginDate, "today");
    }

    // What QML has made and nobody holds is deleted, and its connection with it.
    function test_clientGoesWithItsLastReference() {
        let client = plainClientComponent.createObject(null);
        tryVerify(() => daemon.state().peers.length === 2);
        client = null;
        gc();
        tryVerify(() => daemon.state().peers.length === 1);
    }

    function test_singletonStays() {
        AuthSettingsClient.uid = 1000;
        gc();
        compare(AuthSettingsClient.uid, 1000);
        compare(daemon.state().peers.length, 1);
        compare(String(errorOf(() => AuthSettingsClient.destroy())),
                "Error: Invalid attempt to destroy() an indestructible object");
    }
}
