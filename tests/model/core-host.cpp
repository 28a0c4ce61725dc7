#include "core-host.h"

#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusPendingCallWatcher>

namespace {

/** A result as the oracle writes it. */
QString resultText(const QVariant &value)
{
    if (!value.isValid())
        return "invalid"_s;
    const QString type = QString::fromLatin1(value.typeName()) + " "_s;
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return type + resultText(value.value<QDBusVariant>().variant());
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return type + value.value<QDBusArgument>().currentSignature();
    if (value.userType() == QMetaType::QStringList)
        return type + value.toStringList().join(" "_s);
    return type + value.toString();
}

} // namespace

Host::~Host()
{
    for (const auto &client : m_clients)
        delete client;
    for (const auto &devlock : m_devlocks)
        delete devlock;
}

void Host::arm(const Step &step)
{
    (step.what == Do::Arm ? m_handlers[size_t(step.who)] : m_devlockHandlers[size_t(step.who)])[step.name] = step;
}

void Host::makeClient(size_t index)
{
    auto *const client = new AuthClient;
    m_clients[index] = client;
    m_handlers[index].clear();
    m_marks[index] = 0;
    const auto note = [this, client, index](const QString &signal, const QString &arguments = {}) {
        m_log->add("client %1 %2(%3) when authenticated %4, progress %5"_s.arg(index).arg(
            signal, arguments, boolText(client->authenticated()), boolText(client->progress())));
        if (m_handlers[index].contains(signal))
            react(m_handlers[index].take(signal));
    };
    connect(client, &AuthClient::progressChanged, this, [note] { note("progressChanged"_s); });
    connect(client, &AuthClient::authenticatedChanged, this, [note](const QVariant &token) {
        note("authenticatedChanged"_s,
             token.userType() == QMetaType::QByteArray ? QString::fromLatin1(token.toByteArray().toHex())
                                                       : "no byte array"_s);
    });
    connect(client, &AuthClient::authDataChanged, this, [note] { note("authDataChanged"_s); });
    connect(client, &AuthClient::changeAuthDataFailed, this, [note] { note("changeAuthDataFailed"_s); });
    connect(client, &AuthClient::unlockIfNeededFinished, this,
            [note](bool success) { note("unlockIfNeededFinished"_s, boolText(success)); });
    connect(client, &AuthClient::discredit, this, [note] { note("discredit"_s); });
    connect(client, &AuthClient::factorSignal, this,
            [this, note, index](const QString &factor, const QVariantMap &params) {
                if (factor.startsWith(drainMark))
                    m_marks[index] = factor.mid(drainMark.size()).toInt();
                else
                    note("factorSignal"_s, "%1, %2"_s.arg(factor, written(params)));
            });
}

void Host::makeDevlock(size_t index)
{
    auto *const devlock = new AuthDevlockClient;
    m_devlocks[index] = devlock;
    m_devlockHandlers[index].clear();
    connect(devlock, &AuthDevlockClient::enabledChanged, this,
            [this, index] { m_log->add("device-lock client %1 enabledChanged()"_s.arg(index)); });
    connect(devlock, &AuthDevlockClient::stateChanged, this, [this, devlock, index] {
        m_log->add("device-lock client %1 stateChanged() when %2"_s.arg(index).arg(devlock->state()));
        if (m_devlockHandlers[index].contains("stateChanged"_s))
            react(m_devlockHandlers[index].take("stateChanged"_s));
    });
}

void Host::react(const Step &handler)
{
    ++m_depth;
    perform(handler.then, handler, handler.thenNumber);
    --m_depth;
}

void Host::perform(Do what, const Step &step, int number)
{
    const auto who = size_t(step.who);
    const QVariantMap &params = parameterMaps()[step.params].map;
    const bool mayDelete = !m_depth || !m_mayLeave;
    const auto deleteObject = [mayDelete](QObject *object) {
        if (mayDelete)
            delete object;
        else
            object->deleteLater();
    };
    const auto makesCall = [&] { m_callsMade[who] += m_depth > 0; };
    switch (what) {
    case Do::MakeClient:
        makeClient(who);
        break;
    case Do::DeleteClient:
        deleteObject(m_clients[who]);
        break;
    case Do::DeleteClientLater:
        m_clients[who]->deleteLater();
        break;
    case Do::Authenticate:
        makesCall();
        m_clients[who]->authenticate("login"_s, params);
        break;
    case Do::ChangeAuthData:
        makesCall();
        m_clients[who]->changeAuthData("code"_s, params);
        break;
    case Do::UnlockIfNeeded:
        makesCall();
        m_clients[who]->unlockIfNeeded();
        break;
    case Do::SetLocked: {
        const bool result = m_clients[who]->setLocked(number);
        m_log->add("client %1 setLocked: %2"_s.arg(who).arg(boolText(result)));
        break;
    }
    case Do::DropAuthentication:
        m_clients[who]->dropAuthentication();
        break;
    case Do::Cancel:
        m_clients[who]->cancel();
        break;
    case Do::RequestChallenge:
        m_clients[who]->requestChallenge();
        break;
    case Do::FactorMethod: {
        ValueCallBack callback;
        if (step.flag) {
            Step reaction = step;
            if (m_depth)
                reaction.then = Do::Nothing;
            callback = [this, reaction, id = ++m_callbacks](const QVariant &result) {
                m_log->add("callback %1: %2"_s.arg(id).arg(resultText(result)));
                react(reaction);
            };
        }
        makesCall();
        m_clients[who]->factorMethod(params, "code"_s, callback);
        break;
    }
    case Do::FactorMethodWait:
        if (m_oracle->mayWait()) {
            const QVariant result = m_clients[who]->factorMethodWait(params, "code"_s);
            m_log->add("client %1 factorMethodWait: %2"_s.arg(who).arg(resultText(result)));
        }
        break;
    case Do::MakeDevlock:
        makeDevlock(who);
        break;
    case Do::DeleteDevlock:
        deleteObject(m_devlocks[who]);
        break;
    case Do::SetState:
        m_devlocks[who]->setState(AuthDevlockClient::LockState(number));
        break;
    default:
        break;
    }
}

int Host::callsUnderWay(int index) const
{
    return client(index) ? client(index)->findChildren<QDBusPendingCallWatcher *>().size() : 0;
}

QStringList Host::properties() const
{
    QStringList result;
    for (size_t i = 0; i < Clients; ++i) {
        if (m_clients[i]) {
            result.append("client %1: authenticated %2, progress %3, waits for %4 calls"_s.arg(i)
                              .arg(boolText(m_clients[i]->property("authenticated").toBool()),
                                   boolText(m_clients[i]->property("progress").toBool()))
                              .arg(callsUnderWay(int(i))));
        }
    }
    for (size_t i = 0; i < Devlocks; ++i) {
        if (m_devlocks[i]) {
            result.append("device-lock client %1: enabled %2, state %3"_s.arg(i)
                              .arg(boolText(m_devlocks[i]->property("enabled").toBool()))
                              .arg(m_devlocks[i]->state()));
        }
    }
    return result;
}
