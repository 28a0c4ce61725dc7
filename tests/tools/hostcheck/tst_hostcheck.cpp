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

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

/** The words of a text. */
QStringList operator""_words(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size)).split(QLatin1Char(' '));
}

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
        environment.insert("TMPDIR"_s, temporary);
        environment.insert("HOSTCHECK_JOB"_s, temporary);
        setProcessEnvironment(environment);
        start(QStringLiteral(HOSTCHECK), arguments);
        waitForStarted();
    }

    /** The processes of this check, or those alone that have the variable as well. */
    int count(const QByteArray &variable = "HOSTCHECK_JOB") const
    {
        const QString wanted = "HOSTCHECK_JOB="_s + processEnvironment().value("HOSTCHECK_JOB"_s);
        int count = 0;
        for (const QString &process : QDir("/proc"_s).entryList(QDir::Dirs)) {
            QFile file("/proc/%1/environ"_s.arg(process));
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
        options << "--day"_s << name;
    return options;
}

QStringList allDays()
{
    QStringList names;
    const QStringList lines = run({"--list"_s}).output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines)
        names << line.section(QLatin1Char(' '), 0, 0);
    return names;
}

// Under memcheck everything takes many times as long: one day of each kind.
QStringList affordableDays()
{
    if (qEnvironmentVariable("AUTH_TEST_RUNNER").isEmpty())
        return IS_SANITIZED ? "--grace 5"_words : QStringList();
    return "--grace 20"_words
        + days("ordinary crash-Authenticate restart-with-token error-SetDevlockState returns-without-socket "
               "start-without-bus announces-6 spoof-token"_words);
}

// The rows of the table with this verdict, sorted: the day and what happened.
QStringList rows(const QString &output, const char *verdict)
{
    const QRegularExpression row("^(\\S+) +%1 +[0-9.]+ s  (.*)$"_s.arg(QLatin1String(verdict)),
                                 QRegularExpression::MultilineOption);
    QStringList result;
    for (auto i = row.globalMatch(output); i.hasNext();) {
        const QRegularExpressionMatch match = i.next();
        QString happened = match.captured(2);
        // A daemon that has crashed is there again at once: a claim meets the one or the other.
        if (match.captured(1).startsWith(QLatin1String("crash-")))
            happened.replace(QLatin1String("the daemon was Locked"), QLatin1String("the daemon was away"));
        result << match.captured(1) + ": "_s + happened;
    }
    result.sort();
    return result;
}

// What only one of two lists has, one a line; a list is too long to be shown whole.
QString difference(const QStringList &actual, const QStringList &expected)
{
    QString result;
    for (const QString &row : actual)
        result += expected.contains(row) ? QString() : "unexpected: %1\n"_s.arg(row);
    for (const QString &row : expected)
        result += actual.contains(row) ? QString() : "missing: %1\n"_s.arg(row);
    return result;
}

QString sums(const QString &output)
{
    return QRegularExpression("^\\d+ days?: .*$"_s, QRegularExpression::MultilineOption).match(output).captured();
}

// QTestLog of Qt 5.15 cuts long messages off: what matters comes first.
QString described(const Run &run)
{
    const QStringList findings = rows(run.output, "FAILED") + rows(run.output, "NOT MADE");
    return "%1\n%2\n%3%4"_s.arg(run.status).arg(findings.join(QLatin1Char('\n')), run.errors, run.output);
}

/** Each name with what happened on that day. */
QStringList on(const QStringList &names, const QString &happened)
{
    QStringList result;
    for (const QString &name : names)
        result << name + ": "_s + happened;
    return result;
}

const QString openWhenLocked = "claimed to be unlocked while the daemon was Locked [false-claim]"_s;
const QString openWhenAway = "claimed to be unlocked while the daemon was away [false-claim]"_s;
const QString openAfterLocking =
    "still claimed to be unlocked after the daemon had been Locked for 1.5 s [stale-claim]"_s;
const QString codeIsUseless = "the right code did not unlock within 30 s [no-use]"_s;

