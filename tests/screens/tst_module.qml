import QtQml 2.15
import QtQml.Models 2.15
import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth.Screens 1.0
import Vantora.Auth.Testing 1.0
import "../qml"

PatientTestCase {
    id: test
    name: "screens"

    StandIn { id: daemon }

    Component {
        id: deviceLock
        DeviceLock {
            property var reasons: []
            onRefused: reasons.push(reason)
        }
    }

    Component {
        id: signIn
        SignIn {
            property int passes: 0
            property var reasons: []
            onPassed: ++passes
            onRefused: reasons.push(reason)
        }
    }

    Component {
        id: userSettings
        UserSettings {
            id: settings

            property var reasons: []
            property var changes: []
            readonly property Instantiator rows: Instantiator {
                model: settings.loginFactors
                delegate: QtObject {
                    readonly property string line: model.name + (model.chosen ? " chosen" : "")
                                                   + (model.pending ? " pending" : "")
                                                   + (model.changeable ? " changeable" : "")
                }
            }
            onRefused: reasons.push(reason)
            onChangeRefused: changes.push([setting, factor, reason])
        }
    }

    function init() { daemon.reset() }

    function test_unlocking_data() {
        return [
            { tag: "text", right: "1234", wrong: "4321" },
            { tag: "bytes", right: new Uint8Array([0x31, 0x32, 0x33, 0x34]).buffer, wrong: new Uint8Array([0]).buffer }
        ];
    }

    function test_unlocking(row) {
        const lock = createTemporaryObject(deviceLock, test);
        compare(lock.state, DeviceLock.Undefined);
        tryCompare(lock, "state", DeviceLock.Locked);
        verify(lock.available);
        compare(lock.lockoutReason, DeviceLock.NoLockout);
        verify(lock.attempt("code", row.wrong));
        verify(lock.busy);
        tryVerify(() => lock.reasons.length === 1);
        compare(lock.reasons[0], Reason.NotAccepted);
        verify(lock.attempt("code", row.right));
        tryCompare(lock, "unlocked", true);
        compare(lock.reasons.length, 1);
        lock.lock();
        tryCompare(lock, "unlocked", false);
        compare(daemon.lockState(), 1);
    }

    function test_factorsForUnlocking() {
        const lock = createTemporaryObject(deviceLock, test, { uid: 1000 });
        tryVerify(() => lock.factors.length === 2);
        compare(Array.from(lock.factors), ["code", "smartcard"]);
    }

    function test_lockout() {
        const lock = createTemporaryObject(deviceLock, test);
        daemon.lockout("code-entry");
        tryCompare(lock, "lockoutReason", DeviceLock.TooManyCodes);
        lock.attempt("code", "1234");
        tryVerify(() => lock.reasons.length === 1);
        compare(lock.reasons[0], Reason.LockedOut);
    }

    function test_signingIn() {
        const user = createTemporaryObject(signIn, test, { uid: 1000 });
        tryCompare(user, "ready", true);
        compare(user.factor, "code");
        compare(user.lastLogin, "2026-11-20 08:15");
        user.attempt("4321");
        tryVerify(() => user.reasons.length === 1);
        compare(user.reasons[0], Reason.NotAccepted);
        user.attempt("1234");
        tryCompare(user, "signedIn", true);
        compare(user.passes, 1);
        user.signOut();
        verify(!user.signedIn);
    }

    function test_settings() {
        const settings = createTemporaryObject(userSettings, test, { uid: 1000 });
        tryCompare(settings, "ready", true);
        tryCompare(settings.rows, "count", 5);
        compare(settings.rows.objectAt(0).line, "code chosen");
        settings.chooseForLogin("sudis", true);
        compare(settings.rows.objectAt(2).line, "sudis pending");
        tryVerify(() => settings.changes.length === 1);
        compare(settings.changes[0], [UserSettings.LoginFactor, "sudis", Reason.NotAuthenticated]);
        settings.authenticate("code", "1234");
        tryCompare(settings, "authenticated", true);
        settings.chooseForLogin("sudis", true);
        tryCompare(settings.rows.objectAt(2), "line", "sudis chosen");
        compare(settings.rows.objectAt(0).line, "code changeable");
        compare(settings.changes.length, 1);
        compare(settings.reasons.length, 0);
    }
}
