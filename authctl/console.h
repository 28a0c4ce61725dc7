#pragma once

#include "output.h"
#include "request.h"
#include "settings-console.h"

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QDeadlineTimer>
#include <QtDBus/QDBusServiceWatcher>

/** Enough of a token to tell it from another, too little to use it. */
QString tokenText(const QByteArray &token);
QJsonObject tokenDetails(const QByteArray &token);

/** Does what is asked for, one thing after another, and tells how it went. */
class Console
{
public:
    explicit Console(Output &output);

    /** Does one command; returns its status. */
    int perform(const Request &request);
    /** Prints everything that happens, from now on; returns the status. */
    int follow(const Request &request);
    /** Does the commands that come on standard input; returns the status of the last one. */
    int runSession(const Request &session);

    /** Tells the result of the command being done; returns the status. */
    int finish(int status, const QString &text, const QJsonObject &details = QJsonObject());
    /** Authenticates a client as asked for; tells what fails, and returns the status. */
    int authenticate(AuthClient &client, const Request &request, const QByteArray &secret);
    /** Until when the command being done may wait. */
    QDeadlineTimer deadline() const;
    Output &output() const;

private:
    void printEvents();
    int setState(const Request &request);
    int tellState();
    int unlockIfNeeded();
    int callFactor(const Request &request);

    std::optional<AuthDevlockClient::LockState> askState();
    std::optional<QByteArray> readSecret(const Request &request);
    bool readLine(QByteArray &line);

    Output &m_output;
    AuthClient m_client;
    AuthDevlockClient m_devlock;
    SettingsConsole m_settings;
    QDBusServiceWatcher m_daemon;

    QString m_command;         ///< the one being done
    QDeadlineTimer m_deadline; ///< the time it has left
    bool m_session = false;
    QByteArray m_input; ///< read from standard input, not yet used
};