QString written(const QTemporaryDir &directory, const QString &name, const QByteArray &text)
{
    QFile file(directory.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("%s cannot be written", qPrintable(file.fileName()));
    return file.fileName();
}

struct Case
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
    void graceIsGiven();
    void patterns();
    void silentHostStopsTheCheck();
    void hostThatCannotBeCheckedStopsTheCheck();
    void ordinaryIsFirst();
    void oneMessageWhereNoWorldCanBeMade();
    void findingIsExplained();
    void costsAreTold();
    void onlyNotReachedIsNoSuccess();
    void hostEndsByItselfAsItIsAskedTo();
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
    QVERIFY(rows(check.output, "passed").contains("ordinary: stayed up"_s));
    QVERIFY(rows(check.output, "passed").contains("start-without-bus: ended with status 1"_s));
    QVERIFY(rows(check.output, "passed").contains("returns-without-socket: ended with status 1"_s));
    // It shows no options.
    for (const QString &row : rows(check.output, "not reached")) {
        QVERIFY2(row.contains(QLatin1String("Option")) && row.endsWith(QLatin1String(": the host made no such call")),
                 qPrintable(row));
    }
}

void TestHostCheck::lockScreenPasses()
{
    const Run check =
        run(affordableDays() << underRunner(QStringList{QStringLiteral(LOCK_SCREEN)} << "--user 1000"_words));
    COMPARE_RUN(check, 0);
    for (const QString &row : rows(check.output, "not reached"))
        QVERIFY2(row.contains(QLatin1String("Option")), qPrintable(row));
}

void TestHostCheck::hostThatOpensAtTheEnd()
{
    const QStringList away = "crash-Introspect-1 crash-Introspect-2 crash-Introspect-3 start-without-bus "
                             "start-without-daemon"_words;
    const QStringList locked = "restart-Introspect-2 restart-Introspect-3 returns-without-socket returns-closing "
                               "start-without-socket start-refused start-closed"_words;
    // The host's claim is true until the device is locked.
    const QString unlocked = "returns-without-socket-unlocked"_s;
    const Run check = run(days(away + locked + QStringList{unlocked})
                          << "--jobs 4"_words << wrongHost << "opens-at-the-end"_s << rightHost);
    COMPARE_RUN(check, 1);
    const QStringList expected = on(away, openWhenAway) + on(locked, openWhenLocked) + on({unlocked}, openAfterLocking);
    QCOMPARE(difference(rows(check.output, "FAILED"), expected), QString());
    QVERIFY(rows(check.output, "NOT MADE").isEmpty());
}

void TestHostCheck::hostThatBelievesErrors()
{
    const QString away = "crash-SetDevlockState"_s;
    const QString lost = "lose-signals-SetDevlockState"_s;
    const QStringList locked =
        "restart-SetDevlockState drop-SetDevlockState mute-SetDevlockState error-SetDevlockState "
        "false-SetDevlockState true-SetDevlockState text-SetDevlockState number-SetDevlockState "
        "variant-SetDevlockState empty-SetDevlockState restart-with-token locks-during-attempt spoof-token "
        "spoof-token-each-connection spoof-empty-token spoof-token-after-failure spoof-token-after-locking"_words;
    const Run check =
        run(days(locked + QStringList{away, lost}) << "--jobs 4"_words << wrongHost << "believes-errors"_s);
    COMPARE_RUN(check, 1);
    const QStringList expected = on({away}, openWhenAway) + on({lost}, openAfterLocking) + on(locked, openWhenLocked);
    QCOMPARE(difference(rows(check.output, "FAILED"), expected), QString());
    QVERIFY(rows(check.output, "NOT MADE").isEmpty());
}

void TestHostCheck::hostThatWorksOnce()
{
    const QStringList names = "restart-Authenticate signal-first-Authenticate false-Authenticate "
                              "restart-during-challenge restart-unlocked dies-after-Authenticate "
                              "locked-again-at-once lockout-manager"_words;
    const Run check = run(days(names) << "--jobs 8"_words << wrongHost << "works-once"_s);
    COMPARE_RUN(check, 1);
    QCOMPARE(difference(rows(check.output, "FAILED"), on(names, codeIsUseless)), QString());
}

void TestHostCheck::claimOfLongAgo()
{
    const QTemporaryDir directory;
    const QString scenario = written(directory, "scenario.json"_s, R"({"lock-state": "Unlocked"})");
    const Run check = run("--day start-without-daemon --scenario"_words << scenario << wrongHost << "claims-late"_s);
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), on({"start-without-daemon"_s}, openWhenAway));
}

