#include "warnings.h"

#include <QtCore/QRegularExpression>

namespace {

Warnings *current = nullptr;

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
    // As the toolkit writes texts in messages; what it writes for line breaks and the like may stay.
    static const QRegularExpression escaped(QStringLiteral("\\\\([\\\\\"])"));
    const QString words = match.captured(1).replace(escaped, QStringLiteral("\\1"));
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
