#include "auth-settings-client.h"

#include "auth-settings-client_p.h"
#include "authd/options.h"

#include <QtCore/QDebug>
#include <QtCore/QMap>
#include <QtCore/QPointer>
#include <QtDBus/QDBusReply>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include <unistd.h>

namespace {

/** Sees the factors that are not chosen even where the user may not set them. */
constexpr uid_t AllSeeingUser = 100000;

bool isNoUser(uint uid)
{
    return uid == 0 || uid == std::numeric_limits<quint32>::max();
}

QString workerKey(const QString &name)
{
    return Authd::Option::WorkerPrefix + name;
}

QString serviceFactorsKey(const QString &service)
{
    return Authd::Option::ServiceFactors + QLatin1Char('/') + service;
}

} // namespace

AuthClientPrivate *createFunc(AuthClient *q)
{
    return new AuthSettingsClientPrivate(q);
}

AuthSettingsClient *AuthSettingsClient::get()
{
    // Constructing the object touches the static objects of Qt D-Bus, which are so made earlier and destroyed later.
    static const std::unique_ptr<AuthSettingsClient> holder(new AuthSettingsClient(nullptr));
    return holder.get();
}

AuthSettingsClient::AuthSettingsClient(QObject *parent)
    : AuthClient(parent, createFunc)
{
    qRegisterMetaType<FactorListModel *>("FactorListModel*");
}

AuthSettingsClient::~AuthSettingsClient() = default;

AuthSettingsClientPrivate *AuthSettingsClient::settings() const
{
    return static_cast<AuthSettingsClientPrivate *>(d.data());
}

bool AuthSettingsClient::showNotifications() const
{
    return settings()->m_showNotifications;
}

QByteArray AuthSettingsClient::token() const
{
    return settings()->m_authToken;
}

uint AuthSettingsClient::uid() const
{
    return settings()->m_uid;
}

bool AuthSettingsClient::canSwitchToUser() const
{
    return settings()->m_canSwitchToUser;
}

bool AuthSettingsClient::isMultiFactorable() const
{
    return settings()->m_isMultiFactorable;
}

bool AuthSettingsClient::isUserSettable() const
{
    return settings()->m_isUserSettable;
}

QString AuthSettingsClient::userWarning() const
{
    return settings()->m_userWarning;
}

QStringList AuthSettingsClient::unlockFactors() const
{
    return settings()->unlockFactors();
}

FactorListModel *AuthSettingsClient::factors() const
{
    return &settings()->m_model;
}

void AuthSettingsClient::setShowNotifications(bool value)
{
    settings()->setShowNotificationsInternal(value);
}

void AuthSettingsClient::setIsMultiFactorable(bool value)
{
    settings()->setIsMultiFactorable(value);
}

void AuthSettingsClient::setIsUserSettable(bool value)
{
    settings()->setIsUserSettable(value);
}

void AuthSettingsClient::setUid(uint uid)
{
    settings()->setUidInternal(uid);
}

bool AuthSettingsClient::canTriggerFactor(int index)
{
    return settings()->canTriggerFactor(index);
}

void AuthSettingsClient::triggerFactor(int index)
{
    settings()->triggerFactorInternal(index);
}

bool AuthSettingsClient::showLastLogin(uint uid)
{
    return settings()->getUserOption(uid, workerKey(Authd::Option::ShowLastLogin)).toBool();
}

QString AuthSettingsClient::lastLoginDate(uint uid)
{
    return settings()->getUserOption(uid, workerKey(Authd::Option::LastLoginDate)).toString();
}

bool AuthSettingsClient::hasFactor(const QString &name)
{
    return settings()->hasFactor(name);
}

bool AuthSettingsClient::hasEnabledFactor(const QString &name)
{
    return settings()->hasEnabledFactor(name);
}

bool AuthSettingsClient::hasChosenFactor(const QString &name)
{
    return settings()->hasChosenFactor(name);
}

void AuthSettingsClient::triggerUnlockFactor(const QString &name)
{
    settings()->triggerUnlockFactor(name);
}