void TestHostCheck::slowHostPasses()
{
    const Run check = run("--day restart-unlocked"_words << wrongHost << "is-slow"_s);
    COMPARE_RUN(check, 0);
    QCOMPARE(sums(check.output), "1 day: 1 passed, 0 failed, 0 not reached"_s);
}

void TestHostCheck::graceIsGiven()
{
    const QStringList day = "--day ordinary"_words;
    Run check = run(day + QStringList{wrongHost, "takes-back-late"_s});
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), on({"ordinary"_s}, openAfterLocking));
    check = run(day + QStringList{"--grace"_s, "0.2"_s, wrongHost, "takes-back-late"_s});
    COMPARE_RUN(check, 1);
    QVERIFY2(check.output.contains("for 0.2 s [stale-claim]"_s), qPrintable(check.output));
    check = run(day + QStringList{"--grace=20"_s, wrongHost, "takes-back-late"_s});
    COMPARE_RUN(check, 0);
}

void TestHostCheck::hostEndsByItselfAsItIsAskedTo()
{
    const Run check = run("--day start-without-bus"_words << wrongHost << "ends-meanwhile"_s);
    COMPARE_RUN(check, 0);
    QCOMPARE(rows(check.output, "passed"), QStringList{"start-without-bus: ended with status 1"_s});
}

// Such a host has nothing to read, its processes may start others that outlive them, and the host may end as a program
// that handles SIGTERM does.
void TestHostCheck::ordinaryProcessPasses()
{
    const QString script = R"(
        cat
        (true &)
        "$0" & host=$!
        trap 'kill $host; wait $host; exit 143' TERM
        while wait; do :; done
    )"_s;
    const Run check = run("--day restart-idle sh -c"_words << script << rightHost);
    COMPARE_RUN(check, 0);
    QCOMPARE(rows(check.output, "passed"), QStringList{"restart-idle: stayed up"_s});
}

void TestHostCheck::hostStartsWithNoSignalBlocked()
{
    // A shell would unblock them.
    const Run check = run("--day restart-idle grep -q ^SigBlk:[[:space:]]0*$ /proc/self/status"_words);
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), QStringList{"restart-idle: ended with status 0 before it was up [ends]"_s});
}

void TestHostCheck::findings_data()
{
    QTest::addColumn<QString>("day");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("finding");
    const auto add = [](const char *row, const char *day, const QString &finding, const char *fault = nullptr) {
        QTest::newRow(row) << QString::fromLatin1(day) << QString::fromLatin1(fault ? fault : row) << finding;
    };
    add("keeps-its-claim", "ordinary", openAfterLocking);
    add("keeps-its-claim-of-nobody", "restart-unlocked",
        "still claimed to be unlocked after the daemon had been away for 1.5 s [stale-claim]"_s, "keeps-its-claim");
    add("takes-back-late", "ordinary", openAfterLocking);
    add("claims-at-a-code", "restart-idle", openWhenLocked);
    add("claims-at-its-end", "start-without-daemon", openWhenAway);
    add("claims-again", "ordinary", openWhenLocked);
    for (const char *day : {"left-alone-mute", "left-alone-lose-signals", "left-alone-error"})
        add(day, day, openWhenLocked, "gives-up-open");
    add("remembers", "started-again", openWhenLocked);
    // It takes every token for one that it has asked for.
    add("retries-late", "retries-late",
        "unlocked the device, and nobody had entered a right code since it was locked [opens-by-itself]"_s, "is-slow");
    add("ignores-sigterm", "restart-idle", "did not end within 5 s of SIGTERM [no-end]"_s);
    add("leaves-a-process", "restart-idle", "left processes behind [left-processes]"_s);
    // A day on which the right host ends by itself.
    add("leaves-a-process-early", "start-without-daemon", "left processes behind [left-processes]"_s,
        "leaves-a-process");
    add("crashes", "restart-idle", "was ended by signal 11 (Segmentation fault) [ends]"_s);
    add("ends", "restart-idle", "ended with status 3 [ends]"_s);
    // A day on which status 1 would be right.
    add("ends-otherwise", "start-without-daemon", "ended with status 3 [ends]"_s, "ends");
    // Days on which status 1 would be right at another time.
    add("ends-at-a-code", "crash-Introspect-1", "ended with status 1 [ends]"_s);
    add("ends-when-away", "crash-Authenticate", "ended with status 1 [ends]"_s);
    add("crashes-at-sigterm", "restart-idle",
        "was ended by signal 11 (Segmentation fault) when asked to end [no-end]"_s);
    add("ends-at-sigterm", "restart-idle", "ended with status 1 when asked to end [no-end]"_s);
    add("ends-at-once", "restart-idle", "ended with status 1 before it was up [ends]"_s);
    add("ends-with-claim", "ordinary",
        "ended with status 1 while it claimed to be unlocked and the daemon was Locked [ends]"_s);
    add("is-silent", "restart-idle", "told no claim within 30 s of its start [no-claim]"_s);
    add("mumbles", "restart-idle", "told neither locked nor unlocked, but \"open\" [bad-probe]"_s);
    add("drones", "restart-idle", "told more than 4096 bytes without the end of a line [bad-probe]"_s);
    const QString readsNothing = "did not read from the probe [bad-probe]"_s;
    add("ignores-codes", "restart-idle", readsNothing);
    add("ignores-codes-to-reach", "crash-Authenticate", readsNothing, "ignores-codes");
    add("ignores-codes-from-the-start", "start-without-daemon", readsNothing, "ignores-codes");
    add("hides-success", "restart-idle", "did not tell within 30 s that the right code had unlocked [not-told]"_s);
}

