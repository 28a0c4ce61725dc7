#include "settings-console.h"

#include "awaited.h"
#include "command.h"
#include "console.h"
#include "table.h"
#include "values.h"
#include "warnings.h"

#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorSettingsBase>

#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusPendingReply>

#include <memory>
#include <unistd.h>
#include <utility>

namespace {

const char ShowNotifications[] = "show-notifications";
const char IsMultiFactorable[] = "is-multi-factorable";
const char IsUserSettable[] = "is-user-settable";

struct Flag
{
    const char *name;
    bool (AuthSettingsClient::*get)() const;
    void (AuthSettingsClient::*set)(bool);
};

const Flag Flags[] = {
    {ShowNotifications, &AuthSettingsClient::showNotifications, &AuthSettingsClient::setShowNotifications},
    {IsMultiFactorable, &AuthSettingsClient::isMultiFactorable, &AuthSettingsClient::setIsMultiFactorable},
    {IsUserSettable, &AuthSettingsClient::isUserSettable, &AuthSettingsClient::setIsUserSettable},
};

class FactorSettings : public FactorSettingsBase
{
public:
    using Handler = std::function<void(uint, const QString &, const QVariant &)>;

    explicit FactorSettings(const QString &factor, Handler handler = Handler())
        : FactorSettingsBase(nullptr, factor)
        , m_handler(std::move(handler))
    {
    }

protected:
    void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override
    {
        if (m_handler)
            m_handler(uid, name, value);
    }

private:
    const Handler m_handler;
};

/** Whether a warning is about a call that was not answered; it may have been heeded all the same. */
bool isUnanswered(const QString &words)
{
    // What libdbus and `QDBusConnection` of Qt 5.15 say; neither has translations of it.
    return words.contains(QLatin1String("Did not receive a reply"))
        || words.contains(QLatin1String("Not connected to D-Bus server"));
}

QString onOff(bool on)
{
    return on ? QStringLiteral("on") : QStringLiteral("off");
}

QString yesNo(bool yes)
{
    return yes ? QStringLiteral("yes") : QStringLiteral("no");
}

QString orNone(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("none") : text;
}

QString joined(const QStringList &names)
{
    return orNone(names.join(QStringLiteral(", ")));
}

QString tableOf(const QJsonArray &rows)
{
    QVector<QStringList> table{{QStringLiteral("ROW"), QStringLiteral("NAME"), QStringLiteral("TITLE"),
                                QStringLiteral("SERVICE"), QStringLiteral("CHOSEN"), QStringLiteral("DISABLED"),
                                QStringLiteral("CAN BE TOGGLED")}};
    for (const QJsonValue &value : rows) {
        const QJsonObject row = value.toObject();
        const auto yes = [&row](const char *key) { return yesNo(row.value(QLatin1String(key)).toBool()); };
        table.append({QString::number(row.value(QStringLiteral("row")).toInt()),
                      row.value(QStringLiteral("name")).toString(), row.value(QStringLiteral("title")).toString(),
                      row.value(QStringLiteral("service")).toString(), yes("chosen"), yes("disabled"),
                      yes("can-be-toggled")});
    }
    return toTable(table);
}

} // namespace

SettingsConsole::SettingsConsole(Console &console)
    : m_console(console)
{
}

QStringList SettingsConsole::flags()
{
    QStringList names;
    for (const Flag &flag : Flags)
        names.append(QLatin1String(flag.name));
    return names;
}

int SettingsConsole::perform(int (SettingsConsole::*action)(const Request &), const Request &request,
                             const std::optional<QByteArray> &secret)
{
    m_secret = secret;
    if (!request.command->has(UsesSettings))
        return (this->*action)(request);
    if (request.user)
        m_user = *request.user;
    else if (isNobody(m_user))
        m_user = getuid();
    if (isNobody(m_user)) {
        return m_console.finish(WrongUsage,
                                QStringLiteral("the user id %1 means nobody; name a user with --user").arg(m_user));
    }
    int status = makeClient();
    if (status == Done && request.command->has(ShowsUser))
        status = select();
    return status == Done ? (this->*action)(request) : status;
}

int SettingsConsole::follow(const Request &request)
{
    m_user = *request.user;
    const int status = makeClient();
    return status == Done ? select() : status;
}

void SettingsConsole::printEvents()
{
    m_printsEvents = true;
}

void SettingsConsole::distrust()
{
    m_distrusted = true;
}

void SettingsConsole::dropAuthentication()
{
    if (m_client)
        m_client->dropAuthentication();
}

