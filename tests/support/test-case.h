#pragma once

#include "log-recorder.h"
#include "signal-recorder.h"
#include "stand-in.h"

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettingsClient>

#include <QtTest/QtTest>

#include <functional>
#include <memory>

inline QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

/** Factor signals whose name begins so mark a point in the stream of signals; recorders leave them out. */
inline const QLatin1String drainMark("drain-");

/** How the recorder writes a rebuild of the model's rows. */
inline const QStringList resetSignals{"model resets"_s, "model reset"_s, "model loginFactorsCountChanged()"_s};

/** What a drop of the authentication emits when no request was under way. */
inline const QStringList dropSignals{"authenticatedChanged()"_s, "discredit()"_s};

/** Runs the event loop until @p condition holds; false when the condition does not hold within two minutes. */
bool waitFor(const std::function<bool()> &condition);

/** Parameters that make a factor's method return @p value. */
QVariantMap echo(const QVariant &value);
/** The arguments of a reply or signal with one byte array, in GVariant text. */
QByteArray byteTuple(const QByteArray &value);
/** How the recorder writes that @p token is announced. */
QString published(const QByteArray &token);
/** How an "Authenticate" for logging in with nothing but @p challenge is written by StandIn::calls(). */
QString loginCall(const QByteArray &challenge);
/** The lines with "…" for the text of a failure that Qt D-Bus words: "warning setLocked failed: …". */
QStringList withoutTexts(QStringList lines);
/** The rows of a table with one column, called like their values. */
void textRows(const char *column, const QByteArrayList &values);
void numberRows(const char *column, const QList<int> &values);

/**
 * A test with a daemon of its own: each function finds a new, well-behaved daemon in an unlocked device, and leaves
 * no warning that the function did not expect.
 */
class TestCase : public QObject
{
    Q_OBJECT

protected:
    /** A client that has heard the device-lock state; logs and calls of its making are forgotten. */
    std::unique_ptr<AuthClient> newClient();
    /** The same, with nobody selected. */
    std::unique_ptr<AuthSettingsClient> newSettingsClient();
    /** Makes @p client hold @p token. */
    void grant(AuthClient *client, const QByteArray &token);
    /** The daemon sends signals, each written as its name and its arguments: "StateChanged (5,)". */
    void emitSignals(const QByteArrayList &emissions, const QByteArray &more = QByteArray());
    /** Lets @p client and everything on the system bus hear all that the daemon has sent. */
    void drain(AuthClient *client);
    /** The same, once the daemon has got as many calls of @p method. */
    void drainAfter(AuthClient *client, const char *method, int count = 1);
    void drainSystemBus();
    /**
     * Waits until the only client of the connection has noticed the daemon's present instance.
     *
     * The log says when, and keeps what it said before: take the log before an instance gets its name back.
     */
    void awaitReconnection(const QString &connectionName = QStringLiteral("authd_p2p_client"));
    /** Waits until the client has noticed that the daemon's name has no owner. */
    void awaitLoss();

    StandIn daemon;
    std::unique_ptr<LogRecorder> log;

protected Q_SLOTS:
    void init();
    void cleanup();

public Q_SLOTS:
    void markHeard(int number);

private:
    void awaitLockState();

    int m_marks = 0;
    int m_heard = 0;
};
