#include "report.h"
#include "runner.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <cstdio>

namespace {

enum ExitStatus {
    AllPassed = 0,
    Findings = 1,
    WrongUsage = 2,
    NotMade = 125,
};

const char help[] = R"(Usage: authd-hostcheck [OPTION]... [--] HOST [ARGUMENT]...

Runs HOST, a screen or another host of libauth-client, through bad days: the
daemon dies, restarts, goes mute, lies and is impersonated. Says for each day
whether the host stayed up, or ended where the library ends it, and whether it
claimed to be unlocked while the daemon was not.

  --day NAME       plays this day alone (may be given several times)
  --list           prints the days
  --code CODE      a right code of the default factor (default: 1234)
  --scenario FILE  the stand-in's users and factors (default: built in)
  --jobs N         so many days side by side (default: number of processors);
                   days that only wait come on top
  --junit FILE     writes the results as JUnit XML, too
  --logs DIR       keeps what the host and the stand-in wrote, a file a day
  -h, --help, --version

HOST tells what it claims, and takes codes, over the descriptor that the
environment variable AUTHD_HOSTCHECK_FD names; see authd-hostcheck(1).

Exit status: 0 no findings, 1 findings, 2 wrong usage, 125 the check could not
be made.
)";

int refuse(const QString &problem, int status)
{
    fprintf(stderr, "authd-hostcheck: %s\n", qPrintable(problem));
    if (status == WrongUsage)
        fputs("Try authd-hostcheck --help.\n", stderr);
    return status;
}

struct Options
{
    Check check;
    QString junit;
    QString problem;
};

Options readOptions(QStringList words)
{
    Options options;
    Check &check = options.check;
    check.code = QStringLiteral("1234");
    check.jobs = QThread::idealThreadCount();
    const auto fail = [&options](const QString &problem) {
        options.problem = problem;
        return options;
    };

    while (!words.isEmpty() && words.first().startsWith(QLatin1Char('-'))) {
        const QString word = words.takeFirst();
        if (word == QLatin1String("--"))
            break;
        const int equals = word.indexOf(QLatin1Char('='));
        const QString name = word.left(equals);
        static const QStringList names = {QStringLiteral("--day"),  QStringLiteral("--code"),
                                          QStringLiteral("--jobs"), QStringLiteral("--scenario"),
                                          QStringLiteral("--logs"), QStringLiteral("--junit")};
        if (!names.contains(name))
            return fail(QStringLiteral("unknown option ") + word);
        QString value;
        if (equals >= 0)
            value = word.mid(equals + 1);
        else if (!words.isEmpty())
            value = words.takeFirst();
        if (value.isEmpty())
            return fail(name + QStringLiteral(" wants a value"));

        if (name == QLatin1String("--day")) {
            const Day *day = findDay(value.toUtf8());
            if (!day)
                return fail(QStringLiteral("there is no day %1 (see --list)").arg(value));
            check.days.push_back(day);
        } else if (name == QLatin1String("--jobs")) {
            bool isNumber = false;
            check.jobs = value.toInt(&isNumber);
            if (!isNumber || check.jobs < 1)
                return fail(QStringLiteral("--jobs wants a number from 1"));
        } else {
            QString &place = name == QLatin1String("--code") ? check.code
                : name == QLatin1String("--scenario")        ? check.scenario
                : name == QLatin1String("--logs")            ? check.logs
                                                             : options.junit;
            place = value;
        }
    }
    if (words.isEmpty())
        return fail(QStringLiteral("no host given"));
    check.host = words;
    if (check.days.empty()) {
        for (const Day &day : allDays())
            check.days.push_back(&day);
    }
    return options;
}

// A host that cannot be there is no host's fault.
QString hostProblem(const QString &host)
{
    const QString program = host.contains(QLatin1Char('/')) ? host : QStandardPaths::findExecutable(host);
    const QFileInfo file(program);
    if (!program.isEmpty() && file.isFile() && file.isExecutable())
        return QString();
    return QStringLiteral("the host %1 cannot be started: %2")
        .arg(host, file.exists() ? QStringLiteral("it is no program") : QStringLiteral("there is no such program"));
}

int check(Options options)
{
    Check &check = options.check;
    const QString problem = hostProblem(check.host.first());
    if (!problem.isEmpty())
        return refuse(problem, NotMade);

    const QString beside = QCoreApplication::applicationDirPath();
    const QString worldName = QStringLiteral("authd-world");
    check.world = QStandardPaths::findExecutable(worldName, {beside});
    if (check.world.isEmpty())
        check.world = QStandardPaths::findExecutable(worldName);
    if (check.world.isEmpty())
        return refuse(QStringLiteral("authd-world is neither in %1 nor in PATH").arg(beside), NotMade);

    // Before what a signal may not leave behind.
    const SignalsHeld held;
    const QTemporaryDir temporary;
    if (check.logs.isEmpty())
        check.logs = temporary.path();
    else if (!QDir().mkpath(check.logs))
        return refuse(QStringLiteral("the directory %1 cannot be made").arg(check.logs), NotMade);
    QFile junit(options.junit);
    if (!options.junit.isEmpty() && !junit.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return refuse(QStringLiteral("%1 cannot be written: %2").arg(options.junit, junit.errorString()), NotMade);

    Report report(check);
    if (!playDays(check, held, [&report](const Result &result) { report.add(result); }))
        return NotMade;
    report.finish();
    if (junit.isOpen() && !(report.writeJUnit(&junit) && junit.flush()))
        return refuse(QStringLiteral("%1 cannot be written: %2").arg(options.junit, junit.errorString()), NotMade);
    if (report.count(Outcome::NotMade) > 0)
        return NotMade;
    return report.count(Outcome::Failed) > 0 ? Findings : AllPassed;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments().mid(1);
    const QString first = words.value(0);
    if (first == QLatin1String("--inside")) {
        const Day *day = findDay(words.value(1).toUtf8());
        return day ? playInside(*day, words.value(2), words.mid(3)) : int(WrongUsage);
    }
    if (first == QLatin1String("--help") || first == QLatin1String("-h")) {
        fputs(help, stdout);
        return AllPassed;
    }
    if (first == QLatin1String("--version")) {
        puts("authd-hostcheck " HOSTCHECK_VERSION);
        return AllPassed;
    }
    if (first == QLatin1String("--list")) {
        listDays();
        return AllPassed;
    }
    const Options options = readOptions(words);
    return options.problem.isEmpty() ? check(options) : refuse(options.problem, WrongUsage);
}
