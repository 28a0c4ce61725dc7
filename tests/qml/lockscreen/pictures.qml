import QtQuick 2.15
import Vantora.Tests 1.0
import "../../../examples/style"

// Draws all there is to be seen of the lock screen into /tmp/pictures-lockscreen/, for people to look at.
LockScreenCase {
    name: "pictures"

    function test_draw_data() {
        return Object.keys(scenes).map(name => ({ tag: name }));
    }

    function test_draw(data) {
        scenes[data.tag].enter();
        for (const dark of [false, true]) {
            for (const size of extents) {
                extent = size;
                Theme.dark = dark;
                waitForRendering(screen);
                const file = "/tmp/pictures-lockscreen/" + data.tag + "-" + size.width + "x" + size.height
                      + (dark ? "-dark" : "-light") + ".png";
                verify(Pictures.save(screen, file), file);
            }
        }
    }
}
