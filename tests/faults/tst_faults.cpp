// What the library promises when the daemon, its socket or the bus fail it, for each call and each thing a host may do
// meanwhile: calls, faults and acts are in tables.cpp, the promises in promises.cpp.
//
//     tst_faults                           runs as a test
//     tst_faults --report [FAULT…]         lives through the whole matrix, or some faults, and prints it in Markdown
//     tst_faults --cell FAULT [CALL [ACT]] lives through these cells and prints them
//
// Each starts worlds of its own, and runs itself there: --inside FAULT [CALL [ACT]].

#include "cell.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QMap>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtTest/QTest>

#include <cstdio>
#include <functional>
#include <memory>

namespace {

struct Place
{
    const Call *call;
    const Fault *fault;
    const Act *act;
};

QString nameOf(const Place &place)
{
    return QStringLiteral("%1\t%2\t%3")
        .arg(QString::fromUtf8(place.fault->name), QString::fromUtf8(place.call->name),
             QString::fromUtf8(place.act->name));
}

/** All cells, or those of the fault, the call and the act named. */
QVector<Place> placesOf(const QStringList &names = {})
{
    const auto isMeant = [&](int i, const char *name) {
        return names.value(i, QString::fromUtf8(name)) == QString::fromUtf8(name);
    };
    QVector<Place> places;
    for (const Fault &fault : faults) {
        for (const Call &call : calls) {
            for (const Act &act : acts) {
                if (isMeant(0, fault.name) && isMeant(1, call.name) && isMeant(2, act.name))
                    places.append({&call, &fault, &act});
            }
        }
    }
    return places;
}

Expectation expectationOf(const Place &place)
{
    return Expectation(*place.call, *place.fault, *place.act);
}

void say(const QString &line)
{
    puts(line.toUtf8().constData());
    fflush(stdout);
}

/** What has come of cells: nothing for those that were as promised. */
using Outcomes = QMap<QString, QString>;

/** In a world with the stand-in. Writes a line for each cell: its parts end with tabs, what were lines with returns. */
void liveInside(const QStringList &names)
{
    StandIn daemon;
    for (const Place &place : placesOf(names)) {
        if (expectationOf(place).isLived())
            say(nameOf(place) + QLatin1Char('\t')
                + Cell(daemon, *place.call, *place.fault, *place.act)
                      .problem()
                      .replace(QLatin1Char('\n'), QLatin1Char('\r')));
    }
}

/** Lives through the cells that are named, as many worlds at a time as the fault allows. */
Outcomes live(const QStringList &names)
{
    QVector<QStringList> waiting;
    const QVector<Place> places = placesOf(names);
    for (const Place &place : places) {
        if (!expectationOf(place).isLived())
            continue;
        const QStringList job = place.fault->isApart ? nameOf(place).split(QLatin1Char('\t')) : names;
        if (!waiting.contains(job))
            waiting.append(job);
    }
    // Those that only wait do so together.
    const int limit = !places.isEmpty() && places.first().fault->lasts > 0 ? 40 : 2;

    Outcomes outcomes;
    QEventLoop loop;
    int running = 0;
    std::function<void()> startMore;
    startMore = [&] {
        for (; running < limit && !waiting.isEmpty(); ++running) {
            const QStringList job = waiting.takeFirst();
            auto *const world = new QProcess(&loop);
            world->setProcessChannelMode(QProcess::ForwardedErrorChannel);
            QObject::connect(world, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop, [&, world] {
                for (const QString &line : split(QString::fromUtf8(world->readAllStandardOutput()), "\n")) {
                    const QStringList parts = line.split(QLatin1Char('\t'));
                    outcomes.insert(parts.mid(0, 3).join(QLatin1Char('\t')),
                                    QString(parts.value(3)).replace(QLatin1Char('\r'), QLatin1Char('\n')));
                }
                --running;
                startMore();
                if (running == 0)
                    loop.quit();
            });
            world->start(QStringLiteral(AUTHD_WORLD),
                         QStringList{QStringLiteral("--standin"), QStringLiteral("--"),
                                     QCoreApplication::applicationFilePath(), QStringLiteral("--inside")}
                             + job);
        }
    };
    startMore();
    if (running > 0)
        loop.exec();
    return outcomes;
}

QString verdictOf(const Place &place, const Outcomes &outcomes)
{
    const Expectation expected = expectationOf(place);
    if (!expected.promise())
        return QStringLiteral("BLANK");
    if (!expected.isLived())
        return QStringLiteral("-");
    const QString name = nameOf(place);
    if (!outcomes.contains(name))
        return QStringLiteral("BLANK");
    return outcomes.value(name).isEmpty() ? QStringLiteral("ok") : QStringLiteral("FAILED");
}

/** A line for each cell; how many are not as promised. */
int sayCells(const QStringList &names, const Outcomes &outcomes)
{
    int failures = 0;
    for (const Place &place : placesOf(names)) {
        const Expectation expected = expectationOf(place);
        const QString verdict = verdictOf(place, outcomes);
        say(QStringLiteral("%1 %2: %3: %4")
                .arg(verdict, -6)
                .arg(nameOf(place).replace(QLatin1Char('\t'), QStringLiteral(" / ")),
                     expected.promise() ? QString::fromUtf8(expected.promise()->name) : QString(), expected.text()));
        if (verdict == QLatin1String("ok") || verdict == QLatin1String("-"))
            continue;
        ++failures;
        say(QStringLiteral("       ") + outcomes.value(nameOf(place), QStringLiteral("nothing is known of it")));
    }
    return failures;
}

int report(const QStringList &names)
{
    Outcomes outcomes;
    QVector<const Fault *> columns;
    for (const Fault &fault : faults) {
        const QString name = QString::fromUtf8(fault.name);
        if (!names.isEmpty() && !names.contains(name))
            continue;
        columns.append(&fault);
        outcomes.insert(live({name}));
    }
    QMap<QString, int> verdicts;
    QStringList reasons;
    for (const Act &act : acts) {
        say(QStringLiteral("\n## The host meanwhile: %1\n").arg(QString::fromUtf8(act.name)));
        QStringList titles{QString()};
        for (const Fault *fault : qAsConst(columns))
            titles.append(QString::fromUtf8(fault->name));
        say(QStringLiteral("| ") + titles.join(QStringLiteral(" | ")) + QStringLiteral(" |"));
        say(QStringLiteral("|---").repeated(titles.size()) + QLatin1Char('|'));
        for (const Call &call : calls) {
            QStringList row{QString::fromUtf8(call.name)};
            for (const Fault *fault : qAsConst(columns)) {
                const Place place{&call, fault, &act};
                const Expectation expected = expectationOf(place);
                const QString verdict = verdictOf(place, outcomes);
                ++verdicts[verdict];
                if (verdict == QLatin1String("-")) {
                    if (!reasons.contains(expected.text()))
                        reasons.append(expected.text());
                    row.append(QStringLiteral("- (%1)").arg(reasons.indexOf(expected.text()) + 1));
                } else {
                    row.append(expected.promise()
                                   ? QStringLiteral("%1: %2").arg(QString::fromUtf8(expected.promise()->name), verdict)
                                   : verdict);
                }
            }
            say(QStringLiteral("| ") + row.join(QStringLiteral(" | ")) + QStringLiteral(" |"));
        }
    }
    say(QStringLiteral("\n\"-\": there is no such case.\n"));
    for (int i = 0; i < reasons.size(); ++i)
        say(QStringLiteral("%1. %2").arg(i + 1).arg(reasons.at(i)));
    say(QStringLiteral("\n%1 cells as promised, %2 not, %3 blank, %4 that cannot be.")
            .arg(verdicts.value(QStringLiteral("ok")))
            .arg(verdicts.value(QStringLiteral("FAILED")))
            .arg(verdicts.value(QStringLiteral("BLANK")))
            .arg(verdicts.value(QStringLiteral("-"))));
    for (auto it = outcomes.cbegin(); it != outcomes.cend(); ++it) {
        if (!it.value().isEmpty())
            say(QStringLiteral("\n%1: %2")
                    .arg(QString(it.key()).replace(QLatin1Char('\t'), QStringLiteral(" / ")), it.value()));
    }
    return verdicts.value(QStringLiteral("FAILED")) + verdicts.value(QStringLiteral("BLANK")) > 0;
}

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCallAndSignalOfTheDaemonHasARow();
    void everyCellHasAPromiseAndEveryPromiseACell();
    void promisesAreKept_data();
    void promisesAreKept();
};

