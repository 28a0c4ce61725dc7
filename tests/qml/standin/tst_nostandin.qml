AnswerlessTestCase {
    name: "nostandin"
    reason: "there is no stand-in daemon at /run/authd/standin.socket; run the tests where there is one: "
        + "authd-standin run -- qmltestrunner -input FILE"

    function initTestCase() {
        compare(daemon.request({ do: "quit" }), { ok: true });
        tryVerify(() => errorOf(() => daemon.lockState()).message.startsWith("StandIn: there is no stand-in"));
    }
}
