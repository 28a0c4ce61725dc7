#pragma once

#include "auth-client-export.h"
#include "auth-client.h"

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QVariant>

class FactorSettingsBasePrivate;

/**
 * The settings of one authentication method, to be extended by that method's own settings page: reads and writes the
 * method's options for a user, runs its actions, and hears of changes.
 *
 * Requests travel as factor methods (AuthClient::factorMethod()) through the process' AuthSettingsClient, with the
 * token that it holds. What the daemon answers is the method's own business; lists and maps arrive as the bus delivered
 * them, in a QDBusArgument. An object that outlives main() must not be used by the destructors of static objects.
 *
 * @code
 * class CodeSettings : public FactorSettingsBase
 * {
 *     Q_OBJECT
 * public:
 *     explicit CodeSettings(QObject *parent) : FactorSettingsBase(parent, "code") {}
 *     int length(uint uid) const { return getOption(uid, "length").toInt(); }
 * Q_SIGNALS:
 *     void lengthChanged();
 * protected:
 *     void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override
 *     {
 *         if (name == "length")
 *             emit lengthChanged();
 *     }
 * };
 * @endcode
 *
 * @note The first object makes AuthSettingsClient::get(), which waits for the daemon and ends the process when it
 *       cannot be reached.
 */
class AUTH_CLIENT_EXPORT FactorSettingsBase : public QObject
{
    Q_OBJECT

public:
    /**
     * @param parent the owner, or nullptr
     * @param method the method's name as the daemon knows it
     */
    FactorSettingsBase(QObject *parent, const QString &method);
    ~FactorSettingsBase() override;

    /**
     * Reads an option and waits for the daemon (at most 25 seconds, and as long again when the challenge has to be
     * fetched first).
     *
     * @param uid  the user; sent as it is, also 0
     * @param name the option's name
     * @return the value; an invalid variant, after a warning, when the call failed
     */
    QVariant getOption(uint uid, const QString &name) const;

    /**
     * Asks for another value of an option. Does not wait for the outcome, but fetches the daemon's challenge first when
     * none is held (a blocking call, at most 25 seconds). handleOptionChanged() follows when the daemon announces the
     * change; a getOption() before that may still give the old value. A failure is logged as a warning and not reported
     * otherwise.
     *
     * @param uid   the user; sent as it is, also 0
     * @param name  the option's name
     * @param value the value wanted; one that D-Bus cannot carry (see AuthClient) is not sent
     */
    void setOption(uint uid, const QString &name, const QVariant &value);

    /**
     * Runs an action. Does not wait for its result, but fetches the challenge first as setOption() does.
     *
     * @param uid      the user; sent as it is, also 0
     * @param name     the action's name
     * @param params   the action's parameters; with one that D-Bus cannot carry (see AuthClient) nothing is sent
     * @param callback called once with the result, from the event loop, also when this object is deleted meanwhile;
     *                 with an invalid variant, after a warning, when the call failed or was not sent. May be empty
     */
    void doAction(uint uid, const QString &name, const QVariantMap &params, const ValueCallBack &callback) const;

protected:
    /**
     * Called, from the event loop, when the daemon says that an option of this method has changed. Does nothing here.
     * The object may be deleted from it.
     *
     * @param uid   the user; 0 when the daemon names none
     * @param name  the option's name; empty when the daemon names none
     * @param value its new value; invalid when the daemon tells none
     */
    virtual void handleOptionChanged(uint uid, const QString &name, const QVariant &value);

private:
    const QScopedPointer<FactorSettingsBasePrivate> d;
};
