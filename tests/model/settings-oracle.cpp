#include "settings-oracle.h"

#include "stand-in.h"
#include "test-case.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <unistd.h>

namespace {

QByteArray json(const QJsonValue &value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QString listText(const QStringList &list)
{
    if (list.isEmpty())
        return "@as []"_s;
    QStringList quoted;
    for (const QString &entry : list)
        quoted.append(quotedText(entry));
    return "[%1]"_s.arg(quoted.join(", "_s));
}

QString userText(uint uid)
{
    return "uint32 "_s + QString::number(uid);
}

Reply refused()
{
    return {true, "*"_s, {}};
}

const QString loginService = "login"_s;
const QString unlockService = "unlock"_s;
const QString smartcard = "smartcard"_s;

} // namespace

QString quotedText(const QString &text)
{
    return "'%1'"_s.arg(text);
}

OptionValue boolValue(bool value)
{
    return {json(value), value ? "true"_s : "false"_s, "b"_s, value};
}

OptionValue textValue(const QString &value)
{
    return {json(value), quotedText(value), "s"_s, value};
}

OptionValue listValue(const QStringList &value)
{
    return {json(QJsonArray::fromStringList(value)), listText(value), "as"_s, value};
}

OptionValue otherValue(const char *signature, const char *text, const QVariant &variant)
{
    const QByteArray object =
        R"({"type":)" + json(QString::fromUtf8(signature)) + R"(,"value":)" + json(QString::fromUtf8(text)) + '}';
    return {object, QString::fromUtf8(text), QString::fromUtf8(signature), variant};
}

bool Row::operator==(const Row &other) const
{
    return name == other.name && title == other.title && enabled == other.enabled && disabled == other.disabled
        && isUnlock == other.isUnlock;
}

bool Snapshot::operator==(const Snapshot &other) const
{
    return uid == other.uid && showNotifications == other.showNotifications && canSwitchToUser == other.canSwitchToUser
        && isMultiFactorable == other.isMultiFactorable && isUserSettable == other.isUserSettable
        && userWarning == other.userWarning && unlockFactors == other.unlockFactors && rows == other.rows
        && loginFactorsCount == other.loginFactorsCount;
}

QString Snapshot::text() const
{
    QStringList rowTexts;
    for (const Row &row : rows) {
        rowTexts.append("%1 (%2%3%4%5)"_s.arg(row.name, row.title, row.enabled ? ", enabled"_s : QString(),
                                              row.disabled ? ", disabled"_s : QString(),
                                              row.isUnlock ? ", unlock"_s : QString()));
    }
    return "uid %1, notifications %2, switch %3, multi %4, settable %5, warning \"%6\", unlock [%7], rows [%8], login %9"_s
        .arg(uid)
        .arg(showNotifications)
        .arg(canSwitchToUser)
        .arg(isMultiFactorable)
        .arg(isUserSettable)
        .arg(userWarning, unlockFactors.join(", "_s), rowTexts.join("; "_s))
        .arg(loginFactorsCount);
}

bool Emission::operator==(const Emission &other) const
{
    return name == other.name && seen == other.seen;
}

QString translated(const QByteArray &latin1Id)
{
    if (latin1Id == "authd-factor-code")
        return "Security code"_s;
    if (latin1Id == "authd-factor-schl\xfcssel")
        return "Key"_s;
    if (latin1Id == "settings_users-la-user_has_token_hint")
        return "Do not lose your card"_s;
    return {};
}

DaemonOracle::DaemonOracle()
{
    const QStringList all{"code"_s, smartcard, "sudis"_s, "broken"_s, "slow"_s};
    m_global["worker/can-switch-to-user"_s] = boolValue(true);
    m_global["worker/available-services"_s] = listValue({loginService, unlockService});
    m_global["worker/available-service-factors/login"_s] = listValue(all);
    m_global["worker/available-service-factors/unlock"_s] = listValue(all);

    QMap<QString, OptionValue> user;
    user["worker/service-factors/login"_s] = listValue({"code"_s});
    user["worker/service-factors/unlock"_s] = listValue({"code"_s});
    user["worker/disabled-factors"_s] = listValue({"sudis"_s});
    user["worker/is-multi-factorable"_s] = boolValue(false);
    user["worker/is-user-settable"_s] = boolValue(true);
    user["worker/show-last-login"_s] = boolValue(false);
    user["worker/last-login-date"_s] = textValue(QString());
    user["devlock/show-notifications"_s] = boolValue(false);
    m_users[1001] = user;

    user["worker/service-factors/unlock"_s] = listValue({"code"_s, smartcard});
    user["worker/disabled-factors"_s] = listValue({});
    user["worker/show-last-login"_s] = boolValue(true);
    user["worker/last-login-date"_s] = textValue("2026-11-20 08:15"_s);
    user["devlock/show-notifications"_s] = boolValue(true);
    m_users[1000] = user;
}

void DaemonOracle::addRule(const Rule &rule)
{
    m_rules.append(rule);
}

void DaemonOracle::dropRules()
{
    m_rules.clear();
}

void DaemonOracle::addToken(const QByteArray &token, uint uid)
{
    m_tokens.append({token, uid});
}

void DaemonOracle::setGlobal(const QString &key, const OptionValue &value, bool announced)
{
    m_global[key] = value;
    if (announced)
        announce({"OptionChanged"_s, 0, key, value.variant});
}

void DaemonOracle::setUser(uint uid, const QString &key, const OptionValue &value, bool announced)
{
    m_users[uid][key] = value;
    if (announced)
        announceUser(uid, key, value);
}

void DaemonOracle::removeGlobal(const QString &key)
{
    m_global.remove(key);
}

void DaemonOracle::removeUser(uint uid, const QString &key)
{
    m_users[uid].remove(key);
}

void DaemonOracle::announce(const Announcement &announcement)
{
    m_announcements.append(announcement);
}

void DaemonOracle::announceUser(uint uid, const QString &key, const OptionValue &value)
{
    announce({"UserOptionChanged"_s, uid, key, value.variant});
    if (key.startsWith("worker/"_s))
        announce({"Factor"_s, uid, key.mid(7), value.variant});
}

bool DaemonOracle::takeRule(const char *method, Rule *rule)
{
    for (int i = m_rules.size() - 1; i >= 0; --i) {
        if (m_rules[i].method != QLatin1String(method))
            continue;
        *rule = m_rules[i];
        if (m_rules[i].times == 1)
            m_rules.remove(i);
        else if (m_rules[i].times > 1)
            --m_rules[i].times;
        return rule->how == "error"_s || rule->how == "reply"_s || rule->how == "lose-signals"_s;
    }
    return false;
}

Reply DaemonOracle::getOption(const QString &key)
{
    m_calls.append(settingsCall("GetOption", "s", "(%1,)"_s.arg(quotedText(key)).toUtf8()));
    Rule rule;
    if (takeRule("GetOption", &rule))
        return {rule.how == "error"_s, rule.message, rule.reply.variant};
    if (!m_global.contains(key))
        return refused();
    return {false, {}, m_global[key].variant};
}

Reply DaemonOracle::getUserOption(uint uid, const QString &key)
{
    m_calls.append(settingsCall("GetUserOption", "us", "(%1, %2)"_s.arg(userText(uid), quotedText(key)).toUtf8()));
    Rule rule;
    if (takeRule("GetUserOption", &rule))
        return {rule.how == "error"_s, rule.message, rule.reply.variant};
    if (!m_users.contains(uid) || !m_users[uid].contains(key))
        return refused();
    return {false, {}, m_users[uid][key].variant};
}

Reply DaemonOracle::getUserOptions(uint uid, const QStringList &keys)
{
    m_calls.append(settingsCall("GetUserOptions", "uas", "(%1, %2)"_s.arg(userText(uid), listText(keys)).toUtf8()));
    Rule rule;
    if (takeRule("GetUserOptions", &rule))
        return {rule.how == "error"_s, rule.message, rule.reply.variant};
    if (!m_users.contains(uid))
        return refused();
    QVariantMap result;
    for (const QString &key : keys) {
        if (m_users[uid].contains(key))
            result[key] = m_users[uid][key].variant;
    }
    return {false, {}, result};
}

Reply DaemonOracle::setUserOption(uint uid, const QByteArray &token, const QString &key, const OptionValue &value)
{
    m_calls.append(settingsCall(
        "SetUserOption", "uaysv",
        "(%1, %2, %3, <%4>)"_s.arg(userText(uid), QLatin1String(bytes(token)), quotedText(key), value.text).toUtf8()));
    Rule rule;
    const bool misbehaves = takeRule("SetUserOption", &rule);
    if (misbehaves && rule.how != "lose-signals"_s)
        return {rule.how == "error"_s, rule.message, rule.reply.variant};
    if (!m_users.contains(uid) || !m_users[uid].contains(key))
        return refused();
    if (!m_tokens.contains({token, uid}) || m_users[uid][key].signature != value.signature)
        return refused();
    setUser(uid, key, value, !misbehaves);
    return {false, {}, true};
}

QStringList DaemonOracle::takeCalls()
{
    QStringList result;
    result.swap(m_calls);
    return result;
}

QVector<Announcement> DaemonOracle::takeAnnouncements()
{
    QVector<Announcement> result;
    result.swap(m_announcements);
    return result;
}

SettingsOracle::SettingsOracle(DaemonOracle *daemon)
    : m_daemon(daemon)
{
    m_services = getOption("worker/available-services"_s).toStringList();
    m_canSwitchToUser = getOption("worker/can-switch-to-user"_s).toBool();
    for (const QString &service : qAsConst(m_services)) {
        const QStringList names = getOption("worker/available-service-factors/"_s + service).toStringList();
        for (const QString &name : names) {
            const QString id = "authd-factor-"_s + name;
            const QString title = translated(id.toLatin1());
            m_factors.append({service, name, title.isNull() ? id : title, false, false, false});
        }
    }
    rebuildRows();
    m_emissions.clear();
}

void SettingsOracle::emitSignal(const QString &name)
{
    m_emissions.append({name, snapshot()});
}

void SettingsOracle::warnAbout(const char *operation, const Reply &reply)
{
    m_warnings.append("warning %1 failed: %2"_s.arg(
        QLatin1String(operation), reply.message == "*"_s ? reply.message : R"("%1")"_s.arg(reply.message)));
}

Snapshot SettingsOracle::snapshot() const
{
    Snapshot result{m_uid,
                    m_showNotifications,
                    m_canSwitchToUser,
                    m_isMultiFactorable,
                    m_isUserSettable,
                    m_userWarning,
                    unlockFactors(),
                    {},
                    0};
    for (const int index : m_rows) {
        const Factor &factor = m_factors[index];
        result.rows.append({factor.name, factor.title, factor.enabled, factor.disabled, factor.type == unlockService});
        if (factor.type == loginService)
            ++result.loginFactorsCount;
    }
    return result;
}

void SettingsOracle::setToken(const QByteArray &token)
{
    m_token = token;
}

QByteArray SettingsOracle::token() const
{
    return m_token;
}

QVector<Emission> SettingsOracle::takeEmissions()
{
    QVector<Emission> result;
    result.swap(m_emissions);
    return result;
}

QStringList SettingsOracle::takeWarnings()
{
    QStringList result;
    result.swap(m_warnings);
    return result;
}

QVariant SettingsOracle::getOption(const QString &key)
{
    const Reply reply = m_daemon->getOption(key);
    if (reply.isError) {
        warnAbout("getOption", reply);
        return false;
    }
    return reply.value;
}

QVariant SettingsOracle::getUserOption(uint uid, const QString &key)
{
    if (uid == 0 || uid == 4294967295)
        return {};
    const Reply reply = m_daemon->getUserOption(uid, key);
    if (reply.isError) {
        warnAbout("getUserOption", reply);
        return {};
    }
    return reply.value;
}

QVariantMap SettingsOracle::getUserOptions(uint uid, const QStringList &keys)
{
    if (uid == 0 || uid == 4294967295)
        return {};
    QStringList full;
    for (const QString &key : keys)
        full.append("worker/"_s + key);
    const Reply reply = m_daemon->getUserOptions(uid, full);
    if (reply.isError) {
        warnAbout("getUserOptions", reply);
        return {};
    }
    return reply.value.toMap();
}

bool SettingsOracle::setUserOption(const QString &key, const OptionValue &value)
{
    const Reply reply = m_daemon->setUserOption(m_uid, m_token, key, value);
    if (reply.isError) {
        warnAbout("setUserOption", reply);
        return false;
    }
    return reply.value.toBool();
}

void SettingsOracle::setUid(uint uid)
{
    if (uid == m_uid)
        return;
    m_uid = uid;
    emitSignal("uidChanged()"_s);

    QStringList keys;
    for (const QString &service : qAsConst(m_services))
        keys.append("service-factors/"_s + service);
    keys << "is-multi-factorable"_s
         << "is-user-settable"_s
         << "disabled-factors"_s;
    const QVariantMap values = getUserOptions(uid, keys);

    for (const QString &service : qAsConst(m_services)) {
        const QString key = "worker/service-factors/"_s + service;
        if (values.contains(key))
            m_chosen[service] = values[key].toStringList();
    }
    if (values.contains("worker/is-multi-factorable"_s))
        updateIsMultiFactorable(values["worker/is-multi-factorable"_s].toBool());
    if (values.contains("worker/is-user-settable"_s))
        updateIsUserSettable(values["worker/is-user-settable"_s].toBool());
    if (values.contains("worker/disabled-factors"_s))
        m_disabled = values["worker/disabled-factors"_s].toStringList();
    updateChosenFactors();
    updateShowNotifications(getUserOption(uid, "devlock/show-notifications"_s).toBool());
}

void SettingsOracle::hear(const QVector<Announcement> &announcements)
{
    for (const Announcement &heard : announcements) {
        if (heard.signal == "OptionChanged"_s) {
            hearOption(heard.key, heard.value);
        } else if (heard.signal == "UserOptionChanged"_s) {
            hearUserOption(heard.uid, heard.key, heard.value);
        } else {
            const QVariantMap params{
                {"type"_s, "option-changed"_s}, {"uid"_s, heard.uid}, {"name"_s, heard.key}, {"value"_s, heard.value}};
            emitSignal("factorSignal(worker, %1)"_s.arg(written(params)));
        }
    }
}

void SettingsOracle::hearOption(const QString &key, const QVariant &value)
{
    if (key != "worker/can-switch-to-user"_s)
        return;
    m_canSwitchToUser = value.toBool();
    emitSignal("canSwitchToUserChanged()"_s);
}

void SettingsOracle::hearUserOption(uint uid, const QString &key, const QVariant &value)
{
    if (uid != m_uid || m_uid == 0)
        return;
    if (key.startsWith("worker/service-factors"_s)) {
        const QString service = QStringList(key.split("/"_s).mid(2)).join("/"_s);
        if (!m_chosen.contains(service))
            return;
        m_chosen[service] = value.toStringList();
        if (service == unlockService)
            emitSignal("unlockFactorsChanged()"_s);
        updateChosenFactors();
    } else if (key == "devlock/show-notifications"_s) {
        updateShowNotifications(value.toBool());
    } else if (key == "worker/disabled-factors"_s) {
        m_disabled = value.toStringList();
        updateChosenFactors();
    } else if (key == "worker/is-multi-factorable"_s) {
        updateIsMultiFactorable(value.toBool());
    } else if (key == "worker/is-user-settable"_s) {
        updateIsUserSettable(value.toBool());
    }
}

void SettingsOracle::updateShowNotifications(bool value)
{
    if (m_showNotifications == value)
        return;
    m_showNotifications = value;
    emitSignal("showNotificationsChanged()"_s);
}

void SettingsOracle::updateIsMultiFactorable(bool value)
{
    if (m_isMultiFactorable == value)
        return;
    m_isMultiFactorable = value;
    emitSignal("isMultiFactorableChanged()"_s);
}

void SettingsOracle::updateIsUserSettable(bool value)
{
    if (m_isUserSettable == value)
        return;
    m_isUserSettable = value;
    rebuildRows();
    emitSignal("isUserSettableChanged()"_s);
}

void SettingsOracle::updateUserWarning(const QString &value)
{
    if (m_userWarning == value)
        return;
    m_userWarning = value;
    emitSignal("userWarningChanged()"_s);
}

bool SettingsOracle::isChosen(const Factor &factor) const
{
    return m_chosen.contains(factor.type) && m_chosen[factor.type].contains(factor.name);
}

void SettingsOracle::updateChosenFactors()
{
    bool rebuild = false;
    for (Factor &factor : m_factors) {
        const bool shown = m_rowOf.contains(factor.name);
        const bool chosen = isChosen(factor);
        const bool changes = chosen != factor.enabled;
        if (changes) {
            factor.enabled = chosen;
            if (factor.type == loginService && shown)
                m_enabledLoginFactors += chosen ? 1 : -1;
            factor.selected = chosen;
            if (factor.name == smartcard)
                updateUserWarning(chosen ? translated("settings_users-la-user_has_token_hint") : QString());
        }
        const bool disabled = m_disabled.contains(factor.name);
        if (disabled != factor.disabled) {
            factor.disabled = disabled;
            rebuild = true;
        }
        if (changes && shown)
            emitSignal("model dataChanged(row %1, [258])"_s.arg(m_rowOf[factor.name]));
    }
    if (rebuild)
        rebuildRows();
}

void SettingsOracle::rebuildRows()
{
    emitSignal("model resets"_s);
    m_rows.clear();
    m_rowOf.clear();
    m_enabledLoginFactors = 0;
    QStringList seen;
    for (int i = 0; i < m_factors.size(); ++i) {
        const Factor &factor = m_factors[i];
        if (factor.type != loginService || (factor.disabled && factor.name != smartcard))
            continue;
        if (factor.enabled)
            ++m_enabledLoginFactors;
        else if (!m_isUserSettable && getuid() != 100000)
            continue;
        seen.append(factor.name);
        m_rowOf[factor.name] = m_rows.size();
        m_rows.append(i);
    }
    for (int i = 0; i < m_factors.size(); ++i) {
        const Factor &factor = m_factors[i];
        if (seen.contains(factor.name) || factor.type == loginService || !factor.enabled)
            continue;
        m_rowOf[factor.name] = m_rows.size();
        m_rows.append(i);
    }
    emitSignal("model reset"_s);
    emitSignal("model loginFactorsCountChanged()"_s);
}

QStringList SettingsOracle::unlockFactors() const
{
    return m_chosen.value(unlockService);
}

bool SettingsOracle::hasFactor(const QString &name) const
{
    for (const Factor &factor : m_factors) {
        if (factor.name == name && (name == smartcard || !factor.disabled))
            return true;
    }
    return false;
}

bool SettingsOracle::hasEnabledFactor(const QString &name) const
{
    for (const Factor &factor : m_factors) {
        if (factor.name == name && factor.enabled)
            return true;
    }
    return false;
}

bool SettingsOracle::hasChosenFactor(const QString &name) const
{
    for (const int index : m_rows) {
        if (m_factors[index].name == name && m_factors[index].selected)
            return true;
    }
    return false;
}

bool SettingsOracle::canTriggerFactor(int row)
{
    if (row < 0 || row >= m_rows.size()) {
        m_warnings.append("warning canTriggerFactor invalid index %1"_s.arg(row));
        return false;
    }
    const Factor &factor = m_factors[m_rows[row]];
    if (factor.type == loginService)
        return m_enabledLoginFactors > 1 || !factor.enabled;
    m_warnings.append("warning canTriggerFactor Couldn't manipulate unlock factors"_s);
    return false;
}

void SettingsOracle::triggerFactor(int row)
{
    if (!canTriggerFactor(row))
        return;
    Factor &factor = m_factors[m_rows[row]];
    factor.selected = !factor.enabled;
    if (!m_isMultiFactorable) {
        for (const int index : qAsConst(m_rows)) {
            if (m_factors[index].name != factor.name)
                m_factors[index].selected = false;
        }
    }
    save();
}

void SettingsOracle::triggerUnlockFactor(const QString &name)
{
    bool turnedOn = false;
    bool wasOn = false;
    bool otherOn = false;
    for (Factor &factor : m_factors) {
        if (factor.type != unlockService)
            continue;
        if (factor.name == name) {
            factor.selected = !factor.enabled;
            turnedOn = factor.selected;
            wasOn = factor.enabled;
        } else if (factor.enabled) {
            otherOn = true;
        }
    }
    const bool unchoosesOthers = turnedOn && otherOn && name == "sudis"_s;
    const bool choosesOthers = wasOn && !otherOn;
    for (Factor &factor : m_factors) {
        if (factor.type != unlockService || factor.name == name)
            continue;
        if (unchoosesOthers)
            factor.selected = false;
        if (choosesOthers)
            factor.selected = true;
    }
    save();
}

void SettingsOracle::save()
{
    QStringList services = m_services;
    services.removeDuplicates();
    services.sort();
    for (const QString &service : qAsConst(services)) {
        QStringList names;
        for (const Factor &factor : qAsConst(m_factors)) {
            if (factor.type == service && factor.selected)
                names.append(factor.name);
        }
        setUserOption("worker/service-factors/"_s + service, listValue(names));
    }
}

void SettingsOracle::setShowNotifications(bool value)
{
    if (m_uid != 0 && m_showNotifications != value && setUserOption("devlock/show-notifications"_s, boolValue(value)))
        updateShowNotifications(value);
}

void SettingsOracle::setIsUserSettable(bool value)
{
    if (m_uid != 0 && m_isUserSettable != value && setUserOption("worker/is-user-settable"_s, boolValue(value)))
        updateIsUserSettable(value);
}

void SettingsOracle::setIsMultiFactorable(bool value)
{
    if (m_uid != 0 && m_isMultiFactorable != value)
        setUserOption("worker/is-multi-factorable"_s, boolValue(value));
}

bool SettingsOracle::showLastLogin(uint uid)
{
    return getUserOption(uid, "worker/show-last-login"_s).toBool();
}

QString SettingsOracle::lastLoginDate(uint uid)
{
    return getUserOption(uid, "worker/last-login-date"_s).toString();
}