int SettingsConsole::makeClient()
{
    const bool isNew = !m_client;
    if (isNew) {
        const Warnings warnings;
        m_client = AuthSettingsClient::get();
        QObject::connect(m_client, &AuthClient::progressChanged, &m_listener,
                         [this] { m_console.output().setWaiting(m_client->progress()); });
        m_flaw = warnings.words().join(QStringLiteral("; "));
        if (m_printsEvents)
            connectEvents();
    }
    if (m_flaw.isEmpty())
        return Done;
    QString problem = QStringLiteral("the daemon's options could not be read: %1").arg(m_flaw);
    // What the client reads when it is made it never reads again.
    if (!isNew)
        problem += QStringLiteral(" (they are read once; start another session)");
    return m_console.finish(isUnanswered(m_flaw) ? NoOutcome : Refused, problem);
}

void SettingsConsole::connectEvents()
{
    const auto print = [this](const char *name, const QString &text = QString(),
                              const QJsonObject &details = QJsonObject()) {
        m_console.output().event(QLatin1String(name), details, shown(text));
    };
    const auto printFlag = [print](const char *name, bool on) { print(name, onOff(on), {{QStringLiteral("on"), on}}); };
    AuthSettingsClient *client = m_client;
    QObject::connect(client, &AuthClient::authenticatedChanged, &m_listener, [print](const QVariant &value) {
        const QByteArray token = value.toByteArray();
        print("settings-token", token.isEmpty() ? QStringLiteral("no longer") : tokenText(token), tokenDetails(token));
    });
    QObject::connect(client, &AuthClient::discredit, &m_listener, [print] { print("settings-discredit"); });
    QObject::connect(client, &AuthSettingsClient::uidChanged, &m_listener, [client, print] {
        print("user", client->uid() ? QString::number(client->uid()) : QStringLiteral("nobody"),
              {{QStringLiteral("user"), qint64(client->uid())}});
    });
    QObject::connect(client, &AuthSettingsClient::showNotificationsChanged, &m_listener,
                     [client, printFlag] { printFlag(ShowNotifications, client->showNotifications()); });
    QObject::connect(client, &AuthSettingsClient::isMultiFactorableChanged, &m_listener,
                     [client, printFlag] { printFlag(IsMultiFactorable, client->isMultiFactorable()); });
    QObject::connect(client, &AuthSettingsClient::isUserSettableChanged, &m_listener,
                     [client, printFlag] { printFlag(IsUserSettable, client->isUserSettable()); });
    QObject::connect(client, &AuthSettingsClient::canSwitchToUserChanged, &m_listener,
                     [client, printFlag] { printFlag("can-switch-to-user", client->canSwitchToUser()); });
    QObject::connect(client, &AuthSettingsClient::userWarningChanged, &m_listener, [client, print] {
        print("warning", orNone(client->userWarning()), {{QStringLiteral("warning"), client->userWarning()}});
    });
    QObject::connect(client, &AuthSettingsClient::unlockFactorsChanged, &m_listener, [client, print] {
        print("unlock-factors", joined(client->unlockFactors()),
              {{QStringLiteral("unlock-factors"), QJsonArray::fromStringList(client->unlockFactors())}});
    });
    QObject::connect(client->factors(), &QAbstractItemModel::modelReset, &m_listener, [this, print] {
        const QJsonArray all = rows();
        QStringList names;
        for (const QJsonValue &row : all)
            names.append(row.toObject().value(QStringLiteral("name")).toString());
        print("factors", joined(names), {{QStringLiteral("factors"), all}});
    });
    QObject::connect(client->factors(), &FactorListModel::loginFactorsCountChanged, &m_listener, [client, print] {
        const int count = client->factors()->loginFactorsCount();
        print("login-factors-count", QString::number(count), {{QStringLiteral("count"), count}});
    });
    QObject::connect(
        client->factors(), &QAbstractItemModel::dataChanged, &m_listener,
        [this, print](const QModelIndex &first, const QModelIndex &last) {
            for (int row = first.row(); row <= last.row(); ++row) {
                const QString name = cell(row, "name").toString();
                const bool chosen = cell(row, "enabled").toBool();
                print(
                    "factor-changed", name + (chosen ? QStringLiteral(" chosen") : QStringLiteral(" not chosen")),
                    {{QStringLiteral("row"), row}, {QStringLiteral("name"), name}, {QStringLiteral("chosen"), chosen}});
            }
        });
}

int SettingsConsole::finish(int status, const QString &text, QJsonObject details)
{
    details.insert(QStringLiteral("user"), qint64(m_user));
    return m_console.finish(status, text, details);
}

