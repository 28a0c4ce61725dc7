#include "report.h"

#include <QtCore/QFile>
#include <QtCore/QXmlStreamWriter>

#include <algorithm>
#include <cstdio>

namespace {

template <class Days, class Get> int widthOf(const Days &days, Get get)
{
    int width = 0;
    for (const auto &day : days)
        width = qMax(width, get(day));
    return width;
}

const char *word(Outcome::Verdict verdict)
{
    switch (verdict) {
    case Outcome::Passed:
        return "passed";
    case Outcome::Failed:
        return "FAILED";
    case Outcome::NotReached:
        return "not reached";
    case Outcome::NotMade:
        break;
    }
    return "NOT MADE";
}

QString seconds(double value)
{
    return QString::number(value, 'f', 3);
}

// XML has no room for control characters, however they are written.
QString printable(QString text)
{
    const auto isBad = [](QChar c) { return c < QLatin1Char(' ') && c != QLatin1Char('\n') && c != QLatin1Char('\t'); };
    std::replace_if(text.begin(), text.end(), isBad, QChar(QChar::ReplacementCharacter));
    text.replace(QChar(0xfffe), QChar(QChar::ReplacementCharacter));
    return text.replace(QChar(0xffff), QChar(QChar::ReplacementCharacter));
}

} // namespace

Report::Report(const Check &check)
    : m_check(check)
    , m_nameWidth(widthOf(check.days, [](const Day *day) { return day->name.size(); }))
{
}

void Report::add(const Result &result)
{
    m_results.append(result);
    printf("%-*s  %-11s  %5.1f s  %s\n", m_nameWidth, result.day->name.constData(), word(result.outcome.verdict),
           result.seconds, printable(result.outcome.fullText()).toLocal8Bit().constData());
    fflush(stdout);
}

int Report::count(Outcome::Verdict verdict) const
{
    return int(std::count_if(m_results.begin(), m_results.end(),
                             [=](const Result &result) { return result.outcome.verdict == verdict; }));
}

void Report::finish(const Costs &costs)
{
    // The results have come in the order in which the days ended.
    std::sort(m_results.begin(), m_results.end(), [this](const Result &left, const Result &right) {
        const auto at = [this](const Day *day) { return std::find(m_check.days.begin(), m_check.days.end(), day); };
        return at(left.day) < at(right.day);
    });
    for (const Result &result : qAsConst(m_results)) {
        if (result.outcome.verdict == Outcome::Failed || result.outcome.verdict == Outcome::NotMade)
            explain(result);
    }
    printf("\n%d %s: %d passed, %d failed, %d not reached", m_results.size(), m_results.size() == 1 ? "day" : "days",
           count(Outcome::Passed), count(Outcome::Failed), count(Outcome::NotReached));
    if (count(Outcome::NotMade) > 0)
        printf(", %d not made", count(Outcome::NotMade));
    const int unplayed = int(m_check.days.size()) - m_results.size();
    if (unplayed > 0)
        printf(", %d not played", unplayed);
    puts("");
    if (m_check.leftOut == 1)
        puts("1 day was left out; --thorough plays it");
    else if (m_check.leftOut > 0)
        printf("%d days were left out; --thorough plays them\n", m_check.leftOut);
    printf("%.1f s, at most %d %s at once, %.1f s of processor time, %ld MiB for the largest process\n", costs.seconds,
           costs.mostAtOnce, costs.mostAtOnce == 1 ? "day" : "days", costs.processorSeconds, costs.largestProcess);
    fflush(stdout);
}

void Report::explain(const Result &result) const
{
    const Outcome &outcome = result.outcome;
    printf("\n%s: %s\n", result.day->name.constData(), printable(outcome.fullText()).toLocal8Bit().constData());
    if (outcome.rule != Rule::None) {
        printf("  rule:   %s\n  likely: %s\n  cure:   %s\n", qPrintable(sentenceOf(outcome.rule)),
               qPrintable(mistakeOf(outcome.rule, result.day->name)), qPrintable(cureOf(outcome.rule)));
    }
    const QByteArray log = endOfLog(*result.day, 20);
    fwrite(log.constData(), size_t(log.size()), 1, stdout);
}

bool Report::writeJUnit(QIODevice *file) const
{
    double sum = 0;
    for (const Result &result : m_results)
        sum += result.seconds;
    const auto number = [](int value) { return QString::number(value); };

    QXmlStreamWriter xml(file);
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    const auto writeCounts = [&] {
        xml.writeAttribute(QStringLiteral("name"), QStringLiteral("authd-hostcheck"));
        xml.writeAttribute(QStringLiteral("tests"), number(m_results.size()));
        xml.writeAttribute(QStringLiteral("failures"), number(count(Outcome::Failed)));
        xml.writeAttribute(QStringLiteral("errors"), number(count(Outcome::NotMade)));
        xml.writeAttribute(QStringLiteral("skipped"), number(count(Outcome::NotReached)));
        xml.writeAttribute(QStringLiteral("time"), seconds(sum));
    };
    xml.writeStartElement(QStringLiteral("testsuites"));
    writeCounts();
    xml.writeStartElement(QStringLiteral("testsuite"));
    writeCounts();
    for (const Result &result : m_results) {
        xml.writeStartElement(QStringLiteral("testcase"));
        xml.writeAttribute(QStringLiteral("name"), QString::fromUtf8(result.day->name));
        xml.writeAttribute(QStringLiteral("classname"), QStringLiteral("authd-hostcheck"));
        xml.writeAttribute(QStringLiteral("time"), seconds(result.seconds));
        const QString message = printable(result.outcome.fullText());
        const QString log = printable(QString::fromLocal8Bit(endOfLog(*result.day, 200)));
        switch (result.outcome.verdict) {
        case Outcome::Passed:
            break;
        case Outcome::NotReached:
            xml.writeEmptyElement(QStringLiteral("skipped"));
            xml.writeAttribute(QStringLiteral("message"), message);
            break;
        case Outcome::Failed:
        case Outcome::NotMade:
            xml.writeStartElement(result.outcome.verdict == Outcome::Failed ? QStringLiteral("failure")
                                                                            : QStringLiteral("error"));
            xml.writeAttribute(QStringLiteral("message"), message);
            if (result.outcome.rule != Rule::None) {
                xml.writeAttribute(QStringLiteral("type"), QString::fromLatin1(nameOf(result.outcome.rule)));
                xml.writeCharacters(QStringLiteral("Rule: %1\nLikely: %2\nCure: %3\n")
                                        .arg(sentenceOf(result.outcome.rule),
                                             mistakeOf(result.outcome.rule, result.day->name),
                                             cureOf(result.outcome.rule)));
            }
            xml.writeCharacters(log);
            xml.writeEndElement();
            break;
        }
        xml.writeEndElement();
    }
    xml.writeEndDocument();
    return !xml.hasError();
}

QByteArray Report::endOfLog(const Day &day, int lines) const
{
    QFile file(logFile(m_check, day));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    // A host may write lines of any length.
    file.seek(qMax(file.size() - 65536, qint64(0)));
    QList<QByteArray> all = file.readAll().split('\n');
    while (!all.isEmpty() && all.last().isEmpty())
        all.removeLast();
    QByteArray result;
    const QList<QByteArray> end = all.mid(qMax(0, all.size() - lines));
    for (const QByteArray &line : end)
        result += "    " + line + '\n';
    return result;
}

void listDays()
{
    const int width = widthOf(allDays(), [](const Day &day) { return day.name.size(); });
    for (const Day &day : allDays())
        printf("%-*s  %s\n", width, day.name.constData(), day.description.constData());
}