void TestHostCheck::findings()
{
    QFETCH(QString, day);
    QFETCH(QString, fault);
    QFETCH(QString, finding);
    // The right host is the rest of those that need one, and nothing to the others.
    const Run check = run({"--day"_s, day, wrongHost, fault, rightHost});
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), on({day}, finding));
    QCOMPARE(sums(check.output), "1 day: 0 passed, 1 failed, 0 not reached"_s);
}

void TestHostCheck::logOfAFailingDayIsShown()
{
    const QTemporaryDir directory;
    const QString logs = directory.filePath("new/logs"_s);
    const Run check = run({"--day=ordinary"_s, "--logs="_s + logs, "--"_s, wrongHost, "mumbles"_s});
    COMPARE_RUN(check, 1);
    QFile log(logs + "/ordinary.log"_s);
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromLocal8Bit(log.readAll());
    QVERIFY2(text.contains("] host: open\n"_s), qPrintable(text));
    QVERIFY2(text.contains(QLatin1String("mumbling\n")), qPrintable(text));
    QVERIFY2(check.output.contains(QLatin1String("\n    mumbling\n")), qPrintable(check.output));
}

void TestHostCheck::endOfALongLog()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath("results.xml"_s));
    const Run check = run({"--day=ordinary"_s, "--junit"_s, file.fileName(), wrongHost, "babbles"_s});
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
    QCOMPARE(message, "told neither locked nor unlocked, but \"\ufffdopen\" [bad-probe]"_s);
    for (const char *line : {"line 110.", "line 300."})
        QVERIFY2(text.contains(QLatin1String(line)), qPrintable(text));
    QVERIFY2(!text.contains(QLatin1String("line 90.")), qPrintable(text));
}

void TestHostCheck::noSuchCall()
{
    const Run check = run("--day crash-GetOption --day restart-idle"_words << rightHost);
    COMPARE_RUN(check, 0);
    QCOMPARE(rows(check.output, "not reached"), QStringList{"crash-GetOption: the host made no such call"_s});
    QCOMPARE(sums(check.output), "2 days: 1 passed, 0 failed, 1 not reached"_s);
}

void TestHostCheck::onlyNotReachedIsNoSuccess()
{
    const Run check = run("--day crash-GetOption"_words << rightHost);
    COMPARE_RUN(check, 125);
    QCOMPARE(sums(check.output), "1 day: 0 passed, 0 failed, 1 not reached"_s);
    QCOMPARE(check.errors, "authd-hostcheck: no day has shown anything\n"_s);
}

void TestHostCheck::patterns()
{
    const auto played = [](const Run &check) {
        QStringList names = rows(check.output, "passed") + rows(check.output, "not reached");
        for (QString &name : names)
            name = name.section(QLatin1Char(':'), 0, 0);
        return names;
    };
    Run check = run({"--day"_s, "start-without-b*"_s, "--day"_s, "*-idle"_s, "--day"_s, "restart-id*"_s, rightHost});
    COMPARE_RUN(check, 0);
    QCOMPARE(played(check), "handover-idle restart-idle start-without-bus"_words);
    QVERIFY(!check.output.contains(QLatin1String("left out")));
    check = run({"--day"_s, "start-without-bus"_s, "--day"_s, "locked-very-l*"_s, rightHost});
    COMPARE_RUN(check, 0);
    QCOMPARE(played(check), "start-without-bus"_words);
    QVERIFY(check.output.contains(QLatin1String("\n1 day was left out; --thorough plays it\n")));
    check = run({"--day"_s, "*-very-*"_s, rightHost});
    COMPARE_RUN(check, 2);
    QVERIFY2(check.errors.contains(QLatin1String("these days want --thorough")), qPrintable(check.errors));
}

