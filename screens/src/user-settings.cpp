#include "user-settings_p.h"

#include "DeviceLock"

#include <QtCore/QPointer>

#include <algorithm>

namespace AuthScreens {

namespace {

/** Milliseconds that the agent has for an authentication, a change, or the reading of the settings. */
constexpr int Limit = 60000;
/** Milliseconds until an agent that has ended is replaced: doubled each time, up to the second. */
constexpr int FirstPause = 200;
constexpr int LongestPause = 12800;

} // namespace

UserSettings::UserSettings(QObject *parent)
    : QObject(parent)
    , d(new UserSettingsPrivate(this))
{
}

UserSettings::~UserSettings() = default;

uint UserSettings::uid() const
{
    return d->uid;
}

bool UserSettings::available() const
{
    return d->isAvailable();
}

bool UserSettings::ready() const
{
    return d->settings.isRead;
}

bool UserSettings::authenticated() const
{
    return d->settings.isAuthenticated;
}

bool UserSettings::busy() const
{
    return d->trial.isBusy();
}

bool UserSettings::overdue() const
{
    return d->trial.isOverdue();
}

bool UserSettings::pending() const
{
    return !d->pending.isEmpty();
}

bool UserSettings::canSwitchToUser() const
{
    return d->settings.canSwitch;
}

bool UserSettings::settable() const
{
    return d->settings.isSettable;
}

bool UserSettings::multiFactor() const
{
    return d->settings.isMultiFactor;
}

bool UserSettings::notifications() const
{
    return d->settings.notifies;
}

bool UserSettings::needsSmartCard() const
{
    return d->settings.warns;
}

FactorModel *UserSettings::loginFactors() const
{
    return &d->loginFactors;
}

FactorModel *UserSettings::unlockFactors() const
{
    return &d->unlockFactors;
}

void UserSettings::setUid(uint uid)
{
    d->setUid(uid);
}

bool UserSettings::authenticate(const QString &factor, const QString &data)
{
    return d->trial.begin(d->request(factor), data, d->obstacle());
}

bool UserSettings::authenticate(const QString &factor, const QByteArray &data)
{
    return d->trial.begin(d->request(factor), data, d->obstacle());
}

void UserSettings::giveUp()
{
    d->trial.end(GivenUp);
}

void UserSettings::lock()
{
    d->lock();
}

bool UserSettings::chooseForLogin(const QString &factor, bool isChosen)
{
    return d->change(Wire::Setting::LoginFactor, factor, isChosen);
}

bool UserSettings::chooseForUnlocking(const QString &factor, bool isChosen)
{
    return d->change(Wire::Setting::UnlockFactor, factor, isChosen);
}

bool UserSettings::changeMultiFactor(bool isWanted)
{
    return d->change(Wire::Setting::MultiFactor, QString(), isWanted);
}

bool UserSettings::changeNotifications(bool isWanted)
{
    return d->change(Wire::Setting::Notifications, QString(), isWanted);
}

UserSettingsPrivate::UserSettingsPrivate(UserSettings *publicObject)
    : trial(
        [this](const Wire::Attempt &attempt) {
            m_isAwaited = true;
            m_limit.start();
            m_agent->send(attempt);
        },
        [this] {
            // What the daemon says late must not be taken for the answer to another request.
            if (m_isAwaited)
                restart(Interrupted);
        })
    , loginFactors(nullptr)
    , unlockFactors(nullptr)
    , q(publicObject)
    , m_state(DeviceLock::Undefined)
    , m_pause(FirstPause)
{
    connect(&m_follower, &LockFollower::stateChanged, this, &UserSettingsPrivate::handleState);
    connect(&trial, &Trial::busyChanged, q, &UserSettings::busyChanged);
    connect(&trial, &Trial::overdueChanged, q, &UserSettings::overdueChanged);
    connect(&trial, &Trial::accepted, this, [this] { trial.end(Trial::Silently); });
    connect(&trial, &Trial::refused, q, &UserSettings::refused);
    m_limit.setSingleShot(true);
    m_limit.setInterval(Limit);
    connect(&m_limit, &QTimer::timeout, this, [this] { restart(NoAnswer); });
    m_restart.setSingleShot(true);
    connect(&m_restart, &QTimer::timeout, this, &UserSettingsPrivate::start);
    m_refusal.setSingleShot(true);
    connect(&m_refusal, &QTimer::timeout, this, &UserSettingsPrivate::refuseNext);
}

Wire::Attempt UserSettingsPrivate::request(const QString &factor) const
{
    Wire::Attempt result;
    result.service = QStringLiteral("login");
    result.factor = factor;
    result.uid = uid;
    return result;
}

int UserSettingsPrivate::obstacle() const
{
    if (!m_agent || !settings.isRead)
        return Unavailable;
    if (m_state == DeviceLock::ManagerLockout || m_state == DeviceLock::CodeEntryLockout)
        return LockedOut;
    return Trial::Silently;
}

bool UserSettingsPrivate::isAvailable() const
{
    return m_state != DeviceLock::Undefined;
}

void UserSettingsPrivate::start()
{
    stop();
    if (!isAvailable() || uid == 0)
        return;
    m_agent = std::make_unique<Agent>();
    connect(m_agent.get(), &Agent::received, this, &UserSettingsPrivate::handleFrame);
    connect(m_agent.get(), &Agent::lost, this, &UserSettingsPrivate::handleLost);
    m_agent->send(Wire::Mirror{uid});
    m_limit.start();
}

// This may be called from a signal of the agent.
void UserSettingsPrivate::stop()
{
    m_restart.stop();
    m_limit.stop();
    m_isAwaited = false;
    if (!m_agent)
        return;
    m_agent->disconnect(this);
    m_agent->distrust();
    m_agent.release()->deleteLater();
}

void UserSettingsPrivate::restart(Reason reason, int pause)
{
    const QPointer<UserSettingsPrivate> self(this);
    stop();
    if (pause > 0)
        m_restart.start(pause);
    else
        start();
    for (const Wire::Write &wish : qAsConst(pending)) {
        const bool isRefused = std::any_of(m_refusals.cbegin(), m_refusals.cend(),
                                           [&](const auto &refusal) { return refusal.first.number == wish.number; });
        if (!isRefused)
            m_refusals.append({wish, reason});
    }
    if (!m_refusals.isEmpty())
        m_refusal.start(0);
    Wire::Settings next = settings;
    next.isAuthenticated = false;
    handleSettings(next);
    if (self)
        trial.end(reason);
}

void UserSettingsPrivate::handleLost()
{
    const int pause = m_pause;
    m_pause = qMin(2 * m_pause, LongestPause);
    restart(Interrupted, pause);
}

void UserSettingsPrivate::setUid(uint newUid)
{
    if (newUid == uid)
        return;
    const QPointer<UserSettingsPrivate> self(this);
    uid = newUid;
    const bool wasPending = !pending.isEmpty();
    pending.clear();
    m_refusals.clear();
    start();
    trial.end(Trial::Silently);
    if (self)
        handleSettings(Wire::Settings());
    if (self && wasPending)
        emit q->pendingChanged();
    if (self)
        emit q->uidChanged();
}

void UserSettingsPrivate::lock()
{
    if (m_agent)
        m_agent->send(Wire::Drop());
}

void UserSettingsPrivate::handleState()
{
    const QPointer<UserSettingsPrivate> self(this);
    const bool wasAvailable = isAvailable();
    m_state = m_follower.state();
    if (wasAvailable == isAvailable())
        return;
    m_pause = FirstPause;
    restart(Unavailable);
    if (self)
        emit q->availableChanged();
}

void UserSettingsPrivate::handleFrame(const Wire::Frame &frame)
{
    Wire::Settings told;
    Wire::Written written;
    Wire::Outcome outcome;
    Wire::Ready ready;
    Wire::Gone gone;
    if (decode(frame, told)) {
        if (told.isRead)
            m_pause = FirstPause;
        if (told.isRead && !m_isAwaited && pending.isEmpty())
            m_limit.stop();
        // What was read before stays while it cannot be read.
        if (!told.isRead && settings.isRead) {
            const bool isAuthenticated = told.isAuthenticated;
            told = settings;
            told.isAuthenticated = isAuthenticated;
        }
        handleSettings(told);
    } else if (decode(frame, written)) {
        handleWritten(written);
    } else if (decode(frame, outcome) && m_isAwaited) {
        m_isAwaited = false;
        if (pending.isEmpty())
            m_limit.stop();
        trial.tell(Hand::End(outcome.result));
    } else if (!decode(frame, ready) && !decode(frame, gone)) {
        m_agent->distrust();
    }
}

void UserSettingsPrivate::handleSettings(const Wire::Settings &told)
{
    const QPointer<UserSettingsPrivate> self(this);
    const Wire::Settings before = settings;
    settings = told;
    showRows();
    if (self
        && (before.canSwitch != told.canSwitch || before.isSettable != told.isSettable
            || before.isMultiFactor != told.isMultiFactor || before.notifies != told.notifies
            || before.warns != told.warns))
        emit q->settingsChanged();
    if (self && before.isRead != told.isRead)
        emit q->readyChanged();
    if (self && before.isAuthenticated != told.isAuthenticated)
        emit q->authenticatedChanged();
}

bool UserSettingsPrivate::change(Wire::Setting setting, const QString &factor, bool value)
{
    for (const Wire::Write &wish : qAsConst(pending)) {
        if (wish.setting == setting && wish.factor == factor)
            return false;
    }
    const QPointer<UserSettingsPrivate> self(this);
    const Wire::Write wish{++m_number, setting, factor, value};
    pending.append(wish);
    if (m_agent && settings.isRead && settings.isAuthenticated) {
        m_limit.start();
        m_agent->send(wish);
    } else {
        m_refusals.append({wish, m_agent && settings.isRead ? NotAuthenticated : Unavailable});
        m_refusal.start(0);
    }
    showRows();
    if (self && pending.size() == 1)
        emit q->pendingChanged();
    return true;
}

void UserSettingsPrivate::handleWritten(const Wire::Written &written)
{
    const auto wish = std::find_if(pending.begin(), pending.end(),
                                   [&](const Wire::Write &entry) { return entry.number == written.number; });
    if (wish == pending.end()) {
        m_agent->distrust();
        return;
    }
    const QPointer<UserSettingsPrivate> self(this);
    if (written.result != Wire::Result::Done) {
        m_refusals.append({*wish, Trial::reasonOf(Hand::End(written.result))});
        m_refusal.start(0);
        return;
    }
    pending.erase(wish);
    if (pending.isEmpty() && !m_isAwaited)
        m_limit.stop();
    showRows();
    if (self && pending.isEmpty())
        emit q->pendingChanged();
}

void UserSettingsPrivate::refuseNext()
{
    if (m_refusals.isEmpty())
        return;
    const QPointer<UserSettingsPrivate> self(this);
    const auto refusal = m_refusals.takeFirst();
    if (!m_refusals.isEmpty())
        m_refusal.start(0);
    pending.erase(std::remove_if(pending.begin(), pending.end(),
                                 [&](const Wire::Write &wish) { return wish.number == refusal.first.number; }),
                  pending.end());
    if (pending.isEmpty() && !m_isAwaited)
        m_limit.stop();
    showRows();
    if (self && pending.isEmpty())
        emit q->pendingChanged();
    if (self)
        emit q->changeRefused(UserSettings::Setting(refusal.first.setting), refusal.first.factor, refusal.second);
}

QStringList UserSettingsPrivate::usable(const QStringList &names) const
{
    QStringList result;
    for (const QString &name : names) {
        if (!settings.disabled.contains(name))
            result.append(name);
    }
    return result;
}

// The agent decides whether a change is allowed; this is for the look of the row.
FactorModelPrivate::Row UserSettingsPrivate::row(const QString &name, Wire::Setting setting,
                                                 const QStringList &chosen) const
{
    FactorModelPrivate::Row row;
    row.name = name;
    row.isChosen = chosen.contains(name);
    row.isWanted = row.isChosen;
    row.isDisabled = settings.disabled.contains(name);
    for (const Wire::Write &wish : pending) {
        if (wish.setting == setting && wish.factor == name) {
            row.isPending = true;
            row.isWanted = wish.value;
        }
    }
    const bool isForLogin = setting == Wire::Setting::LoginFactor;
    const QStringList left = usable(isForLogin ? chosen : settings.offered);
    const bool isLast = left.isEmpty() || left == QStringList{name};
    row.isChangeable = isAvailable() && settings.isAuthenticated && settings.isSettable && !row.isPending
        && (row.isChosen ? !isLast : !row.isDisabled);
    return row;
}

void UserSettingsPrivate::showRows()
{
    const QPointer<UserSettingsPrivate> self(this);
    const auto rowsOf = [this](Wire::Setting setting, const QStringList &chosen) {
        QVector<FactorModelPrivate::Row> rows;
        QStringList names = settings.isSettable ? settings.offered : QStringList();
        for (const QString &name : chosen) {
            if (!names.contains(name))
                names.append(name);
        }
        for (const QString &name : qAsConst(names))
            rows.append(row(name, setting, chosen));
        return rows;
    };
    showRows(&loginFactors, rowsOf(Wire::Setting::LoginFactor, settings.login));
    if (self)
        showRows(&unlockFactors, rowsOf(Wire::Setting::UnlockFactor, settings.unlock));
}

void UserSettingsPrivate::showRows(FactorModel *model, const QVector<FactorModelPrivate::Row> &rows)
{
    const QPointer<FactorModel> self(model);
    QVector<FactorModelPrivate::Row> &present = model->d->rows;
    const auto isNamesake = [](const FactorModelPrivate::Row &left, const FactorModelPrivate::Row &right) {
        return left.name == right.name;
    };
    if (!std::equal(present.cbegin(), present.cend(), rows.cbegin(), rows.cend(), isNamesake)) {
        const bool isCount = present.size() != rows.size();
        model->beginResetModel();
        present = rows;
        model->endResetModel();
        if (self && isCount)
            emit model->countChanged();
        return;
    }
    for (int i = 0; self && i < rows.size(); ++i) {
        const FactorModelPrivate::Row before = present.at(i);
        const FactorModelPrivate::Row &now = rows.at(i);
        present[i] = now;
        QVector<int> roles;
        const auto compare = [&](int role, bool wasSo, bool isSo) {
            if (wasSo != isSo)
                roles.append(role);
        };
        compare(FactorModel::ChosenRole, before.isChosen, now.isChosen);
        compare(FactorModel::PendingRole, before.isPending, now.isPending);
        compare(FactorModel::WantedRole, before.isWanted, now.isWanted);
        compare(FactorModel::DisabledRole, before.isDisabled, now.isDisabled);
        compare(FactorModel::ChangeableRole, before.isChangeable, now.isChangeable);
        if (!roles.isEmpty())
            emit model->dataChanged(model->index(i), model->index(i), roles);
    }
}

} // namespace AuthScreens
