#pragma once

#include "model-watch.h"
#include "test-case.h"

/** The factors of a service, in their order. */
struct Offer
{
    QString service;
    QStringList names;
};

/** A client whose model is watched. */
class WatchedClient
{
public:
    explicit WatchedClient(std::unique_ptr<AuthSettingsClient> client, uint uid = 0);

    AuthSettingsClient *get() const
    {
        return m_client.get();
    }
    AuthSettingsClient *operator->() const
    {
        return m_client.get();
    }
    AuthSettingsClient &operator*() const
    {
        return *m_client;
    }

private:
    std::unique_ptr<AuthSettingsClient> m_client;
    ModelWatch m_watch;
};

/** A test that arranges and announces the options of which settings clients show the users. */
class SettingsTestCase : public TestCase
{
    Q_OBJECT

protected:
    /** These services are all; users 1000 and 1001 have chosen nothing of them, and nothing is disabled for 1001. */
    void offer(const QList<Offer> &offers);
    void choose(const char *service, const QStringList &names, uint uid = 1000);
    void disable(const QStringList &names, uint uid = 1000);
    /** The next read of a global option is answered with @p value, a variant; what is arranged last is used first. */
    void answerOnce(const QByteArray &value);

    /** A client that mirrors the user; the calls of that are forgotten. */
    std::unique_ptr<AuthSettingsClient> newClientOf(uint uid);
    /** Makes @p client hold a token with which the daemon lets it write. */
    void authenticate(AuthSettingsClient *client);

    /** Tells all clients that an option of user @p uid has got @p value. */
    void announce(uint uid, const QByteArray &key, const QByteArray &value);
    /** Tells @p client that an option of its user has got @p value, and waits until it has heard that. */
    void announce(AuthSettingsClient *client, const QByteArray &key, const QByteArray &value);
    void announceChosen(AuthSettingsClient *client, const char *service, const QStringList &names);
    void announceDisabled(AuthSettingsClient *client, const QStringList &names);
    void announceSettable(AuthSettingsClient *client, bool settable);
};

/** The words of @p text. */
QStringList names(const char *text);
/** A list in the scenario's notation. */
QByteArray json(const QStringList &texts);
/** A list in GVariant text. */
QByteArray gvariant(const QStringList &texts);
/** The model as text, such as "code chosen, smartcard disabled, sudis chosen unlock". */
QString rows(const AuthSettingsClient &client);
/** How the recorder writes that a row's chosen mark has changed. */
QString enabledChanged(int row);