void TestHostCheck::ordinaryIsFirst()
{
    const Run check = run("--day start-without-bus --day restart-idle --day ordinary"_words << rightHost);
    COMPARE_RUN(check, 0);
    QVERIFY2(check.output.startsWith(QLatin1String("ordinary ")), qPrintable(check.output));
}

void TestHostCheck::silentHostStopsTheCheck()
{
    const Run check = run({wrongHost, "is-silent"_s});
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), on({"ordinary"_s}, "told no claim within 30 s of its start [no-claim]"_s));
    QCOMPARE(sums(check.output).section(QLatin1Char(':'), 0, 0), "1 day"_s);
    QVERIFY(check.output.contains(QLatin1String(" not played\n")));
    for (const char *text : {"AUTHD_HOSTCHECK_FD", "docs/testing-a-screen.md:", "probe"})
        QVERIFY2(check.errors.contains(QLatin1String(text)), qPrintable(check.errors));
}

// Nor does one that ends at once, or that nobody understands.
void TestHostCheck::hostThatCannotBeCheckedStopsTheCheck()
{
    for (const char *fault : {"ends-at-once", "mumbles", "drones"}) {
        const Run check = run({wrongHost, QString::fromLatin1(fault)});
        COMPARE_RUN(check, 1);
        QVERIFY2(sums(check.output).startsWith(QLatin1String("1 day: 0 passed, 1 failed, 0 not reached, ")), fault);
        QVERIFY2(check.errors.startsWith(QLatin1String("authd-hostcheck: the host ")), qPrintable(check.errors));
    }
}

void TestHostCheck::oneMessageWhereNoWorldCanBeMade()
{
    const QTemporaryDir directory;
    const QString path = written(directory, "unshare"_s, "#!/bin/sh\necho unshare: not today >&2\nexit 1\n");
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::ExeOwner));
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PATH"_s, directory.path() + QLatin1Char(':') + environment.value("PATH"_s));
    process.setProcessEnvironment(environment);
    process.start(program, {rightHost});
    QVERIFY(process.waitForFinished(-1));
    QCOMPARE(process.exitCode(), 125);
    const QString output = QString::fromLocal8Bit(process.readAllStandardOutput());
    QCOMPARE(rows(output, "NOT MADE"), QStringList{"ordinary: the world ended with status 125"_s});
    QCOMPARE(output.count(QLatin1String("not today")), 1);
    QCOMPARE(QString::fromLocal8Bit(process.readAllStandardError()),
             "authd-hostcheck: no day can be made here; what is shown above says why\n"_s);
}

