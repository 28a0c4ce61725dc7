#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QProcessEnvironment>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtCore/QXmlStreamReader>
#include <QtTest/QTest>

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace {

const QString program = QStringLiteral(HOSTCHECK);
const QString rightHost = QStringLiteral(SAMPLE_HOST);
const QString wrongHost = QStringLiteral(WRONG_HOST);

struct Run
{
    int status = -1;
    QString output;
    QString errors;
};

// Other programs may take long to end; a check that does not end is ended by the time limit of the test.
Run run(const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit)
        return Run();
    return {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardOutput()),
            QString::fromLocal8Bit(process.readAllStandardError())};
}

// A check in a process group of its own, as a shell starts it.
class Job : public QProcess
{
public:
    Job(const QString &temporary, const QStringList &arguments, int ignored = 0)
        : m_ignored(ignored)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("TMPDIR"), temporary);
        setProcessEnvironment(environment);
        start(QStringLiteral(HOSTCHECK), arguments);
        waitForStarted();
    }

    /** The processes of this check, or those alone that have the variable as well. */
    int count(const QByteArray &variable = "TMPDIR") const
    {
        const QString wanted = QStringLiteral("TMPDIR=") + processEnvironment().value(QStringLiteral("TMPDIR"));
        int count = 0;
        for (const QString &process : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
            QFile file(QStringLiteral("/proc/%1/environ").arg(process));
            if (!file.open(QIODevice::ReadOnly))
                continue;
            const QList<QByteArray> environment = file.readAll().split('\0');
            count += environment.contains(wanted.toLocal8Bit())
                && std::any_of(environment.begin(), environment.end(),
                               [&](const QByteArray &entry) { return entry.startsWith(variable + '='); });
        }
        return count;
    }
    /** True when so many hosts have been seen; one that becomes another program has no environment for a moment. */
    bool waitForHosts(int wanted) const
    {
        return QTest::qWaitFor([=] { return count("AUTHD_HOSTCHECK_FD") >= wanted; }, 25000);
    }

protected:
    void setupChildProcess() override
    {
        setpgid(0, 0);
        for (const int number : {SIGHUP, SIGINT, SIGTERM})
            signal(number, number == m_ignored ? SIG_IGN : SIG_DFL);
    }

private:
    const int m_ignored;
};

// Hosts run under the command that the test programs run under.
QStringList underRunner(const QStringList &host)
{
    return QProcess::splitCommand(qEnvironmentVariable("AUTH_TEST_RUNNER")) + host;
}

QStringList days(const QStringList &names)
{
    QStringList options;
    for (const QString &name : names)
        options << QStringLiteral("--day") << name;
    return options;
}

QStringList allDays()
{
    QStringList names;
    const QStringList lines = run({QStringLiteral("--list")}).output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines)
        names << line.section(QLatin1Char(' '), 0, 0);
    return names;
}

// Under memcheck everything takes many times as long: one day of each kind.
QStringList affordableDays()
{
    if (qEnvironmentVariable("AUTH_TEST_RUNNER").isEmpty())
        return QStringList();
    return days({QStringLiteral("ordinary"), QStringLiteral("crash-Authenticate"), QStringLiteral("restart-with-token"),
                 QStringLiteral("error-SetDevlockState"), QStringLiteral("returns-without-socket"),
                 QStringLiteral("start-without-bus"), QStringLiteral("announces-6"), QStringLiteral("spoof-token")});
}

// The rows of the table with this verdict, sorted: the day and what happened.
QStringList rows(const QString &output, const char *verdict)
{
    const QRegularExpression row(QStringLiteral("^(\\S+) +%1 +[0-9.]+ s  (.*)$").arg(QLatin1String(verdict)),
                                 QRegularExpression::MultilineOption);
    QStringList result;
    for (auto i = row.globalMatch(output); i.hasNext();) {
        const QRegularExpressionMatch match = i.next();
        QString happened = match.captured(2);
        // A daemon that has crashed is there again at once: a claim meets the one or the other.
        if (match.captured(1).startsWith(QLatin1String("crash-")))
            happened.replace(QLatin1String("the daemon was Locked"), QLatin1String("the daemon was away"));
        result << match.captured(1) + QStringLiteral(": ") + happened;
    }
    result.sort();
    return result;
}

