import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Templates 2.15 as T
import QtQuick.Window 2.15
import Vantora.Auth 1.0
import Vantora.Auth.Testing 1.0
import Vantora.Tests 1.0
import "../../../examples/style"
import ".."

// What the tests of pages have in common: a page for each, the daemon, fingers, keys and eyes.
ScreenTestCase {
    id: testCase

    property Component screen
    property Item page
    property alias daemon: standIn
    readonly property string notAccepted: "Code was not accepted. Please try again."
    readonly property string longName: "Wolfeschlegelsteinhausenbergerdorffwelchevoralternwarengewissenhaft"
    readonly property string away: "Waiting for the authentication service…"
    // Keys that press what has the focus.
    readonly property var pressingKeys: [{ tag: "Return", key: Qt.Key_Return }, { tag: "Enter", key: Qt.Key_Enter },
                                         { tag: "Space", key: Qt.Key_Space }]
    // Ids that fit into no signed number of 32 bits.
    readonly property var highIds: [{ tag: "2^31", uid: 2147483648 }, { tag: "2^32-2", uid: 4294967294 }]

    width: 360
    height: 720

    StandIn { id: standIn }

    function init() {
        daemon.reset();
        dress({ dark: false, width: 360, height: 720 });
    }

    function dress(looks) {
        Theme.dark = looks.dark;
        width = looks.width;
        height = looks.height;
    }

    // Nobody waits for the daemon in vain, unless a test says so.
    function show(user, users) {
        page = createTemporaryObject(screen, testCase, Object.assign({ user: user, patience: 600000 },
                                                                     users ? { users: users } : {}));
        tryCompare(page, "settled", true);
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

    // Enters a secret, and waits until the daemon has been asked about it.
    function ask(secret) {
        const count = asked().length;
        enter(secret);
        tryVerify(() => asked().length > count);
    }

    // What the daemon was asked, without the challenges.
    function asked() {
        return daemon.calls("Authenticate").map(call => call.args.replace(/'challenge': <\[[^\]]*\]>, /, ""));
    }

    function question(factor, secret, uid) {
        return "('login', {'data': <'" + secret + "'>, 'factor': <'" + factor + "'>, 'uid': <" + uid + ">})";
    }

    // That a wrong secret is told.
    function tryRefusal(text = notAccepted) {
        tryVerify(() => note() === text);
        compare(page.settled, true);
        compare(item("secret").text, "");
    }

    // Waits until the screen offers to try again, and does.
    function giveUp() {
        page.patience = 100;
        tryVerify(() => item("submit").text === "Try again");
        compare(note(), "There is no answer yet.");
        compare(page.settled, false);
        page.patience = 600000;
        click("submit");
    }

    function note() { return item("note").text }
    function heading() { return item("heading").text }

    // That nothing is pressed or entered where the focus is.
    function verifyFocusOn(name, role) {
        type("12");
        compare(item("secret").text, "");
        const focused = testCase.Window.activeFocusItem;
        compare(Pictures.accessibleName(focused), name);
        compare(Pictures.role(focused), role);
    }

    // The daemon's option changes, and nobody is told.
    function setUnannounced(key, value, uid) {
        daemon.request({ do: "set-option", key: key, value: value, uid: uid, announce: false });
    }

    // The daemon answers whatever it is asked about a user of any id.
    function knowAnyUser(option) {
        daemon.answer("GetUserOptions", "({'worker/service-factors/login': <['code']>},)");
        daemon.answer("GetUserOption", "(<" + option + ">,)");
        daemon.answer("Authenticate", "(true,)");
    }

    function verifyReadsAreAbout(uid) {
        const reads = daemon.calls("GetUserOptions").concat(daemon.calls("GetUserOption"));
        compare(reads.filter(call => !call.args.startsWith("(uint32 " + uid + ", ")), []);
    }

    function item(name) {
        const found = findChild(page, name);
        verify(found, "there is " + name);
        return found;
    }

    // All visible items of the page for which isWanted(item) is true.
    function items(isWanted) {
        const found = [];
        const visit = parent => {
            for (let index = 0; index < parent.children.length; ++index) {
                const child = parent.children[index];
                if (!child.visible)
                    continue;
                if (isWanted(child))
                    found.push(child);
                visit(child);
            }
        };
        visit(page);
        return found;
    }

    // Scrolls to an item, as a finger would, once it is where it belongs.
    function reveal(it) {
        for (let at = it; at; at = at.parent)
            verify(waitForItemPolished(at, 60000));
        const scroller = item("scroller");
        const y = it.mapToItem(scroller.contentItem, 0, 0).y;
        scroller.contentY = Math.max(0, Math.min(y - 8, scroller.contentHeight - scroller.height));
        return it;
    }

    function click(name) {
        mouseClick(reveal(item(name)));
    }

    function tap(name) {
        touch(reveal(item(name)));
    }

    // Presses Tab until the item has the focus.
    function tabTo(name) {
        for (let presses = 0; presses < 40; ++presses) {
            keyClick(Qt.Key_Tab);
            if (item(name).activeFocus)
                return;
        }
        fail("Tab does not reach " + name);
    }

    function isText(it) {
        return it instanceof Text && it.text;
    }

    function isField(it) {
        return it instanceof T.TextField;
    }

    function isControl(it) {
        return it instanceof T.AbstractButton || isField(it);
    }

    // The colour that an item lies on.
    function ground(it) {
        for (let below = it.parent; below; below = below.parent) {
            const candidate = below.background || below;
            if (candidate instanceof Rectangle && candidate.visible && candidate.color.a === 1)
                return candidate.color;
        }
        fail("nothing lies under the item");
    }

    function isEnabled(it) {
        for (let at = it; at; at = at.parent) {
            if (!at.enabled)
                return false;
        }
        return true;
    }

    // That all of the page is drawn, readable, and reachable; and that the texts given are among what is.
    function look(texts) {
        const seen = items(isText);
        for (const text of texts)
            verify(seen.some(it => it.text === text), "shows '" + text + "' among " + seen.map(it => it.text));
        for (const it of seen) {
            reveal(it);
            verify(Pictures.isInside(page, it), "'" + it.text + "' is inside");
            verify(!it.truncated && it.contentWidth <= it.width + 0.5, "'" + it.text + "' has room");
            if (!isEnabled(it))
                continue;
            verify(contrast(it.color, ground(it)) >= 4.5, "'" + it.text + "' stands out");
            if (texts.includes(it.text))
                verify(Pictures.ink(page, it, it.color) > 0, "'" + it.text + "' is drawn");
        }
        for (const it of items(isControl)) {
            verify(it.width >= 48 && it.height >= 48, it + " can be hit: " + it.width + "x" + it.height);
            // Qt Quick tells no name of a field for passwords.
            verify(isField(it) ? Pictures.accessibleDescription(it) : Pictures.accessibleName(it), it + " has a name");
            compare(Pictures.role(it), isField(it) ? "EditableText" : it instanceof Toggle ? "CheckBox" : "Button");
            if (it instanceof Toggle)
                compare(Pictures.isToldChecked(it), it.on, it.text);
        }
    }

    // That the text of this name is told as one of this role.
    function listen(name, role) {
        compare(Pictures.role(item(name)), role, name);
        compare(Pictures.accessibleName(item(name)), item(name).text);
    }

    // That this text is shown as it stands, wherever it occurs on the page; gives where it does.
    function showsPlain(text) {
        const shown = items(it => isText(it) && it.text.includes(text));
        for (const it of shown)
            verify(Pictures.isPlain(it), it.text);
        return shown.map(it => it.text);
    }

    function sizes() {
        const rows = [];
        for (const dark of [false, true]) {
            for (const [width, height] of [[360, 640], [800, 1280], [1280, 800]]) {
                const tag = width + "x" + height + (dark ? "-dark" : "-light");
                rows.push({ tag: tag, dark: dark, width: width, height: height });
            }
        }
        return rows;
    }

    // Looks, and keeps a picture where there is a directory for it.
    function lookAt(state, data, texts) {
        look(texts);
        item("scroller").contentY = 0;
        Pictures.save(page, "pictures/" + name + "-" + state + "-" + data.tag + ".png");
    }
}
