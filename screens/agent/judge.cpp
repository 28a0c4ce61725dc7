#include "judge.h"

#include <QtCore/QTimer>

#include <limits>

using namespace AuthScreens;

Judge::Judge(Channel *channel, AuthClient *client)
    : QObject(client)
    , m_channel(channel)
    , m_client(client)
{
    connect(m_client, &AuthClient::authenticatedChanged, this, &Judge::handleToken);
    connect(m_client, &AuthClient::discredit, this, &Judge::handleDiscredit);
    connect(&m_devlock, &AuthDevlockClient::stateChanged, this, &Judge::settle);
}

// Both clients ask for the state. QDBusPendingCallWatcher of Qt 5.15 tells of an answer that comes while the watcher is being
// made after one that comes then.
void Judge::settle()
{
    const int state = m_devlock.state();
    if (m_isSettled || state == AuthDevlockClient::Undefined
        || (state == AuthDevlockClient::Locked && !m_isDiscredited))
        return;
    m_isSettled = true;
    m_channel->send(Wire::Ready());
    begin();
}

void Judge::ask(Wire::Attempt *attempt)
{
    if (m_stage != Idle && m_stage != Finished)
        m_channel->refuse();
    m_stage = Waiting;
    qSwap(m_attempt.service, attempt->service);
    qSwap(m_attempt.factor, attempt->factor);
    m_attempt.secret.swap(attempt->secret);
    m_attempt.isText = attempt->isText;
    m_attempt.uid = attempt->uid;
    m_attempt.unlocks = attempt->unlocks;
    begin();
}

void Judge::begin()
{
    if (m_stage != Waiting || !m_isSettled)
        return;
    m_stage = Asked;
    QVariantMap params;
    params.insert(QStringLiteral("factor"), m_attempt.factor);
    if (m_attempt.uid > quint32(std::numeric_limits<int>::max()))
        params.insert(QStringLiteral("uid"), m_attempt.uid);
    else if (m_attempt.uid)
        params.insert(QStringLiteral("uid"), int(m_attempt.uid));
    QString text;
    if (m_attempt.isText) {
        text = QString::fromUtf8(m_attempt.secret.constData(), m_attempt.secret.size());
        params.insert(QStringLiteral("data"), text);
    } else {
        params.insert(QStringLiteral("data"), m_attempt.secret);
    }
    m_client->authenticate(m_attempt.service, params);
    Wire::wipe(text);
    Wire::wipe(m_attempt.secret);
    // AuthClient sends nothing that D-Bus cannot carry.
    if (m_stage == Asked && !m_client->progress())
        finish(Wire::Result::NotSendable);
}

void Judge::handleToken(const QVariant &token)
{
    if (token.toByteArray().isEmpty())
        return;
    if (m_stage != Asked) {
        if (m_stage < Asked)
            m_client->dropAuthentication(); // Nobody has asked for it.
        return;
    }
    if (m_attempt.unlocks && !m_client->setLocked(AuthDevlockClient::Unlocked))
        finish(Wire::Result::NotGranted);
    else
        finish(Wire::Result::Done);
}

// AuthClient says the same of a locking, and of the daemon's loss, as of a secret that was not accepted. The two clients here hear of that in one turn of the event loop.
void Judge::handleDiscredit()
{
    if (m_stage < Asked) {
        m_isDiscredited = true;
        settle();
        return;
    }
    if (m_stage != Asked)
        return;
    m_stage = Failed;
    QTimer::singleShot(0, this, &Judge::conclude);
}

void Judge::conclude()
{
    switch (m_devlock.state()) {
    case AuthDevlockClient::Undefined:
        finish(Wire::Result::Unavailable);
        break;
    case AuthDevlockClient::ManagerLockout:
    case AuthDevlockClient::CodeEntryLockout:
        finish(Wire::Result::LockedOut);
        break;
    default:
        finish(Wire::Result::NotAccepted);
    }
}

void Judge::finish(Wire::Result result)
{
    m_stage = Finished;
    m_channel->send(Wire::Outcome{result});
}