// What only one of two lists has, one a line; a list is too long to be shown whole.
QString difference(const QStringList &actual, const QStringList &expected)
{
    QString result;
    for (const QString &row : actual)
        result += expected.contains(row) ? QString() : QStringLiteral("unexpected: %1\n").arg(row);
    for (const QString &row : expected)
        result += actual.contains(row) ? QString() : QStringLiteral("missing: %1\n").arg(row);
    return result;
}

QString sums(const QString &output)
{
    return output.trimmed().section(QLatin1Char('\n'), -1);
}

// The toolkit cuts long messages off: what matters comes first.
QString described(const Run &run)
{
    const QStringList findings = rows(run.output, "FAILED") + rows(run.output, "NOT MADE");
    return QStringLiteral("%1\n%2\n%3%4").arg(run.status).arg(findings.join(QLatin1Char('\n')), run.errors, run.output);
}

struct TestCase
{
    QString name;
    QString child;
    QString message;
    QString text;
};

} // namespace

#define COMPARE_RUN(run, expectedStatus) QVERIFY2((run).status == (expectedStatus), qPrintable(described(run)))

class TestHostCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void rightHostPasses();
    void lockScreenPasses();
    void hostThatOpensAtTheEnd();
    void hostThatBelievesErrors();
    void hostThatWorksOnce();
    void claimOfLongAgo();
    void slowHostPasses();
    void ordinaryProcessPasses();
    void hostStartsWithNoSignalBlocked();
    void findings_data();
    void findings();
    void logOfAFailingDayIsShown();
    void endOfALongLog();
    void noSuchCall();
    void jUnit();
    void jUnitOfNoCheck();
    void jUnitOnAFullDisk();
    void standInDies();
    void otherCodeAndScenario();
    void badScenario();
    void hostIsMissing();
    void worldIsMissing();
    void brokenOff_data();
    void brokenOff();
    void ignoredSignal();
    void list();
    void wrongUsage_data();
    void wrongUsage();
};

void TestHostCheck::initTestCase()
{
    // A host that ends from inside of what it makes leaves that behind, and one that crashes is to do so.
    qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0:handle_segv=0");
}

void TestHostCheck::rightHostPasses()
{
    const Run check = run(affordableDays() << underRunner({rightHost}));
    COMPARE_RUN(check, 0);
    QVERIFY(check.errors.isEmpty());
    QVERIFY(rows(check.output, "passed").contains(QStringLiteral("ordinary: stayed up")));
    QVERIFY(rows(check.output, "passed").contains(QStringLiteral("start-without-bus: ended with status 1")));
    QVERIFY(rows(check.output, "passed").contains(QStringLiteral("returns-without-socket: ended with status 1")));
    // It shows no options.
    for (const QString &row : rows(check.output, "not reached")) {
        QVERIFY2(row.contains(QLatin1String("Option")) && row.endsWith(QLatin1String(": the host made no such call")),
                 qPrintable(row));
    }
}

void TestHostCheck::lockScreenPasses()
{
    const QStringList screen = {QStringLiteral(LOCK_SCREEN), QStringLiteral("--user"), QStringLiteral("1000")};
    const Run check = run(affordableDays() << underRunner(screen));
    COMPARE_RUN(check, 0);
    for (const QString &row : rows(check.output, "not reached"))
        QVERIFY2(row.contains(QLatin1String("Option")), qPrintable(row));
}

void TestHostCheck::hostThatOpensAtTheEnd()
{
    // On these the client ends or not: it depends on how far it has come.
    QStringList names = allDays();
    names.removeAll(QStringLiteral("crash-GetState"));
    names.removeAll(QStringLiteral("restart-GetState"));
    names.removeAll(QStringLiteral("restart-Introspect-1"));
    const Run check = run(days(names) << QStringLiteral("--jobs") << QStringLiteral("4") << wrongHost
                                      << QStringLiteral("opens-at-the-end") << rightHost);
    COMPARE_RUN(check, 1);
    const QString away = QStringLiteral(": claimed to be unlocked while the daemon was away");
    const QString locked = QStringLiteral(": claimed to be unlocked while the daemon was Locked");
    const QStringList expected{
        QStringLiteral("crash-Introspect-1") + away,
        QStringLiteral("crash-Introspect-2") + away,
        QStringLiteral("crash-Introspect-3") + away,
        QStringLiteral("restart-Introspect-2") + locked,
        QStringLiteral("restart-Introspect-3") + locked,
        QStringLiteral("returns-without-socket") + locked,
        // Its claim is true until the device is locked.
        QStringLiteral("returns-without-socket-unlocked: "
                       "still claimed to be unlocked after the daemon had been Locked for 5 s"),
        QStringLiteral("returns-closing") + locked,
        QStringLiteral("start-without-bus") + away,
        QStringLiteral("start-without-daemon") + away,
        QStringLiteral("start-without-socket") + locked,
        QStringLiteral("start-refused") + locked,
        QStringLiteral("start-closed") + locked,
    };
    QCOMPARE(difference(rows(check.output, "FAILED"), expected), QString());
    QVERIFY(rows(check.output, "NOT MADE").isEmpty());
}

