#pragma once

#include "auth-client-export.h"

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>

class AuthSettingsPrivate;

/**
 * The date of a user's last login, kept current by the daemon's notices.
 *
 * The object may be deleted from a handler of its signals. One that outlives main() must not be used by the destructors
 * of static objects.
 *
 * @note The object works through the process' AuthSettingsClient and makes it when there is none yet, which waits for
 *       the daemon and ends the process when it cannot be reached.
 */
class AUTH_CLIENT_EXPORT AuthSettings : public QObject
{
    Q_OBJECT

    /** The user whose data is shown; 0 at first. */
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    /** The date of the user's last login, as the daemon formats it. Every read asks the daemon and waits. */
    Q_PROPERTY(QString lastLoginDate READ lastLoginDate NOTIFY lastLoginDateChanged)

public:
    /** @param parent the owner, or nullptr */
    explicit AuthSettings(QObject *parent = nullptr);
    ~AuthSettings() override;

    uint uid() const;

    /** Selects another user: emits uidChanged(), then lastLoginDateChanged(). Does not call the daemon. */
    void setUid(uint uid);

    /**
     * Asks the daemon, on every call, and waits for the answer (at most 25 seconds, and as long again when the
     * challenge has to be fetched first). Empty, after a warning, when that fails. The daemon is asked for user 0 as
     * well.
     */
    QString lastLoginDate() const;

Q_SIGNALS:
    /** uid() has changed. */
    void uidChanged();

    /** lastLoginDate() may have changed: another user is selected, or the daemon says so. */
    void lastLoginDateChanged();

private:
    const QScopedPointer<AuthSettingsPrivate> d;
};
