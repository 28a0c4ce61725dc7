#include "report.h"
#include "runner.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

enum ExitStatus {
    AllPassed = 0,
    Findings = 1,
    WrongUsage = 2,
    NotMade = 125,
};

int refuse(const QString &problem, int status)
{
    fprintf(stderr, "authd-hostcheck: %s\n", qPrintable(problem));
    if (status == WrongUsage)
        fputs("Try authd-hostcheck --help.\n", stderr);
    return status;
}

/** What the command line asks for. */
struct Options
{
    Check check;
    QString junit;
    QString problem; ///< why it cannot be done; empty if it can
};

const char description[] = R"(
Runs HOST, a screen or another host of libauth-client, through bad days: the
daemon dies, restarts, goes mute, lies and is impersonated. Says for each day
whether the host stayed up, or ended where the library ends it, and whether it
claimed to be unlocked while the daemon was not.

HOST tells what it claims, and takes codes, over the descriptor that the
environment variable AUTHD_HOSTCHECK_FD names; see authd-hostcheck(1).

Times are in the host's own time: what its processes wait for a processor does
not count. Each day has its own /tmp, HOME and XDG directories.

Exit status: 0 no findings, 1 findings, 2 wrong usage, 125 the check could not
be made.)";

void addOptions(QCommandLineParser *parser)
{
    const auto add = [parser](const char *names, const char *value, const char *text) {
        QCommandLineOption option(QString::fromLatin1(names).split(QLatin1Char(' ')), QLatin1String(text),
                                  QLatin1String(value));
        if (!*text)
            option.setFlags(QCommandLineOption::HiddenFromHelp);
        parser->addOption(option);
    };
    add("day", "pattern", "Plays these days alone; * stands for any text (may be given several times).");
    add("thorough", "", "Plays the days of minutes, and of rare chances, too.");
    add("list", "", "Prints the days.");
    add("grace", "seconds", "A host may know for so long that it is locked before it says so (default: 1.5).");
    add("code", "code", "A right code of the default factor (default: 1234).");
    add("scenario", "file", "The stand-in's users and factors (default: built in).");
    add("jobs", "n", "So many days side by side (default: as many as the machine carries).");
    add("junit", "file", "Writes the results as JUnit XML, too.");
    add("logs", "directory", "Keeps what the host and the stand-in wrote, a file a day.");
    add("h help", "", "Prints this.");
    add("version", "", "Prints the version.");
    // The program itself asks for this, in the world of the day: --inside DAY --grace SECONDS -- CODE HOST ARGUMENT...
    add("inside", "day", "");
    parser->addPositionalArgument(QStringLiteral("HOST"), QStringLiteral("The host's program."));
    parser->addPositionalArgument(QStringLiteral("ARGUMENT..."), QStringLiteral("Its arguments."));
    parser->setApplicationDescription(QLatin1String(description));
    // The host's options are its own.
    parser->setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
}

/** In milliseconds; -1 for what is no time. */
int graceOf(const QCommandLineParser &parser)
{
    if (!parser.isSet(QStringLiteral("grace")))
        return 1500;
    bool isNumber = false;
    const double seconds = parser.value(QStringLiteral("grace")).toDouble(&isNumber);
    return isNumber && seconds >= 0 && seconds <= 60 ? qRound(seconds * 1000) : -1;
}