void TestHostCheck::hostThatBelievesErrors()
{
    const Run check =
        run({QStringLiteral("--jobs"), QStringLiteral("4"), wrongHost, QStringLiteral("believes-errors")});
    COMPARE_RUN(check, 1);
    const QString locked = QStringLiteral(": claimed to be unlocked while the daemon was Locked");
    const QStringList expected{
        QStringLiteral("crash-SetDevlockState: claimed to be unlocked while the daemon was away"),
        QStringLiteral("restart-SetDevlockState") + locked,
        QStringLiteral("drop-SetDevlockState") + locked,
        QStringLiteral("mute-SetDevlockState") + locked,
        QStringLiteral("lose-signals-SetDevlockState: "
                       "still claimed to be unlocked after the daemon had been Locked for 5 s"),
        QStringLiteral("error-SetDevlockState") + locked,
        QStringLiteral("false-SetDevlockState") + locked,
        QStringLiteral("true-SetDevlockState") + locked,
        QStringLiteral("text-SetDevlockState") + locked,
        QStringLiteral("number-SetDevlockState") + locked,
        QStringLiteral("variant-SetDevlockState") + locked,
        QStringLiteral("empty-SetDevlockState") + locked,
        QStringLiteral("restart-with-token") + locked,
        QStringLiteral("locks-during-attempt") + locked,
        QStringLiteral("spoof-token") + locked,
        QStringLiteral("spoof-token-each-connection") + locked,
        QStringLiteral("spoof-empty-token") + locked,
        QStringLiteral("spoof-token-after-failure") + locked,
        QStringLiteral("spoof-token-after-locking") + locked,
    };
    QCOMPARE(difference(rows(check.output, "FAILED"), expected), QString());
    QVERIFY(rows(check.output, "NOT MADE").isEmpty());
}

void TestHostCheck::hostThatWorksOnce()
{
    const QStringList names{QStringLiteral("restart-Authenticate"), QStringLiteral("signal-first-Authenticate"),
                            QStringLiteral("false-Authenticate"),   QStringLiteral("restart-during-challenge"),
                            QStringLiteral("restart-unlocked"),     QStringLiteral("dies-after-Authenticate"),
                            QStringLiteral("locked-again-at-once"), QStringLiteral("lockout-manager")};
    const Run check = run(days(names) << QStringLiteral("--jobs") << QString::number(names.size()) << wrongHost
                                      << QStringLiteral("works-once"));
    COMPARE_RUN(check, 1);
    QStringList expected;
    for (const QString &name : names)
        expected << name + QStringLiteral(": the right code did not unlock within 30 s");
    QCOMPARE(difference(rows(check.output, "FAILED"), expected), QString());
}

void TestHostCheck::claimOfLongAgo()
{
    const QTemporaryDir directory;
    QFile scenario(directory.filePath(QStringLiteral("scenario.json")));
    QVERIFY(scenario.open(QIODevice::WriteOnly));
    scenario.write(R"({"lock-state": "Unlocked"})");
    scenario.close();
    const Run check =
        run(days({QStringLiteral("start-without-daemon")})
            << QStringLiteral("--scenario") << scenario.fileName() << wrongHost << QStringLiteral("claims-late"));
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"),
             QStringList{QStringLiteral("start-without-daemon: claimed to be unlocked while the daemon was away")});
}

void TestHostCheck::slowHostPasses()
{
    const Run check = run(days({QStringLiteral("restart-unlocked")}) << wrongHost << QStringLiteral("is-slow"));
    COMPARE_RUN(check, 0);
    QCOMPARE(sums(check.output), QStringLiteral("1 day: 1 passed, 0 failed, 0 not reached"));
}

