#include "follower.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

using namespace AuthScreens;

namespace {

/** Milliseconds between looks at whether an announcement got lost. */
constexpr int LookPause = 30000;
/** Milliseconds that the daemon has for an answer. */
constexpr int Patience = 10000;
/** Milliseconds until the state is asked for again while it is not known: doubled each time, up to the second. */
constexpr int FirstPause = 2000;
constexpr int LongestPause = 32000;
/** The same after an announcement that the daemon contradicts: a stranger may send thousands. */
constexpr int ContradictionPause = 250;

/** Not a state. */
constexpr int NoAnswer = -1;

} // namespace

Follower::Follower(Channel *channel)
    : m_channel(channel)
    , m_pause(FirstPause)
{
    m_beat.setInterval(Wire::BeatInterval);
    connect(&m_beat, &QTimer::timeout, this, &Follower::sayState);
    m_patience.setSingleShot(true);
    m_patience.setInterval(Patience);
    connect(&m_patience, &QTimer::timeout, this, [this] { handleAnswer(NoAnswer); });
    m_look.setInterval(LookPause);
    connect(&m_look, &QTimer::timeout, this, [this] {
        if (!m_question)
            ask();
    });
    m_renewal.setSingleShot(true);
    connect(&m_renewal, &QTimer::timeout, this, &Follower::renew);
}

void Follower::follow(quint32 epoch)
{
    m_epoch = epoch;
    m_told = Wire::NothingYet;
    if (!m_beat.isActive()) {
        m_beat.start();
        m_look.start();
        renew();
        return;
    }
    m_pause = FirstPause;
    if (m_client->state() == AuthDevlockClient::Undefined) {
        renew();
        return;
    }
    if (m_client->state() != AuthDevlockClient::Unlocked)
        tell(m_client->state());
    ask();
}

// A client asks for the state when it is made.
void Follower::renew()
{
    m_question.reset();
    m_patience.stop();
    if (m_client) {
        m_client->disconnect(this);
        m_client->deleteLater();
    }
    m_client = new AuthDevlockClient(this);
    connect(m_client, &AuthDevlockClient::stateChanged, this, &Follower::handleWord);
    m_renewal.start(m_pause);
    m_pause = qMin(2 * m_pause, LongestPause);
}

void Follower::renewSoon(int pause)
{
    m_renewal.start(pause);
}

void Follower::handleWord()
{
    const int state = m_client->state();
    // The answer to a question before this may be older, whatever comes first.
    m_question.reset();
    m_patience.stop();
    if (state == AuthDevlockClient::Unlocked) {
        m_renewal.stop();
        ask();
        return;
    }
    tell(state);
    if (state == AuthDevlockClient::Undefined) {
        m_pause = FirstPause;
        renewSoon(m_pause);
    } else {
        m_renewal.stop();
    }
}

void Follower::ask()
{
    const QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("vantora.AuthService"), QStringLiteral("/vantora/AuthService/Devlock"),
        QStringLiteral("vantora.AuthService.Devlock"), QStringLiteral("GetState"));
    const QDBusPendingCall call = QDBusConnection::systemBus().asyncCall(question, Patience);
    m_question = std::make_unique<QDBusPendingCallWatcher>(call);
    m_patience.start();
    connect(m_question.get(), &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *watcher) {
        const QDBusMessage answer = watcher->reply();
        // QDBusPendingCallWatcher of Qt 5.15 may say twice that a call has finished.
        if (watcher != m_question.get())
            return;
        const bool isState = answer.type() == QDBusMessage::ReplyMessage && answer.signature() == QLatin1String("i");
        handleAnswer(isState ? answer.arguments().at(0).toInt() : NoAnswer);
    });
}

void Follower::handleAnswer(int answer)
{
    if (m_question)
        m_question.release()->deleteLater();
    m_patience.stop();
    const int announced = m_client->state();
    const bool isAnswered = answer != NoAnswer;
    if (announced == answer) {
        m_pause = FirstPause;
        tell(answer);
    } else if (announced == AuthDevlockClient::Unlocked) {
        tell(isAnswered ? answer : int(AuthDevlockClient::Undefined));
        renewSoon(isAnswered ? ContradictionPause : FirstPause);
    } else if (isAnswered) {
        // An AuthDevlockClient does not announce what it believes already, so this one would miss the next change.
        if (answer != AuthDevlockClient::Unlocked)
            tell(answer);
        renewSoon(ContradictionPause);
    }
}

void Follower::tell(int state)
{
    if (state == m_told)
        return;
    m_told = state;
    sayState();
}

// Two readings of the clock may be the same.
void Follower::sayState()
{
    m_time = qMax(m_time + 1, Wire::bootTime());
    m_channel->send(Wire::State{m_epoch, m_time, m_told});
}
