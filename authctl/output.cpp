#include "output.h"

#include "request.h"

#include <QtCore/QDateTime>
#include <QtCore/QJsonDocument>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

QByteArray toLine(QJsonObject object)
{
    object.insert(QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

Output::Output(bool json)
    : m_json(json)
{
}

void Output::event(const QString &name, QJsonObject details, const QString &text)
{
    if (m_json) {
        details.insert(QStringLiteral("event"), name);
        print(stdout, toLine(details));
    } else {
        print(stdout,
              (QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz  ")) + name.leftJustified(20) + text)
                  .trimmed()
                  .toLocal8Bit());
    }
}

void Output::result(const QString &command, int status, QJsonObject details, const QString &text)
{
    if (m_json) {
        details.insert(QStringLiteral("command"), command);
        details.insert(QStringLiteral("ok"), status == 0);
        details.insert(QStringLiteral("status"), status);
        if (status != 0)
            details.insert(QStringLiteral("error"), text);
        print(stdout, toLine(details));
    } else if (status == 0) {
        print(stdout, text.toLocal8Bit());
    } else {
        message(text);
    }
}

void Output::message(const QString &text)
{
    print(stderr, "authctl: " + text.toLocal8Bit());
}

void Output::setWaiting(bool waiting)
{
    if (waiting == m_waiting || !isatty(STDERR_FILENO))
        return;
    m_waiting = waiting;
    fputs(waiting ? "waiting for the daemon…" : "\r\033[K", stderr);
}

void Output::print(FILE *file, const QByteArray &line)
{
    const bool waiting = m_waiting;
    setWaiting(false);
    const bool ok = fputs((line + '\n').constData(), file) >= 0 && fflush(file) == 0;
    if (!ok && file == stdout) {
        message(QStringLiteral("the output cannot be written: %1").arg(QString::fromLocal8Bit(strerror(errno))));
        _exit(CannotWrite);
    }
    setWaiting(waiting);
}
