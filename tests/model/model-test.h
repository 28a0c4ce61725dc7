#pragma once

#include "test-case.h"

#include <QtCore/QMutex>
#include <QtCore/QRandomGenerator>

#include <cstdio>
#include <optional>

// What the tests share that compare a client with a second implementation of it, the oracle.

struct Difference
{
    int step; // -1 for what comes before the first
    QStringList expected;
    QStringList actual;
};

/** Whether a text is the expected one; an expected text that ends with an asterisk stands for all that begin so. */
inline bool fits(const QString &expected, const QString &actual)
{
    return expected.endsWith("*"_s) ? actual.startsWith(QStringView(expected).chopped(1)) : actual == expected;
}

inline QString boolText(bool value)
{
    return value ? "true"_s : "false"_s;
}

inline bool fit(const QStringList &expected, const QStringList &actual)
{
    return std::equal(expected.begin(), expected.end(), actual.begin(), actual.end(), fits);
}

/** Keeps messages of at least a level to be compared, instead of showing them, and what else is told in between. */
class QuietLog
{
public:
    explicit QuietLog(bool withDebug)
        : m_withDebug(withDebug)
    {
        m_instance = this;
        m_previous = qInstallMessageHandler(handle);
    }
    ~QuietLog()
    {
        qInstallMessageHandler(m_previous);
        m_instance = nullptr;
    }
    Q_DISABLE_COPY(QuietLog)

    void add(const QString &line)
    {
        const QMutexLocker locker(&m_mutex);
        m_lines.append(line);
    }

    QStringList take()
    {
        const QMutexLocker locker(&m_mutex);
        QStringList result;
        result.swap(m_lines);
        return result;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        const bool isComplaint = type != QtDebugMsg && type != QtInfoMsg;
        if (type == QtFatalMsg)
            m_instance->m_previous(type, context, text);
        else if (isComplaint || m_instance->m_withDebug)
            m_instance->add((type == QtCriticalMsg ? "critical "_s
                                 : isComplaint     ? "warning "_s
                                                   : "debug "_s)
                            + text + (text.contains(QLatin1String(LogRecorder::secretMark)) ? " (a secret)"_s : ""_s));
    }

    inline static QuietLog *m_instance = nullptr;
    const bool m_withDebug;
    QtMessageHandler m_previous = nullptr;
    QMutex m_mutex;
    QStringList m_lines;
};

/** Requests to the stand-in, which are made together when the stand-in is next waited for. */
class Control
{
public:
    void post(const QByteArray &json, bool mayBeRefused = false)
    {
        m_requests.append(json);
        m_mayBeRefused.append(mayBeRefused);
    }

    /** Makes all requests that were posted, and gives the last answer. */
    QJsonObject await()
    {
        const QVector<QJsonObject> answers = awaitAll();
        return answers.isEmpty() ? QJsonObject() : answers.last();
    }

    QVector<QJsonObject> awaitAll()
    {
        if (m_requests.isEmpty())
            return {};
        const QVector<QJsonObject> answers = m_standIn.requests(m_requests);
        for (int i = 0; i < answers.size(); ++i) {
            if (answers.at(i).value("ok"_s).toBool())
                continue;
            if (!m_mayBeRefused.at(i))
                qFatal("The stand-in refuses %s", m_requests.at(i).constData());
            m_refused = QString::fromUtf8(m_requests.at(i));
        }
        m_requests.clear();
        m_mayBeRefused.clear();
        return answers;
    }

    /** The last request that was refused since the last time. */
    QString takeRefused()
    {
        return std::exchange(m_refused, QString());
    }

private:
    StandIn m_standIn;
    QString m_refused;
    QVector<QByteArray> m_requests;
    QVector<bool> m_mayBeRefused;
};

/**
 * Random scripts, and what becomes of them.
 *
 * An Author writes scripts; each of their steps has a text(), is said to comesFirst() when it is taken before all
 * others, and to be delivered when what it sends is waited for.
 */
template <typename Author> class Walk
{
public:
    using Script = decltype(std::declval<Author>().script(0));
    using Run = std::function<std::optional<Difference>(const Script &, bool isShrinking)>;

    Walk(Run run, int stepsPerScript)
        : m_run(std::move(run))
        , m_stepsPerScript(stepsPerScript)
    {
    }

    /** Takes so many steps; a difference is told as a short script. */
    bool take(quint32 seed, int steps)
    {
        printf("%d steps with seed %u\n", steps, seed);
        fflush(stdout);
        QRandomGenerator random(seed);
        for (int left = steps; left > 0; left -= m_stepsPerScript) {
            const Script script = Author(random.generate()).script(qMin(left, m_stepsPerScript));
            const std::optional<Difference> first = m_run(script, false);
            if (!first)
                continue;
            show("A difference after %1 steps:\n%2"_s.arg(steps - left + first->step + 1).arg(text(*first)));
            report(script);
            return false;
        }
        return true;
    }

    /**
     * Takes @p ownSteps with @p ownSeed, then @p freshSteps with a seed that nobody has used before, unless environment
     * variables that begin with @p variables say otherwise.
     */
    bool take(const QByteArray &variables, quint32 ownSeed, int ownSteps, int freshSteps)
    {
        const QByteArray seed = variables + "_SEED";
        const int steps = qEnvironmentVariableIntValue((variables + "_STEPS").constData());
        if (qEnvironmentVariableIsSet(seed.constData()))
            return take(qEnvironmentVariable(seed.constData()).toUInt(), steps ? steps : ownSteps);
        return take(ownSeed, steps ? steps : ownSteps)
            && take(QRandomGenerator::global()->generate(), steps ? steps : freshSteps);
    }

private:
    static void show(const QString &text)
    {
        fputs(qPrintable(text), stdout);
        fflush(stdout);
    }

    static QString text(const Difference &difference)
    {
        const QString separator = "\n    "_s;
        return "expected%1%2\nactual%1%3\n"_s.arg(separator, difference.expected.join(separator),
                                                  difference.actual.join(separator));
    }

    void report(const Script &script)
    {
        const Script shortest = shrunk(script);
        const std::optional<Difference> difference = m_run(shortest, true);
        QString steps;
        for (const auto &step : shortest)
            steps += "  %1\n"_s.arg(step.text());
        show("Shrunk from %1 steps to %2:\n%3%4"_s.arg(script.size())
                 .arg(shortest.size())
                 .arg(steps, difference ? text(*difference) : "  … and now there is none.\n"_s));
    }

    // Leaves out ever smaller pieces as long as there is a difference without them.
    Script shrunk(Script script)
    {
        const auto differs = [this, &script](const Script &candidate) {
            const std::optional<Difference> difference = m_run(candidate, true);
            if (difference) {
                script.clear();
                for (int i = 0; i < candidate.size(); ++i) {
                    if (candidate[i].comesFirst() || i <= difference->step)
                        script.append(candidate[i]);
                }
            }
            return difference.has_value();
        };
        if (!differs(Script(script)))
            return script;
        for (int piece = script.size() / 2; piece > 0; piece /= 2) {
            for (bool again = true; again;) {
                again = false;
                for (int at = 0; at < script.size();) {
                    Script candidate = script;
                    candidate.remove(at, qMin(piece, script.size() - at));
                    if (differs(candidate))
                        again = piece == 1;
                    else
                        at += piece;
                }
            }
        }
        for (int i = 0; i < script.size(); ++i) {
            Script candidate = script;
            if (!candidate[i].delivered) {
                candidate[i].delivered = true;
                differs(candidate);
            }
        }
        return script;
    }

    const Run m_run;
    const int m_stepsPerScript;
};
