#include "expectation.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

namespace {

bool fitsName(const char *list, const char *name, const char *kinds)
{
    return qstrcmp(list, "*") == 0 || overlap(list, name) || overlap(list, kinds);
}

const Promise *find(const Call &call, const Fault &fault, const Act &act)
{
    const auto found = std::find_if(promises.begin(), promises.end(), [&](const Promise &promise) {
        return fitsName(promise.calls, call.name, call.kinds) && fitsName(promise.faults, fault.name, fault.kinds)
            && fitsName(promise.acts, act.name, "");
    });
    return found == promises.end() ? nullptr : &*found;
}

bool fitsLine(const QString &line, const QString &pattern)
{
    QStringList parts = pattern.split(QStringLiteral("…"));
    for (QString &part : parts)
        part = QRegularExpression::escape(part);
    return QRegularExpression(QLatin1Char('^') + parts.join(QStringLiteral(".+")) + QLatin1Char('$'))
        .match(line)
        .hasMatch();
}

/** Whether @p lines from @p i on are the rest of the strands, which have come as far as @p at, or a part of that. */
bool isWoven(const QStringList &lines, int i, const QVector<QStringList> &strands, QVector<int> at, bool isPartial)
{
    bool isRest = i == lines.size();
    for (int strand = 0; strand < strands.size(); ++strand) {
        int &place = at[strand];
        if (place == strands.at(strand).size())
            continue;
        if (i == lines.size()) {
            isRest = isRest && isPartial;
            continue;
        }
        if (!fitsLine(lines.at(i), strands.at(strand).at(place)))
            continue;
        ++place;
        if (isWoven(lines, i + 1, strands, at, isPartial))
            return true;
        --place;
    }
    return isRest;
}

bool isWoven(const QStringList &lines, const Story &story, bool isPartial)
{
    return isWoven(lines, 0, story.strands, QVector<int>(story.strands.size()), isPartial);
}

bool isOptional(const QString &call)
{
    return call.endsWith(QLatin1Char('?'));
}

} // namespace

Expectation::Expectation(const Call &call, const Fault &fault, const Act &act)
    : m_call(call)
    , m_fault(fault)
    , m_promise(find(call, fault, act))
{
    if (!isLived())
        return;
    m_stories = stories(*m_promise);
    const QString heard = QString::fromUtf8(m_promise->heard);
    const Promise *likeNothing = m_promise;
    const bool isPart = heard.startsWith(QLatin1String("{part}"));
    if (isPart || heard.startsWith(QLatin1String("{all}"))) {
        likeNothing = find(call, fault, acts.front());
        const QStringList end = m_stories.first().end;
        m_stories = stories(*likeNothing);
        for (Story &story : m_stories)
            story.end = end;
        m_isPartial = isPart;
    }

    const char *sends = fault.reaches ? call.sends : "";
    if (likeNothing->sends)
        sends = likeNothing->sends;
    for (const QString &entry : split(QString::fromUtf8(sends))) {
        const bool isCounted = entry.at(0).isDigit();
        for (int i = 0; i < (isCounted ? entry.at(0).digitValue() : 1); ++i)
            m_sends.append(isCounted ? entry.mid(2) : entry);
    }
    // As soon as the event loop has run.
    if (call.holdsChallenge && fault.name == QByteArray("daemon restarted") && (isNothing(act) || m_isPartial))
        m_sends.append(QLatin1String(m_isPartial ? "RequestChallenge?" : "RequestChallenge"));
}

QVector<Story> Expectation::stories(const Promise &promise) const
{
    const QVector<QPair<const char *, const char *>> places{{"{begins}", m_call.begins},
                                                            {"{heard}", m_call.heard},
                                                            {"{before}", m_call.before},
                                                            {"{after}", m_call.after},
                                                            {"%text", m_fault.text},
                                                            {"{all}", ""},
                                                            {"{part}", ""}};
    QString text = QString::fromUtf8(promise.heard);
    for (const auto &[place, value] : places)
        text.replace(QLatin1String(place), QString::fromUtf8(value));

    QVector<Story> result;
    for (const QString &way : text.split(QStringLiteral(" or "))) {
        const QStringList halves = way.split(QStringLiteral(" . "));
        Story story;
        for (const QString &strand : halves.first().split(QStringLiteral(" | "))) {
            QStringList lines = split(strand);
            const int late = lines.indexOf(QStringLiteral("~"));
            if (late >= 0) {
                story.late = late;
                lines.removeAt(late);
            }
            story.strands.append(lines);
        }
        story.end = split(halves.value(1));
        QStringList &last = story.strands.last();
        if (!last.isEmpty() && last.last() == QLatin1String("deleted"))
            story.end = QStringList(last.takeLast());
        result.append(story);
    }
    return result;
}

QString Expectation::text() const
{
    if (!isLived())
        return m_promise ? QString::fromUtf8(m_promise->heard) : QStringLiteral("BLANK");
    QStringList ways;
    for (const Story &story : m_stories) {
        QStringList strands;
        for (const QStringList &strand : story.strands)
            strands.append(strand.join(QStringLiteral("; ")));
        ways.append(strands.join(QStringLiteral(" | ")) + QStringLiteral(" . ") + story.end.join(QStringLiteral("; ")));
    }
    return ways.join(QStringLiteral(" or ")) + QLatin1String(m_isPartial ? ", as far as it got" : "");
}

bool Expectation::isHeard(const QStringList &lines) const
{
    return std::any_of(m_stories.begin(), m_stories.end(),
                       [&](const Story &story) { return isWoven(lines, story, m_isPartial); });
}

int Expectation::late() const
{
    const Story &story = m_stories.first();
    return story.late >= 0 ? story.late : story.strands.first().size();
}

bool Expectation::fits(const QStringList &lines) const
{
    return std::any_of(m_stories.begin(), m_stories.end(), [&](const Story &story) {
        const int rest = lines.size() - story.end.size();
        return rest >= 0 && lines.mid(rest) == story.end && isWoven(lines.mid(0, rest), story, m_isPartial);
    });
}

bool Expectation::fitsCalls(const QStringList &got) const
{
    QStringList rest = got;
    for (const QString &entry : m_sends) {
        const bool isNext = !rest.isEmpty() && rest.first() == QString(entry).remove(QLatin1Char('?'));
        if (isNext)
            rest.removeFirst();
        else if (!isOptional(entry))
            return false;
    }
    return rest.isEmpty();
}

bool isNothing(const Act &act)
{
    return &act == &acts.front();
}

bool overlap(const char *list, const char *names)
{
    const QStringList known = split(QString::fromUtf8(list), "|");
    const QStringList wanted = split(QString::fromUtf8(names), "|");
    return std::any_of(wanted.begin(), wanted.end(), [&](const QString &name) { return known.contains(name); });
}

QStringList split(const QString &text, const char *separator)
{
    QStringList parts;
    for (const QString &part : text.split(QLatin1String(separator))) {
        if (!part.trimmed().isEmpty())
            parts.append(part.trimmed());
    }
    return parts;
}
