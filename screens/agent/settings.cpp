#include "settings.h"

#include <FactorListModel>

using namespace AuthScreens;

namespace {

const QString loginOption = QStringLiteral("service-factors/login");
const QString unlockOption = QStringLiteral("service-factors/unlock");
const QString multiFactorOption = QStringLiteral("is-multi-factorable");

/** Milliseconds until what could not be read is read again. */
constexpr int ReadPause = 5000;
/** The daemon's own settings, as a method. */
const QString worker = QStringLiteral("worker");
/** Chosen for unlocking, it takes the place of all others. */
const QString exclusive = QStringLiteral("sudis");

} // namespace

Settings::Settings(Channel *channel)
    : FactorSettingsBase(nullptr, worker)
    , m_channel(channel)
    , m_client(AuthSettingsClient::get())
{
    m_again.setSingleShot(true);
    m_again.setInterval(ReadPause);
    connect(&m_again, &QTimer::timeout, this, &Settings::read);
    connect(m_client, &AuthClient::authenticatedChanged, this, &Settings::tell);
    connect(m_client, &AuthSettingsClient::showNotificationsChanged, this, &Settings::tell);
    connect(m_client, &AuthSettingsClient::canSwitchToUserChanged, this, &Settings::tell);
    connect(m_client, &AuthSettingsClient::userWarningChanged, this, &Settings::tell);
    // After the others: the outcome of an authentication is told when it is known that there is a token.
    m_judge = new Judge(channel, m_client);
    // Without a user the model shows what is offered.
    const FactorListModel *model = m_client->factors();
    const int nameRole = model->roleNames().key("name");
    for (int row = 0; row < model->loginFactorsCount(); ++row)
        m_settings.offered.append(model->data(model->index(row), nameRole).toString());
}

void Settings::mirror(uint uid)
{
    if (uid != m_uid)
        m_client->dropAuthentication();
    m_uid = uid;
    m_client->setUid(0);
    m_client->setUid(uid);
    read();
}

void Settings::handleOptionChanged(uint uid, const QString &, const QVariant &)
{
    if (uid == m_uid)
        read();
}

QVariant Settings::option(const char *name, bool *isGood) const
{
    const QVariant value = getOption(m_uid, QLatin1String(name));
    *isGood = *isGood && value.isValid();
    return value;
}

void Settings::read()
{
    bool isGood = true;
    m_settings.login = option("service-factors/login", &isGood).toStringList();
    m_settings.unlock = option("service-factors/unlock", &isGood).toStringList();
    m_settings.disabled = option("disabled-factors", &isGood).toStringList();
    m_settings.isMultiFactor = option("is-multi-factorable", &isGood).toBool();
    m_settings.isSettable = option("is-user-settable", &isGood).toBool();
    m_settings.isRead = isGood;
    if (!isGood)
        m_again.start();
    tell();
}

void Settings::tell()
{
    m_settings.isAuthenticated = m_client->authenticated();
    m_settings.canSwitch = m_client->canSwitchToUser();
    m_settings.notifies = m_client->showNotifications();
    m_settings.warns = !m_client->userWarning().isEmpty();
    if (m_uid)
        m_channel->send(m_settings);
}

void Settings::ask(Wire::Attempt *attempt)
{
    m_judge->ask(attempt);
}

void Settings::drop()
{
    m_client->dropAuthentication();
}

QStringList Settings::usable(const QStringList &names) const
{
    QStringList result;
    for (const QString &name : names) {
        if (m_settings.offered.contains(name) && !m_settings.disabled.contains(name))
            result.append(name);
    }
    return result;
}

bool Settings::chooseForLogin(const QString &factor, bool isWanted, QStringList *chosen) const
{
    if (!m_settings.isSettable || (isWanted && usable({factor}).isEmpty()))
        return false;
    // In the order in which the daemon offers them; what it does not offer stays.
    QStringList names = m_settings.login;
    if (isWanted && !m_settings.isMultiFactor)
        names.clear();
    names.removeAll(factor);
    if (isWanted)
        names.append(factor);
    for (const QString &name : m_settings.offered) {
        if (names.contains(name))
            chosen->append(name);
    }
    for (const QString &name : names) {
        if (!chosen->contains(name))
            chosen->append(name);
    }
    return !usable(*chosen).isEmpty();
}

bool Settings::chooseForUnlocking(const QString &factor, bool isWanted, QStringList *chosen) const
{
    if (!m_settings.isSettable || (isWanted && m_settings.disabled.contains(factor)))
        return false;
    *chosen = m_settings.unlock;
    chosen->removeAll(factor);
    if (isWanted && factor == exclusive)
        chosen->clear();
    if (isWanted)
        chosen->append(factor);
    // Without the only one, all others unlock.
    if (chosen->isEmpty()) {
        *chosen = usable(m_settings.offered);
        chosen->removeAll(factor);
    }
    for (const QString &name : qAsConst(*chosen)) {
        if (!m_settings.disabled.contains(name))
            return true;
    }
    return false;
}

void Settings::write(const Wire::Write &wish)
{
    QStringList chosen;
    // A choice must not begin with what is not known.
    if (!m_settings.isRead) {
        finish(wish.number, Wire::Result::Unavailable);
        return;
    }
    if (!m_client->authenticated()) {
        finish(wish.number, Wire::Result::NotAuthenticated);
        return;
    }
    switch (wish.setting) {
    case Wire::Setting::LoginFactor:
        if (chooseForLogin(wish.factor, wish.value, &chosen))
            set(wish.number, loginOption, chosen);
        else
            finish(wish.number, Wire::Result::NotAllowed);
        break;
    case Wire::Setting::UnlockFactor:
        if (chooseForUnlocking(wish.factor, wish.value, &chosen))
            set(wish.number, unlockOption, chosen);
        else
            finish(wish.number, Wire::Result::NotAllowed);
        break;
    case Wire::Setting::MultiFactor:
        if (m_settings.isSettable)
            set(wish.number, multiFactorOption, wish.value);
        else
            finish(wish.number, Wire::Result::NotAllowed);
        break;
    case Wire::Setting::Notifications:
        m_client->setShowNotifications(wish.value);
        tell();
        finish(wish.number,
               m_client->showNotifications() == wish.value ? Wire::Result::Done : Wire::Result::NotAccepted);
    }
}

// What FactorSettingsBase::setOption() sends; that does not tell what has become of it.
void Settings::set(quint32 number, const QString &name, const QVariant &value)
{
    const QVariantMap request{{QStringLiteral("uid"), m_uid},
                              {QStringLiteral("type"), QStringLiteral("set-option")},
                              {QStringLiteral("name"), name},
                              {QStringLiteral("value"), value}};
    m_client->factorMethod(request, worker, [this, number](const QVariant &answer) {
        const bool isDone = answer.type() == QVariant::Bool && answer.toBool();
        read();
        finish(number, isDone ? Wire::Result::Done : Wire::Result::NotAccepted);
    });
}

void Settings::finish(quint32 number, Wire::Result result)
{
    m_channel->send(Wire::Written{number, result});
}
