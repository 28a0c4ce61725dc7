#pragma once

#include "auth-screens-export.h"
#include "auth-screens-reason.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QStringList>

namespace AuthScreens {

class SignInPrivate;

/**
 * Signs a user in, for a login screen: reads the factors that the user has chosen, and has a secret judged for each.
 *
 * Nothing here waits for the daemon, and the process never ends because of it; see DeviceLock, which works in the same way
 * and with as many agents.
 *
 * The daemon judges each secret by itself. That a user who has chosen several factors has to pass them all is up to the
 * screen, so it is done here: factor() is the next one, and any refusal, and a device that becomes locked or whose daemon
 * goes away, begins with the first again.
 *
 * @code
 * AuthScreens::SignIn signIn;
 * signIn.setUid(1000);
 * connect(view, &View::entered, &signIn, [&](const QString &secret) { signIn.attempt(secret); });
 * connect(&signIn, &SignIn::passed, this, &Session::begin);
 * @endcode
 *
 * The object may be deleted at any time, also in a handler of its signals. All signals come from the event loop; of the
 * operations, setUid(), attempt(), giveUp() and signOut() emit some before they return.
 */
class AUTH_SCREENS_EXPORT SignIn : public QObject
{
    Q_OBJECT

    /** The user who is to sign in; 0, as at first, for none. */
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    /** Whether the daemon is there. */
    Q_PROPERTY(bool available READ available NOTIFY availableChanged)
    /** Whether nobody can authenticate for now: too many wrong codes, or a device manager's lockout. */
    Q_PROPERTY(bool lockedOut READ lockedOut NOTIFY lockedOutChanged)
    /** Whether the daemon has told the user's factors. */
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    /** The names of the factors to be passed, in the daemon's order, without those that are disabled. */
    Q_PROPERTY(QStringList factors READ factors NOTIFY factorsChanged)
    /** How many of them have been passed. */
    Q_PROPERTY(int step READ step NOTIFY stepChanged)
    /** The name of the next one; empty when there is none. */
    Q_PROPERTY(QString factor READ factor NOTIFY stepChanged)
    /** When the user last signed in, in the daemon's words; empty when the user does not want to see it. */
    Q_PROPERTY(QString lastLogin READ lastLogin NOTIFY lastLoginChanged)
    /** Whether all factors have been passed. */
    Q_PROPERTY(bool signedIn READ signedIn NOTIFY signedInChanged)
    /** Whether an attempt is under way. */
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    /** Whether an attempt has been under way for ten seconds: a screen offers to give it up. */
    Q_PROPERTY(bool overdue READ overdue NOTIFY overdueChanged)

public:
    /** @param parent the owner, or nullptr */
    explicit SignIn(QObject *parent = nullptr);
    ~SignIn() override;

    uint uid() const;
    bool available() const;
    bool lockedOut() const;
    bool ready() const;
    QStringList factors() const;
    int step() const;
    QString factor() const;
    QString lastLogin() const;
    bool signedIn() const;
    bool busy() const;
    bool overdue() const;

    /** Another user: all that has been passed, and an attempt under way, is over, the latter without refused(). */
    void setUid(uint uid);

    /**
     * Has the daemon judge a secret for factor(). When it is accepted, stepChanged() follows, and passed() if it was the
     * last; otherwise refused(), never both.
     *
     * @param data as for DeviceLock::attempt()
     * @return false while another attempt is under way, or when the user has signed in, and then nothing happens
     */
    Q_INVOKABLE bool attempt(const QString &data);
    /** The same with a secret that is sent as bytes. */
    Q_INVOKABLE bool attempt(const QByteArray &data);

    /** Ends the attempt under way, if there is one, and emits refused(GivenUp) before it returns. */
    Q_INVOKABLE void giveUp();

    /** Begins with the first factor again. */
    Q_INVOKABLE void signOut();

    /** Reads the user's factors anew, as setUid() and the daemon's coming do. */
    Q_INVOKABLE void reload();

Q_SIGNALS:
    void uidChanged();
    void availableChanged();
    void lockedOutChanged();
    void readyChanged();
    void factorsChanged();
    void stepChanged();
    void lastLoginChanged();
    void signedInChanged();
    void busyChanged();
    void overdueChanged();

    /** The user has passed all factors. */
    void passed();

    /** The secret given last has not been accepted, or not been judged. */
    void refused(AuthScreens::Reason reason);

private:
    const QScopedPointer<SignInPrivate> d;
};

} // namespace AuthScreens
