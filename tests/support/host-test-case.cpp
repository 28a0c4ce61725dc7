#include "host-test-case.h"

void HostTestCase::start(QProcess &host, const QString &program, const QStringList &arguments, Bus bus)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_MESSAGE_PATTERN"_s, "%{type} %{file} %{message}"_s);
    environment.remove("QT_LOGGING_RULES"_s);
    // Qt Core 5.15 leaves objects behind where no event loop ever ran, and some hosts leave their client; what nothing
    // points to any more is found by memcheck.
    environment.insert("ASAN_OPTIONS"_s, environment.value("ASAN_OPTIONS"_s) + ":detect_leaks=0"_s);
    // Code that is compiled at run time looks like a fault to valgrind.
    environment.insert("QV4_FORCE_INTERPRETER"_s, "1"_s);
    if (bus == WithoutBus)
        environment.insert("DBUS_SYSTEM_BUS_ADDRESS"_s, "unix:path=/run/no-bus"_s);
    host.setProcessEnvironment(environment);
    const QStringList command =
        QProcess::splitCommand(environment.value("AUTH_TEST_RUNNER"_s)) + QStringList{program} + arguments;
    host.start(command.first(), command.mid(1));
    if (!host.waitForStarted())
        qFatal("The host does not start: %s", qPrintable(host.errorString()));
}

void HostTestCase::waitReady(QProcess &host)
{
    host.setReadChannel(QProcess::StandardOutput);
    while (!host.canReadLine()) {
        if (!host.waitForReadyRead(300000))
            qFatal("The host does not get ready: %s", host.readAllStandardError().constData());
    }
    if (host.readLine() != "ready\n")
        qFatal("The host writes something else");
}

void HostTestCase::sendQuit(QProcess &host)
{
    const QByteArray instance = QByteArray::number(daemon.request(R"({"do":"state"})").value("instance"_s).toInt());
    while (host.state() == QProcess::Running && !host.waitForFinished(20))
        daemon.emitSignal("Factor", "('quit', @a{sv} {})", "\"instance\":" + instance);
}

void HostTestCase::checkEnd(QProcess &host, int status, const QString &critical)
{
    if (host.state() != QProcess::NotRunning && !host.waitForFinished(300000)) {
        host.kill();
        host.waitForFinished();
        QFAIL(("The host hangs:\n" + host.readAllStandardError()).constData());
    }
    said = QString::fromUtf8(host.readAllStandardError());
    QVERIFY2(host.exitStatus() == QProcess::NormalExit, qPrintable("signal %1:\n%2"_s.arg(host.exitCode()).arg(said)));
    QVERIFY2(host.exitCode() == status,
             qPrintable("%1 instead of %2:\n%3"_s.arg(host.exitCode()).arg(status).arg(said)));

    const QStringList lines = said.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QStringList criticals = lines.filter(QRegularExpression("^(critical|fatal) "_s));
    if (critical.isEmpty()) {
        QCOMPARE(criticals, QStringList());
        // The library's own tell of calls that failed, and QML's of an object that went before it.
        const QStringList others = lines.filter(QRegularExpression(
            "^(warning (?!src/)|qml: )(?!.*: TypeError: Cannot (read property|call method) '\\w+' of null$)"_s));
        QCOMPARE(others, QStringList());
    } else {
        QVERIFY2(criticals.size() == 1, qPrintable(said));
        // Nobody has said before that all is well.
        if (critical == noBus)
            QCOMPARE(lines.first(), criticals.first());
        QVERIFY2(QRegularExpression("^critical src/[a-z-]+\\.cpp "_s + critical + QLatin1Char('$'))
                     .match(criticals.first())
                     .hasMatch(),
                 qPrintable(said));
    }
    QVERIFY2(!said.contains("QObject"_s) && !said.contains("QMutex"_s) && !said.contains("terminate"_s),
             qPrintable(said));
}

void HostTestCase::holdCalls()
{
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod", "GetState"})
        daemon.misbehave(method, "hold");
}

void argumentsRow(const QStringList &arguments)
{
    QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments;
}