// The line that the finding names is an example below the rule's heading.
void TestHostCheck::findingIsExplained()
{
    const Run check = run({"--day"_s, "restart-idle"_s, wrongHost, "ends"_s});
    COMPARE_RUN(check, 1);
    const QRegularExpressionMatch match =
        QRegularExpression("\n  rule:   \\S.*\n  likely: \\S.*\n  cure:   docs/testing-a-screen.md:(\\d+)\n"_s)
            .match(check.output);
    QVERIFY2(match.hasMatch(), qPrintable(check.output));
    QFile guide(QStringLiteral(GUIDE));
    QVERIFY(guide.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = guide.readAll().split('\n');
    const int cure = match.captured(1).toInt() - 1;
    QVERIFY(lines.value(cure - 1).startsWith("```"));
    const auto isHeading = [](const QByteArray &line) { return line.startsWith('#'); };
    const auto heading = std::find_if(lines.rbegin() + (lines.size() - cure), lines.rend(), isHeading);
    QVERIFY(heading != lines.rend());
    QCOMPARE(*heading, QByteArray("#### ends"));
}

// A host may write much to its standard output: that costs neither memory nor disk.
void TestHostCheck::costsAreTold()
{
    const QTemporaryDir directory;
    const QString logs = directory.filePath("logs"_s);
    const Run check = run({"--day"_s, "ordinary"_s, "--logs"_s, logs, wrongHost, "drones"_s});
    COMPARE_RUN(check, 1);
    QVERIFY(QFileInfo(logs + "/ordinary.log"_s).size() < 5 << 20);
    const QRegularExpressionMatch costs =
        QRegularExpression("\n([0-9.]+) s, at most 1 day at once, ([0-9.]+) s of processor time, (\\d+) MiB for the "
                           "largest process\n$"_s)
            .match(check.output);
    QVERIFY2(costs.hasMatch(), qPrintable(check.output));
    QVERIFY(costs.captured(1).toDouble() > 0);
    QVERIFY(costs.captured(2).toDouble() > 0);
    QVERIFY2(costs.captured(3).toInt() > 0 && (costs.captured(3).toInt() < 60 || IS_SANITIZED),
             qPrintable(check.output));
}

void TestHostCheck::jUnit()
{
    const QTemporaryDir directory;
    const QString name = directory.filePath("results.xml"_s);
    const Run check = run(days("restart-idle start-without-daemon crash-GetOption returns-without-socket"_words)
                          << "--junit"_s << name << wrongHost << "opens-at-the-end"_s << rightHost);
    COMPARE_RUN(check, 1);

    QFile file(name);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QStringList counts;
    QList<Case> cases;
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
            QCOMPARE(value("name"), "authd-hostcheck"_s);
            counts << "%1 %2 %3 %4"_s.arg(value("tests"), value("failures"), value("errors"), value("skipped"));
            sum = value("time").toDouble();
        } else if (xml.name() == QLatin1String("testcase")) {
            QCOMPARE(value("classname"), "authd-hostcheck"_s);
            cases.append({value("name"), QString(), QString(), QString()});
            seconds += value("time").toDouble();
        } else {
            cases.last().child = xml.name().toString();
            cases.last().message = value("message");
        }
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(counts, (QStringList{"4 2 0 1"_s, "4 2 0 1"_s}));
    QCOMPARE(qRound(sum * 1000), qRound(seconds * 1000));
    // In the order asked for, not in that in which they ended.
    QCOMPARE(cases.size(), 4);
    QStringList said;
    for (const Case &one : cases)
        said << one.name + QLatin1Char(' ') + one.child + ": "_s + one.message;
    QCOMPARE(said.mid(0, 3),
             (QStringList{"restart-idle : "_s, "start-without-daemon failure: "_s + openWhenAway,
                          "crash-GetOption skipped: the host made no such call"_s}));
    QVERIFY2(said.at(3).startsWith("returns-without-socket failure: "_s), qPrintable(said.at(3)));
    QVERIFY2(cases.at(1).text.contains("host: unlocked"_s), qPrintable(cases.at(1).text));
}

void TestHostCheck::jUnitOfNoCheck()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath("results.xml"_s));
    const Run check = run("--day ordinary --scenario /nowhere.json --junit"_words << file.fileName() << rightHost);
    COMPARE_RUN(check, 125);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QVERIFY2(text.contains(QLatin1String(R"(tests="1" failures="0" errors="1" skipped="0")")), qPrintable(text));
    QVERIFY2(text.contains(QLatin1String(R"(<error message="the world ended with status 3">)")), qPrintable(text));
}

void TestHostCheck::jUnitOnAFullDisk()
{
    const Run check = run("--day start-without-daemon --junit /dev/full"_words << rightHost);
    COMPARE_RUN(check, 125);
    QCOMPARE(check.errors, "authd-hostcheck: /dev/full cannot be written: No space left on device\n"_s);
}

void TestHostCheck::standInDies()
{
    // Without a bus it ends, as it may.
    const QString script = R"(
        [ "${AUTHD_WORLD_BUS_PID-}" ] || exit 1
        for process in /proc/[0-9]*; do
            read -r name <"$process/comm"
            [ "$name" != authd-standin ] || kill -KILL "${process#/proc/}"
        done
        exec sleep 600
    )"_s;
    const Run check = run("--day start-without-bus --day locked-long sh -c"_words << script);
    COMPARE_RUN(check, 125);
    const QStringList notMade = rows(check.output, "NOT MADE");
    QCOMPARE(notMade.size(), 1);
    // As it comes: before the check asks, or when it waits for the answer.
    const QRegularExpression text("^locked-long: (there is no stand-in at .*|the stand-in has gone) \\(\\{.*\\}\\)$"_s);
    QVERIFY2(text.match(notMade.first()).hasMatch(), qPrintable(notMade.first()));
    QCOMPARE(rows(check.output, "passed"), QStringList{"start-without-bus: ended with status 1"_s});
    QCOMPARE(sums(check.output), "2 days: 1 passed, 0 failed, 0 not reached, 1 not made"_s);
}

