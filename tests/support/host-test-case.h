#pragma once

#include "test-case.h"

#include <QtCore/QProcess>

/** A test that watches from outside how processes live and end. */
class HostTestCase : public TestCase
{
    Q_OBJECT

protected:
    enum Bus {
        WithBus,
        WithoutBus,
    };
    void start(QProcess &host, const QString &program, const QStringList &arguments, Bus bus = WithBus);
    /** Waits until the host says that it waits for something. */
    void waitReady(QProcess &host);
    /** Ends the host's event loop, however long it takes to reconnect: until then it hears nothing. */
    void sendQuit(QProcess &host);
    /**
     * Waits for the host's end, and checks its status and what it has said.
     *
     * @p critical is a regular expression for its one critical line. Without that there must be no warning of
     * Qt either.
     */
    void checkEnd(QProcess &host, int status, const QString &critical = QString());
    /** Leaves the asynchronous calls unanswered. */
    void holdCalls();

    /** All that the host has written to standard error, once checkEnd() has been called. */
    QString said;
};

/** A row of a table with the one column "arguments", called like its value. */
void argumentsRow(const QStringList &arguments);

/** The critical line without a system bus. */
inline const QString noBus = R"(Cannot connect to "vantora.AuthService" ".+")"_s;
