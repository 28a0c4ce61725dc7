AnswerlessTestCase {
    name: "nostandin"
    reason: "there is no stand-in at /run/authd/standin.socket: No such file or directory; run the tests where there "
        + "is one: authd-standin run -- COMMAND"

    function initTestCase() {
        compare(daemon.request({ do: "quit" }), { ok: true });
        tryVerify(() => errorOf(() => daemon.lockState()).message.startsWith("StandIn: there is no stand-in"));
    }
}
