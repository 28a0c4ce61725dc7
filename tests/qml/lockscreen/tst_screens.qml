import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Templates 2.15 as T
import QtQuick.Window 2.15
import Vantora.Tests 1.0
import "../../../examples/lockscreen"
import "../../../examples/logic"
import "../../../examples/style"

// What matters can be seen, read and reached, in each state, on each size of screen and in both themes.
LockScreenCase {
    name: "screens"

    function shownItems() {
        return items(screen).filter(item => item.visible && item.opacity > 0 && item.width > 0 && item.height > 0);
    }

    function isText(item) {
        return item instanceof Text && item.text !== "";
    }

    function isField(item) {
        return item instanceof T.TextField || item instanceof CodeField;
    }

    function isControl(item) {
        return item instanceof AbstractButton || isField(item);
    }

    function describe(item) {
        return (item.objectName || item) + (item.text ? " “" + item.text + "”" : "") + " at " + screen.width + "x"
                + screen.height + (Theme.dark ? ", dark" : ", light");
    }

    // Opaque and behind the item, according to the items around it.
    function groundOf(item) {
        for (let around = item.parent; around; around = around.parent) {
            const background = around.background;
            if (background && background.color && background.color.a === 1)
                return background.color;
            if (around instanceof Rectangle && around.color.a === 1)
                return around.color;
        }
        return Theme.ground;
    }

    function overlap(one, other) {
        const a = one.mapToItem(screen, 0, 0, one.width, one.height);
        const b = other.mapToItem(screen, 0, 0, other.width, other.height);
        return a.x + a.width > b.x + 0.5 && b.x + b.width > a.x + 0.5 && a.y + a.height > b.y + 0.5
                && b.y + b.height > a.y + 0.5;
    }

    function contains(outer, inner) {
        for (let item = inner; item; item = item.parent) {
            if (item === outer)
                return true;
        }
        return false;
    }

    function verifyScene(parts) {
        for (const name of parts) {
            const part = find(name);
            verify(part && part.visible, name + " is shown");
            reveal(part);
            verify(Pictures.isInside(screen, part), describe(part) + " is inside");
        }
        const shown = shownItems();
        for (const item of shown.filter(isText)) {
            reveal(item);
            verify(Pictures.isInside(screen, item), describe(item) + " is inside");
            verify(!item.truncated && item.contentWidth <= item.width + 0.5 && item.contentHeight <= item.height + 0.5,
                   describe(item) + " is whole");
            // What cannot be used at present is dimmed.
            if (!item.enabled)
                continue;
            verify(contrast(item.color, groundOf(item)) >= 4.5, describe(item) + " has contrast");
            verify(Pictures.ink(screen, item, item.color) >= 4, describe(item) + " is drawn");
            verify(Pictures.ink(screen, item, groundOf(item)) >= 4, describe(item) + " is drawn on its ground");
        }
        const controls = shown.filter(isControl);
        // A phone on its side has less room.
        const touch = screen.height < 400 ? 40 : 48;
        for (const item of controls) {
            reveal(item);
            verify(item.width >= touch && item.height >= touch,
                   describe(item) + " is large enough to be touched: " + item.width + "x" + item.height);
            compare(Pictures.role(item), isField(item) ? "EditableText" : "Button", describe(item));
            // Qt Quick tells no name of a field for passwords.
            verify(isField(item) ? Pictures.accessibleDescription(item) : Pictures.accessibleName(item),
                   describe(item) + " has a name for assistive technology");
            verify(Pictures.isInside(screen, item), describe(item) + " is inside");
        }
        for (const name of ["prompt", "chooserTitle", "title"]) {
            if (isShown(name)) {
                compare(Pictures.role(find(name)), "Heading", name);
                compare(Pictures.accessibleName(find(name)), find(name).text);
            }
        }
        const solid = controls.concat(shown.filter(isText));
        for (const one of solid) {
            for (const other of solid) {
                if (one !== other && !contains(one, other) && !contains(other, one))
                    verify(!overlap(one, other), describe(one) + " and " + describe(other) + " are apart");
            }
        }
    }

    function test_scene_data() {
        return Object.keys(scenes).map(name => ({ tag: name }));
    }

    function test_scene(data) {
        const scene = scenes[data.tag];
        scene.enter();
        for (const dark of [false, true]) {
            for (const size of extents) {
                extent = size;
                Theme.dark = dark;
                waitForRendering(screen);
                verifyScene(scene.parts);
            }
        }
    }

    function test_theDotsAreDrawnAndTheDigitsAreNot() {
        startLocked();
        const code = find("code");
        const none = Pictures.ink(screen, code, Theme.text);
        for (const digit of "1234") {
            keyClick(digit);
            // A dot grows.
            tryVerify(() => Pictures.ink(screen, code, Theme.text) >= none + 100 * code.digits.length);
        }
        verify(!items(code).some(isText));
    }

    function test_theFocusShows_data() {
        return [{ tag: "code", keys: 0 }, { tag: "footer", keys: 1 }];
    }

    function test_theFocusShows(data) {
        startLocked();
        for (let i = 0; i < data.keys; ++i)
            keyClick(Qt.Key_Tab);
        for (const dark of [false, true]) {
            Theme.dark = dark;
            waitForRendering(screen);
            const item = find(data.tag);
            verify(item.activeFocus);
            verify(Pictures.ink(screen, item.parent, Theme.accent) > 2 * item.width);
        }
    }

    function test_lockedAndUnlockedLookDifferent() {
        startLocked();
        compare(Pictures.ink(screen, screen, Theme.good), 0);
        daemon.unlock();
        verifyUnlocks();
        verify(Pictures.ink(screen, screen, Theme.good) > 200);
    }

    // A call that may freeze the screen comes after what is to be seen meanwhile.

    property int frames: 0

    Connections {
        target: screen ? screen.Window.window : null
        function onFrameSwapped() { ++frames }
    }

    function test_theLockedPageIsDrawnBeforeAClientIsMade() {
        startUnlocked();
        let drawn = -1;
        find("attempt").existingChanged.connect(() => drawn = frames);
        screen.unlockedChanged.connect(() => frames = 0);
        daemon.lock();
        tryVerify(() => drawn >= 0);
        verify(drawn >= 1, "frames drawn: " + drawn);
    }

    function test_progressIsDrawnBeforeTheDaemonIsAsked() {
        startLocked();
        tryVerify(() => find("attempt").existing !== null);
        const lock = find("attempt");
        const drawn = {};
        lock.stageChanged.connect(() => {
            drawn[lock.stage] = frames;
            frames = 0;
        });
        typeCode("1234");
        verifyUnlocks();
        verify(drawn[Attempt.Asked] >= 1, "frames drawn before the question: " + drawn[Attempt.Asked]);
        verify(drawn[Attempt.Idle] >= 1, "frames drawn before the unlocking: " + drawn[Attempt.Idle]);
    }

    function test_theUnlockedPageShowsThePressBeforeTheDaemonIsAsked() {
        startUnlocked();
        daemon.delay("SetState", 300, 1);
        press("action");
        frames = 0;
        waitForCalls("SetState", 1);
        verify(frames >= 1);
        tryCompare(screen, "unlocked", false);
    }

    // What assistive technology is told.

    function test_whatChangesIsAnnounced() {
        startLocked();
        const message = find("message");
        const code = find("code");
        compare(Pictures.role(message), "AlertMessage");
        compare(Pictures.role(find("notice")), "AlertMessage");
        compare(Pictures.role(code), "EditableText");
        compare(code.Accessible.passwordEdit, true);
        compare(Pictures.accessibleDescription(code), "Code, empty");
        compare(Pictures.accessibleName(find("key-accept")), "Unlock");
        compare(Pictures.accessibleName(find("key-erase")), "Erase the last digit");
        compare(Pictures.accessibleName(find("key-7")), "7");
        compare(Pictures.role(find("clock")), "StaticText");
        verify(Pictures.accessibleName(find("clock")).startsWith(find("time").text));
        type("12");
        compare(Pictures.accessibleDescription(code), "Code, 2 digit(s) entered");
        typeCode("9999");
        compare(Pictures.accessibleName(message), "Checking…");
        tryVerify(() => !find("lock").busy);
        compare(Pictures.accessibleName(message), "That was not accepted. Please try again.");
        daemon.lockout("manager");
        tryVerify(() => isShown("notice"));
        compare(Pictures.accessibleName(find("notice")), "This device is locked");
        verify(/manager/.test(Pictures.accessibleDescription(find("notice"))));
    }

    // What comes from elsewhere.

    function openChooser(factors) {
        chooserWasOpened = true;
        daemon.setOption("worker/service-factors/unlock", factors, 1000);
        startLocked();
        press("footer");
        tryVerify(() => isShown("factor-" + factors[factors.length - 1]));
    }

    function test_theNameOfAFactorIsNoMarkup_data() {
        return [{ tag: "<b>x</b>&y" }, { tag: "<img src='file:///nothing'>" }, { tag: "R&D" }];
    }

    function test_theNameOfAFactorIsNoMarkup(data) {
        openChooser(["code", data.tag]);
        const choice = find("factor-" + data.tag);
        compare(Pictures.accessibleName(choice), data.tag);
        let texts = items(choice).filter(isText);
        compare(texts.map(item => item.text), [data.tag]);
        verify(Pictures.isPlain(texts[0]));
        mouseClick(choice);
        compare(text("prompt"), "Enter your secret for “" + data.tag + "”");
        verify(Pictures.isPlain(find("prompt")));
        compare(Pictures.accessibleDescription(find("field")), text("prompt"));
    }

    function test_theLongestTextsPushNothingOut_data() {
        return extents.map(size => ({ tag: size.width + "x" + size.height, size: size }));
    }

    function test_theLongestTextsPushNothingOut(data) {
        const name = "Zweifaktorauthentifizierungsgerätebeauftragtenzuständigkeiten";
        verify(name.length >= 60);
        extent = data.size;
        openChooser(["code", name]);
        waitForRendering(screen);
        for (const part of ["time", "date", "chooserTitle", "factor-code", "factor-" + name, "leave"]) {
            reveal(find(part));
            verify(Pictures.isInside(screen, find(part)), part);
            verify(find(part).width <= find("choices").width || ["time", "date"].includes(part), part);
        }
        find("factor-" + name).clicked();
        tryVerify(() => isShown("field"));
        const footer = find("footer");
        footer.text = "Andere Möglichkeiten zum Entsperren dieses Geräts anzeigen";
        waitForRendering(screen);
        for (const part of ["time", "date", "prompt", "field", "unlock", "footer"])
            verify(Pictures.isInside(screen, find(part)), part);
        verify(Pictures.isInside(find("entry"), footer));
        for (const [one, other] of [["prompt", "field"], ["field", "unlock"], ["unlock", "footer"], ["time", "prompt"]])
            verify(!overlap(find(one), find(other)), one + " and " + other);
    }

    readonly property var manyFactors: ["code"].concat(Array.from({ length: 39 }, (_, index) => "f" + index))

    function isInView(item) {
        return Pictures.isInside(find("choices"), item) && Pictures.isInside(screen, item);
    }

    function openManyFactors() {
        extent = Qt.size(360, 640);
        openChooser(manyFactors);
        waitForRendering(screen);
    }

    function test_theManyFactorsAreReachedByKey() {
        openManyFactors();
        const all = manyFactors.map(name => find("factor-" + name)).concat(find("leave"));
        verify(!isInView(find("leave")));
        for (const [index, item] of all.entries()) {
            if (index)
                keyClick(Qt.Key_Down);
            verify(item.activeFocus, describe(item));
            verify(isInView(item), describe(item));
        }
        for (const item of all.reverse().slice(1)) {
            keyClick(Qt.Key_Up);
            verify(item.activeFocus && isInView(item), describe(item));
        }
    }

    function test_theManyFactorsAreReachedByScrolling() {
        openManyFactors();
        const choices = find("choices");
        // It goes as far as it is dragged: on a busy machine it would fly over some between two pictures.
        choices.maximumFlickVelocity = 1;
        const all = manyFactors.map(name => find("factor-" + name)).concat(find("leave"));
        const seen = new Set(all.filter(isInView));
        choices.contentYChanged.connect(() => all.filter(isInView).forEach(item => seen.add(item)));
        for (let drags = 0; drags < 40 && !choices.atYEnd; ++drags) {
            mouseDrag(choices, choices.width / 2, choices.height - 20, 0, -choices.height / 2);
            tryVerify(() => !choices.moving);
        }
        compare(all.filter(item => !seen.has(item)).map(item => item.objectName), []);
        verify(isShown("chooserTitle"));
        mouseClick(find("leave"));
        waitForEntry();
    }

    function test_theFactorInUseIsInViewAmongMany() {
        openManyFactors();
        find("factor-f38").clicked();
        waitForEntry();
        press("footer");
        tryVerify(() => isShown("factor-f38") && find("factor-f38").activeFocus);
        tryVerify(() => isInView(find("factor-f38")));
    }
}
