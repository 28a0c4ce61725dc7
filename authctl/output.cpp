#include "output.h"

#include "request.h"

#include <QtCore/QDateTime>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

/** Whether a character is shown by its code, if it does not belong to an emoji flag. */
bool isHidden(uint character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    case QChar::Other_Format:
        break;
    default:
        return false;
    }
    static const uint ordinary[] = {0x200c, 0x200d, 0x0600, 0x0601, 0x0602,  0x0603,
                                    0x0604, 0x0605, 0x06dd, 0x08e2, 0x110bd, 0x110cd};
    return std::find(std::begin(ordinary), std::end(ordinary), character) == std::end(ordinary);
}

/** Texts with what must not be seen as it is replaced by its code, which JSON would have, too; lines stay. */
QString escaped(const QString &text)
{
    QString result;
    bool inFlag = false;
    for (int i = 0; i < text.size(); ++i) {
        const bool pair = text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate();
        const uint character = pair ? QChar::surrogateToUcs4(text.at(i), text.at(i + 1)) : text.at(i).unicode();
        const QStringRef units = text.midRef(i, pair ? 2 : 1);
        i += pair ? 1 : 0;
        // The tags that spell a region after a black flag.
        const bool tag = character >= 0xe0020 && character <= 0xe007f;
        inFlag = character == 0x1f3f4 || (inFlag && tag);
        if (character == '\n' || inFlag || !isHidden(character)) {
            result += units;
            continue;
        }
        for (const QChar unit : units)
            result += QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
    }
    return result;
}

QByteArray compact(const QJsonDocument &document)
{
    return escaped(QString::fromUtf8(document.toJson(QJsonDocument::Compact))).toUtf8();
}

QByteArray toLine(QJsonObject object)
{
    object.insert(QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs));
    return compact(QJsonDocument(object));
}

} // namespace

QString shown(const QString &text)
{
    QString line = text;
    line.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    return escaped(line.replace(QLatin1Char('\n'), QLatin1String("\\n")));
}

QString shown(const QJsonValue &value)
{
    if (value.isString())
        return shown(value.toString());
    // Without the brackets that make it a document.
    const QByteArray array = compact(QJsonDocument(QJsonArray{value}));
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

Output::Output(bool json)
    : m_json(json)
{
}

void Output::event(const QString &name, QJsonObject details, const QString &text)
{
    if (m_json) {
        details.insert(QStringLiteral("event"), name);
        write(stdout, toLine(details));
    } else {
        print(stdout,
              (QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz  ")) + name.leftJustified(20) + text)
                  .trimmed());
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
        write(stdout, toLine(details));
    } else if (status == 0) {
        print(stdout, text);
    } else {
        message(text);
    }
}

void Output::message(const QString &text)
{
    print(stderr, QStringLiteral("authctl: ") + shown(text));
}

void Output::setWaiting(bool waiting)
{
    if (waiting == m_waiting || !isatty(STDERR_FILENO))
        return;
    m_waiting = waiting;
    fputs(waiting ? "waiting for the daemon…" : "\r\033[K", stderr);
}

void Output::print(FILE *file, const QString &lines)
{
    write(file, escaped(lines).toLocal8Bit());
}

void Output::write(FILE *file, const QByteArray &lines)
{
    const bool waiting = m_waiting;
    setWaiting(false);
    const bool ok = fputs((lines + '\n').constData(), file) >= 0 && fflush(file) == 0;
    if (!ok && file == stdout) {
        message(QStringLiteral("the output cannot be written: %1").arg(QString::fromLocal8Bit(strerror(errno))));
        _exit(CannotWrite);
    }
    setWaiting(waiting);
}
