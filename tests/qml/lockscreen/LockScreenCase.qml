import QtQuick 2.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import "../../../examples/lockscreen"
import "../../../examples/style"
import ".."

// A lock screen for each test, with a watch over it: it must never claim to be unlocked while the device is not.
ScreenTestCase {
    id: testCase

    property size extent: Qt.size(360, 720)
    property real user: 1000
    // Only what is about running out of time has little of it.
    property int patience: 60000
    property int retryPause: 60000
    property int lookPause: 60000
    property int lookPatience: 60000
    property bool isWatched: true
    property bool chooserWasOpened: false
    property int falseClaims: 0
    property var messages: []
    property alias screen: loader.item
    property alias daemon: standIn

    width: 1280
    height: 1280

    StandIn { id: standIn }

    Loader {
        id: loader

        active: false
        width: testCase.extent.width
        height: testCase.extent.height
        focus: true
        sourceComponent: LockScreen {
            focus: true
            user: testCase.user
            patience: testCase.patience
            retryPause: testCase.retryPause
            lookPause: testCase.lookPause
            lookPatience: testCase.lookPatience
        }
    }

    Connections {
        target: loader.item
        function onUnlockedChanged() {
            if (loader.item.unlocked && testCase.isWatched && standIn.lockState() !== AuthDevlockClient.Unlocked)
                ++testCase.falseClaims;
        }
    }

    // The settings client that the chooser makes stays, and ends the process when the daemon has gone again before it
    // has followed its return.
    function awaitSettings() {
        if (chooserWasOpened && standIn.state().running)
            tryVerify(() => standIn.state().peers.length > 0);
    }

    function init() {
        awaitSettings();
        standIn.reset();
        awaitSettings();
        falseClaims = 0;
        isWatched = true;
        user = 1000;
        patience = 60000;
        retryPause = 60000;
        lookPause = 60000;
        lookPatience = 60000;
        extent = Qt.size(360, 720);
        Theme.dark = false;
    }

    function cleanup() {
        loader.active = false;
        compare(falseClaims, 0, "The screen never claims to be unlocked while the device is not");
    }

    function start() {
        loader.active = true;
        // What was entered is forgotten after a while, and a machine that is busy may need longer than that.
        find("entry").memory = 3600000;
        screen.forceActiveFocus();
    }

    // The client for the attempts is made last, and ends the process when the daemon goes before it is there.
    function startLocked() {
        start();
        waitForEntry();
        tryVerify(() => find("attempt").existing !== null);
        compare(screen.settled, true);
    }

    function waitForEntry() {
        tryVerify(() => isShown("prompt") && !find("lock").busy && (find("code").activeFocus || find("field").activeFocus));
    }

    function startUnlocked() {
        startLocked();
        daemon.unlock();
        verifyUnlocks();
    }

    // The items of the screen, from the front to the back of the tree.
    function items(root) {
        let all = [];
        for (let i = 0; i < root.children.length; ++i)
            all = all.concat(root.children[i], items(root.children[i]));
        return all;
    }

    function find(name) {
        const found = items(screen).filter(item => item.objectName === name);
        return found.find(item => item.visible) || found[0] || null;
    }

    function isShown(name) {
        const item = find(name);
        return item !== null && item.visible;
    }

    function text(name) {
        verify(isShown(name), name + " is shown");
        return find(name).text;
    }

    // Scrolls to an item, where there is so much that one has to.
    function reveal(item) {
        const choices = find("choices");
        if (!choices || !items(choices.contentItem).includes(item))
            return;
        const y = item.mapToItem(choices.contentItem, 0, 0).y;
        choices.contentY = Math.max(0, Math.min(y, choices.contentHeight - choices.height));
    }

    function usable(name) {
        const item = find(name);
        verify(item && item.visible && item.enabled, name + " can be used");
        return item;
    }

    function press(name) { mouseClick(usable(name)) }
    function tap(name) { touch(usable(name)) }

    function typeCode(code) {
        type(code);
        keyClick(Qt.Key_Return);
    }

    // Waits until the request is on the wire.
    function waitForCalls(method, count) {
        tryVerify(() => daemon.calls(method).length >= count, undefined, method + " is called");
        compare(daemon.calls(method).length, count);
    }

    function waitForMoreCalls(method, count) {
        const enough = daemon.calls(method).length + count;
        tryVerify(() => daemon.calls(method).length >= enough, undefined, method + " is called " + count + " times");
    }

    function verifyUnlocks() {
        tryVerify(() => screen.unlocked && isShown("action"));
        compare(daemon.lockState(), AuthDevlockClient.Unlocked);
    }

    // That nothing comes of it: what is under way has happened when the daemon and the screen have both answered.
    function settle() {
        for (let i = 0; i < 3; ++i) {
            daemon.lockState();
            wait(60);
        }
    }

    // What there is to be seen.

    readonly property var extents: [Qt.size(360, 640), Qt.size(360, 720), Qt.size(800, 1280), Qt.size(1280, 800),
                                    Qt.size(720, 360), Qt.size(480, 320)]
    readonly property var entryParts: ["time", "date", "prompt", "code", "key-1", "key-0", "key-erase", "key-accept",
                                       "footer"]
    // By name: how to come to it, and what has to be on the screen then.
    readonly property var scenes: ({
        waiting: { parts: ["time", "date", "title", "text"], enter: () => {
            daemon.stop();
            start();
        } },
        entry: { parts: entryParts, enter: startLocked },
        digits: { parts: entryParts, enter: () => {
            startLocked();
            type("1234");
        } },
        manyDigits: { parts: entryParts, enter: () => {
            startLocked();
            type("1".repeat(128));
        } },
        focusOnOk: { parts: entryParts, enter: () => {
            startLocked();
            type("12");
            keyClick(Qt.Key_Tab);
        } },
        focusBelow: { parts: entryParts, enter: () => {
            startLocked();
            keyClick(Qt.Key_Tab);
        } },
        checking: { parts: entryParts.concat("message"), enter: () => {
            daemon.hold("Authenticate");
            startLocked();
            typeCode("1234");
            waitForCalls("Authenticate", 1);
        } },
        noAnswer: { parts: entryParts.concat("message"), enter: () => {
            daemon.hold("Authenticate");
            startLocked();
            typeCode("1234");
            waitForCalls("Authenticate", 1);
            patience = 100;
            tryVerify(() => find("lock").overdue);
        } },
        refused: { parts: entryParts.concat("message"), enter: () => {
            startLocked();
            typeCode("9999");
            tryVerify(() => !find("lock").busy && find("message").text !== "" && !find("entry").shaking);
        } },
        notUnlocked: { parts: entryParts.concat("message"), enter: () => {
            daemon.answer("SetDevlockState", "(false,)");
            startLocked();
            typeCode("1234");
            tryVerify(() => !find("lock").busy && find("message").text !== "" && !find("entry").shaking);
        } },
        chooser: { parts: ["time", "date", "chooserTitle", "factor-code", "factor-smartcard", "factor-sudis",
                           "factor-slow", "factor-broken", "leave"], enter: () => {
            daemon.setOption("worker/service-factors/unlock", ["code", "smartcard", "sudis", "slow", "broken"], 1000);
            startLocked();
            chooserWasOpened = true;
            press("footer");
            tryVerify(() => isShown("factor-broken"));
        } },
        secret: { parts: ["time", "date", "prompt", "field", "unlock", "footer"], enter: () => {
            scenes.chooser.enter();
            press("factor-sudis");
            type("correct horse");
        } },
        codeEntryLockout: { parts: ["time", "date", "title", "text"], enter: () => {
            startLocked();
            daemon.lockout("code-entry");
            tryVerify(() => isShown("notice"));
        } },
        managerLockout: { parts: ["time", "date", "title", "text"], enter: () => {
            startLocked();
            daemon.lockout("manager");
            tryVerify(() => isShown("notice"));
        } },
        securityUi: { parts: ["time", "date", "title", "text"], enter: () => {
            startLocked();
            daemon.setLockState(5);
            tryVerify(() => isShown("notice"));
        } },
        anotherState: { parts: ["time", "date", "title", "text"], enter: () => {
            startLocked();
            daemon.setLockState(77);
            tryVerify(() => isShown("notice"));
        } },
        unlocked: { parts: ["time", "date", "title", "text", "action"], enter: startUnlocked },
        notLocked: { parts: ["time", "date", "title", "text", "action"], enter: () => {
            daemon.fail("SetState");
            startUnlocked();
            press("action");
            tryVerify(() => find("lock").lockingFailed);
        } },
    })
}
