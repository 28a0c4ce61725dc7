import QtQuick 2.15
import QtTest 1.15
import ScreenExamples 1.0
import Vantora.Auth.Testing 1.0
import "../qml"

// The example of docs/screens.md.
PatientTestCase {
    id: test
    name: "screensDocs"
    when: windowShown
    visible: true

    StandIn { id: daemon }
    Component { id: example; Example {} }

    function test_example() {
        daemon.reset();
        const screen = createTemporaryObject(example, test);
        const cover = screen.children[0];
        compare(cover.visible, true);
        tryVerify(() => {
            if (screen.message !== "Try again")
                screen.enter("4321");
            return screen.message === "Try again";
        });
        compare(cover.visible, true);
        screen.enter("1234");
        tryCompare(cover, "visible", false);
        daemon.lock();
        tryCompare(cover, "visible", true);
    }
}
