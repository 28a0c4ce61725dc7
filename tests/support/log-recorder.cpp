#include "log-recorder.h"

#include <cstring>

const char LogRecorder::secretMark[] = "s3cr3t";

namespace {
LogRecorder *recorder = nullptr;
Q_GLOBAL_STATIC_WITH_ARGS(QList<QByteArray>, secrets, ({LogRecorder::secretMark}))

const char *levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "debug";
    case QtInfoMsg:
        return "info";
    case QtWarningMsg:
        return "warning";
    case QtCriticalMsg:
        return "critical";
    case QtFatalMsg:
        return "fatal";
    }
    return "?";
}
} // namespace

LogRecorder::LogRecorder()
{
    recorder = this;
    m_previous = qInstallMessageHandler(handle);
}

LogRecorder::~LogRecorder()
{
    qInstallMessageHandler(m_previous);
    recorder = nullptr;
}

void LogRecorder::handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    recorder->record(type, context, text);
    recorder->m_previous(type, context, text);
}

void LogRecorder::record(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const QMutexLocker locker(&m_mutex);
    const QString line = QLatin1String(levelName(type)) + QLatin1Char(' ') + text;
    m_lines.append(line);
    if (strcmp(context.category, "default") != 0)
        return;

    if (!context.file || strncmp(context.file, "src/", 4) != 0 || context.line <= 0 || !context.function)
        m_faults.append(QStringLiteral("no place in the sources: ") + line);
    const QByteArray written = text.toUtf8();
    for (const QByteArray &secret : qAsConst(*secrets)) {
        if (written.contains(secret) || written.toLower().contains(secret.toHex()))
            m_faults.append(QStringLiteral("a secret: ") + line);
    }
}

QStringList LogRecorder::lines() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lines;
}

QStringList LogRecorder::take()
{
    const QMutexLocker locker(&m_mutex);
    QStringList result;
    result.swap(m_lines);
    return result;
}

QStringList LogRecorder::takeComplaints()
{
    const QMutexLocker locker(&m_mutex);
    QStringList result;
    QStringList others;
    for (const QString &line : qAsConst(m_lines)) {
        const bool complains =
            line.startsWith(QLatin1String("warning ")) || line.startsWith(QLatin1String("critical "));
        (complains ? result : others).append(line);
    }
    m_lines = others;
    return result;
}

bool LogRecorder::contains(const QString &line) const
{
    return count(line) > 0;
}

int LogRecorder::count(const QString &line) const
{
    const QMutexLocker locker(&m_mutex);
    return m_lines.count(line);
}

QStringList LogRecorder::takeFaults()
{
    const QMutexLocker locker(&m_mutex);
    QStringList result;
    result.swap(m_faults);
    return result;
}

void LogRecorder::forbid(const QByteArray &secret)
{
    if (secret.size() >= 4 && !secrets->contains(secret))
        secrets->append(secret);
}
