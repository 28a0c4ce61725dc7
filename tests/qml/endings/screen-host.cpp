// A screen in QML that ends: screen-host close|quit|exit|engine|never idle|flight
//     close   its window is closed
//     quit    Qt.quit()
//     exit    Qt.exit(7)
//     engine  its engine is destroyed, and the application lives on for a while
//     never   its engine is left to the end of the process
// It writes "ready" when it is up.

#include <QtCore/QTimer>
#include <QtGui/QGuiApplication>
#include <QtQml/QQmlApplicationEngine>

#include <cstdio>
#include <memory>

class Host : public QObject
{
    Q_OBJECT

public:
    QQmlApplicationEngine *engine = nullptr;

public Q_SLOTS:
    void sayReady()
    {
        puts("ready");
        fflush(stdout);
    }

    void endEngine()
    {
        // Not from inside of what it runs.
        QTimer::singleShot(0, qApp, [this] {
            delete engine;
            engine = nullptr;
            QTimer::singleShot(0, qApp, [] { QCoreApplication::quit(); });
        });
    }
};

int main(int argc, char **argv)
{
    QGuiApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3)
        return 2;
    Host host;
    host.engine = new QQmlApplicationEngine;
    host.engine->setInitialProperties({
        {QStringLiteral("ending"), arguments.at(1)},
        {QStringLiteral("flight"), arguments.at(2) == QLatin1String("flight")},
    });
    // The daemon's answer may be there before load() returns.
    QObject::connect(host.engine, &QQmlApplicationEngine::objectCreated, &host, [&host](QObject *screen) {
        if (!screen)
            return QCoreApplication::exit(2);
        QObject::connect(screen, SIGNAL(ready()), &host, SLOT(sayReady()));
        QObject::connect(screen, SIGNAL(engineDone()), &host, SLOT(endEngine()));
    });
    host.engine->load(QUrl(QStringLiteral("qrc:/Ending.qml")));
    const int status = QCoreApplication::exec();
    if (arguments.at(1) != QLatin1String("never"))
        delete host.engine;
    return status;
}

#include "screen-host.moc"