AuthSettingsClientPrivate::AuthSettingsClientPrivate(AuthClient *client)
    : AuthClientPrivate(client, Authd::SettingsConnectionName)
    , m_availableServices(getOption(workerKey(Authd::Option::AvailableServices)).toStringList())
    , m_model(this)
    , m_canSwitchToUser(getOption(workerKey(Authd::Option::CanSwitchToUser)).toBool())
{
    setupConnection();
    qDebug() << "AuthSettingsClientPrivate Connected to" << Authd::SocketAddress;
    getAvailableServiceFactors();
    connect(&challengeHolder, &AuthChallengeHolder::conected, this, &AuthSettingsClientPrivate::setupConnection);
}

AuthSettingsClientPrivate::~AuthSettingsClientPrivate()
{
    // The end of the connection ends the subscriptions, which name slots of this class: not later than the class.
    delete challengeHolder.connection;
}

// Not to be used before the public object exists.
AuthSettingsClient *AuthSettingsClientPrivate::publicObject() const
{
    return static_cast<AuthSettingsClient *>(q);
}

void AuthSettingsClientPrivate::setupConnection()
{
    AuthdConnection *link = challengeHolder.connection;
    const QDBusInterface &settings = link->settingsInterface;
    // clang-format off
    link->subscribe(this, settings, Authd::Signal::OptionChanged, SLOT(handleOptionChanged(QString,QDBusVariant)));
    link->subscribe(this, settings, Authd::Signal::UserOptionChanged,
                    SLOT(handleUserOptionChanged(uint,QString,QDBusVariant)));
    // clang-format on
}

QVariant AuthSettingsClientPrivate::getOption(const QString &key)
{
    const QDBusReply<QDBusVariant> reply =
        callMethod(challengeHolder.connection->settingsInterface, Authd::Method::GetOption, {key});
    if (!reply.isValid()) {
        qWarning() << "getOption failed:" << clipped(reply.error().message());
        return false;
    }
    return reply.value().variant();
}

QVariant AuthSettingsClientPrivate::getUserOption(uint uid, const QString &key)
{
    if (isNoUser(uid))
        return QVariant();
    const QDBusReply<QDBusVariant> reply =
        callMethod(challengeHolder.connection->settingsInterface, Authd::Method::GetUserOption, {uid, key});
    if (!reply.isValid()) {
        qWarning() << "getUserOption failed:" << clipped(reply.error().message());
        return QVariant();
    }
    return reply.value().variant();
}

QVariantMap AuthSettingsClientPrivate::getUserOptions(uint uid, const QStringList &keys)
{
    if (isNoUser(uid))
        return QVariantMap();
    QStringList workerKeys;
    for (const QString &key : keys)
        workerKeys.append(workerKey(key));
    const QDBusReply<QVariantMap> reply =
        callMethod(challengeHolder.connection->settingsInterface, Authd::Method::GetUserOptions, {uid, workerKeys});
    if (!reply.isValid()) {
        qWarning() << "getUserOptions failed:" << clipped(reply.error().message());
        return QVariantMap();
    }
    return reply.value();
}

bool AuthSettingsClientPrivate::setUserOption(uint uid, const QString &key, const QVariant &value)
{
    // Not a QDBusReply<bool>: an answer of another type than bool would be an error.
    const QDBusMessage reply = callMethod(challengeHolder.connection->settingsInterface, Authd::Method::SetUserOption,
                                          {uid, m_authToken, key, QVariant::fromValue(QDBusVariant(value))});
    if (reply.type() == QDBusMessage::ErrorMessage) {
        qWarning() << "setUserOption failed:" << clipped(reply.errorMessage());
        return false;
    }
    return reply.arguments().value(0).toBool();
}

void AuthSettingsClientPrivate::handleOptionChanged(QString key, QDBusVariant value)
{
    if (key != workerKey(Authd::Option::CanSwitchToUser))
        return;
    m_canSwitchToUser = value.variant().toBool();
    emit publicObject()->canSwitchToUserChanged();
}

