#include "days.h"

#include "play.h"

namespace {

using Action = std::function<void(Play &play)>;

// Longer than a screen would put its user off that "opens rather than shut the user out".
const int Long = 64000;
const int VeryLong = 330000;
// In which a host that retries by itself does so.
const int Meanwhile = 45000;
// For two looks, one every 30 seconds, the second of which waits for its answer; a client that is made while the system
// bus is stuck waits for 50 seconds, and a screen may make two of them.
const int LookPatience = 75000;
const int DeafPatience = 150000;
const int MostWrongCodes = 40;
const int WrongCodesTime = 70000;

constexpr char stop[] = R"({"do":"stop"})";
constexpr char start[] = R"({"do":"start"})";

Action asks(const char *request)
{
    return [=](Play &play) { play.daemon(request); };
}

/** Something holds for so long, while nobody touches the host or the right code is entered again and again. */
struct Spell
{
    Action begin;
    Action end = [](Play &) {};
    std::function<void(Play &play)> each = [](Play &) {}; ///< before each code
    bool withEntries = false;
    bool isUnlocked = false; ///< The device is in use when the spell begins, which ends that.
    bool mayEnd = false;
};

Action lasts(const Spell &spell, int milliseconds)
{
    return [=](Play &play) {
        if (spell.withEntries || spell.isUnlocked) {
            play.start();
            play.unlock();
            // The host knows a good code now.
            if (!spell.isUnlocked)
                play.lock();
        } else {
            play.startIdle();
        }
        if (spell.mayEnd)
            play.mayEnd();
        spell.begin(play);
        play.awaitLocked();
        if (spell.withEntries)
            play.keepEntering(milliseconds, [&] { spell.each(play); });
        else
            play.leaveAlone(milliseconds);
        spell.end(play);
        play.usable();
    };
}

Action goes(const QByteArray &method, const QByteArray &how, const QByteArray &value = QByteArray())
{
    return [=](Play &play) {
        if (value.isEmpty())
            play.misbehave(method, how);
        else
            play.answer(method, value);
    };
}

/** The device is locked without a word, and the host can find out by looking alone. */
Action unheard(
    int patience, const Action &besides, const Action &later = [](Play &) {})
{
    return [=](Play &play) {
        // A first question that is still on its way would be answered by silence, as if the host had looked.
        play.startIdle();
        play.unlock();
        play.quiet();
        play.lockUnheard(patience);
        besides(play);
        play.awaitLook();
        later(play);
        play.usable();
    };
}

/** A code has no effect, then the device is locked once more: nothing may unlock it that was wished before. */
Action retries(
    const Action &begin, const Action &later = [](Play &) {})
{
    return [=](Play &play) {
        play.start();
        begin(play);
        play.reach("Authenticate");
        play.quiet();
        // Tokens end when the state becomes Locked, and the state is Locked already.
        play.setLock(ManagerLockout);
        play.daemon(R"({"do":"behave"})");
        play.forgetEntries();
        play.setLock(Locked);
        play.quiet();
        later(play);
        play.leaveAlone(Long);
        play.usable();
    };
}

/** A lockout that the code has brought about is ended. */
void enterWrongly(Play &play, const QByteArray &code)
{
    play.enterOnce(code);
    if (play.lockState() == CodeEntryLockout)
        play.setLock(Locked);
}

void manyWrongCodes(Play &play)
{
    play.start();
    play.unlock();
    play.lock();
    play.forgetEntries();
    const qint64 begin = play.elapsed();
    enterWrongly(play, QByteArray());
    enterWrongly(play, QByteArray(300, '7'));
    for (int i = 0; i < MostWrongCodes && play.elapsed() - begin < WrongCodesTime; ++i)
        enterWrongly(play, play.wrongCode());
    play.usable();
}

void wrongCodesStartedAgain(Play &play)
{
    play.start();
    play.unlock();
    play.lock();
    play.forgetEntries();
    const qint64 begin = play.elapsed();
    for (int i = 1; i <= 24 && play.elapsed() - begin < WrongCodesTime; ++i) {
        enterWrongly(play, play.wrongCode());
        if (i % 4 == 0) {
            play.end();
            play.start();
        }
    }
    play.usable();
}

/** The device is locked while the daemon, which goes when it was in use, is away. */
void awayLocked(Play &play)
{
    play.start();
    play.unlock();
    play.daemon(stop);
    play.awaitLocked();
    play.setLockUntold(Locked);
    play.leaveAlone(15000);
    play.forgetEntries();
    play.daemon(start);
    play.leaveAlone(Meanwhile);
    play.usable();
}

void lockedForLong(Play &play, int milliseconds)
{
    play.start();
    play.unlock();
    play.lock();
    play.forgetEntries();
    play.leaveAlone(milliseconds);
    play.usable();
}

/** The host is started again, as its supervisor would; the device has been locked meanwhile. */
Action startedAgain(const Action &end, bool isMute = false)
{
    return [=](Play &play) {
        play.start();
        play.unlock();
        end(play);
        play.setLock(Locked);
        play.forgetEntries();
        if (isMute)
            play.misbehave("*", "mute");
        play.start();
        play.leaveAlone(Meanwhile);
        play.usable();
        play.lock();
    };
}

// Code entry is locked for a time that the scenario gives; it begins anew when the manager's lockout has come between.
void keepLockedOut(Play &play)
{
    play.setLock(ManagerLockout);
    play.setLock(CodeEntryLockout);
}

} // namespace

