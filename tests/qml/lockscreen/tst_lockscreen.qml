import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import "../../../examples/logic"

LockScreenCase {
    id: test

    name: "lockscreen"

    Component {
        id: otherClient

        AuthClient {}
    }

    Component {
        id: otherDevlockClient

        AuthDevlockClient {}
    }

    function lastCall(method) {
        const calls = daemon.calls(method);
        return calls[calls.length - 1];
    }

    function waitForRefusal(reason = "That was not accepted. Please try again.") {
        tryVerify(() => !find("lock").busy && text("message") !== "");
        compare(text("message"), reason);
        compare(find("code").digits, "");
        compare(screen.unlocked, false);
    }

    // Enters a code, and waits until the daemon has been asked.
    function startAsking(code = "1234", method = "Authenticate") {
        startLocked();
        typeCode(code);
        waitForCalls(method, 1);
    }

    // Has the user entered a code whose answer is still to come.
    function startHeld(code = "1234", times = 0) {
        daemon.hold("Authenticate", times);
        startAsking(code);
    }

    function verifyNothingUnlocked() {
        settle();
        compare(screen.unlocked, false);
        compare(daemon.calls("SetDevlockState").length, 0);
    }

    function waitForState(state) {
        tryVerify(() => find("lock").deviceState === state);
    }

    function waitForNotice(title) {
        tryVerify(() => isShown("notice"));
        if (title)
            compare(find("notice").title, title);
        compare(screen.unlocked, false);
    }

    // Sets the unlock factors that the user may choose from.
    function offer(factors) { daemon.setOption("worker/service-factors/unlock", factors, 1000) }

    function sent(name) {
        return lastCall("Authenticate").args.match("'" + name + "': <([^>]*)>")[1];
    }

    function unlockWithCode() {
        waitForEntry();
        typeCode("1234");
        verifyUnlocks();
    }

    // The screen's own question about the state is answered as usual, whatever befalls its client's.
    function answerTheScreen() {
        daemon.delay("GetState", 0, 1);
    }

    // The good days.

    function test_startsLockedAndSettlesWhenTheDaemonHasTold() {
        daemon.hold("GetState");
        start();
        compare(screen.unlocked, false);
        compare(screen.settled, false);
        verify(isShown("notice"));
        verify(!isShown("prompt"));
        daemon.behave();
        daemon.release();
        tryCompare(screen, "settled", true);
        verify(isShown("prompt"));
        verify(!isShown("notice"));
        compare(screen.unlocked, false);
    }

    function test_theFirstDiscreditOfAClientIsNoFailure() {
        startLocked();
        // The screen's own question, and its client's.
        waitForCalls("GetState", 2);
        settle();
        compare(text("message"), "");
        typeCode("1234");
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_aDiscreditThatComesLateIsNoFailureEither() {
        daemon.hold("GetState");
        answerTheScreen();
        startLocked();
        waitForCalls("GetState", 2);
        typeCode("1234");
        settle();
        compare(daemon.calls("Authenticate").length, 0);
        daemon.release();
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_rightCodeUnlocksWithOneAttempt() {
        startLocked();
        typeCode("1234");
        verifyUnlocks();
        const asked = daemon.calls("Authenticate");
        compare(asked.length, 1);
        compare(asked[0].signature, "sa{sv}");
        verify(/^\('unlock', \{.*'factor': <'code'>/.test(asked[0].args), "factor");
        verify(/'data': <'1234'>/.test(asked[0].args), "data");
        verify(/'uid': <(uint32 )?1000>/.test(asked[0].args), "uid");
        verify(/'challenge': <.*byte 0x/.test(asked[0].args), "challenge");
        const set = daemon.calls("SetDevlockState");
        compare(set.length, 1);
        compare(set[0].signature, "ayi");
        verify(/^\(\[byte 0x.*\], 0\)$/.test(set[0].args), "token and state");
        compare(daemon.calls("SetState").length, 0);
        verify(isShown("unlockedPage"));
        verify(!isShown("prompt"));
    }

    function test_theCodeIsThatOfTheUser_data() {
        return [{ tag: "the daemon's default", user: 0, code: "1234" }, { tag: "another", user: 1001, code: "9876" }];
    }

    function test_theCodeIsThatOfTheUser(data) {
        user = data.user;
        startLocked();
        typeCode("0000");
        waitForRefusal();
        typeCode(data.code);
        verifyUnlocks();
        compare(/'uid'/.test(lastCall("Authenticate").args), user !== 0);
        if (user)
            verify(/^(uint32 )?1001$/.test(sent("uid")));
    }

    function test_aHighUserIdArrivesAsItIs() {
        user = 3000000000;
        startLocked();
        typeCode("1234");
        waitForRefusal();
        verify(/^([a-z0-9]+ 3000000000|3000000000(\.0)?)$/.test(sent("uid")), sent("uid"));
        openChooser();
        verify(/uint32 3000000000/.test(lastCall("GetUserOptions").args));
    }

    function test_keypadUnlocks_data() {
        return [{ tag: "mouse", hit: press }, { tag: "touch", hit: tap }];
    }

    function test_keypadUnlocks(data) {
        startLocked();
        for (const key of ["1", "2", "3", "4", "accept"])
            data.hit("key-" + key);
        verifyUnlocks();
    }

    function test_everyKeyOfTheKeypadGivesItsDigit() {
        startLocked();
        for (const key of "1234567890")
            press("key-" + key);
        compare(find("code").digits, "1234567890");
    }

    function test_aCodeFromElsewhereGoesTheSameWay() {
        startLocked();
        screen.enter("1234");
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_digitsAreShownAsDotsAndCanBeErased() {
        startLocked();
        type("123");
        compare(find("code").digits, "123");
        compare(find("code").Accessible.description, "Code, 3 digit(s) entered");
        keyClick(Qt.Key_Backspace);
        compare(find("code").digits, "12");
        press("key-erase");
        compare(find("code").digits, "1");
        keyClick("x");
        keyClick(" ");
        compare(find("code").digits, "1");
        press("key-erase");
        verify(!find("key-erase").enabled);
        verify(!find("key-accept").enabled);
        type("1".repeat(130));
        compare(find("code").digits.length, 128);
        // Nothing that was there comes back.
        keySequence(StandardKey.Undo);
        compare(find("code").digits.length, 128);
    }

    function test_wrongCodeIsRefusedAndTheRightOneUnlocksAfterwards() {
        startLocked();
        typeCode("9999");
        compare(find("code").digits, "");
        waitForRefusal();
        compare(daemon.calls("SetDevlockState").length, 0);
        type("1");
        compare(text("message"), "");
        typeCode("234");
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 2);
    }

    function test_aRefusalShakesTheFieldAndItComesToRest() {
        startLocked();
        const place = find("code").parent;
        const rest = place.mapToItem(screen, 0, 0).x;
        // Slow enough to be seen in any case.
        const shake = Array.from(find("entry").resources).find(object => object.animations);
        for (const step of Array.from(shake.animations))
            step.duration *= 20;
        let moved = false;
        typeCode("9999");
        tryVerify(() => {
            moved = moved || place.mapToItem(screen, 0, 0).x !== rest;
            return moved;
        });
        tryVerify(() => !find("lock").busy && !find("entry").shaking);
        compare(place.mapToItem(screen, 0, 0).x, rest);
    }

    function test_aCodeOfZerosIsSentLikeAnyOther() {
        startLocked();
        press("key-0");
        press("key-accept");
        waitForRefusal();
        compare(sent("data"), "'0'");
    }

    function test_anEmptyCodeIsNotSent() {
        startLocked();
        keyClick(Qt.Key_Return);
        screen.enter("");
        settle();
        compare(find("lock").busy, false);
        compare(daemon.calls("Authenticate").length, 0);
    }

    function test_aCodeIsSentOnceHoweverOftenItIsConfirmed() {
        daemon.hold("Authenticate");
        startLocked();
        const accept = find("key-accept");
        type("1234");
        keyClick(Qt.Key_Return);
        keyClick(Qt.Key_Enter);
        mouseClick(accept);
        screen.enter("1234");
        typeCode("1234");
        waitForCalls("Authenticate", 1);
        typeCode("1234");
        screen.enter("1234");
        compare(find("lock").unlock("code", "1234"), false);
        settle();
        compare(daemon.calls("Authenticate").length, 1);
        daemon.behave();
        daemon.release();
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
        compare(daemon.calls("SetDevlockState").length, 1);
    }

    function test_progressIsShownAndEntryWaits() {
        daemon.hold("Authenticate");
        startLocked();
        typeCode("1234");
        compare(text("message"), "Checking…");
        waitForCalls("Authenticate", 1);
        compare(text("message"), "Checking…");
        verify(!find("keypad").enabled);
        verify(!find("footer").enabled);
        daemon.release();
        verifyUnlocks();
    }

    // No object of the screen holds the code once it is sent.
    function test_theCodeIsKeptNowhere() {
        startHeld("73519");
        const holders = [];
        for (const item of items(screen)) {
            for (const name in item) {
                const value = item[name];
                if (typeof value === "string" && value.indexOf("73519") >= 0
                        || value && name === "params" && JSON.stringify(value).indexOf("73519") >= 0)
                    holders.push(item + "." + name);
            }
        }
        compare(holders, []);
        compare(find("attempt").params, null);
    }

    function test_lockNowLocks_data() {
        const byKey = key => () => [Qt.Key_Tab, key].forEach(keyClick);
        return [{ tag: "mouse", how: () => press("action") }, { tag: "touch", how: () => tap("action") },
                { tag: "keyboard", how: byKey(Qt.Key_Return) }, { tag: "space", how: byKey(Qt.Key_Space) }];
    }

    function test_lockNowLocks(data) {
        startLocked();
        typeCode("1234");
        verifyUnlocks();
        data.how();
        waitForEntry();
        compare(screen.unlocked, false);
        compare(daemon.lockState(), AuthDevlockClient.Locked);
        compare(daemon.calls("SetState").length, 1);
        compare(daemon.calls("SetState")[0].args, "(1,)");
        // As new.
        compare(text("message"), "");
        compare(find("code").digits, "");
        verify(find("code").activeFocus);
        typeCode("1234");
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 2);
    }

    function test_aRefusedLockNowIsTold() {
        daemon.fail("SetState");
        startUnlocked();
        press("action");
        tryVerify(() => find("unlockedPage").text === "The device could not be locked. Please try again.");
        compare(screen.unlocked, true);
        daemon.behave();
        press("action");
        tryCompare(screen, "unlocked", false);
    }

    // The states.

    function test_entryIsClosedInEveryStateButLocked_data() {
        return [
            { tag: "CodeEntryLockout", state: 3, title: "Too many wrong codes", text: /Please wait/ },
            { tag: "ManagerLockout", state: 2, text: /manager/ },
            { tag: "SecurityUi", state: 5, text: /security/ },
            { tag: "Undefined", state: 4, title: "One moment", text: /Waiting/ },
        ].concat([7, -1, 2147483647, 256].map(state => ({ tag: "" + state, state: state, text: /not possible/ })));
    }

    function test_entryIsClosedInEveryStateButLocked(data) {
        startLocked();
        type("12");
        daemon.setLockState(data.state);
        waitForNotice(data.title || "This device is locked");
        verify(data.text.test(find("notice").text), find("notice").text);
        verify(!isShown("prompt"));
        verify(!isShown("unlockedPage"));
        compare(find("code").digits, "");
        type("12");
        compare(find("code").digits, "");
        typeCode("1234");
        screen.enter("1234");
        settle();
        compare(daemon.calls("Authenticate").length, 0);
        compare(screen.unlocked, false);
        daemon.lock();
        waitForEntry();
        compare(find("code").digits, "");
        unlockWithCode();
    }

    function test_startsInEachState_data() {
        return [{ tag: "Unlocked", state: 0 }, { tag: "ManagerLockout", state: 2 }, { tag: "CodeEntryLockout", state: 3 },
                { tag: "SecurityUi", state: 5 }, { tag: "another number", state: 9 }];
    }

    function test_startsInEachState(data) {
        daemon.setLockState(data.state);
        start();
        tryCompare(screen, "settled", true);
        verify(isShown(data.state === 0 ? "unlockedPage" : "notice"));
        verify(!isShown("prompt"));
        compare(screen.unlocked, data.state === 0);
        // Nothing to enter, nobody to ask.
        settle();
        compare(daemon.calls("GetState").length, 1);
    }

    function test_threeWrongCodesLockTheEntryOut() {
        startLocked();
        for (let i = 1; i < 3; ++i) {
            typeCode("0000");
            waitForRefusal();
        }
        typeCode("0000");
        waitForNotice("Too many wrong codes");
        compare(daemon.lockState(), AuthDevlockClient.CodeEntryLockout);
        daemon.lockout("none");
        waitForEntry();
        compare(text("message"), "");
        unlockWithCode();
    }

    function test_unlockedElsewhereWhileACodeIsBeingChecked() {
        startHeld("9999");
        daemon.unlock();
        verifyUnlocks();
        daemon.release();
        daemon.lock();
        tryCompare(screen, "unlocked", false);
        settle();
        compare(screen.unlocked, false);
        compare(text("message"), "");
    }

    // The choice of a factor.

    function openChooser() {
        chooserWasOpened = true;
        press("footer");
        tryVerify(() => isShown("factor-code"));
    }

    function choose(factor) {
        openChooser();
        press("factor-" + factor);
        waitForEntry();
        verify(isShown("field"));
    }

    function test_theFactorsAreNotAskedForBeforeTheyAreWanted() {
        startLocked();
        settle();
        for (const method of ["GetOption", "GetUserOption", "GetUserOptions"])
            compare(daemon.calls(method).length, 0);
    }

    function test_theChooserOffersTheUsersFactorsByName() {
        offer(["code", "smartcard", "sudis", "slow"]);
        startLocked();
        openChooser();
        compare(["code", "smartcard", "sudis", "slow"].map(name => find("factor-" + name).text),
                ["Code", "Smart card", "Sudis", "slow"]);
        verify(!isShown("factor-broken"));
        verify(!isShown("prompt"));
        verify(find("factor-code").activeFocus);
        compare(find("factor-code").Accessible.description, "In use now");
        compare(find("factor-sudis").Accessible.description, "");
    }

    function test_theChooserReadsAnewEachTime() {
        startLocked();
        openChooser();
        verify(!isShown("factor-sudis"));
        keyClick(Qt.Key_Escape);
        daemon.request({ do: "set-option", uid: 1000, key: "worker/service-factors/unlock", value: ["code", "sudis"],
                         announce: false });
        openChooser();
        verify(isShown("factor-sudis"));
        verify(!isShown("factor-smartcard"));
    }

    function test_theChooserOffersTheCodeWhenItKnowsNoFactor() {
        offer([]);
        startLocked();
        openChooser();
        compare(items(screen).filter(item => /^factor-/.test(item.objectName)).length, 1);
    }

    function test_anotherFactorUnlocks_data() {
        return [{ tag: "smartcard", secret: "card-1000", prompt: "Enter the secret of your smart card" },
                { tag: "sudis", secret: "correct horse", prompt: "Enter your Sudis password" },
                { tag: "slow", secret: "1234", prompt: "Enter your secret for “slow”" }];
    }

    function test_anotherFactorUnlocks(data) {
        offer(["code", data.tag]);
        startLocked();
        choose(data.tag);
        compare(text("prompt"), data.prompt);
        verify(!isShown("keypad"));
        verify(!isShown("code"));
        verify(find("field").activeFocus);
        compare(find("field").echoMode, TextInput.Password);
        typeCode(data.secret);
        compare(find("field").text, "");
        verifyUnlocks();
        compare([sent("factor"), sent("data")], ["'" + data.tag + "'", "'" + data.secret + "'"]);
        daemon.lock();
        waitForEntry();
        verify(isShown("keypad"));
    }

    function test_aWrongSecretOfAnotherFactorIsRefusedAndNotToBeHadBack() {
        offer(["code", "sudis"]);
        startLocked();
        choose("sudis");
        type("battery staple");
        press("unlock");
        waitForRefusal();
        compare(find("field").text, "");
        verify(find("field").activeFocus);
        keySequence(StandardKey.Undo);
        compare(find("field").text, "");
    }

    function test_theChooserIsOperatedByKeys() {
        startLocked();
        keyClick(Qt.Key_Tab);
        verify(find("footer").activeFocus);
        verify(find("footer").visualFocus);
        keyClick(Qt.Key_Return);
        tryVerify(() => isShown("factor-code"));
        verify(find("factor-code").activeFocus);
        for (const [key, reached] of [[Qt.Key_Down, "factor-smartcard"], [Qt.Key_Down, "leave"],
                                      [Qt.Key_Up, "factor-smartcard"], [Qt.Key_Up, "factor-code"],
                                      [Qt.Key_Tab, "factor-smartcard"]]) {
            keyClick(key);
            verify(find(reached).activeFocus, reached);
            verify(find(reached).visualFocus, reached);
        }
        keyClick(Qt.Key_Return);
        verify(isShown("field"));
        verify(find("field").activeFocus);
    }

    function test_theChooserIsLeftAndTheDigitsAreForgotten() {
        startLocked();
        type("12");
        openChooser();
        keyClick(Qt.Key_Escape);
        verify(!isShown("factor-code"));
        verify(isShown("keypad"));
        verify(find("code").activeFocus);
        compare(find("code").digits, "");
        openChooser();
        press("leave");
        verify(isShown("keypad"));
        unlockWithCode();
    }

    function test_aLockoutClosesTheChooser() {
        startLocked();
        openChooser();
        daemon.lockout("manager");
        waitForNotice();
        verify(!isShown("factor-code"));
        daemon.lockout("none");
        waitForEntry();
        unlockWithCode();
    }

    function test_aChosenFactorIsForgotten() {
        startLocked();
        choose("smartcard");
        compare(screen.factor, "smartcard");
        find("entry").memory = 300;
        tryCompare(screen, "factor", "code");
        verify(find("code").activeFocus);
        find("entry").memory = 3600000;
        unlockWithCode();
    }

    // The keyboard alone.

    function test_aSecondReturnDoesNotUndoTheFirst() {
        startLocked();
        typeCode("1234");
        verifyUnlocks();
        [Qt.Key_Return, Qt.Key_Enter, Qt.Key_Space].forEach(keyClick);
        settle();
        compare(daemon.calls("SetState"), []);
        keyClick(Qt.Key_Tab);
        verify(find("action").visualFocus);
        keyClick(Qt.Key_Return);
        tryVerify(() => !screen.unlocked);
        compare(daemon.calls("SetState").length, 1);
    }

    function test_theTabKeyVisitsWhatCanBeDoneAndTheFocusShows() {
        startLocked();
        verify(find("code").activeFocus);
        type("12");
        for (const [key, reached] of [[Qt.Key_Tab, "key-accept"], [Qt.Key_Tab, "footer"], [Qt.Key_Tab, "code"],
                                      [Qt.Key_Backtab, "footer"]]) {
            keyClick(key);
            verify(reached === "code" ? find(reached).activeFocus : find(reached).visualFocus, reached);
        }
        // Digits count wherever the focus is.
        type("3");
        compare(find("code").digits, "123");
        keyClick(Qt.Key_Backtab);
        typeCode("4");
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    // The bad days.

    // Only what is under way has so little time: an attempt that is to succeed has enough of it on a slow machine, too.
    function makeOverdue() {
        patience = 100;
        tryVerify(() => find("lock").overdue);
        patience = 60000;
    }

    function giveUp() {
        makeOverdue();
        compare(text("message"), "There is no answer yet.");
        compare(text("footer"), "Try again");
        press("footer");
        compare(find("lock").busy, false);
        compare(text("message"), "");
        compare(text("footer"), "Other ways to unlock");
        verify(find("code").activeFocus);
    }

    function test_anAttemptWithoutAnOutcomeCanBeGivenUp_data() {
        return [{ tag: "error", rule: () => daemon.fail("Authenticate", "", 1) },
                { tag: "lost signals", rule: () => daemon.misbehave("Authenticate", "lose-signals", 1) },
                { tag: "dropped connection", rule: () => daemon.misbehave("Authenticate", "drop", 1) },
                { tag: "handover", rule: () => daemon.mute("Authenticate", 1), then: () => daemon.handover() },
                { tag: "empty token", rule: () => daemon.answer("Authenticate", "(true,)", 1),
                  then: () => daemon.emitSignal("Authenticated", "(@ay [],)") },
                { tag: "unlocking not done", unlockings: 1,
                  rule: () => daemon.answer("SetDevlockState", "(true,)", 1) }];
    }

    function test_anAttemptWithoutAnOutcomeCanBeGivenUp(data) {
        data.rule();
        startAsking("1234", data.unlockings ? "SetDevlockState" : "Authenticate");
        if (data.then)
            data.then();
        giveUp();
        compare(screen.unlocked, false);
        compare(daemon.lockState(), AuthDevlockClient.Locked);
        compare(daemon.calls("SetDevlockState").length, data.unlockings || 0);
        unlockWithCode();
    }

    function test_anAttemptWithoutAnAnswerIsReplaced_data() {
        return [{ tag: "keys", how: () => typeCode("1234") }, { tag: "elsewhere", how: () => screen.enter("1234") },
                { tag: "footer", how: () => {
                    verify(find("footer").visualFocus);
                    keyClick(Qt.Key_Return);
                    compare(find("lock").busy, false);
                    typeCode("1234");
                } }];
    }

    function test_anAttemptWithoutAnAnswerIsReplaced(data) {
        daemon.mute("Authenticate", 1);
        startAsking("9999");
        makeOverdue();
        data.how();
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 2);
    }

    function test_anAnswerIsAwaitedEvenAfterTheOfferToTryAgain() {
        startHeld();
        makeOverdue();
        daemon.release();
        verifyUnlocks();
    }

    function test_theReplyDoesNotMatter_data() {
        return [{ tag: "lost", how: () => daemon.misbehave("Authenticate", "lose-reply") },
                { tag: "after the signal", how: () => {
                    daemon.misbehave("Authenticate", "signal-first");
                    daemon.misbehave("SetDevlockState", "signal-first");
                } }];
    }

    function test_theReplyDoesNotMatter(data) {
        data.how();
        startLocked();
        typeCode("1234");
        verifyUnlocks();
        compare(daemon.calls("SetDevlockState").length, 1);
    }

    function test_anAnswerThatIsTurnedDownIsARefusal() {
        daemon.answer("Authenticate", "(false,)", 1);
        startLocked();
        typeCode("1234");
        waitForRefusal();
        unlockWithCode();
    }

    function test_aTokenAfterARefusalIsNotUsed() {
        startHeld();
        daemon.emitSignal("AuthenticationFailed", "()");
        waitForRefusal();
        daemon.behave();
        daemon.release();
        verifyNothingUnlocked();
        unlockWithCode();
    }

    function test_aLateSuccessDoesNotUnlock() {
        startHeld("1234", 1);
        giveUp();
        daemon.release();
        verifyNothingUnlocked();
        compare(text("message"), "");
    }

    function test_aLateAnswerIsNotTakenForTheNextAttempts_data() {
        return [{ tag: "success", codes: ["1234", "9999"], outcome: () => {
            waitForRefusal();
            verifyNothingUnlocked();
            compare(daemon.lockState(), AuthDevlockClient.Locked);
        } }, { tag: "failure", codes: ["9999", "1234"], outcome: verifyUnlocks }];
    }

    function test_aLateAnswerIsNotTakenForTheNextAttempts(data) {
        startHeld(data.codes[0], 2);
        giveUp();
        typeCode(data.codes[1]);
        waitForCalls("Authenticate", 2);
        daemon.release();
        data.outcome();
    }

    function test_aLateSuccessAfterALockingDoesNotUnlock_data() {
        return [{ tag: "ManagerLockout", state: 2 }, { tag: "SecurityUi", state: 5 }, { tag: "Unlocked", state: 0 }];
    }

    function test_aLateSuccessAfterALockingDoesNotUnlock(data) {
        startHeld("1234", 1);
        daemon.setLockState(data.state);
        tryVerify(() => !isShown("prompt"));
        daemon.lock();
        waitForEntry();
        daemon.release();
        verifyNothingUnlocked();
        unlockWithCode();
    }

    // How long the screen pauses before a call that may freeze it.
    function setPauses(milliseconds) { find("lock").frame = milliseconds }

    function test_theScreenIsThereBeforeItAsksForTheState() {
        start();
        setPauses(60001);
        settle();
        verify(isShown("notice"));
        compare(text("title"), "One moment");
        compare(daemon.calls("GetState"), []);
        setPauses(50);
        waitForEntry();
    }

    function test_noUnlockingFollowsATokenThatIsGone_data() {
        return [{ tag: "locked", how: () => daemon.lockout("manager"), told: () => {
            waitForNotice();
            verifyNothingUnlocked();
            daemon.lockout("none");
        } }, { tag: "dropped", how: () => daemon.emitSignal("AuthenticationFailed", "()"),
               told: () => waitForRefusal("The device could not be unlocked. Please try again.") }];
    }

    function test_noUnlockingFollowsATokenThatIsGone(data) {
        startLocked();
        const attempt = find("attempt");
        let tokens = 0;
        const loseIt = () => {
            if (attempt.stage !== Attempt.Passed)
                return;
            ++tokens;
            setPauses(60001);
            data.how();
        };
        attempt.stageChanged.connect(loseIt);
        typeCode("1234");
        tryVerify(() => tokens > 0 && !find("lock").busy);
        attempt.stageChanged.disconnect(loseIt);
        setPauses(50);
        data.told();
        verifyNothingUnlocked();
        unlockWithCode();
    }

    function test_aRefusedUnlockingIsToldAndTheScreenStaysLocked_data() {
        return [{ tag: "false", how: () => daemon.answer("SetDevlockState", "(false,)", 1) },
                { tag: "error", how: () => daemon.fail("SetDevlockState", "", 1) },
                { tag: "another type", how: () => daemon.answer("SetDevlockState", "('true',)", 1) }];
    }

    function test_aRefusedUnlockingIsToldAndTheScreenStaysLocked(data) {
        data.how();
        startLocked();
        typeCode("1234");
        waitForRefusal("The device could not be unlocked. Please try again.");
        compare(daemon.calls("SetDevlockState").length, 1);
        unlockWithCode();
        compare(daemon.calls("Authenticate").length, 2);
    }

    function test_anUnlockingThatIsNotAnnouncedStaysLocked() {
        daemon.misbehave("SetDevlockState", "lose-signals", 1);
        startAsking("1234", "SetDevlockState");
        giveUp();
        compare(screen.unlocked, false);
    }

    function test_aTokenThatNobodyAskedForIsNotUsed() {
        startLocked();
        waitForCalls("GetState", 2);
        settle();
        daemon.emitSignal("Authenticated", "([byte 0x01, 0x02],)");
        verifyNothingUnlocked();
        compare(text("message"), "");
        unlockWithCode();
    }

    function test_theAnswerToAnotherClientOfTheProcessIsNotUsed() {
        startLocked();
        waitForCalls("GetState", 2);
        settle();
        const other = createTemporaryObject(otherClient, test);
        waitForCalls("GetState", 3);
        settle();
        other.authenticate("login", { factor: "code", data: "1234" });
        tryCompare(other, "authenticated", true);
        verifyNothingUnlocked();
        compare(text("message"), "");
        other.authenticate("login", { factor: "code", data: "0000" });
        tryCompare(other, "authenticated", false);
        settle();
        compare(text("message"), "");
        unlockWithCode();
    }

    function test_whatCannotBeSentIsARefusal() {
        startLocked();
        screen.enter("\ud800");
        waitForRefusal();
        compare(daemon.calls("Authenticate").length, 0);
        unlockWithCode();
    }

    function test_aCodeThatCouldNotBeSentInTimeIsNeverSent_data() {
        // Whether the attempt's client learns that the device is locked, and could ask, when it is too late.
        return [{ tag: "learnt late", learns: true }, { tag: "never learnt", learns: false }];
    }

    function test_aCodeThatCouldNotBeSentInTimeIsNeverSent(data) {
        daemon.fail("GetState", "", 1);
        answerTheScreen();
        startLocked();
        waitForCalls("GetState", 2);
        typeCode("1234");
        makeOverdue();
        compare(find("attempt").params, null);
        if (data.learns) {
            daemon.lock();
            tryVerify(() => find("attempt").existing.isSettled);
        }
        settle();
        compare(daemon.calls("Authenticate").length, 0);
        compare(screen.unlocked, false);
        giveUp();
        unlockWithCode();
    }

    function test_anAttemptWithoutAnOutcomeEndsByItself() {
        startHeld("1234", 1);
        const longest = find("attempt").longest;
        find("attempt").longest = 100;
        waitForRefusal("There was no answer. Please try again.");
        find("attempt").longest = longest;
        daemon.release();
        verifyNothingUnlocked();
        unlockWithCode();
    }

    // The daemon is away.

    function test_aDaemonThatIsAwayIsAwaited_data() {
        return [{ tag: "at the start", before: () => {
            daemon.stop();
            start();
            settle();
            compare(screen.settled, false);
        } }, { tag: "locked", before: () => {
            startLocked();
            type("12");
            daemon.stop();
        } }, { tag: "unlocked", before: () => {
            startUnlocked();
            daemon.stop();
            daemon.setLockState(1);
            daemon.clearCalls();
        } }];
    }

    function test_aDaemonThatIsAwayIsAwaited(data) {
        retryPause = 300;
        data.before();
        waitForNotice("One moment");
        typeCode("1234");
        screen.enter("1234");
        daemon.start();
        waitForEntry();
        compare(screen.settled, true);
        compare(screen.unlocked, false);
        compare(find("code").digits, "");
        compare(daemon.calls("Authenticate").length, 0);
        unlockWithCode();
    }

    function test_aDaemonThatDiesOverACodeLeavesALockedScreen_data() {
        const rows = how => ["Authenticate", "SetDevlockState", "RequestChallenge"]
              .map(method => ({ tag: method + ", " + how, method: method, how: how }));
        return rows("crash").concat(rows("restart"));
    }

    function test_aDaemonThatDiesOverACodeLeavesALockedScreen(data) {
        startLocked();
        waitForCalls("GetState", 2);
        retryPause = 300;
        daemon.misbehave(data.method, data.how, 1);
        typeCode("1234");
        if (data.how === "crash") {
            waitForNotice();
            daemon.start();
        }
        tryVerify(() => daemon.calls(data.method).length > 0);
        // The screen has noticed when its new clients have asked the new daemon.
        const instance = daemon.state().instance;
        tryVerify(() => daemon.calls("GetState").filter(call => call.instance === instance).length >= 2);
        waitForEntry();
        compare(screen.unlocked, false);
        compare(daemon.lockState(), AuthDevlockClient.Locked);
        unlockWithCode();
    }

    function test_aLockingWhoseAnnouncementIsLostIsNoticed() {
        startUnlocked();
        daemon.misbehave("SetState", "lose-signals", 1);
        press("action");
        tryVerify(() => daemon.lockState() === AuthDevlockClient.Locked);
        waitForEntry();
        compare(screen.unlocked, false);
        unlockWithCode();
    }

    function test_anUnlockingWhoseAnnouncementIsLostIsNoticed() {
        daemon.misbehave("SetDevlockState", "lose-signals", 1);
        startLocked();
        typeCode("1234");
        tryVerify(() => daemon.lockState() === AuthDevlockClient.Unlocked);
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_aTakeoverThatIsNotAnnouncedIsNoticed() {
        startUnlocked();
        daemon.handover();
        daemon.answer("GetState", "(1,)");
        isWatched = false;
        lookPause = 300;
        tryVerify(() => isShown("prompt"));
        compare(screen.unlocked, false);
    }

    function test_aLookLeavesWhatIsBeingEntered() {
        startLocked();
        type("12");
        daemon.clearCalls();
        lookPause = 300;
        tryVerify(() => daemon.calls("GetState").length >= 3);
        compare(find("code").digits, "12");
        typeCode("34");
        verifyUnlocks();
    }

    // A second look at the state.

    // Somebody else locks the device, and nobody is told.
    function lockUnannounced() {
        daemon.misbehave("SetState", "lose-signals", 1);
        createTemporaryObject(otherDevlockClient, test).state = AuthDevlockClient.Locked;
        compare(daemon.lockState(), AuthDevlockClient.Locked);
        compare(screen.unlocked, true);
    }

    // The screen's states from now on.
    function followStates() {
        const lock = find("lock");
        const states = [];
        lock.deviceStateChanged.connect(() => states.push(lock.deviceState));
        return states;
    }

    // One look that has no answer yet.
    function look() {
        settle();
        daemon.clearCalls();
        find("device").look();
        waitForCalls("GetState", 1);
    }

    // A look in this state whose answer is still to come; gives the screen's states from now on.
    function startLookIn(state) {
        startLocked();
        daemon.setLockState(state);
        waitForState(state);
        daemon.hold("GetState");
        look();
        return followStates();
    }

    // Looks again and again, without an answer and without consequences.
    function lookInVain() {
        let refusals = 0;
        find("lock").refused.connect(() => ++refusals);
        const states = followStates();
        daemon.mute("GetState");
        lookPatience = 100;
        lookPause = 100;
        waitForMoreCalls("GetState", 4);
        lookPause = 60000;
        lookPatience = 60000;
        daemon.behave();
        compare(states, []);
        compare(refusals, 0);
    }

    function test_aLookWithoutAnAnswerTakesTheUnlockedPictureAway_data() {
        return [{ tag: "mute", how: () => daemon.mute("GetState") },
                { tag: "an answer that is lost", how: () => daemon.misbehave("GetState", "lose-reply") },
                { tag: "error", how: () => daemon.fail("GetState") },
                { tag: "Undefined", how: () => daemon.answer("GetState", "(4,)") },
                { tag: "another type", how: () => daemon.answer("GetState", "('0',)") },
                { tag: "mute altogether", how: () => {
                    daemon.mute("*");
                    daemon.mute("Introspect");
                    daemon.request({ do: "accept", how: "mute" });
                } }];
    }

    function test_aLookWithoutAnAnswerTakesTheUnlockedPictureAway(data) {
        retryPause = 300;
        startUnlocked();
        lockUnannounced();
        data.how();
        lookPatience = 300;
        lookPause = 300;
        waitForState(AuthDevlockClient.Undefined);
        waitForNotice("One moment");
        settle();
        compare(screen.unlocked, false);
        lookPause = 60000;
        lookPatience = 60000;
        daemon.behave();
        daemon.request({ do: "accept", how: "normal" });
        waitForEntry();
        unlockWithCode();
    }

    function test_aLockingWithoutAnnouncementOrAnswerTakesTheUnlockedPictureAway() {
        startUnlocked();
        daemon.misbehave("SetState", "lose-signals", 1);
        daemon.mute("GetState");
        lookPatience = 300;
        press("action");
        tryVerify(() => !screen.unlocked);
        compare(daemon.lockState(), AuthDevlockClient.Locked);
        verify(isShown("notice"));
    }

    function test_aRefusedLockNowIsToldUntilALookHasNoAnswer() {
        retryPause = 300;
        daemon.fail("SetState");
        startUnlocked();
        daemon.hold("GetState");
        press("action");
        tryVerify(() => find("unlockedPage").text === "The device could not be locked. Please try again.");
        compare(screen.unlocked, true);
        lookPatience = 300;
        tryVerify(() => !screen.unlocked);
        compare(find("lock").lockingFailed, false);
        compare(text("title"), "One moment");
        lookPatience = 60000;
        daemon.behave();
        daemon.release();
        verifyUnlocks();
        compare(find("unlockedPage").text, "The device is in use.");
    }

    function test_theLockedPictureIsThereBeforeTheStateIsAskedForAnew() {
        startUnlocked();
        daemon.mute("GetState");
        look();
        setPauses(60001);
        lookPatience = 300;
        tryVerify(() => !screen.unlocked);
        settle();
        compare(daemon.calls("GetState").length, 1);
        daemon.behave();
        setPauses(50);
        verifyUnlocks();
    }

    function test_aSlowAnswerToALookChangesNothing_data() {
        return [{ tag: "Unlocked", state: 0 }, { tag: "Locked", state: 1 }];
    }

    function test_aSlowAnswerToALookChangesNothing(data) {
        const states = startLookIn(data.state);
        lookPause = 50;
        // It is not disturbed by the next one.
        settle();
        compare(daemon.calls("GetState").length, 1);
        daemon.behave();
        daemon.release();
        waitForMoreCalls("GetState", 3);
        compare(states, []);
    }

    function test_aLookWithoutAnAnswerLeavesALockedScreenAsItIs_data() {
        return [{ tag: "Locked", state: 1 }, { tag: "ManagerLockout", state: 2 }, { tag: "CodeEntryLockout", state: 3 },
                { tag: "SecurityUi", state: 5 }, { tag: "another number", state: 77 }];
    }

    function test_aLookWithoutAnAnswerLeavesALockedScreenAsItIs(data) {
        startLocked();
        waitForCalls("GetState", 2);
        daemon.setLockState(data.state);
        waitForState(data.state);
        if (data.state === AuthDevlockClient.Locked)
            type("12");
        lookInVain();
        if (data.state !== AuthDevlockClient.Locked)
            return;
        compare(find("code").digits, "12");
        typeCode("34");
        verifyUnlocks();
    }

    function test_anAttemptOutlivesALookWithoutAnAnswer() {
        startHeld();
        lookInVain();
        compare(text("message"), "Checking…");
        daemon.release();
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_looksInARowHaveNoMoreTimeThanOne() {
        startUnlocked();
        daemon.mute("GetState");
        lookPatience = 1000;
        tryVerify(() => {
            if (screen.unlocked)
                find("device").look();
            return !screen.unlocked;
        });
    }

    function test_aLockingIsLookedForEvenDuringALook() {
        lookPatience = 600000;
        startUnlocked();
        settle();
        daemon.mute("GetState", 1);
        look();
        daemon.misbehave("SetState", "lose-signals", 1);
        press("action");
        waitForEntry();
        compare(daemon.calls("SetState").length, 1);
    }

    function test_anAnnouncementDuringALookIsAllThatIsShown_data() {
        return [{ tag: "Unlocked", from: 1, to: 0 }, { tag: "Locked", from: 0, to: 1 },
                { tag: "ManagerLockout", from: 1, to: 2 }];
    }

    function test_anAnnouncementDuringALookIsAllThatIsShown(data) {
        const states = startLookIn(data.from);
        daemon.setLockState(data.to);
        tryVerify(() => states.length > 0);
        settle();
        compare(states, [data.to]);
    }

    function test_aLookEndsWithTheDaemon() {
        retryPause = 300;
        lookPatience = 60002;
        startUnlocked();
        daemon.hold("GetState");
        look();
        const verdict = Array.from(find("device").resources).find(object => object.objectName === "verdict");
        compare(verdict.running, true);
        daemon.stop();
        tryVerify(() => !screen.unlocked);
        compare(verdict.running, false);
        daemon.behave();
        daemon.start();
        verifyUnlocks();
        compare(verdict.running, false);
    }

    function test_aHalfEnteredCodeIsForgotten() {
        startLocked();
        type("12");
        compare(find("code").digits, "12");
        find("entry").memory = 300;
        tryCompare(find("code"), "digits", "");
        daemon.clearCalls();
        keyClick(Qt.Key_Return);
        settle();
        compare(daemon.calls("Authenticate"), []);
        find("entry").memory = 3600000;
        unlockWithCode();
    }

    function test_aStateThatCannotBeHadAtOnceIsAwaited_data() {
        // The delay is longer than the first pauses.
        return [{ tag: "slow", how: () => daemon.delay("GetState", 700) },
                { tag: "error", how: () => daemon.fail("GetState", "", 2) }];
    }

    function test_aStateThatCannotBeHadAtOnceIsAwaited(data) {
        retryPause = 300;
        data.how();
        start();
        tryCompare(screen, "settled", true);
        daemon.behave();
        unlockWithCode();
    }
}
