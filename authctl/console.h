#pragma once

#include "output.h"
#include "request.h"

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QDeadlineTimer>

/** Does what is asked for, one thing after another, and tells how it went. */
class Console
{
public:
    explicit Console(Output &output);

    /** Does one command; returns its status. */
    int perform(const Request &request);
    /** Prints everything that happens, from now on. */
    void printEvents();
    /** Does the commands that come on standard input; returns the status of the last one. */
    int runSession(const Request &session);

private:
    int finish(int status, const QString &text, const QJsonObject &details = QJsonObject());
    int authenticate(const Request &request);
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

    QString m_command;         ///< the one being done
    QDeadlineTimer m_deadline; ///< the time it has left
    bool m_session = false;
    QByteArray m_input; ///< read from standard input, not yet used
};