Options readOptions(const QCommandLineParser &parser)
{
    Options options;
    Check &check = options.check;
    const auto fail = [&options](const QString &problem) {
        options.problem = problem;
        return options;
    };
    for (const char *name : {"day", "grace", "code", "scenario", "jobs", "junit", "logs"}) {
        if (parser.values(QLatin1String(name)).contains(QString()))
            return fail(QStringLiteral("--%1 wants a value").arg(QLatin1String(name)));
    }
    const bool thorough = parser.isSet(QStringLiteral("thorough"));
    const QStringList patterns = parser.values(QStringLiteral("day"));
    for (const QString &pattern : patterns.isEmpty() ? QStringList{QStringLiteral("*")} : patterns) {
        const std::vector<const Day *> days = matchingDays(pattern);
        if (days.empty())
            return fail(QStringLiteral("there is no day %1 (see --list)").arg(pattern));
        for (const Day *day : days) {
            // Such a day is played when it is meant.
            if (day->isThorough && !thorough && QString::fromUtf8(day->name) != pattern)
                ++check.leftOut;
            else if (std::find(check.days.begin(), check.days.end(), day) == check.days.end())
                check.days.push_back(day);
        }
    }
    if (check.days.empty())
        return fail(QStringLiteral("these days want --thorough"));
    const auto given = [&parser](const char *name, const QString &otherwise = QString()) {
        return parser.isSet(QLatin1String(name)) ? parser.value(QLatin1String(name)) : otherwise;
    };
    check.jobs = parser.isSet(QStringLiteral("jobs")) ? given("jobs").toInt() : 0;
    if (parser.isSet(QStringLiteral("jobs")) && check.jobs < 1)
        return fail(QStringLiteral("--jobs wants a number from 1"));
    check.grace = graceOf(parser);
    if (check.grace < 0)
        return fail(QStringLiteral("--grace wants seconds, from 0 to 60"));
    check.code = given("code", QStringLiteral("1234"));
    if (check.code.contains(QLatin1Char('\n')))
        return fail(QStringLiteral("--code wants a single line"));
    check.scenario = given("scenario");
    check.logs = given("logs");
    options.junit = given("junit");
    check.host = parser.positionalArguments();
    if (check.host.isEmpty())
        return fail(QStringLiteral("no host given"));
    return options;
}

// A host that cannot be started is no finding: the check is not made.
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
    const QString missing = hostProblem(check.host.first());
    if (!missing.isEmpty())
        return refuse(missing, NotMade);

    const QString beside = QCoreApplication::applicationDirPath();
    const QString worldName = QStringLiteral("authd-world");
    check.world = QStandardPaths::findExecutable(worldName, {beside});
    if (check.world.isEmpty())
        check.world = QStandardPaths::findExecutable(worldName);
    if (check.world.isEmpty())
        return refuse(QStringLiteral("authd-world is neither in %1 nor in PATH").arg(beside), NotMade);

    // Made before the temporary directory, so that a signal that would end the process leaves no directory behind.
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
    QString problem;
    const Costs costs = playDays(
        check, held, [&report](const Result &result) { report.add(result); }, &problem);
    report.finish(costs);
    if (!problem.isEmpty())
        fprintf(stderr, "authd-hostcheck: %s\n", qPrintable(problem));
    if (held.isAnyWaiting())
        fputs("authd-hostcheck: broken off\n", stderr);
    if (junit.isOpen() && !(report.writeJUnit(&junit) && junit.flush()))
        return refuse(QStringLiteral("%1 cannot be written: %2").arg(options.junit, junit.errorString()), NotMade);
    if (report.count(Outcome::NotMade) > 0 || held.isAnyWaiting())
        return NotMade;
    if (report.count(Outcome::Failed) > 0)
        return Findings;
    if (report.count(Outcome::Passed) > 0)
        return AllPassed;
    return refuse(QStringLiteral("no day has shown anything"), NotMade);
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(HOSTCHECK_VERSION));
    QCommandLineParser parser;
    addOptions(&parser);
    if (!parser.parse(QCoreApplication::arguments()))
        return refuse(parser.errorText(), WrongUsage);
    if (parser.isSet(QStringLiteral("inside"))) {
        const Day *day = findDay(parser.value(QStringLiteral("inside")).toUtf8());
        const QStringList words = parser.positionalArguments();
        return day ? playInside(*day, graceOf(parser), words.value(0), words.mid(1)) : int(WrongUsage);
    }
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(AllPassed);
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("list"))) {
        listDays();
        return AllPassed;
    }
    const Options options = readOptions(parser);
    return options.problem.isEmpty() ? check(options) : refuse(options.problem, WrongUsage);
}
