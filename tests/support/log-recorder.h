#pragma once

#include <QtCore/QMutex>
#include <QtCore/QStringList>

/**
 * Records what the library logs, each line as its level and text: "warning setLocked failed: \"no\"".
 *
 * Whatever holds anywhere is looked after here: each line of the default category names its place in the library's
 * sources, and no line holds a secret. All tokens, challenges and parameter values of the tests contain secretMark;
 * those that come from elsewhere are announced with forbid().
 */
class LogRecorder
{
public:
    static const char secretMark[];

    LogRecorder();
    ~LogRecorder();
    Q_DISABLE_COPY(LogRecorder)

    QStringList lines() const;
    QStringList take();
    /** Takes the warnings and critical messages alone. */
    QStringList takeComplaints();
    bool contains(const QString &line) const;
    int count(const QString &line) const;

    /** Lines that lack their place or hold a secret. */
    QStringList takeFaults();
    static void forbid(const QByteArray &secret);

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);
    void record(QtMsgType type, const QMessageLogContext &context, const QString &text);

    mutable QMutex m_mutex;
    QStringList m_lines;
    QStringList m_faults;
    QtMessageHandler m_previous;
};
