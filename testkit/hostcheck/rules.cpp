#include "rules.h"

#include "cures.h"

#include <QtCore/QRegularExpression>

namespace {

struct RuleText
{
    const char *name;
    const char *sentence;
    int line;
};

const RuleText &textOf(Rule rule)
{
    static const RuleText texts[] = {
        {"", "", 0},
        {"false-claim", "a screen claims to be unlocked only while the daemon is there and says so", CURE_FALSE_CLAIM},
        {"stale-claim", "a screen takes its claim back as soon as it can know that it is not true any more",
         CURE_STALE_CLAIM},
        {"opens-by-itself", "nothing unlocks the device unless somebody has entered a right code since it was locked",
         CURE_OPENS_BY_ITSELF},
        {"ends", "a screen stays up, except where the library itself ends the process with status 1", CURE_ENDS},
        {"no-use", "when the daemon is well again, a right code unlocks, and nobody helps but the user", CURE_NO_USE},
        {"not-told", "a screen tells that the device has been unlocked", CURE_NOT_TOLD},
        {"no-claim", "a screen tells over the probe what it claims, once when it is up and at each change",
         CURE_NO_CLAIM},
        {"bad-probe", "a screen tells over the probe \"locked\" or \"unlocked\", each on a line, and reads from it",
         CURE_BAD_PROBE},
        {"no-end", "a screen ends when it gets SIGTERM, by the signal or with status 0 or 143", CURE_NO_END},
        {"left-processes", "a screen leaves no processes behind", CURE_LEFT_PROCESSES},
    };
    return texts[int(rule)];
}

struct Mistake
{
    Rule rule;
    const char *days; ///< a regular expression; the first that fits
    const char *text;
};

const Mistake mistakes[] = {
    {Rule::FalseClaim, "wrong-code|lockout|refuse-long",
     "it opens after so many codes, or takes the end of its patience or a lockout for an unlocking"},
    {Rule::FalseClaim, "SetDevlockState|token|refuse-unlock|locks-during",
     "it takes a token, or what setLocked() returns, for the unlocking; only the state tells"},
    {Rule::FalseClaim, "left-alone|Authenticate|RequestChallenge",
     "it takes an outcome of the code, or the lack of one, for the unlocking; only the state tells"},
    {Rule::FalseClaim, "started-again|killed",
     "it remembers that the device was unlocked; ask the daemon at each start"},
    {Rule::FalseClaim, "bus|away|start-|crash|dies|returns|restart|name-lost|connections",
     "it takes a missing daemon, or Undefined, for open, or opens after a while rather than shut the user out"},
    {Rule::FalseClaim, "mute|error|GetState|undefined",
     "it takes a state that it could not read for open, or opens after a while rather than shut the user out"},
    {Rule::FalseClaim, "announces|spoof|flickers",
     "it compares with something else than AuthDevlockClient.Unlocked, or listens to something else than the state"},
    {Rule::FalseClaim, "", "it opens on something else than AuthDevlockClient's state"},
    {Rule::StaleClaim, "locks-unheard",
     "it relies on announcements alone, or takes no answer for the old one: it has to look now and then"},
    {Rule::StaleClaim, "away|restart|crash|dies|returns|name-lost|bus",
     "it does not take Undefined for locked, or keeps its picture while the daemon is away"},
    {Rule::StaleClaim, "", "it changes its picture later than the state, or only for Locked"},
    {Rule::OpensByItself, "started-again|killed", "it keeps the code in a file and enters it when it starts"},
    {Rule::OpensByItself, "retries", "it sends a code that had no effect again and again"},
    {Rule::OpensByItself, "", "it keeps the last good code, or a wish to unlock, and carries it out by itself"},
    {Rule::Ends, "bus|start-|returns", "it has a fault that shows when what it needs is missing; see its log"},
    {Rule::Ends, "", "it has a fault, or gives up when a call fails; see its log"},
    {Rule::NoUse, "mute|lose|left-alone|true-|SetDevlockState",
     "it waits for an outcome for ever: an attempt has to end by itself, or when the next code is entered"},
    {Rule::NoUse, "restart|crash|away|dies|returns|start-|handover|name-lost|error|GetState|undefined|connections",
     "it asks for the state once, and never anew: while the state is Undefined, another AuthDevlockClient has to ask"},
    {Rule::NoUse, "", "it takes no code any more after what has happened; see its log"},
    {Rule::NotTold, "", "it follows its own requests instead of the state, or its own look at it comes too seldom"},
    {Rule::NoClaim, "",
     "it has no probe, cannot be seen here (no display?), or is held up before it is up; see its log"},
    {Rule::BadProbe, "", "its probe writes something else, or does not read; see the recipe"},
    {Rule::NoEnd, "", "it catches SIGTERM, or is held up by a call"},
    {Rule::LeftProcesses, "", "it starts programs and does not end them when it ends"},
};

} // namespace

const char *nameOf(Rule rule)
{
    return textOf(rule).name;
}

QString sentenceOf(Rule rule)
{
    return QString::fromLatin1(textOf(rule).sentence);
}

QString mistakeOf(Rule rule, const QByteArray &day)
{
    for (const Mistake &mistake : mistakes) {
        if (mistake.rule == rule
            && QRegularExpression(QString::fromLatin1(mistake.days)).match(QString::fromUtf8(day)).hasMatch())
            return QString::fromLatin1(mistake.text);
    }
    return QString();
}

QString cureOf(Rule rule)
{
    return QStringLiteral("docs/testing-a-screen.md:%1").arg(textOf(rule).line);
}
