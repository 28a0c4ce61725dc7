#include "test-case.h"

#include <QtQml/QQmlComponent>
#include <QtQml/QQmlContext>
#include <QtQml/QQmlEngine>

/** The module in processes with several engines, and with C++ of their own. */
class TestEngines : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void singletonIsTheObjectOfCpp();
    void singletonIsSharedAndOutlivesItsEngines();
    void objectsGoWithTheirEngine();
    void objectOfCppMayBeShown();
};

namespace {
std::unique_ptr<QObject> made(QQmlEngine *engine, const QByteArray &text)
{
    QQmlComponent component(engine);
    component.setData("import QtQml 2.15\nimport Vantora.Auth 1.0\n" + text, QUrl("test.qml"_s));
    std::unique_ptr<QObject> object(component.create());
    if (!object)
        qFatal("%s", qPrintable(component.errorString()));
    return object;
}
} // namespace

void TestEngines::singletonIsTheObjectOfCpp()
{
    QQmlEngine engine;
    const auto screen = made(&engine, "QtObject { property QtObject settings: AuthSettingsClient }");
    QCOMPARE(screen->property("settings").value<QObject *>(), AuthSettingsClient::get());
    QCOMPARE(QQmlEngine::objectOwnership(AuthSettingsClient::get()), QQmlEngine::CppOwnership);
    QCOMPARE(daemon.peerCount(), 1);
}

void TestEngines::singletonIsSharedAndOutlivesItsEngines()
{
    const QByteArray source = R"(QtObject {
        property int uid: AuthSettingsClient.uid
        function select(uid) { AuthSettingsClient.uid = uid }
    })";
    const QPointer<AuthSettingsClient> settings(AuthSettingsClient::get());
    QTRY_COMPARE_WITH_TIMEOUT(daemon.peerCount(), 1, 60000);
    {
        QQmlEngine one;
        QQmlEngine other;
        auto screen = made(&one, source);
        const auto otherScreen = made(&other, source);
        // QQmlEngine of Qt 5.15 remembers where an object is at home, once.
        QCOMPARE(log->takeComplaints(),
                 QStringList("warning QQmlEngine::setContextForObject(): Object already has a QQmlContext"_s));
        // QQmlEngine does not say where in its sources.
        QCOMPARE(log->takeFaults().size(), 1);
        settings->setUid(1000);
        QCOMPARE(screen->property("uid"), QVariant(1000));
        QCOMPARE(otherScreen->property("uid"), QVariant(1000));
        screen.reset();
        one.collectGarbage();
        other.collectGarbage();
        QVERIFY(settings);
        QMetaObject::invokeMethod(otherScreen.get(), "select", Q_ARG(QVariant, 1001));
        QCOMPARE(settings->uid(), 1001u);
    }
    QVERIFY(settings);
    QCOMPARE(AuthSettingsClient::get(), settings.data());

    QQmlEngine later;
    const auto screen = made(&later, source);
    QCOMPARE(screen->property("uid"), QVariant(1001));
    settings->setUid(0);
    QCOMPARE(screen->property("uid"), QVariant(0));
}

void TestEngines::objectsGoWithTheirEngine()
{
    AuthSettingsClient::get();
    QTRY_COMPARE_WITH_TIMEOUT(daemon.peerCount(), 1, 60000);
    auto engine = std::make_unique<QQmlEngine>();
    auto screen = made(engine.get(), "QtObject { property AuthClient client: AuthClient {} }");
    const QPointer<QObject> client(screen->property("client").value<QObject *>());
    QVERIFY(qobject_cast<AuthClient *>(client));
    QCOMPARE(daemon.peerCount(), 2);
    screen.reset();
    engine.reset();
    QVERIFY(!client);
    QTRY_COMPARE_WITH_TIMEOUT(daemon.peerCount(), 1, 60000);
}

// An AuthClient of C++ has the conversions of QML 5.15, not those of the module's own type.
void TestEngines::objectOfCppMayBeShown()
{
    const auto client = newClient();
    QQmlEngine engine;
    QQmlEngine::setObjectOwnership(client.get(), QQmlEngine::CppOwnership);
    engine.rootContext()->setContextProperty("client"_s, client.get());
    const auto screen = made(&engine, R"(QtObject {
        property bool authenticated: client.authenticated
        property Connections connections: Connections {
            target: client
            function onAuthenticatedChanged(authToken) { length = authToken.byteLength }
        }
        property int length
        Component.onCompleted: {
            client.authenticate("a", { b: new Uint8Array([7]), challenge: "c" });
            client.authenticate("a", AuthParameters.from({ b: new Uint8Array([7]), challenge: "c" }));
        }
    })");
    QCOMPARE(daemon.waitCalls("Authenticate", 2),
             QStringList({"peer /vantora/AuthService vantora.AuthService.Authenticate sa{sv} "
                          "('a', {'b': <{'0': <7>}>, 'challenge': <'c'>})"_s,
                          "peer /vantora/AuthService vantora.AuthService.Authenticate sa{sv} "
                          "('a', {'b': <[byte 0x07]>, 'challenge': <'c'>})"_s}));
    drain(client.get());
    grant(client.get(), "token");
    QCOMPARE(screen->property("authenticated"), QVariant(true));
    QCOMPARE(screen->property("length"), QVariant(5));
}

QTEST_GUILESS_MAIN(TestEngines)

#include "tst_engines.moc"