void TestHostCheck::otherCodeAndScenario()
{
    const QTemporaryDir directory;
    const QStringList options = "--day ordinary --scenario"_words
        << written(directory, "scenario.json"_s, R"({"users": [{"uid": 7, "secrets": {"code": "70\"0"}}]})");
    Run check = run(options + QStringList{"--code"_s, "70\"0"_s, rightHost});
    COMPARE_RUN(check, 0);
    check = run(options + QStringList{rightHost});
    COMPARE_RUN(check, 1);
    QCOMPARE(rows(check.output, "FAILED"), on({"ordinary"_s}, codeIsUseless));
}

void TestHostCheck::badScenario()
{
    const Run check = run("--day ordinary --scenario /nowhere.json"_words << rightHost);
    COMPARE_RUN(check, 125);
    QCOMPARE(check.errors, "authd-hostcheck: no day can be made here; what is shown above says why\n"_s);
    QCOMPARE(rows(check.output, "NOT MADE"), QStringList{"ordinary: the world ended with status 3"_s});
    QVERIFY2(check.output.contains(QLatin1String("/nowhere.json")), qPrintable(check.output));
    QCOMPARE(sums(check.output), "1 day: 0 passed, 0 failed, 0 not reached, 1 not made"_s);
}

void TestHostCheck::hostIsMissing()
{
    Run check = run({"/nowhere/host"_s});
    COMPARE_RUN(check, 125);
    QCOMPARE(check.output, QString());
    QCOMPARE(check.errors, "authd-hostcheck: the host /nowhere/host cannot be started: there is no such program\n"_s);
    check = run({"/etc/passwd"_s});
    COMPARE_RUN(check, 125);
    QCOMPARE(check.errors, "authd-hostcheck: the host /etc/passwd cannot be started: it is no program\n"_s);
    // The host is there, but what would run it is not.
    QTemporaryDir directory;
    QFile file(written(directory, "host"_s, "#!/nowhere/sh\n"));
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    check = run({"--day"_s, "ordinary"_s, file.fileName()});
    COMPARE_RUN(check, 125);
    QCOMPARE(rows(check.output, "NOT MADE"),
             QStringList{"ordinary: the host cannot be started: No such file or directory"_s});
}

void TestHostCheck::worldIsMissing()
{
    const QTemporaryDir directory;
    const QString copy = directory.filePath("authd-hostcheck"_s);
    QVERIFY(QFile::copy(program, copy));
    QProcess process;
    process.start(copy, {rightHost});
    QVERIFY(process.waitForFinished(-1));
    QCOMPARE(process.exitCode(), 125);
    QCOMPARE(QString::fromLocal8Bit(process.readAllStandardError()),
             "authd-hostcheck: authd-world is neither in %1 nor in PATH\n"_s.arg(directory.path()));
    // authd-world need not be beside.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PATH"_s, QFileInfo(program).path() + QLatin1Char(':') + environment.value("PATH"_s));
    process.setProcessEnvironment(environment);
    process.start(copy, {"--day"_s, "start-without-bus"_s, rightHost});
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
    const QString results = temporary.filePath("results.xml"_s);
    // The first day is over at once, the others are not.
    const QString script = R"([ "${AUTHD_WORLD_BUS_PID-}" ] || exit 1; exec "$0" ignores-sigterm "$0" is-silent)"_s;
    Job job(temporary.path(),
            "--day start-without-bus --day locked-long --day mute-GetState --day restart-idle --junit"_words
                << results << "sh"_s
                << "-c"_s << script << wrongHost);
    QTRY_COMPARE_WITH_TIMEOUT(directories(), 1, 25000);
    QVERIFY(job.waitForHosts(hosts));
    QCOMPARE(kill(pid_t(toGroup ? -job.processId() : job.processId()), signal), 0);
    // Before the time is up in which a host has to tell something.
    QVERIFY(job.waitForFinished(20000));
    QCOMPARE(job.exitStatus(), QProcess::CrashExit);
    QCOMPARE(job.exitCode(), signal);
    QCOMPARE(directories(), leftDirectories);
    QTRY_COMPARE(job.count(), 0);
    if (signal == SIGKILL)
        return;
    const QString output = QString::fromLocal8Bit(job.readAllStandardOutput());
    QCOMPARE(QString::fromLocal8Bit(job.readAllStandardError()), "authd-hostcheck: broken off\n"_s);
    QFile file(results);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QStringList names;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement() && xml.name() == QLatin1String("testcase"))
            names << xml.attributes().value(QLatin1String("name")).toString();
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    // At once may be after the first day.
    const int done = names.size();
    QVERIFY(done == 1 || (done == 0 && hosts == 0));
    QCOMPARE(names, QStringList{"start-without-bus"_s}.mid(1 - done));
    QCOMPARE(sums(output),
             "%1: %2 passed, 0 failed, 0 not reached, %3 not played"_s.arg(done ? "1 day"_s : "0 days"_s)
                 .arg(done)
                 .arg(4 - done));
}

