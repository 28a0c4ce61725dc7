import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import Vantora.Tests 1.0
import "../../../examples/login"
import "../../../examples/logic"

PageTest {
    name: "login"
    screen: Component {
        LoginScreen {
            anchors.fill: parent
            deviceInterval: 1000
        }
    }

    // Whether the screen has claimed that somebody is signed in.
    SignalSpy {
        id: claims

        target: page
        signalName: "signedInChanged"
    }

    Component {
        id: watch

        AuthDevlockClient {}
    }

    function cleanup() { claims.clear() }

    // With two factors, of which the first has been accepted.
    function showSecondStep() {
        daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
        show(1000);
        enter("1234");
        tryForm("Sudis");
    }

    function signIn(secret = "1234") {
        enter(secret);
        tryCompare(page, "signedIn", true);
    }

    // The connections that the requests came from.
    function peers() {
        return daemon.calls("Authenticate").map(call => call.peer);
    }

    // Answers the first request, for a screen that has kept its connection.
    function answerTheFirst(signal, args) {
        const peer = peers()[0];
        if (daemon.state().peers.includes(peer))
            daemon.emitSignal(signal, args, { peer: peer });
    }

    function askAndGiveUp(secret) {
        ask(secret);
        giveUp();
    }

    // Choosing the user

    function test_noUserIsChosenAtFirst_data() { return [{ tag: "none", user: 0 }, { tag: "unknown", user: 4711 }] }

    function test_noUserIsChosenAtFirst(data) {
        show(data.user);
        compare(page.user, 0);
        compare(heading(), "Who is signing in?");
        verify(!item("secret").visible);
        verify(item("user1000").visible);
        verify(item("user1001").visible);
    }

    function test_theHostNamesItsUsers() {
        show(1001, [{ uid: 1001, name: "Kim" }]);
        tryForm("Code");
        compare(heading(), "Kim");
    }

    function test_aUserIsChosen_data() {
        return [{ tag: "mouse", how: click }, { tag: "finger", how: tap }].concat(
            pressingKeys.map(row => ({ tag: row.tag, how: name => {
                tabTo(name);
                verify(item(name).visualFocus);
                keyClick(row.key);
            } })));
    }

    function test_aUserIsChosen(data) {
        show(0);
        data.how("user1001");
        compare(page.user, 1001);
        compare(AuthSettingsClient.uid, 1001);
        compare(heading(), "Robin");
        tryForm("Code");
    }

    function test_anyIdOfAUserIsSentAsItIs_data() { return highIds }

    function test_anyIdOfAUserIsSentAsItIs(data) {
        knowAnyUser("''");
        show(data.uid, [{ uid: data.uid, name: "Kim" }]);
        tryForm("Code");
        compare(page.user, data.uid);
        compare(AuthSettingsClient.uid, data.uid);
        page.user = 0;
        page.user = data.uid;
        ask("1234");
        compare(asked(), [question("code", "1234", "int64 " + data.uid)]);
        verify(daemon.calls("GetUserOptions").length > 0);
        verifyReadsAreAbout(data.uid);
        daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)");
        tryCompare(page, "signedIn", true);
        compare(heading(), "Signed in as Kim");
    }

    function test_theFieldHasTheFocusAsSoonAsItIsThere() {
        show(1000);
        tryForm("Code");
        page.user = 0;
        type("12");
        compare(item("secret").text, "");
        tabTo("user1001");
        page.user = 1001;
        verify(item("secret").activeFocus);
    }

    function test_someoneElseLeadsBackToTheUsers() {
        show(1000);
        type("12");
        click("back");
        compare(page.user, 0);
        verify(item("user1001").visible);
        click("user1001");
        tryForm("Code");
        compare(item("secret").text, "");
    }

    // Signing in

    function test_theSecretOfTheChosenFactorSignsIn_data() {
        const row = (uid, name, factor, label, secret) => ({ tag: name + ", " + factor, uid: uid, name: name,
                                                             factor: factor, label: label, secret: secret });
        return [row(1000, "Alex", "code", "Code", "1234"), row(1000, "Alex", "smartcard", "Smart card", "card-1000"),
                row(1000, "Alex", "sudis", "Sudis", "correct horse"), row(1000, "Alex", "slow", "slow", "1234"),
                row(1001, "Robin", "code", "Code", "9876")];
    }

    function test_theSecretOfTheChosenFactorSignsIn(data) {
        daemon.setOption("worker/service-factors/login", [data.factor], data.uid);
        show(0);
        click("user" + data.uid);
        tryForm(data.label);
        signIn(data.secret);
        compare(heading(), "Signed in as " + data.name);
        verify(!item("secret").visible);
        compare(daemon.state().tokens, 1);
        compare(asked(), [question(data.factor, data.secret, data.uid)]);
    }

    function test_keysAloneSignInAndOut() {
        show(0);
        tabTo("user1000");
        keyClick(Qt.Key_Space);
        tryVerify(() => item("secret").activeFocus);
        type("1234");
        tabTo("submit");
        verify(item("submit").visualFocus);
        keyClick(Qt.Key_Space);
        tryCompare(page, "signedIn", true);
        keyClick(Qt.Key_Tab);
        verify(item("back").visualFocus);
        keyClick(Qt.Key_Enter);
        compare(page.user, 0);
        tabTo("user1001");
    }

    function test_aSecondReturnDoesNotSignOut_data() { return pressingKeys }

    function test_aSecondReturnDoesNotSignOut(data) {
        show(1000);
        signIn();
        keyClick(data.key);
        compare(page.signedIn, true);
        verifyFocusOn("Signed in as Alex", "Heading");
    }

    function test_fingersSignInAndOut() {
        show(0);
        tap("user1000");
        tap("secret");
        type("1234");
        tap("submit");
        tryCompare(page, "signedIn", true);
        tap("back");
        compare(page.user, 0);
    }

    function test_signingOutDropsTheToken() {
        show(1000);
        signIn();
        verify(item("attempt").existing);
        compare(item("back").text, "Sign out");
        click("back");
        tryCompare(item("attempt"), "existing", null);
        compare(page.signedIn, false);
        compare(heading(), "Who is signing in?");
    }

    function test_aWrongCodeIsToldAndTheRightOneSignsInAfterwards() {
        show(1000);
        enter("4321");
        tryRefusal();
        compare(item("secret").activeFocus, true);
        compare(page.signedIn, false);
        type("1");
        compare(note(), "");
        signIn("234");
    }

    function test_anEmptySecretIsNotSent() {
        show(1000);
        tryForm("Code");
        verify(!item("submit").enabled);
        keyClick(Qt.Key_Return);
        compare(page.settled, true);
        compare(asked(), []);
    }

    function test_aSecretThatIsNotSentIsForgotten() {
        show(1000);
        tryForm("Code");
        page.memory = 600001;
        const timer = Array.from(item("secret").parent.resources).find(object => object.interval === page.memory);
        const starts = [];
        timer.runningChanged.connect(() => { if (timer.running) starts.push(item("secret").text) });
        type("12");
        compare(starts, ["1", "12"]);
        page.memory = 100;
        tryCompare(item("secret"), "text", "");
        verify(!timer.running);
        keyClick(Qt.Key_Z, Qt.ControlModifier);
        compare(item("secret").text, "");
        keyClick(Qt.Key_Return);
        compare(page.settled, true);
        page.memory = 600001;
        signIn();
        verify(!timer.running);
    }

    function test_theSecretIsNotShown() {
        show(1000);
        tryForm("Code");
        type("1234");
        compare(item("secret").displayText.indexOf("1"), -1);
    }

    function test_progressIsShownAndNothingElseCanBeDone() {
        show(1000);
        daemon.hold("Authenticate");
        enter("1234");
        compare(page.settled, false);
        compare(note(), "Checking…");
        compare(item("secret").text, "");
        compare(item("secret").readOnly, true);
        verify(!item("submit").enabled);
        verify(!item("back").enabled);
        keyClick(Qt.Key_Return);
        tryVerify(() => asked().length > 0);
        daemon.release();
        tryCompare(page, "signedIn", true);
        compare(asked().length, 1);
    }

    function test_theHostMayChooseAnotherUserMeanwhile() {
        show(1000);
        daemon.hold("Authenticate");
        ask("1234");
        page.user = 1001;
        compare(note(), "");
        compare(page.settled, true);
        ask("0000");
        daemon.release();
        tryRefusal();
        compare(claims.count, 0);
    }

    function test_aRequestWaitsUntilTheFormerClientHasGone() {
        show(1000);
        daemon.hold("Authenticate", 1);
        ask("1234");
        page.user = 1001;
        item("secret").text = "9876";
        item("submit").clicked();
        // Nothing is deleted in an event loop inside another.
        let error = null;
        try {
            daemon.waitForCalls("Authenticate", 2, 500);
        } catch (timeout) {
            error = timeout;
        }
        verify(error);
        verify(item("attempt").existing);
        tryCompare(page, "signedIn", true);
        compare(heading(), "Signed in as Robin");
        verify(peers()[0] !== peers()[1]);
    }

    function test_aSlowFactorIsWaitedFor() {
        daemon.setOption("worker/service-factors/login", ["slow"], 1000);
        show(1000);
        tryForm("slow");
        const notes = [];
        item("note").textChanged.connect(() => notes.push(note()));
        enter("1234");
        tryCompare(page, "signedIn", true);
        compare(notes, ["Checking…", ""]);
    }

    function test_tryingAgainIsOfferedWhenTheDaemonDoesNotAnswer_data() {
        return [{ tag: "error", method: "fail" }, { tag: "mute", method: "mute" }];
    }

    function test_tryingAgainIsOfferedWhenTheDaemonDoesNotAnswer(data) {
        daemon[data.method]("Authenticate");
        show(1000);
        askAndGiveUp("1234");
        daemon.behave();
        compare(page.settled, true);
        compare(note(), "");
        compare(item("submit").text, "Sign in");
        signIn();
    }

    function test_aLateAnswerSignsNobodyIn_data() {
        return [{ tag: "given up", leave: () => {
            giveUp();
            click("back");
            click("user1001");
        } }, { tag: "ended by itself", leave: () => {
            item("attempt").longest = 100;
            tryRefusal("There was no answer. Please try again.");
            item("attempt").longest = 600000;
        } }];
    }

    function test_aLateAnswerSignsNobodyIn(data) {
        show(1000);
        daemon.hold("Authenticate", 1);
        ask("1234");
        data.leave();
        tryVerify(() => !daemon.state().peers.includes(peers()[0]));
        daemon.release();
        enter("0000");
        tryRefusal();
        compare(claims.count, 0);
    }

    function test_theAnswerToARequestGivenUpIsAboutNoOther_data() {
        const cases = [{ tag: "a success", secrets: ["1234", "0000"], user: 1001, signal: "Authenticated",
                         args: "([byte 0x01, 0x02],)", note: notAccepted, heading: "Robin", claims: 0 },
                       { tag: "a failure", secrets: ["4321", "1234"], user: 1000, signal: "AuthenticationFailed",
                         args: "()", note: "", heading: "Signed in as Alex", claims: 1 }];
        // Both answers are sent at once, or the first while the second request is under way.
        return cases.concat(cases.map(row => Object.assign({}, row, { tag: row.tag + ", one by one", apart: true })));
    }

    function test_theAnswerToARequestGivenUpIsAboutNoOther(data) {
        show(1000);
        if (data.apart)
            daemon.mute("Authenticate", 1);
        else
            daemon.hold("Authenticate", 2);
        askAndGiveUp(data.secrets[0]);
        if (data.user !== 1000) {
            click("back");
            click("user" + data.user);
        }
        if (data.apart)
            daemon.hold("Authenticate", 1);
        ask(data.secrets[1]);
        compare(page.settled, false);
        if (data.apart)
            answerTheFirst(data.signal, data.args);
        daemon.release();
        tryCompare(page, "settled", true);
        compare(note(), data.note);
        compare(heading(), data.heading);
        compare(claims.count, data.claims);
        verify(peers()[0] !== peers()[1]);
        compare(asked(), [question("code", data.secrets[0], 1000), question("code", data.secrets[1], data.user)]);
    }

    function test_aRequestThatCannotBeSentIsARefusal() {
        show(1000);
        tryVerify(() => item("secret").activeFocus);
        item("secret").text = "\ud800";
        keyClick(Qt.Key_Return);
        tryRefusal();
        compare(asked(), []);
        signIn();
    }

    function test_anEmptyTokenIsNone() {
        show(1000);
        daemon.answer("Authenticate", "(true,)", 1);
        ask("4321");
        daemon.emitSignal("Authenticated", "(@ay [],)");
        daemon.emitSignal("AuthenticationFailed");
        tryRefusal();
        compare(claims.count, 0);
    }

    function test_whatANewClientSaysOfALockedDeviceIsNoFailure() {
        show(1000);
        daemon.delay("GetState", 300, 1);
        signIn();
        compare(asked().length, 1);
    }

    function test_aClientThatDoesNotLearnTheStateIsGivenUp() {
        show(1000);
        daemon.mute("GetState", 1);
        enter("1234");
        daemon.waitForCalls("GetState", 1, 60000);
        giveUp();
        compare(asked(), []);
        signIn();
        compare(asked().length, 1);
    }

    function test_whatCouldNotBeSentInTimeIsNeverSent() {
        show(1000);
        daemon.hold("GetState", 1);
        enter("1234");
        daemon.waitForCalls("GetState", 1, 60000);
        page.patience = 100;
        tryVerify(() => item("submit").text === "Try again");
        compare(item("attempt").params, null);
        // Now the client learns that the device is locked, and could ask.
        daemon.release();
        tryVerify(() => item("attempt").existing.isSettled);
        wait(3 * item("attempt").frame);
        compare(asked(), []);
    }

    // Factors

    function test_translatedTitlesAreKept() {
        compare(Factors.title("code", "Geheimzahl"), "Geheimzahl");
        compare(Factors.title("code", "authd-factor-code"), "Code");
        compare(Factors.title("iris", "authd-factor-iris"), "iris");
    }

    function test_aDisabledFactorIsNotAskedFor() {
        daemon.setOption("worker/service-factors/login", ["code", "smartcard"], 1000);
        daemon.setOption("worker/disabled-factors", ["smartcard"], 1000);
        show(1000);
        tryForm("Code");
        signIn();
    }

    function test_aUserWithoutFactorsIsTold() {
        daemon.setOption("worker/service-factors/login", [], 1000);
        show(1000);
        tryVerify(() => item("noFactor").visible);
        compare(item("noFactor").text, "No way for Alex to sign in is known.");
        verify(!item("secret").visible);
    }

    function test_whatCouldNotBeReadIsReadAgain() {
        daemon.setOption("worker/service-factors/login", [], 1000);
        show(1000);
        setUnannounced("worker/service-factors/login", ["code"], 1000);
        daemon.fail("GetUserOptions");
        click("again");
        compare(item("noFactor").text, "No way for Alex to sign in is known.");
        daemon.behave();
        click("again");
        tryForm("Code");
        verify(!item("again").visible);
        verify(!item("noFactor").visible);
        signIn();
    }

    function test_aChangeMadeElsewhereIsFollowed() {
        show(1000);
        tryForm("Code");
        daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
        tryForm("Sudis");
    }

    function test_severalFactorsAreAskedForOneAfterTheOther() {
        daemon.setOption("worker/service-factors/login", ["sudis", "code"], 1000);
        show(1000);
        tryForm("Code");
        compare(item("steps").text, "Step 1 of 2: Code, Sudis");
        compare(item("submit").text, "Next");
        enter("1234");
        tryForm("Sudis");
        compare(item("steps").text, "Step 2 of 2: Code, Sudis");
        compare(page.signedIn, false);
        enter("correct horse");
        tryCompare(page, "signedIn", true);
        compare(asked(), [question("code", "1234", 1000), question("sudis", "correct horse", 1000)]);
        verify(peers()[0] !== peers()[1]);
    }

    function test_aTokenThatComesTwiceIsNoSecondFactor() {
        showSecondStep();
        const peer = peers()[0];
        daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)", { peer: peer });
        daemon.hold("Authenticate", 1);
        ask("wrong");
        compare(asked().length, 2);
        verify(!daemon.state().peers.includes(peer));
        compare(page.step, 1);
        daemon.release();
        tryForm("Code");
        compare(note(), "Sudis was not accepted. Please try again.");
        compare(claims.count, 0);
    }

    function test_leavingTheSecondFactorStartsOver_data() {
        return [{ tag: "given up", how: giveUp }, { tag: "locked", how: () => daemon.lock() }];
    }

    function test_leavingTheSecondFactorStartsOver(data) {
        daemon.unlock();
        showSecondStep();
        daemon.hold("Authenticate", 1);
        ask("correct horse");
        data.how();
        tryForm("Code");
        compare(page.settled, true);
        compare(note(), "");
        daemon.release();
        enter("1234");
        tryForm("Sudis");
        compare(claims.count, 0);
        signIn("correct horse");
    }

    function test_aFailureStartsOverWithTheFirstFactor() {
        showSecondStep();
        enter("wrong");
        tryForm("Code");
        compare(note(), "Sudis was not accepted. Please try again.");
        compare(claims.count, 0);
    }

    function test_aTokenLostBetweenTwoFactorsStartsOver_data() {
        return [{ tag: "locked", how: () => daemon.lock() },
                { tag: "dropped", how: () => daemon.emitSignal("AuthenticationFailed") },
                { tag: "restarted", how: () => daemon.restart() }];
    }

    function test_aTokenLostBetweenTwoFactorsStartsOver(data) {
        daemon.unlock();
        showSecondStep();
        data.how();
        tryForm("Code");
        compare(note(), "");
    }

    function test_aFactorChosenElsewhereBetweenTwoStartsOver() {
        showSecondStep();
        daemon.setOption("worker/service-factors/login", ["code", "smartcard", "sudis"], 1000);
        tryVerify(() => item("steps").text === "Step 1 of 3: Code, Smart card, Sudis");
        tryForm("Code");
    }

    function test_aFactorThatIsNoLongerChosenSignsNobodyIn() {
        show(1000);
        daemon.hold("Authenticate");
        ask("1234");
        daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
        tryForm("Sudis");
        compare(page.settled, true);
        ask("wrong");
        daemon.release();
        tryRefusal("Sudis was not accepted. Please try again.");
        compare(claims.count, 0);
    }

    // The last login

    function test_theLastLoginIsShownToWhoWantsToSeeIt() {
        show(1000);
        verify(item("lastLogin").visible);
        compare(item("lastLogin").text, "Last sign-in: 2026-11-20 08:15");
    }

    function test_theLastLoginIsNotShownToWhoDoesNot() {
        daemon.setOption("worker/last-login-date", "2026-11-19 09:00", 1001);
        show(1000);
        click("back");
        verify(!item("lastLogin").visible);
        click("user1001");
        tryForm("Code");
        verify(!item("lastLogin").visible);
    }

    function test_theLastLoginIsReadOnceAUserChoice() {
        show(0);
        click("user1000");
        tryForm("Code");
        width = 800;
        tryCompare(page, "width", 800);
        signIn();
        for (const option of ["last-login-date", "show-last-login"])
            compare(daemon.calls("GetUserOption").filter(call => call.args.includes(option)).length, 1);
    }

    // The daemon and the device

    function test_aLockedDeviceIsNoFailure() {
        show(1000);
        daemon.lock();
        tryForm("Code");
        compare(note(), "");
    }

    function test_anObstacleIsToldUntilItEndsAndIsNoFailure_data() {
        const lockout = (kind, text) => ({ tag: kind, text: text, settled: true, before: () => type("12"),
                                           how: () => daemon.lockout(kind), end: () => daemon.lockout("none") });
        const absence = (tag, before) => ({ tag: tag, text: away, settled: false, before: before,
                                            how: () => daemon.stop(), end: () => daemon.start() });
        return [lockout("code-entry", "Too many wrong entries. Please wait a moment."),
                lockout("manager", "This device has been locked by its manager."),
                absence("away", () => type("12")), absence("gone while it is asked", () => {
                    daemon.hold("Authenticate");
                    ask("1234");
                    compare(page.settled, false);
                    daemon.behave();
                })];
    }

    function test_anObstacleIsToldUntilItEndsAndIsNoFailure(data) {
        show(1000);
        tryForm("Code");
        data.before();
        data.how();
        tryVerify(() => note() === data.text);
        verify(!item("secret").enabled);
        verify(!item("submit").enabled);
        compare(item("secret").text, "");
        compare(page.settled, data.settled);
        data.end();
        tryForm("Code");
        compare(note(), "");
        compare(item("secret").text, "");
        signIn();
    }

    function test_aDaemonThatComesBackIsReadAnew() {
        show(1000);
        setUnannounced("worker/service-factors/login", ["sudis"], 1000);
        daemon.restart();
        tryForm("Sudis");
    }

    function test_theLossOfTheTokenSignsOut_data() {
        return [{ tag: "restarted", how: () => daemon.restart() }, { tag: "locked", how: () => daemon.lock() },
                { tag: "dropped", how: () => daemon.emitSignal("AuthenticationFailed") }];
    }

    function test_theLossOfTheTokenSignsOut(data) {
        daemon.unlock();
        show(1000);
        signIn();
        data.how();
        tryCompare(page, "signedIn", false);
        tryForm("Code");
        compare(note(), "");
        compare(heading(), "Alex");
    }

    function test_aStateThatIsNotKnownSignsOut() {
        show(1000);
        signIn();
        daemon.setLockState(AuthDevlockClient.Undefined);
        tryCompare(page, "signedIn", false);
    }

    function test_aStateThatIsNotKnownEndsWhatIsUnderWay() {
        show(1000);
        daemon.hold("Authenticate", 1);
        ask("1234");
        daemon.setLockState(AuthDevlockClient.Undefined);
        tryVerify(() => note() === away);
        compare(item("attempt").stage, Attempt.Idle);
        daemon.release();
        daemon.lock();
        tryForm("Code");
        compare(claims.count, 0);
    }

    function test_unlockingTheDeviceSignsNobodyOut() {
        show(1000);
        signIn();
        daemon.unlock();
        const other = createTemporaryObject(watch, page);
        tryCompare(other, "state", AuthDevlockClient.Unlocked);
        compare(page.signedIn, true);
        daemon.lock();
        tryCompare(page, "signedIn", false);
        verify(item("secret").visible);
    }

    function test_lockingTheDeviceWhileTheDaemonIsAskedIsNoFailure() {
        daemon.unlock();
        show(1000);
        daemon.hold("Authenticate", 1);
        ask("1234");
        daemon.lock();
        tryCompare(page, "settled", true);
        compare(note(), "");
        daemon.release();
        enter("4321");
        tryRefusal();
        compare(claims.count, 0);
    }

    function test_threeWrongCodesLockOut() {
        show(1000);
        for (let failure = 1; failure <= 3; ++failure) {
            enter("4321");
            tryCompare(page, "settled", true);
        }
        tryVerify(() => note() === "Too many wrong entries. Please wait a moment.");
        daemon.lockout("none");
        tryForm("Code");
        compare(note(), "");
    }

    // The looks

    function test_whatComesFromElsewhereIsNoMarkup() {
        const markup = "<b>x</b>&y";
        daemon.setOption("worker/last-login-date", markup, 1000);
        daemon.setOption("devlock/show-last-login", true, 1000);
        show(0, [{ uid: 1000, name: markup }]);
        compare(showsPlain(markup), [markup]);
        compare(Pictures.accessibleName(item("user1000")), markup);
        click("user1000");
        tryForm("Code");
        compare(showsPlain(markup), [markup, "Last sign-in: " + markup]);
        compare(Pictures.accessibleName(item("heading")), markup);
        page.chosen = [{ name: markup, title: "" }, { name: "code", title: "" }];
        compare(item("steps").text, "Step 1 of 2: " + markup + ", Code");
        compare(showsPlain(markup).length, 4);
        compare(Pictures.accessibleDescription(item("secret")), markup);
        enter("1");
        tryRefusal(markup + " was not accepted. Please try again.");
        verify(Pictures.isPlain(item("note")));
        page.chosen = [];
        compare(showsPlain(markup).length, 3);
    }

    function test_aLongNamePushesNothingOut_data() { return sizes() }

    function test_aLongNamePushesNothingOut(data) {
        dress(data);
        show(0, [{ uid: 1000, name: longName }]);
        for (const step of ["user1000", "heading", "secret", "submit", "back"]) {
            verify(Pictures.isInside(page, reveal(item(step))), step);
            if (step === "user1000") {
                click(step);
                tryForm("Code");
            }
        }
    }

    function test_assistiveTechnologyIsTold() {
        show(1000);
        tryForm("Code");
        listen("heading", "Heading");
        compare(Pictures.accessibleDescription(item("secret")), "Code");
        enter("4321");
        tryRefusal();
        listen("note", "AlertMessage");
        compare(Pictures.accessibleName(item("note")), notAccepted);
        listen("submit", "Button");
    }

    function test_looks_data() { return sizes() }

    function test_looks(data) {
        dress(data);
        show(0);
        lookAt("users", data, ["Who is signing in?", "Alex", "Robin"]);
        tabTo("user1001");
        lookAt("users-focus", data, []);
        click("user1000");
        tryForm("Code");
        lookAt("form", data, ["Alex", "Last sign-in: 2026-11-20 08:15", "Code", "Sign in", "Someone else"]);
        type("1234");
        lookAt("entered", data, ["Sign in"]);
        daemon.hold("Authenticate");
        keyClick(Qt.Key_Return);
        lookAt("checking", data, ["Checking…"]);
        tryVerify(() => asked().length > 0);
        daemon.behave();
        daemon.release();
        tryCompare(page, "signedIn", true);
        lookAt("signed-in", data, ["Signed in as Alex", "Sign out"]);
        tabTo("back");
        lookAt("signed-in-focus", data, []);

        click("back");
        click("user1000");
        enter("4321");
        tryRefusal();
        lookAt("failed", data, [notAccepted]);
        page.patience = 100;
        daemon.mute("Authenticate");
        enter("1234");
        tryVerify(() => item("submit").text === "Try again");
        lookAt("stuck", data, ["There is no answer yet.", "Try again"]);
        click("submit");

        daemon.lockout("code-entry");
        tryVerify(() => !item("secret").enabled);
        lookAt("lockout", data, ["Too many wrong entries. Please wait a moment."]);
        daemon.lockout("none");
        tryVerify(() => note() === "");
        daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
        tryVerify(() => item("steps").visible);
        lookAt("steps", data, ["Step 1 of 2: Code, Sudis", "Next"]);
        daemon.setOption("worker/service-factors/login", [], 1000);
        tryVerify(() => item("noFactor").visible);
        lookAt("no-factor", data, ["No way for Alex to sign in is known.", "Try again"]);
        daemon.setOption("worker/service-factors/login", ["code"], 1000);
        daemon.stop();
        tryVerify(() => note() === away);
        lookAt("away", data, [away]);
    }
}
