#pragma once

#include "auth-client.h"
#include "factor-list-model.h"

#include <QtCore/QByteArray>
#include <QtCore/QStringList>

class AuthSettingsClientPrivate;

/**
 * Reads and changes the daemon's options for a settings page: the global ones, those of one user, and that user's
 * choice of authentication factors.
 *
 * It is an AuthClient with a connection, a challenge and a token of its own; the daemon wants that token, of a user who
 * may do so, for every change. Most hosts use the one object of the process:
 *
 * @code
 * AuthSettingsClient *settings = AuthSettingsClient::get();
 * settings->setUid(uid);
 * settings->authenticate("login", params); // of that user
 * // … and with the token
 * settings->triggerFactor(row);
 * @endcode
 *
 * @section mirror What it shows is what the daemon said
 * Selecting a user with setUid() reads that user's options once; afterwards the object follows the daemon's
 * announcements. Until a user is selected uid() is 0, the properties' setters do nothing, and the list model shows
 * every login factor offered. Choosing a factor changes nothing that the model shows: the wish is sent to the daemon,
 * and the model follows when the daemon announces the change. A refused write changes nothing either, and no signal
 * tells of it; the wish stays with the factor, and is written again with the next choice, for whichever user is
 * selected then, until the daemon says otherwise of that factor.
 *
 * The services and the factors they offer are read when the object is made, and not followed. The values mirrored stay
 * as they are when the daemon leaves the bus and comes back; select the user again to read them anew (through another
 * uid, since selecting the same one does nothing).
 *
 * An option whose value has an unexpected type is converted as QVariant does, and counts as false, an empty list or an
 * empty string where that is not possible. A list of strings is a D-Bus array of strings (`as`); a single string counts
 * as a list of one.
 *
 * @section blocking Blocking
 * Reads and writes wait for the daemon: at most 25 seconds each, the default of Qt D-Bus. Signals of the daemon that
 * arrive meanwhile are delivered afterwards, from the event loop. A call that fails is logged as a warning
 * ("getOption", "getUserOption", "getUserOptions" or "setUserOption", "failed:" and the daemon's words); a write that
 * the daemon answers with false is not. The getters, hasFactor(), hasEnabledFactor(), hasChosenFactor(),
 * canTriggerFactor() and the model answer at once, from what is mirrored.
 *
 * @section deletion Deleting it
 * As for AuthClient, an object may be deleted from a handler of any of its signals and of those of its model. The
 * object that get() returns must not be deleted; QML engines must be told that it belongs to C++
 * (QQmlEngine::setObjectOwnership()). It lives until the process ends, also when the plugin that brought the library is
 * unloaded (the library stays), and must not be used by the destructors of static objects.
 *
 * @note Constructing the object ends the process with exit status 1 when the system bus is not connected or the
 *       daemon's socket cannot be reached, like AuthClient. A daemon that can be reached and whose calls fail leaves it
 *       with no services, an empty model and canSwitchToUser() false.
 */
class AUTH_CLIENT_EXPORT AuthSettingsClient : public AuthClient
{
    Q_OBJECT

    /** Whether the user wants notifications on the locked screen. */
    Q_PROPERTY(bool showNotifications READ showNotifications WRITE setShowNotifications NOTIFY showNotificationsChanged)
    /** The token held; empty when none is. The notify signal is never emitted: follow authenticatedChanged(). */
    Q_PROPERTY(QByteArray token READ token NOTIFY authTokenChanged)
    /** The user whose options are shown and changed; 0 for none. */
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    /** Whether switching to another user is offered; a global option. */
    Q_PROPERTY(bool canSwitchToUser READ canSwitchToUser NOTIFY canSwitchToUserChanged)
    /** Whether the user may choose several login factors at once. */
    Q_PROPERTY(bool isMultiFactorable READ isMultiFactorable WRITE setIsMultiFactorable NOTIFY isMultiFactorableChanged)
    /** Whether the user may see and change factors that are not chosen. */
    Q_PROPERTY(bool isUserSettable READ isUserSettable WRITE setIsUserSettable NOTIFY isUserSettableChanged)
    /** A translated hint to the user, about the smart card; empty when there is none. */
    Q_PROPERTY(QString userWarning READ userWarning NOTIFY userWarningChanged)
    /**
     * The names of the factors chosen for unlocking, in the daemon's order. The notify signal tells of the daemon's
     * announcements, not of the selection of another user: read it again after that.
     */
    Q_PROPERTY(QStringList unlockFactors READ unlockFactors NOTIFY unlockFactorsChanged)
    /** The list model; never null, and always the same. */
    Q_PROPERTY(FactorListModel *factors READ factors NOTIFY unlockFactorsChanged)

public:
    /**
     * The process' one object; made by the first call, which waits for the daemon (see the constructor), and the same
     * ever after. Call it from the thread that is to own the object, and not from a message handler or translator while
     * the first call runs.
     */
    static AuthSettingsClient *get();

    /**
     * Makes an object beside the one of get(), with a user and values of its own. Until the daemon restarts it shares
     * the other's connection, and so hears the other's tokens (see AuthClient).
     *
     * Waits for the daemon as AuthClient does, and then for two options and the factors of each service: at most 25
     * seconds each, should the daemon be mute.
     *
     * @param parent the owner, or nullptr
     */
    explicit AuthSettingsClient(QObject *parent);
    ~AuthSettingsClient() override;