// As under nohup.
void TestHostCheck::ignoredSignal()
{
    const QTemporaryDir temporary;
    Job job(temporary.path(), {"--day"_s, "ordinary"_s, rightHost}, SIGHUP);
    QVERIFY(job.waitForHosts(1));
    QCOMPARE(kill(pid_t(job.processId()), SIGHUP), 0);
    QVERIFY(job.waitForFinished(-1));
    QCOMPARE(job.exitStatus(), QProcess::NormalExit);
    QCOMPARE(job.exitCode(), 0);
}

void TestHostCheck::list()
{
    const Run list = run({"--list"_s});
    COMPARE_RUN(list, 0);
    QStringList names = allDays();
    QVERIFY(names.contains("ordinary"_s));
    QCOMPARE(names.removeDuplicates(), 0);
    for (const QString &line : list.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        QVERIFY2(QRegularExpression("^[A-Za-z0-9-]+  +\\S.*$"_s).match(line).hasMatch(), qPrintable(line));
}

void TestHostCheck::wrongUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("errors");
    const auto wrong = [](const char *row, const QStringList &arguments, const char *problem) {
        QTest::newRow(row) << arguments << 2 << QString()
                           << "^authd-hostcheck: %1\nTry authd-hostcheck --help.\n$"_s.arg(QLatin1String(problem));
    };
    wrong("nothing", {}, "no host given");
    wrong("no host", {"--jobs"_s, "2"_s, "--"_s}, "no host given");
    wrong("unknown option", {"--fast"_s, rightHost}, "Unknown option 'fast'\\.");
    wrong("unknown day", {"--day"_s, "sunday"_s, rightHost}, "there is no day sunday \\(see --list\\)");
    wrong("no value", {"--junit"_s}, "Missing value after '--junit'\\.");
    wrong("empty value", {"--junit="_s, rightHost}, "--junit wants a value");
    wrong("no grace", {"--grace"_s, "soon"_s, rightHost}, "--grace wants seconds, from 0 to 60");
    wrong("too much grace", {"--grace"_s, "61"_s, rightHost}, "--grace wants seconds, from 0 to 60");
    wrong("code of two lines", {"--code"_s, "1\n2"_s, rightHost}, "--code wants a single line");
    wrong("no jobs", {"--jobs"_s, "0"_s, rightHost}, "--jobs wants a number from 1");
    wrong("odd jobs", {"--jobs=many"_s, rightHost}, "--jobs wants a number from 1");
    QTest::newRow("help") << QStringList{"--help"_s} << 0 << "^Usage: \\S*authd-hostcheck \\[options\\] HOST "_s
                          << "^$"_s;
    QTest::newRow("version") << QStringList{"--version"_s} << 0 << "^authd-hostcheck [0-9]+\\.[0-9]+\\.[0-9]+\n$"_s
                             << "^$"_s;
    QTest::newRow("junit nowhere") << QStringList{"--junit"_s, "/nowhere/a.xml"_s, rightHost} << 125 << QString()
                                   << "^authd-hostcheck: /nowhere/a.xml cannot be written: "_s;
    QTest::newRow("logs nowhere") << QStringList{"--logs"_s, "/proc/logs"_s, rightHost} << 125 << QString()
                                  << "^authd-hostcheck: the directory /proc/logs cannot be made\n$"_s;
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
