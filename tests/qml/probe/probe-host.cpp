// Runs the QML that it is given, not the name of a file of it.

#include <QtCore/QCoreApplication>
#include <QtQml/QQmlApplicationEngine>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QQmlApplicationEngine engine;
    engine.loadData(argv[1]);
    return engine.rootObjects().isEmpty() ? 2 : QCoreApplication::exec();
}