    bool showNotifications() const;
    QByteArray token() const;
    uint uid() const;
    bool canSwitchToUser() const;
    bool isMultiFactorable() const;
    bool isUserSettable() const;
    QString userWarning() const;
    QStringList unlockFactors() const;
    FactorListModel *factors() const;

    /**
     * Writes the option for the current user and waits for the answer. When the daemon accepts, showNotifications()
     * changes and showNotificationsChanged() is emitted before the call returns. Does nothing without a user, and when
     * the value is what it was.
     */
    void setShowNotifications(bool value);

    /**
     * Writes the option for the current user and waits for the answer. Unlike the other setters it changes nothing here
     * even when the daemon accepts: isMultiFactorableChanged() follows the daemon's announcement, from the event loop.
     * Does nothing without a user, and when the value is what it was.
     */
    void setIsMultiFactorable(bool value);

    /**
     * Writes the option for the current user and waits for the answer. When the daemon accepts, isUserSettable()
     * changes, the model is reset, and isUserSettableChanged() is emitted before the call returns. Does nothing without
     * a user, and when the value is what it was.
     */
    void setIsUserSettable(bool value);

    /**
     * Selects the user whose options are shown, and reads them: two blocking calls, none for the user ids 0 and
     * 4294967295. Does nothing when @p uid is selected already.
     *
     * Emits uidChanged() at once, while everything else is still the previous user's; then, before it returns, the
     * change signals of what differs, in this order: isMultiFactorableChanged(); the model's reset and
     * isUserSettableChanged(); the model's changes with userWarningChanged(); showNotificationsChanged(). It never
     * emits unlockFactorsChanged(): read unlockFactors() again when it has returned.
     *
     * What the daemon does not tell about the new user stays the previous user's, except that showNotifications()
     * becomes false. When the daemon cannot be read, after a warning, that is everything: a choice of factors made then
     * is the previous user's with one change. A host that offers changes makes sure of the daemon first, for instance
     * with a successful authenticate().
     *
     * A handler that selects yet another user ends the first selection. Handlers must not run an event loop: what the
     * daemon announces in it would be overwritten with what was read before.
     */
    void setUid(uint uid);

    /**
     * Whether triggerFactor() would do anything for a row of the model: true for a login factor that is not chosen, and
     * for one that is when it is not the only one. False, after a warning, for a row that does not exist ("invalid
     * index") and for a row of an unlock factor.
     *
     * @param index the row
     */
    Q_INVOKABLE bool canTriggerFactor(int index);

    /**
     * Chooses the login factor of a row, or unchooses it when it is chosen; nothing happens when canTriggerFactor() is
     * false for it. The choice of every service is written, one blocking call each, also for uid() 0.
     *
     * Unless isMultiFactorable(), the rows of all other names lose their choice, those of unlock factors too. So where
     * two login factors are chosen although only one may be, unchoosing one leaves the user without any, if the daemon
     * accepts that.
     *
     * @param index the row
     */
    Q_INVOKABLE void triggerFactor(int index);

    /**
     * Whether the user wants to see the date of the last login. Asks the daemon, blocking; false when that fails and
     * for the user ids 0 and 4294967295.
     *
     * @param uid the user; need not be the current one
     */
    Q_INVOKABLE bool showLastLogin(uint uid);

    /**
     * The date of a user's last login, formatted by the daemon. Asks the daemon, blocking; empty when that fails and
     * for the user ids 0 and 4294967295.
     *
     * @param uid the user; need not be the current one
     */
    Q_INVOKABLE QString lastLoginDate(uint uid);

    /** Whether any service offers a factor of this name that is not disabled for the user; "smartcard" may be. */
    Q_INVOKABLE bool hasFactor(const QString &name);

    /** Whether the factor is chosen for any service, as the daemon last said. */
    Q_INVOKABLE bool hasEnabledFactor(const QString &name);

    /** Whether a row of the model has this name and is wanted to be chosen; without a pending wish, whether it is. */
    Q_INVOKABLE bool hasChosenFactor(const QString &name);

    /**
     * Chooses a factor for unlocking, or unchooses it when it is chosen. Choosing "sudis" unchooses all others;
     * unchoosing the only one chooses all others. The choice of every service is written, one blocking call each, also
     * when the name is unknown and for uid() 0.
     *
     * @param name the factor
     */
    Q_INVOKABLE void triggerUnlockFactor(const QString &name);

Q_SIGNALS:
    /** Never emitted; challenges are no concern of hosts. */
    void challengeChanged();

    /** Never emitted; authenticatedChanged() tells of tokens. */
    void authTokenChanged();

    /** showNotifications() has changed. */
    void showNotificationsChanged();

    /** uid() has changed; everything else still shows the previous user. */
    void uidChanged();

    /** The daemon has announced canSwitchToUser(), also when it is what it was. */
    void canSwitchToUserChanged();

    /** isMultiFactorable() has changed. */
    void isMultiFactorableChanged();

    /** isUserSettable() has changed; the model has been reset before. */
    void isUserSettableChanged();

    /** userWarning() has changed. */
    void userWarningChanged();

    /** The daemon has announced unlockFactors(); the model follows right after. */
    void unlockFactorsChanged();

private:
    AuthSettingsClientPrivate *settings() const;
};

/**
 * Makes the private object of an AuthSettingsClient: the factory that it gives to the constructor of AuthClient.
 *
 * @param q the AuthSettingsClient under construction, of which only the AuthClient exists yet
 */
AUTH_CLIENT_EXPORT AuthClientPrivate *createFunc(AuthClient *q);