int SettingsConsole::tellWarnings(const Warnings &warnings)
{
    const QString words = warnings.words().join(QStringLiteral("; "));
    if (isUnanswered(words))
        return finish(NoOutcome, QStringLiteral("the daemon did not answer: %1").arg(words));
    return finish(Refused, QStringLiteral("the daemon refused: %1").arg(words));
}

int SettingsConsole::select()
{
    const Warnings warnings;
    // The client reads nothing of a user that it has already.
    if (std::exchange(m_distrusted, false))
        m_client->setUid(0);
    m_client->setUid(m_user);
    if (warnings.words().isEmpty())
        return Done;
    // It shows another user's settings for those that it could not read.
    m_client->setUid(0);
    return tellWarnings(warnings);
}

int SettingsConsole::authenticate(const Request &request)
{
    const auto secret = std::exchange(m_secret, std::nullopt);
    if (!secret)
        return Done;
    Request authentication = request;
    if (!authentication.uid)
        authentication.uid = m_user;
    return m_console.authenticate(*m_client, authentication, *secret);
}

// The library has no such call. The answer is waited for on a connection of its own, which no other call delays.
SettingsConsole::Answer SettingsConsole::option(const QString &key) const
{
    const QString connectionName = QStringLiteral("authctl_options");
    const QDBusConnection bus =
        QDBusConnection::connectToPeer(QStringLiteral("unix:path=/var/run/authd/authd.socket"), connectionName);
    Answer answer{NoOutcome, QVariant(), QStringLiteral("the daemon did not answer in time")};
    if (bus.isConnected()) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(QString(), QStringLiteral("/vantora/AuthService/Settings"),
                                           QStringLiteral("vantora.AuthService.Settings"), QStringLiteral("GetOption"));
        call << key;
        QDBusPendingCallWatcher watcher(bus.asyncCall(call, int(m_console.deadline().remainingTime())));
        Awaited<QDBusMessage> finished;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &finished,
                         [&] { finished.set(watcher.reply()); });
        if (const auto message = finished.wait(m_console.deadline())) {
            const QDBusPendingReply<QDBusVariant> reply = *message;
            const QDBusError::ErrorType error = reply.error().type();
            if (!reply.isError())
                answer = {Done, reply.value().variant(), QString()};
            else if (error == QDBusError::Disconnected)
                answer.problem = QStringLiteral("the daemon did not answer: %1").arg(reply.error().message());
            else if (error != QDBusError::NoReply)
                answer = {
                    Refused, QVariant(),
                    QStringLiteral("the daemon refused: %1: %2").arg(reply.error().name(), reply.error().message())};
        }
    } else {
        answer = {Unreachable, QVariant(),
                  QStringLiteral("Cannot connect to the daemon: %1").arg(bus.lastError().message())};
    }
    QDBusConnection::disconnectFromPeer(connectionName);
    return answer;
}

int SettingsConsole::askOption(const Request &request)
{
    const Answer answer = option(request.name);
    if (answer.status != Done)
        return m_console.finish(answer.status, answer.problem, {{QStringLiteral("key"), request.name}});
    const QJsonValue value = toJson(answer.value);
    return m_console.finish(Done, shown(value),
                            {{QStringLiteral("key"), request.name}, {QStringLiteral("value"), value}});
}

int SettingsConsole::show(const Request &)
{
    const Warnings warnings;
    const QString date = m_client->lastLoginDate(m_user);
    const bool showsDate = m_client->showLastLogin(m_user);
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);

    QVector<QStringList> table;
    QJsonObject details;
    for (const Flag &flag : Flags) {
        const bool on = (m_client->*flag.get)();
        table.append({QLatin1String(flag.name), onOff(on)});
        details.insert(QLatin1String(flag.name), on);
    }
    table.append({QStringLiteral("unlock-factors"), joined(m_client->unlockFactors())});
    table.append({QStringLiteral("warning"), orNone(m_client->userWarning())});
    table.append({QStringLiteral("show-last-login"), onOff(showsDate)});
    table.append({QStringLiteral("last-login-date"), orNone(date)});
    table.append({QStringLiteral("can-switch-to-user"), onOff(m_client->canSwitchToUser())});
    details.insert(QStringLiteral("unlock-factors"), QJsonArray::fromStringList(m_client->unlockFactors()));
    details.insert(QStringLiteral("warning"), m_client->userWarning());
    details.insert(QStringLiteral("show-last-login"), showsDate);
    details.insert(QStringLiteral("last-login-date"), date);
    details.insert(QStringLiteral("can-switch-to-user"), m_client->canSwitchToUser());
    return finish(Done, toTable(table), details);
}

