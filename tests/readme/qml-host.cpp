// Loads one QML file, with the library's classes registered as the README says.

#include <AuthClient>

#include <QtCore/QCoreApplication>
#include <QtQml/QQmlApplicationEngine>
#include <QtQml/QtQml>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qmlRegisterType<AuthClient>("Vantora.Auth", 1, 0, "AuthClient");

    QQmlApplicationEngine engine;
    engine.load(QString::fromLocal8Bit(argv[1]));
    return engine.rootObjects().isEmpty() ? 2 : QCoreApplication::exec();
}