// It has nothing to read, its processes may start others that outlive them, and it may end as a program that handles
// SIGTERM does.
void TestHostCheck::ordinaryProcessPasses()
{
    const QString script = QStringLiteral(R"(
        cat
        (true &)
        "$0" & host=$!
        trap 'kill $host; wait $host; exit 143' TERM
        while wait; do :; done
    )");
    const Run check = run(days({QStringLiteral("restart-idle")})
                          << QStringLiteral("sh") << QStringLiteral("-c") << script << rightHost);
    COMPARE_RUN(check, 0);
    QCOMPARE(rows(check.output, "passed"), QStringList{QStringLiteral("restart-idle: stayed up")});
}

void TestHostCheck::hostStartsWithNoSignalBlocked()
{
    // A shell would unblock them.
    const Run check = run(days({QStringLiteral("restart-idle")})
                          << QStringLiteral("grep") << QStringLiteral("-q") << QStringLiteral("^SigBlk:[[:space:]]0*$")
                          << QStringLiteral("/proc/self/status"));
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"),
             QStringList{QStringLiteral("restart-idle: ended with status 0 before it was up")});
}

void TestHostCheck::findings_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<bool>("hasClient");
    QTest::addColumn<QString>("day");
    QTest::addColumn<QString>("finding");
    const auto add = [](const char *row, const char *fault, bool hasClient, const char *day, const char *finding) {
        QTest::newRow(row) << QString::fromLatin1(fault) << hasClient << QString::fromLatin1(day)
                           << QString::fromLatin1(finding);
    };
    add("keeps-its-claim", "keeps-its-claim", false, "ordinary",
        "still claimed to be unlocked after the daemon had been Locked for 5 s");
    add("keeps-its-claim-of-nobody", "keeps-its-claim", false, "restart-unlocked",
        "still claimed to be unlocked after the daemon had been away for 5 s");
    add("takes-back-late", "takes-back-late", false, "ordinary",
        "still claimed to be unlocked after the daemon had been Locked for 5 s");
    add("claims-at-a-code", "claims-at-a-code", false, "restart-idle",
        "claimed to be unlocked while the daemon was Locked");
    add("claims-at-its-end", "claims-at-its-end", false, "start-without-daemon",
        "claimed to be unlocked while the daemon was away");
    add("claims-again", "claims-again", false, "ordinary", "claimed to be unlocked while the daemon was Locked");
    for (const char *day : {"left-alone-mute", "left-alone-lose-signals", "left-alone-error"})
        add(day, "gives-up-open", false, day, "claimed to be unlocked while the daemon was Locked");
    add("remembers", "remembers", false, "started-again", "claimed to be unlocked while the daemon was Locked");
    add("ignores-sigterm", "ignores-sigterm", true, "restart-idle", "did not end within 5 s of SIGTERM");
    add("leaves-a-process", "leaves-a-process", true, "restart-idle", "left processes behind");
    // A day on which the right host ends by itself.
    add("leaves-a-process-early", "leaves-a-process", true, "start-without-daemon", "left processes behind");
    add("crashes", "crashes", false, "restart-idle", "was ended by signal 11 (Segmentation fault)");
    add("ends", "ends", false, "restart-idle", "ended with status 3");
    // A day on which status 1 would be right.
    add("ends-otherwise", "ends", false, "start-without-daemon", "ended with status 3");
    // Days on which it would be right at another time.
    add("ends-at-a-code", "ends-at-a-code", false, "crash-Introspect-1", "ended with status 1");
    add("ends-when-away", "ends-when-away", false, "crash-Authenticate", "ended with status 1");
    add("crashes-at-sigterm", "crashes-at-sigterm", false, "restart-idle",
        "was ended by signal 11 (Segmentation fault) when asked to end");
    add("ends-at-sigterm", "ends-at-sigterm", false, "restart-idle", "ended with status 1 when asked to end");
    add("ends-at-once", "ends-at-once", false, "restart-idle", "ended with status 1 before it was up");
    add("ends-with-claim", "ends-with-claim", false, "ordinary",
        "ended with status 1 while it claimed to be unlocked and the daemon was Locked");
    add("is-silent", "is-silent", false, "restart-idle", "told no claim within 30 s of its start");
    add("mumbles", "mumbles", false, "restart-idle", "told neither locked nor unlocked, but \"open\"");
    add("ignores-codes", "ignores-codes", false, "restart-idle", "the right code did not unlock within 30 s");
    add("ignores-codes-to-reach", "ignores-codes", false, "crash-Authenticate",
        "the right code had no effect within 30 s");
    add("ignores-codes-from-the-start", "ignores-codes", false, "start-without-daemon",
        "the right code did not unlock within 30 s");
    add("hides-success", "hides-success", false, "restart-idle",
        "did not tell within 30 s that the right code had unlocked");
}

