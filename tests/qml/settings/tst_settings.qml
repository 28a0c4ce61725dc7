import QtQuick 2.15
import QtQuick.Window 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import Vantora.Tests 1.0
import "../../../examples/settings"
import "../../../examples/style"
import "../login"

Item {
    id: scene

    width: 360
    height: 720

    StandIn { id: daemon }

    Component {
        id: screen

        SettingsPage {
            anchors.fill: parent
            patience: 300
            deviceInterval: 1000
        }
    }

    SignalSpy {
        id: tokens

        target: AuthSettingsClient
        signalName: "authenticatedChanged"
    }

    PageTest {
        name: "settings"

        readonly property var switches: ["login-code", "login-smartcard", "login-sudis", "multiFactor",
                                         "unlock-code", "unlock-smartcard", "unlock-sudis", "notifications"]

        function init() {
            daemon.reset();
            Theme.dark = false;
            scene.width = 360;
            scene.height = 720;
        }

        function show(user) {
            page = createTemporaryObject(screen, scene, { user: user });
            tryCompare(page, "settled", true);
            daemon.clearCalls();
        }

        function enter(secret) {
            tryVerify(() => item("secret").activeFocus);
            type(secret);
            keyClick(Qt.Key_Return);
        }

        function unlock(secret) {
            enter(secret || "1234");
            tryCompare(page, "isUnlocked", true);
            daemon.clearCalls();
        }

        function showUnlocked(user, secret) {
            show(user);
            unlock(secret);
        }

        // The writes that the daemon was asked for, without the tokens.
        function writes() {
            return daemon.calls("SetUserOption").map(call => call.args.replace(/\[byte [^\]]*\], /, ""));
        }

        function options(uid) {
            return daemon.request({ do: "options", uid: uid }).options;
        }

        function isOn(name) { return item(name).checked }
        function note() { return item("note").text }

        // Who may change what

        function test_withoutAUserOneIsAskedFor() {
            show(0);
            compare(item("heading").text, "Whose settings?");
            verify(!item("secret").visible);
            click("user1001");
            compare(item("heading").text, "Robin");
            compare(AuthSettingsClient.uid, 1001);
            verify(item("secret").visible);
        }

        function test_whatTheDaemonToldIsShownAndCannotBeChanged() {
            show(1000);
            const on = switches.filter(isOn);
            compare(on, ["login-code", "unlock-code", "unlock-smartcard", "notifications"]);
            for (const name of switches) {
                verify(item(name).visible, name);
                verify(!item(name).enabled, name);
                click(name);
            }
            compare(writes(), []);
            compare(switches.filter(isOn), on);
        }

        function test_factorsHaveHumanNames() {
            show(1000);
            compare(item("login-code").text, "Code");
            compare(item("login-smartcard").text, "Smart card");
            compare(item("login-sudis").text, "Sudis");
            compare(item("login-slow").text, "slow");
            compare(item("unlock-smartcard").text, "Smart card");
        }

        function test_theCodeUnlocksTheSettings() {
            show(1000);
            enter("1234");
            tryCompare(page, "isUnlocked", true);
            compare(daemon.calls("Authenticate")[0].args.replace(/'challenge': <\[[^\]]*\]>, /, ""),
                    "('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <1000>})");
            verify(!item("secret").visible);
            for (const name of switches.filter(name => name !== "login-code"))
                verify(item(name).enabled, name);
        }

        function test_theFactorChosenForLoginIsAskedFor() {
            daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
            show(1000);
            compare(item("secret").placeholderText, "Sudis");
            unlock("correct horse");
        }

        function test_aWrongCodeIsTold() {
            show(1000);
            enter("4321");
            tryCompare(page, "settled", true);
            compare(note(), "Code was not accepted. Please try again.");
            compare(item("secret").text, "");
            compare(page.isUnlocked, false);
        }

        function test_aDaemonThatDoesNotAnswerIsNotWaitedForForever() {
            daemon.fail("Authenticate");
            show(1000);
            enter("1234");
            tryVerify(() => item("submit").text === "Try again");
            daemon.behave();
            click("submit");
            compare(AuthSettingsClient.progress, false);
            compare(note(), "");
            unlock();
        }

        function test_lockingTheSettingsDropsTheToken() {
            showUnlocked(1000);
            click("lock");
            compare(AuthSettingsClient.authenticated, false);
            compare(page.isUnlocked, false);
            verify(!item("login-sudis").enabled);
            tryVerify(() => item("secret").activeFocus);
        }

        function test_aSecondReturnDoesNotLockTheSettings_data() {
            return [{ tag: "Return", key: Qt.Key_Return }, { tag: "Enter", key: Qt.Key_Enter },
                    { tag: "Space", key: Qt.Key_Space }];
        }

        function test_aSecondReturnDoesNotLockTheSettings(data) {
            showUnlocked(1000);
            keyClick(data.key);
            compare(page.isUnlocked, true);
            // Nor is anything entered any more.
            type("12");
            compare(item("secret").text, "");
            const focused = scene.Window.activeFocusItem;
            compare(Pictures.accessibleName(focused), "Settings are unlocked");
            compare(Pictures.role(focused), "Heading");
            keyClick(Qt.Key_Tab);
            verify(item("lock").visualFocus);
            keyClick(data.key);
            compare(page.isUnlocked, false);
            tryVerify(() => item("secret").activeFocus);
        }

        function test_aSecretThatIsNotSentIsForgotten() {
            show(1000);
            tryVerify(() => item("secret").activeFocus);
            type("12");
            page.memory = 100;
            tryCompare(item("secret"), "text", "");
        }

        function test_theFieldHasTheFocusAsSoonAsItCanBeUsed() {
            showUnlocked(1000);
            item("lock").clicked();
            verify(item("secret").activeFocus);
        }

        function test_lockingTheDeviceLocksTheSettings() {
            daemon.unlock();
            showUnlocked(1000);
            daemon.lock();
            tryCompare(page, "isUnlocked", false);
            compare(note(), "");
        }

        // Login factors

        function test_anotherLoginFactorReplacesTheOne() {
            showUnlocked(1000);
            verify(!item("login-code").enabled);
            click("login-sudis");
            tryVerify(() => isOn("login-sudis") && !isOn("login-code"));
            compare(writes(), ["(uint32 1000, 'worker/service-factors/login', <['sudis']>)",
                               "(uint32 1000, 'worker/service-factors/unlock', <['code', 'smartcard']>)"]);
            verify(!item("login-sudis").enabled);
            verify(item("login-code").enabled);
        }

        function test_severalLoginFactorsAreChosen() {
            showUnlocked(1000);
            click("multiFactor");
            tryVerify(() => isOn("multiFactor"));
            compare(writes(), ["(uint32 1000, 'worker/is-multi-factorable', <true>)"]);
            click("login-sudis");
            tryVerify(() => isOn("login-sudis"));
            verify(isOn("login-code"));
            tryVerify(() => item("login-code").enabled);
            click("login-code");
            tryVerify(() => !isOn("login-code"));
            compare(options(1000)["worker/service-factors/login"], "['sudis']");
            tryVerify(() => !item("login-sudis").enabled);
        }

        function test_theLastLoginFactorCannotBeUnchosen() {
            daemon.setOption("worker/is-multi-factorable", true, 1000);
            showUnlocked(1000);
            tryVerify(() => isOn("multiFactor"));
            verify(!item("login-code").enabled);
            click("login-code");
            compare(writes(), []);
        }

        function test_ofSeveralThatOneMayBeNoneIsUnchosen() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            showUnlocked(1000);
            verify(!item("login-code").enabled);
            verify(!item("login-sudis").enabled);
            click("login-smartcard");
            tryVerify(() => isOn("login-smartcard"));
            compare(options(1000)["worker/service-factors/login"], "['smartcard']");
        }

        function test_aDisabledFactorIsNotOffered() {
            show(1001);
            compare(findChild(page, "login-sudis"), null);
            verify(item("login-code").visible);
        }

        function test_aDisabledSmartCardSaysSo() {
            daemon.setOption("worker/disabled-factors", ["smartcard"], 1000);
            show(1000);
            tryVerify(() => item("login-smartcard").note === "Disabled on this device");
        }

        // Unlock factors

        function test_anUnlockFactorIsAdded() {
            showUnlocked(1000);
            click("unlock-slow");
            tryVerify(() => isOn("unlock-slow"));
            compare(writes(), ["(uint32 1000, 'worker/service-factors/login', <['code']>)",
                               "(uint32 1000, 'worker/service-factors/unlock', <['code', 'smartcard', 'slow']>)"]);
        }

        function test_sudisReplacesAllOtherUnlockFactors() {
            showUnlocked(1000);
            click("unlock-sudis");
            tryVerify(() => isOn("unlock-sudis") && !isOn("unlock-code") && !isOn("unlock-smartcard"));
            compare(options(1000)["worker/service-factors/unlock"], "['sudis']");
        }

        function test_unchoosingTheLastUnlockFactorChoosesAllOthers() {
            showUnlocked(1001, "9876");
            click("unlock-code");
            tryVerify(() => !isOn("unlock-code") && isOn("unlock-slow"));
        }

        function test_anUnlockFactorWithoutALoginRowHasASwitch() {
            show(1001);
            compare(findChild(page, "unlock-sudis"), null);
            // It gets a row with the model's next reset.
            daemon.setOption("worker/service-factors/unlock", ["code", "sudis"], 1001);
            tryVerify(() => findChild(page, "unlock-sudis"));
            verify(isOn("unlock-sudis"));
            daemon.setOption("worker/disabled-factors", [], 1001);
            tryVerify(() => findChild(page, "login-sudis"));
            verify(isOn("unlock-sudis"));
            daemon.setOption("worker/disabled-factors", ["sudis"], 1001);
            tryVerify(() => !findChild(page, "login-sudis") || !item("login-sudis").visible);
            verify(isOn("unlock-sudis"));
        }

        function test_theSmartCardWarning() {
            daemon.setOption("worker/service-factors/unlock", ["code"], 1000);
            showUnlocked(1000);
            verify(!item("warning").visible);
            click("unlock-smartcard");
            tryVerify(() => item("warning").visible);
            compare(item("warning").text,
                    "Keep your smart card at hand: you need it to sign in or to unlock the device.");
            click("unlock-smartcard");
            tryVerify(() => !item("warning").visible);
        }

        // Other options

        function test_notifications() {
            showUnlocked(1000);
            click("notifications");
            tryVerify(() => !isOn("notifications"));
            click("notifications");
            tryVerify(() => isOn("notifications"));
            compare(writes(), ["(uint32 1000, 'devlock/show-notifications', <false>)",
                               "(uint32 1000, 'devlock/show-notifications', <true>)"]);
        }

        function test_keysAloneChangeSettings_data() {
            return [{ tag: "Return", key: Qt.Key_Return }, { tag: "Enter", key: Qt.Key_Enter },
                    { tag: "Space", key: Qt.Key_Space }];
        }

        function test_keysAloneChangeSettings(data) {
            showUnlocked(1000);
            tabTo("notifications");
            verify(item("notifications").visualFocus);
            const scroller = item("scroller");
            const y = item("notifications").mapToItem(scroller, 0, 0).y;
            verify(y >= 0 && y + item("notifications").height <= scroller.height, "scrolled to");
            keyClick(data.key);
            tryVerify(() => !isOn("notifications"));
            tabTo("user1001");
            keyClick(data.key);
            compare(page.user, 1001);
        }

        function test_fingersChangeSettings() {
            show(1000);
            tap("secret");
            type("1234");
            tap("submit");
            tryCompare(page, "isUnlocked", true);
            tap("notifications");
            tryVerify(() => !isOn("notifications"));
            tap("unlock-smartcard");
            tryVerify(() => !isOn("unlock-smartcard"));
            tap("lock");
            compare(page.isUnlocked, false);
        }

        function test_assistiveTechnologyChangesSettings() {
            showUnlocked(1000);
            compare(Pictures.role(item("notifications")), "CheckBox");
            compare(Pictures.isToldChecked(item("notifications")), true);
            item("notifications").Accessible.toggleAction();
            tryVerify(() => !Pictures.isToldChecked(item("notifications")));
            click("lock");
            daemon.clearCalls();
            item("notifications").Accessible.toggleAction();
            item("notifications").Accessible.pressAction();
            compare(writes(), []);
        }

        // What the daemon does not want

        function test_whatTheDaemonRefusesSnapsBack_data() {
            return ["login-sudis", "multiFactor", "unlock-sudis", "notifications"].map(name => ({ tag: name }));
        }

        function test_whatTheDaemonRefusesSnapsBack(data) {
            daemon.fail("SetUserOption");
            showUnlocked(1000);
            const before = switches.filter(isOn);
            click(data.tag);
            compare(switches.filter(isOn), before);
            verify(writes().length > 0);
            tryVerify(() => item(data.tag).refused);
            compare(Pictures.accessibleDescription(item(data.tag)), "Not accepted");
            compare(switches.filter(isOn), before);
            // It can be wished for again.
            daemon.behave();
            click(data.tag);
            tryVerify(() => isOn(data.tag) !== before.includes(data.tag));
            verify(!item(data.tag).refused);
        }

        function test_whatTheDaemonAnswersFalseToSnapsBack() {
            daemon.answer("SetUserOption", "(false,)");
            showUnlocked(1000);
            click("multiFactor");
            tryVerify(() => item("multiFactor").refused);
            verify(!isOn("multiFactor"));
            daemon.behave();
            click("multiFactor");
            tryVerify(() => isOn("multiFactor"));
            verify(!item("multiFactor").refused);
        }

        function test_aDaemonThatDoesNotKnowTheTokenIsTold() {
            showUnlocked(1000);
            compare(item("summary").text, "Changes take effect at once.");
            daemon.handover();
            tryVerify(() => daemon.state().peers.length > 0);
            compare(page.isUnlocked, true);
            click("notifications");
            tryVerify(() => item("notifications").refused);
            look(["A change was not accepted", "Reopening the settings may help."]);
            daemon.restart();
            tryCompare(page, "isUnlocked", false);
            look(["Settings are locked", "To change them, show that you are Alex."]);
            unlock();
            look(["Settings are unlocked", "Changes take effect at once."]);
            click("notifications");
            tryVerify(() => !isOn("notifications"));
        }

        function test_theLastRefusalCounts() {
            daemon.fail("SetUserOption");
            showUnlocked(1000);
            click("multiFactor");
            tryVerify(() => item("multiFactor").refused);
            compare(page.isRefused, true);
            click("notifications");
            tryVerify(() => item("notifications").refused);
            daemon.behave();
            click("notifications");
            tryVerify(() => !isOn("notifications"));
            compare(page.isRefused, false);
        }

        function test_aRefusedWishThatSomebodyElseFulfilsIsNoLongerCalledRefused() {
            daemon.fail("SetUserOption");
            showUnlocked(1000);
            click("multiFactor");
            tryVerify(() => item("multiFactor").refused);
            daemon.setOption("worker/is-multi-factorable", true, 1000);
            tryVerify(() => isOn("multiFactor"));
            verify(!item("multiFactor").refused);
        }

        function test_anAcceptedWishIsNotCalledRefused() {
            showUnlocked(1000);
            const toggle = item("multiFactor");
            toggle.patience = 50;
            click("multiFactor");
            tryVerify(() => isOn("multiFactor"));
            wait(2 * toggle.patience);
            verify(!toggle.refused);
        }

        function test_aWishIsNotMistakenForTheNextUsers() {
            showUnlocked(1000);
            const toggle = item("multiFactor");
            toggle.patience = 50;
            click("multiFactor");
            page.user = 1001;
            wait(2 * toggle.patience);
            verify(!toggle.refused);
        }

        function test_aRefusedWishThatGoesOnToTheNextUserIsTold() {
            showUnlocked(1000);
            daemon.fail("SetUserOption");
            click("login-slow");
            tryVerify(() => item("login-slow").refused);
            daemon.behave();
            click("user1001");
            compare(item("login-slow").note, "Not accepted yet; asked for again with the next change");
            verify(!isOn("login-slow"));
            unlock("9876");
            click("unlock-smartcard");
            tryVerify(() => isOn("login-slow"));
            compare(item("login-slow").note, "");
        }

        // What others change

        function test_changesMadeElsewhereAreShown_data() {
            return [
                { tag: "login", key: "worker/service-factors/login", value: ["sudis"], on: "login-sudis" },
                { tag: "unlock", key: "worker/service-factors/unlock", value: ["sudis"], on: "unlock-sudis" },
                { tag: "multi", key: "worker/is-multi-factorable", value: true, on: "multiFactor" },
            ];
        }

        function test_changesMadeElsewhereAreShown(data) {
            show(1000);
            verify(!isOn(data.on));
            daemon.setOption(data.key, data.value, 1000);
            tryVerify(() => isOn(data.on));
        }

        function test_notificationsChangedElsewhereAreShown() {
            showUnlocked(1000);
            click("notifications");
            tryVerify(() => !isOn("notifications"));
            daemon.setOption("devlock/show-notifications", true, 1000);
            tryVerify(() => isOn("notifications"));
        }

        function test_whatIsChangedForAnotherUserIsNotShown() {
            show(1000);
            daemon.setOption("worker/is-multi-factorable", true, 1001);
            daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
            tryVerify(() => isOn("login-sudis"));
            verify(!isOn("multiFactor"));
        }

        function test_aUserWhoMayNotSetFactorsSeesTheChosenOnes() {
            daemon.setOption("worker/is-user-settable", false, 1000);
            showUnlocked(1000);
            tryVerify(() => item("managed").visible);
            for (const name of ["smartcard", "sudis", "slow"]) {
                const toggle = findChild(page, "login-" + name);
                verify(!toggle || !toggle.visible, name);
            }
            daemon.setOption("worker/is-user-settable", true, 1000);
            tryVerify(() => !item("managed").visible);
            tryVerify(() => findChild(page, "login-sudis"));
            verify(item("login-sudis").enabled);
        }

        function test_aUserWhoMayNoLongerSetFactorsSeesTheChosenOnes() {
            showUnlocked(1000);
            daemon.setOption("worker/is-user-settable", false, 1000);
            tryVerify(() => item("managed").visible);
            compare(item("managed").text, "How you sign in is managed for you.");
            verify(isOn("login-code"));
            verify(!item("login-code").enabled);
            compare(findChild(page, "login-sudis"), null);
        }

        // Users

        function test_anotherUserIsShownAndNeedsACodeOfTheirOwn() {
            showUnlocked(1000);
            click("user1001");
            compare(AuthSettingsClient.uid, 1001);
            compare(AuthSettingsClient.authenticated, false);
            compare(page.isUnlocked, false);
            compare(item("heading").text, "Robin");
            compare(switches.filter(name => findChild(page, name) && isOn(name)), ["login-code", "unlock-code"]);
            compare(note(), "");
            unlock("9876");
            click("notifications");
            tryVerify(() => isOn("notifications"));
            compare(writes(), ["(uint32 1001, 'devlock/show-notifications', <true>)"]);
        }

        function test_anyIdOfAUserIsSentAsItIs_data() {
            return [{ tag: "2^31", uid: 2147483648 }, { tag: "2^32-2", uid: 4294967294 }];
        }

        function test_anyIdOfAUserIsSentAsItIs(data) {
            daemon.answer("GetUserOptions", "({'worker/service-factors/login': <['code']>},)");
            daemon.answer("GetUserOption", "(<true>,)");
            daemon.answer("Authenticate", "(true,)");
            daemon.answer("SetUserOption", "(true,)");
            page = createTemporaryObject(screen, scene, { users: [{ uid: data.uid, name: "Kim" },
                                                                  { uid: 1000, name: "Alex" }], user: data.uid });
            page.patience = 600000;
            tryCompare(page, "settled", true);
            compare(AuthSettingsClient.uid, data.uid);
            enter("1234");
            tryVerify(() => daemon.calls("Authenticate").length > 0);
            compare(daemon.calls("Authenticate")[0].args.replace(/'challenge': <\[[^\]]*\]>, /, ""),
                    "('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <int64 " + data.uid + ">})");
            daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)");
            tryCompare(page, "isUnlocked", true);
            click("notifications");
            compare(writes(), ["(uint32 " + data.uid + ", 'devlock/show-notifications', <false>)"]);
            const reads = daemon.calls("GetUserOptions").concat(daemon.calls("GetUserOption"));
            compare(reads.filter(call => !call.args.startsWith("(uint32 " + data.uid + ", ")), []);

            click("lock");
            enter("1234");
            tryVerify(() => daemon.calls("Authenticate").length === 2);
            page.user = 1000;
            compare(page.unheard, data.uid);
            compare(note(), "A request about Kim is still open. Please close the settings and open them again.");
        }

        function test_aSecretIsNotKeptForAnotherUser() {
            show(1000);
            tryVerify(() => item("secret").activeFocus);
            type("1234");
            click("user1001");
            compare(item("secret").text, "");
        }

        function test_usersCannotBeSwitchedWhileTheDaemonIsAsked() {
            show(1000);
            daemon.hold("Authenticate");
            enter("1234");
            verify(!item("user1001").enabled);
            tryVerify(() => daemon.calls("Authenticate").length > 0);
            daemon.release();
            tryCompare(page, "isUnlocked", true);
            verify(item("user1001").enabled);
        }

        function test_theAnswerToARequestGivenUpUnlocksNobodyElsesSettings_data() {
            return [{ tag: "given up", leave: () => {
                tryVerify(() => item("submit").text === "Try again");
                click("submit");
                click("user1001");
            } }, { tag: "left by the host", leave: () => { page.user = 1001 } }, { tag: "locked", leave: () => {
                daemon.lock();
                tryCompare(page, "settled", true);
                compare(note(), "");
                click("user1001");
            } }];
        }

        function test_theAnswerToARequestGivenUpUnlocksNobodyElsesSettings(data) {
            daemon.unlock();
            show(1000);
            daemon.hold("Authenticate", 1);
            enter("1234");
            tryVerify(() => daemon.calls("Authenticate").length > 0);
            data.leave();
            look(["A request about Alex is still open. Please close the settings and open them again."]);
            verify(!item("secret").enabled);
            tokens.clear();
            daemon.release();
            // The token, and that it is dropped.
            tryCompare(tokens, "count", 2);
            compare(page.isUnlocked, false);
            // There may be more to come.
            verify(!item("secret").enabled);
            compare(daemon.calls("Authenticate").length, 1);

            // Whoever it was about can be asked again, and what a new daemon says is about nothing old.
            click("user1000");
            compare(note(), "");
            unlock();
            click("user1001");
            verify(!item("secret").enabled);
            daemon.restart();
            tryVerify(() => note() === "" && item("secret").enabled);
            compare(note(), "");
            unlock("9876");
        }

        function test_switchingIsOfferedWhenTheDaemonOffersIt() {
            show(1000);
            verify(item("users").visible);
            daemon.setOption("worker/can-switch-to-user", false);
            tryVerify(() => !item("users").visible);
            daemon.setOption("worker/can-switch-to-user", true);
            tryVerify(() => item("users").visible);
        }

        function test_aUserWhomTheHostDoesNotKnowIsNotShown() {
            show(4711);
            compare(page.user, 0);
            compare(AuthSettingsClient.uid, 0);
        }

        // The daemon

        function test_aDaemonThatIsAwayIsTold() {
            showUnlocked(1000);
            daemon.stop();
            tryVerify(() => note() === "Waiting for the authentication service…");
            compare(page.isUnlocked, false);
            verify(!item("login-sudis").enabled);
            compare(page.settled, false);
            daemon.start();
            tryCompare(page, "settled", true);
            compare(note(), "");
            unlock();
        }

        function test_aDaemonThatComesBackIsReadAnew() {
            show(1000);
            daemon.request({ do: "set-option", key: "worker/service-factors/login", value: ["sudis"], uid: 1000,
                             announce: false });
            daemon.restart();
            tryVerify(() => isOn("login-sudis") && !isOn("login-code"));
        }

        function test_changesStartFromWhatTheDaemonSaysNow() {
            show(1001);
            verify(!isOn("multiFactor"));
            daemon.request({ do: "set-option", key: "worker/is-multi-factorable", value: true, uid: 1001,
                             announce: false });
            unlock("9876");
            verify(isOn("multiFactor"));
            click("login-slow");
            tryVerify(() => isOn("login-slow"));
            compare(options(1001)["worker/service-factors/login"], "['code', 'slow']");
        }

        function test_aLockoutIsTold() {
            show(1000);
            daemon.lockout("code-entry");
            tryVerify(() => note() === "Too many wrong entries. Please wait a moment.");
            verify(!item("secret").enabled);
            daemon.lockout("none");
            tryVerify(() => item("secret").enabled);
            compare(note(), "");
        }

        // The looks

        function test_whatComesFromElsewhereIsNoMarkup() {
            const markup = "<b>x</b>&y";
            daemon.setOption("worker/service-factors/unlock", ["code", markup], 1000);
            page = createTemporaryObject(screen, scene, { users: [{ uid: 1000, name: markup },
                                                                  { uid: 1001, name: markup + "!" }], user: 1000 });
            tryCompare(page, "settled", true);
            tryVerify(() => findChild(page, "unlock-" + markup));
            compare(showsPlain(markup),
                    [markup, "To change them, show that you are " + markup + ".", markup, markup + "!"]);
            compare(Pictures.accessibleName(item("heading")), markup);
            compare(Pictures.accessibleName(item("unlock-" + markup)), markup);
            compare(Pictures.accessibleName(item("user1001")), markup + "!");
        }

        function test_aLongNamePushesNothingOut_data() { return sizes() }

        function test_aLongNamePushesNothingOut(data) {
            scene.width = data.width;
            scene.height = data.height;
            const name = "Wolfeschlegelsteinhausenbergerdorffwelchevoralternwarengewissenhaft";
            daemon.setOption("worker/service-factors/unlock", ["code", name], 1000);
            page = createTemporaryObject(screen, scene, { users: [{ uid: 1000, name: name }, { uid: 1001, name: name }],
                                                          user: 1000 });
            tryCompare(page, "settled", true);
            tryVerify(() => findChild(page, "unlock-" + name));
            for (const it of items(it => isText(it) || isControl(it)))
                verify(Pictures.isInside(page, reveal(it)), it + it.text);
        }

        function test_assistiveTechnologyIsTold() {
            show(1000);
            listen("heading", "Heading");
            for (const title of ["Settings are locked", "Signing in", "Unlocking", "Other users"]) {
                const found = items(it => isText(it) && it.text === title);
                compare(found.map(Pictures.role), ["Heading"], title);
                compare(Pictures.accessibleName(found[0]), title);
            }
            compare(Pictures.accessibleDescription(item("secret")), "Code");
            enter("4321");
            tryCompare(page, "settled", true);
            listen("note", "AlertMessage");
            listen("warning", "AlertMessage");
            for (const name of switches) {
                listen(name, "CheckBox");
                compare(Pictures.isToldChecked(item(name)), isOn(name), name);
            }
        }

        function test_looks_data() { return sizes() }

        function test_looks(data) {
            Theme.dark = data.dark;
            scene.width = data.width;
            scene.height = data.height;
            const keepAs = state => keep("settings-" + state + "-" + data.tag);

            show(0);
            look(["Whose settings?", "Alex", "Robin"]);
            keepAs("users");
            click("user1000");
            look(["Alex", "Settings are locked", "Unlock settings", "Code", "Smart card", "Several at once",
                  "Notifications on the locked screen", "Other users"]);
            keepAs("locked");
            enter("4321");
            tryCompare(page, "settled", true);
            look(["Code was not accepted. Please try again."]);
            keepAs("failed");
            enter("1234");
            tryCompare(page, "isUnlocked", true);
            look(["Settings are unlocked", "Lock settings", "Sudis", "Robin",
                  "Keep your smart card at hand: you need it to sign in or to unlock the device."]);
            keepAs("unlocked");
            tabTo("login-sudis");
            keepAs("focus");
            daemon.fail("SetUserOption");
            click("login-sudis");
            tryVerify(() => item("login-sudis").refused);
            look(["Not accepted", "A change was not accepted"]);
            keepAs("refused");
            daemon.behave();
            click("login-sudis");
            tryVerify(() => isOn("login-sudis"));
            daemon.setOption("worker/is-user-settable", false, 1000);
            tryVerify(() => item("managed").visible);
            look(["How you sign in is managed for you."]);
            keepAs("managed");
            daemon.stop();
            tryVerify(() => note() === "Waiting for the authentication service…");
            look(["Waiting for the authentication service…"]);
            keepAs("away");
        }
    }
}
