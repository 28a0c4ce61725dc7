#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>

/** What authctl says: text for people, or one JSON object a line. */
class Output
{
public:
    explicit Output(bool json);

    /** Something happened by itself. */
    void event(const QString &name, QJsonObject details, const QString &text);
    /** A command has ended. Failures go to standard error unless they are in JSON. */
    void result(const QString &command, int status, QJsonObject details, const QString &text);
    /** Shows on a terminal that the daemon is being waited for. */
    void setWaiting(bool waiting);
    /** Shows what is not part of the output proper. */
    void message(const QString &text);
    /** Prints a line; ends the process when standard output does not take it. */
    void print(FILE *file, const QByteArray &line);

private:
    const bool m_json;
    bool m_waiting = false;
};
