import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Tests 1.0
import "../../../examples/settings"
import "../login"

PageTest {
    name: "settings"
    screen: Component {
        SettingsPage {
            anchors.fill: parent
            deviceInterval: 1000
        }
    }

    SignalSpy {
        id: tokens

        target: AuthSettingsClient
        signalName: "authenticatedChanged"
    }

    readonly property var switches: ["login-code", "login-smartcard", "login-sudis", "multiFactor",
                                     "unlock-code", "unlock-smartcard", "unlock-sudis", "notifications"]

    function unlock(secret) {
        enter(secret || "1234");
        tryCompare(page, "isUnlocked", true);
        daemon.clearCalls();
    }

    // Clicks a switch, and waits until the daemon has followed.
    function flip(name) {
        const before = isOn(name);
        click(name);
        tryVerify(() => isOn(name) !== before);
    }

    // Clicks a switch, and waits until it says that the daemon has not followed.
    function flipInVain(name) {
        click(name);
        tryVerify(() => item(name).refused);
    }

    function has(name) { return findChild(page, name) !== null }

    function showUnlocked(user, secret) {
        show(user);
        unlock(secret);
    }

    // The writes that the daemon was asked for, without the tokens.
    function writes() {
        return daemon.calls("SetUserOption").map(call => call.args.replace(/\[byte [^\]]*\], /, ""));
    }

    function option(name, uid) {
        return daemon.request({ do: "options", uid: uid }).options["worker/" + name];
    }

    function isOn(name) { return item(name).checked }
    function theOnes() { return switches.filter(name => has(name) && isOn(name)) }

    // Who may change what

    function test_withoutAUserOneIsAskedFor_data() { return [{ tag: "none", user: 0 }, { tag: "unknown", user: 4711 }] }

    function test_withoutAUserOneIsAskedFor(data) {
        show(data.user);
        compare([page.user, AuthSettingsClient.uid], [0, 0]);
        compare(heading(), "Whose settings?");
        verify(!item("secret").visible);
        click("user1001");
        compare(heading(), "Robin");
        compare(AuthSettingsClient.uid, 1001);
        verify(item("secret").visible);
    }

    function test_whatTheDaemonToldIsShownAndCannotBeChanged() {
        show(1000);
        const on = theOnes();
        compare(on, ["login-code", "unlock-code", "unlock-smartcard", "notifications"]);
        for (const name of switches) {
            verify(item(name).visible, name);
            verify(!item(name).enabled, name);
            click(name);
        }
        compare(writes(), []);
        compare(theOnes(), on);
    }

    function test_factorsHaveHumanNames() {
        show(1000);
        const names = ["login-code", "login-smartcard", "login-sudis", "login-slow", "unlock-smartcard"];
        compare(names.map(name => item(name).text), ["Code", "Smart card", "Sudis", "slow", "Smart card"]);
    }

    function test_theCodeUnlocksTheSettings() {
        show(1000);
        enter("1234");
        tryCompare(page, "isUnlocked", true);
        compare(asked(), [question("code", "1234", 1000)]);
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
        tryRefusal();
        compare(page.isUnlocked, false);
    }

    function test_aDaemonThatDoesNotAnswerIsNotWaitedForForever() {
        daemon.fail("Authenticate");
        show(1000);
        ask("1234");
        giveUp();
        daemon.behave();
        compare(AuthSettingsClient.progress, false);
        compare(note(), "");
        unlock();
    }

    function test_aRequestWithoutAnAnswerEndsByItself() {
        show(1000);
        daemon.hold("Authenticate", 1);
        ask("1234");
        item("request").longest = 100;
        tryRefusal("There was no answer. Please try again.");
        item("request").longest = 600000;
        tokens.clear();
        daemon.release();
        // The token, and that it is dropped.
        tryCompare(tokens, "count", 2);
        compare(page.isUnlocked, false);
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

    function test_aSecondReturnDoesNotLockTheSettings_data() { return pressingKeys }

    function test_aSecondReturnDoesNotLockTheSettings(data) {
        showUnlocked(1000);
        keyClick(data.key);
        compare(page.isUnlocked, true);
        verifyFocusOn("Settings are unlocked", "Heading");
        keyClick(Qt.Key_Tab);
        verify(item("lock").visualFocus);
        keyClick(data.key);
        compare(page.isUnlocked, false);
        tryVerify(() => item("secret").activeFocus);
    }

    function test_aSecretThatIsNotSentIsForgotten_data() {
        return [{ tag: "in time", how: () => { page.memory = 100 } },
                { tag: "by another user", how: () => click("user1001") }];
    }

    function test_aSecretThatIsNotSentIsForgotten(data) {
        show(1000);
        tryVerify(() => item("secret").activeFocus);
        type("12");
        data.how();
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
        flip("multiFactor");
        compare(writes(), ["(uint32 1000, 'worker/is-multi-factorable', <true>)"]);
        flip("login-sudis");
        verify(isOn("login-code"));
        tryVerify(() => item("login-code").enabled);
        flip("login-code");
        compare(option("service-factors/login", 1000), "['sudis']");
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
        flip("login-smartcard");
        compare(option("service-factors/login", 1000), "['smartcard']");
    }

    function test_aDisabledFactorIsNotOffered() {
        show(1001);
        verify(!has("login-sudis"));
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
        flip("unlock-slow");
        compare(writes(), ["(uint32 1000, 'worker/service-factors/login', <['code']>)",
                           "(uint32 1000, 'worker/service-factors/unlock', <['code', 'smartcard', 'slow']>)"]);
    }

    function test_sudisReplacesAllOtherUnlockFactors() {
        showUnlocked(1000);
        click("unlock-sudis");
        tryVerify(() => isOn("unlock-sudis") && !isOn("unlock-code") && !isOn("unlock-smartcard"));
        compare(option("service-factors/unlock", 1000), "['sudis']");
    }

    function test_unchoosingTheLastUnlockFactorChoosesAllOthers() {
        showUnlocked(1001, "9876");
        click("unlock-code");
        tryVerify(() => !isOn("unlock-code") && isOn("unlock-slow"));
    }

    function test_anUnlockFactorWithoutALoginRowHasASwitch() {
        show(1001);
        verify(!has("unlock-sudis"));
        // It gets a row with the model's next reset.
        daemon.setOption("worker/service-factors/unlock", ["code", "sudis"], 1001);
        tryVerify(() => has("unlock-sudis"));
        verify(isOn("unlock-sudis"));
        daemon.setOption("worker/disabled-factors", [], 1001);
        tryVerify(() => has("login-sudis"));
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
        flip("notifications");
        flip("notifications");
        compare(writes(), ["(uint32 1000, 'devlock/show-notifications', <false>)",
                           "(uint32 1000, 'devlock/show-notifications', <true>)"]);
    }

    function test_keysAloneChangeSettings_data() { return pressingKeys }

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
        const error = () => daemon.fail("SetUserOption");
        return ["login-sudis", "multiFactor", "unlock-sudis", "notifications"]
            .map(name => ({ tag: name, name: name, how: error }))
            .concat({ tag: "false", name: "multiFactor", how: () => daemon.answer("SetUserOption", "(false,)") });
    }

    function test_whatTheDaemonRefusesSnapsBack(data) {
        data.how();
        showUnlocked(1000);
        const before = theOnes();
        click(data.name);
        compare(theOnes(), before);
        verify(writes().length > 0);
        tryVerify(() => item(data.name).refused);
        compare(Pictures.accessibleDescription(item(data.name)), "Not accepted");
        compare(theOnes(), before);
        // It can be wished for again.
        daemon.behave();
        flip(data.name);
        verify(!item(data.name).refused);
    }

    function test_aDaemonThatDoesNotKnowTheTokenIsTold() {
        showUnlocked(1000);
        compare(item("summary").text, "Changes take effect at once.");
        daemon.handover();
        tryVerify(() => daemon.state().peers.length > 0);
        compare(page.isUnlocked, true);
        flipInVain("notifications");
        look(["A change was not accepted", "Reopening the settings may help."]);
        daemon.restart();
        tryCompare(page, "isUnlocked", false);
        look(["Settings are locked", "To change them, show that you are Alex."]);
        unlock();
        look(["Settings are unlocked", "Changes take effect at once."]);
        flip("notifications");
    }

    function test_theLastRefusalCounts() {
        daemon.fail("SetUserOption");
        showUnlocked(1000);
        flipInVain("multiFactor");
        compare(page.isRefused, true);
        flipInVain("notifications");
        daemon.behave();
        flip("notifications");
        compare(page.isRefused, false);
    }

    function test_aRefusedWishThatSomebodyElseFulfilsIsNoLongerCalledRefused() {
        daemon.fail("SetUserOption");
        showUnlocked(1000);
        flipInVain("multiFactor");
        daemon.setOption("worker/is-multi-factorable", true, 1000);
        tryVerify(() => isOn("multiFactor"));
        verify(!item("multiFactor").refused);
    }

    function test_aWishIsNotCalledRefused_data() {
        return [{ tag: "accepted", then: () => tryVerify(() => isOn("multiFactor")) },
                { tag: "with the next user", then: () => { page.user = 1001 } }];
    }

    function test_aWishIsNotCalledRefused(data) {
        showUnlocked(1000);
        const toggle = item("multiFactor");
        toggle.patience = 50;
        click("multiFactor");
        data.then();
        wait(2 * toggle.patience);
        verify(!toggle.refused);
    }

    function test_aRefusedWishThatGoesOnToTheNextUserIsTold() {
        showUnlocked(1000);
        daemon.fail("SetUserOption");
        flipInVain("login-slow");
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
        return [{ tag: "login", key: "worker/service-factors/login", value: ["sudis"], on: "login-sudis" },
                { tag: "unlock", key: "worker/service-factors/unlock", value: ["sudis"], on: "unlock-sudis" },
                { tag: "multi", key: "worker/is-multi-factorable", value: true, on: "multiFactor" }];
    }

    function test_changesMadeElsewhereAreShown(data) {
        show(1000);
        verify(!isOn(data.on));
        daemon.setOption(data.key, data.value, 1000);
        tryVerify(() => isOn(data.on));
    }

    function test_notificationsChangedElsewhereAreShown() {
        showUnlocked(1000);
        flip("notifications");
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
        tryVerify(() => has("login-sudis"));
        verify(item("login-sudis").enabled);
    }

    function test_aUserWhoMayNoLongerSetFactorsSeesTheChosenOnes() {
        showUnlocked(1000);
        daemon.setOption("worker/is-user-settable", false, 1000);
        tryVerify(() => item("managed").visible);
        compare(item("managed").text, "How you sign in is managed for you.");
        verify(isOn("login-code"));
        verify(!item("login-code").enabled);
        verify(!has("login-sudis"));
    }

    // Users

    function test_anotherUserIsShownAndNeedsACodeOfTheirOwn() {
        showUnlocked(1000);
        click("user1001");
        compare(AuthSettingsClient.uid, 1001);
        compare(AuthSettingsClient.authenticated, false);
        compare(page.isUnlocked, false);
        compare(heading(), "Robin");
        compare(theOnes(), ["login-code", "unlock-code"]);
        compare(note(), "");
        unlock("9876");
        click("notifications");
        tryVerify(() => isOn("notifications"));
        compare(writes(), ["(uint32 1001, 'devlock/show-notifications', <true>)"]);
    }

    function test_anyIdOfAUserIsSentAsItIs_data() { return highIds }

    function test_anyIdOfAUserIsSentAsItIs(data) {
        knowAnyUser("true");
        daemon.answer("SetUserOption", "(true,)");
        show(data.uid, [{ uid: data.uid, name: "Kim" }, { uid: 1000, name: "Alex" }]);
        compare(AuthSettingsClient.uid, data.uid);
        ask("1234");
        compare(asked(), [question("code", "1234", "int64 " + data.uid)]);
        daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)");
        tryCompare(page, "isUnlocked", true);
        click("notifications");
        compare(writes(), ["(uint32 " + data.uid + ", 'devlock/show-notifications', <false>)"]);
        verify(daemon.calls("GetUserOptions").length > 0);
        verifyReadsAreAbout(data.uid);

        click("lock");
        ask("1234");
        page.user = 1000;
        compare(page.unheard, data.uid);
        compare(note(), "A request about Kim is still open. Please close the settings and open them again.");
    }

    function test_usersCannotBeSwitchedWhileTheDaemonIsAsked() {
        show(1000);
        daemon.hold("Authenticate");
        ask("1234");
        verify(!item("user1001").enabled);
        daemon.release();
        tryCompare(page, "isUnlocked", true);
        verify(item("user1001").enabled);
    }

    function test_theAnswerToARequestGivenUpUnlocksNobodyElsesSettings_data() {
        return [{ tag: "given up", leave: () => {
            giveUp();
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
        ask("1234");
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
        compare(asked().length, 1);

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

    // The daemon

    function test_anObstacleIsToldUntilItEnds_data() {
        return [{ tag: "away", text: away, how: () => daemon.stop(), end: () => daemon.start() },
                { tag: "lockout", text: "Too many wrong entries. Please wait a moment.",
                  how: () => daemon.lockout("code-entry"), end: () => daemon.lockout("none") }];
    }

    function test_anObstacleIsToldUntilItEnds(data) {
        show(1000);
        if (data.tag === "away")
            unlock();
        data.how();
        tryVerify(() => note() === data.text);
        compare(page.isUnlocked, false);
        verify(!item("secret").enabled);
        verify(!item("login-sudis").enabled);
        compare(page.settled, data.tag !== "away");
        data.end();
        tryVerify(() => page.settled && item("secret").enabled);
        compare(note(), "");
        unlock();
    }

    function test_aDaemonThatComesBackIsReadAnew() {
        show(1000);
        setUnannounced("worker/service-factors/login", ["sudis"], 1000);
        daemon.restart();
        tryVerify(() => isOn("login-sudis") && !isOn("login-code"));
    }

    function test_changesStartFromWhatTheDaemonSaysNow() {
        show(1001);
        verify(!isOn("multiFactor"));
        setUnannounced("worker/is-multi-factorable", true, 1001);
        unlock("9876");
        verify(isOn("multiFactor"));
        flip("login-slow");
        compare(option("service-factors/login", 1001), "['code', 'slow']");
    }

    // The looks

    function test_whatComesFromElsewhereIsNoMarkup() {
        const markup = "<b>x</b>&y";
        daemon.setOption("worker/service-factors/unlock", ["code", markup], 1000);
        show(1000, [{ uid: 1000, name: markup }, { uid: 1001, name: markup + "!" }]);
        tryVerify(() => has("unlock-" + markup));
        compare(showsPlain(markup),
                [markup, "To change them, show that you are " + markup + ".", markup, markup + "!"]);
        compare(Pictures.accessibleName(item("heading")), markup);
        compare(Pictures.accessibleName(item("unlock-" + markup)), markup);
        compare(Pictures.accessibleName(item("user1001")), markup + "!");
    }

    function test_aLongNamePushesNothingOut_data() { return sizes() }

    function test_aLongNamePushesNothingOut(data) {
        dress(data);
        daemon.setOption("worker/service-factors/unlock", ["code", longName], 1000);
        show(1000, [{ uid: 1000, name: longName }, { uid: 1001, name: longName }]);
        tryVerify(() => has("unlock-" + longName));
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
        tryRefusal();
        listen("note", "AlertMessage");
        listen("warning", "AlertMessage");
        for (const name of switches) {
            listen(name, "CheckBox");
            compare(Pictures.isToldChecked(item(name)), isOn(name), name);
        }
    }

    function test_looks_data() { return sizes() }

    function test_looks(data) {
        dress(data);
        show(0);
        lookAt("users", data, ["Whose settings?", "Alex", "Robin"]);
        click("user1000");
        lookAt("locked", data, ["Alex", "Settings are locked", "Unlock settings", "Code", "Smart card",
                                "Several at once", "Notifications on the locked screen", "Other users"]);
        enter("4321");
        tryRefusal();
        lookAt("failed", data, [notAccepted]);
        enter("1234");
        tryCompare(page, "isUnlocked", true);
        lookAt("unlocked", data, ["Settings are unlocked", "Lock settings", "Sudis", "Robin",
                                  "Keep your smart card at hand: you need it to sign in or to unlock the device."]);
        tabTo("login-sudis");
        lookAt("focus", data, []);
        daemon.fail("SetUserOption");
        flipInVain("login-sudis");
        lookAt("refused", data, ["Not accepted", "A change was not accepted"]);
        daemon.behave();
        flip("login-sudis");
        daemon.setOption("worker/is-user-settable", false, 1000);
        tryVerify(() => item("managed").visible);
        lookAt("managed", data, ["How you sign in is managed for you."]);
        daemon.stop();
        tryVerify(() => note() === away);
        lookAt("away", data, [away]);
    }
}
