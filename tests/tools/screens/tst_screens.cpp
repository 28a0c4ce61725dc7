#include <QtCore/QEventLoop>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace {

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

/** A screen of the collection, and what the check has said about it. */
struct Screen
{
    bool isRight = false;
    QString name;
    QStringList days; ///< to be played; all if there are none
    QString rule;
    int status = -1; ///< of the check
    QString output;
};

std::vector<Screen> screens(bool areRight)
{
    QProcess process;
    process.start(QStringLiteral(SCREENS), {"--list"_s});
    process.waitForFinished(-1);
    std::vector<Screen> result;
    const QStringList lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QStringList words = line.split(QLatin1Char(' '));
        if (words.size() == 2 && words[0] == "right"_s && areRight)
            result.push_back({true, words[1], {}, {}, -1, {}});
        else if (words.size() == 4 && words[0] == "wrong"_s && !areRight)
            result.push_back({false, words[1], words[2].split(QLatin1Char(',')), words[3], -1, {}});
    }
    return result;
}

QStringList arguments(const Screen &screen)
{
    QStringList result;
    for (const QString &day : screen.days)
        result << "--day"_s << day;
    // What comes late is what has to be found there.
    if (!qEnvironmentVariableIsEmpty("AUTH_SLOW_HOSTS") && screen.rule != "stale-claim"_s)
        result << "--grace"_s
               << "5"_s;
    return result << "--"_s << QStringLiteral(SCREENS) << screen.name;
}

/** Takes the screens through their days, so many at once. */
void check(std::vector<Screen> &collection, int atOnce)
{
    QEventLoop loop;
    size_t next = 0;
    size_t left = collection.size();
    const std::function<void()> startOne = [&] {
        if (next == collection.size())
            return;
        Screen &screen = collection[next++];
        auto *process = new QProcess(&loop);
        process->setProcessChannelMode(QProcess::MergedChannels);
        QObject::connect(process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop,
                         [&, process](int status, QProcess::ExitStatus how) {
                             screen.status = how == QProcess::NormalExit ? status : -1;
                             screen.output = QString::fromLocal8Bit(process->readAll());
                             startOne();
                             if (--left == 0)
                                 loop.quit();
                         });
        process->start(QStringLiteral(HOSTCHECK), arguments(screen));
    };
    for (int i = 0; i < atOnce; ++i)
        startOne();
    if (left > 0)
        loop.exec();
}

bool isFound(const Screen &screen)
{
    const QRegularExpression finding("^\\S+ +FAILED +[0-9.]+ s  .* \\[%1\\]$"_s.arg(screen.rule),
                                     QRegularExpression::MultilineOption);
    return screen.status == 1 && finding.match(screen.output).hasMatch();
}

bool hasPassed(const Screen &screen)
{
    const QRegularExpression finding("^\\S+ +FAILED "_s, QRegularExpression::MultilineOption);
    return screen.status == 0 && !finding.match(screen.output).hasMatch();
}

QString described(const Screen &screen)
{
    return "%1, status %2, expected %3\n%4\n"_s.arg(screen.name)
        .arg(screen.status)
        .arg(screen.isRight ? "no finding"_s : "[%1] on %2"_s.arg(screen.rule, screen.days.join(QLatin1Char(' '))),
             screen.output);
}

// Those that differ are told together. QTestLog of Qt 5.15 cuts long messages off: what the check said goes to standard
// error.
void compare(const std::vector<Screen> &collection, bool (*isAsExpected)(const Screen &))
{
    QStringList different;
    for (const Screen &screen : collection) {
        if (isAsExpected(screen))
            continue;
        different << screen.name;
        fputs(qPrintable(described(screen)), stderr);
    }
    QVERIFY2(different.isEmpty(), qPrintable(different.join(QLatin1Char(' '))));
}

} // namespace

class TestScreens : public QObject
{
    Q_OBJECT

private slots:
    void wrongScreens();
    void rightScreens();
};

// Nearly all of their days are spent waiting.
void TestScreens::wrongScreens()
{
    std::vector<Screen> wrong = screens(false);
    QVERIFY(wrong.size() >= 55);
    check(wrong, 16);
    compare(wrong, isFound);
}

void TestScreens::rightScreens()
{
    std::vector<Screen> right = screens(true);
    QVERIFY(right.size() >= 12);
    check(right, 5);
    compare(right, hasPassed);
}

QTEST_GUILESS_MAIN(TestScreens)
#include "tst_screens.moc"
