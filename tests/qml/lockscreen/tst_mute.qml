import QtQuick 2.15
import Vantora.Auth 1.0

// Calls that wait for a mute daemon end after 25 seconds, and freeze the screen as long.
LockScreenCase {
    name: "mute"

    function test_anUnlockingWithoutAnAnswerIsARefusal() {
        daemon.mute("SetDevlockState", 1);
        startLocked();
        typeCode("1234");
        tryVerify(() => find("message").text === "The device could not be unlocked. Please try again.", 40000);
        compare(screen.unlocked, false);
        compare(find("lock").busy, false);
        waitForEntry();
        typeCode("1234");
        verifyUnlocks();
    }

    function test_anUnlockingWhoseAnswerIsLostUnlocksWhenItIsAnnounced() {
        daemon.misbehave("SetDevlockState", "lose-reply", 1);
        startLocked();
        typeCode("1234");
        tryVerify(() => screen.unlocked, 40000);
        verifyUnlocks();
        compare(daemon.calls("Authenticate").length, 1);
    }

    function test_aChallengeWithoutAnAnswerIsARefusal() {
        daemon.mute("RequestChallenge", 1);
        startLocked();
        typeCode("1234");
        tryVerify(() => find("lock").overdue || find("message").text === "That was not accepted. Please try again.",
                  40000);
        compare(screen.unlocked, false);
        compare(daemon.calls("SetDevlockState").length, 0);
        if (find("lock").overdue)
            press("footer");
        waitForEntry();
        typeCode("1234");
        verifyUnlocks();
    }
}
