#include "warnings.h"

#include <QtCore/QRegularExpression>

namespace {

Warnings *current = nullptr;

/** A text that `QDebug` of Qt 5.15 has written between quotes. */
QString unquoted(const QString &text)
{
    static const QRegularExpression code(QStringLiteral("\\\\(?:u([0-9A-F]{4})|U([0-9A-F]{8})|(.))"));
    const QString letters = QStringLiteral("bfnrt");
    QString result;
    int end = 0;
    auto codes = code.globalMatch(text);
    while (codes.hasNext()) {
        const QRegularExpressionMatch match = codes.next();
        result += text.midRef(end, match.capturedStart() - end);
        end = match.capturedEnd();
        const uint number = (match.captured(1) + match.captured(2)).toUInt(nullptr, 16);
        if (match.capturedLength(2) > 0) {
            result += QChar(QChar::highSurrogate(number));
            result += QChar(QChar::lowSurrogate(number));
        } else if (match.capturedLength(1) > 0) {
            result += QChar(number);
        } else {
            const int letter = letters.indexOf(match.captured(3));
            result += letter < 0 ? match.captured(3).at(0) : QLatin1Char("\b\f\n\r\t"[letter]);
        }
    }
    return result + text.midRef(end);
}

} // namespace

Warnings::Warnings()
    : m_outer(current)
{
    current = this;
}

Warnings::~Warnings()
{
    current = m_outer;
}

bool Warnings::take(const QString &message)
{
    static const QRegularExpression form(
        QStringLiteral("^(?:(?:get|getUser|setUser)Options? failed|factorMethodWait failed|reply isError): \"(.*)\"$"),
        QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = form.match(message);
    if (!current || !match.hasMatch())
        return false;
    const QString words = unquoted(match.captured(1));
    if (!current->m_words.contains(words))
        current->m_words.append(words);
    if (current->m_handler)
        current->m_handler();
    return true;
}

const QStringList &Warnings::words() const
{
    return m_words;
}

void Warnings::setHandler(const std::function<void()> &handler)
{
    m_handler = handler;
}
