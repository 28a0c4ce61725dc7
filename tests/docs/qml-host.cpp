// Loads one QML file, as any QML runtime would.

#include <QtGui/QGuiApplication>
#include <QtQml/QQmlApplicationEngine>

int main(int argc, char **argv)
{
    QGuiApplication application(argc, argv);
    QQmlApplicationEngine engine;
    engine.load(QString::fromLocal8Bit(argv[1]));
    return engine.rootObjects().isEmpty() ? 2 : QCoreApplication::exec();
}
