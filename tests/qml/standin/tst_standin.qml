import QtQuick 2.15
import QtTest 1.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import ".."

PatientTestCase {
    id: test
    name: "standin"

    StandIn { id: daemon }
    StandIn { id: other }

    Component {
        id: clientComponent
        AuthClient {
            readonly property SignalSpy tokens: SignalSpy { target: client; signalName: "authenticatedChanged" }
            readonly property SignalSpy discredits: SignalSpy { target: client; signalName: "discredit" }
            readonly property SignalSpy progresses: SignalSpy { target: client; signalName: "progressChanged" }
            readonly property SignalSpy answers: SignalSpy { target: client; signalName: "unlockIfNeededFinished" }
            readonly property SignalSpy notices: SignalSpy { target: client; signalName: "factorSignal" }

            id: client

            function enter(code) { authenticate("unlock", { factor: "code", data: code }) }
        }
    }

    Component {
        id: devlockComponent
        AuthDevlockClient {
            readonly property SignalSpy changes: SignalSpy { target: devlock; signalName: "stateChanged" }

            id: devlock
        }
    }

    Component {
        id: standInComponent
        StandIn {}
    }

    function init() { daemon.reset() }

    // A client that has heard the first state, and what it says about that.
    function makeClient() {
        const devlock = makeDevlock();
        const client = createTemporaryObject(clientComponent, test);
        if (devlock.state === AuthDevlockClient.Locked)
            tryCompare(client.discredits, "count", 1);
        client.tokens.clear();
        client.discredits.clear();
        client.progresses.clear();
        return client;
    }

    function makeDevlock() {
        const devlock = createTemporaryObject(devlockComponent, test);
        tryCompare(devlock.changes, "count", 1);
        compare(devlock.state, daemon.lockState());
        devlock.changes.clear();
        return devlock;
    }

    function checkState(devlock, state) { tryVerify(() => devlock.state === state) }

    function checkFirstState(state) {
        checkState(createTemporaryObject(devlockComponent, test), state);
    }

    function authenticated() {
        const client = makeClient();
        client.enter("1234");
        tryVerify(() => client.authenticated);
        return client;
    }

    // What the daemon has sent to the client when it is called has been heard when it returns.
    function settle(client) {
        client.notices.clear();
        daemon.emitSignal("Factor", "('settle', @a{sv} {})");
        tryCompare(client.notices, "count", 1);
    }

    function refused(action, reason) {
        const message = errorOf(action).message;
        verify(message.startsWith("StandIn: " + reason), message);
    }

    function test_requestGivesTheAnswer() {
        compare(daemon.request({ do: "ping" }), { ok: true });
        compare(daemon.request({ do: "state" }), daemon.state());
    }

    function test_state() {
        const before = daemon.state();
        verify(before.running);
        verify(before.owner.startsWith(":"));
        compare(before["lock-state"], AuthDevlockClient.Locked);
        compare(before.tokens, 0);
        compare(before.peers, []);

        const client = authenticated();
        compare(daemon.state().tokens, 1);
        compare(daemon.state().peers.length, 1);
        daemon.restart();
        compare(daemon.state().instance, before.instance + 1);
    }

    function test_lockState() {
        const devlock = makeDevlock();
        const changes = [[() => daemon.unlock(), AuthDevlockClient.Unlocked],
                         [() => daemon.lock(), AuthDevlockClient.Locked],
                         [() => daemon.setLockState(AuthDevlockClient.SecurityUi), AuthDevlockClient.SecurityUi],
                         [() => daemon.setLockState(-2147483648), -2147483648],
                         [() => daemon.lockout("manager"), AuthDevlockClient.ManagerLockout],
                         [() => daemon.lockout("code-entry"), AuthDevlockClient.CodeEntryLockout],
                         [() => daemon.lockout("none"), AuthDevlockClient.Locked]];
        for (const [change, state] of changes) {
            change();
            compare(daemon.lockState(), state);
            checkState(devlock, state);
        }
    }

    // A request blocks, so that the screen hears of all of them afterwards, in their order.
    function test_effectsComeInTheOrderOfTheRequests() {
        const devlock = makeDevlock();
        const seen = [];
        devlock.stateChanged.connect(() => seen.push(devlock.state));
        daemon.unlock();
        daemon.lockout("manager");
        other.setLockState(5);
        daemon.lock();
        compare(seen, []);
        tryCompare(seen, "length", 4);
        compare(seen, [0, 2, 5, 1]);
    }

    function test_answer() {
        const client = makeClient();
        daemon.answer("Authenticate", "(true,)");
        client.enter("1234");
        daemon.waitForCalls("Authenticate", 1, 60000);
        compare(daemon.state().tokens, 0);
        daemon.behave();
        daemon.answer("SetState", "(true,)", 1);
        daemon.answer("GetState", "(2,)", 1);
        checkFirstState(AuthDevlockClient.ManagerLockout);
        compare(makeDevlock().state, AuthDevlockClient.Locked);
    }

    function test_newestRuleHolds() {
        daemon.answer("GetState", "(2,)");
        daemon.answer("*", "(3,)");
        checkFirstState(3);
        daemon.answer("GetState", "(5,)");
        checkFirstState(5);
    }

    function test_timesOfARule() {
        const client = authenticated();
        daemon.fail("SetDevlockState", undefined, 2);
        ignoreWarning(/setLocked|SetDevlockState/);
        verify(!client.setLocked(AuthDevlockClient.Unlocked));
        ignoreWarning(/setLocked|SetDevlockState/);
        verify(!client.setLocked(AuthDevlockClient.Unlocked));
        verify(client.setLocked(AuthDevlockClient.Unlocked));
    }

    function test_fail_data() {
        return [{ tag: "its default name", name: undefined }, { tag: "a name", name: "vantora.Test.Error.Odd" }];
    }

    function test_fail(data) {
        const client = authenticated();
        daemon.fail("SetDevlockState", data.name);
        ignoreWarning(/The call has failed/);
        verify(!client.setLocked(AuthDevlockClient.Unlocked));
        compare(daemon.lockState(), AuthDevlockClient.Locked);
    }

    function test_delay() {
        const client = makeClient();
        daemon.delay("Authenticate", 300);
        const begin = Date.now();
        client.enter("1234");
        tryVerify(() => client.authenticated);
        verify(Date.now() - begin >= 299);
    }

    function test_holdAndRelease() {
        const client = makeClient();
        daemon.hold("Authenticate");
        client.enter("1234");
        daemon.waitForCalls("Authenticate", 1, 60000);
        settle(client);
        verify(client.progress);
        verify(!client.authenticated);

        daemon.release();
        tryVerify(() => client.authenticated);
        // The rule remains.
        client.enter("1234");
        daemon.waitForCalls("Authenticate", 2, 60000);
        settle(client);
        verify(client.progress);
        daemon.behave();
        settle(client);
        verify(client.progress);
        daemon.release();
        tryVerify(() => !client.progress);
    }

    function test_mute() {
        const client = makeClient();
        daemon.mute("Authenticate", 1);
        client.enter("1234");
        daemon.waitForCalls("Authenticate", 1, 60000);
        daemon.release();
        settle(client);
        verify(client.progress);
        compare(daemon.state().tokens, 0);
        client.enter("1234");
        tryVerify(() => client.authenticated);
    }

    function test_misbehave_data() { return [{ tag: "lose-reply" }, { tag: "signal-first" }] }

    function test_misbehave(data) {
        const client = makeClient();
        daemon.misbehave("Authenticate", data.tag);
        client.enter("1234");
        tryVerify(() => client.authenticated);
    }

    function test_misbehaveLosingSignals() {
        const client = makeClient();
        daemon.misbehave("Authenticate", "lose-signals", 1);
        client.enter("1234");
        daemon.waitForCalls("Authenticate", 1, 60000);
        settle(client);
        verify(!client.authenticated);
        compare(daemon.state().tokens, 1);
        client.enter("1234");
        tryVerify(() => client.authenticated);
    }

    function test_misbehaveEnding_data() {
        return [{ tag: "crash", running: false, instances: 0 }, { tag: "restart", running: true, instances: 1 }];
    }

    function test_misbehaveEnding(data) {
        const client = makeClient();
        const before = daemon.state().instance;
        daemon.misbehave("Authenticate", data.tag);
        client.enter("1234");
        tryVerify(() => client.discredits.count === 1 && !client.progress);
        compare(daemon.state().running, data.running);
        compare(daemon.state().instance, before + data.instances);
    }

    function test_behave() {
        daemon.answer("GetState", "(2,)");
        daemon.answer("*", "(3,)");
        daemon.behave();
        makeDevlock();
    }

    function test_stopAndStart() {
        const client = authenticated();
        const devlock = makeDevlock();
        daemon.stop();
        verify(!daemon.state().running);
        checkState(devlock, AuthDevlockClient.Undefined);
        tryVerify(() => !client.authenticated);
        daemon.start();
        verify(daemon.state().running);
        // The client is back with a new challenge.
        daemon.waitForCalls("RequestChallenge", 2, 60000);
        client.enter("1234");
        tryVerify(() => client.authenticated);
    }

    function test_restart() {
        const client = authenticated();
        const before = daemon.state().instance;
        daemon.restart();
        tryVerify(() => !client.authenticated);
        compare(daemon.state().instance, before + 1);
        daemon.waitForCalls("RequestChallenge", 2, 60000);
        client.enter("1234");
        tryVerify(() => client.authenticated);
    }

    function test_handover() {
        const client = authenticated();
        const before = daemon.state().instance;
        daemon.handover();
        compare(daemon.state().instance, before + 1);
        tryVerify(() => daemon.state().peers.length === 1);
        // Without a gap no token is dropped.
        verify(client.authenticated);
    }

    function test_dropPeers() {
        const client = authenticated();
        compare(daemon.state().peers.length, 1);
        const instance = daemon.state().instance;
        daemon.dropPeers();
        compare(daemon.state().peers, []);
        compare(daemon.state().instance, instance);
        ignoreWarning(/./);
        verify(!client.setLocked(AuthDevlockClient.Unlocked));
    }

    function test_emitSignal() {
        const client = makeClient();
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)");
        tryCompare(client.answers, "count", 1);
        compare(client.answers.signalArguments[0][0], true);
        daemon.emitSignal("Factor", "('code', {'tries': <uint32 3000000000>})");
        tryCompare(client.notices, "count", 1);
        compare(client.notices.signalArguments[0][0], "code");
        compare(client.notices.signalArguments[0][1].tries, 3000000000);
        client.enter("wrong");
        tryCompare(client.discredits, "count", 1);
        daemon.emitSignal("AuthenticationFailed");
        tryCompare(client.discredits, "count", 2);
    }

    function test_emitSignalElsewhere() {
        const client = makeClient();
        const peer = daemon.state().peers[0];
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)", { peer: peer });
        tryCompare(client.answers, "count", 1);

        daemon.emitSignal("UnlockIfNeededFinished", "(true,)", { path: "/elsewhere" });
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)", { interface: "vantora.AuthService.Settings" });
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)", { bus: "system" });
        daemon.emitSignal("UnlockIfNeededFinished", "(false,)", { instance: daemon.state().instance });
        tryCompare(client.answers, "count", 2);
        compare(client.answers.signalArguments[1][0], false);

        daemon.emitSignal("News", "()", { path: "/x", interface: "vantora.X", bus: "peer" });
        refused(() => daemon.emitSignal("News", "()"), "signal: the daemon has no such signal");
        refused(() => daemon.emitSignal("AuthDataChanged", "()", { peer: peer + 100 }), "there is no connection");
        refused(() => daemon.emitSignal("AuthDataChanged", "()", { instance: 1000000 }), "there is no such instance");
    }

    function test_calls() {
        const client = authenticated();
        const calls = daemon.calls();
        compare(calls.map(call => call.method), ["GetState", "GetState", "RequestChallenge", "Authenticate"]);
        compare(daemon.calls("Authenticate"), [calls[3]]);
        compare(daemon.calls("SetState"), []);
        const call = calls[3];
        compare(call.signature, "sa{sv}");
        verify(call.args.startsWith("('unlock', {"), call.args);
        verify(call.args.includes("'factor': <'code'>"), call.args);
        compare(call.bus, "peer");
        compare(call.peer, daemon.state().peers[0]);
        compare(call.path, "/vantora/AuthService");
        compare(call.interface, "vantora.AuthService");
        compare(call.instance, daemon.state().instance);
        compare(calls[0].bus, "system");

        daemon.clearCalls();
        compare(daemon.calls(), []);
        client.setLocked(4);
        compare(daemon.calls().length, 1);
        verify(daemon.calls()[0].n > call.n);
    }

    // The call is made from the event loop, which turns while it is waited for.
    function test_waitForCalls() {
        const client = makeClient();
        daemon.clearCalls();
        client.progressChanged.connect(() => Qt.callLater(() => client.unlockIfNeeded()));
        client.enter("1234");
        const calls = daemon.waitForCalls("UnlockIfNeeded", 2, 60000);
        compare(calls.length, 2);
        compare(calls, daemon.calls("UnlockIfNeeded"));
        // Those that are there already count.
        compare(daemon.waitForCalls("UnlockIfNeeded").length, 2);
    }

    function test_waitForCallsThatDoNotCome() {
        const begin = Date.now();
        refused(() => daemon.waitForCalls("SetState", 1, 200), "the calls of SetState have not come in time");
        verify(Date.now() - begin >= 199);
        refused(() => daemon.waitForCalls("SetState", 0, 10), "count: expected a whole number");
        refused(() => daemon.waitForCalls("SetState", 1, -1), "timeout: expected a whole number");
        refused(() => daemon.waitForCalls(undefined, 1, 10), 'method: the daemon has no method ""');
    }

    Timer {
        property var task

        id: soon
        interval: 1
        onTriggered: task()
    }

    function test_requestsWhileCallsAreWaitedFor() {
        const client = makeClient();
        let calls = [];
        soon.task = () => {
            daemon.unlock();
            calls = daemon.waitForCalls("GetState", 1, 60000);
            client.unlockIfNeeded();
        };
        soon.start();
        daemon.waitForCalls("UnlockIfNeeded", 1, 60000);
        compare(daemon.lockState(), AuthDevlockClient.Unlocked);
        compare(calls.length, 2);
    }

    function test_standInIsDestroyedWhileItWaits() {
        const brief = standInComponent.createObject(test);
        soon.task = () => brief.destroy();
        soon.start();
        compare(errorOf(() => brief.waitForCalls("SetState", 1, 100)).message.indexOf("StandIn: the calls"), 0);
    }

    function test_usersAbove2ToThe31() {
        for (const uid of [2147483648, 4294967294]) {
            refused(() => daemon.options(uid), "uid: there is no user " + uid);
            refused(() => daemon.setOption("a", true, uid), "uid: there is no user " + uid);
        }
    }

    function test_refusals_data() {
        const number = "expected a whole number";
        return [
            ["no request", () => daemon.request({}), "do: missing"],
            ["no object", () => daemon.request("state"), "do: missing"],
            ["request", () => daemon.request({ do: "dance" }), "do: there is no request \"dance\""],
            ["member", () => daemon.request({ do: "lockout", kind: "none", who: 1 }), "who: "],
            ["state name", () => daemon.setLockState("Locked"), "state: " + number],
            ["state undefined", () => daemon.setLockState(AuthDevlockClient.Lokked), "state: " + number],
            ["state fraction", () => daemon.setLockState(1.5), "state: " + number],
            ["state 2^31", () => daemon.setLockState(2147483648), "state: " + number],
            ["lockout", () => daemon.lockout("total"), "kind: expected one of"],
            ["lockout of nothing", () => daemon.lockout(undefined), "kind: expected one of"],
            ["answer number", () => daemon.answer("GetState", 1), "value: expected a tuple"],
            ["answer no tuple", () => daemon.answer("GetState", "true"), "value: expected a tuple"],
            ["answer object", () => daemon.answer("GetState", { a: 1 }), "value: "],
            ["answer nothing", () => daemon.answer("GetState", undefined), "value: "],
            ["answer times", () => daemon.answer("GetState", "(1,)", -1), "times: " + number],
            ["method", () => daemon.mute("Get State"), "method: expected the name of one of"],
            ["no method", () => daemon.hold(undefined), "method: expected the name of one of"],
            ["mute times", () => daemon.mute("GetState", "twice"), "times: " + number],
            ["hold times", () => daemon.hold("GetState", 0.5), "times: " + number],
            ["fail times", () => daemon.fail("GetState", "", NaN), "times: " + number],
            ["fail name", () => daemon.fail("GetState", "an error"), "name: expected a D-Bus error name"],
            ["delay", () => daemon.delay("GetState", "long"), "ms: " + number],
            ["delay times", () => daemon.delay("GetState", 1, -1), "times: " + number],
            ["how", () => daemon.misbehave("GetState", "oddly"), "how: expected one of"],
            ["how times", () => daemon.misbehave("GetState", "crash", -1), "times: " + number],
            ["started", () => daemon.start(), "the daemon is running already"],
            ["signal name", () => daemon.emitSignal("a b"), "signal: expected a signal's name"],
            ["signal args", () => daemon.emitSignal("StateChanged", 1), "args: expected a tuple"],
            ["signal member", () => daemon.emitSignal("StateChanged", "(1,)", { pier: 1 }), "pier: "],
            ["option value", () => daemon.setOption("k", 4), "value: expected"],
            ["option no value", () => daemon.setOption("k", undefined), "value: missing"],
            ["option key", () => daemon.setOption("", true), "key: expected a text that is not empty"],
            ["option uid", () => daemon.setOption("k", true, "Alex"), "uid: " + number],
            ["option no uid", () => daemon.setOption("k", true, undefined), "uid: " + number],
            ["options uid", () => daemon.options(5), "uid: there is no user 5"],
        ].map(([tag, action, reason]) => ({ tag: tag, action: action, reason: reason }));
    }

    function test_refusals(data) {
        const before = daemon.state();
        refused(data.action, data.reason);
        compare(daemon.state(), before);
        // The next request is answered as if nothing had been.
        compare(daemon.request({ do: "ping" }), { ok: true });
    }

    function test_refusalsWhileTheDaemonIsAway() {
        daemon.stop();
        refused(() => daemon.handover(), "the daemon is not running");
        refused(() => daemon.emitSignal("StateChanged", "(1,)"), "the daemon is not running");
    }

    function test_errorSaysWhere() {
        const error = errorOf(() => daemon.lockout("total"));
        const here = errorOf(() => { throw new Error() });
        verify(error instanceof Error);
        compare(error.fileName, here.fileName);
        compare(error.lineNumber, here.lineNumber - 1);
        verify(error.message.endsWith("({\"do\":\"lockout\",\"kind\":\"total\"})"), error.message);
    }

    function test_twoStandIns() {
        daemon.hold("Authenticate");
        const client = makeClient();
        client.enter("1234");
        other.waitForCalls("Authenticate", 1, 60000);
        compare(other.calls(), daemon.calls());
        other.release();
        tryVerify(() => client.authenticated);
        compare(other.state(), daemon.state());
        other.clearCalls();
        compare(daemon.calls(), []);
    }

    // Which descriptors this process has.
    function descriptors() {
        const result = [];
        for (let number = 0; number < 256; ++number) {
            const file = new XMLHttpRequest();
            file.open("GET", "file:///proc/self/fdinfo/" + number, false);
            file.send();
            if (file.responseText)
                result.push(number);
        }
        return result;
    }

    function test_connections() {
        const before = descriptors();
        verify(before.length > 3);
        const idle = createTemporaryObject(standInComponent, test);
        compare(descriptors(), before);
        idle.lockState();
        compare(descriptors(), before);
    }

    function test_resetAfterMisbehaviour_data() {
        return [
            { tag: "rules", mess: () => { daemon.mute("*"); daemon.fail("Introspect") } },
            { tag: "stopped", mess: () => daemon.stop() },
            { tag: "without a name", mess: () => daemon.request({ do: "release-name" }) },
            { tag: "without a socket", mess: () => { daemon.stop(); daemon.request({ do: "start", socket: false }) } },
            { tag: "without both",
              mess: () => { daemon.stop(); daemon.request({ do: "start", socket: false, name: false }) } },
            { tag: "unlocked", mess: () => daemon.unlock() },
            { tag: "odd state", mess: () => daemon.setLockState(77) },
            { tag: "lockout", mess: () => daemon.lockout("code-entry") },
            { tag: "manager", mess: () => daemon.lockout("manager") },
            { tag: "mute connections", mess: () => daemon.request({ do: "accept", how: "mute" }) },
            { tag: "closed connections", mess: () => daemon.request({ do: "accept", how: "close" }) },
            { tag: "no connections", mess: () => daemon.request({ do: "accept", how: "refuse" }) },
            { tag: "no connections when stopped",
              mess: () => { daemon.request({ do: "accept", how: "refuse" }); daemon.stop() } },
            { tag: "option", mess: () => daemon.setOption("worker/show-last-login", false, 1000) },
            { tag: "option of another type", mess: () => daemon.setOption("worker/can-switch-to-user", "no") },
            { tag: "new option", mess: () => daemon.setOption("k", true) },
            { tag: "removed option",
              mess: () => daemon.request({ do: "remove-option", key: "worker/can-switch-to-user" }) },
            { tag: "two daemons", mess: () => daemon.request({ do: "handover", "keep-old": true }) },
        ];
    }

    function test_resetAfterMisbehaviour(data) {
        const options = [daemon.options(), daemon.options(1000)];
        data.mess();
        daemon.reset();
        const state = daemon.state();
        verify(state.running);
        verify(state.owner);
        compare(state["lock-state"], AuthDevlockClient.Locked);
        compare(state.tokens, 0);
        compare(state.peers, []);
        compare(daemon.calls(), []);
        compare([daemon.options(), daemon.options(1000)], options);
        for (let instance = 1; instance < state.instance; ++instance) {
            const emission = { do: "emit", signal: "AuthDataChanged", instance: instance };
            refused(() => daemon.request(emission), "there is no such instance");
        }
        verify(authenticated().authenticated);
    }

    function test_resetForgetsWrongCodes() {
        let client = makeClient();
        for (let count = 1; count <= 2; ++count) {
            client.enter("wrong");
            tryCompare(client.discredits, "count", count);
        }
        client.destroy();
        wait(0);
        daemon.reset();
        client = makeClient();
        client.enter("wrong");
        tryCompare(client.discredits, "count", 1);
        compare(daemon.lockState(), AuthDevlockClient.Locked);
    }

    function test_misspeltMethodIsRefused() {
        for (const ask of [method => daemon.calls(method), method => daemon.waitForCalls(method),
                           method => daemon.answer(method, "(true,)"), method => daemon.mute(method)])
            refused(() => ask("Authentcate"), "method: ");
    }

    function test_resetGivesChangedCodesBack() {
        const client = authenticated();
        client.changeAuthData("code", { old: "1234", "new": "5678" });
        tryCompare(client, "progress", false);
        client.enter("1234");
        tryCompare(client.discredits, "count", 1);
        client.destroy();
        wait(0);
        daemon.reset();
        verify(authenticated().authenticated);
    }

    // A held call is not done when the daemon that has it goes.
    function test_resetWithHeldCalls() {
        const client = makeClient();
        daemon.hold("UnlockIfNeeded");
        client.unlockIfNeeded();
        daemon.waitForCalls("UnlockIfNeeded", 1, 60000);
        daemon.unlock();
        daemon.setLockState(AuthDevlockClient.Locked);
        daemon.reset();
        tryCompare(client.answers, "count", 1);
        compare(client.answers.signalArguments[0][0], false);
        tryVerify(() => daemon.state().peers.length === 1);
        daemon.release();
        settle(client);
        compare(client.answers.count, 1);
    }

    // What a reset does, clients that are made afterwards do not hear.
    function test_resetIsOverForClientsMadeAfterwards() {
        for (let round = 0; round < 10; ++round) {
            const gone = createTemporaryObject(clientComponent, test);
            gone.destroy();
            wait(0);
            daemon.reset();
            const client = makeClient();
            const devlock = makeDevlock();
            daemon.emitSignal("StateChanged", "(77,)");
            checkState(devlock, 77);
            compare(client.discredits.count, 0);
            compare(daemon.calls().map(call => call.method), ["GetState", "GetState", "GetState"]);
            client.destroy();
            wait(0);
        }
    }
}
