import QtQuick 2.15

// A test case with a finger, and with eyes for colours.
PatientTestCase {
    when: windowShown
    visible: true

    function type(keys) {
        for (const key of keys)
            keyClick(key);
    }

    function touch(item) {
        touchEvent(item).press(0, item).commit();
        touchEvent(item).release(0, item).commit();
    }

    function luminance(color) {
        const linear = part => part <= 0.03928 ? part / 12.92 : Math.pow((part + 0.055) / 1.055, 2.4);
        return 0.2126 * linear(color.r) + 0.7152 * linear(color.g) + 0.0722 * linear(color.b);
    }

    function contrast(one, other) {
        const bright = Math.max(luminance(one), luminance(other));
        return (bright + 0.05) / (Math.min(luminance(one), luminance(other)) + 0.05);
    }
}