void TestHostCheck::findings()
{
    QFETCH(QString, fault);
    QFETCH(bool, hasClient);
    QFETCH(QString, day);
    QFETCH(QString, finding);
    QStringList arguments = {QStringLiteral("--day"), day, wrongHost, fault};
    if (hasClient)
        arguments << rightHost;
    const Run check = run(arguments);
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), QStringList{QStringLiteral("%1: %2").arg(day, finding)});
    QCOMPARE(sums(check.output), QStringLiteral("1 day: 0 passed, 1 failed, 0 not reached"));
}

void TestHostCheck::logOfAFailingDayIsShown()
{
    const QTemporaryDir directory;
    const QString logs = directory.filePath(QStringLiteral("new/logs"));
    const Run check = run({QStringLiteral("--day=ordinary"), QStringLiteral("--logs=") + logs, QStringLiteral("--"),
                           wrongHost, QStringLiteral("mumbles")});
    COMPARE_RUN(check, 1);
    QFile log(logs + QStringLiteral("/ordinary.log"));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromLocal8Bit(log.readAll());
    QVERIFY2(text.contains(QLatin1String("] host: open\n")), qPrintable(text));
    QVERIFY2(text.contains(QLatin1String("mumbling\n")), qPrintable(text));
    QVERIFY2(check.output.contains(QLatin1String("\n    mumbling\n")), qPrintable(check.output));
}

void TestHostCheck::endOfALongLog()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("results.xml")));
    const Run check = run({QStringLiteral("--day=ordinary"), QStringLiteral("--junit"), file.fileName(), wrongHost,
                           QStringLiteral("babbles")});
    COMPARE_RUN(check, 1);
    for (const char *line : {"line 290.", "line 300."})
        QVERIFY2(check.output.contains(QLatin1String(line)), qPrintable(check.output));
    QVERIFY2(!check.output.contains(QLatin1String("line 270.")), qPrintable(check.output));

    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QString message;
    QString text;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement() && xml.name() == QLatin1String("failure"))
            message = xml.attributes().value(QLatin1String("message")).toString();
        if (xml.isCharacters())
            text += xml.text();
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(message, QStringLiteral("told neither locked nor unlocked, but \"\ufffdopen\""));
    for (const char *line : {"line 110.", "line 300."})
        QVERIFY2(text.contains(QLatin1String(line)), qPrintable(text));
    QVERIFY2(!text.contains(QLatin1String("line 90.")), qPrintable(text));
}

void TestHostCheck::noSuchCall()
{
    const Run check = run(days({QStringLiteral("crash-GetOption"), QStringLiteral("restart-idle")}) << rightHost);
    COMPARE_RUN(check, 0);
    QCOMPARE(rows(check.output, "not reached"),
             QStringList{QStringLiteral("crash-GetOption: the host made no such call")});
    QCOMPARE(sums(check.output), QStringLiteral("2 days: 1 passed, 0 failed, 1 not reached"));
}