int SettingsConsole::tellLastLogin(const Request &)
{
    const Warnings warnings;
    AuthSettings settings;
    settings.setUid(m_user);
    const QString date = settings.lastLoginDate();
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);
    return finish(Done, shown(orNone(date)), {{QStringLiteral("last-login-date"), date}});
}

int SettingsConsole::setFlag(const Request &request)
{
    const int status = authenticate(request);
    if (status != Done)
        return status;

    const Flag &flag = *std::find_if(std::begin(Flags), std::end(Flags), [&request](const Flag &candidate) {
        return request.name == QLatin1String(candidate.name);
    });
    const auto isSet = [&] { return (m_client->*flag.get)() == request.on; };
    const auto done = [&](bool changed) {
        const QString text = QStringLiteral("%1 is %2").arg(request.name, onOff(request.on));
        return finish(Done, changed ? text : text + QStringLiteral(" already; nothing was sent"),
                      {{request.name, request.on}, {QStringLiteral("changed"), changed}});
    };
    if (isSet())
        return done(false);

    const Warnings warnings;
    Awaited<bool> announced;
    QObject::connect(m_client, &AuthSettingsClient::isMultiFactorableChanged, &announced, [&announced, isSet] {
        if (isSet())
            announced.set(true);
    });
    (m_client->*flag.set)(request.on);
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);
    if (isSet())
        return done(true);
    // The other flags follow the daemon's answer.
    if (flag.name != IsMultiFactorable)
        return finish(Refused, QStringLiteral("the daemon refused, without saying why"));
    if (announced.wait(m_console.deadline()))
        return done(true);
    return finish(NoOutcome, QStringLiteral("the daemon did not announce the change in time"));
}

QVariant SettingsConsole::cell(int row, const char *role) const
{
    const FactorListModel *model = m_client->factors();
    return model->data(model->index(row), model->roleNames().key(role));
}

QJsonArray SettingsConsole::rows() const
{
    QJsonArray all;
    for (int row = 0; row < m_client->factors()->rowCount(); ++row) {
        const bool unlock = cell(row, "isUnlock").toBool();
        all.append(QJsonObject{
            {QStringLiteral("row"), row},
            {QStringLiteral("name"), cell(row, "name").toString()},
            {QStringLiteral("title"), cell(row, "title").toString()},
            {QStringLiteral("service"), unlock ? QStringLiteral("unlock") : QStringLiteral("login")},
            {QStringLiteral("chosen"), cell(row, "enabled").toBool()},
            {QStringLiteral("disabled"), cell(row, "disabled").toBool()},
            {QStringLiteral("can-be-toggled"), !unlock && m_client->canTriggerFactor(row)},
        });
    }
    return all;
}

int SettingsConsole::listFactors(const Request &)
{
    const QJsonArray all = rows();
    return finish(Done, tableOf(all), {{QStringLiteral("factors"), all}});
}

int SettingsConsole::loginRow(const QString &name) const
{
    int row = m_client->factors()->rowCount() - 1;
    while (row >= 0 && (cell(row, "isUnlock").toBool() || cell(row, "name").toString() != name))
        --row;
    return row;
}

/** Whether a login factor is chosen. */
bool SettingsConsole::isChosen(const QString &name) const
{
    const int row = loginRow(name);
    return row >= 0 && cell(row, "enabled").toBool();
}

// What the daemon sent before it answered has come before the answer.
void SettingsConsole::catchUp()
{
    const Warnings ignored;
    m_client->showLastLogin(m_user);
    QCoreApplication::processEvents();
}

int SettingsConsole::toggleLogin(const Request &request)
{
    const QString &name = request.name;
    const auto problem = [&] {
        const int row = loginRow(name);
        if (row < 0)
            return QStringLiteral("user %1 sees no login factor \"%2\"").arg(m_user).arg(name);
        if (!m_client->canTriggerFactor(row))
            return QStringLiteral("\"%1\" is the only login factor chosen and stays so").arg(name);
        return QString();
    };
    if (!problem().isEmpty())
        return finish(Refused, problem());
    const int status = authenticate(request);
    if (status != Done)
        return status;
    if (!problem().isEmpty())
        return finish(Refused, problem());

    const bool wanted = !isChosen(name);
    const Warnings warnings;
    Awaited<bool> announced;
    const auto look = [&] {
        if (isChosen(name) == wanted)
            announced.set(true);
    };
    QObject::connect(m_client->factors(), &QAbstractItemModel::dataChanged, &announced, look);
    QObject::connect(m_client->factors(), &QAbstractItemModel::modelReset, &announced, look);
    m_client->triggerFactor(loginRow(name));
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);
    if (!announced.wait(m_console.deadline()))
        return finish(NoOutcome, QStringLiteral("the daemon did not announce the change in time"));
    // The choice for unlock is announced after that for login.
    catchUp();
    return listFactors(request);
}

