// A host that shows the settings in QML, and ends:
//     settings-qml-host context|instance|provider ENGINE idle|flight return|exit|loop
// The settings client is a context property, a singleton instance or a singleton that QML asks for. ENGINE says when
// the engine and what it has made are destroyed:
//     before     before the client, which is destroyed when the static objects are
//     unused     the same, but the client is asked for before the engine is there
//     after      when the static objects are, after the client
//     never
// With "loop" it writes "ready", and runs its event loop until the daemon sends the factor signal "quit". The status is
// 3 when the bindings do not show what they should, and 4 when QML has warnings.

#include <AuthSettingsClient>

#include <QtCore/QCoreApplication>
#include <QtQml/QQmlComponent>
#include <QtQml/QQmlContext>
#include <QtQml/QQmlEngine>
#include <QtQml/QtQml>

#include <cstdio>
#include <cstdlib>

namespace {
const char source[] = R"(
import QtQml 2.15
import QtQml.Models 2.15
%1
QtObject {
    id: root
    property int uid: settings.uid
    property bool many: settings.isMultiFactorable
    property bool shown: settings.showNotifications
    property string warning: settings.userWarning
    property int logins: settings.factors.loginFactorsCount
    property string unlock: settings.unlockFactors.join()
    property string names: ""
    property int resets: 0
    property Instantiator rows: Instantiator {
        model: settings.factors
        delegate: QtObject {
            property string line: model.name + (model.enabled ? "+" : "")
            property bool chosen: settings.hasChosenFactor(model.name)
        }
        onObjectAdded: root.names = names + object.line + " "
    }
    property Connections connections: Connections {
        target: settings.factors
        function onModelReset() { ++resets }
    }
}
)";

struct Screen
{
    QQmlEngine engine;
    QObject *root = nullptr;
    int warnings = 0;
    int resets = 0;

    Screen()
    {
        QObject::connect(&engine, &QQmlEngine::warnings, &engine, [this] { ++warnings; });
    }

    ~Screen()
    {
        delete root;
    }

    bool show(const QByteArray &exposure)
    {
        QByteArray text(source);
        if (exposure == "context") {
            QQmlEngine::setObjectOwnership(AuthSettingsClient::get(), QQmlEngine::CppOwnership);
            engine.rootContext()->setContextProperty(QStringLiteral("settings"), AuthSettingsClient::get());
            text.replace("%1", "");
        } else {
            if (exposure == "instance")
                qmlRegisterSingletonInstance("Test", 1, 0, "Settings", AuthSettingsClient::get());
            else
                qmlRegisterSingletonType<AuthSettingsClient>(
                    "Test", 1, 0, "Settings", [](QQmlEngine *, QJSEngine *) -> QObject * {
                        QQmlEngine::setObjectOwnership(AuthSettingsClient::get(), QQmlEngine::CppOwnership);
                        return AuthSettingsClient::get();
                    });
            text.replace("%1", "import Test 1.0").replace("settings.", "Settings.");
        }
        QQmlComponent component(&engine);
        component.setData(text, QUrl());
        root = component.create();
        if (!root) {
            fprintf(stderr, "qml: %s\n", qPrintable(component.errorString()));
            return false;
        }
        return true;
    }

    bool isRight() const
    {
        const AuthSettingsClient *client = AuthSettingsClient::get();
        return root->property("uid") == client->uid() && root->property("shown") == client->showNotifications()
            && root->property("many") == client->isMultiFactorable()
            && root->property("warning") == client->userWarning()
            && root->property("logins") == client->factors()->loginFactorsCount()
            && root->property("rows").value<QObject *>()->property("count") == client->factors()->rowCount()
            && root->property("resets").toInt() == resets;
    }
};

Screen *leaked = nullptr;

int live(Screen &screen, const QByteArray &exposure, bool flight, const QByteArray &end)
{
    if (!screen.show(exposure))
        return 3;
    AuthSettingsClient *client = AuthSettingsClient::get();
    client->setUid(1000);
    if (!screen.isRight() || screen.root->property("uid") != 1000
        || screen.root->property("names") != QStringLiteral("code smartcard sudis broken slow "))
        return 3;
    QObject::connect(client->factors(), &QAbstractItemModel::modelReset, [&screen] { ++screen.resets; });
    if (flight) {
        const QVariantMap params{{QStringLiteral("challenge"), 1}};
        client->authenticate(QStringLiteral("login"), params);
        client->unlockIfNeeded();
        client->factorMethod(params, QStringLiteral("code"), [](const QVariant &) {});
    }
    if (end == "loop") {
        QObject::connect(client, &AuthClient::factorSignal, [](const QString &factor) {
            if (factor == QLatin1String("quit"))
                QCoreApplication::quit();
        });
        puts("ready");
        fflush(stdout);
        QCoreApplication::exec();
        if (!screen.isRight())
            return 3;
    }
    if (screen.warnings)
        return 4;
    if (end == "exit")
        std::exit(0);
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
        return 2;
    const QByteArray exposure(argv[1]);
    const QByteArray order(argv[2]);
    const bool flight = QByteArray(argv[3]) == "flight";
    static QCoreApplication application(argc, argv);
    if (order == "after") {
        static Screen screen;
        return live(screen, exposure, flight, argv[4]);
    }
    if (order == "never") {
        leaked = new Screen;
        return live(*leaked, exposure, flight, argv[4]);
    }
    if (order == "unused")
        AuthSettingsClient::get();
    Screen screen;
    return live(screen, exposure, flight, argv[4]);
}