void TestHostCheck::jUnit()
{
    const QTemporaryDir directory;
    const QString name = directory.filePath(QStringLiteral("results.xml"));
    const Run check =
        run(days({QStringLiteral("restart-idle"), QStringLiteral("start-without-daemon"),
                  QStringLiteral("crash-GetOption"), QStringLiteral("returns-without-socket")})
            << QStringLiteral("--junit") << name << wrongHost << QStringLiteral("opens-at-the-end") << rightHost);
    COMPARE_RUN(check, 1);

    QFile file(name);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QStringList counts;
    QList<TestCase> cases;
    double sum = 0;
    double seconds = 0;
    while (!xml.atEnd()) {
        xml.readNext();
        const QXmlStreamAttributes attributes = xml.attributes();
        const auto value = [&](const char *attribute) { return attributes.value(QLatin1String(attribute)).toString(); };
        if (xml.isCharacters() && !cases.isEmpty() && cases.last().text.isEmpty())
            cases.last().text = xml.text().toString().trimmed();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("testsuites") || xml.name() == QLatin1String("testsuite")) {
            QCOMPARE(value("name"), QStringLiteral("authd-hostcheck"));
            counts << QStringLiteral("%1 %2 %3 %4")
                          .arg(value("tests"), value("failures"), value("errors"), value("skipped"));
            sum = value("time").toDouble();
        } else if (xml.name() == QLatin1String("testcase")) {
            QCOMPARE(value("classname"), QStringLiteral("authd-hostcheck"));
            cases.append({value("name"), QString(), QString(), QString()});
            seconds += value("time").toDouble();
        } else {
            cases.last().child = xml.name().toString();
            cases.last().message = value("message");
        }
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(counts, (QStringList{QStringLiteral("4 2 0 1"), QStringLiteral("4 2 0 1")}));
    QCOMPARE(qRound(sum * 100), qRound(seconds * 100));
    // In the order asked for, not in that in which they ended.
    QCOMPARE(cases.size(), 4);
    QCOMPARE(cases.at(0).name, QStringLiteral("restart-idle"));
    QCOMPARE(cases.at(0).child, QString());
    QCOMPARE(cases.at(1).name, QStringLiteral("start-without-daemon"));
    QCOMPARE(cases.at(1).child, QStringLiteral("failure"));
    QCOMPARE(cases.at(1).message, QStringLiteral("claimed to be unlocked while the daemon was away"));
    QVERIFY2(cases.at(1).text.contains(QLatin1String("host: unlocked")), qPrintable(cases.at(1).text));
    QCOMPARE(cases.at(2).name, QStringLiteral("crash-GetOption"));
    QCOMPARE(cases.at(2).child, QStringLiteral("skipped"));
    QCOMPARE(cases.at(2).message, QStringLiteral("the host made no such call"));
    QCOMPARE(cases.at(3).name, QStringLiteral("returns-without-socket"));
    QCOMPARE(cases.at(3).child, QStringLiteral("failure"));
}

void TestHostCheck::jUnitOfNoCheck()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("results.xml")));
    const Run check =
        run(days({QStringLiteral("ordinary")}) << QStringLiteral("--scenario") << QStringLiteral("/nowhere.json")
                                               << QStringLiteral("--junit") << file.fileName() << rightHost);
    COMPARE_RUN(check, 125);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QVERIFY2(text.contains(QLatin1String(R"(tests="1" failures="0" errors="1" skipped="0")")), qPrintable(text));
    QVERIFY2(text.contains(QLatin1String(R"(<error message="the world ended with status 3">)")), qPrintable(text));
}

void TestHostCheck::jUnitOnAFullDisk()
{
    const Run check = run(days({QStringLiteral("start-without-daemon")})
                          << QStringLiteral("--junit") << QStringLiteral("/dev/full") << rightHost);
    COMPARE_RUN(check, 125);
    QCOMPARE(check.errors, QStringLiteral("authd-hostcheck: /dev/full cannot be written: No space left on device\n"));
}

void TestHostCheck::standInDies()
{
    // Without a bus it ends, so that there is a finding as well.
    const QString script = QStringLiteral(R"(
        [ "${AUTHD_WORLD_BUS_PID-}" ] || exit 3
        for process in /proc/[0-9]*; do
            read -r name <"$process/comm"
            [ "$name" != authd-standin ] || kill -KILL "${process#/proc/}"
        done
        exec sleep 600
    )");
    const Run check = run(days({QStringLiteral("ordinary"), QStringLiteral("start-without-bus")})
                          << QStringLiteral("sh") << QStringLiteral("-c") << script);
    COMPARE_RUN(check, 125);
    const QStringList notMade = rows(check.output, "NOT MADE");
    QCOMPARE(notMade.size(), 1);
    // As it comes: before the check asks, or when it waits for the answer.
    const QRegularExpression text(
        QStringLiteral("^ordinary: (there is no stand-in at .*|the stand-in has gone) \\(\\{.*\\}\\)$"));
    QVERIFY2(text.match(notMade.first()).hasMatch(), qPrintable(notMade.first()));
    QCOMPARE(rows(check.output, "FAILED"),
             QStringList{QStringLiteral("start-without-bus: ended with status 3 before it was up")});
    QCOMPARE(sums(check.output), QStringLiteral("2 days: 0 passed, 1 failed, 0 not reached, 1 not made"));
}

void TestHostCheck::otherCodeAndScenario()
{
    const QTemporaryDir directory;
    const QString name = directory.filePath(QStringLiteral("scenario.json"));
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(R"({"users": [{"uid": 7, "secrets": {"code": "70\"0"}}]})");
    file.close();
    const QStringList options = {QStringLiteral("--day"), QStringLiteral("ordinary"), QStringLiteral("--scenario"),
                                 name};
    Run check = run(options + QStringList{QStringLiteral("--code"), QStringLiteral("70\"0"), rightHost});
    COMPARE_RUN(check, 0);
    check = run(options + QStringList{rightHost});
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"),
             QStringList{QStringLiteral("ordinary: the right code did not unlock within 30 s")});
}