void AuthSettingsClientPrivate::setUidInternal(uint uid)
{
    if (uid == m_uid)
        return;
    m_uid = uid;
    // A handler may delete the client, or select yet another user, who is read then instead of this one.
    const QPointer<AuthSettingsClientPrivate> self(this);
    const int selection = ++m_selections;
    const auto isCurrent = [&] { return self && m_selections == selection; };
    emit publicObject()->uidChanged();
    if (!isCurrent())
        return;

    QStringList keys;
    for (const QString &service : qAsConst(m_availableServices))
        keys.append(serviceFactorsKey(service));
    keys << Authd::Option::IsMultiFactorable << Authd::Option::IsUserSettable << Authd::Option::DisabledFactors;
    const QVariantMap options = getUserOptions(uid, keys);

    for (const QString &service : qAsConst(m_availableServices)) {
        const auto chosen = options.find(workerKey(serviceFactorsKey(service)));
        if (chosen != options.end())
            m_serviceFactors.insert(service, chosen->toStringList());
    }
    const auto isMultiFactorable = options.find(workerKey(Authd::Option::IsMultiFactorable));
    if (isMultiFactorable != options.end())
        updateIsMultiFactorable(isMultiFactorable->toBool());
    if (!isCurrent())
        return;
    const auto isUserSettable = options.find(workerKey(Authd::Option::IsUserSettable));
    if (isUserSettable != options.end())
        updateIsUserSettable(isUserSettable->toBool());
    if (!isCurrent())
        return;
    const auto disabledFactors = options.find(workerKey(Authd::Option::DisabledFactors));
    if (disabledFactors != options.end())
        m_disabledFactors = disabledFactors->toStringList();
    updateChosenFactors();
    if (!isCurrent())
        return;
    updateShowNotifications(
        getUserOption(uid, Authd::Option::DevlockPrefix + Authd::Option::ShowNotifications).toBool());
}

void AuthSettingsClientPrivate::handleUserOptionChanged(uint uid, QString key, QDBusVariant value)
{
    if (uid != m_uid || m_uid == 0)
        return;
    const QVariant option = value.variant();
    if (key.startsWith(workerKey(Authd::Option::ServiceFactors))) {
        const QString service = key.section(QLatin1Char('/'), 2);
        const auto chosen = m_serviceFactors.find(service);
        if (chosen == m_serviceFactors.end())
            return;
        *chosen = option.toStringList();
        const QPointer<AuthSettingsClientPrivate> self(this);
        if (service == Authd::Value::Unlock)
            emit publicObject()->unlockFactorsChanged();
        if (self)
            updateChosenFactors();
    } else if (key == Authd::Option::DevlockPrefix + Authd::Option::ShowNotifications) {
        updateShowNotifications(option.toBool());
    } else if (key == workerKey(Authd::Option::DisabledFactors)) {
        m_disabledFactors = option.toStringList();
        updateChosenFactors();
    } else if (key == workerKey(Authd::Option::IsMultiFactorable)) {
        updateIsMultiFactorable(option.toBool());
    } else if (key == workerKey(Authd::Option::IsUserSettable)) {
        updateIsUserSettable(option.toBool());
    }
}

void AuthSettingsClientPrivate::updateShowNotifications(bool value)
{
    if (std::exchange(m_showNotifications, value) != value)
        emit publicObject()->showNotificationsChanged();
}

void AuthSettingsClientPrivate::updateIsMultiFactorable(bool value)
{
    if (std::exchange(m_isMultiFactorable, value) != value)
        emit publicObject()->isMultiFactorableChanged();
}

void AuthSettingsClientPrivate::updateIsUserSettable(bool value)
{
    if (std::exchange(m_isUserSettable, value) == value)
        return;
    const QPointer<AuthSettingsClientPrivate> self(this);
    getPublicFactors();
    if (self)
        emit publicObject()->isUserSettableChanged();
}

void AuthSettingsClientPrivate::updateUserWarning(const QString &text)
{
    if (std::exchange(m_userWarning, text) != text)
        emit publicObject()->userWarningChanged();
}

void AuthSettingsClientPrivate::setShowNotificationsInternal(bool value)
{
    if (m_uid == 0 || m_showNotifications == value)
        return;
    if (setUserOption(m_uid, Authd::Option::DevlockPrefix + Authd::Option::ShowNotifications, value))
        updateShowNotifications(value);
}

