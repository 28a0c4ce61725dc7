import QtQuick 2.15
import QtQuick.Window 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import Vantora.Tests 1.0
import "../../../examples/login"
import "../../../examples/style"
import "../../../examples/logic"

Item {
    id: scene

    width: 360
    height: 720

    StandIn { id: daemon }

    Component {
        id: screen

        LoginScreen {
            anchors.fill: parent
            patience: 300
            deviceInterval: 1000
        }
    }

    // Whether the screen has ever claimed that somebody is signed in.
    SignalSpy {
        id: claims

        signalName: "signedInChanged"
    }

    Component {
        id: watch

        AuthDevlockClient {}
    }

    PageTest {
        name: "login"

        function init() {
            daemon.reset();
            Theme.dark = false;
            scene.width = 360;
            scene.height = 720;
        }

        function show(user) {
            page = createTemporaryObject(screen, scene, { user: user });
            tryCompare(page, "settled", true);
            claims.target = page;
            claims.clear();
            daemon.clearCalls();
        }

        // That the form asks for this factor, and can be used.
        function tryForm(label) {
            const secret = item("secret");
            tryVerify(() => secret.visible && secret.enabled && secret.placeholderText === label, undefined, label);
        }

        function enter(secret) {
            tryVerify(() => item("secret").activeFocus);
            type(secret);
            keyClick(Qt.Key_Return);
        }

        function signIn() {
            enter("1234");
            tryCompare(page, "signedIn", true);
        }

        // What the daemon was asked, without the challenges.
        function asked() {
            return daemon.calls("Authenticate").map(call => call.args.replace(/'challenge': <\[[^\]]*\]>, /, ""));
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

        // Enters a secret, waits until the daemon is asked and the screen offers to try again, and does.
        function enterAndGiveUp(secret) {
            const count = asked().length;
            enter(secret);
            tryVerify(() => item("submit").text === "Try again" && asked().length > count);
            click("submit");
        }

        function note() { return item("note").text }
        function heading() { return item("heading").text }

        // Choosing the user

        function test_noUserIsChosenAtFirst() {
            show(0);
            compare(heading(), "Who is signing in?");
            verify(!item("secret").visible);
            verify(item("user1000").visible);
            verify(item("user1001").visible);
        }

        function test_aUserWhomTheHostDoesNotKnowIsNotChosen() {
            show(4711);
            compare(page.user, 0);
            compare(heading(), "Who is signing in?");
        }

        function test_theHostNamesItsUsers() {
            page = createTemporaryObject(screen, scene, { users: [{ uid: 1001, name: "Kim" }], user: 1001 });
            tryForm("Code");
            compare(heading(), "Kim");
        }

        function test_aUserIsChosenWithTheMouse() {
            show(0);
            click("user1001");
            compare(page.user, 1001);
            compare(AuthSettingsClient.uid, 1001);
            compare(heading(), "Robin");
            tryForm("Code");
        }

        function test_aUserIsChosenWithAFinger() {
            show(0);
            tap("user1000");
            compare(heading(), "Alex");
        }

        function test_aUserIsChosenWithTheKeyboard_data() {
            return [{ tag: "Return", key: Qt.Key_Return }, { tag: "Enter", key: Qt.Key_Enter },
                    { tag: "Space", key: Qt.Key_Space }];
        }

        function test_aUserIsChosenWithTheKeyboard(data) {
            show(0);
            tabTo("user1001");
            verify(item("user1001").visualFocus);
            keyClick(data.key);
            compare(page.user, 1001);
        }

        function test_anyIdOfAUserIsSentAsItIs_data() {
            return [{ tag: "2^31", uid: 2147483648 }, { tag: "2^32-2", uid: 4294967294 }];
        }

        function test_anyIdOfAUserIsSentAsItIs(data) {
            daemon.answer("GetUserOptions", "({'worker/service-factors/login': <['code']>},)");
            daemon.answer("GetUserOption", "(<''>,)");
            daemon.answer("Authenticate", "(true,)");
            page = createTemporaryObject(screen, scene, { users: [{ uid: data.uid, name: "Kim" }], user: data.uid });
            page.patience = 600000;
            tryForm("Code");
            compare(page.user, data.uid);
            compare(AuthSettingsClient.uid, data.uid);
            enter("1234");
            tryVerify(() => asked().length > 0);
            compare(asked(), ["('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <int64 " + data.uid + ">})"]);
            const reads = daemon.calls("GetUserOptions").concat(daemon.calls("GetUserOption"));
            compare(reads.filter(call => !call.args.startsWith("(uint32 " + data.uid + ", ")), []);
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

        function test_theRightCodeSignsIn() {
            show(1000);
            tryForm("Code");
            signIn();
            compare(heading(), "Signed in as Alex");
            verify(!item("secret").visible);
            compare(daemon.state().tokens, 1);
            compare(asked(), ["('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <1000>})"]);
        }

        function test_anotherUserSignsIn() {
            show(0);
            click("user1001");
            enter("9876");
            tryCompare(page, "signedIn", true);
            compare(heading(), "Signed in as Robin");
            compare(asked(), ["('login', {'data': <'9876'>, 'factor': <'code'>, 'uid': <1001>})"]);
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

        function test_aSecondReturnDoesNotSignOut_data() {
            return [{ tag: "Return", key: Qt.Key_Return }, { tag: "Enter", key: Qt.Key_Enter },
                    { tag: "Space", key: Qt.Key_Space }];
        }

        function test_aSecondReturnDoesNotSignOut(data) {
            show(1000);
            signIn();
            keyClick(data.key);
            compare(page.signedIn, true);
            // Nor is anything entered any more.
            type("12");
            compare(item("secret").text, "");
            compare(Pictures.accessibleName(scene.Window.activeFocusItem), "Signed in as Alex");
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

        function test_aWrongCodeIsTold() {
            show(1000);
            enter("4321");
            tryCompare(page, "settled", true);
            compare(note(), "Code was not accepted. Please try again.");
            compare(item("secret").text, "");
            compare(item("secret").activeFocus, true);
            compare(page.signedIn, false);
            type("1");
            compare(note(), "");
        }

        function test_theRightCodeAfterAWrongOne() {
            show(1000);
            enter("4321");
            tryCompare(page, "settled", true);
            signIn();
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

        function test_whatIsEnteredIsForgottenWhenNobodyCanSignIn_data() {
            return [{ tag: "lockout", how: () => daemon.lockout("code-entry"), back: () => daemon.lockout("none") },
                    { tag: "away", how: () => daemon.stop(), back: () => daemon.start() }];
        }

        function test_whatIsEnteredIsForgottenWhenNobodyCanSignIn(data) {
            show(1000);
            tryForm("Code");
            type("12");
            data.how();
            tryVerify(() => !item("secret").enabled);
            compare(item("secret").text, "");
            data.back();
            tryForm("Code");
            compare(item("secret").text, "");
            signIn();
        }

        function test_theSecretIsNotShown() {
            show(1000);
            tryForm("Code");
            type("1234");
            compare(item("secret").displayText.indexOf("1"), -1);
        }

        function test_progressIsShownAndNothingElseCanBeDone() {
            show(1000);
            page.patience = 600000;
            daemon.hold("Authenticate");
            enter("1234");
            tryCompare(page, "settled", false);
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
            enter("1234");
            tryVerify(() => asked().length > 0);
            page.user = 1001;
            compare(note(), "");
            compare(page.settled, true);
            enter("0000");
            tryVerify(() => asked().length === 2);
            daemon.release();
            tryVerify(() => note() === "Code was not accepted. Please try again.");
            compare(claims.count, 0);
        }

        function test_aRequestWaitsUntilTheFormerClientHasGone() {
            show(1000);
            daemon.hold("Authenticate", 1);
            enter("1234");
            tryVerify(() => asked().length > 0);
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
            page.patience = 600000;
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
            enter("1234");
            tryVerify(() => note() === "There is no answer yet.");
            compare(page.settled, false);
            compare(item("submit").text, "Try again");
            daemon.behave();
            click("submit");
            compare(page.settled, true);
            compare(note(), "");
            compare(item("submit").text, "Sign in");
            signIn();
        }

        function test_theAnswerToARequestGivenUpSignsNobodyIn() {
            show(1000);
            daemon.hold("Authenticate", 1);
            enterAndGiveUp("1234");
            click("back");
            click("user1001");
            tryVerify(() => !daemon.state().peers.includes(peers()[0]));
            daemon.release();
            enter("0000");
            tryVerify(() => note() === "Code was not accepted. Please try again.");
            compare(claims.count, 0);
        }

        function test_anotherUserIsNotSignedInByTheAnswerToARequestGivenUp_data() {
            return [
                // Both answers are sent at once.
                { tag: "hold", first: () => daemon.hold("Authenticate", 2), second: () => {},
                  answers: () => daemon.release() },
                // The first answer is sent while the second request is under way.
                { tag: "one by one", first: () => daemon.mute("Authenticate", 1),
                  second: () => daemon.hold("Authenticate", 1), answers: () => {
                      answerTheFirst("Authenticated", "([byte 0x01, 0x02],)");
                      daemon.release();
                  } },
            ];
        }

        function test_anotherUserIsNotSignedInByTheAnswerToARequestGivenUp(data) {
            show(1000);
            data.first();
            enterAndGiveUp("1234");
            click("back");
            click("user1001");
            data.second();
            page.patience = 600000;
            enter("0000");
            tryVerify(() => asked().length === 2);
            compare(page.settled, false);
            data.answers();
            tryCompare(page, "settled", true);
            compare(note(), "Code was not accepted. Please try again.");
            compare(heading(), "Robin");
            compare(claims.count, 0);
            verify(peers()[0] !== peers()[1]);
            compare(asked(), ["('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <1000>})",
                              "('login', {'data': <'0000'>, 'factor': <'code'>, 'uid': <1001>})"]);
        }

        function test_theFailureOfARequestGivenUpFailsNoOther_data() {
            return [{ tag: "hold", first: () => daemon.hold("Authenticate", 2), second: () => {},
                      answers: () => daemon.release() },
                    { tag: "one by one", first: () => daemon.mute("Authenticate", 1),
                      second: () => daemon.hold("Authenticate", 1), answers: () => {
                          answerTheFirst("AuthenticationFailed");
                          daemon.release();
                      } }];
        }

        function test_theFailureOfARequestGivenUpFailsNoOther(data) {
            show(1000);
            data.first();
            enterAndGiveUp("4321");
            data.second();
            page.patience = 600000;
            enter("1234");
            tryVerify(() => asked().length === 2);
            data.answers();
            tryCompare(page, "settled", true);
            compare(note(), "");
            compare(heading(), "Signed in as Alex");
        }

        function test_aRequestThatCannotBeSentIsARefusal() {
            show(1000);
            tryVerify(() => item("secret").activeFocus);
            item("secret").text = "\ud800";
            keyClick(Qt.Key_Return);
            tryVerify(() => note() === "Code was not accepted. Please try again.");
            compare(asked(), []);
            signIn();
        }

        function test_anEmptyTokenIsNone() {
            show(1000);
            page.patience = 600000;
            daemon.answer("Authenticate", "(true,)", 1);
            enter("4321");
            tryVerify(() => asked().length > 0);
            daemon.emitSignal("Authenticated", "(@ay [],)");
            daemon.emitSignal("AuthenticationFailed");
            tryCompare(page, "settled", true);
            compare(note(), "Code was not accepted. Please try again.");
            compare(claims.count, 0);
        }

        function test_whatANewClientSaysOfALockedDeviceIsNoFailure() {
            show(1000);
            page.patience = 600000;
            daemon.delay("GetState", 300, 1);
            signIn();
            compare(asked().length, 1);
        }

        function test_aClientThatDoesNotLearnTheStateIsGivenUp() {
            show(1000);
            daemon.mute("GetState", 1);
            enter("1234");
            tryVerify(() => item("submit").text === "Try again");
            compare(asked(), []);
            click("submit");
            signIn();
            compare(asked().length, 1);
        }

        // Factors

        function test_factorsHaveHumanNames_data() {
            return [{ tag: "code", label: "Code" }, { tag: "smartcard", label: "Smart card" },
                    { tag: "sudis", label: "Sudis" }, { tag: "slow", label: "slow" }];
        }

        function test_factorsHaveHumanNames(data) {
            daemon.setOption("worker/service-factors/login", [data.tag], 1000);
            show(1000);
            tryForm(data.label);
        }

        function test_translatedTitlesAreKept() {
            compare(Factors.title("code", "Geheimzahl"), "Geheimzahl");
            compare(Factors.title("code", "authd-factor-code"), "Code");
            compare(Factors.title("iris", "authd-factor-iris"), "iris");
        }

        function test_theChosenFactorIsAskedFor() {
            daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
            show(1000);
            tryForm("Sudis");
            enter("correct horse");
            tryCompare(page, "signedIn", true);
            compare(asked(), ["('login', {'data': <'correct horse'>, 'factor': <'sudis'>, 'uid': <1000>})"]);
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
            daemon.request({ do: "set-option", key: "worker/service-factors/login", value: ["code"], uid: 1000,
                             announce: false });
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
            tryVerify(() => item("secret").placeholderText === "Sudis");
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
            compare(asked(), ["('login', {'data': <'1234'>, 'factor': <'code'>, 'uid': <1000>})",
                              "('login', {'data': <'correct horse'>, 'factor': <'sudis'>, 'uid': <1000>})"]);
            verify(peers()[0] !== peers()[1]);
        }

        function test_aTokenThatComesTwiceIsNoSecondFactor() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            show(1000);
            enter("1234");
            tryForm("Sudis");
            const peer = peers()[0];
            daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)", { peer: peer });
            daemon.hold("Authenticate", 1);
            enter("wrong");
            tryVerify(() => asked().length === 2);
            verify(!daemon.state().peers.includes(peer));
            compare(page.step, 1);
            daemon.release();
            tryForm("Code");
            compare(note(), "Sudis was not accepted. Please try again.");
            compare(claims.count, 0);
        }

        function test_givingUpTheSecondFactorStartsOver() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            show(1000);
            enter("1234");
            tryForm("Sudis");
            daemon.hold("Authenticate", 1);
            enterAndGiveUp("correct horse");
            tryForm("Code");
            compare(note(), "");
            daemon.release();
            enter("1234");
            tryForm("Sudis");
            compare(claims.count, 0);
            enter("correct horse");
            tryCompare(page, "signedIn", true);
        }

        function test_aFailureStartsOverWithTheFirstFactor() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            show(1000);
            enter("1234");
            tryForm("Sudis");
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
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            daemon.unlock();
            show(1000);
            enter("1234");
            tryForm("Sudis");
            data.how();
            tryForm("Code");
            compare(note(), "");
        }

        function test_aTokenLostWhileTheSecondFactorIsJudgedStartsOver() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            daemon.unlock();
            show(1000);
            enter("1234");
            tryForm("Sudis");
            daemon.hold("Authenticate", 1);
            enter("correct horse");
            tryVerify(() => asked().length === 2);
            daemon.lock();
            tryForm("Code");
            compare(page.settled, true);
            compare(note(), "");
            daemon.release();
            enter("1234");
            tryForm("Sudis");
            compare(claims.count, 0);
        }

        function test_aFactorChosenElsewhereBetweenTwoStartsOver() {
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            show(1000);
            enter("1234");
            tryForm("Sudis");
            daemon.setOption("worker/service-factors/login", ["code", "smartcard", "sudis"], 1000);
            tryVerify(() => item("steps").text === "Step 1 of 3: Code, Smart card, Sudis");
            tryForm("Code");
        }

        function test_aFactorThatIsNoLongerChosenSignsNobodyIn() {
            show(1000);
            daemon.hold("Authenticate");
            enter("1234");
            tryVerify(() => asked().length > 0);
            daemon.setOption("worker/service-factors/login", ["sudis"], 1000);
            tryForm("Sudis");
            compare(page.settled, true);
            enter("wrong");
            tryVerify(() => asked().length === 2);
            daemon.release();
            tryVerify(() => note() === "Sudis was not accepted. Please try again.");
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
            scene.width = 800;
            tryCompare(page, "width", 800);
            signIn();
            compare(daemon.calls("GetUserOption").filter(call => call.args.includes("last-login-date")).length, 1);
            compare(daemon.calls("GetUserOption").filter(call => call.args.includes("show-last-login")).length, 1);
        }

        // The daemon and the device

        function test_aLockedDeviceIsNoFailure() {
            show(1000);
            daemon.lock();
            tryForm("Code");
            compare(note(), "");
        }

        function test_aDaemonThatIsAwayIsTold() {
            show(1000);
            daemon.stop();
            tryVerify(() => note() === "Waiting for the authentication service…");
            verify(!item("secret").enabled);
            verify(!item("submit").enabled);
            compare(page.settled, false);
            daemon.start();
            tryForm("Code");
            compare(note(), "");
            signIn();
        }

        function test_aDaemonThatGoesWhileItIsAskedIsNoFailure() {
            show(1000);
            daemon.hold("Authenticate");
            enter("1234");
            tryVerify(() => asked().length > 0);
            compare(page.settled, false);
            daemon.behave();
            daemon.stop();
            tryVerify(() => note() === "Waiting for the authentication service…");
            daemon.start();
            tryForm("Code");
            compare(note(), "");
            signIn();
        }

        function test_aDaemonThatComesBackIsReadAnew() {
            show(1000);
            daemon.request({ do: "set-option", key: "worker/service-factors/login", value: ["sudis"], uid: 1000,
                             announce: false });
            daemon.restart();
            tryVerify(() => item("secret").placeholderText === "Sudis");
        }

        function test_theLossOfTheDaemonSignsOut() {
            show(1000);
            signIn();
            daemon.restart();
            tryCompare(page, "signedIn", false);
            tryForm("Code");
            compare(heading(), "Alex");
        }

        function test_lockingTheDeviceSignsOut() {
            daemon.unlock();
            show(1000);
            signIn();
            daemon.lock();
            tryCompare(page, "signedIn", false);
            tryForm("Code");
        }

        function test_unlockingTheDeviceSignsNobodyOut() {
            show(1000);
            signIn();
            daemon.unlock();
            const other = createTemporaryObject(watch, scene);
            tryCompare(other, "state", AuthDevlockClient.Unlocked);
            compare(page.signedIn, true);
            daemon.lock();
            tryCompare(page, "signedIn", false);
            verify(item("secret").visible);
        }

        function test_aTokenThatIsTakenBackSignsOut() {
            show(1000);
            signIn();
            daemon.emitSignal("AuthenticationFailed");
            tryCompare(page, "signedIn", false);
            compare(note(), "");
        }

        function test_lockingTheDeviceWhileTheDaemonIsAskedIsNoFailure() {
            daemon.unlock();
            show(1000);
            page.patience = 600000;
            daemon.hold("Authenticate", 1);
            enter("1234");
            tryVerify(() => asked().length > 0);
            daemon.lock();
            tryCompare(page, "settled", true);
            compare(note(), "");
            daemon.release();
            enter("4321");
            tryVerify(() => note() === "Code was not accepted. Please try again.");
            compare(claims.count, 0);
        }

        function test_aLockoutIsToldUntilItEnds_data() {
            return [{ tag: "code-entry", text: "Too many wrong entries. Please wait a moment." },
                    { tag: "manager", text: "This device has been locked by its manager." }];
        }

        function test_aLockoutIsToldUntilItEnds(data) {
            show(1000);
            tryForm("Code");
            daemon.lockout(data.tag);
            tryVerify(() => note() === data.text);
            verify(!item("secret").enabled);
            daemon.lockout("none");
            tryForm("Code");
            compare(note(), "");
            tryVerify(() => item("secret").activeFocus);
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
            page = createTemporaryObject(screen, scene, { users: [{ uid: 1000, name: markup }] });
            tryCompare(page, "settled", true);
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
            tryVerify(() => note() === markup + " was not accepted. Please try again.");
            verify(Pictures.isPlain(item("note")));
            page.chosen = [];
            compare(showsPlain(markup).length, 3);
        }

        function test_aLongNamePushesNothingOut_data() { return sizes() }

        function test_aLongNamePushesNothingOut(data) {
            scene.width = data.width;
            scene.height = data.height;
            const name = "Wolfeschlegelsteinhausenbergerdorffwelchevoralternwarengewissenhaft";
            page = createTemporaryObject(screen, scene, { users: [{ uid: 1000, name: name }] });
            tryCompare(page, "settled", true);
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
            tryCompare(page, "settled", true);
            listen("note", "AlertMessage");
            compare(Pictures.accessibleName(item("note")), "Code was not accepted. Please try again.");
            listen("submit", "Button");
        }

        function test_looks_data() { return sizes() }

        function test_looks(data) {
            Theme.dark = data.dark;
            scene.width = data.width;
            scene.height = data.height;
            const keepAs = state => keep("login-" + state + "-" + data.tag);

            show(0);
            look(["Who is signing in?", "Alex", "Robin"]);
            keepAs("users");
            tabTo("user1001");
            keepAs("users-focus");

            click("user1000");
            tryForm("Code");
            look(["Alex", "Last sign-in: 2026-11-20 08:15", "Code", "Sign in", "Someone else"]);
            keepAs("form");
            type("1234");
            look(["Sign in"]);
            keepAs("entered");
            page.patience = 600000;
            daemon.hold("Authenticate");
            keyClick(Qt.Key_Return);
            look(["Checking…"]);
            keepAs("checking");
            tryVerify(() => asked().length > 0);
            daemon.behave();
            daemon.release();
            tryCompare(page, "signedIn", true);
            look(["Signed in as Alex", "Sign out"]);
            keepAs("signed-in");
            tabTo("back");
            keepAs("signed-in-focus");

            click("back");
            click("user1000");
            enter("4321");
            tryCompare(page, "settled", true);
            look(["Code was not accepted. Please try again."]);
            keepAs("failed");
            page.patience = 100;
            daemon.mute("Authenticate");
            enter("1234");
            tryVerify(() => item("submit").text === "Try again");
            look(["There is no answer yet.", "Try again"]);
            keepAs("stuck");
            click("submit");

            daemon.lockout("code-entry");
            tryVerify(() => !item("secret").enabled);
            look(["Too many wrong entries. Please wait a moment."]);
            keepAs("lockout");
            daemon.lockout("none");
            tryVerify(() => note() === "");
            daemon.setOption("worker/service-factors/login", ["code", "sudis"], 1000);
            tryVerify(() => item("steps").visible);
            look(["Step 1 of 2: Code, Sudis", "Next"]);
            keepAs("steps");
            daemon.setOption("worker/service-factors/login", [], 1000);
            tryVerify(() => item("noFactor").visible);
            look(["No way for Alex to sign in is known.", "Try again"]);
            keepAs("no-factor");
            daemon.setOption("worker/service-factors/login", ["code"], 1000);
            daemon.stop();
            tryVerify(() => item("note").text === "Waiting for the authentication service…");
            look(["Waiting for the authentication service…"]);
            keepAs("away");
        }
    }
}
