import QtQuick 2.15
import QtTest 1.15

// A test case that waits for as long as it takes: what is waited for comes from other processes, and on a busy machine
// the 5 seconds of TestCase of Qt 5.15 are no sign that nothing comes.
TestCase {
    TestUtil { id: caller }

    // What the action throws.
    function errorOf(action) {
        try {
            action();
        } catch (error) {
            return error;
        }
        return { message: "no error" };
    }

    function tryVerify(condition, timeout = 60000, message = "function returned false") {
        let holds = condition();
        for (let waited = 0; !holds && waited < timeout; waited += 20) {
            wait(20);
            holds = condition();
        }
        if (!qtest_results.verify(holds, message, caller.callerFile(), caller.callerLine()))
            throw new Error("QtQuickTest::fail");
    }

    function tryCompare(object, property, expected, timeout = 60000, message = "property " + property) {
        for (let waited = 0; !qtest_compareInternal(object[property], expected) && waited < timeout; waited += 20)
            wait(20);
        const actual = object[property];
        if (!qtest_results.compare(qtest_compareInternal(actual, expected), message, qtest_results.stringify(actual),
                                   qtest_results.stringify(expected), caller.callerFile(), caller.callerLine()))
            throw new Error("QtQuickTest::fail");
    }
}
