#pragma once

#include "auth-screens-export.h"
#include "auth-screens-reason.h"
#include "factor-model.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>

namespace AuthScreens {

class UserSettingsPrivate;

/**
 * A user's settings of signing in and unlocking, for a settings page.
 *
 * Nothing here waits for the daemon, and the process never ends because of it; see DeviceLock. An agent mirrors and changes
 * the settings, another follows the daemon. What is shown is what the daemon said last; a change is pending until the
 * daemon has answered, and then follows changeRefused() where it has not been made.
 *
 * Changes want the user to have been authenticated by authenticate(), which holds until lock(), until another user is set,
 * and until the device is locked or the daemon goes away.
 *
 * No change can leave a user without a way to sign in: a factor that is disabled cannot be chosen, the last one that can be
 * used cannot be unchosen, and where one factor is the rule, choosing another replaces it. For unlocking, "sudis" replaces
 * all others, and unchoosing the only factor chooses all the others.
 *
 * The object may be deleted at any time, also in a handler of its signals. Signals come from the event loop, except that
 * operations emit what they change at once (busy, pending rows).
 */
class AUTH_SCREENS_EXPORT UserSettings : public QObject
{
    Q_OBJECT

    /** The user; 0, as at first, for none. */
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    /** Whether the daemon is there. */
    Q_PROPERTY(bool available READ available NOTIFY availableChanged)
    /** Whether the daemon has told the user's settings. They stay as they were while it is away. */
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    /** Whether changes may be asked for. */
    Q_PROPERTY(bool authenticated READ authenticated NOTIFY authenticatedChanged)
    /** Whether an authentication is under way. */
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    /** Whether that has been under way for ten seconds. */
    Q_PROPERTY(bool overdue READ overdue NOTIFY overdueChanged)
    /** Whether a change is under way. */
    Q_PROPERTY(bool pending READ pending NOTIFY pendingChanged)
    /** Whether other users may be offered. */
    Q_PROPERTY(bool canSwitchToUser READ canSwitchToUser NOTIFY settingsChanged)
    /** Whether the user may change the choice of factors. */
    Q_PROPERTY(bool settable READ settable NOTIFY settingsChanged)
    /** Whether several factors may be chosen for signing in, all of which are asked for then. */
    Q_PROPERTY(bool multiFactor READ multiFactor NOTIFY settingsChanged)
    /** Whether the user wants notifications on the locked screen. */
    Q_PROPERTY(bool notifications READ notifications NOTIFY settingsChanged)
    /** Whether the user should be told to keep the smart card at hand. */
    Q_PROPERTY(bool needsSmartCard READ needsSmartCard NOTIFY settingsChanged)
    /** The factors for signing in: those offered, or those chosen where the user may not change the choice. */
    Q_PROPERTY(AuthScreens::FactorModel *loginFactors READ loginFactors CONSTANT)
    /** The same for unlocking. */
    Q_PROPERTY(AuthScreens::FactorModel *unlockFactors READ unlockFactors CONSTANT)

public:
    /** What a change is about. */
    enum Setting {
        LoginFactor,
        UnlockFactor,
        MultiFactor,
        Notifications,
    };
    Q_ENUM(Setting)

    /** @param parent the owner, or nullptr */
    explicit UserSettings(QObject *parent = nullptr);
    ~UserSettings() override;

    uint uid() const;
    bool available() const;
    bool ready() const;
    bool authenticated() const;
    bool busy() const;
    bool overdue() const;
    bool pending() const;
    bool canSwitchToUser() const;
    bool settable() const;
    bool multiFactor() const;
    bool notifications() const;
    bool needsSmartCard() const;
    FactorModel *loginFactors() const;
    FactorModel *unlockFactors() const;

    /** Another user: an authentication, and what is pending, is over, without refusals. */
    void setUid(uint uid);

    /**
     * Has the daemon judge a secret of the user, as DeviceLock::attempt() does: authenticated() becomes true, or refused()
     * follows.
     */
    Q_INVOKABLE bool authenticate(const QString &factor, const QString &data);
    Q_INVOKABLE bool authenticate(const QString &factor, const QByteArray &data);

    /** Ends the authentication under way, if there is one, and emits refused(GivenUp) before it returns. */
    Q_INVOKABLE void giveUp();

    /** The authentication does not count any more. */
    Q_INVOKABLE void lock();

    /** Asks for a factor to be chosen for signing in, or not. @return false while a change of it is pending */
    Q_INVOKABLE bool chooseForLogin(const QString &factor, bool isChosen);
    /** The same for unlocking. */
    Q_INVOKABLE bool chooseForUnlocking(const QString &factor, bool isChosen);
    /** The same for multiFactor(). */
    Q_INVOKABLE bool changeMultiFactor(bool isWanted);
    /** The same for notifications(). */
    Q_INVOKABLE bool changeNotifications(bool isWanted);

Q_SIGNALS:
    void uidChanged();
    void availableChanged();
    void readyChanged();
    void authenticatedChanged();
    void busyChanged();
    void overdueChanged();
    void pendingChanged();
    /** Some of the properties that the daemon tells have changed. */
    void settingsChanged();

    /** The user has not been authenticated. */
    void refused(AuthScreens::Reason reason);

    /** A change has not been made. @param factor the factor, for LoginFactor and UnlockFactor */
    void changeRefused(AuthScreens::UserSettings::Setting setting, const QString &factor, AuthScreens::Reason reason);

private:
    const QScopedPointer<UserSettingsPrivate> d;
};

} // namespace AuthScreens
