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

    // What single commands do, for their table; each returns its status.
    int tellState(const Request &request);
    int lock(const Request &request);
    int unlock(const Request &request);
    int setState(const Request &request);
    int unlockIfNeeded(const Request &request);
    int callFactor(const Request &request);
    /** Prints everything that happens, from now on. */
    int follow(const Request &request);
    /** Does the commands that come on standard input; the status is that of the last one. */
    int runSession(const Request &session);
    int drop(const Request &request);
    int quit(const Request &request);

    /** Tells the result of the command being done; returns the status. */
    int finish(int status, const QString &text, const QJsonObject &details = QJsonObject());
    /** Authenticates a client as asked for; tells what fails, and returns the status. */
    int authenticate(AuthClient &client, const Request &request, const QByteArray &secret);
    /** Until when the command being done may wait. */
    QDeadlineTimer deadline() const;
    Output &output() const;

private:
    void printEvents();
    int changeState(const Request &request, AuthDevlockClient::LockState wanted);
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
    bool m_hasQuit = false;
    int m_status = Done; ///< of the session's last command
    QByteArray m_input;  ///< read from standard input, not yet used
};