void AuthSettingsClientPrivate::setIsUserSettable(bool value)
{
    if (m_uid == 0 || m_isUserSettable == value)
        return;
    if (setUserOption(m_uid, workerKey(Authd::Option::IsUserSettable), value))
        updateIsUserSettable(value);
}

// Unlike the other two setters, this one leaves the change to the daemon's announcement.
void AuthSettingsClientPrivate::setIsMultiFactorable(bool value)
{
    if (m_uid == 0 || m_isMultiFactorable == value)
        return;
    setUserOption(m_uid, workerKey(Authd::Option::IsMultiFactorable), value);
}

bool AuthSettingsClientPrivate::factorIsChosen(const QString &service, const QString &name) const
{
    const auto chosen = m_serviceFactors.constFind(service);
    return chosen != m_serviceFactors.constEnd() && m_chosenLookups[service].contains(*chosen, name);
}

bool AuthSettingsClientPrivate::factorIsDisabled(const QString &name) const
{
    return m_disabledLookup.contains(m_disabledFactors, name);
}

void AuthSettingsClientPrivate::getAvailableServiceFactors()
{
    for (const QString &service : qAsConst(m_availableServices)) {
        const QString key = workerKey(Authd::Option::AvailableServiceFactors) + QLatin1Char('/') + service;
        const QStringList names = getOption(key).toStringList();
        for (const QString &name : names) {
            const QString title = qtTrId((Authd::FactorPrefix + name).toLatin1().constData());
            const bool chosen = factorIsChosen(service, name);
            m_factorIndexes[name].append(m_factors.size());
            m_factors.append({service, name, title, chosen, chosen, factorIsDisabled(name)});
        }
    }
    getPublicFactors();
}

void AuthSettingsClientPrivate::getPublicFactors()
{
    const QPointer<AuthSettingsClientPrivate> self(this);
    m_model.beginResetModel();
    if (!self)
        return;
    m_rows.clear();
    m_rowByName.clear();
    m_enabledLoginFactors = 0;
    const bool seesAll = m_isUserSettable || getuid() == AllSeeingUser;
    const auto show = [this](int index) {
        m_rowByName.insert(m_factors.at(index).name, m_rows.size());
        m_rows.append(index);
    };

    for (int i = 0; i < m_factors.size(); ++i) {
        const Factor &factor = m_factors.at(i);
        if (factor.type != Authd::Value::Login || (factor.disabled && factor.name != Authd::Value::Smartcard))
            continue;
        if (factor.enabled)
            ++m_enabledLoginFactors;
        else if (!seesAll)
            continue;
        show(i);
    }
    const int loginRows = m_rows.size();
    for (int i = 0; i < m_factors.size(); ++i) {
        const Factor &factor = m_factors.at(i);
        if (factor.type != Authd::Value::Login && factor.enabled
            && m_rowByName.value(factor.name, loginRows) >= loginRows)
            show(i);
    }

    m_model.endResetModel();
    if (self)
        emit m_model.loginFactorsCountChanged();
}

// Chosen marks alone do not rebuild the rows: an unlock factor gets its row with the next rebuild.
void AuthSettingsClientPrivate::updateChosenFactors()
{
    const QPointer<AuthSettingsClientPrivate> self(this);
    const QVector<int> roles{EnabledRole};
    bool disabledChanged = false;
    for (int i = 0; i < m_factors.size(); ++i) {
        Factor &factor = m_factors[i];
        const bool chosen = factorIsChosen(factor.type, factor.name);
        const bool chosenChanged = chosen != factor.enabled;
        if (chosenChanged) {
            factor.enabled = chosen;
            if (factor.type == Authd::Value::Login && m_rowByName.contains(factor.name))
                m_enabledLoginFactors += chosen ? 1 : -1;
            factor.selected = chosen;
            if (factor.name == Authd::Value::Smartcard)
                updateUserWarning(chosen ? qtTrId("settings_users-la-user_has_token_hint") : QString());
            if (!self)
                return;
        }
        const bool disabled = factorIsDisabled(factor.name);
        if (std::exchange(factor.disabled, disabled) != disabled)
            disabledChanged = true;
        const auto row = m_rowByName.constFind(factor.name);
        if (chosenChanged && row != m_rowByName.constEnd()) {
            const QModelIndex index = m_model.index(*row);
            emit m_model.dataChanged(index, index, roles);
            if (!self)
                return;
        }
    }
    if (disabledChanged)
        getPublicFactors();
}