void TestHostCheck::badScenario()
{
    const Run check = run({QStringLiteral("--day"), QStringLiteral("ordinary"), QStringLiteral("--scenario"),
                           QStringLiteral("/nowhere.json"), rightHost});
    COMPARE_RUN(check, 125);
    QCOMPARE(rows(check.output, "NOT MADE"), QStringList{QStringLiteral("ordinary: the world ended with status 3")});
    QVERIFY2(check.output.contains(QLatin1String("/nowhere.json")), qPrintable(check.output));
    QCOMPARE(sums(check.output), QStringLiteral("1 day: 0 passed, 0 failed, 0 not reached, 1 not made"));
}

void TestHostCheck::hostIsMissing()
{
    Run check = run({QStringLiteral("/nowhere/host")});
    COMPARE_RUN(check, 125);
    QCOMPARE(check.output, QString());
    QCOMPARE(check.errors,
             QStringLiteral("authd-hostcheck: the host /nowhere/host cannot be started: there is no such program\n"));
    check = run({QStringLiteral("/etc/passwd")});
    COMPARE_RUN(check, 125);
    QCOMPARE(check.errors,
             QStringLiteral("authd-hostcheck: the host /etc/passwd cannot be started: it is no program\n"));
    // It is there, but what would run it is not.
    QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("host")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("#!/nowhere/sh\n");
    file.close();
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    check = run({QStringLiteral("--day"), QStringLiteral("ordinary"), file.fileName()});
    COMPARE_RUN(check, 125);
    QCOMPARE(rows(check.output, "NOT MADE"),
             QStringList{QStringLiteral("ordinary: the host cannot be started: No such file or directory")});
}

void TestHostCheck::worldIsMissing()
{
    const QTemporaryDir directory;
    const QString copy = directory.filePath(QStringLiteral("authd-hostcheck"));
    QVERIFY(QFile::copy(program, copy));
    QProcess process;
    process.start(copy, {rightHost});
    QVERIFY(process.waitForFinished(-1));
    QCOMPARE(process.exitCode(), 125);
    QCOMPARE(QString::fromLocal8Bit(process.readAllStandardError()),
             QStringLiteral("authd-hostcheck: authd-world is neither in %1 nor in PATH\n").arg(directory.path()));
    // It need not be beside.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"),
                       QFileInfo(program).path() + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));
    process.setProcessEnvironment(environment);
    process.start(copy, {QStringLiteral("--day"), QStringLiteral("start-without-bus"), rightHost});
    QVERIFY(process.waitForFinished(-1));
    QCOMPARE(process.exitCode(), 0);
}

void TestHostCheck::brokenOff_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<bool>("toGroup");
    QTest::addColumn<int>("hosts");
    QTest::addColumn<int>("leftDirectories");
    QTest::newRow("SIGHUP") << SIGHUP << false << 3 << 0;
    QTest::newRow("SIGINT") << SIGINT << false << 3 << 0;
    QTest::newRow("SIGTERM") << SIGTERM << false << 3 << 0;
    QTest::newRow("SIGTERM at once") << SIGTERM << false << 0 << 0;
    QTest::newRow("Ctrl-C") << SIGINT << true << 3 << 0;
    QTest::newRow("Ctrl-C at once") << SIGINT << true << 0 << 0;
    // It takes the worlds along even so.
    QTest::newRow("SIGKILL") << SIGKILL << false << 3 << 1;
}