std::vector<Day> lastingDays()
{
    std::vector<Day> days;
    const auto add = [&days](const QByteArray &name, const QByteArray &description, const Action &play) {
        days.push_back({name, description, play, Day::Lasts});
    };
    // Every spell lasts for a minute, and on demand for five.
    const auto addSpell = [&days](const QByteArray &name, const QByteArray &description, const Spell &spell) {
        const QByteArray besides = spell.withEntries ? "-entries" : spell.isUnlocked ? "-unlocked" : "";
        const QByteArray told = spell.withEntries ? " while codes are entered" : "";
        days.push_back(
            {name + "-long" + besides, description + " for a minute" + told, lasts(spell, Long), Day::Lasts});
        days.push_back({name + "-very-long" + besides, description + " for five minutes" + told, lasts(spell, VeryLong),
                        Day::Lasts, Day::WithBus, true});
    };
    const auto entered = [](Spell spell) {
        spell.withEntries = true;
        return spell;
    };

    // The longest day begins first.
    add("locks-unheard-deaf", "locks, and nothing gets through the system bus any more",
        unheard(
            DeafPatience, [](Play &play) { play.freezeBus(); }, [](Play &play) { play.thawBus(); }));
    add("locks-unheard", "locks, and the announcement is lost", unheard(LookPatience, [](Play &) {}));
    add("locks-unheard-mute", "locks, the announcement is lost, and no call is answered any more",
        unheard(LookPatience, goes("*", "mute")));

    const Spell away = {asks(stop), asks(start)};
    addSpell("away", "is away", away);
    addSpell("away", "is away", entered(away));
    Spell awayUnlocked = away;
    awayUnlocked.isUnlocked = true;
    addSpell("away", "goes while the device is in use, and is away", awayUnlocked);
    add("away-locked-long", "goes while the device is in use, which is locked when it returns", awayLocked);

    const Spell mute = {goes("*", "mute")};
    addSpell("mute", "answers no call", mute);
    addSpell("mute", "answers no call", entered(mute));
    addSpell("error", "answers all calls with an error", entered({goes("*", "error")}));
    addSpell("refuse", "takes no code", entered({goes("Authenticate", "reply", "(false,)")}));
    addSpell("refuse-unlock", "takes codes, and unlocks for none",
             entered({goes("SetDevlockState", "reply", "(false,)")}));
    Spell refused = {[](Play &play) {
                         play.daemon(R"({"do":"accept","how":"refuse"})");
                         play.daemon(R"({"do":"drop-peers"})");
                     },
                     [](Play &play) {
                         play.daemon(R"({"do":"accept","how":"normal"})");
                         play.daemon(R"({"do":"restart"})");
                     }};
    refused.mayEnd = true;
    addSpell("connections-refused", "closes all connections and takes no new ones", entered(refused));
    Spell undefined = {[](Play &play) { play.setLock(Undefined); }};
    addSpell("undefined", "announces Undefined, and keeps to it", undefined);
    // A right code unlocks all the same.
    undefined.each = undefined.begin;
    addSpell("undefined", "announces Undefined again and again", entered(undefined));
    Spell lockout = entered({keepLockedOut});
    lockout.each = [](Play &play) {
        if (play.lockState() != CodeEntryLockout)
            keepLockedOut(play);
    };
    addSpell("lockout", "has locked code entry", lockout);
    addSpell("manager-lockout", "the manager locks the user out",
             entered({[](Play &play) { play.setLock(ManagerLockout); }}));

    add("locked-long", "locks after the device was in use, and nobody touches the host for a minute",
        [](Play &play) { lockedForLong(play, Long); });
    days.push_back({"locked-very-long", "the same for five minutes", [](Play &play) { lockedForLong(play, VeryLong); },
                    Day::Lasts, Day::WithBus, true});

    add("started-again", "locks while the host, which is ended and started again, is not there",
        startedAgain([](Play &play) { play.end(); }));
    add("killed", "the same with a host that is killed", startedAgain([](Play &play) { play.kill(); }));
    add("started-again-mute", "the same as started-again, and answers no call for a while",
        startedAgain([](Play &play) { play.end(); }, true));

    add("wrong-codes-many", "takes forty wrong codes, and locks code entry now and then", manyWrongCodes);
    add("wrong-codes-started-again", "the same while the host is started again and again", wrongCodesStartedAgain);

    add("retries-false", "refuses the right code, and the device is locked once more",
        retries(goes("Authenticate", "reply", "(false,)")));
    add("retries-error", "answers the right code with an error, and the device is locked once more",
        retries(goes("Authenticate", "error")));
    add("retries-mute", "does not answer the right code, and the device is locked once more",
        retries(goes("Authenticate", "mute")));
    // Many a screen that is right otherwise takes every token for one that it has asked for.
    days.push_back({"retries-late", "takes the right code when the device has been locked once more",
                    retries(goes("Authenticate", "hold"), asks(R"({"do":"release"})")), Day::Lasts, Day::WithBus,
                    true});
    return days;
}