QStringList AuthSettingsClientPrivate::unlockFactors() const
{
    return m_serviceFactors.value(Authd::Value::Unlock);
}

bool AuthSettingsClientPrivate::hasFactor(const QString &name) const
{
    return std::any_of(m_factors.begin(), m_factors.end(), [&](const Factor &factor) {
        return factor.name == name && (name == Authd::Value::Smartcard || !factor.disabled);
    });
}

bool AuthSettingsClientPrivate::hasEnabledFactor(const QString &name) const
{
    return std::any_of(m_factors.begin(), m_factors.end(),
                       [&](const Factor &factor) { return factor.name == name && factor.enabled; });
}

// Sees the shown rows alone, and the choice that is wanted.
bool AuthSettingsClientPrivate::hasChosenFactor(const QString &name) const
{
    return std::any_of(m_rows.begin(), m_rows.end(), [&](int index) {
        const Factor &factor = m_factors.at(index);
        return factor.selected && factor.name == name;
    });
}

bool AuthSettingsClientPrivate::canTriggerFactor(int row) const
{
    if (row < 0 || row >= m_rows.size()) {
        qWarning() << "canTriggerFactor invalid index" << row;
        return false;
    }
    const Factor &factor = m_factors.at(m_rows.at(row));
    if (factor.type != Authd::Value::Login) {
        qWarning() << "canTriggerFactor Couldn't manipulate unlock factors";
        return false;
    }
    return m_enabledLoginFactors > 1 || !factor.enabled;
}

void AuthSettingsClientPrivate::triggerFactorInternal(int row)
{
    if (!canTriggerFactor(row))
        return;
    Factor &factor = m_factors[m_rows.at(row)];
    factor.selected = !factor.enabled;
    if (!m_isMultiFactorable) {
        for (const int index : qAsConst(m_rows)) {
            if (m_factors.at(index).name != factor.name)
                m_factors[index].selected = false;
        }
    }
    saveFactorsInternal();
}

template <typename Function> void AuthSettingsClientPrivate::forEachUnlockFactor(Function function)
{
    for (Factor &factor : m_factors) {
        if (factor.type == Authd::Value::Unlock)
            function(factor);
    }
}

void AuthSettingsClientPrivate::triggerUnlockFactor(const QString &name)
{
    bool turnedOn = false;
    bool wasOn = false;
    bool otherOn = false;
    forEachUnlockFactor([&](Factor &factor) {
        if (factor.name == name) {
            factor.selected = !factor.enabled;
            turnedOn = factor.selected;
            wasOn = factor.enabled;
        } else if (factor.enabled) {
            otherOn = true;
        }
    });
    const auto selectOthers = [&](bool selected) {
        forEachUnlockFactor([&](Factor &factor) {
            if (factor.name != name)
                factor.selected = selected;
        });
    };
    // This factor is exclusive.
    if (turnedOn && otherOn && name == Authd::Value::Sudis)
        selectOthers(false);
    // Unlocking is never left without a factor.
    if (wasOn && !otherOn)
        selectOthers(true);
    saveFactorsInternal();
}

void AuthSettingsClientPrivate::saveFactorsInternal()
{
    QMap<QString, QStringList> choices;
    for (const QString &service : qAsConst(m_availableServices))
        choices.insert(service, QStringList());
    for (const Factor &factor : qAsConst(m_factors)) {
        if (!factor.selected)
            continue;
        const auto choice = choices.find(factor.type);
        if (choice == choices.end())
            qWarning() << "saveFactorsInternal unexpected service name" << clipped(factor.type);
        else
            choice->append(factor.name);
    }
    for (auto it = choices.cbegin(); it != choices.cend(); ++it)
        setUserOption(m_uid, workerKey(serviceFactorsKey(it.key())), it.value());
}