void TestHostCheck::brokenOff()
{
    QFETCH(int, signal);
    QFETCH(bool, toGroup);
    QFETCH(int, hosts);
    QFETCH(int, leftDirectories);
    const QTemporaryDir temporary;
    const auto directories = [&] { return QDir(temporary.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(); };
    Job job(temporary.path(),
            days({QStringLiteral("ordinary"), QStringLiteral("start-without-bus"), QStringLiteral("mute-GetState")})
                << QStringLiteral("--jobs") << QStringLiteral("2") << wrongHost << QStringLiteral("ignores-sigterm")
                << wrongHost << QStringLiteral("is-silent"));
    QTRY_COMPARE_WITH_TIMEOUT(directories(), 1, 25000);
    QVERIFY(job.waitForHosts(hosts));
    QCOMPARE(kill(pid_t(toGroup ? -job.processId() : job.processId()), signal), 0);
    // Before the time is up in which a host has to tell something.
    QVERIFY(job.waitForFinished(20000));
    QCOMPARE(job.exitStatus(), QProcess::CrashExit);
    QCOMPARE(job.exitCode(), signal);
    QCOMPARE(QString::fromLocal8Bit(job.readAllStandardOutput()), QString());
    QCOMPARE(QString::fromLocal8Bit(job.readAllStandardError()), QString());
    QCOMPARE(directories(), leftDirectories);
    QTRY_COMPARE(job.count(), 0);
}

// As under nohup.
void TestHostCheck::ignoredSignal()
{
    const QTemporaryDir temporary;
    Job job(temporary.path(), {QStringLiteral("--day"), QStringLiteral("ordinary"), rightHost}, SIGHUP);
    QVERIFY(job.waitForHosts(1));
    QCOMPARE(kill(pid_t(job.processId()), SIGHUP), 0);
    QVERIFY(job.waitForFinished(-1));
    QCOMPARE(job.exitStatus(), QProcess::NormalExit);
    QCOMPARE(job.exitCode(), 0);
}

void TestHostCheck::list()
{
    const Run list = run({QStringLiteral("--list")});
    COMPARE_RUN(list, 0);
    QStringList names = allDays();
    QVERIFY(names.contains(QStringLiteral("ordinary")));
    QCOMPARE(names.removeDuplicates(), 0);
    for (const QString &line : list.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        QVERIFY2(QRegularExpression(QStringLiteral("^[A-Za-z0-9-]+  +\\S.*$")).match(line).hasMatch(),
                 qPrintable(line));
}

void TestHostCheck::wrongUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("errors");
    const auto wrong = [](const char *row, const QStringList &arguments, const char *problem) {
        QTest::newRow(row)
            << arguments << 2 << QString()
            << QStringLiteral("^authd-hostcheck: %1\nTry authd-hostcheck --help.\n$").arg(QLatin1String(problem));
    };
    wrong("nothing", {}, "no host given");
    wrong("no host", {QStringLiteral("--jobs"), QStringLiteral("2"), QStringLiteral("--")}, "no host given");
    wrong("unknown option", {QStringLiteral("--fast"), rightHost}, "Unknown option 'fast'\\.");
    wrong("unknown day", {QStringLiteral("--day"), QStringLiteral("sunday"), rightHost},
          "there is no day sunday \\(see --list\\)");
    wrong("no value", {QStringLiteral("--junit")}, "Missing value after '--junit'\\.");
    wrong("empty value", {QStringLiteral("--junit="), rightHost}, "--junit wants a value");
    wrong("no jobs", {QStringLiteral("--jobs"), QStringLiteral("0"), rightHost}, "--jobs wants a number from 1");
    wrong("odd jobs", {QStringLiteral("--jobs=many"), rightHost}, "--jobs wants a number from 1");
    QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0
                          << QStringLiteral("^Usage: \\S*authd-hostcheck \\[options\\] HOST ") << QStringLiteral("^$");
    QTest::newRow("version") << QStringList{QStringLiteral("--version")} << 0
                             << QStringLiteral("^authd-hostcheck [0-9]+\\.[0-9]+\\.[0-9]+\n$") << QStringLiteral("^$");
    QTest::newRow("junit nowhere") << QStringList{QStringLiteral("--junit"), QStringLiteral("/nowhere/a.xml"),
                                                  rightHost}
                                   << 125 << QString()
                                   << QStringLiteral("^authd-hostcheck: /nowhere/a.xml cannot be written: ");
    QTest::newRow("logs nowhere") << QStringList{QStringLiteral("--logs"), QStringLiteral("/proc/logs"), rightHost}
                                  << 125 << QString()
                                  << QStringLiteral("^authd-hostcheck: the directory /proc/logs cannot be made\n$");
}

void TestHostCheck::wrongUsage()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QString, output);
    QFETCH(QString, errors);
    const Run check = run(arguments);
    COMPARE_RUN(check, status);
    QVERIFY2(output.isEmpty() ? check.output.isEmpty() : QRegularExpression(output).match(check.output).hasMatch(),
             qPrintable(check.output));
    QVERIFY2(QRegularExpression(errors).match(check.errors).hasMatch(), qPrintable(check.errors));
}

QTEST_GUILESS_MAIN(TestHostCheck)
#include "tst_hostcheck.moc"