int SettingsConsole::toggleUnlock(const Request &request)
{
    const QString &name = request.name;
    const Answer offer = option(QStringLiteral("worker/available-service-factors/unlock"));
    if (offer.status != Done)
        return finish(offer.status, offer.problem);
    const QStringList offered = offer.value.toStringList();
    if (!offered.contains(name)) {
        return finish(
            Refused,
            QStringLiteral("the daemon does not offer \"%1\" for unlock; it offers: %2").arg(name, joined(offered)));
    }
    const int status = authenticate(request);
    if (status != Done)
        return status;

    const bool wanted = !m_client->unlockFactors().contains(name);
    const Warnings warnings;
    Awaited<bool> announced;
    QObject::connect(m_client, &AuthSettingsClient::unlockFactorsChanged, &announced, [this, &announced, name, wanted] {
        if (m_client->unlockFactors().contains(name) == wanted)
            announced.set(true);
    });
    m_client->triggerUnlockFactor(name);
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);
    if (!announced.wait(m_console.deadline()))
        return finish(NoOutcome, QStringLiteral("the daemon did not announce the change in time"));
    return finish(Done, QStringLiteral("Chosen for unlock: %1").arg(shown(joined(m_client->unlockFactors()))),
                  {{QStringLiteral("unlock-factors"), QJsonArray::fromStringList(m_client->unlockFactors())}});
}

int SettingsConsole::getOption(const Request &request)
{
    const int status = authenticate(request);
    if (status != Done)
        return status;
    const Warnings warnings;
    const QVariant value = FactorSettings(request.calledFactor).getOption(m_user, request.name);
    if (!warnings.words().isEmpty())
        return tellWarnings(warnings);
    return finish(Done, shown(toJson(value)),
                  {{QStringLiteral("name"), request.name}, {QStringLiteral("value"), toJson(value)}});
}

int SettingsConsole::setOption(const Request &request)
{
    const int status = authenticate(request);
    if (status != Done)
        return status;

    const QJsonValue wanted = toJson(request.value);
    Warnings warnings;
    Awaited<bool> outcome;
    std::optional<QJsonValue> announced;
    FactorSettings settings(request.calledFactor, [&](uint uid, const QString &name, const QVariant &value) {
        if (uid != m_user || name != request.name)
            return;
        announced = toJson(value);
        // Another value may be that of an earlier change.
        if (*announced == wanted)
            outcome.set(true);
    });
    // The library tells a refusal to nobody else.
    warnings.setHandler([&outcome] { outcome.set(false); });
    settings.setOption(m_user, request.name, request.value);
    const auto done = outcome.wait(m_console.deadline());
    if (done && !*done)
        return tellWarnings(warnings);
    if (!done && !announced)
        return finish(NoOutcome, QStringLiteral("the daemon neither announced the change nor refused it in time"));
    const QJsonObject details{{QStringLiteral("name"), request.name}, {QStringLiteral("value"), *announced}};
    if (!done) {
        const QString value = announced->isString() ? announced->toString() : shown(*announced);
        return finish(Refused, QStringLiteral("the daemon made it %1").arg(value), details);
    }
    return finish(Done, QStringLiteral("%1 is %2").arg(shown(request.name), shown(*announced)), details);
}

int SettingsConsole::runAction(const Request &request)
{
    const int status = authenticate(request);
    if (status != Done)
        return status;
    const Warnings warnings;
    // The answer may come when nobody waits for it any more.
    const auto answer = std::make_shared<Awaited<QVariant>>();
    FactorSettings(request.calledFactor)
        .doAction(m_user, request.name, request.params, [answer](const QVariant &value) { answer->set(value); });
    const auto value = answer->wait(m_console.deadline());
    if (!value)
        return finish(NoOutcome, QStringLiteral("the factor did not answer in time"));
    if (!value->isValid())
        return tellWarnings(warnings);
    return finish(Done, shown(toJson(*value)), {{QStringLiteral("value"), toJson(*value)}});
}