void TestFaults::everyCallAndSignalOfTheDaemonHasARow()
{
    QSet<QString> names;
    for (const Call &call : calls)
        names.insert(QString::fromUtf8(call.method));
    const QDir directory(QStringLiteral(DBUS_DIRECTORY));
    int count = 0;
    for (const QString &name : directory.entryList({QStringLiteral("*.xml")})) {
        QFile file(directory.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QRegularExpression member(QStringLiteral("<(method|signal) name=\"(\\w+)\""));
        auto match = member.globalMatch(QString::fromUtf8(file.readAll()));
        for (; match.hasNext(); ++count) {
            const QString text = match.next().captured(2);
            QVERIFY2(names.contains(text), qPrintable(text));
        }
    }
    QCOMPARE(count, 21);
}

void TestFaults::everyCellHasAPromiseAndEveryPromiseACell()
{
    QSet<const Promise *> kept;
    for (const Place &place : placesOf()) {
        const Expectation expected = expectationOf(place);
        QVERIFY2(expected.promise(), qPrintable(nameOf(place)));
        kept.insert(expected.promise());
    }
    for (const Promise &promise : promises)
        QVERIFY2(kept.contains(&promise),
                 qPrintable(QStringLiteral("%1, %2, %3: another promise comes first")
                                .arg(QString::fromUtf8(promise.calls), QString::fromUtf8(promise.faults),
                                     QString::fromUtf8(promise.acts))));
}

void TestFaults::promisesAreKept_data()
{
    QTest::addColumn<QString>("fault");
    for (const Fault &fault : faults)
        QTest::newRow(fault.name) << QString::fromUtf8(fault.name);
}

void TestFaults::promisesAreKept()
{
    QFETCH(QString, fault);
    const QStringList names{fault};
    QCOMPARE(sayCells(names, live(names)), 0);
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QString task = QString::fromLocal8Bit(argv[argc > 1 ? 1 : 0]);
    const QStringList names = QCoreApplication::arguments().mid(2);
    if (task == QLatin1String("--inside")) {
        liveInside(names);
        return 0;
    }
    if (task == QLatin1String("--cell"))
        return sayCells(names, live(names)) > 0 ? 1 : 0;
    if (task == QLatin1String("--report"))
        return report(names);
    TestFaults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults.moc"
