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
    /** Users 1000 and 1001 differ in every option that is read for a user. */
    void arrangeTwoUsers();
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

    /**
     * Plays a story of factors, whose steps are parted by " | ".
     *
     * What is said before a user is selected is arranged, what is said afterwards is announced:
     *
     *     offer login: a b; unlock: c         the services and their factors
     *     services: login unlock login        the services, where they are others than those of the offer
     *     login: a                            what user 1000 has chosen for a service; "1001 login: a" for another
     *     disabled: b                         the disabled factors of the user
     *     settable: no    several: yes        whether the user may set factors, and choose several
     *     user 1000                           a client selects this user; at first, 0 leaves it without one
     *     authenticated user 1000             the same, and the daemon does what is written and announces it
     *     announce first    lose news         before it replies, or never
     *     fail write 2                        and lets the second of the next writes fail with "must not"
     *     deliver                             all that the daemon has sent
     *     toggle 1    toggle unlock c         what a host does; the daemon takes what is written and announces nothing
     *     refuse                              from here on the daemon refuses what is written
     *     listen    forget calls              forgets the signals, or the writes, so far
     *
     * What is seen after a step follows it:
     *
     *     = a chosen, b                       rows()
     *     > a b / c                           the writes since the last such look, for login and for unlock
     *     > login: a; sudo: b                 the same, for services that are named
     *     ! mark 0, reset                     the signals since the last such look, or since the client was made
     *
     * These steps only look: "may toggle 0 1" at canTriggerFactor(), "has a" at hasFactor(), "enabled a" at
     * hasEnabledFactor(), "wants a" at hasChosenFactor(), "warned" at userWarning(), each of them also with "not" in
     * front; "wishes a b" names all that is offered for which hasChosenFactor() holds; "unlock factors c" and
     * "login rows 2" are what client and model say; "stored login: a" is what the daemon keeps; "undelivered" has heard
     * no signal yet; "failed" finds the complaint of a failed write in the log, "quiet" finds nothing there; "look" is
     * there for what follows. A list of none is "nothing", an empty name is '', and "(100000: a, b)" is seen by this
     * user id instead.
     */
    void play(const char *story);

private:
    class Story;
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
