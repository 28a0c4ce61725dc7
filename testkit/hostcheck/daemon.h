#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

/**
 * The stand-in daemon of this world, over its control socket.
 *
 * The socket is a plain blocking one. An Outcome is thrown when the stand-in cannot be reached or refuses a request.
 */
class Daemon
{
public:
    Daemon();
    ~Daemon();
    Q_DISABLE_COPY(Daemon)

    QJsonObject request(const QByteArray &json);
    /** How many calls of @p method have been logged. */
    int callCount(const QByteArray &method);

private:
    int m_socket;
    QByteArray m_input;
};

/** A text as JSON has it. */
QByteArray quoted(const QByteArray &text);
