#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>

/**
 * A text on a line: what could end the line, control a terminal, turn the order of characters round or be seen by nobody
 * is shown by its code, as in JSON, and a backslash by two.
 *
 * Format characters that ordinary text is written with stay: joiners, signs that enclose the numbers after them, and the
 * tags of emoji flags.
 */
QString shown(const QString &text);

/** The same for a value as JSON has it; a text has no quotes. */
QString shown(const QJsonValue &value);

/** What authctl says: text for people, or one JSON object a line. */
class Output
{
public:
    explicit Output(bool json);

    /** Something happened by itself. @param text shown() already, as far as it is not authctl's own */
    void event(const QString &name, QJsonObject details, const QString &text);
    /**
     * A command has ended. Failures go to standard error unless they are in JSON.
     *
     * @param text of a failure, just that; otherwise shown() already, as far as it is not authctl's own
     */
    void result(const QString &command, int status, QJsonObject details, const QString &text);
    /** Shows on a terminal that the daemon is being waited for. */
    void setWaiting(bool waiting);
    /** Shows a text that is not part of the output proper. */
    void message(const QString &text);
    /** Prints lines; ends the process when standard output does not take them. */
    void print(FILE *file, const QString &lines);

private:
    void write(FILE *file, const QByteArray &lines);

    const bool m_json;
    bool m_waiting = false;
};
